// Runs a computation on the shared pool at several sizes, for tests that
// demand identical results for every thread count.
#pragma once

#include <functional>

#include <kxgeom/platform/threads.h>

namespace kxtest {

/// The thread counts every parallel pass is checked with.
inline constexpr int kThreadCounts[] = {1, 2, 3, 8};

/// Calls fn(threads) with the shared pool resized to each count in turn,
/// then restores the pool's original size.
inline void forEachThreadCount(const std::function<void(int threads)>& fn) {
  const int original = kxUtil::ThreadPool::get().numThreads();
  for (int threads : kThreadCounts) {
    kxUtil::ThreadPool::setNumThreads(threads);
    fn(threads);
  }
  kxUtil::ThreadPool::setNumThreads(original);
}

}  // namespace kxtest
