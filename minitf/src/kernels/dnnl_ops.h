// oneDNN fast paths for float32 convolution, pooling and matrix products.
// Each Run returns false when it did not compute (oneDNN absent at build
// time, a geometry it refuses, an empty tensor); the caller then uses the
// reference loops, so results never depend on oneDNN being present.
// `threads` is the caller's intra-op thread count: oneDNN runs on OpenMP's
// threads, and is held to that many of them for the call.
#ifndef MINITF_KERNELS_DNNL_OPS_H_
#define MINITF_KERNELS_DNNL_OPS_H_

#include <cstdint>
#include <memory>
#include <vector>

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
  bool Run(const WindowGeometry& g, const float* in, const float* filter, float* out,
           int threads) const;

 private:
  struct Cache;
  std::unique_ptr<Cache> cache_;
};

// What a fused convolution applies to its result, in order.
struct ConvPostOp {
  enum Kind { kRelu, kRelu6, kLeakyRelu, kElu, kSigmoid, kTanh, kAddResidual };
  Kind kind = kRelu;
  float alpha = 0;  // kLeakyRelu's slope
};

// A convolution whose filter and bias are constants, with its bias,
// activations and residual addition done inside the one primitive. The
// filter is laid out the way the primitive wants once per geometry, not per
// call. `filter` and `bias` (null for none; out_c values) must outlive this.
class DnnlConvChain {
 public:
  DnnlConvChain(const float* filter, const float* bias, std::vector<ConvPostOp> post_ops);
  ~DnnlConvChain();
  // With a kAddResidual post-op, `out` holds the residual on entry.
  bool Run(const WindowGeometry& g, const float* in, float* out, int threads) const;

 private:
  struct Cache;
  const float* filter_;
  const float* bias_;
  std::vector<ConvPostOp> post_ops_;
  std::unique_ptr<Cache> cache_;
};

// Max pooling, or average pooling over the in-bounds cells.
class DnnlPool {
 public:
  explicit DnnlPool(bool max);
  ~DnnlPool();
  bool Run(const WindowGeometry& g, const float* in, float* out, int threads) const;

 private:
  struct Cache;
  bool max_;
  std::unique_ptr<Cache> cache_;
};

// c[m, n] = op(a) * op(b), layouts as reference::Gemm.
bool DnnlGemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k,
              const float* a, const float* b, float* c, int threads);

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_OPS_H_
