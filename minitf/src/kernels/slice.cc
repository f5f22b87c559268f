// Slice and StridedSlice. Both reduce to a box of the input walked with a
// start and a step per dim; StridedSlice first turns its numpy-style index
// (masks, ellipsis, new and shrunk axes) into one range per input dim.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

// A box of the input: per input dim a first index, a step and a count.
struct SliceBox {
  std::vector<int64_t> begin, step, size;
};

// Copies `box` of x into an output of `out_shape` (same element count as
// the box), or re-views x when the box is all of it.
Status EmitBox(OpContext* ctx, const Tensor& x, const SliceBox& box, const Shape& out_shape) {
  bool whole = true;
  for (int i = 0; i < x.rank(); ++i) {
    whole = whole && box.begin[i] == 0 && box.step[i] == 1 && box.size[i] == x.dim(i);
  }
  if (whole) return ctx->set_output(0, x.Reshaped(out_shape));
  Tensor* out = nullptr;
  MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
  if (out->num_elements() == 0) return Status::OK();
  const std::vector<int64_t> in_strides = RowMajorStrides(x.shape());
  int64_t offset = 0;
  std::vector<int64_t> src_strides(x.rank()), dst_strides(x.rank(), 1);
  for (int i = 0; i < x.rank(); ++i) {
    offset += box.begin[i] * in_strides[i];
    src_strides[i] = box.step[i] * in_strides[i];
  }
  for (int i = x.rank() - 2; i >= 0; --i) dst_strides[i] = dst_strides[i + 1] * box.size[i + 1];
  const size_t elem = DataTypeSize(x.dtype());
  StridedCopy(*ctx, elem, box.size, static_cast<const char*>(x.raw_data()) + offset * elem,
              src_strides, static_cast<char*>(out->raw_data()), dst_strides);
  return Status::OK();
}

class SliceKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> begin, size;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "begin", &begin));
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(2), "size", &size));
    if (static_cast<int>(begin.size()) != x.rank() || static_cast<int>(size.size()) != x.rank()) {
      return ctx->Error("begin and size must have one entry per input dim: input shape ",
                        x.shape().ToString(), ", begin has ", begin.size(), ", size has ",
                        size.size());
    }
    for (int i = 0; i < x.rank(); ++i) {
      const int64_t dim = x.dim(i);
      if (begin[i] < 0 || begin[i] > dim) {
        return ctx->Error("begin[", i, "] = ", begin[i], " is not in [0, ", dim, "]");
      }
      if (size[i] == -1) size[i] = dim - begin[i];
      if (size[i] < 0 || size[i] > dim - begin[i]) {
        return ctx->Error("size[", i, "] = ", size[i], " is not in [0, ", dim - begin[i], "]");
      }
    }
    SliceBox box{begin, std::vector<int64_t>(x.rank(), 1), size};
    return EmitBox(ctx, x, box, Shape(size));
  }
};

// Bit i of an int32 mask; index entries past 32 have no mask bits.
bool Bit(int mask, int i) { return i < 32 && ((static_cast<uint32_t>(mask) >> i) & 1) != 0; }

class StridedSliceKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("begin_mask", &begin_mask_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("end_mask", &end_mask_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("ellipsis_mask", &ellipsis_mask_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("new_axis_mask", &new_axis_mask_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("shrink_axis_mask", &shrink_axis_mask_));
    // An index may hold one ellipsis at most.
    const uint32_t ellipsis = static_cast<uint32_t>(ellipsis_mask_);
    if ((ellipsis & (ellipsis - 1)) != 0) {
      return init.Error("ellipsis_mask ", ellipsis_mask_, " sets more than one bit");
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> begin, end, strides;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "begin", &begin));
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(2), "end", &end));
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(3), "strides", &strides));
    if (end.size() != begin.size() || strides.size() != begin.size()) {
      return ctx->Error("begin, end and strides must have the same length, got ", begin.size(),
                        ", ", end.size(), " and ", strides.size());
    }
    SliceBox box;
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(Plan(*ctx, x.shape(), begin, end, strides, &box, &out_shape));
    return EmitBox(ctx, x, box, out_shape);
  }

 private:
  // Marks an output dim that is a new unit axis rather than an input dim.
  static constexpr int kNewAxis = -1;

  Status Plan(const OpContext& ctx, const Shape& in, const std::vector<int64_t>& begin,
              const std::vector<int64_t>& end, const std::vector<int64_t>& strides,
              SliceBox* box, Shape* out_shape) const {
    const int n = static_cast<int>(begin.size());
    const int rank = in.rank();
    // Without an ellipsis, the index behaves as if one followed its last entry.
    int ellipsis_at = n;
    for (int i = 0; i < n; ++i) {
      if (Bit(ellipsis_mask_, i)) ellipsis_at = i;
    }
    int new_axes_after = 0;
    for (int i = ellipsis_at + 1; i < n; ++i) {
      if (Bit(new_axis_mask_, i)) ++new_axes_after;
    }
    // Entries after the ellipsis that consume input dims.
    const int consumed_after = n - ellipsis_at - 1 - new_axes_after;

    std::vector<int> entry_of_dim(rank, -1);  // -1: inside the ellipsis
    std::vector<int> out_dims;  // input dim, or kNewAxis
    std::vector<bool> shrink(rank, false);
    int dim = 0;
    for (int i = 0; i <= n; ++i) {
      if (i == ellipsis_at) {
        // Ellipsis precedes the new-axis bit on the same entry.
        const int stop = std::max(dim, std::min(rank, rank - consumed_after));
        for (; dim < stop; ++dim) out_dims.push_back(dim);
        continue;
      }
      if (i == n) break;
      if (Bit(new_axis_mask_, i)) {
        out_dims.push_back(kNewAxis);
        continue;
      }
      if (dim >= rank) {
        return ctx.Error("slice index entry ", i, " indexes dim ", dim,
                         ", but the input has rank ", rank);
      }
      entry_of_dim[dim] = i;
      if (Bit(shrink_axis_mask_, i)) {
        shrink[dim] = true;
      } else {
        out_dims.push_back(dim);
      }
      ++dim;
    }

    box->begin.assign(rank, 0);
    box->step.assign(rank, 1);
    box->size.assign(rank, 0);
    for (int d = 0; d < rank; ++d) {
      const int64_t size = in.dim(d);
      const int i = entry_of_dim[d];
      if (i < 0) {
        box->size[d] = size;
        continue;
      }
      const int64_t stride = strides[i];
      if (stride == 0) return ctx.Error("strides[", i, "] must be non-zero");
      if (shrink[d]) {
        if (stride < 0) {
          return ctx.Error("strides[", i, "] = ", stride, " on a shrunk axis; only positive ",
                           "strides are allowed where a single index is taken");
        }
        const int64_t index = begin[i] < 0 ? begin[i] + size : begin[i];
        if (index < 0 || index >= size) {
          return ctx.Error("slice index ", begin[i], " of dimension ", d,
                           " is out of bounds for size ", size);
        }
        box->begin[d] = index;
        box->size[d] = 1;
        continue;
      }
      // Valid positions run [0, size] going forward and [-1, size - 1]
      // going backward, -1 meaning "before the first element".
      const int64_t lo = stride > 0 ? 0 : -1;
      const int64_t hi = stride > 0 ? size : size - 1;
      auto canonical = [&](int64_t v, bool masked, bool is_end) {
        if (masked) return (stride > 0) == is_end ? hi : lo;
        const int64_t fwd = v < 0 ? v + size : v;
        return std::min(std::max(fwd, lo), hi);
      };
      const int64_t b = canonical(begin[i], Bit(begin_mask_, i), false);
      const int64_t e = canonical(end[i], Bit(end_mask_, i), true);
      const int64_t length = e - b;
      int64_t count = 0;
      if (length != 0 && (length < 0) == (stride < 0)) {
        count = length / stride + (length % stride != 0 ? 1 : 0);
      }
      box->begin[d] = b;
      box->step[d] = stride;
      box->size[d] = count;
    }

    std::vector<int64_t> dims;
    for (int d : out_dims) dims.push_back(d == kNewAxis ? 1 : box->size[d]);
    *out_shape = Shape(std::move(dims));
    return Status::OK();
  }

  // int32 as in TensorFlow; larger attribute values are rejected on load.
  int begin_mask_ = 0, end_mask_ = 0, ellipsis_mask_ = 0, new_axis_mask_ = 0,
      shrink_axis_mask_ = 0;
};

}  // namespace

void RegisterSliceOps(OpRegistry& r) {
  r.Register(OpDef("Slice").Input("input: T").Input("begin: Index").Input("size: Index")
                 .Output("output: T").Attr("T: type").Attr("Index: {int32, int64}"),
             MakeKernel<SliceKernel>);
  r.Register(OpDef("StridedSlice").Input("input: T").Input("begin: Index").Input("end: Index")
                 .Input("strides: Index").Output("output: T").Attr("T: type")
                 .Attr("Index: {int16, int32, int64}").Attr("begin_mask: int = 0")
                 .Attr("end_mask: int = 0").Attr("ellipsis_mask: int = 0")
                 .Attr("new_axis_mask: int = 0").Attr("shrink_axis_mask: int = 0"),
             MakeKernel<StridedSliceKernel>);
}

}  // namespace minitf
