#include "kernels/dnnl_ops.h"

#ifdef MINITF_HAVE_DNNL

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <oneapi/dnnl/dnnl.hpp>

#ifdef MINITF_HAVE_OPENMP
#include <omp.h>
#endif

namespace minitf {
namespace {

using dnnl::memory;
using Tag = memory::format_tag;
constexpr auto kF32 = memory::data_type::f32;

dnnl::engine& CpuEngine() {
  static dnnl::engine* engine = new dnnl::engine(dnnl::engine::kind::cpu, 0);
  return *engine;
}

// Holds oneDNN to one OpenMP thread (no team, nothing spinning) while it
// makes or runs a primitive. oneDNN reads OpenMP's per-thread setting, so
// this touches only the calling thread and restores what the host had.
class OneOmpThread {
 public:
  OneOmpThread() {
#ifdef MINITF_HAVE_OPENMP
    previous_ = omp_get_max_threads();
    if (previous_ != 1) omp_set_num_threads(1);
#endif
  }
  ~OneOmpThread() {
#ifdef MINITF_HAVE_OPENMP
    if (previous_ != 1) omp_set_num_threads(previous_);
#endif
  }
  OneOmpThread(const OneOmpThread&) = delete;
  OneOmpThread& operator=(const OneOmpThread&) = delete;

 private:
  int previous_ = 1;
};

std::vector<int64_t> GeometryKey(const WindowGeometry& g) {
  return {g.batch,    g.in_h,     g.in_w,    g.in_c,    g.k_h,        g.k_w,
          g.stride_h, g.stride_w, g.dil_h,   g.dil_w,   g.pad_top,    g.pad_bottom,
          g.pad_left, g.pad_right, g.out_h,  g.out_w,   g.out_c,      g.groups};
}

bool AnyEmpty(const WindowGeometry& g) {
  return g.batch == 0 || g.in_h == 0 || g.in_w == 0 || g.in_c == 0 || g.out_h == 0 ||
         g.out_w == 0 || g.out_c == 0 || g.k_h == 0 || g.k_w == 0;
}

// Primitives by geometry. A geometry oneDNN refused is remembered as null
// so that it is not retried on every call. Entries are created under the
// lock; they are immutable afterwards and oneDNN primitives may execute
// concurrently.
template <typename Entry>
class PrimitiveCache {
 public:
  template <typename Make>
  std::shared_ptr<const Entry> Get(const std::vector<int64_t>& key, Make make) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    if (it != entries_.end()) return it->second;
    // Shapes that vary per call (batch, image size) must not grow this
    // without bound.
    if (entries_.size() >= kMaxEntries) entries_.clear();
    std::shared_ptr<const Entry> entry;
    try {
      entry = make();
    } catch (const dnnl::error&) {
      entry = nullptr;
    }
    entries_.emplace(key, entry);
    return entry;
  }

 private:
  static constexpr size_t kMaxEntries = 32;
  std::mutex mu_;
  std::map<std::vector<int64_t>, std::shared_ptr<const Entry>> entries_;
};

memory::desc ActivationDesc(int64_t n, int64_t h, int64_t w, int64_t c) {
  return memory::desc({n, c, h, w}, kF32, Tag::nhwc);
}

// Scratchpads are ours, allocated per call: the library-managed one is
// shared between primitives and corrupts results when two threads execute
// at once.
dnnl::primitive_attr UserScratchpad() {
  dnnl::primitive_attr attr;
  attr.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  return attr;
}

void AddScratchpad(const memory::desc& desc, std::unordered_map<int, memory>* args) {
  if (desc.get_size() != 0) (*args)[DNNL_ARG_SCRATCHPAD] = memory(desc, CpuEngine());
}

// TensorFlow's filter layout as oneDNN weights: [k_h, k_w, in_c, out_c]
// (hwio), or per group for grouped and depthwise convolutions.
memory::desc ConvFilterDesc(const WindowGeometry& g) {
  if (g.groups == 1) return memory::desc({g.out_c, g.in_c, g.k_h, g.k_w}, kF32, Tag::hwio);
  return memory::desc({g.groups, g.out_c / g.groups, g.in_c / g.groups, g.k_h, g.k_w}, kF32,
                      Tag::hwigo);
}

// A filter that is an op input, so it may change between calls: the reorder
// from TensorFlow's layout to the one the primitive chose is made once and
// run on every call.
struct FilterReorder {
  memory::desc user;
  memory::desc wanted;
  bool needed = false;
  dnnl::reorder reorder;
  memory::desc scratchpad;

  void Init(const memory::desc& user_desc, const memory::desc& wanted_desc) {
    user = user_desc;
    wanted = wanted_desc;
    needed = wanted != user;
    if (!needed) return;
    dnnl::reorder::primitive_desc rpd(CpuEngine(), user, CpuEngine(), wanted, UserScratchpad());
    reorder = dnnl::reorder(rpd);
    scratchpad = rpd.scratchpad_desc();
  }

  // The filter as the primitive wants it; the reorder runs on `stream`.
  memory Apply(dnnl::stream& stream, const float* filter) const {
    memory given(user, CpuEngine(), const_cast<float*>(filter));
    if (!needed) return given;
    memory laid_out(wanted, CpuEngine());
    std::unordered_map<int, memory> args = {{DNNL_ARG_FROM, given}, {DNNL_ARG_TO, laid_out}};
    AddScratchpad(scratchpad, &args);
    reorder.execute(stream, args);
    return laid_out;
  }
};

// A primitive that reads an activation and a filter given as an op input
// and writes an activation: Conv2D, and the transposed convolution. Callers
// hold OneOmpThread.
struct FilteredPrimitive {
  dnnl::primitive primitive;
  memory::desc scratchpad;
  FilterReorder filter;

  bool Execute(const memory::desc& src_desc, const float* src, const float* filter_data,
               const memory::desc& dst_desc, float* dst) const {
    try {
      dnnl::engine& eng = CpuEngine();
      dnnl::stream stream(eng);
      // oneDNN takes non-const handles but only reads sources.
      std::unordered_map<int, memory> args = {
          {DNNL_ARG_SRC, memory(src_desc, eng, const_cast<float*>(src))},
          {DNNL_ARG_WEIGHTS, filter.Apply(stream, filter_data)},
          {DNNL_ARG_DST, memory(dst_desc, eng, dst)}};
      AddScratchpad(scratchpad, &args);
      primitive.execute(stream, args);
      stream.wait();
    } catch (const dnnl::error&) {
      return false;
    }
    return true;
  }
};

struct PoolEntry {
  dnnl::pooling_forward pool;
  memory::desc scratchpad;
  memory::desc workspace;
};

}  // namespace

bool DnnlAvailable() { return true; }

struct DnnlConv2D::Cache : PrimitiveCache<FilteredPrimitive> {};
struct DnnlPool::Cache : PrimitiveCache<PoolEntry> {};

DnnlConv2D::DnnlConv2D() : cache_(new Cache) {}
DnnlConv2D::~DnnlConv2D() = default;

bool DnnlConv2D::Run(const WindowGeometry& g, const float* in, const float* filter,
                     float* out) const {
  if (AnyEmpty(g)) return false;
  OneOmpThread one_thread;
  auto entry = cache_->Get(GeometryKey(g), [&] {
    auto e = std::make_shared<FilteredPrimitive>();
    const memory::desc user_weights = ConvFilterDesc(g);
    const memory::desc any_weights(user_weights.dims(), kF32, Tag::any);
    dnnl::convolution_forward::desc desc(
        dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct,
        ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), any_weights,
        ActivationDesc(g.batch, g.out_h, g.out_w, g.out_c), {g.stride_h, g.stride_w},
        {g.dil_h - 1, g.dil_w - 1}, {g.pad_top, g.pad_left}, {g.pad_bottom, g.pad_right});
    dnnl::convolution_forward::primitive_desc pd(desc, UserScratchpad(), CpuEngine());
    e->primitive = dnnl::convolution_forward(pd);
    e->scratchpad = pd.scratchpad_desc();
    e->filter.Init(user_weights, pd.weights_desc());
    return std::shared_ptr<const FilteredPrimitive>(e);
  });
  return entry != nullptr &&
         entry->Execute(ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), in, filter,
                        ActivationDesc(g.batch, g.out_h, g.out_w, g.out_c), out);
}

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

struct DnnlConvTranspose::Cache : PrimitiveCache<FilteredPrimitive> {};

DnnlConvTranspose::DnnlConvTranspose() : cache_(new Cache) {}
DnnlConvTranspose::~DnnlConvTranspose() = default;

bool DnnlConvTranspose::Run(const WindowGeometry& g, const float* dy, const float* filter,
                            float* out) const {
  if (AnyEmpty(g) || g.groups != 1) return false;
  OneOmpThread one_thread;
  auto entry = cache_->Get(GeometryKey(g), [&] {
    auto e = std::make_shared<FilteredPrimitive>();
    // The deconvolution's output channels are the forward input's: weights
    // {in_c, out_c, k_h, k_w}, stored as TensorFlow's [k_h][k_w][in_c][out_c].
    const memory::desc user_weights(
        {g.in_c, g.out_c, g.k_h, g.k_w}, kF32,
        {g.out_c, 1, g.k_w * g.in_c * g.out_c, g.in_c * g.out_c});
    const memory::desc any_weights(user_weights.dims(), kF32, Tag::any);
    dnnl::deconvolution_forward::desc desc(
        dnnl::prop_kind::forward_inference, dnnl::algorithm::deconvolution_direct,
        ActivationDesc(g.batch, g.out_h, g.out_w, g.out_c), any_weights,
        ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), {g.stride_h, g.stride_w},
        {g.dil_h - 1, g.dil_w - 1}, {g.pad_top, g.pad_left}, {g.pad_bottom, g.pad_right});
    dnnl::deconvolution_forward::primitive_desc pd(desc, UserScratchpad(), CpuEngine());
    e->primitive = dnnl::deconvolution_forward(pd);
    e->scratchpad = pd.scratchpad_desc();
    e->filter.Init(user_weights, pd.weights_desc());
    return std::shared_ptr<const FilteredPrimitive>(e);
  });
  return entry != nullptr &&
         entry->Execute(ActivationDesc(g.batch, g.out_h, g.out_w, g.out_c), dy, filter,
                        ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), out);
}

DnnlPool::DnnlPool(bool max) : max_(max), cache_(new Cache) {}
DnnlPool::~DnnlPool() = default;

bool DnnlPool::Run(const WindowGeometry& g, const float* in, float* out) const {
  if (AnyEmpty(g)) return false;
  // A window lying wholly in explicit padding has no cells; the reference
  // defines that case.
  if (g.pad_top >= g.k_h || g.pad_bottom >= g.k_h || g.pad_left >= g.k_w ||
      g.pad_right >= g.k_w) {
    return false;
  }
  auto entry = cache_->Get(GeometryKey(g), [&] {
    auto e = std::make_shared<PoolEntry>();
    dnnl::pooling_forward::desc desc(
        dnnl::prop_kind::forward_inference,
        max_ ? dnnl::algorithm::pooling_max : dnnl::algorithm::pooling_avg_exclude_padding,
        ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c),
        ActivationDesc(g.batch, g.out_h, g.out_w, g.in_c), {g.stride_h, g.stride_w},
        {g.k_h, g.k_w}, {g.pad_top, g.pad_left}, {g.pad_bottom, g.pad_right});
    dnnl::pooling_forward::primitive_desc pd(desc, UserScratchpad(), CpuEngine());
    e->pool = dnnl::pooling_forward(pd);
    e->scratchpad = pd.scratchpad_desc();
    e->workspace = pd.workspace_desc();
    return std::shared_ptr<const PoolEntry>(e);
  });
  if (!entry) return false;
  try {
    OneOmpThread one_thread;
    dnnl::engine& eng = CpuEngine();
    dnnl::stream stream(eng);
    memory src(ActivationDesc(g.batch, g.in_h, g.in_w, g.in_c), eng, const_cast<float*>(in));
    memory dst(ActivationDesc(g.batch, g.out_h, g.out_w, g.in_c), eng, out);
    std::unordered_map<int, memory> args = {{DNNL_ARG_SRC, src}, {DNNL_ARG_DST, dst}};
    if (entry->workspace.get_size() != 0) args[DNNL_ARG_WORKSPACE] = memory(entry->workspace, eng);
    AddScratchpad(entry->scratchpad, &args);
    entry->pool.execute(stream, args);
    stream.wait();
  } catch (const dnnl::error&) {
    return false;
  }
  return true;
}

bool DnnlGemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k,
              const float* a, const float* b, float* c) {
  if (m == 0 || n == 0 || k == 0) return false;
  OneOmpThread one_thread;
  const int64_t lda = transpose_a ? m : k;
  const int64_t ldb = transpose_b ? k : n;
  return dnnl_sgemm(transpose_a ? 'T' : 'N', transpose_b ? 'T' : 'N', m, n, k, 1.0f, a, lda, b,
                    ldb, 0.0f, c, n) == dnnl_success;
}

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

#include <utility>

namespace minitf {

bool DnnlAvailable() { return false; }

struct DnnlConv2D::Cache {};
struct DnnlPool::Cache {};
DnnlConv2D::DnnlConv2D() = default;
DnnlConv2D::~DnnlConv2D() = default;
bool DnnlConv2D::Run(const WindowGeometry&, const float*, const float*, float*) const {
  return false;
}
struct DnnlConvChain::Cache {};
DnnlConvChain::DnnlConvChain(const float* filter, const float* bias,
                             std::vector<ConvPostOp> post_ops)
    : filter_(filter), bias_(bias), post_ops_(std::move(post_ops)) {}
DnnlConvChain::~DnnlConvChain() = default;
bool DnnlConvChain::Prepare(const WindowGeometry&) const { return false; }
bool DnnlConvChain::Run(const WindowGeometry&, const float*, float*, ThreadPool*) const {
  return false;
}
struct DnnlConvTranspose::Cache {};
DnnlConvTranspose::DnnlConvTranspose() = default;
DnnlConvTranspose::~DnnlConvTranspose() = default;
bool DnnlConvTranspose::Run(const WindowGeometry&, const float*, const float*, float*) const {
  return false;
}
DnnlPool::DnnlPool(bool max) : max_(max) {}
DnnlPool::~DnnlPool() = default;
bool DnnlPool::Run(const WindowGeometry&, const float*, float*) const { return false; }
bool DnnlGemm(bool, bool, int64_t, int64_t, int64_t, const float*, const float*, float*) {
  return false;
}

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
