// Pieces shared by the elementwise and reduction kernels: scalar arithmetic
// and the kernel that maps a functor over a tensor.
#ifndef MINITF_KERNELS_ELEMENTWISE_H_
#define MINITF_KERNELS_ELEMENTWISE_H_

#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "kernel.h"
#include "kernels/wrap_arith.h"
#include "tensor.h"
#include "types.h"

namespace minitf {

template <typename T>
inline bool IsNan(T v) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::isnan(v);
  } else {
    return false;
  }
}

// Element `i` of an integer index tensor (int16, int32 or int64).
inline int64_t IndexAt(const Tensor& t, int64_t i) {
  switch (t.dtype()) {
    case TF_INT16: return t.data<int16_t>()[i];
    case TF_INT32: return t.data<int32_t>()[i];
    default: return t.data<int64_t>()[i];
  }
}

namespace elementwise_internal {
template <typename Op, typename = void>
struct HasInit : std::false_type {};
template <typename Op>
struct HasInit<Op, std::void_t<decltype(std::declval<Op&>().Init(
                       std::declval<const KernelInit&>()))>> : std::true_type {};
}  // namespace elementwise_internal

// y = op(x) elementwise, for x of attribute T among Ts. Op has
// `static constexpr int64_t kCost`, a templated `T operator()(T) const`, and
// optionally `Status Init(const KernelInit&)` to read its own attributes.
template <typename Op, typename... Ts>
class UnaryKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    if constexpr (elementwise_internal::HasInit<Op>::value) {
      MINITF_RETURN_IF_ERROR(op_.Init(init));
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    Tensor* y = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
    return DispatchType<Ts...>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = x.data<T>();
      T* out = y->data<T>();
      ctx->ParallelFor(x.num_elements(), Op::kCost, [&](int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) out[i] = op_(in[i]);
      });
      return Status::OK();
    });
  }

 private:
  DataType type_ = kInvalidType;
  Op op_;
};

}  // namespace minitf

#endif  // MINITF_KERNELS_ELEMENTWISE_H_
