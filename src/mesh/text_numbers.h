// Number scanning shared by the text readers of the mesh file family:
// decimal integers and floats as the C library scans them, without its
// locale or its per-call overhead, and the fields of one line.
#pragma once

#include <charconv>
#include <cstdint>
#include <system_error>
#include <type_traits>

namespace kxGeom {
namespace fileio {

inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
inline bool isSpace(char c) { return isBlank(c) || c == '\n' || c == '\v' || c == '\f'; }

// Decimal integers as the C library scans them (optional sign, digits);
// null on no digits or overflow. Inline because face lines are mostly
// integers and the library call dominates otherwise.
inline const char* parseInt(const char* p, const char* end, int& value) {
  bool negative = false;
  if (p != end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  const char* digits = p;
  long long v = 0;
  while (p != end && unsigned(*p - '0') < 10u && v <= 2147483648ll) v = 10 * v + (*p++ - '0');
  if (p == digits || v > 2147483648ll || (!negative && v > 2147483647ll)) return nullptr;
  value = static_cast<int>(negative ? -v : v);
  return p;
}

// from_chars for floats as the C library scans them: an optional '+' is
// accepted, and a value beyond the type's range falls back to double
// precision (rounding to infinity or zero) instead of failing.
template <class T>
const char* parseReal(const char* p, const char* end, T& value) {
  if (p != end && *p == '+' && end - p > 1 && p[1] != '-') ++p;
  std::from_chars_result r = std::from_chars(p, end, value);
  if constexpr (std::is_same<T, float>::value) {
    if (r.ec == std::errc::result_out_of_range) {
      double wide = 0;
      r = std::from_chars(p, end, wide);
      value = static_cast<float>(wide);
    }
  }
  return r.ec == std::errc() ? r.ptr : nullptr;
}

// Short plain decimals such as "-12.375", the form writers emit, are exact
// in one float division when their digits fit 24 bits and the power of ten
// is exact in float (Clinger's fast path); anything else goes to from_chars.
// Both round correctly, so the result is the same either way.
inline const char* parseFloat(const char* p, const char* end, float& value) {
  static const float kPow10[11] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f,
                                   1e6f, 1e7f, 1e8f, 1e9f, 1e10f};
  const char* q = p;
  const bool negative = q != end && *q == '-';
  if (q != end && (*q == '-' || *q == '+')) ++q;
  std::uint32_t mantissa = 0;
  int digits = 0, fraction = 0;
  for (; q != end && unsigned(*q - '0') < 10u && digits < 8; ++digits) {
    mantissa = 10 * mantissa + unsigned(*q++ - '0');
  }
  if (q != end && *q == '.') {
    for (++q; q != end && unsigned(*q - '0') < 10u && digits < 8; ++digits, ++fraction) {
      mantissa = 10 * mantissa + unsigned(*q++ - '0');
    }
  }
  const bool plain = digits > 0 && mantissa <= (1u << 24) && (q == end || isSpace(*q));
  if (!plain) return parseReal(p, end, value);
  const float magnitude = float(mantissa) / kPow10[fraction];
  value = negative ? -magnitude : magnitude;
  return q;
}

// The blank-separated fields of one line (or of a header's tail). Every
// getter skips blanks first and fails, leaving the field unread, unless a
// whole field of its kind follows.
class LineFields {
 public:
  LineFields(const char* begin, const char* end) : p_(begin), end_(end) {}

  bool atEnd() {
    skipBlanks();
    return p_ == end_;
  }
  bool real(float& value) { return take(parseFloat(start(), end_, value)); }
  bool integer(int& value) { return take(parseInt(start(), end_, value)); }
  // A count: decimal digits only, up to 2^64 - 1.
  bool count(std::uint64_t& value) {
    const char* p = start();
    if (p == end_ || unsigned(*p - '0') >= 10u) return false;
    const std::from_chars_result r = std::from_chars(p, end_, value);
    return r.ec == std::errc() && take(r.ptr);
  }
  // The next field as text, whatever it holds.
  bool word(const char*& begin, const char*& end) {
    begin = start();
    const char* p = begin;
    while (p != end_ && !isBlank(*p)) ++p;
    end = p;
    return take(p != begin ? p : nullptr);
  }

 private:
  void skipBlanks() {
    while (p_ != end_ && isBlank(*p_)) ++p_;
  }
  const char* start() {
    skipBlanks();
    return p_;
  }
  // Accepts a parse that ended at a blank or the end of the line.
  bool take(const char* after) {
    if (!after || (after != end_ && !isBlank(*after))) return false;
    p_ = after;
    return true;
  }

  const char* p_;
  const char* end_;
};

}  // namespace fileio
}  // namespace kxGeom
