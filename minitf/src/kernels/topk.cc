// TopKV2 (and the older TopK with k as an attribute): the k largest entries
// along the last dimension, largest first, the lower index first among
// equal values. NaN ranks above every number, so the order is total and the
// sort is well defined on any input.
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

template <typename T>
bool Before(T a, int64_t ia, T b, int64_t ib) {
  if constexpr (std::is_floating_point_v<T>) {
    const bool na = std::isnan(a), nb = std::isnan(b);
    if (na || nb) return na && nb ? ia < ib : na;
  }
  if (a != b) return a > b;
  return ia < ib;
}

int64_t MaxIndexValue(DataType t) {
  switch (t) {
    case TF_INT16: return std::numeric_limits<int16_t>::max();
    case TF_INT32: return std::numeric_limits<int32_t>::max();
    default: return std::numeric_limits<int64_t>::max();
  }
}

class TopKKernel : public OpKernel {
 public:
  explicit TopKKernel(bool k_is_input) : k_is_input_(k_is_input) {}

  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    if (k_is_input_) {
      MINITF_RETURN_IF_ERROR(init.GetAttr("index_type", &index_type_));
    } else {
      MINITF_RETURN_IF_ERROR(init.GetAttr("k", &k_attr_));
      index_type_ = TF_INT32;
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& x = ctx->input(0);
    int64_t k = k_attr_;
    if (k_is_input_) {
      MINITF_RETURN_IF_ERROR(ReadIntScalar(*ctx, ctx->input(1), "k", true, &k));
    }
    MINITF_ENSURE(ctx, x.rank() >= 1, "input must be at least 1-D: ", x.shape().ToString());
    const int64_t n = x.dim(x.rank() - 1);
    if (k < 0 || k > n) {
      return ctx->Error("k = ", k, " must be in [0, ", n, "], the last dimension of input ",
                        x.shape().ToString());
    }
    if (n - 1 > MaxIndexValue(index_type_)) {
      return ctx->Error("last dimension ", n, " does not fit the index type ",
                        DataTypeName(index_type_));
    }
    Shape out_shape = x.shape();
    out_shape.set_dim(x.rank() - 1, k);
    Tensor* values = nullptr;
    Tensor* indices = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &values));
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(1, out_shape, &indices));
    if (k == 0 || n == 0) return Status::OK();
    const int64_t rows = x.num_elements() / n;
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = x.data<T>();
      T* out_v = values->data<T>();
      // Cost per row: a partial sort, roughly n log k comparisons.
      const int64_t cost = n * (1 + static_cast<int64_t>(std::log2(static_cast<double>(k) + 1)));
      ctx->ParallelFor(rows, cost, [&](int64_t begin, int64_t end) {
        std::vector<int64_t> order(n);
        for (int64_t r = begin; r < end; ++r) {
          const T* row = in + r * n;
          std::iota(order.begin(), order.end(), int64_t{0});
          auto cmp = [row](int64_t a, int64_t b) { return Before(row[a], a, row[b], b); };
          if (k == 1) {
            order[0] = *std::min_element(order.begin(), order.end(), cmp);
          } else {
            std::partial_sort(order.begin(), order.begin() + k, order.end(), cmp);
          }
          for (int64_t j = 0; j < k; ++j) {
            out_v[r * k + j] = row[order[j]];
            const int64_t at = r * k + j;
            switch (index_type_) {
              case TF_INT16: indices->data<int16_t>()[at] = static_cast<int16_t>(order[j]); break;
              case TF_INT32: indices->data<int32_t>()[at] = static_cast<int32_t>(order[j]); break;
              default: indices->data<int64_t>()[at] = order[j]; break;
            }
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  bool k_is_input_;
  DataType type_ = kInvalidType;
  DataType index_type_ = TF_INT32;
  int64_t k_attr_ = 0;
};

class TopKV2Kernel : public TopKKernel {
 public:
  TopKV2Kernel() : TopKKernel(true) {}
};

class TopKV1Kernel : public TopKKernel {
 public:
  TopKV1Kernel() : TopKKernel(false) {}
};

constexpr const char* kTopKTypes =
    "T: {float, double, int32, uint8, int16, int8, int64, uint16}";

}  // namespace

void RegisterTopKOps(OpRegistry& r) {
  r.Register(OpDef("TopKV2").Input("input: T").Input("k: Tk").Output("values: T")
                 .Output("indices: index_type").Attr("sorted: bool = true").Attr(kTopKTypes)
                 .Attr("Tk: {int16, int32, int64} = DT_INT32")
                 .Attr("index_type: {int16, int32, int64} = DT_INT32"),
             MakeKernel<TopKV2Kernel>);
  r.Register(OpDef("TopK").Input("input: T").Output("values: T").Output("indices: int32")
                 .Attr("k: int >= 0").Attr("sorted: bool = true").Attr(kTopKTypes),
             MakeKernel<TopKV1Kernel>);
}

}  // namespace minitf
