#include "models/frames/DetectorCommon.h"

#include <cmath>
#include <utility>
#include <limits>
#include <numeric>

#include <opencv2/imgproc.hpp>

#include "runtime/TFCommon.h"

namespace DetectorCommon {

BoxDetectionResult* NewResult(const std::vector<NativeBoundingBox>& boxes) {
  auto* result = new BoxDetectionResult;
  result->count = static_cast<int32_t>(boxes.size());
  result->boxes = new NativeBoundingBox[boxes.size()];
  std::copy(boxes.begin(), boxes.end(), result->boxes);
  return result;
}

std::vector<size_t> Indexes(size_t count) {
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), size_t{0});
  return order;
}

float Sigmoid(float term) {
  return static_cast<float>(1.0 / (1.0 + std::exp(-static_cast<double>(term))));
}

int32_t TruncateToInt(float value) {
  // 2^31 is exact in float; anything at or beyond it, or NaN, is out of range.
  constexpr float kLimit = 2147483648.0f;
  if (!(value > -kLimit && value < kLimit)) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

int32_t PixelCount(const Image& image, int32_t channels) {
  const uint32_t count = static_cast<uint32_t>(image.width) * static_cast<uint32_t>(image.height) *
                         static_cast<uint32_t>(channels);
  return static_cast<int32_t>(count);
}

cv::Mat PixelView(const Image& image, int channels) {
  if (channels != 1 && channels != 3) {
    CV_Error(cv::Error::StsUnsupportedFormat, "images have one or three channels");
  }
  const size_t stride = static_cast<size_t>(image.width) * static_cast<size_t>(channels);
  return cv::Mat(image.height, image.width, CV_8UC(channels), image.pixels, stride);
}

cv::Mat StretchImage(const Image& image, int size) {
  cv::Mat resized;
  cv::resize(PixelView(image, image.channels), resized, cv::Size(size, size), 0.0, 0.0,
             cv::INTER_LINEAR);
  return resized;
}

int64_t HeldFloats(const TF_Tensor* tensor) {
  if (tensor == nullptr) return 0;
  return static_cast<int64_t>(TF_TensorByteSize(tensor) / sizeof(float));
}

bool ReadHeadDims(const TF_Tensor* head, long dims[4]) {
  if (head == nullptr || TF_NumDims(head) < 4) return false;
  for (int i = 0; i < 4; ++i) dims[i] = TFCommon::Dim(head, i);
  // Decoding reads at most H * W * C floats of the first batch entry. In
  // double, since an empty batch lets the other dimensions be anything.
  const double needed = static_cast<double>(dims[1]) * static_cast<double>(dims[2]) *
                        static_cast<double>(dims[3]);
  return needed <= static_cast<double>(HeldFloats(head));
}

namespace {

// A box whose grid span exceeds this many cells per side is paired with
// every box instead of being spread over the grid.
constexpr int64_t kMaxSpan = 8;

bool Finite(const Edges& e) {
  return std::isfinite(e.left) && std::isfinite(e.top) && std::isfinite(e.right) &&
         std::isfinite(e.bottom);
}

}  // namespace

TouchIndex::TouchIndex(const std::vector<Rect>& rects) : rects_(rects), span_(rects.size()) {
  const size_t n = rects.size();
  edges_.reserve(n);
  for (const Rect& r : rects) edges_.push_back(Edges{r.x, r.y, r.x + r.width, r.y + r.height});
  const std::vector<Edges>& boxes = edges_;
  std::vector<size_t> gridded;
  std::vector<double> sides;
  double minX = 0.0, minY = 0.0, maxX = 0.0, maxY = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const Edges& e = boxes[i];
    if (!Finite(e)) {
      span_[i].wild = true;
    } else if (e.right > e.left && e.bottom > e.top) {
      if (gridded.empty()) {
        minX = e.left, minY = e.top, maxX = e.right, maxY = e.bottom;
      }
      minX = std::min<double>(minX, e.left), minY = std::min<double>(minY, e.top);
      maxX = std::max<double>(maxX, e.right), maxY = std::max<double>(maxY, e.bottom);
      gridded.push_back(i);
      sides.push_back(std::max(static_cast<double>(e.right) - e.left,
                               static_cast<double>(e.bottom) - e.top));
    }
  }
  // Cell side: the median box side, so a typical box spans one or two cells;
  // widened while the grid would have more than a few cells per box.
  double side = 1.0;
  if (!sides.empty()) {
    std::nth_element(sides.begin(), sides.begin() + sides.size() / 2, sides.end());
    side = sides[sides.size() / 2];
    if (!(side > 0.0) || !std::isfinite(side)) side = 1.0;
  }
  const double cellLimit = 4.0 * static_cast<double>(gridded.size()) + 16.0;
  while (((maxX - minX) / side + 1.0) * ((maxY - minY) / side + 1.0) > cellLimit) side *= 2.0;
  // Monotonic in the value, so boxes that overlap share the cell of any
  // point they have in common.
  const auto cell = [&](double value, double origin) {
    return static_cast<int64_t>(std::floor((value - origin) / side));
  };
  columns_ = cell(maxX, minX) + 1;
  const int64_t rows = cell(maxY, minY) + 1;

  // Room in each cell for every box that covers it.
  cellStart_.assign(static_cast<size_t>(columns_ * rows) + 1, 0);
  for (size_t i : gridded) {
    const Edges& e = boxes[i];
    Span& s = span_[i];
    s.x0 = cell(e.left, minX), s.x1 = std::min(cell(e.right, minX), columns_ - 1);
    s.y0 = cell(e.top, minY), s.y1 = std::min(cell(e.bottom, minY), rows - 1);
    if (s.x1 - s.x0 >= kMaxSpan || s.y1 - s.y0 >= kMaxSpan) {
      s.wild = true;
      continue;
    }
    for (int64_t y = s.y0; y <= s.y1; ++y) {
      for (int64_t x = s.x0; x <= s.x1; ++x) ++cellStart_[static_cast<size_t>(y * columns_ + x) + 1];
    }
  }
  for (size_t k = 1; k < cellStart_.size(); ++k) cellStart_[k] += cellStart_[k - 1];
  members_.reset(new Member[cellStart_.back()]);
  cellFill_.assign(cellStart_.size() - 1, 0);
  inserted_.reserve(n);
}

void TouchIndex::Clear() {
  std::fill(cellFill_.begin(), cellFill_.end(), 0);
  inserted_.clear();
  wild_.clear();
}

void TouchIndex::Insert(size_t box) {
  inserted_.push_back(box);
  const Span& s = span_[box];
  if (s.wild) {
    wild_.push_back(box);
    return;
  }
  for (int64_t y = s.y0; y <= s.y1; ++y) {
    for (int64_t x = s.x0; x <= s.x1; ++x) {
      const size_t cell = static_cast<size_t>(y * columns_ + x);
      members_[cellStart_[cell] + cellFill_[cell]++] = Member{rects_[box], box};
    }
  }
}

}  // namespace DetectorCommon
