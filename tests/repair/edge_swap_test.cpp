// Edge swapping on a topological mesh: after relaxing a jittered grid with
// random diagonals every interior edge meets the empty-circle angle test,
// the twins stay consistent, and vetoes and boundaries stop swaps. The same
// for meshSwapEdges on a triangle mesh, which also keeps winding, manifold
// edges and slots, and respects folds, locks and bad indices.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include <kxgeom/edge_swap.h>
#include <kxgeom/measure.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

TopoMesh jitteredGrid(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> jitter(-0.3, 0.3);
  TopoMesh mesh;
  for (int j = 0; j <= n; ++j) {
    for (int i = 0; i <= n; ++i) mesh.addVertex({i + jitter(rng), j * 0.5 + jitter(rng) * 0.5, 0});
  }
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) {
      const TopoMeshVertex a(j * (n + 1) + i), b(a.index + 1), c(a.index + n + 1), d(c.index + 1);
      const TopoMeshVertex t1[3] = {a, b, d}, t2[3] = {a, d, c}, u1[3] = {a, b, c},
                           u2[3] = {b, d, c};
      const bool flip = rng() % 2;
      mesh.addFace(flip ? u1 : t1, 3);
      mesh.addFace(flip ? u2 : t2, 3);
    }
  }
  meshTwin(mesh);
  return mesh;
}

double angleAt(const kxLinear::Point& a, const kxLinear::Point& b, const kxLinear::Point& c) {
  const kxLinear::Vector u = a - b, v = c - b;
  return std::acos(kxLinear::dot(u, v) / (u.length() * v.length()));
}

kx::vector<TopoMeshHalfEdge> interiorEdges(const TopoMesh& mesh) {
  kx::vector<TopoMeshHalfEdge> edges;
  for (int h = 0; h < mesh.halfEdgeSlots(); ++h) {
    const TopoMeshHalfEdge e(h);
    if (mesh.isLive(e) && mesh.twin(e).isValid() && h < mesh.twin(e).index) edges.push_back(e);
  }
  return edges;
}

TEST(EdgeSwap, VetoesBoundariesAndExistingDiagonalsStopSwaps) {
  TopoMesh mesh = jitteredGrid(3, 5);
  MeshEdgeSwapper swapper(mesh);
  swapper.setVeto([](const TopoMesh&, TopoMeshHalfEdge) { return true; });
  kx::vector<TopoMeshHalfEdge> edges = interiorEdges(mesh);
  EXPECT_EQ(meshSwapEdgesRepeatedly(swapper, edges), 0);
  swapper.setVeto(nullptr);
  for (int h = 0; h < mesh.halfEdgeSlots(); ++h) {
    if (!mesh.twin(TopoMeshHalfEdge(h)).isValid()) {
      EXPECT_FALSE(swapper.swap(TopoMeshHalfEdge(h)));
    }
  }
  // A grid of squares is cocircular everywhere: no swap gains anything.
  TopoMesh squares;
  squares.assign(kxtest::makeGrid(3, 3));
  MeshEdgeSwapper squareSwapper(squares);
  squareSwapper.setVeto(MeshEdgeSwapper::minimizeOppositeAngleSum);
  kx::vector<TopoMeshHalfEdge> squareEdges = interiorEdges(squares);
  EXPECT_EQ(meshSwapEdgesRepeatedly(squareSwapper, squareEdges), 0);
  // Without a veto a swap always happens where it can, and twice restores
  // the edge.
  const TopoMeshHalfEdge e = edges.front();
  const TopoMeshVertex a = mesh.origin(e), b = mesh.target(e);
  MeshEdgeSwapper::Swap first, second;
  ASSERT_TRUE(swapper.swap(e, &first));
  EXPECT_FALSE(mesh.isLive(first.removed[0]));
  ASSERT_TRUE(swapper.swap(first.edge, &second));
  const bool restored = (mesh.origin(second.edge) == a && mesh.target(second.edge) == b) ||
                        (mesh.origin(second.edge) == b && mesh.target(second.edge) == a);
  EXPECT_TRUE(restored);
  // On a tetrahedron every swap would double an edge that exists.
  const MeshVertex corners[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  const int faces[12] = {0, 2, 1, 0, 1, 3, 0, 3, 2, 1, 2, 3};
  CompactMesh tetra(4, corners, nullptr, nullptr, nullptr);
  tetra.copyTriangles(4, faces);
  TopoMesh closed;
  closed.assign(tetra);
  MeshEdgeSwapper tetraSwapper(closed);
  for (TopoMeshHalfEdge h : interiorEdges(closed)) EXPECT_FALSE(tetraSwapper.swap(h));
}

CompactMesh kite(float lift) {
  const MeshVertex v[4] = {{-1, 0, 0}, {1, 0, 0}, {0, 0.3f, lift}, {0, -0.3f, lift}};
  const int t[6] = {0, 1, 2, 1, 0, 3};
  CompactMesh m(4, v, nullptr, nullptr, nullptr);
  m.copyTriangles(2, t);
  return m;
}

TEST(MeshSwapEdges, KiteTakesTheShortDiagonalUnlessFoldedLockedOrInvalid) {
  CompactMesh flat = kite(0);
  flat.allocTriangleNormalArray()[0] = {0, 0, -1};
  const int notices = flat.getModificationCount();
  EXPECT_EQ(meshSwapEdges(flat), 1);
  EXPECT_EQ(flat.getModificationCount(), notices + 1);
  const int after[6] = {0, 3, 2, 1, 2, 3};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(flat.getTrianglesRaw()[k], after[k]);
  EXPECT_EQ(flat.getTriangleNormals()[0].z, 1.0f);
  EXPECT_EQ(meshSwapEdges(flat), 0);  // already Delaunay
  CompactMesh folded = kite(0.5f);
  EXPECT_EQ(meshSwapEdges(folded), 0);
  EXPECT_EQ(meshSwapEdges(folded, {120, false, 100}), 1);  // a 118 degree crease
  CompactMesh locked = kite(0);
  locked.getSelectedTriangles().resize(2);
  locked.getSelectedTriangles().setBit(0);
  EXPECT_EQ(meshSwapEdges(locked, {10, true, 100}), 0);
  EXPECT_EQ(locked.getModificationCount(), 0);
  locked.getTriangles()[1][2] = 4;
  EXPECT_EQ(meshSwapEdges(locked), -1);
}

// Every directed edge once, and per undirected interior edge the sum of the
// angles opposite it.
std::map<std::pair<int, int>, double> oppositeAngleSums(const CompactMesh& m) {
  std::map<std::pair<int, int>, double> sums;
  std::map<std::pair<int, int>, int> directed;
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      const int a = m.getTriangles()[t][k], b = m.getTriangles()[t][(k + 1) % 3];
      const int c = m.getTriangles()[t][(k + 2) % 3];
      EXPECT_EQ(++directed[std::make_pair(a, b)], 1);
      const auto p = [&](int v) { return m.getVertices()[v].asPoint(); };
      sums[{std::min(a, b), std::max(a, b)}] += angleAt(p(a), p(c), p(b));
    }
  }
  return sums;
}

TEST(MeshSwapEdges, RandomPlanarTriangulationBecomesDelaunay) {
  CompactMesh grid = kxtest::makeGrid(14, 14);
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> jitter(-0.3f, 0.3f);
  for (int v = 0; v < grid.getNumVertices(); ++v) {
    grid.getVertices()[v].x += jitter(rng);
    grid.getVertices()[v].y += 0.5f * jitter(rng);
  }
  for (int t = 0; t < grid.getNumTriangles(); t += 2) {
    // Quad (a, b, d, c) split along a-d or, at random, b-c.
    MeshTriangle* q = grid.getTriangles() + t;
    const int a = q[0][0], b = q[0][1], d = q[0][2], c = q[1][2];
    if (rng() % 2) q[0] = {{a, b, c}}, q[1] = {{b, d, c}};
  }
  const std::size_t edges = oppositeAngleSums(grid).size();
  EXPECT_GT(meshSwapEdges(grid), 20);
  const auto sums = oppositeAngleSums(grid);
  EXPECT_EQ(sums.size(), edges);
  for (const auto& edge : sums) EXPECT_LE(edge.second, 3.14159265358979 + 1e-9);
  for (int t = 0; t < grid.getNumTriangles(); ++t) {
    const auto p = [&](int k) { return grid.getVertices()[grid.getTriangles()[t][k]].asPoint(); };
    EXPECT_GT(kxLinear::cross(p(1) - p(0), p(2) - p(0)).z, 0);
  }
}

TEST(MeshSwapEdges, RoughSphereStaysClosedAndOriented) {
  CompactMesh sphere = kxtest::makeOctaSphere(3);
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> jitter(-0.04f, 0.04f);
  for (int v = 0; v < sphere.getNumVertices(); ++v) {
    MeshVertex& p = sphere.getVertices()[v];
    p.set(p.x + jitter(rng), p.y + jitter(rng), p.z + jitter(rng));
  }
  EXPECT_GT(meshSwapEdges(sphere, {30, false, 100}), 10);
  MeshMassProperties r;
  ASSERT_TRUE(meshMassProperties(sphere, r));
  EXPECT_TRUE(r.closed);
  EXPECT_NEAR(r.volume, 4.18879, 0.2);
}

}  // namespace
