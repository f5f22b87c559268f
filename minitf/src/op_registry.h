// The table from op names to signatures and kernels. It is filled once, by
// an explicit list of family registration functions (op_registry.cc), so a
// static link cannot drop an op.
#ifndef MINITF_OP_REGISTRY_H_
#define MINITF_OP_REGISTRY_H_

#include <map>
#include <string>
#include <vector>

#include "kernel.h"
#include "op_def.h"

namespace minitf {

struct OpRegistration {
  OpDef def;
  KernelFactory factory;
};

class OpRegistry {
 public:
  // The process-wide registry, built on first use.
  static const OpRegistry& Global();

  void Register(OpDef def, KernelFactory factory);
  // Null when `op` is not registered.
  const OpRegistration* Find(const std::string& op) const;
  std::vector<std::string> OpNames() const;

 private:
  std::map<std::string, OpRegistration> ops_;
};

// One per op family, each in its file under kernels/ (the comment above each
// names the file and every op it registers). The fused convolution step
// (kernels/conv_chain.cc) is made by the plan optimiser and not registered.
// graph_ops.cc: Placeholder, PlaceholderWithDefault, Const, Identity, IdentityN, Snapshot,
//   StopGradient, NoOp
void RegisterGraphOps(OpRegistry& r);
// cast.cc: Cast
void RegisterCastOps(OpRegistry& r);
// binary.cc: Add, AddV2, Sub, Mul, Div, RealDiv, FloorDiv, FloorMod, Pow, Maximum, Minimum,
//   SquaredDifference, Atan2; Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual; LogicalAnd,
//   LogicalOr; BitwiseAnd, BitwiseOr, BitwiseXor, LeftShift, RightShift
void RegisterBinaryOps(OpRegistry& r);
// unary.cc: Abs, Neg, Sign, Square, Sqrt, Rsqrt, Reciprocal, Exp, Log, Sin, Cos, Erf, Sigmoid,
//   Tanh, Softplus, Softsign, Floor, Ceil, Round; IsNan, IsFinite, LogicalNot
void RegisterUnaryOps(OpRegistry& r);
// activation.cc: Relu, Relu6, Elu, Selu, LeakyRelu, Softmax, LogSoftmax
void RegisterActivationOps(OpRegistry& r);
// reduction.cc: Sum, Mean, Prod, Max, Min, All, Any, ArgMax, ArgMin, L2Loss
void RegisterReductionOps(OpRegistry& r);
// shape.cc: Shape, Size, Rank, Reshape, ExpandDims, Squeeze
void RegisterShapeOps(OpRegistry& r);
// concat.cc: ConcatV2, Concat, Pack, Unpack, Split, SplitV
void RegisterConcatOps(OpRegistry& r);
// slice.cc: Slice, StridedSlice
void RegisterSliceOps(OpRegistry& r);
// transpose.cc: Transpose, ReverseV2
void RegisterTransposeOps(OpRegistry& r);
// fill.cc: Fill, Range, ZerosLike, OnesLike, Tile
void RegisterFillOps(OpRegistry& r);
// pad.cc: Pad, PadV2, MirrorPad
void RegisterPadOps(OpRegistry& r);
// gather.cc: GatherV2, Gather, GatherNd
void RegisterGatherOps(OpRegistry& r);
// matmul.cc: MatMul, BatchMatMul, BatchMatMulV2, BiasAdd, BiasAddV1
void RegisterMatMulOps(OpRegistry& r);
// conv.cc: Conv2D, DepthwiseConv2dNative
void RegisterConvOps(OpRegistry& r);
// pooling.cc: MaxPool, AvgPool
void RegisterPoolingOps(OpRegistry& r);
// image.cc: ResizeBilinear, ResizeBicubic, ResizeNearestNeighbor, CropAndResize
void RegisterImageOps(OpRegistry& r);
// add_n.cc: AddN
void RegisterAddNOps(OpRegistry& r);
// conv_transpose.cc: Conv2DBackpropInput
void RegisterConvTransposeOps(OpRegistry& r);
// depth_to_space.cc: DepthToSpace, SpaceToDepth
void RegisterDepthToSpaceOps(OpRegistry& r);
// sparse_to_dense.cc: SparseToDense
void RegisterSparseToDenseOps(OpRegistry& r);
// topk.cc: TopKV2, TopK
void RegisterTopKOps(OpRegistry& r);
// control_flow_ops.cc: Switch, Merge, Enter, Exit, NextIteration, LoopCond
void RegisterControlFlowOps(OpRegistry& r);
// tensor_array.cc: TensorArrayV3 and its Read, Write, Gather, Scatter, Concat, Split, Size and
//   Close V3
void RegisterTensorArrayOps(OpRegistry& r);
// batch_norm.cc: FusedBatchNorm, FusedBatchNormV2, FusedBatchNormV3
void RegisterBatchNormOps(OpRegistry& r);
// space_to_batch.cc: SpaceToBatchND, BatchToSpaceND
void RegisterSpaceToBatchOps(OpRegistry& r);
// dequantize.cc: Dequantize
void RegisterDequantizeOps(OpRegistry& r);
// logging_ops.cc: Assert, Print, PrintV2
void RegisterLoggingOps(OpRegistry& r);
// nms.cc: NonMaxSuppressionV2, V3, V4, V5
void RegisterNmsOps(OpRegistry& r);
// where.cc: Where
void RegisterWhereOps(OpRegistry& r);
// select.cc: Select, SelectV2, ClipByValue
void RegisterSelectOps(OpRegistry& r);
// scan.cc: Cumsum
void RegisterScanOps(OpRegistry& r);
// broadcast_to.cc: BroadcastTo, BroadcastArgs
void RegisterBroadcastOps(OpRegistry& r);
// unique.cc: Unique
void RegisterUniqueOps(OpRegistry& r);
// window3d.cc: Conv3D, MaxPool3D, AvgPool3D
void RegisterWindow3DOps(OpRegistry& r);
// einsum.cc: Einsum (two-operand matrix forms)
void RegisterEinsumOps(OpRegistry& r);

}  // namespace minitf

#endif  // MINITF_OP_REGISTRY_H_
