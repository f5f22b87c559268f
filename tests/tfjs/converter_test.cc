// The TF.js converter on small hand-made models: weight decoding (float16
// edge values, affine uint8/uint16), the checks on everything read from
// model.json and the shards, the rewrite of fused ops into standard ones
// (run through the runtime with hand-computed results), and graph edits.
// Reading real models from disk, their many shards and the common fused
// forms run in the real-model goldens; mutated files in tfjs_model_fuzz.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "converter.h"
#include "graph_edit.h"
#include "runtime_check.h"
#include "support/tf_session.h"
#include "tfjs_model.h"
#include "unfuse.h"

namespace {

using nlohmann::json;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;
namespace tfjs = minitf::tfjs;
namespace pb = minitf::pb;
using F = std::vector<float>;

std::string Base64(const std::string& in) {
  static const char* kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < in.size(); i += 3) {
    uint32_t v = uint8_t(in[i]) << 16;
    if (i + 1 < in.size()) v |= uint8_t(in[i + 1]) << 8;
    if (i + 2 < in.size()) v |= uint8_t(in[i + 2]);
    // A group of n bytes gives n + 1 characters, padded with '=' to four.
    for (size_t k = 0; k < 4; ++k) {
      out += i + k <= in.size() ? kAlphabet[(v >> (18 - 6 * k)) & 63] : '=';
    }
  }
  return out;
}

json TypeAttr(const char* t) { return {{"type", t}}; }
json IntsAttr(std::vector<int> v) {
  json list = json::array();
  for (int x : v) list.push_back(std::to_string(x));  // TF.js writes int64 as strings
  return {{"list", {{"i", list}}}};
}
json StrAttr(const std::string& s) { return {{"s", Base64(s)}}; }
json StrsAttr(std::vector<std::string> v) {
  json list = json::array();
  for (const auto& s : v) list.push_back(Base64(s));
  return {{"list", {{"s", list}}}};
}

// A model.json under construction: nodes as TF.js writes them, weights
// appended to one shard.
class FakeModel {
 public:
  void Node(const std::string& name, const std::string& op, std::vector<std::string> inputs,
            json attrs = json::object()) {
    json n = {{"name", name}, {"op", op}, {"attr", attrs}};
    if (!inputs.empty()) n["input"] = inputs;
    nodes_.push_back(n);
  }
  void Input(const std::string& name, std::vector<int> shape) {
    json dims = json::array();
    for (int d : shape) dims.push_back({{"size", std::to_string(d)}});
    Node(name, "Placeholder", {},
         {{"dtype", TypeAttr("DT_FLOAT")}, {"shape", {{"shape", {{"dim", dims}}}}}});
  }
  // A float32 Const node with its value stored in the shard.
  void Weight(const std::string& name, std::vector<int> shape, const F& values) {
    json dims = json::array();
    for (int d : shape) dims.push_back({{"size", std::to_string(d)}});
    Node(name, "Const", {},
         {{"dtype", TypeAttr("DT_FLOAT")},
          {"value", {{"tensor", {{"dtype", "DT_FLOAT"}, {"tensorShape", {{"dim", dims}}}}}}}});
    weights_.push_back({{"name", name}, {"shape", shape}, {"dtype", "float32"}});
    shard_.append(reinterpret_cast<const char*>(values.data()), values.size() * 4);
  }
  void RawWeight(json spec, const std::string& bytes) {
    weights_.push_back(spec);
    shard_ += bytes;
  }
  std::string Json() const {
    json model = {{"format", "graph-model"},
                  {"modelTopology", {{"node", nodes_}, {"versions", json::object()}}},
                  {"weightsManifest", {{{"paths", {"group1-shard1of1.bin"}}, {"weights", weights_}}}}};
    return model.dump();
  }
  const std::string& shard() const { return shard_; }

 private:
  json nodes_ = json::array();
  json weights_ = json::array();
  std::string shard_;
};

minitf::Status Convert(const FakeModel& m, pb::GraphDef* graph) {
  tfjs::TfjsModel model;
  MINITF_RETURN_IF_ERROR(tfjs::ParseTfjsModel(m.Json(), {m.shard()}, &model));
  return tfjs::ConvertTfjsModel(model, {}, graph);
}

// Converts, checks that only standard ops remain, runs `fetch` with x fed.
std::vector<float> ConvertAndRun(const FakeModel& m, const testing_support::Dims& dims,
                                 const F& x, const std::string& fetch) {
  pb::GraphDef graph;
  const minitf::Status s = Convert(m, &graph);
  EXPECT_TRUE(s.ok()) << s.message();
  for (const std::string& op : tfjs::OpTypes(graph)) {
    EXPECT_FALSE(tfjs::IsFusedOp(op)) << op << " survived the rewrite";
  }
  TestSession session(graph.SerializeAsString());
  EXPECT_EQ(session.code(), TF_OK) << session.message();
  if (session.code() != TF_OK) return {};
  TensorPtr in = testing_support::MakeTensor<float>(dims, x);
  std::vector<TensorPtr> out;
  EXPECT_EQ(session.Run({{"x", in.get()}}, {fetch}, &out), TF_OK) << session.last_error();
  return out.empty() ? F{} : Values<float>(out[0].get());
}

void ExpectFloats(const F& actual, const F& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) {
    EXPECT_NEAR(actual[i], expected[i], 1e-6f) << "at " << i;
  }
}

json Conv2DAttrs(std::vector<std::string> fused, int num_args, const char* padding = "VALID") {
  return {{"T", TypeAttr("DT_FLOAT")},  {"strides", IntsAttr({1, 1, 1, 1})},
          {"padding", StrAttr(padding)}, {"data_format", StrAttr("NHWC")},
          {"dilations", IntsAttr({1, 1, 1, 1})}, {"fused_ops", StrsAttr(fused)},
          {"num_args", {{"i", std::to_string(num_args)}}}, {"epsilon", {{"f", 0}}},
          {"explicit_paddings", {{"list", json::object()}}},
          {"_grappler_note", {{"b", true}}}};
}

// ------------------------------------------------------------ weights

TEST(TfjsWeightsTest, HalfPrecisionDecodesEveryClass) {
  // 65504 is the largest finite; 2^-14 the smallest normal, 2^-24 the smallest subnormal.
  const std::vector<uint16_t> bits = {0x3c00, 0xc000, 0x3555, 0x7bff, 0x0400,
                                      0x0001, 0x03ff, 0x7c00, 0xfc00};
  std::vector<float> got;
  for (uint16_t b : bits) got.push_back(tfjs::HalfToFloat(b));
  EXPECT_EQ(got, (std::vector<float>{1, -2, 0.333251953125f, 65504, std::ldexp(1.0f, -14),
                                     std::ldexp(1.0f, -24), 1023 * std::ldexp(1.0f, -24),
                                     INFINITY, -INFINITY}));
  EXPECT_TRUE(std::isnan(tfjs::HalfToFloat(0x7e00)));
  const float negative_zero = tfjs::HalfToFloat(0x8000);
  EXPECT_EQ(negative_zero, 0.0f);
  EXPECT_TRUE(std::signbit(negative_zero));
}

F FloatsOf(const pb::TensorProto& t) {
  F out(t.tensor_content().size() / 4);
  std::memcpy(out.data(), t.tensor_content().data(), out.size() * 4);
  return out;
}

TEST(TfjsWeightsTest, QuantisedWeightsDequantiseAffinely) {
  size_t offset = 0;
  pb::TensorProto t;
  tfjs::WeightSpec u8{"u8", pb::DT_FLOAT, {3}, "uint8", 0.5, -1};
  ASSERT_TRUE(tfjs::DecodeWeight(u8, std::string("\x00\x01\xff", 3), &offset, &t).ok());
  EXPECT_EQ(FloatsOf(t), (F{-1, -0.5f, 126.5f}));
  EXPECT_EQ(offset, 3u);

  offset = 0;
  tfjs::WeightSpec u16{"u16", pb::DT_FLOAT, {3}, "uint16", 0.25, 10};
  const std::string bytes("\x00\x00\x04\x00\xff\xff", 6);
  ASSERT_TRUE(tfjs::DecodeWeight(u16, bytes, &offset, &t).ok());
  EXPECT_EQ(FloatsOf(t), (F{10, 11, 16393.75f}));

  // int32 weights round like JavaScript's Math.round: halves go up, -1.5 to -1.
  offset = 0;
  tfjs::WeightSpec i8{"i", pb::DT_INT32, {3}, "uint8", 0.5, -2};
  ASSERT_TRUE(tfjs::DecodeWeight(i8, std::string("\x01\x07\x04", 3), &offset, &t).ok());
  std::vector<int32_t> ints(3);
  std::memcpy(ints.data(), t.tensor_content().data(), 12);
  EXPECT_EQ(ints, (std::vector<int32_t>{-1, 2, 0}));
  EXPECT_EQ(t.dtype(), pb::DT_INT32);
}

// ------------------------------------------------------ malformed models

std::string ParseError(const std::string& json_text, const std::string& shard) {
  tfjs::TfjsModel model;
  const minitf::Status s = tfjs::ParseTfjsModel(json_text, {shard}, &model);
  return s.ok() ? std::string() : s.message();
}

TEST(TfjsModelFileTest, RefusesWhatItCannotTrust) {
  FakeModel m;
  m.Weight("w", {4}, {1, 2, 3, 4});
  // Shards shorter than the manifest says.
  const std::string short_shard = ParseError(m.Json(), m.shard().substr(0, 12));
  EXPECT_NE(short_shard.find("'w' needs 16 bytes"), std::string::npos) << short_shard;

  auto with_weight = [&](json spec) {
    FakeModel bad;
    bad.RawWeight(spec, std::string(64, '\0'));
    return ParseError(bad.Json(), bad.shard());
  };
  auto quantised = [](json q) {
    return json{{"name", "q"}, {"shape", {1}}, {"dtype", "float32"}, {"quantization", q}};
  };
  const std::vector<std::pair<std::string, const char*>> refused = {
      {with_weight({{"name", "neg"}, {"shape", {-1}}, {"dtype", "float32"}}), "invalid dimension"},
      {with_weight({{"name", "huge"}, {"shape", {65536, 65536, 65536}}, {"dtype", "float32"}}),
       "more than"},
      {with_weight({{"name", "s"}, {"shape", {1}}, {"dtype", "string"}}), "string"},
      {with_weight(quantised({{"dtype", "int4"}})), "int4"},
      {with_weight(quantised({{"dtype", "uint8"}})), "scale"},
      {with_weight({{"shape", {1}}, {"dtype", "float32"}}), "without a name"},
      {ParseError("{not json", ""), "not valid JSON"},
      {ParseError(R"({"modelTopology": {"node": []}})", ""), "weightsManifest"},
      {ParseError(R"({"weightsManifest": []})", ""), "modelTopology"},
      // A node whose attribute names a dtype that does not exist.
      {ParseError(R"({"modelTopology": {"node": [{"name": "n", "op": "Identity",
          "attr": {"T": {"type": "DT_NOPE"}}}]}, "weightsManifest": []})", ""), "node 'n'"},
  };
  for (const auto& [error, needle] : refused)
    EXPECT_NE(error.find(needle), std::string::npos) << needle << " in: " << error;
  // Wrong JSON types where objects are expected are errors, not exceptions.
  EXPECT_FALSE(ParseError(R"({"modelTopology": {"node": []}, "weightsManifest":
      [{"weights": [{"name": "x", "dtype": "float32", "shape": "abc"}]}]})", "").empty());

  std::vector<std::string> paths;
  EXPECT_FALSE(tfjs::ShardPaths(R"({"weightsManifest": [{"paths": ["../../etc/passwd"]}]})",
                                &paths).ok());
  EXPECT_FALSE(tfjs::ShardPaths(R"({"weightsManifest": [{"paths": ["/abs.bin"]}]})", &paths).ok());
}

// ------------------------------------------------------------ conversion

TEST(TfjsConvertTest, ConstantsGetTheirWeightsAndPrivateNotesGo) {
  FakeModel m;
  m.Input("x", {2});
  m.Weight("w", {2}, {3, 4});
  m.Node("y", "Mul", {"x", "w"},
         {{"T", TypeAttr("DT_FLOAT")}, {"_output_shapes", {{"list", json::object()}}}});
  pb::GraphDef graph;
  ASSERT_TRUE(Convert(m, &graph).ok());
  for (const pb::NodeDef& n : graph.node()) {
    EXPECT_TRUE(n.device().empty());
    for (const auto& [name, value] : n.attr()) EXPECT_NE(name[0], '_') << n.name();
  }
  EXPECT_EQ(ConvertAndRun(m, {2}, {1, -2}, "y"), (F{3, -8}));

  FakeModel orphan;
  orphan.Node("c", "Const", {},
              {{"dtype", TypeAttr("DT_FLOAT")},
               {"value", {{"tensor", {{"dtype", "DT_FLOAT"},
                                      {"tensorShape", {{"dim", {{{"size", "2"}}}}}}}}}}});
  pb::GraphDef unused;
  const minitf::Status s = Convert(orphan, &unused);
  EXPECT_FALSE(s.ok());
  EXPECT_NE(s.message().find("'c' has no weight"), std::string::npos) << s.message();
}

TEST(TfjsConvertTest, Int64ConstantsStoredAsInt32AreWidenedBack) {
  FakeModel m;
  m.Node("idx", "Const", {}, {{"dtype", TypeAttr("DT_INT64")}});
  m.RawWeight({{"name", "idx"}, {"shape", {2}}, {"dtype", "int32"}},
              std::string("\x05\x00\x00\x00\xf9\xff\xff\xff", 8));
  pb::GraphDef graph;
  ASSERT_TRUE(Convert(m, &graph).ok());
  const pb::TensorProto& v = graph.node(0).attr().at("value").tensor();
  EXPECT_EQ(v.dtype(), pb::DT_INT64);
  EXPECT_EQ(graph.node(0).attr().at("dtype").type(), pb::DT_INT64);
  std::vector<int64_t> values(2);
  ASSERT_EQ(v.tensor_content().size(), 16u);
  std::memcpy(values.data(), v.tensor_content().data(), 16);
  EXPECT_EQ(values, (std::vector<int64_t>{5, -7}));

  FakeModel bad;
  bad.Node("flag", "Const", {}, {{"dtype", TypeAttr("DT_BOOL")}});
  bad.RawWeight({{"name", "flag"}, {"shape", {1}}, {"dtype", "float32"}}, std::string(4, '\0'));
  const minitf::Status s = Convert(bad, &graph);
  EXPECT_FALSE(s.ok());
  EXPECT_NE(s.message().find("'flag' declares DT_BOOL"), std::string::npos) << s.message();
}

TEST(TfjsUnfuseTest, ConvolutionWithBiasAndActivations) {
  const F x = {1, 2, 3, -1};  // [1, 2, 2, 1]
  {  // prelu(x - 2) with alpha 0.5, alpha as the second argument
    FakeModel m;
    m.Input("x", {1, 2, 2, 1});
    m.Weight("w", {1, 1, 1, 1}, {1});
    m.Weight("b", {1}, {-2});
    m.Weight("alpha", {1}, {0.5f});
    m.Node("conv", "_FusedConv2D", {"x", "w", "b", "alpha"}, Conv2DAttrs({"BiasAdd", "Prelu"}, 2));
    ExpectFloats(ConvertAndRun(m, {1, 2, 2, 1}, x, "conv"), {-0.5f, 0, 1, -1.5f});
  }
  {  // leaky relu with the fused node's alpha
    FakeModel m;
    m.Input("x", {1, 2, 2, 1});
    m.Weight("w", {1, 1, 1, 1}, {1});
    m.Weight("b", {1}, {0});
    json attrs = Conv2DAttrs({"BiasAdd", "LeakyRelu"}, 1);
    attrs["leakyrelu_alpha"] = {{"f", 0.1}};
    m.Node("conv", "_FusedConv2D", {"x", "w", "b"}, attrs);
    ExpectFloats(ConvertAndRun(m, {1, 2, 2, 1}, {1, -2, 3, -4}, "conv"), {1, -0.2f, 3, -0.4f});
  }
  {  // batch norm: (x - 3) * rsqrt(3 + 1) * 2 + 1 = x - 2, epsilon 1 must count
    FakeModel m;
    m.Input("x", {1, 2, 2, 1});
    m.Weight("w", {1, 1, 1, 1}, {1});
    m.Weight("scale", {1}, {2});
    m.Weight("offset", {1}, {1});
    m.Weight("mean", {1}, {3});
    m.Weight("var", {1}, {3});
    json attrs = Conv2DAttrs({"FusedBatchNorm"}, 4);
    attrs["epsilon"] = {{"f", 1}};
    m.Node("conv", "_FusedConv2D", {"x", "w", "scale", "offset", "mean", "var"}, attrs);
    ExpectFloats(ConvertAndRun(m, {1, 2, 2, 1}, x, "conv"), {-1, 0, 1, -3});
  }
}

TEST(TfjsUnfuseTest, MatMulAndStandalonePrelu) {
  {  // [1, 2] x [[1, 2], [3, 4]] + [1, -1], and the transposed-b form
    for (bool transpose_b : {false, true}) {
      FakeModel m;
      m.Input("x", {1, 2});
      m.Weight("w", {2, 2}, transpose_b ? F{1, 3, 2, 4} : F{1, 2, 3, 4});
      m.Weight("b", {2}, {1, -1});
      m.Node("fc", "_FusedMatMul", {"x", "w", "b"},
             {{"T", TypeAttr("DT_FLOAT")}, {"transpose_a", {{"b", false}}},
              {"transpose_b", {{"b", transpose_b}}}, {"fused_ops", StrsAttr({"BiasAdd"})},
              {"num_args", {{"i", "1"}}}, {"epsilon", {{"f", 0}}}});
      ExpectFloats(ConvertAndRun(m, {1, 2}, {1, 2}, "fc"), {8, 9});
    }
  }
  {  // channel-wise alpha; consumers of the Prelu node still find it
    FakeModel m;
    m.Input("x", {2, 2});
    m.Weight("alpha", {2}, {0.1f, 0.2f});
    m.Node("act", "Prelu", {"x", "alpha"}, {{"T", TypeAttr("DT_FLOAT")}});
    m.Node("out", "Identity", {"act"}, {{"T", TypeAttr("DT_FLOAT")}});
    ExpectFloats(ConvertAndRun(m, {2, 2}, {1, -1, -2, 2}, "out"), {1, -0.2f, -0.2f, 2});
  }
}

TEST(TfjsUnfuseTest, UnknownCombinationsNameTheNode) {
  auto error_for = [](json attrs, std::vector<std::string> inputs) {
    FakeModel m;
    m.Input("x", {1, 1, 1, 1});
    m.Weight("w", {1, 1, 1, 1}, {1});
    m.Weight("b", {1}, {0});
    m.Node("odd", "_FusedConv2D", inputs, attrs);
    pb::GraphDef graph;
    const minitf::Status s = Convert(m, &graph);
    return s.ok() ? std::string() : s.message();
  };
  std::string e = error_for(Conv2DAttrs({"BiasAdd", "Gelu"}, 1), {"x", "w", "b"});
  EXPECT_NE(e.find("'odd'"), std::string::npos) << e;
  EXPECT_NE(e.find("Gelu"), std::string::npos) << e;
  e = error_for(Conv2DAttrs({"BiasAdd"}, 2), {"x", "w", "b"});
  EXPECT_NE(e.find("num_args"), std::string::npos) << e;
  e = error_for(Conv2DAttrs({"BiasAdd", "Prelu"}, 1), {"x", "w", "b"});
  EXPECT_NE(e.find("Prelu"), std::string::npos) << e;
  e = error_for(Conv2DAttrs({}, 1), {"x", "w", "b"});
  EXPECT_NE(e.find("unused"), std::string::npos) << e;
}

// ------------------------------------------------------------ graph edits

TEST(GraphEditTest, RenameRewritesEveryKindOfReference) {
  pb::GraphDef g;
  tfjs::GraphEditor editor(&g);
  editor.Add("Placeholder", "a", {});
  editor.Add("Split", "b", {"a"});
  pb::NodeDef* c = editor.Add("AddV2", "c", {"b:1", "b", "^b"});
  EXPECT_EQ(editor.FreshName("b"), "b_1");
  ASSERT_TRUE(editor.Rename("b", "parts").ok());
  EXPECT_EQ(std::vector<std::string>(c->input().begin(), c->input().end()),
            (std::vector<std::string>{"parts:1", "parts", "^parts"}));
  EXPECT_FALSE(editor.Rename("c", "a").ok());  // taken
  EXPECT_EQ(editor.Rename("nothing", "z").code(), TF_NOT_FOUND);

  // A removed node's name is held for its replacement.
  pb::NodeDef removed;
  ASSERT_TRUE(editor.Remove("c", &removed).ok());
  EXPECT_EQ(removed.op(), "AddV2");
  EXPECT_EQ(editor.FreshName("c"), "c_1");
  pb::NodeDef* replacement = editor.Add("Identity", "tmp", {"a"});
  ASSERT_TRUE(editor.Rename(replacement->name(), "c").ok());
  EXPECT_TRUE(editor.HasNode("c"));
}

// ------------------------------------------------------- runtime checks

TEST(RuntimeCheckTest, ListsOpsTheRuntimeLacks) {
  EXPECT_EQ(tfjs::MissingOps({"Conv2D", "NoSuchOpAnywhere", "Relu", "AlsoMissing"}),
            (std::vector<std::string>{"NoSuchOpAnywhere", "AlsoMissing"}));
  pb::GraphDef g;
  tfjs::GraphEditor editor(&g);
  tfjs::SetAttrType(editor.Add("Relu", "r", {"ghost"}), "T", pb::DT_FLOAT);
  const minitf::Status s = tfjs::ImportIntoRuntime(g);
  EXPECT_EQ(s.code(), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.message().find("ghost"), std::string::npos) << s.message();
}

}  // namespace
