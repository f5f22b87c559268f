#include "kernels/dnnl/pool.h"

#ifdef MINITF_HAVE_DNNL

namespace minitf {

using namespace dnnl_internal;

namespace {

struct PoolEntry {
  dnnl::pooling_forward pool;
  memory::desc scratchpad;
  memory::desc workspace;
};

}  // namespace

struct DnnlPool::Cache : PrimitiveCache<PoolEntry> {};

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

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

namespace minitf {

struct DnnlPool::Cache {};
DnnlPool::DnnlPool(bool max) : max_(max) {}
DnnlPool::~DnnlPool() = default;
bool DnnlPool::Run(const WindowGeometry&, const float*, float*) const { return false; }

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
