// opencv_dnn_run: runs a frozen GraphDef through OpenCV's DNN module, a
// second runtime to cross-check minitf against.
//
//   opencv_dnn_run graph.pb input.bin N H W C out_prefix layer...
//
// input.bin holds N*H*W*C float32 values in TensorFlow's NHWC order. Each
// requested layer's output is written to out_prefix<k>.bin in TensorFlow's
// order (4-D results are turned back from OpenCV's NCHW to NHWC), and its
// shape is printed as "k: d0 d1 ...". Exit status 3 when OpenCV refuses the
// graph.
//
// This is a separate process on purpose: OpenCV compiles its own copy of
// TensorFlow's .proto files under the same file names as minitf's schema, and
// protobuf aborts when one process registers both.
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/dnn.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "nchw_blob.h"

int main(int argc, char** argv) {
  if (argc < 9) {
    std::fprintf(stderr, "usage: opencv_dnn_run graph.pb input.bin N H W C out_prefix layer...\n");
    return 2;
  }
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);
  const int n = std::atoi(argv[3]), h = std::atoi(argv[4]), w = std::atoi(argv[5]),
            c = std::atoi(argv[6]);
  if (n <= 0 || h <= 0 || w <= 0 || c <= 0) {
    std::fprintf(stderr, "opencv_dnn_run: bad input shape\n");
    return 2;
  }
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream buf;
  buf << in.rdbuf();
  const std::string raw = buf.str();
  const size_t count = static_cast<size_t>(n) * h * w * c;
  if (raw.size() != count * sizeof(float)) {
    std::fprintf(stderr, "opencv_dnn_run: %s holds %zu bytes, expected %zu\n", argv[2], raw.size(),
                 count * sizeof(float));
    return 2;
  }
  const cv::Mat blob = NchwBlob(reinterpret_cast<const float*>(raw.data()), n, h, w, c);

  std::vector<std::string> layers(argv + 8, argv + argc);
  std::vector<cv::Mat> outs;
  try {
    cv::dnn::Net net = cv::dnn::readNetFromTensorflow(argv[1]);
    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net.setInput(blob);
    net.forward(outs, layers);
  } catch (const cv::Exception& e) {
    std::fprintf(stderr, "opencv_dnn_run: OpenCV refused %s: %s\n", argv[1], e.what());
    return 3;
  }
  for (size_t i = 0; i < outs.size(); ++i) {
    cv::Mat out = outs[i].isContinuous() ? outs[i] : outs[i].clone();
    std::vector<int> dims(out.size.p, out.size.p + out.dims);
    std::vector<float> values(out.ptr<float>(), out.ptr<float>() + out.total());
    if (dims.size() == 4) {  // NCHW back to NHWC
      const int on = dims[0], oc = dims[1], oh = dims[2], ow = dims[3];
      std::vector<float> t(values.size());
      for (int b = 0; b < on; ++b)
        for (int k = 0; k < oc; ++k)
          for (int y = 0; y < oh; ++y)
            for (int x = 0; x < ow; ++x)
              t[((b * oh + y) * ow + x) * oc + k] = values[((b * oc + k) * oh + y) * ow + x];
      values.swap(t);
      dims = {on, oh, ow, oc};
    }
    std::ofstream file(std::string(argv[7]) + std::to_string(i) + ".bin", std::ios::binary);
    file.write(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
    std::printf("%zu:", i);
    for (int d : dims) std::printf(" %d", d);
    std::printf("\n");
  }
  return 0;
}
