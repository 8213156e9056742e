#include <kxgeom/edge_swap.h>

#include <cmath>
#include <unordered_map>

#include <kxgeom/platform/os.h>
#include <kxgeom/predicates.h>

#include "mesh/corner_angles.h"

namespace kxGeom {

namespace {

bool isTriangle(const TopoMesh& mesh, TopoMeshHalfEdge h) {
  return mesh.next(mesh.next(mesh.next(h))) == h;
}

kxLinear::Vector normalOf(const kxLinear::Point& a, const kxLinear::Point& b,
                          const kxLinear::Point& c) {
  return kxLinear::cross(b - a, c - a);
}

// The corners around the edge of half-edge h: the triangles (a, b, c) and
// (b, a, d) before a swap, (a, d, c) and (b, c, d) after it.
struct Quad {
  kxLinear::Point a, b, c, d;

  // The two angles opposite the edge before and after the swap.
  double beforeAngles() const { return corner::angleAt(a, c, b) + corner::angleAt(b, d, a); }
  double afterAngles() const { return corner::angleAt(d, a, c) + corner::angleAt(c, b, d); }
};

Quad quadAround(const TopoMesh& mesh, TopoMeshHalfEdge h) {
  const TopoMeshHalfEdge g = mesh.twin(h);
  return {mesh.getPoint(mesh.origin(h)), mesh.getPoint(mesh.target(h)),
          mesh.getPoint(mesh.origin(mesh.prev(h))), mesh.getPoint(mesh.origin(mesh.prev(g)))};
}

// Whether the faces around `from` hold an edge between `from` and `to`,
// turning both ways from its recorded half-edge (a boundary stops a turn).
bool hasEdge(const TopoMesh& mesh, TopoMeshVertex from, TopoMeshVertex to) {
  const TopoMeshHalfEdge start = mesh.getHalfEdge(from);
  if (!mesh.isLive(start)) return false;
  const auto touches = [&](TopoMeshHalfEdge out) {
    return mesh.target(out) == to || mesh.origin(mesh.prev(out)) == to;
  };
  TopoMeshHalfEdge h = start;
  do {
    if (touches(h)) return true;
    h = mesh.twin(mesh.prev(h));
  } while (h.isValid() && h != start);
  if (h == start) return false;
  for (h = start; mesh.twin(h).isValid();) {
    h = mesh.next(mesh.twin(h));
    if (h == start) break;
    if (touches(h)) return true;
  }
  return false;
}

// The half-edge of face f starting at v.
TopoMeshHalfEdge halfEdgeFrom(const TopoMesh& mesh, TopoMeshFace f, TopoMeshVertex v) {
  TopoMeshHalfEdge h = mesh.getHalfEdge(f);
  while (mesh.origin(h) != v) h = mesh.next(h);
  return h;
}

constexpr double kPi = 3.14159265358979323846;

// Whether the angle between the normals u and v is at most the angle whose
// cosine is `cosLimit`; a zero normal passes.
bool withinFold(const kxLinear::Vector& u, const kxLinear::Vector& v, double cosLimit) {
  const double lengths = std::sqrt(u.length2() * v.length2());
  return !(lengths > 0) || kxLinear::dot(u, v) >= cosLimit * lengths;
}

// The rule of meshSwapEdges as a swapper's veto (true forbids the swap).
// Faces are mapped to the mesh triangle whose slot they hold, for the lock.
class FlipRule {
 public:
  FlipRule(const MeshSwapEdgesOptions& options, const BitVector& selection,
           const kx::vector<int>& slotOf)
      : cosLimit_(std::cos(options.maxFoldDegrees * kPi / 180)),
        selectedOnly_(options.selectedOnly),
        selection_(selection),
        slotOf_(slotOf) {}

  bool operator()(const TopoMesh& mesh, TopoMeshHalfEdge h) const {
    if (locked(mesh, h) || repeatsCorner(mesh, h)) return true;
    const Quad q = quadAround(mesh, h);
    if (!(q.beforeAngles() > kPi + 1e-12)) return true;
    if (MeshEdgeSwapper::minimizeOppositeAngleSum(mesh, h)) return true;
    return !withinFold(normalOf(q.a, q.b, q.c), normalOf(q.b, q.a, q.d), cosLimit_) ||
           !withinFold(normalOf(q.a, q.d, q.c), normalOf(q.b, q.c, q.d), cosLimit_);
  }

 private:
  bool selected(TopoMeshFace f) const {
    const int slot = slotOf_[std::size_t(f.index)];
    return slot < selection_.size() && selection_.isBitSet(slot);
  }
  bool locked(const TopoMesh& mesh, TopoMeshHalfEdge h) const {
    return selectedOnly_ && !(selected(mesh.face(h)) && selected(mesh.face(mesh.twin(h))));
  }
  static bool repeatsCorner(const TopoMesh& mesh, TopoMeshHalfEdge h) {
    const TopoMeshVertex a = mesh.origin(h), b = mesh.target(h);
    const TopoMeshVertex c = mesh.origin(mesh.prev(h)), d = mesh.origin(mesh.prev(mesh.twin(h)));
    return a == b || c == a || c == b || d == a || d == b;
  }

  double cosLimit_;
  bool selectedOnly_;
  const BitVector& selection_;
  const kx::vector<int>& slotOf_;
};

bool indicesValid(const CompactMesh& mesh) {
  const unsigned n = unsigned(mesh.getNumVertices());
  const int* corners = mesh.getTrianglesRaw();
  for (std::size_t i = 0, end = 3 * std::size_t(mesh.getNumTriangles()); i < end; ++i) {
    if (unsigned(corners[i]) >= n) return false;
  }
  return true;
}

kx::vector<TopoMeshHalfEdge> interiorEdges(const TopoMesh& mesh) {
  kx::vector<TopoMeshHalfEdge> edges;
  for (int h = 0; h < mesh.halfEdgeSlots(); ++h) {
    const TopoMeshHalfEdge e(h);
    if (mesh.isLive(e) && mesh.twin(e).isValid() && h < mesh.twin(e).index) edges.push_back(e);
  }
  return edges;
}

// Writes the faces added by swaps (those past the first `numTriangles`) to
// the triangle slots they hold, with their normals when the mesh keeps them.
void writeSwappedFaces(const TopoMesh& topo, const kx::vector<int>& slotOf, int numTriangles,
                       CompactMesh& mesh) {
  MeshNormal* normals = mesh.getTriangleNormals();
  for (int f = numTriangles; f < topo.faceSlots(); ++f) {
    if (!topo.isLive(TopoMeshFace(f))) continue;
    const int slot = slotOf[std::size_t(f)];
    MeshTriangle& tri = mesh.getTriangles()[slot];
    TopoMeshHalfEdge h = topo.getHalfEdge(TopoMeshFace(f));
    for (int k = 0; k < 3; ++k, h = topo.next(h)) tri[k] = topo.origin(h).index;
    if (normals) {
      const kxLinear::Vector n = meshTriNormal(mesh.getVerticesRaw(), tri.v).vector();
      normals[slot].set(float(n.x), float(n.y), float(n.z));
    }
  }
}

}  // namespace

bool MeshEdgeSwapper::minimizeOppositeAngleSum(const TopoMesh& mesh, TopoMeshHalfEdge h) {
  const Quad q = quadAround(mesh, h);
  if (!(q.afterAngles() < q.beforeAngles() - 1e-12)) return true;
  // The new triangles must face the way the old ones did.
  const kxLinear::Vector n = normalOf(q.a, q.b, q.c) + normalOf(q.b, q.a, q.d);
  return !(kxLinear::dot(normalOf(q.a, q.d, q.c), n) > 0 &&
           kxLinear::dot(normalOf(q.b, q.c, q.d), n) > 0);
}

bool MeshEdgeSwapper::swap(TopoMeshHalfEdge h, Swap* done) {
  if (!mesh_.isLive(h)) return false;
  const TopoMeshHalfEdge g = mesh_.twin(h);
  if (!g.isValid() || !isTriangle(mesh_, h) || !isTriangle(mesh_, g)) return false;
  const TopoMeshVertex a = mesh_.origin(h), b = mesh_.target(h);
  const TopoMeshVertex c = mesh_.origin(mesh_.prev(h)), d = mesh_.origin(mesh_.prev(g));
  if (c == d || hasEdge(mesh_, c, d)) return false;
  if (veto_ && veto_(mesh_, h)) return false;
  // The four outer edges keep their outside twins.
  const TopoMeshHalfEdge bc = mesh_.twin(mesh_.next(h)), ca = mesh_.twin(mesh_.prev(h));
  const TopoMeshHalfEdge ad = mesh_.twin(mesh_.next(g)), db = mesh_.twin(mesh_.prev(g));
  Swap s;
  const TopoMeshHalfEdge old[6] = {h, mesh_.next(h), mesh_.prev(h),
                                   g, mesh_.next(g), mesh_.prev(g)};
  s.removed[0] = mesh_.face(h);
  s.removed[1] = mesh_.face(g);
  mesh_.deleteFace(s.removed[0]);
  mesh_.deleteFace(s.removed[1]);
  const TopoMeshVertex first[3] = {a, d, c}, second[3] = {b, c, d};
  s.added[0] = mesh_.addFace(first, 3);
  s.added[1] = mesh_.addFace(second, 3);
  const TopoMeshHalfEdge adNew = halfEdgeFrom(mesh_, s.added[0], a);
  const TopoMeshHalfEdge bcNew = halfEdgeFrom(mesh_, s.added[1], b);
  mesh_.setTwins(adNew, ad);
  mesh_.setTwins(mesh_.next(adNew), mesh_.next(bcNew));  // d -> c and c -> d
  mesh_.setTwins(mesh_.prev(adNew), ca);
  mesh_.setTwins(bcNew, bc);
  mesh_.setTwins(mesh_.prev(bcNew), db);
  s.edge = mesh_.next(bcNew);
  // Where each old half-edge's edge now lies (the swapped one: the new edge).
  const TopoMeshHalfEdge now[6] = {s.edge, bcNew, mesh_.prev(adNew),
                                   s.edge, adNew, mesh_.prev(bcNew)};
  for (int k = 0; k < 6; ++k) {
    s.oldEdges[k] = old[k];
    s.newEdges[k] = now[k];
  }
  if (done) *done = s;
  return true;
}

int meshSwapEdgesRepeatedly(MeshEdgeSwapper& swapper, kx::vector<TopoMeshHalfEdge>& edges,
                            int maxPasses,
                            const std::function<void(const MeshEdgeSwapper::Swap&)>& onSwap) {
  int total = 0;
  // Old half-edge slot -> the half-edge now holding its edge.
  std::unordered_map<int, TopoMeshHalfEdge> moved;
  const auto resolve = [&](TopoMeshHalfEdge e) {
    for (auto it = moved.find(e.index); it != moved.end(); it = moved.find(e.index)) e = it->second;
    return e;
  };
  for (int pass = 0; pass < maxPasses; ++pass) {
    int swapped = 0;
    for (TopoMeshHalfEdge& e : edges) {
      e = resolve(e);
      MeshEdgeSwapper::Swap s;
      if (!swapper.swap(e, &s)) continue;
      for (int k = 0; k < 6; ++k) moved[s.oldEdges[k].index] = s.newEdges[k];
      e = s.edge;
      ++swapped;
      if (onSwap) onSwap(s);
    }
    total += swapped;
    if (swapped == 0) break;
  }
  return total;
}

int meshSwapEdges(CompactMesh& mesh, const MeshSwapEdgesOptions& options) {
  kxOS::StopWatch watch;
  const int m = mesh.getNumTriangles();
  if (!indicesValid(mesh)) {
    debugChannel().print("meshSwapEdges: %d triangles, a corner out of range\n", m);
    return -1;
  }
  TopoMesh topo;
  topo.assign(mesh);
  // Face f holds triangle slot slotOf[f]; a swap's new faces take over the
  // slots of the faces they replace.
  kx::vector<int> slotOf;
  for (int t = 0; t < m; ++t) slotOf.push_back(t);
  MeshEdgeSwapper swapper(topo);
  swapper.setVeto(FlipRule(options, mesh.getSelectedTriangles(), slotOf));
  kx::vector<TopoMeshHalfEdge> edges = interiorEdges(topo);
  const int flips = meshSwapEdgesRepeatedly(
      swapper, edges, options.maxPasses, [&](const MeshEdgeSwapper::Swap& s) {
        slotOf.resize(std::size_t(topo.faceSlots()), -1);
        for (int k = 0; k < 2; ++k) {
          slotOf[std::size_t(s.added[k].index)] = slotOf[std::size_t(s.removed[k].index)];
        }
      });
  if (flips > 0) {
    writeSwappedFaces(topo, slotOf, m, mesh);
    MeshModification mod(&mesh, MeshModification::TopologyChanged, nullptr);
    if (mesh.getTriangleNormals()) mod.triangleNormalsModified();
    mesh.modified(mod);
  }
  debugChannel().print("meshSwapEdges: %d triangles, %d interior edges, %d flips %f s\n", m,
                       int(edges.size()), flips, watch.stop());
  return flips;
}

}  // namespace kxGeom
