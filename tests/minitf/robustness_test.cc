// Every registered op, fed seeded random inputs and attributes that fit its
// signature, ends in a result or a status: never a crash or an out-of-bounds
// access (this suite earns its keep under AddressSanitizer). Errors raised
// while running name the node.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "op_registry.h"
#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using minitf::ArgDef;
using minitf::AttrDef;
using minitf::AttrKind;
using minitf::OpDef;
using minitf::pb::AttrValue;
using testing_support::GraphBuilder;
using testing_support::TestSession;

constexpr TF_DataType kPlainTypes[] = {TF_FLOAT, TF_INT32, TF_INT64, TF_UINT8, TF_BOOL, TF_DOUBLE};

class RandomOpGraph {
 public:
  RandomOpGraph(const OpDef& def, uint32_t seed) : def_(def), rng_(seed) {}

  // A graph of Const inputs feeding one node "probe" of this type.
  std::string Build() {
    auto node = g_.Node(def_.name(), "probe");
    // Attributes first: input dtypes and list lengths depend on them.
    for (const AttrDef& a : def_.attrs()) {
      if (a.has_default && Coin(0.3)) continue;  // leave some to their defaults
      AttrValue v;
      if (!RandomAttr(a, &v)) continue;
      node.Attr(a.name, v);
      attrs_[a.name] = v;
    }
    int index = 0;
    for (const ArgDef& arg : def_.inputs()) {
      for (TF_DataType t : ArgTypes(arg)) {
        const std::string name = "in" + std::to_string(index++);
        AddConst(name, t);
        node.Input(name);
      }
    }
    return g_.Serialize();
  }

 private:
  bool Coin(double p) { return std::uniform_real_distribution<>(0, 1)(rng_) < p; }
  int64_t Int(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng_); }

  TF_DataType AnyType(const AttrDef& a) {
    if (!a.allowed_types.empty()) return a.allowed_types[Int(0, a.allowed_types.size() - 1)];
    return kPlainTypes[Int(0, std::size(kPlainTypes) - 1)];
  }

  bool RandomAttr(const AttrDef& a, AttrValue* v) {
    switch (a.kind) {
      case AttrKind::kInt: v->set_i(Int(a.has_minimum ? a.minimum : -2, (a.has_minimum ? a.minimum : 0) + 3)); return true;
      case AttrKind::kFloat: v->set_f(static_cast<float>(Int(-4, 8)) / 4); return true;
      case AttrKind::kBool: v->set_b(Coin(0.5)); return true;
      case AttrKind::kType: v->set_type(static_cast<minitf::pb::DataType>(AnyType(a))); return true;
      case AttrKind::kString: {
        static const char* kCommon[] = {"SAME", "VALID", "NHWC", "bilinear", "EXPLICIT", "x"};
        v->set_s(!a.allowed_strings.empty() ? a.allowed_strings[Int(0, a.allowed_strings.size() - 1)]
                                            : kCommon[Int(0, std::size(kCommon) - 1)]);
        return true;
      }
      case AttrKind::kListInt: {
        const int64_t n = Int(0, 5);
        for (int64_t i = 0; i < n; ++i) v->mutable_list()->add_i(Int(-1, 3));
        return true;
      }
      case AttrKind::kListFloat: {
        const int64_t n = Int(0, 3);
        for (int64_t i = 0; i < n; ++i) v->mutable_list()->add_f(static_cast<float>(Int(0, 8)));
        return true;
      }
      case AttrKind::kListType: {
        const int64_t n = Int(a.has_minimum ? a.minimum : 0, 3);
        for (int64_t i = 0; i < n; ++i) v->mutable_list()->add_type(static_cast<minitf::pb::DataType>(AnyType(a)));
        return true;
      }
      case AttrKind::kShape: {
        if (Coin(0.3)) {
          v->mutable_shape()->set_unknown_rank(true);
        } else {
          const int64_t rank = Int(0, 3);
          for (int64_t i = 0; i < rank; ++i) v->mutable_shape()->add_dim()->set_size(Int(-1, 3));
        }
        return true;
      }
      case AttrKind::kTensor: {
        *v->mutable_tensor() = testing_support::MakeTensorProto<float>({2}, {1.f, 2.f});
        return true;
      }
      default:
        return false;
    }
  }

  std::vector<TF_DataType> ArgTypes(const ArgDef& arg) {
    int64_t count = 1;
    if (!arg.number_attr.empty()) {
      auto it = attrs_.find(arg.number_attr);
      count = it != attrs_.end() ? it->second.i() : 2;
      count = std::max<int64_t>(0, std::min<int64_t>(count, 4));
    }
    if (arg.fixed_type != minitf::kInvalidType) return std::vector<TF_DataType>(count, arg.fixed_type);
    auto it = attrs_.find(arg.type_attr);
    if (it == attrs_.end()) {
      // Left to its default: read it from the declaration.
      const AttrDef* a = def_.FindAttr(arg.type_attr);
      if (a != nullptr && a->has_default && a->default_value.value_case() == AttrValue::kType) {
        return std::vector<TF_DataType>(count, static_cast<TF_DataType>(a->default_value.type()));
      }
      return std::vector<TF_DataType>(count, TF_FLOAT);
    }
    if (it->second.value_case() == AttrValue::kType) {
      return std::vector<TF_DataType>(count, static_cast<TF_DataType>(it->second.type()));
    }
    std::vector<TF_DataType> types;
    for (int t : it->second.list().type()) types.push_back(static_cast<TF_DataType>(t));
    return types;
  }

  template <typename T>
  void AddTyped(const std::string& name, const testing_support::Dims& dims, int64_t n) {
    std::vector<T> values(n);
    for (int64_t i = 0; i < n; ++i) {
      if constexpr (std::is_same_v<T, bool>) {
        values[i] = Coin(0.5);
      } else if constexpr (std::is_floating_point_v<T>) {
        values[i] = Coin(0.05) ? std::numeric_limits<T>::infinity() : static_cast<T>(Int(-40, 40)) / 8;
      } else {
        values[i] = static_cast<T>(Coin(0.03) ? std::numeric_limits<T>::max() : Int(-2, 4));
      }
    }
    g_.Const<T>(name, dims, values);
  }

  void AddConst(const std::string& name, TF_DataType t) {
    const int64_t rank = Int(0, 4);
    testing_support::Dims dims;
    int64_t n = 1;
    for (int64_t i = 0; i < rank; ++i) {
      dims.push_back(Coin(0.1) ? 0 : Int(1, 4));
      n *= dims.back();
    }
    switch (t) {
      case TF_FLOAT: AddTyped<float>(name, dims, n); break;
      case TF_DOUBLE: AddTyped<double>(name, dims, n); break;
      case TF_INT32: AddTyped<int32_t>(name, dims, n); break;
      case TF_INT64: AddTyped<int64_t>(name, dims, n); break;
      case TF_UINT8: AddTyped<uint8_t>(name, dims, n); break;
      case TF_BOOL: AddTyped<bool>(name, dims, n); break;
      default:  // types the tests cannot build values for: a float stand-in
        AddTyped<float>(name, dims, n);
        break;
    }
  }

  const OpDef& def_;
  std::mt19937 rng_;
  GraphBuilder g_;
  std::map<std::string, AttrValue> attrs_;
};

TEST(RobustnessTest, RandomInputsToEveryOpEndInAStatus) {
  const auto& registry = minitf::OpRegistry::Global();
  const std::set<std::string> kSkip = {"Placeholder"};  // needs a feed, covered elsewhere
  int runs = 0, successes = 0;
  for (const std::string& op : registry.OpNames()) {
    if (kSkip.count(op)) continue;
    const OpDef& def = registry.Find(op)->def;
    for (uint32_t seed = 1; seed <= 60; ++seed) {
      RandomOpGraph random(def, seed * 7919 + static_cast<uint32_t>(op.size()));
      TestSession s(random.Build());
      if (s.code() != TF_OK) continue;  // a rejected graph is a fine answer too
      std::vector<testing_support::TensorPtr> out;
      std::vector<std::string> fetches;
      for (int i = 0; i < TF_OperationNumOutputs(TF_GraphOperationByName(s.graph(), "probe")); ++i) {
        fetches.push_back("probe:" + std::to_string(i));
      }
      const TF_Code code = s.Run({}, fetches, &out, fetches.empty() ? std::vector<std::string>{"probe"}
                                                                    : std::vector<std::string>{});
      ++runs;
      if (code == TF_OK) {
        ++successes;
        for (const auto& t : out) {
          ASSERT_NE(t, nullptr) << op;
          const size_t elem = TF_DataTypeSize(TF_TensorType(t.get()));
          EXPECT_GE(TF_TensorByteSize(t.get()), elem * TF_TensorElementCount(t.get())) << op;
        }
      } else {
        EXPECT_TRUE(code == TF_INVALID_ARGUMENT || code == TF_UNIMPLEMENTED ||
                    code == TF_RESOURCE_EXHAUSTED || code == TF_OUT_OF_RANGE)
            << op << " seed " << seed << ": code " << code << " " << s.last_error();
        if (code == TF_INVALID_ARGUMENT) {
          EXPECT_NE(s.last_error().find("probe"), std::string::npos) << op << ": " << s.last_error();
        }
      }
    }
  }
  // The generator must reach the kernels, not only the import checks.
  EXPECT_GT(runs, 100);
  EXPECT_GT(successes, 20);
  std::printf("random op runs: %d, of which %d succeeded\n", runs, successes);
}

}  // namespace
