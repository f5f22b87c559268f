#include "op_profile.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace minitf {

bool OpProfile::Enabled() {
  static const bool enabled = [] {
    const char* v = std::getenv("MINITF_PROFILE");
    return v != nullptr && *v != '\0' && std::string(v) != "0";
  }();
  return enabled;
}

void OpProfile::Add(const std::string& op_type, std::chrono::nanoseconds elapsed) {
  std::lock_guard<std::mutex> lock(mu_);
  Entry& e = entries_[op_type];
  ++e.calls;
  e.total += elapsed;
}

void OpProfile::NoteRunPeak(int64_t bytes) {
  std::lock_guard<std::mutex> lock(mu_);
  largest_run_peak_ = std::max(largest_run_peak_, bytes);
}

std::string OpProfile::Report() const {
  std::lock_guard<std::mutex> lock(mu_);
  if (entries_.empty()) return "";
  std::vector<std::pair<std::string, Entry>> rows(entries_.begin(), entries_.end());
  std::sort(rows.begin(), rows.end(),
            [](const auto& a, const auto& b) { return a.second.total > b.second.total; });
  double all_ms = 0;
  for (const auto& r : rows) all_ms += r.second.total.count() / 1e6;
  std::string out = "minitf profile: op type, calls, total ms, share\n";
  char line[160];
  for (const auto& [op, e] : rows) {
    const double ms = e.total.count() / 1e6;
    std::snprintf(line, sizeof(line), "  %-28s %8lld %10.2f %5.1f%%\n", op.c_str(),
                  static_cast<long long>(e.calls), ms, all_ms > 0 ? 100.0 * ms / all_ms : 0.0);
    out += line;
  }
  std::snprintf(line, sizeof(line), "  largest tensor bytes one run held at once: %.2f MiB\n",
                largest_run_peak_ / 1048576.0);
  out += line;
  return out;
}

}  // namespace minitf
