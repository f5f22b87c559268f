#include "tensor.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace minitf {

Status Shape::Make(const int64_t* dims, int num_dims, Shape* out) {
  if (num_dims < 0) return InvalidArgument("negative rank ", num_dims);
  if (num_dims > 0 && dims == nullptr) return InvalidArgument("null dims");
  std::vector<int64_t> v(dims, dims + num_dims);
  int64_t count = 1;
  for (int64_t d : v) {
    if (d < 0) return InvalidArgument("negative dimension ", d);
    if (d != 0 && count > kMaxTensorElements / d) {
      return InvalidArgument("shape ", Shape(v).ToString(),
                             " has too many elements");
    }
    count *= d;
  }
  *out = Shape(std::move(v));
  return Status::OK();
}

int64_t Shape::num_elements() const {
  int64_t n = 1;
  for (int64_t d : dims_) n *= d;
  return n;
}

std::string Shape::ToString() const {
  std::string s = "[";
  for (size_t i = 0; i < dims_.size(); ++i) {
    if (i) s += ",";
    s += dims_[i] < 0 ? std::string("?") : std::to_string(dims_[i]);
  }
  return s + "]";
}

std::shared_ptr<Buffer> Buffer::Allocate(size_t bytes) {
  constexpr size_t kAlign = 64;
  // Never hand out a null pointer, even for empty tensors.
  size_t rounded = (bytes + kAlign - 1) / kAlign * kAlign;
  if (rounded == 0) rounded = kAlign;
  void* p = std::aligned_alloc(kAlign, rounded);
  if (p == nullptr) return nullptr;
  std::shared_ptr<Buffer> b(new Buffer);
  b->data_ = p;
  b->size_ = bytes;
  b->owned_ = true;
  return b;
}

std::shared_ptr<Buffer> Buffer::Borrow(void* data, size_t bytes,
                                       Deallocator deallocator, void* arg) {
  std::shared_ptr<Buffer> b(new Buffer);
  b->data_ = data;
  b->size_ = bytes;
  b->deallocator_ = deallocator;
  b->deallocator_arg_ = arg;
  return b;
}

Buffer::~Buffer() {
  if (owned_) {
    std::free(data_);
  } else if (deallocator_ != nullptr) {
    deallocator_(data_, size_, deallocator_arg_);
  }
}

Status Tensor::Allocate(DataType dtype, const Shape& shape, Tensor* out) {
  const size_t elem = DataTypeSize(dtype);
  if (elem == 0) return Unimplemented("unsupported dtype ", DataTypeName(dtype));
  const int64_t n = shape.num_elements();
  if (n < 0 || static_cast<uint64_t>(n) > kMaxTensorBytes / elem) {
    return ResourceExhausted("tensor of shape ", shape.ToString(), " and dtype ",
                             DataTypeName(dtype), " exceeds the ",
                             kMaxTensorBytes, "-byte limit");
  }
  auto buffer = Buffer::Allocate(static_cast<size_t>(n) * elem);
  if (!buffer) {
    return ResourceExhausted("out of memory allocating a tensor of shape ",
                             shape.ToString());
  }
  *out = Tensor(dtype, shape, std::move(buffer));
  return Status::OK();
}

int64_t Tensor::IntAt(int64_t i) const {
  if (dtype_ == TF_INT64) return data<int64_t>()[i];
  return data<int32_t>()[i];
}

}  // namespace minitf
