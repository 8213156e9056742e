#include <kxgeom/platform/random.h>

namespace kxUtil {

namespace {

constexpr std::uint64_t kMultiplier = 0x5DEECE66Dull;
constexpr std::uint64_t kIncrement = 0xBull;
constexpr std::uint64_t kMask48 = (std::uint64_t(1) << 48) - 1;
constexpr double kInv2Pow48 = 1.0 / 281474976710656.0;  // 2^-48, exact

Rand48& processGenerator() {
  static Rand48 generator;
  return generator;
}

}  // namespace

void Rand48::seed(long s) {
  const std::uint64_t high = std::uint64_t(static_cast<std::uint32_t>(s));
  state_ = (high << 16) | 0x330Eull;
}

double Rand48::next() {
  // Unsigned 64-bit arithmetic wraps; the mask keeps the low 48 bits.
  state_ = (kMultiplier * state_ + kIncrement) & kMask48;
  return double(state_) * kInv2Pow48;
}

double drand48() { return processGenerator().next(); }

void srand48(long seed) { processGenerator().seed(seed); }

}  // namespace kxUtil
