// oneDNN fast paths for float32 convolution, pooling and matrix products.
// Each Run returns false when it did not compute (oneDNN absent at build
// time, a geometry it refuses, an empty tensor); the caller then uses the
// reference loops, so results never depend on oneDNN being present.
#ifndef MINITF_KERNELS_DNNL_OPS_H_
#define MINITF_KERNELS_DNNL_OPS_H_

#include <cstdint>
#include <memory>

#include "kernels/conv_util.h"

namespace minitf {

// Whether this build has the oneDNN paths at all.
bool DnnlAvailable();

// A convolution (plain, grouped or depthwise, see reference::Conv2D for the
// filter layout) with its primitives cached per geometry. Run may be called
// from several threads at once.
class DnnlConv2D {
 public:
  DnnlConv2D();
  ~DnnlConv2D();
  bool Run(const WindowGeometry& g, const float* in, const float* filter, float* out) const;

 private:
  struct Cache;
  std::unique_ptr<Cache> cache_;
};

// Max pooling, or average pooling over the in-bounds cells.
class DnnlPool {
 public:
  explicit DnnlPool(bool max);
  ~DnnlPool();
  bool Run(const WindowGeometry& g, const float* in, float* out) const;

 private:
  struct Cache;
  bool max_;
  std::unique_ptr<Cache> cache_;
};

// c[m, n] = op(a) * op(b), layouts as reference::Gemm.
bool DnnlGemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k,
              const float* a, const float* b, float* c);

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_OPS_H_
