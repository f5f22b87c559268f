// Float activations (Tanh, Sigmoid) through oneDNN's vectorised eltwise
// primitives: the scalar library calls cost tens of nanoseconds an element.
#ifndef MINITF_KERNELS_DNNL_ELTWISE_H_
#define MINITF_KERNELS_DNNL_ELTWISE_H_

#include <cstdint>
#include <memory>

#include "kernels/dnnl/engine.h"
#include "thread_pool.h"

namespace minitf {

class DnnlEltwise {
 public:
  enum Kind { kTanh, kSigmoid };
  explicit DnnlEltwise(Kind kind);
  ~DnnlEltwise();
  // out[i] = f(in[i]) for i < n; `out` may be `in`. Large arrays are cut
  // into pieces run on `pool` (may be null). False, with `out` untouched,
  // when it did not compute.
  bool Run(int64_t n, const float* in, float* out, ThreadPool* pool) const;

 private:
  struct Cache;
  Kind kind_;
  std::unique_ptr<Cache> cache_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_ELTWISE_H_
