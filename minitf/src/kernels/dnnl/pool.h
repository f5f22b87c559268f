// MaxPool and AvgPool through oneDNN.
#ifndef MINITF_KERNELS_DNNL_POOL_H_
#define MINITF_KERNELS_DNNL_POOL_H_

#include <memory>

#include "kernels/dnnl/engine.h"
#include "kernels/window_geometry.h"

namespace minitf {

// Max pooling, or average pooling over the in-bounds cells.
class DnnlPool {
 public:
  explicit DnnlPool(bool max);
  ~DnnlPool();
  bool Run(const WindowGeometry& g, const float* in, float* out) const;

 private:
  struct Cache;
  bool max_;
  std::unique_ptr<Cache> cache_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_POOL_H_
