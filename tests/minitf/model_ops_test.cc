// Ops that published detector and segmentation graphs add to the core set:
// AddN, Conv2DBackpropInput, DepthToSpace / SpaceToDepth, TopKV2 / TopK and
// SparseToDense. Hand-computed results and the checks that keep malformed
// inputs from reading or writing out of bounds.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "one_op.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectNear;
using testing_support::ExpectRunError;
using testing_support::GraphBuilder;
using testing_support::OneOp;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;
using F = std::vector<float>;
using I = std::vector<int32_t>;
using L = std::vector<int64_t>;

// ------------------------------------------------------------------ AddN

TEST(AddNOpTest, SumsInOrderAndWrapsIntegers) {
  OneOp op("AddN");
  op.In<float>({3}, {1, 2, 3}).In<float>({3}, {10, 20, 30}).In<float>({3}, {-1, 0.5f, 100})
      .Attr("N", 3).Attr("T", TF_FLOAT);
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.Output<float>(), (F{10, 22.5f, 133}));

  OneOp ints("AddN");
  ints.In<int32_t>({2}, {std::numeric_limits<int32_t>::max(), 1}).In<int32_t>({2}, {1, 1})
      .Attr("N", 2).Attr("T", TF_INT32);
  ASSERT_EQ(ints.Run(), TF_OK) << ints.error();
  EXPECT_EQ(ints.Output<int32_t>(), (I{std::numeric_limits<int32_t>::min(), 2}));

  OneOp single("AddN");
  single.In<float>({2, 1}, {4, -4}).Attr("N", 1).Attr("T", TF_FLOAT);
  ASSERT_EQ(single.Run(), TF_OK) << single.error();
  EXPECT_EQ(single.OutputDims(), (Dims{2, 1}));
  EXPECT_EQ(single.Output<float>(), (F{4, -4}));
}

TEST(AddNOpTest, RefusesBroadcasting) {
  OneOp op("AddN");
  op.In<float>({2, 2}, {1, 2, 3, 4}).In<float>({2}, {1, 2}).Attr("N", 2).Attr("T", TF_FLOAT);
  ExpectRunError(op);
}

// -------------------------------------------------------- Conv2DBackpropInput

OneOp& Transposed(OneOp& op, const L& strides, const char* padding) {
  return op.Attr("T", TF_FLOAT).Attr("strides", strides).Attr("padding", padding);
}

TEST(ConvTransposeOpTest, StrideTwoScattersEachGradientOverItsWindow) {
  // A 2x2 stride-2 VALID window tiles a 4x4 input exactly: every input pixel
  // receives dy of its window times the filter tap that touched it.
  OneOp op("Conv2DBackpropInput");
  op.In<int32_t>({4}, {1, 4, 4, 1}).In<float>({2, 2, 1, 1}, {1, 2, 3, 4})
      .In<float>({1, 2, 2, 1}, {1, 2, 3, 4});
  Transposed(op, {1, 2, 2, 1}, "VALID");
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.OutputDims(), (Dims{1, 4, 4, 1}));
  EXPECT_EQ(op.Output<float>(), (F{1, 2, 2, 4, 3, 4, 6, 8, 3, 6, 4, 8, 9, 12, 12, 16}));

  // A 3x3 input: the last row and column were never read by the forward
  // convolution and get zero.
  OneOp edge("Conv2DBackpropInput");
  edge.In<int32_t>({4}, {1, 3, 3, 1}).In<float>({2, 2, 1, 1}, {1, 2, 3, 4})
      .In<float>({1, 1, 1, 1}, {5});
  Transposed(edge, {1, 2, 2, 1}, "VALID");
  ASSERT_EQ(edge.Run(), TF_OK) << edge.error();
  EXPECT_EQ(edge.Output<float>(), (F{5, 10, 0, 15, 20, 0, 0, 0, 0}));
}

TEST(ConvTransposeOpTest, SamePaddingAndChannels) {
  // 3x3 filter 1..9, stride 1, SAME: one pad on each side. With dy all ones
  // each pixel sums the taps whose output lies inside the image.
  OneOp op("Conv2DBackpropInput");
  op.In<int32_t>({4}, {1, 3, 3, 1}).In<float>({3, 3, 1, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9})
      .In<float>({1, 3, 3, 1}, F(9, 1.0f));
  Transposed(op, {1, 1, 1, 1}, "SAME");
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  const F out = op.Output<float>();
  EXPECT_EQ(out[0], 1 + 2 + 4 + 5);  // top-left: taps (0..1, 0..1)
  EXPECT_EQ(out[4], 45);             // centre: all nine
  EXPECT_EQ(out[8], 5 + 6 + 8 + 9);  // bottom-right: taps (1..2, 1..2)
  EXPECT_EQ(out[1], 1 + 2 + 3 + 4 + 5 + 6);

  // 1x1 filter from 2 input channels to 3 output channels: each result
  // channel is a dot product with its filter row.
  OneOp ch("Conv2DBackpropInput");
  ch.In<int32_t>({4}, {1, 1, 1, 2}).In<float>({1, 1, 2, 3}, {1, 2, 3, 4, 5, 6})
      .In<float>({1, 1, 1, 3}, {1, 10, 100});
  Transposed(ch, {1, 1, 1, 1}, "VALID");
  ASSERT_EQ(ch.Run(), TF_OK) << ch.error();
  EXPECT_EQ(ch.Output<float>(), (F{321, 654}));
}

TEST(ConvTransposeOpTest, RejectsInconsistentShapes) {
  {  // a 4x4 input gives a 2x2 gradient, not 3x3
    OneOp op("Conv2DBackpropInput");
    op.In<int32_t>({4}, {1, 4, 4, 1}).In<float>({2, 2, 1, 1}, F(4, 1))
        .In<float>({1, 3, 3, 1}, F(9, 1));
    Transposed(op, {1, 2, 2, 1}, "VALID");
    ExpectRunError(op);
  }
  {  // filter depth 2 against an input of depth 1
    OneOp op("Conv2DBackpropInput");
    op.In<int32_t>({4}, {1, 2, 2, 1}).In<float>({1, 1, 2, 1}, F(2, 1))
        .In<float>({1, 2, 2, 1}, F(4, 1));
    Transposed(op, {1, 1, 1, 1}, "VALID");
    ExpectRunError(op);
  }
  {  // input_sizes of the wrong length
    OneOp op("Conv2DBackpropInput");
    op.In<int32_t>({3}, {1, 2, 2}).In<float>({1, 1, 1, 1}, F(1, 1))
        .In<float>({1, 2, 2, 1}, F(4, 1));
    Transposed(op, {1, 1, 1, 1}, "VALID");
    ExpectRunError(op);
  }
  {  // negative sizes
    OneOp op("Conv2DBackpropInput");
    op.In<int32_t>({4}, {1, -2, 2, 1}).In<float>({1, 1, 1, 1}, F(1, 1))
        .In<float>({1, 2, 2, 1}, F(4, 1));
    Transposed(op, {1, 1, 1, 1}, "VALID");
    ExpectRunError(op);
  }
}

// ---------------------------------------------------- DepthToSpace and back

// [1, 1, 2, 8] holding 0..15, rearranged by block 2 into [1, 2, 4, 2].
const F kDepth = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
const F kSpace = {0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15};

TEST(DepthToSpaceOpTest, MovesDepthBlocksIntoPixelsAndBack) {
  OneOp d2s("DepthToSpace");
  d2s.In<float>({1, 1, 2, 8}, kDepth).Attr("T", TF_FLOAT).Attr("block_size", 2);
  ASSERT_EQ(d2s.Run(), TF_OK) << d2s.error();
  EXPECT_EQ(d2s.OutputDims(), (Dims{1, 2, 4, 2}));
  EXPECT_EQ(d2s.Output<float>(), kSpace);

  OneOp s2d("SpaceToDepth");
  s2d.In<float>({1, 2, 4, 2}, kSpace).Attr("T", TF_FLOAT).Attr("block_size", 2);
  ASSERT_EQ(s2d.Run(), TF_OK) << s2d.error();
  EXPECT_EQ(s2d.OutputDims(), (Dims{1, 1, 2, 8}));
  EXPECT_EQ(s2d.Output<float>(), kDepth);

  // Element size does not matter: the same order for bytes.
  OneOp bytes("DepthToSpace");
  std::vector<uint8_t> in(kDepth.begin(), kDepth.end());
  bytes.In<uint8_t>({1, 1, 2, 8}, in).Attr("T", TF_UINT8).Attr("block_size", 2);
  ASSERT_EQ(bytes.Run(), TF_OK) << bytes.error();
  EXPECT_EQ(bytes.Output<uint8_t>(), std::vector<uint8_t>(kSpace.begin(), kSpace.end()));
}

TEST(DepthToSpaceOpTest, RejectsShapesTheBlockDoesNotDivide) {
  OneOp depth("DepthToSpace");
  depth.In<float>({1, 1, 1, 6}, F(6, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2);
  ExpectRunError(depth);
  OneOp rank("DepthToSpace");
  rank.In<float>({1, 2, 4}, F(8, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2);
  ExpectRunError(rank);
  OneOp space("SpaceToDepth");
  space.In<float>({1, 3, 2, 1}, F(6, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2);
  ExpectRunError(space);
  OneOp format("DepthToSpace");
  format.In<float>({1, 4, 1, 1}, F(4, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2)
      .Attr("data_format", "NCHW");
  EXPECT_NE(format.Run(), TF_OK);
}

// ------------------------------------------------------------------- TopK

struct TopKResult {
  TF_Code code;
  std::string error;
  Dims dims;
  TensorPtr values, indices;
};

template <typename T>
TopKResult RunTopK(const Dims& dims, const std::vector<T>& x, int32_t k,
                   TF_DataType index_type = TF_INT32) {
  GraphBuilder g;
  g.Const<T>("x", dims, x);
  g.Const<int32_t>("k", {}, {k});
  g.Node("TopKV2", "top").Input("x").Input("k").Attr("T", testing_support::DTypeOf<T>())
      .Attr("index_type", index_type);
  TestSession s(g.Serialize());
  TopKResult r{s.code(), s.message(), {}, nullptr, nullptr};
  if (r.code != TF_OK) return r;
  std::vector<TensorPtr> out;
  r.code = s.Run({}, {"top:0", "top:1"}, &out);
  r.error = s.last_error();
  if (r.code == TF_OK) {
    r.dims = testing_support::DimsOf(out[0].get());
    r.values = std::move(out[0]);
    r.indices = std::move(out[1]);
  }
  return r;
}

TEST(TopKOpTest, LargestFirstAndLowerIndexFirstAmongTies) {
  const F x = {3, 1, 3, 0.5f, -2, 3, 1, 7, -1, 0, 2, 2, 2, 5};
  TopKResult r = RunTopK<float>({2, 7}, x, 3);
  ASSERT_EQ(r.code, TF_OK) << r.error;
  EXPECT_EQ(r.dims, (Dims{2, 3}));
  EXPECT_EQ(Values<float>(r.values.get()), (F{3, 3, 3, 7, 5, 2}));
  EXPECT_EQ(Values<int32_t>(r.indices.get()), (I{0, 2, 5, 0, 6, 3}));

  TopKResult one = RunTopK<float>({2, 7}, x, 1);
  ASSERT_EQ(one.code, TF_OK) << one.error;
  EXPECT_EQ(Values<int32_t>(one.indices.get()), (I{0, 0}));

  TopKResult ints = RunTopK<int32_t>({5}, {4, -9, 4, 12, 0}, 5, TF_INT64);
  ASSERT_EQ(ints.code, TF_OK) << ints.error;
  EXPECT_EQ(Values<int32_t>(ints.values.get()), (I{12, 4, 4, 0, -9}));
  EXPECT_EQ(Values<int64_t>(ints.indices.get()), (L{3, 0, 2, 4, 1}));
}

TEST(TopKOpTest, NanRanksFirstAndKZeroIsEmpty) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  TopKResult r = RunTopK<float>({4}, {1, nan, 2, -1}, 2);
  ASSERT_EQ(r.code, TF_OK) << r.error;
  const F v = Values<float>(r.values.get());
  EXPECT_TRUE(std::isnan(v[0]));
  EXPECT_EQ(v[1], 2);
  EXPECT_EQ(Values<int32_t>(r.indices.get()), (I{1, 2}));

  TopKResult zero = RunTopK<float>({2, 3}, F(6, 1), 0);
  ASSERT_EQ(zero.code, TF_OK) << zero.error;
  EXPECT_EQ(zero.dims, (Dims{2, 0}));
}

TEST(TopKOpTest, RejectsKOutsideTheRow) {
  TopKResult big = RunTopK<float>({2, 3}, F(6, 1), 4);
  EXPECT_EQ(big.code, TF_INVALID_ARGUMENT);
  EXPECT_NE(big.error.find("top"), std::string::npos) << big.error;
  EXPECT_EQ(RunTopK<float>({3}, F(3, 1), -1).code, TF_INVALID_ARGUMENT);
  EXPECT_EQ(RunTopK<float>({}, F(1, 1), 1).code, TF_INVALID_ARGUMENT);  // scalar input
}

// ------------------------------------------------------------ SparseToDense

TEST(SparseToDenseOpTest, ScattersOntoTheDefault) {
  OneOp op("SparseToDense");
  op.In<int32_t>({3, 2}, {0, 1, 1, 3, 2, 0}).In<int32_t>({2}, {3, 4})
      .In<float>({3}, {5, -1, 2.5f}).In<float>({}, {0.25f})
      .Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.OutputDims(), (Dims{3, 4}));
  EXPECT_EQ(op.Output<float>(),
            (F{0.25f, 5, 0.25f, 0.25f, 0.25f, 0.25f, 0.25f, -1, 2.5f, 0.25f, 0.25f, 0.25f}));

  // 1-D indices, one scalar value for all, int64 coordinates.
  OneOp flat("SparseToDense");
  flat.In<int64_t>({2}, {1, 4}).In<int64_t>({1}, {5}).In<int32_t>({}, {7})
      .In<int32_t>({}, {-1}).Attr("T", TF_INT32).Attr("Tindices", TF_INT64);
  ASSERT_EQ(flat.Run(), TF_OK) << flat.error();
  EXPECT_EQ(flat.Output<int32_t>(), (I{-1, 7, -1, -1, 7}));
}

TEST(SparseToDenseOpTest, OrderIsCheckedOnlyWhenAsked) {
  OneOp unordered("SparseToDense");
  unordered.In<int32_t>({2}, {3, 0}).In<int32_t>({1}, {4}).In<float>({2}, {1, 2})
      .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
  ExpectRunError(unordered);

  OneOp repeated("SparseToDense");
  repeated.In<int32_t>({2}, {1, 1}).In<int32_t>({1}, {4}).In<float>({2}, {1, 2})
      .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
  ExpectRunError(repeated);

  OneOp relaxed("SparseToDense");
  relaxed.In<int32_t>({3}, {3, 0, 3}).In<int32_t>({1}, {4}).In<float>({3}, {1, 2, 3})
      .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32)
      .Attr("validate_indices", false);
  ASSERT_EQ(relaxed.Run(), TF_OK) << relaxed.error();
  EXPECT_EQ(relaxed.Output<float>(), (F{2, 0, 0, 3}));  // the later write wins
}

TEST(SparseToDenseOpTest, RejectsOutOfRangeAndMismatchedInputs) {
  {  // a coordinate past the end, even without validation
    OneOp op("SparseToDense");
    op.In<int32_t>({1, 2}, {0, 4}).In<int32_t>({2}, {3, 4}).In<float>({1}, {1})
        .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32)
        .Attr("validate_indices", false);
    ExpectRunError(op);
  }
  {  // negative coordinate
    OneOp op("SparseToDense");
    op.In<int32_t>({1}, {-1}).In<int32_t>({1}, {3}).In<float>({}, {1}).In<float>({}, {0})
        .Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32).Attr("validate_indices", false);
    ExpectRunError(op);
  }
  {  // two coordinates per index against a 1-D shape
    OneOp op("SparseToDense");
    op.In<int32_t>({1, 2}, {0, 0}).In<int32_t>({1}, {3}).In<float>({1}, {1})
        .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
    ExpectRunError(op);
  }
  {  // three values for two indices
    OneOp op("SparseToDense");
    op.In<int32_t>({2}, {0, 1}).In<int32_t>({1}, {3}).In<float>({3}, {1, 2, 3})
        .In<float>({}, {0}).Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
    ExpectRunError(op);
  }
  {  // a vector default
    OneOp op("SparseToDense");
    op.In<int32_t>({1}, {0}).In<int32_t>({1}, {3}).In<float>({1}, {1}).In<float>({1}, {0})
        .Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
    ExpectRunError(op);
  }
}

}  // namespace
