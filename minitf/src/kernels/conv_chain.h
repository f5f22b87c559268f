// A convolution with a constant filter and what directly follows it in the
// graph (bias, activations, one residual addition), computed as one step.
// The plan optimiser makes these; graphs never name them. When the fused
// path cannot take a call (no oneDNN, a geometry it refuses, a residual that
// broadcasts), the chain's own kernels run one after another, so results and
// errors are those of the unfused graph.
#ifndef MINITF_KERNELS_CONV_CHAIN_H_
#define MINITF_KERNELS_CONV_CHAIN_H_

#include <vector>

#include "graph.h"
#include "kernel.h"
#include "kernels/dnnl/conv_chain.h"
#include "kernels/window_geometry.h"

namespace minitf {

// Where one input of a chained node comes from.
struct ChainOperand {
  enum Kind { kChain, kConstant, kResidual };
  Kind kind = kChain;
  Tensor constant;  // kConstant only
};

// A node after the convolution, with its session kernel for the unfused path.
struct ChainLink {
  const Node* node = nullptr;
  const OpKernel* kernel = nullptr;
  std::vector<ChainOperand> operands;
};

// Everything a fused step needs, found by the plan optimiser: the
// convolution, what it absorbs before and after, and the constants the
// fused path uses instead of the nodes' own.
struct ConvChainDef {
  const Node* conv = nullptr;  // Conv2D or DepthwiseConv2dNative, float, NHWC
  const OpKernel* conv_kernel = nullptr;
  bool depthwise = false;
  WindowAttrs attrs;
  Tensor filter;
  // The filter the fused path uses when it differs from the node's (a batch
  // norm folded into it); invalid otherwise.
  Tensor fused_filter;
  Tensor bias;  // invalid when the chain has no bias
  std::vector<ConvPostOp> post_ops;
  // Nodes before the convolution that the fused path absorbs into its
  // geometry (SpaceToBatchND of a dilated convolution), in order.
  std::vector<ChainLink> pre_links;
  // With SpaceToBatchND absorbed: its padded sizes must divide by the block,
  // or the unfused path runs and reports the error.
  bool needs_divisible = false;
  int64_t block_h = 1, block_w = 1, pad_h = 0, pad_w = 0;
  std::vector<ChainLink> links;  // the nodes after the convolution, in order
};

// Inputs: 0 the convolution's input, 1 the residual when the chain adds one.
class ConvChainKernel : public OpKernel {
 public:
  explicit ConvChainKernel(ConvChainDef def);
  Status Compute(OpContext* ctx) const override;

 private:
  Status ComputeValue(OpContext* ctx) const;
  Status RunUnfused(OpContext* ctx) const;
  bool has_residual() const;

  ConvChainDef def_;
  DnnlConvChain fast_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_CONV_CHAIN_H_
