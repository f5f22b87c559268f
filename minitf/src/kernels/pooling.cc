// Max and average pooling over NHWC images.
#include "kernels/window_geometry.h"
#include "kernels/dnnl/pool.h"
#include "kernels/reference_ops.h"
#include "op_registry.h"

namespace minitf {
namespace {

class PoolKernelBase : public OpKernel {
 public:
  explicit PoolKernelBase(bool max) : max_(max), fast_(max) {}

  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    return attrs_.Parse(init, TF_INVALID_ARGUMENT);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& input = ctx->input(0);
    MINITF_ENSURE(ctx, input.rank() == 4, "input must be 4-D: ", input.shape().ToString());
    WindowGeometry g;
    g.batch = input.dim(0);
    g.in_h = input.dim(1);
    g.in_w = input.dim(2);
    g.in_c = g.out_c = input.dim(3);
    g.k_h = attrs_.k_h;
    g.k_w = attrs_.k_w;
    MINITF_RETURN_IF_ERROR(ComputeWindow(*ctx, attrs_, &g));
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(Shape::Make({g.batch, g.out_h, g.out_w, g.out_c}, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    if (out->num_elements() == 0) return Status::OK();
    if (type_ == TF_FLOAT && fast_.Run(g, input.data<float>(), out->data<float>())) {
      return Status::OK();
    }
    if (max_) {
      return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
        using T = typename decltype(tag)::type;
        reference::MaxPool<T>(g, input.data<T>(), out->data<T>(), ctx);
        return Status::OK();
      });
    }
    return DispatchType<float, double>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      reference::AvgPool<T>(g, input.data<T>(), out->data<T>(), ctx);
      return Status::OK();
    });
  }

 private:
  bool max_;
  DataType type_ = kInvalidType;
  WindowAttrs attrs_;
  DnnlPool fast_;
};

class MaxPoolKernel : public PoolKernelBase {
 public:
  MaxPoolKernel() : PoolKernelBase(true) {}
};

class AvgPoolKernel : public PoolKernelBase {
 public:
  AvgPoolKernel() : PoolKernelBase(false) {}
};

}  // namespace

void RegisterPoolingOps(OpRegistry& r) {
  r.Register(OpDef("MaxPool").Input("input: T").Output("output: T")
                 .Attr("T: {half, bfloat16, float, double, int32, int64, uint8, int16, int8, "
                       "uint16, qint8} = DT_FLOAT")
                 .Attr("ksize: list(int) >= 4")
                 .Attr("strides: list(int) >= 4")
                 .Attr("padding: {'SAME', 'VALID', 'EXPLICIT'}")
                 .Attr("explicit_paddings: list(int) = []")
                 .Attr("data_format: {'NHWC', 'NCHW', 'NCHW_VECT_C'} = 'NHWC'"),
             MakeKernel<MaxPoolKernel>);
  r.Register(OpDef("AvgPool").Input("value: T").Output("output: T")
                 .Attr("ksize: list(int) >= 4")
                 .Attr("strides: list(int) >= 4")
                 .Attr("padding: {'SAME', 'VALID'}")
                 .Attr("data_format: {'NHWC', 'NCHW'} = 'NHWC'")
                 .Attr("T: {half, bfloat16, float, double}"),
             MakeKernel<AvgPoolKernel>);
}

}  // namespace minitf
