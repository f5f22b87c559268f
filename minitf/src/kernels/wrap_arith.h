// Integer arithmetic that wraps around as TensorFlow's does on
// two's-complement hardware. It goes through unsigned types so that overflow
// is defined behaviour here rather than undefined.
#ifndef MINITF_KERNELS_WRAP_ARITH_H_
#define MINITF_KERNELS_WRAP_ARITH_H_

#include <type_traits>

namespace minitf {

// Unsigned type at least as wide as int, so narrow types do not promote
// back to signed int before the operation.
template <typename T>
using WrapType = std::conditional_t<(sizeof(T) < sizeof(unsigned)), unsigned,
                                    std::make_unsigned_t<T>>;

template <typename T>
inline T WrapAdd(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(static_cast<WrapType<T>>(a) + static_cast<WrapType<T>>(b));
  } else {
    return a + b;
  }
}

template <typename T>
inline T WrapSub(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(static_cast<WrapType<T>>(a) - static_cast<WrapType<T>>(b));
  } else {
    return a - b;
  }
}

template <typename T>
inline T WrapMul(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(static_cast<WrapType<T>>(a) * static_cast<WrapType<T>>(b));
  } else {
    return a * b;
  }
}

template <typename T>
inline T WrapNeg(T a) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(WrapType<T>(0) - static_cast<WrapType<T>>(a));
  } else {
    return -a;
  }
}

}  // namespace minitf

#endif  // MINITF_KERNELS_WRAP_ARITH_H_
