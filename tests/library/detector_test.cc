// The box detectors through the C boundary: what each feeds its graph, how
// it decodes, suppresses and maps the graph's answer back, and how each one
// fails. Graphs return constants or report what they were fed.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "models/face/FaceDetectorProcessor.h"
#include "models/objects/MultiBox3Processor.h"
#include "models/objects/MultiBox4Processor.h"
#include "models/objects/PersonVehicleBoxDetector.h"
#include "models/objects/QueueMultiBox3Processor.h"
#include "models/objects/SingleHeadDetector.h"
#include "support/graph_builder.h"
#include "videoanalytics.h"

namespace {

using library_test::OptionsFor;
using testing_support::Dims;
using testing_support::GraphBuilder;

constexpr int kMultiBox3 = 0;
constexpr int kHead = 1;
constexpr int kFace = 2;
constexpr int kPersonVehicle = 3;
constexpr int kQueue = 21;
constexpr int kMultiBox4 = 23;

// The few ops the graphs below are made of; names are fresh unless given.
class Graph {
 public:
  std::string Input(const std::string& name, TF_DataType type) { return g_.Placeholder(name, type); }
  std::string Floats(const Dims& dims, const std::vector<float>& values, std::string name = "") {
    return g_.Const<float>(Named(name), dims, values);
  }
  std::string Ints(const Dims& dims, const std::vector<int32_t>& values) {
    return g_.Const<int32_t>(Named(""), dims, values);
  }
  std::string ToFloat(const std::string& x, TF_DataType from) {
    const std::string name = Named("");
    g_.Node("Cast", name).Input(x).Attr("SrcT", from).Attr("DstT", TF_FLOAT);
    return name;
  }
  std::string Reshape(const std::string& x, const std::vector<int32_t>& shape,
                      TF_DataType type = TF_FLOAT, std::string name = "") {
    const std::string dims = Ints({static_cast<int64_t>(shape.size())}, shape);
    name = Named(name);
    g_.Node("Reshape", name).Input(x).Input(dims).Attr("T", type).Attr("Tshape", TF_INT32);
    return name;
  }
  std::string Concat(const std::vector<std::string>& xs, int axis, std::string name = "") {
    const std::string at = Ints({}, {axis});
    name = Named(name);
    auto node = g_.Node("ConcatV2", name);
    for (const std::string& x : xs) node.Input(x);
    node.Input(at).Attr("N", static_cast<int>(xs.size())).Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32);
    return name;
  }
  // Elements of the flattened `x` at `indexes`, as floats.
  std::string Pick(const std::string& x, TF_DataType type, const std::vector<int32_t>& indexes) {
    const std::string flat = Reshape(x, {-1}, type);
    const std::string at = Ints({static_cast<int64_t>(indexes.size())}, indexes);
    const std::string axis = Ints({}, {0});
    const std::string name = Named("");
    g_.Node("GatherV2", name).Input(flat).Input(at).Input(axis).Attr("Tparams", type)
        .Attr("Tindices", TF_INT32).Attr("Taxis", TF_INT32);
    return ToFloat(name, type);
  }
  // "Shape" or "Size" of `x`, as floats.
  std::string Measure(const char* op, const std::string& x, TF_DataType type) {
    const std::string name = Named("");
    g_.Node(op, name).Input(x).Attr("T", type).Attr("out_type", TF_INT32);
    return ToFloat(Reshape(name, {-1}, TF_INT32), TF_INT32);
  }
  std::string Binary(const char* op, const std::string& x, const std::string& y) {
    return g_.Binary(op, Named(""), x, y);
  }
  std::string Bytes() const { return g_.Serialize(); }

 private:
  std::string Named(const std::string& name) {
    return name.empty() ? "n" + std::to_string(next_++) : name;
  }
  GraphBuilder g_;
  int next_ = 0;
};

// A grid head [1, rows, cols, 3 * (5 + classes)] whose records are dead
// (every term -30: no class survives) unless set.
struct Head {
  Head(int rows, int cols, int classes)
      : rows(rows), cols(cols), length(5 + classes),
        data(static_cast<size_t>(rows * cols * 3 * length), -30.0f) {}
  // terms: tx, ty, tw, th, objectness, class terms.
  Head& Set(int row, int col, int anchor, std::vector<float> terms) {
    std::copy(terms.begin(), terms.end(), data.begin() + ((row * cols + col) * 3 + anchor) * length);
    return *this;
  }
  std::string AddTo(Graph& g, const std::string& name) const {
    return g.Floats({1, rows, cols, 3 * length}, data, name);
  }
  int rows, cols, length;
  std::vector<float> data;
};

// A one-row head whose cell i answers, through its best class, the value
// values[i] (an integer below 420): class term k is 30 - 60 (k - v)^2, so
// only k = v is strong. Objectness 30: every score is 1.
void ReportingHead(Graph& g, const std::string& values, int count, const std::string& name) {
  constexpr int kClasses = 420;
  std::vector<float> ks(kClasses);
  for (int k = 0; k < kClasses; ++k) ks[k] = static_cast<float>(k);
  const std::string gap = g.Binary("SquaredDifference", g.Reshape(values, {count, 1}),
                                   g.Floats({1, kClasses}, ks));
  const std::string terms =
      g.Binary("Sub", g.Floats({}, {30}), g.Binary("Mul", g.Floats({}, {60}), gap));
  std::vector<float> box;
  for (int i = 0; i < count; ++i) box.insert(box.end(), {0, 0, 0, 0, 30});
  const std::string first = g.Concat({g.Floats({count, 5}, box), terms}, 1);
  const std::string dead = g.Floats({count, 2 * (5 + kClasses)},
                                    std::vector<float>(count * 2 * (5 + kClasses), -30.0f));
  g.Reshape(g.Concat({first, dead}, 1), {1, 1, count, 3 * (5 + kClasses)}, TF_FLOAT, name);
}

// Interleaved pixels kept alive with their Image.
struct Picture {
  Picture(int width, int height, int channels, std::function<uint8_t(int, int, int)> value)
      : bytes(static_cast<size_t>(width * height * channels)) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        for (int c = 0; c < channels; ++c) bytes[(y * width + x) * channels + c] = value(x, y, c);
    image = Image{width, height, bytes.data(), channels};
  }
  std::vector<uint8_t> bytes;
  Image image;
};

Picture Uniform(int width, int height, std::vector<uint8_t> bgr) {
  return Picture(width, height, static_cast<int>(bgr.size()),
                 [bgr](int, int, int c) { return bgr[c]; });
}

// Quadrants in BGR: top-left 10 20 30, top-right 40 50 60, bottom-left
// 70 80 90, bottom-right 100 110 120.
Picture Quadrants(int width, int height) {
  return Picture(width, height, 3, [=](int x, int y, int c) {
    return static_cast<uint8_t>(10 + 10 * c + 30 * (x >= width / 2) + 60 * (y >= height / 2));
  });
}

struct Answer {
  int code = -1;
  std::string message;
  bool payload = false;
  std::vector<NativeBoundingBox> boxes;
};

// A detector made through CreateModel (which must succeed) and run through
// DetectBoxes.
class Detector {
 public:
  Detector(int code, const std::string& graph) {
    ProcessResult created{nullptr, nullptr};
    handle_ = CreateModel(code, OptionsFor(graph), &created);
    EXPECT_EQ(created.error->code, 0) << "type " << code;
    DisposeModelProcessResult(&created);
  }
  ~Detector() { DisposeModel(handle_); }

  Answer Run(const Image& image, float scoreThreshold, float overlapThreshold) {
    ProcessResult* result = DetectBoxes(handle_, {image, scoreThreshold, overlapThreshold});
    Answer answer;
    answer.code = result->error->code;
    if (result->error->message != nullptr) answer.message = result->error->message;
    auto* boxes = static_cast<BoxDetectionResult*>(result->payload);
    if (boxes != nullptr) {
      answer.payload = true;
      EXPECT_NE(boxes->boxes, nullptr);  // also for no boxes
      answer.boxes.assign(boxes->boxes, boxes->boxes + boxes->count);
    }
    DisposeBoxDetectionResult(boxes);
    DisposeProcessResult(result);
    return answer;
  }

 private:
  void* handle_ = nullptr;
};

void ExpectBox(const NativeBoundingBox& box, std::vector<float> xywh, int classId, float score,
               float tolerance = 1e-5f) {
  EXPECT_NEAR(box.x, xywh[0], tolerance);
  EXPECT_NEAR(box.y, xywh[1], tolerance);
  EXPECT_NEAR(box.width, xywh[2], tolerance);
  EXPECT_NEAR(box.height, xywh[3], tolerance);
  EXPECT_EQ(box.classId, classId);
  EXPECT_NEAR(box.score, score, 1e-6f);
}

std::vector<int> ClassesOf(const Answer& answer) {
  std::vector<int> classes;
  for (const NativeBoundingBox& box : answer.boxes) classes.push_back(box.classId);
  return classes;
}

// ---------------------------------------------------------------------------
// Face detector

// "Identity" = the constant rows, then one row per probed canvas value and
// per dimension of the fed tensor, scored with that value + 1.
std::string FaceGraph(const std::vector<float>& rows, const std::vector<int32_t>& probes = {}) {
  Graph g;
  const std::string images = g.Input("images", TF_FLOAT);
  const auto count = static_cast<int32_t>(rows.size() / 5);
  if (probes.empty()) {
    g.Floats({1, count, 5}, rows, "Identity");
    return g.Bytes();
  }
  const std::string seen = g.Binary(
      "AddV2", g.Concat({g.Pick(images, TF_FLOAT, probes), g.Measure("Shape", images, TF_FLOAT)}, 0),
      g.Floats({}, {1}));
  const int reports = static_cast<int>(probes.size()) + 4;
  const std::string reportRows =
      g.Concat({g.Floats({1, reports, 4}, std::vector<float>(reports * 4, 0.0f)),
                g.Reshape(seen, {1, reports, 1})},
               2);
  g.Concat({g.Floats({1, count, 5}, rows), reportRows}, 1, "Identity");
  return g.Bytes();
}

// Flat index of (row, column, channel) on the 512 x 512 RGB canvas.
int32_t Canvas(int row, int column, int channel) {
  return (row * 512 + column) * 3 + channel;
}

TEST(FaceDetector, LetterboxesGreyRgbAndMapsBack) {
  // Image BGR 10 20 30 reaches the canvas as R 30, G 20, B 10 (scores +1).
  struct Case {
    int width, height;
    std::vector<int32_t> probes;
    std::vector<float> expected;  // probed value + 1
    std::vector<float> row;       // canvas fractions
    std::vector<float> box;       // image pixels
  };
  const Case cases[] = {
      // Factor min(512/1000, 512/500) = 0.512: 512 x 256, padY = 128.
      // y: 0.25 * 512 / 0.512 - 128 / 0.512 = 250 - 250 = 0.
      {1000, 500,
       {Canvas(127, 0, 0), Canvas(128, 0, 0), Canvas(128, 0, 1), Canvas(128, 0, 2),
        Canvas(383, 511, 0), Canvas(384, 511, 2)},
       {128, 31, 21, 11, 31, 128}, {0, 0.25f, 1, 0.75f, 0.9f}, {0, 0, 1000, 500}},
      // 501 * 0.512 = 256.512 rounds to 257 rows; padY = 255 / 2 = 127.
      // y: 0.5 * 1000 - 127 / 0.512 = 500 - 248.046875 = 251.953125.
      {1000, 501,
       {Canvas(126, 5, 0), Canvas(127, 5, 0), Canvas(383, 5, 0), Canvas(384, 5, 0)},
       {128, 31, 31, 128}, {0.25f, 0.5f, 0.5f, 0.75f, 0.9f}, {250, 251.953125f, 250, 250}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.width);
    Detector detector(kFace, FaceGraph(c.row, c.probes));
    const Picture picture = Uniform(c.width, c.height, {10, 20, 30});
    // Every box is apart or degenerate; an overlap threshold of 2 keeps all.
    const Answer answer = detector.Run(picture.image, 0.0f, 2.0f);
    ASSERT_EQ(answer.code, 0) << answer.message;
    ASSERT_EQ(answer.boxes.size(), 1 + c.probes.size() + 4);
    ExpectBox(answer.boxes[0], c.box, 0, 0.9f, 1e-3f);
    std::vector<float> expected = c.expected;
    expected.insert(expected.end(), {2, 513, 513, 4});  // shape 1, 512, 512, 3
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(answer.boxes[1 + i].score, expected[i]);
  }
}

// Ascending suppression (the walk itself is held to its oracle in
// suppression_test): the lower score of an overlapping pair stays, and a
// cleared box still clears others. The score threshold applies first.
TEST(FaceDetector, SuppressionKeepsTheLowerScoreAfterTheScoreThreshold) {
  // Fractions of a 512 image (factor 1, no pads): pixels = 512 x fraction.
  // A, B, C: 1/4 wide, shifted by 1/8: IoU(A,B) = IoU(B,C) = 1/3, IoU(A,C) = 0.
  // D and E identical; F alone. Parse order C A D B E F.
  const std::vector<float> rows = {
      0.25f, 0, 0.5f,  0.0625f, 0.7f,  // C
      0,     0, 0.25f, 0.0625f, 0.3f,  // A
      0,  0.5f, 0.25f, 0.75f,   0.9f,  // D
      0.125f, 0, 0.375f, 0.0625f, 0.5f,  // B
      0,  0.5f, 0.25f, 0.75f,   0.8f,  // E
      0.75f, 0.75f, 1, 1,       0.3f,  // F, tied with A
  };
  Detector detector(kFace, FaceGraph(rows));
  const Picture picture = Uniform(512, 512, {0, 0, 0});
  // A clears B, B (cleared) still clears C, E clears D.
  Answer answer = detector.Run(picture.image, 0.0f, 0.3f);
  ASSERT_EQ(answer.boxes.size(), 3u);
  ExpectBox(answer.boxes[0], {0, 0, 128, 32}, 0, 0.3f);
  ExpectBox(answer.boxes[1], {0, 256, 128, 128}, 0, 0.8f);
  ExpectBox(answer.boxes[2], {384, 384, 128, 128}, 0, 0.3f);
  // 0.5 itself is kept; then B is the lowest and clears C; E clears D.
  answer = detector.Run(picture.image, 0.5f, 0.3f);
  ASSERT_EQ(answer.boxes.size(), 2u);
  EXPECT_EQ(answer.boxes[0].score, 0.5f);
  EXPECT_EQ(answer.boxes[1].score, 0.8f);
  answer = detector.Run(picture.image, 0.95f, 0.3f);
  EXPECT_EQ(answer.code, 0);
  EXPECT_TRUE(answer.payload);
  EXPECT_TRUE(answer.boxes.empty());
}

// ---------------------------------------------------------------------------
// Grid detectors

struct GridNodes {
  int code;
  std::vector<std::pair<std::string, TF_DataType>> inputs;
  std::vector<std::string> heads;
};
const GridNodes kMultiBox3Nodes = {kMultiBox3, {{"input_0", TF_UINT8}},
                                   {"Identity", "Identity_1", "Identity_2"}};
const GridNodes kMultiBox4Nodes = {
    kMultiBox4, {{"Placeholder", TF_FLOAT}},
    {"yolo/Conv_1/BiasAdd", "yolo/Conv_9/BiasAdd", "yolo/Conv_17/BiasAdd"}};
const GridNodes kQueueNodes = {kQueue, {{"input_001", TF_UINT8}, {"InputShape", TF_INT32}},
                               {"output_node0", "output_node1", "output_node2"}};

// Constant heads; missing ones are dead.
std::string ConstantGrid(const GridNodes& nodes, const std::vector<Head>& heads) {
  Graph g;
  for (const auto& input : nodes.inputs) g.Input(input.first, input.second);
  for (size_t i = 0; i < 3; ++i) (i < heads.size() ? heads[i] : Head(1, 1, 1)).AddTo(g, nodes.heads[i]);
  return g.Bytes();
}

TEST(GridDecoding, CellAnchorTermsClassSumSizeAndTies) {
  // First head of the 416 detector, anchors (116, 90), (156, 198), (373, 326).
  Head head(2, 4, 2);
  // Row 1, column 2, anchor 1: x = (2 + sig(ln 3)) / 4 - 156 * 2 / 416 / 2
  // = 0.6875 - 0.375; y = 1.5 / 2 - 198 / 416 / 2; objectness 0.5, class 1
  // scores 0.5, exactly the threshold.
  head.Set(1, 2, 1, {std::log(3.0f), 0, std::log(2.0f), 0, 0, -30, 30});
  // Anchor 2 with e^1: 373 e / 416 = 2.44 > 1, dropped however strong.
  head.Set(0, 0, 2, {0, 0, 1, 0, 30, 30, 30});
  // Strong objectness but no class reaches 0.5: the class sum is 0.
  head.Set(0, 1, 0, {0, 0, 0, 0, 30, -1, -2});
  // Column 3: anchor 0 with tied classes sig(2) (class 0 wins), and anchor 1
  // resized to the same box with objectness sig(1) < 1.
  head.Set(0, 3, 0, {0, 0, 0, 0, 30, 2, 2});
  head.Set(0, 3, 1, {0, 0, std::log(116.0f / 156), std::log(90.0f / 198), 1, -30, 30});
  Detector detector(kMultiBox3, ConstantGrid(kMultiBox3Nodes, {head}));
  const Picture picture = Uniform(64, 48, {1, 2, 3});
  const std::vector<float> r4 = {3.5f / 4 - 58.0f / 416, 0.25f - 45.0f / 416, 116.0f / 416,
                                 90.0f / 416};
  const std::vector<float> r1 = {0.3125f, 0.75f - 99.0f / 416, 0.75f, 198.0f / 416};

  // Class-agnostic: the lower objectness loses all its classes.
  Answer answer = detector.Run(picture.image, 0.5f, 0.5f);
  ASSERT_EQ(answer.boxes.size(), 2u);
  ExpectBox(answer.boxes[0], r4, 0, 0.88079708f);
  ExpectBox(answer.boxes[1], r1, 1, 0.5f);

  // Threshold 0: the weak classes of column 1 now count (sig(-1) = 0.26894),
  // and the suppressed candidate comes back as class 0, score 0.
  answer = detector.Run(picture.image, 0.0f, 0.5f);
  ASSERT_EQ(answer.boxes.size(), 4u);
  ExpectBox(answer.boxes[0], {1.5f / 4 - 58.0f / 416, r4[1], r4[2], r4[3]}, 0, 0.26894142f);
  ExpectBox(answer.boxes[2], r4, 0, 0.0f, 1e-4f);
  EXPECT_EQ(ClassesOf(answer), (std::vector<int>{0, 0, 0, 1}));
}

TEST(GridDecoding, TheNormalisedDetectorPairsItsFirstHeadWithTheSmallestAnchors) {
  // One cell per head; 320 input: (40, 28) is anchor 2 of the first head,
  // (142, 110) anchor 0 of the last. x = 0.5 - 40 / 320 / 2.
  Head first(1, 1, 1);
  first.Set(0, 0, 2, {0, 0, 0, 0, 30, 30});
  Head last(1, 1, 1);
  last.Set(0, 0, 0, {0, 0, 0, 0, 30, 30});
  Detector detector(kMultiBox4, ConstantGrid(kMultiBox4Nodes, {first, Head(1, 1, 1), last}));
  const Picture picture = Uniform(1280, 720, {1, 2, 3});
  // IoU = (0.125 * 0.0875) / (0.44375 * 0.34375) = 0.07: both stay.
  const Answer answer = detector.Run(picture.image, 0.5f, 0.5f);
  ASSERT_EQ(answer.boxes.size(), 2u);
  ExpectBox(answer.boxes[0], {0.4375f, 0.45625f, 0.125f, 0.0875f}, 0, 1.0f);
  ExpectBox(answer.boxes[1], {0.278125f, 0.328125f, 0.44375f, 0.34375f}, 0, 1.0f);
}

// The queue's class scores, exactly: objectness 30 gives 1.
float Logit(float p) {
  return std::log(p / (1 - p));
}

TEST(QueueDetector, PerClassAscendingSuppressionAndTheCanvasMapping) {
  // Cell (0, 0) of a 1 x 2 head: three anchors resized to one box
  // (116 x 90 of 416): Q1 class 0 0.9; Q2 class 0 0.6; Q3 0.8 and class 1
  // 0.7. Cell (0, 1) anchor 2 with e^1: Q4 far larger than the canvas, 0.95.
  Head head(1, 2, 2);
  // A term of -200 gives a class score of exactly 0 (e^-200 is below float).
  head.Set(0, 0, 0, {0, 0, 0, 0, 30, Logit(0.9f), -200});
  head.Set(0, 0, 1, {0, 0, std::log(116.0f / 156), std::log(90.0f / 198), 30, Logit(0.6f), -200});
  head.Set(0, 0, 2,
           {0, 0, std::log(116.0f / 373), std::log(90.0f / 326), 30, Logit(0.8f), Logit(0.7f)});
  head.Set(0, 1, 2, {0, 0, 1, 1, 30, Logit(0.95f), -200});
  Detector queue(kQueue, ConstantGrid(kQueueNodes, {head}));
  // 1280 x 720: s = 1280 / 416, image 416 x 234 in the canvas, padX 0,
  // padY (416 - 234) / 2 = 91. Q2 top: (0.5 - 45 / 416) 416 = 163 -> (163 - 91) / 234.
  Picture picture = Uniform(1280, 720, {1, 2, 3});
  Answer answer = queue.Run(picture.image, 0.5f, 0.5f);
  ASSERT_EQ(answer.boxes.size(), 3u);
  // Class 0 ascending: Q2 (0.6) clears Q3 and Q1; in class 1 Q3 stands alone.
  ExpectBox(answer.boxes[0], {0.25f - 58.0f / 416, 72.0f / 234, 116.0f / 416, 90.0f / 234}, 0,
            0.6f, 1e-4f);
  ExpectBox(answer.boxes[1], {0.25f - 58.0f / 416, 72.0f / 234, 116.0f / 416, 90.0f / 234}, 1,
            0.7f, 1e-4f);
  // Q4: 373 e / 416 = 2.43731 wide, 326 e / 416 high -> 326 e / 234 = 3.78701;
  // x = 0.75 - 2.43731 / 2; y = ((0.5 - 1.06510) 416 - 91) / 234.
  ExpectBox(answer.boxes[2], {-0.46865279f, -1.39350401f, 2.43730558f, 3.78700802f}, 0, 0.95f,
            1e-4f);

  // Threshold 0: Q1, cleared in every class, comes back as class 0, score 0.
  answer = queue.Run(picture.image, 0.0f, 0.5f);
  EXPECT_EQ(ClassesOf(answer), (std::vector<int>{0, 0, 1, 0}));
  EXPECT_EQ(answer.boxes.at(0).score, 0.0f);
}

// What a grid detector fed: one reporting head over `values`.
std::string ReportingGrid(const GridNodes& nodes,
                          const std::function<std::string(Graph&)>& values, int count) {
  Graph g;
  for (const auto& input : nodes.inputs) g.Input(input.first, input.second);
  ReportingHead(g, values(g), count, nodes.heads[0]);
  Head(1, 1, 1).AddTo(g, nodes.heads[1]);
  Head(1, 1, 1).AddTo(g, nodes.heads[2]);
  return g.Bytes();
}

// Flat index of (row, column, channel) of a square input.
int32_t Cell(int side, int row, int column, int channel, int channels = 3) {
  return (row * side + column) * channels + channel;
}

TEST(GridInputs, StretchedBytesFloatsAndRawBytesWithShape) {
  // 640 x 480 stretched to 416 x 416: row 0 and row 415 are image rows
  // (a letterbox would put grey there); column 300 maps to x 461 (right).
  const Picture quadrants = Quadrants(640, 480);
  const std::vector<int32_t> probes = {Cell(416, 0, 0, 0), Cell(416, 0, 0, 2),
                                       Cell(416, 0, 415, 1), Cell(416, 415, 0, 0),
                                       Cell(416, 415, 415, 2), Cell(416, 100, 300, 1)};
  Detector raw(kMultiBox3, ReportingGrid(kMultiBox3Nodes, [&](Graph& g) {
    return g.Concat({g.Measure("Shape", "input_0", TF_UINT8), g.Pick("input_0", TF_UINT8, probes)}, 0);
  }, 10));
  EXPECT_EQ(ClassesOf(raw.Run(quadrants.image, 0.5f, 2.0f)),
            (std::vector<int>{1, 416, 416, 3, 10, 30, 50, 70, 120, 50}));

  // 320 RGB floats in 0..1, reported times 255: channel 0 is red.
  const std::vector<int32_t> probes320 = {Cell(320, 0, 0, 0), Cell(320, 0, 0, 2),
                                          Cell(320, 319, 319, 0), Cell(320, 319, 0, 1)};
  Detector normalised(kMultiBox4, ReportingGrid(kMultiBox4Nodes, [&](Graph& g) {
    return g.Concat({g.Measure("Shape", "Placeholder", TF_FLOAT),
                     g.Binary("Mul", g.Pick("Placeholder", TF_FLOAT, probes320),
                              g.Floats({}, {255}))}, 0);
  }, 8));
  EXPECT_EQ(ClassesOf(normalised.Run(quadrants.image, 0.5f, 2.0f)),
            (std::vector<int>{1, 320, 320, 3, 30, 10, 120, 80}));

  // The queue graph gets the bytes unchanged and [height, width, channels];
  // byte i of this picture holds i.
  const Picture small(5, 4, 3, [](int x, int y, int c) { return uint8_t(3 * (5 * y + x) + c); });
  Detector queue(kQueue, ReportingGrid(kQueueNodes, [&](Graph& g) {
    return g.Concat({g.ToFloat("InputShape", TF_INT32), g.Measure("Size", "input_001", TF_UINT8),
                     g.Pick("input_001", TF_UINT8, {0, 11, 19})}, 0);
  }, 7));
  EXPECT_EQ(ClassesOf(queue.Run(small.image, 0.5f, 2.0f)),
            (std::vector<int>{4, 5, 3, 60, 0, 11, 19}));
  const Picture oneChannel = Uniform(5, 4, {9});
  EXPECT_EQ(ClassesOf(queue.Run(oneChannel.image, 0.5f, 2.0f)),
            (std::vector<int>{4, 5, 1, 20, 9, 9, 9}));
}

// ---------------------------------------------------------------------------
// Person and vehicle, head

std::string PersonVehicleGraph(float count, const std::vector<float>& boxes,
                               const std::vector<float>& scores, const std::vector<float>& classes) {
  Graph g;
  g.Input("InputNodeFull", TF_UINT8);
  g.Input("InputShape", TF_INT32);
  const auto n = static_cast<int64_t>(scores.size());
  g.Floats({1}, {count}, "num_detections");
  g.Floats({1, n, 4}, boxes, "detection_boxes");
  g.Floats({1, n}, scores, "detection_scores");
  if (classes.empty()) {
    // Report the fed shape and the byte count as the classes.
    g.Reshape(g.Concat({g.ToFloat("InputShape", TF_INT32),
                        g.Measure("Size", "InputNodeFull", TF_UINT8)}, 0),
              {1, 5}, TF_FLOAT, "detection_classes");
  } else {
    g.Floats({1, n}, classes, "detection_classes");
  }
  return g.Bytes();
}

TEST(PersonVehicle, KeepsTheLeadingRunReachingTheThreshold) {
  // Rows are top, left, bottom, right; classes truncate toward zero.
  Detector detector(kPersonVehicle,
                    PersonVehicleGraph(3.7f, {0.1f, 0.2f, 0.5f, 0.6f, 0, 0, 1, 1, 0.5f, 0.5f, 0.75f, 1},
                                       {0.9f, 0.3f, 0.8f}, {1.0f, 3.0f, 2.9f}));
  const Picture picture = Uniform(4, 3, {1, 2, 3});
  Answer answer = detector.Run(picture.image, 0.5f, 0.0f);
  ASSERT_EQ(answer.boxes.size(), 1u);  // 0.8 comes after the weaker 0.3
  ExpectBox(answer.boxes[0], {0.2f, 0.1f, 0.4f, 0.4f}, 1, 0.9f);

  answer = detector.Run(picture.image, 0.3f, 0.0f);  // equal is kept
  EXPECT_EQ(ClassesOf(answer), (std::vector<int>{1, 3, 2}));
  ExpectBox(answer.boxes[2], {0.5f, 0.5f, 0.5f, 0.25f}, 2, 0.8f);

  // The count bounds the scan.
  Detector two(kPersonVehicle, PersonVehicleGraph(2.0f, std::vector<float>(12, 0.5f),
                                                  {0.9f, 0.8f, 0.7f}, {1, 1, 1}));
  EXPECT_EQ(two.Run(picture.image, 0.0f, 0.0f).boxes.size(), 2u);

  // Fed bytes: three channels assumed even when the image says one.
  Detector fed(kPersonVehicle, PersonVehicleGraph(5, std::vector<float>(20, 0.5f),
                                                  {0.9f, 0.8f, 0.7f, 0.6f, 0.5f}, {}));
  Picture pixels = Uniform(5, 4, {1, 2, 3});
  pixels.image.channels = 1;
  EXPECT_EQ(ClassesOf(fed.Run(pixels.image, 0.0f, 0.0f)), (std::vector<int>{1, 4, 5, 3, 60}));
}

TEST(HeadDetector, OneBoxWithTheLogisticOfTheLogit) {
  // [byte count, 2, 10, 7, first byte - 128]: x1 is the byte count, x2 < x1
  // for three channels.
  Graph g;
  g.Input("node_input", TF_UINT8);
  g.Concat({g.Measure("Size", "node_input", TF_UINT8), g.Floats({3}, {2, 10, 7}),
            g.Binary("Sub", g.Pick("node_input", TF_UINT8, {0}), g.Floats({}, {128}))},
           0, "output_node0");
  Detector detector(kHead, g.Bytes());

  const Picture grey = Uniform(4, 3, {128});  // 12 bytes, logit 0
  Answer answer = detector.Run(grey.image, 5.0f, 5.0f);
  ASSERT_EQ(answer.boxes.size(), 1u);
  ExpectBox(answer.boxes[0], {12, 2, -2, 5}, 0, 0.5f);

  const Picture high = Uniform(4, 3, {168, 0, 0});  // 36 bytes, logit 40
  answer = detector.Run(high.image, -1.0f, 0.0f);
  ASSERT_EQ(answer.boxes.size(), 1u);
  ExpectBox(answer.boxes[0], {36, 2, -26, 5}, 0, 1.0f);
}

}  // namespace
