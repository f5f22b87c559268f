#include "models/regions/FaceFilterMultipleProcessor.h"

#include "models/classifiers/ClassifierTensors.h"
#include "models/regions/RegionTensors.h"
#include "runtime/TFCommon.h"

FloatVector* FaceFilterMultipleProcessor::Process(const ImageWithRectsInput& input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[4];
  if (!FindInput("input_001", &inputs[0]) || !FindInput("InputShape", &inputs[1]) ||
      !FindInput("InputShapeRects", &inputs[2]) || !FindInput("input_002", &inputs[3])) {
    return nullptr;
  }
  int32_t shape[3];
  int32_t rectShape[2];
  std::vector<float> boxes =
      RectsToTensorData(input.rects, input.rectCount, static_cast<float>(input.image.width),
                        static_cast<float>(input.image.height));
  TF_Tensor* inputValues[4] = {ClassifierTensors::FlatPixels(input.image),
                               ClassifierTensors::ShapeOfThree(input.image, shape),
                               RegionTensors::RectShape(input.rectCount, rectShape),
                               RegionTensors::Boxes(boxes, input.rectCount)};

  TF_Output outputs[1];
  // The input tensors are left undeleted on this path: established behaviour.
  if (!FindOutput("output_node0", &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors(inputValues, 4);
    TFCommon::DeleteTensors(outputValues, 1);
    return nullptr;
  }

  // One score per rectangle, whatever shape the graph gave its output.
  FloatVector* scores = TFCommon::CopyToFloatVector(outputValues[0], input.rectCount);
  TFCommon::DeleteTensors(inputValues, 4);
  TFCommon::DeleteTensors(outputValues, 1);
  return scores;
}

std::vector<float> FaceFilterMultipleProcessor::RectsToTensorData(const RelRect* rects, int count,
                                                                  float width, float height) {
  return RegionTensors::RectsToBoxes(rects, count, width, height);
}
