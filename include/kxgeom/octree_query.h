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
/// query shape `Query`. Children of a cell are explored in the order in which
/// they are met along the shape's direction (the ray's direction, the
/// frustum's viewing vector, +x for boxes and spheres); only leaves are
/// returned, each once. The overlap test is the shape's box test: inclusive
/// box overlap, the conservative frustum test, the forward ray's slab test on
/// (0, FLT_MAX), and the box-sphere distance test.
///
/// The object holds one pointer to its state, whose traversal stack is
/// allocated once at construction with room for 8 x the octree's depth
/// entries (the worst case); `reset`, `next` and `get` allocate nothing.
/// The octree and the query shape are held by reference: both must outlive
/// the iteration (the shape until the next `reset`) and stay unchanged.
///
/// Usage: construct or `reset`; while `valid()`: use `get()`, then `next()`.
/// Thread safety: a single-threaded object. Several threads may walk one
/// octree at once, each with its own iterator.
template <class Query>
class KXGEOM_API OctreeQueryIt {
 public:
  /// Allocates the state with an empty stack; `valid()` is false until
  /// `reset`. [in] octree. Cost O(depth).
  explicit OctreeQueryIt(const Octree& octree);
  /// Allocates the state and runs `reset(query)`. [in] octree. [in] query.
  OctreeQueryIt(const Octree& octree, const Query& query);
  OctreeQueryIt(const OctreeQueryIt&) = delete;
  OctreeQueryIt& operator=(const OctreeQueryIt&) = delete;
  ~OctreeQueryIt();

  /// Starts a new enumeration for `query` over the same octree and moves to
  /// the first overlapping leaf (the root itself when it is an overlapping
  /// leaf). A query that misses the root box leaves `valid()` false.
  /// [in] query (kept by reference). Cost O(depth) to the first leaf.
  void reset(const Query& query);
  /// True while there is a current leaf.
  bool valid() const;
  /// A copy of the handle on the current leaf. Requires valid().
  OctreeIterator get() const;
  /// Advances to the next overlapping leaf; does nothing when exhausted.
  /// Cost: one overlap test per child of every inner cell visited.
  void next();

 private:
  OctreeQueryState* state_;
};

extern template class OctreeQueryIt<BoundingBox>;
extern template class OctreeQueryIt<Frustum>;
extern template class OctreeQueryIt<Ray>;
extern template class OctreeQueryIt<Sphere>;

/// Leaves overlapping a box (`BoundingBox::intersects`, touching counts),
/// children ordered along +x.
class OctreeBBoxIntersectIt : public OctreeQueryIt<BoundingBox> {
 public:
  using OctreeQueryIt<BoundingBox>::OctreeQueryIt;
};

/// Leaves that the (conservative) box-frustum test accepts, children
/// ordered along `Frustum::getVector()`.
class OctreeIntersectIt : public OctreeQueryIt<Frustum> {
 public:
  using OctreeQueryIt<Frustum>::OctreeQueryIt;
};

/// Leaves that the forward ray (parameters in (0, FLT_MAX)) passes through,
/// front to back within each parent. A ray starting inside the octree first
/// returns the leaf holding its origin.
class OctreeRayIntersectIt : public OctreeQueryIt<Ray> {
 public:
  using OctreeQueryIt<Ray>::OctreeQueryIt;
};

/// Leaves whose box lies within the sphere's radius of its centre, children
/// ordered along +x.
class OctreeSphereIntersectIt : public OctreeQueryIt<Sphere> {
 public:
  using OctreeQueryIt<Sphere>::OctreeQueryIt;
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
/// A triangle with a NaN coordinate is listed nowhere. When the octree has no
/// leaves, `result` is left untouched and nothing is logged.
/// Cost O(N log V) typical for N triangles and V leaves; memory O(pairs).
/// Thread safety: re-entrant; reads mesh and octree only.
KXGEOM_API void computeOctreeTris(const CompactMesh& mesh, const Octree& octree,
                                  OctreeTris& result);

/// As `computeOctreeTris` for the mesh's line elements, with the exact
/// box-segment test; a line's box is that of its two endpoints.
/// [in] mesh. [in] octree. [in,out] result (voxel v: line indices).
KXGEOM_API void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& result);

}  // namespace kxGeom
