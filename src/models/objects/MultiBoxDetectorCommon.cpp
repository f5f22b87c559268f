#include "models/objects/MultiBoxDetectorCommon.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "models/frames/DetectorCommon.h"
#include "runtime/Contracts.h"

namespace MultiBoxDetectorCommon {

namespace {

constexpr int kAnchorsPerCell = 3;
// tx, ty, tw, th and the objectness term come before the class terms.
constexpr int kBoxTerms = 5;
// A record whose class scores add up to no more than this carries nothing.
constexpr float kClassSumFloor = 1e-7f;

}  // namespace

void DecodeHead(std::vector<BoundingBoxClasses>& candidates, const float* data, const long* dims,
                float scoreThreshold, const std::vector<float>& anchors, double inputSize,
                bool limitSize) {
  const long columns = dims[2];
  const auto recordLength = static_cast<int32_t>(dims[3] / kAnchorsPerCell);
  // 32-bit, as the walk's bound has always been (wrapping, not overflowing).
  const auto total = static_cast<int32_t>(static_cast<uint32_t>(dims[1]) *
                                          static_cast<uint32_t>(columns) * kAnchorsPerCell *
                                          static_cast<uint32_t>(recordLength));
  // With no class terms every class sum is 0 and nothing could be kept;
  // stopping here also keeps the objectness read inside the head.
  if (total < 1 || recordLength <= kBoxTerms) return;

  int anchor = 0;
  long column = 0;
  long row = 0;
  for (int64_t start = 0; start < total; start += recordLength) {
    const float* record = data + start;
    const float objectness = DetectorCommon::Sigmoid(record[4]);
    std::vector<float> classes = GetClasses(data, static_cast<int>(start + kBoxTerms),
                                            recordLength - kBoxTerms, objectness, scoreThreshold);
    const float anchorWidth = anchors[2 * anchor];
    const float anchorHeight = anchors[2 * anchor + 1];
    const long cellColumn = column;
    const long cellRow = row;
    if (++anchor == kAnchorsPerCell) {
      anchor = 0;
      if (++column == columns) {
        column = 0;
        ++row;
      }
    }

    float sum = 0.0f;
    for (float score : classes) sum += score;
    if (!(sum > kClassSumFloor)) continue;

    const auto width =
        static_cast<float>(anchorWidth * std::exp(static_cast<double>(record[2])) / inputSize);
    const auto height =
        static_cast<float>(anchorHeight * std::exp(static_cast<double>(record[3])) / inputSize);
    if (limitSize && (width > 1.0f || height > 1.0f)) continue;

    const float x = (static_cast<float>(cellColumn) + DetectorCommon::Sigmoid(record[0])) /
                        static_cast<float>(columns) -
                    0.5f * width;
    const float y = (static_cast<float>(cellRow) + DetectorCommon::Sigmoid(record[1])) /
                        static_cast<float>(dims[1]) -
                    0.5f * height;
    candidates.push_back(BoundingBoxClasses{x, y, width, height, std::move(classes), objectness});
  }
}

void FetchFromArrayOfArrays(std::vector<BoundingBoxClasses>& candidates, float* data,
                            const long* dims, float scoreThreshold, std::vector<float> anchors,
                            int inputSize) {
  DecodeHead(candidates, data, dims, scoreThreshold, anchors, static_cast<double>(inputSize),
             true);
}

std::vector<float> GetClasses(const float* data, int first, int count, float objectness,
                              float scoreThreshold) {
  std::vector<float> classes;
  for (int i = 0; i < count; ++i) {
    const float score = DetectorCommon::Sigmoid(data[first + i]) * objectness;
    classes.push_back(scoreThreshold > score ? 0.0f : score);
  }
  return classes;
}

float ClassScore(const BoundingBoxClasses& candidate, int classIndex) {
  return static_cast<size_t>(classIndex) < candidate.classes.size()
             ? candidate.classes[static_cast<size_t>(classIndex)]
             : 0.0f;
}

std::vector<size_t> SortBoxIndexes(const std::vector<BoundingBoxClasses>& candidates) {
  return DetectorCommon::StableOrder(
      candidates.size(), [&](size_t i) { return candidates[i].objectness; },
      [](float a, float b) { return a > b; });
}

std::vector<size_t> SortBoxIndexes(const std::vector<BoundingBoxClasses>& candidates,
                                   int classIndex) {
  return DetectorCommon::StableOrder(
      candidates.size(), [&](size_t i) { return ClassScore(candidates[i], classIndex); },
      [](float a, float b) { return a > b; });
}

float GetIntersectionRatio(const BoundingBoxClasses& a, const BoundingBoxClasses& b) {
  return DetectorCommon::IntersectionRatio(a, b);
}

void RemoveOverlappingBoxes(std::vector<BoundingBoxClasses>& candidates, float overlapThreshold) {
  if (candidates.empty()) return;
  const std::vector<size_t> order = SortBoxIndexes(candidates);
  // Every candidate of one model has the first one's class count.
  const size_t classCount = candidates.front().classes.size();
  const auto clear = [&](size_t index) {
    std::vector<float>& classes = candidates[index].classes;
    std::fill_n(classes.begin(), std::min(classCount, classes.size()), 0.0f);
  };
  if (!DetectorCommon::OnlyTouchingPairsCount(overlapThreshold)) {
    for (size_t i = 0; i < order.size(); ++i) {
      for (size_t j = i + 1; j < order.size(); ++j) {
        if (GetIntersectionRatio(candidates[order[i]], candidates[order[j]]) >= overlapThreshold) {
          clear(order[j]);
        }
      }
    }
    return;
  }
  // A cleared candidate still clears those after it, so a candidate is
  // cleared exactly when an earlier one overlaps it enough: only touching
  // pairs can.
  DetectorCommon::TouchIndex index(DetectorCommon::RectsOf(candidates));
  std::vector<bool> cleared(candidates.size(), false);
  for (size_t j : order) {
    const DetectorCommon::Rect& later = index.RectOf(j);
    cleared[j] = index.AnyTouching(j, [&](size_t, const DetectorCommon::Rect& earlier) {
      return DetectorCommon::IntersectionRatio(earlier, later) >= overlapThreshold;
    });
    index.Insert(j);
  }
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (cleared[i]) clear(i);
  }
}

std::string CheckHeads(TF_Tensor* const* heads, const char* const* names) {
  for (int i = 0; i < 3; ++i) {
    std::string broken = Contracts::GridHead(heads[i], names[i]);
    if (!broken.empty()) return broken;
  }
  return std::string();
}

std::vector<BoundingBoxClasses> ApplyNms(const std::vector<BoundingBoxClasses>& candidates,
                                         float overlapThreshold) {
  std::vector<BoundingBoxClasses> suppressed = candidates;
  RemoveOverlappingBoxes(suppressed, overlapThreshold);
  return suppressed;
}

std::vector<NativeBoundingBox> ConvertStrongBoxCandidatesToNativeBoxes(
    const std::vector<BoundingBoxClasses>& candidates, float scoreThreshold) {
  std::vector<NativeBoundingBox> boxes;
  boxes.reserve(candidates.size());
  for (const BoundingBoxClasses& candidate : candidates) {
    const std::vector<float>& classes = candidate.classes;
    if (classes.empty()) continue;
    // max_element keeps the first of equal maxima: ties go to the lower class.
    const auto best = std::max_element(classes.begin(), classes.end());
    const float score = *best;
    if (scoreThreshold > score) continue;
    boxes.push_back(NativeBoundingBox{candidate.x, candidate.y, candidate.width, candidate.height,
                                      static_cast<int32_t>(best - classes.begin()), score});
  }
  return boxes;
}

}  // namespace MultiBoxDetectorCommon
