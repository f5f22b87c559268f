#include "graph_edit.h"

#include <cstring>
#include <map>

namespace minitf {
namespace tfjs {
namespace {

// "x:0" and "x" are the same tensor.
std::string CanonicalTensor(const std::string& input) {
  if (input.size() > 2 && input.compare(input.size() - 2, 2, ":0") == 0) {
    return input.substr(0, input.size() - 2);
  }
  return input;
}

template <typename T>
pb::TensorProto MakeTensor(pb::DataType dtype, const std::vector<int64_t>& shape,
                           const std::vector<T>& values) {
  pb::TensorProto t;
  t.set_dtype(dtype);
  for (int64_t d : shape) t.mutable_tensor_shape()->add_dim()->set_size(d);
  std::string bytes(values.size() * sizeof(T), '\0');
  if (!values.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  t.set_tensor_content(bytes);
  return t;
}

}  // namespace

void SetAttrType(pb::NodeDef* node, const std::string& name, pb::DataType type) {
  (*node->mutable_attr())[name].set_type(type);
}
void SetAttrInt(pb::NodeDef* node, const std::string& name, int64_t value) {
  (*node->mutable_attr())[name].set_i(value);
}
void SetAttrFloat(pb::NodeDef* node, const std::string& name, float value) {
  (*node->mutable_attr())[name].set_f(value);
}
void SetAttrBool(pb::NodeDef* node, const std::string& name, bool value) {
  (*node->mutable_attr())[name].set_b(value);
}
void SetAttrString(pb::NodeDef* node, const std::string& name, const std::string& value) {
  (*node->mutable_attr())[name].set_s(value);
}
void SetAttrInts(pb::NodeDef* node, const std::string& name, const std::vector<int64_t>& values) {
  auto* list = (*node->mutable_attr())[name].mutable_list();
  list->clear_i();
  for (int64_t v : values) list->add_i(v);
}

pb::TensorProto FloatTensor(const std::vector<int64_t>& shape, const std::vector<float>& values) {
  return MakeTensor(pb::DT_FLOAT, shape, values);
}
pb::TensorProto IntTensor(const std::vector<int64_t>& shape, const std::vector<int32_t>& values) {
  return MakeTensor(pb::DT_INT32, shape, values);
}

std::string InputNode(const std::string& input) {
  std::string name = !input.empty() && input[0] == '^' ? input.substr(1) : input;
  const size_t colon = name.find(':');
  return colon == std::string::npos ? name : name.substr(0, colon);
}

GraphEditor::GraphEditor(pb::GraphDef* graph) : graph_(graph) {
  for (const pb::NodeDef& n : graph_->node()) names_.insert(n.name());
}

std::string GraphEditor::FreshName(const std::string& base) {
  auto taken = [&](const std::string& n) { return names_.count(n) || reserved_.count(n); };
  if (!taken(base)) return base;
  for (int i = 1;; ++i) {
    std::string candidate = base + "_" + std::to_string(i);
    if (!taken(candidate)) return candidate;
  }
}

pb::NodeDef* GraphEditor::FindNode(const std::string& name) {
  for (pb::NodeDef& n : *graph_->mutable_node()) {
    if (n.name() == name) return &n;
  }
  return nullptr;
}

pb::NodeDef* GraphEditor::Add(const std::string& op, const std::string& name,
                              const std::vector<std::string>& inputs) {
  pb::NodeDef* node = graph_->add_node();
  node->set_name(FreshName(name));
  node->set_op(op);
  for (const std::string& in : inputs) node->add_input(in);
  names_.insert(node->name());
  return node;
}

pb::NodeDef* GraphEditor::AddTyped(const std::string& op, const std::string& name,
                                   const std::vector<std::string>& inputs, pb::DataType type) {
  pb::NodeDef* node = Add(op, name, inputs);
  SetAttrType(node, "T", type);
  return node;
}

pb::NodeDef* GraphEditor::AddConst(const std::string& name, const pb::TensorProto& value) {
  pb::NodeDef* node = Add("Const", name, {});
  SetAttrType(node, "dtype", value.dtype());
  *(*node->mutable_attr())["value"].mutable_tensor() = value;
  return node;
}

pb::NodeDef* GraphEditor::AddPlaceholder(const std::string& name, pb::DataType type,
                                         const std::vector<int64_t>& shape) {
  pb::NodeDef* node = Add("Placeholder", name, {});
  SetAttrType(node, "dtype", type);
  auto* s = (*node->mutable_attr())["shape"].mutable_shape();
  for (int64_t d : shape) s->add_dim()->set_size(d);
  return node;
}

Status GraphEditor::Remove(const std::string& name, pb::NodeDef* removed) {
  auto* nodes = graph_->mutable_node();
  for (int i = 0; i < nodes->size(); ++i) {
    if (nodes->Get(i).name() != name) continue;
    *removed = nodes->Get(i);
    nodes->DeleteSubrange(i, 1);
    names_.erase(name);
    reserved_.insert(name);
    return Status::OK();
  }
  return NotFound("no node '", name, "' to remove");
}

Status GraphEditor::Rename(const std::string& from, const std::string& to) {
  if (from == to) return Status::OK();
  if (names_.count(to)) return InvalidArgument("cannot rename '", from, "': '", to, "' exists");
  pb::NodeDef* node = FindNode(from);
  if (node == nullptr) return NotFound("no node '", from, "' to rename");
  node->set_name(to);
  names_.erase(from);
  names_.insert(to);
  reserved_.erase(to);
  for (pb::NodeDef& n : *graph_->mutable_node()) {
    for (std::string& in : *n.mutable_input()) {
      if (InputNode(in) != from) continue;
      const bool control = !in.empty() && in[0] == '^';
      const size_t colon = in.find(':');
      in = (control ? "^" : "") + to + (colon == std::string::npos ? "" : in.substr(colon));
    }
  }
  return Status::OK();
}

void GraphEditor::Rewire(const std::string& from, const std::string& to,
                         const std::set<std::string>& keep) {
  const std::string target = CanonicalTensor(from);
  for (pb::NodeDef& n : *graph_->mutable_node()) {
    if (keep.count(n.name())) continue;
    for (std::string& in : *n.mutable_input()) {
      if (!in.empty() && in[0] != '^' && CanonicalTensor(in) == target) in = to;
    }
  }
}

void GraphEditor::Prune(const std::vector<std::string>& roots) {
  std::map<std::string, const pb::NodeDef*> by_name;
  for (const pb::NodeDef& n : graph_->node()) by_name[n.name()] = &n;
  std::set<std::string> live;
  std::vector<std::string> stack;
  for (const std::string& r : roots) stack.push_back(InputNode(r));
  while (!stack.empty()) {
    const std::string name = stack.back();
    stack.pop_back();
    auto it = by_name.find(name);
    if (it == by_name.end() || !live.insert(name).second) continue;
    for (const std::string& in : it->second->input()) stack.push_back(InputNode(in));
  }
  pb::GraphDef kept;
  *kept.mutable_versions() = graph_->versions();
  for (const pb::NodeDef& n : graph_->node()) {
    if (live.count(n.name())) *kept.add_node() = n;
  }
  graph_->Swap(&kept);
  names_ = live;
}

}  // namespace tfjs
}  // namespace minitf
