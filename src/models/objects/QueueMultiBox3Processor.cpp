#include "models/objects/QueueMultiBox3Processor.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "models/frames/DetectorCommon.h"
#include "runtime/Contracts.h"
#include "runtime/ModelRun.h"

namespace {

constexpr char kPixelsNode[] = "input_001";
constexpr char kShapeNode[] = "InputShape";
constexpr const char* const kOutputNodes[3] = {"output_node0", "output_node1", "output_node2"};
// Side of the letterboxed canvas the graph works on.
constexpr int kCanvasSize = 416;
constexpr float kAnchors[3][6] = {{116, 90, 156, 198, 373, 326},
                                  {30, 61, 62, 45, 59, 119},
                                  {10, 13, 16, 30, 33, 23}};
// A class score this close to 0 was cleared (or never there): it
// suppresses nothing.
constexpr double kClearedScore = 1e-7;

// Canvas fractions back to fractions of the image, removing the grey bars
// the graph added around it; all in float, nothing clamped.
void MapFromCanvas(std::vector<NativeBoundingBox>& boxes, const Image& image) {
  const float canvas = static_cast<float>(kCanvasSize);
  const float scale = static_cast<float>(std::max(image.width, image.height)) / canvas;
  const float shownWidth = static_cast<float>(image.width) / scale;
  const float shownHeight = static_cast<float>(image.height) / scale;
  const auto padX = static_cast<float>(DetectorCommon::TruncateToInt((canvas - shownWidth) * 0.5f));
  const auto padY =
      static_cast<float>(DetectorCommon::TruncateToInt((canvas - shownHeight) * 0.5f));
  for (NativeBoundingBox& box : boxes) {
    box.x = (box.x * canvas - padX) / shownWidth;
    box.y = (box.y * canvas - padY) / shownHeight;
    box.width = box.width * (canvas / shownWidth);
    box.height = box.height * (canvas / shownHeight);
  }
}

}  // namespace

BoxDetectionResult* QueueMultiBox3Processor::Detect(const BoxDetectionInputData& input) {
  // The graph resizes and letterboxes itself: it gets the bytes as
  // delivered and their shape.
  const Image& image = input.image;
  int32_t shape[3] = {image.height, image.width, image.channels};
  return RunModel<BoxDetectionResult*>(
      *this, kKeepsShapeOnFailedRun, nullptr, {kPixelsNode, kShapeNode}, kOutputNodes,
      [&] { return Contracts::ImageRecord(image, Contracts::Channels::kAnyPositive); },
      [&](TF_Tensor** in) {
        const int32_t length = DetectorCommon::PixelCount(image, image.channels);
        in[0] = TFCommon::BorrowTensor(TF_UINT8, {length}, image.pixels,
                                       static_cast<size_t>(static_cast<int64_t>(length)));
        in[1] = TFCommon::BorrowTensor(TF_INT32, {3}, shape, sizeof(shape));
      },
      [](TF_Tensor* const* out) { return MultiBoxDetectorCommon::CheckHeads(out, kOutputNodes); },
      [&](TF_Tensor* const* out) {
        std::vector<BoundingBoxClasses> candidates;
        MultiBoxDetectorCommon::DecodeHeads(
            out, kAnchors, 3, [&](float* data, const long* dims, std::vector<float> anchors) {
              FetchFromArrayOfArrays(candidates, data, dims, input.scoreThreshold, anchors);
            });
        RemoveOverlappingBoxes(candidates, input.overlapThreshold);
        std::vector<NativeBoundingBox> boxes = RemoveWeakBoxes(candidates, input.scoreThreshold);
        MapFromCanvas(boxes, image);
        return DetectorCommon::NewResult(boxes);
      });
}

float QueueMultiBox3Processor::GetIntersectionRatio(const BoundingBoxClasses& a,
                                                    const BoundingBoxClasses& b) {
  return DetectorCommon::IntersectionRatio(a, b);
}

std::vector<float> QueueMultiBox3Processor::GetClasses(const float* data, int first, int count,
                                                       float objectness, float scoreThreshold) {
  return MultiBoxDetectorCommon::GetClasses(data, first, count, objectness, scoreThreshold);
}

void QueueMultiBox3Processor::FetchFromArrayOfArrays(std::vector<BoundingBoxClasses>& candidates,
                                                     float* data, const long* dims,
                                                     float scoreThreshold,
                                                     std::vector<float> anchors) {
  // The canvas is the graph's own; boxes larger than it are kept.
  MultiBoxDetectorCommon::DecodeHead(candidates, data, dims, scoreThreshold, anchors,
                                     static_cast<double>(kCanvasSize), false);
}

std::vector<size_t> QueueMultiBox3Processor::SortBoxIndexes(
    const std::vector<BoundingBoxClasses>& candidates, int classIndex) {
  return DetectorCommon::StableOrder(
      candidates.size(),
      [&](size_t i) { return MultiBoxDetectorCommon::ClassScore(candidates[i], classIndex); },
      [](float a, float b) { return a < b; });
}

void QueueMultiBox3Processor::RemoveOverlappingBoxes(std::vector<BoundingBoxClasses>& candidates,
                                                     float overlapThreshold) {
  if (candidates.empty()) return;
  const auto classCount = static_cast<int>(candidates.front().classes.size());
  if (DetectorCommon::OnlyTouchingPairsCount(overlapThreshold)) {
    // Only touching pairs can reach the threshold. A candidate keeps class c
    // while it still holds a score when its turn comes, and loses it exactly
    // when an earlier keeper overlaps it enough; so each candidate asks the
    // keepers before it, stopping at the first that clears it.
    DetectorCommon::TouchIndex keepers(DetectorCommon::RectsOf(candidates));
    for (int c = 0; c < classCount; ++c) {
      keepers.Clear();
      for (size_t j : SortBoxIndexes(candidates, c)) {
        BoundingBoxClasses& other = candidates[j];
        // Only a class score that clearing would change needs the walk: one
        // the candidate lacks, or one that is already +0, stays as it is and
        // makes no keeper. A real head zeroes most scores below the score
        // threshold, so most candidates skip it.
        const bool holdsClass = static_cast<size_t>(c) < other.classes.size();
        const float score = holdsClass ? other.classes[static_cast<size_t>(c)] : 0.0f;
        if (holdsClass && (score != 0.0f || std::signbit(score))) {
          const DetectorCommon::Rect& later = keepers.RectOf(j);
          const bool cleared =
              keepers.AnyTouching(j, [&](size_t, const DetectorCommon::Rect& keeper) {
                return DetectorCommon::IntersectionRatio(keeper, later) >= overlapThreshold;
              });
          if (cleared) other.classes[static_cast<size_t>(c)] = 0.0f;
        }
        if (!(std::fabs(MultiBoxDetectorCommon::ClassScore(other, c)) < kClearedScore)) {
          keepers.Insert(j);
        }
      }
    }
    return;
  }
  for (int c = 0; c < classCount; ++c) {
    // Ascending on purpose: of two overlapping candidates the lower score
    // keeps the class.
    const std::vector<size_t> order = SortBoxIndexes(candidates, c);
    for (size_t i = 0; i < order.size(); ++i) {
      const BoundingBoxClasses& keeper = candidates[order[i]];
      if (std::fabs(MultiBoxDetectorCommon::ClassScore(keeper, c)) < kClearedScore) continue;
      for (size_t j = i + 1; j < order.size(); ++j) {
        BoundingBoxClasses& other = candidates[order[j]];
        if (GetIntersectionRatio(keeper, other) >= overlapThreshold &&
            static_cast<size_t>(c) < other.classes.size()) {
          other.classes[static_cast<size_t>(c)] = 0.0f;
        }
      }
    }
  }
}

std::vector<NativeBoundingBox> QueueMultiBox3Processor::RemoveWeakBoxes(
    const std::vector<BoundingBoxClasses>& candidates, float scoreThreshold) {
  return MultiBoxDetectorCommon::ConvertStrongBoxCandidatesToNativeBoxes(candidates,
                                                                        scoreThreshold);
}
