#include "models/classifiers/FaceLightLandmarksProcessor.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

FloatVector* FaceLightLandmarksProcessor::Predict(const Image& image) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[2];
  if (!FindInput("input_001", &inputs[0]) || !FindInput("InputShape", &inputs[1])) {
    return nullptr;
  }
  int32_t shape[3];
  TF_Tensor* inputValues[2] = {ClassifierTensors::FlatPixels(image),
                               ClassifierTensors::ShapeOfThree(image, shape)};

  TF_Output outputs[1];
  // The input tensors are left undeleted on this path: established behaviour.
  if (!FindOutput("output_node0", &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
    return nullptr;
  }

  FloatVector* landmarks = ClassifierTensors::Row(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
  return landmarks;
}
