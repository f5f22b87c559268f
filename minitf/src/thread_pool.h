// A fixed pool of worker threads for intra-op parallelism. Pools are shared
// process-wide by size, so many sessions do not multiply threads.
#ifndef MINITF_THREAD_POOL_H_
#define MINITF_THREAD_POOL_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace minitf {

class ThreadPool {
 public:
  // A pool that runs work on `num_threads` threads in all: the caller of
  // ParallelFor plus num_threads - 1 workers.
  explicit ThreadPool(int num_threads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // The shared pool of this size (clamped to [1, 64]).
  static ThreadPool* Shared(int num_threads);

  int num_threads() const { return num_threads_; }

  // Splits [0, total) into at most num_threads() blocks of at least
  // `min_block` elements, runs fn(begin, end) on each, and returns when all
  // have finished. The calling thread runs a block too.
  void ParallelFor(int64_t total, int64_t min_block,
                   const std::function<void(int64_t, int64_t)>& fn);

 private:
  void WorkerLoop();

  // How long an idle worker watches the queue before it sleeps.
  static constexpr std::chrono::microseconds kWatch{200};
  // How long a caller that has finished its block watches the others
  // before it sleeps.
  static constexpr std::chrono::microseconds kCallerWatch{100};

  const int num_threads_;
  std::atomic<int64_t> queued_{0};  // tasks in queue_, readable without mu_
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> queue_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace minitf

#endif  // MINITF_THREAD_POOL_H_
