// Selection growth against brute-force edge sharing, and deletion that keeps
// every per-element array in step with the survivors.
#include <gtest/gtest.h>

#include <kxgeom/adjacency.h>
#include <kxgeom/mesh_select.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

MeshAdjTris adjacencyOf(const CompactMesh& m) {
  MeshAdjTris adj;
  meshAdjTris(m, adj);
  return adj;
}

bool shareEdge(const MeshTriangle& a, const MeshTriangle& b) {
  int common = 0;
  for (int i = 0; i < 3; ++i) {
    common += (a[i] == b[0] || a[i] == b[1] || a[i] == b[2]) ? 1 : 0;
  }
  return common >= 2;
}

TEST(MeshSelect, GrowthMatchesBruteForceRings) {
  // Two grids side by side that share no vertex: growth stays in one.
  CompactMesh m = kxtest::makeGrid(6, 6);
  const int n = m.getNumVertices(), t = m.getNumTriangles();
  std::vector<int> corners(m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * t);
  for (int i = 0; i < 3 * t; ++i) corners.push_back(corners[i] + n);
  std::vector<MeshVertex> v(m.getVertices(), m.getVertices() + n);
  v.insert(v.end(), v.begin(), v.end());
  CompactMesh two(2 * n, v.data(), nullptr, nullptr, nullptr);
  two.copyTriangles(2 * t, corners.data());
  const MeshAdjTris adj = adjacencyOf(two);
  BitVector verts(2 * n), tris(2 * t), expected(2 * t);
  tris.setBit(20);
  expected.setBit(20);
  MeshSelect select(two, adj, verts, tris);
  for (int ring = 0; ring < 2; ++ring) {
    const BitVector before = expected;
    for (int a = 0; a < 2 * t; ++a) {
      for (int b = 0; b < 2 * t && !expected.isBitSet(a); ++b) {
        if (before.isBitSet(b) && shareEdge(two.getTriangles()[a], two.getTriangles()[b])) {
          expected.setBit(a);
        }
      }
    }
    select.selectTrianglesRecursive(true);
    EXPECT_EQ(tris, expected) << ring;
  }
  select.selectTrianglesRecursive();
  EXPECT_EQ(tris.countSetBits(), t);
  EXPECT_FALSE(tris.isBitSet(t));
  select.selectVerticesFromTriangles();
  EXPECT_EQ(verts.countSetBits(), n);
  // From vertices: the two corners of one edge select its two triangles at
  // count 2, and every triangle around them at count 1.
  BitVector fromVerts(2 * t), edgeVerts(2 * n);
  edgeVerts.setBit(8);
  edgeVerts.setBit(9);
  MeshSelect byVertex(two, adj, edgeVerts, fromVerts);
  byVertex.selectTrianglesFromVertices(2);
  EXPECT_EQ(fromVerts.countSetBits(), 2);
  byVertex.selectTrianglesFromVertices(1);
  EXPECT_EQ(fromVerts.countSetBits(), adj.numTris(8) + adj.numTris(9) - 2);
}

TEST(MeshDeleteSelected, CompactsEveryArrayAndKeepsUsedVertices) {
  CompactMesh m = kxtest::makeGrid(3, 1);  // 8 vertices, 6 triangles
  MeshNormal* normals = m.allocNormalArray();
  MeshUV* uvs = m.allocUVArray();
  for (int v = 0; v < 8; ++v) {
    normals[v] = {float(v), 0, 1};
    uvs[v] = {float(v), float(-v)};
  }
  MeshNormal* triNormals = m.allocTriangleNormalArray();
  for (int t = 0; t < 6; ++t) triNormals[t] = {0, float(t), 1};
  m.resizeLineArray(2);
  m.getLines()[0] = MeshLine{{0, 3}};
  m.getLines()[1] = MeshLine{{4, 7}};
  const std::vector<int> before(m.getTrianglesRaw(), m.getTrianglesRaw() + 18);
  // Delete the first square's triangles; select vertices 0 (then unused),
  // 1 (still used) and 6 (used).
  m.getSelectedTriangles().resize(6);
  m.getSelectedTriangles().setBit(0);
  m.getSelectedTriangles().setBit(1);
  m.getSelectedVertices().resize(8);
  for (int v : {0, 1, 6}) m.getSelectedVertices().setBit(v);
  const int notices = m.getModificationCount();
  Remap vmap, tmap;
  ASSERT_TRUE(MeshDeleteSelected(m).apply(&vmap, &tmap));
  EXPECT_EQ(m.getModificationCount(), notices + 1);
  ASSERT_EQ(m.getNumVertices(), 7);
  ASSERT_EQ(m.getNumTriangles(), 4);
  EXPECT_EQ(vmap(0), -1);
  EXPECT_EQ(tmap(1), -1);
  for (int old = 1; old < 8; ++old) {
    ASSERT_EQ(vmap(old), old - 1);
    EXPECT_EQ(m.getNormals()[old - 1].x, float(old));
    EXPECT_EQ(m.getUVs()[old - 1].v, float(-old));
  }
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(m.getTriangleNormals()[t].y, float(t + 2));
    for (int k = 0; k < 3; ++k) EXPECT_EQ(m.getTriangles()[t][k], before[3 * (t + 2) + k] - 1);
  }
  ASSERT_EQ(m.getNumLines(), 1);  // the line from the deleted vertex 0 went
  EXPECT_EQ(m.getLines()[0][0], 3);
  EXPECT_EQ(m.getLines()[0][1], 6);
  // Nothing selected: nothing changes and no notice.
  m.clearSelection();
  EXPECT_FALSE(MeshDeleteSelected(m).apply());
  EXPECT_EQ(m.getModificationCount(), notices + 1);
  // By list: the corners only the listed triangles used go with them.
  const MeshAdjTris adj = adjacencyOf(m);
  EXPECT_TRUE(MeshDeleteSelected(m).apply(adj, {0, 1, 0}));
  EXPECT_EQ(m.getNumTriangles(), 2);
  EXPECT_EQ(m.getNumVertices(), 5);  // the unselected unused vertex stays
}

}  // namespace
