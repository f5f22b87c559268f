#include "models/face/FaceEmbeddingProcessor.h"

#include "models/face/FaceTensors.h"
#include "runtime/TFCommon.h"

FloatVector* FaceEmbeddingProcessor::Predict(BatchImageInput input) {
  if (!CheckStatus()) return nullptr;
  TF_Output inputs[1];
  if (!FindInput("input_0", &inputs[0])) return nullptr;
  TF_Tensor* inputValues[1] = {FaceTensors::PixelBatch(input)};

  TF_Output outputs[1];
  // The pixel tensor is left undeleted on this path: established behaviour.
  if (!FindOutput("Identity", &outputs[0])) return nullptr;
  TF_Tensor* outputValues[1] = {nullptr};
  RunSession(inputs, inputValues, outputs, outputValues);
  if (!CheckStatus()) {
    TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
    return nullptr;
  }

  FloatVector* embeddings = FaceTensors::Rows(outputValues[0], input.count);
  TFCommon::DeleteTensors({inputValues[0], outputValues[0]});
  return embeddings;
}
