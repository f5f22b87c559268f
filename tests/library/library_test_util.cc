#include "library/library_test_util.h"

#include <thread>

#include "support/graph_builder.h"

namespace library_test {

std::string IdentityGraph() {
  testing_support::GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Unary("Identity", "y", "x");
  return g.Serialize();
}

std::string GarbageGraph() {
  // A field tag whose length runs past the end: no parser accepts it.
  return std::string("\x0a\xff\xff\xff\x0f garbage", 13);
}

ModelOptions OptionsFor(const std::string& graph, const char* device) {
  ModelOptions options{};
  options.graphSize = static_cast<int32_t>(graph.size());
  options.graphData = graph.data();
  options.device = device;
  return options;
}

bool LockIsFree(std::mutex& lock) {
  bool free = false;
  std::thread([&] {
    if (lock.try_lock()) {
      free = true;
      lock.unlock();
    }
  }).join();
  return free;
}

}  // namespace library_test
