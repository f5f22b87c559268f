// Shapes, reference-counted buffers and tensors.
#ifndef MINITF_TENSOR_H_
#define MINITF_TENSOR_H_

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "status.h"
#include "types.h"

namespace minitf {

// Largest element count and byte size any tensor may have. Shapes are
// checked against these before anything is allocated, so a hostile graph
// yields a status instead of an overflow or an out-of-memory kill.
inline constexpr int64_t kMaxTensorElements = int64_t{1} << 40;
inline constexpr size_t kMaxTensorBytes = size_t{1} << 31;  // 2 GiB

class Shape {
 public:
  Shape() = default;
  Shape(std::initializer_list<int64_t> dims) : dims_(dims) {}
  explicit Shape(std::vector<int64_t> dims) : dims_(std::move(dims)) {}

  // Checked construction: dims non-negative, element count without overflow
  // and below kMaxTensorElements.
  static Status Make(const int64_t* dims, int num_dims, Shape* out);
  static Status Make(std::vector<int64_t> dims, Shape* out) {
    return Make(dims.data(), static_cast<int>(dims.size()), out);
  }

  int rank() const { return static_cast<int>(dims_.size()); }
  int64_t dim(int i) const { return dims_[i]; }
  const std::vector<int64_t>& dims() const { return dims_; }
  int64_t num_elements() const;
  void AddDim(int64_t d) { dims_.push_back(d); }
  void set_dim(int i, int64_t d) { dims_[i] = d; }
  void RemoveDim(int i) { dims_.erase(dims_.begin() + i); }
  void InsertDim(int i, int64_t d) { dims_.insert(dims_.begin() + i, d); }

  bool operator==(const Shape& other) const { return dims_ == other.dims_; }
  bool operator!=(const Shape& other) const { return dims_ != other.dims_; }
  // "[2,3,4]"
  std::string ToString() const;

 private:
  std::vector<int64_t> dims_;
};

// Bytes of memory, either owned (64-byte aligned) or borrowed from a caller
// who is told through its deallocator when the last reference goes away.
class Buffer {
 public:
  using Deallocator = void (*)(void* data, size_t len, void* arg);

  // Null when the allocation fails.
  static std::shared_ptr<Buffer> Allocate(size_t bytes);
  static std::shared_ptr<Buffer> Borrow(void* data, size_t bytes,
                                        Deallocator deallocator, void* arg);
  ~Buffer();
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  void* data() const { return data_; }
  size_t size() const { return size_; }
  bool owned() const { return owned_; }

 private:
  Buffer() = default;
  void* data_ = nullptr;
  size_t size_ = 0;
  bool owned_ = false;
  Deallocator deallocator_ = nullptr;
  void* deallocator_arg_ = nullptr;
};

class Tensor {
 public:
  Tensor() = default;
  Tensor(DataType dtype, Shape shape, std::shared_ptr<Buffer> buffer)
      : dtype_(dtype), shape_(std::move(shape)), buffer_(std::move(buffer)) {}

  // New owned tensor; checks the byte size against kMaxTensorBytes.
  static Status Allocate(DataType dtype, const Shape& shape, Tensor* out);

  bool valid() const { return buffer_ != nullptr; }
  DataType dtype() const { return dtype_; }
  const Shape& shape() const { return shape_; }
  int rank() const { return shape_.rank(); }
  int64_t dim(int i) const { return shape_.dim(i); }
  int64_t num_elements() const { return shape_.num_elements(); }
  // Bytes the shape needs (elements times element size).
  size_t byte_size() const { return num_elements() * DataTypeSize(dtype_); }
  const std::shared_ptr<Buffer>& buffer() const { return buffer_; }

  void* raw_data() const { return buffer_ ? buffer_->data() : nullptr; }
  template <typename T>
  T* data() const { return static_cast<T*>(raw_data()); }

  // Same memory, another shape of the same element count.
  Tensor Reshaped(const Shape& shape) const { return Tensor(dtype_, shape, buffer_); }

  // Element `i` of an integer tensor (int32 or int64) widened to int64.
  int64_t IntAt(int64_t i) const;

 private:
  DataType dtype_ = kInvalidType;
  Shape shape_;
  std::shared_ptr<Buffer> buffer_;
};

}  // namespace minitf

#endif  // MINITF_TENSOR_H_
