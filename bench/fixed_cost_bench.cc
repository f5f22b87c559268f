// fixed_cost_bench: the two yardsticks the model benchmark sets its latencies
// against.
//
//   SessionRunIdentity  one TF_SessionRun of a graph holding a single Identity
//                       on a 1-element float tensor: minitf's fixed cost per
//                       run (feed, plan, fetch), in microseconds per run.
//   Sgemm/2048          one 2048^3 single-precision GEMM by oneDNN (dnnl_sgemm)
//                       on one thread: what one core of this machine reaches
//                       in FP32, as GFLOP/s (2 flops per multiply-add) over
//                       the thread's CPU time, so that a shared machine's
//                       other work does not lower it.
//
//   fixed_cost_bench [--benchmark_format=json] [other Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <omp.h>
#include <tensorflow/c/c_api.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "minitf/proto/graph.pb.h"
#include "oneapi/dnnl/dnnl.h"

namespace {

void Check(TF_Status* status, const char* what) {
  if (TF_GetCode(status) != TF_OK) {
    std::fprintf(stderr, "fixed_cost_bench: %s: %s\n", what, TF_Message(status));
    std::exit(1);
  }
}

void SessionRunIdentity(benchmark::State& state) {
  TF_Status* status = TF_NewStatus();
  TF_Graph* graph = TF_NewGraph();
  // Placeholder x -> Identity y, imported as a GraphDef (minitf builds graphs
  // only by import).
  minitf::pb::GraphDef def;
  minitf::pb::NodeDef* node = def.add_node();
  node->set_name("x");
  node->set_op("Placeholder");
  (*node->mutable_attr())["dtype"].set_type(minitf::pb::DT_FLOAT);
  node = def.add_node();
  node->set_name("y");
  node->set_op("Identity");
  node->add_input("x");
  (*node->mutable_attr())["T"].set_type(minitf::pb::DT_FLOAT);
  const std::string bytes = def.SerializeAsString();
  TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_ImportGraphDefOptions* import_options = TF_NewImportGraphDefOptions();
  TF_GraphImportGraphDef(graph, buffer, import_options, status);
  TF_DeleteImportGraphDefOptions(import_options);
  TF_DeleteBuffer(buffer);
  Check(status, "import");
  TF_Operation* x = TF_GraphOperationByName(graph, "x");
  TF_Operation* y = TF_GraphOperationByName(graph, "y");
  if (x == nullptr || y == nullptr) {
    state.SkipWithError("imported graph lacks x or y");
    return;
  }

  // intra_op_parallelism_threads = 1 (field 2 of ConfigProto).
  const unsigned char config[] = {0x10, 0x01};
  TF_SessionOptions* options = TF_NewSessionOptions();
  TF_SetConfig(options, config, sizeof(config), status);
  Check(status, "config");
  TF_Session* session = TF_NewSession(graph, options, status);
  TF_DeleteSessionOptions(options);
  Check(status, "session");

  const int64_t dims[] = {1};
  TF_Tensor* input = TF_AllocateTensor(TF_FLOAT, dims, 1, sizeof(float));
  *static_cast<float*>(TF_TensorData(input)) = 1.5f;
  const TF_Output feed{x, 0};
  const TF_Output fetch{y, 0};
  for (auto _ : state) {
    TF_Tensor* output = nullptr;
    TF_SessionRun(session, nullptr, &feed, &input, 1, &fetch, &output, 1, nullptr, 0, nullptr,
                  status);
    if (TF_GetCode(status) != TF_OK || output == nullptr ||
        *static_cast<const float*>(TF_TensorData(output)) != 1.5f) {
      state.SkipWithError("TF_SessionRun failed or returned a wrong value");
      if (output != nullptr) TF_DeleteTensor(output);
      break;
    }
    TF_DeleteTensor(output);
  }
  TF_DeleteTensor(input);
  TF_CloseSession(session, status);
  TF_DeleteSession(session, status);
  TF_DeleteGraph(graph);
  TF_DeleteStatus(status);
}
BENCHMARK(SessionRunIdentity)->Unit(benchmark::kMicrosecond);

void Sgemm(benchmark::State& state) {
  omp_set_num_threads(1);
  const dnnl_dim_t n = state.range(0);
  std::vector<float> a(n * n), b(n * n), c(n * n);
  for (dnnl_dim_t i = 0; i < n * n; ++i) {
    a[i] = static_cast<float>(i % 17) * 0.01f;
    b[i] = static_cast<float>(i % 13) * 0.02f;
  }
  for (auto _ : state) {
    if (dnnl_sgemm('N', 'N', n, n, n, 1.0f, a.data(), n, b.data(), n, 0.0f, c.data(), n) !=
        dnnl_success) {
      state.SkipWithError("dnnl_sgemm failed");
      break;
    }
    benchmark::DoNotOptimize(c.data());
    benchmark::ClobberMemory();
  }
  state.counters["GFLOP/s"] = benchmark::Counter(
      2.0 * static_cast<double>(n) * n * n / 1e9, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(Sgemm)->Arg(2048)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
