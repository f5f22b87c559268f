#include "kernels/broadcast.h"

namespace minitf {

Status Broadcast::Init(const Shape& x, const Shape& y) {
  const int rank = std::max(x.rank(), y.rank());
  const int px = rank - x.rank(), py = rank - y.rank();
  std::vector<int64_t> out(rank);
  // Per output dimension: whether x, y repeat along it.
  std::vector<bool> x_rep(rank), y_rep(rank);
  for (int i = 0; i < rank; ++i) {
    const int64_t xd = i < px ? 1 : x.dim(i - px);
    const int64_t yd = i < py ? 1 : y.dim(i - py);
    if (xd == yd || yd == 1) {
      out[i] = xd;
    } else if (xd == 1) {
      out[i] = yd;
    } else {
      return InvalidArgument("Incompatible shapes: ", x.ToString(), " vs. ", y.ToString());
    }
    x_rep[i] = xd == 1 && out[i] != 1;
    y_rep[i] = yd == 1 && out[i] != 1;
  }
  Status s = Shape::Make(out, &output_shape_);
  if (!s.ok()) {
    return InvalidArgument("Incompatible shapes: ", x.ToString(), " vs. ", y.ToString(), ": ",
                           s.message());
  }

  dims_.clear();
  x_strides_.clear();
  y_strides_.clear();
  const int64_t total = output_shape_.num_elements();
  if (total == x.num_elements() && total == y.num_elements()) {
    kind_ = Kind::kSame;
    return Status::OK();
  }
  if (x.num_elements() == 1) {
    kind_ = Kind::kScalarX;
    return Status::OK();
  }
  if (y.num_elements() == 1) {
    kind_ = Kind::kScalarY;
    return Status::OK();
  }

  // Merge runs of dimensions that repeat the same way; drop size-1 ones.
  std::vector<bool> dx, dy;
  for (int i = 0; i < rank; ++i) {
    if (out[i] == 1) continue;
    if (!dims_.empty() && dx.back() == x_rep[i] && dy.back() == y_rep[i]) {
      dims_.back() *= out[i];
    } else {
      dims_.push_back(out[i]);
      dx.push_back(x_rep[i]);
      dy.push_back(y_rep[i]);
    }
  }
  const int n = static_cast<int>(dims_.size());
  x_strides_.assign(n, 0);
  y_strides_.assign(n, 0);
  int64_t sx = 1, sy = 1;
  for (int d = n - 1; d >= 0; --d) {
    if (!dx[d]) {
      x_strides_[d] = sx;
      sx *= dims_[d];
    }
    if (!dy[d]) {
      y_strides_[d] = sy;
      sy *= dims_[d];
    }
  }
  kind_ = Kind::kGeneral;
  return Status::OK();
}

}  // namespace minitf
