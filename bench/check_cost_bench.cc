// What the library's contract checks cost against the call they guard.
//
//   check_cost_bench [EMOTION_GRAPH.pb] [--benchmark_...]
//
// The emotion classifier (model type 12) is the smallest model the library
// runs per face. Each of its calls checks the host's image record and the
// row its graph returned; BM_EmotionChecks times exactly those two checks,
// BM_EmotionCall the whole call through the C ABI (given the adapted graph
// that scripts/demo.sh writes to .cache/adapted/emotion.pb). The checks
// should stay far below 1 % of the call.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "models/frames/ClassifierTensors.h"
#include "runtime/Contracts.h"
#include "runtime/TFCommon.h"
#include "videoanalytics.h"

namespace {

// The face crop the demo hands the emotion model.
constexpr int kCropSide = 64;
// The emotion graph's row: seven scores.
constexpr int64_t kScores = 7;

void BM_EmotionChecks(benchmark::State& state) {
  std::vector<uint8_t> pixels(kCropSide * kCropSide * 3, 100);
  const Image image{kCropSide, kCropSide, pixels.data(), 3};
  TF_Tensor* row = TF_AllocateTensor(TF_FLOAT, std::vector<int64_t>{1, kScores}.data(), 2,
                                     kScores * sizeof(float));
  for (auto _ : state) {
    std::string refused = Contracts::ImageRecord(image, Contracts::Channels::kAssumedThree);
    if (refused.empty()) refused = ClassifierTensors::CheckRow(row, "output_node0");
    benchmark::DoNotOptimize(refused);
  }
  TF_DeleteTensor(row);
}
BENCHMARK(BM_EmotionChecks);

std::string g_graph;

void BM_EmotionCall(benchmark::State& state) {
  const ModelOptions options{static_cast<int32_t>(g_graph.size()), g_graph.data(), ""};
  ProcessResult created{nullptr, nullptr};
  void* model = CreateModel(VA_FACE_EMOTIONS, options, &created);
  const bool loaded = model != nullptr && created.error->code == 0;
  DisposeModelProcessResult(&created);
  if (!loaded) {
    DisposeModel(model);
    state.SkipWithError("the graph does not load as model type 12");
    return;
  }
  std::vector<uint8_t> pixels(kCropSide * kCropSide * 3, 100);
  const Image image{kCropSide, kCropSide, pixels.data(), 3};
  for (auto _ : state) {
    ProcessResult* answer = PredictVector(model, image);
    const bool failed = answer->error->code != 0;
    DisposeFloatVector(static_cast<FloatVector*>(answer->payload));
    DisposeProcessResult(answer);
    if (failed) {
      state.SkipWithError("the emotion call failed");
      break;
    }
  }
  DisposeModel(model);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc > 1) {
    std::ifstream in(argv[1], std::ios::binary);
    g_graph.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (g_graph.empty()) {
      std::fprintf(stderr, "check_cost_bench: cannot read %s\n", argv[1]);
      return 2;
    }
    benchmark::RegisterBenchmark("BM_EmotionCall", BM_EmotionCall)->Unit(benchmark::kMicrosecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
