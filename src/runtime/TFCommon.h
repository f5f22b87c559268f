// Constants and small tensor mechanics shared by every model class.
#ifndef VIDEOANALYTICS_RUNTIME_TFCOMMON_H_
#define VIDEOANALYTICS_RUNTIME_TFCOMMON_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "interface/Records.h"
#include "tensorflow/c/c_api.h"

namespace TFCommon {

// Data deallocator of the graph buffer: the graph bytes belong to the host.
void BytesDeallocator(void* data, size_t length);

// Deallocator of every tensor built over memory the library does not own
// (host pixels, local arrays): deleting the tensor must not free it.
void EmptyDeallocator(void* data, size_t length, void* arg);

// Serialised ConfigProto given to every session: gpu_options
// {per_process_gpu_memory_fraction: 0.6, allow_growth: true},
// allow_soft_placement: true.
constexpr size_t kSessionConfigLength = 15;
extern const unsigned char SessionConfigBytes[kSessionConfigLength];

// Error texts of a failed node lookup, as the host sees them.
constexpr const char kInOpNotFound[] = "InOp not found";
constexpr const char kOutOpNotFound[] = "OutOp not found";

// A tensor over `data` that borrows it: no copy, never freed by TensorFlow.
// `dims` are already widened to 64 bits by the caller.
TF_Tensor* BorrowTensor(TF_DataType type, std::initializer_list<int64_t> dims, void* data,
                        size_t length);

// TF_DeleteTensor on each; null entries (empty output slots) are fine.
void DeleteTensors(std::initializer_list<TF_Tensor*> tensors);
void DeleteTensors(TF_Tensor* const* tensors, int count);

// Size of dimension `index`, or 0 when the tensor has no such dimension, so
// that a graph of the wrong rank yields an empty result instead of a read
// outside the shape.
int64_t Dim(const TF_Tensor* tensor, int index);

// A new FloatVector of `count` values copied from the start of the tensor's
// data. Values the tensor does not hold are zero: the copy never reads past
// the tensor, whatever count the caller derived from the graph.
FloatVector* CopyToFloatVector(const TF_Tensor* tensor, int count);

}  // namespace TFCommon

#endif  // VIDEOANALYTICS_RUNTIME_TFCOMMON_H_
