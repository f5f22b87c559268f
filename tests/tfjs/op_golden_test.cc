// Single ops at the corners of their attributes (SAME/VALID padding with
// strides, ResizeBilinear's align_corners and half_pixel_centers, transposed
// convolutions, StridedSlice masks, FloorDiv/FloorMod rounding, ArgMax and
// TopKV2 ties, ...), compared with what TF.js
// computed for the same inputs. The cases come from
// tools/golden/make_golden.js; without them the test skips.
#include <gtest/gtest.h>

#include "golden.h"
#include "support/graph_builder.h"
#include "support/required_data.h"
#include "support/tf_session.h"

namespace {

using nlohmann::json;
using testing_support::GraphBuilder;
using testing_support::NodeRef;
using testing_support::TensorPtr;
using testing_support::TestSession;
using tfjs_testing::GoldenTensor;

// TF.js evaluates these in float32 like minitf, but sums in another order.
constexpr double kOpTolerance = 1e-5;

void SetAttr(NodeRef& node, const std::string& name, const json& v) {
  if (v.is_boolean()) {
    node.Attr(name, v.get<bool>());
  } else if (v.is_string() && v.get<std::string>().rfind("DT_", 0) == 0) {
    minitf::pb::DataType t;
    if (minitf::pb::DataType_Parse(v.get<std::string>(), &t)) {
      node.Attr(name, static_cast<TF_DataType>(t));
    }
  } else if (v.is_string()) {
    node.Attr(name, v.get<std::string>());
  } else if (v.is_number_integer()) {
    node.Attr(name, v.get<int64_t>());
  } else if (v.is_array()) {
    node.Attr(name, v.get<std::vector<int64_t>>());
  }
}

TEST(TfjsOpGoldenTest, OpsMatchTfjsAtAttributeCorners) {
  const std::string dir = tfjs_testing::GoldenDir() + "/ops";
  const std::string meta_path = dir + "/cases.json";
  if (!tfjs_testing::FileExists(meta_path)) {
    SKIP_OR_FAIL_WITHOUT_DATA("no TF.js op reference vectors at "
                              << meta_path << " (scripts/fetch_models.sh writes them)");
  }
  json cases;
  std::string error;
  ASSERT_TRUE(tfjs_testing::ReadJson(meta_path, &cases, &error)) << error;
  ASSERT_GT(cases.size(), 20u);
  for (const json& c : cases) {
    const std::string name = c["name"].get<std::string>();
    SCOPED_TRACE(name);
    std::vector<GoldenTensor> inputs(c["inputs"].size()), outputs(c["outputs"].size());
    for (size_t i = 0; i < inputs.size(); ++i) {
      ASSERT_TRUE(tfjs_testing::LoadGoldenTensor(c["inputs"][i], dir, &inputs[i], &error)) << error;
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
      ASSERT_TRUE(tfjs_testing::LoadGoldenTensor(c["outputs"][i], dir, &outputs[i], &error))
          << error;
    }
    GraphBuilder g;
    const std::string op = c["op"].get<std::string>();
    NodeRef node = g.Node(op, "op");
    // T is the dtype of the values: the first float input, or else the first
    // input (integer ops).
    TF_DataType value_type = inputs.empty() ? TF_FLOAT : inputs[0].dtype;
    for (size_t i = 0; i < inputs.size(); ++i) {
      const std::string in = "in" + std::to_string(i);
      minitf::pb::TensorProto t;
      t.set_dtype(static_cast<minitf::pb::DataType>(inputs[i].dtype));
      for (int64_t d : inputs[i].dims) t.mutable_tensor_shape()->add_dim()->set_size(d);
      t.set_tensor_content(inputs[i].bytes);
      g.Node("Const", in).Attr("dtype", inputs[i].dtype).Attr("value", t);
      node.Input(in);
      if (inputs[i].dtype == TF_FLOAT && (i == 0 || inputs[0].dtype != TF_FLOAT)) {
        value_type = TF_FLOAT;
      }
    }
    node.Attr("T", value_type);
    if (op == "AddN") node.Attr("N", static_cast<int64_t>(inputs.size()));
    if (op == "SparseToDense") node.Attr("Tindices", TF_INT32);
    for (const auto& [attr, value] : c["attrs"].items()) SetAttr(node, attr, value);

    TestSession session(g.Serialize());
    ASSERT_EQ(session.code(), TF_OK) << session.message();
    std::vector<std::string> fetches;
    for (size_t i = 0; i < outputs.size(); ++i) fetches.push_back("op:" + std::to_string(i));
    std::vector<TensorPtr> got;
    ASSERT_EQ(session.Run({}, fetches, &got), TF_OK) << session.last_error();
    for (size_t i = 0; i < outputs.size(); ++i) {
      const tfjs_testing::Difference d = tfjs_testing::Compare(got[i].get(), outputs[i]);
      EXPECT_TRUE(d.error.empty()) << "output " << i << ": " << d.error;
      if (d.error.empty()) EXPECT_LE(d.scaled, kOpTolerance)
          << "output " << i << ": max |diff| " << d.max_abs << " at element " << d.worst_index;
    }
  }
}

}  // namespace
