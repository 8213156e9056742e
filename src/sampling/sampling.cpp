#include <kxgeom/sampling.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

#include <kxgeom/platform/random.h>

namespace kxGeom {

namespace {

constexpr float kTwoPi = 6.2831855f;

constexpr int kScramble3[] = {0, 1, 2};
constexpr int kScramble5[] = {0, 3, 2, 1, 4};
constexpr int kScramble7[] = {0, 2, 5, 3, 1, 4, 6};

const int* scramblingTable(int base) {
  switch (base) {
    case 3:
      return kScramble3;
    case 5:
      return kScramble5;
    case 7:
      return kScramble7;
    default:
      return nullptr;
  }
}

// Bit reversal by halving: each set bit of i, from the lowest, adds the next
// lower power of two below m. Both counters are 16-bit on purpose (the table
// is meant for at most 15 bits; see calculate()).
int reversedIndex(std::uint16_t i, std::uint16_t m) {
  std::uint16_t s = m;
  std::uint16_t r = 0;
  for (std::uint16_t rest = i; rest != 0; rest = std::uint16_t(rest >> 1)) {
    s = std::uint16_t(s >> 1);
    if (rest & 1u) r = std::uint16_t(r + s);
  }
  return r;
}

float scrambledRadicalInverse(int i, int base, const int* perm) {
  float value = 0.0f;
  float w = 1.0f / float(base);
  for (int rest = i; rest > 0; rest /= base) {
    value += float(perm[rest % base]) * w;
    w /= float(base);
  }
  return value;
}

// Replaces dst (n entries) by a copy of src (srcN entries); an absent or
// empty source, or a failed allocation, leaves dst null and n 0.
template <class T>
void assignArray(T*& dst, int& n, const T* src, int srcN) {
  T* fresh = src && srcN > 0 ? new (std::nothrow) T[std::size_t(srcN)] : nullptr;
  if (fresh) std::memcpy(fresh, src, sizeof(T) * std::size_t(srcN));
  delete[] dst;
  dst = fresh;
  n = fresh ? srcN : 0;
}

}  // namespace

// --- HammersleyPermutation2 ---------------------------------------------------

HammersleyPermutation2::HammersleyPermutation2(const HammersleyPermutation2& o) {
  assignArray(table_, n_, o.table_, o.n_);
}

HammersleyPermutation2& HammersleyPermutation2::operator=(const HammersleyPermutation2& o) {
  if (this != &o) assignArray(table_, n_, o.table_, o.n_);
  return *this;
}

HammersleyPermutation2::~HammersleyPermutation2() { delete[] table_; }

void HammersleyPermutation2::calculate(int bits) {
  assignArray(table_, n_, static_cast<const int*>(nullptr), 0);
  const int shift = bits & 31;
  if (shift == 31) return;  // 2^31 entries do not fit an int count
  const int n = 1 << shift;
  table_ = new (std::nothrow) int[std::size_t(n)]();
  if (!table_) return;
  n_ = n;
  const std::uint16_t m = std::uint16_t(n & 0xFFFF);
  for (std::uint16_t i = 0; i < m; ++i) table_[i] = reversedIndex(i, m);
}

// --- ScrambledHammersleySequence ----------------------------------------------

ScrambledHammersleySequence::ScrambledHammersleySequence(const ScrambledHammersleySequence& o) {
  *this = o;
}

ScrambledHammersleySequence& ScrambledHammersleySequence::operator=(
    const ScrambledHammersleySequence& o) {
  if (this != &o) {
    assignArray(values_, count_, o.values_, o.count_);
    base_ = count_ > 0 ? o.base_ : 0;
  }
  return *this;
}

ScrambledHammersleySequence::~ScrambledHammersleySequence() { delete[] values_; }

void ScrambledHammersleySequence::calculate(int base, int count) {
  assignArray(values_, count_, static_cast<const float*>(nullptr), 0);
  base_ = 0;
  const int* perm = scramblingTable(base);
  if (!perm || count < 0) return;
  values_ = new (std::nothrow) float[std::size_t(count)];
  if (!values_) return;
  base_ = base;
  count_ = count;
  for (int i = 0; i < count; ++i) values_[i] = scrambledRadicalInverse(i, base, perm);
}

// --- Sphere mappings ------------------------------------------------------------

void mapSphericalToUniformCartesian(float u, float v, kxLinear::VectorFlt& out) {
  const float phi = u * kTwoPi;
  const float theta = std::acos(2.0f * v - 1.0f);
  const float sinTheta = std::sin(theta);
  out = kxLinear::VectorFlt(std::cos(phi) * sinTheta, std::sin(phi) * sinTheta, std::cos(theta));
}

void mapSphericalCapToUniformCartesian(float u, float v, float cap, kxLinear::VectorFlt& out) {
  const float h = v * cap;
  const float r = std::sqrt((2.0f - h) * h);
  const float phi = u * kTwoPi;
  out = kxLinear::VectorFlt(std::cos(phi) * r, std::sin(phi) * r, 1.0f - h);
}

void mapUniformCartesianToSpherical(const kxLinear::VectorFlt& dir, float& u, float& v) {
  const float theta = std::acos(dir.z);
  const float s = std::sin(theta);
  if (std::fabs(s) < 0.001f) {
    u = 0.0f;
  } else {
    u = std::atan2(dir.y / s, dir.x / s) / kTwoPi;
    if (u < 0.0f) u += 1.0f;
  }
  v = (std::cos(theta) + 1.0f) * 0.5f;
}

// --- Random directions ----------------------------------------------------------

void randomUnitVector(kxLinear::Vector& out) {
  double l2 = 0.0;
  kxLinear::Vector d;
  do {
    // The draw order (z, y, x) fixes which number lands in which coordinate.
    d.z = 2.0 * kxUtil::drand48() - 1.0;
    d.y = 2.0 * kxUtil::drand48() - 1.0;
    d.x = 2.0 * kxUtil::drand48() - 1.0;
    l2 = d.length2();
  } while (l2 >= 1.0 || l2 < 0.01);
  out = d / std::sqrt(l2);
}

void computeHemisphereVectors(const kxLinear::Vector& normal, kx::vector<kxLinear::Vector>& out) {
  for (kxLinear::Vector& v : out) {
    randomUnitVector(v);
    if (kxLinear::dot(v, normal) < 0.0) v = -v;
  }
}

}  // namespace kxGeom
