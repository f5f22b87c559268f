#include "plan_optimizer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "kernels/batch_norm.h"
#include "kernels/conv_chain.h"
#include "kernels/prelu.h"

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

bool IsAdd(const Node* n) { return n->def.op() == "Add" || n->def.op() == "AddV2"; }

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
    for (size_t s = 0; s < plan->steps.size(); ++s) {
      const Plan::Step& step = plan->steps[s];
      for (int o = 0; o < step.node->num_outputs(); ++o) {
        producer_[step.first_output_slot + o] = static_cast<int>(s);
      }
    }
  }

  void Run() {
    std::vector<Plan::Step>& steps = plan_->steps;
    std::vector<bool> removed(steps.size(), false);
    std::map<int, Plan::Step> fused;  // by the position of the chain's last node
    for (size_t i = 0; i < steps.size(); ++i) {
      if (removed[i]) continue;
      std::vector<int> members;
      Plan::Step step;
      if (!MatchChain(static_cast<int>(i), removed, &members, &step) &&
          !MatchPrelu(static_cast<int>(i), removed, &members, &step)) {
        continue;
      }
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
    ConvChainDef chain;
    KernelInit init(n->name(), n->def.attr(), n->input_types, n->output_types);
    if (!chain.attrs.Parse(init, TF_UNIMPLEMENTED).ok()) return false;
    chain.conv = n;
    chain.conv_kernel = conv.kernel;
    chain.depthwise = depthwise;
    chain.filter = *filter;
    const int64_t out_c = depthwise ? filter->dim(2) * filter->dim(3) : filter->dim(3);

    members->assign(1, head);
    std::string label = n->def.op();
    int value_slot = conv.first_output_slot;
    int input_slot = conv.input_slots[0];
    int residual_slot = -1;
    MatchDilatedPattern(head, removed, &chain, members, &label, &input_slot, &value_slot);
    // A bias first, batch norms before any activation, then activations and
    // at most one residual addition.
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
        chain.bias = *bias;
        link.operands = {{ChainOperand::kChain, {}}, {ChainOperand::kConstant, *bias}};
      } else if (next.input_slots[0] == value_slot && FoldBatchNorm(next, r, out_c, &chain)) {
        link.operands = {{ChainOperand::kChain, {}}};
        for (int i = 1; i <= 4; ++i) {
          link.operands.push_back({ChainOperand::kConstant, *Constant(next.input_slots[i])});
        }
      } else if (const int k = ConstantOperand(next, value_slot); k >= 0 &&
                 chain.post_ops.empty() && (IsAdd(m) || m->def.op() == "Mul") &&
                 FoldChannelConstant(*Constant(next.input_slots[k]), IsAdd(m), out_c, &chain)) {
        // A per-channel (or scalar) constant added or multiplied before any
        // activation: a bias, or a scale folded into filter and bias.
        for (int slot : next.input_slots) {
          link.operands.push_back(slot == value_slot
                                      ? ChainOperand{ChainOperand::kChain, {}}
                                      : ChainOperand{ChainOperand::kConstant, *Constant(slot)});
        }
      } else if (const int k = ConstantOperand(next, value_slot);
                 k >= 0 && (m->def.op() == "Minimum" || m->def.op() == "Maximum") &&
                 AddClip(*Constant(next.input_slots[k]), m->def.op() == "Minimum", &chain)) {
        for (int slot : next.input_slots) {
          link.operands.push_back(slot == value_slot
                                      ? ChainOperand{ChainOperand::kChain, {}}
                                      : ChainOperand{ChainOperand::kConstant, *Constant(slot)});
        }
      } else if (ActivationOf(m, &post) && next.input_slots[0] == value_slot) {
        chain.post_ops.push_back(post);
        link.operands = {{ChainOperand::kChain, {}}};
      } else if ((m->def.op() == "AddV2" || m->def.op() == "Add") && residual_slot < 0 &&
                 next.input_slots.size() == 2 &&
                 (next.input_slots[0] == value_slot) != (next.input_slots[1] == value_slot)) {
        const int other = next.input_slots[0] == value_slot ? next.input_slots[1]
                                                            : next.input_slots[0];
        if (Constant(other) != nullptr) break;
        residual_slot = other;
        post.kind = ConvPostOp::kAddResidual;
        chain.post_ops.push_back(post);
        for (int slot : next.input_slots) {
          link.operands.push_back(
              {slot == value_slot ? ChainOperand::kChain : ChainOperand::kResidual, {}});
        }
      } else {
        break;
      }
      chain.links.push_back(std::move(link));
      members->push_back(r);
      label += "+" + m->def.op();
      value_slot = next.first_output_slot;
    }

    const Plan::Step& last = plan_->steps[members->back()];
    fused->node = last.node;
    fused->first_output_slot = last.first_output_slot;
    fused->input_slots = {input_slot};
    if (residual_slot >= 0) fused->input_slots.push_back(residual_slot);
    fused->label = label;
    plan_->owned_kernels.push_back(std::make_unique<ConvChainKernel>(std::move(chain)));
    fused->kernel = plan_->owned_kernels.back().get();
    return true;
  }

  // The step of `op` and float type T at `index`, or null.
  const Plan::Step* FloatStep(int index, const char* op) const {
    if (index < 0) return nullptr;
    const Plan::Step& step = plan_->steps[index];
    if (step.node->def.op() != op || TypeAttr(step.node) != TF_FLOAT) return nullptr;
    return &step;
  }

  // Add(Relu(x) or x, Mul(Sub(x, Abs(x)), alpha)) with a constant alpha,
  // headed by its Abs, as one PreluKernel step. Its members must be the only
  // readers of what they make, and x read by nothing else.
  bool MatchPrelu(int head, const std::vector<bool>& removed, std::vector<int>* members,
                  Plan::Step* fused) {
    const Plan::Step* abs = FloatStep(head, "Abs");
    if (abs == nullptr || abs->input_slots.size() != 1) return false;
    const int x = abs->input_slots[0];
    if (fetched_.count(x) || Constant(x) != nullptr) return false;
    const int abs_out = abs->first_output_slot;
    const int sub_i = SoleReader(abs_out, removed);
    const Plan::Step* sub = FloatStep(sub_i, "Sub");
    if (sub == nullptr || sub->input_slots != std::vector<int>{x, abs_out}) return false;
    const int sub_out = sub->first_output_slot;
    const int mul_i = SoleReader(sub_out, removed);
    const Plan::Step* mul = FloatStep(mul_i, "Mul");
    if (mul == nullptr || mul->input_slots.size() != 2) return false;
    const int k = mul->input_slots[0] == sub_out ? 1 : 0;
    if (mul->input_slots[1 - k] != sub_out || mul->input_slots[k] == sub_out) return false;
    const Tensor* alpha = Constant(mul->input_slots[k]);
    if (alpha == nullptr || alpha->dtype() != TF_FLOAT) return false;
    const int mul_out = mul->first_output_slot;
    const int add_i = SoleReader(mul_out, removed);
    const Plan::Step* add = FloatStep(add_i, "AddV2");
    if (add == nullptr) add = FloatStep(add_i, "Add");
    if (add == nullptr || add->input_slots.size() != 2) return false;
    const int j = add->input_slots[0] == mul_out ? 1 : 0;
    if (add->input_slots[1 - j] != mul_out) return false;
    const int kept = add->input_slots[j];
    int relu_i = -1;
    if (kept != x) {
      relu_i = producer_.count(kept) ? producer_.at(kept) : -1;
      const Plan::Step* relu = FloatStep(relu_i, "Relu");
      if (relu == nullptr || removed[relu_i] || relu->input_slots != std::vector<int>{x} ||
          SoleReader(kept, removed) != add_i) {
        return false;
      }
    }
    // x's readers: Abs, Sub, and the Relu or the Add.
    std::vector<int> x_readers = readers_[x];
    std::sort(x_readers.begin(), x_readers.end());
    std::vector<int> expected = {head, sub_i, relu_i >= 0 ? relu_i : add_i};
    std::sort(expected.begin(), expected.end());
    if (x_readers != expected) return false;

    PreluDef def;
    def.relu_form = relu_i >= 0;
    def.alpha = *alpha;
    // Parts in execution order: [Relu], Abs, Sub, Mul, Add.
    std::map<int, int> part_of;  // slot -> part index
    auto operand = [&](int slot) {
      if (slot == x) return PreluDef::kInput;
      auto it = part_of.find(slot);
      return it == part_of.end() ? PreluDef::kAlpha : it->second;
    };
    std::vector<int> order;
    if (relu_i >= 0) order.push_back(relu_i);
    for (int index : {head, sub_i, mul_i, add_i}) order.push_back(index);
    std::string label;
    for (int index : order) {
      const Plan::Step& step = plan_->steps[index];
      PreluDef::Part part;
      part.node = step.node;
      part.kernel = step.kernel;
      for (int slot : step.input_slots) part.operands.push_back(operand(slot));
      part_of[step.first_output_slot] = static_cast<int>(def.parts.size());
      def.parts.push_back(std::move(part));
      label += (label.empty() ? "" : "+") + step.node->def.op();
    }
    *members = order;
    std::sort(members->begin(), members->end());
    fused->node = add->node;
    fused->first_output_slot = add->first_output_slot;
    fused->input_slots = {x};
    fused->label = label;
    plan_->owned_kernels.push_back(std::make_unique<PreluKernel>(std::move(def)));
    fused->kernel = plan_->owned_kernels.back().get();
    return true;
  }

  // Integer values of a constant, or false.
  bool ConstantInts(int slot, std::vector<int64_t>* out) const {
    const Tensor* t = Constant(slot);
    if (t == nullptr || (t->dtype() != TF_INT32 && t->dtype() != TF_INT64)) return false;
    out->clear();
    for (int64_t i = 0; i < t->num_elements(); ++i) out->push_back(t->IntAt(i));
    return true;
  }

  // Whether outputs 1.. of the step at `index` are unused by the plan.
  bool OnlyFirstOutputUsed(int index) const {
    const Plan::Step& step = plan_->steps[index];
    for (int o = 1; o < step.node->num_outputs(); ++o) {
      const int slot = step.first_output_slot + o;
      if (fetched_.count(slot) || !readers_[slot].empty()) return false;
    }
    return true;
  }

  // TensorFlow writes a dilated convolution as SpaceToBatchND -> VALID
  // convolution -> BatchToSpaceND with the dilation as block shape. With
  // constant blocks, paddings and crops that is one convolution with that
  // dilation and explicit padding (paddings minus crops). Fills the chain's
  // first links and geometry; `value_slot` becomes BatchToSpaceND's output.
  bool MatchDilatedPattern(int head, const std::vector<bool>& removed, ConvChainDef* chain,
                           std::vector<int>* members, std::string* label, int* input_slot,
                           int* value_slot) {
    const Plan::Step& conv = plan_->steps[head];
    auto p = producer_.find(conv.input_slots[0]);
    if (p == producer_.end() || removed[p->second]) return false;
    const Plan::Step& stb = plan_->steps[p->second];
    if (stb.node->def.op() != "SpaceToBatchND" || stb.input_slots.size() != 3 ||
        SoleReader(stb.first_output_slot, removed) != head) {
      return false;
    }
    const int r = SoleReader(conv.first_output_slot, removed);
    if (r < 0) return false;
    const Plan::Step& bts = plan_->steps[r];
    if (bts.node->def.op() != "BatchToSpaceND" || bts.input_slots.size() != 3 ||
        bts.input_slots[0] != conv.first_output_slot) {
      return false;
    }
    std::vector<int64_t> block, pads, block2, crops;
    if (!ConstantInts(stb.input_slots[1], &block) || !ConstantInts(stb.input_slots[2], &pads) ||
        !ConstantInts(bts.input_slots[1], &block2) || !ConstantInts(bts.input_slots[2], &crops) ||
        block.size() != 2 || block != block2 || pads.size() != 4 || crops.size() != 4) {
      return false;
    }
    const WindowAttrs& a = chain->attrs;
    if (a.padding != Padding::kValid || a.stride_h != 1 || a.stride_w != 1 || a.dil_h != 1 ||
        a.dil_w != 1) {
      return false;
    }
    WindowAttrs dilated = a;
    dilated.dil_h = block[0];
    dilated.dil_w = block[1];
    dilated.padding = Padding::kExplicit;
    dilated.pad_top = pads[0] - crops[0];
    dilated.pad_bottom = pads[1] - crops[1];
    dilated.pad_left = pads[2] - crops[2];
    dilated.pad_right = pads[3] - crops[3];
    for (int64_t v : block) {
      if (v < 1 || v > (int64_t{1} << 20)) return false;
    }
    for (size_t i = 0; i < 4; ++i) {
      if (pads[i] < 0 || crops[i] < 0) return false;  // errors stay the kernels' own
    }
    // Crops beyond the padding would start windows inside the image, and
    // SpaceToBatchND's divisibility rule must hold for the same errors.
    if (dilated.pad_top < 0 || dilated.pad_bottom < 0 || dilated.pad_left < 0 ||
        dilated.pad_right < 0 || pads[0] > (int64_t{1} << 30) || pads[1] > (int64_t{1} << 30) ||
        pads[2] > (int64_t{1} << 30) || pads[3] > (int64_t{1} << 30)) {
      return false;
    }
    chain->attrs = dilated;
    chain->needs_divisible = true;
    chain->block_h = block[0];
    chain->block_w = block[1];
    chain->pad_h = pads[0] + pads[1];
    chain->pad_w = pads[2] + pads[3];
    ChainLink pre;
    pre.node = stb.node;
    pre.kernel = stb.kernel;
    pre.operands = {{ChainOperand::kChain, {}},
                    {ChainOperand::kConstant, *Constant(stb.input_slots[1])},
                    {ChainOperand::kConstant, *Constant(stb.input_slots[2])}};
    chain->pre_links.push_back(std::move(pre));
    ChainLink post;
    post.node = bts.node;
    post.kernel = bts.kernel;
    post.operands = {{ChainOperand::kChain, {}},
                     {ChainOperand::kConstant, *Constant(bts.input_slots[1])},
                     {ChainOperand::kConstant, *Constant(bts.input_slots[2])}};
    chain->links.push_back(std::move(post));
    members->insert(members->begin(), p->second);
    members->push_back(r);
    *label = "SpaceToBatchND+" + *label + "+BatchToSpaceND";
    *input_slot = stb.input_slots[0];
    *value_slot = bts.first_output_slot;
    return true;
  }

  // Which input (0 or 1) of a two-input step is a constant when the other
  // is `value_slot`; -1 otherwise.
  int ConstantOperand(const Plan::Step& step, int value_slot) const {
    if (step.input_slots.size() != 2) return -1;
    for (int k = 0; k < 2; ++k) {
      if (step.input_slots[1 - k] == value_slot && step.input_slots[k] != value_slot &&
          Constant(step.input_slots[k]) != nullptr) {
        return k;
      }
    }
    return -1;
  }

  // A float constant that broadcasts along the channels of an NHWC value
  // without changing its shape: one value, or out_c values in the last dim.
  static bool IsChannelConstant(const Tensor& t, int64_t out_c) {
    if (t.dtype() != TF_FLOAT || t.rank() > 4) return false;
    for (int d = 0; d + 1 < t.rank(); ++d) {
      if (t.dim(d) != 1) return false;
    }
    return t.num_elements() == 1 || (t.rank() > 0 && t.num_elements() == out_c);
  }

  // A Minimum (`upper`) or Maximum with a scalar float constant, as a clip:
  // a new one, or merged into the clip just before it. A chain holds at
  // most one clip: oneDNN 2.6 gives two clip post-ops the first one's
  // bounds.
  static bool AddClip(const Tensor& t, bool upper, ConvChainDef* chain) {
    if (t.dtype() != TF_FLOAT || t.rank() > 4 || t.num_elements() != 1) return false;
    const float bound = t.data<float>()[0];
    if (std::isnan(bound)) return false;
    std::vector<ConvPostOp>& ops = chain->post_ops;
    const bool merge = !ops.empty() && ops.back().kind == ConvPostOp::kClip;
    if (!merge) {
      for (const ConvPostOp& op : ops) {
        if (op.kind == ConvPostOp::kClip) return false;
      }
    }
    ConvPostOp clip;
    clip.kind = ConvPostOp::kClip;
    clip.alpha = -std::numeric_limits<float>::infinity();
    clip.beta = std::numeric_limits<float>::infinity();
    if (merge) clip = ops.back();
    if (upper) {
      clip.beta = std::min(clip.beta, bound);
    } else {
      clip.alpha = std::max(clip.alpha, bound);
    }
    // min then max with crossed bounds is a constant, which a clip is not.
    if (clip.alpha > clip.beta) return false;
    if (merge) {
      ops.back() = clip;
    } else {
      ops.push_back(clip);
    }
    return true;
  }

  // Adds a channel constant to the chain's bias, or scales its filter and
  // bias by one.
  static bool FoldChannelConstant(const Tensor& t, bool add, int64_t out_c,
                                  ConvChainDef* chain) {
    if (!IsChannelConstant(t, out_c)) return false;
    const float* v = t.data<float>();
    auto at = [&](int64_t c) { return t.num_elements() == 1 ? v[0] : v[c]; };
    Tensor bias;
    if (!Tensor::Allocate(TF_FLOAT, Shape({out_c}), &bias).ok()) return false;
    const float* old_bias = chain->bias.valid() ? chain->bias.data<float>() : nullptr;
    if (add) {
      for (int64_t c = 0; c < out_c; ++c) {
        bias.data<float>()[c] = (old_bias ? old_bias[c] : 0.0f) + at(c);
      }
      chain->bias = bias;
      return true;
    }
    const Tensor& source = chain->fused_filter.valid() ? chain->fused_filter : chain->filter;
    Tensor filter;
    if (!Tensor::Allocate(TF_FLOAT, source.shape(), &filter).ok()) return false;
    const float* w = source.data<float>();
    float* fw = filter.data<float>();
    for (int64_t i = 0; i < source.num_elements(); ++i) fw[i] = w[i] * at(i % out_c);
    chain->fused_filter = filter;
    if (old_bias != nullptr) {
      for (int64_t c = 0; c < out_c; ++c) bias.data<float>()[c] = old_bias[c] * at(c);
      chain->bias = bias;
    }
    return true;
  }

  // Folds an inference batch norm with constant parameters into the filter
  // and bias of the chain (which has no activation yet).
  bool FoldBatchNorm(const Plan::Step& bn, int index, int64_t out_c, ConvChainDef* chain) {
    const Node* m = bn.node;
    if (m->def.op().rfind("FusedBatchNorm", 0) != 0 || bn.input_slots.size() != 5 ||
        !chain->post_ops.empty() || !OnlyFirstOutputUsed(index)) {
      return false;
    }
    KernelInit init(m->name(), m->def.attr(), m->input_types, m->output_types);
    BatchNormAttrs attrs;
    if (!attrs.Parse(init).ok() || !attrs.channels_last || attrs.rank != 4) return false;
    const Tensor* p[4];
    for (int i = 0; i < 4; ++i) {
      p[i] = Constant(bn.input_slots[1 + i]);
      if (p[i] == nullptr || p[i]->dtype() != TF_FLOAT || p[i]->rank() != 1 ||
          p[i]->dim(0) != out_c) {
        return false;
      }
    }
    std::vector<float> mul(out_c), add(out_c);
    BatchNormFactors(p[0]->data<float>(), p[1]->data<float>(), p[2]->data<float>(),
                     p[3]->data<float>(), attrs.epsilon, out_c, mul.data(), add.data());
    const Tensor& source = chain->fused_filter.valid() ? chain->fused_filter : chain->filter;
    Tensor filter, bias;
    if (!Tensor::Allocate(TF_FLOAT, source.shape(), &filter).ok() ||
        !Tensor::Allocate(TF_FLOAT, Shape({out_c}), &bias).ok()) {
      return false;
    }
    const float* w = source.data<float>();
    float* fw = filter.data<float>();
    for (int64_t i = 0; i < source.num_elements(); ++i) fw[i] = w[i] * mul[i % out_c];
    const float* old_bias = chain->bias.valid() ? chain->bias.data<float>() : nullptr;
    for (int64_t c = 0; c < out_c; ++c) {
      bias.data<float>()[c] = (old_bias ? old_bias[c] : 0.0f) * mul[c] + add[c];
    }
    chain->fused_filter = filter;
    chain->bias = bias;
    return true;
  }

  Plan* plan_;
  const ConstantMap& constants_;
  std::vector<std::vector<int>> readers_;
  std::unordered_set<int> fetched_;
  std::unordered_map<int, int> producer_;  // slot -> step
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
