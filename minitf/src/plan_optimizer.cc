#include "plan_optimizer.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "kernels/conv_chain.h"

namespace minitf {
namespace {

using ConstantMap = std::unordered_map<int, Tensor>;

void FoldConstants(Plan* plan, ThreadPool* pool, FoldedConstants* folded, ConstantMap* values) {
  std::unordered_set<const Node*> constant_nodes;
  std::vector<Plan::Step> kept;
  for (Plan::Step& step : plan->steps) {
    const Node* n = step.node;
    bool foldable = n->def.op() != "Placeholder" && n->num_outputs() > 0;
    for (int slot : step.input_slots) foldable = foldable && values->count(slot) > 0;
    for (const Node* c : n->control_inputs) foldable = foldable && constant_nodes.count(c) > 0;
    if (!foldable) {
      kept.push_back(std::move(step));
      continue;
    }
    const std::vector<Tensor>* outputs = folded->Find(n);
    if (outputs == nullptr) {
      std::vector<const Tensor*> inputs;
      for (int slot : step.input_slots) inputs.push_back(&values->at(slot));
      OpContext ctx(n->name(), inputs, n->output_types, pool, folded->budget());
      bool ok = step.kernel->Compute(&ctx).ok();
      for (int o = 0; ok && o < ctx.num_outputs(); ++o) {
        ok = ctx.output(o).valid() && ctx.output(o).dtype() == n->output_types[o];
      }
      if (!ok) {
        kept.push_back(std::move(step));
        continue;
      }
      folded->Add(n, std::move(ctx.outputs()));
      outputs = folded->Find(n);
    }
    for (size_t o = 0; o < outputs->size(); ++o) {
      (*values)[step.first_output_slot + static_cast<int>(o)] = (*outputs)[o];
    }
    constant_nodes.insert(n);
  }
  plan->steps = std::move(kept);
}

DataType TypeAttr(const Node* n) {
  auto it = n->def.attr().find("T");
  return it == n->def.attr().end() ? kInvalidType : DataTypeFromProto(it->second.type());
}

bool IsNhwc(const Node* n) {
  auto it = n->def.attr().find("data_format");
  return it == n->def.attr().end() || it->second.s() == "NHWC";
}

bool ActivationOf(const Node* n, ConvPostOp* op) {
  static const std::map<std::string, ConvPostOp::Kind> kinds = {
      {"Relu", ConvPostOp::kRelu},       {"Relu6", ConvPostOp::kRelu6},
      {"Elu", ConvPostOp::kElu},         {"Sigmoid", ConvPostOp::kSigmoid},
      {"Tanh", ConvPostOp::kTanh},       {"LeakyRelu", ConvPostOp::kLeakyRelu}};
  auto it = kinds.find(n->def.op());
  if (it == kinds.end() || n->inputs.size() != 1) return false;
  op->kind = it->second;
  op->alpha = 0;
  if (op->kind == ConvPostOp::kLeakyRelu) {
    auto alpha = n->def.attr().find("alpha");
    if (alpha == n->def.attr().end()) return false;
    op->alpha = alpha->second.f();
  }
  return true;
}

class ChainFuser {
 public:
  ChainFuser(Plan* plan, const ConstantMap& constants) : plan_(plan), constants_(constants) {
    readers_.resize(plan->num_slots);
    for (size_t s = 0; s < plan->steps.size(); ++s) {
      for (int slot : plan->steps[s].input_slots) readers_[slot].push_back(static_cast<int>(s));
    }
    for (int slot : plan->fetch_slots) fetched_.insert(slot);
  }

  void Run() {
    std::vector<Plan::Step>& steps = plan_->steps;
    std::vector<bool> removed(steps.size(), false);
    std::map<int, Plan::Step> fused;  // by the position of the chain's last node
    for (size_t i = 0; i < steps.size(); ++i) {
      if (removed[i]) continue;
      std::vector<int> members;
      Plan::Step step;
      if (!MatchChain(static_cast<int>(i), removed, &members, &step)) continue;
      for (int m : members) removed[m] = true;
      fused[members.back()] = std::move(step);
    }
    std::vector<Plan::Step> out;
    for (size_t i = 0; i < steps.size(); ++i) {
      auto f = fused.find(static_cast<int>(i));
      if (f != fused.end()) {
        out.push_back(std::move(f->second));
      } else if (!removed[i]) {
        out.push_back(std::move(steps[i]));
      }
    }
    steps = std::move(out);
  }

 private:
  const Tensor* Constant(int slot) const {
    auto it = constants_.find(slot);
    return it == constants_.end() ? nullptr : &it->second;
  }

  // The one step reading `slot`, or -1 when it is fetched or read by zero
  // or several steps.
  int SoleReader(int slot, const std::vector<bool>& removed) const {
    if (fetched_.count(slot) || readers_[slot].size() != 1) return -1;
    const int r = readers_[slot][0];
    return removed[r] ? -1 : r;
  }

  bool MatchChain(int head, const std::vector<bool>& removed, std::vector<int>* members,
                  Plan::Step* fused) {
    const Plan::Step& conv = plan_->steps[head];
    const Node* n = conv.node;
    const bool depthwise = n->def.op() == "DepthwiseConv2dNative";
    if ((n->def.op() != "Conv2D" && !depthwise) || TypeAttr(n) != TF_FLOAT || !IsNhwc(n) ||
        conv.input_slots.size() != 2) {
      return false;
    }
    const Tensor* filter = Constant(conv.input_slots[1]);
    if (filter == nullptr || filter->dtype() != TF_FLOAT || filter->rank() != 4) return false;
    ConvChainParts parts;
    KernelInit init(n->name(), n->def.attr(), n->input_types, n->output_types);
    if (!parts.attrs.Parse(init, TF_UNIMPLEMENTED).ok()) return false;
    parts.conv = n;
    parts.conv_kernel = conv.kernel;
    parts.depthwise = depthwise;
    parts.filter = *filter;
    const int64_t out_c = depthwise ? filter->dim(2) * filter->dim(3) : filter->dim(3);

    members->assign(1, head);
    std::string label = n->def.op();
    int value_slot = conv.first_output_slot;
    int residual_slot = -1;
    // A bias first, then activations and at most one residual addition.
    for (bool first = true;; first = false) {
      const int r = SoleReader(value_slot, removed);
      if (r < 0) break;
      const Plan::Step& next = plan_->steps[r];
      const Node* m = next.node;
      if (TypeAttr(m) != TF_FLOAT) break;
      ChainLink link;
      link.node = m;
      link.kernel = next.kernel;
      ConvPostOp post;
      if (first && m->def.op() == "BiasAdd" && IsNhwc(m) && next.input_slots.size() == 2 &&
          next.input_slots[0] == value_slot) {
        const Tensor* bias = Constant(next.input_slots[1]);
        if (bias == nullptr || bias->rank() != 1 || bias->dim(0) != out_c) break;
        parts.bias = *bias;
        link.operands = {{ChainOperand::kChain, {}}, {ChainOperand::kConstant, *bias}};
      } else if (ActivationOf(m, &post) && next.input_slots[0] == value_slot) {
        parts.post_ops.push_back(post);
        link.operands = {{ChainOperand::kChain, {}}};
      } else if ((m->def.op() == "AddV2" || m->def.op() == "Add") && residual_slot < 0 &&
                 next.input_slots.size() == 2 &&
                 (next.input_slots[0] == value_slot) != (next.input_slots[1] == value_slot)) {
        const int other = next.input_slots[0] == value_slot ? next.input_slots[1]
                                                            : next.input_slots[0];
        if (Constant(other) != nullptr) break;
        residual_slot = other;
        post.kind = ConvPostOp::kAddResidual;
        parts.post_ops.push_back(post);
        for (int slot : next.input_slots) {
          link.operands.push_back(
              {slot == value_slot ? ChainOperand::kChain : ChainOperand::kResidual, {}});
        }
      } else {
        break;
      }
      parts.links.push_back(std::move(link));
      members->push_back(r);
      label += "+" + m->def.op();
      value_slot = next.first_output_slot;
    }

    const Plan::Step& last = plan_->steps[members->back()];
    fused->node = last.node;
    fused->first_output_slot = last.first_output_slot;
    fused->input_slots = {conv.input_slots[0]};
    if (residual_slot >= 0) fused->input_slots.push_back(residual_slot);
    fused->label = label;
    plan_->owned_kernels.push_back(std::make_unique<ConvChainKernel>(std::move(parts)));
    fused->kernel = plan_->owned_kernels.back().get();
    return true;
  }

  Plan* plan_;
  const ConstantMap& constants_;
  std::vector<std::vector<int>> readers_;
  std::unordered_set<int> fetched_;
};

}  // namespace

FoldedConstants::FoldedConstants(int64_t limit) : budget_(std::make_shared<MemoryBudget>(limit)) {}

const std::vector<Tensor>* FoldedConstants::Find(const Node* node) const {
  auto it = values_.find(node);
  return it == values_.end() ? nullptr : &it->second;
}

void FoldedConstants::Add(const Node* node, std::vector<Tensor> outputs) {
  values_[node] = std::move(outputs);
}

void OptimizePlan(Plan* plan, ThreadPool* pool, FoldedConstants* folded) {
  ConstantMap constants;
  FoldConstants(plan, pool, folded, &constants);
  ChainFuser(plan, constants).Run();
  // Keep only the constants a remaining step reads or a fetch returns.
  std::unordered_set<int> used(plan->fetch_slots.begin(), plan->fetch_slots.end());
  for (const Plan::Step& step : plan->steps) used.insert(step.input_slots.begin(), step.input_slots.end());
  for (auto& [slot, value] : constants) {
    if (used.count(slot)) plan->constants.emplace_back(slot, std::move(value));
  }
}

}  // namespace minitf
