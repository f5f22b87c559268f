// TensorFlow 1.x control flow and tensor arrays, in the shapes TensorFlow's
// exporter writes them: tf.cond (Switch/Merge, branch constants hanging on
// the branch pivot by control edges), tf.while_loop (Enter/Merge/LoopCond/
// Switch/NextIteration/Exit per loop variable), tensor arrays written in a
// loop and tf.map_fn (scatter, read each step, write each step, gather).
// Values are computed by hand from the loop's definition. Conds inside loop
// bodies and map_fn over tensor arrays run end to end in the real SSD
// graph's postprocessing, against TensorFlow's outputs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>

#include "graph.h"
#include "session.h"
#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using testing_support::GraphBuilder;
using testing_support::MakeTensor;
using testing_support::ShapeAttr;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

// The endless-loop test needs a small bound; an explicit setting wins.
const int kLoopLimitSet = setenv("MINITF_MAX_LOOP_ITERATIONS", "20000", 0);

// A constant that runs only after `after`, as the exporter hangs branch
// and loop-body constants on their pivot.
template <typename T>
void ConstAfter(GraphBuilder& g, const std::string& name, const testing_support::Dims& dims,
                const std::vector<T>& values, const std::string& after) {
  g.Node("Const", name).Input("^" + after).Attr("dtype", testing_support::DTypeOf<T>())
      .Attr("value", testing_support::MakeTensorProto<T>(dims, values));
}

// Plumbing of tf.while_loop, one loop variable at a time.
class Loop {
 public:
  Loop(GraphBuilder* g, std::string frame, int parallel_iterations = 10)
      : g_(g), frame_(std::move(frame)), parallel_(parallel_iterations) {}

  // Enter -> Merge(Enter, NextIteration); returns the Merge, the value of
  // the variable at the top of each iteration.
  std::string Var(const std::string& var, const std::string& init, TF_DataType t = TF_INT32) {
    const std::string p = frame_ + "/" + var;
    Enter(p + "/Enter", init, t, false);
    g_->Node("Merge", p + "/Merge").Input(p + "/Enter").Input(p + "/NextIteration")
        .Attr("T", t).Attr("N", 2);
    types_[var] = t;
    return p + "/Merge";
  }
  // A loop invariant (is_constant Enter).
  std::string Invariant(const std::string& name, const std::string& value, TF_DataType t) {
    return Enter(frame_ + "/" + name, value, t, true);
  }
  std::string Cond(const std::string& pred) {
    g_->Node("LoopCond", frame_ + "/LoopCond").Input(pred);
    return frame_ + "/LoopCond";
  }
  // Loops while `i` < `n` (int32).
  void WhileLess(const std::string& i, const std::string& n) {
    Cond(g_->Binary("Less", frame_ + "/Less", i, n, TF_INT32));
  }
  // The variable inside the body (Identity of Switch's true side).
  std::string Body(const std::string& var) { return frame_ + "/" + var + "/Identity"; }
  // Switch, Identity, Exit and NextIteration(next) of a variable; returns
  // the Exit.
  std::string Close(const std::string& var, const std::string& next) {
    const std::string p = frame_ + "/" + var;
    const TF_DataType t = types_.at(var);
    g_->Node("Switch", p + "/Switch").Input(p + "/Merge").Input(frame_ + "/LoopCond").Attr("T", t);
    g_->Node("Identity", p + "/Identity").Input(p + "/Switch:1").Attr("T", t);
    g_->Node("Exit", p + "/Exit").Input(p + "/Switch").Attr("T", t);
    g_->Node("NextIteration", p + "/NextIteration").Input(next).Attr("T", t);
    return p + "/Exit";
  }
  // Closes int32 counter `var` with var + 1 as its next value.
  std::string Step(const std::string& var) {
    const std::string p = frame_ + "/" + var;
    g_->Node("Const", p + "/one").Input("^" + Body(var)).Attr("dtype", TF_INT32)
        .Attr("value", testing_support::MakeTensorProto<int32_t>({}, {1}));
    return Close(var, g_->Binary("AddV2", p + "/next", Body(var), p + "/one", TF_INT32));
  }

 private:
  std::string Enter(const std::string& name, const std::string& input, TF_DataType t, bool constant) {
    g_->Node("Enter", name).Input(input).Attr("T", t).Attr("frame_name", frame_)
        .Attr("is_constant", constant).Attr("parallel_iterations", parallel_);
    return name;
  }

  GraphBuilder* g_;
  std::string frame_;
  int parallel_;
  std::map<std::string, TF_DataType> types_;
};

template <typename T>
std::vector<T> RunFetch(TestSession& s, const std::vector<std::pair<std::string, TF_Tensor*>>& feeds,
                        const std::string& fetch) {
  std::vector<TensorPtr> out;
  EXPECT_EQ(s.Run(feeds, {fetch}, &out), TF_OK) << s.last_error();
  if (out.size() != 1) return {};
  return Values<T>(out[0].get());
}

// tf.cond(p, lambda: x * 2, lambda: -x) with branch constants and a
// computation on each branch that fails if it ever runs untaken.
std::string CondGraph() {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT, ShapeAttr{{2}});
  g.Placeholder("p", TF_BOOL, ShapeAttr{{}});
  g.Node("Switch", "cond/Switch").Input("p").Input("p").Attr("T", TF_BOOL);
  g.Node("Identity", "cond/switch_t").Input("cond/Switch:1").Attr("T", TF_BOOL);
  g.Node("Identity", "cond/switch_f").Input("cond/Switch").Attr("T", TF_BOOL);
  g.Node("Identity", "cond/pred_id").Input("p").Attr("T", TF_BOOL);
  g.Node("Switch", "cond/x").Input("x").Input("cond/pred_id").Attr("T", TF_FLOAT);
  ConstAfter<float>(g, "cond/two", {}, {2.0f}, "cond/switch_t");
  g.Binary("Mul", "cond/true", "cond/x:1", "cond/two");
  g.Unary("Neg", "cond/false", "cond/x");
  g.Node("Merge", "cond/Merge").Input("cond/false").Input("cond/true").Attr("T", TF_FLOAT).Attr("N", 2);
  // Side outputs: a constant per branch, merged on their own.
  ConstAfter<int32_t>(g, "cond/ct", {}, {10}, "cond/switch_t");
  ConstAfter<int32_t>(g, "cond/cf", {}, {20}, "cond/switch_f");
  g.Node("Merge", "cond/Merge_1").Input("cond/cf").Input("cond/ct").Attr("T", TF_INT32).Attr("N", 2);
  // Reshaping two elements to seven fails: proof that a dead node never runs.
  ConstAfter<int32_t>(g, "cond/seven", {1}, {7}, "cond/switch_f");
  g.Node("Reshape", "cond/bad").Input("cond/x").Input("cond/seven").Attr("T", TF_FLOAT)
      .Attr("Tshape", TF_INT32);
  g.Node("Identity", "cond/bad_out").Input("cond/bad").Attr("T", TF_FLOAT);
  return g.Serialize();
}

TEST(ControlFlowTest, CondTakesOneBranchAndTheOtherStaysDead) {
  TestSession s(CondGraph());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  for (int round = 0; round < 2; ++round) {  // the second round runs the cached plans
    for (bool p : {true, false}) {
      auto x = MakeTensor<float>({2}, {1.5f, -3.0f});
      auto pt = MakeTensor<bool>({}, {p});
      std::vector<TensorPtr> out;
      ASSERT_EQ(s.Run({{"x", x.get()}, {"p", pt.get()}}, {"cond/Merge", "cond/Merge:1", "cond/Merge_1"}, &out),
                TF_OK)
          << s.last_error();
      EXPECT_EQ(Values<float>(out[0].get()), p ? std::vector<float>({3.0f, -6.0f})
                                               : std::vector<float>({-1.5f, 3.0f}));
      EXPECT_EQ(Values<int32_t>(out[1].get()), std::vector<int32_t>({p ? 1 : 0}));
      EXPECT_EQ(Values<int32_t>(out[2].get()), std::vector<int32_t>({p ? 10 : 20}));
    }
  }
  // The failing node as a target: on the untaken branch it is skipped, on
  // the taken one it fails, naming itself. Fetching it dead is an error.
  auto x = MakeTensor<float>({2}, {1, 2});
  auto t = MakeTensor<bool>({}, {true});
  auto f = MakeTensor<bool>({}, {false});
  std::vector<TensorPtr> out;
  EXPECT_EQ(s.Run({{"x", x.get()}, {"p", t.get()}}, {"cond/Merge"}, &out, {"cond/bad_out"}), TF_OK)
      << s.last_error();
  EXPECT_EQ(s.Run({{"x", x.get()}, {"p", f.get()}}, {"cond/Merge"}, &out, {"cond/bad_out"}),
            TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("cond/bad"), std::string::npos) << s.last_error();
  EXPECT_EQ(s.Run({{"x", x.get()}, {"p", t.get()}}, {"cond/true", "cond/false"}, &out),
            TF_INVALID_ARGUMENT);
}

TEST(ControlFlowTest, NestedCond) {
  // p ? (q ? x + 1 : x - 1) : x * 10
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT, ShapeAttr{{}});
  g.Placeholder("p", TF_BOOL, ShapeAttr{{}});
  g.Placeholder("q", TF_BOOL, ShapeAttr{{}});
  g.Node("Switch", "outer/x").Input("x").Input("p").Attr("T", TF_FLOAT);
  g.Node("Switch", "outer/q").Input("q").Input("p").Attr("T", TF_BOOL);
  g.Node("Switch", "inner/x").Input("outer/x:1").Input("outer/q:1").Attr("T", TF_FLOAT);
  g.Node("Identity", "inner/t").Input("inner/Switch_p:1").Attr("T", TF_BOOL);
  g.Node("Identity", "inner/f").Input("inner/Switch_p").Attr("T", TF_BOOL);
  g.Node("Switch", "inner/Switch_p").Input("outer/q:1").Input("outer/q:1").Attr("T", TF_BOOL);
  ConstAfter<float>(g, "inner/one", {}, {1.0f}, "inner/t");
  ConstAfter<float>(g, "inner/one_f", {}, {1.0f}, "inner/f");
  g.Binary("AddV2", "inner/add", "inner/x:1", "inner/one");
  g.Binary("Sub", "inner/sub", "inner/x", "inner/one_f");
  g.Node("Merge", "inner/Merge").Input("inner/sub").Input("inner/add").Attr("T", TF_FLOAT).Attr("N", 2);
  g.Node("Identity", "outer/f").Input("outer/Switch_p").Attr("T", TF_BOOL);
  g.Node("Switch", "outer/Switch_p").Input("p").Input("p").Attr("T", TF_BOOL);
  ConstAfter<float>(g, "outer/ten", {}, {10.0f}, "outer/f");
  g.Binary("Mul", "outer/mul", "outer/x", "outer/ten");
  g.Node("Merge", "outer/Merge").Input("outer/mul").Input("inner/Merge").Attr("T", TF_FLOAT).Attr("N", 2);
  TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  for (bool p : {true, false}) {
    for (bool q : {true, false}) {
      auto x = MakeTensor<float>({}, {4.0f});
      auto pt = MakeTensor<bool>({}, {p});
      auto qt = MakeTensor<bool>({}, {q});
      const float want = p ? (q ? 5.0f : 3.0f) : 40.0f;
      EXPECT_EQ(RunFetch<float>(s, {{"x", x.get()}, {"p", pt.get()}, {"q", qt.get()}}, "outer/Merge"),
                std::vector<float>({want}))
          << p << q;
    }
  }
}

// i = 0; acc = 0; while i < n: acc += i * x; i += 1  (x a loop invariant)
std::string CounterAccumulatorGraph(int parallel_iterations) {
  GraphBuilder g;
  g.Placeholder("n", TF_INT32, ShapeAttr{{}});
  g.Placeholder("x", TF_FLOAT, ShapeAttr{{}});
  g.Const<int32_t>("zero", {}, {0});
  g.Const<float>("zero_f", {}, {0.0f});
  Loop loop(&g, "while", parallel_iterations);
  const std::string i = loop.Var("i", "zero");
  loop.Var("acc", "zero_f", TF_FLOAT);
  const std::string n = loop.Invariant("n_enter", "n", TF_INT32);
  const std::string x = loop.Invariant("x_enter", "x", TF_FLOAT);
  loop.WhileLess(i, n);
  g.Node("Cast", "while/i_f").Input(loop.Body("i")).Attr("SrcT", TF_INT32).Attr("DstT", TF_FLOAT)
      .Attr("Truncate", false);
  g.Binary("Mul", "while/ix", "while/i_f", x);
  g.Binary("AddV2", "while/acc_next", loop.Body("acc"), "while/ix");
  loop.Step("i");
  loop.Close("acc", "while/acc_next");
  return g.Serialize();
}

TEST(ControlFlowTest, WhileLoopCounterAndAccumulator) {
  for (int parallel : {1, 10}) {
    TestSession s(CounterAccumulatorGraph(parallel));
    ASSERT_EQ(s.code(), TF_OK) << s.message();
    for (int n : {0, 1, 4, 100}) {
      auto nt = MakeTensor<int32_t>({}, {n});
      auto xt = MakeTensor<float>({}, {1.5f});
      std::vector<TensorPtr> out;
      ASSERT_EQ(s.Run({{"n", nt.get()}, {"x", xt.get()}}, {"while/i/Exit", "while/acc/Exit"}, &out), TF_OK)
          << s.last_error();
      EXPECT_EQ(Values<int32_t>(out[0].get()), std::vector<int32_t>({n}));
      EXPECT_EQ(Values<float>(out[1].get()), std::vector<float>({1.5f * n * (n - 1) / 2}));
    }
  }
}

// Nested: total = sum over i < 3 of (sum over j < m of i * 10 + j),
// with the inner bound m and the outer counter entering the inner frame.
TEST(ControlFlowTest, NestedWhileLoops) {
  GraphBuilder g;
  g.Placeholder("m", TF_INT32, ShapeAttr{{}});
  g.Const<int32_t>("zero", {}, {0});
  g.Const<int32_t>("three", {}, {3});
  Loop outer(&g, "outer");
  const std::string i = outer.Var("i", "zero");
  outer.Var("total", "zero");
  const std::string bound = outer.Invariant("three_enter", "three", TF_INT32);
  const std::string m = outer.Invariant("m_enter", "m", TF_INT32);
  outer.WhileLess(i, bound);
  ConstAfter<int32_t>(g, "outer/ten", {}, {10}, outer.Body("i"));
  g.Binary("Mul", "outer/i10", outer.Body("i"), "outer/ten", TF_INT32);
  ConstAfter<int32_t>(g, "outer/zero", {}, {0}, outer.Body("i"));
  Loop inner(&g, "outer/inner");
  const std::string j = inner.Var("j", "outer/zero");
  inner.Var("sum", outer.Body("total"));
  const std::string mi = inner.Invariant("m_enter", m, TF_INT32);
  const std::string base = inner.Invariant("i10_enter", "outer/i10", TF_INT32);
  inner.WhileLess(j, mi);
  g.Binary("AddV2", "outer/inner/term", base, inner.Body("j"), TF_INT32);
  g.Binary("AddV2", "outer/inner/sum_next", inner.Body("sum"), "outer/inner/term", TF_INT32);
  inner.Step("j");
  const std::string sum = inner.Close("sum", "outer/inner/sum_next");
  outer.Step("i");
  outer.Close("total", sum);
  TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  for (int mv : {0, 1, 4}) {
    int want = 0;
    for (int a = 0; a < 3; ++a) {
      for (int b = 0; b < mv; ++b) want += a * 10 + b;
    }
    auto mt = MakeTensor<int32_t>({}, {mv});
    EXPECT_EQ(RunFetch<int32_t>(s, {{"m", mt.get()}}, "outer/total/Exit"), std::vector<int32_t>({want}))
        << mv;
  }
}

TEST(ControlFlowTest, TensorArrayErrorsAreTensorFlows) {
  struct Case {
    const char* what;
    int size;
    bool dynamic;
    bool clear_after_read;
    std::vector<int> writes, reads;
    TF_Code code;
    const char* message;
  };
  const Case cases[] = {
      {"unwritten", 3, false, true, {0}, {1}, TF_INVALID_ARGUMENT, "has not yet been written to"},
      {"double write", 3, false, true, {1, 1}, {}, TF_INVALID_ARGUMENT, "already been written to"},
      {"write past size", 2, false, true, {2}, {}, TF_INVALID_ARGUMENT, "not resizeable"},
      {"read past size", 2, false, true, {0}, {5}, TF_INVALID_ARGUMENT, "Tried to read from index 5"},
      {"read twice", 2, false, true, {0}, {0, 0}, TF_INVALID_ARGUMENT, "twice"},
      {"read twice kept", 2, false, false, {0}, {0, 0}, TF_OK, ""},
      {"dynamic grows", 1, true, true, {0, 4}, {4}, TF_OK, ""},
      {"huge", 1 << 30, false, true, {}, {}, TF_RESOURCE_EXHAUSTED, "memory"},
  };
  for (const Case& c : cases) {
    GraphBuilder g;
    g.Const<int32_t>("size", {}, {c.size});
    g.Node("TensorArrayV3", "ta").Input("size").Attr("dtype", TF_FLOAT)
        .Attr("dynamic_size", c.dynamic).Attr("clear_after_read", c.clear_after_read);
    std::string flow = "ta:1";
    int k = 0;
    for (int w : c.writes) {
      const std::string id = std::to_string(k++);
      g.Const<int32_t>("i" + id, {}, {w});
      g.Const<float>("v" + id, {1}, {float(w)});
      g.Node("TensorArrayWriteV3", "w" + id).Input("ta").Input("i" + id).Input("v" + id).Input(flow)
          .Attr("T", TF_FLOAT);
      flow = "w" + id;
    }
    std::string last = flow;
    for (int r : c.reads) {
      const std::string id = std::to_string(k++);
      g.Const<int32_t>("i" + id, {}, {r});
      g.Node("TensorArrayReadV3", "r" + id).Input("ta").Input("i" + id).Input(flow).Attr("dtype", TF_FLOAT);
      // Reads in order: each waits for the previous one.
      if (last != flow) g.def().mutable_node(g.def().node_size() - 1)->add_input("^" + last);
      last = "r" + id;
    }
    TestSession s(g.Serialize());
    ASSERT_EQ(s.code(), TF_OK) << s.message();
    std::vector<TensorPtr> out;
    EXPECT_EQ(s.Run({}, {last}, &out), c.code) << c.what << ": " << s.last_error();
    EXPECT_NE(s.last_error().find(c.message), std::string::npos) << c.what << ": " << s.last_error();
  }
}

// Split into uneven pieces, then Size, Concat (values and lengths), a Read
// of one piece, and every op refused after Close.
TEST(ControlFlowTest, TensorArraySplitConcatSizeClose) {
  GraphBuilder g;
  g.Const<float>("value", {5, 2}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  g.Const<int64_t>("lengths", {3}, {2, 0, 3});
  g.Const<int32_t>("three", {}, {3});
  g.Const<int32_t>("two", {}, {2});
  g.Node("TensorArrayV3", "ta").Input("three").Attr("dtype", TF_FLOAT).Attr("clear_after_read", false);
  g.Node("TensorArraySplitV3", "split").Input("ta").Input("value").Input("lengths").Input("ta:1")
      .Attr("T", TF_FLOAT);
  g.Node("TensorArraySizeV3", "size").Input("ta").Input("split");
  g.Node("TensorArrayConcatV3", "concat").Input("ta").Input("split").Attr("dtype", TF_FLOAT);
  g.Node("TensorArrayReadV3", "read").Input("ta").Input("two").Input("split").Attr("dtype", TF_FLOAT);
  g.Node("TensorArrayCloseV3", "close").Input("ta").Input("^concat").Input("^read").Input("^size");
  g.Node("TensorArraySizeV3", "size_after").Input("ta").Input("split").Input("^close");
  TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  std::vector<TensorPtr> out;
  ASSERT_EQ(s.Run({}, {"size", "concat", "concat:1", "read"}, &out, {"close"}), TF_OK) << s.last_error();
  EXPECT_EQ(Values<int32_t>(out[0].get()), std::vector<int32_t>({3}));
  EXPECT_EQ(Values<float>(out[1].get()), std::vector<float>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(Values<int64_t>(out[2].get()), std::vector<int64_t>({2, 0, 3}));
  EXPECT_EQ(Values<float>(out[3].get()), std::vector<float>({4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(testing_support::DimsOf(out[3].get()), (testing_support::Dims{3, 2}));
  EXPECT_EQ(s.Run({}, {"size_after"}, &out), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("closed"), std::string::npos) << s.last_error();
}

// A loop that keeps every iteration's 64 KiB in a growing tensor array
// stops at the run's memory limit, well before its iteration limit.
TEST(ControlFlowTest, LoopStateIsChargedToTheRunBudget) {
  GraphBuilder g;
  g.Const<int32_t>("zero", {}, {0});
  g.Const<int32_t>("n", {}, {1 << 30});
  g.Const<int32_t>("elems", {1}, {16384});
  g.Node("TensorArrayV3", "ta").Input("zero").Attr("dtype", TF_FLOAT).Attr("dynamic_size", true);
  Loop loop(&g, "grow");
  const std::string i = loop.Var("i", "zero");
  loop.Var("flow", "ta:1", TF_FLOAT);
  const std::string n = loop.Invariant("n_enter", "n", TF_INT32);
  const std::string handle = loop.Invariant("ta_enter", "ta", TF_RESOURCE);
  const std::string shape = loop.Invariant("shape_enter", "elems", TF_INT32);
  loop.WhileLess(i, n);
  const std::string bi = loop.Body("i");
  ConstAfter<float>(g, "grow/v", {}, {1.0f}, bi);
  g.Node("Fill", "grow/fill").Input(shape).Input("grow/v").Attr("T", TF_FLOAT).Attr("index_type", TF_INT32);
  g.Node("TensorArrayWriteV3", "grow/write").Input(handle).Input(bi).Input("grow/fill")
      .Input(loop.Body("flow")).Attr("T", TF_FLOAT);
  loop.Step("i");
  loop.Close("flow", "grow/write");
  const std::string bytes = g.Serialize();
  minitf::Graph graph;
  ASSERT_TRUE(graph.Import(bytes.data(), bytes.size(), {}).ok());
  minitf::SessionConfig config;
  config.max_run_bytes = int64_t{16} << 20;
  minitf::Session session(&graph, config);
  std::vector<minitf::Tensor> out;
  const minitf::Status status = session.Run({}, {{graph.Find("grow/flow/Exit"), 0}}, {}, &out);
  EXPECT_EQ(status.code(), TF_RESOURCE_EXHAUSTED) << status.message();
  EXPECT_EQ(status.message().find("iterations"), std::string::npos) << status.message();
}

TEST(ControlFlowTest, ImportRejectsMalformedFrames) {
  struct Case {
    const char* what;
    const char* node;
    std::function<void(GraphBuilder&)> build;
  };
  using G = GraphBuilder&;
  const Case cases[] = {
      {"Exit outside a frame", "lonely_exit",
       [](G g) { g.Node("Exit", "lonely_exit").Input("c").Attr("T", TF_FLOAT); }},
      {"NextIteration outside a frame", "lonely_next",
       [](G g) { g.Node("NextIteration", "lonely_next").Input("c").Attr("T", TF_FLOAT); }},
      {"Merge cycle without NextIteration", "cycle",
       [](G g) {
         g.Node("Merge", "m").Input("c").Input("loop_add").Attr("T", TF_FLOAT).Attr("N", 2);
         g.Binary("AddV2", "loop_add", "m", "c");
       }},
      {"inputs from two frames", "mixed",
       [](G g) {
         g.Node("Enter", "ea").Input("c").Attr("T", TF_FLOAT).Attr("frame_name", "a");
         g.Node("Enter", "eb").Input("c").Attr("T", TF_FLOAT).Attr("frame_name", "b");
         g.Binary("AddV2", "mixed", "ea", "eb");
       }},
  };
  for (const Case& c : cases) {
    GraphBuilder g;
    g.Const<float>("c", {}, {1.0f});
    c.build(g);
    TestSession s(g.Serialize());
    EXPECT_EQ(s.code(), TF_INVALID_ARGUMENT) << c.what;
    EXPECT_NE(s.message().find(c.node), std::string::npos) << c.what << ": " << s.message();
  }
}

TEST(ControlFlowTest, EndlessLoopStopsNamingTheLoop) {
  ASSERT_EQ(kLoopLimitSet, 0);
  GraphBuilder g;
  g.Const<int32_t>("zero", {}, {0});
  g.Const<bool>("yes", {}, {true});
  Loop loop(&g, "forever");
  loop.Var("i", "zero");
  const std::string yes = loop.Invariant("yes_enter", "yes", TF_BOOL);
  loop.Cond(yes);
  loop.Step("i");
  TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  std::vector<TensorPtr> out;
  EXPECT_EQ(s.Run({}, {"forever/i/Exit"}, &out), TF_RESOURCE_EXHAUSTED);
  EXPECT_NE(s.last_error().find("'forever'"), std::string::npos) << s.last_error();
}

}  // namespace
