// Slice and StridedSlice. Inputs hold 0, 1, 2, ... so every expected value
// below is the flat input index of the element, worked out by hand from the
// numpy expression in each case's comment. Each mask alone, and negative
// strides, are in the TF.js op goldens; here their combinations and edges.
#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "one_op.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectOutput;
using testing_support::ExpectRunError;
using testing_support::OneOp;
using testing_support::RunDims;
using testing_support::RunOk;

std::vector<int32_t> Iota(int n) {
  std::vector<int32_t> v(n);
  std::iota(v.begin(), v.end(), 0);
  return v;
}

int64_t Count(const Dims& dims) {
  int64_t n = 1;
  for (int64_t d : dims) n *= d;
  return n;
}

struct SliceArgs {
  std::vector<int32_t> begin, end, strides;
  int begin_mask = 0, end_mask = 0, ellipsis_mask = 0, new_axis_mask = 0, shrink_axis_mask = 0;
};

struct Case {
  const char* numpy;  // the slice the arguments encode
  Dims input;
  SliceArgs args;
  Dims dims;
  std::vector<int32_t> values;
};

void AddStridedSlice(OneOp& op, const Dims& input, const SliceArgs& s) {
  const int64_t n = static_cast<int64_t>(s.begin.size());
  op.In<int32_t>(input, Iota(static_cast<int>(Count(input))))
      .In<int32_t>({n}, s.begin)
      .In<int32_t>({static_cast<int64_t>(s.end.size())}, s.end)
      .In<int32_t>({static_cast<int64_t>(s.strides.size())}, s.strides).Attr("T", TF_INT32)
      .Attr("Index", TF_INT32);
  // Masks left at zero are omitted, as exported graphs do.
  if (s.begin_mask) op.Attr("begin_mask", s.begin_mask);
  if (s.end_mask) op.Attr("end_mask", s.end_mask);
  if (s.ellipsis_mask) op.Attr("ellipsis_mask", s.ellipsis_mask);
  if (s.new_axis_mask) op.Attr("new_axis_mask", s.new_axis_mask);
  if (s.shrink_axis_mask) op.Attr("shrink_axis_mask", s.shrink_axis_mask);
}

TEST(StridedSliceTest, MaskCombinationsMatchNumpy) {
  // x = arange(24).reshape(2, 3, 4); v = arange(5).
  const Dims x{2, 3, 4}, v{5};
  const std::vector<Case> cases = {
      {"x[:, None, -1]", x, {{0, 0, -1}, {0, 0, 0}, {1, 1, 1}, 1, 1, 0, 2, 4},
       {2, 1, 4}, {8, 9, 10, 11, 20, 21, 22, 23}},
      {"x[:, 1:100, -100:2] clamps", x, {{0, 1, -100}, {0, 100, 2}, {1, 1, 1}, 1, 1},
       {2, 2, 2}, {4, 5, 8, 9, 16, 17, 20, 21}},
      {"x[:, 2:1] is empty", x, {{0, 2}, {0, 1}, {1, 1}, 1, 1}, {2, 0, 4}, {}},
      {"x[None, 0, ..., None]", x, {{0, 0, 0, 0}, {0, 1, 0, 0}, {1, 1, 1, 1}, 0, 0, 4, 9, 2},
       {1, 3, 4, 1}, Iota(12)},
      {"x[1:2] keeps dims the index does not reach", x, {{1}, {2}, {1}},
       {1, 3, 4}, {12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}},
      {"new axis wins over shrink on one entry", x, {{0}, {0}, {1}, 0, 0, 0, 1, 1},
       {1, 2, 3, 4}, Iota(24)},
      {"x[...] is the identity", x, {{0}, {0}, {1}, 0, 0, 1}, {2, 3, 4}, Iota(24)},
      {"x[..., None, 0] new axis after the ellipsis", x,
       {{0, 0, 0}, {0, 0, 1}, {1, 1, 1}, 0, 0, 1, 2, 4}, {2, 3, 1}, {0, 4, 8, 12, 16, 20}},
      {"v[:-6:-1] clamps to before the start", v, {{0}, {-6}, {-1}, 1}, {5}, {4, 3, 2, 1, 0}},
      {"v[1:3:-1] runs the wrong way", v, {{1}, {3}, {-1}}, {0}, {}},
      {"v[4:0:-3]", v, {{4}, {0}, {-3}}, {2}, {4, 1}},
      {"v[10:] is empty", v, {{10}, {0}, {1}, 0, 1}, {0}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.numpy);
    OneOp op("StridedSlice");
    AddStridedSlice(op, c.input, c.args);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), c.dims);
    EXPECT_EQ(op.Output<int32_t>(), c.values);
  }
}

TEST(StridedSliceTest, IndexTypesAndElementTypes) {
  // y[1, ::-1] on a float [2, 3] with int64 indices.
  OneOp f("StridedSlice");
  f.In<float>({2, 3}, {0.5f, 1.5f, 2.5f, 3.5f, 4.5f, 5.5f})
      .In<int64_t>({2}, {1, 0})
      .In<int64_t>({2}, {2, 0})
      .In<int64_t>({2}, {1, -1}).Attr("T", TF_FLOAT).Attr("Index", TF_INT64).Attr("begin_mask", 2)
      .Attr("end_mask", 2).Attr("shrink_axis_mask", 1);
  ASSERT_EQ(f.Run(), TF_OK) << f.error();
  EXPECT_EQ(f.OutputDims(), (Dims{3}));
  EXPECT_EQ(f.Output<float>(), (std::vector<float>{5.5f, 4.5f, 3.5f}));

  // Extreme int64 bounds clamp without overflow: v[max:min:-2] on [0..4].
  const int64_t lo = std::numeric_limits<int64_t>::min(), hi = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(RunOk<int32_t>(OneOp("StridedSlice").In<int32_t>({5}, Iota(5)).In<int64_t>({1}, {hi})
      .In<int64_t>({1}, {lo}).In<int64_t>({1}, {-2}).Attr("T", TF_INT32)
      .Attr("Index", TF_INT64)), (std::vector<int32_t>{4, 2, 0}));
  ExpectRunError(OneOp("StridedSlice").In<int32_t>({5}, Iota(5)).In<int64_t>({1}, {lo})
      .In<int64_t>({1}, {0}).In<int64_t>({1}, {1}).Attr("T", TF_INT32).Attr("Index", TF_INT64)
      .Attr("shrink_axis_mask", 1));

  OneOp b("StridedSlice");
  b.In<bool>({4}, {true, false, false, true})
      .In<int32_t>({1}, {0}).In<int32_t>({1}, {4}).In<int32_t>({1}, {3})
      .Attr("T", TF_BOOL).Attr("Index", TF_INT32);
  ASSERT_EQ(b.Run(), TF_OK) << b.error();
  EXPECT_EQ(b.Output<bool>(), (std::vector<bool>{true, true}));
}

TEST(StridedSliceTest, RejectsBadIndices) {
  const Dims x{2, 3, 4};
  const std::vector<std::pair<const char*, SliceArgs>> bad = {
      {"zero stride", {{0, 0, 0}, {1, 1, 1}, {1, 0, 1}}},
      {"shrink index past the end", {{2}, {3}, {1}, 0, 0, 0, 0, 1}},
      {"shrink with a negative stride", {{1}, {0}, {-1}, 0, 0, 0, 0, 1}},
      {"lengths differ", {{0, 0}, {1}, {1, 1}}},
      {"more entries than dims", {{0, 0, 0, 0}, {1, 1, 1, 1}, {1, 1, 1, 1}}},
      {"two ellipses", {{0, 0}, {0, 0}, {1, 1}, 0, 0, 3}},
  };
  for (const auto& [what, args] : bad) {
    SCOPED_TRACE(what);
    OneOp op("StridedSlice");
    AddStridedSlice(op, x, args);
    ExpectRunError(op);
  }
}

TEST(SliceTest, BoxesWithSizeToTheEnd) {
  // x[1:2, :, 1:3] written as begin [1, 0, 1], size [1, -1, 2].
  ExpectOutput<int32_t>(OneOp("Slice").In<int32_t>({2, 3, 4}, Iota(24)).In<int32_t>({3}, {1, 0, 1})
      .In<int32_t>({3}, {1, -1, 2}).Attr("T", TF_INT32)
      .Attr("Index", TF_INT32), {1, 3, 2}, (std::vector<int32_t>{13, 14, 17, 18, 21, 22}));

  // int64 indices, uint8 data, an empty box at the very end of a dim.
  EXPECT_EQ(RunDims(OneOp("Slice").In<uint8_t>({2, 2}, {1, 2, 3, 4}).In<int64_t>({2}, {0, 2})
      .In<int64_t>({2}, {2, 0}).Attr("T", TF_UINT8).Attr("Index", TF_INT64)), (Dims{2, 0}));

  EXPECT_EQ(RunOk<double>(OneOp("Slice").In<double>({3}, {1.0, 2.0, 3.0}).In<int32_t>({1}, {0})
      .In<int32_t>({1}, {-1}).Attr("T", TF_DOUBLE)
      .Attr("Index", TF_INT32)), (std::vector<double>{1.0, 2.0, 3.0}));
}

TEST(SliceTest, RejectsOutOfRangeBoxes) {
  const std::vector<std::pair<std::vector<int32_t>, std::vector<int32_t>>> bad = {
      {{-1, 0}, {1, 1}},   // negative begin
      {{1, 0}, {2, 1}},    // runs past the end
      {{0, 0}, {1, -2}},   // negative size other than -1
      {{0}, {1}},          // one entry for two dims
  };
  for (const auto& [begin, size] : bad) {
    ExpectRunError(OneOp("Slice").In<float>({2, 3}, {0, 1, 2, 3, 4, 5})
        .In<int32_t>({static_cast<int64_t>(begin.size())}, begin)
        .In<int32_t>({static_cast<int64_t>(size.size())}, size).Attr("T", TF_FLOAT)
        .Attr("Index", TF_INT32));
  }
}

}  // namespace
