// Matrix products, bias addition, convolutions and pooling: hand-computed
// results through the C API, the error paths, and the oneDNN paths checked
// against the reference loops on seeded random data.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "kernels/dnnl/conv.h"
#include "kernels/dnnl/conv_chain.h"
#include "kernels/dnnl/conv_transpose.h"
#include "kernels/dnnl/gemm.h"
#include "kernels/dnnl/pool.h"
#include "kernels/reference_ops.h"
#include "kernels/window_geometry.h"
#include "thread_pool.h"
#include "one_op.h"
#include "support/required_data.h"

namespace {

using testing_support::Dims;
using testing_support::ExpectNear;
using testing_support::ExpectOutput;
using testing_support::ExpectRunError;
using testing_support::OneOp;
using testing_support::RunDims;
using testing_support::RunOk;
using L = std::vector<int64_t>;
using F = std::vector<float>;

const F kA = {1, 2, 3, 4, 5, 6};        // [[1,2,3],[4,5,6]]
const F kB = {7, 8, 9, 10, 11, 12};     // [[7,8],[9,10],[11,12]]
const F kAB = {58, 64, 139, 154};

TEST(MatMulOpsTest, TransposesDtypesAndBadShapes) {
  const F a_t = {1, 4, 2, 5, 3, 6};     // kA stored transposed, [3,2]
  const F b_t = {7, 9, 11, 8, 10, 12};  // kB stored transposed, [2,3]
  struct Case { bool ta, tb; Dims da, db; F a, b; };
  for (const Case& c : {Case{false, false, {2, 3}, {3, 2}, kA, kB},
                        Case{true, true, {3, 2}, {2, 3}, a_t, b_t}}) {
    OneOp op("MatMul");
    op.In<float>(c.da, c.a).In<float>(c.db, c.b).Attr("T", TF_FLOAT)
        .Attr("transpose_a", c.ta).Attr("transpose_b", c.tb);
    ASSERT_EQ(op.Run(), TF_OK) << op.error();
    EXPECT_EQ(op.OutputDims(), (Dims{2, 2}));
    EXPECT_EQ(op.Output<float>(), kAB) << c.ta << c.tb;
  }
  EXPECT_EQ(RunOk<int32_t>(OneOp("MatMul").In<int32_t>({2, 3}, {1, 2, 3, 4, 5, 6})
      .In<int32_t>({3, 2}, {7, 8, 9, 10, 11, 12})
      .Attr("T", TF_INT32)), (std::vector<int32_t>{58, 64, 139, 154}));
  EXPECT_EQ(RunOk<double>(OneOp("MatMul").In<double>({1, 2}, {0.5, -2})
      .In<double>({2, 1}, {4, 0.25}).Attr("T", TF_DOUBLE)), (std::vector<double>{1.5}));
  // An empty inner dimension sums nothing: zeros, not garbage.
  ExpectOutput<float>(OneOp("MatMul").In<float>({2, 0}, {}).In<float>({0, 3}, {})
      .Attr("T", TF_FLOAT), {2, 3}, F(6, 0.0f));
  ExpectRunError(OneOp("MatMul").In<float>({6}, kA).In<float>({3, 2}, kB).Attr("T", TF_FLOAT));
  // transpose_b makes [3,2] x [2,3]^T mismatch.
  ExpectRunError(OneOp("MatMul").In<float>({2, 3}, kA).In<float>({3, 2}, kB).Attr("T", TF_FLOAT)
      .Attr("transpose_b", true));
}

TEST(MatMulOpsTest, BatchMatMulBroadcastsAndAdjoints) {
  // x: two 2x2 matrices; y: one 2x2 matrix broadcast over them.
  const F x = {1, 2, 3, 4, 0, 1, 1, 0};
  const F expected = {19, 22, 43, 50, 7, 8, 5, 6};
  ExpectOutput<float>(OneOp("BatchMatMulV2").In<float>({2, 2, 2}, x).In<float>({2, 2}, {5, 6, 7, 8})
      .Attr("T", TF_FLOAT), {2, 2, 2}, expected);
  EXPECT_EQ(RunOk<float>(OneOp("BatchMatMulV2").In<float>({2, 2, 2}, x)
      .In<float>({1, 2, 2}, {5, 7, 6, 8}).Attr("T", TF_FLOAT).Attr("adj_y", true)), expected);
  // [2,1,1,2] x [3,2,1] broadcasts to [2,3,1,1].
  ExpectOutput<int32_t>(OneOp("BatchMatMulV2").In<int32_t>({2, 1, 1, 2}, {1, 2, 10, 20})
      .In<int32_t>({3, 2, 1}, {1, 1, 2, 0, 0, 3})
      .Attr("T", TF_INT32), {2, 3, 1, 1}, (std::vector<int32_t>{3, 2, 6, 30, 20, 60}));

  ExpectRunError(OneOp("BatchMatMulV2").In<float>({2, 2, 2}, x).In<float>({3, 2, 2}, F(12, 1))
      .Attr("T", TF_FLOAT));
  // the first version does not broadcast
  ExpectRunError(OneOp("BatchMatMul").In<float>({2, 2, 2}, x).In<float>({1, 2, 2}, {5, 6, 7, 8})
      .Attr("T", TF_FLOAT));
}

TEST(MatMulOpsTest, BiasAddAlongTheChannelDimension) {
  EXPECT_EQ(RunOk<float>(OneOp("BiasAdd").In<float>({1, 3, 2}, {0, 1, 2, 3, 4, 5})
      .In<float>({3}, {10, 20, 30}).Attr("T", TF_FLOAT)
      .Attr("data_format", "NCHW")), (F{10, 11, 22, 23, 34, 35}));
  EXPECT_EQ(RunOk<int32_t>(OneOp("BiasAdd").In<int32_t>({2, 2}, {1, 2, 3, 4})
      .In<int32_t>({2}, {-1, 100}).Attr("T", TF_INT32)), (std::vector<int32_t>{0, 102, 2, 104}));

  ExpectRunError(OneOp("BiasAdd").In<float>({2, 3}, kA).In<float>({2}, {1, 2}).Attr("T", TF_FLOAT));
  ExpectRunError(OneOp("BiasAdd").In<float>({3}, {1, 2, 3}).In<float>({3}, {1, 2, 3})
      .Attr("T", TF_FLOAT));
}

// A 3x3 single-channel image 1..9 and the 2x2 filter [[1,0],[0,1]], so each
// output is in(y, x) + in(y + 1, x + 1) relative to the window's corner.
const F kImage = {1, 2, 3, 4, 5, 6, 7, 8, 9};
const F kDiag = {1, 0, 0, 1};

// Float convolutions at every padding, stride and dilation are checked
// against TF.js's results and, on oneDNN, against the reference loops below.
TEST(ConvOpsTest, IntegersAndEmptyBatches) {
  EXPECT_EQ(RunOk<int32_t>(OneOp("Conv2D").In<int32_t>({1, 3, 3, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9})
      .In<int32_t>({2, 2, 1, 1}, {1, 0, 0, 1}).Attr("T", TF_INT32).Attr("padding", "VALID")
      .Attr("strides", L{1, 1, 1, 1})), (std::vector<int32_t>{6, 8, 12, 14}));
  // An empty batch gives an empty output of the right shape.
  EXPECT_EQ(RunDims(OneOp("Conv2D").In<float>({0, 3, 3, 1}, {}).In<float>({2, 2, 1, 1}, kDiag)
      .Attr("T", TF_FLOAT).Attr("padding", "VALID")
      .Attr("strides", L{1, 1, 1, 1})), (Dims{0, 2, 2, 1}));
}

TEST(ConvOpsTest, RejectsBadInputsAndAttributes) {
  auto conv = [](auto&& op, Dims in, Dims filter) -> OneOp& {
    int64_t n_in = 1, n_f = 1;
    for (int64_t d : in) n_in *= d;
    for (int64_t d : filter) n_f *= d;
    return static_cast<OneOp&>(op).In<float>(in, F(n_in, 1)).In<float>(filter, F(n_f, 1))
        .Attr("T", TF_FLOAT).Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID");
  };
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 3}, {1, 1, 2, 4}));
  // as TensorFlow's CPU kernel: no grouped convolution
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 4}, {1, 1, 2, 4}), TF_UNIMPLEMENTED);
  // a 3x3 window does not fit a 1x1 image
  ExpectRunError(conv(OneOp("Conv2D"), {1, 1, 1, 1}, {3, 3, 1, 1}));
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 1}, {1, 1, 1, 1}).Attr("strides", L{2, 1, 1, 1}));
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 1}, {1, 1, 1, 1}).Attr("strides", L{1, 1}));
  // explicit paddings without EXPLICIT
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 1}, {1, 1, 1, 1})
      .Attr("explicit_paddings", L{0, 0, 1, 1, 1, 1, 0, 0}));
  ExpectRunError(conv(OneOp("Conv2D"), {1, 3, 3, 1}, {1, 1, 1, 1}).Attr("padding", "EXPLICIT")
      .Attr("explicit_paddings", L{0, 0, 1, 1, 1, 1, 0, 1}));
  ExpectRunError(conv(OneOp("Conv2D"), {1, 1, 3, 3}, {1, 1, 1, 1})
      .Attr("data_format", "NCHW"), TF_UNIMPLEMENTED);
}

// Float values at every padding and stride are checked against TF.js.
TEST(ConvOpsTest, DepthwiseDoublesAndChannelMismatch) {
  EXPECT_EQ(RunOk<double>(OneOp("DepthwiseConv2dNative").In<double>({1, 1, 1, 2}, {2, 3})
      .In<double>({1, 1, 2, 1}, {0.5, -1}).Attr("T", TF_DOUBLE).Attr("padding", "VALID")
      .Attr("strides", L{1, 1, 1, 1})), (std::vector<double>{1, -3}));

  ExpectRunError(OneOp("DepthwiseConv2dNative").In<float>({1, 2, 2, 2}, F(8, 1))
      .In<float>({1, 1, 3, 1}, {1, 1, 1}).Attr("T", TF_FLOAT).Attr("padding", "VALID")
      .Attr("strides", L{1, 1, 1, 1}));
}

template <typename O> OneOp& Pool(O&& op, const F& image, L ksize, L strides, const char* padding) {
  return static_cast<OneOp&>(op).In<float>({1, 3, 3, 1}, image).Attr("T", TF_FLOAT)
      .Attr("ksize", ksize).Attr("strides", strides).Attr("padding", padding);
}

// SAME and VALID windows are checked against TF.js; here the integer path
// and explicit padding, which must never win a maximum.
TEST(PoolingOpsTest, MaxPoolIntegersAndExplicitPadding) {
  const F negative = {-1, -2, -3, -4, -5, -6, -7, -8, -9};
  EXPECT_EQ(RunOk<int32_t>(OneOp("MaxPool").In<int32_t>({1, 1, 4, 2}, {1, -1, 5, -5, 2, -2, 0, 7})
      .Attr("T", TF_INT32).Attr("ksize", L{1, 1, 2, 1}).Attr("strides", L{1, 1, 2, 1})
      .Attr("padding", "VALID")), (std::vector<int32_t>{5, -1, 2, 7}));
  OneOp explicit_pad("MaxPool");
  Pool(explicit_pad, negative, {1, 1, 1, 1}, {1, 1, 1, 1}, "EXPLICIT")
      .Attr("explicit_paddings", L{0, 0, 1, 0, 0, 0, 0, 0});
  ASSERT_EQ(explicit_pad.Run(), TF_OK) << explicit_pad.error();
  EXPECT_EQ(explicit_pad.OutputDims(), (Dims{1, 4, 3, 1}));
  const float lowest = std::numeric_limits<float>::lowest();
  EXPECT_EQ(explicit_pad.Output<float>(),
            (F{lowest, lowest, lowest, -1, -2, -3, -4, -5, -6, -7, -8, -9}));
}

TEST(PoolingOpsTest, RejectsBadInputsAndAttributes) {
  ExpectRunError(OneOp("MaxPool").In<float>({3, 3, 1}, kImage).Attr("T", TF_FLOAT)
      .Attr("ksize", L{1, 2, 2, 1}).Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID"));
  ExpectRunError(Pool(OneOp("AvgPool"), kImage, {1, 0, 2, 1}, {1, 1, 1, 1}, "VALID"));
  ExpectRunError(Pool(OneOp("MaxPool"), kImage, {1, 1, 2, 2}, {1, 1, 1, 1}, "VALID")
      .Attr("data_format", "NCHW"));
}

// ---- oneDNN against the reference loops ----

F RandomVector(std::mt19937& rng, int64_t n) {
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  F v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

void ExpectClose(const F& fast, const F& ref) {
  ASSERT_EQ(fast.size(), ref.size());
  for (size_t i = 0; i < ref.size(); ++i) {
    ASSERT_NEAR(fast[i], ref[i], 1e-4f * std::max(1.0f, std::fabs(ref[i]))) << "at " << i;
  }
}

struct WindowCase { int64_t batch, h, w, c, kh, kw, out_c, groups; minitf::WindowAttrs attrs; };

minitf::WindowAttrs Attrs(minitf::Padding padding, int64_t stride, int64_t dil = 1,
                          int64_t k = 1, L pads = {0, 0, 0, 0}) {
  minitf::WindowAttrs a;
  a.padding = padding;
  a.stride_h = stride;
  a.stride_w = stride + (stride > 1 ? 1 : 0);  // unequal strides on purpose
  a.dil_h = a.dil_w = dil;
  a.k_h = a.k_w = k;
  a.pad_top = pads[0];
  a.pad_bottom = pads[1];
  a.pad_left = pads[2];
  a.pad_right = pads[3];
  return a;
}

minitf::WindowGeometry Geometry(const WindowCase& c) {
  minitf::WindowGeometry g;
  g.batch = c.batch;
  g.in_h = c.h;
  g.in_w = c.w;
  g.in_c = c.c;
  g.k_h = c.kh;
  g.k_w = c.kw;
  g.out_c = c.out_c;
  g.groups = c.groups;
  const std::string name = "differential";
  minitf::OpContext ctx(name, {}, {}, nullptr);
  minitf::Status s = minitf::ComputeWindow(ctx, c.attrs, &g);
  EXPECT_TRUE(s.ok()) << s.message();
  return g;
}

TEST(DnnlDifferentialTest, ConvolutionsMatchReference) {
  if (!minitf::DnnlAvailable()) SKIP_OR_FAIL_WITHOUT_DATA("built without oneDNN");
  using minitf::Padding;
  const WindowCase cases[] = {
      {2, 7, 9, 3, 3, 3, 5, 1, Attrs(Padding::kSame, 1)},
      {1, 11, 8, 4, 3, 2, 7, 1, Attrs(Padding::kValid, 2)},
      {3, 9, 10, 5, 3, 3, 6, 1, Attrs(Padding::kExplicit, 1, 2, 1, {2, 1, 0, 3})},
      {1, 6, 7, 6, 3, 3, 9, 3, Attrs(Padding::kSame, 2)},    // 3 groups of 2 -> 3
      {2, 9, 9, 5, 3, 3, 10, 5, Attrs(Padding::kSame, 1)},   // depthwise, multiplier 2
      {1, 13, 13, 8, 5, 5, 8, 8, Attrs(Padding::kSame, 2)},  // depthwise, stride 2
      {1, 5, 5, 17, 1, 1, 33, 1, Attrs(Padding::kValid, 1)},
  };
  std::mt19937 rng(1234);
  for (const WindowCase& c : cases) {
    const minitf::WindowGeometry g = Geometry(c);
    const F in = RandomVector(rng, g.batch * g.in_h * g.in_w * g.in_c);
    const F filter = RandomVector(rng, g.k_h * g.k_w * (g.in_c / g.groups) * g.out_c);
    F ref(g.batch * g.out_h * g.out_w * g.out_c), fast(ref.size(), -7.0f);
    minitf::reference::Conv2D<float>(g, in.data(), filter.data(), ref.data(), nullptr);
    minitf::DnnlConv2D conv;
    ASSERT_TRUE(conv.Run(g, in.data(), filter.data(), fast.data()));
    ExpectClose(fast, ref);
    // The cached primitive gives the same again.
    std::fill(fast.begin(), fast.end(), -7.0f);
    ASSERT_TRUE(conv.Run(g, in.data(), filter.data(), fast.data()));
    ExpectClose(fast, ref);
  }
}

// The fused primitive against the reference convolution followed by the
// same bias, activations and residual, computed here element by element.
TEST(DnnlDifferentialTest, FusedChainMatchesReferenceSteps) {
  if (!minitf::DnnlAvailable()) SKIP_OR_FAIL_WITHOUT_DATA("built without oneDNN");
  using minitf::ConvPostOp;
  using minitf::Padding;
  auto apply = [](const ConvPostOp& op, float v, float residual) {
    switch (op.kind) {
      case ConvPostOp::kRelu: return std::max(v, 0.0f);
      case ConvPostOp::kRelu6: return std::min(std::max(v, 0.0f), 6.0f);
      case ConvPostOp::kLeakyRelu: return v < 0 ? v * op.alpha : v;
      case ConvPostOp::kElu: return v < 0 ? std::expm1(v) : v;
      case ConvPostOp::kSigmoid: return 1.0f / (1.0f + std::exp(-v));
      case ConvPostOp::kTanh: return std::tanh(v);
      case ConvPostOp::kAddResidual: return v + residual;
      case ConvPostOp::kClip: return std::min(std::max(v, op.alpha), op.beta);
    }
    return v;
  };
  const std::vector<std::vector<ConvPostOp>> chains = {
      {},
      {{ConvPostOp::kRelu6}},
      {{ConvPostOp::kLeakyRelu, 0.2f}, {ConvPostOp::kClip, -0.1f, 0.4f}},
      {{ConvPostOp::kAddResidual}, {ConvPostOp::kRelu}},
      {{ConvPostOp::kLeakyRelu, 0.1f}, {ConvPostOp::kAddResidual}},
      {{ConvPostOp::kElu}},
      {{ConvPostOp::kSigmoid}},
      {{ConvPostOp::kTanh}},
  };
  // Small calls run whole; large ones are cut into bands of output rows
  // (batch 1, padding falling to the first and last band) or into images.
  const WindowCase cases[] = {
      {1, 9, 8, 6, 3, 3, 10, 1, Attrs(Padding::kSame, 1)},
      {2, 9, 9, 5, 3, 3, 10, 5, Attrs(Padding::kSame, 2)},  // depthwise, multiplier 2
      {1, 40, 20, 8, 3, 3, 16, 1, Attrs(Padding::kSame, 1)},
      {1, 50, 30, 8, 3, 3, 16, 1, Attrs(Padding::kExplicit, 2, 1, 1, {2, 1, 0, 3})},
      {1, 45, 20, 8, 5, 3, 16, 1, Attrs(Padding::kValid, 1, 2)},
      {3, 20, 20, 8, 3, 3, 16, 1, Attrs(Padding::kSame, 1)},
      {1, 40, 40, 64, 3, 3, 64, 64, Attrs(Padding::kSame, 1)},  // depthwise
  };
  std::mt19937 rng(4321);
  for (const WindowCase& c : cases) {
    const minitf::WindowGeometry g = Geometry(c);
    const F in = RandomVector(rng, g.batch * g.in_h * g.in_w * g.in_c);
    const F filter = RandomVector(rng, g.k_h * g.k_w * (g.in_c / g.groups) * g.out_c);
    const F bias = RandomVector(rng, g.out_c);
    const int64_t out_size = g.batch * g.out_h * g.out_w * g.out_c;
    const F residual = RandomVector(rng, out_size);
    F conv(out_size);
    minitf::reference::Conv2D<float>(g, in.data(), filter.data(), conv.data(), nullptr);
    for (size_t k = 0; k < chains.size(); ++k) {
      for (bool with_bias : {true, false}) {
        F ref(out_size);
        for (int64_t i = 0; i < out_size; ++i) {
          float v = conv[i] + (with_bias ? bias[i % g.out_c] : 0.0f);
          for (const ConvPostOp& op : chains[k]) v = apply(op, v, residual[i]);
          ref[i] = v;
        }
        minitf::DnnlConvChain chain(filter.data(), with_bias ? bias.data() : nullptr, chains[k]);
        for (int threads : {1, 2, 3}) {
          minitf::ThreadPool pool(threads);
          F fast = residual;  // the residual is summed in place
          ASSERT_TRUE(chain.Run(g, in.data(), fast.data(), &pool)) << "chain " << k;
          SCOPED_TRACE("chain " + std::to_string(k) + (with_bias ? " with bias" : ""));
          ExpectClose(fast, ref);
        }
      }
    }
  }
}

TEST(DnnlDifferentialTest, TransposedConvolutionsMatchReference) {
  if (!minitf::DnnlAvailable()) SKIP_OR_FAIL_WITHOUT_DATA("built without oneDNN");
  using minitf::Padding;
  // The forward convolutions whose input gradient is computed.
  const WindowCase cases[] = {
      {1, 8, 8, 4, 3, 3, 6, 1, Attrs(Padding::kSame, 2)},
      {2, 7, 9, 3, 4, 4, 5, 1, Attrs(Padding::kValid, 2)},
      {1, 9, 10, 5, 3, 2, 4, 1, Attrs(Padding::kExplicit, 1, 2, 1, {1, 2, 0, 1})},
      {1, 16, 16, 8, 2, 2, 8, 1, Attrs(Padding::kValid, 2)},
  };
  std::mt19937 rng(77);
  for (const WindowCase& c : cases) {
    const minitf::WindowGeometry g = Geometry(c);
    const F dy = RandomVector(rng, g.batch * g.out_h * g.out_w * g.out_c);
    const F filter = RandomVector(rng, g.k_h * g.k_w * g.in_c * g.out_c);
    F ref(g.batch * g.in_h * g.in_w * g.in_c), fast(ref.size(), -7.0f);
    minitf::reference::ConvTranspose<float>(g, dy.data(), filter.data(), ref.data(), nullptr);
    minitf::DnnlConvTranspose deconv;
    ASSERT_TRUE(deconv.Run(g, dy.data(), filter.data(), fast.data()));
    ExpectClose(fast, ref);
  }
}

TEST(DnnlDifferentialTest, PoolingMatchesReference) {
  if (!minitf::DnnlAvailable()) SKIP_OR_FAIL_WITHOUT_DATA("built without oneDNN");
  using minitf::Padding;
  const WindowCase cases[] = {
      {2, 7, 9, 3, 3, 3, 3, 1, Attrs(Padding::kSame, 2, 1, 3)},
      {1, 8, 11, 5, 2, 2, 5, 1, Attrs(Padding::kValid, 2, 1, 2)},
      {1, 10, 10, 17, 3, 3, 17, 1, Attrs(Padding::kSame, 1, 1, 3)},
      {3, 6, 5, 2, 2, 2, 2, 1, Attrs(Padding::kExplicit, 1, 1, 2, {1, 0, 1, 1})},
  };
  std::mt19937 rng(99);
  for (const WindowCase& c : cases) {
    const minitf::WindowGeometry g = Geometry(c);
    const F in = RandomVector(rng, g.batch * g.in_h * g.in_w * g.in_c);
    for (bool max : {true, false}) {
      F ref(g.batch * g.out_h * g.out_w * g.in_c), fast(ref.size(), -7.0f);
      if (max) {
        minitf::reference::MaxPool<float>(g, in.data(), ref.data(), nullptr);
      } else {
        minitf::reference::AvgPool<float>(g, in.data(), ref.data(), nullptr);
      }
      minitf::DnnlPool pool(max);
      ASSERT_TRUE(pool.Run(g, in.data(), fast.data())) << max;
      ExpectClose(fast, ref);
    }
  }
}

TEST(DnnlDifferentialTest, GemmMatchesReference) {
  if (!minitf::DnnlAvailable()) SKIP_OR_FAIL_WITHOUT_DATA("built without oneDNN");
  std::mt19937 rng(7);
  const int64_t m = 17, n = 13, k = 29;
  const F a = RandomVector(rng, m * k), b = RandomVector(rng, k * n);
  for (bool ta : {false, true}) {
    for (bool tb : {false, true}) {
      F ref(m * n), fast(m * n, -7.0f);
      minitf::reference::Gemm<float>(ta, tb, m, n, k, a.data(), b.data(), ref.data(), nullptr);
      ASSERT_TRUE(minitf::DnnlGemm(ta, tb, m, n, k, a.data(), b.data(), fast.data()));
      ExpectClose(fast, ref);
    }
  }
}

// One session run from several threads at once shares the kernel's
// primitive cache; every thread must see the right result.
TEST(DnnlDifferentialTest, ConcurrentRunsShareOneKernel) {
  testing_support::GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Const<float>("w", {2, 2, 1, 1}, kDiag);
  g.Node("Conv2D", "conv").Input("x").Input("w").Attr("T", TF_FLOAT)
      .Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID");
  testing_support::TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  std::mutex mu;
  std::string first_error;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        // Alternate two image sizes so the cache is filled concurrently.
        const bool big = (i + t) % 2 == 0;
        F image = big ? F{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16} : kImage;
        const F expected = big ? F{7, 9, 11, 15, 17, 19, 23, 25, 27} : F{6, 8, 12, 14};
        const int64_t side = big ? 4 : 3;
        for (float& v : image) v += t;
        auto x = testing_support::MakeTensor<float>({1, side, side, 1}, image);
        std::vector<testing_support::TensorPtr> out;
        if (s.Run({{"x", x.get()}}, {"conv"}, &out) != TF_OK) {
          ++failures[t];
          continue;
        }
        F got = testing_support::Values<float>(out[0].get());
        F want = expected;
        for (float& v : want) v += 2 * t;
        if (got != want) {
          ++failures[t];
          std::lock_guard<std::mutex> lock(mu);
          first_error = ::testing::PrintToString(got) + " instead of " +
                        ::testing::PrintToString(want);
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0)) << first_error;
}

// Einsum's matrix forms: batched, with the second operand transposed, with
// an ellipsis, and a plain matmul with a transposed output.
TEST(EinsumOpsTest, MatrixForms) {
  struct Case { const char* eq; Dims b_dims; };
  for (const Case& c : {Case{"bij,bjk->bik", {2, 2, 1}}, Case{"bij,bkj->bik", {2, 1, 2}},
                        Case{"...ij,...jk->...ik", {2, 2, 1}}}) {
    // [1 2] . [1 1] and [3 4] . [2 0]
    ExpectOutput<int32_t>(OneOp("Einsum").In<int32_t>({2, 1, 2}, {1, 2, 3, 4})
        .In<int32_t>(c.b_dims, {1, 1, 2, 0}).Attr("T", TF_INT32).Attr("N", 2)
        .Attr("equation", c.eq), {2, 1, 1}, std::vector<int32_t>{3, 6});
  }
  EXPECT_EQ(RunOk<int32_t>(OneOp("Einsum").In<int32_t>({2, 3}, {1, 2, 3, 4, 5, 6})
      .In<int32_t>({3, 2}, {1, 0, 0, 1, 1, 1}).Attr("T", TF_INT32).Attr("N", 2)
      .Attr("equation", "ij,jk->ki")), (std::vector<int32_t>{4, 10, 5, 11}));
  // Forms outside the matrix ones.
  for (const char* eq : {"ii,ij->j", "ij,jk"}) {  // a trace; an implicit output
    EXPECT_NE(OneOp("Einsum").In<float>({2, 2}, F(4, 1)).In<float>({2, 2}, F(4, 1))
                  .Attr("T", TF_FLOAT).Attr("N", 2).Attr("equation", eq).Run(), TF_OK) << eq;
  }
}

// Conv3D with one spatial dim of size 1 is Conv2D, with the unit dim placed
// in each of the three positions.
TEST(Window3DOpsTest, ReduceToTheTwoDimensionalOps) {
  std::mt19937 rng(31);
  auto random = [&](size_t n) { return RandomVector(rng, static_cast<int64_t>(n)); };
  const int64_t N = 2, H = 6, W = 5, C = 3, O = 4;
  const auto x = random(N * H * W * C);
  const auto f = random(3 * 2 * C * O);
  auto insert_unit = [](L dims, int64_t at) {  // a 1 at position `at`
    dims.insert(dims.begin() + at, 1);
    return dims;
  };
  for (const char* padding : {"SAME", "VALID"}) {
    for (int64_t stride : {1, 2}) {
      OneOp conv2d("Conv2D");
      conv2d.In<float>({N, H, W, C}, x).In<float>({3, 2, C, O}, f).Attr("T", TF_FLOAT)
          .Attr("strides", L{1, stride, stride, 1}).Attr("padding", padding)
          .Attr("dilations", L{1, 1, stride, 1});
      ASSERT_EQ(conv2d.Run(), TF_OK) << conv2d.error();
      const auto want = conv2d.Output<float>();
      for (int64_t at = 1; at <= 3; ++at) {
        // The unit dim at position `at` of [N, D, H, W, C]; strides and
        // dilations of 1 there.
        L strides{1, stride, stride, 1}, dil{1, 1, stride, 1};
        strides.insert(strides.begin() + at, 1);
        dil.insert(dil.begin() + at, 1);
        L fdims{3, 2, C, O};
        fdims.insert(fdims.begin() + (at - 1), 1);
        ExpectNear(RunOk<float>(OneOp("Conv3D").In<float>(insert_unit({N, H, W, C}, at), x)
            .In<float>(fdims, f).Attr("T", TF_FLOAT).Attr("strides", strides)
            .Attr("padding", padding).Attr("dilations", dil)), want, 1e-4f);
      }
    }
  }
  // A 2x2x2 average with SAME padding and stride 2 counts only real cells.
  OneOp avg("AvgPool3D");
  avg.In<float>({1, 2, 2, 3, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}).Attr("T", TF_FLOAT)
      .Attr("ksize", L{1, 2, 2, 2, 1}).Attr("strides", L{1, 2, 2, 2, 1}).Attr("padding", "SAME");
  ASSERT_EQ(avg.Run(), TF_OK) << avg.error();
  EXPECT_EQ(avg.OutputDims(), (Dims{1, 1, 1, 2, 1}));
  ExpectNear(avg.Output<float>(), {(1 + 2 + 4 + 5 + 7 + 8 + 10 + 11) / 8.0f, (3 + 6 + 9 + 12) / 4.0f});
  // A window larger than the input.
  ExpectRunError(OneOp("MaxPool3D").In<float>({1, 2, 2, 2, 1}, random(8)).Attr("T", TF_FLOAT)
      .Attr("ksize", L{1, 3, 1, 1, 1}).Attr("strides", L{1, 1, 1, 1, 1}).Attr("padding", "VALID"));
}

TEST(BatchNormOpsTest, StatisticsOutputsAndErrors) {
  // Every output can be fetched: the statistics repeat mean and variance,
  // V3's sixth output is empty. (The float inference path runs in the real
  // frozen graphs' batch norms.)
  testing_support::GraphBuilder g;
  g.Const<float>("x", {1, 1, 2, 2}, {1, 2, 3, 4});
  g.Const<float>("s", {2}, {1, 2});
  g.Const<float>("o", {2}, {0, 1});
  g.Const<float>("m", {2}, {1, 1});
  g.Const<float>("v", {2}, {4, 16});
  g.Node("FusedBatchNormV3", "bn").Input("x").Input("s").Input("o").Input("m").Input("v")
      .Attr("T", TF_FLOAT).Attr("U", TF_FLOAT).Attr("epsilon", 0.0f).Attr("is_training", false);
  testing_support::TestSession session(g.Serialize());
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  std::vector<testing_support::TensorPtr> out;
  ASSERT_EQ(session.Run({}, {"bn", "bn:1", "bn:2", "bn:3", "bn:4", "bn:5"}, &out), TF_OK)
      << session.last_error();
  std::vector<F> got;
  for (const auto& t : out) got.push_back(testing_support::Values<float>(t.get()));
  EXPECT_EQ(got, (std::vector<F>{{0, 1.5f, 1, 2.5f}, {1, 1}, {4, 16}, {1, 1}, {4, 16}, {}}));
  EXPECT_EQ(testing_support::DimsOf(out[5].get()), (Dims{0}));

  auto base = [](auto&& op, const Dims& dims, int64_t depth) -> OneOp& {
    int64_t n = 1;
    for (int64_t d : dims) n *= d;
    return static_cast<OneOp&>(op).In<float>(dims, F(n, 1.0f)).In<float>({depth}, F(depth, 1))
        .In<float>({depth}, F(depth, 0)).In<float>({depth}, F(depth, 0))
        .In<float>({depth}, F(depth, 1)).Attr("T", TF_FLOAT);
  };
  // is_training defaults to true, which inference cannot run.
  OneOp training("FusedBatchNorm");
  base(training, {1, 2, 2, 3}, 3);
  ExpectRunError(training);
  OneOp wrong_depth("FusedBatchNorm");
  base(wrong_depth, {1, 2, 2, 3}, 2).Attr("is_training", false);
  ExpectRunError(wrong_depth);
}

// Depthwise convolution with dilations against a direct loop.
TEST(ConvOpsTest, DepthwiseDilationsAndExplicitPaddingMatchDirectLoop) {
  std::mt19937 rng(5);
  const int64_t h = 7, w = 8, c = 3, mult = 2, k = 3, dil = 2;
  const F x = RandomVector(rng, h * w * c);
  const F f = RandomVector(rng, k * k * c * mult);
  OneOp op("DepthwiseConv2dNative");
  op.In<float>({1, h, w, c}, x).In<float>({k, k, c, mult}, f).Attr("T", TF_FLOAT)
      .Attr("padding", "SAME").Attr("strides", L{1, 1, 1, 1}).Attr("dilations", L{1, dil, dil, 1});
  ASSERT_EQ(op.Run(), TF_OK) << op.error();
  ASSERT_EQ(op.OutputDims(), (Dims{1, h, w, c * mult}));
  // SAME with an effective window of 5 pads 2 on each side.
  F want(h * w * c * mult, 0.0f);
  for (int64_t y = 0; y < h; ++y)
    for (int64_t xx = 0; xx < w; ++xx)
      for (int64_t ch = 0; ch < c; ++ch)
        for (int64_t m = 0; m < mult; ++m) {
          double acc = 0;
          for (int64_t i = 0; i < k; ++i)
            for (int64_t j = 0; j < k; ++j) {
              const int64_t iy = y + i * dil - 2, ix = xx + j * dil - 2;
              if (iy < 0 || iy >= h || ix < 0 || ix >= w) continue;
              acc += x[(iy * w + ix) * c + ch] * f[((i * k + j) * c + ch) * mult + m];
            }
          want[(y * w + xx) * c * mult + ch * mult + m] = static_cast<float>(acc);
        }
  ExpectNear(op.Output<float>(), want, 1e-5f);
}

}  // namespace
