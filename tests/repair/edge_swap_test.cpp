// Edge swapping on a topological mesh: after relaxing a jittered grid with
// random diagonals every interior edge meets the empty-circle angle test,
// the twins stay consistent, and vetoes and boundaries stop swaps.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include <kxgeom/edge_swap.h>

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

TEST(EdgeSwap, RelaxedGridIsDelaunayWithConsistentTwins) {
  TopoMesh mesh = jitteredGrid(12, 3);
  const int faces = mesh.getNumFaces();
  MeshEdgeSwapper swapper(mesh);
  swapper.setVeto(&MeshEdgeSwapper::minimizeOppositeAngleSum);
  kx::vector<TopoMeshHalfEdge> edges = interiorEdges(mesh);
  const std::size_t numEdges = edges.size();
  EXPECT_GT(meshSwapEdgesRepeatedly(swapper, edges), 20);
  EXPECT_EQ(mesh.getNumFaces(), faces);
  const kx::vector<TopoMeshHalfEdge> after = interiorEdges(mesh);
  EXPECT_EQ(after.size(), numEdges);
  for (TopoMeshHalfEdge h : after) {
    const TopoMeshHalfEdge g = mesh.twin(h);
    ASSERT_EQ(mesh.twin(g), h);
    ASSERT_EQ(mesh.origin(g), mesh.target(h));
    const auto p = [&](TopoMeshVertex v) { return mesh.getPoint(v); };
    const double opposite =
        angleAt(p(mesh.origin(h)), p(mesh.origin(mesh.prev(h))), p(mesh.target(h))) +
        angleAt(p(mesh.origin(g)), p(mesh.origin(mesh.prev(g))), p(mesh.target(g)));
    EXPECT_LE(opposite, 3.14159265358979 + 1e-9);
  }
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
}

}  // namespace
