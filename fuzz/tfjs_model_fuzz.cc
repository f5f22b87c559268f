// Arbitrary model.json text and one weights shard (split at the first NUL
// byte) through the TF.js reader and, when that accepts them, the converter.
#include <cstddef>
#include <cstdint>

#include <google/protobuf/stubs/logging.h>
#include <cstring>
#include <string>
#include <vector>

#include "converter.h"
#include "tfjs_model.h"

// Protobuf logs every malformed string field; at fuzzing speed that is noise.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  google::protobuf::SetLogHandler(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const void* nul = std::memchr(text, '\0', size);
  const size_t json_size = nul ? static_cast<const char*>(nul) - text : size;
  const std::string json(text, json_size);
  std::vector<std::string> shards;
  if (nul != nullptr) shards.emplace_back(text + json_size + 1, size - json_size - 1);

  std::vector<std::string> paths;
  (void)minitf::tfjs::ShardPaths(json, &paths);
  minitf::tfjs::TfjsModel model;
  if (!minitf::tfjs::ParseTfjsModel(json, shards, &model).ok()) return 0;
  minitf::pb::GraphDef graph;
  (void)minitf::tfjs::ConvertTfjsModel(model, minitf::tfjs::ConvertOptions{}, &graph);
  return 0;
}
