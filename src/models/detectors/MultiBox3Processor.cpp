#include "models/detectors/MultiBox3Processor.h"

#include <cstddef>
#include <vector>

#include <opencv2/core.hpp>

#include "models/detectors/DetectorCommon.h"
#include "models/detectors/MultiBoxDetectorCommon.h"
#include "runtime/TFCommon.h"

namespace {

constexpr char kInputNode[] = "input_0";
constexpr const char* kOutputNodes[] = {"Identity", "Identity_1", "Identity_2"};
constexpr int kInputSize = 416;
// (width, height) of anchors 0, 1, 2 per head, in input pixels: the
// coarsest grid takes the largest anchors.
constexpr float kAnchors[3][6] = {{116, 90, 156, 198, 373, 326},
                                  {30, 61, 62, 45, 59, 119},
                                  {10, 13, 16, 30, 33, 23}};

}  // namespace

BoxDetectionResult* MultiBox3Processor::Detect(const BoxDetectionInputData& input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[1];
  if (!FindInput(kInputNode, &inputs[0])) return nullptr;

  // Stretched, not letterboxed: a fraction of the input is the same
  // fraction of the image. Colours and values go as delivered.
  cv::Mat resized = DetectorCommon::StretchImage(input.image, kInputSize);
  const int channels = resized.channels();
  TF_Tensor* inputValues[1] = {TFCommon::BorrowTensor(
      TF_UINT8, {1, resized.rows, resized.cols, channels}, resized.data,
      static_cast<size_t>(resized.rows) * static_cast<size_t>(resized.cols) *
          static_cast<size_t>(channels))};

  TF_Output outputs[3];
  for (int i = 0; i < 3; ++i) {
    // The input tensor is left behind on this path, as the model always has.
    if (!FindOutput(kOutputNodes[i], &outputs[i])) return nullptr;
  }

  TF_Tensor* outputValues[3] = {nullptr, nullptr, nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors(inputValues, 1);
    TFCommon::DeleteTensors(outputValues, 3);
    return nullptr;
  }

  std::vector<BoundingBoxClasses> candidates;
  MultiBoxDetectorCommon::DecodeHeads(
      outputValues, kAnchors, 3, [&](float* data, const long* dims, std::vector<float> anchors) {
        MultiBoxDetectorCommon::FetchFromArrayOfArrays(candidates, data, dims,
                                                       input.scoreThreshold, anchors, kInputSize);
      });
  TFCommon::DeleteTensors(inputValues, 1);

  const std::vector<NativeBoundingBox> boxes =
      MultiBoxDetectorCommon::ConvertStrongBoxCandidatesToNativeBoxes(
          MultiBoxDetectorCommon::ApplyNms(candidates, input.overlapThreshold),
          input.scoreThreshold);
  return DetectorCommon::NewResult(boxes);
}
