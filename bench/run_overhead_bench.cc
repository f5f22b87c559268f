// run_overhead_bench: the fixed cost of one TF_SessionRun, as an Identity on
// a one-element float tensor fed through a Placeholder.
//
//   run_overhead_bench [RUNS] [THREADS]
//
// Prints the median over 20 batches of RUNS/20 runs, in microseconds per run.
#include <tensorflow/c/c_api.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "minitf/proto/config.pb.h"
#include "minitf/proto/graph.pb.h"

namespace {

void Check(TF_Status* s, const char* what) {
  if (TF_GetCode(s) != TF_OK) {
    std::fprintf(stderr, "run_overhead_bench: %s: %s\n", what, TF_Message(s));
    std::exit(1);
  }
}

std::string IdentityGraph() {
  minitf::pb::GraphDef g;
  minitf::pb::NodeDef* in = g.add_node();
  in->set_name("x");
  in->set_op("Placeholder");
  (*in->mutable_attr())["dtype"].set_type(minitf::pb::DT_FLOAT);
  minitf::pb::NodeDef* id = g.add_node();
  id->set_name("y");
  id->set_op("Identity");
  id->add_input("x");
  (*id->mutable_attr())["T"].set_type(minitf::pb::DT_FLOAT);
  return g.SerializeAsString();
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 200000;
  const int threads = argc > 2 ? std::atoi(argv[2]) : 1;
  TF_Status* s = TF_NewStatus();
  TF_Graph* graph = TF_NewGraph();
  const std::string bytes = IdentityGraph();
  TF_Buffer* buf = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_ImportGraphDefOptions* opts = TF_NewImportGraphDefOptions();
  TF_GraphImportGraphDef(graph, buf, opts, s);
  Check(s, "import");
  TF_DeleteImportGraphDefOptions(opts);
  TF_DeleteBuffer(buf);
  TF_SessionOptions* so = TF_NewSessionOptions();
  minitf::pb::ConfigProto config;
  config.set_intra_op_parallelism_threads(threads);
  const std::string config_bytes = config.SerializeAsString();
  TF_SetConfig(so, config_bytes.data(), config_bytes.size(), s);
  Check(s, "config");
  TF_Session* session = TF_NewSession(graph, so, s);
  Check(s, "session");
  TF_DeleteSessionOptions(so);

  TF_Output in{TF_GraphOperationByName(graph, "x"), 0};
  TF_Output out{TF_GraphOperationByName(graph, "y"), 0};
  const int64_t dims[1] = {1};
  TF_Tensor* value = TF_AllocateTensor(TF_FLOAT, dims, 1, sizeof(float));
  *static_cast<float*>(TF_TensorData(value)) = 1.0f;
  auto run_once = [&] {
    TF_Tensor* result = nullptr;
    TF_SessionRun(session, nullptr, &in, &value, 1, &out, &result, 1, nullptr, 0, nullptr, s);
    Check(s, "run");
    TF_DeleteTensor(result);
  };
  for (int i = 0; i < 1000; ++i) run_once();
  const int batches = 20, per_batch = std::max(1, runs / batches);
  std::vector<double> us;
  for (int b = 0; b < batches; ++b) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < per_batch; ++i) run_once();
    const std::chrono::duration<double, std::micro> d = std::chrono::steady_clock::now() - start;
    us.push_back(d.count() / per_batch);
  }
  std::sort(us.begin(), us.end());
  std::printf("%.3f us per run (median of %d batches of %d)\n", us[batches / 2], batches,
              per_batch);
  TF_DeleteTensor(value);
  TF_CloseSession(session, s);
  TF_DeleteSession(session, s);
  TF_DeleteGraph(graph);
  TF_DeleteStatus(s);
  return 0;
}
