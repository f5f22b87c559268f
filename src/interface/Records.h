// The records that cross the C boundary. The host's header is the one
// definition; the checks below pin the layout the host compiles against, so
// a change of field order or width fails the library's build, not a host.
#ifndef VIDEOANALYTICS_INTERFACE_RECORDS_H_
#define VIDEOANALYTICS_INTERFACE_RECORDS_H_

#include <cstddef>

#include "videoanalytics.h"

namespace records_layout {

template <typename Record, size_t Size, size_t Align>
constexpr bool Is() {
  return sizeof(Record) == Size && alignof(Record) == Align;
}

static_assert(Is<Image, 24, 8>() && offsetof(Image, pixels) == 8 && offsetof(Image, channels) == 16);
static_assert(Is<BatchImageInput, 32, 8>() && offsetof(BatchImageInput, image) == 8);
static_assert(Is<RelRect, 16, 4>() && offsetof(RelRect, height) == 12);
static_assert(Is<ImageWithRectsInput, 40, 8>() && offsetof(ImageWithRectsInput, rectCount) == 24 &&
              offsetof(ImageWithRectsInput, rects) == 32);
static_assert(Is<PatchInput, 16, 8>() && offsetof(PatchInput, rects) == 8);
static_assert(Is<BoxDetectionInputData, 32, 8>() &&
              offsetof(BoxDetectionInputData, scoreThreshold) == 24 &&
              offsetof(BoxDetectionInputData, overlapThreshold) == 28);
static_assert(Is<ModelOptions, 24, 8>() && offsetof(ModelOptions, graphData) == 8 &&
              offsetof(ModelOptions, device) == 16);
static_assert(Is<ProcessError, 16, 8>() && offsetof(ProcessError, message) == 8);
static_assert(Is<ProcessResult, 16, 8>() && offsetof(ProcessResult, error) == 8);
static_assert(Is<FloatVector, 16, 8>() && offsetof(FloatVector, values) == 8);
static_assert(Is<NativeBoundingBox, 24, 4>() && offsetof(NativeBoundingBox, classId) == 16 &&
              offsetof(NativeBoundingBox, score) == 20);
static_assert(Is<BoxDetectionResult, 16, 8>() && offsetof(BoxDetectionResult, boxes) == 8);
static_assert(Is<ComputeDeviceEntry, 16, 8>() && offsetof(ComputeDeviceEntry, type) == 8);
static_assert(Is<ComputeDeviceInfo, 16, 8>() && offsetof(ComputeDeviceInfo, devices) == 8);

}  // namespace records_layout

#endif  // VIDEOANALYTICS_INTERFACE_RECORDS_H_
