// Predicates checked against independent formulas: plane intersection with
// barycentric areas, closest-point distances, polygon clipping and brute-force
// sampling, on random inputs with margins around the decision boundaries.
#include <kxgeom/predicates.h>

#include <gtest/gtest.h>

#include "spatial/slab_oracle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using kxGeom::BoundingBox;
using kxLinear::Point;
using kxLinear::Point2Flt;
using kxLinear::PointFlt;
using kxLinear::Vector;

using F3 = std::array<float, 3>;

// Restores the process-wide cull distance whatever a test sets.
struct CullDistanceGuard {
  ~CullDistanceGuard() { kxGeom::setBackfaceCullDistance(1e-6); }
};

// Barycentric weights of x (assumed in the plane) by sub-triangle areas.
std::array<double, 3> barycentric(const Point& x, const Point& a, const Point& b, const Point& c) {
  const Vector n = kxLinear::cross(b - a, c - a);
  const double n2 = n.length2();
  return {kxLinear::dot(kxLinear::cross(b - x, c - x), n) / n2,
          kxLinear::dot(kxLinear::cross(c - x, a - x), n) / n2,
          kxLinear::dot(kxLinear::cross(a - x, b - x), n) / n2};
}

// --- Ray against triangle ---------------------------------------------------

class RayTriangleCases : public ::testing::Test {
 protected:
  // Unit right triangle in z = 0, front face seen from +z.
  F3 v0{0, 0, 0}, v1{1, 0, 0}, v2{0, 1, 0};
  CullDistanceGuard guard;

  bool twoSided(const Vector& dir, const F3& o, double& t, double& u, double& v) {
    return kxGeom::intersectRayTriangle(dir.data(), o.data(), v0.data(), v1.data(), v2.data(), t, u,
                                        v);
  }
  bool cull(const Vector& dir, const F3& o, double& t, double& u, double& v) {
    return kxGeom::intersectRayTriangleCull(dir.data(), o.data(), v0.data(), v1.data(), v2.data(),
                                            t, u, v);
  }
  bool forward(const Vector& dir, const F3& o) {
    return kxGeom::intersectRayTriangle(dir, PointFlt(o[0], o[1], o[2]), PointFlt(0, 0, 0),
                                        PointFlt(1, 0, 0), PointFlt(0, 1, 0));
  }
};

TEST_F(RayTriangleCases, VerticesAndEdgesAreInside) {
  double t, u, v;
  ASSERT_TRUE(twoSided({0, 0, -1}, {1, 0, 1}, t, u, v));  // through vert1
  EXPECT_EQ(1.0, u);
  EXPECT_EQ(0.0, v);
  EXPECT_EQ(1.0, t);
  ASSERT_TRUE(twoSided({0, 0, -1}, {0, 0, 2}, t, u, v));  // through vert0
  EXPECT_EQ(0.0, u);
  EXPECT_EQ(0.0, v);
  EXPECT_EQ(2.0, t);
  ASSERT_TRUE(twoSided({0, 0, -1}, {0.5f, 0.5f, 1}, t, u, v));  // on the hypotenuse
  EXPECT_EQ(1.0, u + v);
  EXPECT_FALSE(twoSided({0, 0, -1}, {0.5f, 0.5001f, 1}, t, u, v));
  EXPECT_FALSE(twoSided({0, 0, -1}, {-1e-6f, 0.5f, 1}, t, u, v));
}

TEST_F(RayTriangleCases, RayInThePlaneMissesBothTests) {
  double t, u, v;
  EXPECT_FALSE(twoSided({1, 0, 0}, {-1, 0.25f, 0}, t, u, v));
  EXPECT_FALSE(cull({1, 0, 0}, {-1, 0.25f, 0}, t, u, v));
  // A ray nearly in the plane: det = 1e-7, below the threshold.
  EXPECT_FALSE(twoSided({1, 0, -1e-7}, {-1, 0.25f, 0}, t, u, v));
}

TEST_F(RayTriangleCases, DeterminantThresholdIsStrictOnlyForTheTwoSidedTest) {
  double t, u, v;
  // e1 . (dir x e2) with dir = (0, 0, -1e-6) is exactly 1e-6.
  EXPECT_FALSE(twoSided({0, 0, -1e-6}, {0.25f, 0.25f, 1e-6f}, t, u, v));
  EXPECT_TRUE(cull({0, 0, -1e-6}, {0.25f, 0.25f, 1e-6f}, t, u, v));
}

TEST_F(RayTriangleCases, FacesBehindTheOriginAndTheCullDistance) {
  double t, u, v;
  // Front face behind the origin: the two-sided and culling tests report it.
  ASSERT_TRUE(twoSided({0, 0, 1}, {0.2f, 0.2f, 3}, t, u, v) == false);  // back face, behind
  ASSERT_TRUE(twoSided({0, 0, -1}, {0.2f, 0.2f, -3}, t, u, v));
  EXPECT_DOUBLE_EQ(-3.0, t);
  ASSERT_TRUE(cull({0, 0, -1}, {0.2f, 0.2f, -3}, t, u, v));
  EXPECT_DOUBLE_EQ(-3.0, t);
  EXPECT_FALSE(forward({0, 0, -1}, {0.2f, 0.2f, -3}));
  EXPECT_TRUE(forward({0, 0, -1}, {0.2f, 0.2f, 3}));
  // Back face in front of the origin: hit, but the culling test refuses it.
  EXPECT_TRUE(twoSided({0, 0, 1}, {0.2f, 0.2f, -3}, t, u, v));
  EXPECT_DOUBLE_EQ(3.0, t);
  EXPECT_FALSE(cull({0, 0, 1}, {0.2f, 0.2f, -3}, t, u, v));
  // The cull distance decides for back faces only.
  kxGeom::setBackfaceCullDistance(3.5);
  EXPECT_FALSE(twoSided({0, 0, 1}, {0.2f, 0.2f, -3}, t, u, v));
  EXPECT_TRUE(twoSided({0, 0, -1}, {0.2f, 0.2f, 3}, t, u, v));
  kxGeom::setBackfaceCullDistance(3.0);
  EXPECT_TRUE(twoSided({0, 0, 1}, {0.2f, 0.2f, -3}, t, u, v));  // t >= cull, inclusive
  kxGeom::setBackfaceCullDistance(-10.0);
  EXPECT_TRUE(twoSided({0, 0, 1}, {0.2f, 0.2f, 3}, t, u, v));
  EXPECT_DOUBLE_EQ(-3.0, t);
}

TEST_F(RayTriangleCases, ForwardOverloadNeedsTBeyondTolerance) {
  // The origin on the triangle itself: t = 0 is not in front.
  EXPECT_FALSE(forward({0, 0, -1}, {0.2f, 0.2f, 0}));
  EXPECT_TRUE(forward({0, 0, -1}, {0.2f, 0.2f, 1e-3f}));
  EXPECT_FALSE(forward({0, 0, -1}, {0.2f, 0.2f, 5e-9f}));  // within the library's tolerance
  EXPECT_TRUE(forward({0, 0, -1}, {0.2f, 0.2f, 2e-8f}));
}

// --- Planar point in triangle ----------------------------------------------

TEST(RayTriangle, NonFiniteInputsAlwaysMiss) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = INFINITY;
  const float v0[3] = {-1, -1, 0}, v1[3] = {3, -1, 0}, v2[3] = {-1, 3, 0};
  const float orig[3] = {0, 0, 1};
  const double dir[3] = {0, 0, -1};
  for (int corner = 0; corner < 5; ++corner) {
    for (float bad : {nan, inf, -inf}) {
      float a[3] = {v0[0], v0[1], v0[2]}, o[3] = {orig[0], orig[1], orig[2]};
      double d[3] = {dir[0], dir[1], dir[2]};
      // One coordinate of the first corner, the origin or the direction.
      if (corner < 3) a[corner] = bad;
      if (corner == 3) o[0] = bad;
      if (corner == 4) d[1] = double(bad);
      double t = 0, u = 0, v = 0;
      EXPECT_FALSE(kxGeom::intersectRayTriangle(d, o, a, v1, v2, t, u, v)) << corner << bad;
      EXPECT_FALSE(kxGeom::intersectRayTriangleCull(d, o, a, v1, v2, t, u, v)) << corner << bad;
    }
  }
  double t = 0, u = 0, v = 0;
  EXPECT_TRUE(kxGeom::intersectRayTriangle(dir, orig, v0, v1, v2, t, u, v));
  EXPECT_DOUBLE_EQ(t, 1.0);
  EXPECT_TRUE(kxGeom::intersectRayTriangleCull(dir, orig, v0, v1, v2, t, u, v));
}

TEST(PointInTriangle2D, BothFormsAgreeWithBarycentricAreas) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> coord(-3.0f, 3.0f);
  int inside = 0;
  for (int iter = 0; iter < 20000; ++iter) {
    const Point2Flt p(coord(rng), coord(rng)), a(coord(rng), coord(rng)), b(coord(rng), coord(rng)),
        c(coord(rng), coord(rng));
    const Point P(p.x, p.y, 0), A(a.x, a.y, 0), B(b.x, b.y, 0), C(c.x, c.y, 0);
    if (kxLinear::cross(B - A, C - A).length() < 0.1) continue;
    const auto w = barycentric(P, A, B, C);
    const double minW = std::min({w[0], w[1], w[2]});
    if (std::fabs(minW) < 1e-3) continue;
    float s = -7, t = -7;
    const bool expected = minW > 0;
    ASSERT_EQ(expected, kxGeom::isPointInTriangleDefinitive(p, a, b, c, s, t)) << iter;
    EXPECT_NEAR(w[2], s, 1e-3);
    EXPECT_NEAR(w[1], t, 1e-3);
    float si = -7, ti = -7;
    ASSERT_EQ(expected, kxGeom::isPointInTriangleInclusive(p, a, b, c, si, ti)) << iter;
    if (expected) {
      EXPECT_NEAR(w[2], si, 1e-3);
      EXPECT_NEAR(w[1], ti, 1e-3);
    }
    inside += expected;
  }
  EXPECT_GT(inside, 1000);
}

TEST(PointInTriangle2D, BoundaryAndDegenerateTriangles) {
  const Point2Flt a(0, 0), b(1, 0), c(0, 1);
  float s, t;
  for (const Point2Flt& p : {a, b, c, Point2Flt(0.5f, 0.5f), Point2Flt(0.5f, 0)}) {
    EXPECT_TRUE(kxGeom::isPointInTriangleDefinitive(p, a, b, c, s, t));
    EXPECT_TRUE(kxGeom::isPointInTriangleInclusive(p, a, b, c, s, t));
  }
  // d1.x == 0 takes the second branch in both functions.
  EXPECT_TRUE(kxGeom::isPointInTriangleInclusive({0.25f, 0.25f}, a, c, b, s, t));
  EXPECT_FLOAT_EQ(0.25f, s);
  EXPECT_FLOAT_EQ(0.25f, t);
  // Collinear corners: the tolerant test reports 1/3, the exact one writes nothing.
  const Point2Flt line[3] = {{0, 0}, {1, 1}, {2, 2}};
  s = t = -5;
  EXPECT_FALSE(kxGeom::isPointInTriangleDefinitive({1, 1}, line[0], line[1], line[2], s, t));
  EXPECT_EQ(0.33333334f, s);
  EXPECT_EQ(0.33333334f, t);
  s = t = -5;
  EXPECT_FALSE(kxGeom::isPointInTriangleInclusive({1, 1}, line[0], line[1], line[2], s, t));
  EXPECT_EQ(-5.0f, s);
  EXPECT_EQ(-5.0f, t);
  // A triangle thinner than the tolerance is degenerate only for the tolerant test.
  const Point2Flt thinB(1, 1e-7f), thinC(2, 0);
  EXPECT_FALSE(kxGeom::isPointInTriangleDefinitive({1, 0}, a, thinB, thinC, s, t));
  EXPECT_EQ(0.33333334f, s);
  // s outside [0, 1]: t stays unwritten.
  s = t = -5;
  EXPECT_FALSE(kxGeom::isPointInTriangleInclusive({3, 0}, a, c, b, s, t));
  EXPECT_FLOAT_EQ(3.0f, s);
  EXPECT_EQ(-5.0f, t);
}

// --- Spatial point in triangle ---------------------------------------------

TEST(PointInTriangle3D, AgreesWithBarycentricAreasAndToleratesNearEdges) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coord(-1.0, 1.0);
  for (int iter = 0; iter < 5000; ++iter) {
    const Point a(coord(rng), coord(rng), coord(rng)), b(coord(rng), coord(rng), coord(rng)),
        c(coord(rng), coord(rng), coord(rng));
    if (kxLinear::cross(b - a, c - a).length() < 0.05) continue;
    const double wb = coord(rng) * 1.5 + 0.3, wc = coord(rng) * 1.5 + 0.3;
    const double wa = 1.0 - wb - wc;
    const Point p = a * wa + b * wb + c * wc;
    const double minW = std::min({wa, wb, wc});
    if (std::fabs(minW) < 1e-4) continue;
    ASSERT_EQ(minW > 0, kxGeom::isPointInTriangleInclusive(p, a, b, c)) << iter;
  }
  // Sub-triangle area relative to the triangle's: 5e-6 is tolerated, 2e-5 not.
  const Point a(0, 0, 0), b(2, 0, 0), c(0, 2, 0);  // area 2
  const double nearBy = 5e-6 * 2 * 2 / 2;  // height of a sub-triangle over edge ab (length 2)
  EXPECT_TRUE(kxGeom::isPointInTriangleInclusive(Point(1, -nearBy, 0), a, b, c));
  EXPECT_FALSE(kxGeom::isPointInTriangleInclusive(Point(1, -4 * nearBy, 0), a, b, c));
  // A longer caller normal widens the tolerance proportionally.
  EXPECT_TRUE(
      kxGeom::isPointInTriangleInclusive(Point(1, -4 * nearBy, 0), a, b, c, Vector(0, 0, 20)));
  EXPECT_FALSE(kxGeom::isPointInTriangleInclusive(Point(1, 0.5, 0), a, b, c, Vector(0, 0, -1)));
}

// --- Sphere against triangle ------------------------------------------------

// Distance from p to triangle abc by testing the interior and the three edges.
double distanceToTriangle(const Point& p, const Point& a, const Point& b, const Point& c) {
  const Vector n = kxLinear::normalized(kxLinear::cross(b - a, c - a));
  const Point foot = p - n * kxLinear::dot(p - a, n);
  const auto w = barycentric(foot, a, b, c);
  if (std::min({w[0], w[1], w[2]}) >= 0) return std::fabs(kxLinear::dot(p - a, n));
  auto segment = [&](const Point& s, const Point& e) {
    const double t = std::clamp(kxLinear::dot(p - s, e - s) / (e - s).length2(), 0.0, 1.0);
    return (p - (s + (e - s) * t)).length();
  };
  return std::min({segment(a, b), segment(b, c), segment(c, a)});
}

TEST(SphereTriangle, AgreesWithClosestDistanceOutsideTheShortcuts) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<double> coord(-1.0, 1.0), radius(0.05, 1.0);
  int hits = 0, checked = 0;
  for (int iter = 0; iter < 20000; ++iter) {
    const Point a(coord(rng), coord(rng), coord(rng)), b(coord(rng), coord(rng), coord(rng)),
        c(coord(rng), coord(rng), coord(rng));
    const kxGeom::Sphere s({coord(rng), coord(rng), coord(rng)}, radius(rng));
    if (kxLinear::cross(b - a, c - a).length() < 0.05) continue;
    const Vector n = kxLinear::normalized(kxLinear::cross(b - a, c - a));
    const auto w = barycentric(s.center - n * kxLinear::dot(s.center - a, n), a, b, c);
    const int negative = (w[0] < 0) + (w[1] < 0) + (w[2] < 0);
    const double d = distanceToTriangle(s.center, a, b, c);
    const double r = s.radius;
    const bool vertexInside =
        std::min({(a - s.center).length(), (b - s.center).length(), (c - s.center).length()}) < r;
    const bool shortcut = (b - a).length2() < (a - s.center).length2() &&
                          (c - b).length2() < (b - s.center).length2() &&
                          (a - c).length2() < (c - s.center).length2();
    // Outside one edge the test measures the distance to that edge's infinite
    // line; outside two it uses a line chosen by the side signs. Keep to the
    // cases where the line's nearest point lies on the edge itself.
    if (std::fabs(d - r) < 1e-9 || negative == 2) continue;
    if (negative == 1) {
      const int opposite = w[0] < 0 ? 0 : w[1] < 0 ? 1 : 2;
      const Point& e0 = opposite == 0 ? b : opposite == 1 ? c : a;
      const Point& e1 = opposite == 0 ? c : opposite == 1 ? a : b;
      const double along = kxLinear::dot(s.center - e0, e1 - e0) / (e1 - e0).length2();
      if (along < 0 || along > 1) continue;
    }
    const bool expected = vertexInside || (!shortcut && d < r);
    ASSERT_EQ(expected, kxGeom::sphereTriIntersect(s, a, b, c)) << iter;
    hits += expected;
    ++checked;
  }
  EXPECT_GT(checked, 10000);
  EXPECT_GT(hits, 2000);
}

TEST(SphereTriangle, TouchingContainmentAndDegenerateCases) {
  const Point a(0, 0, 0), b(10, 0, 0), c(0, 10, 0);
  // Above the face the plane test rejects only r^2 < z^2: touching the face
  // counts, while touching an edge's line does not (below).
  EXPECT_TRUE(kxGeom::sphereTriIntersect({{2, 2, 0.5}, 0.5}, a, b, c));
  EXPECT_FALSE(kxGeom::sphereTriIntersect({{2, 2, 0.5}, 0.4999999}, a, b, c));
  // Beside an edge, at distance r from it.
  EXPECT_FALSE(kxGeom::sphereTriIntersect({{5, -1, 0}, 1.0}, a, b, c));
  EXPECT_TRUE(kxGeom::sphereTriIntersect({{5, -1, 0}, 1.0001}, a, b, c));
  // A tiny sphere around a corner.
  EXPECT_TRUE(kxGeom::sphereTriIntersect({{10, 0, 1e-9}, 1e-6}, a, b, c));
  // The early rejection: a small triangle far below a large sphere's centre.
  const Point sa(0, 0, 0), sb(1, 0, 0), sc(0, 1, 0);
  EXPECT_FALSE(kxGeom::sphereTriIntersect({{0.3, 0.3, 10}, 10.005}, sa, sb, sc));
  // Coincident corners reduce to a line; all three coincident: never.
  EXPECT_TRUE(kxGeom::sphereTriIntersect({{5, 0.5, 0}, 0.6}, a, a, b));
  EXPECT_FALSE(kxGeom::sphereTriIntersect({{5, 0.7, 0}, 0.6}, a, a, b));
  EXPECT_FALSE(kxGeom::sphereTriIntersect({{0, 0, 1}, 0.5}, a, a, a));
  // Three distinct collinear corners behave as their line.
  EXPECT_TRUE(kxGeom::sphereTriIntersect({{5, 0.5, 0}, 0.6}, a, Point(4, 0, 0), b));
}

// --- Box tests --------------------------------------------------------------

BoundingBox randomBox(std::mt19937& rng) {
  std::uniform_real_distribution<float> coord(-1.0f, 1.0f), size(0.05f, 1.0f);
  const float x = coord(rng), y = coord(rng), z = coord(rng);
  return BoundingBox(x, y, z, x + size(rng), y + size(rng), z + size(rng));
}

// Clips a convex polygon to the box (Sutherland-Hodgman, double precision),
// the box grown by `margin` on every side. True when anything remains.
bool clippedPolygonRemains(std::vector<Point> poly, const BoundingBox& box, double margin) {
  for (int plane = 0; plane < 6; ++plane) {
    const int k = plane % 3;
    const double sign = plane < 3 ? -1.0 : 1.0;
    const double bound = box[plane] + sign * margin;
    auto outside = [&](const Point& p) { return sign * (p[k] - bound); };
    std::vector<Point> out;
    for (std::size_t i = 0; i < poly.size(); ++i) {
      const Point& p = poly[i];
      const Point& q = poly[(i + 1) % poly.size()];
      const double dp = outside(p), dq = outside(q);
      if (dp <= 0) out.push_back(p);
      if ((dp < 0 && dq > 0) || (dp > 0 && dq < 0)) out.push_back(p + (q - p) * (dp / (dp - dq)));
    }
    poly.swap(out);
    if (poly.empty()) return false;
  }
  return true;
}

TEST(BoxTriangle, AgreesWithPolygonClippingAndSampling) {
  std::mt19937 rng(23);
  std::uniform_real_distribution<float> coord(-1.5f, 1.5f), unit(0.0f, 1.0f);
  int overlaps = 0, decided = 0;
  for (int iter = 0; iter < 20000; ++iter) {
    const BoundingBox box = randomBox(rng);
    float a[3], b[3], c[3];
    for (int k = 0; k < 3; ++k) {
      a[k] = coord(rng);
      b[k] = a[k] + 0.6f * coord(rng);
      c[k] = a[k] + 0.6f * coord(rng);
    }
    const bool result = kxGeom::intersects(box, a, b, c);
    const float* pa = a;
    ASSERT_EQ(result, kxGeom::intersects(box, pa, &b[0], &c[0]));
    // Any sample of the triangle inside the box forces an overlap.
    for (int sample = 0; sample < 64 && !result; ++sample) {
      float s = unit(rng), t = unit(rng);
      if (s + t > 1) s = 1 - s, t = 1 - t;
      const PointFlt x(a[0] + s * (b[0] - a[0]) + t * (c[0] - a[0]),
                       a[1] + s * (b[1] - a[1]) + t * (c[1] - a[1]),
                       a[2] + s * (b[2] - a[2]) + t * (c[2] - a[2]));
      ASSERT_FALSE(kxGeom::contains(box, x)) << iter;
    }
    const std::vector<Point> tri = {Point(a[0], a[1], a[2]), Point(b[0], b[1], b[2]),
                                    Point(c[0], c[1], c[2])};
    const bool grown = clippedPolygonRemains(tri, box, 1e-4);
    const bool shrunk = clippedPolygonRemains(tri, box, -1e-4);
    if (grown != shrunk) continue;  // within rounding of the boundary
    ASSERT_EQ(grown, result) << iter;
    overlaps += result;
    ++decided;
  }
  EXPECT_GT(decided, 19000);
  EXPECT_GT(overlaps, 400);
}

TEST(BoxTriangle, TouchingAndEnclosingTriangles) {
  const BoundingBox box(0.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f);
  const float a[3] = {1, 0.2f, 0.2f}, b[3] = {2, 0.5f, 0.2f}, c[3] = {2, 0.2f, 0.8f};
  EXPECT_TRUE(kxGeom::intersects(box, a, b, c));  // touches the x = 1 face at a corner
  const float big[3][3] = {{-10, -10, 0.5f}, {10, -10, 0.5f}, {0, 20, 0.5f}};
  EXPECT_TRUE(kxGeom::intersects(box, big[0], big[1], big[2]));  // box inside the triangle
  // Near the box's edge but across the diagonal: only the edge axes separate.
  const float d0[3] = {1.6f, 0.5f, -0.5f}, d1[3] = {0.5f, 1.6f, -0.5f}, d2[3] = {1.05f, 1.05f, 2};
  EXPECT_FALSE(kxGeom::intersects(box, d0, d1, d2));
}

// Clips a segment to the box grown by `margin`.
bool clippedSegmentRemains(const Point& p, const Point& q, const BoundingBox& box, double margin) {
  double t0, t1;
  return kxtest::slabInterval(p, q - p, box, margin, t0, t1) && t0 <= 1 && t1 >= 0;
}

TEST(BoxSegment, AgreesWithSlabClipping) {
  std::mt19937 rng(29);
  std::uniform_real_distribution<float> coord(-2.0f, 2.0f);
  int overlaps = 0, decided = 0;
  for (int iter = 0; iter < 20000; ++iter) {
    const BoundingBox box = randomBox(rng);
    const float p[3] = {coord(rng), coord(rng), coord(rng)};
    const float q[3] = {coord(rng), coord(rng), coord(rng)};
    const bool result = kxGeom::intersects(box, p, q);
    ASSERT_EQ(result, kxGeom::intersects(box, &p[0], &q[0]));
    const Point P(p[0], p[1], p[2]), Q(q[0], q[1], q[2]);
    const bool grown = clippedSegmentRemains(P, Q, box, 1e-4);
    if (grown != clippedSegmentRemains(P, Q, box, -1e-4)) continue;
    ASSERT_EQ(grown, result) << iter;
    overlaps += result;
    ++decided;
  }
  EXPECT_GT(decided, 19000);
  EXPECT_GT(overlaps, 500);
  const BoundingBox unit(0.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f);
  const float corner[3] = {1, 1, 1}, out[3] = {2, 2, 3};
  EXPECT_TRUE(kxGeom::intersects(unit, corner, out));  // touches a corner
  const float e0[3] = {2.001f, 0, 0.5f}, e1[3] = {0, 2.001f, 0.5f};
  EXPECT_FALSE(kxGeom::intersects(unit, e0, e1));  // passes the edge x = y = 1 outside
  const float t0[3] = {2, 0, 0.5f}, t1[3] = {0, 2, 0.5f};
  EXPECT_TRUE(kxGeom::intersects(unit, t0, t1));  // touches that edge
}

TEST(BoxPoint, InclusiveContainment) {
  const BoundingBox box(0.0f, 0.0f, 0.0f, 1.0f, 2.0f, 3.0f);
  EXPECT_TRUE(kxGeom::contains(box, PointFlt(0, 0, 0)));
  EXPECT_TRUE(kxGeom::contains(box, PointFlt(1, 2, 3)));
  EXPECT_FALSE(kxGeom::contains(box, PointFlt(1, 2, 3.0000003f)));
  EXPECT_FALSE(kxGeom::contains(box, PointFlt(-1e-7f, 1, 1)));
  EXPECT_FALSE(kxGeom::contains(box, PointFlt(std::nanf(""), 1, 1)));
  EXPECT_FALSE(kxGeom::contains(BoundingBox(), PointFlt(0, 0, 0)));
}

TEST(BoxPlane, SideMatchesCornerExtremes) {
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> coord(-1.0, 1.0);
  int counts[3] = {0, 0, 0};
  for (int iter = 0; iter < 10000; ++iter) {
    const BoundingBox box = randomBox(rng);
    const kxLinear::Plane plane({coord(rng), coord(rng), coord(rng)},
                                {coord(rng), coord(rng), coord(rng)});
    double lo = 1e300, hi = -1e300;
    for (int i = 0; i < 8; ++i) {
      float p[3];
      box.getPoint(i, p);
      const double s = plane.eval(Point(p[0], p[1], p[2]));
      lo = std::min(lo, s);
      hi = std::max(hi, s);
    }
    if (std::fabs(lo) < 1e-5 || std::fabs(hi) < 1e-5) continue;
    const int expected = lo > 0 ? 1 : hi < 0 ? -1 : 0;
    ASSERT_EQ(expected, kxGeom::intersects(box, plane)) << iter;
    ++counts[expected + 1];
  }
  for (int c : counts) EXPECT_GT(c, 1000);
}

TEST(BoxFrustum, NeverMissesAnOverlapAndRejectsSeparatedBoxes) {
  std::mt19937 rng(41);
  std::uniform_real_distribution<double> coord(-1.5, 1.5), unit(0.0, 1.0);
  kxGeom::Frustum frustum;
  ASSERT_TRUE(kxGeom::makePickFrustum(kxLinear::Line({-0.2, 0.1, -1.2}, {0.3, -0.2, 1}), 0.1, 0.3,
                                      2.5, frustum));
  int overlapping = 0, rejected = 0;
  for (int iter = 0; iter < 5000; ++iter) {
    const BoundingBox box = randomBox(rng);
    const bool result = kxGeom::intersects(box, frustum);
    bool sampledInside = false;
    for (int sample = 0; sample < 200 && !sampledInside; ++sample) {
      const Point p(box[0] + unit(rng) * (box[3] - box[0]), box[1] + unit(rng) * (box[4] - box[1]),
                    box[2] + unit(rng) * (box[5] - box[2]));
      sampledInside = kxGeom::contains(frustum, p);
    }
    if (sampledInside) {
      ASSERT_TRUE(result) << iter;
      ++overlapping;
    }
    // A plane with all eight box corners strictly outside separates them.
    for (int f = 0; f < 6; ++f) {
      const kxGeom::FrustumPlane& plane = frustum.plane(f);
      int outside = 0;
      for (int i = 0; i < 8; ++i) {
        float c[3];
        box.getPoint(i, c);
        outside += kxLinear::dot(Point(c[0], c[1], c[2]) - plane.point, plane.normal) > 1e-9;
      }
      if (outside == 8) {
        ASSERT_FALSE(result) << iter;
        ++rejected;
        break;
      }
    }
  }
  EXPECT_GT(overlapping, 300);
  EXPECT_GT(rejected, 1000);
  // A box that swallows the whole frustum holds its corners.
  EXPECT_TRUE(kxGeom::intersects(BoundingBox(-9.f, -9.f, -9.f, 9.f, 9.f, 9.f), frustum));
}

TEST(TriangleBox, BoxOfThreeCorners) {
  const float a[3] = {1, -2, 3}, b[3] = {-4, 5, 0.5f}, c[3] = {0, 0, 9};
  BoundingBox box(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f);
  kxGeom::meshTriBoundingBox(a, b, c, box);
  EXPECT_EQ(BoundingBox(-4.0f, -2.0f, 0.5f, 1.0f, 5.0f, 9.0f), box);
}

}  // namespace
