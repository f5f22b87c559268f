// Frozen graphs TensorFlow itself wrote (freeze_graph, Keras frozen by TF 2,
// exporters), imported from their unmodified bytes and run on the stored
// input tensors against reference outputs. The graphs are read from the
// shared folder (MINITF_REALGRAPHS_DIR, else the build's default); without
// it the tests skip, and fail under CI.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "minitf/proto/config.pb.h"
#include "support/required_data.h"
#include "support/tf_session.h"

namespace {

using testing_support::Dims;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

std::string Dir() {
  const char* env = std::getenv("MINITF_REALGRAPHS_DIR");
  return env != nullptr && *env ? env : MINITF_REALGRAPHS_DEFAULT;
}

bool ReadFile(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// Reads `rel` under the folder; skips (or fails under CI) when it is missing.
#define READ_OR_SKIP(rel, out)                                                 \
  do {                                                                         \
    if (!ReadFile(Dir() + "/" + (rel), (out)))                                 \
      SKIP_OR_FAIL_WITHOUT_DATA("missing " << Dir() << "/" << (rel));          \
  } while (0)

// Runs `graph` on the input its reference names and compares every output
// within 1e-4 of that output's scale (its largest magnitude).
void CheckAgainstReference(const std::string& graph_name, const std::string& input_node) {
  std::string graph, ref_text;
  READ_OR_SKIP("graphs/" + graph_name + ".pb", &graph);
  READ_OR_SKIP("ref/" + graph_name + "__messi5.json", &ref_text);
  const nlohmann::json ref = nlohmann::json::parse(ref_text);
  std::string input_bytes;
  READ_OR_SKIP(ref["input"]["file"].get<std::string>(), &input_bytes);
  const Dims dims = ref["input"]["shape"].get<Dims>();
  std::vector<float> input(input_bytes.size() / sizeof(float));
  std::memcpy(input.data(), input_bytes.data(), input.size() * sizeof(float));
  ASSERT_EQ(ref["input"]["dtype"], "float32");

  TestSession session(graph);
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  TensorPtr in = testing_support::MakeTensor<float>(dims, input);
  std::vector<std::string> fetches;
  for (const auto& o : ref["outputs"]) fetches.push_back(o["name"].get<std::string>());
  std::vector<TensorPtr> out;
  ASSERT_EQ(session.Run({{input_node, in.get()}}, fetches, &out), TF_OK) << session.last_error();
  for (size_t k = 0; k < fetches.size(); ++k) {
    const auto& o = ref["outputs"][k];
    const std::vector<float> want = o["values"].get<std::vector<float>>();
    EXPECT_EQ(testing_support::DimsOf(out[k].get()), o["shape"].get<Dims>()) << fetches[k];
    const std::vector<float> got = Values<float>(out[k].get());
    ASSERT_EQ(got.size(), want.size()) << fetches[k];
    float scale = 0, worst = 0;
    for (float v : want) scale = std::max(scale, std::fabs(v));
    for (size_t i = 0; i < got.size(); ++i) worst = std::max(worst, std::fabs(got[i] - want[i]));
    std::printf("%s %s: largest difference %g at output scale %g\n", graph_name.c_str(),
                fetches[k].c_str(), worst, scale);
    EXPECT_LE(worst, 1e-4f * scale) << fetches[k] << ": largest difference " << worst
                                    << " at output scale " << scale;
  }
}

TEST(RealGraphs, SlimMobilenetMatchesReference) {
  CheckAgainstReference("mobilenet_v1_0.25_128_frozen", "input");
}

TEST(RealGraphs, KerasClassifierMatchesReference) {
  CheckAgainstReference("keras_mobilenetv2_classifier_frozen", "sequential_1_input");
}

TEST(RealGraphs, QuantizedFaceDetectorMatchesReference) {
  CheckAgainstReference("opencv_face_detector_uint8", "data");
}

// Also a check that the optimised plan (batch norm folded, dilated
// convolution rewritten) computes what the plain kernels compute.
TEST(RealGraphs, FaceDetectorSameWithoutPlanRewrites) {
  std::string graph, input_bytes;
  READ_OR_SKIP("graphs/opencv_face_detector_uint8.pb", &graph);
  READ_OR_SKIP("inputs/face300_bgrmean_messi5.bin", &input_bytes);
  std::vector<float> input(input_bytes.size() / sizeof(float));
  std::memcpy(input.data(), input_bytes.data(), input.size() * sizeof(float));
  minitf::pb::ConfigProto config;
  config.mutable_graph_options()->mutable_optimizer_options()->set_opt_level(
      minitf::pb::OptimizerOptions::L0);
  const std::string l0 = config.SerializeAsString();
  std::vector<float> results[2];
  for (int pass = 0; pass < 2; ++pass) {
    TestSession session(graph, pass == 0 ? "" : l0);
    ASSERT_EQ(session.code(), TF_OK) << session.message();
    TensorPtr in = testing_support::MakeTensor<float>({1, 300, 300, 3}, input);
    std::vector<TensorPtr> out;
    ASSERT_EQ(session.Run({{"data", in.get()}}, {"mbox_conf_flatten"}, &out), TF_OK)
        << session.last_error();
    results[pass] = Values<float>(out[0].get());
  }
  ASSERT_EQ(results[0].size(), 17784u);
  float worst = 0;
  for (size_t i = 0; i < results[0].size(); ++i) {
    worst = std::max(worst, std::fabs(results[0][i] - results[1][i]));
  }
  EXPECT_LE(worst, 1e-5f);
}

// The Object Detection API's SSD export: while loops with tensor arrays in
// its pre- and post-processing, non-maximum suppression per class. The same
// 100 detections in the same order (equal scores aside), values within 1e-4.
TEST(RealGraphs, SsdDetectionsMatchReference) {
  const std::string name = "ssd_mobilenet_v1_voc_aiy_frozen_inference_graph";
  std::string graph, ref_text, input;
  READ_OR_SKIP("graphs/" + name + ".pb", &graph);
  READ_OR_SKIP("ref/" + name + "__messi5.json", &ref_text);
  const nlohmann::json ref = nlohmann::json::parse(ref_text);
  READ_OR_SKIP(ref["input"]["file"].get<std::string>(), &input);
  ASSERT_EQ(ref["input"]["dtype"], "uint8");
  const Dims dims = ref["input"]["shape"].get<Dims>();

  TestSession session(graph);
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  std::vector<uint8_t> pixels(input.begin(), input.end());
  TensorPtr image = testing_support::MakeTensor<uint8_t>(dims, pixels);
  const std::vector<std::string> fetches = {"num_detections", "detection_boxes", "detection_scores",
                                            "detection_classes"};
  std::vector<TensorPtr> out;
  for (int run = 0; run < 2; ++run) {  // the second run reuses the cached plan
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(session.Run({{"image_tensor", image.get()}}, fetches, &out), TF_OK) << session.last_error();
    std::printf("SSD run %d: %.1f ms\n", run,
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::vector<std::vector<float>> want(4), got(4);
  for (size_t k = 0; k < fetches.size(); ++k) {
    const nlohmann::json* o = nullptr;
    for (const auto& candidate : ref["outputs"]) {
      if (candidate["name"] == fetches[k]) o = &candidate;
    }
    ASSERT_NE(o, nullptr) << fetches[k];
    EXPECT_EQ(testing_support::DimsOf(out[k].get()), (*o)["shape"].get<Dims>()) << fetches[k];
    want[k] = (*o)["values"].get<std::vector<float>>();
    got[k] = Values<float>(out[k].get());
    ASSERT_EQ(got[k].size(), want[k].size()) << fetches[k];
  }
  ASSERT_EQ(got[0], want[0]);
  const size_t n = want[2].size();
  ASSERT_EQ(n, 100u);
  // Detection i matches reference detection j (same class, box and score).
  auto same = [&](size_t i, size_t j, float* diff) {
    float d = std::fabs(got[2][i] - want[2][j]);
    for (int c = 0; c < 4; ++c) d = std::max(d, std::fabs(got[1][4 * i + c] - want[1][4 * j + c]));
    *diff = d;
    return got[3][i] == want[3][j] && d <= 1e-4f;
  };
  float worst = 0;
  for (size_t i = 0; i < n; ++i) {
    float diff = 0;
    if (same(i, i, &diff)) {
      worst = std::max(worst, diff);
      continue;
    }
    // Equal scores may come in either order.
    bool tie = false;
    for (size_t j = 0; j < n && !tie; ++j) {
      tie = std::fabs(want[2][j] - want[2][i]) <= 1e-6f && same(i, j, &diff);
    }
    EXPECT_TRUE(tie) << "detection " << i << ": class " << got[3][i] << " score " << got[2][i]
                     << ", reference class " << want[3][i] << " score " << want[2][i];
    worst = std::max(worst, diff);
  }
  std::printf("SSD: %zu detections, top class %g score %g; largest difference %g\n", n, got[3][0],
              got[2][0], worst);
  EXPECT_EQ(got[3][0], 15.0f);  // "person" in the VOC label map
}

}  // namespace
