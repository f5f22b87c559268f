// library_bench: how much of a library call is the library's own work.
//
//   library_bench FACE_GRAPH.pb PICTURE [CALLS] [AGE_GRAPH.pb]
//
// Runs the face detector (model type 2, through the C ABI as a host would)
// on PICTURE scaled into 1920x1080 and 1280x720 frames, CALLS times each
// after a warm-up, and splits every call into the session run and the rest
// (letterbox, colour conversion, tensor copies, decoding, suppression).
// Given an age graph, does the same for the age model (type 5) on a
// 224 x 224 crop of PICTURE: a per-face model, where the library's fixed
// cost per call matters most.
//
// The split is measured, not estimated: the host toolkit's interposer
// (tools/common/tf_interposer.h) stands in front of the C API's
// TF_SessionRun, so the library's calls reach it, and its hook adds up the
// real function's time.
#include <videoanalytics.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "host.h"
#include "tf_interposer.h"

namespace {

using Clock = std::chrono::steady_clock;
double g_session_ms = 0;  // time inside TF_SessionRun since the last reset

void AddSessionRun(double seconds) { g_session_ms += seconds * 1000; }

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

void* LoadModel(int type, const std::string& graph) {
  ModelOptions options{static_cast<int32_t>(graph.size()), graph.data(), ""};
  ProcessResult created{};
  void* model = CreateModel(type, options, &created);
  const int code = created.error != nullptr ? created.error->code : -1;
  DisposeModelProcessResult(&created);
  if (model == nullptr || code != 0) {
    std::fprintf(stderr, "library_bench: CreateModel(%d) failed (code %d)\n", type, code);
    DisposeModel(model);
    return nullptr;
  }
  return model;
}

// Times `call` (which returns how much it found) `calls` times after five
// warm-up calls and prints one table row.
template <typename Call>
void MeasureRow(const std::string& label, int calls, Call&& call) {
  std::vector<double> total, session, own;
  int found = 0;
  for (int i = -5; i < calls; ++i) {
    g_session_ms = 0;
    const auto start = Clock::now();
    found = call();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (i < 0) continue;
    total.push_back(ms);
    session.push_back(g_session_ms);
    own.push_back(ms - g_session_ms);
  }
  const double t = Median(total), s = Median(session), o = Median(own);
  std::printf("| %s | %d | %.3f | %.3f | %.3f | %.1f%% | %d |\n", label.c_str(), calls, t, s, o,
              100.0 * o / t, found);
}

}  // namespace

int main(int argc, char** argv) {
  va_host::TfHooks hooks;
  hooks.session_run = AddSessionRun;
  va_host::SetTfHooks(hooks);
  if (argc < 3) {
    std::fprintf(stderr, "usage: library_bench FACE_GRAPH.pb PICTURE [CALLS] [AGE_GRAPH.pb]\n");
    return 2;
  }
  const int calls = argc > 3 ? std::max(1, std::atoi(argv[3])) : 50;
  const std::string graph = va_host::ReadFile(argv[1]);
  const cv::Mat picture = cv::imread(argv[2], cv::IMREAD_COLOR);
  if (graph.empty() || picture.empty()) {
    std::fprintf(stderr, "library_bench: cannot read %s or %s\n", argv[1], argv[2]);
    return 1;
  }
  void* faces = LoadModel(2, graph);
  if (faces == nullptr) return 1;

  std::printf("| call | calls | call median ms | session run ms | library's own ms | own share | found |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const cv::Size size : {cv::Size(1920, 1080), cv::Size(1280, 720)}) {
    // The picture letterboxed into the frame, as a camera frame with a
    // person in it.
    cv::Mat frame(size, CV_8UC3, cv::Scalar(40, 40, 40));
    const double scale = std::min(static_cast<double>(size.width) / picture.cols,
                                  static_cast<double>(size.height) / picture.rows);
    cv::Mat scaled;
    cv::resize(picture, scaled, cv::Size(), scale, scale, cv::INTER_LINEAR);
    scaled.copyTo(frame(cv::Rect((size.width - scaled.cols) / 2, (size.height - scaled.rows) / 2,
                                 scaled.cols, scaled.rows)));
    const std::string label =
        "faces in " + std::to_string(size.width) + "x" + std::to_string(size.height);
    MeasureRow(label, calls, [&] {
      ProcessResult* r = DetectBoxes(
          faces, BoxDetectionInputData{Image{frame.cols, frame.rows, frame.data, 3}, 0.5f, 0.3f});
      auto* boxes = static_cast<BoxDetectionResult*>(r->payload);
      const int found = boxes != nullptr ? boxes->count : -1;
      DisposeBoxDetectionResult(boxes);
      DisposeProcessResult(r);
      return found;
    });
  }
  DisposeModel(faces);

  if (argc > 4) {
    void* age = LoadModel(5, va_host::ReadFile(argv[4]));
    if (age == nullptr) return 1;
    cv::Mat crop;
    cv::resize(picture, crop, cv::Size(224, 224), 0, 0, cv::INTER_AREA);
    MeasureRow("age of a 224x224 crop", calls, [&] {
      ProcessResult* r = Predict(age, Image{crop.cols, crop.rows, crop.data, 3});
      const int answered = r->error != nullptr && r->error->code == 0 ? 1 : 0;
      DisposeFloatVector(static_cast<FloatVector*>(r->payload));
      DisposeProcessResult(r);
      return answered;
    });
    DisposeModel(age);
  }
  return 0;
}
