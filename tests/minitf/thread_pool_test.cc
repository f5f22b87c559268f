// ThreadPool::ParallelFor: every element runs exactly once, and the call
// returns only after all blocks have finished, whether the other blocks end
// while the caller watches, after it has gone to sleep, or are taken back by
// the caller itself.
#include "thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace minitf {
namespace {

TEST(ThreadPoolTest, CoversEveryElementOnceAndJoinsBeforeReturning) {
  for (int threads : {1, 2, 4}) {
    ThreadPool pool(threads);
    for (int64_t total : {1, 2, 3, 7, 64, 1001}) {
      for (int64_t min_block : {1, 5, 1000}) {
        std::vector<std::atomic<int>> hits(total);
        pool.ParallelFor(total, min_block, [&](int64_t begin, int64_t end) {
          ASSERT_LE(0, begin);
          ASSERT_LT(begin, end);
          ASSERT_LE(end, total);
          for (int64_t i = begin; i < end; ++i) hits[i].fetch_add(1);
        });
        for (int64_t i = 0; i < total; ++i) {
          ASSERT_EQ(hits[i].load(), 1) << threads << " threads, total " << total << ", min_block "
                                       << min_block << ", element " << i;
        }
      }
    }
  }
}

TEST(ThreadPoolTest, WaitsForBlocksLongerThanTheCallersWatch) {
  ThreadPool pool(2);
  for (int round = 0; round < 5; ++round) {
    std::atomic<int> finished{0};
    pool.ParallelFor(2, 1, [&](int64_t begin, int64_t) {
      // The second block outlasts any brief watch, so the caller must sleep
      // and be woken (or run it itself).
      if (begin == 1) std::this_thread::sleep_for(std::chrono::milliseconds(3));
      finished.fetch_add(1);
    });
    ASSERT_EQ(finished.load(), 2) << "round " << round;
  }
}

TEST(ThreadPoolTest, ConcurrentCallersShareTheWorkers) {
  ThreadPool pool(2);
  constexpr int kCallers = 4, kCalls = 500;
  std::atomic<int> incomplete{0};
  std::vector<std::thread> callers;
  for (int c = 0; c < kCallers; ++c) {
    callers.emplace_back([&, c] {
      for (int call = 0; call < kCalls; ++call) {
        const int64_t total = 2 + (call + c) % 9;
        std::atomic<int64_t> done{0};
        pool.ParallelFor(total, 1, [&](int64_t begin, int64_t end) {
          if ((begin + call) % 3 == 0) std::this_thread::yield();
          done.fetch_add(end - begin);
        });
        if (done.load() != total) incomplete.fetch_add(1);
      }
    });
  }
  for (auto& t : callers) t.join();
  EXPECT_EQ(incomplete.load(), 0);
}

}  // namespace
}  // namespace minitf
