#include <kxgeom/octree_query.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/predicates.h>

namespace kxGeom {

/// The private record behind every query iterator.
struct OctreeQueryState {
  const Octree* octree;
  const void* query;
  int capacity;
  int count;
  OctreeIterator* stack;
  int order[8];
  kxLinear::Vector direction;  // the direction `order` was computed for
};

namespace {

bool overlaps(const BoundingBox& cell, const BoundingBox& query) { return cell.intersects(query); }
bool overlaps(const BoundingBox& cell, const Frustum& query) { return intersects(cell, query); }
bool overlaps(const BoundingBox& cell, const Sphere& query) { return intersects(cell, query); }
bool overlaps(const BoundingBox& cell, const Ray& query) {
  return query.intersects(cell, 0.0f, BoundingBox::kMaxFloat);
}

kxLinear::Vector childDirection(const BoundingBox&) { return kxLinear::xAxis; }
kxLinear::Vector childDirection(const Sphere&) { return kxLinear::xAxis; }
kxLinear::Vector childDirection(const Frustum& query) { return query.getVector(); }
kxLinear::Vector childDirection(const Ray& query) { return query.direction(); }

// The children of `parent` (which passed the test) whose boxes pass it, as a
// bit mask over child numbers.
template <class Query>
unsigned overlappingChildren(const OctreeIterator& parent, const Query& query) {
  unsigned mask = 0;
  for (int k = 0; k < 8; ++k) {
    if (overlaps(OctreeIterator::childBox(parent.getBox(), k), query)) mask |= 1u << k;
  }
  return mask;
}

// For a box query the children are the parent's halves at its midpoints and
// the parent overlaps the query, so a half overlaps exactly when the query
// reaches the midpoint from its side: the same answer as testing each child
// box, at six comparisons for all eight.
template <>
unsigned overlappingChildren(const OctreeIterator& parent, const BoundingBox& query) {
  static constexpr unsigned kUpperHalf[3] = {0xAA, 0xCC, 0xF0};
  const BoundingBox& box = parent.getBox();
  unsigned mask = 0xFF;
  for (int axis = 0; axis < 3; ++axis) {
    const float mid = 0.5f * (box[axis] + box[axis + 3]);
    if (!(query[axis] <= mid)) mask &= kUpperHalf[axis];
    if (!(query[axis + 3] >= mid)) mask &= ~kUpperHalf[axis];
  }
  return mask;
}

// Pops the current leaf, then expands inner cells until a leaf is on top or
// the stack is empty. Children that pass the test are pushed from order[7]
// down to order[0], so order[0] is explored first.
template <class Query>
void advance(OctreeQueryState& s) {
  const Query& query = *static_cast<const Query*>(s.query);
  if (s.count > 0 && s.stack[s.count - 1].isLeaf()) --s.count;
  while (s.count > 0) {
    const OctreeIterator top = s.stack[s.count - 1];
    if (top.isLeaf()) return;
    --s.count;
    const unsigned mask = overlappingChildren(top, query);
    for (int k = 7; k >= 0; --k) {
      if (!((mask >> s.order[k]) & 1)) continue;
      OctreeIterator& child = s.stack[s.count++];
      child = top;
      child.descend(s.order[k]);
    }
  }
}

template <class Query>
void restart(OctreeQueryState& s, const Query& query) {
  s.query = &query;
  const kxLinear::Vector direction = childDirection(query);
  if (!(direction == s.direction)) Octree::getNodeOrdering(direction, s.order);
  s.direction = direction;
  s.count = 0;
  const OctreeIterator root = s.octree->getRoot();
  if (!root.getNode()) return;
  if (!overlaps(root.getBox(), query)) return;
  s.stack[s.count++] = root;
  if (!root.isLeaf()) advance<Query>(s);
}

}  // namespace

OctreeQueryIt::OctreeQueryIt(const Octree& octree) : state_(new OctreeQueryState) {
  state_->octree = &octree;
  state_->query = nullptr;
  state_->capacity = 8 * std::max(1, octree.depth);
  state_->count = 0;
  state_->stack = new OctreeIterator[std::size_t(state_->capacity)];
  state_->direction = kxLinear::xAxis;
  Octree::getNodeOrdering(state_->direction, state_->order);
}

OctreeQueryIt::~OctreeQueryIt() {
  delete[] state_->stack;
  delete state_;
}

bool OctreeQueryIt::valid() const { return state_->count > 0; }
OctreeIterator OctreeQueryIt::get() const { return state_->stack[state_->count - 1]; }

void OctreeBBoxIntersectIt::reset(const BoundingBox& box) { restart(*state_, box); }
void OctreeBBoxIntersectIt::next() { advance<BoundingBox>(*state_); }
void OctreeIntersectIt::reset(const Frustum& frustum) { restart(*state_, frustum); }
void OctreeIntersectIt::next() { advance<Frustum>(*state_); }
void OctreeRayIntersectIt::reset(const Ray& ray) { restart(*state_, ray); }
void OctreeRayIntersectIt::next() { advance<Ray>(*state_); }
void OctreeSphereIntersectIt::reset(const Sphere& sphere) { restart(*state_, sphere); }
void OctreeSphereIntersectIt::next() { advance<Sphere>(*state_); }

namespace {

struct VoxelPair {
  int voxel;
  int element;
};

struct PartitionRecord {
  kx::vector<VoxelPair> pairs;
  int coherent = 0;
};

bool isFinite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

bool holds(const BoundingBox& cell, const float* p) {
  return contains(cell, kxLinear::PointFlt(p[0], p[1], p[2]));
}

// Triangles as partition elements. `box` is false for an element with a
// non-finite corner, which has no place in any leaf.
struct TriangleElements {
  const float* vertices;
  const int* triangles;

  const float* corner(int element, int k) const {
    return vertices + 3 * std::size_t(triangles[3 * std::size_t(element) + k]);
  }
  bool box(int element, BoundingBox& box) const {
    const float *a = corner(element, 0), *b = corner(element, 1), *c = corner(element, 2);
    if (!isFinite(a) || !isFinite(b) || !isFinite(c)) return false;
    box.zero();
    meshTriBoundingBox(a, b, c, box);
    return true;
  }
  // A cell holding a corner overlaps the triangle, which the exact test
  // would confirm at several times the cost; most leaves a small triangle
  // reaches hold one of its corners.
  bool overlaps(const BoundingBox& cell, int element) const {
    const float *a = corner(element, 0), *b = corner(element, 1), *c = corner(element, 2);
    return holds(cell, a) || holds(cell, b) || holds(cell, c) || intersects(cell, a, b, c);
  }
};

// Line elements (two vertex indices each) as partition elements.
struct LineElements {
  const float* vertices;
  const MeshLine* lines;

  const float* end(int element, int k) const {
    return vertices + 3 * std::size_t(lines[element][k]);
  }
  bool box(int element, BoundingBox& box) const {
    const float* p = end(element, 0);
    const float* q = end(element, 1);
    if (!isFinite(p) || !isFinite(q)) return false;
    box = BoundingBox(p[0], p[1], p[2], p[0], p[1], p[2]);
    box.extend(q[0], q[1], q[2]);
    return true;
  }
  bool overlaps(const BoundingBox& cell, int element) const {
    return intersects(cell, end(element, 0), end(element, 1));
  }
};

// Lists (voxel, element) pairs per thread over contiguous element ranges and
// concatenates them in thread order, so the pairs are sorted by element.
template <class Elements>
class PartitionAlg : public kxUtil::ThreadedAlg<PartitionRecord> {
 public:
  PartitionAlg(const Octree& octree, const Elements& elements, int numElements)
      : ThreadedAlg(numElements), octree_(octree), elements_(elements) {}

  void finalize() override {
    std::size_t total = 0;
    for (const PartitionRecord& r : results()) total += r.pairs.size();
    pairs_.reserve(total);
    for (const PartitionRecord& r : results()) {
      pairs_.insert(pairs_.end(), r.pairs.begin(), r.pairs.end());
      coherent_ += r.coherent;
    }
    results().clear();
  }

  int numPairs() const { return static_cast<int>(pairs_.size()); }
  const int* pairs() const { return reinterpret_cast<const int*>(pairs_.data()); }
  int coherent() const { return coherent_; }

 protected:
  void process(int, int begin, int end, PartitionRecord& record) override {
    record.pairs.reserve(std::size_t(2) * std::size_t(n_) / std::size_t(numThreads_));
    OctreeBBoxIntersectIt leaves(octree_);
    OctreeIterator reference;
    BoundingBox box;
    for (int i = begin; i < end; ++i) {
      if (!elements_.box(i, box)) continue;
      if (reference.getNode() && reference.getBox().contains(box)) {
        record.pairs.push_back({reference.getVoxel(), i});
        ++record.coherent;
        continue;
      }
      for (leaves.reset(box); leaves.valid(); leaves.next()) {
        reference = leaves.get();
        if (elements_.overlaps(reference.getBox(), i)) {
          record.pairs.push_back({reference.getVoxel(), i});
        }
      }
    }
  }

 private:
  const Octree& octree_;
  Elements elements_;
  kx::vector<VoxelPair> pairs_;
  int coherent_ = 0;
};

// Partitions `numElements` elements into the leaves of `octree`, swaps the
// lists into `result` and logs `format` (count, voxels, seconds, coherence,
// pairs per element, elements per second).
template <class Lists, class Elements>
void partitionInto(const Octree& octree, const Elements& elements, int numElements, Lists& result,
                   const char* format) {
  kxOS::StopWatch watch;
  const int numLeaves = octree.numLeaves;
  if (numLeaves <= 0) return;
  PartitionAlg<Elements> alg(octree, elements, numElements);
  kxUtil::ThreadPool::get().run(alg);
  ArrayOfSets sets;
  sets.assignFromPairs(numLeaves, alg.numPairs(), alg.pairs());
  Lists lists(sets);
  result.swap(lists);
  const double seconds = watch.stop();
  const float n = float(numElements);
  debugChannel().print(format, numElements, numLeaves, seconds, double(float(alg.coherent()) / n),
                       double(float(alg.numPairs()) / n), numElements / seconds);
}

}  // namespace

void computeOctreeTris(const CompactMesh& mesh, const Octree& octree, OctreeTris& result) {
  partitionInto(octree, TriangleElements{mesh.getVerticesRaw(), mesh.getTrianglesRaw()},
                mesh.getNumTriangles(), result,
                "OctreeTris:  Partitioned %d triangles into %d voxels in %.3f seconds.\n"
                "             (%.2f coherence, %.2f voxels/tri, %.0f tri/sec)\n");
}

void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& result) {
  partitionInto(octree, LineElements{mesh.getVerticesRaw(), mesh.getLines()}, mesh.getNumLines(),
                result,
                "OctreeLines:  Partitioned %d lines into %d voxels in %.3f seconds.\n"
                "             (%.2f coherence, %.2f duplication, %.0f tri/sec)\n");
}

}  // namespace kxGeom
