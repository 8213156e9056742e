// Closest-point searches against brute force over every triangle, the
// triangle closest point against the Voronoi-region oracle and dense
// sampling, containment on a sphere, and degenerate inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

using kxGeom::CompactMesh;
using kxGeom::MeshCoord;
using kxGeom::Octree;
using kxLinear::Point;

namespace {

constexpr double kMax = std::numeric_limits<double>::max();

// A mesh with its vertex octree and triangle lists.
struct Searchable {
  explicit Searchable(CompactMesh m) : mesh(std::move(m)), octree(kxtest::vertexOctree(mesh)) {
    kxGeom::computeOctreeTris(mesh, octree, tris);
  }
  CompactMesh mesh;
  Octree octree;
  kxGeom::OctreeTris tris;
};

kxGeom::BoundingBox boxOf(const CompactMesh& mesh) {
  kxGeom::BoundingBox box;
  for (int v = 0; v < mesh.getNumVertices(); ++v) box.extend(mesh.getVertices()[v].asPointFlt());
  return box;
}

std::vector<Point> queryPoints(const CompactMesh& mesh, unsigned seed) {
  std::vector<Point> pts = kxtest::randomPoints(150, boxOf(mesh), 1.2, seed);
  const auto near = kxtest::pointsNearSurface(mesh, 150, 0.01, seed + 1);
  const auto far = kxtest::randomPoints(30, boxOf(mesh), 20.0, seed + 2);
  pts.insert(pts.end(), near.begin(), near.end());
  pts.insert(pts.end(), far.begin(), far.end());
  return pts;
}

std::vector<CompactMesh> testMeshes() {
  return {kxtest::makeLatLongSphere(20, 40), kxtest::makeRandomMesh(200, 400, 17),
          kxtest::makeGrid(12, 9)};
}

// The point a coordinate denotes, and its distance to p.
double coordDistance(const CompactMesh& mesh, const MeshCoord& c, const Point& p) {
  return (c.evaluate(mesh.getVertices(), mesh.getTriangles()) - p).length();
}

}  // namespace

TEST(TriClosestPoint, MatchesVoronoiOracleAndStaysInTriangle) {
  std::mt19937 rng(21);
  std::normal_distribution<float> g(0, 1);
  int checked = 0;
  for (int trial = 0; trial < 20000; ++trial) {
    const float v[9] = {g(rng), g(rng), g(rng), g(rng), g(rng), g(rng), g(rng), g(rng), g(rng)};
    const int tri[3] = {0, 1, 2};
    const Point p(3 * g(rng), 3 * g(rng), 3 * g(rng));
    const MeshCoord c = kxGeom::meshTriClosestPt(v, tri, 0, p);
    ASSERT_TRUE(c.isValid());
    EXPECT_NEAR(c.w[0] + c.w[1] + c.w[2], 1.0, 1e-12);
    for (double w : c.w) EXPECT_GE(w, -1e-12);
    const Point a = Point::from(v), b = Point::from(v + 3), cc = Point::from(v + 6);
    const Point q = kxLinear::combine(a, c.w[0], b, c.w[1], cc, c.w[2]);
    const Point oracle = kxtest::closestOnTriangle(p, a, b, cc);
    ASSERT_NEAR((q - p).length(), (oracle - p).length(), 1e-9) << trial;
    ++checked;
  }
  EXPECT_EQ(checked, 20000);
}

TEST(TriClosestPoint, DegenerateTrianglesAgainstDenseSampling) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // Collinear, coincident pair, all coincident, sliver, and a NaN corner.
  const std::vector<std::vector<float>> cases = {
      {0, 0, 0, 1, 1, 1, 3, 3, 3},    {0, 0, 0, 0, 0, 0, 2, -1, 0},
      {1, 2, 3, 1, 2, 3, 1, 2, 3},    {0, 0, 0, 4, 0, 0, 2, 1e-7f, 0},
      {0, 0, 0, 1, 0, 0, 0.5f, 0, 0}, {0, 0, 0, 1, 0, 0, nan, 0, 0}};
  const int tri[3] = {0, 1, 2};
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-3, 4);
  for (std::size_t k = 0; k < cases.size(); ++k) {
    const float* v = cases[k].data();
    const Point a = Point::from(v), b = Point::from(v + 3), c = Point::from(v + 6);
    for (int trial = 0; trial < 300; ++trial) {
      const Point p(u(rng), u(rng), u(rng));
      const MeshCoord coord = kxGeom::meshTriClosestPt(v, tri, 0, p);
      if (k == cases.size() - 1) {
        ASSERT_FALSE(coord.isValid());
        continue;
      }
      ASSERT_TRUE(coord.isValid());
      const double d =
          (kxLinear::combine(a, coord.w[0], b, coord.w[1], c, coord.w[2]) - p).length();
      // Dense sampling of the triangle bounds the true distance from above;
      // the result may not exceed it, nor undercut it by more than the grid
      // step times the longest edge.
      double sampled = kMax;
      const int n = 200;
      for (int i = 0; i <= n; ++i) {
        for (int j = 0; i + j <= n; ++j) {
          const double s = double(i) / n, t = double(j) / n;
          sampled = std::min(sampled, (kxLinear::combine(a, 1 - s - t, b, s, c, t) - p).length());
        }
      }
      ASSERT_LE(d, sampled + 1e-12) << "case " << k;
      ASSERT_GE(d, sampled - 4.0 * 5.2 / n) << "case " << k;
    }
  }
  const float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  EXPECT_FALSE(kxGeom::meshTriClosestPt(v, tri, 0, Point(0, std::nan(""), 0)).isValid());
}

TEST(MeshClosestPoint, SurfacePointsAndEmptyMeshes) {
  Searchable s(kxtest::makeGrid(6, 6));
  kxGeom::MeshClosestPoint search(s.mesh, s.octree, s.tris);
  MeshCoord c;
  EXPECT_EQ(search.compute(Point(2.25, 3.5, 0), &c), 0.0);
  EXPECT_NEAR(coordDistance(s.mesh, c, Point(2.25, 3.5, 0)), 0.0, 1e-15);
  // Null result pointer, then a point far away.
  EXPECT_NEAR(search.compute(Point(3, 3, 1000), nullptr), 1000.0, 1e-9);
  // An empty mesh: the square root of the largest double, result untouched.
  Searchable empty(CompactMesh{});
  kxGeom::MeshClosestPoint none(empty.mesh, empty.octree, empty.tris);
  MeshCoord untouched(7, 0.5, 0.25, 0.25);
  EXPECT_EQ(none.compute(Point(0, 0, 0), &untouched), std::sqrt(kMax));
  EXPECT_EQ(untouched.triangle, 7);
  EXPECT_EQ(untouched.w[0], 0.5);
}

TEST(MeshClosestPoint, NaNVerticesAndIdenticalPoints) {
  CompactMesh mesh = kxtest::makeLatLongSphere(10, 20);
  mesh.getVertices()[5].y = std::numeric_limits<float>::quiet_NaN();
  Searchable s(mesh);
  kxGeom::MeshClosestPoint search(s.mesh, s.octree, s.tris);
  for (const Point& p :
       kxtest::randomPoints(100, boxOf(kxtest::makeLatLongSphere(10, 20)), 1.5, 8)) {
    const double expected = std::sqrt(kxtest::bruteClosest2(s.mesh, p));
    ASSERT_NEAR(search.compute(p, nullptr), expected, 1e-9);
  }
  // Every vertex in one spot: many identical points; the search still answers.
  std::vector<kxGeom::MeshVertex> v(500, kxGeom::MeshVertex{0.5f, 0.5f, 0.5f});
  CompactMesh pile(500, v.data(), nullptr, nullptr, nullptr);
  std::vector<int> t;
  for (int i = 0; i + 2 < 500; i += 3) t.insert(t.end(), {i, i + 1, i + 2});
  pile.copyTriangles(int(t.size() / 3), t.data());
  Searchable p(pile);
  kxGeom::MeshClosestPoint pileSearch(p.mesh, p.octree, p.tris);
  EXPECT_NEAR(pileSearch.compute(Point(1.5, 0.5, 0.5), nullptr), 1.0, 1e-7);
}

TEST(MeshClosestPoint, IdenticalForEveryThreadCountOneByOneOrInABatch) {
  const CompactMesh mesh = kxtest::makeRandomMesh(300, 600, 2);
  const Octree octree = kxtest::vertexOctree(mesh);
  const std::vector<Point> pts = queryPoints(mesh, 9);
  std::vector<double> reference;
  for (int threads : {1, 2, 3, 8}) {
    kxUtil::ThreadPool::setNumThreads(threads);
    kxGeom::OctreeTris tris;
    kxGeom::computeOctreeTris(mesh, octree, tris);
    kxGeom::MeshClosestPoint search(mesh, octree, tris);
    std::vector<double> got;
    for (const Point& p : pts) got.push_back(search.compute(p, nullptr));
    if (reference.empty()) reference = got;
    EXPECT_EQ(got, reference) << threads << " threads";
    // The batch answers each point as the one-by-one search does.
    std::vector<double> batch(pts.size());
    std::vector<MeshCoord> coords(pts.size());
    kxUtil::Progress progress;
    ASSERT_TRUE(kxGeom::meshClosestPoints(mesh, octree, tris, pts.data(), int(pts.size()),
                                          batch.data(), coords.data(), &progress));
    EXPECT_EQ(progress.get(), 1.0);
    EXPECT_EQ(batch, reference) << threads << " threads";
    for (std::size_t i = 0; i < pts.size(); ++i) {
      MeshCoord one;
      search.compute(pts[i], &one);
      ASSERT_EQ(coords[i].triangle, one.triangle) << i;
    }
  }
  kxUtil::ThreadPool::setNumThreads(0);
}

TEST(VertexOctreeSearch, ExactNearTheSurfaceAndBoundedFarAway) {
  for (CompactMesh& m : testMeshes()) {
    const Octree octree = kxtest::vertexOctree(m);
    const kxGeom::MeshAdjTris adj = kxtest::adjacentTriangles(m);
    const double longest = kxGeom::meshLongestEdge(m);
    const auto near = kxtest::pointsNearSurface(m, 200, 0.1 * longest, 4);
    for (const Point& p : near) {
      MeshCoord c;
      const double d2 = kxGeom::meshClosestPoint(m, octree, adj, p, &c);
      ASSERT_NEAR(d2, kxtest::bruteClosest2(m, p), 1e-12);
      ASSERT_NEAR(coordDistance(m, c, p), std::sqrt(d2), 1e-9);
    }
    for (const Point& p : queryPoints(m, 5)) {
      const double d = std::sqrt(kxGeom::meshClosestPoint(m, octree, adj, p, nullptr));
      const double exact = std::sqrt(kxtest::bruteClosest2(m, p));
      ASSERT_GE(d, exact - 1e-9);
      ASSERT_LE(d, exact + longest / std::sqrt(3.0) + 1e-9);
    }
    // Precomputed per-vertex boxes give the same answers.
    std::vector<kxGeom::BoundingBox> boxes(m.getNumVertices());
    for (int t = 0; t < m.getNumTriangles(); ++t) {
      for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 3; ++j) {
          boxes[m.getTriangles()[t][k]].extend(
              m.getVertices()[m.getTriangles()[t][j]].asPointFlt());
        }
      }
    }
    for (const Point& p : near) {
      EXPECT_EQ(kxGeom::meshClosestPoint(m, octree, adj, p, longest, kMax, boxes.data(), nullptr),
                kxGeom::meshClosestPoint(m, octree, adj, p, nullptr));
    }
  }
}

TEST(VertexOctreeSearch, FarQueriesFindTheNearestAndNonFiniteOnesNothing) {
  const CompactMesh m = kxtest::makeLatLongSphere(8, 12);
  const Octree octree = kxtest::vertexOctree(m);
  const kxGeom::MeshAdjTris adj = kxtest::adjacentTriangles(m);
  Searchable s(m);
  kxGeom::MeshClosestPoint search(s.mesh, s.octree, s.tris);
  // Squared distances of these overflow single precision.
  for (const Point& p : {Point(3e19, 1, 2), Point(-1e25, 4e24, 0), Point(0, 0, 1e38)}) {
    const double exact2 = kxtest::bruteClosest2(m, p);
    MeshCoord c;
    EXPECT_NEAR(kxGeom::meshClosestPoint(m, octree, adj, p, &c) / exact2, 1.0, 1e-12);
    EXPECT_TRUE(c.isValid());
    EXPECT_NEAR(kxGeom::meshClosestVertex2(m, octree, p) / exact2, 1.0, 1e-6);
    EXPECT_NEAR(search.compute(p, nullptr) / std::sqrt(exact2), 1.0, 1e-12);
  }
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const Point& p : {Point(nan, 0, 0), Point(0, INFINITY, 0)}) {
    MeshCoord c;
    EXPECT_EQ(kxGeom::meshClosestPoint(m, octree, adj, p, &c), kMax);
    EXPECT_FALSE(c.isValid());
    EXPECT_EQ(search.compute(p, &c), std::sqrt(kMax));
    EXPECT_FALSE(c.isValid());
  }
}

TEST(VertexOctreeSearch, DistanceLimitAndEmptyMesh) {
  const CompactMesh grid = kxtest::makeGrid(5, 5);
  const Octree octree = kxtest::vertexOctree(grid);
  const kxGeom::MeshAdjTris adj = kxtest::adjacentTriangles(grid);
  MeshCoord c(3, 1, 0, 0);
  // Nothing nearer than the limit: maxDistance2 returned, result untouched.
  EXPECT_EQ(kxGeom::meshClosestPoint(grid, octree, adj, Point(2, 2, 3), 1.5, 4.0, nullptr, &c),
            4.0);
  EXPECT_EQ(c.triangle, 3);
  EXPECT_NEAR(kxGeom::meshClosestPoint(grid, octree, adj, Point(2, 2, 1.5), 1.5, 4.0, nullptr, &c),
              2.25, 1e-12);
  const CompactMesh empty;
  const Octree none = kxtest::vertexOctree(empty);
  EXPECT_EQ(
      kxGeom::meshClosestPoint(empty, none, kxtest::adjacentTriangles(empty), Point(), nullptr),
      kMax);
}

TEST(ClosestVertex, MatchesBruteForceAndLogs) {
  const CompactMesh mesh = kxtest::makeRandomMesh(500, 10, 6);
  const Octree octree = kxtest::vertexOctree(mesh);
  for (const Point& p : queryPoints(mesh, 2)) {
    double expected = kMax;
    for (int v = 0; v < mesh.getNumVertices(); ++v) {
      expected = std::min(expected, (mesh.getVertices()[v].asPoint() - p).length2());
    }
    kxtest::LogCapture log;
    ASSERT_EQ(kxGeom::meshClosestVertex2(mesh, octree, p), expected);
    ASSERT_EQ(log.lines().size(), 1u);
    ASSERT_TRUE(kxtest::matchesLogLine(log.lines()[0], "   meshClosestVertex: ", " s\n"));
  }
  const CompactMesh empty;
  EXPECT_EQ(kxGeom::meshClosestVertex2(empty, kxtest::vertexOctree(empty), Point(1, 2, 3)), kMax);
}

TEST(LongestEdge, MatchesBruteForce) {
  const CompactMesh mesh = kxtest::makeRandomMesh(50, 80, 3);
  double expected = 0;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      expected = std::max(
          expected, (kxtest::corner(mesh, t, k) - kxtest::corner(mesh, t, (k + 1) % 3)).length());
    }
  }
  EXPECT_NEAR(kxGeom::meshLongestEdge(mesh), expected, 1e-12);
  EXPECT_EQ(kxGeom::meshLongestEdge(CompactMesh{}), 0.0);
}

TEST(ClosestIterator, LeavesInNonDecreasingDistanceCoveringAll) {
  const CompactMesh mesh = kxtest::makeRandomMesh(2000, 1, 12);
  const Octree octree = kxtest::vertexOctree(mesh);
  kxGeom::OctreeClosestIt it;
  EXPECT_FALSE(it.valid());
  for (const Point& p : queryPoints(mesh, 13)) {
    double last = -1;
    int count = 0;
    for (it.reset(octree, p); it.valid(); it.next(), ++count) {
      ASSERT_TRUE(it.get().isLeaf());
      ASSERT_GE(it.getDistance2(), last);
      ASSERT_EQ(it.getDistance2(), it.get().getBox().distance2(kxLinear::PointFlt(p)));
      last = it.getDistance2();
    }
    ASSERT_EQ(count, octree.numLeaves);
    // With a limit, exactly the leaves nearer than it come out.
    const double limit = 0.05;
    int nearer = 0;
    for (it.reset(octree, p); it.valid(); it.next()) nearer += it.getDistance2() < limit;
    it.reset(octree, p);
    int limited = it.getDistance2() < limit;
    it.setLimit(limit);
    for (it.next(); it.valid(); it.next(), ++limited) ASSERT_LT(it.getDistance2(), limit);
    ASSERT_EQ(limited, nearer);
  }
  const Octree empty;
  kxGeom::OctreeClosestIt none(empty, Point());
  EXPECT_FALSE(none.valid());
}
