// Activation functions: the elementwise rectifiers and exponential units,
// and the row-wise Softmax / LogSoftmax over the last dimension.
#include <algorithm>
#include <cmath>
#include <limits>

#include "kernels/elementwise.h"
#include "op_registry.h"

namespace minitf {
namespace {

// NaN passes through the rectifiers unchanged.
struct ReluOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const { return x < T(0) ? T(0) : x; }
};

struct Relu6Op {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const {
    return x < T(0) ? T(0) : (x > T(6) ? T(6) : x);
  }
};

struct LeakyReluOp {
  static constexpr int64_t kCost = 1;
  Status Init(const KernelInit& init) { return init.GetAttr("alpha", &alpha); }
  // A select rather than max(x, alpha * x), which would be wrong for alpha > 1.
  template <typename T> T operator()(T x) const {
    return x > T(0) ? x : x * static_cast<T>(alpha);
  }
  float alpha = 0.2f;
};

struct EluOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const { return x < T(0) ? std::expm1(x) : x; }
};

struct SeluOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const {
    const T scale = T(1.0507009873554804934193349852946);
    const T scale_alpha = T(1.7580993408473768599402175208123);
    return x < T(0) ? scale_alpha * std::expm1(x) : scale * x;
  }
};

// Softmax over the last dimension, shifted by the row maximum so exp never
// overflows. With `log` set it yields LogSoftmax.
template <bool kLog>
class SoftmaxKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("T", &type_); }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    MINITF_ENSURE(ctx, x.rank() >= 1, "logits must have >= 1 dimension, got ",
                  x.shape().ToString());
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, x.shape(), &y));
    const int64_t depth = x.dim(x.rank() - 1);
    if (x.num_elements() == 0) return Status::OK();
    const int64_t rows = x.num_elements() / depth;
    return DispatchType<float, double>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = x.data<T>();
      T* out = y->data<T>();
      ctx->ParallelFor(rows, depth * 30, [&](int64_t b, int64_t e) {
        for (int64_t r = b; r < e; ++r) SoftmaxRow(in + r * depth, out + r * depth, depth);
      });
      return Status::OK();
    });
  }

 private:
  template <typename T>
  static void SoftmaxRow(const T* in, T* out, int64_t n) {
    T max = in[0];
    for (int64_t i = 1; i < n; ++i) max = std::max(max, in[i]);
    T sum = 0;
    for (int64_t i = 0; i < n; ++i) {
      out[i] = in[i] - max;
      sum += std::exp(out[i]);
    }
    if constexpr (kLog) {
      const T log_sum = std::log(sum);
      for (int64_t i = 0; i < n; ++i) out[i] -= log_sum;
    } else {
      const T inv = T(1) / sum;
      for (int64_t i = 0; i < n; ++i) out[i] = std::exp(out[i]) * inv;
    }
  }

  DataType type_ = kInvalidType;
};

OpDef ActivationDef(const char* name, const char* types) {
  return OpDef(name).Input("features: T").Output("activations: T").Attr(types);
}

constexpr const char* kFloatTypes = "T: {float, double}";
constexpr const char* kRealTypes =
    "T: {float, double, int32, uint8, int16, int8, int64, uint16}";

}  // namespace

void RegisterActivationOps(OpRegistry& r) {
  r.Register(ActivationDef("Relu", kRealTypes),
             MakeKernel<UnaryKernel<ReluOp, MINITF_REAL_TYPES>>);
  r.Register(ActivationDef("Relu6", kRealTypes),
             MakeKernel<UnaryKernel<Relu6Op, MINITF_REAL_TYPES>>);
  r.Register(ActivationDef("LeakyRelu", "T: {float, double} = DT_FLOAT")
                 .Attr("alpha: float = 0.2"),
             MakeKernel<UnaryKernel<LeakyReluOp, float, double>>);
  r.Register(ActivationDef("Elu", kFloatTypes), MakeKernel<UnaryKernel<EluOp, float, double>>);
  r.Register(ActivationDef("Selu", kFloatTypes), MakeKernel<UnaryKernel<SeluOp, float, double>>);
  r.Register(OpDef("Softmax").Input("logits: T").Output("softmax: T").Attr(kFloatTypes),
             MakeKernel<SoftmaxKernel<false>>);
  r.Register(OpDef("LogSoftmax").Input("logits: T").Output("logsoftmax: T").Attr(kFloatTypes),
             MakeKernel<SoftmaxKernel<true>>);
}

}  // namespace minitf
