// PReLU as exporters write it out in elementwise ops,
//   Add(Relu(x) or x, Mul(Sub(x, Abs(x)), alpha)),
// computed in one pass over x instead of four or five. The plan optimiser
// makes these; graphs never name them. When the one pass cannot take a call
// (not float, an alpha that does not broadcast along the last dimension),
// the original kernels run one after another, so results and errors are
// those of the unfused graph.
#ifndef MINITF_KERNELS_PRELU_H_
#define MINITF_KERNELS_PRELU_H_

#include <vector>

#include "graph.h"
#include "kernel.h"

namespace minitf {

struct PreluDef {
  bool relu_form = false;  // Relu(x) + ..., else x + ...
  Tensor alpha;            // the Mul's constant
  // The original nodes in execution order, each with where its inputs come
  // from: kInput (x), kAlpha, or the index of an earlier part.
  struct Part {
    const Node* node = nullptr;
    const OpKernel* kernel = nullptr;
    std::vector<int> operands;
  };
  static constexpr int kInput = -1;
  static constexpr int kAlpha = -2;
  std::vector<Part> parts;
};

// Input 0: x.
class PreluKernel : public OpKernel {
 public:
  explicit PreluKernel(PreluDef def) : def_(std::move(def)) {}
  Status Compute(OpContext* ctx) const override;

 private:
  Status RunUnfused(OpContext* ctx) const;

  PreluDef def_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_PRELU_H_
