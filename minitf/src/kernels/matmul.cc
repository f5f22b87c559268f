// Matrix products and bias addition.
#include <vector>

#include "kernels/dnnl/gemm.h"
#include "kernels/reference_ops.h"
#include "kernels/wrap_arith.h"
#include "op_registry.h"

namespace minitf {
namespace {

// One product of matrices stored back to back: float goes to oneDNN when it
// can, everything else (and float when oneDNN declines) to the loops.
template <typename T>
void Gemm(bool ta, bool tb, int64_t m, int64_t n, int64_t k, const T* a, const T* b, T* c,
          const OpContext* ctx) {
  if constexpr (std::is_same_v<T, float>) {
    if (DnnlGemm(ta, tb, m, n, k, a, b, c)) return;
  }
  reference::Gemm(ta, tb, m, n, k, a, b, c, ctx);
}

class MatMulKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("transpose_a", &transpose_a_));
    return init.GetAttr("transpose_b", &transpose_b_);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& a = ctx->input(0);
    const Tensor& b = ctx->input(1);
    MINITF_ENSURE(ctx, a.rank() == 2, "In[0] is not a matrix: ", a.shape().ToString());
    MINITF_ENSURE(ctx, b.rank() == 2, "In[1] is not a matrix: ", b.shape().ToString());
    const int64_t m = a.dim(transpose_a_ ? 1 : 0), k = a.dim(transpose_a_ ? 0 : 1);
    const int64_t k_b = b.dim(transpose_b_ ? 1 : 0), n = b.dim(transpose_b_ ? 0 : 1);
    if (k != k_b) {
      return ctx->Error("matrix size-incompatible: In[0]: ", a.shape().ToString(),
                        ", In[1]: ", b.shape().ToString());
    }
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, Shape({m, n}), &out));
    return DispatchType<float, double, int32_t, int64_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      Gemm<T>(transpose_a_, transpose_b_, m, n, k, a.data<T>(), b.data<T>(), out->data<T>(), ctx);
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
  bool transpose_a_ = false, transpose_b_ = false;
};

// Batched product with NumPy-style broadcasting of the leading dimensions
// (BatchMatMulV2), or with equal leading dimensions (BatchMatMul).
class BatchMatMulKernel : public OpKernel {
 public:
  explicit BatchMatMulKernel(bool broadcast) : broadcast_(broadcast) {}

  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("adj_x", &adj_x_));
    return init.GetAttr("adj_y", &adj_y_);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    const Tensor& y = ctx->input(1);
    MINITF_ENSURE(ctx, x.rank() >= 2, "In[0] must have rank >= 2: ", x.shape().ToString());
    MINITF_ENSURE(ctx, y.rank() >= 2, "In[1] must have rank >= 2: ", y.shape().ToString());
    const int xr = x.rank(), yr = y.rank();
    const int64_t m = x.dim(adj_x_ ? xr - 1 : xr - 2), k = x.dim(adj_x_ ? xr - 2 : xr - 1);
    const int64_t k_y = y.dim(adj_y_ ? yr - 1 : yr - 2), n = y.dim(adj_y_ ? yr - 2 : yr - 1);
    if (k != k_y) {
      return ctx->Error("matrix size-incompatible: In[0]: ", x.shape().ToString(),
                        ", In[1]: ", y.shape().ToString());
    }
    if (!broadcast_ && xr != yr) {
      return ctx->Error("In[0] and In[1] must have the same rank: ", x.shape().ToString(),
                        " vs ", y.shape().ToString());
    }
    // Output batch dims and, per input, the element stride of each batch
    // dim (0 where the input is broadcast).
    const int batch_rank = std::max(xr, yr) - 2;
    std::vector<int64_t> out_dims(batch_rank), x_stride(batch_rank, 0), y_stride(batch_rank, 0);
    int64_t xs = m * k, ys = k * n;
    for (int i = batch_rank - 1; i >= 0; --i) {
      const int xi = i - (batch_rank - (xr - 2)), yi = i - (batch_rank - (yr - 2));
      const int64_t xd = xi >= 0 ? x.dim(xi) : 1, yd = yi >= 0 ? y.dim(yi) : 1;
      if (xd != yd && (!broadcast_ || (xd != 1 && yd != 1))) {
        return ctx->Error("batch dimensions are incompatible: In[0]: ", x.shape().ToString(),
                          ", In[1]: ", y.shape().ToString());
      }
      out_dims[i] = xd == 1 ? yd : xd;
      x_stride[i] = xd == 1 ? 0 : xs;
      y_stride[i] = yd == 1 ? 0 : ys;
      xs *= xd;
      ys *= yd;
    }
    std::vector<int64_t> dims = out_dims;
    dims.push_back(m);
    dims.push_back(n);
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(Shape::Make(dims, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    int64_t batches = 1;
    for (int64_t d : out_dims) batches *= d;
    if (m * n == 0) return Status::OK();
    return DispatchType<float, double, int32_t, int64_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      auto one = [&](int64_t bi, const OpContext* inner) {
        int64_t xo = 0, yo = 0, rest = bi;
        for (int i = batch_rank - 1; i >= 0; --i) {
          const int64_t idx = rest % out_dims[i];
          rest /= out_dims[i];
          xo += idx * x_stride[i];
          yo += idx * y_stride[i];
        }
        Gemm<T>(adj_x_, adj_y_, m, n, k, x.data<T>() + xo, y.data<T>() + yo,
                out->data<T>() + bi * m * n, inner);
      };
      if (batches == 1) {
        one(0, ctx);
      } else {
        ctx->ParallelFor(batches, m * n * k + 1, [&](int64_t begin, int64_t end) {
          for (int64_t bi = begin; bi < end; ++bi) one(bi, nullptr);
        });
      }
      return Status::OK();
    });
  }

 private:
  bool broadcast_;
  DataType type_ = kInvalidType;
  bool adj_x_ = false, adj_y_ = false;
};

class BatchMatMulV2Kernel : public BatchMatMulKernel {
 public:
  BatchMatMulV2Kernel() : BatchMatMulKernel(true) {}
};
class BatchMatMulV1Kernel : public BatchMatMulKernel {
 public:
  BatchMatMulV1Kernel() : BatchMatMulKernel(false) {}
};

// Adds a rank-1 bias along the channel dimension: the last one for NHWC,
// dimension 1 for NCHW.
class BiasAddKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    if (init.FindAttr("data_format") != nullptr) {
      std::string format;
      MINITF_RETURN_IF_ERROR(init.GetAttr("data_format", &format));
      nchw_ = format == "NCHW";
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& value = ctx->input(0);
    const Tensor& bias = ctx->input(1);
    MINITF_ENSURE(ctx, value.rank() >= 2, "input must be at least 2-D: ", value.shape().ToString());
    MINITF_ENSURE(ctx, bias.rank() == 1, "bias must be 1-D: ", bias.shape().ToString());
    const int channel_dim = nchw_ ? 1 : value.rank() - 1;
    const int64_t channels = value.dim(channel_dim);
    if (bias.dim(0) != channels) {
      return ctx->Error("bias size ", bias.dim(0), " does not match the ", channels,
                        " channels of the input ", value.shape().ToString());
    }
    int64_t outer = 1, inner = 1;
    for (int i = 0; i < channel_dim; ++i) outer *= value.dim(i);
    for (int i = channel_dim + 1; i < value.rank(); ++i) inner *= value.dim(i);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->forward_input_or_allocate_output({0}, 0, value.shape(), &out));
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = value.data<T>();
      const T* b = bias.data<T>();
      T* o = out->data<T>();
      // One unit is one outer row: every channel once, each over `inner`
      // elements. NHWC rows (inner == 1) are a plain vector add.
      const int64_t row = channels * inner;
      ctx->ParallelFor(outer, row, [&](int64_t begin, int64_t end) {
        for (int64_t u = begin; u < end; ++u) {
          const T* src = in + u * row;
          T* dst = o + u * row;
          if (inner == 1) {
            for (int64_t c = 0; c < channels; ++c) dst[c] = WrapAdd(src[c], b[c]);
            continue;
          }
          for (int64_t c = 0; c < channels; ++c) {
            for (int64_t i = c * inner; i < (c + 1) * inner; ++i) {
              dst[i] = WrapAdd(src[i], b[c]);
            }
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
  bool nchw_ = false;
};

constexpr const char* kNumberTypes =
    "T: {float, double, int32, uint8, int16, int8, complex64, int64, qint8, quint8, qint32, "
    "bfloat16, qint16, quint16, uint16, complex128, half, uint32, uint64}";

}  // namespace

void RegisterMatMulOps(OpRegistry& r) {
  r.Register(OpDef("MatMul").Input("a: T").Input("b: T").Output("product: T")
                 .Attr("transpose_a: bool = false").Attr("transpose_b: bool = false")
                 .Attr("T: {bfloat16, half, float, double, int32, int64, complex64, complex128}")
                 .Attr("grad_a: bool = false").Attr("grad_b: bool = false"),
             MakeKernel<MatMulKernel>);
  r.Register(OpDef("BatchMatMulV2").Input("x: T").Input("y: T").Output("output: T")
                 .Attr("T: {bfloat16, half, float, double, int16, int32, int64, complex64, "
                       "complex128}")
                 .Attr("adj_x: bool = false").Attr("adj_y: bool = false")
                 .Attr("grad_x: bool = false").Attr("grad_y: bool = false"),
             MakeKernel<BatchMatMulV2Kernel>);
  r.Register(OpDef("BatchMatMul").Input("x: T").Input("y: T").Output("output: T")
                 .Attr("T: {bfloat16, half, float, double, int32, int64, complex64, complex128}")
                 .Attr("adj_x: bool = false").Attr("adj_y: bool = false"),
             MakeKernel<BatchMatMulV1Kernel>);
  r.Register(OpDef("BiasAdd").Input("value: T").Input("bias: T").Output("output: T")
                 .Attr(kNumberTypes).Attr("data_format: {'NHWC', 'NCHW'} = 'NHWC'"),
             MakeKernel<BiasAddKernel>);
  r.Register(OpDef("BiasAddV1").Input("value: T").Input("bias: T").Output("output: T")
                 .Attr(kNumberTypes),
             MakeKernel<BiasAddKernel>);
}

}  // namespace minitf
