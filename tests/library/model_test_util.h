// What a test sees of a model through the C boundary (its envelopes and the
// tensors it leaves alive), and graphs that echo what a model fed them.
#ifndef TESTS_LIBRARY_MODEL_TEST_UTIL_H_
#define TESTS_LIBRARY_MODEL_TEST_UTIL_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/BaseModel.h"
#include "support/graph_builder.h"
#include "tensorflow/c/c_api.h"
#include "videoanalytics.h"

namespace model_test {

// What the host reads from one envelope.
struct Answer {
  int code = -1;
  bool hasMessage = false;
  std::string message;
  bool hasPayload = false;
  std::vector<float> values;  // the FloatVector payload, if any
};

// Reads the envelope and releases it together with its FloatVector payload.
Answer Read(ProcessResult* result);

// A model created and disposed through the C boundary; creation must
// succeed (code 0).
class HostModel {
 public:
  HostModel(int32_t type, const std::string& graph);
  ~HostModel();
  HostModel(const HostModel&) = delete;
  HostModel& operator=(const HostModel&) = delete;

  void* handle() const { return handle_; }
  // The object behind the handle, for state the host cannot see.
  BaseModel* object() const { return static_cast<BaseModel*>(handle_); }

  Answer Predict(const Image& image) const;
  Answer PredictVector(const Image& image) const;
  Answer FaceRecall(const ImageWithRectsInput& input) const;
  Answer Patches(const BatchImageInput& images, const PatchInput& patches) const;

 private:
  void* handle_;
};

// Follows every tensor handed out by TF_NewTensor, TF_AllocateTensor and
// TF_SessionRun in this program until TF_DeleteTensor. A probe sees the
// tensors made after its construction.
class TensorProbe {
 public:
  TensorProbe();
  // Tensors made since construction.
  int64_t Made() const;
  // Of those, the ones not deleted yet.
  int64_t Alive() const;
  // Deletes the ones still alive, once a test has seen a deliberate leak.
  void ReleaseAlive();

 private:
  uint64_t first_;
};

// Builds graphs whose outputs are float rows [1, n] made of facts about the
// fed tensors, so a test can see exactly what a model fed:
//   EchoGraph g;
//   g.Input("input_0", TF_UINT8);
//   g.Row("Identity", {g.Dims("input_0"), g.Sum("input_0")});
class EchoGraph {
 public:
  // A placeholder; a declared shape also makes any other feed fail the run.
  EchoGraph& Input(const std::string& name, TF_DataType dtype,
                   const testing_support::ShapeAttr& shape =
                       testing_support::ShapeAttr::UnknownRank());

  // Facts, each a float vector; the result names its node.
  std::string Dims(const std::string& tensor);    // the dimensions
  std::string Values(const std::string& tensor);  // every value, flattened
  std::string Sum(const std::string& tensor);     // one value: the total
  // One value: the `count` values of a fact read as base-100 digits, most
  // significant first (dims 1, 48, 64, 3 read 1486403). Fails the run unless
  // the fact has exactly `count` values.
  std::string Digits(const std::string& fact, int count);
  std::string Constant(const std::vector<float>& values);
  // `tensor` reshaped by the values of `shape` (fails the run unless they fit).
  std::string Reshaped(const std::string& tensor, const std::string& shape);
  // The block of `tensor` at `begin` of `size` (-1: to the end).
  std::string Sliced(const std::string& tensor, const std::vector<int32_t>& begin,
                     const std::vector<int32_t>& size);

  // Output `name`: the facts joined into one row, or the window of `width`
  // values from `skip` of that row when `width` > 0 (rank 1 then).
  EchoGraph& Row(const std::string& name, const std::vector<std::string>& facts, int skip = 0,
                 int width = 0);

  testing_support::GraphBuilder& builder() { return g_; }
  std::string Serialize() const { return g_.Serialize(); }

 private:
  std::string Fresh(const std::string& stem);
  std::string AsFloat(const std::string& tensor);
  std::string Flat(const std::string& tensor);

  testing_support::GraphBuilder g_;
  std::map<std::string, TF_DataType> types_;  // of every non-float node
  int next_ = 0;
};

}  // namespace model_test

#endif  // TESTS_LIBRARY_MODEL_TEST_UTIL_H_
