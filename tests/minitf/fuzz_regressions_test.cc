// Inputs the fuzzers found, reduced by hand to the graph that matters. Each
// was undefined behaviour before its fix, so these earn their keep under the
// sanitizers; in a plain build they check the status that replaced it.
#include <gtest/gtest.h>

#include <string>

#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using minitf::pb::AttrValue;
using testing_support::GraphBuilder;
using testing_support::TestSession;

AttrValue TypeNumber(int v) {
  AttrValue a;
  a.set_type(static_cast<minitf::pb::DataType>(v));
  return a;
}

// graph_import_fuzz: a type attribute of 44 was loaded into the dtype enum,
// whose values end at 23.
TEST(FuzzRegressionTest, TypeAttributeBeyondTheEnumIsRefused) {
  for (int number : {44, 24, -3, 1 << 30}) {
    GraphBuilder g;
    g.Const<float>("c", {1}, {1.0f});
    g.Node("Identity", "odd").Input("c").Attr("T", TypeNumber(number));
    TestSession session(g.Serialize());
    EXPECT_EQ(session.code(), TF_INVALID_ARGUMENT) << number << ": " << session.message();
    EXPECT_NE(session.message().find("odd"), std::string::npos) << session.message();
  }
}

TEST(FuzzRegressionTest, TypeListEntryBeyondTheEnumIsRefused) {
  GraphBuilder g;
  g.Const<float>("c", {1}, {1.0f});
  AttrValue list;
  list.mutable_list()->add_type(minitf::pb::DT_FLOAT);
  list.mutable_list()->add_type(static_cast<minitf::pb::DataType>(44));
  g.Node("IdentityN", "odd").Input("c").Input("c").Attr("T", list);
  TestSession session(g.Serialize());
  EXPECT_EQ(session.code(), TF_INVALID_ARGUMENT) << session.message();
}

TEST(FuzzRegressionTest, ConstantWhoseTensorHasAnOutOfRangeDtypeFails) {
  minitf::pb::TensorProto value;
  value.set_dtype(static_cast<minitf::pb::DataType>(99));
  value.mutable_tensor_shape()->add_dim()->set_size(1);
  GraphBuilder g;
  g.Node("Const", "odd").Attr("dtype", TF_FLOAT).Attr("value", value);
  TestSession session(g.Serialize());
  TF_Code code = session.code();
  if (code == TF_OK) {
    std::vector<testing_support::TensorPtr> out;
    code = session.Run({}, {"odd"}, &out);
  }
  EXPECT_NE(code, TF_OK);
}

}  // namespace
