#include "runtime_check.h"

#include "tensorflow/c/c_api.h"

namespace minitf {
namespace tfjs {
namespace {

Status Import(const std::string& bytes) {
  TF_Graph* graph = TF_NewGraph();
  TF_Status* status = TF_NewStatus();
  TF_ImportGraphDefOptions* options = TF_NewImportGraphDefOptions();
  TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_GraphImportGraphDef(graph, buffer, options, status);
  Status result(TF_GetCode(status), TF_Message(status));
  TF_DeleteBuffer(buffer);
  TF_DeleteImportGraphDefOptions(options);
  TF_DeleteStatus(status);
  TF_DeleteGraph(graph);
  return result;
}

}  // namespace

std::vector<std::string> MissingOps(const std::vector<std::string>& ops) {
  std::vector<std::string> missing;
  for (const std::string& op : ops) {
    pb::GraphDef probe;
    pb::NodeDef* node = probe.add_node();
    node->set_name("probe");
    node->set_op(op);
    if (Import(probe.SerializeAsString()).code() == TF_NOT_FOUND) missing.push_back(op);
  }
  return missing;
}

Status ImportIntoRuntime(const pb::GraphDef& graph) {
  std::string bytes;
  if (!graph.SerializeToString(&bytes)) return Internal("cannot serialise the graph");
  return Import(bytes);
}

}  // namespace tfjs
}  // namespace minitf
