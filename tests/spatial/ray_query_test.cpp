// Ray queries: single triangles against a plane-and-barycentric oracle,
// frustum picking against brute force over all triangles, ray closest point.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

using kxGeom::CompactMesh;
using kxLinear::Line;
using kxLinear::Point;
using kxLinear::Vector;

namespace {

// Where the line meets triangle t's plane, and whether that point lies inside
// the triangle by a margin (1) or outside by a margin (-1); 0 when undecided.
int lineTriangleOracle(const CompactMesh& mesh, int t, const Line& line, Point& hit) {
  const Point a = kxtest::corner(mesh, t, 0), b = kxtest::corner(mesh, t, 1),
              c = kxtest::corner(mesh, t, 2);
  const Vector n = kxLinear::cross(b - a, c - a);
  const double denom = kxLinear::dot(n, line.getDirection());
  if (std::fabs(denom) < 1e-3 * n.length() * line.getDirection().length()) return 0;
  hit = line.eval(kxLinear::dot(n, a - line.getOrigin()) / denom);
  const double area = n.length();
  const double wa = kxLinear::dot(kxLinear::cross(b - hit, c - hit), n) / (area * area);
  const double wb = kxLinear::dot(kxLinear::cross(c - hit, a - hit), n) / (area * area);
  const double wc = 1 - wa - wb;
  const double margin = std::min({wa, wb, wc});
  if (margin > 1e-4) return 1;
  if (margin < -1e-4) return -1;
  return 0;
}

}  // namespace

TEST(RayTriangle, HitPointsAgreeWithPlaneOracle) {
  const CompactMesh mesh = kxtest::makeRandomMesh(60, 200, 31);
  std::mt19937 rng(4);
  std::normal_distribution<double> g(0, 1);
  int hits = 0, decided = 0;
  for (int trial = 0; trial < 100; ++trial) {
    const Line line(Point(float(g(rng)), float(g(rng)), float(g(rng))) * 2.0,
                    Vector(g(rng), g(rng), g(rng)));
    for (int t = 0; t < mesh.getNumTriangles(); ++t) {
      Point expected;
      const int verdict = lineTriangleOracle(mesh, t, line, expected);
      kxLinear::PointFlt hit(9, 9, 9);
      kxLinear::Point hitD(9, 9, 9);
      const bool got = kxGeom::meshRayTriIntersect(mesh, t, line, hit);
      ASSERT_EQ(got, kxGeom::meshRayTriIntersect(mesh, t, line, hitD));
      if (verdict == 0) continue;
      ++decided;
      // A back face behind the origin (below the cull distance) is a miss.
      const Vector n = kxLinear::cross(kxtest::corner(mesh, t, 1) - kxtest::corner(mesh, t, 0),
                                       kxtest::corner(mesh, t, 2) - kxtest::corner(mesh, t, 0));
      const bool front = kxLinear::dot(n, line.getDirection()) < 0;
      const double along = kxLinear::dot(expected - line.getOrigin(), line.getDirection());
      const bool expectHit = verdict == 1 && (front || along > 1e-3);
      ASSERT_EQ(got, expectHit) << "trial " << trial << " triangle " << t;
      if (!got) {
        EXPECT_EQ(hit, kxLinear::PointFlt(9, 9, 9));
        continue;
      }
      ++hits;
      EXPECT_LT((Point(hit) - expected).length(), 1e-5 * (1 + expected.length()));
      EXPECT_EQ(hitD, Point(hit));
    }
  }
  EXPECT_GT(hits, 100);
  EXPECT_GT(decided, 10000);
}

namespace {

struct Pickable {
  explicit Pickable(CompactMesh m)
      : mesh(std::move(m)),
        octree(kxtest::vertexOctree(mesh)),
        adj(kxtest::adjacentTriangles(mesh)) {}
  CompactMesh mesh;
  kxGeom::Octree octree;
  kxGeom::MeshAdjTris adj;
};

// True when some triangle is hit in front of the origin (brute force).
bool anyForwardHit(const CompactMesh& mesh, const Line& ray) {
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    Point hit;
    if (kxGeom::meshRayTriIntersect(mesh, t, ray, hit) &&
        kxLinear::dot(hit - ray.getOrigin(), ray.getDirection()) > 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

TEST(RayPick, FirstHitIsATrueHitAndMissesAgreeWithBruteForce) {
  Pickable s(kxtest::makeLatLongSphere(30, 60));
  std::mt19937 rng(6);
  std::normal_distribution<double> g(0, 1);
  int hits = 0;
  for (int trial = 0; trial < 300; ++trial) {
    // From outside the sphere towards a point of [-1.3, 1.3]^3.
    const Vector from = kxLinear::normalized(Vector(g(rng), g(rng), g(rng))) * 4.0;
    const Point target(0.65 * g(rng), 0.65 * g(rng), 0.65 * g(rng));
    const Line ray(Point(from), target - Point(from));
    kxGeom::Frustum frustum;
    ASSERT_TRUE(kxGeom::makePickFrustum(ray, 0.12, 0.0, 10.0, frustum));
    kxLinear::PointFlt hit(7, 7, 7);
    int tri = -5;
    kxtest::LogCapture log;
    const bool got = kxGeom::meshRayIntersect(s.mesh, s.octree, s.adj, frustum, hit, &tri);
    ASSERT_EQ(log.lines().size(), 1u);
    const bool expected = anyForwardHit(s.mesh, frustum.getRay());
    ASSERT_EQ(got, expected) << trial;
    if (!got) {
      EXPECT_TRUE(
          kxtest::matchesLogLine(log.lines()[0], "meshRayIntersect:  no intersection ", " s\n"));
      EXPECT_EQ(tri, -5);
      EXPECT_EQ(hit, kxLinear::PointFlt(7, 7, 7));
      continue;
    }
    ++hits;
    char expectedPrefix[128];
    std::snprintf(expectedPrefix, sizeof expectedPrefix, "meshRayIntersect:  (%f,%f,%f) ", hit.x,
                  hit.y, hit.z);
    EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[0], expectedPrefix, " s\n")) << log.lines()[0];
    Point oracleHit;
    ASSERT_GE(lineTriangleOracle(s.mesh, tri, frustum.getRay(), oracleHit), 0);
    EXPECT_LT((Point(hit) - oracleHit).length(), 1e-5);
    // The hit lies on the (tessellated) unit sphere.
    EXPECT_NEAR(Point(hit).length(), 1.0, 0.01);
  }
  EXPECT_GT(hits, 100);
}

TEST(RayClosestPoint, SearchesFromTheFootOfThePerpendicular) {
  Pickable s(kxtest::makeLatLongSphere(16, 32));
  const double longest = kxGeom::meshLongestEdge(s.mesh);
  std::mt19937 rng(10);
  std::normal_distribution<double> g(0, 1);
  for (int trial = 0; trial < 200; ++trial) {
    const Line ray(Point(g(rng), g(rng), g(rng)), Vector(g(rng), g(rng), g(rng)));
    const Point p(g(rng), g(rng), g(rng));
    const Vector d = ray.getDirection();
    const Point foot = ray.getOrigin() + d * (kxLinear::dot(p - ray.getOrigin(), d) / d.length2());
    const kxGeom::MeshCoord got =
        kxGeom::meshRayClosestPt(s.mesh, longest, s.octree, s.adj, ray, p);
    kxGeom::MeshCoord expected;
    kxGeom::meshClosestPoint(s.mesh, s.octree, s.adj, foot, longest,
                             std::numeric_limits<double>::max(), nullptr, &expected);
    ASSERT_TRUE(got.isValid());
    const Point q = got.evaluate(s.mesh.getVertices(), s.mesh.getTriangles());
    EXPECT_NEAR((q - foot).length(),
                (expected.evaluate(s.mesh.getVertices(), s.mesh.getTriangles()) - foot).length(),
                1e-9);
    EXPECT_LE((q - foot).length(),
              std::sqrt(kxtest::bruteClosest2(s.mesh, foot)) + longest / std::sqrt(3.0));
  }
  // A line without direction finds nothing.
  EXPECT_FALSE(kxGeom::meshRayClosestPt(s.mesh, longest, s.octree, s.adj, Line(Point(), Vector()),
                                        Point(1, 1, 1))
                   .isValid());
}
