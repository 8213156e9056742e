#include <kxgeom/edge_swap.h>

#include <cmath>
#include <unordered_map>

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

}  // namespace

bool MeshEdgeSwapper::minimizeOppositeAngleSum(const TopoMesh& mesh, TopoMeshHalfEdge h) {
  const TopoMeshHalfEdge g = mesh.twin(h);
  const kxLinear::Point& a = mesh.getPoint(mesh.origin(h));
  const kxLinear::Point& b = mesh.getPoint(mesh.target(h));
  const kxLinear::Point& c = mesh.getPoint(mesh.origin(mesh.prev(h)));
  const kxLinear::Point& d = mesh.getPoint(mesh.origin(mesh.prev(g)));
  const double before = corner::angleAt(a, c, b) + corner::angleAt(b, d, a);
  const double after = corner::angleAt(d, a, c) + corner::angleAt(c, b, d);
  if (!(after < before - 1e-12)) return true;
  // The new triangles must face the way the old ones did.
  const kxLinear::Vector n = normalOf(a, b, c) + normalOf(b, a, d);
  return !(kxLinear::dot(normalOf(a, d, c), n) > 0 && kxLinear::dot(normalOf(b, c, d), n) > 0);
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

}  // namespace kxGeom
