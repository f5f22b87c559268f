// Joining and splitting along one axis: Pack, Unpack, ConcatV2, Concat,
// Split, SplitV. Each is a set of row copies: around the axis a tensor is
// [outer, axis * inner], and a piece of it is a column block of that matrix.
#include <cstdint>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

// Copies `pieces` (each [outer, widths[i]] bytes) side by side into `dst`.
void JoinColumns(const OpContext& ctx, int64_t outer, const std::vector<const char*>& pieces,
                 const std::vector<int64_t>& widths, char* dst) {
  int64_t total = 0;
  for (int64_t w : widths) total += w;
  int64_t offset = 0;
  for (size_t i = 0; i < pieces.size(); ++i) {
    StridedCopy(ctx, 1, {outer, widths[i]}, pieces[i], {widths[i], 1}, dst + offset, {total, 1});
    offset += widths[i];
  }
}

// The inverse: column blocks of `src` ([outer, sum(widths)] bytes) into
// separate outputs.
void SplitColumns(const OpContext& ctx, int64_t outer, const char* src,
                  const std::vector<int64_t>& widths, const std::vector<char*>& pieces) {
  int64_t total = 0;
  for (int64_t w : widths) total += w;
  int64_t offset = 0;
  for (size_t i = 0; i < pieces.size(); ++i) {
    StridedCopy(ctx, 1, {outer, widths[i]}, src + offset, {total, 1}, pieces[i], {widths[i], 1});
    offset += widths[i];
  }
}

// Concatenates inputs [first, first + n) of ctx along `axis_value`.
Status Concatenate(OpContext* ctx, int first, int n, int64_t axis_value) {
  const Tensor& x0 = ctx->input(first);
  const int rank = x0.rank();
  if (rank == 0) return ctx->Error("cannot concatenate scalars; use Pack");
  int axis = 0;
  MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_value, rank, "concat axis", &axis));
  Shape out_shape = x0.shape();
  int64_t axis_total = 0;
  for (int i = 0; i < n; ++i) {
    const Shape& s = ctx->input(first + i).shape();
    if (s.rank() != rank) {
      return ctx->Error("ranks of all inputs must match: values[0] has shape ",
                        x0.shape().ToString(), ", values[", i, "] has shape ", s.ToString());
    }
    for (int d = 0; d < rank; ++d) {
      if (d != axis && s.dim(d) != x0.dim(d)) {
        return ctx->Error("dimension ", d, " of all inputs must match: values[0] has shape ",
                          x0.shape().ToString(), ", values[", i, "] has shape ", s.ToString());
      }
    }
    axis_total += s.dim(axis);  // each below 2^40, so no overflow for any N
  }
  out_shape.set_dim(axis, axis_total);
  MINITF_RETURN_IF_ERROR(MakeShape(*ctx, out_shape.dims(), &out_shape));
  Tensor* out = nullptr;
  MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
  const int64_t elem = static_cast<int64_t>(DataTypeSize(out->dtype()));
  const int64_t outer = DimProduct(out_shape, 0, axis);
  const int64_t inner = DimProduct(out_shape, axis + 1, rank);
  std::vector<const char*> pieces;
  std::vector<int64_t> widths;
  for (int i = 0; i < n; ++i) {
    const Tensor& x = ctx->input(first + i);
    pieces.push_back(static_cast<const char*>(x.raw_data()));
    widths.push_back(x.dim(axis) * inner * elem);
  }
  JoinColumns(*ctx, outer, pieces, widths, static_cast<char*>(out->raw_data()));
  return Status::OK();
}

class ConcatV2Kernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("N", &n_); }
  Status Compute(OpContext* ctx) const override {
    int64_t axis = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(n_), "axis", true, &axis));
    return Concatenate(ctx, 0, n_, axis);
  }

 private:
  int n_ = 0;
};

// The original form, with the axis first.
class ConcatKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("N", &n_); }
  Status Compute(OpContext* ctx) const override {
    int64_t axis = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(0), "concat_dim", true, &axis));
    return Concatenate(ctx, 1, n_, axis);
  }

 private:
  int n_ = 0;
};

class PackKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("N", &n_));
    return init.GetAttr("axis", &axis_);
  }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x0 = ctx->input(0);
    int axis = 0;
    MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_, x0.rank() + 1, "axis", &axis));
    for (int i = 1; i < n_; ++i) {
      if (ctx->input(i).shape() != x0.shape()) {
        return ctx->Error("shapes of all inputs must match: values[0] has shape ",
                          x0.shape().ToString(), ", values[", i, "] has shape ",
                          ctx->input(i).shape().ToString());
      }
    }
    Shape out_shape;
    std::vector<int64_t> dims = x0.shape().dims();
    dims.insert(dims.begin() + axis, n_);
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    const int64_t elem = static_cast<int64_t>(DataTypeSize(out->dtype()));
    const int64_t outer = DimProduct(x0.shape(), 0, axis);
    const int64_t width = DimProduct(x0.shape(), axis, x0.rank()) * elem;
    std::vector<const char*> pieces;
    for (int i = 0; i < n_; ++i) pieces.push_back(static_cast<const char*>(ctx->input(i).raw_data()));
    JoinColumns(*ctx, outer, pieces, std::vector<int64_t>(n_, width),
                static_cast<char*>(out->raw_data()));
    return Status::OK();
  }

 private:
  int n_ = 0;
  int64_t axis_ = 0;
};

// Allocates one output per entry of `sizes` (the input's shape with `axis`
// set to that size, or removed when `drop_axis`) and copies the matching
// blocks of `x` into them.
Status SplitInto(OpContext* ctx, const Tensor& x, int axis, const std::vector<int64_t>& sizes,
                 bool drop_axis) {
  const int64_t elem = static_cast<int64_t>(DataTypeSize(x.dtype()));
  const int64_t outer = DimProduct(x.shape(), 0, axis);
  const int64_t inner = DimProduct(x.shape(), axis + 1, x.rank());
  std::vector<char*> pieces;
  std::vector<int64_t> widths;
  for (size_t i = 0; i < sizes.size(); ++i) {
    Shape shape = x.shape();
    if (drop_axis) {
      shape.RemoveDim(axis);
    } else {
      shape.set_dim(axis, sizes[i]);
    }
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(static_cast<int>(i), shape, &out));
    pieces.push_back(static_cast<char*>(out->raw_data()));
    widths.push_back(sizes[i] * inner * elem);
  }
  SplitColumns(*ctx, outer, static_cast<const char*>(x.raw_data()), widths, pieces);
  return Status::OK();
}

class UnpackKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("num", &num_));
    return init.GetAttr("axis", &axis_);
  }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    int axis = 0;
    MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_, x.rank(), "axis", &axis));
    if (x.dim(axis) != num_) {
      return ctx->Error("dimension ", axis, " of shape ", x.shape().ToString(),
                        " must equal num = ", num_);
    }
    return SplitInto(ctx, x, axis, std::vector<int64_t>(num_, 1), true);
  }

 private:
  int num_ = 0;
  int64_t axis_ = 0;
};

class SplitKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("num_split", &num_split_); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(1);
    int64_t axis_value = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(0), "split_dim", true, &axis_value));
    int axis = 0;
    MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_value, x.rank(), "split_dim", &axis));
    if (x.dim(axis) % num_split_ != 0) {
      return ctx->Error("num_split ", num_split_, " does not evenly divide dimension ", axis,
                        " of shape ", x.shape().ToString());
    }
    if (num_split_ == 1) return ctx->set_output(0, x);
    return SplitInto(ctx, x, axis, std::vector<int64_t>(num_split_, x.dim(axis) / num_split_),
                     false);
  }

 private:
  int num_split_ = 1;
};

class SplitVKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("num_split", &num_split_); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> sizes;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "size_splits", &sizes));
    int64_t axis_value = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(2), "split_dim", true, &axis_value));
    int axis = 0;
    MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_value, x.rank(), "split_dim", &axis));
    if (static_cast<int64_t>(sizes.size()) != num_split_) {
      return ctx->Error("size_splits has ", sizes.size(), " entries, num_split is ", num_split_);
    }
    const int64_t dim = x.dim(axis);
    int unknown = -1;
    int64_t known = 0;
    for (int i = 0; i < num_split_; ++i) {
      if (sizes[i] == -1) {
        if (unknown >= 0) return ctx->Error("size_splits may contain only one -1");
        unknown = i;
      } else if (sizes[i] < 0 || sizes[i] > dim - known) {
        return ctx->Error("size_splits ", i, " = ", sizes[i],
                          " is negative or overruns dimension ", axis, " of size ", dim);
      } else {
        known += sizes[i];
      }
    }
    if (unknown >= 0) {
      sizes[unknown] = dim - known;
    } else if (known != dim) {
      return ctx->Error("size_splits sum to ", known, ", but dimension ", axis, " has size ", dim);
    }
    return SplitInto(ctx, x, axis, sizes, false);
  }

 private:
  int num_split_ = 1;
};

}  // namespace

void RegisterConcatOps(OpRegistry& r) {
  r.Register(OpDef("ConcatV2").Input("values: N * T").Input("axis: Tidx").Output("output: T")
                 .Attr("N: int >= 2").Attr("T: type").Attr("Tidx: {int32, int64} = DT_INT32"),
             MakeKernel<ConcatV2Kernel>);
  r.Register(OpDef("Concat").Input("concat_dim: int32").Input("values: N * T")
                 .Output("output: T").Attr("N: int >= 2").Attr("T: type"),
             MakeKernel<ConcatKernel>);
  r.Register(OpDef("Pack").Input("values: N * T").Output("output: T").Attr("N: int >= 1")
                 .Attr("T: type").Attr("axis: int = 0"),
             MakeKernel<PackKernel>);
  r.Register(OpDef("Unpack").Input("value: T").Output("output: num * T").Attr("num: int >= 0")
                 .Attr("T: type").Attr("axis: int = 0"),
             MakeKernel<UnpackKernel>);
  r.Register(OpDef("Split").Input("split_dim: int32").Input("value: T")
                 .Output("output: num_split * T").Attr("num_split: int >= 1").Attr("T: type"),
             MakeKernel<SplitKernel>);
  r.Register(OpDef("SplitV").Input("value: T").Input("size_splits: Tlen")
                 .Input("split_dim: int32").Output("output: num_split * T")
                 .Attr("num_split: int >= 1").Attr("T: type")
                 .Attr("Tlen: {int8, int32, int64} = DT_INT64"),
             MakeKernel<SplitVKernel>);
}

}  // namespace minitf
