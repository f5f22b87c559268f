// The skeleton detector: the letterboxed canvas it feeds, the keypoints it
// maps back to the image, and how it fails. The graph reports fixed
// keypoints whose scores describe the canvas it was fed (row sums, column
// sums, channel totals), so placement and mapping can both be checked by
// hand.
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "interface/MemoryManager.h"
#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "models/frames/ClassifierVector.h"
#include "support/graph_builder.h"
#include "videoanalytics.h"

namespace {

using library_test::LockIsFree;
using model_test::Answer;
using model_test::HostModel;
using model_test::TensorProbe;
using testing_support::GraphBuilder;
using testing_support::ShapeAttr;

constexpr int32_t kSkeleton = 24;
constexpr int kSide = 192;
constexpr int kScores = kSide + kSide + 3;

// Canvas fractions the graph reports, cycled over the keypoints.
const float kYs[4] = {0.5f, 0.0f, 1.0f, 0.25f};
const float kXs[4] = {0.5f, 0.0f, 1.0f, 0.75f};

// Keypoint k is (kYs[k % 4], kXs[k % 4], score k), scores being the 192 row
// sums, the 192 column sums and the 3 channel totals of the canvas. The
// input is declared [1, 192, 192, 3] of `inputType`, so any other feed
// fails the run.
std::string CanvasGraph(TF_DataType inputType = TF_UINT8, bool withInput = true,
                        bool withOutput = true) {
  GraphBuilder g;
  if (withInput) {
    g.Placeholder("input_0", inputType, ShapeAttr{{1, kSide, kSide, 3}});
    g.Node("Cast", "canvas").Input("input_0").Attr("SrcT", inputType).Attr("DstT", TF_FLOAT);
  } else {
    g.Const<float>("canvas", {1, 1, 1, 3}, {0, 0, 0});
  }
  const std::vector<std::pair<std::string, std::vector<int32_t>>> sums = {
      {"rows", {0, 2, 3}}, {"columns", {0, 1, 3}}, {"channels", {0, 1, 2}}};
  for (const auto& [name, axes] : sums) {
    g.Const<int32_t>(name + "_axes", {3}, axes);
    g.Node("Sum", name).Input("canvas").Input(name + "_axes").Attr("T", TF_FLOAT)
        .Attr("Tidx", TF_INT32).Attr("keep_dims", false);
  }
  g.Const<int32_t>("axis", {}, {0});
  g.Node("ConcatV2", "scores").Input("rows").Input("columns").Input("channels").Input("axis")
      .Attr("N", 3).Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32);
  // Without the input the scores are 5 zeros; the keypoints follow suit.
  const int count = withInput ? kScores : 5;
  std::vector<float> ys(count), xs(count);
  for (int k = 0; k < count; ++k) {
    ys[k] = kYs[k % 4];
    xs[k] = kXs[k % 4];
  }
  g.Const<float>("ys", {count}, ys);
  g.Const<float>("xs", {count}, xs);
  g.Node("Pack", "triples").Input("ys").Input("xs").Input("scores").Attr("N", 3)
      .Attr("T", TF_FLOAT).Attr("axis", 1);
  g.Const<int32_t>("keypoint_shape", {4}, {1, 1, count, 3});
  g.Node("Reshape", withOutput ? "Identity" : "keypoints").Input("triples")
      .Input("keypoint_shape").Attr("T", TF_FLOAT).Attr("Tshape", TF_INT32);
  return g.Serialize();
}

// A W x H image, black except the rectangle [x0, x1) x [y0, y1) in blue 10,
// green 20, red 30.
struct Picture {
  Picture(int width, int height, int x0, int x1, int y0, int y1)
      : width(width), height(height), bytes(static_cast<size_t>(width) * height * 3) {
    for (int y = y0; y < y1; ++y) {
      for (int x = x0; x < x1; ++x) {
        uint8_t* pixel = &bytes[(static_cast<size_t>(y) * width + x) * 3];
        pixel[0] = 10;
        pixel[1] = 20;
        pixel[2] = 30;
      }
    }
  }
  Image image() { return Image{width, height, bytes.data(), 3}; }
  int width, height;
  std::vector<uint8_t> bytes;
};

// The scores of a canvas that is black except rows [r0, r1) x columns
// [c0, c1) in 10, 20, 30 (60 per pixel).
std::vector<float> CanvasScores(int r0, int r1, int c0, int c1) {
  std::vector<float> scores(kScores, 0.0f);
  for (int r = r0; r < r1; ++r) scores[r] = 60.0f * (c1 - c0);
  for (int c = c0; c < c1; ++c) scores[kSide + c] = 60.0f * (r1 - r0);
  const float area = static_cast<float>((r1 - r0) * (c1 - c0));
  scores[2 * kSide] = 10 * area;
  scores[2 * kSide + 1] = 20 * area;
  scores[2 * kSide + 2] = 30 * area;
  return scores;
}

struct Case {
  const char* name;
  Picture picture;
  std::vector<float> scores;  // what the canvas must hold
  float ys[4];                // kYs mapped back to the image
  float xs[4];                // kXs mapped back
};

TEST(SkeletonDetector, LetterboxesTheImageAndMapsKeypointsBack) {
  Case cases[] = {
      // Landscape: 192 x 144 at y = 24. The image's top half is black and
      // the bottom half coloured; bilinear rows 0-71 of the 144 sample
      // source rows up to 238, rows 72-143 from 241, so canvas rows 96-167
      // are coloured. Back: s = 640/192, rw = 192, rh = 144, pads 0 and 24;
      // y 0 -> -24/144, y 1 -> 168/144, y 0.25 -> 24/144.
      {"640 x 480", Picture(640, 480, 0, 640, 240, 480), CanvasScores(96, 168, 0, 192),
       {0.5f, -0.16666667f, 1.1666666f, 0.16666667f},
       {0.5f, 0.0f, 1.0f, 0.75f}},
      // Portrait, the same turned: 144 x 192 at x = 24, right half coloured.
      // x 0.75 -> (144 - 24)/144.
      {"480 x 640", Picture(480, 640, 240, 480, 0, 640), CanvasScores(0, 192, 96, 168),
       {0.5f, 0.0f, 1.0f, 0.25f},
       {0.5f, -0.16666667f, 1.1666666f, 0.8333333f}},
      // 192/37 x 37 is 191.99998 in single precision: 191 rows at y = 0 and
      // the bottom row black. Back, rw = rh = 37/(37/192) = 192.0 and both
      // pads 0, so the fractions come back unchanged.
      {"37 x 37", Picture(37, 37, 0, 37, 0, 37), CanvasScores(0, 191, 0, 192),
       {0.5f, 0.0f, 1.0f, 0.25f},
       {0.5f, 0.0f, 1.0f, 0.75f}},
      // 192/300 x 101 = 64.64 -> 64 rows at y = (192 - 64)/2 = 64. Back,
      // s = 1.5625, rh = 64.64 (untruncated) and padY = trunc(63.68) = 63,
      // one pixel off the letterbox: y 0.5 -> 33/64.64, y 0 -> -63/64.64,
      // y 1 -> 129/64.64, y 0.25 -> -15/64.64.
      {"300 x 101", Picture(300, 101, 0, 300, 0, 101), CanvasScores(64, 128, 0, 192),
       {0.5105198f, -0.97462875f, 1.9956683f, -0.23205446f},
       {0.5f, 0.0f, 1.0f, 0.75f}},
  };
  HostModel model(kSkeleton, CanvasGraph());
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    TensorProbe probe;
    const Answer answer = model.PredictVector(c.picture.image());
    ASSERT_EQ(answer.code, 0) << answer.message;
    ASSERT_EQ(answer.values.size(), 3u * kScores);
    EXPECT_EQ(probe.Alive(), 0);
    std::vector<float> scores(kScores);
    for (int k = 0; k < kScores; ++k) {
      EXPECT_FLOAT_EQ(answer.values[3 * k], c.ys[k % 4]) << "keypoint " << k;
      EXPECT_FLOAT_EQ(answer.values[3 * k + 1], c.xs[k % 4]) << "keypoint " << k;
      scores[k] = answer.values[3 * k + 2];  // scores pass unchanged
    }
    EXPECT_EQ(scores, c.scores);
  }
}

TEST(SkeletonDetector, CopiesDimensionsTwoAndThreeAndMapsWholeTriplesOnly) {
  Picture picture(640, 480, 0, 0, 0, 0);  // maps y 0 to -1/6, x unchanged
  const float sixth = -0.16666667f;
  struct Shape {
    std::vector<int64_t> dims;
    std::vector<float> values;
    std::vector<float> expected;
  };
  const Shape shapes[] = {
      // Dims 2 and 3 give 6 of the 12 values: two triples.
      {{1, 2, 2, 3}, {0, 0, 0.1f, 0, 0, 0.2f, 0, 0, 0.3f, 0, 0, 0.4f},
       {sixth, 0, 0.1f, sixth, 0, 0.2f}},
  };
  for (const Shape& shape : shapes) {
    GraphBuilder g;
    g.Placeholder("input_0", TF_UINT8);
    g.Const<float>("Identity", shape.dims, shape.values);
    HostModel model(kSkeleton, g.Serialize());
    const Answer answer = model.PredictVector(picture.image());
    EXPECT_EQ(answer.code, 0) << answer.message;
    ASSERT_EQ(answer.values.size(), shape.expected.size());
    for (size_t i = 0; i < shape.expected.size(); ++i) {
      EXPECT_FLOAT_EQ(answer.values[i], shape.expected[i]) << i;
    }
  }
}

TEST(SkeletonDetector, ChannelCountsOtherThanThree) {
  HostModel model(kSkeleton, CanvasGraph());
  // A grey image fills a grey canvas, the first 192 x 192 of the 110592
  // bytes the graph reads; the rest stays black. Read as three channels,
  // that is rows 0-63 at 9 in every channel: row sums 9 x 576, column sums
  // 9 x 3 x 64, channel totals 9 x 64 x 192.
  std::vector<uint8_t> grey(kSide * kSide, 9);
  Answer answer = model.PredictVector(Image{kSide, kSide, grey.data(), 1});
  ASSERT_EQ(answer.code, 0) << answer.message;
  std::vector<float> expected(kScores, 0.0f);
  for (int r = 0; r < 64; ++r) expected[r] = 5184;
  for (int c = 0; c < kSide; ++c) expected[kSide + c] = 1728;
  for (int ch = 0; ch < 3; ++ch) expected[2 * kSide + ch] = 110592;
  std::vector<float> scores;
  for (int k = 0; k < kScores; ++k) scores.push_back(answer.values[3 * k + 2]);
  EXPECT_EQ(scores, expected);

  // Other counts have no canvas type: refused before anything is built.
  std::vector<uint8_t> two(16 * 16 * 2, 1);
  TensorProbe probe;
  answer = model.PredictVector(Image{16, 16, two.data(), 2});
  EXPECT_EQ(answer.code, 1);
  EXPECT_EQ(answer.message, "unsupported channel count");
  EXPECT_FALSE(answer.hasPayload);
  EXPECT_EQ(probe.Made(), 0);
  EXPECT_TRUE(LockIsFree(model.object()->lock));
}

}  // namespace
