// OpenCV's DNN module as a second peer: the converted graphs its TensorFlow
// importer accepts are run through it (tools/opencv_dnn_run, a separate
// process) and through minitf on the same TF.js reference inputs, and the
// two runtimes must agree. OpenCV 4.6 refuses or crashes on the other
// models (Cast, int64 constants, some fused patterns), so the list is
// explicit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "golden.h"
#include "support/required_data.h"

namespace {

using testing_support::TensorPtr;
using tfjs_testing::GoldenTensor;

// Same criterion as against TF.js: max |diff| / max(1, max |value|).
constexpr double kCrossTolerance = 1e-4;

struct CrossCase {
  const char* model;
  bool small;
  // Outputs left out, with the reason next to the list.
  std::vector<std::string> skip;
};

// BlazePose's segmentation (Identity_1) is a sigmoid over logits of scale
// 1.5e3, where OpenCV differs from TF.js by 4e-3 and minitf by 5e-4: a
// comparison of two float32 runtimes there measures conditioning, not
// correctness; the logits are checked against TF.js elsewhere.
const CrossCase kCases[] = {
    {"blazeface-front", true, {}}, {"blazeface-back", false, {}}, {"emotion", true, {}},
    {"gender", true, {}},          {"antispoof", true, {}},       {"liveness", true, {}},
    {"gear", false, {}},           {"selfie", false, {}},
    {"blazepose-lite", false, {"Identity_1"}}, {"blazepose-full", false, {"Identity_1"}},
};

// OpenCV folds Identity nodes away; ask for the node that feeds them.
std::string Producer(const minitf::pb::GraphDef& graph, std::string name) {
  for (int hops = 0; hops < 16; ++hops) {
    const minitf::pb::NodeDef* found = nullptr;
    for (const auto& n : graph.node()) {
      if (n.name() == name) found = &n;
    }
    if (found == nullptr || found->op() != "Identity" || found->input_size() == 0) break;
    name = found->input(0).substr(0, found->input(0).find(':'));
  }
  return name;
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

class OpenCvCrossCheckTest : public testing::TestWithParam<CrossCase> {};

TEST_P(OpenCvCrossCheckTest, MinitfAgreesWithOpenCvDnn) {
#ifndef OPENCV_DNN_RUN
  SKIP_OR_FAIL_WITHOUT_DATA("built without OpenCV's DNN module");
#else
  const CrossCase& c = GetParam();
  if (tfjs_testing::ReducedRun() && !c.small) GTEST_SKIP() << "not in the reduced set";
  tfjs_testing::ModelFixture f;
  std::string message;
  const tfjs_testing::FixtureState state = tfjs_testing::LoadModelFixture(c.model, &f, &message);
  if (state == tfjs_testing::FixtureState::kAbsent) SKIP_OR_FAIL_WITHOUT_DATA(message);
  ASSERT_EQ(state, tfjs_testing::FixtureState::kReady) << message;
  ASSERT_EQ(f.inputs.size(), 1u);
  const GoldenTensor& input = f.inputs[0];
  ASSERT_EQ(input.dims.size(), 4u);

  char dir_template[] = "/tmp/opencv_cross_XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template;
  {
    std::ofstream pb(dir + "/graph.pb", std::ios::binary);
    ASSERT_TRUE(f.graph.SerializeToOstream(&pb));
    std::ofstream in(dir + "/input.bin", std::ios::binary);
    in.write(input.bytes.data(), static_cast<std::streamsize>(input.bytes.size()));
  }
  std::vector<std::string> names;
  // OpenCV itself is not built for the leak checker; its allocations at exit
  // are not ours to judge.
  std::string command = "ASAN_OPTIONS=detect_leaks=0 " + Quote(OPENCV_DNN_RUN) + " " + Quote(dir + "/graph.pb") + " " +
                        Quote(dir + "/input.bin");
  for (int64_t d : input.dims) command += " " + std::to_string(d);
  command += " " + Quote(dir + "/out");
  for (const GoldenTensor& out : f.outputs) {
    if (std::find(c.skip.begin(), c.skip.end(), out.name) != c.skip.end()) continue;
    names.push_back(out.name);
    command += " " + Quote(Producer(f.graph, out.name));
  }
  command += " > " + Quote(dir + "/shapes.txt");
  const int rc = std::system(command.c_str());
  ASSERT_EQ(rc, 0) << "OpenCV could not run " << c.model << " (" << command << ")";

  std::vector<TensorPtr> ours;
  ASSERT_TRUE(tfjs_testing::RunGraph(f.graph, f.inputs, names, &ours, &message)) << message;
  std::ifstream shapes(dir + "/shapes.txt");
  std::string line;
  double worst = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    ASSERT_TRUE(std::getline(shapes, line)) << "no shape for output " << i;
    std::istringstream fields(line.substr(line.find(':') + 1));
    GoldenTensor theirs;
    theirs.name = names[i];
    for (int64_t d; fields >> d;) theirs.dims.push_back(d);
    std::ifstream bin(dir + "/out" + std::to_string(i) + ".bin", std::ios::binary);
    std::ostringstream bytes;
    bytes << bin.rdbuf();
    theirs.bytes = bytes.str();
    ASSERT_EQ(theirs.bytes.size(), static_cast<size_t>(theirs.num_elements()) * 4);
    const tfjs_testing::Difference d = tfjs_testing::Compare(ours[i].get(), theirs);
    ASSERT_TRUE(d.error.empty()) << names[i] << ": " << d.error;
    EXPECT_LE(d.scaled, kCrossTolerance) << names[i] << ": max |diff| " << d.max_abs;
    worst = std::max(worst, d.scaled);
    std::remove((dir + "/out" + std::to_string(i) + ".bin").c_str());
  }
  std::printf("[ opencv   ] %s: %zu outputs, max scaled |diff| %.3g\n", c.model, names.size(),
              worst);
  for (const char* file : {"/graph.pb", "/input.bin", "/shapes.txt"}) {
    std::remove((dir + file).c_str());
  }
  rmdir(dir.c_str());
#endif
}

INSTANTIATE_TEST_SUITE_P(HumanModels, OpenCvCrossCheckTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<CrossCase>& info) {
                           std::string name = info.param.model;
                           for (char& ch : name) {
                             if (ch == '-') ch = '_';
                           }
                           return name;
                         });

}  // namespace
