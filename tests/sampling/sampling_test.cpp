// Low-discrepancy sequences, sphere mappings and the rand48 directions,
// checked against hand-computed values, independent formulas and
// distribution statistics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <set>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace {

using kxLinear::Vector;
using kxLinear::VectorFlt;

// --- Oracles --------------------------------------------------------------------

int bitReverse(int i, int bits) {
  int r = 0;
  for (int b = 0; b < bits; ++b) {
    if (i & (1 << b)) r |= 1 << (bits - 1 - b);
  }
  return r;
}

// One rand48 step with the 48-bit product formed from 24-bit halves, so no
// 64-bit wrap-around is relied on.
struct HandRand48 {
  std::uint64_t x;
  explicit HandRand48(std::uint32_t seed) : x((std::uint64_t(seed) << 16) | 0x330E) {}
  double next() {
    const std::uint64_t a = 0x5DEECE66D, lo = 0xFFFFFF;
    const std::uint64_t xl = x & lo, xh = x >> 24, al = a & lo, ah = a >> 24;
    const std::uint64_t low = xl * al;
    const std::uint64_t mid = ((xh * al + xl * ah) & lo) << 24;
    x = (low + mid + 0xB) & ((std::uint64_t(1) << 48) - 1);
    return std::ldexp(double(x), -48);
  }
};

Vector handUnitVector(HandRand48& r) {
  for (;;) {
    const double z = 2 * r.next() - 1, y = 2 * r.next() - 1, x = 2 * r.next() - 1;
    const double l2 = x * x + y * y + z * z;
    if (l2 < 1.0 && l2 >= 0.01) return Vector(x, y, z) / std::sqrt(l2);
  }
}

// --- Bit-reversal permutation ----------------------------------------------------

TEST(HammersleyPermutation2, SmallTablesAreBitReversals) {
  kxGeom::HammersleyPermutation2 p;
  EXPECT_EQ(p.size(), 0);
  p.calculate(0);
  ASSERT_EQ(p.size(), 1);
  EXPECT_EQ(p(0), 0);
  p.calculate(3);
  const int expected[] = {0, 4, 2, 6, 1, 5, 3, 7};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(p(i), expected[i]);
  EXPECT_EQ(p(8 + 3), 6);  // wraps modulo n
  for (int bits = 1; bits <= 15; ++bits) {
    p.calculate(bits);
    ASSERT_EQ(p.size(), 1 << bits);
    std::set<int> seen;
    for (int i = 0; i < p.size(); ++i) {
      ASSERT_EQ(p(i), bitReverse(i, bits)) << bits << " " << i;
      seen.insert(p(i));
    }
    EXPECT_EQ(int(seen.size()), p.size());
  }
}

TEST(HammersleyPermutation2, SixteenBitsAndMoreAllocateWithoutFilling) {
  kxGeom::HammersleyPermutation2 p;
  p.calculate(16);
  ASSERT_EQ(p.size(), 65536);
  int nonZero = 0;
  for (int i = 0; i < p.size(); ++i) nonZero += p(i) != 0;
  EXPECT_EQ(nonZero, 0);
  p.calculate(35);  // only the low five bits count: 8 entries
  EXPECT_EQ(p.size(), 8);
  EXPECT_EQ(p(1), 4);
  p.calculate(31);
  EXPECT_EQ(p.size(), 0);
  EXPECT_EQ(p.table(), nullptr);
}

TEST(HammersleyPermutation2, GridMapsAndCopiesAreIndependent) {
  kxGeom::HammersleyPermutation2 p;
  p.calculate(4);
  const int n = 16;
  std::set<int> cells;
  for (int x = 0; x < n; ++x) {
    for (int y = 0; y < n; ++y) {
      const int c = p.map2d(x, y);
      EXPECT_EQ(c / n, x);
      EXPECT_EQ(c % n, bitReverse(y, 4));
      cells.insert(c);
    }
  }
  EXPECT_EQ(int(cells.size()), n * n);
  for (int i : {0, 5, 37, 255, 1000}) {
    EXPECT_EQ(p.mapPeriodic(i, 7), ((i % 7) & 15) * n + bitReverse((i / 7) & 15, 4));
  }
  kxGeom::HammersleyPermutation2 copy(p), assigned;
  assigned = p;
  p.calculate(2);
  EXPECT_EQ(copy.size(), 16);
  EXPECT_EQ(assigned(1), 8);
  EXPECT_NE(copy.table(), assigned.table());
  const kxGeom::HammersleyPermutation2& self = assigned;
  assigned = self;  // self-assignment keeps the table
  EXPECT_EQ(assigned(3), 12);
}

// --- Scrambled radical inverse ---------------------------------------------------

TEST(ScrambledHammersleySequence, BaseFiveExampleAndWrapping) {
  kxGeom::ScrambledHammersleySequence s;
  s.calculate(5, 6);
  ASSERT_EQ(s.count(), 6);
  EXPECT_EQ(s.base(), 5);
  const double expected[] = {0, 0.6, 0.4, 0.2, 0.8, 0.12};
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(s(i), expected[i], 1e-7) << i;
  EXPECT_EQ(s(7), s(1));
  s.calculate(4, 10);  // no scrambling table
  EXPECT_EQ(s.count(), 0);
  s.calculate(3, -1);
  EXPECT_EQ(s.count(), 0);
}

TEST(ScrambledHammersleySequence, FullPeriodsStratifyTheUnitInterval) {
  // A bijective digit scramble keeps the radical inverse's defining property:
  // for count = b^k every cell [j/b^k, (j+1)/b^k) holds exactly one value,
  // and the value's leading digit is the scramble of i's last digit.
  const int scramble7[] = {0, 2, 5, 3, 1, 4, 6};
  for (int base : {3, 5, 7}) {
    const int count = base * base * base;
    kxGeom::ScrambledHammersleySequence s;
    s.calculate(base, count);
    std::vector<int> hits(count, 0);
    for (int i = 0; i < count; ++i) {
      const double v = s(i);
      ASSERT_GE(v, 0.0);
      ASSERT_LT(v, 1.0);
      ++hits[int(v * count + 1e-4)];
      if (base == 7) {
        EXPECT_EQ(int(v * 7 + 1e-5), scramble7[i % 7]);
      }
      if (base == 3) {  // identity scramble: the plain radical inverse
        const double plain = (i % 3) / 3.0 + ((i / 3) % 3) / 9.0 + (i / 9) / 27.0;
        EXPECT_NEAR(v, plain, 1e-6);
      }
    }
    for (int c = 0; c < count; ++c) EXPECT_EQ(hits[c], 1) << base << " cell " << c;
  }
}

// --- Sphere mappings ------------------------------------------------------------

TEST(SphereMappings, PolesUnitLengthAndUniformCapAreas) {
  VectorFlt d;
  kxGeom::mapSphericalToUniformCartesian(0, 1, d);
  EXPECT_NEAR(d.x, 0, 1e-7);
  EXPECT_NEAR(d.y, 0, 1e-7);
  EXPECT_FLOAT_EQ(d.z, 1);
  float u = -1, v = -1;
  kxGeom::mapUniformCartesianToSpherical(VectorFlt(0, 0, 1), u, v);
  EXPECT_EQ(u, 0.0f);
  EXPECT_FLOAT_EQ(v, 1.0f);

  // Stratified samples: the share of directions with z > h0 must equal the
  // cap's share of the sphere's area, (1 - h0) / 2 (Archimedes).
  const int n = 200;
  int above = 0;
  double sx = 0, sy = 0;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      kxGeom::mapSphericalToUniformCartesian((i + 0.5f) / n, (j + 0.5f) / n, d);
      ASSERT_NEAR(d.length(), 1.0, 2e-6);
      above += d.z > 0.3f;
      sx += d.x;
      sy += d.y;
    }
  }
  EXPECT_NEAR(double(above) / (n * n), 0.35, 0.006);
  EXPECT_NEAR(sx / (n * n), 0, 1e-4);
  EXPECT_NEAR(sy / (n * n), 0, 1e-4);
}

TEST(SphereMappings, InverseRoundTripsAwayFromThePoles) {
  double worst = 0;
  for (int i = 0; i < 64; ++i) {
    for (int j = 1; j < 64; ++j) {
      const float u0 = i / 64.0f, v0 = j / 64.0f;
      VectorFlt d;
      kxGeom::mapSphericalToUniformCartesian(u0, v0, d);
      float u, v;
      kxGeom::mapUniformCartesianToSpherical(d, u, v);
      const double du = std::fabs(u - u0);
      worst = std::max({worst, std::min(du, 1 - du), double(std::fabs(v - v0))});
    }
  }
  EXPECT_LT(worst, 2e-5);
}

TEST(SphereMappings, CapIsTheSphereMappingRestrictedInHeight) {
  // The whole-sphere cap (cap = 2) is the sphere mapping with v mirrored; the
  // hemisphere cap runs z from 1 to 0.
  for (int i = 0; i <= 16; ++i) {
    for (int j = 0; j <= 16; ++j) {
      const float u = i / 16.0f, v = j / 16.0f;
      VectorFlt cap, sphere, half;
      kxGeom::mapSphericalCapToUniformCartesian(u, v, 2.0f, cap);
      kxGeom::mapSphericalToUniformCartesian(u, 1.0f - v, sphere);
      EXPECT_NEAR((cap - sphere).length(), 0, 2e-3) << u << " " << v;  // acos near the poles
      kxGeom::mapSphericalCapToUniformCartesian(u, v, 1.0f, half);
      EXPECT_NEAR(half.length(), 1.0, 1e-6);
      EXPECT_NEAR(half.z, 1.0f - v, 1e-7);
    }
  }
}

// --- rand48 and random directions ------------------------------------------------

TEST(Rand48, MatchesTheGeneratorComputedByHand) {
  kxUtil::srand48(0);
  EXPECT_NEAR(kxUtil::drand48(), 0.170828036106, 1e-12);  // (0x5DEECE66D * 0x330E + 0xB) / 2^48
  for (long seed : {0L, 1L, 42L, 0x7FFFFFFFL, -5L}) {
    kxUtil::srand48(seed);
    kxUtil::Rand48 own(seed);
    HandRand48 hand(static_cast<std::uint32_t>(seed));
    for (int i = 0; i < 1000; ++i) {
      const double h = hand.next();
      ASSERT_EQ(kxUtil::drand48(), h) << seed << " " << i;
      ASSERT_EQ(own.next(), h);
      ASSERT_GE(h, 0.0);
      ASSERT_LT(h, 1.0);
    }
  }
  EXPECT_EQ(kxUtil::Rand48().state(), 0x1234ABCD330Eull);
}

TEST(RandomDirections, SeededSequenceDrawsZThenYThenX) {
  kxUtil::srand48(7);
  HandRand48 hand(7);
  for (int i = 0; i < 500; ++i) {
    Vector v;
    kxGeom::randomUnitVector(v);
    const Vector e = handUnitVector(hand);
    ASSERT_EQ(v.x, e.x);
    ASSERT_EQ(v.y, e.y);
    ASSERT_EQ(v.z, e.z);
  }
}

TEST(RandomDirections, UniformOnTheSphereAndHemispheresFollowTheNormal) {
  kxUtil::srand48(123);
  const int n = 40000;
  Vector mean;
  double z2 = 0;
  for (int i = 0; i < n; ++i) {
    Vector v;
    kxGeom::randomUnitVector(v);
    ASSERT_NEAR(v.length(), 1.0, 1e-12);
    mean += v;
    z2 += v.z * v.z;
  }
  EXPECT_LT((mean / double(n)).length(), 0.015);
  EXPECT_NEAR(z2 / n, 1.0 / 3.0, 0.01);

  const Vector normal(0, 3, 4);  // not unit length
  kx::vector<Vector> dirs(5000, Vector(9, 9, 9));
  kxUtil::srand48(99);
  kxGeom::computeHemisphereVectors(normal, dirs);
  HandRand48 hand(99);
  double meanCos = 0;
  for (const Vector& d : dirs) {
    Vector e = handUnitVector(hand);
    if (kxLinear::dot(e, normal) < 0) e = -e;
    ASSERT_EQ(d, e);
    ASSERT_GE(kxLinear::dot(d, normal), 0.0);
    meanCos += kxLinear::dot(d, normal) / 5.0;
  }
  EXPECT_NEAR(meanCos / dirs.size(), 0.5, 0.02);  // mean cosine over a hemisphere
  kx::vector<Vector> none;
  kxGeom::computeHemisphereVectors(normal, none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
