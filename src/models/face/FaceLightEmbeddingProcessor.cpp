#include "models/face/FaceLightEmbeddingProcessor.h"

#include <cstdint>

#include "models/face/FaceTensors.h"
#include "runtime/TFCommon.h"

FloatVector* FaceLightEmbeddingProcessor::Predict(BatchImageInput input) {
  if (!CheckStatus()) return nullptr;
  // Both inputs are found before any tensor is built.
  TF_Output inputs[2];
  if (!FindInput("input_001", &inputs[0]) || !FindInput("InputShape", &inputs[1])) {
    return nullptr;
  }
  int32_t shape[4];
  TF_Tensor* inputValues[2] = {FaceTensors::FlatPixelBatch(input),
                               FaceTensors::BatchShape(input, shape)};

  TF_Output outputs[1];
  // Both input tensors are left undeleted on this path: established behaviour.
  if (!FindOutput("output_node0", &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
    return nullptr;
  }

  FloatVector* embeddings = FaceTensors::Rows(outputValues[0], input.count);
  TFCommon::DeleteTensors({inputValues[0], inputValues[1], outputValues[0]});
  return embeddings;
}
