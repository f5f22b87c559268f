#include "types.h"

namespace minitf {

size_t DataTypeSize(DataType dt) {
  switch (dt) {
    case TF_FLOAT: return 4;
    case TF_DOUBLE: return 8;
    case TF_INT32: return 4;
    case TF_UINT8: return 1;
    case TF_INT16: return 2;
    case TF_INT8: return 1;
    case TF_COMPLEX64: return 8;
    case TF_INT64: return 8;
    case TF_BOOL: return 1;
    case TF_QINT8: return 1;
    case TF_QUINT8: return 1;
    case TF_QINT32: return 4;
    case TF_BFLOAT16: return 2;
    case TF_QINT16: return 2;
    case TF_QUINT16: return 2;
    case TF_UINT16: return 2;
    case TF_COMPLEX128: return 16;
    case TF_HALF: return 2;
    case TF_UINT32: return 4;
    case TF_UINT64: return 8;
    default: return 0;
  }
}

namespace {
struct NamedType {
  DataType type;
  const char* name;
  const char* enum_name;
};
constexpr NamedType kNames[] = {
    {TF_FLOAT, "float", "DT_FLOAT"},       {TF_DOUBLE, "double", "DT_DOUBLE"},
    {TF_INT32, "int32", "DT_INT32"},       {TF_UINT8, "uint8", "DT_UINT8"},
    {TF_INT16, "int16", "DT_INT16"},       {TF_INT8, "int8", "DT_INT8"},
    {TF_STRING, "string", "DT_STRING"},    {TF_COMPLEX64, "complex64", "DT_COMPLEX64"},
    {TF_INT64, "int64", "DT_INT64"},       {TF_BOOL, "bool", "DT_BOOL"},
    {TF_QINT8, "qint8", "DT_QINT8"},       {TF_QUINT8, "quint8", "DT_QUINT8"},
    {TF_QINT32, "qint32", "DT_QINT32"},    {TF_BFLOAT16, "bfloat16", "DT_BFLOAT16"},
    {TF_QINT16, "qint16", "DT_QINT16"},    {TF_QUINT16, "quint16", "DT_QUINT16"},
    {TF_UINT16, "uint16", "DT_UINT16"},    {TF_COMPLEX128, "complex128", "DT_COMPLEX128"},
    {TF_HALF, "half", "DT_HALF"},          {TF_RESOURCE, "resource", "DT_RESOURCE"},
    {TF_VARIANT, "variant", "DT_VARIANT"}, {TF_UINT32, "uint32", "DT_UINT32"},
    {TF_UINT64, "uint64", "DT_UINT64"},
};
}  // namespace

std::string DataTypeName(DataType dt) {
  for (const auto& n : kNames) {
    if (n.type == dt) return n.name;
  }
  return "unknown(" + std::to_string(static_cast<int>(dt)) + ")";
}

DataType DataTypeFromName(const std::string& name) {
  for (const auto& n : kNames) {
    if (name == n.name || name == n.enum_name) return n.type;
  }
  return kInvalidType;
}

}  // namespace minitf
