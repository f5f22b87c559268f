#include "library/model_test_util.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "tf_interposer.h"

namespace {

// Live tensors, each with the serial number of its making.
struct Registry { std::mutex lock; std::map<const TF_Tensor*, uint64_t> live; uint64_t made = 0; };

Registry& Tensors() {
  static Registry* registry = new Registry;  // outlives every static destructor
  return *registry;
}

// The host toolkit's C API interposer stands in front of the runtime's, so
// every tensor made or deleted by the library (and by the tests) passes its
// hooks, set before any test runs.
void Created(const void* object, va_host::TfObject kind, size_t) {
  if (kind != va_host::TfObject::kTensor) return;
  Registry& r = Tensors();
  std::lock_guard<std::mutex> guard(r.lock);
  r.live[static_cast<const TF_Tensor*>(object)] = r.made++;
}

void Deleted(const void* object) {
  Registry& r = Tensors();
  std::lock_guard<std::mutex> guard(r.lock);
  r.live.erase(static_cast<const TF_Tensor*>(object));
}

const bool kHooked = [] {
  va_host::TfHooks hooks;
  hooks.created = Created;
  hooks.deleted = Deleted;
  va_host::SetTfHooks(hooks);
  return true;
}();

}  // namespace

namespace model_test {

Answer Read(ProcessResult* result) {
  Answer answer;
  EXPECT_NE(result, nullptr);
  if (result == nullptr) return answer;
  EXPECT_NE(result->error, nullptr);
  if (result->error != nullptr) {
    answer.code = result->error->code;
    answer.hasMessage = result->error->message != nullptr;
    if (answer.hasMessage) answer.message = result->error->message;
  }
  if (auto* vector = static_cast<FloatVector*>(result->payload)) {
    answer.hasPayload = true;
    answer.values.assign(vector->values, vector->values + vector->count);
    DisposeFloatVector(vector);
  }
  DisposeProcessResult(result);
  return answer;
}

HostModel::HostModel(int32_t type, const std::string& graph) {
  ProcessResult created{nullptr, nullptr};
  handle_ = CreateModel(type, library_test::OptionsFor(graph), &created);
  EXPECT_NE(handle_, nullptr) << "type " << type;
  EXPECT_EQ(created.error->code, 0) << (created.error->message ? created.error->message : "");
  DisposeModelProcessResult(&created);
}

HostModel::~HostModel() {
  DisposeModel(handle_);
}

Answer HostModel::Predict(const Image& image) const {
  return Read(::Predict(handle_, image));
}

Answer HostModel::PredictVector(const Image& image) const {
  return Read(::PredictVector(handle_, image));
}

Answer HostModel::FaceRecall(const ImageWithRectsInput& input) const {
  return Read(GetFaceRecallMultiple(handle_, input));
}

Answer HostModel::Patches(const BatchImageInput& images, const PatchInput& patches) const {
  return Read(GetPatchDetections(handle_, images, patches));
}

TensorProbe::TensorProbe() {
  Registry& r = Tensors();
  std::lock_guard<std::mutex> guard(r.lock);
  first_ = r.made;
}

int64_t TensorProbe::Made() const {
  Registry& r = Tensors();
  std::lock_guard<std::mutex> guard(r.lock);
  return static_cast<int64_t>(r.made - first_);
}

int64_t TensorProbe::Alive() const {
  Registry& r = Tensors();
  std::lock_guard<std::mutex> guard(r.lock);
  int64_t alive = 0;
  for (const auto& entry : r.live) alive += entry.second >= first_ ? 1 : 0;
  return alive;
}

void TensorProbe::ReleaseAlive() {
  std::vector<TF_Tensor*> alive;
  {
    Registry& r = Tensors();
    std::lock_guard<std::mutex> guard(r.lock);
    for (const auto& entry : r.live) {
      if (entry.second >= first_) alive.push_back(const_cast<TF_Tensor*>(entry.first));
    }
  }
  for (TF_Tensor* tensor : alive) TF_DeleteTensor(tensor);
}

EchoGraph& EchoGraph::Input(const std::string& name, TF_DataType dtype,
                            const testing_support::ShapeAttr& shape) {
  g_.Placeholder(name, dtype, shape);
  types_[name] = dtype;
  return *this;
}

std::string EchoGraph::Fresh(const std::string& stem) {
  return "echo_" + stem + "_" + std::to_string(next_++);
}

std::string EchoGraph::AsFloat(const std::string& tensor) {
  const auto type = types_.find(tensor);
  if (type == types_.end() || type->second == TF_FLOAT) return tensor;
  const std::string name = Fresh("float");
  g_.Node("Cast", name).Input(tensor).Attr("SrcT", type->second).Attr("DstT", TF_FLOAT);
  return name;
}

std::string EchoGraph::Flat(const std::string& tensor) {
  const std::string shape = g_.Const<int32_t>(Fresh("flat_shape"), {1}, {-1});
  const std::string name = Fresh("flat");
  const auto type = types_.find(tensor);
  const TF_DataType dtype = type == types_.end() ? TF_FLOAT : type->second;
  g_.Node("Reshape", name).Input(tensor).Input(shape).Attr("T", dtype).Attr("Tshape", TF_INT32);
  if (dtype != TF_FLOAT) types_[name] = dtype;
  return name;
}

std::string EchoGraph::Dims(const std::string& tensor) {
  const std::string name = Fresh("dims");
  const auto type = types_.find(tensor);
  g_.Node("Shape", name).Input(tensor).Attr("T", type == types_.end() ? TF_FLOAT : type->second)
      .Attr("out_type", TF_INT32);
  types_[name] = TF_INT32;
  return AsFloat(name);
}

std::string EchoGraph::Values(const std::string& tensor) {
  return AsFloat(Flat(tensor));
}

std::string EchoGraph::Sum(const std::string& tensor) {
  const std::string axes = g_.Const<int32_t>(Fresh("axes"), {1}, {0});
  const std::string name = Fresh("sum");
  g_.Node("Sum", name).Input(Values(tensor)).Input(axes).Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32)
      .Attr("keep_dims", true);
  return name;
}

std::string EchoGraph::Digits(const std::string& fact, int count) {
  std::vector<float> weights(count);
  float weight = 1.0f;
  for (int i = count - 1; i >= 0; --i, weight *= 100.0f) weights[i] = weight;
  const std::string exact = g_.Const<int32_t>(Fresh("count"), {1}, {count});
  const std::string sized = Fresh("sized");
  g_.Node("Reshape", sized).Input(fact).Input(exact).Attr("T", TF_FLOAT).Attr("Tshape", TF_INT32);
  const std::string scaled =
      g_.Binary("Mul", Fresh("scaled"), sized, Constant(weights), TF_FLOAT);
  return Sum(scaled);
}

std::string EchoGraph::Constant(const std::vector<float>& values) {
  return g_.Const<float>(Fresh("const"), {static_cast<int64_t>(values.size())}, values);
}

std::string EchoGraph::Reshaped(const std::string& tensor, const std::string& shape) {
  const std::string name = Fresh("reshaped");
  const auto type = types_.find(tensor);
  const TF_DataType dtype = type == types_.end() ? TF_FLOAT : type->second;
  g_.Node("Reshape", name).Input(tensor).Input(shape).Attr("T", dtype).Attr("Tshape", TF_INT32);
  if (dtype != TF_FLOAT) types_[name] = dtype;
  return name;
}

std::string EchoGraph::Sliced(const std::string& tensor, const std::vector<int32_t>& begin,
                              const std::vector<int32_t>& size) {
  const auto rank = static_cast<int64_t>(begin.size());
  const std::string name = Fresh("sliced");
  const auto type = types_.find(tensor);
  const TF_DataType dtype = type == types_.end() ? TF_FLOAT : type->second;
  g_.Node("Slice", name).Input(tensor).Input(g_.Const<int32_t>(Fresh("begin"), {rank}, begin))
      .Input(g_.Const<int32_t>(Fresh("size"), {rank}, size)).Attr("T", dtype)
      .Attr("Index", TF_INT32);
  if (dtype != TF_FLOAT) types_[name] = dtype;
  return name;
}

EchoGraph& EchoGraph::Row(const std::string& name, const std::vector<std::string>& facts,
                          int skip, int width) {
  std::string row = facts.front();
  if (facts.size() > 1) {
    row = Fresh("row");
    auto concat = g_.Node("ConcatV2", row);
    for (const std::string& fact : facts) concat.Input(fact);
    concat.Input(g_.Const<int32_t>(Fresh("axis"), {}, {0}))
        .Attr("N", static_cast<int64_t>(facts.size())).Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32);
  }
  if (width > 0) {
    g_.Node("Slice", name).Input(row).Input(g_.Const<int32_t>(Fresh("begin"), {1}, {skip}))
        .Input(g_.Const<int32_t>(Fresh("size"), {1}, {width})).Attr("T", TF_FLOAT)
        .Attr("Index", TF_INT32);
  } else {
    g_.Node("ExpandDims", name).Input(row).Input(g_.Const<int32_t>(Fresh("dim"), {}, {0}))
        .Attr("T", TF_FLOAT).Attr("Tdim", TF_INT32);
  }
  return *this;
}

}  // namespace model_test
