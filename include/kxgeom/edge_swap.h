// Edge swapping on a topological mesh: replacing the shared edge of two
// triangles by the other diagonal of their quadrilateral, under a rule that
// may veto each swap.
#pragma once

#include <functional>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/topomesh.h>

namespace kxGeom {

/// Swaps edges of a TopoMesh whose faces around them are triangles. Before
/// each swap the veto signal, when connected, is asked; a swap also never
/// happens where it cannot be done cleanly (a boundary edge, a face that is
/// not a triangle, two equal opposite corners, or an opposite diagonal that
/// is already an edge). Twins of the new faces are linked in place. The
/// object holds a reference to the mesh. Thread safety: one thread at a time.
class KXGEOM_API MeshEdgeSwapper {
 public:
  /// True to forbid swapping the edge of the given half-edge.
  using Veto = std::function<bool(const TopoMesh&, TopoMeshHalfEdge)>;

  /// What a swap replaced and created.
  struct Swap {
    TopoMeshFace removed[2];
    TopoMeshFace added[2];
    TopoMeshHalfEdge edge;  ///< the new edge (in added[1])
    /// The six half-edges of the removed faces, and the half-edges of the
    /// added faces now holding their edges (the swapped edge: `edge`).
    TopoMeshHalfEdge oldEdges[6], newEdges[6];
  };

  /// @param[in,out] mesh the mesh to edit.
  explicit MeshEdgeSwapper(TopoMesh& mesh) : mesh_(mesh) {}
  virtual ~MeshEdgeSwapper() = default;

  /// Connects the veto signal (an empty function disconnects it).
  void setVeto(Veto veto) { veto_ = std::move(veto); }
  /// Swaps the edge of `h` unless vetoed or impossible. For the faces
  /// (a, b, c) holding a -> b and (b, a, d) holding b -> a, the new faces are
  /// (a, d, c) and (b, c, d). @param[out] done, when not null, what changed.
  /// Returns whether the edge was swapped. Cost O(valence of c).
  bool swap(TopoMeshHalfEdge h, Swap* done = nullptr);

  /// The opposite-angle rule as a veto: allows the swap only when the sum of
  /// the two angles opposite the edge falls by it (the Delaunay flip) and
  /// both new triangles keep the side the old ones face, so no fold appears.
  static bool minimizeOppositeAngleSum(const TopoMesh& mesh, TopoMeshHalfEdge h);

 private:
  TopoMesh& mesh_;
  Veto veto_;
};

/// Offers every edge of `edges` to the swapper, pass after pass, until a
/// pass swaps nothing or `maxPasses` passes ran; entries follow their edges
/// through the swaps (a swapped entry becomes the new edge), so the list
/// stays the same set of edges. @param[in,out] swapper. @param[in,out] edges half-edges of the
/// edges to relax. @param[in] maxPasses. @param[in] onSwap, when set, is told
/// of every swap. Returns the number of swaps. Cost O(passes x edges).
KXGEOM_API int meshSwapEdgesRepeatedly(
    MeshEdgeSwapper& swapper, kx::vector<TopoMeshHalfEdge>& edges, int maxPasses = 100,
    const std::function<void(const MeshEdgeSwapper::Swap&)>& onSwap = nullptr);

}  // namespace kxGeom
