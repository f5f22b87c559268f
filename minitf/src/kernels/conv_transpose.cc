// Conv2DBackpropInput, the transposed convolution that decoders use to
// upsample: the gradient of Conv2D with respect to its input. It is computed
// in gather form: each result pixel sums, over the filter taps that a
// forward convolution would have fed from it, the incoming gradient times
// the filter. The geometry (strides, dilations, SAME/VALID/EXPLICIT pads) is
// the forward convolution's, from the shared window rules.
#include <vector>

#include "kernels/array_helpers.h"
#include "kernels/window_geometry.h"
#include "kernels/dnnl/conv_transpose.h"
#include "kernels/reference_ops.h"
#include "op_registry.h"

namespace minitf {
namespace {

class Conv2DBackpropInputKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    return attrs_.Parse(init, TF_UNIMPLEMENTED);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& filter = ctx->input(1);
    const Tensor& dy = ctx->input(2);
    MINITF_ENSURE(ctx, filter.rank() == 4, "filter must be 4-D: ", filter.shape().ToString());
    MINITF_ENSURE(ctx, dy.rank() == 4, "out_backprop must be 4-D: ", dy.shape().ToString());
    std::vector<int64_t> sizes;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(0), "input_sizes", &sizes));
    // Either the full NHWC shape or just its spatial part.
    if (sizes.size() == 2) {
      sizes = {dy.dim(0), sizes[0], sizes[1], filter.dim(2)};
    }
    MINITF_ENSURE(ctx, sizes.size() == 4, "input_sizes must have 4 (or 2) entries, has ",
                  sizes.size());
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, sizes, &out_shape));
    WindowGeometry g;
    g.batch = sizes[0];
    g.in_h = sizes[1];
    g.in_w = sizes[2];
    g.in_c = sizes[3];
    g.k_h = filter.dim(0);
    g.k_w = filter.dim(1);
    g.out_c = filter.dim(3);
    MINITF_ENSURE(ctx, g.k_h > 0 && g.k_w > 0, "filter window must not be empty: ",
                  filter.shape().ToString());
    if (filter.dim(2) != g.in_c) {
      return ctx->Error("filter depth ", filter.dim(2), " must match the input depth ", g.in_c,
                        " of input_sizes ", out_shape.ToString());
    }
    if (dy.dim(0) != g.batch || dy.dim(3) != g.out_c) {
      return ctx->Error("out_backprop ", dy.shape().ToString(), " must have batch ", g.batch,
                        " and depth ", g.out_c);
    }
    MINITF_RETURN_IF_ERROR(ComputeWindow(*ctx, attrs_, &g));
    if (g.out_h != dy.dim(1) || g.out_w != dy.dim(2)) {
      return ctx->Error("out_backprop ", dy.shape().ToString(), " does not match the ", g.out_h,
                        "x", g.out_w, " a convolution of ", out_shape.ToString(),
                        " with this filter and these strides gives");
    }
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    if (out->num_elements() == 0) return Status::OK();
    return DispatchType<float, double, int32_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      if constexpr (std::is_same_v<T, float>) {
        if (fast_.Run(g, dy.data<float>(), filter.data<float>(), out->data<float>())) {
          return Status::OK();
        }
      }
      reference::ConvTranspose<T>(g, dy.data<T>(), filter.data<T>(), out->data<T>(), ctx);
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
  WindowAttrs attrs_;
  DnnlConvTranspose fast_;
};

}  // namespace

void RegisterConvTransposeOps(OpRegistry& r) {
  r.Register(OpDef("Conv2DBackpropInput").Input("input_sizes: int32").Input("filter: T")
                 .Input("out_backprop: T").Output("output: T")
                 .Attr("T: {half, bfloat16, float, double, int32}")
                 .Attr("strides: list(int)")
                 .Attr("use_cudnn_on_gpu: bool = true")
                 .Attr("padding: {'SAME', 'VALID', 'EXPLICIT'}")
                 .Attr("explicit_paddings: list(int) = []")
                 .Attr("data_format: {'NHWC', 'NCHW'} = 'NHWC'")
                 .Attr("dilations: list(int) = [1, 1, 1, 1]"),
             MakeKernel<Conv2DBackpropInputKernel>);
}

}  // namespace minitf
