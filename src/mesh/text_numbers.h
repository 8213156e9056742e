// Number scanning shared by the text readers of the mesh file family:
// decimal integers and floats as the C library scans them, without its
// locale or its per-call overhead, and the fields of one line.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>
#include <type_traits>

namespace kxGeom {
namespace fileio {

inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
inline bool isSpace(char c) { return isBlank(c) || c == '\n' || c == '\v' || c == '\f'; }

/// Every buffer handed to the scanners below must have this many readable
/// bytes after the end it is given: digits are examined eight at a time.
constexpr std::size_t kScanSlack = 8;

// The run of decimal digits at p, at most eight and at most `limit`: its
// length in `length` and its value returned. One unaligned load and a few
// multiplications replace a loop whose exit, at a different digit for
// every number, the branch predictor cannot learn.
inline std::uint32_t digitRun(const char* p, std::ptrdiff_t limit, int& length) {
  std::uint64_t chunk;
  std::memcpy(&chunk, p, sizeof chunk);
  if constexpr (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__) chunk = __builtin_bswap64(chunk);
  // A byte is a digit when its high nibble is 3, and still is after adding
  // 6 (a carry out of a non-digit only disturbs the bytes after it).
  constexpr std::uint64_t kHigh = 0xF0F0F0F0F0F0F0F0ull, kThrees = 0x3030303030303030ull;
  const std::uint64_t nonDigit =
      ((chunk & kHigh) ^ kThrees) | (((chunk + 0x0606060606060606ull) & kHigh) ^ kThrees);
  int n = nonDigit ? __builtin_ctzll(nonDigit) >> 3 : 8;
  if (n > limit) n = int(limit);
  length = n;
  if (n <= 0) return 0;
  // The digits move to the top bytes (leading zeros below them), then pairs,
  // then the two halves of four pairs combine.
  std::uint64_t v = (chunk - kThrees) << (8 * (8 - n));
  v = v * 10 + (v >> 8);
  v = ((v & 0x000000FF000000FFull) * (100 + (1000000ull << 32)) +
       ((v >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32))) >>
      32;
  return std::uint32_t(v);
}

// Too many digits for any caller: integers have at most ten, and floats
// take the fast path below with at most fifteen.
constexpr int kTooManyDigits = 1000;

// The decimal digits at p (up to end) in `value`, their number in `count`.
// Stops early, with `count` set to kTooManyDigits, once the value passes
// 10^11, so that it never overflows; leading zeros cost nothing.
inline const char* scanDigits(const char* p, const char* end, std::uint64_t& value, int& count) {
  static const std::uint32_t kScale[9] = {1,      10,      100,      1000,     10000,
                                          100000, 1000000, 10000000, 100000000};
  value = 0;
  count = 0;
  for (;;) {
    int n;
    const std::uint32_t run = digitRun(p, end - p, n);
    value = value * kScale[n] + run;
    count += n;
    p += n;
    if (n < 8) return p;
    if (value > 100000000000ull) {
      count = kTooManyDigits;
      return p;
    }
  }
}

// Decimal integers as the C library scans them (optional sign, digits);
// null on no digits or overflow.
inline const char* parseInt(const char* p, const char* end, int& value) {
  bool negative = false;
  if (p != end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  std::uint64_t v;
  int count;
  const char* after = scanDigits(p, end, v, count);
  if (count == 0 || count == kTooManyDigits || v > 2147483648ull ||
      (!negative && v > 2147483647ull)) {
    return nullptr;
  }
  value = static_cast<int>(negative ? -static_cast<long long>(v) : static_cast<long long>(v));
  return after;
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

// Whether rounding `v`, the correctly rounded double of some decimal, to
// float gives the float nearest that decimal. It does, as v lies on the same
// side of every point halfway between two floats as the decimal, unless v
// is such a point itself (the decimal may lie just off it), or v lies outside
// the normal float range, where the spacing of floats changes.
inline bool roundsToFloatExactly(double v) {
  const double magnitude = v < 0 ? -v : v;
  if (magnitude == 0) return true;
  if (magnitude < double(std::numeric_limits<float>::min()) ||
      magnitude > double(std::numeric_limits<float>::max())) {
    return false;
  }
  std::uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  constexpr std::uint64_t kBelowFloat = (std::uint64_t(1) << 29) - 1;  // bits a float drops
  return (bits & kBelowFloat) != (std::uint64_t(1) << 28);
}

// Plain decimals such as "-12.375" or "0.123456789", the form writers emit,
// take Clinger's fast path in double: up to 15 digits form an exact double
// and powers of ten up to 1e15 are exact, so one division rounds correctly;
// roundsToFloatExactly decides whether the float of that is the correct one.
// Anything else goes to from_chars. Both round correctly, so the result is
// the same either way.
inline const char* parseFloat(const char* p, const char* end, float& value) {
  static const double kPow10[16] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  const char* q = p;
  const bool negative = q != end && *q == '-';
  if (q != end && (*q == '-' || *q == '+')) ++q;
  std::uint64_t whole, fraction = 0;
  int wholeDigits, fractionDigits = 0;
  q = scanDigits(q, end, whole, wholeDigits);
  if (q != end && *q == '.') q = scanDigits(q + 1, end, fraction, fractionDigits);
  const int digits = wholeDigits + fractionDigits;
  if (digits == 0 || digits > 15 || (q != end && !isSpace(*q))) return parseReal(p, end, value);
  const double magnitude =
      double(whole * std::uint64_t(kPow10[fractionDigits]) + fraction) / kPow10[fractionDigits];
  if (!roundsToFloatExactly(magnitude)) return parseReal(p, end, value);
  value = static_cast<float>(negative ? -magnitude : magnitude);
  return q;
}

// The blank-separated fields of one line (or of a header's tail), up to
// the end or a comment from `comment` on (0: none). Every getter skips
// blanks first and fails, leaving the field unread, unless a whole field of
// its kind follows.
class LineFields {
 public:
  LineFields(const char* begin, const char* end, char comment = 0)
      : p_(begin), end_(end), comment_(comment) {}

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
    while (p != end_ && !isBlank(*p) && (!comment_ || *p != comment_)) ++p;
    end = p;
    return take(p != begin ? p : nullptr);
  }

 private:
  void skipBlanks() {
    while (p_ != end_ && isBlank(*p_)) ++p_;
    if (p_ != end_ && comment_ && *p_ == comment_) p_ = end_;
  }
  const char* start() {
    skipBlanks();
    return p_;
  }
  // Accepts a parse that ended at a blank, a comment or the end of the line.
  bool take(const char* after) {
    if (!after || (after != end_ && !isBlank(*after) && (!comment_ || *after != comment_))) {
      return false;
    }
    p_ = after;
    return true;
  }

  const char* p_;
  const char* end_;
  char comment_;
};

}  // namespace fileio
}  // namespace kxGeom
