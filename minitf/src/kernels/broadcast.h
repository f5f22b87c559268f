// Numpy-style broadcasting of two operands, as TensorFlow's binary ops do
// it, and a parallel driver that applies an element function over the
// broadcast result.
//
// Shapes are aligned at their last dimension, missing leading dimensions
// count as 1, and each pair of dimensions must be equal or contain a 1.
// Before iterating, the pair of shapes is collapsed: size-1 output
// dimensions are dropped and neighbouring dimensions that broadcast the same
// way are merged, so "[8,1,3,4] + [3,4]" runs as a [8,12] + [12] loop and
// the inner loop is as long as possible.
#ifndef MINITF_KERNELS_BROADCAST_H_
#define MINITF_KERNELS_BROADCAST_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernel.h"
#include "tensor.h"

namespace minitf {

class Broadcast {
 public:
  enum class Kind {
    kSame,     // x, y and the output have the same elements in the same order
    kScalarX,  // x holds one element; y maps one-to-one onto the output
    kScalarY,  // the mirror case
    kGeneral,  // strided walk over the collapsed dimensions
  };

  // Fails with "Incompatible shapes: [..] vs. [..]" when the shapes cannot
  // broadcast, or when the result would be too large to describe.
  Status Init(const Shape& x, const Shape& y);

  const Shape& output_shape() const { return output_shape_; }
  Kind kind() const { return kind_; }

  // The collapsed iteration space (kGeneral only): output dimensions and,
  // per dimension, the element stride of each operand (0 where it repeats).
  const std::vector<int64_t>& dims() const { return dims_; }
  const std::vector<int64_t>& x_strides() const { return x_strides_; }
  const std::vector<int64_t>& y_strides() const { return y_strides_; }

 private:
  Shape output_shape_;
  Kind kind_ = Kind::kSame;
  std::vector<int64_t> dims_;
  std::vector<int64_t> x_strides_;
  std::vector<int64_t> y_strides_;
};

namespace broadcast_internal {

// One contiguous stretch of output with fixed operand strides. The strides
// are 0 or 1, and the three common combinations get their own loop so the
// compiler can vectorise them.
template <typename X, typename Y, typename Z, typename Fn>
inline void Run(const X* x, int64_t sx, const Y* y, int64_t sy, Z* z, int64_t n, Fn& fn) {
  if (sx == 1 && sy == 1) {
    for (int64_t i = 0; i < n; ++i) z[i] = fn(x[i], y[i]);
  } else if (sx == 0 && sy == 1) {
    const X a = x[0];
    for (int64_t i = 0; i < n; ++i) z[i] = fn(a, y[i]);
  } else if (sx == 1 && sy == 0) {
    const Y b = y[0];
    for (int64_t i = 0; i < n; ++i) z[i] = fn(x[i], b);
  } else {
    for (int64_t i = 0; i < n; ++i) z[i] = fn(x[i * sx], y[i * sy]);
  }
}

}  // namespace broadcast_internal

// z[i] = fn(x[...], y[...]) for every element of bc.output_shape(), split
// over the intra-op pool. `cost` is the rough cost of one fn call in
// cycles-ish units (see OpContext::ParallelFor).
template <typename X, typename Y, typename Z, typename Fn>
void BroadcastApply(const OpContext& ctx, const Broadcast& bc, const X* x, const Y* y, Z* z,
                    Fn fn, int64_t cost = 1) {
  using broadcast_internal::Run;
  const int64_t total = bc.output_shape().num_elements();
  if (total == 0) return;
  switch (bc.kind()) {
    case Broadcast::Kind::kSame:
      ctx.ParallelFor(total, cost, [&](int64_t b, int64_t e) {
        Run(x + b, 1, y + b, 1, z + b, e - b, fn);
      });
      return;
    case Broadcast::Kind::kScalarX:
      ctx.ParallelFor(total, cost, [&](int64_t b, int64_t e) {
        Run(x, 0, y + b, 1, z + b, e - b, fn);
      });
      return;
    case Broadcast::Kind::kScalarY:
      ctx.ParallelFor(total, cost, [&](int64_t b, int64_t e) {
        Run(x + b, 1, y, 0, z + b, e - b, fn);
      });
      return;
    case Broadcast::Kind::kGeneral:
      break;
  }
  const std::vector<int64_t>& dims = bc.dims();
  const std::vector<int64_t>& xs = bc.x_strides();
  const std::vector<int64_t>& ys = bc.y_strides();
  const int last = static_cast<int>(dims.size()) - 1;
  ctx.ParallelFor(total, cost, [&](int64_t begin, int64_t end) {
    // Coordinates and operand offsets of `begin`, then walk row by row.
    std::vector<int64_t> idx(dims.size());
    int64_t xo = 0, yo = 0, rem = begin;
    for (int d = last; d >= 0; --d) {
      idx[d] = rem % dims[d];
      rem /= dims[d];
      xo += idx[d] * xs[d];
      yo += idx[d] * ys[d];
    }
    for (int64_t i = begin; i < end;) {
      const int64_t len = std::min(dims[last] - idx[last], end - i);
      Run(x + xo, xs[last], y + yo, ys[last], z + i, len, fn);
      i += len;
      idx[last] += len;
      xo += len * xs[last];
      yo += len * ys[last];
      for (int d = last; d > 0 && idx[d] == dims[d]; --d) {
        idx[d] = 0;
        xo -= dims[d] * xs[d];
        yo -= dims[d] * ys[d];
        ++idx[d - 1];
        xo += xs[d - 1];
        yo += ys[d - 1];
      }
    }
  });
}

}  // namespace minitf

#endif  // MINITF_KERNELS_BROADCAST_H_
