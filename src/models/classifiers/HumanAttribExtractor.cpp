#include "models/classifiers/HumanAttribExtractor.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

FloatVector* HumanAttribExtractor::Predict(const Image& image) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[1];
  if (!FindInput("input_0", &inputs[0])) return nullptr;
  // Always three channels, whatever the record says.
  TF_Tensor* inputValues[1] = {ClassifierTensors::BatchOfOne(image)};

  TF_Output outputs[1];
  // The pixel tensor is left undeleted on this path: established behaviour.
  if (!FindOutput("Identity", &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
    return nullptr;
  }

  FloatVector* attributes = ClassifierTensors::Row(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
  return attributes;
}
