// Graph import: what a GraphDef must satisfy, and the errors when it does not.
#include <gtest/gtest.h>

#include <functional>

#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using testing_support::GraphBuilder;
using testing_support::ShapeAttr;

struct ImportResult { TF_Code code; std::string message; int num_ops; };

ImportResult Import(const std::string& bytes, const char* prefix = nullptr,
                    const char* device = nullptr, TF_Graph* into = nullptr) {
  TF_Graph* graph = into ? into : TF_NewGraph();
  TF_Status* status = TF_NewStatus();
  TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_ImportGraphDefOptions* opts = TF_NewImportGraphDefOptions();
  if (prefix) TF_ImportGraphDefOptionsSetPrefix(opts, prefix);
  if (device) TF_ImportGraphDefOptionsSetDefaultDevice(opts, device);
  TF_GraphImportGraphDef(graph, buffer, opts, status);
  ImportResult r{TF_GetCode(status), TF_Message(status), 0};
  size_t pos = 0;
  while (TF_GraphNextOperation(graph, &pos) != nullptr) ++r.num_ops;
  TF_DeleteImportGraphDefOptions(opts);
  TF_DeleteBuffer(buffer);
  TF_DeleteStatus(status);
  if (!into) TF_DeleteGraph(graph);
  return r;
}

GraphBuilder AddGraph() {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT, ShapeAttr{{2}});
  g.Const<float>("c", {2}, {1.f, 2.f});
  g.Binary("AddV2", "sum", "x", "c");
  return g;
}

TEST(ImportTest, ValidGraphExposesOperations) {
  TF_Graph* graph = TF_NewGraph();
  ImportResult r = Import(AddGraph().Serialize(), nullptr, "/device:CPU:0", graph);
  ASSERT_EQ(r.code, TF_OK) << r.message;
  EXPECT_EQ(r.num_ops, 3);
  TF_Operation* sum = TF_GraphOperationByName(graph, "sum");
  ASSERT_NE(sum, nullptr);
  EXPECT_STREQ(TF_OperationName(sum), "sum");
  EXPECT_STREQ(TF_OperationOpType(sum), "AddV2");
  EXPECT_STREQ(TF_OperationDevice(sum), "/device:CPU:0");  // default device applied
  EXPECT_EQ(TF_OperationNumInputs(sum), 2);
  EXPECT_EQ(TF_OperationNumOutputs(sum), 1);
  EXPECT_EQ(TF_OperationOutputType(TF_Output{sum, 0}), TF_FLOAT);
  EXPECT_EQ(TF_GraphOperationByName(graph, "missing"), nullptr);
  TF_DeleteGraph(graph);
}

TEST(ImportTest, ExplicitDeviceIsKeptOverDefault) {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Node("Identity", "y").Input("x").Attr("T", TF_FLOAT).Device("/device:GPU:0");
  TF_Graph* graph = TF_NewGraph();
  ASSERT_EQ(Import(g.Serialize(), nullptr, "/cpu:0", graph).code, TF_OK);
  EXPECT_STREQ(TF_OperationDevice(TF_GraphOperationByName(graph, "y")), "/device:GPU:0");
  EXPECT_STREQ(TF_OperationDevice(TF_GraphOperationByName(graph, "x")), "/cpu:0");
  TF_DeleteGraph(graph);
}

TEST(ImportTest, PrefixRenamesNodesAndInputs) {
  TF_Graph* graph = TF_NewGraph();
  ASSERT_EQ(Import(AddGraph().Serialize(), "a", nullptr, graph).code, TF_OK);
  // The same graph again under another prefix: no clash.
  ASSERT_EQ(Import(AddGraph().Serialize(), "b", nullptr, graph).code, TF_OK);
  EXPECT_NE(TF_GraphOperationByName(graph, "a/sum"), nullptr);
  EXPECT_NE(TF_GraphOperationByName(graph, "b/x"), nullptr);
  EXPECT_EQ(TF_GraphOperationByName(graph, "sum"), nullptr);
  // Without a prefix the names clash and nothing is added.
  ImportResult again = Import(AddGraph().Serialize(), "a", nullptr, graph);
  EXPECT_EQ(again.code, TF_INVALID_ARGUMENT);
  EXPECT_EQ(again.num_ops, 6);
  TF_DeleteGraph(graph);
}

TEST(ImportTest, DefaultAttributesAreFilledAndSerialised) {
  GraphBuilder g;
  g.Node("Placeholder", "x").Attr("dtype", TF_INT32);  // shape omitted: default
  TF_Graph* graph = TF_NewGraph();
  ASSERT_EQ(Import(g.Serialize(), nullptr, nullptr, graph).code, TF_OK);
  TF_Buffer* out = TF_NewBuffer();
  TF_Status* status = TF_NewStatus();
  TF_GraphToGraphDef(graph, out, status);
  ASSERT_EQ(TF_GetCode(status), TF_OK);
  minitf::pb::GraphDef def;
  ASSERT_TRUE(def.ParseFromArray(out->data, static_cast<int>(out->length)));
  ASSERT_EQ(def.node_size(), 1);
  ASSERT_TRUE(def.node(0).attr().count("shape"));
  EXPECT_TRUE(def.node(0).attr().at("shape").shape().unknown_rank());
  // A buffer that already holds data is refused.
  TF_GraphToGraphDef(graph, out, status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_DeleteBuffer(out);
  TF_DeleteStatus(status);
  TF_DeleteGraph(graph);
}

// An Identity "y" of float, inputs still to add.
testing_support::NodeRef Y(GraphBuilder& g) { return g.Node("Identity", "y").Attr("T", TF_FLOAT); }

TEST(ImportTest, MalformedGraphsAreRejectedNamingTheNode) {
  struct Case {
    const char* what;
    const char* needle;
    std::function<void(GraphBuilder&)> build;
    TF_Code code = TF_INVALID_ARGUMENT;
  };
  // Every graph starts with a valid float placeholder "x".
  using G = GraphBuilder&;
  const Case cases[] = {
      {"unknown op", "NoSuchOp", [](G g) { g.Node("NoSuchOp", "weird"); }, TF_NOT_FOUND},
      {"dangling input", "nowhere", [](G g) { Y(g).Input("nowhere"); }},
      {"output index out of range", "'y'", [](G g) { Y(g).Input("x:1"); }},
      {"duplicate names", "'x'", [](G g) { g.Placeholder("x", TF_FLOAT); }},
      {"cycle", "cycle",
       [](G g) { Y(g).Input("b"); g.Node("Identity", "b").Input("y").Attr("T", TF_FLOAT); }},
      {"attribute of the wrong kind", "dtype",
       [](G g) { g.Node("Placeholder", "p").Attr("dtype", 3.5f); }},
      {"missing attribute", "'y'", [](G g) { g.Node("Identity", "y"); }},
      {"input dtype mismatch", "int32", [](G g) { g.Placeholder("i", TF_INT32); Y(g).Input("i"); }},
      {"too many inputs", "'y'", [](G g) { Y(g).Input("x").Input("x"); }},
      {"data input after control input", "'y'", [](G g) { Y(g).Input("^x").Input("x"); }},
      {"invalid node name", "bad name!", [](G g) { g.Placeholder("bad name!", TF_FLOAT); }},
      {"reference dtype", "dtype",
       [](G g) { g.Node("Placeholder", "p").Attr("dtype", static_cast<TF_DataType>(101)); }},
      {"list below its minimum length", "minimum",
       [](G g) { g.Node("IdentityN", "n").Attr("T", std::vector<TF_DataType>{}); }},
  };
  for (const Case& c : cases) {
    GraphBuilder g;
    g.Placeholder("x", TF_FLOAT);
    c.build(g);
    ImportResult r = Import(g.Serialize());
    EXPECT_EQ(r.code, c.code) << c.what << ": " << r.message;
    EXPECT_NE(r.message.find(c.needle), std::string::npos) << c.what << ": " << r.message;
    EXPECT_EQ(r.num_ops, 0) << c.what << ": a failed import must leave the graph unchanged";
  }
}

// Corrupted graphs of every kind are graph_import_fuzz's.
TEST(ImportTest, GarbageBytesAreInvalidAndEmptyIsValid) {
  EXPECT_EQ(Import("\xff\xff\xff\xff garbage").code, TF_INVALID_ARGUMENT);
  EXPECT_EQ(Import(std::string("\x0a\x05\x0a\x03", 4)).code, TF_INVALID_ARGUMENT);  // truncated
  EXPECT_EQ(Import("").code, TF_OK);  // an empty GraphDef is a valid, empty graph
}

TEST(ImportTest, NullArgumentsAreErrors) {
  TF_Status* status = TF_NewStatus();
  TF_GraphImportGraphDef(nullptr, nullptr, nullptr, status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_Graph* graph = TF_NewGraph();
  TF_Buffer buffer{nullptr, 10, nullptr};
  TF_GraphImportGraphDef(graph, &buffer, nullptr, status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_Output out;
  const std::string bytes = AddGraph().Serialize();
  TF_Buffer* b = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_GraphImportGraphDefWithReturnOutputs(graph, b, nullptr, &out, 1, status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_GraphImportGraphDefWithReturnOutputs(graph, b, nullptr, nullptr, 0, status);
  EXPECT_EQ(TF_GetCode(status), TF_OK) << TF_Message(status);
  TF_DeleteBuffer(b);
  TF_DeleteGraph(graph);
  TF_DeleteStatus(status);
}

using testing_support::TensorPtr;
using testing_support::TestSession;

TEST(ImportTest, FunctionLibraryEmptyImportsAndFunctionsAreRefusedByName) {
  const std::string graph = AddGraph().Serialize();
  // GraphDef field 2, empty, as TensorFlow's freezing writes it; no versions.
  const ImportResult empty = Import(graph + std::string("\x12\x00", 2));
  EXPECT_EQ(empty.code, TF_OK) << empty.message;
  EXPECT_EQ(empty.num_ops, 3);
  // library { function { signature { name: "my_fn" } } }
  const std::string library("\x12\x0b\x0a\x09\x0a\x07\x0a\x05my_fn", 13);
  const ImportResult with_function = Import(graph + library);
  EXPECT_EQ(with_function.code, TF_UNIMPLEMENTED);
  EXPECT_NE(with_function.message.find("my_fn"), std::string::npos) << with_function.message;
  // A library that is not a message at all.
  EXPECT_NE(Import(graph + std::string("\x15\x00\x00\x00\x00", 5)).code, TF_OK);
}

minitf::pb::TensorProto StringProto(const testing_support::Dims& dims,
                                    const std::vector<std::string>& values) {
  minitf::pb::TensorProto t;
  t.set_dtype(static_cast<minitf::pb::DataType>(TF_STRING));
  for (int64_t d : dims) t.mutable_tensor_shape()->add_dim()->set_size(d);
  for (const std::string& v : values) t.add_string_val(v);
  return t;
}

std::vector<std::string> Strings(const TF_Tensor* t) {
  std::vector<std::string> out;
  const auto* elems = static_cast<const TF_TString*>(TF_TensorData(t));
  for (int64_t i = 0; i < TF_TensorElementCount(t); ++i) {
    out.emplace_back(TF_StringGetDataPointer(&elems[i]), TF_StringGetSize(&elems[i]));
  }
  return out;
}

TEST(StringTensorTest, ConstantsFeedsAndFetchesUseTheTStringLayout) {
  const std::string long_text(100, 'x');
  GraphBuilder g;
  g.Node("Const", "words").Attr("dtype", TF_STRING)
      .Attr("value", StringProto({3}, {"short", long_text, std::string("a\0b", 3)}));
  g.Node("Identity", "same").Input("words").Attr("T", TF_STRING);
  g.Placeholder("fed", TF_STRING);
  g.Node("Identity", "echo").Input("fed").Attr("T", TF_STRING);
  // One value fills the shape.
  g.Node("Const", "filled").Attr("dtype", TF_STRING).Attr("value", StringProto({2, 2}, {"z"}));
  TestSession session(g.Serialize());
  ASSERT_EQ(session.code(), TF_OK) << session.message();

  const int64_t dims[] = {2};
  TF_Tensor* fed = TF_AllocateTensor(TF_STRING, dims, 1, 2 * sizeof(TF_TString));
  ASSERT_NE(fed, nullptr);
  auto* elems = static_cast<TF_TString*>(TF_TensorData(fed));
  EXPECT_EQ(TF_StringGetSize(&elems[0]), 0u);  // starts empty
  TF_StringCopy(&elems[0], "tiny", 4);
  TF_StringCopy(&elems[1], long_text.data(), long_text.size());
  EXPECT_EQ(TF_StringGetType(&elems[0]), TF_TSTR_SMALL);
  EXPECT_EQ(TF_StringGetType(&elems[1]), TF_TSTR_LARGE);
  TensorPtr feed(fed);

  std::vector<TensorPtr> out;
  ASSERT_EQ(session.Run({{"fed", feed.get()}}, {"same", "echo", "filled"}, &out), TF_OK)
      << session.last_error();
  EXPECT_EQ(TF_TensorType(out[0].get()), TF_STRING);
  EXPECT_EQ(Strings(out[0].get()),
            (std::vector<std::string>{"short", long_text, std::string("a\0b", 3)}));
  EXPECT_EQ(Strings(out[1].get()), (std::vector<std::string>{"tiny", long_text}));
  EXPECT_EQ(Strings(out[2].get()), (std::vector<std::string>(4, "z")));
}

TEST(StringTensorTest, AssertFailsWithItsDataAndPrintPassesThrough) {
  GraphBuilder g;
  g.Const<bool>("no", {}, {false});
  g.Const<bool>("yes", {}, {true});
  g.Node("Const", "text").Attr("dtype", TF_STRING)
      .Attr("value", StringProto({}, {"x must be \"small\""}));
  g.Const<int32_t>("values", {5}, {1, 2, 3, 4, 5});
  g.Const<float>("f", {2}, {0.5f, -2.0f});
  g.Node("Assert", "fails").Input("no").Input("text").Input("values").Input("f")
      .Attr("T", std::vector<TF_DataType>{TF_STRING, TF_INT32, TF_FLOAT});
  g.Node("Assert", "holds").Input("yes").Input("text")
      .Attr("T", std::vector<TF_DataType>{TF_STRING});
  g.Node("Identity", "guarded").Input("f").Input("^holds").Attr("T", TF_FLOAT);
  g.Node("Print", "printed").Input("f").Input("text").Input("values").Attr("T", TF_FLOAT)
      .Attr("U", std::vector<TF_DataType>{TF_STRING, TF_INT32}).Attr("message", "f is ");
  g.Node("PrintV2", "print2").Input("text");
  TestSession session(g.Serialize());
  ASSERT_EQ(session.code(), TF_OK) << session.message();
  std::vector<TensorPtr> out;
  EXPECT_EQ(session.Run({}, {}, &out, {"fails"}), TF_INVALID_ARGUMENT);
  EXPECT_NE(session.last_error().find(
                "assertion failed: [x must be \\\"small\\\"] [1 2 3...] [0.5 -2]"),
            std::string::npos)
      << session.last_error();
  EXPECT_NE(session.last_error().find("fails"), std::string::npos) << session.last_error();
  ASSERT_EQ(session.Run({}, {"guarded", "printed"}, &out, {"print2"}), TF_OK)
      << session.last_error();
  EXPECT_EQ(testing_support::Values<float>(out[1].get()), (std::vector<float>{0.5f, -2.0f}));
}

}  // namespace
