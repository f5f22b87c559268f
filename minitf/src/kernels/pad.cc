// Ops that grow a tensor at its edges: Pad and PadV2 with a constant,
// MirrorPad with a reflection of the input.
#include <cstdint>
#include <string>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

// Reads paddings ([rank, 2], non-negative, each at most `limit(dim)`) and
// the padded shape.
struct PadAmounts {
  std::vector<int64_t> before, after;
  Shape shape;
};

Status ReadPaddings(const OpContext& ctx, const Tensor& x, const Tensor& paddings,
                    int64_t reflect_offset, bool mirror, PadAmounts* pad) {
  const int rank = x.rank();
  if (paddings.rank() != 2 || paddings.dim(1) != 2 || paddings.dim(0) != rank) {
    return ctx.Error("paddings must have shape [", rank, ", 2], got ",
                     paddings.shape().ToString());
  }
  std::vector<int64_t> values;
  MINITF_RETURN_IF_ERROR(ReadInts(ctx, paddings, "paddings", &values));
  std::vector<int64_t> dims(rank);
  pad->before.resize(rank);
  pad->after.resize(rank);
  for (int i = 0; i < rank; ++i) {
    const int64_t b = values[2 * i], a = values[2 * i + 1], d = x.dim(i);
    if (b < 0 || a < 0) {
      return ctx.Error("paddings for dim ", i, " must be non-negative, got ", b, ", ", a);
    }
    if (mirror && (b > d - reflect_offset || a > d - reflect_offset)) {
      return ctx.Error("paddings ", b, ", ", a, " of dim ", i, " must be at most ",
                       d - reflect_offset, " for a dim of size ", d);
    }
    if (b > kMaxTensorElements || a > kMaxTensorElements - b - d) {
      return ctx.Error("paddings ", b, ", ", a, " of dim ", i, " are too large");
    }
    pad->before[i] = b;
    pad->after[i] = a;
    dims[i] = b + d + a;
  }
  return MakeShape(ctx, dims, &pad->shape);
}

// Pad and PadV2: the constant everywhere, then the input in the middle.
class PadKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    PadAmounts pad;
    MINITF_RETURN_IF_ERROR(ReadPaddings(*ctx, x, ctx->input(1), 0, false, &pad));
    const char zero[16] = {};
    const void* constant = zero;
    if (ctx->num_inputs() > 2) {
      const Tensor& c = ctx->input(2);
      if (c.rank() != 0) {
        return ctx->Error("constant_values must be a scalar, got shape ", c.shape().ToString());
      }
      constant = c.raw_data();
    }
    if (pad.shape == x.shape()) return ctx->set_output(0, x);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, pad.shape, &out));
    const size_t elem = DataTypeSize(x.dtype());
    FillElements(*ctx, elem, constant, out->num_elements(), out->raw_data());
    if (x.num_elements() == 0) return Status::OK();
    const std::vector<int64_t> out_strides = RowMajorStrides(pad.shape);
    int64_t offset = 0;
    for (int i = 0; i < x.rank(); ++i) offset += pad.before[i] * out_strides[i];
    StridedCopy(*ctx, elem, x.shape().dims(), static_cast<const char*>(x.raw_data()),
                RowMajorStrides(x.shape()), static_cast<char*>(out->raw_data()) + offset * elem,
                out_strides);
    return Status::OK();
  }
};

class MirrorPadKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    std::string mode;
    MINITF_RETURN_IF_ERROR(init.GetAttr("mode", &mode));
    // REFLECT leaves the edge out of the mirror image, SYMMETRIC repeats it.
    offset_ = mode == "REFLECT" ? 1 : 0;
    return Status::OK();
  }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    PadAmounts pad;
    MINITF_RETURN_IF_ERROR(ReadPaddings(*ctx, x, ctx->input(1), offset_, true, &pad));
    if (pad.shape == x.shape()) return ctx->set_output(0, x);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, pad.shape, &out));
    if (out->num_elements() == 0) return Status::OK();
    // Each dim splits into up to three runs (mirrored before, the input,
    // mirrored after); every combination of runs is one strided copy, with a
    // negative source stride along the mirrored runs. No index tables.
    const int rank = x.rank();
    const std::vector<int64_t> in_strides = RowMajorStrides(x.shape());
    const std::vector<int64_t> out_strides = RowMajorStrides(pad.shape);
    struct Run { int64_t out_start, len, src_start, step; };
    std::vector<std::vector<Run>> runs(rank);
    for (int i = 0; i < rank; ++i) {
      const int64_t b = pad.before[i], a = pad.after[i], d = x.dim(i);
      if (b > 0) runs[i].push_back({0, b, b - 1 + offset_, -1});
      runs[i].push_back({b, d, 0, 1});
      if (a > 0) runs[i].push_back({b + d, a, d - 1 - offset_, -1});
    }
    const size_t elem = DataTypeSize(x.dtype());
    const char* src = static_cast<const char*>(x.raw_data());
    char* dst = static_cast<char*>(out->raw_data());
    std::vector<size_t> pick(rank, 0);
    std::vector<int64_t> box(rank), src_strides(rank);
    while (true) {
      int64_t src_off = 0, dst_off = 0;
      for (int i = 0; i < rank; ++i) {
        const Run& r = runs[i][pick[i]];
        box[i] = r.len;
        src_strides[i] = r.step * in_strides[i];
        src_off += r.src_start * in_strides[i];
        dst_off += r.out_start * out_strides[i];
      }
      StridedCopy(*ctx, elem, box, src + src_off * static_cast<int64_t>(elem), src_strides,
                  dst + dst_off * static_cast<int64_t>(elem), out_strides);
      int i = rank - 1;
      for (; i >= 0; --i) {
        if (++pick[i] < runs[i].size()) break;
        pick[i] = 0;
      }
      if (i < 0) break;
    }
    return Status::OK();
  }

 private:
  int64_t offset_ = 0;
};

}  // namespace

void RegisterPadOps(OpRegistry& r) {
  r.Register(OpDef("Pad").Input("input: T").Input("paddings: Tpaddings").Output("output: T")
                 .Attr("T: type").Attr("Tpaddings: {int32, int64} = DT_INT32"),
             MakeKernel<PadKernel>);
  r.Register(OpDef("PadV2").Input("input: T").Input("paddings: Tpaddings")
                 .Input("constant_values: T").Output("output: T").Attr("T: type")
                 .Attr("Tpaddings: {int32, int64} = DT_INT32"),
             MakeKernel<PadKernel>);
  r.Register(OpDef("MirrorPad").Input("input: T").Input("paddings: Tpaddings")
                 .Output("output: T").Attr("T: type")
                 .Attr("Tpaddings: {int32, int64} = DT_INT32")
                 .Attr("mode: {'REFLECT', 'SYMMETRIC'}"),
             MakeKernel<MirrorPadKernel>);
}

}  // namespace minitf
