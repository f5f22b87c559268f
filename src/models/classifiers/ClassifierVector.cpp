#include "models/classifiers/ClassifierVector.h"

#include "models/classifiers/ClassifierTensors.h"
#include "runtime/TFCommon.h"

FloatVector* ClassifierVector::PredictFlatPixelsRow(const Image& image, const char* pixelsNode,
                                                    ShapeTensor shapeTensor,
                                                    const char* outputNode) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[2];
  if (!FindInput(pixelsNode, &inputs[0]) || !FindInput("InputShape", &inputs[1])) {
    return nullptr;
  }
  // Both shape buffers live to the end of the call; the tensor borrows one.
  int32_t shapeOfThree[3];
  int32_t shapeOfFour[4];
  TF_Tensor* inputValues[2] = {
      ClassifierTensors::FlatPixels(image),
      shapeTensor == ShapeTensor::kHeightWidthChannels
          ? ClassifierTensors::ShapeOfThree(image, shapeOfThree)
          : ClassifierTensors::ShapeOfFour(image, shapeOfFour)};

  TF_Output outputs[1];
  // The input tensors are left undeleted on this path: established behaviour.
  if (!FindOutput(outputNode, &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
    return nullptr;
  }

  FloatVector* row = ClassifierTensors::Row(outputValues[0]);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
  return row;
}
