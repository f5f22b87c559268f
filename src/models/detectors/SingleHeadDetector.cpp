#include "models/detectors/SingleHeadDetector.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "models/detectors/DetectorCommon.h"
#include "runtime/TFCommon.h"

namespace {

constexpr char kInputNode[] = "node_input";
constexpr char kOutputNode[] = "output_node0";
// x1, y1, x2, y2, logit.
constexpr int64_t kOutputValues = 5;

}  // namespace

BoxDetectionResult* SingleHeadDetector::Detect(const BoxDetectionInputData& input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[1];
  if (!FindInput(kInputNode, &inputs[0])) return nullptr;

  // Unlike the other detectors this one honours the image's channel count.
  const Image& image = input.image;
  const int32_t length = DetectorCommon::PixelCount(image, image.channels);
  TF_Tensor* inputValues[1] = {TFCommon::BorrowTensor(
      TF_UINT8, {length}, image.pixels, static_cast<size_t>(static_cast<int64_t>(length)))};

  TF_Output outputs[1];
  // The input tensor is left behind on this path, as the model always has.
  if (!FindOutput(kOutputNode, &outputs[0])) return nullptr;

  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
    return nullptr;
  }

  // Values a short output does not hold read as 0.
  float values[kOutputValues] = {};
  const int64_t held = std::min(kOutputValues, DetectorCommon::HeldFloats(outputValues[0]));
  if (held > 0) {
    std::memcpy(values, TF_TensorData(outputValues[0]), static_cast<size_t>(held) * sizeof(float));
  }
  const float x1 = values[0];
  const float y1 = values[1];
  const float score = DetectorCommon::Sigmoid(values[4]);
  const std::vector<NativeBoundingBox> box = {
      NativeBoundingBox{x1, y1, values[2] - x1, values[3] - y1, 0, score}};
  TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
  return DetectorCommon::NewResult(box);
}
