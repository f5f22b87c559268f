// DepthToSpace and SpaceToDepth on NHWC tensors. Both move whole runs of
// block_size * depth elements: one block row of output pixels is one
// contiguous run of the input's depth, so each is a set of row copies that
// never looks at the dtype.
#include <cstring>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

constexpr int64_t kMaxBlock = int64_t{1} << 16;

class BlockKernelBase : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("block_size", &block_));
    // Keeps block_size squared and every scaled image size far from overflow.
    if (block_ > kMaxBlock) return init.Error("block_size ", block_, " is too large");
    std::string format;
    MINITF_RETURN_IF_ERROR(init.GetAttr("data_format", &format));
    if (format != "NHWC") {
      return init.Error("only the NHWC data format is supported on the CPU, got ", format);
    }
    return Status::OK();
  }

 protected:
  int64_t block_ = 2;
};

// out[b, y*bs + by, x*bs + bx, c] = in[b, y, x, (by*bs + bx)*out_depth + c]
class DepthToSpaceKernel : public BlockKernelBase {
 public:
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    MINITF_ENSURE(ctx, x.rank() == 4, "input must be 4-D: ", x.shape().ToString());
    MINITF_ENSURE(ctx, DataTypeSize(x.dtype()) > 0, "dtype ", DataTypeName(x.dtype()),
                  " has no fixed element size");
    const int64_t batch = x.dim(0), h = x.dim(1), w = x.dim(2), depth = x.dim(3);
    const int64_t bs = block_;
    if (depth % (bs * bs) != 0) {
      return ctx->Error("input depth ", depth, " is not divisible by block_size squared (",
                        bs * bs, ")");
    }
    const int64_t out_depth = depth / (bs * bs);
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, {batch, h * bs, w * bs, out_depth}, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    const size_t elem = DataTypeSize(x.dtype());
    const size_t run = static_cast<size_t>(bs * out_depth) * elem;
    const char* src = static_cast<const char*>(x.raw_data());
    char* dst = static_cast<char*>(out->raw_data());
    // One unit per input pixel and block row.
    ctx->ParallelFor(batch * h * w * bs, bs * out_depth, [&](int64_t begin, int64_t end) {
      for (int64_t u = begin; u < end; ++u) {
        const int64_t by = u % bs;
        const int64_t pixel = u / bs;  // (b * h + y) * w + x
        const int64_t xx = pixel % w;
        const int64_t row = pixel / w;  // b * h + y
        const char* from = src + (pixel * depth + by * bs * out_depth) * elem;
        char* to = dst + (((row * bs + by) * w * bs) + xx * bs) * out_depth * elem;
        std::memcpy(to, from, run);
      }
    });
    return Status::OK();
  }
};

// The inverse: out[b, y, x, (by*bs + bx)*depth + c] = in[b, y*bs + by, x*bs + bx, c]
class SpaceToDepthKernel : public BlockKernelBase {
 public:
  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    MINITF_ENSURE(ctx, x.rank() == 4, "input must be 4-D: ", x.shape().ToString());
    MINITF_ENSURE(ctx, DataTypeSize(x.dtype()) > 0, "dtype ", DataTypeName(x.dtype()),
                  " has no fixed element size");
    const int64_t batch = x.dim(0), h = x.dim(1), w = x.dim(2), depth = x.dim(3);
    const int64_t bs = block_;
    if (h % bs != 0 || w % bs != 0) {
      return ctx->Error("image size ", h, "x", w, " is not divisible by block_size ", bs);
    }
    const int64_t oh = h / bs, ow = w / bs;
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, {batch, oh, ow, depth * bs * bs}, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    const size_t elem = DataTypeSize(x.dtype());
    const size_t run = static_cast<size_t>(bs * depth) * elem;
    const char* src = static_cast<const char*>(x.raw_data());
    char* dst = static_cast<char*>(out->raw_data());
    ctx->ParallelFor(batch * oh * ow * bs, bs * depth, [&](int64_t begin, int64_t end) {
      for (int64_t u = begin; u < end; ++u) {
        const int64_t by = u % bs;
        const int64_t pixel = u / bs;  // (b * oh + y) * ow + x
        const int64_t xx = pixel % ow;
        const int64_t row = pixel / ow;  // b * oh + y
        const char* from = src + (((row * bs + by) * w) + xx * bs) * depth * elem;
        char* to = dst + (pixel * depth * bs * bs + by * bs * depth) * elem;
        std::memcpy(to, from, run);
      }
    });
    return Status::OK();
  }
};

OpDef BlockDef(const char* name) {
  return OpDef(name).Input("input: T").Output("output: T").Attr("T: type")
      .Attr("block_size: int >= 2")
      .Attr("data_format: {'NHWC', 'NCHW', 'NCHW_VECT_C'} = 'NHWC'");
}

}  // namespace

void RegisterDepthToSpaceOps(OpRegistry& r) {
  r.Register(BlockDef("DepthToSpace"), MakeKernel<DepthToSpaceKernel>);
  r.Register(BlockDef("SpaceToDepth"), MakeKernel<SpaceToDepthKernel>);
}

}  // namespace minitf
