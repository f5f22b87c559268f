#include "models/detectors/PersonVehicleBoxDetector.h"

#include <algorithm>
#include <cstdint>

#include "models/detectors/DetectorCommon.h"
#include "runtime/TFCommon.h"

namespace {

constexpr char kPixelsNode[] = "InputNodeFull";
constexpr char kShapeNode[] = "InputShape";
constexpr const char* kOutputNodes[] = {"num_detections", "detection_boxes", "detection_scores",
                                        "detection_classes"};
enum Output { kCount, kBoxes, kScores, kClasses };

// The detection count the graph reports, cut to what its box, score and
// class tensors really hold so that no read passes their end.
int DetectionCount(TF_Tensor* const* outputs) {
  if (DetectorCommon::HeldFloats(outputs[kCount]) < 1) return 0;
  const int32_t reported =
      DetectorCommon::TruncateToInt(static_cast<const float*>(TF_TensorData(outputs[kCount]))[0]);
  const int64_t held = std::min({DetectorCommon::HeldFloats(outputs[kBoxes]) / 4,
                                 DetectorCommon::HeldFloats(outputs[kScores]),
                                 DetectorCommon::HeldFloats(outputs[kClasses])});
  return static_cast<int>(std::min<int64_t>(reported, held));
}

}  // namespace

BoxDetectionResult* PersonVehicleBoxDetector::Detect(const BoxDetectionInputData& input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[2];
  if (!FindInput(kPixelsNode, &inputs[0]) || !FindInput(kShapeNode, &inputs[1])) return nullptr;

  // Three channels are assumed whatever the image says; the graph gets the
  // bytes as delivered and their shape.
  const Image& image = input.image;
  const int32_t length = DetectorCommon::PixelCount(image, 3);
  int32_t shape[4] = {1, image.height, image.width, 3};
  TF_Tensor* inputValues[2] = {
      TFCommon::BorrowTensor(TF_UINT8, {length}, image.pixels,
                             static_cast<size_t>(static_cast<int64_t>(length))),
      TFCommon::BorrowTensor(TF_INT32, {4}, shape, sizeof(shape))};

  TF_Output outputs[4];
  for (int i = 0; i < 4; ++i) {
    // The input tensors are left behind on this path, as the model always has.
    if (!FindOutput(kOutputNodes[i], &outputs[i])) return nullptr;
  }

  TF_Tensor* outputValues[4] = {nullptr, nullptr, nullptr, nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors(inputValues, 2);
    TFCommon::DeleteTensors(outputValues, 4);
    return nullptr;
  }

  const std::vector<NativeBoundingBox> boxes = FetchBoundingBoxes(
      DetectionCount(outputValues), static_cast<const float*>(TF_TensorData(outputValues[kScores])),
      static_cast<const float*>(TF_TensorData(outputValues[kBoxes])),
      static_cast<const float*>(TF_TensorData(outputValues[kClasses])), input.scoreThreshold);
  TFCommon::DeleteTensors(inputValues, 2);
  TFCommon::DeleteTensors(outputValues, 4);
  return DetectorCommon::NewResult(boxes);
}

std::vector<NativeBoundingBox> PersonVehicleBoxDetector::FetchBoundingBoxes(
    int count, const float* scores, const float* boxes, const float* classes,
    float scoreThreshold) {
  std::vector<NativeBoundingBox> kept;
  if (count < 1 || scoreThreshold > scores[0]) return kept;
  // The graph sorts by score, so the scan stops at the first weaker one.
  for (int i = 0;; ++i) {
    const float* row = boxes + static_cast<size_t>(i) * 4;
    const float top = row[0];
    const float left = row[1];
    kept.push_back(NativeBoundingBox{left, top, row[3] - left, row[2] - top,
                                     DetectorCommon::TruncateToInt(classes[i]), scores[i]});
    if (i + 1 == count || scoreThreshold > scores[i + 1]) break;
  }
  return kept;
}
