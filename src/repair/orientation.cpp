#include <kxgeom/orientation.h>

#include <algorithm>
#include <numeric>

#include <kxgeom/adjacency.h>
#include <kxgeom/mesh_select.h>
#include <kxgeom/platform/os.h>

#include "mesh/disjoint_sets.h"

namespace kxGeom {

namespace {

bool runsForwards(const MeshTriangle& t, int u, int w) {
  return (t[0] == u && t[1] == w) || (t[1] == u && t[2] == w) || (t[2] == u && t[0] == w);
}

bool holds(const MeshTriangle& t, int v) { return t[0] == v || t[1] == v || t[2] == v; }

// The triangles around the edge {u, w}: listed at both ends in ascending
// order, so the shorter list gives them in the same order as the longer.
struct EdgeFan {
  const int* tris;
  int count;
  int other;  // the end the listed triangles must also hold
};

EdgeFan edgeFan(const MeshAdjTris& adjacency, int u, int w) {
  if (adjacency.numTris(w) < adjacency.numTris(u)) {
    return {adjacency.triIndices(w), adjacency.numTris(w), u};
  }
  return {adjacency.triIndices(u), adjacency.numTris(u), w};
}

// The triangles around one vertex, each rotated so that the vertex comes
// first, with the spoke edges they count and their fan components.
class VertexFan {
 public:
  // Builds the fan of v; returns its classification: 2 when a spoke edge is
  // counted more than twice, else 0 for one component and 1 for several
  // (components are labelled only when `label` is set or no spoke is bad).
  int build(const CompactMesh& mesh, const MeshAdjTris& adjacency, int v) {
    v_ = v;
    const int n = adjacency.numTris(v);
    const int* tris = adjacency.triIndices(v);
    const MeshTriangle* all = mesh.getTriangles();
    rotated_.resize(std::size_t(n));
    spokes_.clear();
    for (int i = 0; i < n; ++i) {
      const MeshTriangle& t = all[tris[i]];
      const int k = t[0] == v ? 0 : (t[1] == v ? 1 : 2);
      rotated_[i] = {t[k], t[(k + 1) % 3], t[(k + 2) % 3]};
      spokes_.push_back({rotated_[i][1], i});
      spokes_.push_back({rotated_[i][2], i});
    }
    std::sort(spokes_.begin(), spokes_.end());
    if (hasOvershared()) return 2;
    labelComponents();
    return numComponents_ >= 2 ? 1 : 0;
  }

  // Appends every spoke edge counted more than twice as (low, high).
  void appendOvershared(kx::vector<std::pair<int, int>>& out) const {
    for (std::size_t i = 0; i < spokes_.size();) {
      const std::size_t j = runEnd(i);
      if (j - i > 2) out.push_back(std::minmax(v_, spokes_[i].first));
      i = j;
    }
  }

  int numComponents() const { return numComponents_; }
  int label(int i) const { return labels_[std::size_t(i)]; }

 private:
  std::size_t runEnd(std::size_t i) const {
    std::size_t j = i + 1;
    while (j < spokes_.size() && spokes_[j].first == spokes_[i].first) ++j;
    return j;
  }
  bool hasOvershared() const {
    for (std::size_t i = 0; i < spokes_.size(); i = runEnd(i)) {
      if (runEnd(i) - i > 2) return true;
    }
    return false;
  }
  // Walks the fan in order: a triangle joins the first earlier triangle it
  // touches (shares a non-centre vertex with), then merges at most one other
  // component, the first touching it between the two. With no spoke counted
  // more than twice a triangle touches at most two others, so that rule
  // joins exactly the touching pairs: union-find over the sorted spokes (each
  // pair of equal neighbours is one touching pair) gives the same parts in
  // linear time, and the labels come out as the ranks of the parts by their
  // first triangle, which is what renumbering after each merge produces.
  void labelComponents() {
    const int n = int(rotated_.size());
    parts_.reset(n);
    for (std::size_t i = 0; i + 1 < spokes_.size(); ++i) {
      if (spokes_[i].first == spokes_[i + 1].first)
        parts_.join(spokes_[i].second, spokes_[i + 1].second);
    }
    labels_.assign(std::size_t(n), 0);
    kx::vector<int>& rank = rank_;
    rank.assign(std::size_t(n), -1);
    numComponents_ = 0;
    for (int j = 0; j < n; ++j) {
      const int root = parts_.find(j);
      if (rank[root] < 0) rank[root] = numComponents_++;
      labels_[j] = rank[root];
    }
  }

  int v_ = -1;
  kx::vector<MeshTriangle> rotated_;
  kx::vector<std::pair<int, int>> spokes_;  // (other end, fan triangle), sorted
  detail::DisjointSets parts_;              // reused from fan to fan
  kx::vector<int> labels_, rank_;
  int numComponents_ = 1;
};

// The third vertex of t, off the edge {a, b}.
int offEdge(const MeshTriangle& t, int a, int b) {
  for (int k = 0; k < 3; ++k) {
    if (t[k] != a && t[k] != b) return t[k];
  }
  return t[0];
}

// Selects, on the over-shared spoke {low, high}, every triangle but the two
// whose opposite vertices carry the most triangles.
void selectSurplus(const CompactMesh& mesh, const MeshAdjTris& adjacency, int low, int high,
                   BitVector& selection) {
  const MeshTriangle* tris = mesh.getTriangles();
  kx::vector<int> around;
  const int* list = adjacency.triIndices(low);
  for (int i = 0, n = adjacency.numTris(low); i < n; ++i) {
    if (holds(tris[list[i]], high)) around.push_back(list[i]);
  }
  const auto carried = [&](int t) { return adjacency.numTris(offEdge(tris[t], low, high)); };
  std::sort(around.begin(), around.end(), [&](int a, int b) { return carried(a) < carried(b); });
  for (std::size_t i = 0; i + 2 < around.size(); ++i) selection.setBit(around[i]);
}

void removeOversharedEdges(CompactMesh& mesh, const MeshAdjTris& adjacency,
                           const MeshManifoldResult& result) {
  BitVector& selection = mesh.getSelectedTriangles();
  selection.resize(mesh.getNumTriangles());
  VertexFan fan;
  kx::vector<std::pair<int, int>> spokes;
  for (const auto& edge : result.badEdges) {
    fan.build(mesh, adjacency, edge.first);
    spokes.clear();
    fan.appendOvershared(spokes);
    for (const auto& s : spokes) selectSurplus(mesh, adjacency, s.first, s.second, selection);
  }
  BitVector& vertices = mesh.getSelectedVertices();
  vertices.resize(mesh.getNumVertices());
  MeshSelect(mesh, adjacency, vertices, selection).selectVerticesFromTriangles();
  MeshDeleteSelected(mesh).apply();
}

// Zeroes the per-vertex data of vertices [from, to) other than positions.
void zeroNewVertexData(CompactMesh& mesh, int from, int to) {
  if (MeshNormal* n = mesh.getNormals()) std::fill(n + from, n + to, MeshNormal{0, 0, 0});
  if (MeshUV* uv = mesh.getUVs()) std::fill(uv + from, uv + to, MeshUV{0, 0});
  if (MeshUV* st = mesh.getSTs()) std::fill(st + from, st + to, MeshUV{0, 0});
}

void splitBadVertices(CompactMesh& mesh, const MeshAdjTris& adjacency,
                      const MeshManifoldResult& result) {
  const int n = mesh.getNumVertices();
  VertexFan fan;
  int added = 0;
  for (int v = 0; v < n; ++v) {
    if (result.badVertices.isBitSet(v) && fan.build(mesh, adjacency, v) == 1) {
      added += fan.numComponents() - 1;
    }
  }
  mesh.resizeVertexArray(n + added);
  zeroNewVertexData(mesh, n, n + added);
  MeshTriangle* tris = mesh.getTriangles();
  int next = n;
  for (int v = 0; v < n; ++v) {
    if (!result.badVertices.isBitSet(v) || fan.build(mesh, adjacency, v) != 1) continue;
    const int* list = adjacency.triIndices(v);
    for (int i = 0, count = adjacency.numTris(v); i < count; ++i) {
      const int label = fan.label(i);
      if (label == 0) continue;
      MeshTriangle& t = tris[list[i]];
      for (int k = 0; k < 3; ++k) {
        if (t[k] == v) t[k] = next + label - 1;
      }
    }
    for (int c = 1; c < fan.numComponents(); ++c)
      mesh.getVertices()[next + c - 1] = mesh.getVertices()[v];
    next += fan.numComponents() - 1;
  }
  MeshModification mod(&mesh, MeshModification::TopologyChanged, nullptr);
  mesh.modified(mod);
}

// Reverses the triangle strips; see meshReverseWinding's contract.
void reverseStrips(CompactMesh& mesh) {
  const int numStrips = mesh.getNumTriStrips();
  const int* lengths = mesh.getTriStripLengths();
  int even = 0, four = 0;
  for (int s = 0; s < numStrips; ++s) {
    even += lengths[s] % 2 == 0 ? 1 : 0;
    four += lengths[s] == 4 ? 1 : 0;
  }
  if (four < even) {
    kx::vector<int> newLengths, points;
    const int* p = mesh.getTriStripPoints();
    for (int s = 0; s < numStrips; p += lengths[s], ++s) {
      if (lengths[s] % 2 == 0) {
        points.push_back(p[0]);
        points.insert(points.end(), p, p + lengths[s]);
      } else {
        points.insert(points.end(), std::reverse_iterator<const int*>(p + lengths[s]),
                      std::reverse_iterator<const int*>(p));
      }
      newLengths.push_back(lengths[s] + (lengths[s] % 2 == 0 ? 1 : 0));
    }
    mesh.resizeTriStripArrays(numStrips, int(points.size()));
    std::copy(newLengths.begin(), newLengths.end(), mesh.getTriStripLengths());
    std::copy(points.begin(), points.end(), mesh.getTriStripPoints());
    return;
  }
  int* p = mesh.getTriStripPoints();
  for (int s = 0; s < numStrips; p += lengths[s], ++s) {
    if (lengths[s] == 4) {
      std::swap(p[1], p[2]);
    } else {
      std::reverse(p, p + lengths[s]);
    }
  }
}

void reverseFans(CompactMesh& mesh) {
  const int* lengths = mesh.getTriFanLengths();
  int* p = mesh.getTriFanPoints();
  for (int f = 0; f < mesh.getNumTriFans(); p += lengths[f], ++f) {
    if (lengths[f] > 1) std::reverse(p + 1, p + lengths[f]);
  }
}

void negate(MeshNormal& n) { n = MeshNormal{-n.x, -n.y, -n.z}; }

}  // namespace

// --- MeshOrient ----------------------------------------------------------------

MeshOrient::MeshOrient(CompactMesh& mesh, const MeshAdjTris& adjacency)
    : mesh_(mesh), adjacency_(adjacency) {
  compute();
}

void MeshOrient::compute() {
  oriented_ = computeOriented();
  orientable_ = oriented_;
}

bool MeshOrient::computeOriented() const {
  const MeshTriangle* tris = mesh_.getTriangles();
  for (int t = 0; t < mesh_.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      const int u = tris[t][k], w = tris[t][(k + 1) % 3];
      const EdgeFan fan = edgeFan(adjacency_, u, w);
      for (int i = 0; i < fan.count; ++i) {
        if (fan.tris[i] != t && runsForwards(tris[fan.tris[i]], u, w)) return false;
      }
    }
  }
  return true;
}

bool MeshOrient::search(bool& changed, int seed) {
  MeshTriangle* tris = mesh_.getTriangles();
  visited_.setBit(seed);
  int head = 0, tail = 0;
  queue_[0] = seed;
  while (head <= tail) {
    const int t = queue_[head++];
    for (int k = 0; k < 3; ++k) {
      const int u = tris[t][k], w = tris[t][(k + 1) % 3];
      const EdgeFan fan = edgeFan(adjacency_, u, w);
      for (int i = 0; i < fan.count; ++i) {
        const int n = fan.tris[i];
        if (n == t || !holds(tris[n], fan.other)) continue;
        if (runsForwards(tris[n], u, w)) {
          if (visited_.isBitSet(n)) {
            conflictTri_ = n;
            return false;
          }
          std::swap(tris[n][1], tris[n][2]);
          changed = true;
        }
        if (!visited_.isBitSet(n)) {
          queue_[++tail] = n;
          visited_.setBit(n);
        }
      }
    }
  }
  return true;
}

bool MeshOrient::computeOrientation(bool& changed) {
  const int m = mesh_.getNumTriangles();
  visited_ = BitVector(m);
  queue_.assign(std::size_t(std::max(m, 1)), 0);
  changed = false;
  for (int i = 0; i < m; ++i) {
    if (visited_.isBitSet(i) || search(changed, i)) continue;
    visited_.clearBits();
    search(changed, conflictTri_);
    return false;
  }
  return true;
}

void MeshOrient::orient() {
  if (oriented_) return;
  bool changed = false;
  oriented_ = computeOrientation(changed);
  if (oriented_) orientable_ = true;
  if (!changed) return;
  MeshModification mod(&mesh_, MeshModification::TopologyChanged, nullptr);
  mod.uvsValid();
  mod.stsValid();
  mod.coloursValid();
  mesh_.modified(mod);
}

bool meshOriented(const CompactMesh& mesh, const MeshAdjTris& adjacency) {
  // The test only reads the mesh; the class holds it non-const for orient().
  return MeshOrient(const_cast<CompactMesh&>(mesh), adjacency).isOriented();
}

bool meshMakeOriented(CompactMesh& mesh, const MeshAdjTris& adjacency) {
  MeshOrient orient(mesh, adjacency);
  orient.orient();
  return orient.isOriented();
}

// --- manifoldness ----------------------------------------------------------------

void meshManifold(const CompactMesh& mesh, const MeshAdjTris& adjacency,
                  MeshManifoldResult& result) {
  kxOS::StopWatch watch;
  watch.start();
  const int n = mesh.getNumVertices();
  result.badVertices = BitVector(n);
  result.badEdges.clear();
  // One pass classifies every fan; the vertices with several fans count
  // only when no edge is over-shared.
  VertexFan fan;
  BitVector severalFans(n);
  for (int v = 0; v < n; ++v) {
    if (adjacency.numTris(v) <= 1) continue;
    const int kind = fan.build(mesh, adjacency, v);
    if (kind == 2) fan.appendOvershared(result.badEdges);
    if (kind == 1) severalFans.setBit(v);
  }
  std::sort(result.badEdges.begin(), result.badEdges.end());
  result.badEdges.erase(std::unique(result.badEdges.begin(), result.badEdges.end()),
                        result.badEdges.end());
  if (result.badEdges.empty()) result.badVertices = severalFans;
  debugChannel().print(
      "meshManifold:  vertices %d  triangles %d: %f s\n               badVertexAdj(%d) "
      "badEdgeAdj(%d)\n",
      n, mesh.getNumTriangles(), watch.stop(), result.badVertices.countSetBits(),
      int(result.badEdges.size()));
}

void meshMakeManifold(CompactMesh& mesh, const MeshAdjTris& adjacency,
                      const MeshManifoldResult& result) {
  if (!result.badEdges.empty()) {
    removeOversharedEdges(mesh, adjacency, result);
    return;
  }
  if (result.badVertices.countSetBits() == 0) return;
  splitBadVertices(mesh, adjacency, result);
}

void meshMakeManifold(CompactMesh& mesh) {
  for (;;) {
    MeshAdjTris adjacency;
    meshAdjTris(mesh, adjacency);
    MeshManifoldResult result;
    meshManifold(mesh, adjacency, result);
    if (result.isClean()) return;
    meshMakeManifold(mesh, adjacency, result);
  }
}

// --- winding reversal ------------------------------------------------------------

void meshReverseWinding(CompactMesh& mesh, bool flipVertexNormals) {
  debugChannel().print("meshReverseWinding: %d triangles\n", mesh.getNumTriangles());
  kxOS::StopWatch watch;
  watch.start();
  MeshTriangle* tris = mesh.getTriangles();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) std::swap(tris[t][0], tris[t][1]);
  reverseStrips(mesh);
  reverseFans(mesh);
  if (flipVertexNormals && mesh.getNormals()) {
    MeshNormal* normals = mesh.getNormals();
    for (int v = 0; v < mesh.getNumVertices(); ++v) negate(normals[v]);
  }
  if (MeshNormal* triNormals = mesh.getTriangleNormals()) {
    for (int t = 0; t < mesh.getNumTriangles(); ++t) negate(triNormals[t]);
  }
  MeshModification mod(&mesh, MeshModification::TopologyChanged, nullptr);
  if (flipVertexNormals) {
    mod.normalsModified();
  } else {
    mod.normalsValid();
  }
  mod.triangleNormalsModified();
  mod.uvsValid();
  mod.stripsAndFansModified();
  mesh.modified(mod);
  debugChannel().print("  remapped triangle indices: %f s\n", watch.stop());
}

void meshReverseSelectedWinding(CompactMesh& mesh) {
  const BitVector& selected = mesh.getSelectedTriangles();
  debugChannel().print("meshReverseSelectedWinding: %d triangles\n", selected.size());
  kxOS::StopWatch watch;
  watch.start();
  MeshTriangle* tris = mesh.getTriangles();
  MeshNormal* normals = mesh.getNormals();
  MeshNormal* triNormals = mesh.getTriangleNormals();
  BitVector negated(normals ? mesh.getNumVertices() : 0);
  const int m = std::min(mesh.getNumTriangles(), selected.size());
  for (int t = 0; t < m; ++t) {
    if (!selected.isBitSet(t)) continue;
    std::swap(tris[t][0], tris[t][1]);
    for (int k = 0; normals && k < 3; ++k) {
      if (negated.isBitSet(tris[t][k])) continue;
      negated.setBit(tris[t][k]);
      negate(normals[tris[t][k]]);
    }
    if (triNormals) negate(triNormals[t]);
  }
  MeshModification mod(&mesh, MeshModification::TopologyChanged, nullptr);
  mod.normalsModified();
  mod.triangleNormalsModified();
  mod.uvsValid();
  mesh.modified(mod);
  debugChannel().print("  mesh reverse selected winding: %f s\n", watch.stop());
}

void meshReverseWinding(CompactMesh& mesh, const MeshAdjTris& adjacency, int triangle) {
  BitVector& tris = mesh.getSelectedTriangles();
  tris.resize(mesh.getNumTriangles());
  tris.setBit(triangle);
  BitVector& vertices = mesh.getSelectedVertices();
  vertices.resize(mesh.getNumVertices());
  MeshSelect(mesh, adjacency, vertices, tris).selectTrianglesRecursive();
  meshReverseSelectedWinding(mesh);
}

}  // namespace kxGeom
