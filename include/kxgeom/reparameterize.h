// Conformal flattening of a triangle mesh into texture coordinates.
#pragma once

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// Flattens a mesh that is topologically a disk into the plane with a
/// discrete conformal map (cotangent weights and a rotation coupling between
/// neighbours), two boundary vertices held fixed, and writes the layout as
/// the mesh's UVs, one per vertex. Inner holes are closed for the solve only.
/// A closed or higher-genus mesh is cut to a disk first when cutting is
/// enabled (`cutSurface::makeDisk`); each vertex still gets one UV, so a cut
/// vertex takes one of its copies' UVs.
///
/// Messages go to `kxOS::AppOutput`: diagnostics with `info`, refusals with
/// `error` ("Found degenerate triangle ...", "Invalid mesh, reverse wound
/// triangle ...", "Invalid mesh, non-manifold triangle ...", "Found an
/// un-closed boundary, mesh not changed.", "A degenerate boundary found, mesh
/// not changed.", "There must be a boundary for the disk, none found. No
/// changes made.", and for NaN or infinite input "Found vertex <v> with a
/// non-finite position, mesh not changed."). Every refusal and every cancellation leaves the mesh
/// unchanged and makes `flatten` return false.
///
/// Cost: O(V log V) to prepare plus the conjugate-gradient solve of 2V - 4
/// unknowns (at most that many iterations, each O(V)). Thread safety: one
/// object per mesh; the mesh must not be touched by others during `flatten`.
class KXGEOM_API reparameterizeMesh {
 public:
  /// @param[in,out] mesh the mesh that receives the UVs; it must outlive the
  /// object.
  explicit reparameterizeMesh(CompactMesh& mesh) : mesh_(mesh) {}
  virtual ~reparameterizeMesh() = default;

  /// Keep the welded copy even when welding changes the boundary count
  /// (default off: such a copy is replaced by a plain one).
  void enableMeshCompact(bool on) { compact_ = on; }
  /// Cut closed and higher-genus meshes to a disk (default off: refused).
  void enableMeshCutSurface(bool on) { cut_ = on; }

  /// Flattens; returns true when UVs were written. Progress captions:
  /// "Copying Mesh", "Finding Mesh Boundaries", "Getting Extreme Vertices",
  /// "Creating Plane", "Filling Mesh Holes", "Solving", "Applying to Mesh".
  bool flatten(kxUtil::Progress& progress);
  bool flatten();

  // The records of the boundary and hole bookkeeping.
  struct boundaryEdge {
    int from, to;
  };
  using unsortedEdge = boundaryEdge;
  struct triIndices {
    int v[3];     ///< vertex indices, wound like the surface
    int free[3];  ///< their free indices (negative: fixed)
  };
  using Loop = kx::vector<boundaryEdge>;

 private:
  bool prepareMesh(kxUtil::Progress& progress, Remap& remap);
  int getMeshGenus(kx::vector<Loop>& loops);
  int getExtremeVerts(const kx::vector<Loop>& loops, int& f0, int& f1);
  void rotateAndProject(const Loop& outer, kx::vector<kxLinear::Point>& rotated, int f0, int f1);
  kxLinear::AffineMatrix determineRotMatrix(const Loop& outer, int f0, int f1);
  void buildFreeToCompleteMapping(kx::vector<int>& map, int f0, int f1);
  bool fillHoles(const kx::vector<Loop>& loops, int outer, const kx::vector<int>& map,
                 kx::vector<triIndices>& added, kxUtil::Progress& progress);
  bool doCG(kx::vector<MeshUV>& uvs, int f0, int f1, const kx::vector<kxLinear::Point>& rotated,
            const kx::vector<int>& map, const kx::vector<triIndices>& added,
            kxUtil::Progress& progress);
  void applyUvsToMesh(const kx::vector<MeshUV>& uvs, const Remap& remap);
  bool findBoundaryEdges(kx::vector<unsortedEdge>& edges);
  bool orderBoundaries(kx::vector<unsortedEdge>& edges, kx::vector<Loop>& loops);
  bool testDegenerate();

  CompactMesh& mesh_;
  CompactMesh work_;
  bool compact_ = false;
  bool cut_ = false;
};

/// How faithful a UV layout is to its mesh.
struct KXGEOM_API UVLayoutQuality {
  int flipped = 0;             ///< triangles wound against the majority in UV
  int degenerate = 0;          ///< triangles of zero area in 3D or in UV
  double meanAngleError = 0;   ///< mean |UV angle - 3D angle| over corners, radians
  double worstAngleError = 0;  ///< the largest such difference, radians
  double meanAreaRatio = 1;    ///< mean of max(r, 1/r) over triangles, r the UV/3D area
                               ///< ratio after scaling the layout to the mesh's total area
};

/// Measures the UV layout of a mesh. @param[in] mesh with UVs.
/// Returns the default (all zero, ratio 1) without UVs. Cost O(T).
KXGEOM_API UVLayoutQuality meshUVLayoutQuality(const CompactMesh& mesh);

}  // namespace kxGeom
