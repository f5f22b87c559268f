// Transpose: output dim i is input dim perm[i]. The copy walks the output
// in order and reads the input through permuted strides; StridedCopy merges
// dims that stay adjacent, so e.g. NHWC -> NCHW becomes a 2-D transpose of
// [H*W, C] per batch.
#include <cstdint>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

class TransposeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> perm;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "perm", &perm));
    const int rank = x.rank();
    if (static_cast<int>(perm.size()) != rank) {
      return ctx->Error("perm has ", perm.size(), " entries for an input of rank ", rank);
    }
    std::vector<bool> seen(rank, false);
    bool identity = true;
    for (int i = 0; i < rank; ++i) {
      if (perm[i] < 0 || perm[i] >= rank) {
        return ctx->Error("perm[", i, "] = ", perm[i], " is out of range [0, ", rank, ")");
      }
      if (seen[perm[i]]) return ctx->Error("perm repeats dim ", perm[i]);
      seen[perm[i]] = true;
      identity = identity && perm[i] == i;
    }
    if (identity) return ctx->set_output(0, x);

    const std::vector<int64_t> in_strides = RowMajorStrides(x.shape());
    std::vector<int64_t> out_dims(rank), src_strides(rank);
    for (int i = 0; i < rank; ++i) {
      out_dims[i] = x.dim(static_cast<int>(perm[i]));
      src_strides[i] = in_strides[perm[i]];
    }
    const Shape out_shape(out_dims);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    StridedCopy(*ctx, DataTypeSize(x.dtype()), out_dims, static_cast<const char*>(x.raw_data()),
                src_strides, static_cast<char*>(out->raw_data()), RowMajorStrides(out_shape));
    return Status::OK();
  }
};

}  // namespace

void RegisterTransposeOps(OpRegistry& r) {
  r.Register(OpDef("Transpose").Input("x: T").Input("perm: Tperm").Output("y: T")
                 .Attr("T: type").Attr("Tperm: {int32, int64} = DT_INT32"),
             MakeKernel<TransposeKernel>);
}

}  // namespace minitf
