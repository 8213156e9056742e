#include <kxgeom/closest_point.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include <kxgeom/bounds.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/predicates.h>

#include "spatial/triangle_closest.h"

namespace kxGeom {

namespace {

constexpr double kLargestDouble = std::numeric_limits<double>::max();
// Squared distance below which side pruning never drops a cell.
constexpr double kSmallestPrune = std::numeric_limits<double>::min();

struct HeapEntry {
  double distance2;
  OctreeIterator cell;
};

// Min-heap order for the std heap algorithms (which build max-heaps).
bool fartherThan(const HeapEntry& a, const HeapEntry& b) { return a.distance2 > b.distance2; }

kxLinear::Point corner(const float* vertices, const int* tri, int k) {
  return kxLinear::Point::from(vertices + 3 * std::size_t(tri[k]));
}

bool isFinite(const kxLinear::Point& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// Squared distance from p to the closest point of triangle t, written to
// `coord`; false when the triangle has no closest point.
bool triangleClosest(const CompactMesh& mesh, int t, const kxLinear::Point& p, MeshCoord& coord,
                     double& distance2) {
  coord = meshTriClosestPt(mesh.getVerticesRaw(), mesh.getTrianglesRaw(), t, p);
  if (!coord.isValid()) return false;
  distance2 = (coord.evaluate(mesh.getVertices(), mesh.getTriangles()) - p).length2();
  return true;
}

// Closest point to p of the triangle with corners a, b, c (three floats
// each), as the coordinate of triangle t; invalid when a corner or p is not
// finite.
MeshCoord cornersClosest(const float* a, const float* b, const float* c, int t,
                         const kxLinear::Point& p) {
  const kxLinear::Point corners[3] = {kxLinear::Point::from(a), kxLinear::Point::from(b),
                                      kxLinear::Point::from(c)};
  if (!isFinite(p) || !isFinite(corners[0]) || !isFinite(corners[1]) || !isFinite(corners[2])) {
    return MeshCoord();
  }
  MeshCoord coord;
  coord.triangle = t;
  closest::triangleClosestWeights(p, corners, coord.w);
  return coord;
}

// As triangleClosest, for triangle t whose corners are the nine floats at
// `corners` (the same values as the mesh's, so the same distance).
bool listedClosest(const float* corners, int t, const kxLinear::Point& p, MeshCoord& coord,
                   double& distance2) {
  coord = cornersClosest(corners, corners + 3, corners + 6, t, p);
  if (!coord.isValid()) return false;
  distance2 = (kxLinear::combine(kxLinear::Point::from(corners), coord.w[0],
                                 kxLinear::Point::from(corners + 3), coord.w[1],
                                 kxLinear::Point::from(corners + 6), coord.w[2]) -
               p)
                  .length2();
  return true;
}

// Box of every corner of the triangles around vertex v.
BoundingBox vertexFanBox(const CompactMesh& mesh, const MeshAdjTris& adjTris, int v) {
  BoundingBox box;
  const MeshVertex* vertices = mesh.getVertices();
  const MeshTriangle* triangles = mesh.getTriangles();
  const int* tris = adjTris.triIndices(v);
  for (int i = 0, n = adjTris.numTris(v); i < n; ++i) {
    for (int k = 0; k < 3; ++k) box.extend(vertices[triangles[tris[i]][k]].asPointFlt());
  }
  return box;
}

// Squared distance from p to a box of six floats (minimum, then maximum), in
// double precision so that pruning by it is as exact as the distances it is
// compared with.
double boxDistance2(const float* box, const kxLinear::Point& p) {
  double d2 = 0;
  for (int k = 0; k < 3; ++k) {
    const double gap = std::max(double(box[k]) - p[k], p[k] - double(box[k + 3]));
    if (gap > 0) d2 += gap * gap;
  }
  return d2;
}

// A box's squared distance to p in the box's own single precision, or, where
// that overflows (p some 1e19 or more away), the same in double, so that a
// far but finite query still orders and reaches the cells.
double boxDistance2(const BoundingBox& box, const kxLinear::PointFlt& pf,
                    const kxLinear::Point& p) {
  const float d2 = box.distance2(pf);
  return std::isinf(d2) ? boxDistance2(box.data(), p) : double(d2);
}

// A lower bound of a triangle's squared distance to p: that of its box. The
// corners are the nine floats at `corners`.
double cornersBoxDistance2(const float* corners, const kxLinear::Point& p) {
  float box[6];
  for (int k = 0; k < 3; ++k) {
    box[k] = std::min(corners[k], std::min(corners[k + 3], corners[k + 6]));
    box[k + 3] = std::max(corners[k], std::max(corners[k + 3], corners[k + 6]));
  }
  return boxDistance2(box, p);
}

// The corners of every listed triangle copied in list order, nine floats per
// list entry, so that a leaf's triangles are read as one sequential run
// instead of through two indirections each.
kx::vector<float> listedCorners(const CompactMesh& mesh, const OctreeTris& tris) {
  const ArrayOfSets& lists = tris.getData();
  const int* members = lists.members();
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  const std::size_t n = std::size_t(lists.getNumMembers());
  kx::vector<float> corners(9 * n);
  for (std::size_t i = 0; i < n; ++i) {
    const int* tri = triangles + 3 * std::size_t(members[i]);
    for (int k = 0; k < 3; ++k) {
      std::copy_n(vertices + 3 * std::size_t(tri[k]), 3, corners.data() + 9 * i + 3 * k);
    }
  }
  return corners;
}

// True when a lower bound shows that nothing nearer than `best` can be found
// (with a margin far above the rounding of the bound).
bool beyond(double bound2, double best) { return bound2 > best * (1 + 1e-12); }

// The slab between two parallel planes that holds a set of triangles: for a
// small patch of surface it is much thinner than the patch's box, so its
// distance prunes cells that lie just behind the nearest surface.
struct Slab {
  kxLinear::Vector normal;  // unit (zero for no constraint)
  double lo = -std::numeric_limits<double>::infinity();
  double hi = std::numeric_limits<double>::infinity();

  // Squared distance from p to the slab: 0 for no constraint, infinite for
  // an empty set.
  double distance2(const kxLinear::Point& p) const {
    if (hi < lo) return std::numeric_limits<double>::infinity();
    const double s = kxLinear::dot(normal, p - kxLinear::Point());
    const double gap = std::max(s - hi, lo - s);
    return gap > 0 ? gap * gap : 0;
  }
};

// The slab of triangles `list[0, n)` across their summed normals.
Slab triangleSlab(const CompactMesh& mesh, const int* list, std::size_t n) {
  const MeshVertex* vertices = mesh.getVertices();
  const MeshTriangle* triangles = mesh.getTriangles();
  kxLinear::Vector sum;
  for (std::size_t i = 0; i < n; ++i) {
    const MeshTriangle& t = triangles[list[i]];
    const kxLinear::Point a = vertices[t[0]].asPoint();
    sum += kxLinear::cross(vertices[t[1]].asPoint() - a, vertices[t[2]].asPoint() - a);
  }
  Slab slab;
  slab.normal = sum.length2() > 0 && std::isfinite(sum.length2()) ? kxLinear::normalized(sum)
                                                                  : kxLinear::zAxis;
  std::swap(slab.lo, slab.hi);
  for (std::size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 3; ++k) {
      const double s =
          kxLinear::dot(slab.normal, vertices[triangles[list[i]][k]].asPoint() - kxLinear::Point());
      slab.lo = std::min(slab.lo, s);
      slab.hi = std::max(slab.hi, s);
    }
  }
  // Widened by far more than the rounding of the dot products, so the bound
  // stays below every triangle point's distance.
  const double margin = 1e-12 * (std::fabs(slab.lo) + std::fabs(slab.hi));
  slab.lo -= margin;
  slab.hi += margin;
  return slab;
}

// How a point is classified from its closest point: inside when the vector
// to it has a non-negative dot product with the orienting normal there.
enum Side { kNoSide, kInsideSide, kOutsideSide };

// The normal orienting corner k of triangle t, as a unit vector (the vertex
// normal, or without normals the triangle's); false when it has no direction.
bool orientingDirection(const CompactMesh& mesh, int t, int k, kxLinear::Vector& direction) {
  const MeshTriangle& tri = mesh.getTriangles()[t];
  const MeshNormal* normals = mesh.getNormals();
  const kxLinear::Vector v =
      normals ? normals[tri[k]].asVector() : meshTriNormal(mesh.getVerticesRaw(), tri.v).vector();
  const double len2 = v.length2();
  if (!(len2 > 0) || !std::isfinite(len2)) return false;
  direction = v / std::sqrt(len2);
  return true;
}

// Side of p given its closest point `coord` (valid).
Side sideOf(const CompactMesh& mesh, const MeshCoord& coord, const kxLinear::Point& p) {
  const MeshTriangle& tri = mesh.getTriangles()[coord.triangle];
  const MeshNormal* normals = mesh.getNormals();
  const kxLinear::Vector normal =
      normals
          ? kxLinear::combine(normals[tri[0]].asVector(), coord.w[0], normals[tri[1]].asVector(),
                              coord.w[1], normals[tri[2]].asVector(), coord.w[2])
          : meshTriNormal(mesh.getVerticesRaw(), tri.v).vector();
  const kxLinear::Vector toSurface = coord.evaluate(mesh.getVertices(), mesh.getTriangles()) - p;
  return kxLinear::dot(toSurface, normal) >= 0 ? kInsideSide : kOutsideSide;
}

// A lower bound of the distance to the triangles listed below an octree
// node (the larger of the distances to their box and to their slab), and
// the cone holding the normals that orient them.
struct NodeBound {
  BoundingBox box;
  Slab slab;
  kxLinear::Vector axis;  // unit
  double cosAngle = -1;   // the cone's half angle; not positive for no cone

  double distance2(const kxLinear::Point& p) const {
    return std::max(boxDistance2(box.data(), p), slab.distance2(p));
  }

  // The side that every point of these triangles gives p when taken as its
  // closest point, or kNoSide when the cone cannot tell. Writing v for the
  // vector from p to such a point and n for an orienting normal (a positive
  // mix of the cone's), dot(v, n) >= dot(v, axis) cos - |v| sin, so a box
  // entirely far enough ahead of p along the axis gives Inside everywhere.
  Side uniformSide(const kxLinear::Point& p) const {
    if (!(cosAngle > 0)) return kNoSide;
    double lo = 0, hi = 0, far2 = 0;
    for (int k = 0; k < 3; ++k) {
      const double a = double(box[k]) - p[k], b = double(box[k + 3]) - p[k];
      lo += std::min(axis[k] * a, axis[k] * b);
      hi += std::max(axis[k] * a, axis[k] * b);
      far2 += std::max(a * a, b * b);
    }
    const double far = std::sqrt(far2);
    const double reach = far * (std::sqrt(1 - cosAngle * cosAngle) + 1e-9);
    if (lo * cosAngle > reach) return kInsideSide;
    if (-hi * cosAngle > reach) return kOutsideSide;
    return kNoSide;
  }
};

// Sets the cone of `bound` to hold the orienting normals of triangles
// `list[0, n)`, leaving none when one of them has no direction.
void orientingCone(const CompactMesh& mesh, const int* list, std::size_t n, NodeBound& bound) {
  kxLinear::Vector sum, direction;
  for (std::size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 3; ++k) {
      if (!orientingDirection(mesh, list[i], k, direction)) return;
      sum += direction;
    }
  }
  if (!(sum.length2() > 0)) return;
  const kxLinear::Vector axis = kxLinear::normalized(sum);
  double cosAngle = 1;
  for (std::size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 3; ++k) {
      orientingDirection(mesh, list[i], k, direction);
      cosAngle = std::min(cosAngle, kxLinear::dot(axis, direction));
    }
  }
  bound.axis = axis;
  // Narrowed by far more than the rounding of the unit vectors.
  bound.cosAngle = cosAngle - 1e-9;
}

// Slabs are computed for subtrees listing at most this many triangles:
// small patches, where they are thin, at a bounded cost per pair.
constexpr std::size_t kSlabTriangles = 1024;

// Fills the bounds of the subtree at `cell` and appends its listed triangles
// to `below` (with repeats) while they are few enough for a slab.
class BoundBuilder {
 public:
  BoundBuilder(const CompactMesh& mesh, const OctreeTris& tris, const OctreeNode* root,
               kx::vector<NodeBound>& bounds)
      : mesh_(mesh), tris_(tris), root_(root), bounds_(bounds) {}

  // Returns true when every triangle below `cell` was appended.
  bool fill(const OctreeIterator& cell, kx::vector<int>& below) {
    NodeBound& bound = bounds_[cell.getNode() - root_];
    const std::size_t first = below.size();
    bound.box.setInvalid();
    bool complete = true;
    if (cell.isLeaf()) {
      const int* list = tris_.firstTri(cell.getVoxel());
      below.insert(below.end(), list, list + tris_.numTris(cell.getVoxel()));
      for (std::size_t i = first; i < below.size(); ++i) {
        for (int k = 0; k < 3; ++k) {
          bound.box.extend(mesh_.getVertices()[mesh_.getTriangles()[below[i]][k]].asPointFlt());
        }
      }
    } else {
      for (int k = 0; k < 8; ++k) {
        OctreeIterator child = cell;
        child.descend(k);
        complete = fill(child, below) && complete;
        bound.box.extend(bounds_[child.getNode() - root_].box);
      }
    }
    const std::size_t n = below.size() - first;
    complete = complete && n <= kSlabTriangles;
    bound.slab = complete ? triangleSlab(mesh_, below.data() + first, n) : Slab();
    bound.cosAngle = -1;
    if (complete) {
      orientingCone(mesh_, below.data() + first, n, bound);
    } else if (!cell.isLeaf()) {
      mergeCones(cell, bound);
    }
    if (!complete) below.resize(first);
    return complete;
  }

 private:
  // The cone of an inner node around its children's (empty ones aside);
  // none when a child has none or the union is not within a half space.
  void mergeCones(const OctreeIterator& cell, NodeBound& bound) const {
    const NodeBound* children[8];
    int count = 0;
    kxLinear::Vector sum;
    for (int k = 0; k < 8; ++k) {
      OctreeIterator child = cell;
      child.descend(k);
      const NodeBound& c = bounds_[child.getNode() - root_];
      if (!c.box.isValid()) continue;
      if (!(c.cosAngle > 0)) return;
      sum += c.axis;
      children[count++] = &c;
    }
    if (!(sum.length2() > 0)) return;
    const kxLinear::Vector axis = kxLinear::normalized(sum);
    double angle = 0;
    for (int i = 0; i < count; ++i) {
      const double between =
          std::acos(std::clamp(kxLinear::dot(axis, children[i]->axis), -1.0, 1.0));
      angle = std::max(angle, between + std::acos(children[i]->cosAngle));
    }
    // Widened by far more than the rounding of acos near 0.
    angle += 1e-7;
    if (!(angle < 1.5)) return;
    bound.axis = axis;
    bound.cosAngle = std::cos(angle);
  }

  const CompactMesh& mesh_;
  const OctreeTris& tris_;
  const OctreeNode* root_;
  kx::vector<NodeBound>& bounds_;
};

// The child of a cell with box `box` on p's side of its centre in each axis.
int octant(const BoundingBox& box, const kxLinear::Point& p) {
  int child = 0;
  for (int k = 0; k < 3; ++k) {
    if (p[k] >= 0.5 * (double(box[k]) + double(box[k + 3]))) child |= 1 << k;
  }
  return child;
}

kx::vector<NodeBound> nodeBounds(const CompactMesh& mesh, const Octree& octree,
                                 const OctreeTris& tris) {
  kx::vector<NodeBound> bounds(std::size_t(octree.getNumNodes()));
  const OctreeIterator root = octree.getRoot();
  if (root.getNode() && tris.numVoxels() == octree.numLeaves) {
    kx::vector<int> below;
    BoundBuilder(mesh, tris, root.getNode(), bounds).fill(root, below);
  }
  return bounds;
}

// Answers chunks of query points with one searcher per thread, made on the
// thread's first chunk: a searcher's set-up is the expensive part, and no
// point needs a particular thread.
template <class Searcher>
class BatchQuery : public kxUtil::ThreadedChunkAlg<char> {
 public:
  BatchQuery(int count, std::function<std::unique_ptr<Searcher>()> make,
             std::function<void(Searcher&, int)> answer)
      : ThreadedChunkAlg<char>(count, 256), make_(std::move(make)), answer_(std::move(answer)) {}
  void initialize(int numThreads) override {
    ThreadedChunkAlg<char>::initialize(numThreads);
    searchers_.clear();
    searchers_.resize(std::size_t(numThreads));
    done_.store(0);
  }

 protected:
  void process(int thread, int begin, int end, char&) override {
    std::unique_ptr<Searcher>& searcher = searchers_[std::size_t(thread)];
    if (!searcher) searcher = make_();
    for (int i = begin; i < end; ++i) answer_(*searcher, i);
    const int done = done_.fetch_add(end - begin) + (end - begin);
    updateProgress(thread, double(done) / n_);
  }

 private:
  std::function<std::unique_ptr<Searcher>()> make_;
  std::function<void(Searcher&, int)> answer_;
  std::vector<std::unique_ptr<Searcher>> searchers_;
  std::atomic<int> done_{0};
};

// Runs a batch on the shared pool; false when it was cancelled.
template <class Searcher>
bool runBatch(BatchQuery<Searcher>& batch, kxUtil::Progress* progress) {
  batch.setProgress(progress);
  kxUtil::ThreadPool::get().run(batch);
  return !(progress && progress->cancelled());
}

}  // namespace

class OctreeClosestItImpl {
 public:
  virtual ~OctreeClosestItImpl() = default;

  // Starts a walk from the root that skips cells at or beyond `limit2` and
  // prunes for `side` (see setPrune).
  void reset(const Octree& octree, const kxLinear::Point& p,
             double limit2 = std::numeric_limits<double>::infinity(), Side side = kNoSide,
             double pruneFrom2 = 0) {
    root_ = octree.getRoot();
    point_ = p;
    pointFlt_ = kxLinear::PointFlt(p);
    limit_ = limit2;
    pruneSide_ = side;
    pruneFrom_ = pruneFrom2;
    pruned_ = false;
    heap_.clear();
    if (!root_.getNode()) return;
    const double d2 = distance2(root_);
    if (!(d2 < limit_)) return;
    heap_.push_back({d2, root_});
    if (!root_.isLeaf()) next();
  }

  void next() {
    while (!heap_.empty()) {
      std::pop_heap(heap_.begin(), heap_.end(), fartherThan);
      const OctreeIterator cell = heap_.back().cell;
      heap_.pop_back();
      for (int child = 0; child < 8; ++child) {
        OctreeIterator handle = cell;
        if (!handle.descend(child)) break;
        const double d2 = distance2(handle);
        if (!(d2 < limit_)) continue;
        if (prunes(handle, d2)) continue;
        heap_.push_back({d2, handle});
        std::push_heap(heap_.begin(), heap_.end(), fartherThan);
      }
      // The nearest remaining cell at or beyond the limit: all are.
      if (!heap_.empty() && !(heap_.front().distance2 < limit_)) heap_.clear();
      if (!heap_.empty() && heap_.front().cell.isLeaf()) return;
    }
  }

  bool valid() const { return !heap_.empty(); }
  const HeapEntry& top() const { return heap_.front(); }
  void setLimit(double limit2) { limit_ = limit2; }
  void setNodeBounds(const NodeBound* bounds) { bounds_ = bounds; }
  // From the next `next()` on, cells no nearer than sqrt(from2) whose
  // triangles all give the point `side` are dropped (kNoSide: none).
  void setPrune(Side side, double from2) {
    pruneSide_ = side;
    pruneFrom_ = from2;
  }
  // True when a cell was dropped by pruning since `reset`.
  bool pruned() const { return pruned_; }

 private:
  bool prunes(const OctreeIterator& cell, double d2) {
    if (pruneSide_ == kNoSide || !bounds_ || !(d2 >= pruneFrom_)) return false;
    if (bounds_[cell.getNode() - root_.getNode()].uniformSide(point_) != pruneSide_) return false;
    pruned_ = true;
    return true;
  }

  // The cell's key: its box distance, or its bound's when bounds are given.
  double distance2(const OctreeIterator& cell) const {
    if (bounds_) return bounds_[cell.getNode() - root_.getNode()].distance2(point_);
    return boxDistance2(cell.getBox(), pointFlt_, point_);
  }

  OctreeIterator root_;
  kxLinear::Point point_;
  kxLinear::PointFlt pointFlt_;
  double limit_ = 0;
  const NodeBound* bounds_ = nullptr;
  Side pruneSide_ = kNoSide;
  double pruneFrom_ = 0;
  bool pruned_ = false;
  kx::vector<HeapEntry> heap_;
};

OctreeClosestIt::OctreeClosestIt() : impl_(nullptr) {}

OctreeClosestIt::OctreeClosestIt(const Octree& octree, const kxLinear::Point& p) : impl_(nullptr) {
  reset(octree, p);
}

OctreeClosestIt::~OctreeClosestIt() { delete impl_; }

void OctreeClosestIt::reset(const Octree& octree, const kxLinear::Point& p) {
  if (!impl_) impl_ = new OctreeClosestItImpl;
  impl_->reset(octree, p);
}

bool OctreeClosestIt::valid() const { return impl_ && impl_->valid(); }
OctreeIterator OctreeClosestIt::get() const { return impl_->top().cell; }
double OctreeClosestIt::getDistance2() const { return impl_->top().distance2; }
void OctreeClosestIt::next() { impl_->next(); }
void OctreeClosestIt::setLimit(double limit2) { impl_->setLimit(limit2); }

class ClosestPointContext {
 public:
  ClosestPointContext(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris)
      : stamps_(std::size_t(std::max(0, mesh.getNumTriangles())), 0),
        bounds_(nodeBounds(mesh, octree, tris)),
        corners_(listedCorners(mesh, tris)) {
    iterator_.impl_ = new OctreeClosestItImpl;
    iterator_.impl_->setNodeBounds(bounds_.data());
  }
  virtual ~ClosestPointContext() = default;

  // True the first time triangle t is seen in the current query.
  bool visit(int t) {
    if (stamps_[t] == stamp_) return false;
    stamps_[t] = stamp_;
    return true;
  }
  // Starts a new query; clears the stamps only when the counter wraps.
  void advanceStamp() {
    if (++stamp_ == ~std::uint32_t(0)) {
      std::fill(stamps_.begin(), stamps_.end(), 0u);
      stamp_ = 1;
    }
  }
  OctreeClosestIt& iterator() { return iterator_; }
  // Starts the iterator's walk at p, skipping cells at or beyond `limit2`.
  void start(const Octree& octree, const kxLinear::Point& p, double limit2, Side side,
             double pruneFrom2) {
    iterator_.impl_->reset(octree, p, limit2, side, pruneFrom2);
  }
  // A leaf holding a near triangle, found in O(depth): from the root, the
  // child around p while it holds triangles, otherwise the child with the
  // smallest bound.
  OctreeIterator greedyLeaf(const Octree& octree, const kxLinear::Point& p) const {
    const OctreeIterator root = octree.getRoot();
    OctreeIterator cell = root;
    if (!cell.getNode() || bounds_.empty()) return cell;
    while (!cell.isLeaf()) {
      OctreeIterator around = cell;
      around.descend(octant(cell.getBox(), p));
      if (bounds_[around.getNode() - root.getNode()].box.isValid()) {
        cell = around;
        continue;
      }
      OctreeIterator nearest = around;
      double nearest2 = std::numeric_limits<double>::infinity();
      for (int k = 0; k < 8; ++k) {
        OctreeIterator child = cell;
        child.descend(k);
        const double d2 = bounds_[child.getNode() - root.getNode()].distance2(p);
        if (d2 < nearest2) {
          nearest2 = d2;
          nearest = child;
        }
      }
      cell = nearest;
    }
    return cell;
  }
  OctreeClosestItImpl& walk() { return *iterator_.impl_; }
  // The corners of the triangle at position i of the concatenated lists.
  const float* cornersAt(std::size_t i) const { return corners_.data() + 9 * i; }

 private:
  std::uint32_t stamp_ = 1;
  kx::vector<std::uint32_t> stamps_;
  kx::vector<NodeBound> bounds_;
  kx::vector<float> corners_;
  OctreeClosestIt iterator_;
};

MeshClosestPoint::MeshClosestPoint(const CompactMesh& mesh, const Octree& octree,
                                   const OctreeTris& tris)
    : mesh_(mesh),
      octree_(octree),
      tris_(tris),
      context_(new ClosestPointContext(mesh, octree, tris)) {}

MeshClosestPoint::~MeshClosestPoint() { delete context_; }

void MeshClosestPoint::scanLeaf(int voxel, const kxLinear::Point& p, double& best,
                                MeshCoord* result) {
  // Triangles whose boxes are no nearer than the best point are skipped: a
  // pure saving, the answer is the same. The box test reads the leaf's
  // copied corners in sequence; only survivors touch the per-triangle stamps.
  const int* tris = tris_.firstTri(voxel);
  const float* corners = context_->cornersAt(std::size_t(tris - tris_.getData().members()));
  for (int i = 0, n = tris_.numTris(voxel); i < n; ++i, corners += 9) {
    if (beyond(cornersBoxDistance2(corners, p), best)) continue;
    const int t = tris[i];
    if (!context_->visit(t)) continue;
    MeshCoord coord;
    double d2;
    if (listedClosest(corners, t, p, coord, d2) && d2 < best) {
      best = d2;
      if (result) *result = coord;
    }
  }
}

double MeshClosestPoint::compute(const kxLinear::Point& p, MeshCoord* result) {
  return std::sqrt(search(p, result, -1));
}

double MeshClosestPoint::search(const kxLinear::Point& p, MeshCoord* result, double pruneFrom2) {
  double best = kLargestDouble;
  // The leaf of the greedy descent usually holds a near triangle: scanning
  // it first lets the walk below discard every cell beyond that distance
  // from the start.
  const OctreeIterator seed = context_->greedyLeaf(octree_, p);
  if (seed.getNode() && seed.getVoxel() >= 0 && seed.getVoxel() < tris_.numVoxels()) {
    scanLeaf(seed.getVoxel(), p, best, result);
  }
  OctreeClosestItImpl& walk = context_->walk();
  OctreeClosestIt& it = context_->iterator();
  const bool pruning = pruneFrom2 >= 0 && result;
  Side side = kNoSide;
  double sidedBest = kLargestDouble;
  // Follows the best point's side; false when a cell was already dropped
  // for the other side, which makes the drop unsafe.
  const auto followSide = [&]() {
    if (!pruning || !(best < sidedBest) || !result->isValid()) return true;
    const Side now = sideOf(mesh_, *result, p);
    if (now != side && side != kNoSide && walk.pruned()) return false;
    side = now;
    sidedBest = best;
    walk.setPrune(side, pruneFrom2);
    return true;
  };
  followSide();
  context_->start(octree_, p, best, side, pruneFrom2);
  for (;;) {
    if (!followSide()) {
      best = -1;
      break;
    }
    if (!it.valid() || !(it.getDistance2() < best)) break;
    scanLeaf(it.get().getVoxel(), p, best, result);
    it.setLimit(best);
    it.next();
  }
  context_->advanceStamp();
  return best;
}

double meshClosestPoint(const CompactMesh& mesh, const Octree& vertexOctree,
                        const MeshAdjTris& adjTris, const kxLinear::Point& p, double longestEdge,
                        double maxDistance2, const BoundingBox* vertexBoxes, MeshCoord* result) {
  kx::vector<std::uint8_t> vertexSeen(std::size_t(mesh.getNumVertices()), 0);
  kx::vector<std::uint8_t> triangleSeen(std::size_t(mesh.getNumTriangles()), 0);
  const double halfEdge = longestEdge / 1.4142135623730951;
  const double margin = halfEdge * halfEdge;
  const kxLinear::PointFlt pf(p);
  const int* points = vertexOctree.getPointIndices();
  double best = maxDistance2;
  double limit = std::max(best, margin);
  for (OctreeClosestIt it(vertexOctree, p); it.valid() && it.getDistance2() < limit; it.next()) {
    const OctreeIterator leaf = it.get();
    for (int i = leaf.firstPoint(); i < leaf.endPoint(); ++i) {
      const int v = points[i];
      if (vertexSeen[v]) continue;
      vertexSeen[v] = 1;
      const double bound =
          boxDistance2(vertexBoxes ? vertexBoxes[v] : vertexFanBox(mesh, adjTris, v), pf, p);
      if (!(bound < best)) continue;
      const int* tris = adjTris.triIndices(v);
      for (int k = 0, n = adjTris.numTris(v); k < n; ++k) {
        const int t = tris[k];
        if (triangleSeen[t]) continue;
        triangleSeen[t] = 1;
        MeshCoord coord;
        double d2;
        if (triangleClosest(mesh, t, p, coord, d2) && d2 < best) {
          best = d2;
          if (result) *result = coord;
          limit = std::max(best, margin);
        }
      }
    }
  }
  return best;
}

double meshClosestPoint(const CompactMesh& mesh, const Octree& vertexOctree,
                        const MeshAdjTris& adjTris, const kxLinear::Point& p, MeshCoord* result) {
  return meshClosestPoint(mesh, vertexOctree, adjTris, p, meshLongestEdge(mesh), kLargestDouble,
                          nullptr, result);
}

double meshClosestVertex2(const CompactMesh& mesh, const Octree& vertexOctree,
                          const kxLinear::Point& p) {
  kxOS::StopWatch watch;
  double best = kLargestDouble;
  BitVector seen(mesh.getNumVertices());
  const MeshVertex* vertices = mesh.getVertices();
  const int* points = vertexOctree.getPointIndices();
  for (OctreeClosestIt it(vertexOctree, p); it.valid() && it.getDistance2() < best; it.next()) {
    const OctreeIterator leaf = it.get();
    for (int i = leaf.firstPoint(); i < leaf.endPoint(); ++i) {
      const int v = points[i];
      if (seen.isBitSet(v)) continue;
      seen.setBit(v);
      best = std::min(best, (vertices[v].asPoint() - p).length2());
    }
  }
  debugChannel().print("   meshClosestVertex: %f s\n", watch.clear());
  return best;
}

MeshPtInside::MeshPtInside(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                           double tolerance)
    : mesh_(mesh), closest_(mesh, octree, tris), tolerance_(tolerance) {
  meshBoundingBox(mesh, box_);
}

MeshPtInside::Result MeshPtInside::evaluate(const kxLinear::Point& p) {
  if (!contains(box_, kxLinear::PointFlt(p))) return Outside;
  // Cells whose triangles would all give the same side as the best point so
  // far are skipped when no nearer than the tolerance: the nearest point
  // then gives that side too, and the distance test is unaffected. When the
  // best point's side flips after such a skip, the plain search decides.
  MeshCoord coord;
  const double tolerance2 = tolerance_ * tolerance_;
  double best2 = closest_.search(p, &coord, tolerance2 * (1 + 1e-9) + kSmallestPrune);
  if (best2 < 0) best2 = closest_.search(p, &coord, -1);
  if (std::sqrt(best2) < tolerance_) return OnSurface;
  if (!coord.isValid()) return Outside;
  return sideOf(mesh_, coord, p) == kInsideSide ? Inside : Outside;
}

MeshCoord meshTriClosestPt(const float* vertices, const int* triangles, int triangle,
                           const kxLinear::Point& p) {
  const int* tri = triangles + 3 * std::size_t(triangle);
  return cornersClosest(vertices + 3 * std::size_t(tri[0]), vertices + 3 * std::size_t(tri[1]),
                        vertices + 3 * std::size_t(tri[2]), triangle, p);
}

double meshLongestEdge(const CompactMesh& mesh) {
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  double longest2 = 0;
  for (int t = 0, n = mesh.getNumTriangles(); t < n; ++t) {
    const int* tri = triangles + 3 * std::size_t(t);
    for (int e = 0; e < 3; ++e) {
      const double len2 = (corner(vertices, tri, (e + 1) % 3) - corner(vertices, tri, e)).length2();
      if (len2 > longest2 && std::isfinite(len2)) longest2 = len2;
    }
  }
  return std::sqrt(longest2);
}

bool meshClosestPoints(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                       const kxLinear::Point* points, int count, double* distances,
                       MeshCoord* coords, kxUtil::Progress* progress) {
  BatchQuery<MeshClosestPoint> batch(
      count, [&] { return std::make_unique<MeshClosestPoint>(mesh, octree, tris); },
      [&](MeshClosestPoint& search, int i) {
        MeshCoord found;
        distances[i] = search.compute(points[i], &found);
        if (coords) coords[i] = found;
      });
  return runBatch(batch, progress);
}

bool meshPointsInside(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                      double tolerance, const kxLinear::Point* points, int count,
                      MeshPtInside::Result* results, kxUtil::Progress* progress) {
  BatchQuery<MeshPtInside> batch(
      count, [&] { return std::make_unique<MeshPtInside>(mesh, octree, tris, tolerance); },
      [&](MeshPtInside& inside, int i) { results[i] = inside.evaluate(points[i]); });
  return runBatch(batch, progress);
}

}  // namespace kxGeom
