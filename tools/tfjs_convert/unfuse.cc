#include "unfuse.h"

#include <vector>

namespace minitf {
namespace tfjs {
namespace {

struct FusedForm {
  const char* op;
  const char* base_op;
  // Attributes the base op shares with the fused one; the rest (fused_ops,
  // num_args, epsilon, leakyrelu_alpha) only steer the rewrite.
  std::vector<const char*> base_attrs;
};

const std::vector<FusedForm>& FusedForms() {
  static const std::vector<FusedForm> forms = {
      {"_FusedConv2D", "Conv2D",
       {"T", "strides", "padding", "explicit_paddings", "data_format", "dilations",
        "use_cudnn_on_gpu"}},
      {"FusedDepthwiseConv2dNative", "DepthwiseConv2dNative",
       {"T", "strides", "padding", "explicit_paddings", "data_format", "dilations"}},
      {"_FusedMatMul", "MatMul", {"T", "transpose_a", "transpose_b"}},
  };
  return forms;
}

const FusedForm* FindForm(const std::string& op) {
  for (const FusedForm& f : FusedForms()) {
    if (op == f.op) return &f;
  }
  return nullptr;
}

template <typename... Args>
Status NodeError(const pb::NodeDef& n, const Args&... args) {
  return InvalidArgument("node '", n.name(), "' (", n.op(), "): ", args...);
}

pb::DataType TypeAttr(const pb::NodeDef& n) {
  auto it = n.attr().find("T");
  return it == n.attr().end() ? pb::DT_FLOAT : it->second.type();
}

// Builds one rewritten chain. Each step appends a node with a fresh name
// under the fused node's; Finish renames the last to the fused node's name.
class Chain {
 public:
  Chain(GraphEditor* g, const pb::NodeDef& fused) : g_(g), fused_(fused), type_(TypeAttr(fused)) {}

  // Appends op(inputs) with attribute T; returns its name.
  std::string Step(const std::string& op, const std::string& suffix,
                   const std::vector<std::string>& inputs, pb::NodeDef** node = nullptr) {
    pb::NodeDef* n = g_->AddTyped(op, fused_.name() + "/" + suffix, inputs, type_);
    if (node != nullptr) *node = n;
    last_ = n->name();
    return last_;
  }

  std::string Const(const std::string& suffix, float value) {
    pb::TensorProto t = FloatTensor({}, {value});
    t.set_dtype(type_);
    if (type_ == pb::DT_DOUBLE) {
      const double d = value;
      t.set_tensor_content(std::string(reinterpret_cast<const char*>(&d), sizeof(d)));
    }
    return g_->AddConst(fused_.name() + "/" + suffix, t)->name();
  }

  // Relu(x) - alpha * Relu(-x): exactly x for x >= 0 and alpha * x below.
  std::string Prelu(const std::string& x, const std::string& alpha) {
    const std::string pos = Step("Relu", "prelu/positive", {x});
    const std::string neg = Step("Neg", "prelu/negated", {x});
    const std::string neg_part = Step("Relu", "prelu/negative", {neg});
    const std::string scaled = Step("Mul", "prelu/scaled", {alpha, neg_part});
    return Step("Sub", "prelu", {pos, scaled});
  }

  Status Finish() { return g_->Rename(last_, fused_.name()); }

  pb::DataType type() const { return type_; }

 private:
  GraphEditor* g_;
  const pb::NodeDef& fused_;
  pb::DataType type_;
  std::string last_;
};

void SplitInputs(const pb::NodeDef& n, std::vector<std::string>* data,
                 std::vector<std::string>* control) {
  for (const std::string& in : n.input()) {
    (!in.empty() && in[0] == '^' ? control : data)->push_back(in);
  }
}

Status RewriteFused(GraphEditor* g, const pb::NodeDef& n, const FusedForm& form) {
  std::vector<std::string> data, control;
  SplitInputs(n, &data, &control);
  if (data.size() < 2) return NodeError(n, "needs at least 2 inputs, has ", data.size());
  const std::vector<std::string> args(data.begin() + 2, data.end());
  auto num_args = n.attr().find("num_args");
  if (num_args != n.attr().end() && num_args->second.i() != static_cast<int64_t>(args.size())) {
    return NodeError(n, "num_args is ", num_args->second.i(), " but it has ", args.size(),
                     " extra inputs");
  }
  std::vector<std::string> ops;
  auto fused_ops = n.attr().find("fused_ops");
  if (fused_ops != n.attr().end()) {
    for (const std::string& s : fused_ops->second.list().s()) ops.push_back(s);
  }

  Chain chain(g, n);
  pb::NodeDef* base = nullptr;
  std::vector<std::string> base_inputs = {data[0], data[1]};
  base_inputs.insert(base_inputs.end(), control.begin(), control.end());
  std::string x = chain.Step(form.base_op, form.base_op, base_inputs, &base);
  for (const char* attr : form.base_attrs) {
    auto it = n.attr().find(attr);
    if (it != n.attr().end()) (*base->mutable_attr())[attr] = it->second;
  }

  size_t op_index = 0;
  size_t arg_index = 0;
  auto take_arg = [&](const char* what, std::string* out) -> Status {
    if (arg_index >= args.size()) return NodeError(n, what, " has no argument input");
    *out = args[arg_index++];
    return Status::OK();
  };

  if (op_index < ops.size() && ops[op_index] == "BiasAdd") {
    std::string bias;
    MINITF_RETURN_IF_ERROR(take_arg("BiasAdd", &bias));
    pb::NodeDef* add = nullptr;
    x = chain.Step("BiasAdd", "BiasAdd", {x, bias}, &add);
    auto format = n.attr().find("data_format");
    if (format != n.attr().end()) (*add->mutable_attr())["data_format"] = format->second;
    ++op_index;
  } else if (op_index < ops.size() && ops[op_index] == "FusedBatchNorm") {
    if (chain.type() != pb::DT_FLOAT && chain.type() != pb::DT_DOUBLE) {
      return NodeError(n, "FusedBatchNorm is rewritten for float and double only");
    }
    std::string scale, offset, mean, variance;
    MINITF_RETURN_IF_ERROR(take_arg("FusedBatchNorm scale", &scale));
    MINITF_RETURN_IF_ERROR(take_arg("FusedBatchNorm offset", &offset));
    MINITF_RETURN_IF_ERROR(take_arg("FusedBatchNorm mean", &mean));
    MINITF_RETURN_IF_ERROR(take_arg("FusedBatchNorm variance", &variance));
    auto eps = n.attr().find("epsilon");
    const std::string epsilon =
        chain.Const("batchnorm/epsilon", eps == n.attr().end() ? 0.0f : eps->second.f());
    const std::string shifted = chain.Step("AddV2", "batchnorm/variance_eps", {variance, epsilon});
    const std::string inv = chain.Step("Rsqrt", "batchnorm/inv_std", {shifted});
    const std::string mult = chain.Step("Mul", "batchnorm/multiplier", {inv, scale});
    const std::string centred = chain.Step("Sub", "batchnorm/centred", {x, mean});
    const std::string scaled = chain.Step("Mul", "batchnorm/scaled", {centred, mult});
    x = chain.Step("AddV2", "batchnorm", {scaled, offset});
    ++op_index;
  }

  if (op_index < ops.size()) {
    const std::string& act = ops[op_index];
    if (act == "Relu" || act == "Relu6" || act == "Elu" || act == "Sigmoid" || act == "Tanh") {
      x = chain.Step(act, act, {x});
    } else if (act == "LeakyRelu") {
      pb::NodeDef* node = nullptr;
      x = chain.Step("LeakyRelu", "LeakyRelu", {x}, &node);
      auto alpha = n.attr().find("leakyrelu_alpha");
      SetAttrFloat(node, "alpha", alpha == n.attr().end() ? 0.2f : alpha->second.f());
    } else if (act == "Prelu") {
      std::string alpha;
      MINITF_RETURN_IF_ERROR(take_arg("Prelu", &alpha));
      x = chain.Prelu(x, alpha);
    } else {
      return NodeError(n, "fused op '", act, "' is not supported");
    }
    ++op_index;
  }
  if (op_index != ops.size()) {
    return NodeError(n, "fused op '", ops[op_index], "' is not supported in this position");
  }
  if (arg_index != args.size()) {
    return NodeError(n, args.size() - arg_index, " argument inputs are left unused");
  }
  return chain.Finish();
}

Status RewritePrelu(GraphEditor* g, const pb::NodeDef& n) {
  std::vector<std::string> data, control;
  SplitInputs(n, &data, &control);
  if (data.size() != 2) return NodeError(n, "needs 2 inputs, has ", data.size());
  Chain chain(g, n);
  std::string x = data[0];
  if (!control.empty()) {
    // Control inputs go on a first node that everything else waits for.
    std::vector<std::string> first = {data[0]};
    first.insert(first.end(), control.begin(), control.end());
    x = chain.Step("Identity", "prelu/input", first);
  }
  chain.Prelu(x, data[1]);
  return chain.Finish();
}

}  // namespace

bool IsFusedOp(const std::string& op) { return op == "Prelu" || FindForm(op) != nullptr; }

Status UnfuseGraph(GraphEditor* g) {
  std::vector<std::string> fused;
  for (const pb::NodeDef& n : g->graph()->node()) {
    if (IsFusedOp(n.op())) fused.push_back(n.name());
  }
  for (const std::string& name : fused) {
    pb::NodeDef node;
    MINITF_RETURN_IF_ERROR(g->Remove(name, &node));
    if (node.op() == "Prelu") {
      MINITF_RETURN_IF_ERROR(RewritePrelu(g, node));
    } else {
      MINITF_RETURN_IF_ERROR(RewriteFused(g, node, *FindForm(node.op())));
    }
  }
  return Status::OK();
}

}  // namespace tfjs
}  // namespace minitf
