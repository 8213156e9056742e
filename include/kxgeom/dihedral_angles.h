// Sharp folds of a triangle mesh: edges whose two triangles meet at a small
// dihedral angle (the angle between the faces, pi for a flat surface).
#pragma once

#include <utility>

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// The sharp edges found by `meshFindAnglesLessThan`, as pairs of adjacent
/// triangles (a < b), ascending.
class KXGEOM_API MeshDihedralAnglesResult {
 public:
  virtual ~MeshDihedralAnglesResult() = default;
  const kx::vector<std::pair<int, int>>& getPairs() const { return pairs_; }
  bool empty() const { return pairs_.empty(); }
  /// Every triangle of a sharp edge, ascending, each once. @param[out] out
  /// replaced. Cost O(P log P).
  void getAdjacentTriangles(kx::vector<int>& out) const;

 private:
  friend KXGEOM_API bool meshFindAnglesLessThan(const CompactMesh&, const MeshAdjTris&, double,
                                                MeshDihedralAnglesResult&);
  kx::vector<std::pair<int, int>> pairs_;
};

/// Finds edges whose dihedral angle is below `angle` degrees: the angle
/// between the two triangles' normals exceeds pi - angle * pi / 180. Each
/// triangle edge is paired with the triangle `getSharedEdgeAdjacentTriangle`
/// finds across it; triangles without a normal direction (zero area) are
/// skipped. Logs one line.
/// @param[in] mesh. @param[in] adjacency its `meshAdjTris`.
/// @param[in] angle threshold in degrees.
/// @param[out] result replaced. Returns true when any edge was found.
/// Cost O(T x fan size). Re-entrant.
KXGEOM_API bool meshFindAnglesLessThan(const CompactMesh& mesh, const MeshAdjTris& adjacency,
                                       double angle, MeshDihedralAnglesResult& result);

}  // namespace kxGeom
