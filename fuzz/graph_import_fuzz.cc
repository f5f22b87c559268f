// Arbitrary bytes as a GraphDef through the C API: import ends in a status.
#include <cstddef>
#include <cstdint>

#include <google/protobuf/stubs/logging.h>

#include "tensorflow/c/c_api.h"

// Protobuf logs every malformed string field; at fuzzing speed that is noise.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  google::protobuf::SetLogHandler(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TF_Graph* graph = TF_NewGraph();
  TF_Status* status = TF_NewStatus();
  TF_Buffer* buffer = TF_NewBufferFromString(data, size);
  TF_ImportGraphDefOptions* options = TF_NewImportGraphDefOptions();
  TF_GraphImportGraphDef(graph, buffer, options, status);
  if (TF_GetCode(status) == TF_OK) {
    // A second import under a prefix exercises name handling on a graph
    // that already holds nodes.
    TF_ImportGraphDefOptionsSetPrefix(options, "again");
    TF_GraphImportGraphDef(graph, buffer, options, status);
  }
  TF_DeleteImportGraphDefOptions(options);
  TF_DeleteBuffer(buffer);
  TF_DeleteStatus(status);
  TF_DeleteGraph(graph);
  return 0;
}
