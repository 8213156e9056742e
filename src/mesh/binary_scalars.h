// Scalars of binary mesh files: their types, loading them from either byte
// order, and storing them little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kxGeom {
namespace fileio {

constexpr bool kHostLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

/// The scalar types of binary files, narrowest integers first.
enum class Scalar : std::uint8_t { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

inline std::size_t scalarBytes(Scalar s) {
  static const std::uint8_t kBytes[] = {1, 1, 2, 2, 4, 4, 4, 8};
  return kBytes[int(s)];
}
inline bool isIntegerScalar(Scalar s) { return s < Scalar::Float32; }

/// A T stored at p; with Swap its bytes are in the other order than the
/// host's.
template <class T, bool Swap>
T loadScalar(const char* p) {
  T value;
  if constexpr (Swap && sizeof(T) > 1) {
    char reversed[sizeof(T)];
    for (std::size_t i = 0; i < sizeof(T); ++i) reversed[i] = p[sizeof(T) - 1 - i];
    std::memcpy(&value, reversed, sizeof(T));
  } else {
    std::memcpy(&value, p, sizeof(T));
  }
  return value;
}

/// A little-endian T at p.
template <class T>
T loadLittle(const char* p) {
  return loadScalar<T, !kHostLittleEndian>(p);
}

/// Stores `value` little-endian at p.
template <class T>
void storeLittle(char* p, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  for (std::size_t i = 0; i < sizeof(T); ++i)
    p[i] = bytes[kHostLittleEndian ? i : sizeof(T) - 1 - i];
}

/// Stores `n` floats little-endian from p on; returns the end.
inline char* storeLittleFloats(char* p, const float* values, int n) {
  for (int k = 0; k < n; ++k, p += 4) storeLittle(p, values[k]);
  return p;
}

/// Calls f(T()) with T the C++ type of `type`: the one switch a loop over
/// many values of one type needs, outside the loop.
template <class F>
void withScalarType(Scalar type, F&& f) {
  switch (type) {
    case Scalar::Int8:
      return f(std::int8_t());
    case Scalar::UInt8:
      return f(std::uint8_t());
    case Scalar::Int16:
      return f(std::int16_t());
    case Scalar::UInt16:
      return f(std::uint16_t());
    case Scalar::Int32:
      return f(std::int32_t());
    case Scalar::UInt32:
      return f(std::uint32_t());
    case Scalar::Float32:
      return f(float());
    case Scalar::Float64:
      return f(double());
  }
}

/// An integer-typed scalar widened to 64 bits (`type` must be an integer).
template <bool Swap>
std::int64_t loadInteger(Scalar type, const char* p) {
  std::int64_t value = 0;
  withScalarType(type, [&](auto t) { value = std::int64_t(loadScalar<decltype(t), Swap>(p)); });
  return value;
}

}  // namespace fileio
}  // namespace kxGeom
