// Polygon triangulation: a valid disk over every random non-planar loop, the
// least area against exhaustive search on small loops, long loops and
// cancellation.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <set>

#include <kxgeom/triangulate_polygon.h>

using kxGeom::BitVector;

namespace {

using kxLinear::Point;

kx::vector<Point> randomLoop(int n, std::mt19937& rng) {
  std::normal_distribution<double> g(0, 1);
  kx::vector<Point> loop;
  for (int i = 0; i < n; ++i) {
    const double a = 2 * 3.14159265358979 * i / n;
    loop.push_back({std::cos(a) + 0.4 * g(rng), std::sin(a) + 0.4 * g(rng), 0.5 * g(rng)});
  }
  return loop;
}

double area(const kx::vector<Point>& p, int a, int b, int c) {
  return 0.5 * kxLinear::cross(p[b] - p[a], p[c] - p[a]).length();
}

// Every loop edge once and forwards, every other edge twice and both ways,
// n - 2 distinct triangles.
void expectDisk(int n, const kx::vector<int>& t) {
  ASSERT_EQ(int(t.size()), 3 * (n - 2));
  std::map<std::pair<int, int>, int> directed;
  std::set<std::set<int>> distinct;
  for (std::size_t i = 0; i < t.size(); i += 3) {
    distinct.insert({t[i], t[i + 1], t[i + 2]});
    for (int k = 0; k < 3; ++k) ++directed[{t[i + k], t[i + (k + 1) % 3]}];
  }
  EXPECT_EQ(int(distinct.size()), n - 2);
  for (const auto& [edge, count] : directed) {
    ASSERT_EQ(count, 1) << edge.first << "->" << edge.second;
    const bool loopEdge = edge.second == (edge.first + 1) % n;
    EXPECT_EQ(directed.count({edge.second, edge.first}), loopEdge ? 0u : 1u);
  }
  for (int i = 0; i < n; ++i) EXPECT_EQ(directed.count({i, (i + 1) % n}), 1u);
}

// The least area over all triangulations of the chain i..k, exhaustively.
double bruteMinimum(const kx::vector<Point>& p, int i, int k) {
  if (k - i < 2) return 0;
  double best = std::numeric_limits<double>::infinity();
  for (int m = i + 1; m < k; ++m) {
    best = std::min(best, bruteMinimum(p, i, m) + bruteMinimum(p, m, k) + area(p, i, m, k));
  }
  return best;
}

TEST(TriangulatePolygon, RandomLoopsGiveValidLeastAreaDisks) {
  std::mt19937 rng(1);
  kxUtil::Progress progress;
  kx::vector<int> t;
  BitVector used;
  for (int trial = 0; trial < 1500; ++trial) {
    const int n = 3 + trial % 40;
    const kx::vector<Point> loop = randomLoop(n, rng);
    ASSERT_TRUE(kxGeom::triangulatePolygon(loop, t, used, progress));
    expectDisk(n, t);
    EXPECT_EQ(used.countSetBits(), n);
    if (n > 9) continue;
    double total = 0;
    for (std::size_t i = 0; i < t.size(); i += 3) total += area(loop, t[i], t[i + 1], t[i + 2]);
    EXPECT_NEAR(total, bruteMinimum(loop, 0, n - 1), 1e-12 * (1 + total));
  }
}

TEST(TriangulatePolygon, ForbiddenDiagonalsAreAvoidedWhereAnyTriangulationCan) {
  std::mt19937 rng(3);
  kxUtil::Progress progress;
  kx::vector<int> t;
  BitVector used;
  for (int n : {4, 7, 30, 400}) {
    const kx::vector<Point> loop = randomLoop(n, rng);
    // No diagonal may leave corner 0 (a loop of 4 or more can do without).
    const auto fromZero = [](int i, int) { return i == 0; };
    ASSERT_TRUE(kxGeom::triangulatePolygon(loop, t, used, progress, fromZero));
    expectDisk(n, t);
    for (std::size_t i = 0; i < t.size(); i += 3) {
      for (int k = 0; k < 3; ++k) {
        const int a = t[i + k], b = t[i + (k + 1) % 3];
        const bool loopEdge = (a + 1) % n == b || (b + 1) % n == a;
        EXPECT_TRUE(loopEdge || (a != 0 && b != 0)) << n << ": " << a << "-" << b;
      }
    }
  }
}

TEST(TriangulatePolygon, LongDegenerateAndCancelledLoops) {
  std::mt19937 rng(2);
  kxUtil::Progress progress;
  kx::vector<int> t;
  BitVector used;
  const kx::vector<Point> longLoop = randomLoop(2000, rng);
  ASSERT_TRUE(kxGeom::triangulatePolygon(longLoop, t, used, progress));
  expectDisk(2000, t);
  // Coincident corners, a straight line, a NaN: still a valid disk.
  kx::vector<Point> flat{{0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
  ASSERT_TRUE(kxGeom::triangulatePolygon(flat, t, used, progress));
  expectDisk(5, t);
  flat[2].y = std::numeric_limits<double>::quiet_NaN();
  ASSERT_TRUE(kxGeom::triangulatePolygon(flat, t, used, progress));
  expectDisk(5, t);
  EXPECT_FALSE(kxGeom::triangulatePolygon({{0, 0, 0}, {1, 0, 0}}, t, used, progress));
  EXPECT_TRUE(t.empty());
  progress.cancel();
  EXPECT_FALSE(kxGeom::triangulatePolygon(longLoop, t, used, progress));
  EXPECT_TRUE(t.empty());
}

}  // namespace
