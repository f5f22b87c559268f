// Resident memory of this process, from /proc/self/status (Linux).
#ifndef BENCH_PROCESS_MEMORY_H_
#define BENCH_PROCESS_MEMORY_H_

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace bench {

// The value of one "Key:   N kB" line, or -1.
inline int64_t ProcStatusKb(const std::string& key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) {
      return std::strtoll(line.c_str() + key.size() + 1, nullptr, 10);
    }
  }
  return -1;
}

inline int64_t ResidentKb() { return ProcStatusKb("VmRSS"); }
// Resident anonymous memory: the heap and mappings a program made, without
// the pages of shared libraries' code it happened to touch.
inline int64_t AnonymousResidentKb() { return ProcStatusKb("RssAnon"); }
// Starts the peak (VmHWM) over from the current resident size.
inline bool ResetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  return static_cast<bool>(clear);
}
inline int64_t PeakResidentKb() { return ProcStatusKb("VmHWM"); }

}  // namespace bench

#endif  // BENCH_PROCESS_MEMORY_H_
