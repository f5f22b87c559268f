// Suppression walks only the pairs that can overlap; these tests hold it to
// the full pairwise walk it replaced, on random candidates that include the
// awkward cases: ties, duplicates, boxes of no or negative size, NaN and
// infinite edges, and thresholds of 0, below 0, NaN and 1.
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "models/face/FaceDetectorProcessor.h"
#include "models/frames/DetectorCommon.h"
#include "models/objects/MultiBoxDetectorCommon.h"
#include "models/objects/QueueMultiBox3Processor.h"

namespace {

using library_test::IdentityGraph;
using library_test::OptionsFor;

// The pairwise walks as they were, kept as the oracle.
void FaceOracle(std::vector<NativeBoundingBox>& boxes, float threshold) {
  std::vector<size_t> order = DetectorCommon::Indexes(boxes.size());
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return boxes[a].score < boxes[b].score; });
  for (size_t i = 0; i < order.size(); ++i) {
    for (size_t j = i + 1; j < order.size(); ++j) {
      if (DetectorCommon::IntersectionRatio(boxes[order[i]], boxes[order[j]]) >= threshold) {
        boxes[order[j]].score = 0.0f;
      }
    }
  }
}

void GridOracle(std::vector<BoundingBoxClasses>& candidates, float threshold) {
  if (candidates.empty()) return;
  const std::vector<size_t> order = MultiBoxDetectorCommon::SortBoxIndexes(candidates);
  const size_t classCount = candidates.front().classes.size();
  for (size_t i = 0; i < order.size(); ++i) {
    for (size_t j = i + 1; j < order.size(); ++j) {
      if (DetectorCommon::IntersectionRatio(candidates[order[i]], candidates[order[j]]) >=
          threshold) {
        std::vector<float>& classes = candidates[order[j]].classes;
        std::fill_n(classes.begin(), std::min(classCount, classes.size()), 0.0f);
      }
    }
  }
}

void QueueOracle(std::vector<BoundingBoxClasses>& candidates, float threshold) {
  if (candidates.empty()) return;
  const auto classCount = static_cast<int>(candidates.front().classes.size());
  for (int c = 0; c < classCount; ++c) {
    std::vector<size_t> order = DetectorCommon::Indexes(candidates.size());
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      return MultiBoxDetectorCommon::ClassScore(candidates[a], c) <
             MultiBoxDetectorCommon::ClassScore(candidates[b], c);
    });
    for (size_t i = 0; i < order.size(); ++i) {
      const BoundingBoxClasses& keeper = candidates[order[i]];
      if (std::fabs(MultiBoxDetectorCommon::ClassScore(keeper, c)) < 1e-7) continue;
      for (size_t j = i + 1; j < order.size(); ++j) {
        BoundingBoxClasses& other = candidates[order[j]];
        if (DetectorCommon::IntersectionRatio(keeper, other) >= threshold &&
            static_cast<size_t>(c) < other.classes.size()) {
          other.classes[static_cast<size_t>(c)] = 0.0f;
        }
      }
    }
  }
}

// Equal bit for bit, so that a NaN score left in place counts as kept.
bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

struct Geometry { float x, y, width, height; };

// Clustered boxes, so that many pairs overlap, with a few oddities.
std::vector<Geometry> RandomGeometry(std::mt19937& rng, size_t count) {
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::uniform_int_distribution<int> odd(0, 40);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<Geometry> boxes;
  for (size_t i = 0; i < count; ++i) {
    Geometry g{unit(rng) * 4, unit(rng) * 4, 0.05f + unit(rng) * 0.6f, 0.05f + unit(rng) * 0.6f};
    switch (odd(rng)) {
      case 0: g.width = -g.width; break;
      case 1: g.height = 0.0f; break;
      case 2: g.x = nan; break;
      case 3: g.width = inf; break;
      case 4: if (!boxes.empty()) g = boxes[i / 2]; break;  // a duplicate
      case 5: g.width = 30.0f; g.height = 30.0f; break;      // spans the grid
      default: break;
    }
    boxes.push_back(g);
  }
  return boxes;
}

const float kThresholds[] = {0.5f, 0.1f, 1.0f, 0.0f, -0.5f,
                             std::numeric_limits<float>::quiet_NaN()};

TEST(Suppression, TouchingPairsGiveTheSameBoxesAsTheFullWalk) {
  const std::string graph = IdentityGraph();
  FaceDetectorProcessor face(OptionsFor(graph));
  QueueMultiBox3Processor queue(OptionsFor(graph));
  std::mt19937 rng(17);
  std::uniform_int_distribution<int> coarse(0, 22);  // many ties
  // Scores with ties, NaN and a value too small to clear anything.
  const auto score = [&](std::mt19937& r) {
    const int s = coarse(r);
    return s == 21 ? std::numeric_limits<float>::quiet_NaN() : s == 22 ? 1e-8f : s / 20.0f;
  };
  for (int round = 0; round < 31; ++round) {
    // Mostly small crowds, and one of thousands over many grid cells.
    const size_t count = round < 3 ? static_cast<size_t>(round)
                         : round == 30 ? 2000
                                       : 50 + 40 * (round % 7);
    const std::vector<Geometry> geometry = RandomGeometry(rng, count);
    for (float threshold : kThresholds) {
      SCOPED_TRACE(::testing::Message() << "round " << round << " threshold " << threshold);
      std::vector<NativeBoundingBox> boxes;
      std::vector<BoundingBoxClasses> candidates;
      for (const Geometry& g : geometry) {
        boxes.push_back(NativeBoundingBox{g.x, g.y, g.width, g.height, 0, score(rng)});
        candidates.push_back(BoundingBoxClasses{
            g.x, g.y, g.width, g.height, {score(rng), score(rng), score(rng)}, score(rng)});
        // Now and then a candidate short of the first one's class count.
        if (candidates.size() > 1 && coarse(rng) == 0) candidates.back().classes.pop_back();
      }

      std::vector<NativeBoundingBox> expected = boxes;
      FaceOracle(expected, threshold);
      std::vector<NativeBoundingBox> survivors = face.RemoveOverlappingBoxes(boxes, threshold);
      ASSERT_EQ(boxes.size(), expected.size());
      EXPECT_TRUE(boxes.empty() || std::memcmp(boxes.data(), expected.data(),
                                               boxes.size() * sizeof(NativeBoundingBox)) == 0);
      size_t kept = 0;
      for (const NativeBoundingBox& box : expected) kept += box.score > 1e-5f ? 1 : 0;
      EXPECT_EQ(survivors.size(), kept);

      std::vector<BoundingBoxClasses> grid = candidates;
      std::vector<BoundingBoxClasses> gridExpected = candidates;
      MultiBoxDetectorCommon::RemoveOverlappingBoxes(grid, threshold);
      GridOracle(gridExpected, threshold);
      std::vector<BoundingBoxClasses> perClass = candidates;
      std::vector<BoundingBoxClasses> perClassExpected = candidates;
      queue.RemoveOverlappingBoxes(perClass, threshold);
      QueueOracle(perClassExpected, threshold);
      for (size_t i = 0; i < candidates.size(); ++i) {
        ASSERT_TRUE(SameBits(grid[i].classes, gridExpected[i].classes)) << i;
        ASSERT_TRUE(SameBits(perClass[i].classes, perClassExpected[i].classes)) << i;
      }
    }
  }
}

}  // namespace
