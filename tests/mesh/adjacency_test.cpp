// Adjacency tables and boundary loops, each checked against a brute-force
// computation from the raw triangle list on random, degenerate, non-manifold
// and bounded meshes.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;
using Sets = std::vector<std::vector<int>>;
using kxtest::makeGrid;
using kxtest::makeLatLongSphere;
using kxtest::makeRandomMesh;

CompactMesh meshFrom(int numVertices, const std::vector<int>& corners) {
  std::vector<MeshVertex> v(std::size_t(numVertices), MeshVertex{0, 0, 0});
  CompactMesh mesh(numVertices, v.data(), nullptr, nullptr, nullptr);
  mesh.copyTriangles(int(corners.size() / 3), corners.data());
  return mesh;
}

std::vector<int> cornersOf(const CompactMesh& m) {
  return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

// A grid with a hole (one square removed), two triangles repeated, one edge
// shared by four triangles, a degenerate triangle and two isolated vertices.
CompactMesh makeAwkwardMesh() {
  std::vector<int> c = cornersOf(makeGrid(4, 4));
  c.erase(c.begin() + 6 * 5, c.begin() + 6 * 6);
  c.insert(c.end(), {0, 1, 6, 0, 1, 6, 1, 0, 25, 1, 0, 26, 7, 7, 12});
  return meshFrom(27 + 2, c);
}

std::vector<CompactMesh> testMeshes() {
  std::vector<CompactMesh> meshes{makeAwkwardMesh(), makeGrid(5, 3), makeLatLongSphere(6, 8),
                                  meshFrom(3, {0, 1, 2}), meshFrom(4, {})};
  for (unsigned seed = 1; seed <= 6; ++seed) {
    meshes.push_back(makeRandomMesh(8 + 40 * int(seed), 60 * int(seed), seed));
  }
  meshes.push_back(makeRandomMesh(6, 400, 99));  // large buckets of equal edges
  return meshes;
}

// --- brute-force oracles -------------------------------------------------

Sets bruteAdjTris(const CompactMesh& m) {
  Sets out(std::size_t(m.getNumVertices()));
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    for (int c = 0; c < 3; ++c) out[m.getTriangles()[t][c]].push_back(t);
  }
  return out;
}

Sets bruteAdjVertices(const CompactMesh& m) {
  Sets tris = bruteAdjTris(m), out(tris.size());
  for (int v = 0; v < int(tris.size()); ++v) {
    for (int t : tris[v]) {
      for (int c = 0; c < 3; ++c) {
        const int w = m.getTriangles()[t][c];
        if (w != v && std::find(out[v].begin(), out[v].end(), w) == out[v].end())
          out[v].push_back(w);
      }
    }
  }
  return out;
}

std::pair<int, int> undirected(const MeshTriangle& t, int e) {
  return std::minmax(t[e], t[(e + 1) % 3]);
}

Sets bruteTriAdjTris(const CompactMesh& m) {
  const MeshTriangle* tris = m.getTriangles();
  Sets out(std::size_t(m.getNumTriangles()));
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    for (int e = 0; e < 3; ++e) {
      for (int u = 0; u < m.getNumTriangles(); ++u) {
        for (int f = 0; f < 3; ++f) {
          if (u != t && undirected(tris[u], f) == undirected(tris[t], e)) out[t].push_back(u);
        }
      }
    }
  }
  return out;
}

// The boundary walk computed from the triangle list alone.
struct BruteWalk {
  const CompactMesh& m;
  Sets trisOf, neighboursOf;

  explicit BruteWalk(const CompactMesh& mesh)
      : m(mesh), trisOf(bruteAdjTris(mesh)), neighboursOf(bruteAdjVertices(mesh)) {}

  int after(int v, int t) const {
    const MeshTriangle& tri = m.getTriangles()[t];
    return tri[0] == v ? tri[1] : tri[1] == v ? tri[2] : tri[0];
  }
  bool step(int v, int& next) const {
    for (int t : trisOf[v]) {
      const int w = next = after(v, t);
      bool reverse = false;
      for (int u : trisOf[w]) reverse |= after(w, u) == v;
      const bool irregular = neighboursOf[w].size() != trisOf[w].size();
      if (irregular && !reverse) return true;
    }
    return false;
  }
  Sets loops(const std::vector<int>& starts) const {
    Sets out;
    std::vector<bool> seen(std::size_t(m.getNumVertices()), false);
    for (int v : starts) {
      if (seen[v]) continue;
      seen[v] = true;
      std::vector<int> loop;
      int next = -1;
      for (bool go = step(v, next); go; go = step(v, next)) {
        loop.push_back(v);
        v = next;
        if (seen[v]) break;
        seen[v] = true;
      }
      if (!loop.empty()) out.push_back(loop);
    }
    return out;
  }
};

Sets setsOf(const ArrayOfSets& a) {
  Sets s;
  for (int i = 0; i < a.getNumSets(); ++i)
    s.emplace_back(a.getSet(i), a.getSet(i) + a.getSetSize(i));
  return s;
}
Sets setsOf(const MeshAdjVertices& a) {
  Sets s(std::size_t(a.getNumVertices()));
  for (int v = 0; v < a.getNumVertices(); ++v) {
    s[v].assign(a.adjVertices(v), a.adjVertices(v) + a.numAdjVertices(v));
  }
  return s;
}
Sets setsOf(const MeshBoundaries& b) {
  Sets s;
  for (int i = 0; i < b.size(); ++i) s.emplace_back(b.getStart(i), b.getEnd(i));
  return s;
}

std::vector<int> iota(int n) {
  std::vector<int> v(static_cast<std::size_t>(n), 0);
  std::iota(v.begin(), v.end(), 0);
  return v;
}

// Directed edges a->b of the triangles with no triangle b->a.
std::multiset<std::pair<int, int>> boundaryEdges(const BruteWalk& w) {
  std::multiset<std::pair<int, int>> directed, out;
  for (int t = 0; t < w.m.getNumTriangles(); ++t) {
    for (int e = 0; e < 3; ++e) {
      directed.insert({w.m.getTriangles()[t][e], w.m.getTriangles()[t][(e + 1) % 3]});
    }
  }
  for (const auto& d : directed) {
    if (!directed.count({d.second, d.first})) out.insert(d);
  }
  return out;
}
std::multiset<std::pair<int, int>> closedLoopEdges(const Sets& loops) {
  std::multiset<std::pair<int, int>> out;
  for (const auto& l : loops) {
    for (std::size_t i = 0; i < l.size(); ++i) out.insert({l[i], l[(i + 1) % l.size()]});
  }
  return out;
}

// Every table of a mesh, built by the functions under test in dependency order.
struct Tables {
  MeshAdjTris adj;
  MeshAdjVertices adjV;
  MeshTriAdjTris triAdj;

  explicit Tables(const CompactMesh& m) {
    meshAdjTris(m, adj);
    meshAdjVertices(m, adj, adjV);
    meshTriAdjTris(m, triAdj);
  }
  Sets loops(const CompactMesh& m) const {
    MeshBoundaries b;
    meshComputeBoundary(m, adj, adjV, b);
    return setsOf(b);
  }
};

// --- tables ----------------------------------------------------------------

TEST(AdjacencyTables, MatchBruteForceOnAllTestMeshes) {
  MeshTriAdjTris reused;  // each build must replace the previous table whole
  for (const CompactMesh& m : testMeshes()) {
    const Tables tables(m);
    meshTriAdjTris(m, reused);
    EXPECT_EQ(setsOf(reused.getData()), setsOf(tables.triAdj.getData()));
    const MeshAdjVertices& adjV = tables.adjV;
    const MeshTriAdjTris& triAdj = tables.triAdj;
    EXPECT_EQ(setsOf(tables.adj.getData()), bruteAdjTris(m));
    const Sets neighbours = bruteAdjVertices(m);
    EXPECT_EQ(setsOf(adjV), neighbours);
    std::size_t maxCount = 0;
    for (const auto& s : neighbours) maxCount = std::max(maxCount, s.size());
    EXPECT_EQ(adjV.getMaxCount(), int(maxCount));
    EXPECT_EQ(setsOf(triAdj.getData()), bruteTriAdjTris(m));
    EXPECT_EQ(triAdj.getData().getNumMembers(), triAdj.getData().offsets()[m.getNumTriangles()]);
  }
}

TEST(AdjacencyTables, RepeatedTriangleListsItsCopyOncePerEdge) {
  const CompactMesh m = meshFrom(3, {0, 1, 2, 2, 0, 1});
  MeshTriAdjTris triAdj;
  meshTriAdjTris(m, triAdj);
  EXPECT_EQ(setsOf(triAdj.getData()), (Sets{{1, 1, 1}, {0, 0, 0}}));
  MeshAdjTris adj;
  meshAdjTris(m, adj);
  int other = -5, edge = -5;
  EXPECT_TRUE(getSharedEdgeAdjacentTriangle(0, 0, m.getTriangles(), adj, other, edge));
  EXPECT_EQ(other, 1);
  EXPECT_EQ(edge, 2);  // corner of vertex 1 in (2, 0, 1)
  // Vertex 0's triangles copied as they are and through a map, nothing past them.
  int out[3] = {-7, -7, -7};
  const int map[2] = {5, 9};
  adj.copyTriangles(0, out, map);
  EXPECT_EQ(std::vector<int>(out, out + 3), (std::vector<int>{5, 9, -7}));
  adj.copyTriangles(0, out, nullptr);
  EXPECT_EQ(std::vector<int>(out, out + 3), (std::vector<int>{0, 1, -7}));
}

// 46342 triangles on one edge would need 46342 * 46341 > 2^31 - 1 entries.
TEST(AdjacencyTables, TableBeyondIntRangeComesOutAsEmptySets) {
  const int k = 46342;
  std::vector<int> corners;
  for (int i = 0; i < k; ++i) corners.insert(corners.end(), {0, 1, i + 2});
  MeshTriAdjTris triAdj;
  kxtest::LogCapture log;
  meshTriAdjTris(meshFrom(k + 2, corners), triAdj);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0],
            "MeshTriAdjTris: 2147534622 neighbour entries exceed the table's range, left empty\n");
  ASSERT_EQ(triAdj.getNumTriangles(), k);
  EXPECT_EQ(triAdj.getData().getNumMembers(), 0);
  EXPECT_EQ(triAdj.numTris(0) + triAdj.numTris(k - 1), 0);
}

// --- local queries -----------------------------------------------------------

// The forward scan that orders a fan, written out plainly as the oracle of
// the indexed ordering large fans get.
std::vector<int> plainFanOrder(int v, std::vector<int> out, const MeshTriangle* tris) {
  for (std::size_t i = 0; i + 1 < out.size(); ++i) {
    const MeshTriangle& t = tris[out[i]];
    const int k = t[0] == v ? 0 : (t[1] == v ? 1 : 2);
    const int before = t[(k + 2) % 3];
    for (std::size_t j = i + 1; j < out.size(); ++j) {
      const MeshTriangle& u = tris[out[j]];
      if ((u[0] == v && u[1] == before) || (u[1] == v && u[2] == before) ||
          (u[2] == v && u[0] == before)) {
        std::swap(out[i + 1], out[j]);
        break;
      }
    }
  }
  return out;
}

// A hub of `n` triangles: a fan (0, i, i + 1) when `fan`, else a star of
// triangles (0, 2i + 1, 2i + 2) that share nothing but the hub.
CompactMesh hub(int n, bool fan) {
  std::vector<int> c;
  for (int i = 0; i < n; ++i) {
    c.insert(c.end(), fan ? std::initializer_list<int>{0, i + 1, i + 2}
                          : std::initializer_list<int>{0, 2 * i + 1, 2 * i + 2});
  }
  return meshFrom(fan ? n + 2 : 2 * n + 1, c);
}

TEST(LocalQueries, SmallAndLargeFansOrderAsThePlainScanDoes) {
  // Fans of 20 and 300 triangles around vertex 0, with reversed, repeated
  // and degenerate members, shuffled.
  for (int size : {20, 300}) {
    std::vector<int> c;
    for (int i = 1; i <= size; ++i) c.insert(c.end(), {0, i, i % size + 1});
    c.insert(c.end(), {0, 5, 4, 0, 7, 8, 0, 0, 9, 9, 0, 0, 0, 10, 11});
    const CompactMesh fan = meshFrom(size + 2, c);
    std::vector<int> in(std::size_t(fan.getNumTriangles()));
    std::iota(in.begin(), in.end(), 0);
    std::mt19937 rng(11);
    kx::vector<int> out;
    for (int round = 0; round < 3; ++round) {
      std::shuffle(in.begin(), in.end(), rng);
      sortAdjTris(0, int(in.size()), in.data(), fan.getTriangles(), out);
      EXPECT_EQ(std::vector<int>(out.begin(), out.end()), plainFanOrder(0, in, fan.getTriangles()));
    }
  }
}

TEST(Boundaries, HubsOfHundredThousandTrianglesCostNearLinearTime) {
  const int n = 100000;
  for (bool fan : {true, false}) {
    const CompactMesh m = hub(n, fan);
    MeshAdjTris adj;
    meshAdjTris(m, adj);
    MeshAdjVertices adjVerts;
    meshAdjVertices(m, adj, adjVerts);
    MeshTriAdjTris triAdj;
    meshTriAdjTris(m, triAdj);
    EXPECT_EQ(triAdj.getData().getNumMembers(), fan ? 2 * (n - 1) : 0);
    MeshBoundaries loops;
    meshComputeBoundary(m, adj, adjVerts, loops);
    // The fan's rim and hub form one loop; the star gives a loop per
    // triangle, the first of three vertices, the others of two (their walk
    // ends at the hub, already visited).
    ASSERT_EQ(loops.size(), fan ? 1 : n);
    EXPECT_EQ(loops.getLength(0), fan ? n + 2 : 3);
    if (!fan) {
      EXPECT_EQ(loops.getLength(n - 1), 2);
    }
    int across = -1, edge = -1;
    EXPECT_EQ(getSharedEdgeAdjacentTriangle(n / 2, 0, m.getTriangles(), adj, across, edge), fan);
    EXPECT_EQ(across, fan ? n / 2 - 1 : -1);
    EXPECT_EQ(edge, fan ? 2 : -1);
    kx::vector<int> order;
    std::vector<int> reversed(adj.triIndices(0), adj.triIndices(0) + n);
    std::reverse(reversed.begin(), reversed.end());
    sortAdjTris(0, n, reversed.data(), m.getTriangles(), order);
    // The fan's chain runs backwards from its last triangle: reversed order
    // is already a chain, so nothing moves.
    EXPECT_EQ(std::vector<int>(order.begin(), order.end()), reversed);
  }
}

// --- boundaries ----------------------------------------------------------------

TEST(Boundaries, LoopsMatchBruteForceWalk) {
  for (const CompactMesh& m : testMeshes()) {
    EXPECT_EQ(Tables(m).loops(m), BruteWalk(m).loops(iota(m.getNumVertices())));
  }
}

TEST(Boundaries, CleanMeshesGiveClosedLoopsOverExactlyTheBoundaryEdges) {
  std::vector<int> holed = cornersOf(makeGrid(4, 4));
  holed.erase(holed.begin() + 6 * 5, holed.begin() + 6 * 6);
  const std::vector<std::pair<CompactMesh, int>> cases{{meshFrom(3, {0, 1, 2}), 1},
                                                       {makeGrid(5, 3), 1},
                                                       {meshFrom(25, holed), 2},
                                                       {makeLatLongSphere(5, 6), 0}};
  for (const auto& [m, numLoops] : cases) {
    const Sets loops = Tables(m).loops(m);
    EXPECT_EQ(int(loops.size()), numLoops);
    EXPECT_EQ(closedLoopEdges(loops), boundaryEdges(BruteWalk(m)));
  }
  const CompactMesh tri = meshFrom(4, {0, 1, 2});  // vertex 3 is isolated
  const Tables tables(tri);
  EXPECT_EQ(tables.loops(tri), (Sets{{0, 1, 2}}));
  EXPECT_TRUE(Boundary::hasEdge(tri, tables.adj, 2, 0));
  EXPECT_FALSE(Boundary::hasEdge(tri, tables.adj, 0, 2));
  int next = 42;
  EXPECT_FALSE(Boundary::walkBoundary(3, next, tri, tables.adj, tables.adjV));
  EXPECT_EQ(next, 42);
  EXPECT_EQ(Boundary::findEdge(3, tri.getTriangles()[0]), -1);
}

// --- inverse maps ----------------------------------------------------------------

}  // namespace
