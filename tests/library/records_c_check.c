/* The host's header compiled as C: the records must have the same layout
 * here as in the library's C++. */
#include <stddef.h>

#include "videoanalytics.h"

#define LAYOUT(type, field) offsetof(type, field)

const size_t kVaCLayout[] = {
    sizeof(Image), LAYOUT(Image, height), LAYOUT(Image, pixels), LAYOUT(Image, channels),
    sizeof(BatchImageInput), LAYOUT(BatchImageInput, image),
    sizeof(RelRect), LAYOUT(RelRect, y), LAYOUT(RelRect, width), LAYOUT(RelRect, height),
    sizeof(ImageWithRectsInput), LAYOUT(ImageWithRectsInput, rectCount),
    LAYOUT(ImageWithRectsInput, rects),
    sizeof(PatchInput), LAYOUT(PatchInput, rects),
    sizeof(BoxDetectionInputData), LAYOUT(BoxDetectionInputData, scoreThreshold),
    LAYOUT(BoxDetectionInputData, overlapThreshold),
    sizeof(ModelOptions), LAYOUT(ModelOptions, graphData), LAYOUT(ModelOptions, device),
    sizeof(ProcessResult), LAYOUT(ProcessResult, error),
    sizeof(ProcessError), LAYOUT(ProcessError, message),
    sizeof(FloatVector), LAYOUT(FloatVector, values),
    sizeof(NativeBoundingBox), LAYOUT(NativeBoundingBox, y), LAYOUT(NativeBoundingBox, width),
    LAYOUT(NativeBoundingBox, height), LAYOUT(NativeBoundingBox, classId),
    LAYOUT(NativeBoundingBox, score),
    sizeof(BoxDetectionResult), LAYOUT(BoxDetectionResult, boxes),
    sizeof(ComputeDeviceInfo), LAYOUT(ComputeDeviceInfo, devices),
    sizeof(ComputeDeviceEntry), LAYOUT(ComputeDeviceEntry, type),
};
const size_t kVaCLayoutCount = sizeof(kVaCLayout) / sizeof(kVaCLayout[0]);
