// Shapes, reference-counted buffers and tensors.
#ifndef MINITF_TENSOR_H_
#define MINITF_TENSOR_H_

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
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
// Live tensor bytes one run may hold when nothing else is configured.
inline constexpr int64_t kDefaultMaxRunBytes = int64_t{4} << 30;  // 4 GiB

// Freed buffers kept for reuse. A session's runs allocate the same sizes
// again and again; handing back memory that is already mapped saves the
// page faults of fresh allocations. Bounded, thread-safe.
class BufferCache {
 public:
  explicit BufferCache(size_t max_bytes) : max_bytes_(max_bytes) {}
  ~BufferCache();
  BufferCache(const BufferCache&) = delete;
  BufferCache& operator=(const BufferCache&) = delete;

  // A cached block of at least `bytes` and at most twice that (its size in
  // `capacity`), or null.
  void* Take(size_t bytes, size_t* capacity);
  // Keeps `data` (from std::aligned_alloc, `capacity` bytes) when there is
  // room; false when the caller must free it.
  bool Give(void* data, size_t capacity);
  // Lets the cache hold as much as one run was seen to need at its peak
  // (never more than the cache's maximum): enough for the next run of the
  // same model to allocate nothing new, without keeping more than it uses.
  void Expect(size_t run_bytes);
  size_t cached_bytes() const;

  // Blocks smaller than this are left to malloc, which recycles them well.
  static constexpr size_t kMinBytes = size_t{16} << 10;

 private:
  const size_t max_bytes_;
  size_t limit_ = 0;  // grows with Expect up to max_bytes_
  mutable std::mutex mu_;
  std::multimap<size_t, void*> free_;  // by capacity
  size_t cached_ = 0;
};

// Bytes held by the tensors of one run, against a limit. Buffers charged to
// it give their bytes back when they die, which may be after the run (a
// fetched output), so buffers share ownership of the budget.
class MemoryBudget {
 public:
  explicit MemoryBudget(int64_t limit) : limit_(limit) {}
  // False, and nothing charged, when `bytes` more would exceed the limit.
  bool Reserve(size_t bytes);
  void Release(size_t bytes) { used_.fetch_sub(static_cast<int64_t>(bytes)); }
  int64_t used() const { return used_.load(); }
  // The most bytes in use at once so far.
  int64_t peak() const { return peak_.load(); }
  int64_t limit() const { return limit_; }

  // kDefaultMaxRunBytes, or MINITF_MAX_RUN_BYTES when that is a positive
  // integer; read once per process.
  static int64_t DefaultRunLimit();

  // Where the run's buffers come from and go back to (may be null).
  void set_cache(std::shared_ptr<BufferCache> cache) { cache_ = std::move(cache); }
  const std::shared_ptr<BufferCache>& cache() const { return cache_; }

 private:
  const int64_t limit_;
  std::shared_ptr<BufferCache> cache_;
  std::atomic<int64_t> used_{0};
  std::atomic<int64_t> peak_{0};
};

class Shape {
 public:
  Shape() = default;
  Shape(std::initializer_list<int64_t> dims) : dims_(dims) {}
  explicit Shape(std::vector<int64_t> dims) : dims_(std::move(dims)) {}

  // Checked construction: dims non-negative and the product of the non-zero
  // dims at most kMaxTensorElements, so that no partial product of the dims
  // (strides, the size of an empty tensor's other axes) can overflow.
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

  // Null when the allocation fails. With a budget, the bytes must already be
  // reserved there; the buffer releases them when it dies (or at once when
  // the allocation fails).
  static std::shared_ptr<Buffer> Allocate(size_t bytes,
                                          std::shared_ptr<MemoryBudget> budget = nullptr);
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
  std::shared_ptr<MemoryBudget> budget_;
  size_t charged_ = 0;
  size_t capacity_ = 0;                 // owned: bytes actually allocated
  std::shared_ptr<BufferCache> cache_;  // owned: where the memory goes back
};

class Tensor {
 public:
  Tensor() = default;
  Tensor(DataType dtype, Shape shape, std::shared_ptr<Buffer> buffer)
      : dtype_(dtype), shape_(std::move(shape)), buffer_(std::move(buffer)) {}

  // New owned tensor; checks the byte size against kMaxTensorBytes and, when
  // given, charges it to `budget` (RESOURCE_EXHAUSTED when that is spent).
  static Status Allocate(DataType dtype, const Shape& shape, Tensor* out,
                         const std::shared_ptr<MemoryBudget>& budget = nullptr);

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
