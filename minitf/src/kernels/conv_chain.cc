#include "kernels/conv_chain.h"

#include <cstring>

namespace minitf {

ConvChainKernel::ConvChainKernel(ConvChainDef def)
    : def_(std::move(def)),
      fast_((def_.fused_filter.valid() ? def_.fused_filter : def_.filter).data<float>(), def_.bias.valid() ? def_.bias.data<float>() : nullptr,
            def_.post_ops) {}

bool ConvChainKernel::has_residual() const {
  for (const ConvPostOp& op : def_.post_ops) {
    if (op.kind == ConvPostOp::kAddResidual) return true;
  }
  return false;
}

Status ConvChainKernel::Compute(OpContext* ctx) const {
  MINITF_RETURN_IF_ERROR(ComputeValue(ctx));
  // A chain ending in a folded batch norm: its other outputs are read by
  // nothing, but the step must still produce them.
  for (int o = 1; o < ctx->num_outputs(); ++o) {
    Tensor* unused = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(o, Shape({0}), &unused));
  }
  return Status::OK();
}

Status ConvChainKernel::ComputeValue(OpContext* ctx) const {
  const Tensor& input = ctx->input(0);
  WindowGeometry g;
  if (input.dtype() != TF_FLOAT ||
      !ConvGeometry(*ctx, def_.attrs, def_.depthwise, input, def_.filter, &g).ok() ||
      g.groups == 0) {
    return RunUnfused(ctx);
  }
  if (def_.needs_divisible &&
      ((g.in_h + def_.pad_h) % def_.block_h != 0 ||
       (g.in_w + def_.pad_w) % def_.block_w != 0)) {
    return RunUnfused(ctx);
  }
  Shape out_shape;
  MINITF_RETURN_IF_ERROR(Shape::Make({g.batch, g.out_h, g.out_w, g.out_c}, &out_shape));
  if (out_shape.num_elements() == 0) return RunUnfused(ctx);
  if (has_residual()) {
    const Tensor& residual = ctx->input(1);
    if (residual.dtype() != TF_FLOAT || residual.shape() != out_shape) return RunUnfused(ctx);
  }
  if (!fast_.Prepare(g)) return RunUnfused(ctx);
  Tensor* out = nullptr;
  if (has_residual()) {
    // The primitive sums into what the output holds: the residual itself
    // when the run is done with it, else a copy.
    MINITF_RETURN_IF_ERROR(ctx->forward_input_or_allocate_output({1}, 0, out_shape, &out));
    if (out->raw_data() != ctx->input(1).raw_data()) {
      std::memcpy(out->raw_data(), ctx->input(1).raw_data(), out->byte_size());
    }
  } else {
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
  }
  if (!fast_.Run(g, input.data<float>(), out->data<float>(), ctx->pool())) {
    // The output may hold the residual's memory by now: no second attempt.
    return Internal("the fused convolution failed to execute (node ", ctx->node_name(), ")");
  }
  return Status::OK();
}

Status ConvChainKernel::RunUnfused(OpContext* ctx) const {
  Tensor value;
  auto run = [&](const Node* node, const OpKernel* kernel,
                 std::vector<const Tensor*> inputs) -> Status {
    OpContext step(node->name(), std::move(inputs), node->output_types, ctx->pool(),
                   ctx->budget());
    MINITF_RETURN_IF_ERROR(kernel->Compute(&step));
    if (!step.output(0).valid()) {
      return Internal("node '", node->name(), "' did not produce output 0");
    }
    value = std::move(step.output(0));
    return Status::OK();
  };
  auto run_links = [&](const std::vector<ChainLink>& links) -> Status {
    for (const ChainLink& link : links) {
      const Tensor so_far = value;
      std::vector<const Tensor*> inputs;
      for (const ChainOperand& operand : link.operands) {
        switch (operand.kind) {
          case ChainOperand::kChain:
            inputs.push_back(&so_far);
            break;
          case ChainOperand::kConstant:
            inputs.push_back(&operand.constant);
            break;
          case ChainOperand::kResidual:
            inputs.push_back(&ctx->input(1));
            break;
        }
      }
      MINITF_RETURN_IF_ERROR(run(link.node, link.kernel, std::move(inputs)));
    }
    return Status::OK();
  };
  value = ctx->input(0);
  MINITF_RETURN_IF_ERROR(run_links(def_.pre_links));
  const Tensor conv_input = value;
  MINITF_RETURN_IF_ERROR(run(def_.conv, def_.conv_kernel, {&conv_input, &def_.filter}));
  MINITF_RETURN_IF_ERROR(run_links(def_.links));
  return ctx->set_output(0, std::move(value));
}

}  // namespace minitf
