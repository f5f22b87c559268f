#include "support/graph_builder.h"

namespace testing_support {

using minitf::pb::AttrValue;

NodeRef& NodeRef::Input(const std::string& input) {
  node_->add_input(input);
  return *this;
}

NodeRef& NodeRef::Device(const std::string& device) {
  node_->set_device(device);
  return *this;
}

NodeRef& NodeRef::Attr(const std::string& name, const AttrValue& v) {
  (*node_->mutable_attr())[name] = v;
  return *this;
}

NodeRef& NodeRef::Attr(const std::string& name, int64_t v) {
  AttrValue a;
  a.set_i(v);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, float v) {
  AttrValue a;
  a.set_f(v);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, bool v) {
  AttrValue a;
  a.set_b(v);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, TF_DataType v) {
  AttrValue a;
  a.set_type(static_cast<minitf::pb::DataType>(v));
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const std::string& v) {
  AttrValue a;
  a.set_s(v);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const std::vector<int64_t>& v) {
  AttrValue a;
  auto* list = a.mutable_list();
  for (int64_t x : v) list->add_i(x);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const std::vector<float>& v) {
  AttrValue a;
  auto* list = a.mutable_list();
  for (float x : v) list->add_f(x);
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const std::vector<TF_DataType>& v) {
  AttrValue a;
  auto* list = a.mutable_list();
  for (TF_DataType x : v) list->add_type(static_cast<minitf::pb::DataType>(x));
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const ShapeAttr& v) {
  AttrValue a;
  auto* shape = a.mutable_shape();
  if (v.unknown_rank) {
    shape->set_unknown_rank(true);
  } else {
    for (int64_t d : v.dims) shape->add_dim()->set_size(d);
  }
  return Attr(name, a);
}

NodeRef& NodeRef::Attr(const std::string& name, const minitf::pb::TensorProto& v) {
  AttrValue a;
  *a.mutable_tensor() = v;
  return Attr(name, a);
}

NodeRef GraphBuilder::Node(const std::string& op, const std::string& name) {
  auto* node = graph_.add_node();
  node->set_op(op);
  node->set_name(name);
  return NodeRef(node);
}

std::string GraphBuilder::Placeholder(const std::string& name, TF_DataType dtype,
                                      const ShapeAttr& shape) {
  Node("Placeholder", name).Attr("dtype", dtype).Attr("shape", shape);
  return name;
}

std::string GraphBuilder::Unary(const std::string& op, const std::string& name,
                                const std::string& x, TF_DataType dtype) {
  Node(op, name).Input(x).Attr("T", dtype);
  return name;
}

std::string GraphBuilder::Binary(const std::string& op, const std::string& name,
                                 const std::string& x, const std::string& y,
                                 TF_DataType dtype) {
  Node(op, name).Input(x).Input(y).Attr("T", dtype);
  return name;
}

std::string GraphBuilder::Serialize() const {
  std::string bytes;
  graph_.SerializeToString(&bytes);
  return bytes;
}

}  // namespace testing_support
