// Ops that read or change only a tensor's shape. Reshape, ExpandDims and
// Squeeze hand back a re-view of their input's buffer, never a copy.
#include <cstdint>
#include <limits>
#include <set>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

// Writes `values` into output 0 as int32 or int64; int32 outputs fail when
// a value does not fit, as a 32-bit shape cannot describe the tensor.
Status WriteShapeValues(OpContext* ctx, const std::vector<int64_t>& values, const Shape& shape) {
  Tensor* out = nullptr;
  MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, shape, &out));
  if (out->dtype() == TF_INT64) {
    for (size_t i = 0; i < values.size(); ++i) out->data<int64_t>()[i] = values[i];
    return Status::OK();
  }
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i] > std::numeric_limits<int32_t>::max()) {
      return ctx->Error("value ", values[i], " does not fit the int32 output");
    }
    out->data<int32_t>()[i] = static_cast<int32_t>(values[i]);
  }
  return Status::OK();
}

class ShapeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Shape& s = ctx->input(0).shape();
    return WriteShapeValues(ctx, s.dims(), Shape({s.rank()}));
  }
};

class SizeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    return WriteShapeValues(ctx, {ctx->input(0).num_elements()}, Shape());
  }
};

class RankKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    return WriteShapeValues(ctx, {ctx->input(0).rank()}, Shape());
  }
};

// Resolves a requested shape with at most one -1 against `input`. Requested
// zero dims are left out of the known product so that the -1 can still be
// inferred from the input's non-zero dims (a [0, 3] tensor reshaped to
// [-1, 0] gives [3, 0]).
Status ResolveReshape(const OpContext& ctx, const Shape& input,
                      const std::vector<int64_t>& requested, Shape* out) {
  int unknown = -1;
  bool has_zero = false;
  int64_t product = 1;
  std::vector<int64_t> dims = requested;
  for (size_t i = 0; i < dims.size(); ++i) {
    if (dims[i] == -1) {
      if (unknown >= 0) {
        return ctx.Error("only one dimension of the shape can be -1, got dims ", unknown,
                         " and ", i);
      }
      unknown = static_cast<int>(i);
    } else if (dims[i] < 0) {
      return ctx.Error("size ", i, " of the shape must be non-negative or -1, got ", dims[i]);
    } else if (dims[i] == 0) {
      has_zero = true;
    } else {
      if (product > kMaxTensorElements / dims[i]) {
        return ctx.Error("requested shape has too many elements");
      }
      product *= dims[i];
    }
  }
  if (unknown >= 0) {
    int64_t known_input = 1;
    bool input_has_zero = false;
    for (int64_t d : input.dims()) {
      if (d == 0 && has_zero) {
        input_has_zero = true;
      } else if (d != 0 && known_input > std::numeric_limits<int64_t>::max() / d) {
        return ctx.Error("input shape ", input.ToString(), " has too many elements");
      } else {
        known_input *= d;
      }
    }
    const int64_t missing = known_input / product;
    if (!input_has_zero && missing * product != known_input) {
      return ctx.Error("input to reshape has ", input.num_elements(),
                       " values, which is not a multiple of ", product);
    }
    dims[unknown] = missing;
  }
  MINITF_RETURN_IF_ERROR(MakeShape(ctx, dims, out));
  if (out->num_elements() != input.num_elements()) {
    return ctx.Error("input to reshape has ", input.num_elements(),
                     " values, but the requested shape ", out->ToString(), " has ",
                     out->num_elements());
  }
  return Status::OK();
}

class ReshapeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::vector<int64_t> requested;
    MINITF_RETURN_IF_ERROR(ReadIntVector(*ctx, ctx->input(1), "shape", &requested));
    Shape shape;
    MINITF_RETURN_IF_ERROR(ResolveReshape(*ctx, x.shape(), requested, &shape));
    return ctx->set_output(0, x.Reshaped(shape));
  }
};

class ExpandDimsKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return Status::OK(); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    int64_t dim = 0;
    MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(1), "dim", false, &dim));
    // One past the last axis is valid: the new dim goes at the end.
    int axis = 0;
    MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, dim, x.rank() + 1, "dim", &axis));
    Shape shape = x.shape();
    shape.InsertDim(axis, 1);
    return ctx->set_output(0, x.Reshaped(shape));
  }
};

class SqueezeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) { return init.GetAttr("squeeze_dims", &squeeze_dims_); }
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    std::set<int> wanted;
    for (int64_t d : squeeze_dims_) {
      int axis = 0;
      MINITF_RETURN_IF_ERROR(CanonicalAxis(*ctx, d, x.rank(), "squeeze dim", &axis));
      wanted.insert(axis);
    }
    std::vector<int64_t> dims;
    for (int i = 0; i < x.rank(); ++i) {
      const bool squeeze = wanted.empty() ? x.dim(i) == 1 : wanted.count(i) > 0;
      if (squeeze && x.dim(i) != 1) {
        return ctx->Error("cannot squeeze dim ", i, " of shape ", x.shape().ToString(),
                          ": its size is not 1");
      }
      if (!squeeze) dims.push_back(x.dim(i));
    }
    return ctx->set_output(0, x.Reshaped(Shape(std::move(dims))));
  }

 private:
  std::vector<int64_t> squeeze_dims_;
};

}  // namespace

void RegisterShapeOps(OpRegistry& r) {
  r.Register(OpDef("Shape").Input("input: T").Output("output: out_type").Attr("T: type")
                 .Attr("out_type: {int32, int64} = DT_INT32"),
             MakeKernel<ShapeKernel>);
  r.Register(OpDef("Size").Input("input: T").Output("output: out_type").Attr("T: type")
                 .Attr("out_type: {int32, int64} = DT_INT32"),
             MakeKernel<SizeKernel>);
  r.Register(OpDef("Rank").Input("input: T").Output("output: int32").Attr("T: type"),
             MakeKernel<RankKernel>);
  r.Register(OpDef("Reshape").Input("tensor: T").Input("shape: Tshape").Output("output: T")
                 .Attr("T: type").Attr("Tshape: {int32, int64} = DT_INT32"),
             MakeKernel<ReshapeKernel>);
  r.Register(OpDef("ExpandDims").Input("input: T").Input("dim: Tdim").Output("output: T")
                 .Attr("T: type").Attr("Tdim: {int32, int64} = DT_INT32"),
             MakeKernel<ExpandDimsKernel>);
  r.Register(OpDef("Squeeze").Input("input: T").Output("output: T").Attr("T: type")
                 .Attr("squeeze_dims: list(int) >= 0 = []"),
             MakeKernel<SqueezeKernel>);
}

}  // namespace minitf
