// Prints minitf's registered ops as a markdown table, straight from the op
// registry, so the documentation cannot drift from the runtime.
//   minitf_ops            the table
#include <iostream>
#include <string>
#include <vector>

#include "op_registry.h"
#include "types.h"

namespace {

std::string Join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) out += (i ? separator : "") + parts[i];
  return out;
}

std::string Args(const std::vector<minitf::ArgDef>& args) {
  std::vector<std::string> parts;
  for (const minitf::ArgDef& a : args) {
    std::string type;
    if (a.fixed_type != minitf::kInvalidType) type = minitf::DataTypeName(a.fixed_type);
    else if (!a.number_attr.empty()) type = a.number_attr + " × " + a.type_attr;
    else if (!a.type_attr.empty()) type = a.type_attr;
    else type = a.type_list_attr;
    parts.push_back("`" + a.name + "`: " + type);
  }
  return parts.empty() ? "—" : Join(parts, ", ");
}

// Type attributes with their allowed types: what a graph may feed the op.
std::string Types(const minitf::OpDef& def) {
  std::vector<std::string> parts;
  for (const minitf::AttrDef& a : def.attrs()) {
    if (a.kind != minitf::AttrKind::kType || a.allowed_types.empty()) continue;
    std::vector<std::string> names;
    for (minitf::DataType t : a.allowed_types) names.push_back(minitf::DataTypeName(t));
    parts.push_back(a.name + " ∈ {" + Join(names, ", ") + "}");
  }
  return parts.empty() ? "—" : Join(parts, "; ");
}

std::string OtherAttrs(const minitf::OpDef& def) {
  std::vector<std::string> names;
  for (const minitf::AttrDef& a : def.attrs()) {
    if (a.kind == minitf::AttrKind::kType && !a.allowed_types.empty()) continue;
    names.push_back("`" + a.name + "`");
  }
  return names.empty() ? "—" : Join(names, ", ");
}

}  // namespace

int main(int argc, char**) {
  if (argc != 1) {
    std::cerr << "usage: minitf_ops  (prints the registered ops as a markdown table)\n";
    return 2;
  }
  const minitf::OpRegistry& registry = minitf::OpRegistry::Global();
  const std::vector<std::string> names = registry.OpNames();
  std::cout << "| Op | Inputs | Outputs | Types | Other attributes |\n"
            << "|---|---|---|---|---|\n";
  for (const std::string& name : names) {
    const minitf::OpRegistration* op = registry.Find(name);
    if (op == nullptr) continue;
    const minitf::OpDef& def = op->def;
    std::cout << "| " << name << " | " << Args(def.inputs()) << " | " << Args(def.outputs())
              << " | " << Types(def) << " | " << OtherAttrs(def) << " |\n";
  }
  std::cout << "\n" << names.size() << " ops.\n";
  return 0;
}
