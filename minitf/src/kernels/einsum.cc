// Einsum with two operands in its matrix forms: every label appears in both
// inputs (batch when the output keeps it, contracted when not) or in one
// input and the output (a free dimension). That covers matmul, batch matmul
// and their transposes ("ij,jk->ik", "bij,bkj->bik", "...ij,...jk->...ik").
// Each operand is laid out as [batch, free, contracted] (a copy counted in
// the run's budget), multiplied as a batch of matrices, and the product is
// copied into the output's label order.
#include <algorithm>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "kernels/array_helpers.h"
#include "kernels/dnnl/gemm.h"
#include "kernels/reference_ops.h"
#include "op_registry.h"

namespace minitf {
namespace {

// Labels are letters; an ellipsis stands for up to kMaxEllipsis dims, given
// the codes 256 + i (aligned at the right like broadcasting).
constexpr int kMaxEllipsis = 16;

Status ParseTerm(const KernelInit& init, const std::string& term, std::vector<int>* labels,
                 bool* ellipsis) {
  *ellipsis = false;
  for (size_t i = 0; i < term.size(); ++i) {
    const char ch = term[i];
    if (ch == '.') {
      if (*ellipsis || term.compare(i, 3, "...") != 0) {
        return init.Error("malformed ellipsis in einsum term '", term, "'");
      }
      *ellipsis = true;
      labels->push_back(-1);  // expanded per input rank at compute time
      i += 2;
    } else if ((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z')) {
      labels->push_back(static_cast<unsigned char>(ch));
    } else if (ch != ' ') {
      return init.Error("invalid character '", std::string(1, ch), "' in einsum equation");
    }
  }
  return Status::OK();
}

// Replaces the ellipsis marker with `n` codes (the last n of kMaxEllipsis).
std::vector<int> Expand(const std::vector<int>& labels, int n) {
  std::vector<int> out;
  for (int l : labels) {
    if (l != -1) {
      out.push_back(l);
      continue;
    }
    for (int i = kMaxEllipsis - n; i < kMaxEllipsis; ++i) out.push_back(256 + i);
  }
  return out;
}

class EinsumKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    int n = 0;
    MINITF_RETURN_IF_ERROR(init.GetAttr("N", &n));
    std::string eq;
    MINITF_RETURN_IF_ERROR(init.GetAttr("equation", &eq));
    const size_t arrow = eq.find("->");
    const size_t comma = eq.find(',');
    if (n != 2 || arrow == std::string::npos || comma == std::string::npos || comma > arrow ||
        eq.find(',', comma + 1) < arrow) {
      return Unimplemented("Einsum supports two operands with an explicit output ('ab,bc->ac'), "
                           "got '", eq, "' with N = ", n, " (node ", init.node_name(), ")");
    }
    MINITF_RETURN_IF_ERROR(ParseTerm(init, eq.substr(0, comma), &a_, &a_ellipsis_));
    MINITF_RETURN_IF_ERROR(
        ParseTerm(init, eq.substr(comma + 1, arrow - comma - 1), &b_, &b_ellipsis_));
    MINITF_RETURN_IF_ERROR(ParseTerm(init, eq.substr(arrow + 2), &out_, &out_ellipsis_));
    if (out_ellipsis_ && !a_ellipsis_ && !b_ellipsis_) {
      return init.Error("einsum output has an ellipsis its inputs lack: '", eq, "'");
    }
    return Status::OK();
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& a = ctx->input(0);
    const Tensor& b = ctx->input(1);
    // Ellipsis widths from the ranks.
    const int named_a = static_cast<int>(a_.size()) - (a_ellipsis_ ? 1 : 0);
    const int named_b = static_cast<int>(b_.size()) - (b_ellipsis_ ? 1 : 0);
    const int ea = a.rank() - named_a, eb = b.rank() - named_b;
    if ((a_ellipsis_ ? ea < 0 : ea != 0) || (b_ellipsis_ ? eb < 0 : eb != 0) ||
        ea > kMaxEllipsis || eb > kMaxEllipsis) {
      return ctx->Error("einsum operand ranks ", a.rank(), " and ", b.rank(),
                        " do not match the equation");
    }
    const std::vector<int> la = Expand(a_, ea), lb = Expand(b_, eb);
    const std::vector<int> lo = Expand(out_, std::max(ea, eb));

    std::map<int, int64_t> size;
    std::map<int, int> where;  // bit 1: in a, 2: in b, 4: in out
    for (int pass = 0; pass < 2; ++pass) {
      const std::vector<int>& l = pass == 0 ? la : lb;
      const Tensor& t = pass == 0 ? a : b;
      for (int i = 0; i < t.rank(); ++i) {
        const int bit = 1 << pass;
        if (where[l[i]] & bit) {
          return Unimplemented("Einsum with a label repeated in one operand (node ",
                               ctx->node_name(), ")");
        }
        where[l[i]] |= bit;
        auto [it, added] = size.emplace(l[i], t.dim(i));
        if (!added && it->second != t.dim(i)) {
          return ctx->Error("einsum dimension mismatch for a label: ", it->second, " vs. ",
                            t.dim(i), " in shapes ", a.shape().ToString(), " and ",
                            b.shape().ToString());
        }
      }
    }
    for (int l : lo) {
      if (where.count(l) == 0) return ctx->Error("einsum output label not in any input");
      if (where[l] & 4) return ctx->Error("einsum output repeats a label");
      where[l] |= 4;
    }
    std::vector<int> batch, free_a, free_b, contract;
    for (int l : lo) {
      const int w = where[l];
      if (w == 7) batch.push_back(l);
      else if (w == 5) free_a.push_back(l);
      else if (w == 6) free_b.push_back(l);
    }
    for (int l : la) {
      const int w = where[l];
      if (w == 3) contract.push_back(l);
      if (w == 1) {
        return Unimplemented("Einsum summing a label of one operand (node ", ctx->node_name(),
                             ")");
      }
    }
    for (int l : lb) {
      if (where[l] == 2) {
        return Unimplemented("Einsum summing a label of one operand (node ", ctx->node_name(),
                             ")");
      }
    }
    auto product = [&](const std::vector<int>& ls) {
      int64_t p = 1;
      for (int l : ls) p *= size[l];
      return p;
    };
    const int64_t nb = product(batch), m = product(free_a), n = product(free_b),
                  k = product(contract);

    std::vector<int64_t> out_dims;
    for (int l : lo) out_dims.push_back(size[l]);
    Shape out_shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, out_dims, &out_shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, out_shape, &out));
    if (out->num_elements() == 0) return Status::OK();

    return DispatchType<float, double, int32_t, int64_t>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      Tensor pa, pb, pc;
      MINITF_RETURN_IF_ERROR(Arrange(ctx, a, la, {&batch, &free_a, &contract}, size, &pa));
      MINITF_RETURN_IF_ERROR(Arrange(ctx, b, lb, {&batch, &contract, &free_b}, size, &pb));
      Status s = Tensor::Allocate(a.dtype(), Shape{nb, m, n}, &pc, ctx->budget());
      if (!s.ok()) return Status(s.code(), StrCat(s.message(), " (node ", ctx->node_name(), ")"));
      const T* ap = pa.data<T>();
      const T* bp = pb.data<T>();
      T* cp = pc.data<T>();
      for (int64_t i = 0; i < nb; ++i) {
        const T* ai = ap + i * m * k;
        const T* bi = bp + i * k * n;
        T* ci = cp + i * m * n;
        bool done = false;
        if constexpr (std::is_same_v<T, float>) done = k > 0 && DnnlGemm(false, false, m, n, k, ai, bi, ci);
        if (!done) reference::Gemm(false, false, m, n, k, ai, bi, ci, ctx);
      }
      // Product [batch..., free_a..., free_b...] into the output's order.
      std::map<int, int64_t> stride;
      int64_t st = 1;
      for (const std::vector<int>* group : {&free_b, &free_a, &batch}) {
        for (auto it = group->rbegin(); it != group->rend(); ++it) {
          stride[*it] = st;
          st *= size[*it];
        }
      }
      std::vector<int64_t> src_strides;
      for (int l : lo) src_strides.push_back(stride[l]);
      StridedCopy(*ctx, sizeof(T), out_dims, static_cast<const char*>(pc.raw_data()),
                  src_strides, static_cast<char*>(out->raw_data()), RowMajorStrides(out_shape));
      return Status::OK();
    });
  }

 private:
  // Copies `t` (labels `l`) into the order of the label groups.
  static Status Arrange(OpContext* ctx, const Tensor& t, const std::vector<int>& l,
                        std::initializer_list<const std::vector<int>*> groups,
                        std::map<int, int64_t>& size, Tensor* out) {
    const std::vector<int64_t> strides = RowMajorStrides(t.shape());
    std::vector<int64_t> dims, src;
    for (const std::vector<int>* g : groups) {
      for (int label : *g) {
        dims.push_back(size[label]);
        for (size_t i = 0; i < l.size(); ++i) {
          if (l[i] == label) src.push_back(strides[i]);
        }
      }
    }
    Shape shape;
    MINITF_RETURN_IF_ERROR(MakeShape(*ctx, dims, &shape));
    Status s = Tensor::Allocate(t.dtype(), shape, out, ctx->budget());
    if (!s.ok()) return Status(s.code(), StrCat(s.message(), " (node ", ctx->node_name(), ")"));
    StridedCopy(*ctx, DataTypeSize(t.dtype()), dims, static_cast<const char*>(t.raw_data()), src,
                static_cast<char*>(out->raw_data()), RowMajorStrides(shape));
    return Status::OK();
  }

  DataType type_ = kInvalidType;
  std::vector<int> a_, b_, out_;
  bool a_ellipsis_ = false, b_ellipsis_ = false, out_ellipsis_ = false;
};

}  // namespace

void RegisterEinsumOps(OpRegistry& r) {
  r.Register(OpDef("Einsum").Input("inputs: N * T").Output("output: T")
                 .Attr("equation: string").Attr("N: int >= 1")
                 .Attr("T: {float, double, int32, int64}"),
             MakeKernel<EinsumKernel>);
}

}  // namespace minitf
