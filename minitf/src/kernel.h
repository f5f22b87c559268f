// The kernel interface. A kernel is made once per node and session from the
// node's checked attributes (the prepare step: parse and validate attributes,
// precompute what depends only on them) and then computes any number of
// times, possibly from several threads at once: Compute is const and must
// keep no per-call state in the kernel.
#ifndef MINITF_KERNEL_H_
#define MINITF_KERNEL_H_

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "op_def.h"
#include "status.h"
#include "tensor.h"

namespace minitf {

class RunResources;
class ThreadPool;

// What a kernel may read while it is being made.
class KernelInit {
 public:
  KernelInit(const std::string& node_name, const AttrMap& attrs,
             std::vector<DataType> input_types,
             std::vector<DataType> output_types,
             int64_t max_run_bytes = kDefaultMaxRunBytes)
      : node_name_(node_name),
        attrs_(attrs),
        input_types_(std::move(input_types)),
        output_types_(std::move(output_types)),
        max_run_bytes_(max_run_bytes) {}

  const std::string& node_name() const { return node_name_; }
  const std::vector<DataType>& input_types() const { return input_types_; }
  const std::vector<DataType>& output_types() const { return output_types_; }
  // The session's per-run memory limit; tensors a kernel makes up front (a
  // constant's value) must fit in it too.
  int64_t max_run_bytes() const { return max_run_bytes_; }

  // Attribute readers. The attributes were checked on import against the op's
  // declaration, so these fail only for names the op does not declare.
  Status GetAttr(const std::string& name, int64_t* value) const;
  Status GetAttr(const std::string& name, int* value) const;
  Status GetAttr(const std::string& name, float* value) const;
  Status GetAttr(const std::string& name, bool* value) const;
  Status GetAttr(const std::string& name, DataType* value) const;
  Status GetAttr(const std::string& name, std::string* value) const;
  Status GetAttr(const std::string& name, std::vector<int64_t>* value) const;
  Status GetAttr(const std::string& name, std::vector<int>* value) const;
  Status GetAttr(const std::string& name, std::vector<float>* value) const;
  Status GetAttr(const std::string& name, std::vector<DataType>* value) const;
  // The raw attribute (for shapes and tensors), or null.
  const pb::AttrValue* FindAttr(const std::string& name) const;

  // An INVALID_ARGUMENT status naming this node.
  template <typename... Args>
  Status Error(const Args&... args) const {
    return InvalidArgument(args..., " (node ", node_name_, ")");
  }

 private:
  const std::string& node_name_;
  const AttrMap& attrs_;
  std::vector<DataType> input_types_;
  std::vector<DataType> output_types_;
  int64_t max_run_bytes_;
};

// What a kernel sees while it computes: its inputs, a place for each output,
// and the intra-op thread pool.
class OpContext {
 public:
  // Outputs are charged to `budget` when one is given.
  OpContext(const std::string& node_name, std::vector<const Tensor*> inputs,
            std::vector<DataType> output_types, ThreadPool* pool,
            std::shared_ptr<MemoryBudget> budget = nullptr)
      : node_name_(node_name),
        inputs_(std::move(inputs)),
        output_types_(std::move(output_types)),
        outputs_(output_types_.size()),
        pool_(pool),
        budget_(std::move(budget)) {}

  const std::string& node_name() const { return node_name_; }
  int num_inputs() const { return static_cast<int>(inputs_.size()); }
  const Tensor& input(int i) const { return *inputs_[i]; }
  int num_outputs() const { return static_cast<int>(outputs_.size()); }
  DataType output_type(int i) const { return output_types_[i]; }

  // Allocates output `i` with its declared dtype and `shape`;
  // RESOURCE_EXHAUSTED naming the node when the run's memory is spent.
  Status allocate_output(int i, const Shape& shape, Tensor** out);
  // Like allocate_output, but reuses the buffer of the first of `inputs`
  // that the run no longer needs: this step is its last reader, nothing else
  // holds its buffer, and dtype and shape match the output. Only kernels
  // whose output may alias that input call it.
  Status forward_input_or_allocate_output(std::initializer_list<int> inputs, int output,
                                          const Shape& shape, Tensor** out);
  // Which inputs the executor lets go after this step (one flag per input).
  void set_forwardable_inputs(const std::vector<bool>* forwardable) {
    forwardable_ = forwardable;
  }

  // Sets output `i` to an existing tensor (e.g. an input, reshaped) without
  // copying. Its dtype must be the declared one.
  Status set_output(int i, Tensor tensor);
  Tensor& output(int i) { return outputs_[i]; }
  std::vector<Tensor>& outputs() { return outputs_; }

  ThreadPool* pool() const { return pool_; }
  // The run's memory budget (null outside a session run).
  const std::shared_ptr<MemoryBudget>& budget() const { return budget_; }
  // The run's resources, such as tensor arrays (null outside a session run).
  RunResources* resources() const { return resources_; }
  void set_resources(RunResources* resources) { resources_ = resources; }

  // Runs fn(begin, end) over [0, total) on the intra-op pool, in chunks of
  // at least enough elements to cover `cost_per_unit` times the overhead of a
  // task. Runs inline when the work is small or no pool is set.
  void ParallelFor(int64_t total, int64_t cost_per_unit,
                   const std::function<void(int64_t, int64_t)>& fn) const;

  // An INVALID_ARGUMENT status naming this node.
  template <typename... Args>
  Status Error(const Args&... args) const {
    return InvalidArgument(args..., " (node ", node_name_, ")");
  }

 private:
  const std::string& node_name_;
  std::vector<const Tensor*> inputs_;
  std::vector<DataType> output_types_;
  std::vector<Tensor> outputs_;
  ThreadPool* pool_;
  std::shared_ptr<MemoryBudget> budget_;
  const std::vector<bool>* forwardable_ = nullptr;
  RunResources* resources_ = nullptr;
};

class OpKernel {
 public:
  virtual ~OpKernel() = default;
  virtual Status Compute(OpContext* ctx) const = 0;
};

// OpContext::ParallelFor on ctx, or fn(0, total) inline when ctx is null
// (tests call the reference loops directly).
void RunParallel(const OpContext* ctx, int64_t total, int64_t cost_per_unit,
                 const std::function<void(int64_t, int64_t)>& fn);

using KernelFactory = Status (*)(const KernelInit& init,
                                 std::unique_ptr<OpKernel>* kernel);

// The usual factory: K is default-constructible and has
// `Status Init(const KernelInit&)` for its prepare step.
template <typename K>
Status MakeKernel(const KernelInit& init, std::unique_ptr<OpKernel>* kernel) {
  auto k = std::make_unique<K>();
  MINITF_RETURN_IF_ERROR(k->Init(init));
  *kernel = std::move(k);
  return Status::OK();
}

// Checks a condition inside Compute or Init and returns an INVALID_ARGUMENT
// naming the node and the failed condition.
#define MINITF_ENSURE(ctx, cond, ...)                                   \
  do {                                                                  \
    if (!(cond)) return (ctx)->Error("check failed: " #cond ": ", ##__VA_ARGS__); \
  } while (0)

}  // namespace minitf

#endif  // MINITF_KERNEL_H_
