#include "kernels/dnnl/gemm.h"

namespace minitf {

#ifdef MINITF_HAVE_DNNL

bool DnnlGemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k,
              const float* a, const float* b, float* c) {
  if (m == 0 || n == 0 || k == 0) return false;
  dnnl_internal::OneOmpThread one_thread;
  const int64_t lda = transpose_a ? m : k;
  const int64_t ldb = transpose_b ? k : n;
  return dnnl_sgemm(transpose_a ? 'T' : 'N', transpose_b ? 'T' : 'N', m, n, k, 1.0f, a, lda, b,
                    ldb, 0.0f, c, n) == dnnl_success;
}

#else  // !MINITF_HAVE_DNNL

bool DnnlGemm(bool, bool, int64_t, int64_t, int64_t, const float*, const float*, float*) {
  return false;
}

#endif  // MINITF_HAVE_DNNL

}  // namespace minitf
