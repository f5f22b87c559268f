#include "support/tf_session.h"

namespace testing_support {

Dims DimsOf(const TF_Tensor* t) {
  Dims dims(TF_NumDims(t));
  for (int i = 0; i < TF_NumDims(t); ++i) dims[i] = TF_Dim(t, i);
  return dims;
}

TestSession::TestSession(const std::string& graph_def, const std::string& config) {
  TF_Status* status = TF_NewStatus();
  graph_ = TF_NewGraph();
  TF_Buffer* buffer = TF_NewBufferFromString(graph_def.data(), graph_def.size());
  TF_ImportGraphDefOptions* options = TF_NewImportGraphDefOptions();
  TF_GraphImportGraphDef(graph_, buffer, options, status);
  TF_DeleteImportGraphDefOptions(options);
  TF_DeleteBuffer(buffer);
  if (TF_GetCode(status) == TF_OK) {
    TF_SessionOptions* session_options = TF_NewSessionOptions();
    if (!config.empty()) TF_SetConfig(session_options, config.data(), config.size(), status);
    if (TF_GetCode(status) == TF_OK) session_ = TF_NewSession(graph_, session_options, status);
    TF_DeleteSessionOptions(session_options);
  }
  code_ = TF_GetCode(status);
  message_ = TF_Message(status);
  TF_DeleteStatus(status);
}

TestSession::~TestSession() {
  TF_Status* status = TF_NewStatus();
  if (session_ != nullptr) {
    TF_CloseSession(session_, status);
    TF_DeleteSession(session_, status);
  }
  TF_DeleteGraph(graph_);
  TF_DeleteStatus(status);
}

TF_Output TestSession::OutputFor(const std::string& spec) const {
  std::string name = spec;
  int index = 0;
  const size_t colon = spec.rfind(':');
  if (colon != std::string::npos) {
    name = spec.substr(0, colon);
    index = std::stoi(spec.substr(colon + 1));
  }
  return TF_Output{TF_GraphOperationByName(graph_, name.c_str()), index};
}

TF_Code TestSession::Run(const std::vector<std::pair<std::string, TF_Tensor*>>& feeds,
                         const std::vector<std::string>& fetches,
                         std::vector<TensorPtr>* outputs,
                         const std::vector<std::string>& targets) {
  std::vector<TF_Output> inputs;
  std::vector<TF_Tensor*> input_values;
  for (const auto& [name, tensor] : feeds) {
    inputs.push_back(OutputFor(name));
    input_values.push_back(tensor);
  }
  std::vector<TF_Output> fetch_outputs;
  for (const auto& name : fetches) fetch_outputs.push_back(OutputFor(name));
  std::vector<const TF_Operation*> target_ops;
  for (const auto& name : targets) target_ops.push_back(TF_GraphOperationByName(graph_, name.c_str()));
  std::vector<TF_Tensor*> values(fetches.size(), nullptr);
  TF_Status* status = TF_NewStatus();
  TF_SessionRun(session_, nullptr, inputs.data(), input_values.data(),
                static_cast<int>(inputs.size()), fetch_outputs.data(), values.data(),
                static_cast<int>(values.size()), target_ops.data(),
                static_cast<int>(target_ops.size()), nullptr, status);
  const TF_Code code = TF_GetCode(status);
  last_error_ = TF_Message(status);
  TF_DeleteStatus(status);
  if (outputs != nullptr) {
    outputs->clear();
    for (TF_Tensor* t : values) outputs->emplace_back(t);
  } else {
    for (TF_Tensor* t : values) TF_DeleteTensor(t);
  }
  return code;
}

TensorPtr TestSession::RunOne(const std::string& fetch) {
  std::vector<TensorPtr> outputs;
  if (Run({}, {fetch}, &outputs) != TF_OK || outputs.empty()) return nullptr;
  return std::move(outputs[0]);
}

}  // namespace testing_support
