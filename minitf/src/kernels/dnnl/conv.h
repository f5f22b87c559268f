// Conv2D and DepthwiseConv2dNative through oneDNN, for a filter given as an
// op input.
#ifndef MINITF_KERNELS_DNNL_CONV_H_
#define MINITF_KERNELS_DNNL_CONV_H_

#include <memory>

#include "kernels/dnnl/engine.h"
#include "kernels/window_geometry.h"

namespace minitf {

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

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_CONV_H_
