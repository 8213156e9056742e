// Winding consistency, over-shared edges and pinched vertices, their repairs,
// and the winding reversals, on hand-made cases with known answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include <kxgeom/adjacency.h>
#include <kxgeom/orientation.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

MeshAdjTris adjacencyOf(const CompactMesh& m) {
  MeshAdjTris adj;
  meshAdjTris(m, adj);
  return adj;
}

std::vector<int> cornersOf(const CompactMesh& m) {
  return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

// Two spheres in one mesh, the second's triangles after the first's.
CompactMesh twoSpheres() {
  const CompactMesh a = kxtest::makeLatLongSphere(6, 8), b = kxtest::makeLatLongSphere(5, 7);
  std::vector<MeshVertex> v(a.getVertices(), a.getVertices() + a.getNumVertices());
  v.insert(v.end(), b.getVertices(), b.getVertices() + b.getNumVertices());
  std::vector<int> c = cornersOf(a);
  for (int i : cornersOf(b)) c.push_back(i + a.getNumVertices());
  return kxtest::meshFrom(v, c);
}

// A band of `n` quads closed into a loop, with a half twist when `mobius`.
CompactMesh band(int n, bool mobius) {
  std::vector<MeshVertex> v;
  for (int i = 0; i < n; ++i) v.push_back({float(i), 0, 0}), v.push_back({float(i), 1, 0});
  std::vector<int> c;
  for (int i = 0; i < n; ++i) {
    const int a = 2 * i, b = 2 * i + 1;
    int d = (2 * i + 2) % (2 * n), e = (2 * i + 3) % (2 * n);
    if (mobius && i == n - 1) std::swap(d, e);
    c.insert(c.end(), {a, d, e, a, e, b});
  }
  return kxtest::meshFrom(v, c);
}

TEST(Orientation, FlippedTrianglesFollowTheFirstOfTheirComponent) {
  const CompactMesh original = twoSpheres();
  CompactMesh m = original;
  std::mt19937 rng(4);
  for (int t = 1; t < m.getNumTriangles(); ++t) {
    if (rng() % 3 == 0 && t != 80) std::swap(m.getTriangles()[t][1], m.getTriangles()[t][2]);
  }
  const MeshAdjTris adj = adjacencyOf(m);
  EXPECT_TRUE(meshOriented(original, adj));
  EXPECT_FALSE(meshOriented(m, adj));
  const int notices = m.getModificationCount();
  MeshOrient orient(m, adj);
  EXPECT_FALSE(orient.isOrientable());
  orient.orient();
  EXPECT_TRUE(orient.isOriented());
  EXPECT_TRUE(orient.isOrientable());
  EXPECT_EQ(cornersOf(m), cornersOf(original));  // 80 is the second sphere's first triangle
  EXPECT_EQ(m.getModificationCount(), notices + 1);
  EXPECT_EQ(m.getLastModificationType(), 1);
  orient.orient();  // nothing left to do: no second notice
  EXPECT_EQ(m.getModificationCount(), notices + 1);
}

TEST(Orientation, MobiusBandCannotBeOrientedAndReportsItsRegion) {
  CompactMesh ring = band(8, false), strip = band(8, true);
  EXPECT_TRUE(meshOriented(ring, adjacencyOf(ring)));
  const MeshAdjTris adj = adjacencyOf(strip);
  EXPECT_FALSE(meshMakeOriented(strip, adj));
  MeshOrient again(strip, adj);
  again.orient();
  EXPECT_FALSE(again.isOrientable());
  EXPECT_EQ(again.getAffectedTriangles().countSetBits(), strip.getNumTriangles());
  // Two copies of one triangle run every edge the same way.
  CompactMesh twice = kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {0, 1, 2, 1, 2, 0});
  EXPECT_FALSE(meshOriented(twice, adjacencyOf(twice)));
}

TEST(Manifold, OversharedEdgeKeepsThePagesWithBusiestOppositeVertices) {
  // Pages (0,1,2), (1,0,3), (0,1,4) on edge 0-1; vertices 3 and 4 carry an
  // extra triangle each, so page 0 goes.
  std::vector<MeshVertex> v(7, MeshVertex{0, 0, 0});
  CompactMesh m = kxtest::meshFrom(v, {0, 1, 2, 1, 0, 3, 0, 1, 4, 3, 5, 6, 4, 6, 5});
  MeshAdjTris adj = adjacencyOf(m);
  MeshManifoldResult result;
  kxtest::LogCapture log;
  meshManifold(m, adj, result);
  ASSERT_EQ(result.badEdges.size(), 1u);
  EXPECT_EQ(result.badEdges[0], std::make_pair(0, 1));
  EXPECT_EQ(result.badVertices.countSetBits(), 0);  // not looked for with bad edges
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[0], "meshManifold:  vertices 7  triangles 5: ",
                                     " s\n               badVertexAdj(0) badEdgeAdj(1)\n"));
  meshMakeManifold(m, adj, result);
  EXPECT_EQ(cornersOf(m), (std::vector<int>{1, 0, 2, 0, 1, 3, 2, 4, 5, 3, 5, 4}));
}

TEST(Manifold, PinchedVerticesSplitOneNewVertexPerExtraFan) {
  // Three fans around vertex 0, listed out of order: component ranks follow
  // the first triangle of each (t0: fan A, t1: fan B, t2: fan A, t3: fan C).
  std::vector<MeshVertex> v;
  for (int i = 0; i < 8; ++i) v.push_back({float(i), float(i * i % 5), 0});
  CompactMesh m = kxtest::meshFrom(v, {0, 1, 2, 0, 4, 5, 0, 2, 3, 0, 6, 7});
  std::fill_n(m.allocUVArray(), 8, kxGeom::MeshUV{7, 7});
  MeshAdjTris adj = adjacencyOf(m);
  MeshManifoldResult result;
  meshManifold(m, adj, result);
  EXPECT_TRUE(result.badEdges.empty());
  EXPECT_EQ(result.badVertices.countSetBits(), 1);
  EXPECT_TRUE(result.badVertices.isBitSet(0));
  meshMakeManifold(m, adj, result);
  ASSERT_EQ(m.getNumVertices(), 10);
  EXPECT_EQ(cornersOf(m), (std::vector<int>{0, 1, 2, 8, 4, 5, 0, 2, 3, 9, 6, 7}));
  EXPECT_EQ(m.getVertices()[9].x, 0.0f);
  EXPECT_TRUE(m.getUVs()[8].u == 0 && m.getUVs()[9].v == 0);  // split copies start blank
  meshMakeManifold(m);                                        // already clean: no change
  EXPECT_EQ(m.getNumVertices(), 10);
  // A star of many triangles sharing only their hub splits completely.
  std::vector<int> star;
  const int n = 20000;
  for (int i = 0; i < n; ++i) star.insert(star.end(), {0, 2 * i + 1, 2 * i + 2});
  CompactMesh hub = kxtest::meshFrom(std::vector<MeshVertex>(2 * n + 1, MeshVertex{0, 0, 0}), star);
  meshMakeManifold(hub);
  EXPECT_EQ(hub.getNumVertices(), 3 * n);
}

TEST(Reversal, WholeSelectedAndConnectedReversalsFlipExactlyWhatTheySay) {
  CompactMesh m = twoSpheres();
  const std::vector<int> original = cornersOf(m);
  m.allocNormalArray();
  for (int v = 0; v < m.getNumVertices(); ++v) m.getNormals()[v] = {1, 2, 3};
  m.allocTriangleNormalArray();
  for (int t = 0; t < m.getNumTriangles(); ++t) m.getTriangleNormals()[t] = {0, 0, 1};
  // Strips of lengths 4 and 5: the 4 has its middle pair swapped, the 5 is
  // reversed. A fan keeps its hub.
  m.resizeTriStripArrays(2, 9);
  std::copy_n(std::vector<int>{4, 5}.data(), 2, m.getTriStripLengths());
  for (int i = 0; i < 9; ++i) m.getTriStripPoints()[i] = i;
  m.resizeTriFanArrays(1, 4);
  m.getTriFanLengths()[0] = 4;
  for (int i = 0; i < 4; ++i) m.getTriFanPoints()[i] = 10 + i;
  kxtest::LogCapture log;
  meshReverseWinding(m, false);
  EXPECT_EQ(m.getNormals()[3].x, 1.0f);
  EXPECT_EQ(m.getTriangleNormals()[3].z, -1.0f);
  EXPECT_EQ(std::vector<int>(m.getTriStripPoints(), m.getTriStripPoints() + 9),
            (std::vector<int>{0, 2, 1, 3, 8, 7, 6, 5, 4}));
  EXPECT_EQ(std::vector<int>(m.getTriFanPoints(), m.getTriFanPoints() + 4),
            (std::vector<int>{10, 13, 12, 11}));
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0], "meshReverseWinding: 136 triangles\n");
  EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[1], "  remapped triangle indices: ", " s\n"));
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    EXPECT_EQ(m.getTriangles()[t][0], original[3 * t + 1]);
    EXPECT_EQ(m.getTriangles()[t][1], original[3 * t]);
  }
  // An even strip longer than 4 is rebuilt with its first index repeated.
  m.resizeTriStripArrays(1, 8);
  m.getTriStripLengths()[0] = 8;
  for (int i = 0; i < 8; ++i) m.getTriStripPoints()[i] = i;
  meshReverseWinding(m, true);
  EXPECT_EQ(cornersOf(m), original);
  EXPECT_EQ(m.getNormals()[3].x, -1.0f);
  ASSERT_EQ(m.getNumTriStripPoints(), 9);
  EXPECT_EQ(m.getTriStripPoints()[0], 0);
  EXPECT_EQ(m.getTriStripPoints()[1], 0);
  // The connected reversal turns only the second sphere, whose vertex
  // normals are negated once each.
  const MeshAdjTris adj = adjacencyOf(m);
  m.clearSelection();
  meshReverseWinding(m, adj, 100);
  EXPECT_EQ(m.getSelectedTriangles().countSetBits(), 56);
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    EXPECT_EQ(m.getTriangles()[t][0], original[3 * t + (t >= 80 ? 1 : 0)]) << t;
  }
  EXPECT_EQ(m.getNormals()[0].x, -1.0f);
  EXPECT_EQ(m.getNormals()[m.getNumVertices() - 1].x, 1.0f);
  EXPECT_TRUE(meshOriented(m, adj));
}

}  // namespace
