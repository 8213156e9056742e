// Progress reporting and cancellation for long operations.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include <kxgeom/platform/export.h>

namespace kxUtil {

/// Progress of one operation or phase, as a fraction in [0, 1].
///
/// Phases nest: `parent.subPhase(w, child)` attaches a default-constructed
/// `child` as the next share `w` of the parent's range, so the child reports
/// its own 0..1 and the parent advances by `w * child`. Consecutive sub-phases
/// of one parent take consecutive shares.
///
/// Cancellation flows down: a phase is cancelled when `cancel()` was called on
/// it or when its parent reports `cancelled()`. `cancelled()` is virtual so an
/// application can tie the root to its own stop button.
///
/// A root may carry an observer, called on the calling thread whenever the
/// overall fraction (rounded to 1/1000) or the caption changes.
///
/// Thread safety: `cancel()` and `cancelled()` may be called from any thread;
/// the other members belong to the thread that runs the operation.
class KXGEOM_API Progress {
 public:
  using Observer = std::function<void(double overall, const char* caption)>;

  Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  virtual ~Progress() = default;

  /// Sets this phase's own fraction (clamped to [0, 1]) and propagates it up.
  void set(double fraction);
  /// This phase's own fraction.
  double get() const { return fraction_; }
  /// Names the current phase; reported to the root's observer.
  void setCaption(const char* caption);
  const char* caption() const { return caption_.c_str(); }

  virtual bool cancelled() const;
  /// Requests cancellation of this phase and every phase below it.
  void cancel() { cancelled_.store(true, std::memory_order_relaxed); }

  /// Attaches `local` as the next sub-range of size `weight` of this phase.
  void subPhase(double weight, Progress& local);

  /// Installs the observer of a root phase (empty function: none).
  void setObserver(Observer observer) { observer_ = std::move(observer); }
  /// The root's overall fraction as last reported.
  double overall() const;

 private:
  void childAdvanced(double childFraction, double base, double share);
  void captionChanged(const char* caption);
  void notify();

  Progress* parent_ = nullptr;
  double base_ = 0.0;   // where this phase starts in its parent's range
  double share_ = 1.0;  // its size in the parent's range
  double nextBase_ = 0.0;
  double fraction_ = 0.0;
  int lastReported_ = -1;
  std::string caption_;
  std::string reportedCaption_;
  std::atomic<bool> cancelled_{false};
  Observer observer_;
};

}  // namespace kxUtil
