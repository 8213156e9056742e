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

#include "octree_layout.h"
#include "simd4.h"
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

// The smallest float not below x (+infinity beyond the float range).
float floatAtLeast(double x) {
  if (!(x <= BoundingBox::kMaxFloat)) return std::numeric_limits<float>::infinity();
  const float f = float(x);
  return double(f) < x ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
}

// The lanes of four boxes (rows lo, hi, single precision) whose squared
// distance to pf may lie below `limit2`: the distance in single precision,
// lowered by far more than its rounding and than that of p to pf (the boxes
// are padded), never exceeds the exact distance to the unpadded boxes. An
// overflowing or NaN distance decides nothing and passes.
unsigned boxesBefore(const float* lo[3], const float* hi[3], const kxLinear::PointFlt& pf,
                     double limit2) {
  __m128 d2 = _mm_setzero_ps();
  for (int k = 0; k < 3; ++k) {
    const __m128 q = _mm_set1_ps(pf[k]);
    const __m128 gap =
        _mm_max_ps(_mm_max_ps(_mm_sub_ps(_mm_load_ps(lo[k]), q), _mm_sub_ps(q, _mm_load_ps(hi[k]))),
                   _mm_setzero_ps());
    d2 = _mm_add_ps(d2, _mm_mul_ps(gap, gap));
  }
  const __m128 lower = _mm_mul_ps(d2, _mm_set1_ps(1.0f - 1.0f / (1 << 16)));
  const __m128 overflow = _mm_cmpeq_ps(d2, simd4::infinity());
  const __m128 before = _mm_or_ps(_mm_cmplt_ps(lower, _mm_set1_ps(floatAtLeast(limit2))), overflow);
  // NaN fails every comparison above: pass it too.
  const __m128 nan = _mm_cmpunord_ps(d2, d2);
  return unsigned(_mm_movemask_ps(_mm_or_ps(before, nan)));
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
// the cone holding the normals that orient them. The box and the slab fill
// the first cache line, so computing a key reads one line.
struct alignas(64) NodeBound {
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

// Answers the chunks of points [first, first + count) with one searcher per
// thread, copied from a prototype on the thread's first chunk: the copies
// share the prototype's prepared data, and no point needs a particular
// thread.
template <class Searcher>
class BatchSlice : public kxUtil::ThreadedChunkAlg<char> {
 public:
  using Answer = std::function<void(Searcher&, int)>;
  BatchSlice(int first, int count, const Searcher& prototype,
             std::vector<std::unique_ptr<Searcher>>& searchers, const Answer& answer)
      : ThreadedChunkAlg<char>(count, 256),
        first_(first),
        prototype_(prototype),
        searchers_(searchers),
        answer_(answer) {}

 protected:
  void process(int thread, int begin, int end, char&) override {
    std::unique_ptr<Searcher>& searcher = searchers_[std::size_t(thread)];
    if (!searcher) searcher = std::make_unique<Searcher>(prototype_);
    for (int i = first_ + begin; i < first_ + end; ++i) answer_(*searcher, i);
  }

 private:
  int first_;
  const Searcher& prototype_;
  std::vector<std::unique_ptr<Searcher>>& searchers_;
  const Answer& answer_;
};

// Answers points [0, count) on the shared pool slice by slice, reporting the
// points answered and polling for cancellation between slices, as the other
// chunked passes do; false when cancelled.
template <class Searcher>
bool runBatch(int count, const Searcher& prototype,
              const typename BatchSlice<Searcher>::Answer& answer, kxUtil::Progress* progress) {
  constexpr int kSlice = 1 << 14;  // points between progress reports
  kxUtil::ThreadPool& pool = kxUtil::ThreadPool::get();
  std::vector<std::unique_ptr<Searcher>> searchers(std::size_t(pool.numThreads()));
  for (int first = 0; first < count; first += kSlice) {
    if (progress && progress->cancelled()) return false;
    const int n = std::min(kSlice, count - first);
    BatchSlice<Searcher> slice(first, n, prototype, searchers, answer);
    slice.setProgress(progress);
    pool.run(slice);
    if (progress && progress->cancelled()) return false;
    if (progress) progress->set(double(first + n) / count);
  }
  return true;
}

}  // namespace

class OctreeClosestItImpl {
 public:
  virtual ~OctreeClosestItImpl() = default;

  void reset(const Octree& octree, const kxLinear::Point& p) {
    root_ = octree.getRoot();
    point_ = p;
    pointFlt_ = kxLinear::PointFlt(p);
    limit_ = std::numeric_limits<double>::infinity();
    heap_.clear();
    if (!root_.getNode()) return;
    heap_.push_back({boxDistance2(root_.getBox(), pointFlt_, point_), root_});
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
        const double d2 = boxDistance2(handle.getBox(), pointFlt_, point_);
        if (!(d2 < limit_)) continue;
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

 private:
  OctreeIterator root_;
  kxLinear::Point point_;
  kxLinear::PointFlt pointFlt_;
  double limit_ = 0;
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

// The triangles measured in one query: an open-addressing set of indices
// that a query fills with a few dozen, kept small enough to stay in cache
// (unlike a stamp per triangle of the mesh). Each slot carries the number
// of the query that filled it, so starting a query clears nothing.
class SeenTriangles {
 public:
  SeenTriangles() : slots_(kInitialSlots, Slot{0, 0}) {}

  // True when t was not in the set (it is now).
  bool insert(int t) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    for (std::size_t i = slotOf(t);; i = (i + 1) & (slots_.size() - 1)) {
      Slot& slot = slots_[i];
      if (slot.query != query_) {
        slot = Slot{query_, t};
        ++size_;
        return true;
      }
      if (slot.triangle == t) return false;
    }
  }
  void clear() {
    size_ = 0;
    if (++query_ == 0) {  // the counter wrapped: no slot may keep an old number
      std::fill(slots_.begin(), slots_.end(), Slot{0, 0});
      query_ = 1;
    }
  }

 private:
  struct Slot {
    std::uint32_t query;
    int triangle;
  };
  static constexpr std::size_t kInitialSlots = 256;

  std::size_t slotOf(int t) const {
    return (std::uint32_t(t) * 2654435769u >> 8) & (slots_.size() - 1);
  }
  // Doubles the table, keeping the current query's entries.
  void grow() {
    kx::vector<Slot> old(2 * slots_.size(), Slot{0, 0});
    old.swap(slots_);
    size_ = 0;
    for (const Slot& slot : old) {
      if (slot.query == query_) insert(slot.triangle);
    }
  }

  kx::vector<Slot> slots_;
  std::size_t size_ = 0;
  std::uint32_t query_ = 1;
};

// The best-first walk of `MeshClosestPoint` over the node bounds: the cells
// in non-decreasing order of their bound's distance, skipping cells at or
// beyond a limit and, when asked, cells whose triangles would all give the
// point one side. Children are screened four at a time by the distance to
// the (padded) boxes of their triangles in the lists' layout, in single
// precision with a margin, which never exceeds their bound's distance: only
// children it cannot place at or beyond the limit get their bound's exact
// distance. The heap sees the same keys in the same order as a walk that
// computes every key, so cells of equal keys come out as they would there.
class BoundWalk {
 public:
  BoundWalk(const Octree& octree, const kx::vector<NodeBound>& bounds,
            const OctreeTrisLayout& layout)
      : nodes_(octree.getRoot().getNode()), bounds_(bounds), layout_(layout) {}

  // Starts at p, skipping cells at or beyond `limit2` and pruning for
  // `side` from `pruneFrom2` on (see setPrune).
  void reset(const kxLinear::Point& p, double limit2, Side side, double pruneFrom2) {
    point_ = p;
    pointFlt_ = kxLinear::PointFlt(p);
    limit_ = limit2;
    setPrune(side, pruneFrom2);
    pruned_ = false;
    heap_.clear();
    if (!nodes_ || bounds_.empty()) return;
    const double d2 = bounds_[0].distance2(p);
    if (!(d2 < limit_)) return;
    heap_.push_back({d2, 0, layout_.rootVoxel >= 0 ? ~layout_.rootVoxel : 0});
    if (!nodes_[0].leaf) next();
  }

  // Pops the current cell, then expands inner cells until a leaf is on top.
  void next() {
    while (!heap_.empty()) {
      std::pop_heap(heap_.begin(), heap_.end(), fartherThanEntry);
      const Entry cell = heap_.back();
      heap_.pop_back();
      if (cell.ref >= 0) expand(cell);
      // The nearest remaining cell at or beyond the limit: all are.
      if (!heap_.empty() && !(heap_.front().distance2 < limit_)) heap_.clear();
      if (!heap_.empty() && heap_.front().ref < 0) return;
    }
  }

  bool valid() const { return !heap_.empty(); }
  double distance2() const { return heap_.front().distance2; }
  int voxel() const { return ~heap_.front().ref; }
  void setLimit(double limit2) { limit_ = limit2; }
  // From the next `next()` on, cells no nearer than sqrt(from2) whose
  // triangles all give the point `side` are dropped (kNoSide: none).
  void setPrune(Side side, double from2) {
    pruneSide_ = side;
    pruneFrom_ = from2;
  }
  // True when a cell was dropped by pruning since `reset`.
  bool pruned() const { return pruned_; }

 private:
  // A cell on the heap: its key, its octree node and its layout record
  // (inner cell) or ~voxel (leaf).
  struct Entry {
    double distance2;
    int node;
    int ref;
  };
  static bool fartherThanEntry(const Entry& a, const Entry& b) { return a.distance2 > b.distance2; }

  void expand(const Entry& cell) {
    const ChildLinks& links = layout_.links[std::size_t(cell.ref)];
    const unsigned near = links.listing & childrenBefore(layout_.tight[std::size_t(cell.ref)]);
    const int first = cell.node + nodes_[cell.node].children;
    for (unsigned ask = near; ask != 0; ask &= ask - 1) {
      _mm_prefetch(reinterpret_cast<const char*>(&bounds_[std::size_t(first) + __builtin_ctz(ask)]),
                   _MM_HINT_T0);
    }
    for (int k = 0; k < 8; ++k) {
      if (!((near >> k) & 1)) continue;
      const double d2 = bounds_[std::size_t(first + k)].distance2(point_);
      if (!(d2 < limit_)) continue;
      if (prunes(first + k, d2)) continue;
      prefetchLeafRecord(links, k);
      heap_.push_back({d2, first + k, links.cell(k)});
      std::push_heap(heap_.begin(), heap_.end(), fartherThanEntry);
    }
  }

  // Asks for the record a leaf child k reads once it comes up.
  void prefetchLeafRecord(const ChildLinks& links, int k) const {
    if (!((links.leaves >> k) & 1)) return;
    _mm_prefetch(reinterpret_cast<const char*>(&layout_.leaves[std::size_t(links.next[k])]),
                 _MM_HINT_T0);
  }

  // The children whose box lies nearer than the limit, or may (bits 0..7).
  unsigned childrenBefore(const ChildBoxes& boxes) const {
    unsigned mask = 0;
    for (int g = 0; g < 2; ++g) {
      const float* lo[3] = {boxes.lo[0] + 4 * g, boxes.lo[1] + 4 * g, boxes.lo[2] + 4 * g};
      const float* hi[3] = {boxes.hi[0] + 4 * g, boxes.hi[1] + 4 * g, boxes.hi[2] + 4 * g};
      mask |= boxesBefore(lo, hi, pointFlt_, limit_) << (4 * g);
    }
    return mask;
  }

  bool prunes(int node, double d2) {
    if (pruneSide_ == kNoSide || !(d2 >= pruneFrom_)) return false;
    if (bounds_[std::size_t(node)].uniformSide(point_) != pruneSide_) return false;
    pruned_ = true;
    return true;
  }

  const OctreeNode* nodes_;
  const kx::vector<NodeBound>& bounds_;
  const OctreeTrisLayout& layout_;
  kxLinear::Point point_;
  kxLinear::PointFlt pointFlt_;
  double limit_ = 0;
  Side pruneSide_ = kNoSide;
  double pruneFrom_ = 0;
  bool pruned_ = false;
  kx::vector<Entry> heap_;
};

// What a search reads and never writes, built once per mesh and octree and
// shared by copies of the searcher.
struct PreparedSearch {
  PreparedSearch(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris)
      : bounds(nodeBounds(mesh, octree, tris)),
        corners(listedCorners(mesh, tris)),
        layout(layoutOf(mesh, octree, tris)) {}
  kx::vector<NodeBound> bounds;
  kx::vector<float> corners;
  std::shared_ptr<const OctreeTrisLayout> layout;
};

class ClosestPointContext {
 public:
  ClosestPointContext(const Octree& octree, std::shared_ptr<const PreparedSearch> prepared)
      : prepared_(std::move(prepared)),
        bounds_(prepared_->bounds),
        walk_(octree, bounds_, *prepared_->layout) {}
  virtual ~ClosestPointContext() = default;
  const std::shared_ptr<const PreparedSearch>& prepared() const { return prepared_; }

  // True the first time triangle t is seen in the current query.
  bool visit(int t) { return seen_.insert(t); }
  // Starts a new query.
  void forgetSeen() { seen_.clear(); }
  BoundWalk& walk() { return walk_; }
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
  // The corners of the triangle at position i of the concatenated lists.
  const float* cornersAt(std::size_t i) const { return prepared_->corners.data() + 9 * i; }
  const OctreeTrisLayout& layout() const { return *prepared_->layout; }

 private:
  std::shared_ptr<const PreparedSearch> prepared_;
  const kx::vector<NodeBound>& bounds_;
  SeenTriangles seen_;
  BoundWalk walk_;
};

MeshClosestPoint::MeshClosestPoint(const CompactMesh& mesh, const Octree& octree,
                                   const OctreeTris& tris)
    : mesh_(mesh),
      octree_(octree),
      tris_(tris),
      context_(new ClosestPointContext(
          octree, std::make_shared<const PreparedSearch>(mesh, octree, tris))) {}

MeshClosestPoint::MeshClosestPoint(const MeshClosestPoint& other)
    : mesh_(other.mesh_),
      octree_(other.octree_),
      tris_(other.tris_),
      context_(new ClosestPointContext(other.octree_, other.context_->prepared())) {}

MeshClosestPoint::~MeshClosestPoint() { delete context_; }

void MeshClosestPoint::scanLeaf(int voxel, const kxLinear::Point& p, double& best, double cutoff,
                                MeshCoord* result) {
  // Groups of four and then single triangles whose boxes are no nearer than
  // min(best, cutoff) are skipped: a pure saving, the answer is the same. The
  // group boxes come from the lists' layout, four to a vector pass; the
  // single boxes from the leaf's copied corners, read in sequence; only
  // survivors are looked up among the triangles already measured.
  const OctreeTrisLayout& layout = context_->layout();
  const LeafData& leaf = layout.leaves[std::size_t(voxel)];
  const int* tris = tris_.getData().members() + leaf.firstListed;
  const int count = leaf.count;
  const float* corners = context_->cornersAt(std::size_t(leaf.firstListed));
  const QuadBoxes* blocks = layout.boxes.data() + leaf.firstBox;
  // The leaf's boxes, list and first corners lie apart: ask for them at once.
  _mm_prefetch(reinterpret_cast<const char*>(blocks), _MM_HINT_T0);
  _mm_prefetch(reinterpret_cast<const char*>(blocks) + 64, _MM_HINT_T0);
  _mm_prefetch(reinterpret_cast<const char*>(tris), _MM_HINT_T0);
  _mm_prefetch(reinterpret_cast<const char*>(corners), _MM_HINT_T0);
  const kxLinear::PointFlt pf(p);
  for (int first = 0; first < count; first += 16) {
    const QuadBoxes& block = blocks[first / 16];
    const float* lo[3] = {block.lo[0], block.lo[1], block.lo[2]};
    const float* hi[3] = {block.hi[0], block.hi[1], block.hi[2]};
    const unsigned nearQuads = boxesBefore(lo, hi, pf, std::min(best, cutoff) * (1 + 1e-12));
    // The corner copies of the groups kept lie apart: ask for all at once.
    for (unsigned ask = nearQuads; ask != 0; ask &= ask - 1) {
      const char* c =
          reinterpret_cast<const char*>(corners + 36 * (first / 4 + __builtin_ctz(ask)));
      for (int line = 0; line < 3; ++line) _mm_prefetch(c + 64 * line, _MM_HINT_T0);
    }
    for (unsigned near = nearQuads; near != 0; near &= near - 1) {
      const int quad = first / 4 + __builtin_ctz(near);
      for (int i = 4 * quad, end = std::min(count, i + 4); i < end; ++i) {
        const float* c = corners + 9 * std::size_t(i);
        if (beyond(cornersBoxDistance2(c, p), std::min(best, cutoff))) continue;
        const int t = tris[i];
        if (!context_->visit(t)) continue;
        MeshCoord coord;
        double d2;
        if (listedClosest(c, t, p, coord, d2) && d2 < best) {
          best = d2;
          if (result) *result = coord;
        }
      }
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
  // from the start. Its nearest triangle corner bounds the distance from
  // above before any triangle is measured, so the scan measures only the
  // triangles that might be nearer (a corner is a point of its triangle,
  // whose distance is then at most the corner's, up to rounding).
  const OctreeIterator seed = context_->greedyLeaf(octree_, p);
  if (seed.getNode() && seed.getVoxel() >= 0 && seed.getVoxel() < tris_.numVoxels()) {
    scanLeaf(seed.getVoxel(), p, best, nearestCorner2(seed.getVoxel(), p) * (1 + 1e-9), result);
  }
  BoundWalk& walk = context_->walk();
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
  walk.reset(p, best, side, pruneFrom2);
  for (;;) {
    if (!followSide()) {
      best = -1;
      break;
    }
    if (!walk.valid() || !(walk.distance2() < best)) break;
    scanLeaf(walk.voxel(), p, best, kLargestDouble, result);
    walk.setLimit(best);
    walk.next();
  }
  context_->forgetSeen();
  return best;
}

double MeshClosestPoint::nearestCorner2(int voxel, const kxLinear::Point& p) const {
  const int* tris = tris_.firstTri(voxel);
  const float* corners = context_->cornersAt(std::size_t(tris - tris_.getData().members()));
  double nearest = kLargestDouble;
  for (int i = 0, n = tris_.numTris(voxel); i < n; ++i, corners += 9) {
    // A triangle with a non-finite corner has no closest point to offer.
    if (!std::all_of(corners, corners + 9, [](float x) { return std::isfinite(x); })) continue;
    for (int k = 0; k < 3; ++k) {
      nearest = std::min(nearest, (kxLinear::Point::from(corners + 3 * k) - p).length2());
    }
  }
  return nearest;
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
  return runBatch<MeshClosestPoint>(
      count, MeshClosestPoint(mesh, octree, tris),
      [&](MeshClosestPoint& search, int i) {
        MeshCoord found;
        distances[i] = search.compute(points[i], &found);
        if (coords) coords[i] = found;
      },
      progress);
}

bool meshPointsInside(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris,
                      double tolerance, const kxLinear::Point* points, int count,
                      MeshPtInside::Result* results, kxUtil::Progress* progress) {
  return runBatch<MeshPtInside>(
      count, MeshPtInside(mesh, octree, tris, tolerance),
      [&](MeshPtInside& inside, int i) { results[i] = inside.evaluate(points[i]); }, progress);
}

}  // namespace kxGeom
