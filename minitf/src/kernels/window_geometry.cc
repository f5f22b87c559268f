#include "kernels/window_geometry.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace minitf {
namespace {

// Explicit pads and dilated windows beyond this are refused, which keeps
// every index computation far from int64 overflow.
constexpr int64_t kMaxWindowExtent = int64_t{1} << 40;

// Reads a 4-entry NHWC list attribute whose batch and depth entries must be
// `unit` and whose spatial entries must be positive.
Status ReadSpatialList(const KernelInit& init, const char* name, int64_t* h, int64_t* w) {
  std::vector<int> v;  // int32 values, as TensorFlow reads these lists
  MINITF_RETURN_IF_ERROR(init.GetAttr(name, &v));
  if (v.size() != 4) return init.Error("attribute ", name, " must have 4 entries, has ", v.size());
  if (v[0] != 1 || v[3] != 1) {
    return init.Error("attribute ", name, " must be 1 in the batch and depth dimensions");
  }
  if (v[1] <= 0 || v[2] <= 0) {
    return init.Error("attribute ", name, " must be positive in the spatial dimensions");
  }
  *h = v[1];
  *w = v[2];
  return Status::OK();
}

Status OneDim(const OpContext& ctx, const char* axis, Padding padding, int64_t in, int64_t k,
              int64_t dil, int64_t stride, int64_t* pad_before, int64_t* pad_after,
              int64_t* out) {
  if (k - 1 > (kMaxWindowExtent - 1) / dil) {
    return ctx.Error("dilated window is too large along ", axis);
  }
  const int64_t eff = (k - 1) * dil + 1;
  switch (padding) {
    case Padding::kValid:
      *pad_before = *pad_after = 0;
      *out = (in - eff + stride) / stride;
      break;
    case Padding::kExplicit:
      *out = (in + *pad_before + *pad_after - eff + stride) / stride;
      break;
    case Padding::kSame: {
      *out = (in + stride - 1) / stride;
      const int64_t needed = std::max<int64_t>(0, (*out - 1) * stride + eff - in);
      *pad_before = needed / 2;
      *pad_after = needed - *pad_before;
      break;
    }
  }
  if (*out < 0) {
    return ctx.Error("computed output size would be negative along ", axis, ": input ", in,
                     ", effective window ", eff, ", stride ", stride);
  }
  return Status::OK();
}

}  // namespace

Status WindowAttrs::Parse(const KernelInit& init, TF_Code nchw_code) {
  std::string format;
  MINITF_RETURN_IF_ERROR(init.GetAttr("data_format", &format));
  if (format != "NHWC") {
    return Status(nchw_code, StrCat("only the NHWC data format is supported on the CPU, got ",
                                    format, " (node ", init.node_name(), ")"));
  }
  MINITF_RETURN_IF_ERROR(ReadSpatialList(init, "strides", &stride_h, &stride_w));
  if (init.FindAttr("dilations") != nullptr) {
    MINITF_RETURN_IF_ERROR(ReadSpatialList(init, "dilations", &dil_h, &dil_w));
  }
  if (init.FindAttr("ksize") != nullptr) {
    MINITF_RETURN_IF_ERROR(ReadSpatialList(init, "ksize", &k_h, &k_w));
  }
  std::string pad;
  MINITF_RETURN_IF_ERROR(init.GetAttr("padding", &pad));
  padding = pad == "SAME" ? Padding::kSame : pad == "VALID" ? Padding::kValid : Padding::kExplicit;
  if (pad != "SAME" && pad != "VALID" && pad != "EXPLICIT") {
    return init.Error("unknown padding ", pad);
  }
  std::vector<int64_t> explicit_pads;
  if (init.FindAttr("explicit_paddings") != nullptr) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("explicit_paddings", &explicit_pads));
  }
  if (padding != Padding::kExplicit) {
    if (!explicit_pads.empty()) {
      return init.Error("explicit_paddings must be empty unless padding is EXPLICIT");
    }
    return Status::OK();
  }
  if (explicit_pads.size() != 8) {
    return init.Error("explicit_paddings must have 8 entries, has ", explicit_pads.size());
  }
  for (int64_t p : explicit_pads) {
    if (p < 0 || p > kMaxWindowExtent) {
      return init.Error("explicit_paddings entry ", p, " is out of range");
    }
  }
  if (explicit_pads[0] != 0 || explicit_pads[1] != 0 || explicit_pads[6] != 0 ||
      explicit_pads[7] != 0) {
    return init.Error("explicit_paddings must be 0 in the batch and depth dimensions");
  }
  pad_top = explicit_pads[2];
  pad_bottom = explicit_pads[3];
  pad_left = explicit_pads[4];
  pad_right = explicit_pads[5];
  return Status::OK();
}

Status ComputeWindow(const OpContext& ctx, const WindowAttrs& attrs, WindowGeometry* g) {
  g->stride_h = attrs.stride_h;
  g->stride_w = attrs.stride_w;
  g->dil_h = attrs.dil_h;
  g->dil_w = attrs.dil_w;
  g->pad_top = attrs.pad_top;
  g->pad_bottom = attrs.pad_bottom;
  g->pad_left = attrs.pad_left;
  g->pad_right = attrs.pad_right;
  MINITF_RETURN_IF_ERROR(OneDim(ctx, "rows", attrs.padding, g->in_h, g->k_h, g->dil_h,
                                g->stride_h, &g->pad_top, &g->pad_bottom, &g->out_h));
  return OneDim(ctx, "columns", attrs.padding, g->in_w, g->k_w, g->dil_w, g->stride_w,
                &g->pad_left, &g->pad_right, &g->out_w);
}

Status ConvGeometry(const OpContext& ctx, const WindowAttrs& attrs, bool depthwise,
                    const Tensor& input, const Tensor& filter, WindowGeometry* g) {
  MINITF_ENSURE(&ctx, input.rank() == 4, "input must be 4-D: ", input.shape().ToString());
  MINITF_ENSURE(&ctx, filter.rank() == 4, "filter must be 4-D: ", filter.shape().ToString());
  g->batch = input.dim(0);
  g->in_h = input.dim(1);
  g->in_w = input.dim(2);
  g->in_c = input.dim(3);
  g->k_h = filter.dim(0);
  g->k_w = filter.dim(1);
  const int64_t filter_in = filter.dim(2);
  if (depthwise) {
    MINITF_ENSURE(&ctx, g->k_h > 0 && g->k_w > 0, "filter window must not be empty: ",
                  filter.shape().ToString());
    if (filter_in != g->in_c) {
      return ctx.Error("input and filter must have the same depth: ", g->in_c, " vs ",
                       filter_in);
    }
    g->groups = g->in_c;
    g->out_c = g->in_c * filter.dim(3);
  } else {
    MINITF_ENSURE(&ctx, filter.num_elements() > 0, "filter must not have zero elements: ",
                  filter.shape().ToString());
    g->out_c = filter.dim(3);
    if (g->in_c % filter_in != 0) {
      return ctx.Error("input depth must be evenly divisible by filter depth: ", g->in_c,
                       " vs ", filter_in);
    }
    // TensorFlow's CPU kernel has no grouped convolution; a graph that
    // needs one must not silently run here and fail on the real runtime.
    if (g->in_c != filter_in) {
      return Status(TF_UNIMPLEMENTED,
                    StrCat("grouped convolution (input depth ", g->in_c, ", filter depth ",
                           filter_in, ") is not supported on the CPU (node ", ctx.node_name(),
                           ")"));
    }
  }
  return ComputeWindow(ctx, attrs, g);
}

}  // namespace minitf
