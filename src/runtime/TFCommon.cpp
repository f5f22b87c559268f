#include "runtime/TFCommon.h"

#include <algorithm>
#include <cstring>

#include "interface/MemoryManager.h"

namespace TFCommon {

void BytesDeallocator(void*, size_t) {}

void EmptyDeallocator(void*, size_t, void*) {}

// Field 6 (gpu_options, 11 bytes): field 1 = double 0.6, field 4 = true;
// then field 7 = true.
const unsigned char SessionConfigBytes[kSessionConfigLength] = {
    0x32, 0x0b, 0x09, 0x33, 0x33, 0x33, 0x33, 0x33, 0x33, 0xe3, 0x3f, 0x20, 0x01, 0x38, 0x01};

TF_Tensor* BorrowTensor(TF_DataType type, std::initializer_list<int64_t> dims, void* data,
                        size_t length) {
  return TF_NewTensor(type, dims.begin(), static_cast<int>(dims.size()), data, length,
                      EmptyDeallocator, nullptr);
}

void DeleteTensors(std::initializer_list<TF_Tensor*> tensors) {
  for (TF_Tensor* tensor : tensors) TF_DeleteTensor(tensor);
}

void DeleteTensors(TF_Tensor* const* tensors, int count) {
  for (int i = 0; i < count; ++i) TF_DeleteTensor(tensors[i]);
}

int64_t Dim(const TF_Tensor* tensor, int index) {
  if (tensor == nullptr || index < 0 || index >= TF_NumDims(tensor)) return 0;
  return TF_Dim(tensor, index);
}

FloatVector* CopyToFloatVector(const TF_Tensor* tensor, int count) {
  FloatVector* vector = MemoryManager::CreateFloatVector(count);
  const size_t held = tensor != nullptr ? TF_TensorByteSize(tensor) / sizeof(float) : 0;
  const size_t copied = std::min(static_cast<size_t>(count), held);
  if (copied > 0) std::memcpy(vector->values, TF_TensorData(tensor), copied * sizeof(float));
  std::fill(vector->values + copied, vector->values + count, 0.0f);
  return vector;
}

}  // namespace TFCommon
