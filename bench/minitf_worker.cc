// minitf_worker: one converted model in one minitf session, timed on request.
//
//   minitf_worker graph.pb meta.json THREADS
//
// meta.json is a reference-output description written by
// tools/golden/make_golden.js: it names the model's inputs (with the raw
// input files beside it) and outputs. The worker imports the graph, opens a
// session with THREADS intra-op threads, and then answers one line per
// command on stdin:
//
//   run     one session run; prints the wall time in milliseconds
//   info    prints one JSON object: weights bytes, FLOPs of the convolutions
//           and matrix products, the two largest activations, and resident
//           memory (before and after import, after session creation, now,
//           and the peak since the import; and the anonymous part, which
//           leaves out library code pages)
//   quit
//
// The bench driver (bench/run_models.py) keeps one worker per runtime alive
// and interleaves their runs, so that drift on a shared machine affects all
// runtimes alike.
#include <malloc.h>
#include <tensorflow/c/c_api.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "minitf/proto/graph.pb.h"
#include "process_memory.h"

namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "minitf_worker: %s\n", what.c_str());
  std::exit(1);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) Fail("cannot read " + path);
  std::ostringstream buf;
  buf << in.rdbuf();
  return buf.str();
}

struct StatusDeleter {
  void operator()(TF_Status* s) const { TF_DeleteStatus(s); }
};
using StatusPtr = std::unique_ptr<TF_Status, StatusDeleter>;

void Check(TF_Status* status, const std::string& what) {
  if (TF_GetCode(status) != TF_OK) Fail(what + ": " + TF_Message(status));
}

TF_DataType DtypeOf(const std::string& name) {
  if (name == "float32") return TF_FLOAT;
  if (name == "int32") return TF_INT32;
  if (name == "uint8") return TF_UINT8;
  Fail("unsupported input dtype " + name);
}

// "node:k" or "node" to a graph output.
TF_Output OutputOf(TF_Graph* graph, const std::string& name) {
  std::string node = name;
  int index = 0;
  const size_t colon = name.rfind(':');
  if (colon != std::string::npos) {
    node = name.substr(0, colon);
    index = std::stoi(name.substr(colon + 1));
  }
  TF_Operation* op = TF_GraphOperationByName(graph, node.c_str());
  if (op == nullptr) Fail("graph has no node " + node);
  return {op, index};
}

std::string ProducerOf(const std::string& input) {
  const size_t colon = input.rfind(':');
  return colon == std::string::npos ? input : input.substr(0, colon);
}

int64_t DtypeBytes(int dtype) {
  switch (dtype) {
    case minitf::pb::DT_DOUBLE:
    case minitf::pb::DT_INT64:
      return 8;
    case minitf::pb::DT_HALF:
    case minitf::pb::DT_BFLOAT16:
    case minitf::pb::DT_INT16:
    case minitf::pb::DT_UINT16:
      return 2;
    case minitf::pb::DT_UINT8:
    case minitf::pb::DT_INT8:
    case minitf::pb::DT_BOOL:
      return 1;
    default:
      return 4;
  }
}

std::vector<int64_t> ConstShape(const minitf::pb::NodeDef& node) {
  std::vector<int64_t> dims;
  auto it = node.attr().find("value");
  if (it == node.attr().end()) return dims;
  for (const auto& d : it->second.tensor().tensor_shape().dim()) dims.push_back(d.size());
  return dims;
}

int64_t Product(const std::vector<int64_t>& dims) {
  int64_t n = 1;
  for (int64_t d : dims) n *= d;
  return n;
}

// A node whose cost the worker counts, and what it needs to count it.
struct CountedNode {
  std::string name;
  std::string op;
  std::vector<int64_t> filter;  // constant weight shape, when known
  std::string source;           // the input whose shape sets the cost
};

class Worker {
 public:
  Worker(const std::string& graph_path, const std::string& meta_path, int threads) {
    rss_before_import_kb_ = bench::ResidentKb();
    const std::string bytes = ReadFile(graph_path);
    if (!graph_def_.ParseFromString(bytes)) Fail(graph_path + " is not a GraphDef");
    graph_ = TF_NewGraph();
    StatusPtr status(TF_NewStatus());
    TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
    TF_ImportGraphDefOptions* options = TF_NewImportGraphDefOptions();
    TF_GraphImportGraphDef(graph_, buffer, options, status.get());
    TF_DeleteImportGraphDefOptions(options);
    TF_DeleteBuffer(buffer);
    Check(status.get(), "import");
    rss_after_import_kb_ = bench::ResidentKb();
    malloc_trim(0);
    anon_after_import_kb_ = bench::AnonymousResidentKb();
    // The session's own peak, not the import's (file bytes and parsing).
    peak_reset_ = bench::ResetPeakResident();

    // intra_op_parallelism_threads is field 2 of ConfigProto.
    const unsigned char config[] = {0x10, static_cast<unsigned char>(threads)};
    TF_SessionOptions* session_options = TF_NewSessionOptions();
    TF_SetConfig(session_options, config, sizeof(config), status.get());
    Check(status.get(), "config");
    session_ = TF_NewSession(graph_, session_options, status.get());
    TF_DeleteSessionOptions(session_options);
    Check(status.get(), "session");
    rss_after_session_kb_ = bench::ResidentKb();

    nlohmann::json meta = nlohmann::json::parse(ReadFile(meta_path));
    const std::string dir = meta_path.substr(0, meta_path.rfind('/') + 1);
    for (const auto& in : meta["inputs"]) {
      inputs_.push_back(OutputOf(graph_, in["name"].get<std::string>()));
      std::vector<int64_t> dims = in["shape"].get<std::vector<int64_t>>();
      const std::string raw = ReadFile(dir + in["file"].get<std::string>());
      TF_Tensor* t = TF_AllocateTensor(DtypeOf(in["dtype"]), dims.data(),
                                       static_cast<int>(dims.size()), raw.size());
      if (t == nullptr || TF_TensorByteSize(t) != raw.size()) Fail("input size mismatch");
      std::memcpy(TF_TensorData(t), raw.data(), raw.size());
      input_values_.push_back(t);
    }
    for (const auto& out : meta["outputs"]) {
      outputs_.push_back(OutputOf(graph_, out["name"].get<std::string>()));
    }
  }

  ~Worker() {
    for (TF_Tensor* t : input_values_) TF_DeleteTensor(t);
    StatusPtr status(TF_NewStatus());
    TF_CloseSession(session_, status.get());
    TF_DeleteSession(session_, status.get());
    TF_DeleteGraph(graph_);
  }

  double RunOnceMs() {
    const auto start = std::chrono::steady_clock::now();
    std::vector<TF_Tensor*> results = Run(outputs_);
    const auto end = std::chrono::steady_clock::now();
    for (TF_Tensor* t : results) TF_DeleteTensor(t);
    return std::chrono::duration<double, std::milli>(end - start).count();
  }

  nlohmann::json Info() {
    nlohmann::json info;
    info["rss_before_import_kb"] = rss_before_import_kb_;
    info["rss_after_import_kb"] = rss_after_import_kb_;
    info["peak_reset_after_import"] = peak_reset_;
    info["rss_after_session_kb"] = rss_after_session_kb_;
    info["rss_now_kb"] = bench::ResidentKb();
    info["rss_peak_kb"] = bench::PeakResidentKb();
    info["anon_after_import_kb"] = anon_after_import_kb_;
    // What the session holds, not what the allocator keeps of freed blocks.
    malloc_trim(0);
    info["anon_now_kb"] = bench::AnonymousResidentKb();
    info["weights_bytes"] = WeightsBytes();
    // Counting fetches every activation once, which raises the peak; it
    // comes after the memory readings for that reason.
    CountActivationsAndFlops(&info);
    return info;
  }

 private:
  std::vector<TF_Tensor*> Run(const std::vector<TF_Output>& fetches) {
    std::vector<TF_Tensor*> results;
    StatusPtr status(TF_NewStatus());
    if (!TryRun(fetches, &results, status.get())) Check(status.get(), "run");
    return results;
  }

  bool TryRun(const std::vector<TF_Output>& fetches, std::vector<TF_Tensor*>* results,
              TF_Status* status) {
    results->assign(fetches.size(), nullptr);
    TF_SessionRun(session_, nullptr, inputs_.data(), input_values_.data(),
                  static_cast<int>(inputs_.size()), fetches.data(), results->data(),
                  static_cast<int>(fetches.size()), nullptr, 0, nullptr, status);
    if (TF_GetCode(status) == TF_OK) return true;
    for (TF_Tensor* t : *results) {
      if (t != nullptr) TF_DeleteTensor(t);
    }
    results->clear();
    return false;
  }

  int64_t WeightsBytes() const {
    int64_t total = 0;
    for (const auto& node : graph_def_.node()) {
      if (node.op() != "Const") continue;
      auto it = node.attr().find("dtype");
      const int dtype = it == node.attr().end() ? 1 : it->second.type();
      total += Product(ConstShape(node)) * DtypeBytes(dtype);
    }
    return total;
  }

  // FLOPs (2 per multiply-add) of Conv2D, depthwise, transposed convolution
  // and MatMul, from the shapes one run produces; and the two largest
  // float activations of that run.
  void CountActivationsAndFlops(nlohmann::json* info) {
    std::map<std::string, const minitf::pb::NodeDef*> by_name;
    for (const auto& node : graph_def_.node()) by_name[node.name()] = &node;
    auto filter_of = [&](const minitf::pb::NodeDef& node, int input) {
      std::vector<int64_t> dims;
      if (node.input_size() <= input) return dims;
      auto it = by_name.find(ProducerOf(node.input(input)));
      // Weights often reach the op through an Identity, or a Dequantize of
      // 8-bit constants of the same shape.
      while (it != by_name.end() &&
             (it->second->op() == "Identity" || it->second->op() == "Dequantize") &&
             it->second->input_size() > 0) {
        it = by_name.find(ProducerOf(it->second->input(0)));
      }
      if (it != by_name.end() && it->second->op() == "Const") dims = ConstShape(*it->second);
      return dims;
    };

    std::vector<CountedNode> counted;
    std::vector<TF_Output> fetches;
    for (const auto& node : graph_def_.node()) {
      const std::string& op = node.op();
      if (op == "Const" || op == "Placeholder") continue;
      TF_Operation* handle = TF_GraphOperationByName(graph_, node.name().c_str());
      if (handle == nullptr || TF_OperationNumOutputs(handle) == 0) continue;
      if (TF_OperationOutputType({handle, 0}) != TF_FLOAT) continue;
      CountedNode c{node.name(), op, {}, {}};
      if (op == "Conv2D" || op == "DepthwiseConv2dNative" || op == "MatMul") {
        c.filter = filter_of(node, 1);
      } else if (op == "Conv2DBackpropInput") {
        c.filter = filter_of(node, 1);
        c.source = ProducerOf(node.input(2));
      }
      counted.push_back(c);
      fetches.push_back({handle, 0});
    }
    std::vector<TF_Tensor*> values;
    StatusPtr status(TF_NewStatus());
    if (!TryRun(fetches, &values, status.get())) {
      // A graph with control flow cannot hand out the tensors inside its
      // loops; count the convolutions and products alone, outside them.
      std::vector<CountedNode> kept;
      std::vector<TF_Output> kept_fetches;
      for (size_t i = 0; i < counted.size(); ++i) {
        const std::string& op = counted[i].op;
        if (op == "Conv2D" || op == "DepthwiseConv2dNative" || op == "MatMul" ||
            op == "Conv2DBackpropInput") {
          kept.push_back(counted[i]);
          kept_fetches.push_back(fetches[i]);
        }
      }
      counted.swap(kept);
      fetches.swap(kept_fetches);
      (*info)["activations_of_counted_ops_only"] = true;
      if (!TryRun(fetches, &values, status.get())) {
        (*info)["flops_error"] = TF_Message(status.get());
        return;
      }
    }
    std::map<std::string, std::vector<int64_t>> shapes;
    std::vector<int64_t> sizes;
    for (size_t i = 0; i < values.size(); ++i) {
      std::vector<int64_t> dims;
      for (int d = 0; d < TF_NumDims(values[i]); ++d) dims.push_back(TF_Dim(values[i], d));
      sizes.push_back(static_cast<int64_t>(TF_TensorByteSize(values[i])));
      shapes[counted[i].name] = dims;
      TF_DeleteTensor(values[i]);
    }
    std::sort(sizes.rbegin(), sizes.rend());
    info->operator[]("largest_activation_bytes") =
        std::vector<int64_t>(sizes.begin(), sizes.begin() + std::min<size_t>(2, sizes.size()));

    double flops = 0;
    int64_t uncounted = 0;
    for (const CountedNode& c : counted) {
      const std::vector<int64_t>& out = shapes[c.name];
      if (c.op == "Conv2D" && c.filter.size() == 4) {
        flops += 2.0 * Product(out) * c.filter[0] * c.filter[1] * c.filter[2];
      } else if (c.op == "DepthwiseConv2dNative" && c.filter.size() == 4) {
        flops += 2.0 * Product(out) * c.filter[0] * c.filter[1];
      } else if (c.op == "MatMul" && c.filter.size() == 2 && !out.empty()) {
        flops += 2.0 * Product(out) * (Product(c.filter) / out.back());
      } else if (c.op == "Conv2DBackpropInput" && c.filter.size() == 4 &&
                 shapes.count(c.source) != 0) {
        // Each input cell scatters into a window of every output channel.
        flops += 2.0 * Product(shapes[c.source]) * c.filter[0] * c.filter[1] * c.filter[2];
      } else if (c.op == "Conv2D" || c.op == "DepthwiseConv2dNative" || c.op == "MatMul" ||
                 c.op == "Conv2DBackpropInput") {
        ++uncounted;
      }
    }
    (*info)["flops"] = flops;
    (*info)["uncounted_nodes"] = uncounted;
  }

  minitf::pb::GraphDef graph_def_;
  TF_Graph* graph_ = nullptr;
  TF_Session* session_ = nullptr;
  std::vector<TF_Output> inputs_;
  std::vector<TF_Tensor*> input_values_;
  std::vector<TF_Output> outputs_;
  int64_t rss_before_import_kb_ = 0;
  int64_t rss_after_import_kb_ = 0;
  int64_t anon_after_import_kb_ = 0;
  bool peak_reset_ = false;
  int64_t rss_after_session_kb_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: minitf_worker graph.pb meta.json THREADS\n");
    return 2;
  }
  const int threads = std::atoi(argv[3]);
  if (threads < 1 || threads > 64) Fail("THREADS must be 1..64");
  Worker worker(argv[1], argv[2], threads);
  // One untimed run first, as the peers' workers do (kernels chosen, buffers
  // sized), so that a short warm-up treats every runtime alike.
  worker.RunOnceMs();
  std::cout << "ready" << std::endl;
  std::string command;
  while (std::getline(std::cin, command)) {
    if (command == "run") {
      std::cout << worker.RunOnceMs() << std::endl;
    } else if (command == "info") {
      std::cout << worker.Info().dump() << std::endl;
    } else if (command == "quit") {
      break;
    } else {
      std::cout << "error unknown command" << std::endl;
    }
  }
  return 0;
}
