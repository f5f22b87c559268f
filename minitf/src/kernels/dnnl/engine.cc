#include "kernels/dnnl/engine.h"

#ifdef MINITF_HAVE_DNNL

#ifdef MINITF_HAVE_OPENMP
#include <omp.h>
#endif

namespace minitf {

bool DnnlAvailable() { return true; }

namespace dnnl_internal {

dnnl::engine& CpuEngine() {
  static dnnl::engine* engine = new dnnl::engine(dnnl::engine::kind::cpu, 0);
  return *engine;
}

OneOmpThread::OneOmpThread() {
#ifdef MINITF_HAVE_OPENMP
  previous_ = omp_get_max_threads();
  if (previous_ != 1) omp_set_num_threads(1);
#endif
}

OneOmpThread::~OneOmpThread() {
#ifdef MINITF_HAVE_OPENMP
  if (previous_ != 1) omp_set_num_threads(previous_);
#endif
}

PrimitiveKey GeometryKey(const WindowGeometry& g) {
  return {g.batch,    g.in_h,     g.in_w,    g.in_c,    g.k_h,        g.k_w,
          g.stride_h, g.stride_w, g.dil_h,   g.dil_w,   g.pad_top,    g.pad_bottom,
          g.pad_left, g.pad_right, g.out_h,  g.out_w,   g.out_c,      g.groups};
}

bool AnyEmpty(const WindowGeometry& g) {
  return g.batch == 0 || g.in_h == 0 || g.in_w == 0 || g.in_c == 0 || g.out_h == 0 ||
         g.out_w == 0 || g.out_c == 0 || g.k_h == 0 || g.k_w == 0;
}

memory::desc ActivationDesc(int64_t n, int64_t h, int64_t w, int64_t c) {
  return memory::desc({n, c, h, w}, kF32, Tag::nhwc);
}

dnnl::primitive_attr UserScratchpad() {
  dnnl::primitive_attr attr;
  attr.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  return attr;
}

void AddScratchpad(const memory::desc& desc, std::unordered_map<int, memory>* args) {
  if (desc.get_size() != 0) (*args)[DNNL_ARG_SCRATCHPAD] = memory(desc, CpuEngine());
}

memory::desc ConvFilterDesc(const WindowGeometry& g) {
  if (g.groups == 1) return memory::desc({g.out_c, g.in_c, g.k_h, g.k_w}, kF32, Tag::hwio);
  return memory::desc({g.groups, g.out_c / g.groups, g.in_c / g.groups, g.k_h, g.k_w}, kF32,
                      Tag::hwigo);
}

void FilterReorder::Init(const memory::desc& user_desc, const memory::desc& wanted_desc) {
  user = user_desc;
  wanted = wanted_desc;
  needed = wanted != user;
  if (!needed) return;
  dnnl::reorder::primitive_desc rpd(CpuEngine(), user, CpuEngine(), wanted, UserScratchpad());
  reorder = dnnl::reorder(rpd);
  scratchpad = rpd.scratchpad_desc();
}

memory FilterReorder::Apply(dnnl::stream& stream, const float* filter) const {
  memory given(user, CpuEngine(), const_cast<float*>(filter));
  if (!needed) return given;
  memory laid_out(wanted, CpuEngine());
  std::unordered_map<int, memory> args = {{DNNL_ARG_FROM, given}, {DNNL_ARG_TO, laid_out}};
  AddScratchpad(scratchpad, &args);
  reorder.execute(stream, args);
  return laid_out;
}

bool FilteredPrimitive::Execute(const memory::desc& src_desc, const float* src,
                                const float* filter_data, const memory::desc& dst_desc,
                                float* dst) const {
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

}  // namespace dnnl_internal
}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

namespace minitf {
bool DnnlAvailable() { return false; }
}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
