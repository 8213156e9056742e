#include <kxgeom/hole_fill.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include <kxgeom/conjugate_gradient.h>
#include <kxgeom/edge_swap.h>
#include <kxgeom/mesh_modify.h>
#include <kxgeom/mesh_select.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/triangulate_polygon.h>

namespace kxGeom {

namespace {

constexpr double kAlpha = 1.4142135623730951;  // sqrt(2)
constexpr int kMaxRefinementPasses = 64;

struct Weights {
  double triangulation, rest;
};

Weights weightsFor(HoleQuality quality) {
  if (quality == HoleFlat) return {1.0, 0.0};
  if (quality == HoleRefined) return {0.95, 0.05};
  return {0.85, 0.15};
}

std::uint64_t edgeKey(TopoMeshVertex a, TopoMeshVertex b) {
  return std::uint64_t(std::uint32_t(a.index)) << 32 | std::uint32_t(b.index);
}

// The vertices joined to v by an edge, turning both ways around v.
void ringOf(const TopoMesh& mesh, TopoMeshVertex v, kx::vector<TopoMeshVertex>& ring) {
  ring.clear();
  const TopoMeshHalfEdge start = mesh.getHalfEdge(v);
  if (!mesh.isLive(start)) return;
  const auto add = [&](TopoMeshVertex w) {
    if (std::find(ring.begin(), ring.end(), w) == ring.end()) ring.push_back(w);
  };
  TopoMeshHalfEdge h = start;
  do {
    add(mesh.target(h));
    add(mesh.origin(mesh.prev(h)));
    h = mesh.twin(mesh.prev(h));
  } while (h.isValid() && h != start);
  if (h == start) return;
  for (h = start; mesh.twin(h).isValid();) {
    h = mesh.next(mesh.twin(h));
    if (h == start) break;
    add(mesh.target(h));
    add(mesh.origin(mesh.prev(h)));
  }
}

// The patch of one hole: its faces (by slot), the scales of its vertices and
// the vertices it added.
class Patch {
 public:
  explicit Patch(TopoMesh& mesh) : mesh_(mesh), swapper_(mesh) {
    swapper_.setVeto(&MeshEdgeSwapper::minimizeOppositeAngleSum);
  }

  void addFace(TopoMeshFace f) {
    if (f.index >= int(inPatch_.size())) inPatch_.resize(std::size_t(f.index) + 1, 0);
    inPatch_[f.index] = 1;
  }
  bool holds(TopoMeshFace f) const {
    return f.isValid() && f.index < int(inPatch_.size()) && inPatch_[f.index];
  }
  void setScale(TopoMeshVertex v, double s) {
    if (v.index >= int(scale_.size())) scale_.resize(std::size_t(v.index) + 1, 0.0);
    scale_[v.index] = s;
  }
  double scale(TopoMeshVertex v) const {
    return v.index < int(scale_.size()) ? scale_[v.index] : 0.0;
  }
  const kx::vector<TopoMeshVertex>& newVertices() const { return newVertices_; }

  // Refines until a pass splits nothing, relaxing the edges after each pass.
  bool refine(kxUtil::Progress& progress) {
    for (int pass = 0; pass < kMaxRefinementPasses; ++pass) {
      if (progress.cancelled()) return false;
      if (!refinementPass()) break;
      kx::vector<TopoMeshHalfEdge> edges = interiorEdges();
      meshSwapEdgesRepeatedly(swapper_, edges, 100,
                              [this](const MeshEdgeSwapper::Swap& s) { follow(s); });
    }
    return true;
  }

 private:
  kx::vector<TopoMeshFace> liveFaces() const {
    kx::vector<TopoMeshFace> faces;
    for (int f = 0; f < int(inPatch_.size()); ++f) {
      if (inPatch_[f] && mesh_.isLive(TopoMeshFace(f))) faces.push_back(TopoMeshFace(f));
    }
    return faces;
  }

  // Edges with patch faces on both sides, each once.
  kx::vector<TopoMeshHalfEdge> interiorEdges() const {
    kx::vector<TopoMeshHalfEdge> edges;
    for (TopoMeshFace f : liveFaces()) {
      TopoMeshHalfEdge h = mesh_.getHalfEdge(f);
      for (int k = 0; k < 3; ++k, h = mesh_.next(h)) {
        const TopoMeshHalfEdge t = mesh_.twin(h);
        if (t.isValid() && h.index < t.index && holds(mesh_.face(t))) edges.push_back(h);
      }
    }
    return edges;
  }

  void follow(const MeshEdgeSwapper::Swap& s) {
    for (TopoMeshFace f : s.removed) inPatch_[f.index] = 0;
    for (TopoMeshFace f : s.added) addFace(f);
  }

  bool refinementPass() {
    bool split = false;
    for (TopoMeshFace f : liveFaces()) {
      if (mesh_.isLive(f)) split = splitIfLarge(f) || split;
    }
    return split;
  }

  // Splits f at its centroid when it is larger than the scales around it.
  bool splitIfLarge(TopoMeshFace f) {
    TopoMeshHalfEdge h[3];
    TopoMeshVertex v[3];
    h[0] = mesh_.getHalfEdge(f);
    for (int k = 0; k < 3; ++k) {
      if (k > 0) h[k] = mesh_.next(h[k - 1]);
      v[k] = mesh_.origin(h[k]);
    }
    const kxLinear::Point c = kxLinear::Point() + ((mesh_.getPoint(v[0]) - kxLinear::Point()) +
                                                   (mesh_.getPoint(v[1]) - kxLinear::Point()) +
                                                   (mesh_.getPoint(v[2]) - kxLinear::Point())) /
                                                      3.0;
    const double sigma = (scale(v[0]) + scale(v[1]) + scale(v[2])) / 3.0;
    for (int k = 0; k < 3; ++k) {
      const double reach = kAlpha * (c - mesh_.getPoint(v[k])).length();
      if (!(reach > scale(v[k]) && reach > sigma)) return false;
    }
    TopoMeshHalfEdge outside[3];
    for (int k = 0; k < 3; ++k) outside[k] = mesh_.twin(h[k]);
    mesh_.deleteFace(f);
    const TopoMeshVertex p = mesh_.addVertex(c);
    setScale(p, sigma);
    newVertices_.push_back(p);
    TopoMeshHalfEdge border[3];
    for (int k = 0; k < 3; ++k) {
      const TopoMeshVertex corners[3] = {v[k], v[(k + 1) % 3], p};
      const TopoMeshFace g = mesh_.addFace(corners, 3);
      addFace(g);
      border[k] = mesh_.getHalfEdge(g);  // v[k] -> v[k + 1]
      mesh_.setTwins(border[k], outside[k]);
    }
    for (int k = 0; k < 3; ++k) {
      // v[k+1] -> p in face k meets p -> v[k+1] in face k + 1.
      mesh_.setTwins(mesh_.next(border[k]), mesh_.prev(border[(k + 1) % 3]));
    }
    for (int k = 0; k < 3; ++k) {
      const TopoMeshHalfEdge t = mesh_.twin(border[k]);
      if (t.isValid() && holds(mesh_.face(t))) {
        MeshEdgeSwapper::Swap s;
        if (swapper_.swap(border[k], &s)) follow(s);
      }
    }
    return true;
  }

  TopoMesh& mesh_;
  MeshEdgeSwapper swapper_;
  kx::vector<unsigned char> inPatch_;
  kx::vector<double> scale_;
  kx::vector<TopoMeshVertex> newVertices_;
};

// Moves the new vertices to the solution of the umbrella system; false when
// cancelled.
bool fair(TopoMesh& mesh, const kx::vector<TopoMeshVertex>& free, kxUtil::Progress& progress) {
  const int n = int(free.size());
  if (n == 0) return true;
  kx::vector<int> unknown(std::size_t(mesh.vertexSlots()), -1);
  for (int i = 0; i < n; ++i) unknown[free[i].index] = i;
  ConjugateGradient cg(3 * n);
  NVector b(3 * n), x0(3 * n);
  kx::vector<TopoMeshVertex> ring;
  for (int i = 0; i < n; ++i) {
    ringOf(mesh, free[i], ring);
    const kxLinear::Point& p = mesh.getPoint(free[i]);
    for (int d = 0; d < 3; ++d) {
      cg.A().addToElement(d * n + i, d * n + i, double(ring.size()));
      x0[d * n + i] = p[d];
    }
    for (TopoMeshVertex w : ring) {
      const int j = unknown[w.index];
      for (int d = 0; d < 3; ++d) {
        if (j >= 0) {
          cg.A().addToElement(d * n + i, d * n + j, -1.0);
        } else {
          b[d * n + i] += mesh.getPoint(w)[d];
        }
      }
    }
  }
  cg.initDiagonalPreconditioner();
  cg.initialize(b, x0);
  for (int iteration = 0; iteration < 3 * n; ++iteration) {
    if (iteration % 100 == 0) {
      if (progress.cancelled()) return false;
      progress.set(double(iteration + 1) / (3.0 * n));
    }
    if (cg.iterate(kxLinear::epsilonTol, kxLinear::epsilonTol).isDone()) break;
  }
  for (int i = 0; i < n; ++i) {
    mesh.setPoint(free[i], kxLinear::Point(cg.x()[i], cg.x()[n + i], cg.x()[2 * n + i]));
  }
  return true;
}

// The directed edges of the working mesh, with their half-edges: built once
// from the region and extended by each patch, so later holes are checked and
// twinned without another pass over the region. (Edges that refinement and
// swapping make inside a patch join two vertices of that patch, which no
// later loop holds as a pair.)
using EdgeIndex = std::unordered_map<std::uint64_t, TopoMeshHalfEdge>;

void indexFace(const TopoMesh& mesh, TopoMeshFace f, EdgeIndex& edges) {
  const TopoMeshHalfEdge first = mesh.getHalfEdge(f);
  TopoMeshHalfEdge h = first;
  do {
    edges[edgeKey(mesh.origin(h), mesh.target(h))] = h;
    h = mesh.next(h);
  } while (h != first);
}

double meanEdgeLength(const CompactMesh& mesh, const MeshAdjVertices& adjVertices, int v) {
  const int count = adjVertices.numAdjVertices(v);
  if (count == 0) return 0.0;
  const int* ring = adjVertices.adjVertices(v);
  double sum = 0.0;
  const kxLinear::Point p = mesh.getVertices()[v].asPoint();
  for (int i = 0; i < count; ++i) sum += (mesh.getVertices()[ring[i]].asPoint() - p).length();
  return sum / count;
}

class HoleFiller {
 public:
  HoleFiller(CompactMesh& mesh, const MeshAdjVertices& adjVertices, MeshModifyRep& rep,
             HoleQuality quality)
      : mesh_(mesh), adjVertices_(adjVertices), rep_(rep), quality_(quality) {
    const TopoMesh& topo = rep_.getTopoMesh();
    for (TopoMeshFace f : topo.faces()) indexFace(topo, f, edges_);
  }

  enum Outcome { Filled, Skipped, Cancelled };

  Outcome fill(const kx::vector<int>& loop, kxUtil::Progress& progress) {
    TopoMesh& topo = rep_.getTopoMesh();
    kx::vector<kxLinear::Point> points;
    kx::vector<TopoMeshVertex> corners;
    for (int v : loop) {
      corners.push_back(rep_.getTopoVertex(v));
      points.push_back(mesh_.getVertices()[v].asPoint());
    }
    const Weights w = weightsFor(quality_);
    kx::vector<int> triangles;
    BitVector used(int(loop.size()));
    kxUtil::Progress flat;
    progress.subPhase(w.triangulation, flat);
    // Diagonals the working mesh already has would make its edges
    // non-manifold: the triangulation avoids them where it can.
    const auto meshEdge = [&](int i, int k) {
      return edges_.count(edgeKey(corners[i], corners[k])) != 0 ||
             edges_.count(edgeKey(corners[k], corners[i])) != 0;
    };
    const bool triangulated = triangulatePolygon(points, triangles, used, flat, meshEdge);
    if (progress.cancelled()) return Cancelled;
    if (!triangulated || !addPatch(corners, triangles)) return Skipped;
    flat.set(1.0);
    if (quality_ == HoleFlat) return Filled;
    kxUtil::Progress rest;
    progress.subPhase(w.rest, rest);
    for (std::size_t i = 0; i < loop.size(); ++i) {
      patch_->setScale(corners[i], meanEdgeLength(mesh_, adjVertices_, loop[i]));
    }
    if (!patch_->refine(rest)) return Cancelled;
    if (quality_ != HoleRefined && !fair(topo, patch_->newVertices(), rest)) return Cancelled;
    return Filled;
  }

 private:
  // Adds the triangles (j, i, k) of every loop triangle (i, j, k), unless one
  // would repeat a directed edge the working mesh already has.
  // Then links every new half-edge to the one running the other way, the
  // twinning a full meshTwin would do, from the edge index.
  bool addPatch(const kx::vector<TopoMeshVertex>& corners, const kx::vector<int>& triangles) {
    TopoMesh& topo = rep_.getTopoMesh();
    for (std::size_t t = 0; t < triangles.size(); t += 3) {
      const TopoMeshVertex i = corners[triangles[t]], j = corners[triangles[t + 1]],
                           k = corners[triangles[t + 2]];
      if (edges_.count(edgeKey(j, i)) || edges_.count(edgeKey(i, k)) ||
          edges_.count(edgeKey(k, j))) {
        return false;
      }
    }
    patch_.reset(new Patch(topo));
    for (std::size_t t = 0; t < triangles.size(); t += 3) {
      const TopoMeshVertex face[3] = {corners[triangles[t + 1]], corners[triangles[t]],
                                      corners[triangles[t + 2]]};
      const TopoMeshFace f = topo.addFace(face, 3);
      patch_->addFace(f);
      indexFace(topo, f, edges_);
      TopoMeshHalfEdge h = topo.getHalfEdge(f);
      for (int e = 0; e < 3; ++e, h = topo.next(h)) {
        const auto back = edges_.find(edgeKey(topo.target(h), topo.origin(h)));
        if (back != edges_.end() && topo.isLive(back->second)) topo.setTwins(h, back->second);
      }
    }
    return true;
  }

  CompactMesh& mesh_;
  const MeshAdjVertices& adjVertices_;
  MeshModifyRep& rep_;
  HoleQuality quality_;
  std::unique_ptr<Patch> patch_;
  EdgeIndex edges_;
};

// The loop of boundary `hole` as mesh vertex indices; empty when it cannot
// be used.
kx::vector<int> loopOf(const CompactMesh& mesh, const MeshBoundaries& boundaries, int hole) {
  if (hole < 0 || hole >= boundaries.size() || boundaries.getLength(hole) < 3) return {};
  kx::vector<int> loop(boundaries.getStart(hole), boundaries.getEnd(hole));
  for (int v : loop) {
    if (v < 0 || v >= mesh.getNumVertices()) return {};
  }
  return loop;
}

}  // namespace

int meshHoleFill(CompactMesh& mesh, const MeshAdjTris& adjTris, const MeshAdjVertices& adjVertices,
                 const MeshBoundaries& boundaries, const kx::list<int>& holes, HoleQuality quality,
                 kxUtil::Progress& progress) {
  kxOS::StopWatch watch;
  watch.start();
  BitVector vertices(mesh.getNumVertices()), triangles(mesh.getNumTriangles());
  int total = 0;
  for (int hole : holes) {
    for (int v : loopOf(mesh, boundaries, hole)) vertices.setBit(v);
    if (hole >= 0 && hole < boundaries.size()) total += boundaries.getLength(hole);
  }
  MeshSelect select(mesh, adjTris, vertices, triangles);
  select.selectTrianglesFromVertices(2);
  select.selectTrianglesRecursive(true);
  select.selectTrianglesRecursive(true);
  select.selectVerticesFromTriangles();
  MeshModifyRep rep(mesh, triangles);
  HoleFiller filler(mesh, adjVertices, rep, quality);
  int filled = 0, k = 0;
  char caption[64];
  for (int hole : holes) {
    ++k;
    kxUtil::Progress phase;
    progress.subPhase(total > 0 ? 1.0 / total : 0.0, phase);
    std::snprintf(caption, sizeof caption, "Filling hole %d of %d", k, int(holes.size()));
    phase.setCaption(caption);
    const kx::vector<int> loop = loopOf(mesh, boundaries, hole);
    if (loop.empty()) continue;
    const HoleFiller::Outcome outcome = filler.fill(loop, phase);
    if (outcome == HoleFiller::Cancelled) return 0;
    if (outcome == HoleFiller::Filled) ++filled;
  }
  if (filled > 0) rep.merge();
  debugChannel().print("meshHoleFill: %d of %d holes filled %f s\n", filled, int(holes.size()),
                       watch.stop());
  return filled;
}

}  // namespace kxGeom
