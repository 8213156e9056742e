// The laid-out walks of the tracers and of the closest-point search against
// brute force over every triangle with the same per-triangle arithmetic, so
// that nearest parameters, hit masks and distances must agree bit for bit:
// random meshes with zero-length edges, zero-area triangles and a NaN
// vertex; rays and points with NaN, zero and axis-aligned components.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <kxgeom/quad_ray.h>
#include <kxgeom/ray_tracer.h>

#include "spatial/octree_oracles.h"
#include "spatial/ray_oracle.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxLinear::Point;
using kxLinear::PointFlt;
using kxLinear::VectorFlt;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// A random mesh with a NaN vertex and, appended, degenerate triangles:
// repeated corners and three collinear corners.
CompactMesh degenerateMesh(unsigned seed) {
  const CompactMesh random = kxtest::makeRandomMesh(400, 900, seed);
  std::vector<kxGeom::MeshVertex> v(random.getVertices(), random.getVertices() + 400);
  v[7].y = kNaN;
  v.push_back({0.5f * (v[1].x + v[2].x), 0.5f * (v[1].y + v[2].y), 0.5f * (v[1].z + v[2].z)});
  std::vector<int> t(random.getTrianglesRaw(), random.getTrianglesRaw() + 3 * 900);
  t.insert(t.end(), {1, 2, 400, 3, 3, 4, 5, 5, 5, 7, 8, 9});
  CompactMesh mesh(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  mesh.copyTriangles(int(t.size() / 3), t.data());
  return mesh;
}

// A direction toward a random point of the box, sometimes with a zero or
// NaN component or along an axis.
VectorFlt randomDirection(const kxtest::IndexedMesh& m, const PointFlt& o, int i,
                          std::mt19937& rng) {
  VectorFlt d = kxtest::randomPointInBox(m.box, 1.2f, rng) - o;
  if (i % 11 == 3) d.y = 0;
  if (i % 13 == 5) d = VectorFlt(0, 0, o.z > 0 ? -1.0f : 1.0f);
  if (i % 29 == 7) d.x = kNaN;
  return d;
}

TEST(LaidOutWalks, PacketsFindEveryLanesNearestHitAndFirstHitsOfThePlainWalk) {
  std::mt19937 rng(101);
  for (const CompactMesh& model : {degenerateMesh(1), kxtest::makeLatLongSphere(20, 40)}) {
    const kxtest::IndexedMesh m(model);
    kxGeom::QuadRayTracer tracer(m.octree, m.tris, &m.mesh);
    kxGeom::OctreeQuadRayIntersectIt leaves(m.octree);
    int hits = 0;
    for (int i = 0; i < 400; ++i) {
      const PointFlt o =
          i % 37 == 0 ? PointFlt(kNaN, 0, 0) : kxtest::randomOrigin(m.box, i % 3 == 0, rng);
      VectorFlt d[4];
      for (int k = 0; k < 4; ++k) d[k] = randomDirection(m, o, 4 * i + k, rng);
      kxGeom::QuadRay traced(o, d[0], d[1], d[2], d[3], true), all = traced;
      tracer.intersect(traced);
      for (int t = 0; t < m.mesh.getNumTriangles(); ++t) {
        all.intersect(m.mesh.getTriangles()[t], m.mesh.getVertices());
      }
      ASSERT_EQ(traced.hitMask(), all.hitMask()) << "packet " << i;
      for (int k = 0; k < 4; ++k) {
        ASSERT_EQ(traced.triIntersectionRayParam(k), all.triIntersectionRayParam(k)) << i << k;
      }
      hits += __builtin_popcount(traced.hitMask());
      // First hits: every triangle of every leaf the packet walk reaches, in
      // list order, until all four rays have hit.
      kxGeom::QuadRay first(o, d[0], d[1], d[2], d[3], false), plain = first;
      tracer.intersect(first);
      for (leaves.reset(plain, false); leaves.valid() && !plain.allRaysTerminated();
           leaves.next()) {
        const int voxel = leaves.get().getVoxel();
        for (int j = 0; j < m.tris.numTris(voxel) && !plain.allRaysTerminated(); ++j) {
          plain.intersect(m.mesh.getTriangles()[m.tris.firstTri(voxel)[j]], m.mesh.getVertices());
        }
      }
      ASSERT_EQ(first.hitMask(), plain.hitMask()) << "packet " << i;
      for (int k = 0; k < 4; ++k) {
        ASSERT_EQ(first.triIntersectionRayParam(k), plain.triIntersectionRayParam(k)) << i << k;
      }
    }
    EXPECT_GT(hits, 400);
  }
}

// The nearest parameter over all triangles by the double-precision test,
// and the triangles that reach it.
double bruteNearest(const CompactMesh& mesh, const PointFlt& o, const kxLinear::Vector& d,
                    std::vector<int>& nearest) {
  double best = kxGeom::Ray::kNoHit;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const int* c = mesh.getTrianglesRaw() + 3 * t;
    const float* v = mesh.getVerticesRaw();
    double s, u, w;
    if (!kxGeom::intersectRayTriangle(d.data(), o.data(), v + 3 * c[0], v + 3 * c[1], v + 3 * c[2],
                                      s, u, w) ||
        !(s > kxLinear::epsilonTol) || s > best) {
      continue;
    }
    if (s < best) nearest.clear();
    best = s;
    nearest.push_back(t);
  }
  return best;
}

TEST(LaidOutWalks, SingleRaysFindTheNearestHitOfAllTriangles) {
  std::mt19937 rng(103);
  for (const CompactMesh& model : {degenerateMesh(2), kxtest::makeGrid(20, 20)}) {
    const kxtest::IndexedMesh m(model);
    kxGeom::RayTracer nearest(m.octree, m.tris, &m.mesh), first(m.octree, m.tris, &m.mesh);
    first.setFindNearestHit(false);
    int hits = 0;
    for (int i = 0; i < 1500; ++i) {
      const PointFlt o = kxtest::randomOrigin(m.box, i % 3 == 0, rng);
      const kxLinear::Vector d(randomDirection(m, o, i, rng));
      std::vector<int> expected;
      const double t = bruteNearest(m.mesh, o, d, expected);
      const bool hit = nearest.intersect(o, d);
      ASSERT_EQ(hit, !expected.empty()) << "ray " << i;
      ASSERT_EQ(first.intersect(o, d), hit) << "ray " << i;
      if (!hit) continue;
      ++hits;
      ASSERT_EQ(nearest.intersectionDist(), t * d.length()) << "ray " << i;
      ASSERT_NE(std::find(expected.begin(), expected.end(), nearest.intersectionTriangle()),
                expected.end());
      ASSERT_GE(first.intersectionDist(), nearest.intersectionDist());
    }
    EXPECT_GT(hits, 300);
  }
}

TEST(LaidOutWalks, ClosestPointsAndContainmentMatchAllTriangles) {
  CompactMesh sphere = kxtest::makeLatLongSphere(16, 32);
  kxGeom::meshComputeNormals(sphere);
  for (const CompactMesh& model : {degenerateMesh(3), sphere}) {
    const kxtest::IndexedMesh m(model);
    kxGeom::MeshClosestPoint search(m.mesh, m.octree, m.tris);
    kxGeom::MeshPtInside inside(m.mesh, m.octree, m.tris, 1e-4);
    std::vector<Point> pts = kxtest::randomPoints(300, m.box, 1.3, 7);
    const auto near = kxtest::pointsNearSurface(m.mesh, 300, 0.02, 8);
    pts.insert(pts.end(), near.begin(), near.end());
    pts.push_back(Point(std::nan(""), 0, 0));
    int counted[3] = {0, 0, 0}, expectedCounts[3] = {0, 0, 0};
    for (const Point& p : pts) {
      double best = std::numeric_limits<double>::max();
      std::vector<double> d2(std::size_t(m.mesh.getNumTriangles()), best);
      for (int t = 0; t < m.mesh.getNumTriangles(); ++t) {
        const kxGeom::MeshCoord c =
            kxGeom::meshTriClosestPt(m.mesh.getVerticesRaw(), m.mesh.getTrianglesRaw(), t, p);
        if (!c.isValid()) continue;
        d2[std::size_t(t)] =
            (c.evaluate(m.mesh.getVertices(), m.mesh.getTriangles()) - p).length2();
        best = std::min(best, d2[std::size_t(t)]);
      }
      kxGeom::MeshCoord coord(-1, 0, 0, 0);
      ASSERT_EQ(search.compute(p, &coord), std::sqrt(best));
      if (coord.isValid()) {
        ASSERT_EQ(d2[std::size_t(coord.triangle)], best);
      }
      const int side = kxtest::bruteForceSide(m.mesh, p, 1e-4);
      const int answer = inside.evaluate(p);
      if (side < 0 || !kxGeom::contains(m.box, PointFlt(p))) continue;
      ++counted[answer];
      ++expectedCounts[side];
    }
    for (int k = 0; k < 3; ++k) EXPECT_EQ(counted[k], expectedCounts[k]) << k;
    EXPECT_GT(counted[kxGeom::MeshPtInside::Outside], 50);
  }
}

}  // namespace
