// A model: one frozen graph imported from the host's bytes and one session
// on it. Model classes derive from it, add no data, and follow one discipline
// per operation: CheckStatus, look up the inputs, borrow the input buffers,
// look up the outputs, RunSession outside the lock, CheckStatus, read the
// outputs and delete every tensor.
#ifndef VIDEOANALYTICS_RUNTIME_BASEMODEL_H_
#define VIDEOANALYTICS_RUNTIME_BASEMODEL_H_

#include <cstddef>

#include "interface/Records.h"
#include "runtime/TfInvoker.h"
#include "tensorflow/c/c_api.h"

class BaseModel : public TfInvoker {
 public:
  // Never throws on a TensorFlow failure: the failure is left in the error
  // state (and, for a failed status check, the lock stays held).
  explicit BaseModel(const ModelOptions& options);
  ~BaseModel() override;

 protected:
  // Output 0 of the operation `name`; its oper is null when the graph has no
  // such operation.
  TF_Output NodeOutput(const char* name) const;

  // NodeOutput that reports a missing node as "InOp not found" (lock taken
  // and released) and returns false.
  bool FindInput(const char* name, TF_Output* input);
  // The same for an output node, reported as "OutOp not found".
  bool FindOutput(const char* name, TF_Output* output);

  // TF_SessionRun with no run options, targets or metadata; the outcome is
  // left in `status` for CheckStatus. The lock is not held.
  void RunSession(const TF_Output* inputs, TF_Tensor* const* inputValues, int inputCount,
                  const TF_Output* outputs, TF_Tensor** outputValues, int outputCount);

  template <size_t InputCount, size_t OutputCount>
  void RunSession(const TF_Output (&inputs)[InputCount],
                  TF_Tensor* const (&inputValues)[InputCount],
                  const TF_Output (&outputs)[OutputCount],
                  TF_Tensor* (&outputValues)[OutputCount]) {
    RunSession(inputs, inputValues, static_cast<int>(InputCount), outputs, outputValues,
               static_cast<int>(OutputCount));
  }
};

#endif  // VIDEOANALYTICS_RUNTIME_BASEMODEL_H_
