#include <kxgeom/platform/threads.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <kxgeom/platform/progress.h>

namespace kxUtil {

namespace {
int hardwareThreads() {
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : static_cast<int>(n);
}

int initialThreads() {
  if (const char* env = std::getenv("KXGEOM_THREADS")) {
    const int n = std::atoi(env);
    if (n > 0) return n;
  }
  return hardwareThreads();
}

thread_local bool insidePoolWorker = false;

void runSerially(ThreadedAlgBase& alg, int numThreads) {
  alg.initialize(numThreads);
  for (int t = 0; t < numThreads; ++t) alg.run(t, numThreads);
  alg.finalize();
}
}  // namespace

// Workers 1..T-1 sleep on `wake` until the generation changes, run their
// slice of the current algorithm and count down `pending`.
struct ThreadPool::Impl {
  std::mutex runMutex;  // one parallel run at a time
  std::mutex m;
  std::condition_variable wake, done;
  std::vector<std::thread> workers;
  ThreadedAlgBase* alg = nullptr;
  int numThreads = 1;
  unsigned generation = 0;
  int pending = 0;
  bool stopping = false;

  void start(int n) {
    numThreads = n;
    stopping = false;
    // New workers must not mistake the last run before a resize for a new
    // one: they start from the current generation.
    const unsigned current = generation;
    for (int t = 1; t < n; ++t) workers.emplace_back([this, t, current] { loop(t, current); });
  }
  void stop() {
    {
      std::lock_guard<std::mutex> lock(m);
      stopping = true;
    }
    wake.notify_all();
    for (std::thread& w : workers) w.join();
    workers.clear();
  }
  void loop(int t, unsigned seen) {
    insidePoolWorker = true;
    for (;;) {
      ThreadedAlgBase* work;
      int n;
      {
        std::unique_lock<std::mutex> lock(m);
        wake.wait(lock, [&] { return stopping || generation != seen; });
        if (stopping) return;
        seen = generation;
        work = alg;
        n = numThreads;
      }
      work->run(t, n);
      {
        std::lock_guard<std::mutex> lock(m);
        if (--pending == 0) done.notify_one();
      }
    }
  }
};

ThreadPool::ThreadPool(int numThreads) : impl_(new Impl), numThreads_(1) { resize(numThreads); }

ThreadPool::~ThreadPool() {
  impl_->stop();
  delete impl_;
}

void ThreadPool::resize(int numThreads) {
  std::lock_guard<std::mutex> lock(impl_->runMutex);
  impl_->stop();
  numThreads_ = numThreads < 1 ? hardwareThreads() : numThreads;
  impl_->start(numThreads_);
}

ThreadPool& ThreadPool::get() {
  static ThreadPool pool(initialThreads());
  return pool;
}

ThreadPool& ThreadPool::getSingleThreadedPool() {
  static ThreadPool pool(1);
  return pool;
}

void ThreadPool::setNumThreads(int n) { get().resize(n); }

void ThreadPool::run(ThreadedAlgBase& alg) {
  const int n = numThreads_;
  if (n == 1 || insidePoolWorker) {
    runSerially(alg, n);
    return;
  }
  std::unique_lock<std::mutex> busy(impl_->runMutex, std::try_to_lock);
  if (!busy.owns_lock()) {
    runSerially(alg, n);
    return;
  }
  alg.initialize(n);
  {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->alg = &alg;
    impl_->pending = n - 1;
    ++impl_->generation;
  }
  impl_->wake.notify_all();
  const bool wasInside = insidePoolWorker;
  insidePoolWorker = true;  // nested runs from slice 0 go serial too
  alg.run(0, n);
  insidePoolWorker = wasInside;
  {
    std::unique_lock<std::mutex> lock(impl_->m);
    impl_->done.wait(lock, [&] { return impl_->pending == 0; });
  }
  alg.finalize();
}

ThreadedAlgBase::~ThreadedAlgBase() = default;

void ThreadedAlgBase::initialize(int numThreads) {
  numThreads_ = numThreads;
  fractions_.reset(new std::atomic<double>[numThreads]);
  for (int t = 0; t < numThreads; ++t) fractions_[t].store(0.0);
}

void ThreadedAlgBase::finalize() {}

void ThreadedAlgBase::updateProgress(int thread, double fraction) {
  if (!progress_ || !fractions_) return;
  fractions_[thread].store(fraction, std::memory_order_relaxed);
  if (thread != 0) return;
  double sum = 0.0;
  for (int t = 0; t < numThreads_; ++t) sum += fractions_[t].load(std::memory_order_relaxed);
  progress_->set(sum / numThreads_);
}

bool ThreadedAlgBase::cancelled(int) const { return progress_ && progress_->cancelled(); }

namespace {
class RangeAlg : public ThreadedAlgBase {
 public:
  RangeAlg(int n, const std::function<void(int, int, int)>& fn) : n_(n), fn_(fn) {}
  void run(int thread, int numThreads) override {
    const int b = getBeginIndex(thread, numThreads, n_);
    const int e = getBeginIndex(thread + 1, numThreads, n_);
    if (b < e) fn_(thread, b, e);
  }

 private:
  int n_;
  const std::function<void(int, int, int)>& fn_;
};
}  // namespace

int forEachRange(ThreadPool& pool, int n, const std::function<void(int, int, int)>& fn) {
  RangeAlg alg(n, fn);
  pool.run(alg);
  return pool.numThreads();
}

}  // namespace kxUtil
