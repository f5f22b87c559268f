// Cast between the numeric types and bool.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "minitf/one_op.h"

namespace {

using testing_support::Dims;
using testing_support::DTypeOf;
using testing_support::OneOp;

template <typename From, typename To>
std::vector<To> Cast(const std::vector<From>& x, bool truncate = false) {
  OneOp o("Cast");
  o.In<From>({static_cast<int64_t>(x.size())}, x)
      .Attr("SrcT", DTypeOf<From>())
      .Attr("DstT", DTypeOf<To>());
  if (truncate) o.Attr("Truncate", true);
  EXPECT_EQ(o.Run(), TF_OK) << o.error();
  if (!o.error().empty()) return {};
  EXPECT_EQ(o.OutputType(), DTypeOf<To>());
  return o.Output<To>();
}

template <typename... Ts> struct TypeList {};

// 0, 1 and 5 survive every conversion, except that bool holds 5 as true,
// which converts back as 1.
template <typename From, typename... Tos>
void CastSmallValuesTo(TypeList<Tos...>) {
  const std::vector<From> in{From(0), From(1), From(5)};
  auto check = [&](auto to_tag) {
    using To = decltype(to_tag);
    SCOPED_TRACE(testing::Message() << DTypeOf<From>() << " -> " << DTypeOf<To>());
    const To five = std::is_same_v<From, bool> ? To(1) : To(5);
    EXPECT_EQ((Cast<From, To>(in)), (std::vector<To>{To(0), To(1), five}));
  };
  (check(Tos()), ...);
}

TEST(CastOpsTest, EveryPairOfSupportedTypes) {
  using All = TypeList<float, double, int32_t, int64_t, uint8_t, bool>;
  CastSmallValuesTo<float>(All());
  CastSmallValuesTo<double>(All());
  CastSmallValuesTo<int32_t>(All());
  CastSmallValuesTo<int64_t>(All());
  CastSmallValuesTo<uint8_t>(All());
  CastSmallValuesTo<bool>(All());
}

TEST(CastOpsTest, FloatToIntegerTruncatesTowardZero) {
  EXPECT_EQ((Cast<float, int32_t>({1.9f, -1.9f, 0.5f, -0.5f, 2147483520.f})),
            (std::vector<int32_t>{1, -1, 0, 0, 2147483520}));
  EXPECT_EQ((Cast<double, int64_t>({-7.99, 9.2e18})),
            (std::vector<int64_t>{-7, INT64_C(9200000000000000000)}));
  // Out of range and NaN give the lowest value, as x86 TensorFlow does.
  const float kNan = std::numeric_limits<float>::quiet_NaN();
  const int32_t kMin32 = std::numeric_limits<int32_t>::min();
  EXPECT_EQ((Cast<float, int32_t>({3e9f, -3e9f, kNan})),
            (std::vector<int32_t>{kMin32, kMin32, kMin32}));
  EXPECT_EQ((Cast<double, int64_t>({-1e19, 1e19})),
            (std::vector<int64_t>{std::numeric_limits<int64_t>::min(),
                                  std::numeric_limits<int64_t>::min()}));
  // uint8 keeps the low byte rather than saturating.
  EXPECT_EQ((Cast<float, uint8_t>({300, -1, 255.9f, 0.99f})),
            (std::vector<uint8_t>{44, 255, 255, 0}));
}

TEST(CastOpsTest, IntegersBoolsAndFloats) {
  EXPECT_EQ((Cast<int32_t, bool>({0, 3, -1})), (std::vector<bool>{false, true, true}));
  const float kNan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ((Cast<float, bool>({0.f, -0.f, kNan, 0.1f})),
            (std::vector<bool>{false, false, true, true}));
  EXPECT_EQ((Cast<bool, float>({true, false})), (std::vector<float>{1, 0}));
  EXPECT_EQ((Cast<bool, int64_t>({false, true})), (std::vector<int64_t>{0, 1}));
  // Integer narrowing keeps the low bits.
  EXPECT_EQ((Cast<int64_t, int32_t>({(INT64_C(1) << 32) + 5, -1})), (std::vector<int32_t>{5, -1}));
  EXPECT_EQ((Cast<int32_t, uint8_t>({257, -1})), (std::vector<uint8_t>{1, 255}));
  EXPECT_EQ((Cast<uint8_t, int32_t>({200, 0})), (std::vector<int32_t>{200, 0}));
  EXPECT_EQ((Cast<uint8_t, float>({255})), (std::vector<float>{255}));
  // Float rounding of wide integers and doubles.
  EXPECT_EQ((Cast<int32_t, float>({16777217})), (std::vector<float>{16777216}));
  EXPECT_EQ((Cast<double, float>({0.1})), (std::vector<float>{0.1f}));
  EXPECT_EQ((Cast<float, double>({0.1f})), (std::vector<double>{static_cast<double>(0.1f)}));
  // Same type and the Truncate attribute.
  EXPECT_EQ((Cast<float, float>({1.5f, -2})), (std::vector<float>{1.5f, -2}));
  EXPECT_EQ((Cast<double, int32_t>({2.5}, /*truncate=*/true)), (std::vector<int32_t>{2}));
}

TEST(CastOpsTest, ShapesAndUnsupportedTypes) {
  OneOp empty("Cast");
  empty.In<float>({0, 2}, {}).Attr("SrcT", TF_FLOAT).Attr("DstT", TF_INT32);
  ASSERT_EQ(empty.Run(), TF_OK) << empty.error();
  EXPECT_EQ(empty.OutputDims(), (Dims{0, 2}));

  OneOp matrix("Cast");
  matrix.In<int32_t>({2, 2}, {1, 2, 3, 4}).Attr("SrcT", TF_INT32).Attr("DstT", TF_DOUBLE);
  ASSERT_EQ(matrix.Run(), TF_OK) << matrix.error();
  EXPECT_EQ(matrix.OutputDims(), (Dims{2, 2}));
  EXPECT_EQ(matrix.Output<double>(), (std::vector<double>{1, 2, 3, 4}));

  OneOp half("Cast");
  half.In<float>({1}, {1}).Attr("SrcT", TF_FLOAT).Attr("DstT", TF_HALF);
  EXPECT_NE(half.Run(), TF_OK);
  EXPECT_TRUE(half.ErrorNamesNode()) << half.error();
}

}  // namespace
