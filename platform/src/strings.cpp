#include <kxgeom/platform/strings.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace kxString {

CString CString::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string out;
  if (n > 0) {
    std::vector<char> buf(std::size_t(n) + 1);
    std::vsnprintf(buf.data(), buf.size(), fmt, args);
    out.assign(buf.data(), std::size_t(n));
  }
  va_end(args);
  return CString(std::move(out));
}

}  // namespace kxString

namespace kxOS {

namespace {
std::size_t lastSeparator(const std::string& s) {
  const std::size_t p = s.find_last_of('/');
  return p == std::string::npos ? 0 : p + 1;
}
std::size_t extensionDot(const std::string& s) {
  const std::size_t dot = s.find_last_of('.');
  return dot == std::string::npos || dot < lastSeparator(s) ? std::string::npos : dot;
}
}  // namespace

kxString::CString Filename::baseName() const {
  const std::string& s = path_.asCString().str();
  const std::size_t start = lastSeparator(s);
  const std::size_t dot = extensionDot(s);
  return s.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
}

kxString::CString Filename::extension() const {
  const std::string& s = path_.asCString().str();
  const std::size_t dot = extensionDot(s);
  return dot == std::string::npos ? std::string() : s.substr(dot);
}

Filename Filename::withExtension(const char* ext) const {
  const std::string& s = path_.asCString().str();
  const std::size_t dot = extensionDot(s);
  return Filename((dot == std::string::npos ? s : s.substr(0, dot)) + ext);
}

}  // namespace kxOS
