#include "kernel.h"

#include <algorithm>

#include "thread_pool.h"

namespace minitf {
namespace {


Status Lookup(const AttrMap& attrs, const std::string& node, const std::string& name,
              pb::AttrValue::ValueCase expected, const pb::AttrValue** out) {
  auto it = attrs.find(name);
  if (it == attrs.end() || it->second.value_case() != expected) {
    return InvalidArgument("attribute '", name, "' missing or of the wrong kind (node ", node, ")");
  }
  *out = &it->second;
  return Status::OK();
}

}  // namespace

const pb::AttrValue* KernelInit::FindAttr(const std::string& name) const {
  auto it = attrs_.find(name);
  return it == attrs_.end() ? nullptr : &it->second;
}

#define MINITF_GET_SCALAR_ATTR(CppType, Case, Expr)                                  \
  Status KernelInit::GetAttr(const std::string& name, CppType* value) const {       \
    const pb::AttrValue* v = nullptr;                                                \
    MINITF_RETURN_IF_ERROR(Lookup(attrs_, node_name_, name, pb::AttrValue::Case, &v)); \
    *value = Expr;                                                                    \
    return Status::OK();                                                              \
  }

MINITF_GET_SCALAR_ATTR(int64_t, kI, v->i())
MINITF_GET_SCALAR_ATTR(float, kF, v->f())
MINITF_GET_SCALAR_ATTR(bool, kB, v->b())
MINITF_GET_SCALAR_ATTR(DataType, kType, DataTypeFromProto(v->type()))
MINITF_GET_SCALAR_ATTR(std::string, kS, v->s())
#undef MINITF_GET_SCALAR_ATTR

Status KernelInit::GetAttr(const std::string& name, int* value) const {
  int64_t v = 0;
  MINITF_RETURN_IF_ERROR(GetAttr(name, &v));
  if (v < INT32_MIN || v > INT32_MAX) return Error("attribute '", name, "' out of range: ", v);
  *value = static_cast<int>(v);
  return Status::OK();
}

Status KernelInit::GetAttr(const std::string& name, std::vector<int64_t>* value) const {
  const pb::AttrValue* v = nullptr;
  MINITF_RETURN_IF_ERROR(Lookup(attrs_, node_name_, name, pb::AttrValue::kList, &v));
  value->assign(v->list().i().begin(), v->list().i().end());
  return Status::OK();
}

Status KernelInit::GetAttr(const std::string& name, std::vector<int>* value) const {
  std::vector<int64_t> wide;
  MINITF_RETURN_IF_ERROR(GetAttr(name, &wide));
  value->clear();
  for (int64_t v : wide) {
    if (v < INT32_MIN || v > INT32_MAX) return Error("attribute '", name, "' out of range: ", v);
    value->push_back(static_cast<int>(v));
  }
  return Status::OK();
}

Status KernelInit::GetAttr(const std::string& name, std::vector<float>* value) const {
  const pb::AttrValue* v = nullptr;
  MINITF_RETURN_IF_ERROR(Lookup(attrs_, node_name_, name, pb::AttrValue::kList, &v));
  value->assign(v->list().f().begin(), v->list().f().end());
  return Status::OK();
}

Status KernelInit::GetAttr(const std::string& name, std::vector<DataType>* value) const {
  const pb::AttrValue* v = nullptr;
  MINITF_RETURN_IF_ERROR(Lookup(attrs_, node_name_, name, pb::AttrValue::kList, &v));
  value->clear();
  for (int t : v->list().type()) value->push_back(DataTypeFromProto(t));
  return Status::OK();
}

Status OpContext::allocate_output(int i, const Shape& shape, Tensor** out) {
  if (i < 0 || i >= num_outputs()) return Internal("output index ", i, " out of range");
  Status s = Tensor::Allocate(output_types_[i], shape, &outputs_[i], budget_);
  if (!s.ok()) return Status(s.code(), StrCat(s.message(), " (node ", node_name_, ")"));
  *out = &outputs_[i];
  return Status::OK();
}

Status OpContext::forward_input_or_allocate_output(std::initializer_list<int> inputs, int output,
                                                   const Shape& shape, Tensor** out) {
  if (output < 0 || output >= num_outputs()) {
    return Internal("output index ", output, " out of range");
  }
  for (int i : inputs) {
    if (forwardable_ == nullptr || i < 0 || i >= num_inputs() ||
        i >= static_cast<int>(forwardable_->size()) || !(*forwardable_)[i]) {
      continue;
    }
    const Tensor& in = *inputs_[i];
    // The slot's own reference is the only one: no other tensor of the run,
    // no caller and no constant shares the memory.
    if (!in.valid() || !in.buffer()->owned() || in.buffer().use_count() != 1 ||
        in.dtype() != output_types_[output] || in.shape() != shape) {
      continue;
    }
    outputs_[output] = in;
    *out = &outputs_[output];
    return Status::OK();
  }
  return allocate_output(output, shape, out);
}

Status OpContext::set_output(int i, Tensor tensor) {
  if (i < 0 || i >= num_outputs()) return Internal("output index ", i, " out of range");
  if (tensor.dtype() != output_types_[i]) {
    return Internal("output ", i, " has dtype ", DataTypeName(tensor.dtype()), ", expected ",
                    DataTypeName(output_types_[i]), " (node ", node_name_, ")");
  }
  outputs_[i] = std::move(tensor);
  return Status::OK();
}

void OpContext::ParallelFor(int64_t total, int64_t cost_per_unit,
                            const std::function<void(int64_t, int64_t)>& fn) const {
  // Handing a block to another thread costs several microseconds; a block
  // should carry about 100k cycles of work to be worth it.
  constexpr int64_t kMinCostPerBlock = 100000;
  const int64_t min_block = std::max<int64_t>(1, kMinCostPerBlock / std::max<int64_t>(1, cost_per_unit));
  if (pool_ == nullptr || pool_->num_threads() <= 1 || total <= min_block) {
    if (total > 0) fn(0, total);
    return;
  }
  pool_->ParallelFor(total, min_block, fn);
}

void RunParallel(const OpContext* ctx, int64_t total, int64_t cost_per_unit,
                 const std::function<void(int64_t, int64_t)>& fn) {
  if (ctx != nullptr) {
    ctx->ParallelFor(total, cost_per_unit, fn);
  } else if (total > 0) {
    fn(0, total);
  }
}

}  // namespace minitf
