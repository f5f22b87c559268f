#include "adapters.h"

namespace minitf {
namespace tfjs {

// One entry per contract. The library's model classes define the contracts
// (input and output names, dtypes, layouts); entries are added here as those
// classes gain real models, each as
//   {"name", "tfjs-model", "one line", ApplyFunction, {"output", ...}}
// where ApplyFunction adds its nodes with GraphEditor (placeholders, casts,
// resizes, decoding) and renames the model's inputs and outputs.
const std::vector<Adapter>& Adapters() {
  static const std::vector<Adapter> adapters;
  return adapters;
}

const Adapter* FindAdapter(const std::string& name) {
  for (const Adapter& a : Adapters()) {
    if (a.name == name) return &a;
  }
  return nullptr;
}

}  // namespace tfjs
}  // namespace minitf
