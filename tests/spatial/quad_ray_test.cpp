// Four-ray packets on exact hand-built cases: edges and corners, edge-on and
// behind-origin triangles, the back-face cull rule, and the tracer's walks.
// Random packets against brute force live in the laid-out walks test.
#include <kxgeom/quad_ray.h>

#include <gtest/gtest.h>

#include "spatial/ray_oracle.h"
#include "spatial/slab_oracle.h"
#include "support/test_meshes.h"

#include <array>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

using kxGeom::BoundingBox;
using kxGeom::CompactMesh;
using kxGeom::MeshTriangle;
using kxGeom::MeshVertex;
using kxGeom::OctreeQuadRayIntersectIt;
using kxGeom::QuadRay;
using kxGeom::QuadRayTracer;
using kxLinear::Point;
using kxLinear::PointFlt;
using kxLinear::Vector;
using kxLinear::VectorFlt;
using kxtest::IndexedMesh;

constexpr float kMaxFloat = 3.4028235e38f;

// Restores the class-wide cull distance whatever a test sets.
struct QuadCullGuard {
  ~QuadCullGuard() { QuadRay::setBackfaceCullDistance(kxLinear::epsilonTolFlt); }
};

using Directions = std::array<VectorFlt, 4>;

QuadRay makePacket(const PointFlt& origin, const Directions& d, bool nearestHit) {
  return QuadRay(origin, d[0], d[1], d[2], d[3], nearestHit);
}

// Points and vectors share one type per precision.
Point wide(const PointFlt& p) { return Point(p); }

// --- Packet against triangles -------------------------------------------------

// An axis-aligned right triangle in the plane z = `z`, its legs 4 long, wound
// so that a ray along +z meets its back (`backFacingPlusZ`) or its front.
struct PlaneTriangle {
  std::vector<MeshVertex> vertices;
  MeshTriangle triangle;
};

PlaneTriangle triangleAtZ(float z, bool backFacingPlusZ) {
  PlaneTriangle p;
  p.vertices = {{-1, -1, z}, {3, -1, z}, {-1, 3, z}};
  p.triangle = backFacingPlusZ ? MeshTriangle{{0, 1, 2}} : MeshTriangle{{0, 2, 1}};
  return p;
}

const Directions kAlongZ = {VectorFlt(0, 0, 1), VectorFlt(0.1f, 0, 1), VectorFlt(0, 0.1f, 1),
                            VectorFlt(0.1f, 0.1f, 1)};

TEST(QuadRayTriangles, EdgesAndCornersCountAsInside) {
  // The front-facing triangle is wound (-1, -1), (-1, 3), (3, -1) at z = 2.
  // Rays through its corners (u = v = 0; u = det; v = det) and a point of the
  // hypotenuse (u + v = det) hit; rays just outside miss. All arithmetic is
  // exact in float.
  const PlaneTriangle tri = triangleAtZ(2, false);
  QuadRay onBoundary = makePacket(
      PointFlt(0, 0, 0),
      {VectorFlt(-1, -1, 2), VectorFlt(-1, 3, 2), VectorFlt(3, -1, 2), VectorFlt(1, 1, 2)}, true);
  onBoundary.intersect(tri.triangle, tri.vertices.data());
  EXPECT_EQ(onBoundary.hitMask(), 15u);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(onBoundary.triIntersectionRayParam(k), 1.0f);
  const float past = 1.0078125f;
  QuadRay outside = makePacket(PointFlt(0, 0, 0),
                               {VectorFlt(-past, -1, 2), VectorFlt(-1, 3 * past, 2),
                                VectorFlt(3 * past, -1, 2), VectorFlt(past, 1, 2)},
                               true);
  outside.intersect(tri.triangle, tri.vertices.data());
  EXPECT_EQ(outside.hitMask(), 0u);
}

TEST(QuadRayTriangles, EdgeOnTrianglesNeverHit) {
  QuadCullGuard guard;
  QuadRay::setBackfaceCullDistance(-100.0f);  // no cull rule may mask the result
  // The triangle lies in y = 0; every ray of the packet runs inside that
  // plane straight through the triangle's interior, or within 1e-9 of it.
  const std::vector<MeshVertex> v = {{-1, 0, -1}, {1, 0, -1}, {0, 0, 1}};
  for (const MeshTriangle tri : {MeshTriangle{{0, 1, 2}}, MeshTriangle{{0, 2, 1}}}) {
    QuadRay packet = makePacket(PointFlt(-5, 0, 0),
                                {VectorFlt(1, 0, 0), VectorFlt(1, 0, 0.05f), VectorFlt(1, 1e-9f, 0),
                                 VectorFlt(1, -1e-9f, -0.05f)},
                                true);
    packet.intersect(tri, v.data());
    EXPECT_EQ(packet.hitMask(), 0u);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(packet.triIntersectionRayParam(k), kMaxFloat);
  }
  // The same triangle crossed at a proper angle is hit: the misses above are
  // due to the angle alone.
  QuadRay across = makePacket(
      PointFlt(0, -5, 0),
      {VectorFlt(0, 1, 0), VectorFlt(0.01f, 1, 0), VectorFlt(0, 1, 0.01f), VectorFlt(0, 1, -0.01f)},
      true);
  across.intersect(MeshTriangle{{0, 1, 2}}, v.data());
  EXPECT_EQ(across.hitMask(), 15u);
  // One lane crossing, three running parallel to the plane: only it hits.
  QuadRay mixed = makePacket(
      PointFlt(0, -5, 0),
      {VectorFlt(0, 1, 0), VectorFlt(1, 0, 0), VectorFlt(0, 0, 1), VectorFlt(1, 0, 1)}, true);
  mixed.intersect(MeshTriangle{{0, 1, 2}}, v.data());
  EXPECT_EQ(mixed.hitMask(), 1u);
  EXPECT_NEAR(across.triIntersectionRayParam(0), 5.0f, 1e-5f);
}

TEST(QuadRayTriangles, TrianglesBehindOrAtTheOriginNeverHit) {
  QuadCullGuard guard;
  for (float cull : {1e-6f, -100.0f}) {
    QuadRay::setBackfaceCullDistance(cull);
    for (bool back : {false, true}) {
      const PlaneTriangle behind = triangleAtZ(-2, back), touching = triangleAtZ(0, back);
      QuadRay packet = makePacket(PointFlt(0, 0, 0), kAlongZ, true);
      packet.intersect(behind.triangle, behind.vertices.data());
      packet.intersect(touching.triangle, touching.vertices.data());
      EXPECT_EQ(packet.hitMask(), 0u) << "cull " << cull << " back " << back;
      // Reversing the rays turns the triangle at z = -2 into a hit at t = 2.
      QuadRay reversed = makePacket(
          PointFlt(0, 0, 0),
          {kAlongZ[0] * -1.0f, kAlongZ[1] * -1.0f, kAlongZ[2] * -1.0f, kAlongZ[3] * -1.0f}, true);
      reversed.intersect(behind.triangle, behind.vertices.data());
      EXPECT_EQ(reversed.hitMask(), 15u);
      EXPECT_NEAR(reversed.triIntersectionRayParam(0), 2.0f, 1e-6f);
    }
  }
}

TEST(QuadRayTriangles, BackFacesCountOnlyAtOrBeyondTheCullDistance) {
  QuadCullGuard guard;
  EXPECT_EQ(QuadRay::backfaceCullDistance(), kxLinear::epsilonTolFlt);
  // Along +z the back face at z = 2 is met at exactly t = 2 (all exact in
  // float), so the inclusive boundary can be probed.
  const PlaneTriangle back = triangleAtZ(2, true), front = triangleAtZ(2, false);
  const Directions straight = {kAlongZ[0], kAlongZ[0], kAlongZ[0], kAlongZ[0]};
  struct Case {
    float cull;
    bool backHit;
  };
  for (const Case c : {Case{3.0f, false}, Case{std::nextafter(2.0f, 3.0f), false}, Case{2.0f, true},
                       Case{1.0f, true}}) {
    QuadRay::setBackfaceCullDistance(c.cull);
    EXPECT_EQ(QuadRay::backfaceCullDistance(), c.cull);
    QuadRay packet = makePacket(PointFlt(0, 0, 0), straight, true);
    packet.intersect(back.triangle, back.vertices.data());
    EXPECT_EQ(packet.hitMask(), c.backHit ? 15u : 0u) << "cull " << c.cull;
    EXPECT_EQ(packet.triIntersectionRayParam(0), c.backHit ? 2.0f : kMaxFloat);
    // Front faces ignore the cull distance.
    QuadRay frontPacket = makePacket(PointFlt(0, 0, 0), straight, true);
    frontPacket.intersect(front.triangle, front.vertices.data());
    EXPECT_EQ(frontPacket.hitMask(), 15u);
  }
}

TEST(QuadRayState, FreshPacketAndMeanDirection) {
  const Directions d = {VectorFlt(1, 2, 3), VectorFlt(-4, 0.5f, 2), VectorFlt(0, 0, -1),
                        VectorFlt(7, -3, 0.25f)};
  const QuadRay packet = makePacket(PointFlt(1, 2, 3), d, true);
  EXPECT_EQ(packet.hitMask(), 0u);
  for (int k = 0; k < 4; ++k) {
    EXPECT_FALSE(packet.triHit(k));
    EXPECT_EQ(packet.triIntersectionRayParam(k), kMaxFloat);
  }
  const VectorFlt mean = packet.meanDirection();
  EXPECT_FLOAT_EQ(mean.x, 1.0f);
  EXPECT_FLOAT_EQ(mean.y, -0.125f);
  EXPECT_FLOAT_EQ(mean.z, 1.0625f);
}

// --- Packet against boxes ---------------------------------------------------------

// --- Leaf walk ----------------------------------------------------------------

TEST(OctreeQuadRayIntersectIt, OrderedWalkVisitsLeavesFrontToBack) {
  const IndexedMesh m(kxtest::makeRandomMesh(400, 800, 29));
  std::mt19937 rng(31);
  OctreeQuadRayIntersectIt leaves(m.octree);
  int steps = 0;
  for (int i = 0; i < 200; ++i) {
    const PointFlt o = kxtest::randomOrigin(m.box, i % 2 == 0, rng);
    const VectorFlt d = kxtest::randomPointInBox(m.box, 1.0f, rng) - o;
    QuadRay packet = makePacket(o, {d, d, d, d}, true);
    double previousEntry = -1e300;
    for (leaves.reset(packet, true); leaves.valid(); leaves.next()) {
      double t0, t1;
      if (!kxtest::slabInterval(wide(o), wide(d), leaves.get().getBox(), 1e-4, t0, t1)) continue;
      EXPECT_GE(std::max(t0, 0.0), previousEntry - 1e-3) << "packet " << i;
      previousEntry = std::max(previousEntry, std::max(t0, 0.0));
      ++steps;
    }
  }
  EXPECT_GT(steps, 1000);
}

// --- Tracer ---------------------------------------------------------------------

TEST(QuadRayTracer, AxisAlignedRaysInOctreeSplitPlanesStillHit) {
  // The sphere's octree splits at x = 0, y = 0 and z = 0; these rays run
  // inside those planes with zero direction components.
  const IndexedMesh m(kxtest::makeLatLongSphere(24, 48));
  QuadRayTracer tracer(m.octree, m.tris, &m.mesh);
  QuadRay packet = makePacket(
      PointFlt(0, 0, -3),
      {VectorFlt(0, 0, 1), VectorFlt(0, 0, 1), VectorFlt(0, 0.1f, 1), VectorFlt(0.1f, 0, 1)}, true);
  tracer.intersect(packet);
  EXPECT_EQ(packet.hitMask(), 15u);
  EXPECT_NEAR(packet.triIntersectionRayParam(0), 2.0f, 1e-3f);
  QuadRay sideways = makePacket(
      PointFlt(-3, 0, 0),
      {VectorFlt(1, 0, 0), VectorFlt(1, 0.1f, 0), VectorFlt(1, 0, 0.1f), VectorFlt(1, 0, -0.1f)},
      true);
  tracer.intersect(sideways);
  EXPECT_EQ(sideways.hitMask(), 15u);
  EXPECT_NEAR(sideways.triIntersectionRayParam(0), 2.0f, 1e-2f);
}

}  // namespace
