// Cast between the numeric types and bool.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <limits>
#include <type_traits>
#include <vector>

#include "minitf/one_op.h"
#include "support/tf_session.h"

namespace {

using testing_support::Dims;
using testing_support::DTypeOf;
using testing_support::ExpectOutput;
using testing_support::OneOp;
using testing_support::RunDims;

template <typename From, typename To>
std::vector<To> Cast(const std::vector<From>& x, bool truncate = false) {
  OneOp o("Cast");
  o.In<From>({static_cast<int64_t>(x.size())}, x).Attr("SrcT", DTypeOf<From>())
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
  // Integer narrowing keeps the low bits.
  EXPECT_EQ((Cast<int64_t, int32_t>({(INT64_C(1) << 32) + 5, -1})), (std::vector<int32_t>{5, -1}));
  EXPECT_EQ((Cast<int32_t, uint8_t>({257, -1})), (std::vector<uint8_t>{1, 255}));
  // Float rounding of wide integers and doubles.
  EXPECT_EQ((Cast<int32_t, float>({16777217})), (std::vector<float>{16777216}));
  EXPECT_EQ((Cast<double, float>({0.1})), (std::vector<float>{0.1f}));
  EXPECT_EQ((Cast<float, double>({0.1f})), (std::vector<double>{static_cast<double>(0.1f)}));
  // The Truncate attribute.
  EXPECT_EQ((Cast<double, int32_t>({2.5}, /*truncate=*/true)), (std::vector<int32_t>{2}));
}

TEST(CastOpsTest, ShapesAndUnsupportedTypes) {
  EXPECT_EQ(RunDims(OneOp("Cast").In<float>({0, 2}, {}).Attr("SrcT", TF_FLOAT)
      .Attr("DstT", TF_INT32)), (Dims{0, 2}));

  OneOp half("Cast");
  half.In<float>({1}, {1}).Attr("SrcT", TF_FLOAT).Attr("DstT", TF_HALF);
  EXPECT_NE(half.Run(), TF_OK);
  EXPECT_TRUE(half.ErrorNamesNode()) << half.error();
}

using testing_support::GraphBuilder;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

// Runs Dequantize on quantized values of `qtype` (stored as `T`) fed through
// the C API as a tensor of that quantized dtype.
template <typename T>
TF_Code Dequantize(TF_DataType qtype, const Dims& dims, const std::vector<T>& q,
                   const std::vector<float>& min, const std::vector<float>& max,
                   const char* mode, bool narrow, int axis, std::vector<float>* out,
                   std::string* error) {
  GraphBuilder g;
  g.Placeholder("q", qtype);
  const Dims range_dims = axis < 0 ? Dims{} : Dims{static_cast<int64_t>(min.size())};
  g.Const<float>("min", range_dims, min);
  g.Const<float>("max", range_dims, max);
  g.Node("Dequantize", "dq").Input("q").Input("min").Input("max").Attr("T", qtype)
      .Attr("mode", mode).Attr("narrow_range", narrow).Attr("axis", int64_t{axis});
  TestSession session(g.Serialize());
  if (session.code() != TF_OK) {
    *error = session.message();
    return session.code();
  }
  TF_Tensor* t = TF_AllocateTensor(qtype, dims.data(), static_cast<int>(dims.size()),
                                   q.size() * sizeof(T));
  std::memcpy(TF_TensorData(t), q.data(), q.size() * sizeof(T));
  TensorPtr feed(t);
  std::vector<TensorPtr> outs;
  const TF_Code code = session.Run({{"q", feed.get()}}, {"dq"}, &outs);
  *error = session.last_error();
  if (code == TF_OK) *out = Values<float>(outs[0].get());
  return code;
}

// TensorFlow's definitions of the three modes, in double.
template <typename T>
double DequantizeReference(T v, double min, double max, const std::string& mode, bool narrow) {
  const double lowest = std::numeric_limits<T>::lowest(), highest = std::numeric_limits<T>::max();
  if (mode == "MIN_COMBINED") {
    const double half = lowest < 0 ? (highest - lowest + 1) / 2 : 0;
    return (v + half) * (max - min) / (highest - lowest) + min;
  }
  if (mode == "MIN_FIRST") {
    const double steps = std::exp2(8.0 * sizeof(T));
    const double scale = (max - min) * (steps / (steps - 1)) / steps;
    return min + (v - lowest) * scale;
  }
  const double min_expected = lowest + (narrow && lowest < 0 ? 1 : 0);
  const double scale = lowest == 0 ? max / highest : std::max(min / min_expected, max / highest);
  return v * scale;
}

template <typename T>
void CheckAllModes(TF_DataType qtype) {
  std::mt19937 rng(11);
  std::uniform_int_distribution<int64_t> dist(std::numeric_limits<T>::lowest(),
                                              std::numeric_limits<T>::max());
  std::vector<T> q(24);
  for (T& v : q) v = static_cast<T>(dist(rng));
  q[0] = std::numeric_limits<T>::lowest();
  q[1] = std::numeric_limits<T>::max();
  for (const char* mode : {"MIN_COMBINED", "MIN_FIRST", "SCALED"}) {
    for (const bool narrow : {false, true}) {
      if (narrow && std::string(mode) != "SCALED") continue;
      SCOPED_TRACE(testing::Message() << qtype << " " << mode << " narrow " << narrow);
      const float min = std::string(mode) == "SCALED" && std::numeric_limits<T>::lowest() == 0
                            ? 0.0f : -1.5f;
      std::vector<float> got;
      std::string error;
      ASSERT_EQ(Dequantize<T>(qtype, {2, 3, 4}, q, {min}, {2.5f}, mode, narrow, -1, &got, &error),
                TF_OK) << error;
      for (size_t i = 0; i < q.size(); ++i) {
        const double want = DequantizeReference<T>(q[i], min, 2.5, mode, narrow);
        EXPECT_NEAR(got[i], want, 2e-6 * std::max(1.0, std::fabs(want))) << "at " << i;
      }
      // Per-channel ranges along axis 1.
      ASSERT_EQ(Dequantize<T>(qtype, {2, 3, 4}, q, {min, min / 2, 0.0f}, {2.5f, 1.0f, 4.0f},
                              mode, narrow, 1, &got, &error), TF_OK) << error;
      const float mins[] = {min, min / 2, 0.0f}, maxs[] = {2.5f, 1.0f, 4.0f};
      for (size_t i = 0; i < q.size(); ++i) {
        const int c = static_cast<int>(i / 4 % 3);
        const double want = DequantizeReference<T>(q[i], mins[c], maxs[c], mode, narrow);
        EXPECT_NEAR(got[i], want, 2e-6 * std::max(1.0, std::fabs(want))) << "at " << i;
      }
    }
  }
}

TEST(DequantizeOpsTest, EveryQuantizedTypeAndModeMatchesDefinition) {
  CheckAllModes<uint8_t>(TF_QUINT8);
  CheckAllModes<int8_t>(TF_QINT8);
  CheckAllModes<uint16_t>(TF_QUINT16);
  CheckAllModes<int16_t>(TF_QINT16);
  CheckAllModes<int32_t>(TF_QINT32);
}

TEST(DequantizeOpsTest, BadRanges) {
  // quint8 constants, as 8-bit frozen graphs store their weights, run in the
  // real res10 face detector graph against TensorFlow's outputs.
  std::vector<float> got;
  std::string error;
  // Ranges of the wrong size for the axis or the tensor; axis beyond the rank.
  EXPECT_EQ(Dequantize<uint8_t>(TF_QUINT8, {2, 2}, {1, 2, 3, 4}, {0, 0, 0}, {1, 1, 1}, "SCALED",
                                false, 1, &got, &error), TF_INVALID_ARGUMENT);
  EXPECT_NE(error.find("dq"), std::string::npos) << error;
  EXPECT_EQ(Dequantize<uint8_t>(TF_QUINT8, {2}, {1, 2}, {0, 0}, {1, 1}, "MIN_FIRST", false, -1,
                                &got, &error), TF_INVALID_ARGUMENT);
  EXPECT_EQ(Dequantize<uint8_t>(TF_QUINT8, {2}, {1, 2}, {0}, {1}, "SCALED", false, 3, &got,
                                &error), TF_INVALID_ARGUMENT);
}

}  // namespace
