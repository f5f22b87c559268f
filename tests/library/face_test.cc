// The face batch models and the gender model: what each feeds its graph, how
// it lays out the result, and how it fails. Graphs echo the fed pixels (as
// sums or as heatmaps) so every expected value can be worked out by hand.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "models/face/GenderProcessor.h"
#include "support/graph_builder.h"
#include "videoanalytics.h"

namespace {

using library_test::LockIsFree;
using library_test::OptionsFor;
using model_test::Answer;
using model_test::HostModel;
using model_test::Read;
using model_test::TensorProbe;
using testing_support::GraphBuilder;
using testing_support::ShapeAttr;

enum Code : int32_t { kFilter = 6, kEmbedding = 8, kGender = 9, kLandmarks = 10, kLight = 15 };

Answer Batch(const HostModel& model, BatchImageInput input) {
  return Read(PredictBatch(model.handle(), input));
}

// `from` cast to float and summed over `axes` into `output`.
void SumPixels(GraphBuilder& g, const char* from, const char* output, std::vector<int32_t> axes) {
  g.Node("Cast", "pixels").Input(from).Attr("SrcT", TF_UINT8).Attr("DstT", TF_FLOAT);
  g.Const<int32_t>("axes", {static_cast<int64_t>(axes.size())}, axes);
  g.Node("Sum", output).Input("pixels").Input("axes").Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32);
}

std::string PixelSumGraph(std::vector<int32_t> axes, const char* input = "input_0",
                          const char* output = "Identity",
                          ShapeAttr shape = ShapeAttr::UnknownRank()) {
  GraphBuilder g;
  g.Placeholder(input, TF_UINT8, shape);
  SumPixels(g, input, output, axes);
  return g.Serialize();
}

// Flat bytes reshaped by the fed shape, then summed per image and channel.
std::string LightGraph() {
  GraphBuilder g;
  g.Placeholder("input_001", TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  g.Node("Reshape", "batch").Input("input_001").Input("InputShape").Attr("T", TF_UINT8)
      .Attr("Tshape", TF_INT32);
  SumPixels(g, "batch", "output_node0", {1, 2});
  return g.Serialize();
}

// Crops of 2 x 3 pixels; the byte of crop i, pixel p, channel c is 10 i + p + c.
// Per crop and channel the sum is 60 i + 15 + 6 c; per crop and row y it is
// 90 i + 27 y + 18; per crop 180 i + 63.
struct SmallCrops {
  explicit SmallCrops(int count) {
    for (int i = 0; i < count; ++i)
      for (int p = 0; p < 6; ++p)
        for (int c = 0; c < 3; ++c) bytes.push_back(static_cast<uint8_t>(10 * i + p + c));
  }
  BatchImageInput Batch(int count, int channels = 3) {
    return {count, Image{3, 2, bytes.data(), channels}};
  }
  std::vector<uint8_t> bytes;
};

const std::vector<float> kChannelSums = {15, 21, 27, 75, 81, 87, 135, 141, 147};

std::vector<float> Head(const std::vector<float>& values, size_t count) {
  return std::vector<float>(values.begin(), values.begin() + count);
}

TEST(FaceBatchModels, EmbeddingsAreRowsOfTheGraphsWidthInImageOrder) {
  SmallCrops crops(3);
  HostModel perChannel(kEmbedding, PixelSumGraph({1, 2}));
  HostModel light(kLight, LightGraph());
  for (int n : {0, 1, 3}) {
    SCOPED_TRACE(n);
    for (const HostModel* model : {&perChannel, &light}) {
      TensorProbe probe;
      const Answer answer = Batch(*model, crops.Batch(n));
      EXPECT_EQ(answer.code, 0);
      EXPECT_TRUE(answer.hasPayload);
      EXPECT_EQ(answer.values, Head(kChannelSums, 3 * n));  // D = 3
      EXPECT_EQ(probe.Made(), model == &light ? 3 : 2);  // inputs and output, all deleted
      EXPECT_EQ(probe.Alive(), 0);
    }
  }
  // D is the graph's: two rows per crop here. The channel count is not read.
  HostModel perRow(kEmbedding, PixelSumGraph({2, 3}));
  EXPECT_EQ(Batch(perRow, crops.Batch(3, 4)).values,
            (std::vector<float>{18, 45, 108, 135, 198, 225}));
}

TEST(FaceBatchModels, FilterTakesTheFirstNValuesWhateverTheShape) {
  SmallCrops crops(3);
  HostModel perImage(kFilter, PixelSumGraph({1, 2, 3}));
  EXPECT_EQ(Batch(perImage, crops.Batch(3)).values, (std::vector<float>{63, 243, 423}));
  // A [N, 3] output: the first N values are crop 0's channel sums.
  HostModel wide(kFilter, PixelSumGraph({1, 2}));
  for (int n : {0, 1, 3}) EXPECT_EQ(Batch(wide, crops.Batch(n)).values, Head(kChannelSums, n));
}

// "input_0" times two, [1, count]: the score is twice the first value.
std::string DoublingGraph(const char* input = "input_0", const char* output = "Identity") {
  GraphBuilder g;
  g.Placeholder(input, TF_FLOAT, ShapeAttr{{1, -1}});
  g.Const<float>("two", {}, {2.0f});
  g.Binary("Mul", output, input, "two");
  return g.Serialize();
}

TEST(GenderModel, ScoreIsTheFirstOutputValueAndFailuresAreMinusOne) {
  float row[3] = {1.5f, -4.0f, 7.0f};
  HostModel gender(kGender, DoublingGraph());
  TensorProbe probe;
  Answer answer = Read(GetGender(gender.handle(), 3, row));
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.values, std::vector<float>{3.0f});
  EXPECT_EQ(probe.Alive(), 0);
  // An empty output holds no score: the model's error, not a value.
  answer = Read(GetGender(gender.handle(), 0, row));
  EXPECT_EQ(answer.code, 1);
  EXPECT_EQ(answer.values, std::vector<float>{-1.0f});

  for (const auto& [graph, message, abandoned] :
       {std::tuple{DoublingGraph("features"), "InOp not found", 0},
        std::tuple{DoublingGraph("input_0", "g"), "OutOp not found", 1}}) {
    HostModel broken(kGender, graph);
    TensorProbe failure;
    answer = Read(GetGender(broken.handle(), 3, row));
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.message, message);
    EXPECT_EQ(answer.values, std::vector<float>{-1.0f});  // delivered all the same
    EXPECT_EQ(failure.Alive(), abandoned);
    failure.ReleaseAlive();
  }

  // Three values against a [1, 4] placeholder: the run fails, the lock stays.
  GraphBuilder fixed;
  fixed.Placeholder("input_0", TF_FLOAT, ShapeAttr{{1, 4}});
  fixed.Unary("Identity", "Identity", "input_0");
  GenderProcessor model(OptionsFor(fixed.Serialize()));
  TensorProbe failedRun;
  EXPECT_EQ(model.Process(3, row), -1.0f);
  EXPECT_EQ(failedRun.Alive(), 0);
  EXPECT_TRUE(model.errorFlag);
  EXPECT_FALSE(LockIsFree(model.lock));
  model.lock.unlock();
}

// Landmark crops whose bytes are the heatmaps: a 3264 x 16 x 3 crop holds
// 68 planes of 48 x 48, and the graph only casts it to float.
constexpr int kSide = 48;
constexpr int kPlaneCells = kSide * kSide;
constexpr int kCropBytes = 68 * kPlaneCells;
constexpr size_t kPerFace = 139;

std::string HeatmapGraph() {
  GraphBuilder g;
  g.Placeholder("input_0", TF_UINT8);
  g.Node("Cast", "Identity").Input("input_0").Attr("SrcT", TF_UINT8).Attr("DstT", TF_FLOAT);
  return g.Serialize();
}

struct HeatmapCrops {
  explicit HeatmapCrops(int crops) : count(crops), bytes(crops * kCropBytes, 0) {}
  void Set(int crop, int plane, int row, int column, uint8_t value) {
    bytes.at(crop * kCropBytes + plane * kPlaneCells + row * kSide + column) = value;
  }
  // Landmark `plane` at pixel (u, v) of the 192-pixel crop: a quarter step
  // from cell b toward cell b + d lands on 4 b + d, with d in 1..4.
  void Place(int crop, int plane, int u, int v) {
    const int column = (u - 1) / 4, row = (v - 1) / 4;
    Set(crop, plane, row, column, 250);
    Set(crop, plane, v - 3 * row, u - 3 * column, 120);
  }
  BatchImageInput Batch() { return {count, Image{16, 3264, bytes.data(), 3}}; }
  int count;
  std::vector<uint8_t> bytes;
};

// Pixel (u, v) of a model point turned by `yaw` about the model's y axis,
// then by `roll` about z, 850 units before a camera of focal 192 centred on
// (96, 96): u = 96 + 192 X / Z.
struct ModelPoint { int landmark; double x, y, z; };
constexpr ModelPoint kFaceModel[] = {{33, 0, 0, 0},          {8, 0, -330, -65},
                                     {45, -225, 170, -135},  {36, 225, 170, -135},
                                     {54, -150, -150, -125}, {48, 150, -150, -125}};

std::pair<double, double> Project(const ModelPoint& p, double yaw, double roll = 0) {
  const double a = yaw * 3.14159265358979323846 / 180, b = roll * 3.14159265358979323846 / 180;
  const double x = std::cos(a) * p.x + std::sin(a) * p.z;
  const double z = -std::sin(a) * p.x + std::cos(a) * p.z + 850;
  const double u = std::cos(b) * x - std::sin(b) * p.y, v = std::sin(b) * x + std::cos(b) * p.y;
  return {96 + 192 * u / z, 96 + 192 * v / z};
}

// The six pose landmarks, rounded to whole pixels of the 192-pixel crop.
void PlaceFace(HeatmapCrops* crops, int crop, double yaw, double roll = 0) {
  for (const ModelPoint& p : kFaceModel) {
    const auto [u, v] = Project(p, yaw, roll);
    crops->Place(crop, p.landmark, static_cast<int>(std::lround(u)),
                 static_cast<int>(std::lround(v)));
  }
}

// (y, x, z) rotations of crop `crop`.
std::vector<float> Angles(const Answer& answer, int crop) {
  const auto at = answer.values.begin() + crop * kPerFace + 136;
  return std::vector<float>(at, at + 3);
}

TEST(FaceLandmarks, PeaksMoveAQuarterStepTowardTheRunnerUp) {
  HeatmapCrops crops(3);
  for (int crop = 0; crop < 3; ++crop) PlaceFace(&crops, crop, 0);
  crops.Set(0, 0, 10, 20, 200);  // best, then runner-up four columns on
  crops.Set(0, 0, 10, 24, 150);
  crops.Set(0, 5, 3, 7, 90);  // equal maxima: the later one is the runner-up
  crops.Set(0, 5, 30, 2, 90);
  crops.Set(0, 7, 1, 1, 100);  // a stronger later cell demotes the best
  crops.Set(0, 7, 2, 2, 50);
  crops.Set(0, 7, 40, 40, 120);
  crops.Set(0, 20, 5, 6, 255);  // single peak on a later plane
  crops.Set(2, 0, 5, 6, 255);   // single peak on plane 0; crop 1's plane 0 is empty
  const Answer answer = Batch(HostModel(kLandmarks, HeatmapGraph()), crops.Batch());
  ASSERT_EQ(answer.values.size(), 3 * kPerFace);
  const auto point = [&](int crop, int plane) {
    return std::pair{answer.values[crop * kPerFace + 2 * plane],
                     answer.values[crop * kPerFace + 2 * plane + 1]};
  };
  const auto expect = [&](int crop, int plane, float x48, float y48) {
    SCOPED_TRACE(testing::Message() << "crop " << crop << " plane " << plane);
    EXPECT_FLOAT_EQ(point(crop, plane).first, x48 / 48);
    EXPECT_FLOAT_EQ(point(crop, plane).second, y48 / 48);
  };
  expect(0, 0, 21, 10);        // (4 x 0.25 + 20) / 48 = 0.4375
  expect(0, 5, 5.75f, 9.75f);  // 7 + (2 - 7) / 4, 3 + (30 - 3) / 4
  expect(0, 7, 30.25f, 30.25f);  // 40 + (1 - 40) / 4
  // Missing cells are -1 - base: plane k gives row -48 k, column -1.
  expect(0, 12, -1, -576);               // empty plane 12: both missing
  expect(0, 20, 4.25f, -236.25f);        // 6 + (-1 - 6) / 4, 5 + (-960 - 5) / 4
  expect(1, 0, -1, 0);                   // empty plane 0: index -1
  expect(2, 0, 4.25f, 3.75f);            // 6 + (-1 - 6) / 4, 5 + (0 - 5) / 4
  expect(1, 33, 96.0f / 4, 96.0f / 4);   // the nose, placed at pixel (96, 96)
}

TEST(FaceLandmarks, BatchesAnswerInImageOrderWithTheirOwnHeadAngles) {
  HostModel model(kLandmarks, HeatmapGraph());
  HeatmapCrops none(0);
  const Answer empty = Batch(model, none.Batch());
  EXPECT_EQ(empty.code, 0);
  EXPECT_TRUE(empty.hasPayload);
  EXPECT_TRUE(empty.values.empty());

  const double yaws[] = {20, 0, -15};
  HeatmapCrops crops(3);
  for (int crop = 0; crop < 3; ++crop) {
    PlaceFace(&crops, crop, yaws[crop]);
    crops.Place(crop, 0, 40 + crop, 60);
  }
  for (int n : {1, 3}) {
    crops.count = n;
    TensorProbe probe;
    const Answer answer = Batch(model, crops.Batch());
    EXPECT_EQ(probe.Alive(), 0);
    ASSERT_EQ(answer.values.size(), n * kPerFace);
    for (int crop = 0; crop < n; ++crop) {
      SCOPED_TRACE(crop);
      EXPECT_FLOAT_EQ(answer.values[crop * kPerFace], (40 + crop) / 192.0f);
      const std::vector<float> angles = Angles(answer, crop);
      EXPECT_NEAR(angles[0], yaws[crop], 1.0);
      EXPECT_NEAR(angles[1], 0, 1.0);
      EXPECT_NEAR(angles[2], 0, 1.0);
    }
  }
}

TEST(FaceLandmarks, HeadAnglesReadOnlyTheSixPairedLandmarks) {
  HostModel model(kLandmarks, HeatmapGraph());
  HeatmapCrops crops(3);
  PlaceFace(&crops, 0, 20);
  PlaceFace(&crops, 1, 20);
  std::mt19937 random(5);  // crop 1: every other plane full of noise
  for (int plane = 0; plane < 68; ++plane) {
    if (plane == 8 || plane == 33 || plane == 36 || plane == 45 || plane == 48 || plane == 54)
      continue;
    for (int cell = 0; cell < kPlaneCells; ++cell)
      crops.Set(1, plane, cell / kSide, cell % kSide, static_cast<uint8_t>(random() % 256));
  }
  // Crop 2: an upright face in image terms is the model turned half a turn
  // about z (its y axis points up, its x axis to the face's left).
  PlaceFace(&crops, 2, 0, 180);
  const Answer answer = Batch(model, crops.Batch());
  ASSERT_EQ(answer.values.size(), 3 * kPerFace);
  EXPECT_NE(answer.values[2 * 0], answer.values[kPerFace + 2 * 0]);  // plane 0 did move
  EXPECT_EQ(Angles(answer, 0), Angles(answer, 1));
  const std::vector<float> upright = Angles(answer, 2);
  EXPECT_NEAR(upright[0], 0, 1.0);
  EXPECT_NEAR(upright[1], 0, 1.0);
  EXPECT_NEAR(std::fabs(upright[2]), 180, 1.0);
}

}  // namespace
