#include <kxgeom/mesh_select.h>

#include <algorithm>

#include <kxgeom/platform/os.h>

namespace kxGeom {

namespace {

bool isSet(const BitVector& bits, int i) { return i < bits.size() && bits.isBitSet(i); }

// Whether triangles a and b name both ends of a's edge e.
bool sharesEdge(const MeshTriangle& a, int e, const MeshTriangle& b) {
  const int u = a[e], w = a[(e + 1) % 3];
  const bool hasU = b[0] == u || b[1] == u || b[2] == u;
  const bool hasW = b[0] == w || b[1] == w || b[2] == w;
  return hasU && hasW;
}

// Compacts `count` records of `data` in place through `map`.
template <class T>
int compact(T* data, int count, const Remap& map) {
  int next = 0;
  for (int i = 0; i < count; ++i) {
    if (map(i) >= 0) data[next++] = data[i];
  }
  return next;
}

// Renumbers the lines and drops those that lost a vertex.
void remapLines(CompactMesh& mesh, const Remap& vertexMap) {
  MeshLine* lines = mesh.getLines();
  int kept = 0;
  for (int i = 0; i < mesh.getNumLines(); ++i) {
    const int a = vertexMap(lines[i][0]), b = vertexMap(lines[i][1]);
    if (a >= 0 && b >= 0) lines[kept++] = MeshLine{{a, b}};
  }
  mesh.resizeLineArray(kept);
}

// Renumbers the line strips and drops those that lost a vertex.
void remapLineStrips(CompactMesh& mesh, const Remap& vertexMap) {
  const int numStrips = mesh.getNumLineStrips();
  kx::vector<int> lengths, points;
  const int* length = mesh.getLineStripLengths();
  const int* p = mesh.getLineStripPoints();
  for (int s = 0; s < numStrips; p += length[s], ++s) {
    const bool whole = std::all_of(p, p + length[s], [&](int v) { return vertexMap(v) >= 0; });
    if (!whole) continue;
    lengths.push_back(length[s]);
    for (int k = 0; k < length[s]; ++k) points.push_back(vertexMap(p[k]));
  }
  mesh.resizeLineStripArrays(int(lengths.size()), int(points.size()));
  std::copy(lengths.begin(), lengths.end(), mesh.getLineStripLengths());
  std::copy(points.begin(), points.end(), mesh.getLineStripPoints());
}

// Deletes by the two delete sets (already restricted to what may go).
void deleteSets(CompactMesh& mesh, const BitVector& deadVertices, const BitVector& deadTriangles,
                Remap& vertexMap, Remap& triangleMap) {
  const int n = mesh.getNumVertices(), m = mesh.getNumTriangles();
  vertexMap.setDeleteMap(deadVertices);
  triangleMap.setDeleteMap(deadTriangles);
  MeshRemap maps(&vertexMap, &triangleMap);
  MeshModification mod(&mesh, MeshModification::TopologyChanged, &maps);
  const int keptTriangles = compact(mesh.getTriangles(), m, triangleMap);
  vertexMap(mesh.getTrianglesRaw(), 3 * keptTriangles);
  const int keptVertices = compact(mesh.getVertices(), n, vertexMap);
  if (mesh.getNumLines() > 0) {
    remapLines(mesh, vertexMap);
    mod.linesModified();
  }
  if (mesh.getNumLineStrips() > 0) {
    remapLineStrips(mesh, vertexMap);
    mod.lineStripsModified();
  }
  if (keptTriangles < m && (mesh.getNumTriStrips() > 0 || mesh.getNumTriFans() > 0)) {
    mesh.resizeTriStripArrays(0, 0);
    mesh.resizeTriFanArrays(0, 0);
    mod.stripsAndFansModified();
  }
  mesh.resizeTriangleArray(keptTriangles);
  mesh.resizeVertexArray(keptVertices);
  mesh.modified(mod);
}

}  // namespace

MeshSelect::MeshSelect(const CompactMesh& mesh, const MeshAdjTris& adjacency, BitVector& vertices,
                       BitVector& triangles)
    : mesh_(mesh), adjacency_(adjacency), vertices_(vertices), triangles_(triangles) {}

void MeshSelect::selectVerticesFromTriangles() {
  const MeshTriangle* tris = mesh_.getTriangles();
  for (int t = 0; t < mesh_.getNumTriangles(); ++t) {
    if (!triangles_.isBitSet(t)) continue;
    for (int k = 0; k < 3; ++k) vertices_.setBit(tris[t][k]);
  }
}

void MeshSelect::selectTrianglesFromVertices(int count) {
  const MeshTriangle* tris = mesh_.getTriangles();
  for (int t = 0; t < mesh_.getNumTriangles(); ++t) {
    int selected = 0;
    for (int k = 0; k < 3; ++k) selected += vertices_.isBitSet(tris[t][k]) ? 1 : 0;
    if (selected >= count) triangles_.setBit(t);
  }
}

void MeshSelect::addEdgeNeighbours(int t, kx::vector<int>& found) {
  const MeshTriangle* tris = mesh_.getTriangles();
  for (int e = 0; e < 3; ++e) {
    const int u = tris[t][e];
    const int* around = adjacency_.triIndices(u);
    for (int i = 0, n = adjacency_.numTris(u); i < n; ++i) {
      const int other = around[i];
      if (triangles_.isBitSet(other) || !sharesEdge(tris[t], e, tris[other])) continue;
      triangles_.setBit(other);
      found.push_back(other);
    }
  }
}

void MeshSelect::selectTrianglesRecursive(bool oneRing) {
  kx::vector<int> frontier, next;
  for (int t = 0; t < mesh_.getNumTriangles(); ++t) {
    if (triangles_.isBitSet(t)) frontier.push_back(t);
  }
  // Breadth-first: each pass adds the ring around the previous one.
  while (!frontier.empty()) {
    next.clear();
    for (int t : frontier) addEdgeNeighbours(t, next);
    if (oneRing) return;
    frontier.swap(next);
  }
}

bool MeshDeleteSelected::apply(Remap* vertexMap, Remap* triangleMap) {
  const int n = mesh_.getNumVertices(), m = mesh_.getNumTriangles();
  const BitVector& selectedTris = mesh_.getSelectedTriangles();
  const BitVector& selectedVerts = mesh_.getSelectedVertices();
  BitVector deadTriangles(m), used(n), deadVertices(n);
  const MeshTriangle* tris = mesh_.getTriangles();
  for (int t = 0; t < m; ++t) {
    if (isSet(selectedTris, t)) {
      deadTriangles.setBit(t);
    } else {
      for (int k = 0; k < 3; ++k) used.setBit(tris[t][k]);
    }
  }
  bool any = deadTriangles.countSetBits() > 0;
  for (int v = 0; v < n; ++v) {
    if (isSet(selectedVerts, v) && !used.isBitSet(v)) {
      deadVertices.setBit(v);
      any = true;
    }
  }
  Remap localVertices, localTriangles;
  Remap& vmap = vertexMap ? *vertexMap : localVertices;
  Remap& tmap = triangleMap ? *triangleMap : localTriangles;
  if (!any) {
    vmap.resize(n, n);
    vmap.setSequential();
    tmap.resize(m, m);
    tmap.setSequential();
    return false;
  }
  deleteSets(mesh_, deadVertices, deadTriangles, vmap, tmap);
  return true;
}

bool MeshDeleteSelected::apply(const MeshAdjTris& adjacency, const kx::vector<int>& triangles) {
  BitVector& tris = mesh_.getSelectedTriangles();
  BitVector& verts = mesh_.getSelectedVertices();
  tris.resize(mesh_.getNumTriangles());
  tris.clearBits();
  verts.resize(mesh_.getNumVertices());
  verts.clearBits();
  for (int t : triangles) tris.setBit(t);
  MeshSelect(mesh_, adjacency, verts, tris).selectVerticesFromTriangles();
  return apply();
}

}  // namespace kxGeom
