// Cast between the numeric types and bool.
#include <cstdint>
#include <limits>
#include <type_traits>

#include "op_registry.h"

namespace minitf {
namespace {

bool Castable(DataType t) {
  switch (t) {
    case TF_FLOAT: case TF_DOUBLE: case TF_INT32: case TF_INT64: case TF_UINT8:
    case TF_INT8: case TF_INT16: case TF_UINT16: case TF_BOOL:
      return true;
    default:
      return false;
  }
}

// Float to integer truncates toward zero. Values that do not fit (and NaN)
// give what x86's truncating conversion gives, the lowest int32/int64, and
// narrower integers take the low bits of the int32 result: TensorFlow on x86
// produces the same, e.g. 300.0 -> uint8 44 and -1.0 -> uint8 255.
template <typename To, typename From>
To FloatToInt(From v) {
  if constexpr (sizeof(To) == 8) {
    constexpr From kLimit = From(9223372036854775808.0);  // 2^63
    if (!(v >= -kLimit && v < kLimit)) return std::numeric_limits<int64_t>::min();
    return static_cast<To>(v);
  } else {
    constexpr From kLimit = From(2147483648.0);  // 2^31
    if (!(v >= -kLimit && v < kLimit)) return static_cast<To>(std::numeric_limits<int32_t>::min());
    return static_cast<To>(static_cast<int32_t>(v));
  }
}

template <typename To, typename From>
To CastValue(From v) {
  if constexpr (std::is_same_v<To, bool>) {
    return v != From(0);
  } else if constexpr (std::is_floating_point_v<From> && std::is_integral_v<To>) {
    return FloatToInt<To>(v);
  } else {
    // Integer narrowing keeps the low bits (modular, as in TensorFlow).
    return static_cast<To>(v);
  }
}

class CastKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("SrcT", &src_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("DstT", &dst_));
    // Truncate only matters for half-precision targets, which minitf lacks.
    bool truncate = false;
    MINITF_RETURN_IF_ERROR(init.GetAttr("Truncate", &truncate));
    if (!Castable(src_) || !Castable(dst_)) {
      return Unimplemented("Cast from ", DataTypeName(src_), " to ", DataTypeName(dst_),
                           " is not supported (node ", init.node_name(), ")");
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    if (src_ == dst_) return ctx->set_output(0, x);
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, x.shape(), &y));
    const int64_t n = x.num_elements();
    return DispatchType<MINITF_ALL_TYPES>(dst_, [&](auto dst_tag) {
      using To = typename decltype(dst_tag)::type;
      To* out = y->data<To>();
      if (src_ == TF_BOOL) {
        // Read as bytes: a fed bool buffer may hold any byte value.
        const uint8_t* in = x.data<uint8_t>();
        ctx->ParallelFor(n, 1, [&](int64_t b, int64_t e) {
          for (int64_t i = b; i < e; ++i) out[i] = static_cast<To>(in[i] != 0);
        });
        return Status::OK();
      }
      return DispatchType<MINITF_REAL_TYPES>(src_, [&](auto src_tag) {
        using From = typename decltype(src_tag)::type;
        const From* in = x.data<From>();
        ctx->ParallelFor(n, 1, [&](int64_t b, int64_t e) {
          for (int64_t i = b; i < e; ++i) out[i] = CastValue<To>(in[i]);
        });
        return Status::OK();
      });
    });
  }

 private:
  DataType src_ = kInvalidType;
  DataType dst_ = kInvalidType;
};

}  // namespace

void RegisterCastOps(OpRegistry& r) {
  r.Register(OpDef("Cast")
                 .Input("x: SrcT")
                 .Output("y: DstT")
                 .Attr("SrcT: type")
                 .Attr("DstT: type")
                 .Attr("Truncate: bool = false"),
             MakeKernel<CastKernel>);
}

}  // namespace minitf
