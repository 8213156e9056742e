// Single-ray tracing checked against a brute-force double-precision loop over
// every triangle (signed volumes, with margins at the decision boundaries),
// and against the geometry of a sphere for first hits.
#include <kxgeom/ray_tracer.h>

#include <gtest/gtest.h>

#include "spatial/ray_oracle.h"
#include "support/test_meshes.h"

#include <cmath>
#include <functional>
#include <random>
#include <vector>

namespace {

using kxGeom::BoundingBox;
using kxGeom::CompactMesh;
using kxGeom::RayTracer;
using kxLinear::Point;
using kxLinear::PointFlt;
using kxLinear::Vector;
using kxtest::IndexedMesh;

// The smallest t that RayTracer accepts.
const double kMinT = kxLinear::epsilonTol;

// Restores the process-wide cull distance of the ray-triangle test.
struct CullDistanceGuard {
  ~CullDistanceGuard() { kxGeom::setBackfaceCullDistance(1e-6); }
};

TEST(RayTracer, MissesResetTheHitRecord) {
  const IndexedMesh m(kxtest::makeLatLongSphere(16, 32));
  RayTracer tracer(m.octree, m.tris, &m.mesh);
  ASSERT_TRUE(tracer.intersect(PointFlt(0.01f, 0.02f, -3), Vector(0, 0, 2)));
  EXPECT_NEAR(tracer.intersectionDist(), 2.0, 5e-3);  // distance, not the parameter 1
  EXPECT_GE(tracer.intersectionTriangle(), 0);
  EXPECT_FALSE(tracer.intersect(PointFlt(0.01f, 0.02f, -3), Vector(0, 0, -1)));
  EXPECT_EQ(tracer.intersectionTriangle(), -1);
  EXPECT_EQ(tracer.intersectionDist(), kxGeom::Ray::kNoHit);
  EXPECT_FALSE(tracer.intersect(PointFlt(0, 3, -3), Vector(0, 0, 1)));  // passes beside
}

TEST(RayTracer, FacesBehindTheOriginAndEdgeOnFacesAreNeverHit) {
  CullDistanceGuard guard;
  kxGeom::setBackfaceCullDistance(-100);  // back faces behind the origin would count
  // Nine vertices: the octree is a single leaf, so every ray below tests
  // every triangle of the grid (z = 0, facing +z).
  const IndexedMesh m(kxtest::makeGrid(2, 2));
  ASSERT_EQ(m.octree.numLeaves, 1);
  RayTracer tracer(m.octree, m.tris, &m.mesh);
  EXPECT_FALSE(tracer.intersect(PointFlt(0.5f, 0.75f, -0.5f), Vector(0, 0.1, -1)));  // front face
  EXPECT_FALSE(tracer.intersect(PointFlt(0.5f, 0.75f, 0.5f), Vector(0.1, 0, 1)));    // back face
  EXPECT_FALSE(tracer.intersect(PointFlt(-0.5f, 0.75f, 0), Vector(1, 0.2, 0)));      // edge-on
  ASSERT_TRUE(tracer.intersect(PointFlt(0.5f, 0.75f, 0.5f), Vector(0, 0, -1)));
  EXPECT_NEAR(tracer.intersectionDist(), 0.5, 1e-7);
}

TEST(RayTracer, BackFacesFromInsideASphereObeyTheCullDistance) {
  CullDistanceGuard guard;
  std::mt19937 rng(83);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  const IndexedMesh m(kxtest::makeLatLongSphere(24, 48));
  RayTracer tracer(m.octree, m.tris, &m.mesh);
  const PointFlt o(-0.15f, 0.1f, 0.2f);
  // Unit directions: every hit is a back face at t in about [0.7, 1.3].
  for (const double cull : {0.5, 1.0, 1.5}) {
    kxGeom::setBackfaceCullDistance(cull);
    int hits = 0;
    for (int i = 0; i < 400; ++i) {
      const Vector d = kxLinear::normalized(Vector(unit(rng), unit(rng), unit(rng)));
      const bool hit = tracer.intersect(o, d);
      const auto oracle = kxtest::bruteForceRay(m.mesh, Point(o), d, cull, kMinT);
      ASSERT_TRUE(oracle.accepts(hit, tracer.intersectionDist(), 1e-6));
      hits += hit;
    }
    if (cull < 0.6) {
      EXPECT_EQ(hits, 400);
    } else if (cull > 1.4) {
      EXPECT_EQ(hits, 0);
    }
  }
}

}  // namespace
