#include "models/detectors/MultiBox4Processor.h"

#include <cstddef>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "models/detectors/DetectorCommon.h"
#include "models/detectors/MultiBoxDetectorCommon.h"
#include "runtime/TFCommon.h"

namespace {

constexpr char kInputNode[] = "Placeholder";
constexpr const char* kOutputNodes[] = {"yolo/Conv_1/BiasAdd", "yolo/Conv_9/BiasAdd",
                                        "yolo/Conv_17/BiasAdd"};
constexpr int kInputSize = 320;
// (width, height) of anchors 0, 1, 2 per head, in input pixels. Unlike the
// 416 detector, the first head here takes the smallest anchors.
constexpr float kAnchors[3][6] = {{12, 16, 19, 36, 40, 28},
                                  {36, 75, 76, 55, 72, 146},
                                  {142, 110, 192, 243, 459, 401}};

}  // namespace

BoxDetectionResult* MultiBox4Processor::Detect(const BoxDetectionInputData& input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[1];
  if (!FindInput(kInputNode, &inputs[0])) return nullptr;

  // The colour conversion needs three channels. Newer OpenCV would quietly
  // widen a grey image instead of raising, so the refusal is made here; the
  // exception leaves Detect.
  const cv::Mat stretched = DetectorCommon::StretchImage(input.image, kInputSize);
  if (stretched.channels() != 3) {
    CV_Error(cv::Error::BadNumChannels, "BGR to RGB conversion needs three channels");
  }
  cv::Mat rgb;
  cv::cvtColor(stretched, rgb, cv::COLOR_BGR2RGB);
  cv::Mat normalised;
  rgb.convertTo(normalised, CV_32F, 1.0, 0.0);
  normalised /= 255.0;
  const int channels = normalised.channels();
  TF_Tensor* inputValues[1] = {TFCommon::BorrowTensor(
      TF_FLOAT, {1, normalised.rows, normalised.cols, channels}, normalised.data,
      static_cast<size_t>(normalised.rows) * static_cast<size_t>(normalised.cols) *
          static_cast<size_t>(channels) * sizeof(float))};

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
