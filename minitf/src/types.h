// Element types and a typed dispatch helper for kernels.
#ifndef MINITF_TYPES_H_
#define MINITF_TYPES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "status.h"
#include "tensorflow/c/c_api.h"

namespace minitf {

using DataType = TF_DataType;
inline constexpr DataType kInvalidType = static_cast<DataType>(0);

// A dtype number read from a graph or tensor proto. Numbers beyond the enum
// become kInvalidType: a C++ enum may not hold a value outside its range.
inline DataType DataTypeFromProto(int64_t v) {
  return v >= TF_FLOAT && v <= TF_UINT64 ? static_cast<DataType>(v) : kInvalidType;
}

// Bytes per element; 0 for types without a fixed element size.
size_t DataTypeSize(DataType dt);
// "float", "int32", ... as TensorFlow spells them; "unknown(N)" otherwise.
std::string DataTypeName(DataType dt);
// Parses "float" or "DT_FLOAT"; kInvalidType if neither.
DataType DataTypeFromName(const std::string& name);

template <typename T> struct TypeOf;
template <> struct TypeOf<float> { static constexpr DataType value = TF_FLOAT; };
template <> struct TypeOf<double> { static constexpr DataType value = TF_DOUBLE; };
template <> struct TypeOf<int32_t> { static constexpr DataType value = TF_INT32; };
template <> struct TypeOf<int64_t> { static constexpr DataType value = TF_INT64; };
template <> struct TypeOf<uint8_t> { static constexpr DataType value = TF_UINT8; };
template <> struct TypeOf<int8_t> { static constexpr DataType value = TF_INT8; };
template <> struct TypeOf<int16_t> { static constexpr DataType value = TF_INT16; };
template <> struct TypeOf<uint16_t> { static constexpr DataType value = TF_UINT16; };
template <> struct TypeOf<bool> { static constexpr DataType value = TF_BOOL; };

template <typename T> struct TypeTag { using type = T; };

// Calls fn(TypeTag<T>{}) for the first T in Ts whose DataType is `dt` and
// returns its Status; Unimplemented when `dt` is not among Ts.
//   return DispatchType<float, int32_t>(dt, [&](auto tag) {
//     using T = typename decltype(tag)::type; ... return Status::OK(); });
template <typename... Ts, typename Fn>
Status DispatchType(DataType dt, Fn&& fn) {
  Status result;
  bool done = false;
  ((!done && dt == TypeOf<Ts>::value
        ? (result = fn(TypeTag<Ts>{}), done = true)
        : false),
   ...);
  // The message is built only when needed: formatting it costs more than
  // many kernels' whole work.
  if (!done) return Unimplemented("unsupported dtype ", DataTypeName(dt));
  return result;
}

// Common type sets.
#define MINITF_REAL_TYPES float, double, int32_t, int64_t, uint8_t, int8_t, int16_t, uint16_t
#define MINITF_ALL_TYPES MINITF_REAL_TYPES, bool

}  // namespace minitf

#endif  // MINITF_TYPES_H_
