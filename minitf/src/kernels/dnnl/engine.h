// What every oneDNN fast path shares: the engine, the guard that keeps
// oneDNN on the calling thread, the per-geometry primitive cache and the
// layout helpers. Each fast path's Run returns false when it did not
// compute (oneDNN absent at build time, a geometry it refuses, an empty
// tensor); the caller then uses the reference loops, so results never
// depend on oneDNN being present.
// oneDNN runs on the calling thread only: its OpenMP team spins while it
// waits, which on a machine busy with other work turns every barrier into a
// lost time slice. Parallelism comes from minitf's own pool instead, whose
// idle threads sleep (see DnnlConvChain).
#ifndef MINITF_KERNELS_DNNL_ENGINE_H_
#define MINITF_KERNELS_DNNL_ENGINE_H_

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kernels/window_geometry.h"

#ifdef MINITF_HAVE_DNNL
#include <oneapi/dnnl/dnnl.hpp>
#endif

namespace minitf {

// Whether this build has the oneDNN paths at all.
bool DnnlAvailable();

#ifdef MINITF_HAVE_DNNL
// Used only by the files under kernels/dnnl/.
namespace dnnl_internal {

using dnnl::memory;
using Tag = memory::format_tag;
constexpr auto kF32 = memory::data_type::f32;

dnnl::engine& CpuEngine();

// Holds oneDNN to one OpenMP thread (no team, nothing spinning) while it
// makes or runs a primitive. oneDNN reads OpenMP's per-thread setting, so
// this touches only the calling thread and restores what the host had.
class OneOmpThread {
 public:
  OneOmpThread();
  ~OneOmpThread();
  OneOmpThread(const OneOmpThread&) = delete;
  OneOmpThread& operator=(const OneOmpThread&) = delete;

 private:
  int previous_ = 1;
};

// A cache key: a window geometry's fields, or a size padded with zeros. A
// fixed array, so that looking a primitive up allocates nothing.
using PrimitiveKey = std::array<int64_t, 18>;
PrimitiveKey GeometryKey(const WindowGeometry& g);
bool AnyEmpty(const WindowGeometry& g);

// Primitives by geometry. A geometry oneDNN refused is remembered as null
// so that it is not retried on every call. Entries are created under the
// lock; they are immutable afterwards and oneDNN primitives may execute
// concurrently.
template <typename Entry>
class PrimitiveCache {
 public:
  template <typename Make>
  std::shared_ptr<const Entry> Get(const PrimitiveKey& key, Make make) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    if (it != entries_.end()) return it->second;
    // Shapes that vary per call (batch, image size) must not grow this
    // without bound.
    if (entries_.size() >= kMaxEntries) entries_.clear();
    std::shared_ptr<const Entry> entry;
    try {
      entry = make();
    } catch (const dnnl::error&) {
      entry = nullptr;
    }
    entries_.emplace(key, entry);
    return entry;
  }

 private:
  static constexpr size_t kMaxEntries = 32;
  std::mutex mu_;
  std::map<PrimitiveKey, std::shared_ptr<const Entry>> entries_;
};

// An NHWC activation.
memory::desc ActivationDesc(int64_t n, int64_t h, int64_t w, int64_t c);

// Scratchpads are ours, allocated per call: the library-managed one is
// shared between primitives and corrupts results when two threads execute
// at once.
dnnl::primitive_attr UserScratchpad();
void AddScratchpad(const memory::desc& desc, std::unordered_map<int, memory>* args);

// TensorFlow's filter layout as oneDNN weights: [k_h, k_w, in_c, out_c]
// (hwio), or per group for grouped and depthwise convolutions.
memory::desc ConvFilterDesc(const WindowGeometry& g);

// A filter that is an op input, so it may change between calls: the reorder
// from TensorFlow's layout to the one the primitive chose is made once and
// run on every call.
struct FilterReorder {
  memory::desc user;
  memory::desc wanted;
  bool needed = false;
  dnnl::reorder reorder;
  memory::desc scratchpad;

  void Init(const memory::desc& user_desc, const memory::desc& wanted_desc);
  // The filter as the primitive wants it; the reorder runs on `stream`.
  memory Apply(dnnl::stream& stream, const float* filter) const;
};

// A primitive that reads an activation and a filter given as an op input
// and writes an activation: Conv2D, and the transposed convolution. Callers
// hold OneOmpThread.
struct FilteredPrimitive {
  dnnl::primitive primitive;
  memory::desc scratchpad;
  FilterReorder filter;

  bool Execute(const memory::desc& src_desc, const float* src, const float* filter_data,
               const memory::desc& dst_desc, float* dst) const;
};

}  // namespace dnnl_internal
#endif  // MINITF_HAVE_DNNL

}  // namespace minitf

#endif  // MINITF_KERNELS_DNNL_ENGINE_H_
