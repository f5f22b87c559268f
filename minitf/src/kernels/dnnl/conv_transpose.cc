#include "kernels/dnnl/conv_transpose.h"

#ifdef MINITF_HAVE_DNNL

namespace minitf {

using namespace dnnl_internal;

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

}  // namespace minitf

#else  // !MINITF_HAVE_DNNL

namespace minitf {

struct DnnlConvTranspose::Cache {};
DnnlConvTranspose::DnnlConvTranspose() = default;
DnnlConvTranspose::~DnnlConvTranspose() = default;
bool DnnlConvTranspose::Run(const WindowGeometry&, const float*, const float*, float*) const {
  return false;
}

}  // namespace minitf

#endif  // MINITF_HAVE_DNNL
