#include <kxgeom/platform/os.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace kxOS {

namespace {
// One lock for both channels, so lines of different threads never mix;
// recursive so that a sink may write to the other channel.
std::recursive_mutex& outputMutex() {
  static std::recursive_mutex m;
  return m;
}

std::string vformat(const char* format, va_list args) {
  char small[512];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (std::size_t(n) < sizeof small) return std::string(small, std::size_t(n));
  std::string out(std::size_t(n) + 1, '\0');
  std::vsnprintf(&out[0], out.size(), format, args);
  out.resize(std::size_t(n));
  return out;
}
}  // namespace

DebugChannel::DebugChannel() : toStderr_(std::getenv("KXGEOM_DEBUG") != nullptr) {}

void DebugChannel::print(const char* format, ...) {
  if (!sink_ && !toStderr_) return;
  va_list args;
  va_start(args, format);
  const std::string text = vformat(format, args);
  va_end(args);
  std::lock_guard<std::recursive_mutex> lock(outputMutex());
  if (sink_) {
    sink_(text.c_str());
  } else {
    std::fputs(text.c_str(), stderr);
  }
}

void DebugChannel::setSink(Sink sink) { sink_ = std::move(sink); }

AppOutput& AppOutput::getInstance() {
  static AppOutput instance;
  return instance;
}

void AppOutput::info(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = vformat(format, args);
  va_end(args);
  emit(Level::Info, text.c_str());
}

void AppOutput::error(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = vformat(format, args);
  va_end(args);
  emit(Level::Error, text.c_str());
}

void AppOutput::emit(Level level, const char* text) {
  std::lock_guard<std::recursive_mutex> lock(outputMutex());
  if (sink_) {
    sink_(level, text);
  } else {
    std::fputs(text, level == Level::Info ? stdout : stderr);
  }
}

void AppOutput::setSink(Sink sink) { sink_ = std::move(sink); }

}  // namespace kxOS

namespace kxGeom {
kxOS::DebugChannel& debugChannel() {
  static kxOS::DebugChannel channel;
  return channel;
}
}  // namespace kxGeom
