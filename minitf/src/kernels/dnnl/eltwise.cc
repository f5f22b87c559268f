#include "kernels/dnnl/eltwise.h"

#ifdef MINITF_HAVE_DNNL

#include <algorithm>
#include <atomic>

namespace minitf {

using namespace dnnl_internal;

namespace {

struct EltwiseEntry {
  dnnl::eltwise_forward eltwise;
  memory::desc data;
  memory::desc scratchpad;
};

// Enough elements per piece to pay for waking a thread.
constexpr int64_t kMinPieceElements = 16384;

}  // namespace

struct DnnlEltwise::Cache : PrimitiveCache<EltwiseEntry> {};

DnnlEltwise::DnnlEltwise(Kind kind) : kind_(kind), cache_(new Cache) {}
DnnlEltwise::~DnnlEltwise() = default;

bool DnnlEltwise::Run(int64_t n, const float* in, float* out, ThreadPool* pool) const {
  if (n <= 0) return false;
  int64_t parts = pool == nullptr ? 1 : pool->num_threads();
  parts = std::max<int64_t>(1, std::min(parts, n / kMinPieceElements));
  // Equal pieces but the last, so at most two primitives.
  const int64_t piece = (n + parts - 1) / parts;
  parts = (n + piece - 1) / piece;
  const int64_t last = n - piece * (parts - 1);
  auto make = [&](int64_t size) {
    PrimitiveKey key{};
    key[0] = size;
    return cache_->Get(key, [&] {
      OneOmpThread one_thread;
      auto e = std::make_shared<EltwiseEntry>();
      e->data = memory::desc({size}, kF32, Tag::x);
      const dnnl::algorithm alg = kind_ == kTanh ? dnnl::algorithm::eltwise_tanh
                                                 : dnnl::algorithm::eltwise_logistic;
      dnnl::eltwise_forward::desc desc(dnnl::prop_kind::forward_inference, alg, e->data, 0.0f,
                                       0.0f);
      dnnl::eltwise_forward::primitive_desc pd(desc, UserScratchpad(), CpuEngine());
      e->eltwise = dnnl::eltwise_forward(pd);
      e->scratchpad = pd.scratchpad_desc();
      return std::shared_ptr<const EltwiseEntry>(e);
    });
  };
  const std::shared_ptr<const EltwiseEntry> full = make(piece);
  const std::shared_ptr<const EltwiseEntry> tail = last == piece ? full : make(last);
  if (!full || !tail) return false;
  std::atomic<bool> ok{true};
  auto run_pieces = [&](int64_t begin, int64_t end) {
    OneOmpThread one_thread;
    for (int64_t p = begin; p < end; ++p) {
      const EltwiseEntry& entry = p == parts - 1 ? *tail : *full;
      try {
        dnnl::engine& eng = CpuEngine();
        dnnl::stream stream(eng);
        std::unordered_map<int, memory> args = {
            {DNNL_ARG_SRC, memory(entry.data, eng, const_cast<float*>(in + p * piece))},
            {DNNL_ARG_DST, memory(entry.data, eng, out + p * piece)}};
        AddScratchpad(entry.scratchpad, &args);
        entry.eltwise.execute(stream, args);
        stream.wait();
      } catch (const dnnl::error&) {
        ok = false;
      }
    }
  };
  if (parts == 1) {
    run_pieces(0, 1);
  } else {
    pool->ParallelFor(parts, 1, run_pieces);
  }
  return ok;
}

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

namespace minitf {

struct DnnlEltwise::Cache {};
DnnlEltwise::DnnlEltwise(Kind kind) : kind_(kind) {}
DnnlEltwise::~DnnlEltwise() = default;
bool DnnlEltwise::Run(int64_t, const float*, float*, ThreadPool*) const { return false; }

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
