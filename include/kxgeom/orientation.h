// Consistent winding and manifoldness of triangle meshes: testing and making
// the winding consistent, finding edges shared by more than two triangles
// and vertices whose triangles form several fans, repairing both, and
// reversing the winding of a whole mesh or a part of it.
//
// Two triangles sharing an edge are consistently wound when one runs the
// edge forwards (holds u immediately followed by w, cyclically) and the other
// backwards. Indices are not validated: every triangle corner must lie in
// [0, getNumVertices()), and an adjacency passed in must be `meshAdjTris` of
// the same mesh as it is now. Every function that edits a mesh sends it one
// MeshModification. Thread safety: a function that edits a mesh needs it
// exclusively; the tests may run concurrently on a shared mesh.
#pragma once

#include <utility>

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// Tests and makes consistent the winding of a mesh. The constructor runs the
/// consistency test; `orient()` flips triangles, component by component, so
/// that each follows its lowest-numbered triangle. A component that cannot be
/// wound consistently (a Möbius band, or parts glued inconsistently along a
/// non-manifold edge) stops the pass: triangles flipped until then stay
/// flipped, and `getAffectedTriangles()` holds the region reached from the
/// conflicting triangle. The object holds references to the mesh and the
/// adjacency (which only the triangle flips leave valid: flips keep every
/// vertex's triangle set).
class KXGEOM_API MeshOrient {
 public:
  /// @param[in,out] mesh  the mesh; read here, edited only by `orient()`.
  /// @param[in] adjacency `meshAdjTris` of `mesh`.
  /// Cost O(sum over triangle edges of the shorter end's fan).
  MeshOrient(CompactMesh& mesh, const MeshAdjTris& adjacency);
  MeshOrient(const MeshOrient&) = default;
  virtual ~MeshOrient() = default;

  /// Makes the winding consistent (does nothing once oriented). Sends one
  /// notice of type 1 without a remap, marked uvsValid, stsValid and
  /// coloursValid, when a triangle was flipped. Cost as the constructor.
  void orient();
  bool isOriented() const { return oriented_; }
  bool isOrientable() const { return orientable_; }
  /// The triangles the last pass reached (after a failure: the region grown
  /// from the conflicting triangle).
  const BitVector& getAffectedTriangles() const { return visited_; }

 private:
  void compute();
  bool computeOriented() const;
  bool computeOrientation(bool& changed);
  bool search(bool& changed, int seed);

  CompactMesh& mesh_;
  const MeshAdjTris& adjacency_;
  BitVector visited_;
  kx::vector<int> queue_;
  int conflictTri_ = -1;
  bool oriented_ = false;
  bool orientable_ = false;
};

/// True when every pair of triangles sharing an edge is consistently wound
/// (an edge run forwards by two triangles makes it false; so does a
/// duplicated triangle). @param[in] mesh. @param[in] adjacency its
/// `meshAdjTris`. The mesh is not changed. Cost as MeshOrient.
KXGEOM_API bool meshOriented(const CompactMesh& mesh, const MeshAdjTris& adjacency);

/// Makes the winding consistent (see MeshOrient) and returns whether the
/// whole mesh now is. @param[in,out] mesh. @param[in] adjacency its
/// `meshAdjTris`. On false part of the mesh may already be flipped.
KXGEOM_API bool meshMakeOriented(CompactMesh& mesh, const MeshAdjTris& adjacency);

/// The defects `meshManifold` finds: vertices whose triangles form two or
/// more fans (looked for only when no bad edge exists), and edges shared by
/// more than two triangles, as (low, high) vertex pairs, sorted, unique.
struct KXGEOM_API MeshManifoldResult {
  BitVector badVertices;
  kx::vector<std::pair<int, int>> badEdges;

  bool isClean() const { return badEdges.empty() && badVertices.countSetBits() == 0; }
};

/// Finds over-shared edges and, only when there are none, vertices with
/// several fans. Logs "meshManifold:  vertices <n>  triangles <m>: <s> s" and
/// the two counts. @param[in] mesh. @param[in] adjacency its `meshAdjTris`.
/// @param[out] result replaced. Cost O(T log T).
KXGEOM_API void meshManifold(const CompactMesh& mesh, const MeshAdjTris& adjacency,
                             MeshManifoldResult& result);

/// One repair pass from a diagnosis of this very mesh: with bad edges, keeps
/// on each over-shared edge the two triangles whose opposite vertices carry
/// the most triangles and deletes the others (through MeshDeleteSelected; the
/// mesh's triangle selection is sized, not cleared, and every set bit goes);
/// otherwise splits every bad vertex, giving each fan but the first a new
/// vertex at the same position (other per-vertex data of the new vertices is
/// zero), with one notice of type 1 without a remap.
/// @param[in,out] mesh. @param[in] adjacency its `meshAdjTris`.
/// @param[in] result `meshManifold` of the mesh. Cost O(T log T).
KXGEOM_API void meshMakeManifold(CompactMesh& mesh, const MeshAdjTris& adjacency,
                                 const MeshManifoldResult& result);

/// Diagnoses and repairs until `meshManifold` finds nothing (edges are
/// always repaired before vertices). @param[in,out] mesh. Each round costs
/// O(T log T); every round removes triangles or splits vertices.
KXGEOM_API void meshMakeManifold(CompactMesh& mesh);

/// Reverses the winding of every triangle (first and second index
/// exchanged), of the triangle strips and of the fans (hub kept first).
/// Strips: when every even-length strip has length 4, a strip of 4 has its
/// middle pair exchanged and any other strip its run reversed; otherwise odd
/// strips are reversed and each even strip is rebuilt by repeating its first
/// index in front (one degenerate triangle more, every other triangle
/// flipped). Triangle normals are negated; vertex normals only when
/// `flipVertexNormals`. Logs "meshReverseWinding: <m> triangles".
/// @param[in,out] mesh. @param[in] flipVertexNormals. Cost O(V + T).
KXGEOM_API void meshReverseWinding(CompactMesh& mesh, bool flipVertexNormals);

/// Reverses the winding of the triangles selected in the mesh's own triangle
/// selection, negating the vertex normals of their corners (once each) and
/// their triangle normals. @param[in,out] mesh. Cost O(V + T).
KXGEOM_API void meshReverseSelectedWinding(CompactMesh& mesh);

/// Reverses the winding of the edge-connected part holding `triangle` (the
/// mesh's triangle selection is set to that part first).
/// @param[in,out] mesh. @param[in] adjacency its `meshAdjTris`.
/// @param[in] triangle an index in [0, getNumTriangles()). Cost O(V + T).
KXGEOM_API void meshReverseWinding(CompactMesh& mesh, const MeshAdjTris& adjacency, int triangle);

}  // namespace kxGeom
