#include "models/classifiers/AgeProcessor.h"

#include <cmath>

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

namespace {

constexpr int kPairs = 100;
constexpr int kLogits = 2 * kPairs;

}  // namespace

float AgeProcessor::Predict(const Image& image) {
  if (!CheckStatus()) return ClassifierTensors::kFailureValue;
  TF_Output inputs[2];
  if (!FindInput("input_001", &inputs[0]) || !FindInput("InputShape", &inputs[1])) {
    return ClassifierTensors::kFailureValue;
  }
  int32_t shape[3];
  TF_Tensor* inputValues[2] = {ClassifierTensors::FlatPixels(image),
                               ClassifierTensors::ShapeOfThree(image, shape)};

  TF_Output outputs[1];
  // The input tensors are left undeleted on this path: established behaviour.
  if (!FindOutput("output_node0", &outputs[0])) return ClassifierTensors::kFailureValue;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
    return ClassifierTensors::kFailureValue;
  }

  // A graph with fewer than 200 logits is read as if padded with zeros
  // (ties, so each missing pair counts a year) rather than past its end.
  float logits[kLogits];
  ClassifierTensors::CopyFloats(outputValues[0], logits, kLogits);
  const float age = ConvertVector2Age(logits);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
  return age;
}

float AgeProcessor::ConvertVector2Age(const float* logits) {
  float age = 0.0f;
  for (int pair = 0; pair < kPairs; ++pair) {
    const float a = logits[2 * pair];
    const float b = logits[2 * pair + 1];
    const float m = b > a ? b : a;
    // Differences in single precision, exponentials in double, narrowed back.
    const auto ea = static_cast<float>(std::exp(static_cast<double>(a - m)));
    const auto eb = static_cast<float>(std::exp(static_cast<double>(b - m)));
    const float sum = ea + eb;
    // Ties and NaN probabilities count: the only test is pb < pa.
    if (!(eb / sum < ea / sum)) age += 1.0f;
  }
  return age;
}
