#include "models/regions/PatchFireDetector.h"

#include "models/face/FaceTensors.h"
#include "models/regions/RegionTensors.h"
#include "runtime/TFCommon.h"

FloatVector* PatchFireDetector::Process(BatchImageInput images, PatchInput patches) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[4];
  if (!FindInput("InputNodeFull", &inputs[0]) || !FindInput("InputShape", &inputs[1]) ||
      !FindInput("InputNodeRects", &inputs[2]) || !FindInput("InputShapeRects", &inputs[3])) {
    return nullptr;
  }
  int32_t shape[4];
  int32_t rectShape[2];
  std::vector<float> boxes =
      RectsToTensorData(patches.rects, patches.rectCount, static_cast<float>(images.image.width),
                        static_cast<float>(images.image.height));
  // Unlike the face filter, the boxes come before their shape.
  TF_Tensor* inputValues[4] = {FaceTensors::FlatPixelBatch(images),
                               FaceTensors::BatchShape(images, shape),
                               RegionTensors::Boxes(boxes, patches.rectCount),
                               RegionTensors::RectShape(patches.rectCount, rectShape)};

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

  // One score per patch, whatever shape the graph gave its output.
  FloatVector* scores = TFCommon::CopyToFloatVector(outputValues[0], patches.rectCount);
  TFCommon::DeleteTensors(inputValues, 4);
  TFCommon::DeleteTensors(outputValues, 1);
  return scores;
}

std::vector<float> PatchFireDetector::RectsToTensorData(const RelRect* rects, int count,
                                                        float width, float height) {
  return RegionTensors::RectsToBoxes(rects, count, width, height);
}
