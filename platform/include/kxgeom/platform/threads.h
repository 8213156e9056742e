// The thread pool and the threaded-pass pattern.
//
// A threaded pass over n elements gives thread t of T the contiguous range
// [begin(t), begin(t+1)) with begin(t) = t*q + min(t, r), q = n / T,
// r = n % T. Each thread writes only its own partial result; the caller
// combines the partials in thread order after the run, so results never
// depend on timing.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>

namespace kxUtil {

class Progress;
class ThreadedAlgBase;

/// A pool of worker threads that runs `ThreadedAlgBase` objects.
///
/// `run` calls initialize(T), then the per-thread work for t = 0..T-1
/// concurrently (thread 0 on the calling thread), waits, then finalize().
/// A run that starts while the pool is busy (a nested run from inside a pass,
/// or a second application thread) executes all T slices on its own calling
/// thread, one after the other: same slices, same results, no deadlock.
class KXGEOM_API ThreadPool {
 public:
  /// The shared pool. Sized by KXGEOM_THREADS if set, else by the hardware.
  static ThreadPool& get();
  /// A pool that runs everything on the calling thread.
  static ThreadPool& getSingleThreadedPool();
  /// Resizes the shared pool (n < 1 means the hardware concurrency). Must not
  /// be called while a pass runs on it.
  static void setNumThreads(int n);

  explicit ThreadPool(int numThreads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  int numThreads() const { return numThreads_; }
  void resize(int numThreads);
  void run(ThreadedAlgBase& alg);

 private:
  struct Impl;
  Impl* impl_;
  int numThreads_;
};

/// Base of every threaded algorithm object. Virtual slots, in order: the
/// destructor, initialize, run (the per-thread work), finalize.
class KXGEOM_API ThreadedAlgBase {
 public:
  virtual ~ThreadedAlgBase();
  /// Called once on the calling thread before the work, with the thread count.
  virtual void initialize(int numThreads);
  /// The work of thread `thread` of `numThreads`.
  virtual void run(int thread, int numThreads) = 0;
  /// Called once on the calling thread after every thread has finished.
  virtual void finalize();

  /// Progress to report into (may be null). Only thread 0 forwards the
  /// combined (mean) fraction to it, so it is written from one thread.
  void setProgress(Progress* progress) { progress_ = progress; }
  void updateProgress(int thread, double fraction);
  bool cancelled(int thread) const;

  /// First index of `thread`'s range by the range rule above.
  static int getBeginIndex(int thread, int numThreads, int n) {
    const int q = n / numThreads, r = n % numThreads;
    return thread * q + std::min(thread, r);
  }

 protected:
  int numThreads_ = 1;

 private:
  Progress* progress_ = nullptr;
  std::unique_ptr<std::atomic<double>[]> fractions_;
};

/// A pass over n elements with one `Result` per thread, by the range rule.
/// Derived classes implement `process`; the caller reads `results()` after
/// the run and folds them in thread order.
template <class Result>
class ThreadedAlg : public ThreadedAlgBase {
 public:
  explicit ThreadedAlg(int n) : n_(n) {}
  void initialize(int numThreads) override {
    ThreadedAlgBase::initialize(numThreads);
    results_.assign(numThreads, makeResult());
  }
  void run(int thread, int numThreads) override {
    const int begin = getBeginIndex(thread, numThreads, n_);
    const int end = getBeginIndex(thread + 1, numThreads, n_);
    if (begin < end) process(thread, begin, end, results_[thread]);
  }
  const std::vector<Result>& results() const { return results_; }
  std::vector<Result>& results() { return results_; }

 protected:
  /// The initial partial result of every thread.
  virtual Result makeResult() const { return Result(); }
  virtual void process(int thread, int begin, int end, Result& partial) = 0;
  int n_;

 private:
  std::vector<Result> results_;
};

/// A pass over n elements cut into fixed chunks that threads take in turn,
/// for work of uneven cost. Each chunk has its own `Result`, so folding them
/// in chunk order gives the same answer for every thread count.
template <class Result>
class ThreadedChunkAlg : public ThreadedAlgBase {
 public:
  ThreadedChunkAlg(int n, int chunkSize) : n_(n), chunk_(std::max(1, chunkSize)) {}
  int numChunks() const { return (n_ + chunk_ - 1) / chunk_; }
  void initialize(int numThreads) override {
    ThreadedAlgBase::initialize(numThreads);
    next_.store(0);
    results_.assign(numChunks(), makeResult());
  }
  void run(int thread, int) override {
    const int chunks = numChunks();
    for (int c = next_.fetch_add(1); c < chunks; c = next_.fetch_add(1)) {
      if (cancelled(thread)) return;
      process(thread, c * chunk_, std::min(n_, (c + 1) * chunk_), results_[c]);
    }
  }
  const std::vector<Result>& results() const { return results_; }

 protected:
  virtual Result makeResult() const { return Result(); }
  virtual void process(int thread, int begin, int end, Result& partial) = 0;
  int n_;
  int chunk_;

 private:
  std::atomic<int> next_{0};
  std::vector<Result> results_;
};

/// Runs fn(thread, begin, end) over the range rule's slices of [0, n) on
/// `pool`; returns the thread count used (the number of slices).
KXGEOM_API int forEachRange(ThreadPool& pool, int n,
                            const std::function<void(int thread, int begin, int end)>& fn);

/// Parallel stable sort of data[0, n) by `less`: each thread sorts its slice
/// stably, then adjacent slices are merged pairwise (ties keep the left
/// slice's element first). The result is the unique stable order, identical
/// for every thread count. Uses a temporary array of n elements.
template <class T, class Less>
void SMPSortMerge(T* data, int n, Less less, ThreadPool& pool = ThreadPool::get()) {
  if (n < 2) return;
  const int slices = std::max(1, std::min(pool.numThreads(), n / 2048 + 1));
  std::vector<int> bounds(slices + 1);
  for (int s = 0; s <= slices; ++s) bounds[s] = ThreadedAlgBase::getBeginIndex(s, slices, n);
  forEachRange(pool, slices, [&](int, int b, int e) {
    for (int s = b; s < e; ++s) std::stable_sort(data + bounds[s], data + bounds[s + 1], less);
  });
  if (slices == 1) return;
  kx::vector<T> buffer(n);
  T* src = data;
  T* dst = buffer.data();
  for (int width = 1; width < slices; width *= 2) {
    const int pairs = (slices + 2 * width - 1) / (2 * width);
    forEachRange(pool, pairs, [&](int, int b, int e) {
      for (int p = b; p < e; ++p) {
        const int lo = bounds[2 * p * width];
        const int mid = bounds[std::min(slices, (2 * p + 1) * width)];
        const int hi = bounds[std::min(slices, (2 * p + 2) * width)];
        std::merge(src + lo, src + mid, src + mid, src + hi, dst + lo, less);
      }
    });
    std::swap(src, dst);
  }
  if (src != data) std::copy(src, src + n, data);
}

/// A 32-bit mask.
struct BitField32 {
  std::uint32_t bits = 0;

  BitField32() = default;
  explicit BitField32(std::uint32_t b) : bits(b) {}
  void set(int i) { bits |= 1u << i; }
  void clear(int i) { bits &= ~(1u << i); }
  bool test(int i) const { return (bits >> i) & 1u; }
  bool any() const { return bits != 0; }
  std::uint32_t value() const { return bits; }
};

/// An RGBA colour with components in [0, 1].
struct Color {
  float r = 0, g = 0, b = 0, a = 1;

  Color() = default;
  Color(float red, float green, float blue, float alpha = 1)
      : r(red), g(green), b(blue), a(alpha) {}
  float red() const { return r; }
  float green() const { return g; }
  float blue() const { return b; }
  float alpha() const { return a; }
};

}  // namespace kxUtil
