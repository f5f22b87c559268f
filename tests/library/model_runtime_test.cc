// The model runtime: error state and its lock, graph import and session
// opening, and the per-run helpers every model class uses.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "interface/MemoryManager.h"
#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "runtime/BaseModel.h"
#include "runtime/Contracts.h"
#include "runtime/ModelRun.h"
#include "runtime/TFCommon.h"
#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using library_test::GarbageGraph;
using library_test::IdentityGraph;
using library_test::LockIsFree;
using library_test::OptionsFor;

class TfInvokerErrorState : public ::testing::Test {
 protected:
  void SetUp() override { invoker_.status = TF_NewStatus(); }
  void TearDown() override { TF_DeleteStatus(invoker_.status); }
  TfInvoker invoker_;
};

TEST_F(TfInvokerErrorState, FailedCheckKeepsTheLockOkCheckClearsTheFlag) {
  TF_SetStatus(invoker_.status, TF_INTERNAL, "kernel broke");
  EXPECT_FALSE(invoker_.CheckStatus());
  EXPECT_TRUE(invoker_.errorFlag);
  EXPECT_EQ(invoker_.errorMessage, "kernel broke");
  EXPECT_FALSE(LockIsFree(invoker_.lock));
  invoker_.lock.unlock();  // this thread took it in CheckStatus

  TF_SetStatus(invoker_.status, TF_OK, nullptr);
  EXPECT_TRUE(invoker_.CheckStatus());
  EXPECT_FALSE(invoker_.errorFlag);
  EXPECT_EQ(invoker_.errorMessage, "kernel broke");
  EXPECT_TRUE(LockIsFree(invoker_.lock));
}

// "x" and "z": float placeholders; "y": Identity of "x".
std::string TwoInputGraph() {
  testing_support::GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Placeholder("z", TF_FLOAT);
  g.Unary("Identity", "y", "x");
  return g.Serialize();
}

// A model that feeds one float vector to `input` and returns `output`,
// written with the helpers the model classes use.
class EchoModel : public BaseModel {
 public:
  using BaseModel::BaseModel;

  FloatVector* Echo(std::vector<float>& values, const char* input = "x",
                    const char* output = "y", TF_DataType fed = TF_FLOAT,
                    const RunRules& rules = kDeletesInputsOnMissingOutput) {
    const auto count = static_cast<int64_t>(values.size());
    return RunModel<FloatVector*>(
        *this, rules, nullptr, {input, "z"}, {output}, NothingToPrepare,
        [&](TF_Tensor** in) {
          in[0] = TFCommon::BorrowTensor(fed, {count}, values.data(),
                                         values.size() * sizeof(float));
          in[1] = TFCommon::BorrowTensor(TF_FLOAT, {1}, values.data(), sizeof(float));
        },
        [&](TF_Tensor* const* out) {
          return out[0] == nullptr ? std::string() : Contracts::Floats(out[0], output, 0);
        },
        [](TF_Tensor* const* out) {
          return TFCommon::CopyToFloatVector(out[0],
                                             static_cast<int>(TFCommon::Dim(out[0], 0)));
        });
  }
};

struct FloatVectorDeleter {
  void operator()(FloatVector* v) const { DisposeFloatVector(v); }
};
using FloatVectorPtr = std::unique_ptr<FloatVector, FloatVectorDeleter>;

std::vector<float> ValuesOf(const FloatVector* v) {
  return std::vector<float>(v->values, v->values + v->count);
}

// Only the session configuration's soft placement lets this graph run on a
// missing device; the host may reuse its graph buffer once construction ends.
TEST(BaseModelConstruction, GraphBytesAreReadOnlyDuringConstructionAndDevicesFallBack) {
  std::string graph = TwoInputGraph();
  auto model = std::make_unique<EchoModel>(OptionsFor(graph, "/device:GPU:0"));
  ASSERT_FALSE(model->errorFlag) << model->errorMessage;
  graph.assign(graph.size(), '\0');
  std::vector<float> values = {1.0f, 2.0f};
  FloatVectorPtr out(model->Echo(values));
  ASSERT_NE(out, nullptr) << model->errorMessage;
  EXPECT_EQ(ValuesOf(out.get()), (std::vector<float>{1.0f, 2.0f}));
}

// The import's own message, obtained straight from the C API.
std::string ImportMessage(const std::string& graph) {
  testing_support::TestSession session(graph);
  EXPECT_NE(session.code(), TF_OK);
  return session.message();
}

// Garbage bytes, and a graph naming an op nobody registered: the import's
// own message (naming the node), no session, and the lock left held.
TEST(BaseModelConstruction, FailedImportLeavesNoSessionAndTheLockHeld) {
  testing_support::GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Node("NoSuchOpAnywhere", "mystery").Input("x");
  for (const auto& [graph, needle] : {std::pair{GarbageGraph(), ""}, {g.Serialize(), "mystery"}}) {
    auto* model = new BaseModel(OptionsFor(graph));
    EXPECT_TRUE(model->errorFlag);
    EXPECT_FALSE(model->errorMessage.empty());
    EXPECT_NE(model->errorMessage.find(needle), std::string::npos) << model->errorMessage;
    EXPECT_EQ(model->errorMessage, ImportMessage(graph));
    EXPECT_EQ(model->session, nullptr);
    EXPECT_FALSE(LockIsFree(model->lock));
    // The constructor ran on this thread, so this thread may release it; only
    // then can the model be disposed without waiting.
    model->lock.unlock();
    DisposeModel(model);
  }
}

class RunDiscipline : public ::testing::Test {
 protected:
  std::string graph_ = TwoInputGraph();
  EchoModel model_{OptionsFor(graph_)};
};

TEST_F(RunDiscipline, SuccessfulRunCopiesTheOutput) {
  std::vector<float> values = {1.5f, -2.0f, 3.25f};
  FloatVectorPtr out(model_.Echo(values));
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(ValuesOf(out.get()), (std::vector<float>{1.5f, -2.0f, 3.25f}));
  // The input was borrowed, not freed or altered.
  EXPECT_EQ(values, (std::vector<float>{1.5f, -2.0f, 3.25f}));
  EXPECT_FALSE(model_.errorFlag);
  EXPECT_TRUE(LockIsFree(model_.lock));
}

TEST_F(RunDiscipline, FailedRunKeepsTheMessageAndTheLock) {
  // Float bytes fed as int32: the placeholder's type check fails the run.
  std::vector<float> values = {1.0f, 2.0f};
  EXPECT_EQ(model_.Echo(values, "x", "y", TF_INT32), nullptr);
  EXPECT_TRUE(model_.errorFlag);
  EXPECT_FALSE(model_.errorMessage.empty());
  EXPECT_FALSE(LockIsFree(model_.lock));
  model_.lock.unlock();

  // The same feed straight through the C API gives the same message.
  testing_support::TestSession session(graph_);
  ASSERT_EQ(session.code(), TF_OK);
  auto fed = testing_support::MakeTensor<int32_t>({2}, {1, 2});
  std::vector<testing_support::TensorPtr> outputs;
  EXPECT_NE(session.Run({{"x", fed.get()}}, {"y"}, &outputs), TF_OK);
  EXPECT_EQ(model_.errorMessage, session.last_error());
}

// Each deviation the models declare, as the host and TensorFlow see it: the
// tensors left alive on each failure path, and who takes the lock.
TEST_F(RunDiscipline, EachRuleLeavesWhatItDeclares) {
  struct Row {
    const char* name;
    const RunRules& rules;
    int64_t madeOnMissingInput, aliveOnMissingOutput, aliveOnFailedRun;
  };
  const Row rows[] = {
      {"standard", kStandardRun, 0, 2, 0},
      {"deletes inputs on missing output", kDeletesInputsOnMissingOutput, 0, 0, 0},
      {"feeds before the input test", kFeedsBeforeInputTest, 2, 2, 0},
      {"keeps the shape on a failed run", kKeepsShapeOnFailedRun, 0, 2, 1},
  };
  std::vector<float> values = {1.0f, 2.0f};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    model_test::TensorProbe missingInput;
    EXPECT_EQ(model_.Echo(values, "nope", "y", TF_FLOAT, row.rules), nullptr);
    EXPECT_EQ(model_.errorMessage, "InOp not found");
    EXPECT_EQ(missingInput.Made(), row.madeOnMissingInput);
    EXPECT_TRUE(LockIsFree(model_.lock));
    missingInput.ReleaseAlive();

    model_test::TensorProbe missingOutput;
    EXPECT_EQ(model_.Echo(values, "x", "nope", TF_FLOAT, row.rules), nullptr);
    EXPECT_EQ(model_.errorMessage, "OutOp not found");
    EXPECT_EQ(missingOutput.Alive(), row.aliveOnMissingOutput);
    EXPECT_TRUE(LockIsFree(model_.lock));
    missingOutput.ReleaseAlive();

    // An int32 feed to the float placeholder fails the run: the lock stays
    // held and the status keeps the failure for the next call.
    model_test::TensorProbe failedRun;
    EXPECT_EQ(model_.Echo(values, "x", "y", TF_INT32, row.rules), nullptr);
    EXPECT_EQ(failedRun.Alive(), row.aliveOnFailedRun);
    EXPECT_FALSE(LockIsFree(model_.lock));
    model_.lock.unlock();
    failedRun.ReleaseAlive();
    EchoModel fresh(OptionsFor(graph_));
    std::swap(fresh.status, model_.status);  // a clean status for the next row
  }

  // The unchecked run reports nothing of its own and takes no lock.
  EchoModel unchecked(OptionsFor(graph_));
  unchecked.SetErrorState("before");
  unchecked.lock.lock();  // a lock it would wait on, were it to take it
  model_test::TensorProbe probe;
  // The failed run leaves the output slot empty, read as an empty answer.
  FloatVectorPtr empty(unchecked.Echo(values, "nope", "nope", TF_FLOAT, kUncheckedRun));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->count, 0);
  EXPECT_EQ(unchecked.errorMessage, "before");
  EXPECT_EQ(probe.Alive(), 0);
  unchecked.lock.unlock();
}

}  // namespace
