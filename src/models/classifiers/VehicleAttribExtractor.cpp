#include "models/classifiers/VehicleAttribExtractor.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

FloatVector* VehicleAttribExtractor::Predict(const Image& image) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[2];
  if (!FindInput("InputNodeFull", &inputs[0]) || !FindInput("InputShape", &inputs[1])) {
    return nullptr;
  }
  int32_t shape[4];
  TF_Tensor* inputValues[2] = {ClassifierTensors::FlatPixels(image),
                               ClassifierTensors::ShapeOfFour(image, shape)};

  // Both heads come from one run. The input tensors are left undeleted when
  // either is missing: established behaviour.
  TF_Output outputs[2];
  if (!FindOutput("output_node0", &outputs[0]) || !FindOutput("output_node1", &outputs[1])) {
    return nullptr;
  }
  TF_Tensor* outputValues[2] = {nullptr, nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0], outputValues[1]});
    return nullptr;
  }

  FloatVector* attributes = ClassifierTensors::JoinedRows(outputValues[0], outputValues[1]);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0], outputValues[1]});
  return attributes;
}
