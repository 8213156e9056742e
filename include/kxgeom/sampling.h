// Direction sampling: a base-2 bit-reversal permutation, scrambled radical-
// inverse sequences in bases 3, 5 and 7, mappings between the unit square and
// the sphere or a spherical cap, and random unit and hemisphere directions.
//
// Integer "mod" and "div" below truncate toward zero, as C++ `%` and `/` do.
#pragma once

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

/// The bit-reversal permutation of 0 .. n-1 for n = 2^bits: entry i is i with
/// its `bits` low bits in reverse order (bits = 3: 0, 4, 2, 6, 1, 5, 3, 7).
/// Used to decorrelate 2D sample grids.
///
/// Thread safety: const members may be called concurrently; `calculate` and
/// assignment need exclusive access.
class KXGEOM_API HammersleyPermutation2 {
 public:
  /// No table, size 0.
  HammersleyPermutation2() = default;
  HammersleyPermutation2(const HammersleyPermutation2& o);
  HammersleyPermutation2& operator=(const HammersleyPermutation2& o);
  ~HammersleyPermutation2();

  /// Rebuilds the table for n = 2^(bits AND 31) entries.
  /// [in] bits  number of bits; meant for 0 .. 15.
  /// The filling loop runs a 16-bit counter up to n mod 65536, so for
  /// 16 <= bits <= 30 the table of n entries is allocated (zeroed) but no
  /// entry is computed. When n does not fit an int (bits AND 31 = 31) or the
  /// allocation fails, the object is left without a table and size 0.
  /// Cost O(n * bits) time, O(n) memory.
  void calculate(int bits);

  /// table[i mod n]. Requires a table (size > 0) and i >= 0. Cost O(1).
  int operator()(int i) const { return table_[i % n_]; }
  /// ((n - 1) AND x) * n + table[(n - 1) AND y]: a cell of the n x n grid
  /// whose row is permuted. Requires a table. Cost O(1).
  int map2d(int x, int y) const { return ((n_ - 1) & x) * n_ + table_[(n_ - 1) & y]; }
  /// ((n - 1) AND (i mod period)) * n + table[(n - 1) AND (i div period)].
  /// Requires a table and period != 0. Cost O(1).
  int mapPeriodic(int i, int period) const {
    return ((n_ - 1) & (i % period)) * n_ + table_[(n_ - 1) & (i / period)];
  }

  /// Number of entries n (0 without a table).
  int size() const { return n_; }
  /// The table, or null.
  const int* table() const { return table_; }

 private:
  int* table_ = nullptr;
  int n_ = 0;
};

/// Scrambled radical-inverse values in base 3, 5 or 7: value i mirrors the
/// base-b digits of i about the radix point after mapping each digit through
/// the base's scrambling table (3: 0 1 2; 5: 0 3 2 1 4; 7: 0 2 5 3 1 4 6).
/// Base 5, count 6 gives 0, 0.6, 0.4, 0.2, 0.8, 0.12.
///
/// Thread safety: as `HammersleyPermutation2`.
class KXGEOM_API ScrambledHammersleySequence {
 public:
  /// No values, base 0, count 0.
  ScrambledHammersleySequence() = default;
  ScrambledHammersleySequence(const ScrambledHammersleySequence& o);
  ScrambledHammersleySequence& operator=(const ScrambledHammersleySequence& o);
  ~ScrambledHammersleySequence();

  /// Rebuilds the values.
  /// [in] base   3, 5 or 7.
  /// [in] count  number of values, >= 0.
  /// Values are accumulated in single precision, the weight starting at
  /// 1/base and divided by base after each digit. Failure: any other base, a
  /// negative count or a failed allocation leave no values, base 0, count 0.
  /// Cost O(count * log_base(count)).
  void calculate(int base, int count);

  /// values[i mod count]. Requires count > 0 and i >= 0. Cost O(1).
  float operator()(int i) const { return values_[i % count_]; }

  int base() const { return base_; }
  int count() const { return count_; }

 private:
  float* values_ = nullptr;
  int base_ = 0;
  int count_ = 0;
};

/// Maps a unit-square sample to a direction uniformly distributed on the
/// sphere: phi = u * 2pi, theta = acos(2v - 1), out = (cos phi sin theta,
/// sin phi sin theta, cos theta). Single precision.
/// [in] u, v  the sample, each in [0, 1].
/// [out] out  a unit vector; v = 1 gives +z, v = 0 gives -z.
/// Cost O(1). Re-entrant.
KXGEOM_API void mapSphericalToUniformCartesian(float u, float v, kxLinear::VectorFlt& out);

/// Maps a unit-square sample to a direction on the cap around +z whose height
/// (1 - z) runs over [0, cap]: h = v * cap, r = sqrt((2 - h) h), phi = u * 2pi,
/// out = (cos phi r, sin phi r, 1 - h). Uniform over the cap's area.
/// [in] u, v  the sample, each in [0, 1].
/// [in] cap   the cap height in [0, 2]; 2 is the whole sphere, 1 the upper
///            hemisphere.
/// [out] out  a unit vector.
/// Cost O(1). Re-entrant.
KXGEOM_API void mapSphericalCapToUniformCartesian(float u, float v, float cap,
                                                  kxLinear::VectorFlt& out);

/// Inverse of `mapSphericalToUniformCartesian`, except within about 0.001 rad
/// of the poles, where u is 0.
/// [in] dir   a unit vector (|dir.z| <= 1; otherwise the results are NaN).
/// [out] u    in [0, 1).
/// [out] v    in [0, 1]; (cos theta + 1) / 2 = (dir.z + 1) / 2.
/// Cost O(1). Re-entrant.
KXGEOM_API void mapUniformCartesianToSpherical(const kxLinear::VectorFlt& dir, float& u, float& v);

/// Draws a direction uniformly distributed on the sphere by rejection in the
/// cube [-1, 1]^3: three draws of `kxUtil::drand48` give z, then y, then x;
/// vectors with squared length >= 1 or < 0.01 are drawn again.
/// [out] out  a unit vector.
/// Cost O(1) expected (about 1.9 draws of three numbers). Thread safety: uses
/// the process-wide `kxUtil::drand48` state; not thread-safe.
KXGEOM_API void randomUnitVector(kxLinear::Vector& out);

/// Fills every existing element of `out`, in index order, with a random unit
/// direction in the closed hemisphere of `normal` (a `randomUnitVector`,
/// reversed when its dot product with `normal` is negative).
/// [in] normal   the hemisphere's axis; need not be unit length.
/// [in,out] out  sized by the caller; only its elements are written.
/// Cost O(out.size()). Thread safety: as `randomUnitVector`.
KXGEOM_API void computeHemisphereVectors(const kxLinear::Vector& normal,
                                         kx::vector<kxLinear::Vector>& out);

}  // namespace kxGeom
