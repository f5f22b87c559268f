// The single-image classifiers: what each member feeds its graph, what it
// answers, and how each one fails. Graphs echo the fed tensors (dimensions,
// pixel sums, shape values) so every expected value is worked out by hand
// from the image.
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "interface/MemoryManager.h"
#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "models/frames/Classifier.h"
#include "models/frames/ClassifierVector.h"
#include "videoanalytics.h"

namespace {

using library_test::LockIsFree;
using library_test::OptionsFor;
using model_test::Answer;
using model_test::EchoGraph;
using model_test::HostModel;
using model_test::TensorProbe;
using testing_support::ShapeAttr;

// How a member hands the pixels to its graph.
enum class Feed {
  kFlatThree,         // flat bytes, shape {H, W, 3}
  kFlatFour,          // flat bytes, shape {1, H, W, 3}
  kBatchFixed,        // [1, H, W, 3], no shape tensor
  kBatchOwnChannels,  // [1, H, W, channels], no shape tensor
};

struct Member {
  const char* name;
  int32_t code;
  bool scalar;  // Predict answers one number; otherwise PredictVector a vector
  Feed feed;
  const char* pixels;
  const char* output;
  const char* secondOutput;  // null unless the model joins two heads
};

// The family as its contract states it. FaceMaskClassifier reports no
// failure at all and is tested on its own.
const Member kAge = {"AgeProcessor", 5, true, Feed::kFlatThree, "input_001", "output_node0",
                     nullptr};
const Member kFaceMask = {"FaceMaskClassifier", 22, true, Feed::kFlatFour, "input_001",
                          "output_node0", nullptr};
const Member kVehicleAttrib = {"VehicleAttribExtractor", 20, false, Feed::kFlatFour,
                               "InputNodeFull", "output_node0", "output_node1"};
const Member kMembers[] = {
    kAge,
    {"HardHatClassifier", 4, true, Feed::kBatchOwnChannels, "input_0", "Identity", nullptr},
    {"SafetyVestClassifier", 25, true, Feed::kBatchOwnChannels, "input_0", "Identity", nullptr},
    {"HumanFilter", 7, true, Feed::kFlatFour, "InputNodeFull", "output_node0", nullptr},
    {"FaceEmotionsProcessor", 12, false, Feed::kFlatFour, "input_001", "output_node0", nullptr},
    {"FaceLightLandmarksProcessor", 14, false, Feed::kFlatThree, "input_001", "output_node0",
     nullptr},
    {"FaceFilterNClass", 13, false, Feed::kBatchFixed, "input_0", "Identity", nullptr},
    {"HumanAttribExtractor", 19, false, Feed::kBatchFixed, "input_0", "Identity", nullptr},
    {"HumanIndexer", 16, false, Feed::kFlatFour, "InputNodeFull", "output_node0", nullptr},
    {"VehicleIndexer", 17, false, Feed::kFlatFour, "InputNodeFull", "output_node0", nullptr},
    {"VehicleFilter", 18, false, Feed::kFlatFour, "InputNodeFull", "output_node0", nullptr},
    kVehicleAttrib,
};

bool Flat(const Member& m) {
  return m.feed == Feed::kFlatThree || m.feed == Feed::kFlatFour;
}

// What the first value of a scalar member's graph reports.
enum class Fact {
  kEchoRow,       // the whole row: pixel dims, pixel sum, shape values
  kPixelDigits,   // the pixel tensor's dims as base-100 digits
  kPixelSum,      // the total of the pixel bytes
  kShapeDigits,   // the shape tensor's values as base-100 digits
};

// Which node a graph leaves out.
enum class Omit { kNothing, kPixels, kShape, kOutput, kSecondOutput };

// A graph that meets the member's contract, save for `omit`; its pixel node
// is declared as `pixelType`, so anything but TF_UINT8 fails the run.
std::string MemberGraph(const Member& m, Fact fact, Omit omit = Omit::kNothing,
                        TF_DataType pixelType = TF_UINT8) {
  EchoGraph g;
  const bool hasPixels = omit != Omit::kPixels;
  const bool hasShape = Flat(m) && omit != Omit::kShape;
  if (hasPixels) g.Input(m.pixels, pixelType);
  if (hasShape) g.Input("InputShape", TF_INT32);
  std::vector<std::string> facts;
  if (!hasPixels || (Flat(m) && !hasShape)) {
    facts = {g.Constant({0.0f})};
  } else if (fact == Fact::kEchoRow) {
    facts = {g.Dims(m.pixels), g.Sum(m.pixels)};
    if (hasShape) facts.push_back(g.Values("InputShape"));
  } else if (fact == Fact::kPixelDigits) {
    facts = {g.Digits(g.Dims(m.pixels), Flat(m) ? 1 : 4)};
  } else if (fact == Fact::kPixelSum) {
    facts = {g.Sum(m.pixels)};
  } else {
    facts = {g.Digits(g.Values("InputShape"), m.feed == Feed::kFlatThree ? 3 : 4)};
  }
  if (omit != Omit::kOutput) g.Row(m.output, facts);
  if (m.secondOutput != nullptr && omit != Omit::kSecondOutput) {
    g.Row(m.secondOutput, {g.Constant({})});  // [1, 0]: joins nothing
  }
  return g.Serialize();
}

// Seeded bytes for W x H pixels of up to four channels.
std::vector<uint8_t> RandomPixels(int width, int height, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
  for (uint8_t& p : pixels) p = static_cast<uint8_t>(byte(random));
  return pixels;
}

float SumOfFirst(const std::vector<uint8_t>& pixels, int count) {
  float sum = 0.0f;
  for (int i = 0; i < count; ++i) sum += pixels[i];
  return sum;
}

// What the graph of `fact` reports for `image`, from the member's row of the
// contract.
std::vector<float> Expected(const Member& m, Fact fact, const Image& image,
                            const std::vector<uint8_t>& pixels) {
  const float w = static_cast<float>(image.width);
  const float h = static_cast<float>(image.height);
  const int channels = m.feed == Feed::kBatchOwnChannels ? image.channels : 3;
  const int bytes = image.width * image.height * channels;
  const float sum = SumOfFirst(pixels, bytes);
  std::vector<float> shape;
  if (m.feed == Feed::kFlatFour) shape = {1, h, w, 3};
  if (m.feed == Feed::kFlatThree) shape = {h, w, 3};
  switch (fact) {
    case Fact::kEchoRow: {
      std::vector<float> row;
      if (Flat(m)) {
        row = {static_cast<float>(bytes), sum};
        row.insert(row.end(), shape.begin(), shape.end());
      } else {
        row = {1, h, w, static_cast<float>(channels), sum};
      }
      return row;
    }
    case Fact::kPixelDigits:
      return {Flat(m) ? static_cast<float>(bytes)
                      : 1000000 + h * 10000 + w * 100 + static_cast<float>(channels)};
    case Fact::kPixelSum:
      return {sum};
    case Fact::kShapeDigits:
      return {m.feed == Feed::kFlatThree ? h * 10000 + w * 100 + 3
                                         : 1000000 + h * 10000 + w * 100 + 3};
  }
  return {};
}

Answer Ask(const HostModel& model, const Member& m, const Image& image) {
  return m.scalar ? model.Predict(image) : model.PredictVector(image);
}

// A 5 x 4 image (width differs from height, so their order shows); four
// channels of bytes so the same buffer serves three- and four-channel records.
class ClassifierFamily : public ::testing::Test {
 protected:
  std::vector<uint8_t> pixels_ = RandomPixels(5, 4, 20240611);
  Image Picture(int channels = 3) { return Image{5, 4, pixels_.data(), channels}; }
};

TEST_F(ClassifierFamily, EachMemberFeedsItsGraphAsItsRowSays) {
  for (const Member& m : kMembers) {
    if (m.code == kAge.code) continue;  // answers an age, tested below
    for (int channels : {3, 4}) {
      SCOPED_TRACE(std::string(m.name) + ", channels " + std::to_string(channels));
      const Image image = Picture(channels);
      if (!m.scalar) {
        HostModel model(m.code, MemberGraph(m, Fact::kEchoRow));
        const Answer answer = model.PredictVector(image);
        EXPECT_EQ(answer.code, 0) << answer.message;
        EXPECT_EQ(answer.values, Expected(m, Fact::kEchoRow, image, pixels_));
        continue;
      }
      std::vector<Fact> facts = {Fact::kPixelDigits, Fact::kPixelSum};
      if (Flat(m)) facts.push_back(Fact::kShapeDigits);
      for (Fact fact : facts) {
        HostModel model(m.code, MemberGraph(m, fact));
        const Answer answer = model.Predict(image);
        EXPECT_EQ(answer.code, 0) << answer.message;
        EXPECT_EQ(answer.values, Expected(m, fact, image, pixels_));
      }
    }
  }
}

TEST_F(ClassifierFamily, VectorLengthIsTheOutputsSecondDimension) {
  for (const Member& m : kMembers) {
    if (m.scalar) continue;
    SCOPED_TRACE(m.name);
    for (const std::vector<float>& row :
         {std::vector<float>{}, std::vector<float>{2.5f, -1.0f, 7.0f}}) {
      EchoGraph g;
      g.Input(m.pixels, TF_UINT8);
      if (Flat(m)) g.Input("InputShape", TF_INT32);
      g.Row(m.output, {g.Constant(row)});
      if (m.secondOutput != nullptr) g.Row(m.secondOutput, {g.Constant({})});
      HostModel model(m.code, g.Serialize());
      const Answer answer = model.PredictVector(Picture());
      EXPECT_EQ(answer.code, 0);
      EXPECT_TRUE(answer.hasPayload);  // a vector of count 0 is still a vector
      EXPECT_EQ(answer.values, row);
    }
  }
}

TEST_F(ClassifierFamily, SuccessClearsTheFlagButKeepsTheLastMessage) {
  for (const Member& m : kMembers) {
    // The echo row is shorter than the 200 logits the age model reads.
    if (m.code == VA_AGE) continue;
    SCOPED_TRACE(m.name);
    HostModel model(m.code, MemberGraph(m, Fact::kEchoRow));
    model.object()->SetErrorState("an earlier failure");
    TensorProbe probe;
    const Answer answer = Ask(model, m, Picture());
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.message, "an earlier failure");
    EXPECT_TRUE(answer.hasPayload);
    EXPECT_EQ(probe.Alive(), 0);  // inputs and outputs all deleted
    EXPECT_TRUE(LockIsFree(model.object()->lock));
  }
}

// Age graph: the image's first row of bytes are the logits. The row is found
// by reshaping the flat bytes by the fed shape {H, W, 3}, so a shape in any
// other order gives another row and another age.
std::string AgeGraph(int width, int height) {
  EchoGraph g;
  g.Input("input_001", TF_UINT8, ShapeAttr{{width * height * 3}});
  g.Input("InputShape", TF_INT32, ShapeAttr{{3}});
  const std::string image = g.Reshaped("input_001", "InputShape");
  g.Row("output_node0", {g.Values(g.Sliced(image, {0, 0, 0}, {1, -1, -1}))});
  return g.Serialize();
}

// A 100 x 2 image: row 0 holds 150 pairs (a, b); row 1 pairs that would all
// count, so reading the wrong row or more than 100 pairs changes the age.
struct AgeImage {
  AgeImage() : bytes(600) {
    for (int i = 0; i < 150; ++i) Pair(1, i, 10, 200);
  }
  void Pair(int row, int pair, uint8_t a, uint8_t b) {
    bytes[row * 300 + 2 * pair] = a;
    bytes[row * 300 + 2 * pair + 1] = b;
  }
  Image Picture(int channels = 3) { return Image{100, 2, bytes.data(), channels}; }
  std::vector<uint8_t> bytes;
};

TEST(AgeProcessor, CountsThePairsWhoseSecondLogitIsNotBelowTheFirst) {
  HostModel model(kAge.code, AgeGraph(100, 2));
  struct Case {
    const char* name;
    uint8_t (*a)(int);
    uint8_t (*b)(int);
    float age;
  };
  const Case cases[] = {
      {"ties count", [](int) -> uint8_t { return 7; }, [](int) -> uint8_t { return 7; }, 100},
      {"all below", [](int) -> uint8_t { return 200; }, [](int) -> uint8_t { return 10; }, 0},
      // a = 10 + i against b = 60: pairs 0 to 50 count (pair 50 a tie).
      {"mixed", [](int i) -> uint8_t { return static_cast<uint8_t>(10 + i); },
       [](int) -> uint8_t { return 60; }, 51},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AgeImage image;
    for (int i = 0; i < 100; ++i) image.Pair(0, i, c.a(i), c.b(i));
    for (int i = 100; i < 150; ++i) image.Pair(0, i, 0, 255);  // beyond the 100th pair
    for (int channels : {3, 4}) {  // the record's channel count is not read
      const Answer answer = model.Predict(image.Picture(channels));
      EXPECT_EQ(answer.code, 0) << answer.message;
      EXPECT_EQ(answer.values, std::vector<float>{c.age});
    }
  }
}

// Logits straight from the graph, with `pairs` (a, b) followed by `extra`
// pairs (0, 1).
std::string ConstantLogitsGraph(const std::vector<float>& pairs, int extra) {
  std::vector<float> logits = pairs;
  for (int i = 0; i < extra; ++i) logits.insert(logits.end(), {0.0f, 1.0f});
  testing_support::GraphBuilder g;
  g.Placeholder("input_001", TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  g.Const<float>("output_node0", {1, static_cast<int64_t>(logits.size())}, logits);
  return g.Serialize();
}

TEST(AgeProcessor, InfinitiesAndNotANumberFollowTheOneComparison) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // m is b if b > a, else a; then pa and pb from exp(a - m), exp(b - m).
  std::vector<float> pairs = {
      inf,  0,     // m = inf, a - m = NaN: pa, pb NaN, counts
      0,    inf,   // m = inf, b - m = NaN: counts
      nan,  0,     // m = NaN: counts
      0,    nan,   // eb = NaN, s = NaN: counts
      -inf, 0,     // pa = 0, pb = 1: counts
      0,    -inf,  // pa = 1, pb = 0: does not count
      100,  -100,  // exp(-200) is 0 in single precision: does not count
      -100, 100,   // counts
      -inf, -inf,  // m = -inf, a - m = NaN: counts
      inf,  inf,   // NaN: counts
  };
  // 90 more pairs (1, 0) that do not count, then 10 pairs (0, 1) past the
  // 100th that would.
  for (int i = 0; i < 90; ++i) pairs.insert(pairs.end(), {1.0f, 0.0f});
  HostModel model(kAge.code, ConstantLogitsGraph(pairs, 10));
  AgeImage image;
  EXPECT_EQ(model.Predict(image.Picture()).values, std::vector<float>{8});
}

TEST(VehicleAttribExtractor, JoinsFiveValuesOfTheFirstHeadWithSevenOfTheSecond) {
  std::vector<uint8_t> pixels = RandomPixels(5, 4, 7);
  EchoGraph g;
  g.Input("InputNodeFull", TF_UINT8);
  g.Input("InputShape", TF_INT32);
  g.Row("output_node0", {g.Values("InputShape"), g.Dims("InputNodeFull")});
  g.Row("output_node1", {g.Sum("InputNodeFull"), g.Constant({10, 11, 12, 13, 14, 15})});
  HostModel model(kVehicleAttrib.code, g.Serialize());
  const Answer answer = model.PredictVector(Image{5, 4, pixels.data(), 3});
  EXPECT_EQ(answer.code, 0) << answer.message;
  // Head 0: shape 1, 4, 5, 3 and 60 bytes; head 1: the sum and six constants.
  EXPECT_EQ(answer.values, (std::vector<float>{1, 4, 5, 3, 60, SumOfFirst(pixels, 60), 10, 11,
                                               12, 13, 14, 15}));
}

TEST_F(ClassifierFamily, FaceMaskReportsNoFailureOfItsOwn) {
  const Member& m = kFaceMask;
  const float shapeDigits = 1040503;  // 1, 4, 5, 3
  for (Omit omit : {Omit::kPixels, Omit::kShape, Omit::kOutput}) {
    SCOPED_TRACE(static_cast<int>(omit));
    HostModel model(m.code, MemberGraph(m, Fact::kShapeDigits, omit));
    TensorProbe probe;
    const Answer answer = model.Predict(Picture());
    EXPECT_EQ(answer.code, 0);  // no "InOp not found", no "OutOp not found"
    EXPECT_FALSE(answer.hasMessage);
    EXPECT_EQ(probe.Made(), 2);  // built the inputs all the same
    EXPECT_EQ(probe.Alive(), 0);
  }

  // A failed run goes unreported, and the status it leaves is never read:
  // the next call runs and answers. The graph takes only 5 x 4 images.
  EchoGraph fixed;
  fixed.Input(m.pixels, TF_UINT8, ShapeAttr{{60}});
  fixed.Input("InputShape", TF_INT32);
  fixed.Row(m.output, {fixed.Digits(fixed.Values("InputShape"), 4)});
  HostModel failing(m.code, fixed.Serialize());
  std::vector<uint8_t> small(12);
  TensorProbe failedRun;
  const Answer failed = failing.Predict(Image{2, 2, small.data(), 3});
  EXPECT_EQ(failed.code, 0);
  EXPECT_FALSE(failed.hasMessage);
  EXPECT_EQ(failedRun.Alive(), 0);
  EXPECT_TRUE(LockIsFree(failing.object()->lock));
  EXPECT_EQ(failing.Predict(Picture()).values, std::vector<float>{shapeDigits});

  HostModel model(m.code, MemberGraph(m, Fact::kShapeDigits));
  BaseModel* object = model.object();
  // The flag and message an earlier failure left are what the host sees.
  object->SetErrorState("set before the call");
  Answer answer = model.Predict(Picture());
  EXPECT_EQ(answer.code, 1);
  EXPECT_EQ(answer.message, "set before the call");
  EXPECT_EQ(answer.values, std::vector<float>{shapeDigits});

  // It takes no lock: with the lock held by this thread it still answers.
  object->lock.lock();
  EXPECT_EQ(static_cast<Classifier*>(object)->Predict(Picture()), shapeDigits);
  object->lock.unlock();
}

}  // namespace
