// GatherV2, Gather and GatherNd. Every index is checked before anything is
// copied; an index outside its dim is an error, as on TensorFlow's CPU.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

// Gathers along `axis` of params with the leading `batch_dims` dims of
// params and indices walked in step: output[b, o, k, :] =
// params[b, o, indices[b, k], :].
Status GatherAxis(OpContext* ctx, const Tensor& params, const Tensor& indices, int64_t axis_value,
                  int64_t batch_dims) {
  const int pr = params.rank(), ir = indices.rank();
  if (batch_dims < -ir || batch_dims > ir) {
    return ctx->Error("batch_dims ", batch_dims, " is out of range [", -ir, ", ", ir, "]");
  }
  if (batch_dims < 0) batch_dims += ir;
  if (pr == 0) return ctx->Error("params must be at least 1-D");
  int axis = 0;
  MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, axis_value, pr, "axis", &axis));
  const int b = static_cast<int>(batch_dims);
  if (b > 0) {
    if (b >= pr) return ctx->Error("batch_dims ", b, " must be less than the rank of params ", pr);
    if (axis < b) return ctx->Error("batch_dims ", b, " must not exceed axis ", axis);
    for (int i = 0; i < b; ++i) {
      if (params.dim(i) != indices.dim(i)) {
        return ctx->Error("params shape ", params.shape().ToString(), " and indices shape ",
                          indices.shape().ToString(), " differ in batch dim ", i);
      }
    }
  }
  std::vector<int64_t> idx;
  MINITF_RETURN_IF_ERROR(ReadInts(*ctx, indices, "indices", &idx));
  const int64_t limit = params.dim(axis);
  for (size_t i = 0; i < idx.size(); ++i) {
    if (idx[i] < 0 || idx[i] >= limit) {
      return ctx->Error("indices[", i, "] = ", idx[i], " is not in [0, ", limit, ")");
    }
  }

  std::vector<int64_t> dims(params.shape().dims().begin(), params.shape().dims().begin() + axis);
  for (int i = b; i < ir; ++i) dims.push_back(indices.dim(i));
  for (int i = axis + 1; i < pr; ++i) dims.push_back(params.dim(i));
  Shape out_shape;
  MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &out_shape));
  Tensor* out = nullptr;
  MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
  if (out->num_elements() == 0) return Status::OK();

  const int64_t outer = DimProduct(params.shape(), b, axis);
  const int64_t per_batch = DimProduct(indices.shape(), b, ir);
  const size_t row = DimProduct(params.shape(), axis + 1, pr) * DataTypeSize(params.dtype());
  const auto* src = static_cast<const char*>(params.raw_data());
  auto* dst = static_cast<char*>(out->raw_data());
  // Output rows are (batch, outer, k) in order.
  const int64_t rows = out->num_elements() * DataTypeSize(params.dtype()) / row;
  ctx->ParallelFor(rows, static_cast<int64_t>(row), [&](int64_t begin, int64_t end) {
    for (int64_t r = begin; r < end; ++r) {
      const int64_t k = r % per_batch;
      const int64_t bo = r / per_batch;  // batch * outer + o
      const int64_t batch = bo / outer;
      const int64_t from = bo * limit + idx[batch * per_batch + k];
      std::memcpy(dst + r * row, src + from * row, row);
    }
  });
  return Status::OK();
}

class GatherV2Kernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("batch_dims", &batch_dims_); }
  Status Compute(OpContext* ctx) const override {
    int64_t axis = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(2), "axis", true, &axis));
    return GatherAxis(ctx, ctx->input(0), ctx->input(1), axis, batch_dims_);
  }

 private:
  int64_t batch_dims_ = 0;
};

// The original form: axis 0, no batch dims.
class GatherKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    return GatherAxis(ctx, ctx->input(0), ctx->input(1), 0, 0);
  }
};

class GatherNdKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    std::string policy;
    MINITF_RETURN_IF_ERROR(init.GetAttr("bad_indices_policy", &policy));
    if (policy == "IGNORE") {
      ignore_bad_ = true;
    } else if (!policy.empty() && policy != "DEFAULT" && policy != "ERROR") {
      return init.Error("unknown bad_indices_policy '", policy, "'");
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& params = ctx->input(0);
    const Tensor& indices = ctx->input(1);
    if (indices.rank() < 1) return ctx->Error("indices must be at least 1-D");
    const int depth_dim = indices.rank() - 1;
    const int64_t depth = indices.dim(depth_dim);
    if (depth > params.rank()) {
      return ctx->Error("indices' last dim ", depth, " exceeds the rank of params ",
                        params.rank());
    }
    const int k = static_cast<int>(depth);
    std::vector<int64_t> dims(indices.shape().dims().begin(),
                              indices.shape().dims().begin() + depth_dim);
    for (int i = k; i < params.rank(); ++i) dims.push_back(params.dim(i));
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &out_shape));

    std::vector<int64_t> idx;
    MINITF_RETURN_IF_ERROR(ReadInts(*ctx, indices, "indices", &idx));
    const int64_t count = DimProduct(indices.shape(), 0, depth_dim);
    // Offsets in slices of params.shape[k:]; -1 marks an ignored bad index.
    std::vector<int64_t> offsets(count);
    for (int64_t n = 0; n < count; ++n) {
      int64_t offset = 0;
      for (int j = 0; j < k; ++j) {
        const int64_t v = idx[n * k + j];
        if (v < 0 || v >= params.dim(j)) {
          if (ignore_bad_) {
            offset = -1;
            break;
          }
          return ctx->Error("indices[", n, "] = ", IndexString(idx, n, k),
                            " does not index into params of shape ", params.shape().ToString());
        }
        offset = offset * params.dim(j) + v;
      }
      offsets[n] = offset;
    }

    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    const size_t slice = DimProduct(params.shape(), k, params.rank()) * DataTypeSize(params.dtype());
    if (slice == 0 || count == 0) return Status::OK();
    const auto* src = static_cast<const char*>(params.raw_data());
    auto* dst = static_cast<char*>(out->raw_data());
    ctx->ParallelFor(count, static_cast<int64_t>(slice), [&](int64_t begin, int64_t end) {
      for (int64_t n = begin; n < end; ++n) {
        if (offsets[n] < 0) {
          std::memset(dst + n * slice, 0, slice);
        } else {
          std::memcpy(dst + n * slice, src + offsets[n] * slice, slice);
        }
      }
    });
    return Status::OK();
  }

 private:
  static std::string IndexString(const std::vector<int64_t>& idx, int64_t n, int k) {
    std::string s = "[";
    for (int j = 0; j < k; ++j) s += (j ? ", " : "") + std::to_string(idx[n * k + j]);
    return s + "]";
  }

  bool ignore_bad_ = false;
};

}  // namespace

void RegisterGatherOps(OpRegistry& r) {
  r.Register(OpDef("GatherV2").Input("params: Tparams").Input("indices: Tindices")
                 .Input("axis: Taxis").Output("output: Tparams").Attr("batch_dims: int = 0")
                 .Attr("Tparams: type").Attr("Tindices: {int16, int32, int64}")
                 .Attr("Taxis: {int32, int64}"),
             MakeKernel<GatherV2Kernel>);
  r.Register(OpDef("Gather").Input("params: Tparams").Input("indices: Tindices")
                 .Output("output: Tparams").Attr("validate_indices: bool = true")
                 .Attr("Tparams: type").Attr("Tindices: {int32, int64}"),
             MakeKernel<GatherKernel>);
  r.Register(OpDef("GatherNd").Input("params: Tparams").Input("indices: Tindices")
                 .Output("output: Tparams").Attr("Tparams: type")
                 .Attr("Tindices: {int16, int32, int64}")
                 .Attr("bad_indices_policy: string = ''"),
             MakeKernel<GatherNdKernel>);
}

}  // namespace minitf
