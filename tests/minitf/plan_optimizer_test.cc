// Graph rewrites made when a plan is built (constant folding, fused
// convolution chains) must not change what a run returns: every case runs
// the same graph in a session with the rewrites and in one with opt_level
// L0, whose unfused kernels are checked against TensorFlow elsewhere, and
// compares results and errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>

#include "graph.h"
#include "minitf/proto/config.pb.h"
#include "plan.h"
#include "plan_builder.h"
#include "plan_optimizer.h"
#include "support/graph_builder.h"
#include "support/tf_session.h"
#include "thread_pool.h"

namespace {

using testing_support::Dims;
using testing_support::GraphBuilder;
using testing_support::MakeTensor;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;
using F = std::vector<float>;
using L = std::vector<int64_t>;

std::string UnoptimizedConfig() {
  minitf::pb::ConfigProto config;
  config.mutable_graph_options()->mutable_optimizer_options()->set_opt_level(
      minitf::pb::OptimizerOptions::L0);
  return config.SerializeAsString();
}

F Random(std::mt19937& rng, size_t n) {
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  F v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

size_t Count(const Dims& dims) {
  size_t n = 1;
  for (int64_t d : dims) n *= static_cast<size_t>(d);
  return n;
}

// Runs `fetches` with `feeds` in both sessions; expects the same status and,
// on success, the same values up to float rounding.
void ExpectSameAsUnfused(const GraphBuilder& g,
                         const std::vector<std::pair<std::string, TF_Tensor*>>& feeds,
                         const std::vector<std::string>& fetches) {
  TestSession optimized(g.Serialize());
  TestSession plain(g.Serialize(), UnoptimizedConfig());
  ASSERT_EQ(optimized.code(), TF_OK) << optimized.message();
  ASSERT_EQ(plain.code(), TF_OK) << plain.message();
  std::vector<TensorPtr> got, want;
  const TF_Code want_code = plain.Run(feeds, fetches, &want);
  const TF_Code got_code = optimized.Run(feeds, fetches, &got);
  ASSERT_EQ(got_code, want_code) << optimized.last_error() << " vs " << plain.last_error();
  if (want_code != TF_OK) {
    EXPECT_EQ(optimized.last_error(), plain.last_error());
    return;
  }
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    const F a = Values<float>(got[i].get()), b = Values<float>(want[i].get());
    ASSERT_EQ(a.size(), b.size()) << fetches[i];
    for (size_t k = 0; k < b.size(); ++k) {
      ASSERT_NEAR(a[k], b[k], 1e-5f * std::max(1.0f, std::fabs(b[k])))
          << fetches[i] << " at " << k;
    }
  }
}

// x [1,7,6,4] -> conv -> BiasAdd -> ... ; returns the name of the conv.
std::string ConvWithBias(GraphBuilder& g, std::mt19937& rng, const std::string& x,
                         bool depthwise, const std::string& prefix) {
  const Dims w_dims = depthwise ? Dims{3, 3, 4, 1} : Dims{3, 3, 4, 4};
  g.Const<float>(prefix + "w", w_dims, Random(rng, Count(w_dims)));
  g.Const<float>(prefix + "b", {4}, Random(rng, 4));
  g.Node(depthwise ? "DepthwiseConv2dNative" : "Conv2D", prefix + "conv")
      .Input(x).Input(prefix + "w").Attr("T", TF_FLOAT).Attr("strides", L{1, 1, 1, 1})
      .Attr("padding", "SAME");
  g.Node("BiasAdd", prefix + "bias").Input(prefix + "conv").Input(prefix + "b").Attr("T", TF_FLOAT);
  return prefix + "conv";
}

class ConvChainTest : public ::testing::TestWithParam<std::string> {};

// conv + bias + act, conv + bias + residual + act and conv + bias + act +
// residual, for plain and depthwise convolutions.
TEST_P(ConvChainTest, MatchesUnfusedRun) {
  const std::string act = GetParam();
  std::mt19937 rng(11);
  for (bool depthwise : {false, true}) {
    for (int form = 0; form < 3; ++form) {
      GraphBuilder g;
      g.Placeholder("x", TF_FLOAT);
      ConvWithBias(g, rng, "x", depthwise, "");
      auto activation = [&](const std::string& in) {
        auto node = g.Node(act, "act").Input(in).Attr("T", TF_FLOAT);
        if (act == "LeakyRelu") node.Attr("alpha", 0.15f);
        return std::string("act");
      };
      if (form == 0) {
        activation("bias");
      } else if (form == 1) {
        g.Binary("AddV2", "add", "x", "bias");
        activation("add");
      } else {
        activation("bias");
        g.Binary("AddV2", "add", "act", "x");
      }
      const std::string fetch = form == 2 ? "add" : "act";
      auto x = MakeTensor<float>({1, 7, 6, 4}, Random(rng, 168));
      SCOPED_TRACE(act + (depthwise ? " depthwise" : " conv") + " form " +
                   std::to_string(form));
      ExpectSameAsUnfused(g, {{"x", x.get()}}, {fetch});
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Activations, ConvChainTest,
                         ::testing::Values("Relu", "Relu6", "Elu", "Sigmoid", "Tanh",
                                           "LeakyRelu"));

// The step labels of the plan a session builds for feeding "x" and
// fetching `fetches`: a fused chain is one step labelled with its ops.
std::vector<std::string> PlanLabels(const GraphBuilder& g, const std::vector<std::string>& fetches,
                                    bool optimize = true) {
  const std::string bytes = g.Serialize();
  minitf::Graph graph;
  minitf::Status status = graph.Import(bytes.data(), bytes.size(), {});
  EXPECT_TRUE(status.ok()) << status.message();
  std::vector<minitf::Feed> feeds = {{graph.Find("x"), 0, minitf::Tensor()}};
  std::vector<minitf::Fetch> wanted;
  for (const std::string& name : fetches) wanted.push_back({graph.Find(name), 0});
  std::unordered_map<const minitf::Node*, std::unique_ptr<minitf::OpKernel>> kernels;
  minitf::FoldedConstants folded(int64_t{1} << 28);
  minitf::PlanBuildOptions options;
  options.optimize = optimize;
  options.pool = minitf::ThreadPool::Shared(1);
  options.folded = &folded;
  options.kernel_for = [&](const minitf::Node* n, const minitf::OpKernel** k) {
    auto& slot = kernels[n];
    if (!slot) {
      minitf::KernelInit init(n->name(), n->def.attr(), n->input_types, n->output_types);
      MINITF_RETURN_IF_ERROR(n->op->factory(init, &slot));
    }
    *k = slot.get();
    return minitf::Status::OK();
  };
  std::shared_ptr<const minitf::Plan> plan;
  status = minitf::BuildPlan(graph, feeds, wanted, {}, options, &plan);
  EXPECT_TRUE(status.ok()) << status.message();
  std::vector<std::string> labels;
  if (plan) {
    for (const auto& step : plan->steps) labels.push_back(step.label);
  }
  return labels;
}

bool HasLabel(const std::vector<std::string>& labels, const std::string& label) {
  return std::find(labels.begin(), labels.end(), label) != labels.end();
}

std::string Joined(const std::vector<std::string>& labels) {
  std::string out;
  for (const std::string& l : labels) out += l + " ";
  return out;
}

// Equal results prove nothing if nothing was fused: the plans must hold the
// fused steps, and only where a chain may form.
TEST(ConvChainPlanTest, ChainsBecomeOneLabelledStep) {
  std::mt19937 rng(3);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  ConvWithBias(g, rng, "x", false, "a/");
  g.Unary("Relu6", "a/act", "a/bias");
  ConvWithBias(g, rng, "a/act", true, "b/");
  g.Binary("AddV2", "b/add", "b/bias", "a/act");
  g.Unary("Relu", "b/act", "b/add");
  const auto fused = PlanLabels(g, {"b/act"});
  EXPECT_TRUE(HasLabel(fused, "Conv2D+BiasAdd+Relu6")) << Joined(fused);
  EXPECT_TRUE(HasLabel(fused, "DepthwiseConv2dNative+BiasAdd+AddV2+Relu")) << Joined(fused);
  EXPECT_FALSE(HasLabel(fused, "BiasAdd")) << Joined(fused);

  // Unoptimised, every node is its own step.
  const auto plain = PlanLabels(g, {"b/act"}, false);
  EXPECT_TRUE(HasLabel(plain, "Conv2D") && HasLabel(plain, "Relu6")) << Joined(plain);
  EXPECT_FALSE(HasLabel(plain, "Conv2D+BiasAdd+Relu6")) << Joined(plain);

  // A fetched intermediate ends the first chain at its bias.
  const auto cut = PlanLabels(g, {"b/act", "a/bias"});
  EXPECT_TRUE(HasLabel(cut, "Conv2D+BiasAdd")) << Joined(cut);
  EXPECT_TRUE(HasLabel(cut, "Relu6")) << Joined(cut);
}

TEST(ConvChainPlanTest, BatchNormAndDilationAreFoldedIntoTheChain) {
  std::mt19937 rng(4);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Const<int64_t>("block", {2}, {2, 2});
  g.Const<int64_t>("pads", {2, 2}, {2, 2, 2, 2});
  g.Node("SpaceToBatchND", "s2b").Input("x").Input("block").Input("pads")
      .Attr("T", TF_FLOAT).Attr("Tblock_shape", TF_INT64).Attr("Tpaddings", TF_INT64);
  g.Const<float>("w", {3, 3, 4, 4}, Random(rng, 144));
  g.Node("Conv2D", "conv").Input("s2b").Input("w").Attr("T", TF_FLOAT)
      .Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID");
  g.Node("BatchToSpaceND", "b2s").Input("conv").Input("block").Input("pads")
      .Attr("T", TF_FLOAT).Attr("Tblock_shape", TF_INT64).Attr("Tcrops", TF_INT64);
  for (const char* p : {"s", "o", "m"}) g.Const<float>(p, {4}, Random(rng, 4));
  g.Const<float>("v", {4}, {0.5f, 1, 1.5f, 2});
  g.Node("FusedBatchNormV3", "bn").Input("b2s").Input("s").Input("o").Input("m").Input("v")
      .Attr("T", TF_FLOAT).Attr("U", TF_FLOAT).Attr("epsilon", 0.001f).Attr("is_training", false);
  g.Unary("Relu", "act", "bn");
  const auto labels = PlanLabels(g, {"act"});
  EXPECT_TRUE(HasLabel(labels, "SpaceToBatchND+Conv2D+BatchToSpaceND+FusedBatchNormV3+Relu"))
      << Joined(labels);
  for (const char* alone : {"SpaceToBatchND", "Conv2D", "BatchToSpaceND", "FusedBatchNormV3"})
    EXPECT_FALSE(HasLabel(labels, alone)) << Joined(labels);
  auto x = MakeTensor<float>({1, 8, 8, 4}, Random(rng, 256));
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"act"});
}

// Constants added or multiplied per channel (a batch norm written as Mul and
// Add) and Minimum / Maximum clips after a convolution without BiasAdd;
// a constant that varies along rows must stay unfused.
TEST(ConvChainTest, ChannelConstantsAndClipsMatchUnfused) {
  std::mt19937 rng(5);
  for (bool depthwise : {false, true}) {
    for (int form = 0; form < 3; ++form) {
      GraphBuilder g;
      g.Placeholder("x", TF_FLOAT);
      const Dims w_dims = depthwise ? Dims{3, 3, 4, 1} : Dims{3, 3, 4, 4};
      g.Const<float>("w", w_dims, Random(rng, Count(w_dims)));
      g.Node(depthwise ? "DepthwiseConv2dNative" : "Conv2D", "conv").Input("x").Input("w")
          .Attr("T", TF_FLOAT).Attr("strides", L{1, 1, 1, 1}).Attr("padding", "SAME");
      const Dims scale_dims = form == 2 ? Dims{1, 7, 1, 1} : form == 1 ? Dims{} : Dims{1, 1, 1, 4};
      g.Const<float>("scale", scale_dims, Random(rng, Count(scale_dims)));
      g.Const<float>("shift", {4}, Random(rng, 4));
      g.Const<float>("hi", {}, {0.3f});
      g.Const<float>("lo", {1, 1}, {-0.2f});
      g.Binary("Mul", "mul", "conv", "scale");
      g.Binary(form == 1 ? "Add" : "AddV2", "add", "shift", "mul");
      g.Node("Relu", "relu").Input("add").Attr("T", TF_FLOAT);
      g.Binary("Minimum", "min", form == 1 ? "add" : "relu", "hi");
      g.Binary("Maximum", "max", "lo", "min");
      auto x = MakeTensor<float>({1, 7, 6, 4}, Random(rng, 168));
      SCOPED_TRACE(std::string(depthwise ? "depthwise" : "conv") + " form " +
                   std::to_string(form));
      ExpectSameAsUnfused(g, {{"x", x.get()}}, {"max"});
    }
  }
}

// PReLU written out as Add(Relu(x) or x, Mul(Sub(x, Abs(x)), alpha)) runs
// as one step; alphas that do not broadcast along the last dimension, and
// an intermediate read elsewhere, keep the unfused kernels' results.
TEST(PreluRewriteTest, WrittenOutPreluMatchesUnfused) {
  std::mt19937 rng(9);
  const std::vector<Dims> alphas = {{4}, {1, 1, 1, 4}, {}, {6, 1}, {1, 7, 1, 1}};
  for (size_t a = 0; a < alphas.size(); ++a) {
    for (int form = 0; form < 3; ++form) {
      GraphBuilder g;
      g.Placeholder("x", TF_FLOAT);
      g.Const<float>("alpha", alphas[a], Random(rng, Count(alphas[a])));
      g.Node("Abs", "abs").Input("x").Attr("T", TF_FLOAT);
      g.Binary("Sub", "sub", "x", "abs");
      g.Binary("Mul", "mul", form == 1 ? "alpha" : "sub", form == 1 ? "sub" : "alpha");
      g.Node("Relu", "relu").Input("x").Attr("T", TF_FLOAT);
      g.Binary(form == 1 ? "Add" : "AddV2", "out", form == 0 ? "relu" : "mul",
               form == 0 ? "mul" : "x");
      std::vector<std::string> fetches = {"out"};
      if (form == 2) fetches.push_back("sub");
      auto x = MakeTensor<float>({1, 7, 6, 4}, Random(rng, 168));
      SCOPED_TRACE("alpha " + std::to_string(a) + " form " + std::to_string(form));
      ExpectSameAsUnfused(g, {{"x", x.get()}}, fetches);
    }
  }
}

TEST(ConvChainEdgeTest, FetchedOrSharedIntermediatesStayCorrect) {
  std::mt19937 rng(5);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  ConvWithBias(g, rng, "x", false, "");
  g.Unary("Relu6", "act", "bias");
  // A second reader of the biased value: the chain must stop there.
  g.Unary("Sigmoid", "side", "bias");
  g.Binary("Mul", "out", "act", "side");
  auto x = MakeTensor<float>({2, 7, 6, 4}, Random(rng, 336));
  // The fetched conv output and bias are intermediates of would-be chains.
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"out", "conv", "bias"});
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"out"});
}

TEST(ConvChainEdgeTest, BroadcastResidualAndOddInputsFallBackToTheOpsOwnKernels) {
  std::mt19937 rng(6);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Placeholder("r", TF_FLOAT);
  ConvWithBias(g, rng, "x", false, "");
  g.Binary("AddV2", "add", "bias", "r");
  g.Unary("Relu", "act", "add");
  auto x = MakeTensor<float>({1, 7, 6, 4}, Random(rng, 168));
  // A residual that broadcasts: [4] and [1,1,6,1] against [1,7,6,4].
  auto channel_row = MakeTensor<float>({4}, Random(rng, 4));
  auto column = MakeTensor<float>({1, 1, 6, 1}, Random(rng, 6));
  ExpectSameAsUnfused(g, {{"x", x.get()}, {"r", channel_row.get()}}, {"act"});
  ExpectSameAsUnfused(g, {{"x", x.get()}, {"r", column.get()}}, {"act"});
  // Errors come from the unfused node that would have raised them.
  auto wrong_depth = MakeTensor<float>({1, 7, 6, 3}, Random(rng, 126));
  ExpectSameAsUnfused(g, {{"x", wrong_depth.get()}, {"r", channel_row.get()}}, {"act"});
  auto mismatched = MakeTensor<float>({1, 2, 6, 4}, Random(rng, 48));
  ExpectSameAsUnfused(g, {{"x", x.get()}, {"r", mismatched.get()}}, {"act"});
  // An empty batch.
  auto empty = MakeTensor<float>({0, 7, 6, 4}, {});
  auto empty_r = MakeTensor<float>({0, 7, 6, 4}, {});
  ExpectSameAsUnfused(g, {{"x", empty.get()}, {"r", empty_r.get()}}, {"act"});
}

TEST(ConvChainEdgeTest, ManyThreadsShareOneFusedPlan) {
  std::mt19937 rng(8);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  ConvWithBias(g, rng, "x", false, "a/");
  g.Unary("Relu", "a/act", "a/bias");
  ConvWithBias(g, rng, "a/act", true, "b/");
  g.Binary("AddV2", "out", "b/bias", "a/act");
  TestSession session(g.Serialize());
  TestSession plain(g.Serialize(), UnoptimizedConfig());
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  // Two image sizes, so that primitives for both are made concurrently.
  std::vector<TensorPtr> inputs, expected;
  for (int64_t h : {5, 9}) {
    inputs.push_back(MakeTensor<float>({1, h, 6, 4}, Random(rng, h * 24)));
    std::vector<TensorPtr> out;
    ASSERT_EQ(plain.Run({{"x", inputs.back().get()}}, {"out"}, &out), TF_OK);
    expected.push_back(std::move(out[0]));
  }
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const size_t k = (i + t) % 2;
        std::vector<TensorPtr> out;
        if (session.Run({{"x", inputs[k].get()}}, {"out"}, &out) != TF_OK) {
          ++mismatches[t];
          continue;
        }
        const F got = Values<float>(out[0].get()), want = Values<float>(expected[k].get());
        for (size_t e = 0; e < want.size(); ++e) {
          if (std::fabs(got[e] - want[e]) > 1e-5f * std::max(1.0f, std::fabs(want[e]))) {
            ++mismatches[t];
            break;
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(ConstantFoldingTest, ComputedWeightsAndFailuresBehaveAsUnfolded) {
  std::mt19937 rng(9);
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  // Weights computed from constants, as converters leave them: scale * w.
  g.Const<float>("w_raw", {3, 3, 4, 4}, Random(rng, 144));
  g.Const<float>("scale", {}, {0.5f});
  g.Binary("Mul", "w", "w_raw", "scale");
  g.Node("Conv2D", "conv").Input("x").Input("w").Attr("T", TF_FLOAT)
      .Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID");
  // A constant subgraph that fails: a reshape of 144 values to [5, 5].
  g.Const<int32_t>("bad_shape", {2}, {5, 5});
  g.Node("Reshape", "bad").Input("w_raw").Input("bad_shape").Attr("T", TF_FLOAT)
      .Attr("Tshape", TF_INT32);
  auto x = MakeTensor<float>({1, 5, 5, 4}, Random(rng, 100));
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"conv"});
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"conv", "w"});
  ExpectSameAsUnfused(g, {}, {"bad"});
  // Feeding a node that would otherwise fold uses the fed value.
  auto w_fed = MakeTensor<float>({3, 3, 4, 4}, F(144, 1.0f));
  ExpectSameAsUnfused(g, {{"x", x.get()}, {"w", w_fed.get()}}, {"conv"});
}

// Elementwise kernels may write into an input's memory when the run is done
// with it. Memory that anything else can still see must never be written:
// fed tensors, fetched tensors, constants, and buffers shared through
// Reshape or Identity.
TEST(BufferReuseTest, OnlyMemoryNobodyElseSeesIsReused) {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Const<float>("c", {4}, {1, 2, 3, 4});
  g.Unary("Neg", "fed_neg", "x");            // last reader of a fed tensor
  g.Binary("AddV2", "a", "x", "c");          // a = x + c
  g.Node("Identity", "a_alias").Input("a").Attr("T", TF_FLOAT);
  g.Unary("Neg", "b", "a_alias");            // shares a's buffer, a read later
  g.Binary("Mul", "d", "a", "b");            // d = a * -a
  g.Unary("Square", "e", "c");               // last reader of a constant
  g.Unary("Neg", "f", "d");                  // d fetched too
  const F x = {0.5f, -1, 2, 0};
  auto feed = MakeTensor<float>({4}, x);
  TestSession session(g.Serialize());
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  for (int run = 0; run < 3; ++run) {
    std::vector<TensorPtr> out;
    ASSERT_EQ(session.Run({{"x", feed.get()}}, {"fed_neg", "a", "b", "d", "e", "f"}, &out),
              TF_OK)
        << session.last_error();
    EXPECT_EQ(Values<float>(feed.get()), x) << "the fed tensor was written";
    std::vector<F> got;
    for (const auto& t : out) got.push_back(Values<float>(t.get()));
    EXPECT_EQ(got, (std::vector<F>{{-0.5f, 1, -2, 0}, {1.5f, 1, 5, 4}, {-1.5f, -1, -5, -4},
                                   {-2.25f, -1, -25, -16}, {1, 4, 9, 16}, {2.25f, 1, 25, 16}}))
        << "run " << run;
  }
}

// Constants are read from the graph's own bytes; what a caller gets back is
// its own copy, so writing into it changes nothing for later runs.
TEST(BufferReuseTest, FetchedConstantsAreCopiesOfTheGraphsBytes) {
  GraphBuilder g;
  g.Const<float>("c", {3}, {1, 2, 3});
  g.Node("Identity", "view").Input("c").Attr("T", TF_FLOAT);
  TestSession session(g.Serialize());
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  for (int run = 0; run < 2; ++run) {
    std::vector<TensorPtr> out;
    ASSERT_EQ(session.Run({}, {"c", "view"}, &out), TF_OK) << session.last_error();
    ASSERT_EQ(Values<float>(out[0].get()), (F{1, 2, 3})) << "run " << run;
    ASSERT_EQ(Values<float>(out[1].get()), (F{1, 2, 3})) << "run " << run;
    for (auto& t : out) static_cast<float*>(TF_TensorData(t.get()))[0] = 99;
  }
}

// conv (+ bias) -> FusedBatchNorm with constant statistics -> activation:
// the plan folds the batch norm into the convolution.
TEST(ConvChainRewriteTest, BatchNormFoldedIntoConvolutionMatchesUnfused) {
  std::mt19937 rng(21);
  for (const char* op : {"FusedBatchNorm", "FusedBatchNormV2", "FusedBatchNormV3"}) {
    for (bool depthwise : {false, true}) {
      for (bool with_bias : {false, true}) {
        for (bool fetch_stats : {false, true}) {
          GraphBuilder g;
          g.Placeholder("x", TF_FLOAT);
          const std::string conv = ConvWithBias(g, rng, "x", depthwise, "");
          g.Const<float>("scale", {4}, Random(rng, 4));
          g.Const<float>("offset", {4}, Random(rng, 4));
          g.Const<float>("mean", {4}, Random(rng, 4));
          F var = Random(rng, 4);
          for (float& v : var) v = std::fabs(v) + 0.05f;
          g.Const<float>("var", {4}, var);
          auto bn = g.Node(op, "bn").Input(with_bias ? "bias" : conv).Input("scale")
                        .Input("offset").Input("mean").Input("var").Attr("T", TF_FLOAT)
                        .Attr("epsilon", 0.001f).Attr("is_training", false);
          if (std::string(op) != "FusedBatchNorm") bn.Attr("U", TF_FLOAT);
          g.Unary("Relu6", "act", "bn");
          auto x = MakeTensor<float>({2, 7, 6, 4}, Random(rng, 336));
          SCOPED_TRACE(std::string(op) + (depthwise ? " depthwise" : " conv") +
                       (with_bias ? " with bias" : "") + (fetch_stats ? " stats fetched" : ""));
          std::vector<std::string> fetches = {"act"};
          if (fetch_stats) fetches.push_back("bn:2");
          ExpectSameAsUnfused(g, {{"x", x.get()}}, fetches);
        }
      }
    }
  }
  // A training-mode batch norm fails the same way with or without rewrites
  // (the error text is compared too).
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  ConvWithBias(g, rng, "x", false, "");
  for (const char* p : {"s", "o", "m", "v"}) g.Const<float>(p, {4}, {1, 1, 1, 1});
  g.Node("FusedBatchNorm", "bn").Input("bias").Input("s").Input("o").Input("m").Input("v")
      .Attr("T", TF_FLOAT);
  auto x = MakeTensor<float>({1, 7, 6, 4}, Random(rng, 168));
  ExpectSameAsUnfused(g, {{"x", x.get()}}, {"bn"});
}

// TensorFlow's dilated convolution: SpaceToBatchND -> VALID convolution ->
// BatchToSpaceND, run as one dilated convolution. Results and errors equal
// the unrewritten plan's, including inputs SpaceToBatchND refuses.
TEST(ConvChainRewriteTest, DilatedConvolutionPatternMatchesUnfused) {
  std::mt19937 rng(8);
  struct Case { L block, pads, crops; bool depthwise; };
  const Case cases[] = {
      {{2, 2}, {2, 3, 2, 2}, {0, 1, 0, 0}, false},  // rate 2, SAME-like
      {{2, 3}, {2, 3, 3, 2}, {1, 1, 0, 2}, false},  // unequal rates and crops
      {{4, 4}, {4, 7, 4, 6}, {0, 3, 0, 2}, true},   // depthwise, rate 4
  };
  for (const Case& c : cases) {
    GraphBuilder g;
    g.Placeholder("x", TF_FLOAT);
    g.Const<int64_t>("block", {2}, c.block);
    g.Const<int64_t>("pads", {2, 2}, c.pads);
    g.Const<int64_t>("crops", {2, 2}, c.crops);
    g.Node("SpaceToBatchND", "s2b").Input("x").Input("block").Input("pads")
        .Attr("T", TF_FLOAT).Attr("Tblock_shape", TF_INT64).Attr("Tpaddings", TF_INT64);
    const Dims w_dims = c.depthwise ? Dims{3, 3, 4, 1} : Dims{3, 3, 4, 5};
    g.Const<float>("w", w_dims, Random(rng, Count(w_dims)));
    g.Node(c.depthwise ? "DepthwiseConv2dNative" : "Conv2D", "conv").Input("s2b").Input("w")
        .Attr("T", TF_FLOAT).Attr("strides", L{1, 1, 1, 1}).Attr("padding", "VALID");
    g.Node("BatchToSpaceND", "b2s").Input("conv").Input("block").Input("crops")
        .Attr("T", TF_FLOAT).Attr("Tblock_shape", TF_INT64).Attr("Tcrops", TF_INT64);
    const int64_t out_c = c.depthwise ? 4 : 5;
    g.Const<float>("b", {out_c}, Random(rng, out_c));
    g.Node("BiasAdd", "bias").Input("b2s").Input("b").Attr("T", TF_FLOAT);
    g.Unary("Relu", "act", "bias");
    SCOPED_TRACE(testing::Message() << "block " << c.block[0] << "x" << c.block[1]
                                    << (c.depthwise ? " depthwise" : ""));
    // Sizes the paddings make divisible by the block ...
    const int64_t h = c.block[0] * 4 - c.pads[0] - c.pads[1] + c.block[0] * 3;
    const int64_t w = c.block[1] * 4 - c.pads[2] - c.pads[3] + c.block[1] * 3;
    auto x = MakeTensor<float>({2, h, w, 4}, Random(rng, Count({2, h, w, 4})));
    ExpectSameAsUnfused(g, {{"x", x.get()}}, {"act"});
    // ... and, where the block allows, one that is not.
    if (c.block[0] > 1) {
      auto odd = MakeTensor<float>({1, h + 1, w, 4}, Random(rng, Count({1, h + 1, w, 4})));
      ExpectSameAsUnfused(g, {{"x", odd.get()}}, {"act"});
    }
  }
}

}  // namespace
