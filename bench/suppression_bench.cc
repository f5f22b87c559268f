// Suppression at the sizes a hostile or careless graph can return: 100,000
// face rows and 100,000 grid candidates, in canvas fractions like a real
// detector's, through each detector's suppression. Two crowds: box sides of
// 1 to 10 % of the canvas (each box touches about a thousand others) and of
// 0.2 to 2 % (a few dozen). Prints milliseconds per call (best of five).
// The queue detector suppresses class by class; it also runs on class
// scores zeroed below a score threshold, as its head decodes them.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "models/face/FaceDetectorProcessor.h"
#include "models/objects/MultiBoxDetectorCommon.h"
#include "models/objects/QueueMultiBox3Processor.h"

namespace {

double BestMilliseconds(const std::function<void()>& run) {
  double best = 1e300;
  for (int i = 0; i < 5; ++i) {
    const auto start = std::chrono::steady_clock::now();
    run();
    const std::chrono::duration<double, std::milli> took =
        std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count());
  }
  return best;
}

void Run(size_t rows, float largest) {
  const float threshold = 0.3f;
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<NativeBoundingBox> boxes;
  std::vector<BoundingBoxClasses> candidates;
  for (size_t i = 0; i < rows; ++i) {
    const float side = largest * (0.1f + 0.9f * unit(rng));
    const float x = unit(rng), y = unit(rng), score = unit(rng);
    boxes.push_back(NativeBoundingBox{x, y, side, side, 0, score});
    candidates.push_back(BoundingBoxClasses{x, y, side, side, {score, 1 - score}, score});
  }
  // The models' state is not used by their suppression; an empty graph does.
  const char device[] = "";
  const ModelOptions options{0, "", device};
  FaceDetectorProcessor face(options);
  QueueMultiBox3Processor queue(options);

  size_t kept = 0;
  const double faceMs = BestMilliseconds([&] {
    std::vector<NativeBoundingBox> copy = boxes;
    kept = face.RemoveOverlappingBoxes(copy, threshold).size();
  });
  std::printf("  face detector: %zu rows, %zu kept, %.1f ms\n", rows, kept, faceMs);
  const double gridMs = BestMilliseconds([&] {
    std::vector<BoundingBoxClasses> copy = candidates;
    MultiBoxDetectorCommon::RemoveOverlappingBoxes(copy, threshold);
  });
  std::printf("  grid detectors: %zu candidates, %.1f ms\n", rows, gridMs);
  const double queueMs = BestMilliseconds([&] {
    std::vector<BoundingBoxClasses> copy = candidates;
    queue.RemoveOverlappingBoxes(copy, threshold);
  });
  std::printf("  queue detector: %zu candidates, 2 classes, %.1f ms\n", rows, queueMs);
  // As a grid head decodes them: a class score below the score threshold
  // is stored as 0.
  std::vector<BoundingBoxClasses> decoded = candidates;
  for (BoundingBoxClasses& candidate : decoded) {
    for (float& score : candidate.classes) score = score < 0.25f ? 0.0f : score;
  }
  const double decodedMs = BestMilliseconds([&] {
    std::vector<BoundingBoxClasses> copy = decoded;
    queue.RemoveOverlappingBoxes(copy, threshold);
  });
  std::printf("  queue detector, scores below 0.25 zeroed as a head decodes them: %.1f ms\n",
              decodedMs);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t rows = argc > 1 ? std::stoul(argv[1]) : 100000;
  for (const float largest : {0.1f, 0.02f}) {
    std::printf("box sides %.1f %% to %.0f %% of the canvas\n", largest * 10, largest * 100);
    Run(rows, largest);
  }
  return 0;
}
