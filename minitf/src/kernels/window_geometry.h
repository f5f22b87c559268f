// Window geometry shared by the NHWC sliding-window ops (convolutions and
// pooling): attribute parsing, TensorFlow's output-size and padding rules.
#ifndef MINITF_KERNELS_WINDOW_GEOMETRY_H_
#define MINITF_KERNELS_WINDOW_GEOMETRY_H_

#include <cstdint>

#include "kernel.h"

namespace minitf {

enum class Padding { kValid, kSame, kExplicit };

// Everything the loops of one call need. Sizes are element counts; the
// filter of a convolution is [k_h, k_w, in_c / groups, out_c].
struct WindowGeometry {
  int64_t batch = 0, in_h = 0, in_w = 0, in_c = 0;
  int64_t k_h = 1, k_w = 1;
  int64_t stride_h = 1, stride_w = 1;
  int64_t dil_h = 1, dil_w = 1;
  int64_t pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;
  int64_t out_h = 0, out_w = 0, out_c = 0;
  int64_t groups = 1;
};

// The attributes of a windowed op, read and checked once in the prepare step.
struct WindowAttrs {
  int64_t stride_h = 1, stride_w = 1;
  int64_t dil_h = 1, dil_w = 1;
  int64_t k_h = 1, k_w = 1;  // pooling only; convolutions take them from the filter
  Padding padding = Padding::kValid;
  int64_t pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;  // EXPLICIT only

  // Reads strides, padding, data_format and, when the op declares them,
  // dilations, ksize and explicit_paddings. Formats other than NHWC fail
  // with `nchw_code`, as TensorFlow's CPU kernels differ in that code.
  Status Parse(const KernelInit& init, TF_Code nchw_code);
};

// Fills out_h, out_w and the four pads of `g` from its input and window
// sizes: VALID and EXPLICIT truncate, SAME covers every input cell and puts
// the odd padding cell at the bottom / right.
Status ComputeWindow(const OpContext& ctx, const WindowAttrs& attrs, WindowGeometry* g);

// The geometry of a Conv2D (or, with `depthwise`, a DepthwiseConv2dNative)
// call: checks the input and filter shapes against each other and fills `g`
// with ComputeWindow.
Status ConvGeometry(const OpContext& ctx, const WindowAttrs& attrs, bool depthwise,
                    const Tensor& input, const Tensor& filter, WindowGeometry* g);

}  // namespace minitf

#endif  // MINITF_KERNELS_WINDOW_GEOMETRY_H_
