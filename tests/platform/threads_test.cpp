// The threaded-pass pattern: nested runs, determinism across thread counts,
// the parallel stable sort, and progress phases and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace {

using kxUtil::ThreadedAlgBase;
using kxUtil::ThreadPool;

// Records which slice each thread saw, and a float sum whose value depends on
// the summation order: folding in thread order must give the same answer as
// the same slices summed serially.
class SliceRecorder : public kxUtil::ThreadedAlg<std::vector<int>> {
 public:
  explicit SliceRecorder(int n) : ThreadedAlg(n) {}
  int initialized = 0, finalized = 0;
  void initialize(int numThreads) override {
    ++initialized;
    ThreadedAlg::initialize(numThreads);
  }
  void finalize() override { ++finalized; }

 protected:
  void process(int, int begin, int end, std::vector<int>& out) override {
    for (int i = begin; i < end; ++i) out.push_back(i);
  }
};

TEST(ThreadPool, NestedRunsExecuteSeriallyWithoutDeadlock) {
  ThreadPool pool(4);
  std::vector<int> inner(4, 0);
  kxUtil::forEachRange(pool, 4, [&](int, int b, int e) {
    for (int i = b; i < e; ++i) {
      int count = 0;
      kxUtil::forEachRange(pool, 100, [&](int, int ib, int ie) { count += ie - ib; });
      inner[i] = count;
    }
  });
  EXPECT_EQ(inner, std::vector<int>(4, 100));
}

TEST(SMPSortMerge, IsStableAndIdenticalForEveryThreadCount) {
  std::mt19937 rng(7);
  std::vector<std::pair<int, int>> input(20000);
  for (int i = 0; i < int(input.size()); ++i) input[i] = {int(rng() % 50), i};
  auto byKey = [](const std::pair<int, int>& a, const std::pair<int, int>& b) {
    return a.first < b.first;
  };
  std::vector<std::pair<int, int>> expected = input;
  std::stable_sort(expected.begin(), expected.end(), byKey);
  for (int threads : {1, 2, 3, 8}) {
    ThreadPool pool(threads);
    std::vector<std::pair<int, int>> data = input;
    kxUtil::SMPSortMerge(data.data(), int(data.size()), byKey, pool);
    EXPECT_EQ(data, expected) << threads;
  }
}

TEST(Progress, SubPhasesAdvanceTheParentByTheirShare) {
  kxUtil::Progress root;
  std::vector<double> seen;
  std::string lastCaption;
  root.setObserver([&](double f, const char* c) {
    seen.push_back(f);
    lastCaption = c;
  });
  kxUtil::Progress a, b;
  root.subPhase(0.8, a);
  a.set(0.5);
  EXPECT_DOUBLE_EQ(root.get(), 0.4);
  a.set(1.0);
  root.subPhase(0.2, b);
  b.setCaption("second");
  b.set(0.5);
  EXPECT_DOUBLE_EQ(root.get(), 0.9);
  EXPECT_EQ(lastCaption, "second");
  EXPECT_DOUBLE_EQ(seen.back(), 0.9);
  EXPECT_FALSE(b.cancelled());
  root.cancel();
  EXPECT_TRUE(b.cancelled());
}

TEST(Progress, OverriddenCancelledAtTheRootReachesEveryPhase) {
  struct StopButton : kxUtil::Progress {
    bool pressed = false;
    bool cancelled() const override { return pressed; }
  } root;
  kxUtil::Progress child, grandchild;
  root.subPhase(1.0, child);
  child.subPhase(1.0, grandchild);
  EXPECT_FALSE(grandchild.cancelled());
  root.pressed = true;
  EXPECT_TRUE(grandchild.cancelled());
}

}  // namespace
