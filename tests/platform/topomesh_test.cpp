// TopoMesh: links, twins, deletion and conversion, checked against brute
// force over the face lists.
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

TEST(TopoMesh, AssignFromGridLinksEveryInteriorEdgeAndRoundTrips) {
  const kxGeom::CompactMesh grid = kxtest::makeGrid(5, 4);
  TopoMesh m;
  m.assign(grid);
  ASSERT_EQ(m.getNumVertices(), 30);
  ASSERT_EQ(m.getNumFaces(), 40);
  expectConsistent(m);
  // A 5x4 grid of split squares: 5*4*3 edges inside squares' diagonals and
  // shared sides: interior edges = diagonals 20 + horizontal 5*3 + vertical 4*4.
  int twinned = 0;
  for (int i = 0; i < m.halfEdgeSlots(); ++i) twinned += m.twin(TopoMeshHalfEdge(i)).isValid();
  EXPECT_EQ(twinned, 2 * (20 + 15 + 16));

  kxGeom::CompactMesh back;
  m.toCompactMesh(back);
  ASSERT_EQ(back.getNumTriangles(), grid.getNumTriangles());
  ASSERT_EQ(back.getNumVertices(), grid.getNumVertices());
  for (int t = 0; t < grid.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) EXPECT_EQ(back.getTriangles()[t][k], grid.getTriangles()[t][k]);
  }
  for (int v = 0; v < grid.getNumVertices(); ++v) {
    EXPECT_EQ(back.getVertices()[v].x, grid.getVertices()[v].x);
    EXPECT_EQ(back.getVertices()[v].y, grid.getVertices()[v].y);
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

TEST(TopoMesh, RandomDeletionsKeepLinksAndVertexHalfEdgesConsistent) {
  std::mt19937 rng(7);
  for (int round = 0; round < 6; ++round) {
    TopoMesh m;
    m.assign(kxtest::makeLatLongSphere(6, 8));
    const int faces = m.getNumFaces();
    std::uniform_int_distribution<int> pick(0, m.faceSlots() - 1);
    for (int k = 0; k < faces / 2; ++k) m.deleteFace(TopoMeshFace(pick(rng)));
    ASSERT_NO_FATAL_FAILURE(expectConsistent(m));
    m.deleteVertex(TopoMeshVertex(round));
    ASSERT_NO_FATAL_FAILURE(expectConsistent(m));
    EXPECT_FALSE(m.isLive(TopoMeshVertex(round)));

    int counted = 0;
    for (TopoMeshFace f : m.faces()) counted += m.isLive(f);
    EXPECT_EQ(counted, m.getNumFaces());

    // Compaction renumbers densely without changing any edge.
    kx::vector<int> map;
    const auto before = directedEdges(m);
    m.compact(&map);
    ASSERT_NO_FATAL_FAILURE(expectConsistent(m));
    auto after = directedEdges(m);
    std::map<std::pair<int, int>, int> remapped;
    for (const auto& e : before) remapped[{map[e.first.first], map[e.first.second]}] = e.second;
    EXPECT_EQ(remapped, after);
    EXPECT_EQ(m.vertexSlots(), m.getNumVertices());
  }
}

TEST(TopoMesh, EditedCopyMergesBackThroughStableHandles) {
  TopoMesh m;
  m.assign(kxtest::makeGrid(3, 3));
  // Cut out the centre square (triangles 8 and 9), then close it with a quad.
  m.deleteFace(TopoMeshFace(8));
  m.deleteFace(TopoMeshFace(9));
  expectConsistent(m);
  const TopoMeshVertex quad[4] = {TopoMeshVertex(5), TopoMeshVertex(6), TopoMeshVertex(10),
                                  TopoMeshVertex(9)};
  const TopoMeshFace f = m.addFace(quad, 4);
  ASSERT_TRUE(f.isValid());
  EXPECT_EQ(f.index, 18);  // fresh slot; old handles unchanged
  kxGeom::meshTwin(m);
  expectConsistent(m);
  TopoMeshHalfEdge h = m.getHalfEdge(f);
  for (int k = 0; k < 4; ++k, h = m.next(h)) EXPECT_TRUE(m.twin(h).isValid());

  TopoMesh copy(m);
  TopoMesh other;
  other.swap(copy);
  EXPECT_EQ(other.getNumFaces(), 17);
  EXPECT_EQ(copy.getNumFaces(), 0);
  kxGeom::TopoMeshModification mod(&other, kxGeom::TopoMeshModification::Topology);
  other.modified(mod);
  EXPECT_EQ(other.getModificationCount(), 1);
  EXPECT_EQ(other.getLastModificationType(), 1);
}

}  // namespace
