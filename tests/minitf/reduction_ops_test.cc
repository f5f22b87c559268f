// Reductions over axes (Sum, Mean, Max, Min, Prod, Any, All) and the index
// reductions ArgMax / ArgMin.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "minitf/one_op.h"

namespace {

using testing_support::Dims;
using testing_support::DTypeOf;
using testing_support::ExpectNear;
using testing_support::ExpectRunError;
using testing_support::OneOp;
using testing_support::RunDims;

const float kNan = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

template <typename T, typename Out = T, typename Idx = int32_t>
std::vector<Out> Reduce(const std::string& op, const Dims& dims, const std::vector<T>& x,
                        const Dims& axes_dims, const std::vector<Idx>& axes,
                        bool keep_dims = false, Dims* out_dims = nullptr) {
  OneOp o(op);
  o.In<T>(dims, x).template In<Idx>(axes_dims, axes);
  if (op != "Any" && op != "All") o.Attr("T", DTypeOf<T>());
  if (!std::is_same_v<Idx, int32_t>) o.Attr("Tidx", DTypeOf<Idx>());
  if (keep_dims) o.Attr("keep_dims", true);
  EXPECT_EQ(o.Run(), TF_OK) << op << ": " << o.error();
  if (!o.error().empty()) return {};
  if (out_dims != nullptr) *out_dims = o.OutputDims();
  return o.Output<Out>();
}

// [[1, 2, 3], [4, 5, 6]]
const std::vector<float> kMatrix{1, 2, 3, 4, 5, 6};

// Float Sum, Mean and Max over every axis set are in RandomShapesMatchReference.
TEST(ReductionOpsTest, AxesKeepDimsAndKinds) {
  Dims dims;
  EXPECT_EQ(Reduce<float>("Sum", {2, 3}, kMatrix, {}, {1}, true, &dims),
            (std::vector<float>{6, 15}));
  EXPECT_EQ(dims, (Dims{2, 1}));
  EXPECT_EQ(Reduce<float>("Min", {2, 3}, kMatrix, {1}, {1}), (std::vector<float>{1, 4}));
  EXPECT_EQ(Reduce<float>("Prod", {2, 3}, kMatrix, {1}, {1}), (std::vector<float>{6, 120}));
  // Both axes, through an int64 axis tensor, keeping dims.
  EXPECT_EQ((Reduce<float, float, int64_t>("Sum", {2, 3}, kMatrix, {2}, {0, 1}, true, &dims)),
            (std::vector<float>{21}));
  EXPECT_EQ(dims, (Dims{1, 1}));
  // A repeated axis (also spelled negatively) is reduced once.
  EXPECT_EQ(Reduce<float>("Sum", {2, 3}, kMatrix, {2}, {1, -1}), (std::vector<float>{6, 15}));
  // No axes: the input unchanged.
  EXPECT_EQ(Reduce<float>("Sum", {2, 3}, kMatrix, {0}, {}, false, &dims), kMatrix);
  EXPECT_EQ(dims, (Dims{2, 3}));
  // A scalar reduced over no axes.
  EXPECT_EQ(Reduce<float>("Mean", {}, {4}, {0}, {}, false, &dims), (std::vector<float>{4}));
  EXPECT_EQ(dims, Dims{});

  using B = std::vector<bool>;
  const B flags{true, false, true, true};
  EXPECT_EQ((Reduce<bool, bool>("Any", {2, 2}, flags, {}, {1})), (B{true, true}));
  EXPECT_EQ((Reduce<bool, bool>("All", {2, 2}, flags, {}, {1})), (B{false, true}));
  EXPECT_EQ((Reduce<bool, bool>("All", {2, 2}, flags, {}, {0})), (B{true, false}));
}

TEST(ReductionOpsTest, IntegerMeansAndOverflow) {
  // Mean of integers truncates toward zero.
  EXPECT_EQ(Reduce<int32_t>("Mean", {2, 2}, {1, 2, -1, -2}, {}, {1}),
            (std::vector<int32_t>{1, -1}));
  // ...and does not overflow its narrow type while summing.
  EXPECT_EQ(Reduce<uint8_t>("Mean", {3}, {250, 250, 251}, {}, {0}), (std::vector<uint8_t>{250}));
  EXPECT_EQ(Reduce<int32_t>("Mean", {2}, {2000000000, 2000000000}, {}, {0}),
            (std::vector<int32_t>{2000000000}));
  // Sum stays in the type and wraps.
  EXPECT_EQ(Reduce<uint8_t>("Sum", {3}, {250, 250, 251}, {}, {0}), (std::vector<uint8_t>{239}));
  EXPECT_EQ(Reduce<int64_t>("Prod", {3}, {-2, 3, 5}, {}, {0}), (std::vector<int64_t>{-30}));
}

TEST(ReductionOpsTest, EmptyAxesAndNaN) {
  // Reducing a zero-sized axis gives each reducer's identity.
  const std::vector<float> none;
  Dims dims;
  EXPECT_EQ(Reduce<float>("Sum", {0, 3}, none, {}, {0}, false, &dims),
            (std::vector<float>{0, 0, 0}));
  EXPECT_EQ(dims, (Dims{3}));
  EXPECT_EQ(Reduce<float>("Max", {0, 2}, none, {}, {0}), (std::vector<float>{-kInf, -kInf}));
  EXPECT_EQ(Reduce<float>("Min", {0, 2}, none, {}, {0}), (std::vector<float>{kInf, kInf}));
  EXPECT_EQ(Reduce<float>("Prod", {0, 2}, none, {}, {0}), (std::vector<float>{1, 1}));
  const auto mean = Reduce<float>("Mean", {0, 2}, none, {}, {0});
  ASSERT_EQ(mean.size(), 2u);
  EXPECT_TRUE(std::isnan(mean[0]) && std::isnan(mean[1]));
  EXPECT_EQ(Reduce<int32_t>("Max", {2, 0}, {}, {}, {1}),
            (std::vector<int32_t>(2, std::numeric_limits<int32_t>::min())));
  EXPECT_EQ((Reduce<bool, bool>("Any", {0}, {}, {}, {0})), std::vector<bool>{false});
  EXPECT_EQ((Reduce<bool, bool>("All", {0}, {}, {}, {0})), std::vector<bool>{true});
  // Kept zero-sized axes give an empty output.
  EXPECT_TRUE(Reduce<float>("Sum", {0, 3}, none, {}, {1}, false, &dims).empty());
  EXPECT_EQ(dims, (Dims{0}));

  // Max and Min propagate NaN wherever it sits.
  const auto mx = Reduce<float>("Max", {2, 3}, {1, kNan, 3, 4, 5, kNan}, {}, {1});
  const auto mn = Reduce<float>("Min", {3, 2}, {kNan, 1, 2, 3, 4, 5}, {}, {0});
  ASSERT_EQ(mx.size(), 2u);
  ASSERT_EQ(mn.size(), 2u);
  EXPECT_TRUE(std::isnan(mx[0]) && std::isnan(mx[1]));
  EXPECT_TRUE(std::isnan(mn[0]));
  EXPECT_EQ(mn[1], 1);
}

TEST(ReductionOpsTest, BadAxesAreErrors) {
  for (int axis : {2, -3}) {
    OneOp o("Sum");
    o.In<float>({2, 3}, kMatrix).In<int32_t>({}, {axis}).Attr("T", TF_FLOAT);
    ExpectRunError(o);
    EXPECT_NE(o.error().find("Invalid reduction dimension"), std::string::npos) << o.error();
  }
  ExpectRunError(OneOp("Max").In<float>({}, {1}).In<int32_t>({1}, {0}).Attr("T", TF_FLOAT));
}

// Naive double-precision sums over random shapes and axis sets. Values are
// non-negative so sums do not cancel and a relative tolerance on
// the result is meaningful.
TEST(ReductionOpsTest, RandomShapesMatchReference) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> value(0, 1);
  struct Case { Dims dims; std::vector<int32_t> axes; };
  std::vector<Case> cases{{{200000}, {0}}, {{40000, 3}, {0}}, {{3, 50, 70, 4}, {1, 2}}};
  for (int trial = 0; trial < 40; ++trial) {
    Case c;
    const int rank = 1 + trial % 5;
    for (int d = 0; d < rank; ++d) {
      c.dims.push_back(1 + rng() % 4);
      if (rng() % 2) c.axes.push_back(rng() % 2 ? d : d - rank);
    }
    cases.push_back(c);
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.dims) + " over " + testing::PrintToString(c.axes));
    const int rank = static_cast<int>(c.dims.size());
    std::vector<bool> reduced(rank, false);
    for (int a : c.axes) reduced[a < 0 ? a + rank : a] = true;
    int64_t n = 1;
    for (int64_t d : c.dims) n *= d;
    std::vector<float> x(n);
    for (float& v : x) v = value(rng);

    // Reference: every input element adds into the output it maps to.
    Dims out_dims;
    for (int d = 0; d < rank; ++d) {
      if (!reduced[d]) out_dims.push_back(c.dims[d]);
    }
    int64_t out_n = 1;
    for (int64_t d : out_dims) out_n *= d;
    std::vector<double> sum(out_n, 0.0);
    std::vector<float> max(out_n, -kInf);
    std::vector<int64_t> idx(rank, 0);
    for (int64_t i = 0; i < n; ++i) {
      int64_t o = 0;
      for (int d = 0; d < rank; ++d) {
        if (!reduced[d]) o = o * c.dims[d] + idx[d];
      }
      sum[o] += x[i];
      max[o] = std::max(max[o], x[i]);
      for (int d = rank - 1; d >= 0 && ++idx[d] == c.dims[d]; --d) idx[d] = 0;
    }
    const int64_t count = n / out_n;
    std::vector<float> want_sum(out_n), want_mean(out_n);
    for (int64_t o = 0; o < out_n; ++o) {
      want_sum[o] = static_cast<float>(sum[o]);
      want_mean[o] = static_cast<float>(sum[o] / count);
    }
    Dims got_dims;
    const Dims axes_dims{static_cast<int64_t>(c.axes.size())};
    ExpectNear(Reduce<float>("Sum", c.dims, x, axes_dims, c.axes, false, &got_dims), want_sum,
               1e-5f);
    EXPECT_EQ(got_dims, out_dims);
    ExpectNear(Reduce<float>("Mean", c.dims, x, axes_dims, c.axes), want_mean, 1e-5f);
    EXPECT_EQ(Reduce<float>("Max", c.dims, x, axes_dims, c.axes), max);
  }
}

// One large value followed by 99999 quarters: a running float sum rounds
// every quarter away (the spacing of floats near 1e7 is 1), so the sum must
// be accumulated in pieces. Checked for the contiguous and the strided loop.
TEST(ReductionOpsTest, LongSumsKeepSmallTerms) {
  const int64_t n = 100000;
  std::vector<float> column(n, 0.25f), two_columns(2 * n, 0.25f);
  column[0] = 1e7f;
  two_columns[0] = 1e7f;
  ExpectNear(Reduce<float>("Sum", {n}, column, {}, {0}), {10024999.75f}, 1e-5f);
  ExpectNear(Reduce<float>("Sum", {n, 2}, two_columns, {}, {0}), {10024999.75f, 25000}, 1e-5f);
  ExpectNear(Reduce<float>("Mean", {n}, column, {}, {0}), {100.2499975f}, 1e-5f);
}

template <typename Out = int64_t, typename T>
std::vector<Out> Arg(const std::string& op, const Dims& dims, const std::vector<T>& x,
                     int32_t axis) {
  OneOp o(op);
  o.In<T>(dims, x).template In<int32_t>({}, {axis}).Attr("T", DTypeOf<T>());
  if (!std::is_same_v<Out, int64_t>) o.Attr("output_type", DTypeOf<Out>());
  EXPECT_EQ(o.Run(), TF_OK) << op << ": " << o.error();
  if (!o.error().empty()) return {};
  EXPECT_EQ(o.OutputType(), DTypeOf<Out>());
  return o.Output<Out>();
}

TEST(ArgReductionOpsTest, IndicesTiesAndNaN) {
  // [[1, 3, 3], [5, 2, 5]]: ties go to the first index (ArgMax ties on
  // floats are in the TF.js op goldens).
  const std::vector<float> x{1, 3, 3, 5, 2, 5};
  EXPECT_EQ(Arg("ArgMax", {2, 3}, x, -2), (std::vector<int64_t>{1, 0, 1}));
  EXPECT_EQ(Arg("ArgMin", {2, 3}, x, 1), (std::vector<int64_t>{0, 1}));
  EXPECT_EQ(Arg<int32_t>("ArgMin", {2, 3}, x, 0), (std::vector<int32_t>{0, 1, 0}));
  // Middle axis of [2,2,2].
  EXPECT_EQ(Arg("ArgMax", {2, 2, 2}, std::vector<int32_t>{1, 9, 2, 3, 7, 0, 8, 0}, 1),
            (std::vector<int64_t>{1, 0, 1, 0}));
  // NaN ranks above every number: ArgMax finds the first one, ArgMin
  // passes over it.
  EXPECT_EQ(Arg("ArgMax", {4}, std::vector<float>{1, kNan, 5, kNan}, 0),
            (std::vector<int64_t>{1}));
  EXPECT_EQ(Arg("ArgMin", {4}, std::vector<float>{kNan, 2, 1, 1}, 0), (std::vector<int64_t>{2}));
  EXPECT_EQ(Arg("ArgMax", {3}, std::vector<bool>{false, true, true}, 0),
            (std::vector<int64_t>{1}));
  EXPECT_EQ(Arg("ArgMin", {3}, std::vector<uint8_t>{7, 255, 0}, 0), (std::vector<int64_t>{2}));
}

TEST(ArgReductionOpsTest, BadDimensionsAreErrors) {
  ExpectRunError(OneOp("ArgMax").In<float>({2, 3}, kMatrix).In<int32_t>({}, {2})
      .Attr("T", TF_FLOAT));
  ExpectRunError(OneOp("ArgMax").In<float>({2, 0}, {}).In<int32_t>({}, {1}).Attr("T", TF_FLOAT));
  ExpectRunError(OneOp("ArgMax").In<float>({}, {1}).In<int32_t>({}, {0}).Attr("T", TF_FLOAT));
  // An empty kept axis is fine: the output is empty too.
  EXPECT_EQ(RunDims(OneOp("ArgMax").In<float>({0, 3}, {}).In<int32_t>({}, {1})
      .Attr("T", TF_FLOAT)), (Dims{0}));
}

}  // namespace
