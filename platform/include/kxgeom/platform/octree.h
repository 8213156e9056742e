// The point octree behind every spatial query, its node handle, its leaf
// iterator, and the per-leaf element lists (`OctreeTris`, `OctreeLines`).
//
// Layout: every node lives in one flat array; the eight children of an inner
// node are consecutive in it. When a cell splits, all eight children are
// created, empty ones included, so the leaves tile the root box without gaps
// and a best-first search over leaf boxes is exact. Leaves are numbered
// densely (0 .. numLeaves - 1) in depth-first order, child 0 first; that
// number is the voxel index of `OctreeTris` and `OctreeLines`.
//
// Thread safety: a built octree is immutable; any number of threads may read
// it and walk it at once, each with its own iterators.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

/// One cell of an octree. Inner cells and leaves both record the range
/// [first, end) of the octree's point permutation that falls inside them.
struct OctreeNode {
  std::uint8_t leaf;  ///< non-zero for a leaf
  int children;       ///< inner: offset from this node to its first child; leaf: 0
  int voxel;          ///< leaf: voxel index; inner: -1
  int first, end;     ///< range of the point permutation inside the cell
};

/// A handle on one octree cell: the cell's box followed by its node. A small
/// value, copied freely. The default handle refers to no cell and its box
/// (the invalid box) contains nothing.
class OctreeIterator {
 public:
  OctreeIterator() = default;
  OctreeIterator(const BoundingBox& box, const OctreeNode* node) : box_(box), node_(node) {}

  /// Replaces this handle by the handle of child `child` (0..7; bit 0 selects
  /// the upper x half, bit 1 upper y, bit 2 upper z) and returns true; returns
  /// false, leaving the handle as it was, for a leaf or a handle on no cell.
  /// Cost O(1). Allocates nothing.
  bool descend(int child) {
    if (!node_ || node_->leaf) return false;
    box_ = childBox(box_, child);
    node_ += node_->children + child;
    return true;
  }

  const BoundingBox& getBox() const { return box_; }
  const OctreeNode* getNode() const { return node_; }
  /// Non-zero for a leaf. Requires a handle on a cell.
  std::uint8_t isLeaf() const { return node_->leaf; }
  /// Voxel index of a leaf (-1 for an inner cell). Requires a handle on a cell.
  int getVoxel() const { return node_->voxel; }
  /// Range [firstPoint, endPoint) of the octree's point permutation inside the
  /// cell. Requires a handle on a cell.
  int firstPoint() const { return node_->first; }
  int endPoint() const { return node_->end; }

  /// The box of child `child` of a cell with box `parent`: the parent halved
  /// at its midpoint (computed in single precision) on every axis. The build
  /// and `descend` share it, so a point lies in the box of the leaf it is
  /// stored in.
  static BoundingBox childBox(const BoundingBox& parent, int child) {
    const float mx = 0.5f * (parent[0] + parent[3]);
    const float my = 0.5f * (parent[1] + parent[4]);
    const float mz = 0.5f * (parent[2] + parent[5]);
    const bool ux = child & 1, uy = child & 2, uz = child & 4;
    return BoundingBox(ux ? mx : parent[0], uy ? my : parent[1], uz ? mz : parent[2],
                       ux ? parent[3] : mx, uy ? parent[4] : my, uz ? parent[5] : mz);
  }

 private:
  BoundingBox box_;
  const OctreeNode* node_ = nullptr;
};

/// An octree over a set of points.
///
/// Points are sorted into cells by comparison with each cell's midpoint: a
/// coordinate >= the midpoint goes to the upper half. A cell holding more
/// points than the leaf capacity splits into eight, until the depth cap
/// (`kMaxDepth` levels) or until single precision cannot halve the cell any
/// further; so many identical points end in one deep leaf and the build
/// terminates.
///
/// Non-finite points: a point with a NaN or infinite coordinate never enters
/// the box arithmetic (the root box grows to hold the finite points only). It
/// is sorted by the same comparisons, where NaN counts as below every
/// midpoint and +/-inf lies at its end of the axis; a point that is NaN on all
/// axes therefore lands in leaf 0, the leaf at the root's minimum corner. The
/// box of the leaf holding a non-finite point does not contain it.
class KXGEOM_API Octree : public kx::ReferenceCount {
 public:
  /// The largest number of levels (the root is level 1).
  static constexpr int kMaxDepth = 21;

  /// An octree with no nodes and no leaves; `getRoot()` is a handle on no cell.
  Octree() = default;
  /// Builds the octree over `numPoints` points.
  /// [in] numPoints     number of points (< 0 is taken as 0).
  /// [in] xyz           3 * numPoints floats, x y z per point (may be null
  ///                    when numPoints is 0). Not kept.
  /// [in] box           the region to cover; the root box is this box grown
  ///                    to hold every finite point.
  /// [in] cube          when true the root box is then grown about its centre
  ///                    to a cube, so every cell is a cube (the library passes
  ///                    true).
  /// [in] leafCapacity  the most points a leaf holds unless the depth cap
  ///                    stops the split (the library passes 16; < 1 is 1).
  /// When the root box is still invalid (no finite points and an invalid
  /// `box`), the octree has no leaves. Otherwise a tree with no points is a
  /// single empty leaf.
  /// Cost O(numPoints * depth) time, O(numPoints + nodes) memory, one array
  /// each for nodes and permutation (no allocation per node).
  Octree(int numPoints, const float* xyz, const BoundingBox& box, bool cube, int leafCapacity);
  ~Octree() override = default;

  /// Number of leaves (voxels). Read-only for users.
  int numLeaves = 0;
  /// Number of levels of the tree (1 for a root leaf, 0 for no leaves).
  /// Read-only for users.
  int depth = 0;

  /// Handle on the root cell (a handle on no cell when there are no leaves).
  /// Cost O(1).
  OctreeIterator getRoot() const;
  /// The root box (invalid when there are no leaves).
  const BoundingBox& getBox() const { return box_; }
  int getNumPoints() const { return static_cast<int>(permutation_.size()); }
  /// The point permutation: leaf ranges [first, end) index into it, and its
  /// entries are the original point indices.
  const int* getPointIndices() const { return permutation_.data(); }
  int getNumNodes() const { return static_cast<int>(nodes_.size()); }

  /// Fills `order` with the child numbers 0..7 in the order the children are
  /// met when travelling along `direction` (order[0] first): children sorted
  /// by the projection of their centre offset on the direction; children at
  /// equal projection keep increasing child number. A zero or NaN direction
  /// gives 0..7. [in] direction (any length). [out] order. Cost O(1).
  static void getNodeOrdering(const kxLinear::Vector& direction, int order[8]);

 private:
  BoundingBox box_;
  kx::vector<OctreeNode> nodes_;
  kx::vector<int> permutation_;
};

/// Enumerates every leaf of an octree depth first, highest child number
/// first. Keeps a growable stack; copyable. Single-threaded object: several
/// threads walk one octree with one iterator each.
class KXGEOM_API OctreeLeafIterator {
 public:
  /// Starts at the first leaf of `octree`, which must outlive the iteration
  /// and not change during it. Cost O(depth) for the first leaf.
  explicit OctreeLeafIterator(const Octree& octree) { reset(octree); }
  OctreeLeafIterator(const OctreeLeafIterator&) = default;
  OctreeLeafIterator& operator=(const OctreeLeafIterator&) = default;
  virtual ~OctreeLeafIterator() = default;

  /// Restarts on `octree`; reserves the stack to the octree's depth.
  void reset(const Octree& octree);
  /// True while there is a current leaf.
  bool valid() const { return !stack_.empty(); }
  /// The current leaf. Requires valid().
  OctreeIterator get() const { return stack_.back(); }
  /// Advances to the next leaf; does nothing once exhausted. Amortised O(1)
  /// per node visited.
  void next();

 private:
  kx::vector<OctreeIterator> stack_;
};

/// Per-voxel lists of element indices: set v holds the elements of voxel v.
/// The common part of `OctreeTris` and `OctreeLines`. Read-only after
/// construction; safe to read from many threads.
class KXGEOM_API OctreeLists : public kx::ReferenceCount {
 public:
  int numVoxels() const { return sets_.getNumSets(); }
  const ArrayOfSets& getData() const { return sets_; }

 protected:
  OctreeLists() = default;
  /// Takes over `sets` (leaving it empty).
  explicit OctreeLists(ArrayOfSets& sets) { sets_.swap(sets); }
  ~OctreeLists() override = default;

  ArrayOfSets sets_;
};

/// The triangle lists laid out for the ray tracers (defined by the spatial
/// queries; opaque here).
struct OctreeTrisLayout;

/// Per-voxel lists of triangle indices, and optionally the same lists laid
/// out for the ray tracers (cells and triangle corners copied side by side).
/// `computeOctreeTris` makes both; the layout holds copies of the mesh's
/// positions as they were then, so lists and layout belong to that mesh.
class KXGEOM_API OctreeTris : public OctreeLists {
 public:
  OctreeTris() = default;
  /// Takes over `sets` (set v = triangles of voxel v), leaving it empty; no
  /// layout.
  explicit OctreeTris(ArrayOfSets& sets) : OctreeLists(sets) {}
  /// Takes over `sets` and shares `layout` (made for these lists).
  OctreeTris(ArrayOfSets& sets, std::shared_ptr<const OctreeTrisLayout> layout)
      : OctreeLists(sets), layout_(std::move(layout)) {}

  void swap(OctreeTris& o) noexcept {
    sets_.swap(o.sets_);
    layout_.swap(o.layout_);
  }
  int numTris(int voxel) const { return sets_.getSetSize(voxel); }
  /// numTris(voxel) contiguous triangle indices.
  const int* firstTri(int voxel) const { return sets_.getSet(voxel); }
  /// The laid-out lists, or null for lists made without them. Shared, not
  /// copied, by copies of this object; immutable.
  const std::shared_ptr<const OctreeTrisLayout>& layout() const { return layout_; }

 private:
  std::shared_ptr<const OctreeTrisLayout> layout_;
};

/// Per-voxel lists of line-element indices.
class KXGEOM_API OctreeLines : public OctreeLists {
 public:
  OctreeLines() = default;
  /// Takes over `sets` (set v = lines of voxel v), leaving it empty.
  explicit OctreeLines(ArrayOfSets& sets) : OctreeLists(sets) {}

  void swap(OctreeLines& o) noexcept { sets_.swap(o.sets_); }
  int numLines(int voxel) const { return sets_.getSetSize(voxel); }
  /// numLines(voxel) contiguous line indices.
  const int* firstLine(int voxel) const { return sets_.getSet(voxel); }
};

}  // namespace kxGeom
