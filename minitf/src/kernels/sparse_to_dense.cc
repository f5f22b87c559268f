// SparseToDense: a dense tensor of output_shape filled with default_value,
// with the listed coordinates set to sparse_values. Every coordinate is
// range-checked before it is written; with validate_indices the coordinates
// must also be strictly increasing in row-major order, as TensorFlow
// requires.
#include <cstring>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

class SparseToDenseKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("validate_indices", &validate_); }

  Status Compute(OpContext* ctx) const override {
    const Tensor& indices = ctx->input(0);
    const Tensor& values = ctx->input(2);
    const Tensor& fill = ctx->input(3);
    MINITF_ENSURE(ctx, indices.rank() <= 2, "sparse_indices must be 0-D, 1-D or 2-D: ",
                  indices.shape().ToString());
    std::vector<int64_t> dims;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "output_shape", &dims));
    const int64_t count = indices.rank() > 0 ? indices.dim(0) : 1;
    const int64_t rank = indices.rank() > 1 ? indices.dim(1) : 1;
    if (static_cast<int64_t>(dims.size()) != rank) {
      return ctx->Error("output_shape has ", dims.size(), " entries, but sparse_indices gives ",
                        rank, " coordinates per value");
    }
    MINITF_ENSURE(ctx, values.rank() == 0 || (values.rank() == 1 && values.dim(0) == count),
                  "sparse_values must be a scalar or hold one value per index (", count,
                  "): ", values.shape().ToString());
    MINITF_ENSURE(ctx, fill.rank() == 0, "default_value must be a scalar: ",
                  fill.shape().ToString());
    MINITF_ENSURE(ctx, DataTypeSize(values.dtype()) > 0, "dtype ", DataTypeName(values.dtype()),
                  " has no fixed element size");
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &out_shape));
    std::vector<int64_t> coords;
    MINITF_RETURN_IF_ERROR(ReadInts(*ctx, indices, "sparse_indices", &coords));

    // Flat offsets, checked against the shape (and the order) first.
    const std::vector<int64_t> strides = RowMajorStrides(out_shape);
    std::vector<int64_t> offsets(count);
    for (int64_t i = 0; i < count; ++i) {
      int64_t flat = 0;
      for (int64_t d = 0; d < rank; ++d) {
        const int64_t c = coords[i * rank + d];
        if (c < 0 || c >= dims[d]) {
          return ctx->Error("sparse_indices[", i, "] = ", c, " is out of bounds in dimension ", d,
                            " of output shape ", out_shape.ToString());
        }
        flat += c * strides[d];
      }
      offsets[i] = flat;
      if (validate_ && i > 0 && offsets[i] <= offsets[i - 1]) {
        return ctx->Error("sparse_indices[", i, "] is ",
                          offsets[i] == offsets[i - 1] ? "repeated" : "out of order");
      }
    }

    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    const size_t elem = DataTypeSize(values.dtype());
    FillElements(*ctx, elem, fill.raw_data(), out->num_elements(), out->raw_data());
    char* dst = static_cast<char*>(out->raw_data());
    const char* src = static_cast<const char*>(values.raw_data());
    const bool scalar = values.rank() == 0;
    for (int64_t i = 0; i < count; ++i) {
      std::memcpy(dst + offsets[i] * elem, src + (scalar ? 0 : i) * elem, elem);
    }
    return Status::OK();
  }

 private:
  bool validate_ = true;
};

}  // namespace

void RegisterSparseToDenseOps(OpRegistry& r) {
  r.Register(OpDef("SparseToDense").Input("sparse_indices: Tindices")
                 .Input("output_shape: Tindices").Input("sparse_values: T")
                 .Input("default_value: T").Output("dense: T")
                 .Attr("validate_indices: bool = true").Attr("T: type")
                 .Attr("Tindices: {int32, int64}"),
             MakeKernel<SparseToDenseKernel>);
}

}  // namespace minitf
