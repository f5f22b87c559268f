#include "kernels/dnnl/conv.h"

#ifdef MINITF_HAVE_DNNL

namespace minitf {

using namespace dnnl_internal;

struct DnnlConv2D::Cache : PrimitiveCache<FilteredPrimitive> {};

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

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

namespace minitf {

struct DnnlConv2D::Cache {};
DnnlConv2D::DnnlConv2D() = default;
DnnlConv2D::~DnnlConv2D() = default;
bool DnnlConv2D::Run(const WindowGeometry&, const float*, const float*, float*) const {
  return false;
}

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
