#include "kernels/prelu.h"

#include <cmath>
#include <type_traits>

namespace minitf {

Status PreluKernel::Compute(OpContext* ctx) const {
  const Tensor& x = ctx->input(0);
  const Tensor& alpha = def_.alpha;
  if (x.dtype() != TF_FLOAT || alpha.dtype() != TF_FLOAT || x.rank() < 1 ||
      alpha.rank() > x.rank() || x.num_elements() == 0) {
    return RunUnfused(ctx);
  }
  for (int d = 0; d + 1 < alpha.rank(); ++d) {
    if (alpha.dim(d) != 1) return RunUnfused(ctx);
  }
  const int64_t channels = x.dim(x.rank() - 1);
  const int64_t per = alpha.num_elements();
  if (per != 1 && (alpha.rank() == 0 || per != channels)) return RunUnfused(ctx);

  Tensor* y = nullptr;
  MINITF_RETURN_IF_ERROR(ctx->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
  const float* in = x.data<float>();
  const float* a = alpha.data<float>();
  float* out = y->data<float>();
  // Rows of `channels` values, so the inner loop vectorises.
  const int64_t rows = x.num_elements() / channels;
  auto run = [&](auto relu) {
    ctx->ParallelFor(rows, channels * 2, [&](int64_t begin, int64_t end) {
      for (int64_t r = begin; r < end; ++r) {
        const float* row_in = in + r * channels;
        float* row_out = out + r * channels;
        for (int64_t c = 0; c < channels; ++c) {
          const float v = row_in[c];
          // The same operations, in the same order, as the unfused ops.
          const float scaled = (v - std::fabs(v)) * a[per == 1 ? 0 : c];
          const float kept = relu ? (v < 0.0f ? 0.0f : v) : v;
          row_out[c] = kept + scaled;
        }
      }
    });
  };
  if (def_.relu_form) {
    run(std::true_type{});
  } else {
    run(std::false_type{});
  }
  return Status::OK();
}

Status PreluKernel::RunUnfused(OpContext* ctx) const {
  std::vector<Tensor> results(def_.parts.size());
  for (size_t k = 0; k < def_.parts.size(); ++k) {
    const PreluDef::Part& part = def_.parts[k];
    std::vector<const Tensor*> inputs;
    for (int operand : part.operands) {
      inputs.push_back(operand == PreluDef::kInput   ? &ctx->input(0)
                       : operand == PreluDef::kAlpha ? &def_.alpha
                                                     : &results[operand]);
    }
    OpContext step(part.node->name(), std::move(inputs), part.node->output_types, ctx->pool(),
                   ctx->budget());
    MINITF_RETURN_IF_ERROR(part.kernel->Compute(&step));
    if (!step.output(0).valid()) {
      return Internal("node '", part.node->name(), "' did not produce output 0");
    }
    results[k] = std::move(step.output(0));
  }
  return ctx->set_output(0, std::move(results.back()));
}

}  // namespace minitf
