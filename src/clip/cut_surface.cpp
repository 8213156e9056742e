#include <kxgeom/cut_surface.h>

#include <algorithm>
#include <numeric>
#include <utility>

#include "mesh/disjoint_sets.h"

namespace kxGeom {
namespace cutSurface {

namespace {

// Every undirected edge once, with the triangles (up to two) that hold it.
struct Edge {
  int a, b;        // a < b
  int faces[2];    // -1 when absent
  int corners[2];  // edge number in each face
};

kx::vector<Edge> edgesOf(const CompactMesh& mesh) {
  struct Half {
    int a, b, face, edge;
  };
  kx::vector<Half> halves;
  const MeshTriangle* tris = mesh.getTriangles();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    for (int e = 0; e < 3; ++e) {
      const int u = tris[t][e], w = tris[t][(e + 1) % 3];
      halves.push_back({std::min(u, w), std::max(u, w), t, e});
    }
  }
  std::sort(halves.begin(), halves.end(), [](const Half& x, const Half& y) {
    return x.a != y.a ? x.a < y.a : (x.b != y.b ? x.b < y.b : x.face < y.face);
  });
  kx::vector<Edge> edges;
  for (std::size_t i = 0; i < halves.size();) {
    Edge e{halves[i].a, halves[i].b, {halves[i].face, -1}, {halves[i].edge, -1}};
    std::size_t j = i + 1;
    if (j < halves.size() && halves[j].a == e.a && halves[j].b == e.b) {
      e.faces[1] = halves[j].face;
      e.corners[1] = halves[j].edge;
      ++j;
    }
    while (j < halves.size() && halves[j].a == e.a && halves[j].b == e.b) ++j;
    edges.push_back(e);
    i = j;
  }
  return edges;
}

// Marks the edges the breadth-first tree of triangles crosses.
kx::vector<char> dualTree(const CompactMesh& mesh, const kx::vector<Edge>& edges) {
  const int m = mesh.getNumTriangles();
  kx::vector<int> faceEdges(3 * std::size_t(m), -1);
  for (int i = 0; i < int(edges.size()); ++i) {
    for (int s = 0; s < 2; ++s) {
      if (edges[i].faces[s] >= 0) faceEdges[3 * edges[i].faces[s] + edges[i].corners[s]] = i;
    }
  }
  kx::vector<char> crossed(edges.size(), 0), reached(std::size_t(m), 0);
  kx::vector<int> queue{0};
  reached[0] = 1;
  for (std::size_t head = 0; head < queue.size(); ++head) {
    const int f = queue[head];
    for (int e = 0; e < 3; ++e) {
      const Edge& edge = edges[faceEdges[3 * f + e]];
      const int other = edge.faces[0] == f ? edge.faces[1] : edge.faces[0];
      if (other < 0 || reached[other]) continue;
      reached[other] = 1;
      crossed[faceEdges[3 * f + e]] = 1;
      queue.push_back(other);
    }
  }
  return crossed;
}

// The cut: uncrossed interior edges, pruned of branches that end freely.
kx::vector<char> cutEdges(int n, const kx::vector<Edge>& edges, const kx::vector<char>& crossed) {
  kx::vector<char> cut(edges.size(), 0);
  kx::vector<int> degree(std::size_t(n), 0);
  kx::vector<kx::vector<int>> incident(static_cast<std::size_t>(n));
  for (int i = 0; i < int(edges.size()); ++i) {
    const bool boundary = edges[i].faces[1] < 0;
    if (!boundary && crossed[i]) continue;
    cut[i] = boundary ? 0 : 1;
    for (int v : {edges[i].a, edges[i].b}) {
      ++degree[v];
      incident[v].push_back(i);
    }
  }
  kx::vector<int> leaves;
  for (int v = 0; v < n; ++v) {
    if (degree[v] == 1) leaves.push_back(v);
  }
  while (!leaves.empty()) {
    const int v = leaves.back();
    leaves.pop_back();
    for (int i : incident[v]) {
      if (!cut[i]) continue;
      cut[i] = 0;
      for (int w : {edges[i].a, edges[i].b}) {
        if (--degree[w] == 1) leaves.push_back(w);
      }
    }
  }
  return cut;
}

// Two edges meeting at a vertex, for a closed surface with nothing to cut.
void cutTwoEdges(const kx::vector<Edge>& edges, kx::vector<char>& cut) {
  cut[0] = 1;
  for (int i = 1; i < int(edges.size()); ++i) {
    const bool meets = edges[i].a == edges[0].a || edges[i].b == edges[0].a ||
                       edges[i].a == edges[0].b || edges[i].b == edges[0].b;
    const bool sameTriangle =
        edges[i].faces[0] == edges[0].faces[0] || edges[i].faces[0] == edges[0].faces[1] ||
        edges[i].faces[1] == edges[0].faces[0] || edges[i].faces[1] == edges[0].faces[1];
    if (meets && !sameTriangle) {
      cut[i] = 1;
      return;
    }
  }
}

}  // namespace

bool makeDisk(CompactMesh& mesh, kx::vector<int>* source) {
  const int n = mesh.getNumVertices(), m = mesh.getNumTriangles();
  if (m == 0) return false;
  const kx::vector<Edge> edges = edgesOf(mesh);
  kx::vector<char> cut = cutEdges(n, edges, dualTree(mesh, edges));
  bool boundary = false;
  for (const Edge& e : edges) boundary = boundary || e.faces[1] < 0;
  if (std::find(cut.begin(), cut.end(), 1) == cut.end()) {
    if (boundary) return false;  // already a disk
    cutTwoEdges(edges, cut);
  }
  // Corners (3 t + k) around one vertex stay together across uncut edges.
  detail::DisjointSets corner(3 * m);
  const MeshTriangle* tris = mesh.getTriangles();
  for (int i = 0; i < int(edges.size()); ++i) {
    const Edge& e = edges[i];
    if (e.faces[1] < 0 || cut[i]) continue;
    for (int v : {e.a, e.b}) {
      int c[2];
      for (int s = 0; s < 2; ++s) {
        const MeshTriangle& t = tris[e.faces[s]];
        c[s] = 3 * e.faces[s] + (t[0] == v ? 0 : (t[1] == v ? 1 : 2));
      }
      corner.join(c[0], c[1]);
    }
  }
  // One vertex per class of corners: the first class met keeps the index.
  kx::vector<int> vertexOf(3 * std::size_t(m), -1);
  kx::vector<int> origin(static_cast<std::size_t>(n));
  std::iota(origin.begin(), origin.end(), 0);
  kx::vector<char> taken(std::size_t(n), 0);
  kx::vector<int> corners(3 * std::size_t(m));
  for (int c = 0; c < 3 * m; ++c) {
    const int root = corner.find(c), v = tris[c / 3][c % 3];
    if (vertexOf[root] < 0) {
      vertexOf[root] = taken[v] ? int(origin.size()) : v;
      if (taken[v]) origin.push_back(v);
      taken[v] = 1;
    }
    corners[c] = vertexOf[root];
  }
  const int added = int(origin.size()) - n;
  mesh.resizeVertexArray(n + added);
  for (int v = n; v < n + added; ++v) {
    mesh.getVertices()[v] = mesh.getVertices()[origin[v]];
    if (MeshNormal* nrm = mesh.getNormals()) nrm[v] = nrm[origin[v]];
    if (MeshUV* uv = mesh.getUVs()) uv[v] = uv[origin[v]];
  }
  mesh.copyTriangles(m, corners.data());
  MeshModification mod(&mesh, MeshModification::TopologyChanged, nullptr);
  mod.normalsModified();
  mod.uvsModified();
  mesh.modified(mod);
  if (source) *source = origin;
  return true;
}

}  // namespace cutSurface
}  // namespace kxGeom
