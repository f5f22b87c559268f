// The exported functions at the C boundary: the factory's answer to codes it
// does not know, envelopes for null handles, and disposal of handles.
#include <climits>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "runtime/BaseModel.h"
#include "videoanalytics.h"

namespace {

using library_test::IdentityGraph;
using library_test::OptionsFor;

// Code 2, no message, no payload; releases the envelope.
void ExpectNoModel(ProcessResult* result) {
  ASSERT_NE(result, nullptr);
  ASSERT_NE(result->error, nullptr);
  EXPECT_EQ(result->error->code, 2);
  EXPECT_EQ(result->error->message, nullptr);
  EXPECT_EQ(result->payload, nullptr);
  DisposeProcessResult(result);
}

TEST(CreateModelFactory, UnknownCodesGiveNoModel) {
  const std::string graph = IdentityGraph();
  for (int32_t code : {27, -1, 1000, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE(code);
    int marker = 0;
    ProcessResult result{&marker, nullptr};
    EXPECT_EQ(CreateModel(code, OptionsFor(graph), &result), nullptr);
    ASSERT_NE(result.error, nullptr);
    EXPECT_EQ(result.error->code, 2);
    EXPECT_EQ(result.error->message, nullptr);
    EXPECT_EQ(result.payload, nullptr);
    DisposeModelProcessResult(&result);
    EXPECT_EQ(result.error, nullptr);
  }
}

TEST(NullHandles, EveryCallAnswersNoModel) {
  uint8_t pixels[12] = {};
  const Image image{2, 2, pixels, 3};
  RelRect rect{0, 0, 1, 1};
  float row[4] = {};
  ExpectNoModel(DetectBoxes(nullptr, BoxDetectionInputData{image, 0.5f, 0.5f}));
  ExpectNoModel(Predict(nullptr, image));
  ExpectNoModel(PredictVector(nullptr, image));
  ExpectNoModel(PredictBatch(nullptr, BatchImageInput{1, image}));
  ExpectNoModel(GetGender(nullptr, 4, row));
  ExpectNoModel(GetFaceRecallMultiple(nullptr, ImageWithRectsInput{image, 1, &rect}));
  ExpectNoModel(GetPatchDetections(nullptr, BatchImageInput{1, image}, PatchInput{1, &rect}));
  ExpectNoModel(GetComputeDevices(nullptr));
}

TEST(NullHandles, DisposalsDoNothing) {
  DisposeModel(nullptr);
  DisposeDeviceListProcessor(nullptr);
  // The info record is not looked at without a processor, however bogus.
  ComputeDeviceInfo bogus{3, reinterpret_cast<ComputeDeviceEntry*>(uintptr_t{0x10})};
  DisposeComputeDeviceInfo(nullptr, &bogus);
  EXPECT_EQ(bogus.count, 3);
  EXPECT_EQ(bogus.devices, reinterpret_cast<ComputeDeviceEntry*>(uintptr_t{0x10}));
}

TEST(PatchDetections, AnyOtherModelKindIsNoModel) {
  uint8_t pixels[12] = {};
  RelRect rect{0, 0, 1, 1};
  const std::string graph = IdentityGraph();
  auto* model = new BaseModel(OptionsFor(graph));
  ASSERT_FALSE(model->errorFlag) << model->errorMessage;
  ExpectNoModel(GetPatchDetections(model, BatchImageInput{1, Image{2, 2, pixels, 3}},
                                   PatchInput{1, &rect}));
  // The handle is still the host's to dispose.
  DisposeModel(model);
}

}  // namespace
