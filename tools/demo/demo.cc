// demo: faces and body keypoints on pictures and a video, through the
// library's C ABI only; OpenCV reads, draws and writes.
//
//   demo --models DIR --out DIR [--face-threshold F] file...
//
// DIR holds face.pb (face detector, type 2) and skeleton.pb (skeleton
// detector, type 24). Pictures give NAME_annotated.png, videos give
// NAME_annotated.avi; every picture or frame adds one JSON line to
// results.jsonl in the output folder.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "videoanalytics.h"

namespace {

constexpr int kFaceDetector = 2;
constexpr int kSkeletonDetector = 24;
constexpr float kKeypointFloor = 0.3f;  // below this a keypoint is not drawn

// The 17 keypoints' bones: face, arms, torso, legs.
const int kBones[][2] = {{0, 1},  {0, 2},   {1, 3},   {2, 4},   {5, 6},   {5, 7},
                         {7, 9},  {6, 8},   {8, 10},  {5, 11},  {6, 12},  {11, 12},
                         {11, 13}, {13, 15}, {12, 14}, {14, 16}};

struct Keypoint {
  float x, y, score;  // pixels of the picture
};

struct Result {
  std::vector<NativeBoundingBox> faces;
  std::vector<Keypoint> keypoints;
};

std::string MessageOf(const ProcessResult* r) {
  return r->error != nullptr && r->error->message != nullptr ? r->error->message : "";
}

class Model {
 public:
  Model(int type, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    graph_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (graph_.empty()) {
      error_ = "cannot read " + path;
      return;
    }
    ModelOptions options{static_cast<int32_t>(graph_.size()), graph_.data(), ""};
    ProcessResult result{};
    handle_ = CreateModel(type, options, &result);
    if (result.error == nullptr || result.error->code != 0) error_ = path + ": " + MessageOf(&result);
    DisposeModelProcessResult(&result);
  }
  ~Model() { DisposeModel(handle_); }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  void* handle() const { return handle_; }
  const std::string& error() const { return error_; }

 private:
  std::string graph_;
  void* handle_ = nullptr;
  std::string error_;
};

// Runs both models on one BGR picture; false with `error` set on failure.
bool Analyse(const Model& faces, const Model& skeleton, cv::Mat& bgr, float threshold,
             Result* out, std::string* error) {
  if (!bgr.isContinuous()) bgr = bgr.clone();
  const Image image{bgr.cols, bgr.rows, bgr.data, 3};
  ProcessResult* r = DetectBoxes(faces.handle(), BoxDetectionInputData{image, threshold, 0.3f});
  auto* boxes = static_cast<BoxDetectionResult*>(r->payload);
  if (boxes == nullptr) *error = "face detector: " + MessageOf(r);
  if (boxes != nullptr) out->faces.assign(boxes->boxes, boxes->boxes + boxes->count);
  DisposeBoxDetectionResult(boxes);
  DisposeProcessResult(r);
  if (!error->empty()) return false;

  r = PredictVector(skeleton.handle(), image);
  auto* v = static_cast<FloatVector*>(r->payload);
  if (v == nullptr) *error = "skeleton detector: " + MessageOf(r);
  for (int i = 0; v != nullptr && i + 2 < v->count; i += 3) {
    // The library gives (y, x, score) in fractions of the picture.
    out->keypoints.push_back({v->values[i + 1] * bgr.cols, v->values[i] * bgr.rows, v->values[i + 2]});
  }
  DisposeFloatVector(v);
  DisposeProcessResult(r);
  return error->empty();
}

void Draw(const Result& result, cv::Mat* canvas) {
  const int thick = std::max(1, canvas->cols / 400);
  for (const NativeBoundingBox& b : result.faces) {
    const cv::Rect box(cvRound(b.x), cvRound(b.y), cvRound(b.width), cvRound(b.height));
    cv::rectangle(*canvas, box, cv::Scalar(0, 255, 0), 2 * thick);
    char label[32];
    std::snprintf(label, sizeof label, "face %.2f", b.score);
    cv::putText(*canvas, label, box.tl() + cv::Point(0, -4), cv::FONT_HERSHEY_SIMPLEX,
                0.5 * thick, cv::Scalar(0, 255, 0), thick);
  }
  const std::vector<Keypoint>& k = result.keypoints;
  for (const auto& bone : kBones) {
    if (bone[1] >= static_cast<int>(k.size())) continue;
    const Keypoint& a = k[bone[0]];
    const Keypoint& b = k[bone[1]];
    if (a.score < kKeypointFloor || b.score < kKeypointFloor) continue;
    cv::line(*canvas, cv::Point2f(a.x, a.y), cv::Point2f(b.x, b.y), cv::Scalar(255, 160, 0),
             thick + 1, cv::LINE_AA);
  }
  for (const Keypoint& p : k) {
    if (p.score < kKeypointFloor) continue;
    cv::circle(*canvas, cv::Point2f(p.x, p.y), 2 + thick, cv::Scalar(0, 0, 255), cv::FILLED,
               cv::LINE_AA);
  }
}

nlohmann::json ToJson(const std::string& source, int frame, const Result& r) {
  nlohmann::json line = {{"source", source}};
  if (frame >= 0) line["frame"] = frame;
  line["faces"] = nlohmann::json::array();
  for (const NativeBoundingBox& b : r.faces) {
    line["faces"].push_back({{"x", b.x}, {"y", b.y}, {"width", b.width}, {"height", b.height},
                             {"score", b.score}});
  }
  line["keypoints"] = nlohmann::json::array();
  for (const Keypoint& p : r.keypoints) line["keypoints"].push_back({p.x, p.y, p.score});
  return line;
}

int Visible(const Result& r) {
  int n = 0;
  for (const Keypoint& p : r.keypoints) n += p.score >= kKeypointFloor;
  return n;
}

std::string Stem(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.find_last_of('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

bool IsVideo(const std::string& path) {
  for (const char* ext : {".avi", ".mp4", ".mkv", ".mov"}) {
    const size_t n = std::strlen(ext);
    if (path.size() > n && path.compare(path.size() - n, n, ext) == 0) return true;
  }
  return false;
}

// Redrawn only when the bar grows, so a log of it stays short.
void Progress(int done, int total) {
  const int width = 40;
  const int filled = total > 0 ? done * width / total : 0;
  const int before = total > 0 ? (done - 1) * width / total : 0;
  if (filled == before && done != total && done != 1) return;
  std::fprintf(stderr, "\r  [%s%s] %d/%d", std::string(filled, '#').c_str(),
               std::string(width - filled, '.').c_str(), done, total);
  if (done == total) std::fprintf(stderr, "\n");
}

int Usage() {
  std::fprintf(stderr,
               "usage: demo --models DIR --out DIR [--face-threshold F] picture-or-video...\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string models_dir, out_dir;
  float threshold = 0.6f;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (std::strcmp(argv[i], "--models") == 0 && has_value) {
      models_dir = argv[++i];
    } else if (std::strcmp(argv[i], "--out") == 0 && has_value) {
      out_dir = argv[++i];
    } else if (std::strcmp(argv[i], "--face-threshold") == 0 && has_value) {
      threshold = std::strtof(argv[++i], nullptr);
    } else if (argv[i][0] == '-') {
      return Usage();
    } else {
      inputs.push_back(argv[i]);
    }
  }
  if (models_dir.empty() || out_dir.empty() || inputs.empty()) return Usage();

  Model faces(kFaceDetector, models_dir + "/face.pb");
  Model skeleton(kSkeletonDetector, models_dir + "/skeleton.pb");
  for (const Model* m : {&faces, &skeleton}) {
    if (!m->error().empty()) {
      std::fprintf(stderr, "demo: %s\n", m->error().c_str());
      return 1;
    }
  }
  std::ofstream jsonl(out_dir + "/results.jsonl", std::ios::trunc);
  if (!jsonl) {
    std::fprintf(stderr, "demo: cannot write %s/results.jsonl\n", out_dir.c_str());
    return 1;
  }

  int failures = 0;
  for (const std::string& path : inputs) {
    std::string error;
    if (!IsVideo(path)) {
      cv::Mat picture = cv::imread(path, cv::IMREAD_COLOR);
      Result r;
      if (picture.empty()) {
        error = "cannot read the picture";
      } else if (Analyse(faces, skeleton, picture, threshold, &r, &error)) {
        jsonl << ToJson(path, -1, r).dump() << "\n";
        Draw(r, &picture);
        const std::string out = out_dir + "/" + Stem(path) + "_annotated.png";
        cv::imwrite(out, picture);
        std::printf("%s: %zu face(s), %d of %zu keypoints visible -> %s\n", path.c_str(),
                    r.faces.size(), Visible(r), r.keypoints.size(), out.c_str());
      }
    } else {
      cv::VideoCapture video(path);
      if (!video.isOpened()) error = "cannot open the video";
      const int total = static_cast<int>(video.get(cv::CAP_PROP_FRAME_COUNT));
      const double fps = video.get(cv::CAP_PROP_FPS);
      const std::string out = out_dir + "/" + Stem(path) + "_annotated.avi";
      cv::VideoWriter writer;
      int frames = 0, with_face = 0;
      std::printf("%s: %d frames\n", path.c_str(), total);
      cv::Mat frame;
      while (error.empty() && video.read(frame)) {
        Result r;
        if (!Analyse(faces, skeleton, frame, threshold, &r, &error)) break;
        if (!writer.isOpened()) {
          writer.open(out, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps > 0 ? fps : 25,
                      frame.size());
        }
        jsonl << ToJson(path, frames, r).dump() << "\n";
        Draw(r, &frame);
        writer.write(frame);
        with_face += !r.faces.empty();
        Progress(++frames, std::max(total, frames));
      }
      if (error.empty()) {
        std::printf("%s: %d frames, %d with a face -> %s\n", path.c_str(), frames, with_face,
                    out.c_str());
      }
    }
    if (!error.empty()) {
      std::fprintf(stderr, "demo: %s: %s\n", path.c_str(), error.c_str());
      ++failures;
    }
  }
  std::printf("results: %s/results.jsonl\n", out_dir.c_str());
  return failures == 0 ? 0 : 1;
}
