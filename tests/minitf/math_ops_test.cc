// Elementwise math kernels: binary arithmetic with broadcasting,
// comparisons, logical ops, unary math and activations.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "minitf/one_op.h"

namespace {

using testing_support::Dims;
using testing_support::DTypeOf;
using testing_support::ExpectNear;
using testing_support::ExpectOutput;
using testing_support::ExpectRunError;
using testing_support::OneOp;
using testing_support::RunDims;
using testing_support::RunOk;

const float kNan = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Runs a binary op on two constants; empty result when the run fails.
template <typename T, typename Out = T>
std::vector<Out> Binary(const std::string& op, const Dims& xd, const std::vector<T>& x,
                        const Dims& yd, const std::vector<T>& y, Dims* out_dims = nullptr) {
  OneOp o(op);
  o.In<T>(xd, x).template In<T>(yd, y);
  if (op.rfind("Logical", 0) != 0) o.Attr("T", DTypeOf<T>());  // LogicalAnd/Or have no T
  EXPECT_EQ(o.Run(), TF_OK) << op << ": " << o.error();
  if (!o.error().empty()) return {};
  if (out_dims != nullptr) *out_dims = o.OutputDims();
  return o.Output<Out>();
}

template <typename T>
std::vector<T> Unary(const std::string& op, const std::vector<T>& x) {
  OneOp o(op);
  o.In<T>({static_cast<int64_t>(x.size())}, x).Attr("T", DTypeOf<T>());
  EXPECT_EQ(o.Run(), TF_OK) << op << ": " << o.error();
  if (!o.error().empty()) return {};
  return o.Output<T>();
}

TEST(BinaryOpsTest, FloatArithmetic) {
  // Plain float arithmetic runs in every real-model golden; here the
  // aliases, signed zeros and IEEE corners.
  const std::vector<float> x{1.5f, -2, 0, 4}, y{0.5f, 4, -3, -8};
  for (const char* op : {"Add", "AddV2"})
    EXPECT_EQ(Binary<float>(op, {4}, x, {4}, y), (std::vector<float>{2, 2, -3, -4})) << op;
  for (const char* op : {"RealDiv", "Div"})
    EXPECT_EQ(Binary<float>(op, {4}, x, {4}, y), (std::vector<float>{3, -0.5f, -0.f, -0.5f})) << op;
  ExpectNear(Binary<float>("Pow", {3}, {2, 9, 0.5f}, {3}, {10, 0.5f, -1}), {1024, 3, 2});
  // Float division by zero is IEEE, not an error.
  const auto q = Binary<float>("RealDiv", {3}, {1, -1, 0}, {1}, {0});
  ASSERT_EQ(q.size(), 3u);
  EXPECT_TRUE(q[0] == kInf && q[1] == -kInf && std::isnan(q[2])) << testing::PrintToString(q);
  // Maximum and Minimum propagate NaN from either side.
  const auto mx = Binary<float>("Maximum", {2}, {kNan, 1}, {2}, {1, kNan});
  const auto mn = Binary<float>("Minimum", {2}, {kNan, 1}, {2}, {1, kNan});
  ASSERT_TRUE(mx.size() == 2 && mn.size() == 2);
  EXPECT_TRUE(std::isnan(mx[0]) && std::isnan(mx[1]) && std::isnan(mn[0]) && std::isnan(mn[1]));
  // Doubles take the same path.
  EXPECT_EQ(Binary<double>("Mul", {2}, {0.1, 3}, {}, {10}), (std::vector<double>{0.1 * 10, 30}));
}

TEST(BinaryOpsTest, IntegerDivisionRoundsLikeTensorFlow) {
  const std::vector<int32_t> x{7, -7, 7, -7, 6}, y{2, 2, -2, -2, 3};
  EXPECT_EQ(Binary<int32_t>("FloorDiv", {5}, x, {5}, y), (std::vector<int32_t>{3, -4, -4, 3, 2}));
  EXPECT_EQ(Binary<int32_t>("FloorMod", {5}, x, {5}, y), (std::vector<int32_t>{1, 1, -1, -1, 0}));
  EXPECT_EQ(Binary<int32_t>("Div", {5}, x, {5}, y), (std::vector<int32_t>{3, -3, -3, 3, 2}));
  EXPECT_EQ(Binary<int64_t>("FloorDiv", {2}, {-1, 1}, {1}, {INT64_C(-3)}),
            (std::vector<int64_t>{0, -1}));
  EXPECT_EQ(Binary<uint8_t>("FloorMod", {2}, {200, 7}, {1}, {9}), (std::vector<uint8_t>{2, 7}));
  // INT_MIN / -1 wraps instead of trapping.
  const int32_t kMin = std::numeric_limits<int32_t>::min();
  EXPECT_EQ(Binary<int32_t>("Div", {1}, {kMin}, {1}, {-1}), (std::vector<int32_t>{kMin}));
  EXPECT_EQ(Binary<int32_t>("FloorDiv", {1}, {kMin}, {1}, {-1}), (std::vector<int32_t>{kMin}));
  EXPECT_EQ(Binary<int32_t>("FloorMod", {1}, {kMin}, {1}, {-1}), (std::vector<int32_t>{0}));
}

TEST(BinaryOpsTest, IntegerErrorsNameTheNode) {
  for (const char* op : {"Div", "RealDiv", "FloorDiv", "FloorMod"}) {
    OneOp o(op);
    o.In<int32_t>({3}, {1, 2, 3}).In<int32_t>({3}, {1, 0, 1}).Attr("T", TF_INT32);
    ExpectRunError(o);
    EXPECT_NE(o.error().find("Integer division by zero"), std::string::npos) << o.error();
  }
  ExpectRunError(OneOp("FloorDiv").In<uint8_t>({2}, {1, 2}).In<uint8_t>({}, {0})
      .Attr("T", TF_UINT8));
  ExpectRunError(OneOp("Pow").In<int32_t>({2}, {2, 2}).In<int32_t>({2}, {3, -1})
      .Attr("T", TF_INT32));
  // A zero divisor that meets no dividend (empty output) is not an error.
  EXPECT_TRUE(Binary<int32_t>("FloorDiv", {0}, {}, {1}, {0}).empty());
}

TEST(BinaryOpsTest, IntegerArithmeticWraps) {
  const int32_t kMax = std::numeric_limits<int32_t>::max();
  const int32_t kMin = std::numeric_limits<int32_t>::min();
  EXPECT_EQ(Binary<int32_t>("Add", {2}, {kMax, kMin}, {2}, {1, -1}),
            (std::vector<int32_t>{kMin, kMax}));
  EXPECT_EQ(Binary<int32_t>("Mul", {1}, {65536}, {1}, {65536}), (std::vector<int32_t>{0}));
  EXPECT_EQ(Binary<uint8_t>("Add", {2}, {200, 3}, {2}, {100, 4}), (std::vector<uint8_t>{44, 7}));
  EXPECT_EQ(Binary<uint8_t>("Sub", {1}, {3}, {1}, {4}), (std::vector<uint8_t>{255}));
  // Integer powers: exact, wrapping past the type's range.
  EXPECT_EQ(Binary<int32_t>("Pow", {5}, {3, -2, 7, 2, 0}, {5}, {4, 3, 0, 31, 0}),
            (std::vector<int32_t>{81, -8, 1, kMin, 1}));
  EXPECT_EQ(Binary<int64_t>("SquaredDifference", {2}, {-3, 10}, {2}, {4, 10}),
            (std::vector<int64_t>{49, 0}));
  EXPECT_EQ(Binary<int32_t>("Maximum", {3}, {-5, 2, 9}, {}, {3}), (std::vector<int32_t>{3, 3, 9}));
}

// Shapes of every rank against a reference are in RandomShapesMatchReference.
TEST(BroadcastTest, ScalarsEmptyShapesAndTheError) {
  Dims dims;
  // Scalars on either side, and a one-element tensor of higher rank.
  EXPECT_EQ(Binary<float>("Sub", {}, {10}, {3}, {1, 2, 3}), (std::vector<float>{9, 8, 7}));
  EXPECT_EQ(Binary<float>("Sub", {3}, {1, 2, 3}, {}, {10}), (std::vector<float>{-9, -8, -7}));
  EXPECT_EQ(Binary<float>("Sub", {1, 1, 1}, {10}, {2}, {1, 2}, &dims), (std::vector<float>{9, 8}));
  EXPECT_EQ(dims, (Dims{1, 1, 2}));
  // Zero-sized dimensions broadcast against 1 and give empty outputs.
  EXPECT_TRUE(Binary<float>("Add", {0, 3}, {}, {1, 3}, {1, 2, 3}, &dims).empty());
  EXPECT_EQ(dims, (Dims{0, 3}));
  EXPECT_TRUE(Binary<float>("Add", {2, 1}, {1, 2}, {0}, {}, &dims).empty());
  EXPECT_EQ(dims, (Dims{2, 0}));

  OneOp bad("Add");
  bad.In<float>({2, 3}, {1, 2, 3, 4, 5, 6}).In<float>({2}, {1, 2}).Attr("T", TF_FLOAT);
  ExpectRunError(bad);
  EXPECT_NE(bad.error().find("Incompatible shapes: [2,3] vs. [2]"), std::string::npos)
      << bad.error();
  ExpectRunError(OneOp("Add").In<float>({0}, {}).In<float>({2}, {1, 2}).Attr("T", TF_FLOAT));
}

// Index of output coordinate `out` in an operand of shape `dims`, aligned
// at the last axis and repeating along its size-1 axes.
int64_t OperandIndex(const Dims& out_dims, const std::vector<int64_t>& out, const Dims& dims) {
  int64_t index = 0;
  const size_t pad = out_dims.size() - dims.size();
  for (size_t d = 0; d < dims.size(); ++d) {
    index = index * dims[d] + (dims[d] == 1 ? 0 : out[pad + d]);
  }
  return index;
}

// Sub(x, y) against an index-by-index reference on seeded random shapes of
// rank 0 to 8, plus one large case that splits rows across threads.
TEST(BroadcastTest, RandomShapesMatchReference) {
  std::mt19937 rng(1234);
  std::vector<std::pair<Dims, Dims>> cases{{{37, 1, 1000}, {1, 29, 1000}},
                                           {{5, 1, 7, 1, 3}, {4, 1, 2, 1}}};
  for (int trial = 0; trial < 60; ++trial) {
    const int rank = trial % 9;
    Dims out(rank), xd, yd;
    for (auto& d : out) d = 1 + rng() % 3;
    const int xr = rng() % (rank + 1), yr = rng() % (rank + 1);
    for (int i = rank - xr; i < rank; ++i) xd.push_back(rng() % 2 ? out[i] : 1);
    for (int i = rank - yr; i < rank; ++i) yd.push_back(rng() % 2 ? out[i] : 1);
    cases.push_back({xd, yd});
  }
  for (const auto& [xd, yd] : cases) {
    SCOPED_TRACE(testing::PrintToString(xd) + " - " + testing::PrintToString(yd));
    const size_t rank = std::max(xd.size(), yd.size());
    Dims od(rank);
    for (size_t i = 0; i < rank; ++i) {
      const int64_t a = i + xd.size() >= rank ? xd[i + xd.size() - rank] : 1;
      const int64_t b = i + yd.size() >= rank ? yd[i + yd.size() - rank] : 1;
      od[i] = std::max(a, b);
    }
    auto fill = [&](const Dims& d) {
      int64_t n = 1;
      for (int64_t v : d) n *= v;
      std::vector<int32_t> v(n);
      for (auto& e : v) e = static_cast<int32_t>(rng() % 20001) - 10000;
      return v;
    };
    const auto x = fill(xd), y = fill(yd);
    Dims got_dims;
    const auto got = Binary<int32_t>("Sub", xd, x, yd, y, &got_dims);
    ASSERT_EQ(got_dims, od);
    int64_t total = 1;
    for (int64_t v : od) total *= v;
    ASSERT_EQ(static_cast<int64_t>(got.size()), total);
    std::vector<int64_t> idx(rank, 0);
    for (int64_t i = 0; i < total; ++i) {
      const int32_t want = x[OperandIndex(od, idx, xd)] - y[OperandIndex(od, idx, yd)];
      if (got[i] != want) {
        ADD_FAILURE() << "at flat index " << i << ": " << got[i] << " vs " << want;
        break;
      }
      for (int d = static_cast<int>(rank) - 1; d >= 0 && ++idx[d] == od[d]; --d) idx[d] = 0;
    }
  }
}

TEST(ComparisonOpsTest, ComparisonsAndLogic) {
  const std::vector<float> x{1, 2, 3, kNan}, y{2, 2, 2, kNan};
  using B = std::vector<bool>;
  EXPECT_EQ((Binary<float, bool>("Less", {4}, x, {4}, y)), (B{true, false, false, false}));
  EXPECT_EQ((Binary<float, bool>("LessEqual", {4}, x, {4}, y)), (B{true, true, false, false}));
  EXPECT_EQ((Binary<float, bool>("Greater", {4}, x, {4}, y)), (B{false, false, true, false}));
  EXPECT_EQ((Binary<float, bool>("GreaterEqual", {4}, x, {4}, y)), (B{false, true, true, false}));
  EXPECT_EQ((Binary<float, bool>("Equal", {4}, x, {4}, y)), (B{false, true, false, false}));
  EXPECT_EQ((Binary<float, bool>("NotEqual", {4}, x, {4}, y)), (B{true, false, true, true}));
  EXPECT_EQ((Binary<int64_t, bool>("Greater", {3}, {-1, 5, 9}, {}, {5})), (B{false, false, true}));
  EXPECT_EQ((Binary<bool, bool>("Equal", {2, 1}, {true, false}, {2}, {true, false})),
            (B{true, false, false, true}));
  EXPECT_EQ((Binary<bool, bool>("LogicalAnd", {4}, {true, true, false, false}, {4},
                                {true, false, true, false})),
            (B{true, false, false, false}));
  EXPECT_EQ((Binary<bool, bool>("LogicalOr", {2, 1}, {true, false}, {1, 2}, {true, false})),
            (B{true, true, true, false}));

  // Shapes that do not broadcast: an error by default, or a scalar answer.
  ExpectRunError(OneOp("Equal").In<int32_t>({2}, {1, 2}).In<int32_t>({3}, {1, 2, 3})
      .Attr("T", TF_INT32));
  for (const auto& [op, answer] : {std::pair<const char*, bool>{"Equal", false},
                                   std::pair<const char*, bool>{"NotEqual", true}}) {
    OneOp lenient(op);
    lenient.In<int32_t>({2}, {1, 2}).In<int32_t>({3}, {1, 2, 3}).Attr("T", TF_INT32);
    lenient.Attr("incompatible_shape_error", false);
    ASSERT_EQ(lenient.Run(), TF_OK) << lenient.error();
    EXPECT_EQ(lenient.OutputDims(), Dims{});
    EXPECT_EQ(lenient.Output<bool>(), std::vector<bool>{answer});
  }
}

TEST(UnaryOpsTest, FloatFunctions) {
  ExpectNear(Unary<float>("Exp", {0, 1, -2}), {1, 2.7182818f, 0.13533528f});
  ExpectNear(Unary<float>("Log", {1, 2.7182818f, 0.5f}), {0, 1, -0.69314718f});
  ExpectNear(Unary<float>("Sqrt", {4, 2, 0}), {2, 1.4142136f, 0});
  ExpectNear(Unary<float>("Rsqrt", {4, 0.25f}), {0.5f, 2});
  ExpectNear(Unary<float>("Reciprocal", {4, -0.5f}), {0.25f, -2});
  ExpectNear(Unary<float>("Sigmoid", {0, 2, -2, -100, 100}),
             {0.5f, 0.88079708f, 0.11920292f, 0, 1});
  ExpectNear(Unary<float>("Tanh", {0, 0.5f, -3}), {0, 0.46211716f, -0.99505475f});
  ExpectNear(Unary<float>("Erf", {0, 0.5f, -1}), {0, 0.52049988f, -0.84270079f});
  // Softplus: log(1+e^x), with its large and small tails.
  OneOp softplus("Softplus");
  softplus.In<float>({4}, {0, 1, 20, -20}).Attr("T", TF_FLOAT);
  ASSERT_EQ(softplus.Run(), TF_OK) << softplus.error();
  ExpectNear(softplus.Output<float>(), {0.69314718f, 1.3132616f, 20, 2.0611537e-9f});
  EXPECT_NEAR(softplus.Output<float>()[3], 2.0611537e-9f, 1e-14f);
  EXPECT_EQ(Unary<float>("Floor", {-1.5f, 1.5f, -0.f, 2}), (std::vector<float>{-2, 1, -0.f, 2}));
  EXPECT_EQ(Unary<float>("Ceil", {-1.5f, 1.5f, 2}), (std::vector<float>{-1, 2, 2}));
  EXPECT_NEAR(Unary<double>("Exp", {1}).at(0), 2.718281828459045, 1e-12);
}

TEST(UnaryOpsTest, RoundingSignsAndIntegers) {
  // Round is half-to-even.
  EXPECT_EQ(Unary<float>("Round", {-2.5f, -1.5f, -0.5f, 0.5f, 1.5f, 2.5f, 2.6f, -2.4f}),
            (std::vector<float>{-2, -2, -0.f, 0, 2, 2, 3, -2}));
  EXPECT_EQ(Unary<int32_t>("Round", {-3, 7}), (std::vector<int32_t>{-3, 7}));
  const auto sign = Unary<float>("Sign", {-3, 0, 0.25f, kNan, -kInf});
  EXPECT_EQ(sign, (std::vector<float>{-1, 0, 1, 0, -1}));
  EXPECT_EQ(Unary<int64_t>("Sign", {-9, 0, 4}), (std::vector<int64_t>{-1, 0, 1}));
  const int32_t kMin = std::numeric_limits<int32_t>::min();
  EXPECT_EQ(Unary<int32_t>("Neg", {5, -7, kMin}), (std::vector<int32_t>{-5, 7, kMin}));
  EXPECT_EQ(Unary<int32_t>("Abs", {5, -7, kMin}), (std::vector<int32_t>{5, 7, kMin}));
  EXPECT_EQ(Unary<uint8_t>("Square", {3, 16}), (std::vector<uint8_t>{9, 0}));

  EXPECT_EQ(RunOk<bool>(OneOp("LogicalNot")
      .In<bool>({3}, {true, false, true})), (std::vector<bool>{false, true, false}));
  // Shapes pass through, empty ones included.
  EXPECT_EQ(RunDims(OneOp("Exp").In<float>({2, 0}, {}).Attr("T", TF_FLOAT)), (Dims{2, 0}));
}

// Float Relu and Relu6 run in every real-model golden.
TEST(ActivationOpsTest, Rectifiers) {
  EXPECT_TRUE(std::isnan(Unary<float>("Relu", {kNan})[0]));
  EXPECT_EQ(Unary<int32_t>("Relu", {-4, 4}), (std::vector<int32_t>{0, 4}));
  EXPECT_EQ(Unary<uint8_t>("Relu6", {0, 5, 200}), (std::vector<uint8_t>{0, 5, 6}));

  // alpha and T left to their defaults
  ExpectNear(RunOk<float>(OneOp("LeakyRelu").In<float>({3}, {-1, 0, 2})), {-0.2f, 0, 2});
  // alpha above 1 still selects by sign
  EXPECT_EQ(RunOk<float>(OneOp("LeakyRelu").In<float>({2}, {-1, 3}).Attr("alpha", 2.0f)
      .Attr("T", TF_FLOAT)), (std::vector<float>{-2, 3}));

  ExpectNear(Unary<float>("Elu", {-1, 0, 2}), {-0.63212056f, 0, 2});
  ExpectNear(Unary<float>("Selu", {-1, 0, 2}), {-1.1113307f, 0, 2.101402f});
}

TEST(ActivationOpsTest, SoftmaxOverTheLastAxis) {
  OneOp softmax("Softmax");
  softmax.In<float>({2, 3}, {1, 2, 3, 1000, 1000, 1000}).Attr("T", TF_FLOAT);
  ASSERT_EQ(softmax.Run(), TF_OK) << softmax.error();
  // The second row would overflow exp() without the max shift.
  ExpectNear(softmax.Output<float>(),
             {0.09003057f, 0.24472847f, 0.66524096f, 1 / 3.f, 1 / 3.f, 1 / 3.f});

  OneOp log_softmax("LogSoftmax");
  log_softmax.In<double>({1, 3}, {1, 2, 3}).Attr("T", TF_DOUBLE);
  ASSERT_EQ(log_softmax.Run(), TF_OK) << log_softmax.error();
  const auto ls = log_softmax.Output<double>();
  ASSERT_EQ(ls.size(), 3u);
  EXPECT_NEAR(ls[0], -2.40760596, 1e-7);
  EXPECT_NEAR(ls[1], -1.40760596, 1e-7);
  EXPECT_NEAR(ls[2], -0.40760596, 1e-7);

  EXPECT_EQ(RunDims(OneOp("Softmax").In<float>({3, 0}, {}).Attr("T", TF_FLOAT)), (Dims{3, 0}));

  ExpectRunError(OneOp("Softmax").In<float>({}, {1}).Attr("T", TF_FLOAT));
}

TEST(UnaryOpsTest, TrigSoftsignAndFloatClasses) {
  ExpectNear(Unary<float>("Sin", {0, 1.5707963f, -3}), {0, 1, -0.14112001f});
  ExpectNear(Unary<float>("Cos", {0, 3.1415927f}), {1, -1});
  EXPECT_EQ(Unary<double>("Softsign", {-3, 0, 1}), (std::vector<double>{-0.75, 0, 0.5}));
  // Atan2(y, x) keeps the quadrant.
  ExpectNear(Binary<float>("Atan2", {4}, {1, 1, -1, 0}, {4}, {1, -1, -1, -2}),
             {0.78539816f, 2.35619449f, -2.35619449f, 3.14159265f});
  for (const char* op : {"IsNan", "IsFinite"}) {
    OneOp o(op);
    o.In<float>({5}, {1, kNan, kInf, -kInf, -0.f}).Attr("T", TF_FLOAT);
    ASSERT_EQ(o.Run(), TF_OK) << o.error();
    EXPECT_EQ(o.OutputType(), TF_BOOL);
    const std::vector<bool> want = std::string(op) == "IsNan"
                                       ? std::vector<bool>{false, true, false, false, false}
                                       : std::vector<bool>{true, false, false, false, true};
    EXPECT_EQ(o.Output<bool>(), want) << op;
  }
  OneOp int_sin("Sin");
  int_sin.In<int32_t>({1}, {1}).Attr("T", TF_INT32);
  EXPECT_NE(int_sin.Run(), TF_OK);
}

TEST(BinaryOpsTest, BitwiseAndShiftsLikeTensorFlow) {
  // TensorFlow's documented examples: shifts of int8 wrap, and counts out of
  // [0, bits) are clamped.
  EXPECT_EQ(Binary<int8_t>("LeftShift", {4}, {-1, -5, -3, -14}, {4}, {5, 0, 7, 11}),
            (std::vector<int8_t>{-32, -5, -128, 0}));
  EXPECT_EQ(Binary<int16_t>("LeftShift", {4}, {-1, -5, -3, -14}, {4}, {5, 0, 7, 11}),
            (std::vector<int16_t>{-32, -5, -384, -28672}));
  EXPECT_EQ(Binary<int8_t>("LeftShift", {4}, {-2, 64, 101, 32}, {4}, {-1, -5, -3, -14}),
            (std::vector<int8_t>{-2, 64, 101, 32}));
  EXPECT_EQ(Binary<int8_t>("RightShift", {4}, {-1, -5, -3, -14}, {4}, {5, 0, 7, 11}),
            (std::vector<int8_t>{-1, -5, -1, -1}));
  EXPECT_EQ(Binary<uint8_t>("RightShift", {3}, {255, 128, 7}, {1}, {9}),
            (std::vector<uint8_t>{1, 1, 0}));
  // y broadcasts along the rows of x.
  const std::vector<int32_t> x{12, -1, 0, 5}, y{10, -8};
  EXPECT_EQ(Binary<int32_t>("BitwiseAnd", {2, 2}, x, {2}, y), (std::vector<int32_t>{8, -8, 0, 0}));
  EXPECT_EQ(Binary<int32_t>("BitwiseOr", {2, 2}, x, {2}, y),
            (std::vector<int32_t>{14, -1, 10, -3}));
  EXPECT_EQ(Binary<int32_t>("BitwiseXor", {2, 2}, x, {2}, y), (std::vector<int32_t>{6, 7, 10, -3}));
  OneOp float_and("BitwiseAnd");
  float_and.In<float>({1}, {1}).In<float>({1}, {1}).Attr("T", TF_FLOAT);
  EXPECT_NE(float_and.Run(), TF_OK);
}

TEST(SelectOpsTest, ClipSelectAndSelectV2) {
  OneOp clip("ClipByValue");
  clip.In<float>({2, 3}, {-5, 0.5f, 7, kNan, 2, -1}).In<float>({}, {0}).In<float>({}, {2})
      .Attr("T", TF_FLOAT);
  ASSERT_EQ(clip.Run(), TF_OK) << clip.error();
  auto c = clip.Output<float>();
  ASSERT_EQ(c.size(), 6u);
  EXPECT_TRUE(std::isnan(c[3]));
  c[3] = -9;
  EXPECT_EQ(c, (std::vector<float>{0, 0.5f, 2, -9, 2, 0}));
  // Per-element bounds; where min > max the minimum wins.
  EXPECT_EQ(RunOk<int32_t>(OneOp("ClipByValue").In<int32_t>({3}, {5, 5, 5})
      .In<int32_t>({3}, {0, 6, 9}).In<int32_t>({3}, {4, 8, 1})
      .Attr("T", TF_INT32)), (std::vector<int32_t>{4, 6, 9}));
  ExpectRunError(OneOp("ClipByValue").In<float>({3}, {1, 2, 3}).In<float>({2}, {0, 0})
      .In<float>({}, {1}).Attr("T", TF_FLOAT));

  // Select: a vector condition picks whole rows.
  EXPECT_EQ(RunOk<int32_t>(OneOp("Select").In<bool>({2}, {true, false})
      .In<int32_t>({2, 2}, {1, 2, 3, 4}).In<int32_t>({2, 2}, {5, 6, 7, 8})
      .Attr("T", TF_INT32)), (std::vector<int32_t>{1, 2, 7, 8}));
  EXPECT_EQ(RunOk<float>(OneOp("Select").In<bool>({3}, {false, true, false})
      .In<float>({3}, {1, 2, 3}).In<float>({3}, {4, 5, 6})
      .Attr("T", TF_FLOAT)), (std::vector<float>{4, 2, 6}));
  ExpectRunError(OneOp("Select").In<bool>({3}, {true, true, true}).In<float>({2}, {1, 2})
      .In<float>({2}, {3, 4}).Attr("T", TF_FLOAT));

  // SelectV2 broadcasts all three: cond [2,1], then [3], else scalar.
  ExpectOutput<float>(OneOp("SelectV2").In<bool>({2, 1}, {true, false}).In<float>({3}, {1, 2, 3})
      .In<float>({}, {-1}).Attr("T", TF_FLOAT), {2, 3}, (std::vector<float>{1, 2, 3, -1, -1, -1}));
  ExpectRunError(OneOp("SelectV2").In<bool>({2}, {true, false}).In<float>({3}, {1, 2, 3})
      .In<float>({}, {0}).Attr("T", TF_FLOAT));
}

// Cumsum in each mode, along the last axis and (negatively named) the first.
TEST(ScanOpsTest, CumsumModesAndAxes) {
  struct Case { int32_t axis; bool exclusive, reverse; std::vector<int32_t> want; };
  for (const Case& c : {Case{1, false, false, {1, 3, 6, 4, 9, 15}},
                        Case{1, true, false, {0, 1, 3, 0, 4, 9}},
                        Case{1, false, true, {6, 5, 3, 15, 11, 6}},
                        Case{1, true, true, {5, 3, 0, 11, 6, 0}},
                        Case{-2, false, false, {1, 2, 3, 5, 7, 9}},
                        Case{-2, true, true, {4, 5, 6, 0, 0, 0}}}) {
    EXPECT_EQ(RunOk<int32_t>(OneOp("Cumsum").In<int32_t>({2, 3}, {1, 2, 3, 4, 5, 6})
        .In<int64_t>({}, {c.axis}).Attr("T", TF_INT32).Attr("Tidx", TF_INT64)
        .Attr("exclusive", c.exclusive).Attr("reverse", c.reverse)), c.want)
        << c.axis << c.exclusive << c.reverse;
  }
  ExpectRunError(OneOp("Cumsum").In<float>({2}, {1, 2}).In<int32_t>({}, {1}).Attr("T", TF_FLOAT)
      .Attr("Tidx", TF_INT32));
  ExpectRunError(OneOp("Cumsum").In<float>({}, {1}).In<int32_t>({}, {0}).Attr("T", TF_FLOAT)
      .Attr("Tidx", TF_INT32));
}

TEST(ReductionOpsTest, L2LossIsHalfTheSumOfSquares) {
  OneOp op("L2Loss");
  op.In<float>({2, 2}, {1, -2, 3, 0.5f}).Attr("T", TF_FLOAT);
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  EXPECT_EQ(op.OutputDims(), (Dims{}));
  ExpectNear(op.Output<float>(), {7.125f});
  EXPECT_EQ(RunOk<double>(OneOp("L2Loss").In<double>({0}, {})
      .Attr("T", TF_DOUBLE)), (std::vector<double>{0}));
}

}  // namespace
