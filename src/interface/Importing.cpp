// The exported C functions and the model factory. Each wrapper checks the
// handle, calls the model and fills a result envelope; nothing is caught and
// no state is kept here.
#include <cstdint>
#include <iterator>

#include "interface/MemoryManager.h"
#include "interface/Records.h"
#include "models/classifiers/AgeProcessor.h"
#include "models/classifiers/Classifier.h"
#include "models/classifiers/ClassifierVector.h"
#include "models/classifiers/FaceEmotionsProcessor.h"
#include "models/classifiers/FaceFilterNClass.h"
#include "models/classifiers/FaceLightLandmarksProcessor.h"
#include "models/classifiers/FaceMaskClassifier.h"
#include "models/classifiers/HardHatClassifier.h"
#include "models/classifiers/HumanAttribExtractor.h"
#include "models/classifiers/HumanFilter.h"
#include "models/classifiers/HumanIndexer.h"
#include "models/classifiers/SafetyVestClassifier.h"
#include "models/classifiers/VehicleAttribExtractor.h"
#include "models/classifiers/VehicleFilter.h"
#include "models/classifiers/VehicleIndexer.h"
#include "models/detectors/BoxDetector.h"
#include "models/detectors/FaceDetectorProcessor.h"
#include "models/detectors/MultiBox3Processor.h"
#include "models/detectors/MultiBox4Processor.h"
#include "models/detectors/PersonVehicleBoxDetector.h"
#include "models/detectors/QueueMultiBox3Processor.h"
#include "models/detectors/SingleHeadDetector.h"
#include "models/face/BatchClassifier.h"
#include "models/face/FaceEmbeddingProcessor.h"
#include "models/face/FaceFilterBatchProcessor.h"
#include "models/face/FaceLandmarksProcessor.h"
#include "models/face/FaceLightEmbeddingProcessor.h"
#include "models/face/GenderProcessor.h"
#include "models/pose/SkeletonDetector.h"
#include "models/regions/FaceFilterMultipleProcessor.h"
#include "models/regions/PatchFireDetector.h"
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
    {"MultiBox3Processor", Make<MultiBox3Processor>},  // 0
    {"SingleHeadDetector", Make<SingleHeadDetector>},  // 1
    {"FaceDetectorProcessor", Make<FaceDetectorProcessor>},  // 2
    {"PersonVehicleBoxDetector", Make<PersonVehicleBoxDetector>},  // 3
    {"HardHatClassifier", Make<HardHatClassifier>},  // 4
    {"AgeProcessor", Make<AgeProcessor>},  // 5
    {"FaceFilterBatchProcessor", Make<FaceFilterBatchProcessor>},  // 6
    {"HumanFilter", Make<HumanFilter>},  // 7
    {"FaceEmbeddingProcessor", Make<FaceEmbeddingProcessor>},  // 8
    {"GenderProcessor", Make<GenderProcessor>},  // 9
    {"FaceLandmarksProcessor", Make<FaceLandmarksProcessor>},  // 10
    {"FaceFilterMultipleProcessor", Make<FaceFilterMultipleProcessor>},  // 11
    {"FaceEmotionsProcessor", Make<FaceEmotionsProcessor>},  // 12
    {"FaceFilterNClass", Make<FaceFilterNClass>},  // 13
    {"FaceLightLandmarksProcessor", Make<FaceLightLandmarksProcessor>},  // 14
    {"FaceLightEmbeddingProcessor", Make<FaceLightEmbeddingProcessor>},  // 15
    {"HumanIndexer", Make<HumanIndexer>},  // 16
    {"VehicleIndexer", Make<VehicleIndexer>},  // 17
    {"VehicleFilter", Make<VehicleFilter>},  // 18
    {"HumanAttribExtractor", Make<HumanAttribExtractor>},  // 19
    {"VehicleAttribExtractor", Make<VehicleAttribExtractor>},  // 20
    {"QueueMultiBox3Processor", Make<QueueMultiBox3Processor>},  // 21
    {"FaceMaskClassifier", Make<FaceMaskClassifier>},  // 22
    {"MultiBox4Processor", Make<MultiBox4Processor>},  // 23
    {"SkeletonDetector", Make<SkeletonDetector>},  // 24
    {"SafetyVestClassifier", Make<SafetyVestClassifier>},  // 25
    {"PatchFireDetector", Make<PatchFireDetector>},  // 26
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

// Called without a type check, like Predict; the failure value -1.0 is
// delivered in the vector too.
ProcessResult* GetGender(void* model, int32_t count, float* values) {
  return Answer(ModelFromHandle<GenderProcessor>(model), [&](GenderProcessor* gender) {
    return OneValue(gender->Process(count, values));
  });
}

// Called without a type check: another model's handle runs this class's
// code on that model's graph.
ProcessResult* GetFaceRecallMultiple(void* model, ImageWithRectsInput input) {
  return Answer(ModelFromHandle<FaceFilterMultipleProcessor>(model),
                [&](FaceFilterMultipleProcessor* filter) { return filter->Process(input); });
}

// The one wrapper that checks the handle's kind, before any envelope exists:
// a handle of another model answers "no model".
ProcessResult* GetPatchDetections(void* model, BatchImageInput images, PatchInput patches) {
  auto* detector =
      model != nullptr ? dynamic_cast<PatchFireDetector*>(static_cast<BaseModel*>(model)) : nullptr;
  return Answer(detector,
                [&](PatchFireDetector* fire) { return fire->Process(images, patches); });
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
