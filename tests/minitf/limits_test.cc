// A graph cannot make the runtime allocate without bound: shapes computed
// from tensor values are checked for overflow and size, and every run holds
// at most its memory budget. Each case must end in a status without touching
// the memory it asks for (a run that did would take seconds or be killed).
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "graph.h"
#include "one_op.h"
#include "session.h"
#include "tensor.h"

namespace {

using testing_support::ExpectRunError;
using testing_support::GraphBuilder;
using testing_support::OneOp;

constexpr int64_t kMega = int64_t{1} << 20;

// --- Shape arithmetic -------------------------------------------------------

TEST(ShapeLimitTest, ProductOfNonZeroDimsIsBounded) {
  minitf::Shape s;
  // 2^20 * 2^20 = 2^40 is the largest element count allowed.
  EXPECT_TRUE(minitf::Shape::Make({kMega, kMega}, &s).ok());
  EXPECT_EQ(s.num_elements(), int64_t{1} << 40);
  EXPECT_FALSE(minitf::Shape::Make({kMega, kMega, 2}, &s).ok());
  // 2^32 * 2^32 wraps to 0 in 64 bits; it must not slip through.
  EXPECT_FALSE(minitf::Shape::Make({int64_t{1} << 32, int64_t{1} << 32}, &s).ok());
  EXPECT_FALSE(minitf::Shape::Make({-1, 0}, &s).ok());
  // An empty tensor may not hide huge other axes: their strides would overflow.
  EXPECT_FALSE(minitf::Shape::Make({0, int64_t{1} << 40, int64_t{1} << 40}, &s).ok());
  EXPECT_TRUE(minitf::Shape::Make({0, kMega, kMega}, &s).ok());
  EXPECT_EQ(s.num_elements(), 0);
}

TEST(ShapeLimitTest, TensorLargerThanTwoGibIsRefused) {
  minitf::Tensor t;
  minitf::Shape s;
  ASSERT_TRUE(minitf::Shape::Make({int64_t{1} << 29, 5}, &s).ok());
  // 2^29 * 5 floats = 10 GiB.
  EXPECT_EQ(minitf::Tensor::Allocate(TF_FLOAT, s, &t).code(), TF_RESOURCE_EXHAUSTED);
  EXPECT_FALSE(t.valid());
}

// --- Ops whose output shape comes from tensor values ------------------------

// Each op refuses the output its inputs ask for, with the code given,
// naming the node. (Shapes whose product overflows are refused by
// Shape::Make above; Range and Tile of too many elements in array_ops_test.)
TEST(HugeOutputTest, ValueComputedShapesAreRefused) {
  struct Case {
    const char* what;
    const char* op;
    TF_Code code;
    std::function<void(OneOp&)> build;
  };
  const int64_t k40 = int64_t{1} << 40;
  const Case cases[] = {
      {"Fill of a terabyte", "Fill", TF_RESOURCE_EXHAUSTED, [](OneOp& op) {
         op.In<int32_t>({2}, {1 << 20, 1 << 20}).In<float>({}, {1.0f}).Attr("T", TF_FLOAT)
             .Attr("index_type", TF_INT32); }},
      // 2 * 2^29 floats = 4 GiB: a valid shape but over the per-tensor limit.
      {"Tile just over the byte limit", "Tile", TF_RESOURCE_EXHAUSTED, [](OneOp& op) {
         op.In<float>({2}, {1, 2}).In<int32_t>({1}, {1 << 29}).Attr("T", TF_FLOAT)
             .Attr("Tmultiples", TF_INT32); }},
      {"Pad with huge paddings", "Pad", TF_INVALID_ARGUMENT, [](OneOp& op) {
         op.In<float>({1}, {1}).In<int64_t>({1, 2}, {INT64_MAX - 1, INT64_MAX - 1})
             .Attr("T", TF_FLOAT).Attr("Tpaddings", TF_INT64); }},
      {"Reshape inferring from an empty tensor", "Reshape", TF_INVALID_ARGUMENT, [&](OneOp& op) {
         op.In<float>({0}, {}).In<int64_t>({4}, {0, -1, k40, k40}).Attr("T", TF_FLOAT)
             .Attr("Tshape", TF_INT64); }},
      // Both inputs are empty, yet the product would have 2^80 elements.
      {"MatMul of empty matrices with huge outer dims", "MatMul", TF_RESOURCE_EXHAUSTED,
       [&](OneOp& op) {
         op.In<float>({k40, 0}, {}).In<float>({0, k40}, {}).Attr("T", TF_FLOAT)
             .Attr("transpose_a", false).Attr("transpose_b", false); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    OneOp op(c.op);
    c.build(op);
    ExpectRunError(op, c.code);
  }
}

// The most resident memory the process has held since the last reset, in
// bytes; -1 when the kernel does not offer the reset.
int64_t ResetPeakRss() {
  FILE* f = std::fopen("/proc/self/clear_refs", "w");
  if (f == nullptr) return -1;
  const bool ok = std::fputs("5", f) >= 0;
  return std::fclose(f) == 0 && ok ? 0 : -1;
}

int64_t PeakRss() {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  int64_t kb = -1;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::sscanf(line, "VmHWM: %" SCNd64, &kb) == 1) break;
  }
  std::fclose(f);
  return kb < 0 ? -1 : kb * 1024;
}

// Tiling a 1-D uint8 tensor to the whole run budget: the output is the only
// memory the op takes (an index per output element would be 8 times more),
// and one byte more is refused before anything is touched.
TEST(TileAtTheCapTest, PeakMemoryIsTheOutput) {
  constexpr int64_t kBudget = 64 * kMega;
  GraphBuilder g;
  g.Placeholder("x", TF_UINT8);
  g.Placeholder("m", TF_INT64);
  g.Node("Tile", "t").Input("x").Input("m").Attr("T", TF_UINT8).Attr("Tmultiples", TF_INT64);
  minitf::Graph graph;
  const std::string bytes = g.Serialize();
  ASSERT_TRUE(graph.Import(bytes.data(), bytes.size(), {}).ok());
  minitf::SessionConfig config;
  config.intra_op_threads = 1;
  config.max_run_bytes = kBudget;
  minitf::Session session(&graph, config);
  auto run = [&](int64_t multiple, std::vector<minitf::Tensor>* out) {
    minitf::Tensor x, m;
    EXPECT_TRUE(minitf::Tensor::Allocate(TF_UINT8, minitf::Shape{4}, &x).ok());
    EXPECT_TRUE(minitf::Tensor::Allocate(TF_INT64, minitf::Shape{1}, &m).ok());
    for (int i = 0; i < 4; ++i) x.data<uint8_t>()[i] = static_cast<uint8_t>(10 + i);
    m.data<int64_t>()[0] = multiple;
    return session.Run({{graph.Find("x"), 0, x}, {graph.Find("m"), 0, m}},
                       {{graph.Find("t"), 0}}, {}, out);
  };
  {
    std::vector<minitf::Tensor> out;
    minitf::Status s = run(kBudget / 4 + 1, &out);
    EXPECT_EQ(s.code(), TF_RESOURCE_EXHAUSTED) << s.message();
    EXPECT_NE(s.message().find("node t"), std::string::npos) << s.message();
  }
  if (ResetPeakRss() != 0 || PeakRss() < 0) GTEST_SKIP() << "no peak RSS reset here";
  const int64_t before = PeakRss();
  std::vector<minitf::Tensor> out;
  minitf::Status s = run(kBudget / 4, &out);
  const int64_t peak = PeakRss();
  ASSERT_TRUE(s.ok()) << s.message();
  ASSERT_EQ(out.size(), 1u);
  ASSERT_EQ(out[0].num_elements(), kBudget);
  const uint8_t* t = out[0].data<uint8_t>();
  for (int64_t i : {int64_t{0}, int64_t{5}, kBudget / 2 + 3, kBudget - 1})
    EXPECT_EQ(t[i], 10 + i % 4) << "at " << i;
  // The output, plus slack for the allocator and the test's own pages.
  EXPECT_LT(peak - before, kBudget + 32 * kMega) << "peak grew by " << (peak - before);
}

// --- The per-run budget -----------------------------------------------------

class RunBudgetTest : public ::testing::Test {
 protected:
  // a = Fill(dims, one) of `fill_count` floats, b = a + a. `one` is fed, so
  // that the run computes a and b rather than a folded constant.
  void Import(int64_t fill_count) {
    g_.Const<int64_t>("dims", {1}, {fill_count});
    g_.Placeholder("one", TF_FLOAT);
    g_.Node("Fill", "a").Input("dims").Input("one").Attr("T", TF_FLOAT)
        .Attr("index_type", TF_INT64);
    g_.Node("AddV2", "b").Input("a").Input("a").Attr("T", TF_FLOAT);
    const std::string bytes = g_.Serialize();
    ASSERT_TRUE(graph_.Import(bytes.data(), bytes.size(), {}).ok());
  }
  minitf::Status Run(int64_t limit, const std::string& fetch, std::vector<minitf::Tensor>* out) {
    minitf::SessionConfig config;
    config.intra_op_threads = 1;
    config.max_run_bytes = limit;
    minitf::Session session(&graph_, config);
    return session.Run(FeedOne(), {{graph_.Find(fetch), 0}}, {}, out);
  }
  std::vector<minitf::Feed> FeedOne() {
    minitf::Tensor one;
    EXPECT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape{}, &one).ok());
    *one.data<float>() = 1.0f;
    return {{graph_.Find("one"), 0, one}};
  }

  GraphBuilder g_;
  minitf::Graph graph_;
};

// a and b are 4000 bytes each and live together: the first allocation past
// the limit fails its run, naming its node; exactly the limit succeeds.
TEST_F(RunBudgetTest, LiveBytesOverTheLimitFailNamingTheNode) {
  Import(1000);
  const struct {
    int64_t limit;
    const char* named;  // null: the run succeeds
  } cases[] = {{3999, "node a"}, {7999, "node b"}, {8000, nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    std::vector<minitf::Tensor> out;
    minitf::Status s = Run(c.limit, "b", &out);
    if (c.named != nullptr) {
      EXPECT_EQ(s.code(), TF_RESOURCE_EXHAUSTED) << s.message();
      EXPECT_NE(s.message().find(c.named), std::string::npos) << s.message();
      EXPECT_TRUE(out.empty());
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].num_elements(), 1000);
    EXPECT_EQ(out[0].data<float>()[999], 2.0f);
  }
}

TEST_F(RunBudgetTest, EveryRunStartsWithAFullBudget) {
  Import(1000);
  minitf::SessionConfig config;
  config.intra_op_threads = 1;
  config.max_run_bytes = 8000;
  minitf::Session session(&graph_, config);
  // Were bytes of earlier runs (or their freed intermediates) still charged,
  // the second run would fail.
  for (int i = 0; i < 3; ++i) {
    std::vector<minitf::Tensor> out;
    minitf::Status s = session.Run(FeedOne(), {{graph_.Find("b"), 0}}, {}, &out);
    ASSERT_TRUE(s.ok()) << "run " << i << ": " << s.message();
  }
}

TEST(RunBudgetConstTest, ConstantLargerThanTheLimitIsRefusedBeforeExpanding) {
  // One float_val standing for all 1000 elements.
  minitf::pb::TensorProto value;
  value.set_dtype(minitf::pb::DT_FLOAT);
  value.mutable_tensor_shape()->add_dim()->set_size(1000);
  value.add_float_val(3.0f);
  GraphBuilder g;
  g.Node("Const", "c").Attr("dtype", TF_FLOAT).Attr("value", value);
  minitf::Graph graph;
  const std::string bytes = g.Serialize();
  ASSERT_TRUE(graph.Import(bytes.data(), bytes.size(), {}).ok());
  for (int64_t limit : {int64_t{3999}, int64_t{4000}}) {
    minitf::SessionConfig config;
    config.max_run_bytes = limit;
    minitf::Session session(&graph, config);
    std::vector<minitf::Tensor> out;
    minitf::Status s = session.Run({}, {{graph.Find("c"), 0}}, {}, &out);
    if (limit == 3999) {
      EXPECT_EQ(s.code(), TF_RESOURCE_EXHAUSTED) << s.message();
      EXPECT_NE(s.message().find("node c"), std::string::npos) << s.message();
    } else {
      ASSERT_TRUE(s.ok()) << s.message();
      EXPECT_EQ(out[0].data<float>()[999], 3.0f);
    }
  }
}

TEST(MemoryBudgetTest, TensorsGiveTheirBytesBackWhenTheyDie) {
  auto budget = std::make_shared<minitf::MemoryBudget>(1024);
  minitf::Tensor a, b;
  ASSERT_TRUE(minitf::Tensor::Allocate(TF_INT32, minitf::Shape({100}), &a, budget).ok());
  EXPECT_EQ(budget->used(), 400);
  minitf::Tensor shared = a;  // a second reference keeps the bytes charged
  a = minitf::Tensor();
  EXPECT_EQ(budget->used(), 400);
  EXPECT_EQ(minitf::Tensor::Allocate(TF_DOUBLE, minitf::Shape({100}), &b, budget).code(),
            TF_RESOURCE_EXHAUSTED);
  shared = minitf::Tensor();
  EXPECT_EQ(budget->used(), 0);
  EXPECT_TRUE(minitf::Tensor::Allocate(TF_DOUBLE, minitf::Shape({100}), &b, budget).ok());
  EXPECT_EQ(budget->used(), 800);
}

// Freed run buffers are kept for the next run, but only as much as a run
// was seen to need, and never handed out for a much smaller request.
TEST(BufferCacheTest, ReusesFreedMemoryWithinWhatRunsNeed) {
  auto cache = std::make_shared<minitf::BufferCache>(size_t{1} << 30);
  auto budget = std::make_shared<minitf::MemoryBudget>(int64_t{1} << 30);
  budget->set_cache(cache);
  const int64_t kFloats = 64 << 10;  // 256 KiB
  void* first = nullptr;
  {
    minitf::Tensor t;
    ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kFloats}), &t, budget).ok());
    first = t.raw_data();
  }
  // Nothing was expected yet: the block went back to malloc.
  EXPECT_EQ(cache->cached_bytes(), 0u);
  cache->Expect(static_cast<size_t>(budget->peak()));
  EXPECT_EQ(budget->peak(), kFloats * 4);
  {
    minitf::Tensor t;
    ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kFloats}), &t, budget).ok());
    first = t.raw_data();
  }
  EXPECT_EQ(cache->cached_bytes(), static_cast<size_t>(kFloats * 4));
  // A request of a quarter of the block does not take it; one of the same
  // size does, and a second block does not fit beside it.
  minitf::Tensor small, same, extra;
  ASSERT_TRUE(
      minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kFloats / 4}), &small, budget).ok());
  EXPECT_NE(small.raw_data(), first);
  ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kFloats}), &same, budget).ok());
  EXPECT_EQ(same.raw_data(), first);
  EXPECT_EQ(cache->cached_bytes(), 0u);
  ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kFloats}), &extra, budget).ok());
  same = minitf::Tensor();
  extra = minitf::Tensor();
  EXPECT_EQ(cache->cached_bytes(), static_cast<size_t>(kFloats * 4));
  // The run budget is charged the tensor's bytes either way.
  EXPECT_EQ(budget->used(), kFloats);
}

// When full, the cache lets smaller blocks go to keep a larger one, so that
// a run's big activations stop coming back as fresh pages every run.
TEST(BufferCacheTest, LargerBlocksDisplaceSmallerOnesWhenFull) {
  auto cache = std::make_shared<minitf::BufferCache>(size_t{1} << 30);
  auto budget = std::make_shared<minitf::MemoryBudget>(int64_t{1} << 30);
  budget->set_cache(cache);
  const int64_t kSmall = 64 << 10, kBig = 3 * kSmall;  // floats: 256 and 768 KiB
  cache->Expect(static_cast<size_t>(kBig * 4));
  {
    minitf::Tensor a, b;
    ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kSmall}), &a, budget).ok());
    ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kSmall}), &b, budget).ok());
  }
  EXPECT_EQ(cache->cached_bytes(), static_cast<size_t>(2 * kSmall * 4));
  void* big_data = nullptr;
  {
    minitf::Tensor big;
    ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kBig}), &big, budget).ok());
    big_data = big.raw_data();
  }
  EXPECT_EQ(cache->cached_bytes(), static_cast<size_t>(kBig * 4));
  minitf::Tensor again;
  ASSERT_TRUE(minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({kBig}), &again, budget).ok());
  EXPECT_EQ(again.raw_data(), big_data);
  // A block larger than everything a run needs is never kept.
  {
    minitf::Tensor huge;
    ASSERT_TRUE(
        minitf::Tensor::Allocate(TF_FLOAT, minitf::Shape({2 * kBig}), &huge, budget).ok());
  }
  EXPECT_EQ(cache->cached_bytes(), 0u);
}

}  // namespace
