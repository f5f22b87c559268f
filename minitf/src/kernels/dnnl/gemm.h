// Matrix products through oneDNN's sgemm.
#ifndef MINITF_KERNELS_DNNL_GEMM_H_
#define MINITF_KERNELS_DNNL_GEMM_H_

#include <cstdint>

#include "kernels/dnnl/engine.h"

namespace minitf {

// c[m, n] = op(a) * op(b), layouts as reference::Gemm. False when it did not
// compute.
bool DnnlGemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k,
              const float* a, const float* b, float* c);

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_GEMM_H_
