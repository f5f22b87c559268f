#include "op_registry.h"

#include <cstdio>
#include <cstdlib>

namespace minitf {

const OpRegistry& OpRegistry::Global() {
  static const OpRegistry* registry = [] {
    auto* r = new OpRegistry;
    RegisterGraphOps(*r);
    RegisterCastOps(*r);
    RegisterBinaryOps(*r);
    RegisterUnaryOps(*r);
    RegisterActivationOps(*r);
    RegisterReductionOps(*r);
    RegisterShapeOps(*r);
    RegisterConcatOps(*r);
    RegisterSliceOps(*r);
    RegisterTransposeOps(*r);
    RegisterFillOps(*r);
    RegisterPadOps(*r);
    RegisterGatherOps(*r);
    RegisterMatMulOps(*r);
    RegisterConvOps(*r);
    RegisterPoolingOps(*r);
    RegisterImageOps(*r);
    RegisterAddNOps(*r);
    RegisterConvTransposeOps(*r);
    RegisterDepthToSpaceOps(*r);
    RegisterSparseToDenseOps(*r);
    RegisterTopKOps(*r);
    RegisterControlFlowOps(*r);
    RegisterTensorArrayOps(*r);
    RegisterBatchNormOps(*r);
    RegisterSpaceToBatchOps(*r);
    RegisterDequantizeOps(*r);
    RegisterLoggingOps(*r);
    RegisterNmsOps(*r);
    RegisterWhereOps(*r);
    RegisterSelectOps(*r);
    RegisterScanOps(*r);
    RegisterBroadcastOps(*r);
    RegisterUniqueOps(*r);
    RegisterEinsumOps(*r);
    RegisterWindow3DOps(*r);
    return r;
  }();
  return *registry;
}

void OpRegistry::Register(OpDef def, KernelFactory factory) {
  const std::string name = def.name();
  if (!ops_.emplace(name, OpRegistration{std::move(def), factory}).second) {
    std::fprintf(stderr, "minitf: op %s registered twice\n", name.c_str());
    std::abort();
  }
}

const OpRegistration* OpRegistry::Find(const std::string& op) const {
  auto it = ops_.find(op);
  return it == ops_.end() ? nullptr : &it->second;
}

std::vector<std::string> OpRegistry::OpNames() const {
  std::vector<std::string> names;
  for (const auto& [name, reg] : ops_) names.push_back(name);
  return names;
}

}  // namespace minitf
