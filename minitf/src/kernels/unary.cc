// Elementwise unary math. Each op is a functor over one element; one kernel
// template dispatches on the element type and runs it over the tensor.
#include <cmath>
#include <limits>
#include <type_traits>

#include "kernels/dnnl/eltwise.h"
#include "kernels/elementwise.h"
#include "op_registry.h"

namespace minitf {
namespace {

struct NegOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const { return WrapNeg(x); }
};

struct AbsOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const {
    if constexpr (std::is_floating_point_v<T>) {
      return std::fabs(x);
    } else if constexpr (std::is_signed_v<T>) {
      return x < 0 ? WrapNeg(x) : x;  // INT_MIN stays INT_MIN
    } else {
      return x;
    }
  }
};

struct SquareOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const { return WrapMul(x, x); }
};

struct SignOp {
  static constexpr int64_t kCost = 1;
  // NaN compares false both ways and so maps to 0.
  template <typename T> T operator()(T x) const {
    return static_cast<T>((T(0) < x) - (x < T(0)));
  }
};

// Rounds half to even; integers are already rounded.
struct RoundOp {
  static constexpr int64_t kCost = 2;
  template <typename T> T operator()(T x) const {
    if constexpr (std::is_floating_point_v<T>) {
      T f = std::floor(x);
      const T d = x - f;
      if (d > T(0.5) || (d == T(0.5) && std::fmod(f, T(2)) != 0)) f += 1;
      return f;
    } else {
      return x;
    }
  }
};

struct FloorOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const { return std::floor(x); }
};

struct CeilOp {
  static constexpr int64_t kCost = 1;
  template <typename T> T operator()(T x) const { return std::ceil(x); }
};

struct ExpOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const { return std::exp(x); }
};

struct LogOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const { return std::log(x); }
};

struct SqrtOp {
  static constexpr int64_t kCost = 4;
  template <typename T> T operator()(T x) const { return std::sqrt(x); }
};

struct RsqrtOp {
  static constexpr int64_t kCost = 5;
  template <typename T> T operator()(T x) const { return T(1) / std::sqrt(x); }
};

struct ReciprocalOp {
  static constexpr int64_t kCost = 2;
  template <typename T> T operator()(T x) const { return T(1) / x; }
};

struct SigmoidOp {
  static constexpr int64_t kCost = 25;
  // exp(-x) overflows to inf for very negative x, giving exactly 0.
  template <typename T> T operator()(T x) const { return T(1) / (T(1) + std::exp(-x)); }
};

struct TanhOp {
  static constexpr int64_t kCost = 25;
  template <typename T> T operator()(T x) const { return std::tanh(x); }
};

struct ErfOp {
  static constexpr int64_t kCost = 25;
  template <typename T> T operator()(T x) const { return std::erf(x); }
};

// log(1 + exp(x)), switching to x or exp(x) where one term no longer
// changes the result at the type's precision.
struct SoftplusOp {
  static constexpr int64_t kCost = 40;
  template <typename T> T operator()(T x) const {
    const T threshold = std::log(std::numeric_limits<T>::epsilon()) + T(2);
    if (x > -threshold) return x;
    if (x < threshold) return std::exp(x);
    return std::log1p(std::exp(x));
  }
};

struct SinOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const { return std::sin(x); }
};

struct CosOp {
  static constexpr int64_t kCost = 20;
  template <typename T> T operator()(T x) const { return std::cos(x); }
};

struct SoftsignOp {
  static constexpr int64_t kCost = 3;
  template <typename T> T operator()(T x) const { return x / (T(1) + std::fabs(x)); }
};

// IsNan and IsFinite: a float tensor in, a bool tensor of its shape out.
template <bool kFinite>
class FloatClassKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("T", &type_); }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, x.shape(), &y));
    return DispatchType<float, double>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = x.data<T>();
      bool* out = y->data<bool>();
      ctx->ParallelFor(x.num_elements(), 1, [&](int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) out[i] = kFinite ? std::isfinite(in[i]) : std::isnan(in[i]);
      });
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
};

class LogicalNotKernel : public OpKernel {
 public:
  Status Init(const KernelInit&) { return Status::OK(); }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, x.shape(), &y));
    // Read as bytes: a fed bool buffer may hold any byte value.
    const uint8_t* in = x.data<uint8_t>();
    bool* out = y->data<bool>();
    ctx->ParallelFor(x.num_elements(), 1, [&](int64_t b, int64_t e) {
      for (int64_t i = b; i < e; ++i) out[i] = in[i] == 0;
    });
    return Status::OK();
  }
};

// Tanh and Sigmoid: float tensors of some size go through oneDNN's
// vectorised primitive, everything else through the scalar loop.
template <typename Op, DnnlEltwise::Kind kKind>
class ActivationKernel : public UnaryKernel<Op, float, double> {
 public:
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    // Below this a primitive call costs more than the scalar loop.
    constexpr int64_t kMinFastElements = 64;
    if (x.dtype() != TF_FLOAT || x.num_elements() < kMinFastElements) {
      return UnaryKernel<Op, float, double>::Compute(ctx);
    }
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
    const float* in = x.data<float>();
    float* out = y->data<float>();
    if (fast_.Run(x.num_elements(), in, out, ctx->pool())) return Status::OK();
    if (in == out) return Internal("oneDNN failed in place (node ", ctx->node_name(), ")");
    const Op op;
    ctx->ParallelFor(x.num_elements(), Op::kCost, [&](int64_t b, int64_t e) {
      for (int64_t i = b; i < e; ++i) out[i] = op(in[i]);
    });
    return Status::OK();
  }

 private:
  DnnlEltwise fast_{kKind};
};

OpDef UnaryDef(const char* name, const char* types) {
  return OpDef(name).Input("x: T").Output("y: T").Attr(types);
}

constexpr const char* kFloatTypes = "T: {float, double}";
constexpr const char* kSignedTypes = "T: {float, double, int8, int16, int32, int64}";

template <typename Op>
KernelFactory FloatKernel() {
  return MakeKernel<UnaryKernel<Op, float, double>>;
}

template <typename Op>
KernelFactory SignedKernel() {
  return MakeKernel<UnaryKernel<Op, float, double, int8_t, int16_t, int32_t, int64_t>>;
}

}  // namespace

void RegisterUnaryOps(OpRegistry& r) {
  r.Register(UnaryDef("Neg", kSignedTypes), SignedKernel<NegOp>());
  r.Register(UnaryDef("Abs", kSignedTypes), SignedKernel<AbsOp>());
  r.Register(UnaryDef("Sign", kSignedTypes), SignedKernel<SignOp>());
  r.Register(UnaryDef("Round", kSignedTypes), SignedKernel<RoundOp>());
  r.Register(UnaryDef("Square", "T: {float, double, int8, int16, int32, int64, uint8, uint16}"),
             MakeKernel<UnaryKernel<SquareOp, MINITF_REAL_TYPES>>);

  r.Register(UnaryDef("Floor", kFloatTypes), FloatKernel<FloorOp>());
  r.Register(UnaryDef("Ceil", kFloatTypes), FloatKernel<CeilOp>());
  r.Register(UnaryDef("Exp", kFloatTypes), FloatKernel<ExpOp>());
  r.Register(UnaryDef("Log", kFloatTypes), FloatKernel<LogOp>());
  r.Register(UnaryDef("Sqrt", kFloatTypes), FloatKernel<SqrtOp>());
  r.Register(UnaryDef("Rsqrt", kFloatTypes), FloatKernel<RsqrtOp>());
  r.Register(UnaryDef("Reciprocal", kFloatTypes), FloatKernel<ReciprocalOp>());
  r.Register(UnaryDef("Sigmoid", kFloatTypes),
             MakeKernel<ActivationKernel<SigmoidOp, DnnlEltwise::kSigmoid>>);
  r.Register(UnaryDef("Tanh", kFloatTypes),
             MakeKernel<ActivationKernel<TanhOp, DnnlEltwise::kTanh>>);
  r.Register(UnaryDef("Erf", kFloatTypes), FloatKernel<ErfOp>());
  r.Register(OpDef("Softplus").Input("features: T").Output("activations: T").Attr(kFloatTypes),
             FloatKernel<SoftplusOp>());

  r.Register(UnaryDef("Sin", kFloatTypes), FloatKernel<SinOp>());
  r.Register(UnaryDef("Cos", kFloatTypes), FloatKernel<CosOp>());
  r.Register(OpDef("Softsign").Input("features: T").Output("activations: T").Attr(kFloatTypes),
             FloatKernel<SoftsignOp>());
  r.Register(OpDef("IsNan").Input("x: T").Output("y: bool").Attr(kFloatTypes),
             MakeKernel<FloatClassKernel<false>>);
  r.Register(OpDef("IsFinite").Input("x: T").Output("y: bool").Attr(kFloatTypes),
             MakeKernel<FloatClassKernel<true>>);

  r.Register(OpDef("LogicalNot").Input("x: bool").Output("y: bool"),
             MakeKernel<LogicalNotKernel>);
}

}  // namespace minitf
