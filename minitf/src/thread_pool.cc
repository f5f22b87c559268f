#include "thread_pool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>

namespace minitf {

ThreadPool::ThreadPool(int num_threads) : num_threads_(std::max(1, num_threads)) {
  for (int i = 1; i < num_threads_; ++i) {
    workers_.emplace_back([this] { WorkerLoop(); });
  }
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
  for (auto& t : workers_) t.join();
}

ThreadPool* ThreadPool::Shared(int num_threads) {
  num_threads = std::clamp(num_threads, 1, 64);
  static std::mutex mu;
  // Pools live for the whole process: sessions may be deleted from any
  // thread, and joining workers at exit would race with late users.
  static auto* pools = new std::map<int, ThreadPool*>;
  std::lock_guard<std::mutex> lock(mu);
  ThreadPool*& pool = (*pools)[num_threads];
  if (pool == nullptr) pool = new ThreadPool(num_threads);
  return pool;
}

void ThreadPool::WorkerLoop() {
  for (;;) {
    // A model's ops come back to back: watch the queue for a short while
    // before sleeping, so the next op's work is picked up at once. The
    // watch yields the core and is bounded, unlike an OpenMP spin.
    const auto watch_until = std::chrono::steady_clock::now() + kWatch;
    while (queued_.load(std::memory_order_acquire) == 0 &&
           std::chrono::steady_clock::now() < watch_until) {
      std::this_thread::yield();
    }
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      task = std::move(queue_.front());
      queue_.pop_front();
      queued_.fetch_sub(1, std::memory_order_relaxed);
    }
    task();
  }
}

void ThreadPool::ParallelFor(int64_t total, int64_t min_block,
                             const std::function<void(int64_t, int64_t)>& fn) {
  if (total <= 0) return;
  min_block = std::max<int64_t>(1, min_block);
  const int64_t blocks =
      std::min<int64_t>(num_threads_, (total + min_block - 1) / min_block);
  if (blocks <= 1) {
    fn(0, total);
    return;
  }
  const int64_t step = (total + blocks - 1) / blocks;
  struct Join {
    std::atomic<int64_t> pending;
    std::mutex mu;
    std::condition_variable cv;
  };
  auto join = std::make_shared<Join>();
  join->pending.store(blocks - 1, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (int64_t b = 1; b < blocks; ++b) {
      const int64_t begin = b * step, end = std::min(total, begin + step);
      queue_.emplace_back([join, &fn, begin, end] {
        if (begin < end) fn(begin, end);
        if (join->pending.fetch_sub(1, std::memory_order_acq_rel) == 1) {
          // Under the lock, so a caller about to sleep cannot miss it.
          std::lock_guard<std::mutex> l(join->mu);
          join->cv.notify_all();
        }
      });
    }
    queued_.fetch_add(blocks - 1, std::memory_order_release);
  }
  cv_.notify_all();
  fn(0, std::min(total, step));
  // Help with queued work (ours or another caller's) instead of idling, so
  // concurrent callers can never starve each other of workers. Then watch
  // the other blocks briefly: being woken from a sleep costs about as much
  // as a small op.
  const auto watch_until = std::chrono::steady_clock::now() + kCallerWatch;
  for (;;) {
    if (join->pending.load(std::memory_order_acquire) == 0) return;
    std::function<void()> task;
    if (queued_.load(std::memory_order_acquire) != 0) {
      std::lock_guard<std::mutex> lock(mu_);
      if (!queue_.empty()) {
        task = std::move(queue_.front());
        queue_.pop_front();
        queued_.fetch_sub(1, std::memory_order_relaxed);
      }
    }
    if (task) {
      task();
    } else if (std::chrono::steady_clock::now() < watch_until) {
      std::this_thread::yield();
    } else {
      std::unique_lock<std::mutex> l(join->mu);
      join->cv.wait(l, [&] { return join->pending.load(std::memory_order_acquire) == 0; });
      return;
    }
  }
}

}  // namespace minitf
