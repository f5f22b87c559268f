// Conv2DBackpropInput through oneDNN's deconvolution.
#ifndef MINITF_KERNELS_DNNL_CONV_TRANSPOSE_H_
#define MINITF_KERNELS_DNNL_CONV_TRANSPOSE_H_

#include <memory>

#include "kernels/dnnl/engine.h"
#include "kernels/window_geometry.h"

namespace minitf {

// `g` is the forward convolution (its input is the result, its output
// `dy`); the filter is [k_h, k_w, in_c, out_c], re-laid out per call as it
// is an input.
class DnnlConvTranspose {
 public:
  DnnlConvTranspose();
  ~DnnlConvTranspose();
  bool Run(const WindowGeometry& g, const float* dy, const float* filter, float* out) const;

 private:
  struct Cache;
  std::unique_ptr<Cache> cache_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_CONV_TRANSPOSE_H_
