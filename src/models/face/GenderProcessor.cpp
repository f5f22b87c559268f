#include "models/face/GenderProcessor.h"

#include "models/face/FaceTensors.h"
#include "runtime/TFCommon.h"

namespace {

constexpr float kFailure = -1.0f;

}  // namespace

float GenderProcessor::Process(int count, float* values) {
  if (!CheckStatus()) return kFailure;
  TF_Output inputs[1];
  if (!FindInput("input_0", &inputs[0])) return kFailure;
  TF_Tensor* inputValues[1] = {FaceTensors::FeatureRow(count, values)};

  TF_Output outputs[1];
  // The feature tensor is left undeleted on this path: established behaviour.
  if (!FindOutput("Identity", &outputs[0])) return kFailure;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
    return kFailure;
  }

  // No threshold: what the score means is the graph's and the host's affair.
  const float score = FaceTensors::FirstFloat(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
  return score;
}
