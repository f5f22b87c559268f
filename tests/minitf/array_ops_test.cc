// Shape, join/split, transpose, fill/range/tile, pad and gather ops.
// Expected values are worked out by hand; the large cases compare with a
// naive index loop written here.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "one_op.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectOutput;
using testing_support::ExpectRunError;
using testing_support::GraphBuilder;
using testing_support::OneOp;
using testing_support::RunDims;
using testing_support::RunOk;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

std::vector<int32_t> Iota(int n) {
  std::vector<int32_t> v(n);
  std::iota(v.begin(), v.end(), 0);
  return v;
}

int Count(const Dims& dims) {
  int64_t n = 1;
  for (int64_t d : dims) n *= d;
  return static_cast<int>(n);
}

// Runs a graph and fetches every output of `node` (`count` of them).
std::vector<TensorPtr> FetchAll(const GraphBuilder& g, const std::string& node, int count) {
  TestSession s(g.Serialize());
  EXPECT_EQ(s.code(), TF_OK) << s.message();
  std::vector<std::string> fetches;
  for (int i = 0; i < count; ++i) fetches.push_back(node + ":" + std::to_string(i));
  std::vector<TensorPtr> out;
  EXPECT_EQ(s.Run({}, fetches, &out), TF_OK) << s.last_error();
  return out;
}

TEST(ShapeOpsTest, ShapeSizeRankOfAnEmptyTensor) {
  for (const auto& [op_name, expected] : std::vector<std::pair<const char*, std::vector<int32_t>>>{
           {"Shape", {2, 0, 3}}, {"Size", {0}}, {"Rank", {3}}}) {
    SCOPED_TRACE(op_name);
    OneOp op(op_name);
    op.In<float>({2, 0, 3}, {}).Attr("T", TF_FLOAT);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    ASSERT_EQ(op.OutputType(), TF_INT32);
    EXPECT_EQ(op.Output<int32_t>(), expected);
  }
  EXPECT_EQ(RunOk<int64_t>(OneOp("Shape").In<uint8_t>({4, 1}, {1, 2, 3, 4}).Attr("T", TF_UINT8)
      .Attr("out_type", TF_INT64)), (std::vector<int64_t>{4, 1}));
}

TEST(ShapeOpsTest, ReshapeInfersOneDim) {
  struct Case { Dims input; std::vector<int32_t> shape; Dims expected; };
  const std::vector<Case> cases = {
      {{2, 3}, {-1, 2}, {3, 2}},
      {{2, 3}, {6}, {6}},
      {{1, 1}, {}, {}},            // to a scalar
      {{0, 3}, {-1, 3}, {0, 3}},   // the -1 of an empty input is 0
      {{2, 0, 3}, {2, -1, 0}, {2, 3, 0}},  // zeros left out of the inference
  };
  for (const Case& c : cases) {
    const int n = Count(c.input);
    OneOp op("Reshape");
    op.In<int32_t>(c.input, Iota(n))
        .In<int32_t>({static_cast<int64_t>(c.shape.size())}, c.shape)
        .Attr("T", TF_INT32);  // Tshape left to its default
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), c.expected);
    EXPECT_EQ(op.Output<int32_t>(), Iota(n));
  }
  for (const std::vector<int64_t>& bad :
       {std::vector<int64_t>{-1, -1}, {4}, {-1, 4}, {-2, -3}, {3, 2, 1, 0, -1}}) {
    ExpectRunError(OneOp("Reshape").In<float>({6}, {0, 1, 2, 3, 4, 5})
        .In<int64_t>({static_cast<int64_t>(bad.size())}, bad).Attr("T", TF_FLOAT)
        .Attr("Tshape", TF_INT64));
  }
}

TEST(ShapeOpsTest, ExpandDimsAndSqueeze) {
  for (const auto& [dim, expected] : std::vector<std::pair<int32_t, Dims>>{
           {0, {1, 2, 3}}, {2, {2, 3, 1}}, {-1, {2, 3, 1}}, {-3, {1, 2, 3}}}) {
    OneOp op("ExpandDims");
    op.In<float>({2, 3}, {1, 2, 3, 4, 5, 6}).In<int32_t>({}, {dim}).Attr("T", TF_FLOAT);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), expected) << "dim " << dim;
    EXPECT_EQ(op.Output<float>(), (std::vector<float>{1, 2, 3, 4, 5, 6}));
  }
  ExpectRunError(OneOp("ExpandDims").In<float>({2, 3}, {1, 2, 3, 4, 5, 6}).In<int32_t>({}, {3})
      .Attr("T", TF_FLOAT));

  EXPECT_EQ(RunDims(OneOp("Squeeze").In<int32_t>({1, 2, 1, 3}, Iota(6))
      .Attr("T", TF_INT32)), (Dims{2, 3}));
  EXPECT_EQ(RunDims(OneOp("Squeeze").In<int32_t>({1, 2, 1, 3}, Iota(6)).Attr("T", TF_INT32)
      .Attr("squeeze_dims", std::vector<int64_t>{-2})), (Dims{1, 2, 3}));
  for (int64_t bad : {1, 4}) {  // a dim of size 2; a dim that does not exist
    ExpectRunError(OneOp("Squeeze").In<int32_t>({1, 2, 1, 3}, Iota(6)).Attr("T", TF_INT32)
        .Attr("squeeze_dims", std::vector<int64_t>{bad}));
  }
}

TEST(JoinOpsTest, PackAlongEachAxis) {
  for (const auto& [axis, dims, values] : std::vector<std::tuple<int, Dims, std::vector<int32_t>>>{
           {0, {3, 2}, {1, 2, 3, 4, 5, 6}},
           {1, {2, 3}, {1, 3, 5, 2, 4, 6}},
           {-1, {2, 3}, {1, 3, 5, 2, 4, 6}}}) {
    OneOp op("Pack");
    op.In<int32_t>({2}, {1, 2}).In<int32_t>({2}, {3, 4}).In<int32_t>({2}, {5, 6})
        .Attr("T", TF_INT32).Attr("N", 3).Attr("axis", axis);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), dims) << "axis " << axis;
    EXPECT_EQ(op.Output<int32_t>(), values) << "axis " << axis;
  }
  ExpectRunError(OneOp("Pack").In<int32_t>({2}, {1, 2}).In<int32_t>({3}, {3, 4, 5})
      .Attr("T", TF_INT32).Attr("N", 2));
  ExpectRunError(OneOp("Pack").In<int32_t>({2}, {1, 2}).In<int32_t>({2}, {3, 4}).Attr("T", TF_INT32)
      .Attr("N", 2).Attr("axis", 2));
}

TEST(JoinOpsTest, ConcatWithEmptyPiecesAndBothForms) {
  // [[1, 2], [3, 4]] ++ [2, 0] ++ [[5], [6]] along the last axis.
  ExpectOutput<float>(OneOp("ConcatV2").In<float>({2, 2}, {1, 2, 3, 4}).In<float>({2, 0}, {})
      .In<float>({2, 1}, {5, 6}).In<int64_t>({}, {-1}).Attr("T", TF_FLOAT).Attr("N", 3)
      .Attr("Tidx", TF_INT64), {2, 3}, (std::vector<float>{1, 2, 5, 3, 4, 6}));

  ExpectOutput<bool>(OneOp("Concat").In<int32_t>({}, {0}).In<bool>({1, 2}, {true, false})
      .In<bool>({2, 2}, {false, true, true, true}).Attr("T", TF_BOOL)
      .Attr("N", 2), {3, 2}, (std::vector<bool>{true, false, false, true, true, true}));

  struct Bad { Dims b; int32_t axis; };
  for (const Bad& bad : {Bad{{3, 1}, 1}, Bad{{2, 1}, -3}, Bad{{2}, 0}})
    ExpectRunError(OneOp("ConcatV2").In<float>({2, 2}, {1, 2, 3, 4})
        .In<float>(bad.b, std::vector<float>(Count(bad.b))).In<int32_t>({}, {bad.axis})
        .Attr("T", TF_FLOAT).Attr("N", 2));
}

TEST(JoinOpsTest, UnpackSplitAndSplitV) {
  GraphBuilder g;
  g.Const<int32_t>("x", {2, 3}, {1, 2, 3, 4, 5, 6});
  g.Node("Unpack", "unpack").Input("x").Attr("T", TF_INT32).Attr("num", 3).Attr("axis", 1);
  g.Const<int32_t>("dim", {}, {1});
  g.Node("Split", "split").Input("dim").Input("x").Attr("T", TF_INT32).Attr("num_split", 3);
  g.Const<int32_t>("sizes", {2}, {-1, 2});
  g.Node("SplitV", "splitv").Input("x").Input("sizes").Input("dim").Attr("T", TF_INT32)
      .Attr("num_split", 2).Attr("Tlen", TF_INT32);

  auto unpacked = FetchAll(g, "unpack", 3);
  ASSERT_EQ(unpacked.size(), 3u);
  EXPECT_EQ(testing_support::DimsOf(unpacked[1].get()), (Dims{2}));
  EXPECT_EQ(Values<int32_t>(unpacked[0].get()), (std::vector<int32_t>{1, 4}));
  EXPECT_EQ(Values<int32_t>(unpacked[1].get()), (std::vector<int32_t>{2, 5}));
  EXPECT_EQ(Values<int32_t>(unpacked[2].get()), (std::vector<int32_t>{3, 6}));

  auto split = FetchAll(g, "split", 3);
  ASSERT_EQ(split.size(), 3u);
  EXPECT_EQ(testing_support::DimsOf(split[2].get()), (Dims{2, 1}));
  EXPECT_EQ(Values<int32_t>(split[2].get()), (std::vector<int32_t>{3, 6}));

  auto splitv = FetchAll(g, "splitv", 2);
  ASSERT_EQ(splitv.size(), 2u);
  EXPECT_EQ(Values<int32_t>(splitv[0].get()), (std::vector<int32_t>{1, 4}));
  EXPECT_EQ(testing_support::DimsOf(splitv[1].get()), (Dims{2, 2}));
  EXPECT_EQ(Values<int32_t>(splitv[1].get()), (std::vector<int32_t>{2, 3, 5, 6}));

  ExpectRunError(OneOp("Split").In<int32_t>({}, {1}).In<float>({2, 3}, {1, 2, 3, 4, 5, 6})
      .Attr("T", TF_FLOAT).Attr("num_split", 2));
  for (const std::vector<int64_t>& sizes : {std::vector<int64_t>{1, 1}, {-1, -1}, {-2, 5}})
    ExpectRunError(OneOp("SplitV").In<float>({3}, {1, 2, 3}).In<int64_t>({2}, sizes)
        .In<int32_t>({}, {0}).Attr("T", TF_FLOAT).Attr("num_split", 2));
  ExpectRunError(OneOp("Unpack").In<float>({2, 3}, {1, 2, 3, 4, 5, 6}).Attr("T", TF_FLOAT)
      .Attr("num", 3));
}

TEST(TransposeTest, PermutesAndRejectsBadPermutations) {
  // out[i, j, k] = x[j, k, i] = 12 j + 4 k + i.
  ExpectOutput<int32_t>(
      OneOp("Transpose").In<int32_t>({2, 3, 4}, Iota(24)).In<int32_t>({3}, {2, 0, 1})
          .Attr("T", TF_INT32), {4, 2, 3},
      {0, 4, 8, 12, 16, 20, 1, 5, 9, 13, 17, 21, 2, 6, 10, 14, 18, 22, 3, 7, 11, 15, 19, 23});

  EXPECT_EQ(RunOk<uint8_t>(OneOp("Transpose").In<uint8_t>({2, 3}, {1, 2, 3, 4, 5, 6})
      .In<int64_t>({2}, {1, 0}).Attr("T", TF_UINT8)
      .Attr("Tperm", TF_INT64)), (std::vector<uint8_t>{1, 4, 2, 5, 3, 6}));


  for (const std::vector<int32_t>& perm : {std::vector<int32_t>{0, 0, 1}, {0, 1, 3}, {1, 0}})
    ExpectRunError(OneOp("Transpose").In<int32_t>({2, 3, 4}, Iota(24))
        .In<int32_t>({static_cast<int64_t>(perm.size())}, perm).Attr("T", TF_INT32));
}

TEST(FillOpsTest, FillZerosOnesLike) {
  ExpectOutput<int64_t>(OneOp("Fill").In<int32_t>({2}, {2, 3}).In<int64_t>({}, {-7})
      .Attr("T", TF_INT64), {2, 3}, std::vector<int64_t>(6, -7));

  EXPECT_EQ(RunOk<double>(OneOp("ZerosLike").In<double>({3}, {1.5, -2, 3})
      .Attr("T", TF_DOUBLE)), (std::vector<double>{0, 0, 0}));
  EXPECT_EQ(RunOk<float>(OneOp("OnesLike").In<float>({2, 1}, {5, 6})
      .Attr("T", TF_FLOAT)), (std::vector<float>{1, 1}));
  EXPECT_EQ(RunOk<bool>(OneOp("OnesLike").In<bool>({2}, {false, false})
      .Attr("T", TF_BOOL)), (std::vector<bool>{true, true}));

  ExpectRunError(OneOp("Fill").In<int32_t>({2}, {2, -1}).In<float>({}, {1}).Attr("T", TF_FLOAT));
  ExpectRunError(OneOp("Fill").In<int64_t>({2}, {int64_t{1} << 40, int64_t{1} << 40})
      .In<float>({}, {1}).Attr("T", TF_FLOAT).Attr("index_type", TF_INT64));
}

TEST(FillOpsTest, RangeSizesAndLimits) {
  auto range = [](auto start, auto limit, auto delta) {
    using T = decltype(start);
    auto op = std::make_unique<OneOp>("Range");
    op->template In<T>({}, {start}).template In<T>({}, {limit}).template In<T>({}, {delta})
        .Attr("Tidx", testing_support::DTypeOf<T>());
    return op;
  };
  struct IntCase { int32_t start, limit, delta; std::vector<int32_t> expected; };
  for (const IntCase& c : {IntCase{3, 18, 5, {3, 8, 13}}, IntCase{5, 1, -2, {5, 3}},
                           IntCase{2, 2, 1, {}}, IntCase{0, 3, 1, {0, 1, 2}}}) {
    auto op = range(c.start, c.limit, c.delta);
    ASSERT_EQ(op->Run(), TF_OK) << op->error();
    EXPECT_EQ(op->Output<int32_t>(), c.expected) << c.start << ":" << c.limit << ":" << c.delta;
  }
  auto quarters = range(0.0f, 1.0f, 0.25f);
  ASSERT_EQ(quarters->Run(), TF_OK) << quarters->error();
  EXPECT_EQ(quarters->Output<float>(), (std::vector<float>{0, 0.25f, 0.5f, 0.75f}));
  // The float quotient 0.3f / 0.1f rounds to 3, so there is no fourth element.
  auto tenths = range(0.0f, 0.3f, 0.1f);
  ASSERT_EQ(tenths->Run(), TF_OK) << tenths->error();
  EXPECT_EQ(tenths->OutputDims(), (Dims{3}));
  // int64 extremes: the span overflows int64 but not the count.
  const int64_t lo = std::numeric_limits<int64_t>::min(), hi = std::numeric_limits<int64_t>::max();
  auto extreme = range(lo, hi, hi);
  ASSERT_EQ(extreme->Run(), TF_OK) << extreme->error();
  EXPECT_EQ(extreme->Output<int64_t>(), (std::vector<int64_t>{lo, -1, hi - 1}));

  ExpectRunError(*range(0, 5, 0));
  ExpectRunError(*range(0.0, 1.0, -0.5));
  ExpectRunError(*range(int64_t{0}, hi, int64_t{1}));
  ExpectRunError(*range(0.0f, std::numeric_limits<float>::infinity(), 1.0f));
}

TEST(FillOpsTest, TileRepeatsEachDim) {
  for (const auto& [multiples, dims, values] :
       std::vector<std::tuple<std::vector<int32_t>, Dims, std::vector<int32_t>>>{
           {{2, 1}, {4, 2}, {1, 2, 3, 4, 1, 2, 3, 4}},
           {{1, 3}, {2, 6}, {1, 2, 1, 2, 1, 2, 3, 4, 3, 4, 3, 4}},
           {{2, 2}, {4, 4}, {1, 2, 1, 2, 3, 4, 3, 4, 1, 2, 1, 2, 3, 4, 3, 4}},
           {{0, 2}, {0, 4}, {}}}) {
    OneOp op("Tile");
    op.In<int32_t>({2, 2}, {1, 2, 3, 4}).In<int32_t>({2}, multiples).Attr("T", TF_INT32);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), dims);
    EXPECT_EQ(op.Output<int32_t>(), values);
  }
  for (const std::vector<int64_t>& bad :
       {std::vector<int64_t>{2}, {1, -1}, {int64_t{1} << 40, int64_t{1} << 40}}) {
    ExpectRunError(OneOp("Tile").In<float>({2, 2}, {1, 2, 3, 4})
        .In<int64_t>({static_cast<int64_t>(bad.size())}, bad).Attr("T", TF_FLOAT)
        .Attr("Tmultiples", TF_INT64));
  }
}

TEST(PadOpsTest, ConstantAndMirrorPadding) {
  // [[1, 2], [3, 4]] with one row before and two columns after.
  ExpectOutput<float>(OneOp("Pad").In<float>({2, 2}, {1, 2, 3, 4}).In<int32_t>({2, 2}, {1, 0, 0, 2})
      .Attr("T", TF_FLOAT), {3, 4}, (std::vector<float>{0, 0, 0, 0, 1, 2, 0, 0, 3, 4, 0, 0}));
  EXPECT_EQ(RunOk<int32_t>(OneOp("PadV2").In<int32_t>({2}, {1, 2}).In<int64_t>({1, 2}, {2, 1})
      .In<int32_t>({}, {9}).Attr("T", TF_INT32)
      .Attr("Tpaddings", TF_INT64)), (std::vector<int32_t>{9, 9, 1, 2, 9}));

  // Float MirrorPad is in the TF.js goldens; here an integer type padded by
  // the whole dimension, which only SYMMETRIC allows.
  ExpectOutput<int32_t>(OneOp("MirrorPad").In<int32_t>({3}, {1, 2, 3}).In<int32_t>({1, 2}, {3, 0})
      .Attr("T", TF_INT32).Attr("mode", "SYMMETRIC"), {6},
      (std::vector<int32_t>{3, 2, 1, 1, 2, 3}));

  ExpectRunError(OneOp("MirrorPad").In<float>({3}, {1, 2, 3}).In<int32_t>({1, 2}, {3, 0})
      .Attr("T", TF_FLOAT).Attr("mode", "REFLECT"));
  ExpectRunError(OneOp("Pad").In<float>({3}, {1, 2, 3}).In<int32_t>({1, 2}, {-1, 0})
      .Attr("T", TF_FLOAT));
  ExpectRunError(OneOp("Pad").In<float>({3}, {1, 2, 3}).In<int32_t>({2, 2}, {0, 0, 0, 0})
      .Attr("T", TF_FLOAT));
}

TEST(GatherOpsTest, GatherV2AxesBatchDimsAndBadIndices) {
  // params [[1, 2], [3, 4], [5, 6]].
  const std::vector<float> p{1, 2, 3, 4, 5, 6};
  ExpectOutput<float>(OneOp("GatherV2").In<float>({3, 2}, p).In<int32_t>({2}, {2, 0})
      .In<int32_t>({}, {0}).Attr("Tparams", TF_FLOAT).Attr("Tindices", TF_INT32)
      .Attr("Taxis", TF_INT32), {2, 2}, (std::vector<float>{5, 6, 1, 2}));

  // Indices of shape [2, 1] along the last axis: out[r, i, 0] = p[r, idx[i]].
  ExpectOutput<float>(OneOp("GatherV2").In<float>({3, 2}, p).In<int64_t>({2, 1}, {1, 0})
      .In<int64_t>({}, {-1}).Attr("Tparams", TF_FLOAT).Attr("Tindices", TF_INT64)
      .Attr("Taxis", TF_INT64), {3, 2, 1}, (std::vector<float>{2, 1, 4, 3, 6, 5}));

  // batch_dims 1: out[b, k] = params[b, idx[b, k]].
  ExpectOutput<int32_t>(OneOp("GatherV2").In<int32_t>({2, 3}, {1, 2, 3, 4, 5, 6})
      .In<int32_t>({2, 2}, {2, 0, 1, 1}).In<int32_t>({}, {1}).Attr("Tparams", TF_INT32)
      .Attr("Tindices", TF_INT32).Attr("Taxis", TF_INT32)
      .Attr("batch_dims", 1), {2, 2}, (std::vector<int32_t>{3, 1, 5, 5}));

  ExpectOutput<uint8_t>(OneOp("Gather").In<uint8_t>({4}, {10, 20, 30, 40})
      .In<int32_t>({2, 2}, {3, 3, 0, 1}).Attr("Tparams", TF_UINT8)
      .Attr("Tindices", TF_INT32), {2, 2}, (std::vector<uint8_t>{40, 40, 10, 20}));

  struct Bad { std::vector<int32_t> indices; int32_t axis; int batch_dims; };
  for (const Bad& bad : {Bad{{3}, 0, 0}, Bad{{-1}, 0, 0}, Bad{{0}, 2, 0}, Bad{{0}, 0, 2}})
    ExpectRunError(OneOp("GatherV2").In<float>({3, 2}, p).In<int32_t>({1}, bad.indices)
        .In<int32_t>({}, {bad.axis}).Attr("Tparams", TF_FLOAT).Attr("Tindices", TF_INT32)
        .Attr("Taxis", TF_INT32).Attr("batch_dims", bad.batch_dims));
}

TEST(GatherOpsTest, GatherNdPointsAndSlices) {
  // params [[1, 2], [3, 4]].
  ExpectOutput<int32_t>(OneOp("GatherNd").In<int32_t>({2, 2}, {1, 2, 3, 4})
      .In<int32_t>({2, 2}, {1, 0, 0, 1}).Attr("Tparams", TF_INT32)
      .Attr("Tindices", TF_INT32), {2}, (std::vector<int32_t>{3, 2}));
  ExpectOutput<int32_t>(OneOp("GatherNd").In<int32_t>({2, 2}, {1, 2, 3, 4}).In<int64_t>({1, 1}, {1})
      .Attr("Tparams", TF_INT32).Attr("Tindices", TF_INT64), {1, 2}, (std::vector<int32_t>{3, 4}));

  ExpectRunError(OneOp("GatherNd").In<int32_t>({2, 2}, {1, 2, 3, 4}).In<int32_t>({1, 2}, {0, 2})
      .Attr("Tparams", TF_INT32).Attr("Tindices", TF_INT32));
  ExpectRunError(OneOp("GatherNd").In<int32_t>({2, 2}, {1, 2, 3, 4}).In<int32_t>({1, 3}, {0, 0, 0})
      .Attr("Tparams", TF_INT32).Attr("Tindices", TF_INT32));
}

TEST(WhereOpsTest, CoordinatesOfTrueElements) {
  OneOp b("Where");
  b.In<bool>({2, 3}, {true, false, true, false, false, true}).Attr("T", TF_BOOL);
  ASSERT_EQ(b.Run(), TF_OK) << b.error();
  EXPECT_EQ(b.OutputType(), TF_INT64);
  EXPECT_EQ(b.OutputDims(), (Dims{3, 2}));
  EXPECT_EQ(b.Output<int64_t>(), (std::vector<int64_t>{0, 0, 0, 2, 1, 2}));
  // Numbers: non-zero is true (NaN too, -0 is not), any rank.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(RunOk<int64_t>(OneOp("Where").In<float>({2, 2, 2}, {0, -0.f, 1, 0, nan, 0, 0, -2})
      .Attr("T", TF_FLOAT)), (std::vector<int64_t>{0, 1, 0, 1, 0, 0, 1, 1, 1}));
  EXPECT_EQ(RunDims(OneOp("Where").In<int8_t>({}, {3}).Attr("T", TF_INT8)), (Dims{1, 0}));
  EXPECT_EQ(RunDims(OneOp("Where").In<bool>({0, 4}, {}).Attr("T", TF_BOOL)), (Dims{0, 2}));
}

TEST(ReverseBroadcastOpsTest, ReverseAndBroadcastTo) {
  // [2, 2, 2] holding 0..7 reversed along the middle axis, along the first
  // and last, and along an axis named twice.
  const std::vector<int16_t> x = {0, 1, 2, 3, 4, 5, 6, 7};
  using Case = std::pair<std::vector<int32_t>, std::vector<int16_t>>;
  for (const auto& [axes, want] : {Case{{1}, {2, 3, 0, 1, 6, 7, 4, 5}},
                                   Case{{0, -1}, {5, 4, 7, 6, 1, 0, 3, 2}}, Case{{1, -2}, {}}}) {
    OneOp op("ReverseV2");
    op.In<int16_t>({2, 2, 2}, x).In<int32_t>({static_cast<int64_t>(axes.size())}, axes)
        .Attr("T", TF_INT16).Attr("Tidx", TF_INT32);
    if (want.empty()) {
      ExpectRunError(op);
    } else {
      ASSERT_EQ(op.Run(), TF_OK) << op.error();
      EXPECT_EQ(op.Output<int16_t>(), want);
    }
  }

  OneOp bt("BroadcastTo");
  bt.In<float>({3, 1}, {1, 2, 3}).In<int64_t>({3}, {2, 3, 4}).Attr("T", TF_FLOAT)
      .Attr("Tidx", TF_INT64);
  ASSERT_EQ(bt.Run(), TF_OK) << bt.error();
  EXPECT_EQ(bt.OutputDims(), (Dims{2, 3, 4}));
  const auto b = bt.Output<float>();
  ASSERT_EQ(b.size(), 24u);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(b[i], 1 + (i / 4) % 3) << i;
  ExpectRunError(OneOp("BroadcastTo").In<float>({3}, {1, 2, 3}).In<int32_t>({2}, {2, 4})
      .Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32));

  EXPECT_EQ(RunOk<int32_t>(OneOp("BroadcastArgs").In<int32_t>({3}, {5, 1, 3})
      .In<int32_t>({2}, {4, 1}).Attr("T", TF_INT32)), (std::vector<int32_t>{5, 4, 3}));
  ExpectRunError(OneOp("BroadcastArgs").In<int64_t>({1}, {2}).In<int64_t>({1}, {3})
      .Attr("T", TF_INT64));
}

TEST(UniqueOpsTest, ValuesInFirstAppearanceOrderAndIndices) {
  {
    GraphBuilder g;
    g.Const<float>("x", {7}, {3, 1, 3, -0.f, 0, std::nanf(""), 1});
    g.Node("Unique", "u").Input("x").Attr("T", TF_FLOAT).Attr("out_idx", TF_INT64);
    TestSession s(g.Serialize());
    ASSERT_EQ(s.code(), TF_OK) << s.message();
    std::vector<TensorPtr> out;
    ASSERT_EQ(s.Run({}, {"u:0", "u:1"}, &out), TF_OK) << s.last_error();
    const auto y = Values<float>(out[0].get());
    ASSERT_EQ(y.size(), 4u);  // 3, 1, 0 (== -0), NaN
    EXPECT_EQ(y[0], 3);
    EXPECT_EQ(y[1], 1);
    EXPECT_EQ(y[2], 0);
    EXPECT_TRUE(std::isnan(y[3]));
    EXPECT_EQ(Values<int64_t>(out[1].get()), (std::vector<int64_t>{0, 1, 0, 2, 2, 3, 1}));
  }
  ExpectRunError(OneOp("Unique").In<int32_t>({2, 2}, {1, 2, 3, 4}).Attr("T", TF_INT32)
      .Attr("out_idx", TF_INT32));
}

// The float path with every padding runs in the real frozen graphs' dilated
// convolutions; here the block order with padding, and the inverse.
TEST(SpaceToBatchOpsTest, BlocksWithPaddingAndTheInverse) {
  // [1, 2, 3, 1] padded by one column on the left, 2x2 blocks: [4, 1, 2, 1].
  const std::vector<int8_t> x = {1, 2, 3, 4, 5, 6};
  const std::vector<int8_t> y = {0, 2, 1, 3, 0, 5, 4, 6};
  ExpectOutput<int8_t>(OneOp("SpaceToBatchND").In<int8_t>({1, 2, 3, 1}, x)
      .In<int32_t>({2}, {2, 2}).In<int64_t>({2, 2}, {0, 0, 1, 0}).Attr("T", TF_INT8)
      .Attr("Tpaddings", TF_INT64), {4, 1, 2, 1}, y);
  ExpectOutput<int8_t>(OneOp("BatchToSpaceND").In<int8_t>({4, 1, 2, 1}, y)
      .In<int64_t>({2}, {2, 2}).In<int32_t>({2, 2}, {0, 0, 1, 0}).Attr("T", TF_INT8)
      .Attr("Tblock_shape", TF_INT64), {1, 2, 3, 1}, x);
}

TEST(SpaceToBatchOpsTest, RejectsBadBlocksPaddingsAndCrops) {
  auto s2b = [](const Dims& in, std::vector<int32_t> block, std::vector<int32_t> pads) {
    int64_t n = 1;
    for (int64_t d : in) n *= d;
    ExpectRunError(OneOp("SpaceToBatchND").In<float>(in, std::vector<float>(n, 1))
        .In<int32_t>({(int64_t)block.size()}, block)
        .In<int32_t>({(int64_t)pads.size() / 2, 2}, pads).Attr("T", TF_FLOAT));
  };
  s2b({1, 5, 4, 1}, {2, 2}, {0, 0, 0, 0});   // 5 rows do not divide by 2
  s2b({1, 4, 4, 1}, {2, 2}, {-2, 0, 0, 0});  // negative padding
  s2b({1, 4}, {2, 2}, {0, 0, 0, 0});         // more block dims than spatial dims
  OneOp shape("SpaceToBatchND");
  shape.In<float>({1, 4, 4, 1}, std::vector<float>(16, 1)).In<int32_t>({2}, {2, 2})
      .In<int32_t>({4}, {0, 0, 0, 0}).Attr("T", TF_FLOAT);
  ExpectRunError(shape);  // paddings not [M, 2]
  auto b2s = [](const Dims& in, std::vector<int32_t> block, std::vector<int32_t> crops) {
    int64_t n = 1;
    for (int64_t d : in) n *= d;
    ExpectRunError(OneOp("BatchToSpaceND").In<float>(in, std::vector<float>(n, 1))
        .In<int32_t>({(int64_t)block.size()}, block)
        .In<int32_t>({(int64_t)crops.size() / 2, 2}, crops).Attr("T", TF_FLOAT));
  };
  b2s({3, 2, 2, 1}, {2, 1}, {0, 0, 0, 0});   // batch 3 does not divide by 2
  b2s({4, 2, 2, 1}, {2, 2}, {3, 2, 0, 0});   // crops larger than the block-scaled size
}

}  // namespace
