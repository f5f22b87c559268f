// Result records: allocation, the envelope fill and the dispose functions.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "interface/MemoryManager.h"
#include "library/array_alloc_probe.h"
#include "library/library_test_util.h"
#include "runtime/TfInvoker.h"
#include "videoanalytics.h"

namespace {

using array_probe::GuardByte;
using array_probe::IsArrayBlock;
using array_probe::OutstandingOnThisThread;
using array_probe::RequestedSize;

TEST(FloatVectorMemory, ArrayOfCountFloatsEvenForNone) {
  for (int32_t count : {0, 5}) {
    FloatVector* vector = MemoryManager::CreateFloatVector(count);
    EXPECT_EQ(vector->count, count);
    ASSERT_NE(vector->values, nullptr);
    EXPECT_TRUE(IsArrayBlock(vector->values));
    EXPECT_EQ(RequestedSize(vector->values), static_cast<size_t>(count) * sizeof(float));
    DisposeFloatVector(vector);
  }
}

TEST(DisposeRecords, ArraysGoBackToTheAllocator) {
  const int64_t before = OutstandingOnThisThread();
  FloatVector* vector = MemoryManager::CreateFloatVector(3);
  auto* boxes = new BoxDetectionResult{2, new NativeBoundingBox[2]};
  EXPECT_EQ(OutstandingOnThisThread(), before + 2);
  DisposeFloatVector(vector);
  DisposeBoxDetectionResult(boxes);
  EXPECT_EQ(OutstandingOnThisThread(), before);
}

TEST(DisposeRecords, ModelEnvelopeKeepsPayloadAndCanBeRefilled) {
  int payload = 0;
  ProcessResult result{&payload, new ProcessError{1, nullptr}};
  DisposeModelProcessResult(&result);
  EXPECT_EQ(result.payload, &payload);
  EXPECT_EQ(result.error, nullptr);
  DisposeModelProcessResult(&result);  // error already gone: nothing to do
  EXPECT_EQ(result.payload, &payload);

  MemoryManager::FillProcessResult(&result, nullptr, nullptr);
  ASSERT_NE(result.error, nullptr);
  EXPECT_EQ(result.error->code, 2);
  DisposeModelProcessResult(&result);
  EXPECT_EQ(result.error, nullptr);
}

class FillProcessResult : public ::testing::Test {
 protected:
  // Error state only: the fill never touches TensorFlow.
  TfInvoker model_;
  ProcessResult result_{nullptr, nullptr};
  void TearDown() override { DisposeModelProcessResult(&result_); }
};

// No model gives code 2; otherwise the flag gives the code, and the message
// travels whatever the code, an empty one as null. The payload is kept.
TEST_F(FillProcessResult, CodeAndMessageFollowTheModelsState) {
  const struct {
    bool model, flag;
    const char* message;
    int code;
  } cases[] = {{false, false, "", 2},
               {true, false, "", 0},
               {true, true, "", 1},
               {true, false, "OutOp not found", 0},
               {true, true, "OutOp not found", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.model << c.flag << c.message);
    int payload = 0;
    model_.errorFlag = c.flag;
    model_.errorMessage = c.message;
    MemoryManager::FillProcessResult(&result_, c.model ? &model_ : nullptr, &payload);
    EXPECT_EQ(result_.payload, &payload);
    ASSERT_NE(result_.error, nullptr);
    EXPECT_EQ(result_.error->code, c.code);
    if (*c.message == '\0' || !c.model) {
      EXPECT_EQ(result_.error->message, nullptr);
    } else {
      ASSERT_NE(result_.error->message, nullptr);
      EXPECT_EQ(std::memcmp(result_.error->message, c.message, std::strlen(c.message)), 0);
    }
    EXPECT_TRUE(library_test::LockIsFree(model_.lock));
    DisposeModelProcessResult(&result_);
  }
}

TEST_F(FillProcessResult, MessageArrayIsOneByteShortOfItsTerminator) {
  // 24 and 40 are sizes where glibc's chunk has no slack after the array.
  for (size_t length : {1u, 14u, 15u, 24u, 40u}) {
    SCOPED_TRACE(length);
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    model_.errorFlag = true;
    model_.errorMessage = text;
    MemoryManager::FillProcessResult(&result_, &model_, nullptr);
    const char* message = result_.error->message;
    ASSERT_TRUE(IsArrayBlock(message));
    EXPECT_EQ(RequestedSize(message), length);
    EXPECT_EQ(std::memcmp(message, text.data(), length), 0);
    // The terminator went into the byte past the allocation.
    EXPECT_EQ(GuardByte(message), 0u);
    DisposeModelProcessResult(&result_);
  }
}

TEST_F(FillProcessResult, PreviousErrorRecordIsOverwrittenNotReleased) {
  MemoryManager::FillProcessResult(&result_, nullptr, nullptr);
  ProcessError* first = result_.error;
  MemoryManager::FillProcessResult(&result_, &model_, nullptr);
  EXPECT_NE(result_.error, first);
  EXPECT_EQ(first->code, 2);  // still readable: nobody released it
  delete first;
}

}  // namespace
