// The topology report against meshes whose counts are known by construction:
// Euler's formula on a torus, seams of a cube of separate faces, a sphere with
// flipped triangles, and the non-manifold configurations.
#include <gtest/gtest.h>

#include <vector>

#include "support/test_meshes.h"

using kxGeom::CompactMesh;
using kxGeom::MeshTopologyReport;

namespace {

void expectReport(const MeshTopologyReport& r, int positions, int edges, int boundaryEdges,
                  int loops, int components, int genus) {
  EXPECT_EQ(r.positions, positions);
  EXPECT_EQ(r.edges, edges);
  EXPECT_EQ(r.boundaryEdges, boundaryEdges);
  EXPECT_EQ(r.boundaryLoops, loops);
  EXPECT_EQ(r.components, components);
  EXPECT_EQ(r.genus, genus);
}

}  // namespace

TEST(TopologyReport, ClosedSurfacesFollowEulersFormula) {
  const MeshTopologyReport torus = kxGeom::meshTopologyReport(kxtest::makeTorus(12, 8, 2, 1));
  expectReport(torus, 96, 288, 0, 0, 1, 1);
  EXPECT_TRUE(torus.oriented);
  EXPECT_EQ(torus.seamEdges, 0);

  // A cube of six separate faces: closed by position, every cube edge a seam.
  CompactMesh cube;
  const float range[2] = {-1, 1};
  kxGeom::constructCube(range, cube);
  const MeshTopologyReport c = kxGeom::meshTopologyReport(cube);
  expectReport(c, 8, 18, 0, 0, 1, 0);
  EXPECT_EQ(c.seamEdges, 12);
  EXPECT_TRUE(c.oriented);
  EXPECT_EQ(kxGeom::meshTopologyReport(CompactMesh()).components, 0);
}

TEST(TopologyReport, FlippedTrianglesChangeOrientationOnly) {
  CompactMesh sphere = kxtest::makeLatLongSphere(8, 12);
  const MeshTopologyReport before = kxGeom::meshTopologyReport(sphere);
  expectReport(before, 86, 252, 0, 0, 1, 0);
  kxGeom::MeshTriangle* t = sphere.getTriangles();
  for (int i = 0; i < sphere.getNumTriangles(); i += 3) std::swap(t[i][0], t[i][1]);
  const MeshTopologyReport after = kxGeom::meshTopologyReport(sphere);
  EXPECT_FALSE(after.oriented);
  EXPECT_EQ(after.seamEdges, 0);
  EXPECT_EQ(after.genus, -1);
  EXPECT_EQ(after.boundaryEdges, 0);
  EXPECT_EQ(after.boundaryLoops, 0);
  EXPECT_EQ(after.nonManifoldEdges, 0);
  EXPECT_EQ(after.nonManifoldVertices, 0);
}

TEST(TopologyReport, OpenPiecesHolesAndDegenerateTriangles) {
  // Two 4 by 3 grids side by side, the second with one interior square removed
  // and one triangle collapsed onto an edge.
  CompactMesh a = kxtest::makeGrid(4, 3);
  std::vector<kxGeom::MeshVertex> v(a.getVertices(), a.getVertices() + 20);
  std::vector<int> t(a.getTrianglesRaw(), a.getTrianglesRaw() + 72);
  for (int i = 0; i < 20; ++i) v.push_back({v[std::size_t(i)].x + 10, v[std::size_t(i)].y, 0});
  for (int i = 0; i < 72; ++i) {
    const int square = i / 6;
    if (square != 5) t.push_back(t[std::size_t(i)] + 20);  // square (1, 1) of the copy is a hole
  }
  t.insert(t.end(), {20, 21, 21});
  const MeshTopologyReport r = kxGeom::meshTopologyReport(kxtest::meshFrom(v, t));
  expectReport(r, 40, 2 * 43 - 1, 14 + 18, 3, 2, 0);  // the hole loses only its diagonal
  EXPECT_EQ(r.degenerateTriangles, 1);
  const CompactMesh loose =
      kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 5, 5}}, {0, 1, 2});
  EXPECT_EQ(kxGeom::meshTopologyReport(loose).positions, 3);
}

TEST(TopologyReport, NonManifoldEdgesAndPinchedVertices) {
  // Three triangles on the edge (0, 1).
  const std::vector<kxGeom::MeshVertex> fin = {
      {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}};
  const MeshTopologyReport e =
      kxGeom::meshTopologyReport(kxtest::meshFrom(fin, {0, 1, 2, 1, 0, 3, 0, 1, 4}));
  EXPECT_EQ(e.nonManifoldEdges, 1);
  EXPECT_EQ(e.boundaryEdges, 6);
  EXPECT_EQ(e.genus, -1);
  // Two triangles touching at one corner: a pinch, one connected boundary.
  const std::vector<kxGeom::MeshVertex> bow = {
      {0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {-1, 0, 0}, {-1, -1, 0}};
  const MeshTopologyReport p =
      kxGeom::meshTopologyReport(kxtest::meshFrom(bow, {0, 1, 2, 0, 3, 4}));
  EXPECT_EQ(p.nonManifoldVertices, 1);
  EXPECT_EQ(p.nonManifoldEdges, 0);
  EXPECT_EQ(p.components, 1);
  EXPECT_EQ(p.boundaryLoops, 1);
  EXPECT_EQ(p.genus, -1);
}
