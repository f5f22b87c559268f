/* Sizes and field offsets of the host's records, in one order, so the same
 * list compiled as C and as C++ can be compared with the expected layout. */
#ifndef TESTS_LIBRARY_RECORDS_LAYOUT_H_
#define TESTS_LIBRARY_RECORDS_LAYOUT_H_

#include <stddef.h>

#include "videoanalytics.h"

#define VA_RECORD_LAYOUT \
    sizeof(Image), offsetof(Image, height), offsetof(Image, pixels), offsetof(Image, channels), \
    sizeof(BatchImageInput), offsetof(BatchImageInput, image), \
    sizeof(RelRect), offsetof(RelRect, y), offsetof(RelRect, width), offsetof(RelRect, height), \
    sizeof(ImageWithRectsInput), offsetof(ImageWithRectsInput, rectCount), \
    offsetof(ImageWithRectsInput, rects), \
    sizeof(PatchInput), offsetof(PatchInput, rects), \
    sizeof(BoxDetectionInputData), offsetof(BoxDetectionInputData, scoreThreshold), \
    offsetof(BoxDetectionInputData, overlapThreshold), \
    sizeof(ModelOptions), offsetof(ModelOptions, graphData), offsetof(ModelOptions, device), \
    sizeof(ProcessResult), offsetof(ProcessResult, error), \
    sizeof(ProcessError), offsetof(ProcessError, message), \
    sizeof(FloatVector), offsetof(FloatVector, values), \
    sizeof(NativeBoundingBox), offsetof(NativeBoundingBox, y), \
    offsetof(NativeBoundingBox, width), offsetof(NativeBoundingBox, height), \
    offsetof(NativeBoundingBox, classId), offsetof(NativeBoundingBox, score), \
    sizeof(BoxDetectionResult), offsetof(BoxDetectionResult, boxes), \
    sizeof(ComputeDeviceInfo), offsetof(ComputeDeviceInfo, devices), \
    sizeof(ComputeDeviceEntry), offsetof(ComputeDeviceEntry, type)

#endif  /* TESTS_LIBRARY_RECORDS_LAYOUT_H_ */
