// Time spent per op type, for finding where a model's runs go. Enabled per
// process with MINITF_PROFILE=1; a session then prints its table to stderr
// when it is deleted.
#ifndef MINITF_OP_PROFILE_H_
#define MINITF_OP_PROFILE_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace minitf {

class OpProfile {
 public:
  // Whether MINITF_PROFILE is set to a non-empty value other than "0".
  static bool Enabled();

  void Add(const std::string& op_type, std::chrono::nanoseconds elapsed);
  // The bytes of tensors one run held at once, at its peak.
  void NoteRunPeak(int64_t bytes);
  // The table, slowest op type first; empty when nothing was recorded.
  std::string Report() const;

 private:
  struct Entry {
    int64_t calls = 0;
    std::chrono::nanoseconds total{0};
  };
  mutable std::mutex mu_;
  std::map<std::string, Entry> entries_;
  int64_t largest_run_peak_ = 0;
};

}  // namespace minitf

#endif  // MINITF_OP_PROFILE_H_
