// A convolution with a constant filter and the bias, activations and
// residual addition that follow it, as one oneDNN primitive; large calls are
// cut into bands run on minitf's pool.
#ifndef MINITF_KERNELS_DNNL_CONV_CHAIN_H_
#define MINITF_KERNELS_DNNL_CONV_CHAIN_H_

#include <memory>
#include <vector>

#include "kernels/dnnl/engine.h"
#include "kernels/window_geometry.h"
#include "thread_pool.h"

namespace minitf {

// What a fused convolution applies to its result, in order.
struct ConvPostOp {
  enum Kind { kRelu, kRelu6, kLeakyRelu, kElu, kSigmoid, kTanh, kAddResidual, kClip };
  Kind kind = kRelu;
  float alpha = 0;  // kLeakyRelu's slope; kClip's lower bound
  float beta = 0;   // kClip's upper bound (at least alpha)
};

// The filter is laid out the way the primitive wants once per geometry, not
// per call. `filter` and `bias` (null for none; out_c values) must outlive
// this.
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

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_CONV_CHAIN_H_
