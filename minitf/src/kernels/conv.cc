// 2-D convolutions over NHWC images: regular and depthwise. Both run on the
// grouped-convolution loops, depthwise as one group per input channel.
#include "kernels/conv_util.h"
#include "kernels/dnnl_ops.h"
#include "kernels/reference_ops.h"
#include "op_registry.h"

namespace minitf {
namespace {

class ConvKernelBase : public OpKernel {
 public:
  explicit ConvKernelBase(bool depthwise) : depthwise_(depthwise) {}

  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    return attrs_.Parse(init, TF_UNIMPLEMENTED);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& input = ctx->input(0);
    const Tensor& filter = ctx->input(1);
    MINITF_ENSURE(ctx, input.rank() == 4, "input must be 4-D: ", input.shape().ToString());
    MINITF_ENSURE(ctx, filter.rank() == 4, "filter must be 4-D: ", filter.shape().ToString());
    WindowGeometry g;
    g.batch = input.dim(0);
    g.in_h = input.dim(1);
    g.in_w = input.dim(2);
    g.in_c = input.dim(3);
    g.k_h = filter.dim(0);
    g.k_w = filter.dim(1);
    const int64_t filter_in = filter.dim(2);
    if (depthwise_) {
      MINITF_ENSURE(ctx, g.k_h > 0 && g.k_w > 0, "filter window must not be empty: ",
                    filter.shape().ToString());
    } else {
      MINITF_ENSURE(ctx, filter.num_elements() > 0, "filter must not have zero elements: ",
                    filter.shape().ToString());
    }
    if (depthwise_) {
      if (filter_in != g.in_c) {
        return ctx->Error("input and filter must have the same depth: ", g.in_c, " vs ",
                          filter_in);
      }
      g.groups = g.in_c;
      g.out_c = g.in_c * filter.dim(3);
    } else {
      g.out_c = filter.dim(3);
      if (g.in_c % filter_in != 0) {
        return ctx->Error("input depth must be evenly divisible by filter depth: ", g.in_c,
                          " vs ", filter_in);
      }
      // TensorFlow's CPU kernel has no grouped convolution; a graph that
      // needs one must not silently run here and fail on the real runtime.
      if (g.in_c != filter_in) {
        return Status(TF_UNIMPLEMENTED,
                      StrCat("grouped convolution (input depth ", g.in_c, ", filter depth ",
                             filter_in, ") is not supported on the CPU (node ",
                             ctx->node_name(), ")"));
      }
    }
    MINITF_RETURN_IF_ERROR(ComputeWindow(*ctx, attrs_, &g));
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(Shape::Make({g.batch, g.out_h, g.out_w, g.out_c}, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    if (out->num_elements() == 0) return Status::OK();
    // A depthwise filter with no taps per channel leaves groups at 0.
    if (g.groups == 0) return Status::OK();
    return DispatchType<float, double, int32_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      if constexpr (std::is_same_v<T, float>) {
        if (fast_.Run(g, input.data<float>(), filter.data<float>(), out->data<float>())) {
          return Status::OK();
        }
      }
      reference::Conv2D<T>(g, input.data<T>(), filter.data<T>(), out->data<T>(), ctx);
      return Status::OK();
    });
  }

 private:
  bool depthwise_;
  DataType type_ = kInvalidType;
  WindowAttrs attrs_;
  DnnlConv2D fast_;
};

class Conv2DKernel : public ConvKernelBase {
 public:
  Conv2DKernel() : ConvKernelBase(false) {}
};

class DepthwiseConv2dNativeKernel : public ConvKernelBase {
 public:
  DepthwiseConv2dNativeKernel() : ConvKernelBase(true) {}
};

}  // namespace

void RegisterConvOps(OpRegistry& r) {
  r.Register(OpDef("Conv2D").Input("input: T").Input("filter: T").Output("output: T")
                 .Attr("T: {half, bfloat16, float, double, int32}")
                 .Attr("strides: list(int)")
                 .Attr("use_cudnn_on_gpu: bool = true")
                 .Attr("padding: {'SAME', 'VALID', 'EXPLICIT'}")
                 .Attr("explicit_paddings: list(int) = []")
                 .Attr("data_format: {'NHWC', 'NCHW'} = 'NHWC'")
                 .Attr("dilations: list(int) = [1, 1, 1, 1]"),
             MakeKernel<Conv2DKernel>);
  r.Register(OpDef("DepthwiseConv2dNative").Input("input: T").Input("filter: T")
                 .Output("output: T")
                 .Attr("T: {half, bfloat16, float, double}")
                 .Attr("strides: list(int)")
                 .Attr("padding: {'SAME', 'VALID', 'EXPLICIT'}")
                 .Attr("explicit_paddings: list(int) = []")
                 .Attr("data_format: {'NHWC', 'NCHW'} = 'NHWC'")
                 .Attr("dilations: list(int) = [1, 1, 1, 1]"),
             MakeKernel<DepthwiseConv2dNativeKernel>);
}

}  // namespace minitf
