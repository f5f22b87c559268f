#include "kernels/dnnl/conv_chain.h"

#ifdef MINITF_HAVE_DNNL

#include <algorithm>
#include <atomic>
#include <utility>

namespace minitf {

using namespace dnnl_internal;

struct DnnlConvChain::Primitive {
  dnnl::convolution_forward conv;
  memory::desc scratchpad;
  memory weights;  // the constant filter in the primitive's layout
  memory::desc bias;
};

struct DnnlConvChain::Cache : PrimitiveCache<DnnlConvChain::Primitive> {
  // The filter in each layout a primitive asked for, shared by the
  // primitives of every geometry (and band) that want the same one. Only
  // touched while an entry is made, under the cache's lock.
  std::vector<std::pair<memory::desc, memory>> laid_out_weights;
};

DnnlConvChain::DnnlConvChain(const float* filter, const float* bias,
                             std::vector<ConvPostOp> post_ops)
    : filter_(filter), bias_(bias), post_ops_(std::move(post_ops)), cache_(new Cache) {}
DnnlConvChain::~DnnlConvChain() = default;

namespace {

dnnl::post_ops MakePostOps(const std::vector<ConvPostOp>& ops) {
  dnnl::post_ops post;
  for (const ConvPostOp& op : ops) {
    switch (op.kind) {
      case ConvPostOp::kRelu:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_relu, 0.0f, 0.0f);
        break;
      case ConvPostOp::kRelu6:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_clip, 0.0f, 6.0f);
        break;
      case ConvPostOp::kLeakyRelu:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_relu, op.alpha, 0.0f);
        break;
      case ConvPostOp::kElu:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_elu, 1.0f, 0.0f);
        break;
      case ConvPostOp::kSigmoid:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_logistic, 0.0f, 0.0f);
        break;
      case ConvPostOp::kTanh:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_tanh, 0.0f, 0.0f);
        break;
      case ConvPostOp::kAddResidual:
        post.append_sum(1.0f);
        break;
      case ConvPostOp::kClip:
        post.append_eltwise(1.0f, dnnl::algorithm::eltwise_clip, op.alpha, op.beta);
        break;
    }
  }
  return post;
}

}  // namespace

std::shared_ptr<const DnnlConvChain::Primitive> DnnlConvChain::Find(const WindowGeometry& g) const {
  if (AnyEmpty(g)) return nullptr;
  OneOmpThread one_thread;
  return cache_->Get(GeometryKey(g), [&] {
    auto e = std::make_shared<Primitive>();
    const memory::desc user_weights = ConvFilterDesc(g);
    const memory::desc any_weights(user_weights.dims(), kF32, Tag::any);
    if (bias_ != nullptr) e->bias = memory::desc({g.out_c}, kF32, Tag::x);
    dnnl::convolution_forward::desc desc(
        dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct,
        ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), any_weights, e->bias,
        ActivationDesc(g.batch, g.out_h, g.out_w, g.out_c), {g.stride_h, g.stride_w},
        {g.dil_h - 1, g.dil_w - 1}, {g.pad_top, g.pad_left}, {g.pad_bottom, g.pad_right});
    dnnl::primitive_attr attr = UserScratchpad();
    attr.set_post_ops(MakePostOps(post_ops_));
    dnnl::convolution_forward::primitive_desc pd(desc, attr, CpuEngine());
    e->conv = dnnl::convolution_forward(pd);
    e->scratchpad = pd.scratchpad_desc();
    dnnl::engine& eng = CpuEngine();
    memory user(user_weights, eng, const_cast<float*>(filter_));
    if (pd.weights_desc() == user_weights) {
      e->weights = user;
      return std::shared_ptr<const Primitive>(e);
    }
    for (const auto& [desc, laid_out] : cache_->laid_out_weights) {
      if (desc == pd.weights_desc()) {
        e->weights = laid_out;
        return std::shared_ptr<const Primitive>(e);
      }
    }
    // The filter is constant: lay it out once for every later call.
    e->weights = memory(pd.weights_desc(), eng);
    dnnl::reorder::primitive_desc rpd(eng, user_weights, eng, pd.weights_desc(),
                                      UserScratchpad());
    std::unordered_map<int, memory> args = {{DNNL_ARG_FROM, user}, {DNNL_ARG_TO, e->weights}};
    AddScratchpad(rpd.scratchpad_desc(), &args);
    dnnl::stream stream(eng);
    dnnl::reorder(rpd).execute(stream, args);
    stream.wait();
    cache_->laid_out_weights.emplace_back(pd.weights_desc(), e->weights);
    return std::shared_ptr<const Primitive>(e);
  });
}

bool DnnlConvChain::Prepare(const WindowGeometry& g) const { return Find(g) != nullptr; }

namespace {

// One piece of a convolution run as its own oneDNN call: a few images of
// the batch, or a band of output rows of a single image with the input rows
// (and padding) that band reads.
struct ConvPiece {
  WindowGeometry g;
  int64_t in_offset = 0;   // elements into the input
  int64_t out_offset = 0;  // elements into the output
};

// Enough multiply-adds per piece to pay for waking a thread.
constexpr double kMinPieceMacs = 2e5;

std::vector<ConvPiece> SplitConvolution(const WindowGeometry& g, int parts) {
  const double macs = static_cast<double>(g.batch) * g.out_h * g.out_w * g.out_c * g.k_h *
                      g.k_w * (g.in_c / g.groups);
  parts = static_cast<int>(std::min<double>(parts, macs / kMinPieceMacs));
  const int64_t in_image = g.in_h * g.in_w * g.in_c, out_image = g.out_h * g.out_w * g.out_c;
  std::vector<ConvPiece> pieces;
  if (parts <= 1) {
    pieces.push_back({g, 0, 0});
  } else if (g.batch > 1) {
    parts = static_cast<int>(std::min<int64_t>(parts, g.batch));
    for (int p = 0; p < parts; ++p) {
      const int64_t b0 = g.batch * p / parts, b1 = g.batch * (p + 1) / parts;
      ConvPiece piece{g, b0 * in_image, b0 * out_image};
      piece.g.batch = b1 - b0;
      pieces.push_back(piece);
    }
  } else {
    parts = static_cast<int>(std::min<int64_t>(parts, g.out_h));
    const int64_t window = (g.k_h - 1) * g.dil_h + 1;
    for (int p = 0; p < parts; ++p) {
      const int64_t r0 = g.out_h * p / parts, r1 = g.out_h * (p + 1) / parts;
      // Input rows the band reads, padding included, then clipped to the
      // image: what falls outside becomes the band's own padding.
      const int64_t first = r0 * g.stride_h - g.pad_top;
      const int64_t last = (r1 - 1) * g.stride_h - g.pad_top + window;  // one past
      ConvPiece piece{g, std::max<int64_t>(0, first) * g.in_w * g.in_c, r0 * g.out_w * g.out_c};
      piece.g.in_h = std::min(last, g.in_h) - std::max<int64_t>(0, first);
      piece.g.pad_top = std::max<int64_t>(0, -first);
      piece.g.pad_bottom = std::max<int64_t>(0, last - g.in_h);
      piece.g.out_h = r1 - r0;
      pieces.push_back(piece);
    }
  }
  return pieces;
}

}  // namespace

bool DnnlConvChain::Run(const WindowGeometry& g, const float* in, float* out,
                        ThreadPool* pool) const {
  // oneDNN stays on the calling thread; the pieces spread over the pool,
  // whose idle threads sleep instead of spinning on a busy machine.
  const std::vector<ConvPiece> pieces =
      SplitConvolution(g, pool == nullptr ? 1 : pool->num_threads());
  // Every piece's primitive first, so that a refusal leaves `out` untouched.
  std::vector<std::shared_ptr<const Primitive>> primitives;
  for (const ConvPiece& piece : pieces) {
    primitives.push_back(Find(piece.g));
    if (!primitives.back()) return false;
  }
  std::atomic<bool> ok{true};
  auto run_pieces = [&](int64_t begin, int64_t end) {
    OneOmpThread one_thread;
    for (int64_t p = begin; p < end; ++p) {
      const ConvPiece& piece = pieces[p];
      const Primitive& primitive = *primitives[p];
      try {
        dnnl::engine& eng = CpuEngine();
        dnnl::stream stream(eng);
        memory src(ActivationDesc(piece.g.batch, piece.g.in_h, piece.g.in_w, piece.g.in_c), eng,
                   const_cast<float*>(in + piece.in_offset));
        memory dst(ActivationDesc(piece.g.batch, piece.g.out_h, piece.g.out_w, piece.g.out_c),
                   eng, out + piece.out_offset);
        std::unordered_map<int, memory> args = {
            {DNNL_ARG_SRC, src}, {DNNL_ARG_WEIGHTS, primitive.weights}, {DNNL_ARG_DST, dst}};
        if (bias_ != nullptr) {
          args[DNNL_ARG_BIAS] = memory(primitive.bias, eng, const_cast<float*>(bias_));
        }
        AddScratchpad(primitive.scratchpad, &args);
        primitive.conv.execute(stream, args);
        stream.wait();
      } catch (const dnnl::error&) {
        ok = false;
      }
    }
  };
  const int64_t count = static_cast<int64_t>(pieces.size());
  if (count == 1 || pool == nullptr) {
    run_pieces(0, count);
  } else {
    pool->ParallelFor(count, 1, run_pieces);
  }
  return ok;
}

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

#include <utility>

namespace minitf {

struct DnnlConvChain::Cache {};
DnnlConvChain::DnnlConvChain(const float* filter, const float* bias,
                             std::vector<ConvPostOp> post_ops)
    : filter_(filter), bias_(bias), post_ops_(std::move(post_ops)) {}
DnnlConvChain::~DnnlConvChain() = default;
bool DnnlConvChain::Prepare(const WindowGeometry&) const { return false; }
bool DnnlConvChain::Run(const WindowGeometry&, const float*, float*, ThreadPool*) const {
  return false;
}

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
