// Low-discrepancy permutation tables, sphere mappings and the rand48
// generator, against hand-computed values and independent formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <set>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace {

using kxLinear::Vector;
using kxLinear::VectorFlt;

int bitReverse(int i, int bits) {
  int r = 0;
  for (int b = 0; b < bits; ++b) r |= ((i >> b) & 1) << (bits - 1 - b);
  return r;
}

// rand48 with the 48-bit product formed from 24-bit halves, so that no 64-bit
// wrap-around is relied on.
struct HandRand48 {
  std::uint64_t x;
  explicit HandRand48(std::uint32_t seed) : x((std::uint64_t(seed) << 16) | 0x330E) {}
  double next() {
    const std::uint64_t lo = 0xFFFFFF, xl = x & lo, xh = x >> 24, al = 0xECE66D, ah = 0x5DE;
    x = (xl * al + (((xh * al + xl * ah) & lo) << 24) + 0xB) & ((std::uint64_t(1) << 48) - 1);
    return std::ldexp(double(x), -48);
  }
  Vector unitVector() {
    for (;;) {
      const double z = 2 * next() - 1, y = 2 * next() - 1, x = 2 * next() - 1;
      const double l2 = x * x + y * y + z * z;
      if (l2 < 1.0 && l2 >= 0.01) return Vector(x, y, z) / std::sqrt(l2);
    }
  }
};

TEST(HammersleyPermutation2, TablesAreBitReversalsUpToFifteenBits) {
  kxGeom::HammersleyPermutation2 p;
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
    for (int i = 0; i < p.size(); ++i) ASSERT_EQ(p(i), bitReverse(i, bits)) << bits << " " << i;
  }
  p.calculate(16);  // allocated, never filled
  ASSERT_EQ(p.size(), 65536);
  EXPECT_EQ(std::count(p.table(), p.table() + 65536, 0), 65536);
  p.calculate(35);  // only the low five bits count
  EXPECT_EQ(p(1), 4);
  p.calculate(31);
  EXPECT_EQ(p.size(), 0);
}

TEST(SphereMappings, PolesUnitLengthUniformCapsAndInverse) {
  VectorFlt d;
  kxGeom::mapSphericalToUniformCartesian(0, 1, d);
  EXPECT_LT((d - VectorFlt(0, 0, 1)).length(), 1e-7);
  float u = -1, v = -1;
  kxGeom::mapUniformCartesianToSpherical(VectorFlt(0, 0, 1), u, v);
  EXPECT_EQ(u, 0.0f);
  EXPECT_FLOAT_EQ(v, 1.0f);
  // Stratified samples: the share with z > 0.3 must be the cap's share of the
  // sphere's area, (1 - 0.3) / 2 (Archimedes); the mean must vanish.
  const int n = 200;
  int above = 0;
  Vector mean;
  double worstInverse = 0;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      const float u0 = (i + 0.5f) / n, v0 = (j + 0.5f) / n;
      kxGeom::mapSphericalToUniformCartesian(u0, v0, d);
      ASSERT_NEAR(d.length(), 1.0, 2e-6);
      above += d.z > 0.3f;
      mean += Vector(d);
      kxGeom::mapUniformCartesianToSpherical(d, u, v);
      worstInverse = std::max({worstInverse, double(std::fabs(u - u0)), double(std::fabs(v - v0))});
    }
  }
  EXPECT_NEAR(double(above) / (n * n), 0.35, 0.006);
  EXPECT_LT(mean.length() / (n * n), 1e-4);
  EXPECT_LT(worstInverse, 1e-4);
}

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
    }
  }
  EXPECT_EQ(kxUtil::Rand48().state(), 0x1234ABCD330Eull);
}

}  // namespace
