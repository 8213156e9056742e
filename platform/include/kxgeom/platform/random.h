// A deterministic 48-bit linear congruential generator.
//
// x(n+1) = (0x5DEECE66D * x(n) + 0xB) mod 2^48, and a draw is x(n+1) / 2^48.
// These are the classic rand48 constants and seeding rule, computed here in
// integer arithmetic so one seed yields the same sequence on every platform,
// whatever the C library offers.
#pragma once

#include <cstdint>

#include <kxgeom/platform/export.h>

namespace kxUtil {

/// A rand48 generator with its own state. Reentrant: distinct objects may be
/// used from distinct threads at once; one object needs exclusive access.
class KXGEOM_API Rand48 {
 public:
  /// The state of an unseeded generator, 0x1234ABCD330E.
  static constexpr std::uint64_t kDefaultState = 0x1234ABCD330Eull;

  Rand48() = default;
  /// Same as default construction followed by `seed(s)`.
  explicit Rand48(long s) { seed(s); }

  /// Seeds the generator.
  /// [in] s  the seed; its low 32 bits become the high 32 bits of the state,
  ///         the low 16 bits of the state are 0x330E.
  /// Cost O(1).
  void seed(long s);

  /// The next draw.
  /// Returns a double uniformly distributed in [0, 1), a multiple of 2^-48.
  /// Cost O(1).
  double next();

  /// The current 48-bit state.
  std::uint64_t state() const { return state_; }

 private:
  std::uint64_t state_ = kDefaultState;
};

/// Draws from the process-wide generator.
/// Returns a double in [0, 1) (see `Rand48::next`).
/// Cost O(1). Thread safety: one unsynchronised process-wide state; not
/// thread-safe. Concurrent callers must use their own `Rand48`.
KXGEOM_API double drand48();

/// Seeds the process-wide generator (see `Rand48::seed`).
/// [in] seed  the seed.
/// Cost O(1). Thread safety: as `drand48`.
KXGEOM_API void srand48(long seed);

}  // namespace kxUtil
