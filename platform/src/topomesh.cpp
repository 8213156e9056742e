#include <kxgeom/platform/topomesh.h>

#include <algorithm>
#include <utility>

#include <kxgeom/platform/mesh.h>

namespace kxGeom {

namespace {

// An unpaired half-edge keyed by its undirected edge; `forward` tells which
// way it runs relative to the (low, high) order.
struct EdgeKey {
  int low, high;
  bool forward;
  int halfEdge;
  bool operator<(const EdgeKey& o) const {
    if (low != o.low) return low < o.low;
    if (high != o.high) return high < o.high;
    return halfEdge < o.halfEdge;
  }
};

// Pairs the keys of one undirected edge [first, last): the i-th forward
// half-edge with the i-th backward one, in half-edge order.
template <class Link>
void pairEdgeGroup(const EdgeKey* first, const EdgeKey* last, Link link) {
  const EdgeKey* fwd = first;
  const EdgeKey* bwd = first;
  for (;;) {
    while (fwd != last && !fwd->forward) ++fwd;
    while (bwd != last && bwd->forward) ++bwd;
    if (fwd == last || bwd == last) return;
    link(fwd->halfEdge, bwd->halfEdge);
    ++fwd;
    ++bwd;
  }
}

}  // namespace

void TopoMesh::swap(TopoMesh& o) noexcept {
  points_.swap(o.points_);
  vertexHalfEdge_.swap(o.vertexHalfEdge_);
  vertexDead_.swap(o.vertexDead_);
  faceHalfEdge_.swap(o.faceHalfEdge_);
  faceDead_.swap(o.faceDead_);
  heOrigin_.swap(o.heOrigin_);
  heNext_.swap(o.heNext_);
  hePrev_.swap(o.hePrev_);
  heTwin_.swap(o.heTwin_);
  heFace_.swap(o.heFace_);
  std::swap(liveVertices_, o.liveVertices_);
  std::swap(liveFaces_, o.liveFaces_);
  std::swap(liveHalfEdges_, o.liveHalfEdges_);
}

void TopoMesh::clear() {
  TopoMesh empty;
  swap(empty);
}

int TopoMesh::getFaceSize(TopoMeshFace f) const {
  const int first = faceHalfEdge_[f.index];
  int n = 0;
  int h = first;
  do {
    ++n;
    h = heNext_[h];
  } while (h != first);
  return n;
}

void TopoMesh::getFaceVertices(TopoMeshFace f, kx::vector<TopoMeshVertex>& out) const {
  out.clear();
  const int first = faceHalfEdge_[f.index];
  int h = first;
  do {
    out.push_back(TopoMeshVertex(heOrigin_[h]));
    h = heNext_[h];
  } while (h != first);
}

TopoMeshVertex TopoMesh::addVertex(const kxLinear::Point& p) {
  points_.push_back(p);
  vertexHalfEdge_.push_back(-1);
  vertexDead_.push_back(0);
  ++liveVertices_;
  return TopoMeshVertex(vertexSlots() - 1);
}

TopoMeshFace TopoMesh::addFace(const TopoMeshVertex* corners, int count) {
  if (count < 3) return TopoMeshFace();
  for (int i = 0; i < count; ++i) {
    if (!isLive(corners[i])) return TopoMeshFace();
  }
  const int f = faceSlots();
  const int first = halfEdgeSlots();
  for (int i = 0; i < count; ++i) {
    const int v = corners[i].index;
    heOrigin_.push_back(v);
    heNext_.push_back(first + (i + 1) % count);
    hePrev_.push_back(first + (i + count - 1) % count);
    heTwin_.push_back(-1);
    heFace_.push_back(f);
    if (vertexHalfEdge_[v] < 0) vertexHalfEdge_[v] = first + i;
  }
  faceHalfEdge_.push_back(first);
  faceDead_.push_back(0);
  ++liveFaces_;
  liveHalfEdges_ += count;
  return TopoMeshFace(f);
}

void TopoMesh::setTwins(TopoMeshHalfEdge a, TopoMeshHalfEdge b) {
  if (a.isValid()) heTwin_[a.index] = b.index;
  if (b.isValid()) heTwin_[b.index] = a.index;
}

void TopoMesh::killHalfEdge(int h) {
  const int t = heTwin_[h];
  if (t >= 0) heTwin_[t] = -1;
  heTwin_[h] = -1;
  heFace_[h] = -1;
  --liveHalfEdges_;
}

// Finds a live outgoing half-edge for v after its recorded one died: first
// by rotating around v through the dead half-edge's neighbours (their links
// are still intact), then by a scan over all half-edges.
void TopoMesh::repairVertexHalfEdge(int v) {
  const int dead = vertexHalfEdge_[v];
  if (dead < 0 || heFace_[dead] >= 0) return;
  const int viaPrev = heTwin_[hePrev_[dead]];  // runs v -> ..., twin of an edge into v
  const int intoV = heTwin_[dead];             // ends at v
  int candidate = -1;
  if (viaPrev >= 0 && heFace_[viaPrev] >= 0) {
    candidate = viaPrev;
  } else if (intoV >= 0 && heFace_[intoV] >= 0) {
    candidate = heNext_[intoV];
  } else {
    for (int h = 0; h < halfEdgeSlots(); ++h) {
      if (heFace_[h] >= 0 && heOrigin_[h] == v) {
        candidate = h;
        break;
      }
    }
  }
  vertexHalfEdge_[v] = candidate;
}

void TopoMesh::deleteFace(TopoMeshFace f) {
  if (!isLive(f)) return;
  const int first = faceHalfEdge_[f.index];
  // Read the twins before unlinking: the rotation in repairVertexHalfEdge
  // needs them, so mark the face's half-edges dead first, repair, then unlink.
  int h = first;
  do {
    heFace_[h] = -1;
    h = heNext_[h];
  } while (h != first);
  do {
    repairVertexHalfEdge(heOrigin_[h]);
    h = heNext_[h];
  } while (h != first);
  do {
    heFace_[h] = f.index;  // restore so killHalfEdge's bookkeeping applies
    killHalfEdge(h);
    h = heNext_[h];
  } while (h != first);
  faceDead_[f.index] = 1;
  faceHalfEdge_[f.index] = -1;
  --liveFaces_;
}

void TopoMesh::deleteVertex(TopoMeshVertex v) {
  if (!isLive(v)) return;
  for (int h = vertexHalfEdge_[v.index]; h >= 0; h = vertexHalfEdge_[v.index]) {
    deleteFace(face(TopoMeshHalfEdge(h)));
  }
  vertexDead_[v.index] = 1;
  --liveVertices_;
}

void TopoMesh::compact(kx::vector<int>* vertexMap) {
  kx::vector<int> vmap(vertexSlots(), -1), fmap(faceSlots(), -1), hmap(halfEdgeSlots(), -1);
  int nv = 0, nf = 0, nh = 0;
  for (int v = 0; v < vertexSlots(); ++v) {
    if (!vertexDead_[v]) vmap[v] = nv++;
  }
  for (int f = 0; f < faceSlots(); ++f) {
    if (!faceDead_[f]) fmap[f] = nf++;
  }
  for (int h = 0; h < halfEdgeSlots(); ++h) {
    if (heFace_[h] >= 0) hmap[h] = nh++;
  }
  auto mapped = [](const kx::vector<int>& map, int i) { return i < 0 ? -1 : map[i]; };
  TopoMesh out;
  out.points_.resize(nv);
  out.vertexHalfEdge_.resize(nv);
  out.vertexDead_.assign(nv, 0);
  for (int v = 0; v < vertexSlots(); ++v) {
    if (vmap[v] < 0) continue;
    out.points_[vmap[v]] = points_[v];
    out.vertexHalfEdge_[vmap[v]] = mapped(hmap, vertexHalfEdge_[v]);
  }
  out.faceHalfEdge_.resize(nf);
  out.faceDead_.assign(nf, 0);
  for (int f = 0; f < faceSlots(); ++f) {
    if (fmap[f] >= 0) out.faceHalfEdge_[fmap[f]] = hmap[faceHalfEdge_[f]];
  }
  for (auto* a : {&out.heOrigin_, &out.heNext_, &out.hePrev_, &out.heTwin_, &out.heFace_}) {
    a->resize(nh);
  }
  for (int h = 0; h < halfEdgeSlots(); ++h) {
    const int n = hmap[h];
    if (n < 0) continue;
    out.heOrigin_[n] = vmap[heOrigin_[h]];
    out.heNext_[n] = hmap[heNext_[h]];
    out.hePrev_[n] = hmap[hePrev_[h]];
    out.heTwin_[n] = mapped(hmap, heTwin_[h]);
    out.heFace_[n] = fmap[heFace_[h]];
  }
  out.liveVertices_ = nv;
  out.liveFaces_ = nf;
  out.liveHalfEdges_ = nh;
  swap(out);
  if (vertexMap) vertexMap->swap(vmap);
}

void TopoMesh::assign(const CompactMesh& mesh) {
  TopoMesh out;
  const int nv = mesh.getNumVertices();
  const int nt = mesh.getNumTriangles();
  out.points_.resize(nv);
  out.vertexHalfEdge_.assign(nv, -1);
  out.vertexDead_.assign(nv, 0);
  const MeshVertex* verts = mesh.getVertices();
  for (int v = 0; v < nv; ++v) out.points_[v] = verts[v].asPoint();
  out.liveVertices_ = nv;
  out.faceHalfEdge_.reserve(nt);
  out.faceDead_.reserve(nt);
  for (auto* a : {&out.heOrigin_, &out.heNext_, &out.hePrev_, &out.heTwin_, &out.heFace_}) {
    a->reserve(3 * std::size_t(nt));
  }
  const MeshTriangle* tris = mesh.getTriangles();
  for (int t = 0; t < nt; ++t) {
    const TopoMeshVertex c[3] = {TopoMeshVertex(tris[t][0]), TopoMeshVertex(tris[t][1]),
                                 TopoMeshVertex(tris[t][2])};
    out.addFace(c, 3);
  }
  meshTwin(out);
  swap(out);
}

void TopoMesh::toCompactMesh(CompactMesh& out, kx::vector<int>* vertexMap) const {
  kx::vector<int> vmap(vertexSlots(), -1);
  kx::vector<MeshVertex> verts;
  verts.reserve(liveVertices_);
  for (TopoMeshVertex v : vertices()) {
    vmap[v.index] = static_cast<int>(verts.size());
    const kxLinear::Point& p = points_[v.index];
    verts.push_back({float(p.x), float(p.y), float(p.z)});
  }
  kx::vector<int> tris;
  tris.reserve(3 * std::size_t(liveHalfEdges_));
  for (TopoMeshFace f : faces()) {
    const int first = faceHalfEdge_[f.index];
    for (int h = heNext_[first]; heNext_[h] != first; h = heNext_[h]) {
      tris.insert(tris.end(),
                  {vmap[heOrigin_[first]], vmap[heOrigin_[h]], vmap[heOrigin_[heNext_[h]]]});
    }
  }
  CompactMesh result(static_cast<int>(verts.size()), verts.data(), nullptr, nullptr, nullptr);
  result.copyTriangles(static_cast<int>(tris.size() / 3), tris.data());
  out.swap(result);
  if (vertexMap) vertexMap->swap(vmap);
}

void TopoMesh::modified(TopoMeshModification& mod) {
  ++modCount_;
  lastModType_ = mod.getType();
}

void meshTwin(TopoMesh& mesh) {
  kx::vector<EdgeKey> keys;
  for (int h = 0; h < mesh.halfEdgeSlots(); ++h) {
    const TopoMeshHalfEdge he(h);
    if (!mesh.isLive(he) || mesh.twin(he).isValid()) continue;
    const int a = mesh.origin(he).index, b = mesh.target(he).index;
    if (a == b) continue;  // a repeated corner has no edge to share
    keys.push_back({std::min(a, b), std::max(a, b), a < b, h});
  }
  std::sort(keys.begin(), keys.end());
  std::size_t i = 0;
  while (i < keys.size()) {
    std::size_t j = i + 1;
    while (j < keys.size() && keys[j].low == keys[i].low && keys[j].high == keys[i].high) ++j;
    pairEdgeGroup(keys.data() + i, keys.data() + j, [&mesh](int x, int y) {
      mesh.setTwins(TopoMeshHalfEdge(x), TopoMeshHalfEdge(y));
    });
    i = j;
  }
}

}  // namespace kxGeom
