// Single rays traced through a triangle mesh over an octree and its
// per-voxel triangle lists: the one-ray counterpart of `QuadRayTracer`.
#pragma once

#include <kxgeom/octree_query.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>

namespace kxGeom {

/// Finds where a ray meets a mesh, either the nearest hit or the first hit
/// met by a front-to-back walk of the octree leaves.
///
/// The walk visits the leaves the ray passes through in the order it meets
/// them (`OctreeRayIntersectIt`) and tests their triangles with the two-sided
/// `intersectRayTriangle`: a hit needs t > `kxLinear::epsilonTol`, and a back
/// face counts only at t >= the process-wide cull distance of
/// `setBackfaceCullDistance`. In nearest-hit mode the walk ends at the first
/// leaf that the ray enters beyond the nearest hit found so far; in first-hit
/// mode at the first hit. A triangle in several leaves may be tested more
/// than once.
/// Thread safety: a tracer belongs to one thread; several tracers may run on
/// one mesh, octree and triangle lists at once (they are only read).
class KXGEOM_API RayTracer {
 public:
  /// [in] octree  the octree whose voxels `tris` lists.
  /// [in] tris    per-voxel triangle indices of `mesh` (`computeOctreeTris`).
  /// [in] mesh    the mesh (not null); read on every trace, so it must
  ///              outlive the tracer and not change. Indices are not validated.
  /// Starts in nearest-hit mode. Cost O(depth) memory.
  RayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh);

  /// Chooses the nearest hit (true, the default) or the first hit found
  /// (false, cheaper: for visibility tests). Cost O(1).
  void setFindNearestHit(bool nearest) { findNearest_ = nearest; }

  /// Traces the ray origin + t * direction, t > 0.
  /// [in] origin     start point (model units).
  /// [in] direction  direction (non-zero; any length).
  /// Returns true when the ray hits the mesh; then `intersectionDist()` and
  /// `intersectionTriangle()` describe the hit. On a miss they are
  /// 3.4028234663852886e38 and -1. Cost: the leaves the ray passes through
  /// up to the hit, and their triangles; allocates nothing.
  bool intersect(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction);

  /// Distance from the origin to the hit of the last `intersect` (model
  /// units: t times the direction's length).
  double intersectionDist() const { return distance_; }
  /// Index of the triangle hit by the last `intersect`, -1 after a miss.
  int intersectionTriangle() const { return triangle_; }

 private:
  // Tests the triangles of one voxel against the ray, lowering `nearestT`.
  bool intersectVoxel(const Ray& ray, int voxel, double& nearestT);

  OctreeRayIntersectIt leaves_;
  const OctreeTris* tris_;
  const float* vertices_;
  const int* triangles_;
  bool findNearest_ = true;
  double distance_ = Ray::kNoHit;
  int triangle_ = -1;
};

}  // namespace kxGeom
