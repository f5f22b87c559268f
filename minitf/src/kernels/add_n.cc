// AddN: the elementwise sum of N tensors of one shape (no broadcasting, as
// in TensorFlow). Inputs are added in order, so float results match a chain
// of Adds.
#include "kernels/elementwise.h"
#include "op_registry.h"

namespace minitf {
namespace {

class AddNKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("N", &n_));
    return init.GetAttr("T", &type_);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x0 = ctx->input(0);
    for (int i = 1; i < n_; ++i) {
      if (ctx->input(i).shape() != x0.shape()) {
        return ctx->Error("inputs must have the same shape: inputs[0] is ", x0.shape().ToString(),
                          ", inputs[", i, "] is ", ctx->input(i).shape().ToString());
      }
    }
    if (n_ == 1) return ctx->set_output(0, x0);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, x0.shape(), &out));
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      std::vector<const T*> in(n_);
      for (int i = 0; i < n_; ++i) in[i] = ctx->input(i).data<T>();
      T* y = out->data<T>();
      ctx->ParallelFor(x0.num_elements(), n_, [&](int64_t b, int64_t e) {
        for (int64_t j = b; j < e; ++j) y[j] = WrapAdd(in[0][j], in[1][j]);
        for (int i = 2; i < n_; ++i) {
          const T* x = in[i];
          for (int64_t j = b; j < e; ++j) y[j] = WrapAdd(y[j], x[j]);
        }
      });
      return Status::OK();
    });
  }

 private:
  int n_ = 1;
  DataType type_ = kInvalidType;
};

}  // namespace

void RegisterAddNOps(OpRegistry& r) {
  r.Register(OpDef("AddN").Input("inputs: N * T").Output("sum: T").Attr("N: int >= 1")
                 .Attr("T: {float, double, int32, int64, uint8, int8, int16, uint16}"),
             MakeKernel<AddNKernel>);
}

}  // namespace minitf
