// Ops that make tensors from a value or by repetition: Fill, Range,
// ZerosLike, OnesLike and Tile.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

class FillKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    std::vector<int64_t> dims;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(0), "dims", &dims));
    const Tensor& value = ctx->input(1);
    if (value.rank() != 0) {
      return ctx->Error("value must be a scalar, got shape ", value.shape().ToString());
    }
    Shape shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, shape, &out));
    FillElements(*ctx, DataTypeSize(value.dtype()), value.raw_data(), out->num_elements(),
                 out->raw_data());
    return Status::OK();
  }
};

class ZerosLikeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, ctx->input(0).shape(), &out));
    // All-zero bytes are zero (or false) in every numeric dtype.
    const char zero[16] = {};
    FillElements(*ctx, DataTypeSize(out->dtype()), zero, out->num_elements(), out->raw_data());
    return Status::OK();
  }
};

// The bytes of the value 1 in `dt` (little-endian), or false when the dtype
// has no such value.
bool OneBytes(DataType dt, unsigned char bytes[16]) {
  std::memset(bytes, 0, 16);
  auto put = [&](auto v) { std::memcpy(bytes, &v, sizeof(v)); };
  switch (dt) {
    case TF_FLOAT: case TF_COMPLEX64: put(1.0f); return true;
    case TF_DOUBLE: case TF_COMPLEX128: put(1.0); return true;
    case TF_HALF: put(uint16_t{0x3C00}); return true;
    case TF_BFLOAT16: put(uint16_t{0x3F80}); return true;
    case TF_INT8: case TF_UINT8: case TF_BOOL: put(uint8_t{1}); return true;
    case TF_INT16: case TF_UINT16: put(uint16_t{1}); return true;
    case TF_INT32: case TF_UINT32: put(uint32_t{1}); return true;
    case TF_INT64: case TF_UINT64: put(uint64_t{1}); return true;
    default: return false;
  }
}

class OnesLikeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    DataType dt = kInvalidType;
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &dt));
    if (!OneBytes(dt, one_)) return init.Error("OnesLike does not support ", DataTypeName(dt));
    return Status::OK();
  }
  Status Compute(OpContext* ctx) const override {
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, ctx->input(0).shape(), &out));
    FillElements(*ctx, DataTypeSize(out->dtype()), one_, out->num_elements(), out->raw_data());
    return Status::OK();
  }

 private:
  unsigned char one_[16] = {};
};

// Number of elements in [start, limit) stepping by delta, for integers.
// Works in uint64 so that int64 extremes neither overflow nor lose bits.
template <typename T>
Status IntegerRangeSize(const OpContext& ctx, T start, T limit, T delta, int64_t* size) {
  const int64_t s = start, l = limit, d = delta;
  const uint64_t span = d > 0 ? static_cast<uint64_t>(l) - static_cast<uint64_t>(s)
                              : static_cast<uint64_t>(s) - static_cast<uint64_t>(l);
  const uint64_t step = d > 0 ? static_cast<uint64_t>(d) : 0 - static_cast<uint64_t>(d);
  const uint64_t n = span / step + (span % step != 0 ? 1 : 0);
  if (n > static_cast<uint64_t>(kMaxTensorElements)) {
    return ctx.Error("range of ", n, " elements is too large");
  }
  *size = static_cast<int64_t>(n);
  return Status::OK();
}

template <typename T>
Status FloatRangeSize(const OpContext& ctx, T start, T limit, T delta, int64_t* size) {
  if (!std::isfinite(start) || !std::isfinite(limit) || !std::isfinite(delta)) {
    return ctx.Error("start, limit and delta must be finite");
  }
  // The quotient is taken in T: in float, range(0, 0.3, 0.1) has 3 elements.
  const T quotient = (limit - start) / delta;
  const double n = std::ceil(std::fabs(static_cast<double>(quotient)));
  if (!(n <= static_cast<double>(kMaxTensorElements))) {
    return ctx.Error("range of ", n, " elements is too large");
  }
  *size = static_cast<int64_t>(n);
  return Status::OK();
}

class RangeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("Tidx", &type_); }
  Status Compute(OpContext* ctx) const override {
    const char* names[] = {"start", "limit", "delta"};
    for (int i = 0; i < 3; ++i) {
      if (ctx->input(i).rank() != 0) {
        return ctx->Error(names[i], " must be a scalar, got shape ",
                          ctx->input(i).shape().ToString());
      }
    }
    return DispatchType<float, double, int8_t, int16_t, int32_t, int64_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T start = ctx->input(0).data<T>()[0];
      const T limit = ctx->input(1).data<T>()[0];
      const T delta = ctx->input(2).data<T>()[0];
      if (delta == 0) return ctx->Error("delta must not be 0");
      if (delta > 0 ? start > limit : start < limit) {
        return ctx->Error("start ", +start, " cannot reach limit ", +limit, " with delta ",
                          +delta);
      }
      int64_t size = 0;
      if constexpr (std::is_integral_v<T>) {
        MINITF_RETURN_IF_ERROR(IntegerRangeSize<T>(*ctx, start, limit, delta, &size));
      } else {
        MINITF_RETURN_IF_ERROR(FloatRangeSize<T>(*ctx, start, limit, delta, &size));
      }
      Tensor* out = nullptr;
      MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, Shape({size}), &out));
      T* y = out->data<T>();
      ctx->ParallelFor(size, 1, [&](int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) {
          if constexpr (std::is_integral_v<T>) {
            // Every value lies between start and limit; uint64 wraps back to it.
            y[i] = static_cast<T>(static_cast<int64_t>(
                static_cast<uint64_t>(int64_t{start}) +
                static_cast<uint64_t>(i) * static_cast<uint64_t>(int64_t{delta})));
          } else {
            y[i] = start + static_cast<T>(i) * delta;
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
};

class TileKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> multiples;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "multiples", &multiples));
    const int rank = x.rank();
    if (static_cast<int>(multiples.size()) != rank) {
      return ctx->Error("multiples has ", multiples.size(), " entries for an input of rank ",
                        rank);
    }
    std::vector<int64_t> dims(rank);
    bool identity = true;
    for (int i = 0; i < rank; ++i) {
      const int64_t m = multiples[i];
      if (m < 0) return ctx->Error("multiples[", i, "] = ", m, " must be non-negative");
      if (m != 0 && x.dim(i) > kMaxTensorElements / m) {
        return ctx->Error("tiling dim ", i, " of size ", x.dim(i), " by ", m, " is too large");
      }
      dims[i] = x.dim(i) * m;
      identity = identity && m == 1;
    }
    if (identity) return ctx->set_output(0, x);
    Shape shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, shape, &out));
    if (out->num_elements() == 0) return Status::OK();
    // The output, seen as [m0, d0, m1, d1, ...], is a strided copy of the
    // input that reads it with stride 0 along each multiple: no index tables,
    // so the only memory the op takes is its output.
    const std::vector<int64_t> in_strides = RowMajorStrides(x.shape());
    const std::vector<int64_t> out_strides = RowMajorStrides(shape);
    std::vector<int64_t> box, src_strides, dst_strides;
    for (int i = 0; i < rank; ++i) {
      box.push_back(multiples[i]);
      src_strides.push_back(0);
      dst_strides.push_back(x.dim(i) * out_strides[i]);
      box.push_back(x.dim(i));
      src_strides.push_back(in_strides[i]);
      dst_strides.push_back(out_strides[i]);
    }
    StridedCopy(*ctx, DataTypeSize(x.dtype()), box, static_cast<const char*>(x.raw_data()),
                src_strides, static_cast<char*>(out->raw_data()), dst_strides);
    return Status::OK();
  }
};

}  // namespace

void RegisterFillOps(OpRegistry& r) {
  r.Register(OpDef("Fill").Input("dims: index_type").Input("value: T").Output("output: T")
                 .Attr("T: type").Attr("index_type: {int32, int64} = DT_INT32"),
             MakeKernel<FillKernel>);
  r.Register(OpDef("Range").Input("start: Tidx").Input("limit: Tidx").Input("delta: Tidx")
                 .Output("output: Tidx")
                 .Attr("Tidx: {float, double, int8, int16, int32, int64} = DT_INT32"),
             MakeKernel<RangeKernel>);
  r.Register(OpDef("ZerosLike").Input("x: T").Output("y: T").Attr("T: type"),
             MakeKernel<ZerosLikeKernel>);
  r.Register(OpDef("OnesLike").Input("x: T").Output("y: T")
                 .Attr("T: {bfloat16, half, float, double, int8, uint8, int16, uint16, int32, "
                       "uint32, int64, uint64, complex64, complex128, bool}"),
             MakeKernel<OnesLikeKernel>);
  r.Register(OpDef("Tile").Input("input: T").Input("multiples: Tmultiples").Output("output: T")
                 .Attr("T: type").Attr("Tmultiples: {int32, int64} = DT_INT32"),
             MakeKernel<TileKernel>);
}

}  // namespace minitf
