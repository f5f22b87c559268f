// Tanh and Sigmoid on float tensors large enough for the vectorised path
// (cut into pieces across threads) agree with the scalar definitions,
// including the extremes and special values.
#include <cmath>
#include <limits>
#include <vector>

#include "one_op.h"

namespace {

using testing_support::OneOp;

std::vector<float> Inputs() {
  std::vector<float> x;
  // An odd count, so that the pieces differ in size.
  for (int i = 0; i < 100001; ++i) x.push_back(-40.0f + 80.0f * i / 100000);
  const float inf = std::numeric_limits<float>::infinity();
  for (float v : {0.0f, -0.0f, 1e-30f, -1e-30f, 88.0f, -88.0f, 1e30f, -1e30f, inf, -inf}) {
    x.push_back(v);
  }
  x.push_back(std::numeric_limits<float>::quiet_NaN());
  return x;
}

void ExpectMatches(const char* op_name, float (*scalar)(float)) {
  const std::vector<float> x = Inputs();
  OneOp op(op_name);
  op.In<float>({static_cast<int64_t>(x.size())}, x).Attr("T", TF_FLOAT);
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  const std::vector<float> y = op.Output<float>();
  ASSERT_EQ(y.size(), x.size());
  int bad = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const float want = scalar(x[i]);
    if (std::isnan(want)) {
      if (!std::isnan(y[i]) && ++bad < 5) ADD_FAILURE() << op_name << "(NaN) = " << y[i];
      continue;
    }
    if (!(std::fabs(y[i] - want) <= 2e-6f + 1e-5f * std::fabs(want)) && ++bad < 5) {
      ADD_FAILURE() << op_name << "(" << x[i] << ") = " << y[i] << ", want " << want;
    }
  }
  EXPECT_EQ(bad, 0);
}

TEST(ActivationFastPathTest, TanhMatchesScalar) {
  ExpectMatches("Tanh", [](float v) { return std::tanh(v); });
}

TEST(ActivationFastPathTest, SigmoidMatchesScalar) {
  ExpectMatches("Sigmoid", [](float v) { return 1.0f / (1.0f + std::exp(-v)); });
}

}  // namespace
