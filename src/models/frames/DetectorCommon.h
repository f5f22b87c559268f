// Small mechanics every box detector shares: the result record, the
// logistic, the overlap ratio, the pixel view and stretch, and safe reads of
// output tensors whose shape comes from the host's graph.
#ifndef VIDEOANALYTICS_MODELS_FRAMES_DETECTORCOMMON_H_
#define VIDEOANALYTICS_MODELS_FRAMES_DETECTORCOMMON_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "interface/Records.h"
#include "tensorflow/c/c_api.h"

namespace DetectorCommon {

// A new result holding `boxes` in their order; the array is allocated also
// for no boxes, since hosts read `boxes` unconditionally.
BoxDetectionResult* NewResult(const std::vector<NativeBoundingBox>& boxes);

// 1 / (1 + e^-t) in double on the widened term, rounded to float.
float Sigmoid(float term);

// 0, 1, ..., count - 1: the identity order that suppression sorts.
std::vector<size_t> Indexes(size_t count);

// Indexes 0 .. count - 1, stably sorted so that i precedes j when
// before(key(i), key(j)): the same order as stable-sorting Indexes(count)
// on those keys. Each key is read once and sorted beside its index, so a
// sort of 100,000 boxes does not chase indexes through the boxes.
template <typename Key, typename Before>
std::vector<size_t> StableOrder(size_t count, Key&& key, Before&& before) {
  using Value = decltype(key(size_t{0}));
  std::vector<std::pair<Value, size_t>> keyed(count);
  for (size_t i = 0; i < count; ++i) keyed[i] = {key(i), i};
  std::stable_sort(keyed.begin(), keyed.end(),
                   [&](const std::pair<Value, size_t>& a, const std::pair<Value, size_t>& b) {
                     return before(a.first, b.first);
                   });
  std::vector<size_t> order(count);
  for (size_t i = 0; i < count; ++i) order[i] = keyed[i].second;
  return order;
}

// Float to int the way x86 truncates: toward zero, and INT32_MIN for NaN
// or values outside the int range (a C++ cast would be undefined there).
int32_t TruncateToInt(float value);

// width * height * channels in 32-bit signed arithmetic (wrapping rather
// than overflowing); the detectors that feed raw bytes size them this way.
int32_t PixelCount(const Image& image, int32_t channels);

// Intersection over union of two boxes in (x, y, width, height) form, in
// float. No guard against a zero union: two empty boxes give NaN.
template <typename Box>
float IntersectionRatio(const Box& a, const Box& b) {
  const float overlapWidth =
      std::max(0.0f, std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x));
  const float overlapHeight =
      std::max(0.0f, std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y));
  const float intersection = overlapWidth * overlapHeight;
  return intersection / (a.width * a.height + b.width * b.height - intersection);
}

// The host's pixels as an 8-bit matrix of `channels` channels (1 or 3),
// rows packed; no copy. Other channel counts have no pixel type here and
// raise cv::Exception, as does a null pixel pointer for a non-empty image.
cv::Mat PixelView(const Image& image, int channels);

// The image (channels as the image says) resized to size x size, bilinear,
// without keeping the aspect ratio.
cv::Mat StretchImage(const Image& image, int size);

// Number of whole floats the tensor's buffer holds (0 for no tensor).
int64_t HeldFloats(const TF_Tensor* tensor);

// The four dimensions of a grid head. False when the head cannot be walked
// safely (fewer than four dimensions, or fewer floats than H * W * C), in
// which case it contributes no candidates.
bool ReadHeadDims(const TF_Tensor* head, long dims[4]);

// A box's place and size, the fields the overlap ratio reads.
struct Rect {
  float x, y, width, height;
};

// The edges of a box as the overlap ratio computes them, in float.
struct Edges {
  float left, top, right, bottom;
};

// Which boxes already walked may touch a box. A box's intersection with
// another, as IntersectionRatio computes it, can be positive only if both
// share a cell of a grid about one typical box side wide. A box spanning too
// many cells, or with an edge that is not finite (the ratio's min and max
// then depend on argument order), may touch every box; a box of no area
// touches none. Boxes enter as the walk reaches them, so a query reads only
// boxes before it, and only those the walk chose to insert (for a walk where
// a cleared box clears nothing, only the keepers). Building costs O(n log n).
class TouchIndex {
 public:
  explicit TouchIndex(const std::vector<Rect>& boxes);

  const Rect& RectOf(size_t box) const { return rects_[box]; }

  // Empties the index, keeping its grid.
  void Clear();
  void Insert(size_t box);

  // Calls visit(i, rect of i) for every inserted box i that may touch `box`
  // (some more than once), until visit returns true; returns whether one
  // did. The rect travels with the grid so the walk need not fetch box i.
  template <typename Visit>
  bool AnyTouching(size_t box, Visit&& visit) const {
    if (span_[box].wild) {
      for (size_t i : inserted_) {
        if (visit(i, rects_[i])) return true;
      }
      return false;
    }
    const Span& span = span_[box];
    const Edges& e = edges_[box];
    for (int64_t y = span.y0; y <= span.y1; ++y) {
      for (int64_t x = span.x0; x <= span.x1; ++x) {
        const size_t cell = static_cast<size_t>(y * columns_ + x);
        const Member* m = members_.get() + cellStart_[cell];
        for (const Member* end = m + cellFill_[cell]; m != end; ++m) {
          // Positive overlap in float, as the ratio computes it: exact for
          // finite edges, and cheap enough to scan a crowded cell.
          const Rect& r = m->rect;
          if (std::min(e.right, r.x + r.width) > std::max(e.left, r.x) &&
              std::min(e.bottom, r.y + r.height) > std::max(e.top, r.y) && visit(m->box, r)) {
            return true;
          }
        }
      }
    }
    for (size_t i : wild_) {
      if (visit(i, rects_[i])) return true;
    }
    return false;
  }

 private:
  struct Span {
    int64_t x0 = 0, y0 = 0, x1 = -1, y1 = -1;  // cells covered; none by default
    bool wild = false;
  };
  struct Member {
    Rect rect;
    size_t box;
  };
  std::vector<Rect> rects_;
  std::vector<Edges> edges_;
  std::vector<Span> span_;
  std::vector<size_t> inserted_;
  std::vector<size_t> wild_;  // inserted wild boxes
  int64_t columns_ = 0;
  // Cell k has room for its boxes at members_[cellStart_[k] ..
  // cellStart_[k + 1]); the first cellFill_[k] are inserted.
  std::vector<size_t> cellStart_;
  std::vector<size_t> cellFill_;
  std::unique_ptr<Member[]> members_;  // left uninitialised: filled before read
};

template <typename Box>
std::vector<Rect> RectsOf(const std::vector<Box>& boxes) {
  std::vector<Rect> rects;
  rects.reserve(boxes.size());
  for (const Box& box : boxes) rects.push_back(Rect{box.x, box.y, box.width, box.height});
  return rects;
}

// True when suppression at `threshold` can be decided from touching pairs
// alone: a positive threshold (a pair with no intersection has ratio 0 or
// NaN). At 0 or below every pair counts and the full walk is kept; a NaN
// threshold suppresses nothing either way.
inline bool OnlyTouchingPairsCount(float threshold) { return threshold > 0.0f; }

}  // namespace DetectorCommon

#endif  // VIDEOANALYTICS_MODELS_FRAMES_DETECTORCOMMON_H_
