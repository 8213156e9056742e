// Edge swapping: replacing the shared edge of two triangles by the other
// diagonal of their quadrilateral, under a rule that may veto each swap, on a
// topological mesh; and the Delaunay-style improvement of a triangle mesh's
// shape built on it.
#pragma once

#include <functional>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
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

/// Which edges `meshSwapEdges` may flip.
struct MeshSwapEdgesOptions {
  /// Largest angle, in degrees, between the normals of the two triangles
  /// beside an edge, both before a flip (sharper creases keep their edge) and
  /// after it (no flip folds the surface more). Triangles of zero area have
  /// no normal and pass the first test.
  double maxFoldDegrees = 10;
  /// When true only edges whose two triangles are both set in the mesh's
  /// triangle selection are flipped; the rest of the mesh is locked.
  bool selectedOnly = false;
  /// Passes over the edges, at most; each pass offers every edge once.
  int maxPasses = 100;
};

/// Improves the shape of a mesh's triangles by Delaunay flips: an interior
/// manifold edge (two consistently wound triangles (a, b, c) and (b, a, d)
/// sharing it) is replaced by the diagonal c-d when the two angles opposite
/// it sum to more than pi, the flip lowers that sum, both new triangles face
/// the side the old pair faces, the fold limits of `options` hold, c-d is
/// not already an edge and neither triangle repeats a corner. Passes repeat
/// until one flips nothing (or `maxPasses`). On a planar triangulation the
/// result is a Delaunay triangulation of the same points.
/// [in,out] mesh     its triangles change in place: the two triangles of a
///                   flip keep their slots (as (a, d, c) and (b, c, d)), so
///                   the triangle count, the winding, per-triangle data and
///                   the selection stay; stored triangle normals are
///                   recomputed for the changed triangles. One notice of type
///                   1 (no remap; triangle normals marked modified when the
///                   mesh has them) when anything flipped, none otherwise.
/// [in]     options  the limits above.
/// Returns the number of flips (0 when none was made), or -1, with the mesh
/// untouched, when a triangle corner lies outside [0, vertex count).
/// Logs one line. Cost O(V + T log T) for the half-edge copy plus O(passes
/// x E) for the passes, E the interior edges. Thread safety: needs
/// exclusive access to the mesh.
KXGEOM_API int meshSwapEdges(CompactMesh& mesh,
                             const MeshSwapEdgesOptions& options = MeshSwapEdgesOptions());

}  // namespace kxGeom
