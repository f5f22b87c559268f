#include "runtime/TfInvoker.h"

void TfInvoker::SetErrorState(const char* message) {
  std::lock_guard<std::mutex> guard(lock);
  errorFlag = true;
  if (message != nullptr) errorMessage = message;
}

void TfInvoker::ReleaseHandles() {
  TF_CloseSession(session, status);
  TF_DeleteSession(session, status);
  TF_DeleteGraph(graph);
  TF_DeleteStatus(status);
}
