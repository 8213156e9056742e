// Packets of four rays with a common origin, traced through a triangle mesh
// with 4-wide single-precision vector arithmetic: one lane per ray.
//
// The packet state is kept as 16-byte aligned float[4] lanes, so this header
// needs no SIMD types; the arithmetic lives in the library, which uses the
// SSE2 baseline of x86-64 only. Objects of these classes are over-aligned
// (16 bytes): C++17 `new` and the standard containers honour that.
//
// Thread safety: a packet, an iterator and a tracer belong to one thread.
// The octree, its triangle lists and the mesh are only read, so several
// threads may trace one mesh at once with their own tracers. The back-face
// cull distance is one unsynchronised class-wide value: set it before tracing.
#pragma once

#include <cstdint>
#include <memory>

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

/// Four floats on a 16-byte boundary, one per ray of a packet: the memory
/// image of one 4-wide vector register.
struct alignas(16) QuadLanes {
  float lane[4];
};

/// Four 32-bit bit patterns on a 16-byte boundary (lane masks).
struct alignas(16) QuadBits {
  std::uint32_t lane[4];
};

/// Four rays from one origin, tested together against triangles and boxes.
///
/// Two modes, fixed at construction:
/// - nearest hit: every ray keeps the smallest ray parameter t of its hits;
/// - first hit: a ray is finished by its first hit, and a trace stops once
///   all four rays have hit (visibility and occlusion queries).
/// The ray parameter is in units of the ray's direction vector: the hit point
/// of lane k is origin + t * direction k. Directions need not be unit length.
/// In first-hit mode a lane's t is the smallest of the hits recorded before
/// the trace stopped, not necessarily the nearest hit.
///
/// The accessors cost O(1) and never fail; a lane index k must be in 0..3
/// (not checked). Copying copies every field. Thread safety: a packet belongs
/// to one thread; the const operations may run concurrently on one packet.
class KXGEOM_API QuadRay {
 public:
  /// 0 in every lane.
  static const QuadLanes zero;
  /// The largest float, 3.4028235e38, in every lane: the t of "no hit yet".
  static const QuadLanes maxfloat;
  /// 0x7FFFFFFF in every lane: and-ing clears the sign bit.
  static const QuadBits abs_mask;
  /// 0x80000000 in every lane: and-ing keeps only the sign bit.
  static const QuadBits sgn_mask;
  /// `kxLinear::epsilonTolFlt` as it was when the library was loaded: the
  /// smallest |determinant| and the smallest t that count as a hit.
  static const QuadLanes eps;

  /// Builds the packet.
  /// [in] origin      common origin of the four rays (model units).
  /// [in] d0 .. d3    directions of lanes 0 .. 3 (any non-zero length).
  /// [in] nearestHit  true: nearest-hit mode; false: first-hit mode.
  /// The hit mask starts at 0 and every lane's nearest t at 3.4028235e38. The
  /// reciprocal directions used by the box test are the processor's estimate
  /// (about 12 bits); the reciprocal of a zero component is clamped to
  /// +/-3.4028235e38, so a ray parallel to a box face that starts in its
  /// plane is taken to touch the box on the side it faces.
  /// Cost O(1). Allocates nothing.
  QuadRay(const kxLinear::PointFlt& origin, const kxLinear::VectorFlt& d0,
          const kxLinear::VectorFlt& d1, const kxLinear::VectorFlt& d2,
          const kxLinear::VectorFlt& d3, bool nearestHit);

  /// Tests one triangle against the four rays and records the hits.
  /// [in] triangle  the triangle's three vertex indices.
  /// [in] vertices  the mesh's vertex array.
  /// A lane hits when its ray meets the triangle (edges included) at a t >
  /// `eps`, with |determinant| >= `eps` (a triangle seen edge-on never hits),
  /// and the triangle faces the ray or the hit lies at t >= the cull
  /// distance. Hit lanes are or-ed into the hit mask; a hit lane's nearest t
  /// becomes min(nearest t, t). No triangle index is kept.
  /// Preconditions: the indices are valid for `vertices` (not checked).
  /// Cost O(1): one division, only when some lane survives to the end.
  void intersect(const MeshTriangle& triangle, const MeshVertex* const vertices);

  /// Slab test of the four rays against a box.
  /// [in]  box   the box (six floats, minimum then maximum).
  /// [out] mask  bits 0..3: the rays that overlap the box ahead of the
  ///             origin and enter it before their nearest t. In first-hit
  ///             mode, rays that have already hit are cleared.
  /// Uses the reciprocal estimates, so a ray grazing the box's edges within
  /// about 4e-4 of its t may be classified either way. Cost O(1).
  void intersect(const BoundingBox& box, kxUtil::BitField32& mask) const;

  /// True only in first-hit mode once all four rays have hit.
  bool allRaysTerminated() const { return !nearestHit_ && hitMask_ == 0xFu; }
  /// Whether ray k (0..3) has hit a triangle.
  bool triHit(int k) const { return (hitMask_ >> k) & 1u; }
  /// The nearest t of ray k (0..3); 3.4028235e38 when it has hit nothing.
  float triIntersectionRayParam(int k) const { return t_.lane[k]; }
  /// The mean of the four directions (their sum times 0.25).
  kxLinear::VectorFlt meanDirection() const {
    return {meanDirection_[0], meanDirection_[1], meanDirection_[2]};
  }
  /// The hit mask: bit k set when ray k has hit.
  std::uint32_t hitMask() const { return hitMask_; }

  /// Sets the class-wide back-face cull distance of every packet: a back face
  /// counts only at t >= `distance` (initially `kxLinear::epsilonTolFlt`).
  /// [in] distance  ray parameter; negative admits back faces behind the origin.
  /// Not synchronised: call before any thread traces. Cost O(1).
  static void setBackfaceCullDistance(float distance);
  /// The current back-face cull distance. Cost O(1).
  static float backfaceCullDistance() { return cullDistance.lane[0]; }

 private:
  friend class QuadRayTracer;

  // The triangle test on a corner and the two edges from it, formed in
  // single precision (v1 - v0, v2 - v0).
  void intersect(const kxLinear::PointFlt& v0, const kxLinear::VectorFlt& e1,
                 const kxLinear::VectorFlt& e2);

  static QuadLanes cullDistance;

  float meanDirection_[3];
  std::uint32_t hitMask_ = 0;
  QuadLanes origin_;  // x, y, z, 0
  QuadLanes ox_, oy_, oz_;
  QuadLanes dx_, dy_, dz_;
  QuadLanes rdx_, rdy_, rdz_;
  QuadLanes t_;
  bool nearestHit_;
};

/// Depth-first enumeration of the octree leaves that some ray of a packet
/// may still reach: a cell is entered when the packet's box test leaves at
/// least one ray in its mask (so cells beyond every ray's nearest hit, behind
/// the origin, or, in first-hit mode, reached only by finished rays are
/// skipped). Only leaves are returned, each at most once.
///
/// The stack is allocated once, at construction, with room for 8 x the
/// octree's depth entries (the worst case); `reset`, `next` and `get`
/// allocate nothing. The octree and the packet are held by reference: both
/// must outlive the iteration and the octree must not change.
/// Thread safety: a single-threaded object; several threads may walk one
/// octree at once with their own iterators and packets.
class KXGEOM_API OctreeQuadRayIntersectIt {
 public:
  /// An idle iterator (`valid()` false until `reset`). [in] octree.
  /// Cost O(depth) time and memory.
  explicit OctreeQuadRayIntersectIt(const Octree& octree);
  /// As above, then `reset(packet, true)`. [in] octree. [in,out] packet.
  OctreeQuadRayIntersectIt(const Octree& octree, QuadRay& packet);
  OctreeQuadRayIntersectIt(const OctreeQuadRayIntersectIt&) = delete;
  OctreeQuadRayIntersectIt& operator=(const OctreeQuadRayIntersectIt&) = delete;

  /// Starts a new walk for `packet` and moves to the first leaf.
  /// [in,out] packet  the packet (kept by reference; its nearest t and hit
  ///                  mask are read on every box test, so hits recorded
  ///                  during the walk prune the rest of it).
  /// [in] ordered     true: children in the order met along the packet's mean
  ///                  direction (`Octree::getNodeOrdering`), which visits
  ///                  leaves front to back; false: children 0, 1, ..., 7.
  /// A packet that misses the root box, or an octree without leaves, leaves
  /// `valid()` false. Cost O(depth) to the first leaf.
  void reset(QuadRay& packet, bool ordered);
  /// True while there is a current leaf.
  bool valid() const { return count_ > 0; }
  /// A copy of the handle on the current leaf. Requires valid().
  OctreeIterator get() const { return stack_[count_ - 1].cell; }
  /// The rays (bits 0..3) that reached the current leaf's box when it was
  /// pushed. Requires valid().
  kxUtil::BitField32 mask() const { return stack_[count_ - 1].mask; }
  /// Advances to the next leaf; does nothing when exhausted. Cost: one
  /// packet box test per child of every inner cell expanded.
  void next();

 private:
  struct Entry {
    OctreeIterator cell;
    kxUtil::BitField32 mask;
  };

  void push(const OctreeIterator& cell);
  void expandToLeaf();

  int order_[8];
  const Octree* octree_;
  QuadRay* packet_ = nullptr;
  std::unique_ptr<Entry[]> stack_;
  int count_ = 0;
};

/// Traces packets through one mesh over an octree and its per-voxel
/// triangle lists, laid out for tracing (`OctreeTris::layout`).
///
/// A nearest-hit packet walks the laid-out cells, visiting the children of
/// every cell nearest first (by the smallest entry parameter of the rays
/// that reach each child's box of listed triangles, clipped to its cell),
/// skips a cell when every ray's nearest hit lies before it by the time it
/// comes up, and within a leaf tests only the triangles of the groups of four
/// whose box some ray reaches before its nearest hit. Since each ray keeps
/// the smallest t of all the triangles it meets, neither the order nor the
/// skipping changes its hit, only the work. The boxes are tested with exact
/// reciprocals and a relative slack, so a ray through a box's boundary is
/// never lost to rounding.
///
/// A first-hit packet's answer depends on the order in which triangles are
/// met: it walks the leaves as `OctreeQuadRayIntersectIt` does (the fixed
/// child order 0..7 by default, front to back along the packet's mean
/// direction after `setOrderedTraversal(true)`) and tests every triangle of
/// each leaf in list order, stopping as soon as all four rays have hit. A
/// triangle listed in several leaves may be tested more than once; a repeat
/// never changes a packet.
///
/// What a bounding volume hierarchy with eight-wide nodes (as ray tracing
/// libraries build for AVX) still does better: its boxes are fitted to
/// triangle sets chosen to minimise the traversal cost and each triangle
/// sits in one leaf of 4 to 8, while the octree splits cells at their
/// midpoints around a vertex count, so on a scanned model a triangle is
/// listed in about two leaves of some twenty triangles and the laid-out data
/// takes about 48 bytes per list entry; it tests eight children in one
/// 8-wide pass where this walk needs two 4-wide passes (or eight packet
/// passes); and its leaves group triangles by position, while the groups of
/// four here keep list order (the first-hit order depends on it), so about
/// three groups of a leaf are tested per visit. Measured with one thread on
/// an 832k-triangle scan against such a library's SSE4.2 path (four-wide
/// nodes), coherent packets run at 0.5 to 0.7 of its four-ray packets and
/// incoherent ones at about 0.3; most of the remaining time waits on cell
/// and group data, not on arithmetic.
/// Thread safety: a tracer belongs to one thread; several tracers may run on
/// one mesh, octree and triangle lists at once (they are only read).
class KXGEOM_API QuadRayTracer {
 public:
  /// [in] octree  the octree whose voxels `tris` lists.
  /// [in] tris    per-voxel triangle indices of `mesh` (`computeOctreeTris`,
  ///              which also lays them out). The tracer shares their layout;
  ///              for lists made without one it lays them out itself.
  /// [in] mesh    the mesh the lists were computed for (not null): read only
  ///              here, to lay out lists that have no layout yet. Indices are
  ///              not validated.
  /// Cost O(depth) memory, plus O(listed triangles + octree nodes) time and
  /// memory for lists without a layout.
  QuadRayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh);

  /// Traces the packet; the results are read from the packet (`triHit`,
  /// `triIntersectionRayParam`). Hits already recorded in the packet are kept
  /// and prune the walk. [in,out] packet.
  /// Never fails: a packet that reaches no triangle is left as it was.
  /// Cost: the cells and leaves the packet reaches and the triangles tested
  /// there; allocates nothing.
  void intersect(QuadRay& packet);

  /// Chooses the child order of later first-hit `intersect` calls.
  /// [in] ordered  true: front to back along each packet's mean direction
  ///               (`OctreeQuadRayIntersectIt::reset(packet, true)`); false
  ///               (the initial setting): the fixed order 0..7.
  /// A first-hit packet may stop at other (earlier-found) hits; nearest-hit
  /// packets always go nearest first. Cost O(1).
  void setOrderedTraversal(bool ordered) { ordered_ = ordered; }
  /// Whether first-hit `intersect` walks front to back. Cost O(1).
  bool orderedTraversal() const { return ordered_; }

 private:
  // A cell waiting on the nearest-first walk's stack: the entry parameter of
  // each ray into its box (+infinity for the rays that miss it), the
  // smallest of them, and the cell: its record, or ~voxel for a leaf.
  struct Pending {
    QuadLanes entry;
    float nearest;
    int cell;
  };

  // The nearest-hit walk.
  void intersectNearestFirst(QuadRay& packet);
  // Pushes the children of record `cell` that some ray reaches, farthest
  // first (so the nearest is on top).
  void pushChildren(const QuadRay& packet, int cell);
  // Tests the triangles of the groups of voxel `voxel` that some ray reaches
  // before its nearest hit.
  void intersectLeafNearest(QuadRay& packet, int voxel);
  // Tests every triangle of voxel `voxel` in list order; false once all four
  // rays of a first-hit packet have hit.
  bool intersectLeafInOrder(QuadRay& packet, int voxel);

  OctreeQuadRayIntersectIt leaves_;
  std::unique_ptr<Pending[]> pending_;
  int numPending_ = 0;
  std::shared_ptr<const OctreeTrisLayout> layout_;
  // Exact reciprocal directions of the packet being traced (x, y, z rows).
  QuadLanes reciprocal_[3];
  bool ordered_ = false;
};

}  // namespace kxGeom
