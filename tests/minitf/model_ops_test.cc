// Ops that published detector and segmentation graphs add to the core set:
// AddN, Conv2DBackpropInput, DepthToSpace / SpaceToDepth, TopKV2 and
// SparseToDense. Their values at attribute corners are checked against
// TF.js (tests/tfjs/op_golden_test.cc); here are the corners TF.js's
// vectors do not reach, and the checks that keep malformed inputs from
// reading or writing out of bounds.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>

#include "one_op.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectOutput;
using testing_support::ExpectRunError;
using testing_support::GraphBuilder;
using testing_support::OneOp;
using testing_support::RunOk;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;
using F = std::vector<float>;
using I = std::vector<int32_t>;
using L = std::vector<int64_t>;

OneOp& Transposed(OneOp& op, const I& sizes, const Dims& filter, const Dims& dy, L strides) {
  auto count = [](const Dims& d) {
    int64_t n = 1;
    for (int64_t x : d) n *= x;
    return static_cast<size_t>(n);
  };
  return op.In<int32_t>({static_cast<int64_t>(sizes.size())}, sizes)
      .In<float>(filter, F(count(filter), 1)).In<float>(dy, F(count(dy), 1))
      .Attr("T", TF_FLOAT).Attr("strides", strides).Attr("padding", "VALID");
}

OneOp& Sparse(OneOp& op, const Dims& index_dims, const I& indices, const I& shape,
              const Dims& value_dims, const F& values, const Dims& default_dims = {}) {
  return op.In<int32_t>(index_dims, indices)
      .In<int32_t>({static_cast<int64_t>(shape.size())}, shape).In<float>(value_dims, values)
      .In<float>(default_dims, F(default_dims.empty() ? 1 : default_dims[0], 0))
      .Attr("T", TF_FLOAT).Attr("Tindices", TF_INT32);
}

TEST(ModelOpsTest, BadInputsAreErrorsNamingTheNode) {
  struct Case {
    const char* what;
    const char* op;
    std::function<void(OneOp&)> build;
  };
  const Case cases[] = {
      {"AddN does not broadcast", "AddN",
       [](OneOp& op) {
         op.In<float>({2, 2}, F(4, 1)).In<float>({2}, F(2, 1)).Attr("N", 2).Attr("T", TF_FLOAT); }},
      {"a 4x4 input gives a 2x2 gradient, not 3x3", "Conv2DBackpropInput",
       [](OneOp& op) { Transposed(op, {1, 4, 4, 1}, {2, 2, 1, 1}, {1, 3, 3, 1}, {1, 2, 2, 1}); }},
      {"filter depth 2 against input depth 1", "Conv2DBackpropInput",
       [](OneOp& op) { Transposed(op, {1, 2, 2, 1}, {1, 1, 2, 1}, {1, 2, 2, 1}, {1, 1, 1, 1}); }},
      {"input_sizes of the wrong length", "Conv2DBackpropInput",
       [](OneOp& op) { Transposed(op, {1, 2, 2}, {1, 1, 1, 1}, {1, 2, 2, 1}, {1, 1, 1, 1}); }},
      {"negative input_sizes", "Conv2DBackpropInput",
       [](OneOp& op) { Transposed(op, {1, -2, 2, 1}, {1, 1, 1, 1}, {1, 2, 2, 1}, {1, 1, 1, 1}); }},
      {"depth the block does not divide", "DepthToSpace",
       [](OneOp& op) { op.In<float>({1, 1, 1, 6}, F(6, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2); }},
      {"rank 3 to DepthToSpace", "DepthToSpace",
       [](OneOp& op) { op.In<float>({1, 2, 4}, F(8, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2); }},
      {"height the block does not divide", "SpaceToDepth",
       [](OneOp& op) { op.In<float>({1, 3, 2, 1}, F(6, 0)).Attr("T", TF_FLOAT).Attr("block_size", 2); }},
      {"k past the row", "TopKV2",
       [](OneOp& op) { op.In<float>({2, 3}, F(6, 1)).In<int32_t>({}, {4}).Attr("T", TF_FLOAT); }},
      {"negative k", "TopKV2",
       [](OneOp& op) { op.In<float>({3}, F(3, 1)).In<int32_t>({}, {-1}).Attr("T", TF_FLOAT); }},
      {"TopK of a scalar", "TopKV2",
       [](OneOp& op) { op.In<float>({}, F(1, 1)).In<int32_t>({}, {1}).Attr("T", TF_FLOAT); }},
      {"a coordinate past the end, even unvalidated", "SparseToDense",
       [](OneOp& op) {
         Sparse(op, {1, 2}, {0, 4}, {3, 4}, {1}, {1}).Attr("validate_indices", false); }},
      {"a negative coordinate, even unvalidated", "SparseToDense",
       [](OneOp& op) { Sparse(op, {1}, {-1}, {3}, {}, {1}).Attr("validate_indices", false); }},
      {"two coordinates against a 1-D shape", "SparseToDense",
       [](OneOp& op) { Sparse(op, {1, 2}, {0, 0}, {3}, {1}, {1}); }},
      {"three values for two indices", "SparseToDense",
       [](OneOp& op) { Sparse(op, {2}, {0, 1}, {3}, {3}, {1, 2, 3}); }},
      {"a vector default", "SparseToDense",
       [](OneOp& op) { Sparse(op, {1}, {0}, {3}, {1}, {1}, {1}); }},
      {"indices out of order when validated", "SparseToDense",
       [](OneOp& op) { Sparse(op, {2}, {3, 0}, {4}, {2}, {1, 2}); }},
      {"a repeated index when validated", "SparseToDense",
       [](OneOp& op) { Sparse(op, {2}, {1, 1}, {4}, {2}, {1, 2}); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    OneOp op(c.op);
    c.build(op);
    ExpectRunError(op);
  }
}

TEST(ModelOpsTest, CornersTheReferenceVectorsMiss) {
  // AddN wraps integers.
  EXPECT_EQ(RunOk<int32_t>(OneOp("AddN").In<int32_t>({2}, {std::numeric_limits<int32_t>::max(), 1})
      .In<int32_t>({2}, {1, 1}).Attr("N", 2)
      .Attr("T", TF_INT32)), (I{std::numeric_limits<int32_t>::min(), 2}));

  // SpaceToDepth undoes DepthToSpace, whatever the element size.
  const std::vector<uint8_t> depth = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  const std::vector<uint8_t> space = {0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15};
  ExpectOutput<uint8_t>(OneOp("SpaceToDepth").In<uint8_t>({1, 2, 4, 2}, space).Attr("T", TF_UINT8)
      .Attr("block_size", 2), {1, 1, 2, 8}, depth);

  // A transposed convolution leaves zero where the forward one never read.
  EXPECT_EQ(RunOk<float>(OneOp("Conv2DBackpropInput").In<int32_t>({4}, {1, 3, 3, 1})
      .In<float>({2, 2, 1, 1}, {1, 2, 3, 4}).In<float>({1, 1, 1, 1}, {5}).Attr("T", TF_FLOAT)
      .Attr("strides", L{1, 2, 2, 1}).Attr("padding", "VALID")), (F{5, 10, 0, 15, 20, 0, 0, 0, 0}));

  // Without validation, unordered and repeated indices scatter; the later
  // write wins.
  OneOp relaxed("SparseToDense");
  Sparse(relaxed, {3}, {3, 0, 3}, {4}, {3}, {1, 2, 3}).Attr("validate_indices", false);
  ASSERT_EQ(relaxed.Run(), TF_OK) << relaxed.error();
  EXPECT_EQ(relaxed.Output<float>(), (F{2, 0, 0, 3}));
}

TEST(ModelOpsTest, TopKTiesNanAndEmpty) {
  auto run = [](const Dims& dims, const F& x, int32_t k, std::vector<TensorPtr>* out) {
    GraphBuilder g;
    g.Const<float>("x", dims, x);
    g.Const<int32_t>("k", {}, {k});
    g.Node("TopKV2", "top").Input("x").Input("k").Attr("T", TF_FLOAT);
    TestSession s(g.Serialize());
    EXPECT_EQ(s.code(), TF_OK) << s.message();
    EXPECT_EQ(s.Run({}, {"top:0", "top:1"}, out), TF_OK) << s.last_error();
  };
  std::vector<TensorPtr> out;
  // Among ties the lower index comes first.
  run({2, 7}, {3, 1, 3, 0.5f, -2, 3, 1, 7, -1, 0, 2, 2, 2, 5}, 3, &out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(Values<float>(out[0].get()), (F{3, 3, 3, 7, 5, 2}));
  EXPECT_EQ(Values<int32_t>(out[1].get()), (I{0, 2, 5, 0, 6, 3}));
  // NaN ranks first.
  run({4}, {1, std::numeric_limits<float>::quiet_NaN(), 2, -1}, 2, &out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_TRUE(std::isnan(Values<float>(out[0].get())[0]));
  EXPECT_EQ(Values<int32_t>(out[1].get()), (I{1, 2}));
  // k = 0 is an empty last dimension.
  run({2, 3}, F(6, 1), 0, &out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(testing_support::DimsOf(out[0].get()), (Dims{2, 0}));
}

}  // namespace
