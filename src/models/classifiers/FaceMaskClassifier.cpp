#include "models/classifiers/FaceMaskClassifier.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

float FaceMaskClassifier::Predict(const Image& image) {
  // Missing nodes are passed on as they are; the run then fails in
  // TensorFlow, which this class does not look at.
  TF_Output inputs[2] = {NodeOutput("input_001"), NodeOutput("InputShape")};
  int32_t shape[4];
  TF_Tensor* inputValues[2] = {ClassifierTensors::FlatPixels(image),
                               ClassifierTensors::ShapeOfFour(image, shape)};
  TF_Output outputs[1] = {NodeOutput("output_node0")};
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);

  // A failed run leaves the slot empty; FirstFloat reads 0 from it.
  const float score = ClassifierTensors::FirstFloat(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
  return score;
}
