#include "tfjs_model.h"

#include <google/protobuf/util/json_util.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

namespace minitf {
namespace tfjs {
namespace {

using nlohmann::json;

Status ReadFile(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return NotFound("cannot open ", path);
  std::ostringstream buf;
  buf << in.rdbuf();
  if (in.bad()) return InvalidArgument("cannot read ", path);
  *out = buf.str();
  return Status::OK();
}

std::string DirName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// The manifest writes int64 values either as numbers or as strings.
Status JsonInt(const json& v, const std::string& what, int64_t* out) {
  if (v.is_number_integer()) {
    *out = v.get<int64_t>();
    return Status::OK();
  }
  if (v.is_string()) {
    const std::string s = v.get<std::string>();
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(s.c_str(), &end, 10);
    if (!s.empty() && end == s.c_str() + s.size() && errno == 0) {
      *out = parsed;
      return Status::OK();
    }
  }
  return InvalidArgument(what, " is not an integer: ", v.dump());
}

Status JsonNumber(const json& v, const std::string& what, double* out) {
  if (!v.is_number()) return InvalidArgument(what, " is not a number: ", v.dump());
  *out = v.get<double>();
  if (!std::isfinite(*out)) return InvalidArgument(what, " is not finite");
  return Status::OK();
}

Status DtypeFromManifest(const std::string& name, pb::DataType* out) {
  if (name == "float32") *out = pb::DT_FLOAT;
  else if (name == "int32") *out = pb::DT_INT32;
  else if (name == "bool") *out = pb::DT_BOOL;
  else return Unimplemented("weight dtype '", name, "' is not supported");
  return Status::OK();
}

Status ParseWeightSpec(const json& w, WeightSpec* spec) {
  if (!w.is_object() || !w.contains("name") || !w["name"].is_string()) {
    return InvalidArgument("weights manifest entry without a name: ", w.dump().substr(0, 200));
  }
  spec->name = w["name"].get<std::string>();
  const std::string where = "weight '" + spec->name + "'";
  if (!w.contains("dtype") || !w["dtype"].is_string()) {
    return InvalidArgument(where, " has no dtype");
  }
  MINITF_RETURN_IF_ERROR(DtypeFromManifest(w["dtype"].get<std::string>(), &spec->dtype));
  if (!w.contains("shape") || !w["shape"].is_array()) {
    return InvalidArgument(where, " has no shape");
  }
  int64_t elements = 1;
  for (const json& d : w["shape"]) {
    int64_t dim = 0;
    MINITF_RETURN_IF_ERROR(JsonInt(d, where + " dimension", &dim));
    if (dim < 0 || dim > kMaxWeightElements) {
      return InvalidArgument(where, " has an invalid dimension ", dim);
    }
    elements *= dim;  // both factors <= 2^31, so no overflow before the check
    if (elements > kMaxWeightElements) {
      return InvalidArgument(where, " has more than ", kMaxWeightElements, " elements");
    }
    spec->shape.push_back(dim);
  }
  if (w.contains("quantization") && !w["quantization"].is_null()) {
    const json& q = w["quantization"];
    if (!q.is_object() || !q.contains("dtype") || !q["dtype"].is_string()) {
      return InvalidArgument(where, " has a malformed quantization entry");
    }
    spec->quantization = q["dtype"].get<std::string>();
    if (spec->quantization == "uint8" || spec->quantization == "uint16") {
      if (!q.contains("scale") || !q.contains("min")) {
        return InvalidArgument(where, " is ", spec->quantization, "-quantised without scale and min");
      }
      MINITF_RETURN_IF_ERROR(JsonNumber(q["scale"], where + " scale", &spec->scale));
      MINITF_RETURN_IF_ERROR(JsonNumber(q["min"], where + " min", &spec->min));
      if (spec->dtype == pb::DT_BOOL) {
        return InvalidArgument(where, " is a quantised bool");
      }
    } else if (spec->quantization == "float16") {
      if (spec->dtype != pb::DT_FLOAT) {
        return InvalidArgument(where, " is float16-quantised but not float32");
      }
    } else {
      return Unimplemented(where, " uses quantization '", spec->quantization, "'");
    }
  }
  return Status::OK();
}

int64_t ElementCount(const std::vector<int64_t>& shape) {
  int64_t n = 1;
  for (int64_t d : shape) n *= d;
  return n;
}

size_t StoredElementSize(const WeightSpec& spec) {
  if (spec.quantization == "uint8") return 1;
  if (spec.quantization == "uint16" || spec.quantization == "float16") return 2;
  return spec.dtype == pb::DT_BOOL ? 1 : 4;
}

template <typename T>
T LoadLittle(const char* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));  // the machines we build for are little-endian
  return v;
}

// The node's JSON with TF.js's own extras removed; everything else must be
// a valid NodeDef.
Status ParseNode(const json& node, pb::NodeDef* out) {
  if (!node.is_object()) return InvalidArgument("topology node is not an object");
  json copy = node;
  // TF.js keeps these for its own debugging; they are not part of NodeDef.
  copy.erase("experimentalDebugInfo");
  copy.erase("experimental_debug_info");
  copy.erase("experimentalType");
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = false;
  const auto status = google::protobuf::util::JsonStringToMessage(copy.dump(), out, options);
  if (!status.ok()) {
    const std::string name = node.contains("name") && node["name"].is_string()
                                 ? node["name"].get<std::string>()
                                 : std::string("?");
    return InvalidArgument("node '", name, "' is not a valid NodeDef: ", status.ToString());
  }
  if (out->name().empty() || out->op().empty()) {
    return InvalidArgument("topology node without a name or op: ", node.dump().substr(0, 200));
  }
  return Status::OK();
}

void SignatureNames(const json& sig, const char* key, std::vector<std::string>* out) {
  if (!sig.is_object() || !sig.contains(key) || !sig[key].is_object()) return;
  for (const auto& [alias, info] : sig[key].items()) {
    if (info.is_object() && info.contains("name") && info["name"].is_string()) {
      out->push_back(info["name"].get<std::string>());
    } else {
      out->push_back(alias);
    }
  }
}

Status ParseJson(const std::string& text, json* out) {
  *out = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (out->is_discarded()) return InvalidArgument("model.json is not valid JSON");
  if (!out->is_object()) return InvalidArgument("model.json is not a JSON object");
  return Status::OK();
}

Status ManifestGroups(const json& model, const json** groups) {
  if (!model.contains("weightsManifest") || !model["weightsManifest"].is_array()) {
    return InvalidArgument("model.json has no weightsManifest array");
  }
  *groups = &model["weightsManifest"];
  return Status::OK();
}

Status ParseModelImpl(const std::string& json_text, const std::vector<std::string>& shards,
                      TfjsModel* model) {
  json root;
  MINITF_RETURN_IF_ERROR(ParseJson(json_text, &root));
  if (root.contains("format") && root["format"].is_string() &&
      root["format"].get<std::string>() != "graph-model") {
    return Unimplemented("model format '", root["format"].get<std::string>(),
                         "' is not a graph model");
  }
  if (!root.contains("modelTopology") || !root["modelTopology"].is_object() ||
      !root["modelTopology"].contains("node") || !root["modelTopology"]["node"].is_array()) {
    return InvalidArgument("model.json has no modelTopology.node array");
  }
  const json& topology = root["modelTopology"];
  if (topology.contains("library") && topology["library"].is_object() &&
      topology["library"].contains("function") && !topology["library"]["function"].empty()) {
    return Unimplemented("graph functions (control flow) are not supported");
  }
  for (const json& node : topology["node"]) {
    MINITF_RETURN_IF_ERROR(ParseNode(node, model->graph.add_node()));
  }
  if (topology.contains("versions") && topology["versions"].is_object()) {
    const json& v = topology["versions"];
    int64_t value = 0;
    if (v.contains("producer")) {
      MINITF_RETURN_IF_ERROR(JsonInt(v["producer"], "versions.producer", &value));
      model->graph.mutable_versions()->set_producer(static_cast<int32_t>(value));
    }
    if (v.contains("minConsumer")) {
      MINITF_RETURN_IF_ERROR(JsonInt(v["minConsumer"], "versions.minConsumer", &value));
      model->graph.mutable_versions()->set_min_consumer(static_cast<int32_t>(value));
    }
  }

  const json* groups = nullptr;
  MINITF_RETURN_IF_ERROR(ManifestGroups(root, &groups));
  std::string data;
  size_t total = 0;
  for (const std::string& s : shards) total += s.size();
  data.reserve(total);
  for (const std::string& s : shards) data += s;
  size_t offset = 0;
  for (const json& group : *groups) {
    if (!group.is_object() || !group.contains("weights") || !group["weights"].is_array()) {
      return InvalidArgument("weightsManifest group without a weights array");
    }
    for (const json& w : group["weights"]) {
      WeightSpec spec;
      MINITF_RETURN_IF_ERROR(ParseWeightSpec(w, &spec));
      pb::TensorProto tensor;
      MINITF_RETURN_IF_ERROR(DecodeWeight(spec, data, &offset, &tensor));
      if (!model->weights.emplace(spec.name, std::move(tensor)).second) {
        return InvalidArgument("weight '", spec.name, "' appears twice in the manifest");
      }
    }
  }

  const json* sig = nullptr;
  if (root.contains("signature")) sig = &root["signature"];
  else if (root.contains("userDefinedMetadata") && root["userDefinedMetadata"].is_object() &&
           root["userDefinedMetadata"].contains("signature")) {
    sig = &root["userDefinedMetadata"]["signature"];
  }
  if (sig != nullptr) {
    SignatureNames(*sig, "inputs", &model->signature_inputs);
    SignatureNames(*sig, "outputs", &model->signature_outputs);
  }
  return Status::OK();
}

}  // namespace

float HalfToFloat(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t exponent = (h >> 10) & 0x1fu;
  uint32_t mantissa = h & 0x3ffu;
  uint32_t bits = 0;
  if (exponent == 0x1f) {
    bits = sign | 0x7f800000u | (mantissa << 13);  // inf or NaN, payload kept
  } else if (exponent != 0) {
    bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
  } else if (mantissa != 0) {
    // Subnormal half: normalise into a float exponent.
    int shift = 0;
    while ((mantissa & 0x400u) == 0) {
      mantissa <<= 1;
      ++shift;
    }
    mantissa &= 0x3ffu;
    bits = sign | (static_cast<uint32_t>(113 - shift) << 23) | (mantissa << 13);
  } else {
    bits = sign;
  }
  float f;
  std::memcpy(&f, &bits, sizeof(f));
  return f;
}

Status DecodeWeight(const WeightSpec& spec, const std::string& data, size_t* offset,
                    pb::TensorProto* out) {
  const int64_t n = ElementCount(spec.shape);
  const size_t stored = StoredElementSize(spec);
  const size_t need = static_cast<size_t>(n) * stored;  // n <= 2^31, stored <= 4
  if (*offset > data.size() || need > data.size() - *offset) {
    return InvalidArgument("weight '", spec.name, "' needs ", need, " bytes at offset ", *offset,
                           ", but the shards hold ", data.size(), " bytes");
  }
  const char* p = data.data() + *offset;
  out->Clear();
  out->set_dtype(spec.dtype);
  for (int64_t d : spec.shape) out->mutable_tensor_shape()->add_dim()->set_size(d);
  std::string content;
  if (spec.quantization.empty()) {
    content.assign(p, need);
    if (spec.dtype == pb::DT_BOOL) {
      for (char& c : content) c = c != 0 ? 1 : 0;
    }
  } else {
    content.resize(static_cast<size_t>(n) * 4);
    for (int64_t i = 0; i < n; ++i) {
      double v = 0;
      if (spec.quantization == "float16") {
        v = HalfToFloat(LoadLittle<uint16_t>(p + 2 * i));
      } else {
        const double q = spec.quantization == "uint8"
                             ? static_cast<double>(static_cast<uint8_t>(p[i]))
                             : static_cast<double>(LoadLittle<uint16_t>(p + 2 * i));
        v = q * spec.scale + spec.min;
      }
      if (spec.dtype == pb::DT_INT32) {
        // Halves round up, as JavaScript's Math.round does in TF.js.
        const double r = std::floor(v + 0.5);
        if (!(r >= std::numeric_limits<int32_t>::min() && r <= std::numeric_limits<int32_t>::max())) {
          return InvalidArgument("weight '", spec.name, "' dequantises to ", v,
                                 ", outside int32");
        }
        const int32_t iv = static_cast<int32_t>(r);
        std::memcpy(&content[4 * i], &iv, 4);
      } else {
        const float fv = static_cast<float>(v);
        std::memcpy(&content[4 * i], &fv, 4);
      }
    }
  }
  out->set_tensor_content(std::move(content));
  *offset += need;
  return Status::OK();
}

Status ShardPaths(const std::string& json_text, std::vector<std::string>* paths) {
  json root;
  MINITF_RETURN_IF_ERROR(ParseJson(json_text, &root));
  const json* groups = nullptr;
  MINITF_RETURN_IF_ERROR(ManifestGroups(root, &groups));
  for (const json& group : *groups) {
    if (!group.is_object() || !group.contains("paths") || !group["paths"].is_array()) {
      return InvalidArgument("weightsManifest group without a paths array");
    }
    for (const json& p : group["paths"]) {
      if (!p.is_string()) return InvalidArgument("weightsManifest path is not a string");
      const std::string path = p.get<std::string>();
      // Shards live beside model.json; a path that climbs out is refused.
      if (path.empty() || path[0] == '/' || path.find("..") != std::string::npos) {
        return InvalidArgument("weightsManifest path '", path, "' leaves the model folder");
      }
      paths->push_back(path);
    }
  }
  return Status::OK();
}

Status ParseTfjsModel(const std::string& json_text, const std::vector<std::string>& shards,
                      TfjsModel* model) {
  *model = TfjsModel();
  // nlohmann's accessors throw on a type they were not checked for; any such
  // path is a malformed file, reported like the checked ones.
  try {
    return ParseModelImpl(json_text, shards, model);
  } catch (const std::exception& e) {
    return InvalidArgument("malformed model.json: ", e.what());
  }
}

Status LoadTfjsModel(const std::string& json_path, TfjsModel* model) {
  std::string text;
  MINITF_RETURN_IF_ERROR(ReadFile(json_path, &text));
  std::vector<std::string> paths;
  MINITF_RETURN_IF_ERROR(ShardPaths(text, &paths));
  const std::string dir = DirName(json_path);
  std::vector<std::string> shards(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    MINITF_RETURN_IF_ERROR(ReadFile(dir + "/" + paths[i], &shards[i]));
  }
  return ParseTfjsModel(text, shards, model);
}

}  // namespace tfjs
}  // namespace minitf
