// Point-in-polygon tests against a winding-number oracle and the exact
// distance to the boundary, on random non-convex polygons and hand-made
// boundary cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace {

using kxGeom::pointPolygonRelation;
using kxLinear::Point2;

// --- Oracles --------------------------------------------------------------------

// Winding number by summing signed angles: a different principle from
// crossing parity. Exact enough away from the boundary.
bool windingInside(const Point2& p, const std::vector<Point2>& closed) {
  double total = 0;
  for (size_t i = 0; i + 1 < closed.size(); ++i) {
    const Point2 a = closed[i] - p, b = closed[i + 1] - p;
    total += std::atan2(a.x * b.y - a.y * b.x, a.x * b.x + a.y * b.y);
  }
  return std::fabs(total) > 3.14159;
}

double segmentDistance(const Point2& p, const Point2& a, const Point2& b) {
  const Point2 d = b - a;
  const double len2 = d.length2();
  double t = len2 > 0 ? kxLinear::dot(p - a, d) / len2 : 0;
  t = std::clamp(t, 0.0, 1.0);
  return (a + d * t - p).length();
}

double boundaryDistance(const Point2& p, const std::vector<Point2>& closed) {
  double best = 1e300;
  for (size_t i = 0; i + 1 < closed.size(); ++i) {
    best = std::min(best, segmentDistance(p, closed[i], closed[i + 1]));
  }
  return best;
}

// A star-shaped, strongly non-convex polygon: m vertices at random radii.
std::vector<Point2> randomStar(std::mt19937& rng, int m) {
  std::uniform_real_distribution<double> radius(0.3, 1.0);
  std::vector<Point2> pts;
  for (int i = 0; i < m; ++i) {
    const double a = 2 * 3.14159265358979 * i / m, r = radius(rng);
    pts.push_back({r * std::cos(a), r * std::sin(a)});
  }
  pts.push_back(pts.front());
  return pts;
}

std::vector<float> asFloats(const std::vector<Point2>& pts) {
  std::vector<float> out;
  for (const Point2& p : pts) out.insert(out.end(), {float(p.x), float(p.y)});
  return out;
}

bool crossingTest(double x, double y, const std::vector<float>& flat) {
  const float p[2] = {float(x), float(y)};
  return kxGeom::pointPolygonIntersect2D(p, reinterpret_cast<const float(*)[2]>(flat.data()),
                                         int(flat.size() / 2) - 1);
}

kx::vector<Point2> asKx(const std::vector<Point2>& v) {
  return kx::vector<Point2>(v.begin(), v.end());
}

pointPolygonRelation classify(const Point2& p, const std::vector<Point2>& closed, double tol) {
  pointPolygonRelation r = kxGeom::PointInside;
  kxGeom::isPointInPolygon(p, asKx(closed), r, tol);
  return r;
}

const std::vector<Point2> kUnitSquare = {{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}};

// --- Single-precision crossing test ----------------------------------------------

TEST(CrossingTest, UnitSquareBoundaryFollowsTheHalfOpenRules) {
  const std::vector<float> sq = asFloats(kUnitSquare);
  EXPECT_TRUE(crossingTest(0.5, 0.5, sq));
  EXPECT_TRUE(crossingTest(0.5, 0.0, sq));   // horizontal edges are inside
  EXPECT_TRUE(crossingTest(0.0, 1.0, sq));   // ... up to their ends
  EXPECT_TRUE(crossingTest(1.0, 0.5, sq));   // right edge: one crossing
  EXPECT_FALSE(crossingTest(0.0, 0.5, sq));  // left edge: two crossings
  EXPECT_FALSE(crossingTest(1.5, 0.5, sq));
  EXPECT_FALSE(crossingTest(-0.5, 0.5, sq));
  EXPECT_FALSE(crossingTest(0.5, 1.5, sq));
  // Fewer than three edges is never inside.
  const float p[2] = {0.5f, 0.1f};
  EXPECT_FALSE(
      kxGeom::pointPolygonIntersect2D(p, reinterpret_cast<const float(*)[2]>(sq.data()), 2));
}

TEST(CrossingTest, AVertexOnTheRayCountsOnceWhereverTheBoundaryGoes) {
  // The ray y = 0.5 right of the point passes exactly through the vertex
  // (3, 0.5), where the boundary crosses the line: counted once, correct.
  const std::vector<Point2> through = {{0, 0}, {3, 0}, {3, 0.5}, {2.5, 1}, {0, 1}, {0, 0}};
  const std::vector<float> flatThrough = asFloats(through);
  for (double x : {0.25, 1.0, 2.9}) EXPECT_TRUE(crossingTest(x, 0.5, flatThrough)) << x;
  EXPECT_FALSE(crossingTest(3.5, 0.5, flatThrough));
  // A spike whose tip (2, 0.5) only touches the line is counted once too (the
  // rule looks at the edge parameter, not at the sides), so points left of
  // it on that line get the flipped answer; just above or below they do not.
  const std::vector<Point2> spike = {{0, 0}, {2, 0.5}, {2.5, 0}, {3, 0}, {3, 1}, {0, 1}, {0, 0}};
  const std::vector<float> flatSpike = asFloats(spike);
  EXPECT_FALSE(crossingTest(1.0, 0.5, flatSpike));
  EXPECT_TRUE(crossingTest(1.0, 0.5001, flatSpike));
  EXPECT_TRUE(crossingTest(1.0, 0.4999, flatSpike));
  EXPECT_TRUE(crossingTest(2.9, 0.5, flatSpike));
}

TEST(CrossingTest, RandomStarsMatchWindingNumbers) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<double> u(-1.1, 1.1);
  int inside = 0, checked = 0;
  for (int shape = 0; shape < 20; ++shape) {
    const std::vector<Point2> star = randomStar(rng, 5 + shape * 7);
    const std::vector<float> flat = asFloats(star);
    for (int i = 0; i < 2000; ++i) {
      const Point2 p(u(rng), u(rng));
      if (boundaryDistance(p, star) < 1e-5) continue;
      const bool expected = windingInside(p, star);
      ASSERT_EQ(crossingTest(p.x, p.y, flat), expected) << shape << " " << p.x << " " << p.y;
      inside += expected;
      ++checked;
    }
  }
  EXPECT_GT(inside, checked / 5);
  EXPECT_LT(inside, checked - checked / 5);
}

// --- Tolerance classification ----------------------------------------------------

TEST(ToleranceClassification, BandMatchesDistanceToTheBoundary) {
  // Within tol of the boundary: on it. Beyond 1.5 tol (the band reaches
  // tol * sqrt(2) past an edge's end): parity, which must agree with the
  // winding number. In between either answer is allowed if consistent.
  std::mt19937 rng(23);
  std::uniform_real_distribution<double> u(-1.1, 1.1);
  int onBoundary = 0;
  for (double tol : {0.0, 1e-3, 0.05}) {
    for (int shape = 0; shape < 10; ++shape) {
      const std::vector<Point2> star = randomStar(rng, 6 + 11 * shape);
      for (int i = 0; i < 1500; ++i) {
        const Point2 p(u(rng), u(rng));
        const double dist = boundaryDistance(p, star);
        const pointPolygonRelation r = classify(p, star, tol);
        const pointPolygonRelation parity =
            windingInside(p, star) ? kxGeom::PointInside : kxGeom::PointOutside;
        if (dist < tol) {
          ASSERT_EQ(r, kxGeom::PointOnBoundary) << tol << " " << dist;
          ++onBoundary;
        } else if (dist > 1.5 * tol + 1e-9) {
          ASSERT_EQ(r, parity) << tol << " " << dist;
        } else if (r != kxGeom::PointOnBoundary) {
          ASSERT_EQ(r, parity);
        }
      }
    }
  }
  EXPECT_GT(onBoundary, 100);
}

TEST(ToleranceClassification, ExactEdgesWithZeroToleranceAreNeverOnTheBoundary) {
  // With tol = 0 a point on an edge still gets a parity answer.
  EXPECT_EQ(classify({1.0, 0.5}, kUnitSquare, 0.0), kxGeom::PointOutside);
  EXPECT_EQ(classify({0.5, 0.0}, kUnitSquare, 0.0), kxGeom::PointInside);
  EXPECT_EQ(classify({0.5, 0.5}, kUnitSquare, 0.0), kxGeom::PointInside);
  // A crossing within tol decides before any edge band: the left edge.
  EXPECT_EQ(classify({0.01, 0.5}, kUnitSquare, 0.02), kxGeom::PointOnBoundary);
  // Near a corner, only the band of the edges counts.
  EXPECT_EQ(classify({-0.015, -0.015}, kUnitSquare, 0.02), kxGeom::PointOnBoundary);
  EXPECT_EQ(classify({-0.03, -0.03}, kUnitSquare, 0.02), kxGeom::PointOutside);
  EXPECT_EQ(classify({0.5, 0.5}, {}, 0.1), kxGeom::PointOutside);
}

TEST(PointOnEdge, MatchesSegmentDistanceAndPadsTheEnds) {
  std::mt19937 rng(29);
  std::uniform_real_distribution<double> u(-2, 2);
  const double tol = 0.1;
  for (int i = 0; i < 5000; ++i) {
    const Point2 a(u(rng), u(rng)), b(u(rng), u(rng)), p(u(rng) * 0.5, u(rng) * 0.5);
    const bool got = kxGeom::isPointOnEdge(a, b, p, tol);
    const double dist = segmentDistance(p, a, b);
    if (dist < tol * 0.999) {
      ASSERT_TRUE(got) << dist;
    }
    if (dist > tol * 1.415) {
      ASSERT_FALSE(got) << dist;
    }
  }
  // Beyond an end by 0.9 tol along the line: inside the padded range.
  EXPECT_TRUE(kxGeom::isPointOnEdge({0, 0}, {1, 0}, {1.09, 0.09}, tol));
  EXPECT_FALSE(kxGeom::isPointOnEdge({0, 0}, {1, 0}, {1.11, 0}, tol));
  EXPECT_FALSE(kxGeom::isPointOnEdge({0, 0}, {1, 0}, {0.5, 0.1}, tol));  // strict in distance
  // Zero-length edge: only points within tol of its end.
  EXPECT_TRUE(kxGeom::isPointOnEdge({1, 1}, {1, 1}, {1.05, 1.08}, tol));
  EXPECT_FALSE(kxGeom::isPointOnEdge({1, 1}, {1, 1}, {1.08, 1.08}, tol));
}

// --- Polylines ------------------------------------------------------------------

TEST(Polyline, OpenPolylinesAreClosedByTheirFirstVertex) {
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> u(-1.2, 1.2);
  const std::vector<Point2> star = randomStar(rng, 40);
  kxGeom::Polyline2d open(kx::vector<Point2>(star.begin(), star.end() - 1), false);
  kxGeom::Polyline2d closed(asKx(star), true);
  EXPECT_EQ(open.getNumVertices(), 40);
  const kxLinear::Range2d box = open.getBoundingBox();
  for (const Point2& p : star) EXPECT_TRUE(box.contains(p));
  for (int i = 0; i < 3000; ++i) {
    const Point2 p(u(rng), u(rng));
    pointPolygonRelation a, b;
    kxGeom::intersectPointWithPolygon(p, open, a, 0.01);
    kxGeom::intersectPointWithPolygon(p, closed, b, 0.01);
    ASSERT_EQ(a, b);
    ASSERT_EQ(a, classify(p, star, 0.01));
  }
  pointPolygonRelation r = kxGeom::PointInside;
  kxGeom::intersectPointWithPolygon({50, 0}, open, r, 0.01);
  EXPECT_EQ(r, kxGeom::PointOutside);
  r = kxGeom::PointInside;
  kxGeom::intersectPointWithPolygon({0, 0}, kxGeom::Polyline2d(), r, 1.0);
  EXPECT_EQ(r, kxGeom::PointOutside);
}

TEST(Polyline, BoxTestUsesTheTolerance) {
  // Just outside the box of the square, but within tol of its left edge.
  kxGeom::Polyline2d sq(kx::vector<Point2>(kUnitSquare.begin(), kUnitSquare.end() - 1), false);
  pointPolygonRelation r = kxGeom::PointInside;
  kxGeom::intersectPointWithPolygon({-0.005, 0.5}, sq, r, 0.01);
  EXPECT_EQ(r, kxGeom::PointOnBoundary);
  kxGeom::intersectPointWithPolygon({-0.02, 0.5}, sq, r, 0.01);
  EXPECT_EQ(r, kxGeom::PointOutside);
}

}  // namespace
