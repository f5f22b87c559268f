// opencv_worker: one converted model in OpenCV's DNN module, timed on
// request; the peer runtime of the model benchmark.
//
//   opencv_worker graph.pb meta.json THREADS
//
// Same protocol as minitf_worker ("run" prints milliseconds, "quit" ends),
// except that "info" is not offered. Prints "refused: why" and exits with 3
// when OpenCV cannot import or run the graph. Only single-input models with
// a float32, int32 or uint8 NHWC input are offered to it (as floats).
//
// A separate process, and not part of minitf_worker, because OpenCV carries
// its own copy of TensorFlow's .proto files, which cannot be registered
// twice in one process.
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/dnn.hpp>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "nchw_blob.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream buf;
  buf << in.rdbuf();
  return buf.str();
}

int Refuse(const std::string& why) {
  std::cout << "refused: " << why << std::endl;
  return 3;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: opencv_worker graph.pb meta.json THREADS\n");
    return 2;
  }
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  cv::setNumThreads(std::atoi(argv[3]));
  const std::string meta_path = argv[2];
  const nlohmann::json meta = nlohmann::json::parse(ReadFile(meta_path), nullptr, false);
  if (meta.is_discarded() || meta["inputs"].size() != 1) return Refuse("not a one-input model");
  const nlohmann::json& input = meta["inputs"][0];
  const std::vector<int> shape = input["shape"].get<std::vector<int>>();
  if (shape.size() != 4) return Refuse("input is not NHWC");
  const std::string raw =
      ReadFile(meta_path.substr(0, meta_path.rfind('/') + 1) + input["file"].get<std::string>());
  const int n = shape[0], h = shape[1], w = shape[2], c = shape[3];
  const size_t count = static_cast<size_t>(n) * h * w * c;
  const size_t element_bytes = input["dtype"] == "uint8" ? 1 : 4;
  if (raw.size() != count * element_bytes) return Refuse("input file size");
  std::vector<float> nhwc(count);
  if (input["dtype"] == "uint8") {
    const uint8_t* v = reinterpret_cast<const uint8_t*>(raw.data());
    for (size_t i = 0; i < count; ++i) nhwc[i] = static_cast<float>(v[i]);
  } else if (input["dtype"] == "int32") {
    const int32_t* v = reinterpret_cast<const int32_t*>(raw.data());
    for (size_t i = 0; i < count; ++i) nhwc[i] = static_cast<float>(v[i]);
  } else {
    std::memcpy(nhwc.data(), raw.data(), raw.size());
  }
  const cv::Mat blob = NchwBlob(nhwc.data(), n, h, w, c);

  cv::dnn::Net net;
  std::vector<std::string> outputs;
  std::vector<cv::Mat> results;
  try {
    net = cv::dnn::readNetFromTensorflow(argv[1]);
    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    // OpenCV folds Identity nodes, so the model's output names may be gone;
    // its unconnected layers are the same outputs.
    outputs = net.getUnconnectedOutLayersNames();
    net.setInput(blob);
    net.forward(results, outputs);  // also the warm-up
  } catch (const cv::Exception& e) {
    return Refuse(e.what());
  }
  std::cout << "ready" << std::endl;
  std::string command;
  while (std::getline(std::cin, command)) {
    if (command == "run") {
      const auto start = std::chrono::steady_clock::now();
      net.setInput(blob);
      net.forward(results, outputs);
      const auto end = std::chrono::steady_clock::now();
      std::cout << std::chrono::duration<double, std::milli>(end - start).count() << std::endl;
    } else if (command == "quit") {
      break;
    } else {
      std::cout << "error unknown command" << std::endl;
    }
  }
  return 0;
}
