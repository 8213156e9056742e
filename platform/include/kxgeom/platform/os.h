// Logging and timing services of the base layer.
#pragma once

#include <chrono>
#include <functional>

#include <kxgeom/platform/export.h>

namespace kxOS {

/// A debug channel: printf-style diagnostics that a sink may capture.
///
/// Every `print` formats its arguments once and hands the text to the sink.
/// With no sink installed the channel is silent unless the environment
/// variable KXGEOM_DEBUG is set, in which case the text goes to stderr.
/// Thread safety: `print` may be called from any thread; the sink is called
/// under a lock, one message at a time. `setSink` must not race with `print`.
class KXGEOM_API DebugChannel {
 public:
  using Sink = std::function<void(const char*)>;

  DebugChannel();
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  /// Installs a sink; an empty function restores the default.
  void setSink(Sink sink);
  /// The installed sink (empty for the default), so a caller that captures
  /// output for a while can put the previous one back.
  const Sink& getSink() const { return sink_; }

 private:
  Sink sink_;
  bool toStderr_;
};

/// The process's user-facing message output (information and errors).
/// Default: info to stdout, error to stderr. Thread safety as DebugChannel.
class KXGEOM_API AppOutput {
 public:
  enum class Level { Info, Error };
  using Sink = std::function<void(Level, const char*)>;

  static AppOutput& getInstance();
  void info(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void error(const char* format, ...) __attribute__((format(printf, 2, 3)));
  /// Installs a sink; an empty function restores the default.
  void setSink(Sink sink);

 private:
  AppOutput() = default;
  void emit(Level level, const char* text);
  Sink sink_;
};

/// Wall-clock stop watch. `start` begins timing; `stop` and `clear` return the
/// seconds since the start, and `clear` also restarts it. Constructed running.
class StopWatch {
 public:
  StopWatch() { start(); }
  double start() {
    t0_ = Clock::now();
    return 0.0;
  }
  double stop() const { return std::chrono::duration<double>(Clock::now() - t0_).count(); }
  double clear() {
    const Clock::time_point now = Clock::now();
    const double s = std::chrono::duration<double>(now - t0_).count();
    t0_ = now;
    return s;
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point t0_;
};

}  // namespace kxOS

namespace kxGeom {
/// The geometry library's debug channel; every algorithm logs here.
KXGEOM_API kxOS::DebugChannel& debugChannel();
}  // namespace kxGeom
