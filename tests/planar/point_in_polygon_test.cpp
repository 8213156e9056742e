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
using Polygon = std::vector<Point2>;

// Winding number from summed signed angles: another principle than parity.
bool windingInside(const Point2& p, const Polygon& closed) {
  double total = 0;
  for (size_t i = 0; i + 1 < closed.size(); ++i) {
    const Point2 a = closed[i] - p, b = closed[i + 1] - p;
    total += std::atan2(a.x * b.y - a.y * b.x, a.x * b.x + a.y * b.y);
  }
  return std::fabs(total) > 3.14159;
}

double segmentDistance(const Point2& p, const Point2& a, const Point2& b) {
  const Point2 d = b - a;
  const double t =
      d.length2() > 0 ? std::clamp(kxLinear::dot(p - a, d) / d.length2(), 0.0, 1.0) : 0;
  return (a + d * t - p).length();
}

double boundaryDistance(const Point2& p, const Polygon& closed) {
  double best = 1e300;
  for (size_t i = 0; i + 1 < closed.size(); ++i) {
    best = std::min(best, segmentDistance(p, closed[i], closed[i + 1]));
  }
  return best;
}

// A star-shaped, strongly non-convex polygon of m vertices, closed.
Polygon randomStar(std::mt19937& rng, int m) {
  std::uniform_real_distribution<double> radius(0.3, 1.0);
  Polygon pts;
  for (int i = 0; i < m; ++i) {
    const double a = 2 * 3.14159265358979 * i / m, r = radius(rng);
    pts.push_back({r * std::cos(a), r * std::sin(a)});
  }
  pts.push_back(pts.front());
  return pts;
}

bool crossingTest(double x, double y, const Polygon& closed) {
  std::vector<float> flat;
  for (const Point2& p : closed) flat.insert(flat.end(), {float(p.x), float(p.y)});
  const float p[2] = {float(x), float(y)};
  return kxGeom::pointPolygonIntersect2D(p, reinterpret_cast<const float(*)[2]>(flat.data()),
                                         int(closed.size()) - 1);
}

pointPolygonRelation classify(const Point2& p, const Polygon& closed, double tol) {
  pointPolygonRelation r = kxGeom::PointInside;
  kxGeom::isPointInPolygon(p, kx::vector<Point2>(closed.begin(), closed.end()), r, tol);
  return r;
}

const Polygon kUnitSquare = {{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}};

TEST(CrossingTest, BoundaryRulesOfTheUnitSquareAndVerticesOnTheRay) {
  EXPECT_TRUE(crossingTest(0.5, 0.0, kUnitSquare));   // horizontal edges are inside
  EXPECT_TRUE(crossingTest(0.0, 1.0, kUnitSquare));   // ... up to their ends
  EXPECT_TRUE(crossingTest(1.0, 0.5, kUnitSquare));   // right edge: one crossing
  EXPECT_FALSE(crossingTest(0.0, 0.5, kUnitSquare));  // left edge: two crossings
  EXPECT_FALSE(crossingTest(0.5, 0.5, Polygon(kUnitSquare.begin(), kUnitSquare.begin() + 3)));
  // The ray through the vertex (3, 0.5), where the boundary crosses the line,
  // counts it once: correct.
  const Polygon through = {{0, 0}, {3, 0}, {3, 0.5}, {2.5, 1}, {0, 1}, {0, 0}};
  for (double x : {0.25, 1.0, 2.9}) EXPECT_TRUE(crossingTest(x, 0.5, through)) << x;
  EXPECT_FALSE(crossingTest(3.5, 0.5, through));
  // The tip (2, 0.5) of a spike only touches the line, yet it is counted once
  // too (the rule looks at the edge parameter, not the sides): points left of
  // it on that line get the flipped answer, points just off the line do not.
  const Polygon spike = {{0, 0}, {2, 0.5}, {2.5, 0}, {3, 0}, {3, 1}, {0, 1}, {0, 0}};
  EXPECT_FALSE(crossingTest(1.0, 0.5, spike));
  EXPECT_TRUE(crossingTest(1.0, 0.5001, spike));
  EXPECT_TRUE(crossingTest(1.0, 0.4999, spike));
}

TEST(CrossingTest, RandomStarsMatchWindingNumbers) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<double> u(-1.1, 1.1);
  int inside = 0;
  for (int shape = 0; shape < 20; ++shape) {
    const Polygon star = randomStar(rng, 5 + shape * 7);
    for (int i = 0; i < 1000; ++i) {
      const Point2 p(u(rng), u(rng));
      if (boundaryDistance(p, star) < 1e-5) continue;
      ASSERT_EQ(crossingTest(p.x, p.y, star), windingInside(p, star)) << shape << " " << i;
      inside += windingInside(p, star);
    }
  }
  EXPECT_GT(inside, 4000);  // both answers are well exercised
  EXPECT_LT(inside, 16000);
}

TEST(ToleranceClassification, BandMatchesTheDistanceToTheBoundary) {
  // Within tol of the boundary: on it. Beyond 1.5 tol (the band reaches
  // tol * sqrt(2) past an edge's end): parity, agreeing with the winding
  // number. In between either answer, if it is not on the boundary, is parity.
  std::mt19937 rng(23);
  std::uniform_real_distribution<double> u(-1.1, 1.1);
  int onBoundary = 0;
  for (double tol : {0.0, 1e-3, 0.05}) {
    for (int shape = 0; shape < 10; ++shape) {
      const Polygon star = randomStar(rng, 6 + 11 * shape);
      for (int i = 0; i < 1500; ++i) {
        const Point2 p(u(rng), u(rng));
        const double dist = boundaryDistance(p, star);
        const pointPolygonRelation r = classify(p, star, tol);
        const auto parity = windingInside(p, star) ? kxGeom::PointInside : kxGeom::PointOutside;
        if (dist < tol) {
          ASSERT_EQ(r, kxGeom::PointOnBoundary) << tol << " " << dist;
          ++onBoundary;
        } else if (dist > 1.5 * tol + 1e-9 || r != kxGeom::PointOnBoundary) {
          ASSERT_EQ(r, parity) << tol << " " << dist;
        }
      }
    }
  }
  EXPECT_GT(onBoundary, 100);
  // tol = 0: points on edges get parity answers; near a corner only the
  // edges' bands count.
  EXPECT_EQ(classify({1.0, 0.5}, kUnitSquare, 0.0), kxGeom::PointOutside);
  EXPECT_EQ(classify({0.5, 0.0}, kUnitSquare, 0.0), kxGeom::PointInside);
  EXPECT_EQ(classify({-0.015, -0.015}, kUnitSquare, 0.02), kxGeom::PointOnBoundary);
  EXPECT_EQ(classify({-0.03, -0.03}, kUnitSquare, 0.02), kxGeom::PointOutside);
  EXPECT_EQ(classify({0.5, 0.5}, {}, 0.1), kxGeom::PointOutside);
}

}  // namespace
