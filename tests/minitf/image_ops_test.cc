// Image resizing and cropping, hand-computed on tiny images, and the error
// paths. The bilinear and nearest resizes' coordinate conventions are
// checked against TF.js's results (tests/tfjs/op_golden_test.cc).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "one_op.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectNear;
using testing_support::ExpectRunError;
using testing_support::OneOp;
using testing_support::RunDims;
using testing_support::RunOk;
using F = std::vector<float>;
using I = std::vector<int32_t>;

// 2x2 image [[0, 4], [8, 12]].
const F kCorners = {0, 4, 8, 12};

template <typename O> OneOp& Resize(O&& op, const F& image, Dims dims, I size) {
  return static_cast<OneOp&>(op).In<float>(dims, image).In<int32_t>({2}, size).Attr("T", TF_FLOAT);
}

TEST(ResizeBilinearTest, IntegerImagesGiveFloatsPerChannel) {
  // Two channels: the corners above and a constant 200.
  OneOp op("ResizeBilinear");
  op.In<uint8_t>({1, 2, 2, 2}, {0, 200, 4, 200, 8, 200, 12, 200}).In<int32_t>({2}, {3, 3})
      .Attr("T", TF_UINT8).Attr("align_corners", true);
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.OutputType(), TF_FLOAT);
  EXPECT_EQ(op.OutputDims(), (Dims{1, 3, 3, 2}));
  const F first = {0, 2, 4, 4, 6, 8, 8, 10, 12};
  F expected;
  for (float v : first) {
    expected.push_back(v);
    expected.push_back(200);
  }
  ExpectNear(op.Output<float>(), expected);
  ExpectNear(RunOk<float>(OneOp("ResizeBilinear").In<int32_t>({2, 1, 1, 1}, {-3, 7})
      .In<int32_t>({2}, {1, 2}).Attr("T", TF_INT32)), {-3, -3, 7, 7});
}

TEST(ResizeBilinearTest, RejectsBadInputs) {
  ExpectRunError(Resize(OneOp("ResizeBilinear"), kCorners, {1, 2, 2, 1}, {3, 3})
      .Attr("align_corners", true).Attr("half_pixel_centers", true));
  ExpectRunError(Resize(OneOp("ResizeBilinear"), kCorners, {2, 2, 1}, {3, 3}));
  ExpectRunError(Resize(OneOp("ResizeBilinear"), kCorners, {1, 2, 2, 1}, {0, 3}));
  ExpectRunError(OneOp("ResizeBilinear").In<float>({1, 2, 2, 1}, kCorners)
      .In<int32_t>({3}, {2, 2, 2}).Attr("T", TF_FLOAT));
  ExpectRunError(Resize(OneOp("ResizeBilinear"), {}, {1, 0, 2, 1}, {2, 2}));
}

TEST(ResizeNearestNeighborTest, KeepsTheDtypeAndRefusesAnEmptySize) {
  OneOp ints("ResizeNearestNeighbor");
  ints.In<int32_t>({1, 1, 4, 1}, {0, 10, 20, 30}).In<int32_t>({2}, {1, 3}).Attr("T", TF_INT32);
  ASSERT_EQ(ints.Run(), TF_OK) << ints.error();
  EXPECT_EQ(ints.OutputType(), TF_INT32);
  EXPECT_EQ(ints.Output<int32_t>(), (I{0, 10, 20}));
  OneOp bad("ResizeNearestNeighbor");
  ExpectRunError(bad.In<int32_t>({1, 1, 4, 1}, {0, 10, 20, 30}).In<int32_t>({2}, {1, 0})
                     .Attr("T", TF_INT32));
}

// 3x3 image whose value at (y, x) is 3y + x: bilinear sampling of it is
// exact, so expected crops are 3 * in_y + in_x.
const F kRamp = {0, 1, 2, 3, 4, 5, 6, 7, 8};

template <typename O> OneOp& Crop(O&& op, const F& boxes, const I& box_ind, I crop_size,
                                  const F& image = kRamp, Dims image_dims = {1, 3, 3, 1}) {
  return static_cast<OneOp&>(op).In<float>(image_dims, image)
      .In<float>({static_cast<int64_t>(boxes.size() / 4), 4}, boxes)
      .In<int32_t>({static_cast<int64_t>(box_ind.size())}, box_ind)
      .In<int32_t>({2}, crop_size).Attr("T", TF_FLOAT);
}

TEST(CropAndResizeTest, BoxesMethodsBatchesAndDtypes) {
  // Sources 0.5 and 1.5 on both axes, and the whole image; two boxes in one call.
  OneOp inner("CropAndResize");
  ASSERT_EQ(Crop(inner, {0.25f, 0.25f, 0.75f, 0.75f, 0, 0, 1, 1}, {0, 0}, {2, 2}).Run(), TF_OK)
      << inner.error();
  EXPECT_EQ(inner.OutputDims(), (Dims{2, 2, 2, 1}));
  ExpectNear(inner.Output<float>(), {2, 3, 5, 6, 0, 2, 6, 8});
  // A flipped box samples bottom-up.
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {1, 0, 0, 1}, {0}, {2, 2})), {6, 8, 0, 2});
  // A single sample takes the box centre: (0.5, 0.5) * 2 -> value 4; the
  // top-left quarter's centre (0.5, 0.5) in pixels -> 2.
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {0, 0, 1, 1, 0, 0, 0.5f, 0.5f}, {0, 0},
                               {1, 1})), {4, 2});
  // Rows above the image, and NaN coordinates, take the extrapolation value.
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {-0.5f, 0, 0.5f, 1}, {0}, {3, 3})
      .Attr("extrapolation_value", -1.0f)), {-1, -1, -1, 0, 1, 2, 3, 4, 5});
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {nan, 0, 1, 1}, {0}, {2, 2})
      .Attr("extrapolation_value", 9.0f)), {9, 9, 9, 9});
  // Nearest: sources 0.5 and 1.5 round away from zero to 1 and 2.
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {0.25f, 0.25f, 0.75f, 0.75f}, {0}, {2, 2})
      .Attr("method", "nearest")), {4, 5, 7, 8});
  // The box index picks the image: the second one is the ramp plus 100.
  F two = kRamp;
  for (float v : kRamp) two.push_back(v + 100);
  ExpectNear(RunOk<float>(Crop(OneOp("CropAndResize"), {0, 0, 1, 1, 0, 0, 1, 1}, {1, 0}, {1, 1},
                               two, {2, 3, 3, 1})), {104, 4});
  // Bytes in, floats out.
  OneOp bytes("CropAndResize");
  bytes.In<uint8_t>({1, 1, 2, 1}, {10, 250}).In<float>({1, 4}, {0, 0, 1, 1})
      .In<int32_t>({1}, {0}).In<int32_t>({2}, {1, 3}).Attr("T", TF_UINT8);
  ASSERT_EQ(bytes.Run(), TF_OK) << bytes.error();
  EXPECT_EQ(bytes.OutputType(), TF_FLOAT);
  ExpectNear(bytes.Output<float>(), {10, 130, 250});
  // No boxes: an empty result of the crop's shape.
  EXPECT_EQ(RunDims(Crop(OneOp("CropAndResize"), {}, {}, {2, 3})), (Dims{0, 2, 3, 1}));
}

TEST(CropAndResizeTest, RejectsBadInputs) {
  ExpectRunError(Crop(OneOp("CropAndResize"), {0, 0, 1, 1}, {1}, {2, 2}));
  ExpectRunError(Crop(OneOp("CropAndResize"), {0, 0, 1, 1}, {0, 0}, {2, 2}));
  ExpectRunError(Crop(OneOp("CropAndResize"), {0, 0, 1, 1}, {0}, {0, 2}));
  ExpectRunError(OneOp("CropAndResize").In<float>({1, 3, 3, 1}, kRamp)
      .In<float>({2, 3}, {0, 0, 1, 1, 0, 0}).In<int32_t>({2}, {0, 0}).In<int32_t>({2}, {2, 2})
      .Attr("T", TF_FLOAT));
  ExpectRunError(Crop(OneOp("CropAndResize"), {0, 0, 1, 1}, {0}, {2, 2}, {}, {1, 0, 3, 1}));
}

// The cubic convolution kernel, exactly (TensorFlow tabulates it in 1024
// steps, hence the tolerance below).
double Cubic(double x, double a) {
  x = std::fabs(x);
  if (x <= 1) return ((a + 2) * x - (a + 3)) * x * x + 1;
  if (x < 2) return ((a * x - 5 * a) * x + 8 * a) * x - 4 * a;
  return 0;
}

// Bicubic resize of a [1, h, w, 1] image by the textbook definition: legacy
// mode clamps taps onto the edge with a = -0.75; half-pixel mode uses
// a = -0.5, drops taps outside the image and renormalises.
std::vector<float> BicubicReference(const std::vector<float>& img, int h, int w, int oh, int ow,
                                    bool align, bool half) {
  const double a = half ? -0.5 : -0.75;
  auto taps = [&](int out, int in_size, int out_size, int* idx, double* wt) {
    const float scale = align && out_size > 1 ? float(in_size - 1) / float(out_size - 1)
                                              : float(in_size) / float(out_size);
    const float src = half ? (out + 0.5f) * scale - 0.5f : out * scale;
    const int loc = static_cast<int>(std::floor(src));
    const double d = src - loc;
    double sum = 0;
    for (int k = 0; k < 4; ++k) {
      const int want = loc - 1 + k;
      idx[k] = std::min(std::max(want, 0), in_size - 1);
      wt[k] = (!half || idx[k] == want) ? Cubic(d - (k - 1), a) : 0;
      sum += wt[k];
    }
    if (half) for (int k = 0; k < 4; ++k) wt[k] /= sum;
  };
  std::vector<float> out(oh * ow);
  for (int y = 0; y < oh; ++y) {
    int yi[4], xi[4];
    double yw[4], xw[4];
    taps(y, h, oh, yi, yw);
    for (int x = 0; x < ow; ++x) {
      taps(x, w, ow, xi, xw);
      double v = 0;
      for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) v += yw[i] * xw[j] * img[yi[i] * w + xi[j]];
      }
      out[y * ow + x] = static_cast<float>(v);
    }
  }
  return out;
}

TEST(ResizeBicubicTest, MatchesTheCubicKernelInEveryMode) {
  std::vector<float> img(5 * 7);
  for (size_t i = 0; i < img.size(); ++i) img[i] = std::sin(0.7f * i) * 0.5f + 0.5f;
  struct Mode { bool align, half; };
  for (Mode mode : {Mode{false, false}, Mode{true, false}, Mode{false, true}}) {
    for (auto [oh, ow] : {std::pair<int, int>{9, 4}, {3, 11}, {5, 7}, {1, 1}}) {
      OneOp op("ResizeBicubic");
      op.In<float>({1, 5, 7, 1}, img).In<int32_t>({2}, {oh, ow}).Attr("T", TF_FLOAT)
          .Attr("align_corners", mode.align).Attr("half_pixel_centers", mode.half);
      ASSERT_EQ(op.Run(), TF_OK) << op.error();
      EXPECT_EQ(op.OutputDims(), (Dims{1, oh, ow, 1}));
      const auto got = op.Output<float>();
      const auto want = BicubicReference(img, 5, 7, oh, ow, mode.align, mode.half);
      ASSERT_EQ(got.size(), want.size());
      for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], want[i], 2e-3) << mode.align << mode.half << " " << oh << "x" << ow
                                           << " at " << i;
    }
  }
  // Several channels and an integer image: channels do not mix.
  OneOp rgb("ResizeBicubic");
  rgb.In<uint8_t>({1, 2, 2, 3}, {10, 20, 30, 10, 20, 30, 10, 20, 30, 10, 20, 30})
      .In<int32_t>({2}, {3, 3}).Attr("T", TF_UINT8).Attr("align_corners", false)
      .Attr("half_pixel_centers", true);
  ASSERT_EQ(rgb.Run(), TF_OK) << rgb.error();
  const auto c = rgb.Output<float>();
  ASSERT_EQ(c.size(), 27u);
  for (size_t i = 0; i < c.size(); ++i) EXPECT_NEAR(c[i], 10.0f * (1 + i % 3), 1e-4) << i;
  OneOp both("ResizeBicubic");
  both.In<float>({1, 1, 1, 1}, {1}).In<int32_t>({2}, {2, 2}).Attr("T", TF_FLOAT)
      .Attr("align_corners", true).Attr("half_pixel_centers", true);
  EXPECT_NE(both.Run(), TF_OK);
  ExpectRunError(OneOp("ResizeBicubic").In<float>({1, 1, 1, 1}, {1}).In<int32_t>({2}, {0, 2})
      .Attr("T", TF_FLOAT).Attr("align_corners", false).Attr("half_pixel_centers", false));
}

}  // namespace
