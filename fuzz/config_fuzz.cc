// Arbitrary bytes as a ConfigProto: TF_SetConfig ends in a status and a
// session made from accepted options runs.
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
  TF_Status* status = TF_NewStatus();
  TF_SessionOptions* options = TF_NewSessionOptions();
  TF_SetConfig(options, data, size, status);
  if (TF_GetCode(status) == TF_OK) {
    TF_Graph* graph = TF_NewGraph();
    TF_Session* session = TF_NewSession(graph, options, status);
    if (session != nullptr) {
      TF_CloseSession(session, status);
      TF_DeleteSession(session, status);
    }
    TF_DeleteGraph(graph);
  }
  TF_DeleteSessionOptions(options);
  TF_DeleteStatus(status);
  return 0;
}
