// Runs one op on constant inputs through the C API, for the kernel suites:
//   OneOp op("MatMul");
//   op.In<float>({2, 3}, a).In<float>({3, 2}, b).Attr("T", TF_FLOAT);
//   ASSERT_EQ(op.Run(), TF_OK) << op.error();
//   op.Output<float>();
#ifndef TESTS_MINITF_ONE_OP_H_
#define TESTS_MINITF_ONE_OP_H_

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace testing_support {

class OneOp {
 public:
  // The op node is called `name`, so error messages can be checked for it.
  explicit OneOp(const std::string& op, const std::string& name = "the_op")
      : name_(name), node_(graph_.Node(op, name)) {}

  template <typename T>
  OneOp& In(const Dims& dims, const std::vector<T>& values) {
    const std::string input = name_ + "_in" + std::to_string(inputs_++);
    graph_.Const<T>(input, dims, values);
    node_.Input(input);
    return *this;
  }

  template <typename V>
  OneOp& Attr(const std::string& attr, const V& value) {
    node_.Attr(attr, value);
    return *this;
  }

  // Imports, runs and keeps output 0. Failures at any stage give their code.
  TF_Code Run() {
    session_ = std::make_unique<TestSession>(graph_.Serialize());
    if (session_->code() != TF_OK) {
      error_ = session_->message();
      return session_->code();
    }
    std::vector<TensorPtr> out;
    const TF_Code code = session_->Run({}, {name_}, &out);
    error_ = session_->last_error();
    if (code == TF_OK) output_ = std::move(out[0]);
    return code;
  }

  const std::string& error() const { return error_; }
  // Whether the error names the node, as every kernel error must.
  bool ErrorNamesNode() const { return error_.find(name_) != std::string::npos; }
  TF_DataType OutputType() const { return TF_TensorType(output_.get()); }
  Dims OutputDims() const { return DimsOf(output_.get()); }
  template <typename T>
  std::vector<T> Output() const { return Values<T>(output_.get()); }

 private:
  std::string name_;
  GraphBuilder graph_;
  NodeRef node_;
  int inputs_ = 0;
  std::unique_ptr<TestSession> session_;
  TensorPtr output_;
  std::string error_;
};

// Runs `op` expecting an INVALID_ARGUMENT (or `code`) that names the node.
inline void ExpectRunError(OneOp& op, TF_Code code = TF_INVALID_ARGUMENT) {
  EXPECT_EQ(op.Run(), code) << op.error();
  EXPECT_TRUE(op.ErrorNamesNode()) << op.error();
}

// Runs `op` expecting success and gives output 0 (empty on failure).
template <typename T>
std::vector<T> RunOk(OneOp& op) {
  const TF_Code code = op.Run();
  EXPECT_EQ(code, TF_OK) << op.error();
  return code == TF_OK ? op.Output<T>() : std::vector<T>{};
}

// Runs `op` expecting success and gives the shape of output 0.
inline Dims RunDims(OneOp& op) {
  const TF_Code code = op.Run();
  EXPECT_EQ(code, TF_OK) << op.error();
  return code == TF_OK ? op.OutputDims() : Dims{-1};
}

// Runs `op` expecting output 0 of shape `dims` holding `values`.
template <typename T>
void ExpectOutput(OneOp& op, const Dims& dims, const std::vector<T>& values) {
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.OutputDims(), dims);
  EXPECT_EQ(op.Output<T>(), values);
}

inline void ExpectNear(const std::vector<float>& actual, const std::vector<float>& expected,
                       float tol = 1e-5f) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) {
    EXPECT_NEAR(actual[i], expected[i], tol * std::max(1.0f, std::fabs(expected[i])))
        << "at index " << i;
  }
}

}  // namespace testing_support

#endif  // TESTS_MINITF_ONE_OP_H_
