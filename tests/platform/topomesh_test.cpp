// TopoMesh: links, twins and conversion, checked against brute force over
// the face lists.
#include <map>
#include <random>
#include <utility>

#include <gtest/gtest.h>

#include "support/test_meshes.h"

namespace {

using kxGeom::TopoMesh;
using kxGeom::TopoMeshFace;
using kxGeom::TopoMeshHalfEdge;
using kxGeom::TopoMeshVertex;

// Directed edge -> number of live half-edges running that way.
std::map<std::pair<int, int>, int> directedEdges(const TopoMesh& m) {
  std::map<std::pair<int, int>, int> edges;
  kx::vector<TopoMeshVertex> c;
  for (TopoMeshFace f : m.faces()) {
    m.getFaceVertices(f, c);
    for (std::size_t k = 0; k < c.size(); ++k) ++edges[{c[k].index, c[(k + 1) % c.size()].index}];
  }
  return edges;
}

// Every structural invariant of the links, and twins exactly where the brute
// force edge table says a unique opposite half-edge exists.
void expectConsistent(const TopoMesh& m) {
  const auto edges = directedEdges(m);
  int live = 0;
  for (int i = 0; i < m.halfEdgeSlots(); ++i) {
    const TopoMeshHalfEdge h(i);
    if (!m.isLive(h)) continue;
    ++live;
    ASSERT_EQ(m.prev(m.next(h)), h);
    ASSERT_EQ(m.face(m.next(h)), m.face(h));
    ASSERT_TRUE(m.isLive(m.face(h)));
    const int a = m.origin(h).index, b = m.target(h).index;
    const TopoMeshHalfEdge t = m.twin(h);
    const bool uniquePair =
        a != b && edges.count({b, a}) && edges.at({b, a}) == 1 && edges.at({a, b}) == 1;
    if (uniquePair) {
      ASSERT_TRUE(t.isValid()) << a << "->" << b;
    }
    if (t.isValid()) {
      ASSERT_EQ(m.twin(t), h);
      ASSERT_EQ(m.origin(t).index, b);
      ASSERT_EQ(m.target(t).index, a);
    }
  }
  EXPECT_EQ(live, m.getNumHalfEdges());
  for (TopoMeshVertex v : m.vertices()) {
    bool used = false;
    for (const auto& e : edges) used |= e.first.first == v.index;
    const TopoMeshHalfEdge h = m.getHalfEdge(v);
    EXPECT_EQ(h.isValid(), used) << "vertex " << v.index;
    if (h.isValid()) {
      EXPECT_TRUE(m.isLive(h));
      EXPECT_EQ(m.origin(h), v);
    }
  }
}

TEST(TopoMesh, AddFaceRejectsShortOrDeadCornerLists) {
  TopoMesh m;
  const TopoMeshVertex a = m.addVertex({0, 0, 0}), b = m.addVertex({1, 0, 0});
  const TopoMeshVertex two[2] = {a, b};
  EXPECT_FALSE(m.addFace(two, 2).isValid());
  const TopoMeshVertex bad[3] = {a, b, TopoMeshVertex(7)};
  EXPECT_FALSE(m.addFace(bad, 3).isValid());
  const TopoMeshVertex neg[3] = {a, b, TopoMeshVertex()};
  EXPECT_FALSE(m.addFace(neg, 3).isValid());
  EXPECT_EQ(m.getNumFaces(), 0);
  EXPECT_EQ(m.getNumHalfEdges(), 0);

  kxGeom::CompactMesh corrupt = kxtest::makeRandomMesh(20, 30, 4);
  corrupt.getTriangles()[7][1] = 20;
  corrupt.getTriangles()[9][2] = -1;
  m.assign(corrupt);
  EXPECT_EQ(m.getNumFaces(), 28);
  EXPECT_EQ(m.getNumVertices(), 20);
  expectConsistent(m);
}

TEST(TopoMesh, PolygonsFanIntoTrianglesAndNonManifoldEdgesPairOnce) {
  TopoMesh m;
  for (int i = 0; i < 7; ++i) m.addVertex({double(i), double(i * i), 0});
  const TopoMeshVertex pent[5] = {TopoMeshVertex(0), TopoMeshVertex(1), TopoMeshVertex(2),
                                  TopoMeshVertex(3), TopoMeshVertex(4)};
  m.addFace(pent, 5);
  // Three faces on edge 0-1: one runs 1->0 (pairs), one runs 0->1 (cannot).
  const TopoMeshVertex f1[3] = {TopoMeshVertex(1), TopoMeshVertex(0), TopoMeshVertex(5)};
  const TopoMeshVertex f2[3] = {TopoMeshVertex(0), TopoMeshVertex(1), TopoMeshVertex(6)};
  const TopoMeshVertex f3[3] = {TopoMeshVertex(1), TopoMeshVertex(0), TopoMeshVertex(6)};
  m.addFace(f1, 3);
  m.addFace(f2, 3);
  m.addFace(f3, 3);
  kxGeom::meshTwin(m);
  expectConsistent(m);
  int pairsOn01 = 0;
  for (int i = 0; i < m.halfEdgeSlots(); ++i) {
    const TopoMeshHalfEdge h(i);
    const int a = m.origin(h).index, b = m.target(h).index;
    if (std::min(a, b) == 0 && std::max(a, b) == 1 && m.twin(h).isValid()) ++pairsOn01;
  }
  EXPECT_EQ(pairsOn01, 4);  // two pairs: pent/f1 and f2/f3, in half-edge order

  kxGeom::CompactMesh c;
  m.toCompactMesh(c);
  ASSERT_EQ(c.getNumTriangles(), 3 + 3);
  const int expected[3][3] = {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}};
  for (int t = 0; t < 3; ++t) {
    for (int k = 0; k < 3; ++k) EXPECT_EQ(c.getTriangles()[t][k], expected[t][k]);
  }
}

}  // namespace

TEST(TopoMesh, DeletedFacesLeaveEveryVertexALiveOutgoingHalfEdgeOrNone) {
  kxGeom::TopoMesh mesh;
  mesh.assign(kxtest::makeGrid(3, 3));
  for (int f : {0, 5, 7, 1}) {
    mesh.deleteFace(kxGeom::TopoMeshFace(f));
    for (int v = 0; v < mesh.vertexSlots(); ++v) {
      const kxGeom::TopoMeshHalfEdge h = mesh.getHalfEdge(kxGeom::TopoMeshVertex(v));
      if (!h.isValid()) continue;
      EXPECT_TRUE(mesh.isLive(h)) << "vertex " << v << " after face " << f;
      EXPECT_EQ(mesh.origin(h).index, v);
    }
  }
}
