// Primitive builders: exact layouts where they are fixed, and for every
// shape orientation (signed volume or winding against the written normals)
// and closedness checked by brute force over the triangles.
#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include <kxgeom/primitives.h>

#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxLinear::Point;
using kxLinear::Vector;

constexpr double kPi = 3.14159265358979323846;

Vector triangleCross(const CompactMesh& m, int t) {
  const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
  const Point a = m.getVertices()[tri[0]].asPoint(), b = m.getVertices()[tri[1]].asPoint(),
              c = m.getVertices()[tri[2]].asPoint();
  return kxLinear::cross(b - a, c - a);
}

// Volume and area by the measures (checked against closed forms in their own
// tests), closedness by the topology report taken on positions, so per-face
// vertex copies count as one.
double signedVolume(const CompactMesh& m) { return kxGeom::meshVolume(m); }
double area(const CompactMesh& m) { return kxGeom::meshArea(m); }
bool closedAndConsistent(const CompactMesh& m) {
  const kxGeom::MeshTopologyReport r = kxGeom::meshTopologyReport(m);
  return r.boundaryEdges == 0 && r.nonManifoldEdges == 0 && r.oriented &&
         r.degenerateTriangles == 0;
}

// Every triangle's winding normal points the way its corners' normals do.
void expectWindingMatchesNormals(const CompactMesh& m) {
  ASSERT_NE(m.getNormals(), nullptr);
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const Vector n = triangleCross(m, t);
    if (n.length2() == 0) continue;
    for (int k = 0; k < 3; ++k) {
      const Vector vn = m.getNormals()[m.getTriangles()[t][k]].asVector();
      EXPECT_GT(kxLinear::dot(kxLinear::normalized(n), vn), 0.5) << "triangle " << t;
    }
  }
}

TEST(Primitives, SphereOfResolutionOneIsAnOctahedron) {
  CompactMesh m;
  kxGeom::constructSphere({1, 2, 3}, 2.0f, 1, m);
  ASSERT_EQ(m.getNumVertices(), 6);
  ASSERT_EQ(m.getNumTriangles(), 8);
  const double expected[6][3] = {{1, 2, 5}, {1, 2, 1}, {1, 4, 3}, {3, 2, 3}, {1, 0, 3}, {-1, 2, 3}};
  for (int i = 0; i < 6; ++i) {
    const Point p = m.getVertices()[i].asPoint();
    EXPECT_NEAR(p.x, expected[i][0], 1e-6);
    EXPECT_NEAR(p.y, expected[i][1], 1e-6);
    EXPECT_NEAR(p.z, expected[i][2], 1e-6);
  }
  // Octahedron of circumradius 2 about (1,2,3): volume 4/3 r^3, translation-invariant.
  EXPECT_NEAR(signedVolume(m), 4.0 / 3.0 * 8.0, 1e-5);
  EXPECT_TRUE(closedAndConsistent(m));
}

TEST(Primitives, SphereCountsPositionsNormalsAndOrientation) {
  for (int n = 1; n <= 7; ++n) {
    CompactMesh m;
    const float r = 1.5f;
    const Point c(0.25, -1, 2);
    kxGeom::constructSphere(c, r, n, m);
    const int R = 2 * n - 1, S = 4 * n;
    ASSERT_EQ(m.getNumVertices(), S * R + 2);
    ASSERT_EQ(m.getNumTriangles(), 2 * S * R);
    const kxGeom::MeshNormal* nrm = m.getNormals();
    ASSERT_NE(nrm, nullptr);
    EXPECT_EQ(nrm[0].z, 1.0f);
    EXPECT_EQ(nrm[1].z, -1.0f);
    EXPECT_EQ(m.getVertices()[0].z, float(c.z) + r);
    EXPECT_EQ(m.getVertices()[1].z, float(c.z) - r);
    for (int i = 0; i < m.getNumVertices(); ++i) {
      const Vector d = m.getVertices()[i].asPoint() - c;
      ASSERT_NEAR(d.length(), r, 1e-5) << i;
      ASSERT_NEAR((d / r - nrm[i].asVector()).length(), 0, 1e-5) << i;
    }
    // Ring i segment j from the closed-form angles.
    const double h = kPi / (2 * n);
    for (int i = 0; i < R; ++i) {
      for (int j = 0; j < S; j += std::max(1, S / 3)) {
        const kxGeom::MeshNormal& q = nrm[2 + i * S + j];
        EXPECT_NEAR(q.x, std::sin(j * h) * std::sin((i + 1) * h), 1e-5);
        EXPECT_NEAR(q.y, std::cos(j * h) * std::sin((i + 1) * h), 1e-5);
        EXPECT_NEAR(q.z, std::cos((i + 1) * h), 1e-5);
      }
    }
    EXPECT_TRUE(closedAndConsistent(m)) << n;
    for (int t = 0; t < m.getNumTriangles(); ++t) {
      const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
      const Point centroid = kxLinear::combine(m.getVertices()[tri[0]].asPoint(), 1.0 / 3,
                                               m.getVertices()[tri[1]].asPoint(), 1.0 / 3,
                                               m.getVertices()[tri[2]].asPoint(), 1.0 / 3);
      ASSERT_GT(kxLinear::dot(triangleCross(m, t), centroid - c), 0) << "inward triangle " << t;
    }
    const double ball = 4.0 / 3.0 * kPi * r * r * r;
    EXPECT_LT(signedVolume(m), ball);
    if (n >= 6) {
      EXPECT_GT(signedVolume(m), 0.95 * ball);
    }
  }
  CompactMesh m;
  kxGeom::constructSphere({0, 0, 0}, 1, 2, m);
  const int S = 8, R = 3;
  EXPECT_EQ(m.getTriangles()[0][0], 0);
  EXPECT_EQ(m.getTriangles()[0][1], 2);
  EXPECT_EQ(m.getTriangles()[0][2], 2 + S - 1);
  const kxGeom::MeshTriangle& last = m.getTriangles()[2 * S * R - 1];
  EXPECT_EQ(last[0], 2 + (R - 1) * S + S - 1);
  EXPECT_EQ(last[1], 1);
  EXPECT_EQ(last[2], 2 + (R - 1) * S + S - 2);
}

TEST(Primitives, CuboidLayoutNormalsAndVolume) {
  const float b[3][2] = {{-1, 2}, {0.5f, 1}, {-3, -2.5f}};
  CompactMesh m;
  kxGeom::constructCuboid(b, m);
  ASSERT_EQ(m.getNumVertices(), 24);
  ASSERT_EQ(m.getNumTriangles(), 12);
  const int codes[24] = {1, 5, 3, 7, 4, 0, 6, 2, 2, 3, 6, 7, 4, 5, 0, 1, 5, 4, 7, 6, 0, 1, 2, 3};
  for (int k = 0; k < 24; ++k) {
    const kxGeom::MeshVertex& v = m.getVertices()[k];
    EXPECT_EQ(v.x, b[0][codes[k] & 1]) << k;
    EXPECT_EQ(v.y, b[1][(codes[k] >> 1) & 1]) << k;
    EXPECT_EQ(v.z, b[2][(codes[k] >> 2) & 1]) << k;
    const kxGeom::MeshNormal& n = m.getNormals()[k];
    const float sign = (k % 8) < 4 ? 1.0f : -1.0f;
    EXPECT_EQ((&n.x)[k / 8], sign) << k;
    EXPECT_EQ((&n.x)[(k / 8 + 1) % 3], 0.0f) << k;
    EXPECT_EQ((&n.x)[(k / 8 + 2) % 3], 0.0f) << k;
  }
  for (int f = 0; f < 6; ++f) {
    const kxGeom::MeshTriangle& t0 = m.getTriangles()[2 * f];
    const kxGeom::MeshTriangle& t1 = m.getTriangles()[2 * f + 1];
    EXPECT_EQ(t0[0], 4 * f + 2);
    EXPECT_EQ(t0[2], 4 * f);
    EXPECT_EQ(t1[2], 4 * f + 3);
  }
  EXPECT_NEAR(signedVolume(m), 3.0 * 0.5 * 0.5, 1e-6);
  EXPECT_TRUE(closedAndConsistent(m));
  expectWindingMatchesNormals(m);

  const float flat[3][2] = {{0, 1}, {0, 1}, {2, 2}};
  kxGeom::constructCuboid(flat, m);
  EXPECT_EQ(m.getNumVertices(), 24);
  EXPECT_EQ(m.getNumTriangles(), 12);
  EXPECT_NEAR(signedVolume(m), 0.0, 1e-6);
  EXPECT_NEAR(area(m), 2.0, 1e-6);  // top and bottom remain, sides collapse

  const float range[2] = {-0.5f, 0.5f};
  CompactMesh cube, cuboid;
  kxGeom::constructCube(range, cube);
  const float same[3][2] = {{-0.5f, 0.5f}, {-0.5f, 0.5f}, {-0.5f, 0.5f}};
  kxGeom::constructCuboid(same, cuboid);
  for (int k = 0; k < 24; ++k)
    EXPECT_EQ(cube.getVertices()[k].asPoint(), cuboid.getVertices()[k].asPoint());
  EXPECT_NEAR(signedVolume(cube), 1.0, 1e-6);
}

TEST(Primitives, FlatShapesFaceTheirNormalsWithExpectedArea) {
  CompactMesh m;
  kxGeom::constructDisk({1, 1, 4}, 2.0f, 64, 3, m);
  EXPECT_EQ(m.getNumVertices(), 1 + 64 * 3);
  EXPECT_EQ(m.getNumTriangles(), 64 * 5);
  expectWindingMatchesNormals(m);
  EXPECT_NEAR(area(m), 0.5 * 64 * 4 * std::sin(2 * kPi / 64), 1e-4);
  ASSERT_NE(m.getUVs(), nullptr);
  for (int i = 0; i < m.getNumVertices(); ++i) {
    const kxGeom::MeshVertex& v = m.getVertices()[i];
    EXPECT_NEAR(m.getUVs()[i].u, 0.5 + (v.x - 1) / 4, 1e-5);
    EXPECT_NEAR(m.getUVs()[i].v, 0.5 + (v.y - 1) / 4, 1e-5);
  }

  for (double sweep : {kPi / 2, -kPi / 3}) {
    kxGeom::constructAnnularArc(2.0f, 1.0f, sweep, 32, m);
    EXPECT_EQ(m.getNumTriangles(), 64);
    expectWindingMatchesNormals(m);
    const double exact = 0.5 * std::abs(sweep) * (4 - 1);
    EXPECT_NEAR(area(m), exact, 0.01 * exact);
  }
  const int before = m.getModificationCount();
  kxGeom::updateAnnularArc(1.0f, 3.0f, kPi, m);
  EXPECT_EQ(m.getModificationCount(), before + 1);
  EXPECT_EQ(m.getLastModificationType(), kxGeom::MeshModification::PositionsChanged);
  expectWindingMatchesNormals(m);
  EXPECT_NEAR(area(m), 0.5 * kPi * 8, 0.01 * 4 * kPi);

  const float lo[2] = {1, 2}, hi[2] = {4, 3}, uvLo[2] = {0, 0}, uvHi[2] = {2, 1};
  kxGeom::constructRectangle(lo, hi, 5.0f, 3, m, true, uvLo, uvHi);
  EXPECT_EQ(m.getNumVertices(), 16);
  EXPECT_EQ(m.getNumTriangles(), 18);
  EXPECT_NEAR(area(m), 3.0, 1e-6);
  expectWindingMatchesNormals(m);
  EXPECT_EQ(m.getUVs()[15].u, 2.0f);
  EXPECT_FLOAT_EQ(m.getUVs()[1].u, 2.0f / 3);
  EXPECT_FLOAT_EQ(m.getUVs()[4].v, 1.0f / 3);
  EXPECT_EQ(m.getVertices()[15].x, 4.0f);

  const float mirroredMin[2] = {4, 2}, mirroredMax[2] = {-1, 3};  // x reversed: faces -z
  kxGeom::constructRectangle(mirroredMin, mirroredMax, 0.0f, 2, m, true);
  expectWindingMatchesNormals(m);
  EXPECT_LT(m.getNormals()[0].z, 0);

  const float centre[2] = {0.5f, -0.5f};
  kxGeom::constructSquare(centre, 2.0f, 4, m, false);
  EXPECT_EQ(m.getNormals(), nullptr);
  EXPECT_NEAR(area(m), 4.0, 1e-6);
  for (int t = 0; t < m.getNumTriangles(); ++t) EXPECT_GT(triangleCross(m, t).z, 0);

  kxGeom::constructRectangle(kxLinear::ParamPlane({0, 0, 0}, {0, 2, 0}, {0, 0, 3}), m);
  EXPECT_NEAR(area(m), 6.0, 1e-6);
  expectWindingMatchesNormals(m);
  EXPECT_EQ(m.getNormals()[0].x, 1.0f);

  const float corner[3] = {0, 0, 1}, uEnd[3] = {0, 0, 0}, vEnd[3] = {1, 0, 1};
  kxGeom::constructRectangularCorner(corner, uEnd, vEnd, m, true, uvLo, uvHi);
  EXPECT_NEAR(area(m), 1.0, 1e-6);
  expectWindingMatchesNormals(m);
  EXPECT_EQ(m.getNormals()[0].y, -1.0f);  // (0,0,-1) x (1,0,0) = (0,-1,0)
  EXPECT_EQ(m.getUVs()[3].u, 2.0f);
  kxGeom::BoundingBox cornerBox;
  kxGeom::meshBoundingBox(m, cornerBox);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(cornerBox[k], k % 3 == 1 ? 0.0f : k / 3);
}

TEST(Primitives, TopologicalShapesAreClosedOrLinkedAsExpected) {
  kxGeom::TopoMesh cube;
  const float range[2] = {-1, 2};
  kxGeom::constructQuadCube(range, cube);
  ASSERT_EQ(cube.getNumFaces(), 6);
  for (int h = 0; h < cube.halfEdgeSlots(); ++h) {
    EXPECT_TRUE(cube.twin(kxGeom::TopoMeshHalfEdge(h)).isValid());
  }
  CompactMesh tri;
  cube.toCompactMesh(tri);
  EXPECT_NEAR(signedVolume(tri), 27.0, 1e-6);
  EXPECT_TRUE(closedAndConsistent(tri));

  kxGeom::TopoMesh grid;
  const float lo[2] = {0, 0}, hi[2] = {3, 3};
  kxGeom::constructRectangle(lo, hi, 1.0f, 3, grid);
  EXPECT_EQ(grid.getNumFaces(), 9);
  int twinned = 0;
  for (int h = 0; h < grid.halfEdgeSlots(); ++h) {
    twinned += grid.twin(kxGeom::TopoMeshHalfEdge(h)).isValid();
  }
  EXPECT_EQ(twinned, 2 * 12);  // 3x3 quads: 12 interior edges
  const float centre[2] = {0, 0};
  kxGeom::constructSquare(centre, 2.0f, 2, grid);
  grid.toCompactMesh(tri);
  EXPECT_NEAR(area(tri), 4.0, 1e-9);
  for (int t = 0; t < tri.getNumTriangles(); ++t) EXPECT_GT(triangleCross(tri, t).z, 0);

  for (int level = 0; level <= 3; ++level) {
    const kxLinear::ParamPlane plane({1, 0, 0}, {0, 1, 0}, {0, 0, 1});
    std::unique_ptr<kxGeom::TopoMesh> o(kxGeom::constructSubdividedOctahedron(plane, level, 2.0));
    ASSERT_EQ(o->getNumFaces(), 8 << (2 * level));
    o->toCompactMesh(tri);
    EXPECT_TRUE(closedAndConsistent(tri));
    for (int i = 0; i < tri.getNumVertices(); ++i) {
      EXPECT_NEAR((tri.getVertices()[i].asPoint() - Point(1, 0, 0)).length(), 2.0, 1e-6);
    }
    const double vol = signedVolume(tri);
    EXPECT_GE(vol, 4.0 / 3.0 * 8 - 1e-5);
    EXPECT_LT(vol, 4.0 / 3.0 * kPi * 8);
  }
}

TEST(Primitives, LineShapes) {
  CompactMesh m;
  kxGeom::constructCircle({0, 0, 1}, 2.0f, 12, 0, m);
  ASSERT_EQ(m.getNumLineStrips(), 1);
  ASSERT_EQ(m.getLineStripLengths()[0], 13);
  EXPECT_EQ(m.getLineStripPoints()[12], 0);
  double turn = 0;  // signed area seen from +x: counter-clockwise
  for (int i = 0; i < 12; ++i) {
    const kxGeom::MeshVertex& a = m.getVertices()[i];
    const kxGeom::MeshVertex& b = m.getVertices()[(i + 1) % 12];
    EXPECT_NEAR(a.x, 0, 1e-6);
    EXPECT_NEAR(std::hypot(a.y, a.z - 1), 2, 1e-5);
    turn += double(a.y) * (b.z - 1) - double(b.y) * (a.z - 1);
  }
  EXPECT_NEAR(0.5 * turn, 0.5 * 12 * 4 * std::sin(2 * kPi / 12), 1e-4);

  kxGeom::constructArc({0, 0, 0}, 1.0f, 0.0f, float(kPi), 4, 2, m);
  ASSERT_EQ(m.getNumVertices(), 5);
  EXPECT_EQ(m.getLineStripLengths()[0], 5);
  EXPECT_NEAR(m.getVertices()[2].y, 1.0, 1e-6);
  EXPECT_NEAR(m.getVertices()[4].x, -1.0, 1e-6);

  kxGeom::constructLineSegment(kxLinear::ParamLine({0, 0, 0}, {2, 4, 6}), m, 0.5f, 1.0f);
  ASSERT_EQ(m.getNumLines(), 1);
  EXPECT_EQ(m.getVertices()[0].asPoint(), Point(1, 2, 3));
  EXPECT_EQ(m.getVertices()[1].asPoint(), Point(2, 4, 6));

  const kx::vector<kxLinear::Point2> square = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  kx::Reference<CompactMesh> strip = kxGeom::constructLineStrip(square, true);
  ASSERT_EQ(strip->getNumVertices(), 4);
  ASSERT_EQ(strip->getNumLineStrips(), 1);
  ASSERT_EQ(strip->getLineStripLengths()[0], 5);
  EXPECT_EQ(strip->getLineStripPoints()[4], 0);
  EXPECT_EQ(strip->getVertices()[2].asPoint(), Point(1, 1, 0));
  const kx::vector<Point> open = {{1, 2, 3}, {4, 5, 6}};
  strip = kxGeom::constructLineStrip(open, false);
  EXPECT_EQ(strip->getLineStripLengths()[0], 2);
  EXPECT_EQ(kxGeom::constructLineStrip(kx::vector<kxLinear::Point2Flt>(), true)->getNumLineStrips(),
            0);
  CompactMesh copy = *strip;  // a copy is a fresh, uncounted mesh
  EXPECT_EQ(copy.referenceCount(), 0);
  EXPECT_EQ(strip->referenceCount(), 1);

  kx::Reference<CompactMesh> line =
      kxGeom::constructInfiniteLine(kxLinear::Line({1, 1, 1}, {0, 0, 2}));
  ASSERT_EQ(line->getNumLines(), 1);
  EXPECT_NEAR(line->getVertices()[0].z, 1 - kxGeom::kInfiniteLineHalfLength, 1e-1);
  EXPECT_NEAR(line->getVertices()[1].z, 1 + kxGeom::kInfiniteLineHalfLength, 1e-1);
  EXPECT_EQ(line->getVertices()[1].x, 1.0f);

  kxGeom::constructBoxEdgeLineStrips(kxGeom::BoundingBox(0.f, 0.f, 0.f, 1.f, 2.f, 3.f), m);
  ASSERT_EQ(m.getNumVertices(), 8);
  ASSERT_EQ(m.getNumLineStrips(), 6);
  // Every strip segment is a box edge: exactly one coordinate changes, and
  // all twelve edges appear once.
  std::map<std::pair<int, int>, int> seen;
  const int* pts = m.getLineStripPoints();
  for (int s = 0, at = 0; s < 6; at += m.getLineStripLengths()[s++]) {
    for (int k = 0; k + 1 < m.getLineStripLengths()[s]; ++k) {
      const int a = pts[at + k], b = pts[at + k + 1];
      EXPECT_EQ(__builtin_popcount(a ^ b), 1);
      ++seen[{std::min(a, b), std::max(a, b)}];
    }
  }
  EXPECT_EQ(seen.size(), 12u);
  for (const auto& e : seen) EXPECT_EQ(e.second, 1);
}

TEST(Primitives, SizesBeyondTheIndexRangeAreRefusedAndLeaveTheMesh) {
  const float lo[2] = {0, 0}, hi[2] = {1, 1};
  const std::vector<std::function<void(CompactMesh&)>> builders{
      [](CompactMesh& m) { kxGeom::constructSphere(Point(), 1, 16384, m); },
      [](CompactMesh& m) { kxGeom::constructDisk(Point(), 1, 1 << 16, 1 << 15, m); },
      [](CompactMesh& m) { kxGeom::constructCircle(Point(), 1, INT_MAX, 2, m); },
      [](CompactMesh& m) { kxGeom::constructAnnularArc(1, 2, 1, INT_MAX / 2, m); },
      [&](CompactMesh& m) { kxGeom::constructRectangle(lo, hi, 0, 46341, m, false); },
  };
  for (const auto& build : builders) {
    CompactMesh m = kxtest::makeGrid(1, 1);
    kxtest::LogCapture log;
    build(m);
    EXPECT_EQ(m.getNumTriangles(), 2);
    EXPECT_EQ(log.lines().size(), 1u);
  }
  kxGeom::TopoMesh grid;
  kxGeom::constructSquare(lo, 1, 2, grid);
  kxtest::LogCapture log;
  kxGeom::constructRectangle(lo, hi, 0, 46341, grid);
  EXPECT_EQ(grid.getNumFaces(), 4);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Primitives, ConvexPolygonFacesUpWhateverTheBoundaryDirection) {
  // A regular hexagon of circumradius 2, given both ways round and with an
  // explicit closing vertex: area 6*sqrt(3), four triangles facing +z.
  kx::vector<kxLinear::Point2> ring;
  for (int k = 0; k <= 6; ++k) {
    const double a = 3.14159265358979323846 * k / 3;
    ring.push_back({2 * std::cos(a), 2 * std::sin(a)});
  }
  ring.back() = ring.front();
  for (bool reversed : {false, true}) {
    kx::vector<kxLinear::Point2> points = ring;
    if (reversed) std::reverse(points.begin(), points.end());
    const auto mesh = kxGeom::constructPolygonFromConvexBoundary(kxGeom::Polyline2d(points, true));
    ASSERT_EQ(mesh->getNumVertices(), 6);
    ASSERT_EQ(mesh->getNumTriangles(), 4);
    EXPECT_NEAR(area(*mesh), 6 * std::sqrt(3.0), 1e-5);
    expectWindingMatchesNormals(*mesh);
  }
  const auto segment =
      kxGeom::constructPolygonFromConvexBoundary(kxGeom::Polyline2d({{0, 0}, {1, 0}}, false));
  EXPECT_EQ(segment->getNumTriangles(), 0);
}

}  // namespace
