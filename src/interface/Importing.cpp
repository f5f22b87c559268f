// The exported C functions and the model factory. Each wrapper checks the
// handle, calls the model and fills a result envelope; nothing is caught and
// no state is kept here.
#include <cstdint>
#include <iterator>

#include "interface/MemoryManager.h"
#include "interface/Records.h"
#include "models/classifiers/Classifier.h"
#include "models/classifiers/ClassifierVector.h"
#include "models/detectors/BoxDetector.h"
#include "models/face/BatchClassifier.h"
#include "runtime/BaseModel.h"
#include "runtime/DeviceListProcessor.h"

namespace {

using ModelMaker = BaseModel* (*)(const ModelOptions&);

template <typename Model>
BaseModel* Make(const ModelOptions& options) {
  return new Model(options);
}

struct ModelKind {
  const char* className;
  ModelMaker make;  // null: the class is not built into the library
};

// Indexed by type code. A code without a maker behaves as an unknown code;
// a model class joins the library by including its header and naming its
// maker in its row, e.g. {"AgeProcessor", Make<AgeProcessor>}.
constexpr ModelKind kModelKinds[] = {
    {"MultiBox3Processor", nullptr},           // 0
    {"SingleHeadDetector", nullptr},           // 1
    {"FaceDetectorProcessor", nullptr},        // 2
    {"PersonVehicleBoxDetector", nullptr},     // 3
    {"HardHatClassifier", nullptr},            // 4
    {"AgeProcessor", nullptr},                 // 5
    {"FaceFilterBatchProcessor", nullptr},     // 6
    {"HumanFilter", nullptr},                  // 7
    {"FaceEmbeddingProcessor", nullptr},       // 8
    {"GenderProcessor", nullptr},              // 9
    {"FaceLandmarksProcessor", nullptr},       // 10
    {"FaceFilterMultipleProcessor", nullptr},  // 11
    {"FaceEmotionsProcessor", nullptr},        // 12
    {"FaceFilterNClass", nullptr},             // 13
    {"FaceLightLandmarksProcessor", nullptr},  // 14
    {"FaceLightEmbeddingProcessor", nullptr},  // 15
    {"HumanIndexer", nullptr},                 // 16
    {"VehicleIndexer", nullptr},               // 17
    {"VehicleFilter", nullptr},                // 18
    {"HumanAttribExtractor", nullptr},         // 19
    {"VehicleAttribExtractor", nullptr},       // 20
    {"QueueMultiBox3Processor", nullptr},      // 21
    {"FaceMaskClassifier", nullptr},           // 22
    {"MultiBox4Processor", nullptr},           // 23
    {"SkeletonDetector", nullptr},             // 24
    {"SafetyVestClassifier", nullptr},         // 25
    {"PatchFireDetector", nullptr},            // 26
};
static_assert(std::size(kModelKinds) == 27, "one entry per type code");

// The type code is compared as unsigned, so negative codes are too large.
BaseModel* MakeModel(int32_t type, const ModelOptions& options) {
  const auto code = static_cast<uint32_t>(type);
  if (code >= std::size(kModelKinds) || kModelKinds[code].make == nullptr) return nullptr;
  return kModelKinds[code].make(options);
}

// Handles are plain object pointers. The cast to a frame is unchecked: a
// handle of another kind reaches whatever that object's operation is.
template <typename Frame>
Frame* FromHandle(void* handle) {
  return static_cast<Frame*>(handle);
}

template <typename Frame>
Frame* ModelFromHandle(void* handle) {
  return static_cast<Frame*>(static_cast<BaseModel*>(handle));
}

// A new envelope with code 2: no model, no payload.
ProcessResult* NoModel() {
  auto* result = new ProcessResult{nullptr, nullptr};
  MemoryManager::FillProcessResult(result, nullptr, nullptr);
  return result;
}

// A new envelope: NoModel for a null model; otherwise the payload `call`
// returns and the model's error state.
template <typename Model, typename Call>
ProcessResult* Answer(Model* model, Call&& call) {
  if (model == nullptr) return NoModel();
  auto* result = new ProcessResult{nullptr, nullptr};
  void* payload = call(model);
  MemoryManager::FillProcessResult(result, model, payload);
  return result;
}

// Scalar answers always travel as a one-value vector, the failure value too.
FloatVector* OneValue(float value) {
  FloatVector* vector = MemoryManager::CreateFloatVector(1);
  vector->values[0] = value;
  return vector;
}

}  // namespace

void* CreateModel(int32_t type, ModelOptions options, ProcessResult* result) {
  BaseModel* model = MakeModel(type, options);
  // Waits if construction failed in TensorFlow: that model holds its lock.
  MemoryManager::FillProcessResult(result, model, nullptr);
  return model;
}

void DisposeModel(void* model) {
  delete FromHandle<BaseModel>(model);
}

ProcessResult* DetectBoxes(void* model, BoxDetectionInputData input) {
  return Answer(ModelFromHandle<BoxDetector>(model),
                [&](BoxDetector* detector) { return detector->Detect(input); });
}

ProcessResult* Predict(void* model, Image image) {
  return Answer(ModelFromHandle<Classifier>(model),
                [&](Classifier* classifier) { return OneValue(classifier->Predict(image)); });
}

ProcessResult* PredictVector(void* model, Image image) {
  return Answer(ModelFromHandle<ClassifierVector>(model),
                [&](ClassifierVector* classifier) { return classifier->Predict(image); });
}

ProcessResult* PredictBatch(void* model, BatchImageInput input) {
  return Answer(ModelFromHandle<BatchClassifier>(model),
                [&](BatchClassifier* classifier) { return classifier->Predict(input); });
}

// The gender, face-filter and fire models are not built into the library
// yet, so no handle can be one of them: every call answers "no model".
ProcessResult* GetGender(void*, int32_t, float*) {
  return NoModel();
}

ProcessResult* GetFaceRecallMultiple(void*, ImageWithRectsInput) {
  return NoModel();
}

ProcessResult* GetPatchDetections(void*, BatchImageInput, PatchInput) {
  return NoModel();
}

ProcessResult* CreateDeviceListProcessor() {
  auto* result = new ProcessResult{nullptr, nullptr};
  auto* processor = new DeviceListProcessor();
  // Waits if the session could not be opened: the processor holds its lock.
  MemoryManager::FillProcessResult(result, processor, processor);
  return result;
}

ProcessResult* GetComputeDevices(void* processor) {
  return Answer(FromHandle<DeviceListProcessor>(processor),
                [](DeviceListProcessor* devices) { return devices->GetDevices(); });
}

void DisposeComputeDeviceInfo(void* processor, ComputeDeviceInfo* info) {
  if (processor == nullptr) return;
  FromHandle<DeviceListProcessor>(processor)->DisposeDeviceList(info);
}

void DisposeDeviceListProcessor(void* processor) {
  delete FromHandle<DeviceListProcessor>(processor);
}

void DisposeProcessResult(ProcessResult* result) {
  MemoryManager::DisposeProcessResult(result, true);
}

void DisposeModelProcessResult(ProcessResult* result) {
  MemoryManager::DisposeProcessResult(result, false);
}

void DisposeFloatVector(FloatVector* vector) {
  MemoryManager::DisposeFloatVector(vector);
}

void DisposeBoxDetectionResult(BoxDetectionResult* result) {
  MemoryManager::DisposeBoxDetectionResult(result);
}
