// Plain-loop kernels: the fallback for every dtype and shape, and the oracle
// the fast paths are tested against. Callers have validated all shapes.
#ifndef MINITF_KERNELS_REFERENCE_OPS_H_
#define MINITF_KERNELS_REFERENCE_OPS_H_

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "kernels/window_geometry.h"
#include "kernels/wrap_arith.h"

namespace minitf {
namespace reference {

// acc + a * b; integers wrap around as TensorFlow's do instead of
// overflowing into undefined behaviour (see WrapType).
template <typename T>
inline T MulAdd(T acc, T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    using U = WrapType<T>;
    return static_cast<T>(static_cast<U>(acc) + static_cast<U>(a) * static_cast<U>(b));
  } else {
    return acc + a * b;
  }
}

// c[m, n] = op(a) * op(b), where op(a) is a [m, k] matrix stored as [m, k]
// or, transposed, as [k, m]; likewise op(b) is [k, n] stored as [k, n] or
// [n, k].
template <typename T>
void Gemm(bool transpose_a, bool transpose_b, int64_t m, int64_t n, int64_t k, const T* a,
          const T* b, T* c, const OpContext* ctx) {
  RunParallel(ctx, m, n * k + 1, [&](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) {
      T* row = c + i * n;
      std::fill(row, row + n, T(0));
      for (int64_t p = 0; p < k; ++p) {
        const T av = transpose_a ? a[p * m + i] : a[i * k + p];
        if (transpose_b) {
          for (int64_t j = 0; j < n; ++j) row[j] = MulAdd(row[j], av, b[j * k + p]);
        } else {
          const T* brow = b + p * n;
          for (int64_t j = 0; j < n; ++j) row[j] = MulAdd(row[j], av, brow[j]);
        }
      }
    }
  });
}

// NHWC convolution with g.groups groups; the filter is
// [k_h, k_w, in_c / groups, out_c] and output channel o belongs to group
// o / (out_c / groups). A depthwise filter [k_h, k_w, C, M] is the same
// layout with groups = C.
template <typename T>
void Conv2D(const WindowGeometry& g, const T* in, const T* filter, T* out, const OpContext* ctx) {
  const int64_t cin_g = g.in_c / g.groups;
  const int64_t cout_g = g.out_c / g.groups;
  const int64_t cost = g.out_w * g.k_h * g.k_w * cin_g * g.out_c + 1;
  RunParallel(ctx, g.batch * g.out_h, cost, [&](int64_t begin, int64_t end) {
    for (int64_t r = begin; r < end; ++r) {
      const int64_t b = r / g.out_h, oy = r % g.out_h;
      for (int64_t ox = 0; ox < g.out_w; ++ox) {
        T* acc = out + (r * g.out_w + ox) * g.out_c;
        std::fill(acc, acc + g.out_c, T(0));
        for (int64_t ky = 0; ky < g.k_h; ++ky) {
          const int64_t iy = oy * g.stride_h - g.pad_top + ky * g.dil_h;
          if (iy < 0 || iy >= g.in_h) continue;
          for (int64_t kx = 0; kx < g.k_w; ++kx) {
            const int64_t ix = ox * g.stride_w - g.pad_left + kx * g.dil_w;
            if (ix < 0 || ix >= g.in_w) continue;
            const T* pixel = in + ((b * g.in_h + iy) * g.in_w + ix) * g.in_c;
            const T* taps = filter + (ky * g.k_w + kx) * cin_g * g.out_c;
            for (int64_t grp = 0; grp < g.groups; ++grp) {
              T* acc_g = acc + grp * cout_g;
              for (int64_t ic = 0; ic < cin_g; ++ic) {
                const T v = pixel[grp * cin_g + ic];
                const T* f = taps + ic * g.out_c + grp * cout_g;
                for (int64_t oc = 0; oc < cout_g; ++oc) acc_g[oc] = MulAdd(acc_g[oc], v, f[oc]);
              }
            }
          }
        }
      }
    }
  });
}

// Visits the in-bounds cells of each pooling window: init(c) once per
// output pixel, then step(c, value) per cell, then finish(c, out, cells).
template <typename T, typename Acc, typename Step, typename Finish>
void Pool(const WindowGeometry& g, const T* in, T* out, Acc init, Step step, Finish finish,
          const OpContext* ctx) {
  const int64_t c = g.in_c;
  RunParallel(ctx, g.batch * g.out_h, g.out_w * g.k_h * g.k_w * c + 1,
              [&](int64_t begin, int64_t end) {
    std::vector<Acc> acc(c);
    for (int64_t r = begin; r < end; ++r) {
      const int64_t b = r / g.out_h, oy = r % g.out_h;
      const int64_t y0 = oy * g.stride_h - g.pad_top;
      const int64_t y_lo = std::max<int64_t>(y0, 0), y_hi = std::min(y0 + g.k_h, g.in_h);
      for (int64_t ox = 0; ox < g.out_w; ++ox) {
        const int64_t x0 = ox * g.stride_w - g.pad_left;
        const int64_t x_lo = std::max<int64_t>(x0, 0), x_hi = std::min(x0 + g.k_w, g.in_w);
        std::fill(acc.begin(), acc.end(), init);
        for (int64_t y = y_lo; y < y_hi; ++y) {
          for (int64_t x = x_lo; x < x_hi; ++x) {
            const T* pixel = in + ((b * g.in_h + y) * g.in_w + x) * c;
            for (int64_t ch = 0; ch < c; ++ch) step(acc[ch], pixel[ch]);
          }
        }
        const int64_t cells = std::max<int64_t>(0, y_hi - y_lo) * std::max<int64_t>(0, x_hi - x_lo);
        T* o = out + (r * g.out_w + ox) * c;
        for (int64_t ch = 0; ch < c; ++ch) o[ch] = finish(acc[ch], cells);
      }
    }
  });
}

// Padding cells never win; a window wholly in explicit padding gives the
// lowest value of T.
template <typename T>
void MaxPool(const WindowGeometry& g, const T* in, T* out, const OpContext* ctx) {
  Pool<T, T>(
      g, in, out, std::numeric_limits<T>::lowest(),
      [](T& m, T v) {
        if (v > m) m = v;
      },
      [](T m, int64_t) { return m; }, ctx);
}

// The mean over the window's in-bounds cells only.
template <typename T>
void AvgPool(const WindowGeometry& g, const T* in, T* out, const OpContext* ctx) {
  Pool<T, T>(
      g, in, out, T(0), [](T& s, T v) { s += v; },
      [](T s, int64_t cells) { return cells > 0 ? s / static_cast<T>(cells) : T(0); }, ctx);
}

// out [batch, in_h, in_w, in_c] from dy [batch, out_h, out_w, out_c] and
// filter [k_h, k_w, in_c, out_c]; g describes the forward convolution.
template <typename T>
void ConvTranspose(const WindowGeometry& g, const T* dy, const T* filter, T* out,
                   const OpContext* ctx) {
  const int64_t ci = g.in_c, co = g.out_c;
  RunParallel(ctx, g.batch * g.in_h, g.in_w * g.k_h * g.k_w * ci * co + 1,
              [&](int64_t begin, int64_t end) {
    for (int64_t row = begin; row < end; ++row) {
      const int64_t b = row / g.in_h, y = row % g.in_h;
      for (int64_t x = 0; x < g.in_w; ++x) {
        T* o = out + (row * g.in_w + x) * ci;
        std::fill(o, o + ci, T(0));
        for (int64_t ky = 0; ky < g.k_h; ++ky) {
          const int64_t ty = y + g.pad_top - ky * g.dil_h;
          if (ty < 0 || ty % g.stride_h != 0) continue;
          const int64_t oy = ty / g.stride_h;
          if (oy >= g.out_h) continue;
          for (int64_t kx = 0; kx < g.k_w; ++kx) {
            const int64_t tx = x + g.pad_left - kx * g.dil_w;
            if (tx < 0 || tx % g.stride_w != 0) continue;
            const int64_t ox = tx / g.stride_w;
            if (ox >= g.out_w) continue;
            const T* d = dy + ((b * g.out_h + oy) * g.out_w + ox) * co;
            const T* f = filter + (ky * g.k_w + kx) * ci * co;
            for (int64_t c = 0; c < ci; ++c) {
              T acc = o[c];
              const T* fc = f + c * co;
              for (int64_t k = 0; k < co; ++k) acc = reference::MulAdd(acc, d[k], fc[k]);
              o[c] = acc;
            }
          }
        }
      }
    }
  });
}

}  // namespace reference
}  // namespace minitf

#endif  // MINITF_KERNELS_REFERENCE_OPS_H_
