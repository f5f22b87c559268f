// Volumetric sliding-window ops over NDHWC tensors: Conv3D, MaxPool3D and
// AvgPool3D, as direct loops. TensorFlow's window rules per spatial dim:
// VALID keeps whole windows; SAME gives ceil(in / stride) outputs and puts
// the odd padding cell after. Padded cells add nothing to a convolution, are
// never the maximum, and are not counted in an average.
#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <vector>

#include "op_registry.h"

namespace minitf {
namespace {

struct Window3 {
  std::array<int64_t, 3> in{}, k{}, stride{}, dil{}, pad{}, out{};
  int64_t batch = 0, in_c = 0, out_c = 0;
};

struct Window3Attrs {
  std::array<int64_t, 3> stride{1, 1, 1}, dil{1, 1, 1}, k{1, 1, 1};
  bool same = false;

  // `ksize` and `dilations` are read when the op has them.
  Status Parse(const KernelInit& init, bool pool) {
    std::string format, padding;
    MINITF_RETURN_IF_ERROR(init.GetAttr("data_format", &format));
    if (format != "NDHWC") {
      return Unimplemented("only the NDHWC data format is supported, got ", format, " (node ",
                           init.node_name(), ")");
    }
    MINITF_RETURN_IF_ERROR(init.GetAttr("padding", &padding));
    same = padding == "SAME";
    std::vector<int64_t> v;
    MINITF_RETURN_IF_ERROR(init.GetAttr("strides", &v));
    MINITF_RETURN_IF_ERROR(Read(init, "strides", v, &stride));
    if (pool) {
      MINITF_RETURN_IF_ERROR(init.GetAttr("ksize", &v));
      MINITF_RETURN_IF_ERROR(Read(init, "ksize", v, &k));
    } else {
      MINITF_RETURN_IF_ERROR(init.GetAttr("dilations", &v));
      MINITF_RETURN_IF_ERROR(Read(init, "dilations", v, &dil));
    }
    return Status::OK();
  }

  static Status Read(const KernelInit& init, const char* what, const std::vector<int64_t>& v,
                     std::array<int64_t, 3>* out) {
    if (v.size() != 5) return init.Error(what, " must have 5 entries, got ", v.size());
    if (v[0] != 1 || v[4] != 1) {
      return init.Error(what, " in the batch and depth dimensions must be 1");
    }
    for (int i = 0; i < 3; ++i) {
      if (v[i + 1] < 1 || v[i + 1] > (int64_t{1} << 30)) {
        return init.Error(what, " must be positive, got ", v[i + 1]);
      }
      (*out)[i] = v[i + 1];
    }
    return Status::OK();
  }
};

Status Geometry(const OpContext& ctx, const Window3Attrs& a, const Tensor& input, Window3* g) {
  if (input.rank() != 5) {
    return ctx.Error("input must be 5-D NDHWC, got ", input.shape().ToString());
  }
  g->batch = input.dim(0);
  g->in_c = input.dim(4);
  for (int i = 0; i < 3; ++i) {
    g->in[i] = input.dim(i + 1);
    g->stride[i] = a.stride[i];
    g->dil[i] = a.dil[i];
    if (g->k[i] > (int64_t{1} << 30) || g->k[i] < 1) {
      return ctx.Error("window size ", g->k[i], " is out of range");
    }
    const int64_t eff = (g->k[i] - 1) * g->dil[i] + 1;
    if (a.same) {
      g->out[i] = (g->in[i] + g->stride[i] - 1) / g->stride[i];
      const int64_t total = std::max<int64_t>((g->out[i] - 1) * g->stride[i] + eff - g->in[i], 0);
      g->pad[i] = total / 2;
    } else {
      if (g->in[i] < eff) {
        return ctx.Error("window of ", eff, " does not fit input dim ", g->in[i],
                         " with VALID padding");
      }
      g->out[i] = (g->in[i] - eff) / g->stride[i] + 1;
      g->pad[i] = 0;
    }
  }
  return Status::OK();
}

Status AllocateOut(OpContext* ctx, const Window3& g, Tensor** out) {
  Shape shape;
  Status s = Shape::Make({g.batch, g.out[0], g.out[1], g.out[2], g.out_c}, &shape);
  if (!s.ok()) return ctx->Error(s.message());
  return ctx->allocate_output(0, shape, out);
}

class Conv3DKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    return attrs_.Parse(init, false);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& input = ctx->input(0);
    const Tensor& filter = ctx->input(1);
    if (filter.rank() != 5) {
      return ctx->Error("filter must be 5-D [d, h, w, in, out], got ", filter.shape().ToString());
    }
    Window3 g;
    for (int i = 0; i < 3; ++i) g.k[i] = filter.dim(i);
    MINITF_RETURN_IF_ERROR(Geometry(*ctx, attrs_, input, &g));
    if (filter.dim(3) != g.in_c) {
      return ctx->Error("input depth ", g.in_c, " must equal the filter's in depth ",
                        filter.dim(3));
    }
    g.out_c = filter.dim(4);
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(AllocateOut(ctx, g, &out));
    if (out->num_elements() == 0) return Status::OK();
    return DispatchType<float, double>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      Run<T>(*ctx, g, input.data<T>(), filter.data<T>(), out->data<T>());
      return Status::OK();
    });
  }

 private:
  // One output position (all its channels) per step; accumulates over the
  // window with the filter's output channels innermost.
  template <typename T>
  static void Run(const OpContext& ctx, const Window3& g, const T* in, const T* f, T* out) {
    const int64_t positions = g.batch * g.out[0] * g.out[1] * g.out[2];
    const int64_t cost = g.k[0] * g.k[1] * g.k[2] * g.in_c * g.out_c;
    ctx.ParallelFor(positions, cost, [&](int64_t begin, int64_t end) {
      for (int64_t p = begin; p < end; ++p) {
        int64_t r = p;
        const int64_t ox = r % g.out[2]; r /= g.out[2];
        const int64_t oy = r % g.out[1]; r /= g.out[1];
        const int64_t oz = r % g.out[0];
        const int64_t b = r / g.out[0];
        T* o = out + p * g.out_c;
        std::fill(o, o + g.out_c, T(0));
        for (int64_t kz = 0; kz < g.k[0]; ++kz) {
          const int64_t z = oz * g.stride[0] - g.pad[0] + kz * g.dil[0];
          if (z < 0 || z >= g.in[0]) continue;
          for (int64_t ky = 0; ky < g.k[1]; ++ky) {
            const int64_t y = oy * g.stride[1] - g.pad[1] + ky * g.dil[1];
            if (y < 0 || y >= g.in[1]) continue;
            for (int64_t kx = 0; kx < g.k[2]; ++kx) {
              const int64_t x = ox * g.stride[2] - g.pad[2] + kx * g.dil[2];
              if (x < 0 || x >= g.in[2]) continue;
              const T* src = in + (((b * g.in[0] + z) * g.in[1] + y) * g.in[2] + x) * g.in_c;
              const T* w = f + ((kz * g.k[1] + ky) * g.k[2] + kx) * g.in_c * g.out_c;
              for (int64_t ci = 0; ci < g.in_c; ++ci) {
                const T v = src[ci];
                const T* wr = w + ci * g.out_c;
                for (int64_t co = 0; co < g.out_c; ++co) o[co] += v * wr[co];
              }
            }
          }
        }
      }
    });
  }

  DataType type_ = kInvalidType;
  Window3Attrs attrs_;
};

template <bool kMax>
class Pool3DKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    return attrs_.Parse(init, true);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& input = ctx->input(0);
    Window3 g;
    g.k = attrs_.k;
    MINITF_RETURN_IF_ERROR(Geometry(*ctx, attrs_, input, &g));
    g.out_c = g.in_c;
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(AllocateOut(ctx, g, &out));
    if (out->num_elements() == 0) return Status::OK();
    return DispatchType<float, double>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      Run<T>(*ctx, g, input.data<T>(), out->data<T>());
      return Status::OK();
    });
  }

 private:
  template <typename T>
  static void Run(const OpContext& ctx, const Window3& g, const T* in, T* out) {
    const int64_t positions = g.batch * g.out[0] * g.out[1] * g.out[2];
    const int64_t c = g.in_c;
    ctx.ParallelFor(positions, g.k[0] * g.k[1] * g.k[2] * c, [&](int64_t begin, int64_t end) {
      std::vector<double> sum(kMax ? 0 : c);
      for (int64_t p = begin; p < end; ++p) {
        int64_t r = p;
        const int64_t ox = r % g.out[2]; r /= g.out[2];
        const int64_t oy = r % g.out[1]; r /= g.out[1];
        const int64_t oz = r % g.out[0];
        const int64_t b = r / g.out[0];
        T* o = out + p * c;
        if constexpr (kMax) {
          std::fill(o, o + c, std::numeric_limits<T>::lowest());
        } else {
          std::fill(sum.begin(), sum.end(), 0.0);
        }
        int64_t count = 0;
        for (int64_t kz = 0; kz < g.k[0]; ++kz) {
          const int64_t z = oz * g.stride[0] - g.pad[0] + kz;
          if (z < 0 || z >= g.in[0]) continue;
          for (int64_t ky = 0; ky < g.k[1]; ++ky) {
            const int64_t y = oy * g.stride[1] - g.pad[1] + ky;
            if (y < 0 || y >= g.in[1]) continue;
            for (int64_t kx = 0; kx < g.k[2]; ++kx) {
              const int64_t x = ox * g.stride[2] - g.pad[2] + kx;
              if (x < 0 || x >= g.in[2]) continue;
              const T* src = in + (((b * g.in[0] + z) * g.in[1] + y) * g.in[2] + x) * c;
              ++count;
              for (int64_t ch = 0; ch < c; ++ch) {
                if constexpr (kMax) {
                  // NaN wins, as in TensorFlow's max.
                  if (!(src[ch] <= o[ch])) o[ch] = src[ch];
                } else {
                  sum[ch] += src[ch];
                }
              }
            }
          }
        }
        if constexpr (!kMax) {
          for (int64_t ch = 0; ch < c; ++ch) {
            o[ch] = count > 0 ? static_cast<T>(sum[ch] / count) : T(0);
          }
        }
      }
    });
  }

  DataType type_ = kInvalidType;
  Window3Attrs attrs_;
};

OpDef Pool3DDef(const char* name) {
  return OpDef(name).Input("input: T").Output("output: T")
      .Attr("ksize: list(int) >= 5").Attr("strides: list(int) >= 5")
      .Attr("padding: {'SAME', 'VALID'}")
      .Attr("data_format: {'NDHWC', 'NCDHW'} = 'NDHWC'")
      .Attr("T: {half, bfloat16, float, double}");
}

}  // namespace

void RegisterWindow3DOps(OpRegistry& r) {
  r.Register(OpDef("Conv3D").Input("input: T").Input("filter: T").Output("output: T")
                 .Attr("T: {half, bfloat16, float, double}")
                 .Attr("strides: list(int) >= 5").Attr("padding: {'SAME', 'VALID'}")
                 .Attr("data_format: {'NDHWC', 'NCDHW'} = 'NDHWC'")
                 .Attr("dilations: list(int) = [1, 1, 1, 1, 1]"),
             MakeKernel<Conv3DKernel>);
  r.Register(Pool3DDef("MaxPool3D"), MakeKernel<Pool3DKernel<true>>);
  r.Register(Pool3DDef("AvgPool3D"), MakeKernel<Pool3DKernel<false>>);
}

}  // namespace minitf
