// TF.js graph models carry ops that exist only in TF.js or only inside
// TensorFlow's optimiser (_FusedConv2D, FusedDepthwiseConv2dNative,
// _FusedMatMul, Prelu). These are rewritten into the standard ops they stand
// for, so the result is a plain frozen graph any TensorFlow can load:
//
//   _FusedConv2D(x, w, b)            fused_ops [BiasAdd, act]  -> act(BiasAdd(Conv2D(x, w), b))
//   _FusedConv2D(x, w, s, o, m, v)   fused_ops [FusedBatchNorm] -> (Conv2D - m) * rsqrt(v + eps) * s + o
//   FusedDepthwiseConv2dNative       likewise, on DepthwiseConv2dNative
//   _FusedMatMul(a, b, bias)         likewise, on MatMul
//   Prelu(x, alpha)                  -> Relu(x) - alpha * Relu(-x)
//
// act is one of Relu, Relu6, Elu, Sigmoid, Tanh, LeakyRelu (alpha from
// leakyrelu_alpha) or Prelu (alpha is the next fused argument). The last
// node of each chain keeps the fused node's name, so consumers and fetches
// are unchanged.
#ifndef TOOLS_TFJS_CONVERT_UNFUSE_H_
#define TOOLS_TFJS_CONVERT_UNFUSE_H_

#include <string>

#include "graph_edit.h"

namespace minitf {
namespace tfjs {

bool IsFusedOp(const std::string& op);

// Rewrites every fused node of the graph. Fails, naming the node, on a
// fused combination it does not know.
Status UnfuseGraph(GraphEditor* g);

}  // namespace tfjs
}  // namespace minitf

#endif  // TOOLS_TFJS_CONVERT_UNFUSE_H_
