// Single rays traced through a triangle mesh over an octree and its
// per-voxel triangle lists: the one-ray counterpart of `QuadRayTracer`.
#pragma once

#include <cstdint>
#include <memory>

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
/// them (the children of every cell in the order of
/// `Octree::getNodeOrdering` along the ray's direction, as
/// `OctreeRayIntersectIt` does) and tests their triangles in list order with
/// the two-sided `intersectRayTriangle`: a hit needs t > `kxLinear::epsilonTol`,
/// and a back face counts only at t >= the process-wide cull distance of
/// `setBackfaceCullDistance`. In nearest-hit mode the walk ends at the first
/// cell that the ray enters beyond the nearest hit found so far; in first-hit
/// mode at the first hit.
///
/// The walk runs on the lists' layout (`OctreeTris::layout`): four children
/// of a cell are tested against the ray in one vector pass, and a child or a
/// group of four triangles is skipped when the ray misses the box of the
/// triangles listed there (a conservative test), which no hit can lie
/// outside of. Four triangles at a time are screened in single precision
/// with error bounds that never reject a triangle the double-precision test
/// would accept; only the survivors get that test, each at most once per ray
/// (a triangle listed in several leaves is remembered). The answers are
/// those of the plain walk that tests every triangle of every leaf it passes.
///
/// Against a bounding volume hierarchy with eight-wide nodes (see
/// `QuadRayTracer` for the structural differences) the walk also pays for
/// keeping the plain walk's answers bit for bit: every child gets the plain
/// walk's cell test besides the box test of its triangles, and screened
/// survivors a double-precision test. Measured as for `QuadRayTracer`: 0.3
/// to 0.4 of the peer's single-ray speed, three times that of an AABB tree
/// over doubles, on incoherent rays; mostly waiting on cell and group data.
/// Thread safety: a tracer belongs to one thread; several tracers may run on
/// one mesh, octree and triangle lists at once (they are only read).
class KXGEOM_API RayTracer {
 public:
  /// [in] octree  the octree whose voxels `tris` lists.
  /// [in] tris    per-voxel triangle indices of `mesh` (`computeOctreeTris`,
  ///              which also lays them out). The tracer shares their layout;
  ///              for lists made without one it lays them out itself. Must
  ///              outlive the tracer, unchanged.
  /// [in] mesh    the mesh the lists were computed for (not null): read only
  ///              here, to lay out lists that have no layout yet. Indices are
  ///              not validated.
  /// Starts in nearest-hit mode. Cost O(depth) memory, plus O(listed
  /// triangles + octree nodes) time and memory for lists without a layout.
  RayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh);

  /// Chooses the nearest hit (true, the default) or the first hit found
  /// (false, cheaper: for visibility tests). Cost O(1).
  void setFindNearestHit(bool nearest) { findNearest_ = nearest; }

  /// Traces the ray origin + t * direction, t > 0.
  /// [in] origin     start point (model units).
  /// [in] direction  direction (non-zero; any length).
  /// Returns true when the ray hits the mesh; then `intersectionDist()` and
  /// `intersectionTriangle()` describe the hit. On a miss (always, for a
  /// non-finite origin or direction) they are 3.4028234663852886e38 and -1.
  /// Cost: the cells the ray passes through up to the hit, and the
  /// triangles near it; allocates nothing.
  bool intersect(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction);

  /// Distance from the origin to the hit of the last `intersect` (model
  /// units: t times the direction's length).
  double intersectionDist() const { return distance_; }
  /// Index of the triangle hit by the last `intersect`, -1 after a miss.
  int intersectionTriangle() const { return triangle_; }

 private:
  // The ray of one trace, prepared for the vector tests.
  struct Trace;
  // A cell waiting on the walk's stack: its box, the parameter at which the
  // ray enters it, and its record (inner cell) or ~voxel (leaf).
  struct Pending {
    BoundingBox box;
    float entry;
    int cell;
  };

  // Pushes the children of the inner cell `parent` that the ray reaches, in
  // reverse walk order.
  void pushChildren(const Trace& trace, const Pending& parent);
  // Tests the triangles of voxel `voxel` near the ray; true when a first-hit
  // trace is done.
  bool scanLeaf(const Trace& trace, int voxel);
  // Tests triangle `triangle` (corner v0, edges e1, e2) unless this ray
  // already has; true on a hit nearer than the nearest so far.
  bool testTriangle(const Trace& trace, const float v0[3], const float e1[3], const float e2[3],
                    int triangle);

  std::shared_ptr<const OctreeTrisLayout> layout_;
  const OctreeTris* tris_;
  BoundingBox rootBox_;
  std::unique_ptr<Pending[]> pending_;
  int numPending_ = 0;
  // The triangles this ray has had the full test, the last few of them.
  static constexpr int kMailboxSize = 8;
  int mailbox_[kMailboxSize];
  int mailboxNext_ = 0;
  bool findNearest_ = true;
  double nearestT_ = Ray::kNoHit;
  // The nearest t rounded up to float: cells and boxes the ray enters at or
  // beyond it hold no nearer hit.
  float bound_ = BoundingBox::kMaxFloat;
  double distance_ = Ray::kNoHit;
  int triangle_ = -1;
};

}  // namespace kxGeom
