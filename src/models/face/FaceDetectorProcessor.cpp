#include "models/face/FaceDetectorProcessor.h"

#include <algorithm>
#include <cstdint>

#include <opencv2/imgproc.hpp>

#include "models/frames/DetectorCommon.h"
#include "runtime/Contracts.h"
#include "runtime/ModelRun.h"

namespace {

constexpr char kInputNode[] = "images";
constexpr char kOutputNode[] = "Identity";
constexpr int kCanvasSize = 512;
constexpr int kGrey = 127;
constexpr int kValuesPerRow = 5;
// Boxes whose score was zeroed by suppression (or was never above it) go.
constexpr double kSurvivorFloor = 1e-5;

}  // namespace

BoxDetectionResult* FaceDetectorProcessor::Detect(const BoxDetectionInputData& input) {
  double scaleX = 0.0;
  double scaleY = 0.0;
  int padX = 0;
  int padY = 0;
  // Fed without a copy, so it lives until the run's outputs have been read.
  cv::Mat canvas;
  return RunModel<BoxDetectionResult*>(
      *this, kStandardRun, nullptr, {kInputNode}, {kOutputNode},
      [&] { return Contracts::ImageRecord(input.image, Contracts::Channels::kAssumedThree, 1,
                                                   Contracts::Bytes::kFitIn64Bits); },
      [&](TF_Tensor** in) {
        canvas = PreProcessImage(input.image, kCanvasSize, kCanvasSize, scaleX, scaleY, padX, padY);
        in[0] = TFCommon::BorrowTensor(
            TF_FLOAT, {1, canvas.rows, canvas.cols, 3}, canvas.data,
            static_cast<size_t>(canvas.rows) * static_cast<size_t>(canvas.cols) * 12);
      },
      [](TF_Tensor* const* out) {
        int64_t rows = 0;
        return Contracts::Table(out[0], kOutputNode, 3, 1, kValuesPerRow, &rows);
      },
      [&](TF_Tensor* const* out) {
        std::vector<NativeBoundingBox> boxes =
            ParseBoxes(static_cast<int>(TF_Dim(out[0], 1)),
                       static_cast<const float*>(TF_TensorData(out[0])), input.scoreThreshold);
        std::vector<NativeBoundingBox> survivors =
            RemoveOverlappingBoxes(boxes, input.overlapThreshold);
        ScaleBoxes(survivors, kCanvasSize, kCanvasSize, scaleX, scaleY, padX, padY);
        return DetectorCommon::NewResult(survivors);
      });
}

cv::Mat FaceDetectorProcessor::PreProcessImage(Image image, int targetWidth, int targetHeight,
                                               double& scaleX, double& scaleY, int& padX,
                                               int& padY) {
  const cv::Mat view = DetectorCommon::PixelView(image, 3);

  const double factor = std::min(static_cast<double>(targetWidth) / image.width,
                                 static_cast<double>(targetHeight) / image.height);
  scaleX = factor;
  scaleY = factor;
  cv::Mat resized;
  // OpenCV rounds each side of the scaled image; an image thinner than
  // 1:1024 would round one to 0 pixels, which is kept at one instead.
  const cv::Size scaled(cv::saturate_cast<int>(image.width * factor),
                        cv::saturate_cast<int>(image.height * factor));
  if (scaled.width > 0 && scaled.height > 0) {
    cv::resize(view, resized, cv::Size(), factor, factor, cv::INTER_LINEAR);
  } else {
    cv::resize(view, resized, cv::Size(std::max(1, scaled.width), std::max(1, scaled.height)), 0,
               0, cv::INTER_LINEAR);
  }
  padX = (targetWidth - resized.cols) / 2;
  padY = (targetHeight - resized.rows) / 2;

  // The grey canvas with the picture centred on it, swapped to RGB and
  // widened to float, written in one pass: the values of composing a byte
  // canvas, cvtColor and convertTo, without three full-size intermediates.
  cv::Mat canvas(targetHeight, targetWidth, CV_32FC3);
  const float grey = static_cast<float>(kGrey);
  const int left = std::max(0, padX), right = std::min(targetWidth, padX + resized.cols);
  cv::parallel_for_(cv::Range(0, targetHeight), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      float* out = canvas.ptr<float>(y);
      const int sourceRow = y - padY;
      if (sourceRow < 0 || sourceRow >= resized.rows) {
        std::fill(out, out + targetWidth * 3, grey);
        continue;
      }
      std::fill(out, out + left * 3, grey);
      const uint8_t* in = resized.ptr<uint8_t>(sourceRow) + (left - padX) * 3;
      for (int x = left; x < right; ++x, in += 3) {
        out[x * 3] = in[2];
        out[x * 3 + 1] = in[1];
        out[x * 3 + 2] = in[0];
      }
      std::fill(out + right * 3, out + targetWidth * 3, grey);
    }
  });
  return canvas;
}

std::vector<NativeBoundingBox> FaceDetectorProcessor::ParseBoxes(int count, const float* rows,
                                                                 float scoreThreshold) {
  std::vector<NativeBoundingBox> boxes;
  for (int i = 0; i < count; ++i) {
    const float* row = rows + static_cast<size_t>(i) * kValuesPerRow;
    const float score = row[4];
    if (scoreThreshold > score) continue;
    boxes.push_back(NativeBoundingBox{row[0], row[1], row[2] - row[0], row[3] - row[1], 0, score});
  }
  return boxes;
}

std::vector<size_t> FaceDetectorProcessor::SortBoxIndexes(
    const std::vector<NativeBoundingBox>& boxes) {
  return DetectorCommon::StableOrder(
      boxes.size(), [&](size_t i) { return boxes[i].score; },
      [](float a, float b) { return a < b; });
}

float FaceDetectorProcessor::GetIntersectionRatio(const NativeBoundingBox& a,
                                                  const NativeBoundingBox& b) {
  return DetectorCommon::IntersectionRatio(a, b);
}

std::vector<NativeBoundingBox> FaceDetectorProcessor::RemoveOverlappingBoxes(
    std::vector<NativeBoundingBox>& boxes, float overlapThreshold) {
  std::vector<NativeBoundingBox> survivors;
  if (boxes.empty()) return survivors;

  // Lowest score first: of an overlapping pair the weaker box is the one
  // kept, and a box already zeroed still clears the boxes after it. So a box
  // is zeroed exactly when some box before it in that order overlaps it
  // enough, which only the pairs that touch can do.
  const std::vector<size_t> order = SortBoxIndexes(boxes);
  if (DetectorCommon::OnlyTouchingPairsCount(overlapThreshold)) {
    DetectorCommon::TouchIndex index(DetectorCommon::RectsOf(boxes));
    std::vector<bool> zeroed(boxes.size(), false);
    for (size_t j : order) {
      const DetectorCommon::Rect& later = index.RectOf(j);
      zeroed[j] = index.AnyTouching(j, [&](size_t, const DetectorCommon::Rect& earlier) {
        return DetectorCommon::IntersectionRatio(earlier, later) >= overlapThreshold;
      });
      index.Insert(j);
    }
    for (size_t i = 0; i < boxes.size(); ++i) {
      if (zeroed[i]) boxes[i].score = 0.0f;
    }
  } else {
    for (size_t i = 0; i < order.size(); ++i) {
      for (size_t j = i + 1; j < order.size(); ++j) {
        if (GetIntersectionRatio(boxes[order[i]], boxes[order[j]]) >= overlapThreshold) {
          boxes[order[j]].score = 0.0f;
        }
      }
    }
  }

  for (const NativeBoundingBox& box : boxes) {
    if (static_cast<double>(box.score) > kSurvivorFloor) survivors.push_back(box);
  }
  return survivors;
}

void FaceDetectorProcessor::ScaleBoxes(std::vector<NativeBoundingBox>& boxes, int canvasWidth,
                                       int canvasHeight, double scaleX, double scaleY, int padX,
                                       int padY) {
  const auto ax = static_cast<float>(canvasWidth / scaleX);
  const auto bx = static_cast<float>(padX / scaleX);
  const auto ay = static_cast<float>(canvasHeight / scaleY);
  const auto by = static_cast<float>(padY / scaleY);
  for (NativeBoundingBox& box : boxes) {
    const float left = box.x * ax - bx;
    const float top = box.y * ay - by;
    const float right = (box.x + box.width) * ax - bx;
    const float bottom = (box.y + box.height) * ay - by;
    box.x = left;
    box.y = top;
    box.width = right - left;
    box.height = bottom - top;
  }
}
