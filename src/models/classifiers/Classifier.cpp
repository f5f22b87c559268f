#include "models/classifiers/Classifier.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

float Classifier::PredictOwnChannelsScore(const Image& image) {
  if (!CheckStatus()) return ClassifierTensors::kFailureValue;
  // The pixel tensor is built before the lookup is tested, and is left
  // undeleted when the node turns out missing: established behaviour.
  TF_Output inputs[1] = {NodeOutput("input_0")};
  TF_Tensor* inputValues[1] = {ClassifierTensors::BatchOfOneOwnChannels(image)};
  if (inputs[0].oper == nullptr) {
    SetErrorState(TFCommon::kInOpNotFound);
    return ClassifierTensors::kFailureValue;
  }

  TF_Output outputs[1];
  if (!FindOutput("Identity", &outputs[0])) return ClassifierTensors::kFailureValue;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
    return ClassifierTensors::kFailureValue;
  }

  const float score = ClassifierTensors::FirstFloat(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
  return score;
}
