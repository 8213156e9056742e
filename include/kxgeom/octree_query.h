// Octree traversal: the per-voxel triangle and line lists of a mesh, and the
// iterators that enumerate the leaves overlapping a box, frustum, ray or
// sphere, nearest child first.
#pragma once

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/query_shapes.h>

namespace kxGeom {

struct OctreeQueryState;

/// Depth-first enumeration of the leaves of an octree whose boxes overlap a
/// query shape. Children of a cell are explored in the order in which they
/// are met along the shape's direction (the ray's direction, the frustum's
/// viewing vector, +x for boxes and spheres); only leaves are returned, each
/// once. The four shapes are the derived classes below.
///
/// The object holds one pointer to its state, whose traversal stack is
/// allocated once at construction with room for 8 x the octree's depth
/// entries (the worst case); `reset`, `next` and `get` allocate nothing.
/// The octree and the query shape are held by reference: both must outlive
/// the iteration (the shape until the next `reset`) and stay unchanged.
///
/// Usage: construct or `reset`; while `valid()`: use `get()`, then `next()`.
/// `reset` starts over with a new shape on the same octree and moves to the
/// first overlapping leaf (the root itself when it is an overlapping leaf); a
/// shape that misses the root box leaves `valid()` false. `next` advances to
/// the next overlapping leaf (one overlap test per child of every inner cell
/// visited) and does nothing when exhausted. Constructing without a shape
/// leaves `valid()` false until `reset`. Construction costs O(depth).
/// Thread safety: a single-threaded object. Several threads may walk one
/// octree at once, each with its own iterator.
class KXGEOM_API OctreeQueryIt {
 public:
  OctreeQueryIt(const OctreeQueryIt&) = delete;
  OctreeQueryIt& operator=(const OctreeQueryIt&) = delete;

  /// True while there is a current leaf.
  bool valid() const;
  /// A copy of the handle on the current leaf. Requires valid().
  OctreeIterator get() const;

 protected:
  explicit OctreeQueryIt(const Octree& octree);
  ~OctreeQueryIt();

  OctreeQueryState* state_;
};

/// Leaves overlapping a box (`BoundingBox::intersects`, touching counts),
/// children ordered along +x.
class KXGEOM_API OctreeBBoxIntersectIt : public OctreeQueryIt {
 public:
  explicit OctreeBBoxIntersectIt(const Octree& octree) : OctreeQueryIt(octree) {}
  OctreeBBoxIntersectIt(const Octree& octree, const BoundingBox& box) : OctreeQueryIt(octree) {
    reset(box);
  }
  void reset(const BoundingBox& box);
  void next();
};

/// Leaves that the conservative box-frustum test accepts, children ordered
/// along `Frustum::getVector()`.
class KXGEOM_API OctreeIntersectIt : public OctreeQueryIt {
 public:
  explicit OctreeIntersectIt(const Octree& octree) : OctreeQueryIt(octree) {}
  OctreeIntersectIt(const Octree& octree, const Frustum& frustum) : OctreeQueryIt(octree) {
    reset(frustum);
  }
  void reset(const Frustum& frustum);
  void next();
};

/// Leaves that the forward ray passes through (slab test on parameters in
/// (0, FLT_MAX)), front to back. A ray starting inside the octree first
/// returns the leaf holding its origin.
class KXGEOM_API OctreeRayIntersectIt : public OctreeQueryIt {
 public:
  explicit OctreeRayIntersectIt(const Octree& octree) : OctreeQueryIt(octree) {}
  OctreeRayIntersectIt(const Octree& octree, const Ray& ray) : OctreeQueryIt(octree) { reset(ray); }
  void reset(const Ray& ray);
  void next();
};

/// Leaves whose box lies within the sphere's radius of its centre (distance
/// in single precision), children ordered along +x.
class KXGEOM_API OctreeSphereIntersectIt : public OctreeQueryIt {
 public:
  explicit OctreeSphereIntersectIt(const Octree& octree) : OctreeQueryIt(octree) {}
  OctreeSphereIntersectIt(const Octree& octree, const Sphere& sphere) : OctreeQueryIt(octree) {
    reset(sphere);
  }
  void reset(const Sphere& sphere);
  void next();
};

/// Lists, for every voxel of `octree`, the triangles of `mesh` that overlap
/// its box, in parallel on the shared thread pool, and logs one line.
/// [in]     mesh    the mesh; its triangle indices are not validated.
/// [in]     octree  the octree (any points; usually the mesh's vertices).
/// [in,out] result  replaced by the lists (voxel v: triangle indices in
///                  increasing order).
/// A triangle is listed in every leaf that the exact box-triangle test
/// accepts, with one shortcut: a triangle whose box fits inside the last leaf
/// visited for the previous triangle of the same thread is listed in that
/// leaf only, without traversal (so a triangle touching a neighbouring leaf
/// only on its boundary may be missing there, depending on the thread split).
/// A triangle with a NaN or infinite coordinate is listed nowhere. The lists
/// are then laid out for the ray tracers (`OctreeTris::layout`: per inner
/// cell its children's boxes side by side, per leaf its triangles' corners
/// and edges four at a time), in parallel too, and a second line is logged.
/// When the octree has no leaves, `result` is left untouched and nothing is
/// logged.
/// Cost O(N log V) typical for N triangles and V leaves; memory O(pairs),
/// about 48 bytes per listed pair for the layout.
/// Thread safety: re-entrant; reads mesh and octree only.
KXGEOM_API void computeOctreeTris(const CompactMesh& mesh, const Octree& octree,
                                  OctreeTris& result);

/// As `computeOctreeTris` for the mesh's line elements, with the exact
/// box-segment test; a line's box is that of its two endpoints.
/// [in] mesh. [in] octree. [in,out] result (voxel v: line indices).
KXGEOM_API void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& result);

}  // namespace kxGeom
