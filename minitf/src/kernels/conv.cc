// 2-D convolutions over NHWC images: regular and depthwise. Both run on the
// grouped-convolution loops, depthwise as one group per input channel.
#include "kernels/window_geometry.h"
#include "kernels/dnnl/conv.h"
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
    WindowGeometry g;
    MINITF_RETURN_IF_ERROR(ConvGeometry(*ctx, attrs_, depthwise_, input, filter, &g));
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
