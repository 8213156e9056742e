// Self-intersection of a triangle mesh with an exact triangle-triangle test.
#pragma once

#include <utility>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/platform/progress.h>

namespace kxGeom {

class KXGEOM_API MeshIntersect {
 public:
  /// Finds every pair of triangles that intersect. The test is exact on the
  /// single-precision coordinates (no tolerance): touching counts, coplanar
  /// overlaps count. Triangles that share vertices (by index) count only when
  /// they meet beyond what they share: two sharing an edge only when they
  /// are coplanar and lie on the same side of it, two sharing one vertex
  /// only when they meet elsewhere too. Triangles that name a vertex twice
  /// and triangles with a non-finite coordinate are skipped.
  /// @param[in] mesh    the mesh; indices are not validated.
  /// @param[in] octree  an octree over the mesh's vertices.
  /// @param[in] tris    `computeOctreeTris` of the mesh over `octree`.
  /// @param[out] pairs  replaced by the pairs (a, b), a < b, ascending.
  /// @param[in] progress polled between slices of triangles; a cancel
  ///            empties `pairs` and returns false.
  /// Returns true when any pair was found. Runs on the shared thread pool;
  /// the result is the same for every thread count.
  /// Cost O(T x triangles per nearby leaf) typical.
  static bool selfIntersect(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                            kx::vector<std::pair<int, int>>& pairs, kxUtil::Progress& progress);
  /// As above with no progress reporting.
  static bool selfIntersect(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                            kx::vector<std::pair<int, int>>& pairs);

  /// The exact test for two triangles given by their corner indices into
  /// `vertices` (three floats each); shared indices as for selfIntersect.
  /// Cost O(1). Re-entrant.
  static bool trianglesIntersect(const float* vertices, const int* a, const int* b);
};

}  // namespace kxGeom
