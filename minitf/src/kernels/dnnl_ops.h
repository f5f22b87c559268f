// oneDNN fast paths for float32 convolution, pooling and matrix products.
// Each Run returns false when it did not compute (oneDNN absent at build
// time, a geometry it refuses, an empty tensor); the caller then uses the
// reference loops, so results never depend on oneDNN being present.
// oneDNN runs on the calling thread only: its OpenMP team spins while it
// waits, which on a machine busy with other work turns every barrier into a
// lost time slice. Parallelism comes from minitf's own pool instead, whose
// idle threads sleep (see DnnlConvChain).
#ifndef MINITF_KERNELS_DNNL_OPS_H_
#define MINITF_KERNELS_DNNL_OPS_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "kernels/conv_util.h"
#include "thread_pool.h"

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
  // Makes (or finds) the primitive for `g`; false when oneDNN refuses it.
  bool Prepare(const WindowGeometry& g) const;
  // With a kAddResidual post-op, `out` holds the residual on entry. False,
  // with `out` untouched, when the geometry was refused. Large calls are cut
  // into pieces (images, or bands of output rows) run on `pool` (may be
  // null), each a single-threaded oneDNN call.
  bool Run(const WindowGeometry& g, const float* in, float* out, ThreadPool* pool) const;

 private:
  struct Cache;
  struct Primitive;
  std::shared_ptr<const Primitive> Find(const WindowGeometry& g) const;

  const float* filter_;
  const float* bias_;
  std::vector<ConvPostOp> post_ops_;
  std::unique_ptr<Cache> cache_;
};

// Conv2DBackpropInput as oneDNN's deconvolution: `g` is the forward
// convolution (its input is the result, its output `dy`); the filter is
// [k_h, k_w, in_c, out_c], re-laid out per call as it is an input.
class DnnlConvTranspose {
 public:
  DnnlConvTranspose();
  ~DnnlConvTranspose();
  bool Run(const WindowGeometry& g, const float* dy, const float* filter, float* out) const;

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
