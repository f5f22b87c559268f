// The TF.js converter on small hand-made models: weight decoding (raw,
// float16, affine uint8/uint16), the checks on everything read from
// model.json and the shards, the rewrite of fused ops into standard ones
// (run through the runtime with hand-computed results), and graph edits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
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
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const uint32_t v = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8) | uint8_t(in[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += kAlphabet[(v >> s) & 63];
  }
  if (i + 1 == in.size()) {
    const uint32_t v = uint8_t(in[i]) << 16;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == in.size()) {
    const uint32_t v = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += "=";
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

  offset = 0;
  tfjs::WeightSpec half{"h", pb::DT_FLOAT, {2, 1}, "float16", 1, 0};
  ASSERT_TRUE(tfjs::DecodeWeight(half, std::string("\x00\x3c\x00\xc0", 4), &offset, &t).ok());
  EXPECT_EQ(FloatsOf(t), (F{1, -2}));
  ASSERT_EQ(t.tensor_shape().dim_size(), 2);
  EXPECT_EQ(t.tensor_shape().dim(0).size(), 2);
}

TEST(TfjsWeightsTest, WeightsAreReadInManifestOrderAcrossShards) {
  FakeModel m;
  m.Weight("a", {2}, {1.5f, -2});
  m.RawWeight({{"name", "flags"}, {"shape", {3}}, {"dtype", "bool"}}, std::string("\x01\x00\x07", 3));
  m.RawWeight({{"name", "n"}, {"shape", json::array()}, {"dtype", "int32"}},
              std::string("\x2a\x00\x00\x00", 4));
  m.Node("flags", "Const", {}, {{"dtype", TypeAttr("DT_BOOL")}});
  m.Node("n", "Const", {}, {{"dtype", TypeAttr("DT_INT32")}});
  // The same bytes split over two shard files read as one stream.
  const std::string all = m.shard();
  tfjs::TfjsModel model;
  ASSERT_TRUE(tfjs::ParseTfjsModel(m.Json(), {all.substr(0, 5), all.substr(5)}, &model).ok());
  EXPECT_EQ(FloatsOf(model.weights.at("a")), (F{1.5f, -2}));
  EXPECT_EQ(model.weights.at("flags").tensor_content(), std::string("\x01\x00\x01", 3));
  int32_t n = 0;
  std::memcpy(&n, model.weights.at("n").tensor_content().data(), 4);
  EXPECT_EQ(n, 42);
  EXPECT_EQ(model.weights.at("n").tensor_shape().dim_size(), 0);
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
  EXPECT_FALSE(ParseError(R"({"modelTopology": {"node": [1]}, "weightsManifest": [2]})", "")
                   .empty());
  EXPECT_FALSE(ParseError(R"({"modelTopology": {"node": []}, "weightsManifest":
      [{"weights": [{"name": "x", "dtype": "float32", "shape": "abc"}]}]})", "").empty());

  std::vector<std::string> paths;
  EXPECT_FALSE(tfjs::ShardPaths(R"({"weightsManifest": [{"paths": ["../../etc/passwd"]}]})",
                                &paths).ok());
  EXPECT_FALSE(tfjs::ShardPaths(R"({"weightsManifest": [{"paths": ["/abs.bin"]}]})", &paths).ok());
}

TEST(TfjsModelFileTest, CorruptedFilesEndInAStatus) {
  FakeModel m;
  m.Input("x", {1, 2, 2, 1});
  m.Weight("w", {1, 1, 1, 1}, {2});
  m.Weight("b", {1}, {-3});
  m.Node("conv", "_FusedConv2D", {"x", "w", "b"}, Conv2DAttrs({"BiasAdd", "Relu"}, 1));
  const std::string json_text = m.Json();
  std::mt19937 rng(1234);
  int parsed = 0;
  for (int trial = 0; trial < 400; ++trial) {
    std::string text = json_text;
    std::string shard = m.shard();
    // Change digits (shapes, counts, offsets stay well-formed JSON), or
    // flip, drop or duplicate bytes; sometimes cut the shard.
    const int edits = 1 + static_cast<int>(rng() % 3);
    for (int k = 0; k < edits; ++k) {
      const size_t at = rng() % text.size();
      switch (rng() % 4) {
        case 0: text[at] = static_cast<char>("0123456789-\"[]{}:,ae"[rng() % 20]); break;
        case 1: text.erase(at, 1 + rng() % 8); break;
        case 2: text.insert(at, text.substr(at, 1 + rng() % 8)); break;
        default: {
          const size_t digit = text.find_first_of("0123456789", at);
          if (digit != std::string::npos) text[digit] = static_cast<char>('0' + rng() % 10);
        }
      }
    }
    if (rng() % 4 == 0) shard.resize(rng() % (shard.size() + 1));
    tfjs::TfjsModel model;
    if (!tfjs::ParseTfjsModel(text, {shard}, &model).ok()) continue;
    ++parsed;
    pb::GraphDef graph;
    if (tfjs::ConvertTfjsModel(model, {}, &graph).ok()) {
      (void)tfjs::ImportIntoRuntime(graph);  // any status, never a crash
    }
  }
  EXPECT_LT(parsed, 400);  // the mutations do break most files
  EXPECT_GT(parsed, 0);    // and some still parse, reaching the conversion
}

TEST(TfjsModelFileTest, LoadsModelAndShardsFromDisk) {
  char dir_template[] = "/tmp/tfjs_model_XXXXXX";
  const char* dir = mkdtemp(dir_template);
  ASSERT_NE(dir, nullptr);
  FakeModel m;
  m.Input("x", {1, 2});
  m.Weight("w", {2}, {3, 4});
  m.Node("y", "Mul", {"x", "w"}, {{"T", TypeAttr("DT_FLOAT")}});
  std::ofstream(std::string(dir) + "/model.json") << m.Json();
  std::ofstream(std::string(dir) + "/group1-shard1of1.bin", std::ios::binary) << m.shard();
  tfjs::TfjsModel model;
  const minitf::Status s = tfjs::LoadTfjsModel(std::string(dir) + "/model.json", &model);
  ASSERT_TRUE(s.ok()) << s.message();
  EXPECT_EQ(model.graph.node_size(), 3);
  EXPECT_EQ(FloatsOf(model.weights.at("w")), (F{3, 4}));
  std::remove((std::string(dir) + "/group1-shard1of1.bin").c_str());
  EXPECT_EQ(tfjs::LoadTfjsModel(std::string(dir) + "/model.json", &model).code(), TF_NOT_FOUND);
  std::remove((std::string(dir) + "/model.json").c_str());
  rmdir(dir);
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
  {  // relu(2x - 3)
    FakeModel m;
    m.Input("x", {1, 2, 2, 1});
    m.Weight("w", {1, 1, 1, 1}, {2});
    m.Weight("b", {1}, {-3});
    m.Node("conv", "_FusedConv2D", {"x", "w", "b"}, Conv2DAttrs({"BiasAdd", "Relu"}, 1));
    ExpectFloats(ConvertAndRun(m, {1, 2, 2, 1}, x, "conv"), {0, 1, 3, 0});
  }
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

TEST(TfjsUnfuseTest, DepthwiseMatMulAndStandalonePrelu) {
  {  // per-channel filters 2 and 3, bias 0 and 1, relu6
    FakeModel m;
    m.Input("x", {1, 1, 1, 2});
    m.Weight("w", {1, 1, 2, 1}, {2, 3});
    m.Weight("b", {2}, {0, 1});
    json attrs = Conv2DAttrs({"BiasAdd", "Relu6"}, 1, "SAME");
    m.Node("dw", "FusedDepthwiseConv2dNative", {"x", "w", "b"}, attrs);
    ExpectFloats(ConvertAndRun(m, {1, 1, 1, 2}, {4, -1}, "dw"), {6, 0});
  }
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

TEST(GraphEditTest, RewireAndPrune) {
  pb::GraphDef g;
  tfjs::GraphEditor editor(&g);
  editor.Add("Placeholder", "x", {});
  editor.Add("Relu", "r", {"x:0"});
  editor.Add("Neg", "n", {"x"});
  editor.Add("Exp", "e", {"x"});
  editor.Add("Identity", "cast", {"x"});
  editor.Rewire("x", "cast", {"cast"});
  EXPECT_EQ(editor.FindNode("r")->input(0), "cast");
  EXPECT_EQ(editor.FindNode("n")->input(0), "cast");
  EXPECT_EQ(editor.FindNode("cast")->input(0), "x");
  editor.Prune({"r:0", "n"});
  EXPECT_EQ(g.node_size(), 4);  // x, cast, r, n
  EXPECT_EQ(editor.FindNode("e"), nullptr);
  EXPECT_FALSE(editor.HasNode("e"));
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
