// va: the library from the shell. Everything goes through the C ABI of
// libvideoanalytics, as any host would use it.
//   va run --type N --graph model.pb [options] picture...
//   va devices
//   va convert ...
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "videoanalytics.h"

namespace {

using nlohmann::json;

// A bad command line (exit 2) or a failed run (exit 1); either way one line.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class Entry { kBoxes, kScalar, kVector, kBatch, kGender, kRects, kPatches };

struct ModelKind {
  const char* name;
  Entry entry;
};

// Indexed by type code.
const ModelKind kKinds[] = {
    {"MultiBox3Processor", Entry::kBoxes},
    {"SingleHeadDetector", Entry::kBoxes},
    {"FaceDetectorProcessor", Entry::kBoxes},
    {"PersonVehicleBoxDetector", Entry::kBoxes},
    {"HardHatClassifier", Entry::kScalar},
    {"AgeProcessor", Entry::kScalar},
    {"FaceFilterBatchProcessor", Entry::kBatch},
    {"HumanFilter", Entry::kScalar},
    {"FaceEmbeddingProcessor", Entry::kBatch},
    {"GenderProcessor", Entry::kGender},
    {"FaceLandmarksProcessor", Entry::kBatch},
    {"FaceFilterMultipleProcessor", Entry::kRects},
    {"FaceEmotionsProcessor", Entry::kVector},
    {"FaceFilterNClass", Entry::kVector},
    {"FaceLightLandmarksProcessor", Entry::kVector},
    {"FaceLightEmbeddingProcessor", Entry::kBatch},
    {"HumanIndexer", Entry::kVector},
    {"VehicleIndexer", Entry::kVector},
    {"VehicleFilter", Entry::kVector},
    {"HumanAttribExtractor", Entry::kVector},
    {"VehicleAttribExtractor", Entry::kVector},
    {"QueueMultiBox3Processor", Entry::kBoxes},
    {"FaceMaskClassifier", Entry::kScalar},
    {"MultiBox4Processor", Entry::kBoxes},
    {"SkeletonDetector", Entry::kVector},
    {"SafetyVestClassifier", Entry::kScalar},
    {"PatchFireDetector", Entry::kPatches},
};
constexpr int kTypeCount = static_cast<int>(std::size(kKinds));

const char kUsage[] =
    "usage: va <command> [options]\n"
    "\n"
    "commands:\n"
    "  run       run a model on pictures or videos, one JSON line per picture or frame\n"
    "  devices   list the compute devices the runtime sees\n"
    "  convert   convert a TensorFlow.js graph model to a frozen GraphDef\n"
    "\n"
    "'va <command> --help' describes a command.\n";

const char kRunUsage[] =
    "usage: va run --type N --graph model.pb [options] input...\n"
    "\n"
    "Runs the model of type code N (0 to 26) built from a frozen GraphDef on each\n"
    "input, a picture (anything OpenCV reads) or a video (.avi .mp4 .mkv .mov .webm,\n"
    "every frame), and prints one JSON object per picture or frame.\n"
    "\n"
    "options:\n"
    "  --type N          model type code (see the README's table of model types)\n"
    "  --graph FILE      the frozen GraphDef\n"
    "  --device NAME     default device of every node (default: none)\n"
    "  --score T         detectors: lowest score kept (default 0.5)\n"
    "  --overlap T       detectors: overlap at which a box is suppressed (default 0.45)\n"
    "  --rect X,Y,W,H    face filter (11) and fire detector (26): a rectangle in pixels\n"
    "                    to score, repeatable (default: the whole picture)\n"
    "  --features A,B,.. gender model (9): the feature row to score; no inputs needed\n"
    "  --max-frames N    videos: stop after N frames\n"
    "  --draw OUT        write the one input picture with boxes or keypoints drawn\n"
    "\n"
    "A graph that TensorFlow cannot import or run makes the library wait for ever\n"
    "(its model lock stays held); stop va with Ctrl-C in that case.\n";

const char kDevicesUsage[] =
    "usage: va devices\n"
    "\n"
    "Lists the compute devices the TensorFlow runtime behind the library sees, as\n"
    "JSON: [{\"name\": ..., \"type\": ...}].\n";

const char kConvertUsage[] =
    "usage: va convert [converter options]\n"
    "\n"
    "Runs the TensorFlow.js graph-model converter with the given options: the\n"
    "program named by $VA_TFJS_CONVERT, else tfjs_convert next to va (or in the\n"
    "build tree's tools/tfjs_convert), else tfjs_convert on the PATH. Run the\n"
    "converter itself with --help for its options.\n";

bool WantsHelp(const std::vector<std::string>& args) {
  for (const std::string& a : args)
    if (a == "--help" || a == "-h") return true;
  return false;
}

float ParseFloat(const std::string& option, const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const float v = std::strtof(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v))
    throw UsageError(option + " needs a number, got '" + text + "'");
  return v;
}

long ParseInt(const std::string& option, const std::string& text, long lo, long hi) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || v < lo || v > hi)
    throw UsageError(option + " needs a whole number from " + std::to_string(lo) + " to " +
                     std::to_string(hi) + ", got '" + text + "'");
  return v;
}

std::vector<float> ParseList(const std::string& option, const std::string& text) {
  std::vector<float> values;
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    values.push_back(ParseFloat(option, text.substr(start, comma - start)));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return values;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Failure("cannot read " + path + ": " + std::strerror(errno));
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
    throw Failure(path + " is too large for a graph");
  return bytes;
}

// Reads an envelope's error and releases the envelope; throws on failure
// after `release_payload` has disposed whatever payload came back.
template <typename Release>
void* Unwrap(ProcessResult* result, const std::string& what, Release release_payload) {
  if (result == nullptr) throw Failure(what + ": the library returned no result");
  const int code = result->error != nullptr ? result->error->code : 2;
  std::string message;
  if (code != 0 && result->error != nullptr && result->error->message != nullptr)
    message = result->error->message;
  void* payload = result->payload;
  DisposeProcessResult(result);
  if (code != 0) {
    release_payload(payload);
    throw Failure(what + " failed (code " + std::to_string(code) + "): " +
                  (message.empty() ? std::string(code == 2 ? "no model" : "no message")
                                   : message));
  }
  return payload;
}

void* UnwrapFloats(ProcessResult* result, const std::string& what) {
  return Unwrap(result, what,
                [](void* p) { DisposeFloatVector(static_cast<FloatVector*>(p)); });
}

json TakeFloats(void* payload) {
  json values = json::array();
  auto* v = static_cast<FloatVector*>(payload);
  if (v == nullptr) return values;
  for (int32_t i = 0; i < v->count; ++i) values.push_back(v->values[i]);
  DisposeFloatVector(v);
  return values;
}

// A model handle owned for the length of a command.
class Model {
 public:
  Model(int type, const std::string& graph_path, const std::string& device) {
    const std::string graph = ReadFile(graph_path);
    ModelOptions options{static_cast<int32_t>(graph.size()), graph.data(), device.c_str()};
    ProcessResult created{nullptr, nullptr};
    handle_ = CreateModel(type, options, &created);
    const int code = created.error != nullptr ? created.error->code : 2;
    std::string message;
    if (code != 0 && created.error != nullptr && created.error->message != nullptr)
      message = created.error->message;
    DisposeModelProcessResult(&created);
    if (code != 0) {
      DisposeModel(handle_);
      throw Failure("cannot create a model of type " + std::to_string(type) + " from " +
                    graph_path + (message.empty() ? "" : ": " + message));
    }
  }
  ~Model() { DisposeModel(handle_); }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;
  void* handle() const { return handle_; }

 private:
  void* handle_ = nullptr;
};

struct RunOptions {
  int type = -1;
  std::string graph;
  std::string device;
  float score = 0.5f;
  float overlap = 0.45f;
  std::vector<RelRect> rects;
  std::vector<float> features;
  bool has_features = false;
  long max_frames = -1;
  std::string draw;
  std::vector<std::string> inputs;
};

bool IsVideo(const std::string& path) {
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos) return false;
  std::string ext = path.substr(dot);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".avi" || ext == ".mp4" || ext == ".mkv" || ext == ".mov" || ext == ".webm";
}

RunOptions ParseRun(const std::vector<std::string>& args) {
  RunOptions o;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw UsageError(a + " needs a value");
      return args[++i];
    };
    if (a == "--type") {
      o.type = static_cast<int>(ParseInt(a, value(), 0, kTypeCount - 1));
    } else if (a == "--graph") {
      o.graph = value();
    } else if (a == "--device") {
      o.device = value();
    } else if (a == "--score") {
      o.score = ParseFloat(a, value());
    } else if (a == "--overlap") {
      o.overlap = ParseFloat(a, value());
    } else if (a == "--rect") {
      const std::vector<float> r = ParseList(a, value());
      if (r.size() != 4) throw UsageError("--rect needs X,Y,W,H");
      o.rects.push_back(RelRect{r[0], r[1], r[2], r[3]});
    } else if (a == "--features") {
      o.features = ParseList(a, value());
      o.has_features = true;
    } else if (a == "--max-frames") {
      o.max_frames = ParseInt(a, value(), 1, std::numeric_limits<int32_t>::max());
    } else if (a == "--draw") {
      o.draw = value();
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("run: unknown option " + a);
    } else {
      o.inputs.push_back(a);
    }
  }
  if (o.type < 0) throw UsageError("run: --type is required");
  if (o.graph.empty()) throw UsageError("run: --graph is required");
  const Entry entry = kKinds[o.type].entry;
  if (entry == Entry::kGender) {
    if (!o.has_features) throw UsageError("run: the gender model (9) needs --features");
    if (!o.inputs.empty()) throw UsageError("run: the gender model (9) takes no inputs");
  } else if (o.inputs.empty()) {
    throw UsageError("run: no input pictures");
  }
  if (!o.draw.empty() && (o.inputs.size() != 1 || IsVideo(o.inputs[0])))
    throw UsageError("run: --draw needs exactly one input picture");
  return o;
}

// Runs the model's entry point on one BGR (or grey) picture.
json RunOnPicture(const RunOptions& o, const Model& model, cv::Mat picture) {
  if (!picture.isContinuous()) picture = picture.clone();
  if (picture.depth() != CV_8U) throw Failure("only 8-bit pictures are supported");
  if (picture.channels() == 4) cv::cvtColor(picture, picture, cv::COLOR_BGRA2BGR);
  Image image{picture.cols, picture.rows, picture.data, picture.channels()};
  const std::string what = kKinds[o.type].name;
  json out;
  out["width"] = picture.cols;
  out["height"] = picture.rows;
  switch (kKinds[o.type].entry) {
    case Entry::kBoxes: {
      BoxDetectionInputData input{image, o.score, o.overlap};
      auto* boxes = static_cast<BoxDetectionResult*>(
          Unwrap(DetectBoxes(model.handle(), input), what, [](void* p) {
            DisposeBoxDetectionResult(static_cast<BoxDetectionResult*>(p));
          }));
      json list = json::array();
      if (boxes != nullptr) {
        for (int32_t i = 0; i < boxes->count; ++i) {
          const NativeBoundingBox& b = boxes->boxes[i];
          list.push_back({{"x", b.x}, {"y", b.y}, {"width", b.width}, {"height", b.height},
                          {"class", b.classId}, {"score", b.score}});
        }
        DisposeBoxDetectionResult(boxes);
      }
      out["boxes"] = list;
      break;
    }
    case Entry::kScalar:
      out["value"] = TakeFloats(UnwrapFloats(Predict(model.handle(), image), what)).at(0);
      break;
    case Entry::kVector:
      out["values"] = TakeFloats(UnwrapFloats(PredictVector(model.handle(), image), what));
      break;
    case Entry::kBatch: {
      if (picture.channels() != 3) throw Failure(what + " needs a colour picture");
      BatchImageInput batch{1, image};
      out["values"] = TakeFloats(UnwrapFloats(PredictBatch(model.handle(), batch), what));
      break;
    }
    case Entry::kRects:
    case Entry::kPatches: {
      std::vector<RelRect> rects = o.rects;
      if (rects.empty())
        rects.push_back(RelRect{0, 0, static_cast<float>(picture.cols),
                                static_cast<float>(picture.rows)});
      const auto count = static_cast<int32_t>(rects.size());
      ProcessResult* result;
      if (kKinds[o.type].entry == Entry::kRects) {
        result = GetFaceRecallMultiple(model.handle(),
                                       ImageWithRectsInput{image, count, rects.data()});
      } else {
        result = GetPatchDetections(model.handle(), BatchImageInput{1, image},
                                    PatchInput{count, rects.data()});
      }
      out["values"] = TakeFloats(UnwrapFloats(result, what));
      break;
    }
    case Entry::kGender:
      break;  // handled without pictures
  }
  return out;
}

// Boxes in pixels: the face detector reports pixels, the others fractions of
// the picture (the head detector reports its graph's units: fractions when
// they look like fractions).
cv::Rect2f BoxInPixels(int type, const json& b, const cv::Size& size) {
  cv::Rect2f r(b["x"].get<float>(), b["y"].get<float>(), b["width"].get<float>(),
               b["height"].get<float>());
  const bool fractions = type != VA_FACE_DETECTOR &&
                         (type != VA_SINGLE_HEAD_DETECTOR ||
                          (std::fabs(r.x) <= 1.5f && std::fabs(r.width) <= 1.5f));
  if (fractions) {
    r.x *= size.width;
    r.width *= size.width;
    r.y *= size.height;
    r.height *= size.height;
  }
  return r;
}

void Draw(const RunOptions& o, cv::Mat picture, const json& result) {
  if (picture.channels() == 1) cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  if (picture.channels() == 4) cv::cvtColor(picture, picture, cv::COLOR_BGRA2BGR);
  const cv::Scalar green(0, 220, 0), yellow(0, 220, 255);
  const int thickness = std::max(1, std::min(picture.cols, picture.rows) / 300);
  if (result.contains("boxes")) {
    for (const json& b : result["boxes"]) {
      const cv::Rect2f r = BoxInPixels(o.type, b, picture.size());
      cv::rectangle(picture, r, green, thickness);
      char label[48];
      std::snprintf(label, sizeof label, "%d %.2f", b["class"].get<int>(),
                    b["score"].get<float>());
      cv::putText(picture, label, cv::Point(static_cast<int>(r.x), static_cast<int>(r.y) - 3),
                  cv::FONT_HERSHEY_SIMPLEX, 0.4 * thickness, green, thickness);
    }
  } else if (o.type == VA_SKELETON_DETECTOR && result.contains("values")) {
    // Triples (y, x, score) in fractions of the picture.
    const json& v = result["values"];
    for (size_t i = 0; i + 2 < v.size(); i += 3) {
      if (v[i + 2].get<float>() < o.score) continue;
      const cv::Point centre(static_cast<int>(v[i + 1].get<float>() * picture.cols),
                             static_cast<int>(v[i].get<float>() * picture.rows));
      cv::circle(picture, centre, 2 + thickness, yellow, cv::FILLED);
    }
  }
  try {
    if (!cv::imwrite(o.draw, picture)) throw Failure("cannot write " + o.draw);
  } catch (const cv::Exception&) {
    throw Failure("cannot write " + o.draw + " (unknown picture format?)");
  }
}

void PrintLine(const json& j) { std::cout << j.dump() << '\n' << std::flush; }

int Run(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kRunUsage;
    return 0;
  }
  const RunOptions o = ParseRun(args);
  const Model model(o.type, o.graph, o.device);
  if (kKinds[o.type].entry == Entry::kGender) {
    std::vector<float> features = o.features;
    const json values = TakeFloats(UnwrapFloats(
        GetGender(model.handle(), static_cast<int32_t>(features.size()), features.data()),
        kKinds[o.type].name));
    PrintLine({{"type", o.type}, {"model", kKinds[o.type].name}, {"value", values.at(0)}});
    return 0;
  }
  for (const std::string& path : o.inputs) {
    if (IsVideo(path)) {
      if (access(path.c_str(), R_OK) != 0)
        throw Failure("cannot read video " + path + ": " + std::strerror(errno));
      cv::VideoCapture video(path);
      if (!video.isOpened()) throw Failure("cannot open video " + path);
      cv::Mat frame;
      for (long index = 0; (o.max_frames < 0 || index < o.max_frames) && video.read(frame);
           ++index) {
        json line = {{"input", path}, {"frame", index}, {"type", o.type},
                     {"model", kKinds[o.type].name}};
        line.update(RunOnPicture(o, model, frame));
        PrintLine(line);
      }
      continue;
    }
    if (access(path.c_str(), R_OK) != 0)
      throw Failure("cannot read picture " + path + ": " + std::strerror(errno));
    cv::Mat picture = cv::imread(path, cv::IMREAD_UNCHANGED);
    if (picture.empty()) throw Failure("cannot decode picture " + path);
    if (picture.depth() != CV_8U) picture.convertTo(picture, CV_8U);
    json line = {{"input", path}, {"type", o.type}, {"model", kKinds[o.type].name}};
    line.update(RunOnPicture(o, model, picture));
    PrintLine(line);
    if (!o.draw.empty()) Draw(o, picture, line);
  }
  return 0;
}

int Devices(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kDevicesUsage;
    return 0;
  }
  if (!args.empty()) throw UsageError("devices takes no arguments");
  void* processor =
      Unwrap(CreateDeviceListProcessor(), "device listing", [](void*) {});
  json list = json::array();
  try {
    auto* info = static_cast<ComputeDeviceInfo*>(Unwrap(
        GetComputeDevices(processor), "device listing",
        [processor](void* p) {
          DisposeComputeDeviceInfo(processor, static_cast<ComputeDeviceInfo*>(p));
        }));
    if (info != nullptr) {
      for (int32_t i = 0; i < info->count; ++i)
        list.push_back({{"name", info->devices[i].name ? info->devices[i].name : ""},
                        {"type", info->devices[i].type ? info->devices[i].type : ""}});
      DisposeComputeDeviceInfo(processor, info);
    }
  } catch (...) {
    DisposeDeviceListProcessor(processor);
    throw;
  }
  DisposeDeviceListProcessor(processor);
  std::cout << list.dump(2) << '\n';
  return 0;
}

// The converter lives next to va in a build tree or an install, else on PATH.
std::string FindConverter(const char* argv0) {
  if (const char* env = std::getenv("VA_TFJS_CONVERT")) return env;
  std::vector<std::string> candidates;
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv0);
  dir = dir.substr(0, dir.rfind('/') + 1);
  candidates.push_back(dir + "tfjs_convert");
  candidates.push_back(dir + "../tfjs_convert/tfjs_convert");
  for (const std::string& c : candidates)
    if (access(c.c_str(), X_OK) == 0) return c;
  return "tfjs_convert";
}

int Convert(const std::vector<std::string>& args, const char* argv0) {
  const std::string converter = FindConverter(argv0);
  if (WantsHelp(args)) {
    std::cout << kConvertUsage << "\nconverter: " << converter << '\n';
    return 0;
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(converter.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::cout << std::flush;
  execvp(argv[0], argv.data());
  // Only reached when the converter cannot be started.
  throw Failure("cannot run the converter " + converter + ": " + std::strerror(errno) +
                " (build the tfjs_convert target or set VA_TFJS_CONVERT)");
}

}  // namespace

int main(int argc, char** argv) {
  // Errors are ours to report, in one line; OpenCV's own warnings would
  // only repeat them.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::cerr << kUsage;
    return 2;
  }
  const std::string command = args.front();
  args.erase(args.begin());
  try {
    if (command == "--help" || command == "-h" || command == "help") {
      std::cout << kUsage;
      return 0;
    }
    if (command == "run") return Run(args);
    if (command == "devices") return Devices(args);
    if (command == "convert") return Convert(args, argv[0]);
    throw UsageError("unknown command '" + command + "' (try va --help)");
  } catch (const UsageError& e) {
    std::cerr << "va: " << e.what() << '\n';
    return 2;
  } catch (const Failure& e) {
    std::cerr << "va: " << e.what() << '\n';
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "va: " << e.what() << '\n';
    return 1;
  }
}
