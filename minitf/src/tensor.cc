#include "tensor.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace minitf {

Status Shape::Make(const int64_t* dims, int num_dims, Shape* out) {
  if (num_dims < 0) return InvalidArgument("negative rank ", num_dims);
  if (num_dims > 0 && dims == nullptr) return InvalidArgument("null dims");
  std::vector<int64_t> v(dims, dims + num_dims);
  int64_t nonzero_count = 1;
  for (int64_t d : v) {
    if (d < 0) return InvalidArgument("negative dimension ", d);
    if (d == 0) continue;
    if (nonzero_count > kMaxTensorElements / d) {
      return InvalidArgument("shape ", Shape(v).ToString(),
                             " has too many elements");
    }
    nonzero_count *= d;
  }
  *out = Shape(std::move(v));
  return Status::OK();
}

int64_t Shape::num_elements() const {
  // An empty tensor may have other huge dims; their product alone could
  // overflow.
  for (int64_t d : dims_) {
    if (d == 0) return 0;
  }
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

bool MemoryBudget::Reserve(size_t bytes) {
  if (bytes > static_cast<uint64_t>(limit_)) return false;
  const int64_t n = static_cast<int64_t>(bytes);
  int64_t used = used_.load();
  do {
    if (used > limit_ - n) return false;
  } while (!used_.compare_exchange_weak(used, used + n));
  int64_t peak = peak_.load();
  while (used + n > peak && !peak_.compare_exchange_weak(peak, used + n)) {
  }
  return true;
}

int64_t MemoryBudget::DefaultRunLimit() {
  static const int64_t limit = [] {
    const char* env = std::getenv("MINITF_MAX_RUN_BYTES");
    if (env == nullptr || *env == '\0') return kDefaultMaxRunBytes;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(env, &end, 10);
    if (errno != 0 || *end != '\0' || v <= 0) return kDefaultMaxRunBytes;
    return static_cast<int64_t>(v);
  }();
  return limit;
}

BufferCache::~BufferCache() {
  for (auto& [capacity, data] : free_) std::free(data);
}

void* BufferCache::Take(size_t bytes, size_t* capacity) {
  if (bytes < kMinBytes) return nullptr;
  std::lock_guard<std::mutex> lock(mu_);
  auto it = free_.lower_bound(bytes);
  if (it == free_.end() || it->first / 2 > bytes) return nullptr;
  void* data = it->second;
  *capacity = it->first;
  cached_ -= it->first;
  free_.erase(it);
  return data;
}

void BufferCache::Expect(size_t run_bytes) {
  std::lock_guard<std::mutex> lock(mu_);
  limit_ = std::min(max_bytes_, std::max(limit_, run_bytes));
}

bool BufferCache::Give(void* data, size_t capacity) {
  if (capacity < kMinBytes) return false;
  std::vector<void*> evicted;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (capacity > limit_) return false;
    if (cached_ + capacity > limit_) {
      // Smaller blocks make way for a larger one: large blocks are the ones
      // malloc hands back to the system, so that every run would touch
      // fresh pages again; small ones it recycles itself.
      size_t freed = 0;
      auto end = free_.begin();
      while (end != free_.end() && end->first < capacity &&
             cached_ - freed + capacity > limit_) {
        freed += end->first;
        ++end;
      }
      if (cached_ - freed + capacity > limit_) return false;
      for (auto it = free_.begin(); it != end; ++it) evicted.push_back(it->second);
      free_.erase(free_.begin(), end);
      cached_ -= freed;
    }
    free_.emplace(capacity, data);
    cached_ += capacity;
  }
  for (void* block : evicted) std::free(block);
  return true;
}

size_t BufferCache::cached_bytes() const {
  std::lock_guard<std::mutex> lock(mu_);
  return cached_;
}

std::shared_ptr<Buffer> Buffer::Allocate(size_t bytes, std::shared_ptr<MemoryBudget> budget) {
  constexpr size_t kAlign = 64;
  // Never hand out a null pointer, even for empty tensors.
  size_t rounded = (bytes + kAlign - 1) / kAlign * kAlign;
  if (rounded == 0) rounded = kAlign;
  std::shared_ptr<BufferCache> cache = budget ? budget->cache() : nullptr;
  size_t capacity = rounded;
  void* p = cache ? cache->Take(rounded, &capacity) : nullptr;
  if (p == nullptr) {
    capacity = rounded;
    p = std::aligned_alloc(kAlign, rounded);
  }
  if (p == nullptr) {
    if (budget) budget->Release(bytes);
    return nullptr;
  }
  std::shared_ptr<Buffer> b(new Buffer);
  b->data_ = p;
  b->size_ = bytes;
  b->owned_ = true;
  b->capacity_ = capacity;
  b->cache_ = std::move(cache);
  b->charged_ = budget ? bytes : 0;
  b->budget_ = std::move(budget);
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
    if (!cache_ || !cache_->Give(data_, capacity_)) std::free(data_);
  } else if (deallocator_ != nullptr) {
    deallocator_(data_, size_, deallocator_arg_);
  }
  if (budget_) budget_->Release(charged_);
}

Status Tensor::Allocate(DataType dtype, const Shape& shape, Tensor* out,
                        const std::shared_ptr<MemoryBudget>& budget) {
  const size_t elem = DataTypeSize(dtype);
  if (elem == 0) return Unimplemented("unsupported dtype ", DataTypeName(dtype));
  // Kernels may build output shapes from several inputs' dims without
  // Shape::Make; the product is checked here once for all of them.
  int64_t n = 1;
  for (int64_t d : shape.dims()) {
    if (d < 0) return InvalidArgument("negative dimension in shape ", shape.ToString());
    if (d != 0 && n > kMaxTensorElements / d) n = -1;
    if (n > 0) n *= d;
  }
  if (n < 0 || static_cast<uint64_t>(n) > kMaxTensorBytes / elem) {
    return ResourceExhausted("tensor of shape ", shape.ToString(), " and dtype ",
                             DataTypeName(dtype), " exceeds the ",
                             kMaxTensorBytes, "-byte limit");
  }
  const size_t bytes = static_cast<size_t>(n) * elem;
  if (budget && !budget->Reserve(bytes)) {
    return ResourceExhausted("tensor of shape ", shape.ToString(), " and dtype ",
                             DataTypeName(dtype), " (", bytes, " bytes) would exceed the run's ",
                             budget->limit(), "-byte memory limit (", budget->used(),
                             " bytes in use)");
  }
  auto buffer = Buffer::Allocate(bytes, budget);
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
