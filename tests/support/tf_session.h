// Runs a serialised GraphDef through the TensorFlow C API and hands back
// owned tensors, for tests of the runtime and of the library.
#ifndef TESTS_SUPPORT_TF_SESSION_H_
#define TESTS_SUPPORT_TF_SESSION_H_

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/graph_builder.h"
#include "tensorflow/c/c_api.h"

namespace testing_support {

struct TensorDeleter {
  void operator()(TF_Tensor* t) const { TF_DeleteTensor(t); }
};
using TensorPtr = std::unique_ptr<TF_Tensor, TensorDeleter>;

// A new owned tensor holding a copy of `values`.
template <typename T>
TensorPtr MakeTensor(const Dims& dims, const std::vector<T>& values) {
  TF_Tensor* t = TF_AllocateTensor(DTypeOf<T>(), dims.data(), static_cast<int>(dims.size()),
                                   values.size() * sizeof(T));
  if (t != nullptr && !values.empty()) {
    if constexpr (std::is_same_v<T, bool>) {
      auto* out = static_cast<bool*>(TF_TensorData(t));
      for (size_t i = 0; i < values.size(); ++i) out[i] = values[i];
    } else {
      std::memcpy(TF_TensorData(t), values.data(), values.size() * sizeof(T));
    }
  }
  return TensorPtr(t);
}

template <typename T>
std::vector<T> Values(const TF_Tensor* t) {
  const size_t n = TF_TensorByteSize(t) / sizeof(T);
  const T* p = static_cast<const T*>(TF_TensorData(t));
  return std::vector<T>(p, p + n);
}

Dims DimsOf(const TF_Tensor* t);

// A graph imported from bytes and a session on it.
class TestSession {
 public:
  // Imports `graph_def` and opens a session with `config` (serialised
  // ConfigProto, may be empty). Check status() before running.
  explicit TestSession(const std::string& graph_def, const std::string& config = "");
  ~TestSession();
  TestSession(const TestSession&) = delete;
  TestSession& operator=(const TestSession&) = delete;

  TF_Code code() const { return code_; }
  const std::string& message() const { return message_; }
  TF_Graph* graph() const { return graph_; }
  TF_Session* session() const { return session_; }

  // Runs with feeds "name" or "name:k" -> tensor and fetches "name" or
  // "name:k". On success returns TF_OK and fills `outputs`; otherwise returns
  // the code and stores the message in last_error().
  TF_Code Run(const std::vector<std::pair<std::string, TF_Tensor*>>& feeds,
              const std::vector<std::string>& fetches, std::vector<TensorPtr>* outputs,
              const std::vector<std::string>& targets = {});
  const std::string& last_error() const { return last_error_; }

  // Fetches one output of a graph without feeds.
  TensorPtr RunOne(const std::string& fetch);

 private:
  TF_Output OutputFor(const std::string& spec) const;

  TF_Graph* graph_ = nullptr;
  TF_Session* session_ = nullptr;
  TF_Code code_ = TF_OK;
  std::string message_;
  std::string last_error_;
};

}  // namespace testing_support

#endif  // TESTS_SUPPORT_TF_SESSION_H_
