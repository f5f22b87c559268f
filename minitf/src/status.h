// Status: the error type every minitf function returns instead of throwing.
#ifndef MINITF_STATUS_H_
#define MINITF_STATUS_H_

#include <sstream>
#include <string>
#include <utility>

#include "tensorflow/c/c_api.h"

namespace minitf {

class Status {
 public:
  Status() = default;
  Status(TF_Code code, std::string message)
      : code_(code), message_(std::move(message)) {}

  static Status OK() { return Status(); }

  bool ok() const { return code_ == TF_OK; }
  TF_Code code() const { return code_; }
  const std::string& message() const { return message_; }

 private:
  TF_Code code_ = TF_OK;
  std::string message_;
};

template <typename... Args>
std::string StrCat(const Args&... args) {
  std::ostringstream out;
  (out << ... << args);
  return out.str();
}

template <typename... Args>
Status InvalidArgument(const Args&... args) {
  return Status(TF_INVALID_ARGUMENT, StrCat(args...));
}
template <typename... Args>
Status NotFound(const Args&... args) {
  return Status(TF_NOT_FOUND, StrCat(args...));
}
template <typename... Args>
Status Unimplemented(const Args&... args) {
  return Status(TF_UNIMPLEMENTED, StrCat(args...));
}
template <typename... Args>
Status ResourceExhausted(const Args&... args) {
  return Status(TF_RESOURCE_EXHAUSTED, StrCat(args...));
}
template <typename... Args>
Status FailedPrecondition(const Args&... args) {
  return Status(TF_FAILED_PRECONDITION, StrCat(args...));
}
template <typename... Args>
Status Internal(const Args&... args) {
  return Status(TF_INTERNAL, StrCat(args...));
}

}  // namespace minitf

#define MINITF_RETURN_IF_ERROR(expr)        \
  do {                                      \
    ::minitf::Status _minitf_st = (expr);   \
    if (!_minitf_st.ok()) return _minitf_st; \
  } while (0)

#endif  // MINITF_STATUS_H_
