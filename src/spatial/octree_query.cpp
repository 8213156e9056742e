#include <kxgeom/octree_query.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/predicates.h>

#include "octree_layout.h"

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
unsigned halvesReached(const BoundingBox& box, const BoundingBox& query) {
  static constexpr unsigned kUpperHalf[3] = {0xAA, 0xCC, 0xF0};
  unsigned mask = 0xFF;
  for (int axis = 0; axis < 3; ++axis) {
    const float mid = 0.5f * (box[axis] + box[axis + 3]);
    if (!(query[axis] <= mid)) mask &= kUpperHalf[axis];
    if (!(query[axis + 3] >= mid)) mask &= ~kUpperHalf[axis];
  }
  return mask;
}

template <>
unsigned overlappingChildren(const OctreeIterator& parent, const BoundingBox& query) {
  return halvesReached(parent.getBox(), query);
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

// Whether the closed cell holds the point (as `contains`, without a branch
// per comparison: the answer is hard to predict).
bool holds(const BoundingBox& cell, const float* p) {
  return (p[0] >= cell[0]) & (p[1] >= cell[1]) & (p[2] >= cell[2]) & (p[0] <= cell[3]) &
         (p[1] <= cell[4]) & (p[2] <= cell[5]);
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
    for (int k = 0; k < 3; ++k) {  // as meshTriBoundingBox, without branches
      box[k] = std::min(a[k], std::min(b[k], c[k]));
      box[k + 3] = std::max(a[k], std::max(b[k], c[k]));
    }
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

// Each octree node as one word: the offset to its first child (inner) or
// ~voxel (leaf). Four bytes a node instead of twenty keep a descent's nodes
// in cache.
kx::vector<std::int32_t> nodeLinks(const Octree& octree) {
  kx::vector<std::int32_t> links(std::size_t(octree.getNumNodes()));
  const OctreeNode* nodes = octree.getRoot().getNode();
  for (std::size_t i = 0; i < links.size(); ++i) {
    links[i] = nodes[i].leaf ? ~nodes[i].voxel : nodes[i].children;
  }
  return links;
}

// The leaves overlapping one element's box after another, found by a
// depth-first descent that starts from the deepest cell on the path to the
// previous element's last leaf whose box holds the new box strictly inside:
// no leaf outside such a cell can touch the box, and within it the descent
// meets the same leaves in the same order as one from the root (children
// in the order along +x, as `OctreeBBoxIntersectIt` visits them).
class CoherentDescent {
 public:
  CoherentDescent(const Octree& octree, const std::int32_t* links)
      : rootBox_(octree.getBox()), links_(links) {
    Octree::getNodeOrdering(kxLinear::xAxis, order_);
  }

  // The last leaf of the previous call that met one: its box and voxel.
  bool hasLastLeaf() const { return pathLength_ > 0; }
  const BoundingBox& lastLeafBox() const { return path_[pathLength_ - 1].box; }
  int lastLeafVoxel() const { return ~links_[path_[pathLength_ - 1].node]; }

  // Calls visit(leaf box, voxel) for every leaf whose box overlaps `box`.
  template <class Visit>
  void forEachLeaf(const BoundingBox& box, Visit&& visit) {
    int level = pathLength_ - 1;
    while (level >= 0 && !holdsInside(path_[level].box, box)) --level;
    if (level < 0) {
      if (!rootBox_.intersects(box)) return;
      path_[0] = Cell{rootBox_, 0};
      level = 0;
    }
    descend(level, box, visit);
  }

 private:
  struct Cell {
    BoundingBox box;
    int node;
  };

  static bool holdsInside(const BoundingBox& cell, const BoundingBox& box) {
    return box[0] > cell[0] && box[1] > cell[1] && box[2] > cell[2] && box[3] < cell[3] &&
           box[4] < cell[4] && box[5] < cell[5];
  }

  template <class Visit>
  void descend(int level, const BoundingBox& box, Visit& visit) {
    const Cell& cell = path_[level];
    const std::int32_t link = links_[cell.node];
    if (link < 0) {
      pathLength_ = level + 1;
      visit(cell.box, ~link);
      return;
    }
    const unsigned mask = halvesReached(cell.box, box);
    for (int j = 0; j < 8; ++j) {
      const int k = order_[j];
      if (!((mask >> k) & 1)) continue;
      path_[level + 1] = Cell{OctreeIterator::childBox(cell.box, k), cell.node + link + k};
      descend(level + 1, box, visit);
    }
  }

  BoundingBox rootBox_;
  const std::int32_t* links_;
  int order_[8];
  Cell path_[Octree::kMaxDepth + 1];
  int pathLength_ = 0;
};

// Lists (voxel, element) pairs per thread over contiguous element ranges and
// concatenates them in thread order, so the pairs are sorted by element.
template <class Elements>
class PartitionAlg : public kxUtil::ThreadedAlg<PartitionRecord> {
 public:
  PartitionAlg(const Octree& octree, const Elements& elements, int numElements)
      : ThreadedAlg(numElements), octree_(octree), links_(nodeLinks(octree)), elements_(elements) {}

  void finalize() override {
    for (const PartitionRecord& r : results()) coherent_ += r.coherent;
    if (results().size() == 1) {
      pairs_.swap(results()[0].pairs);
    } else {
      std::size_t total = 0;
      for (const PartitionRecord& r : results()) total += r.pairs.size();
      pairs_.reserve(total);
      for (const PartitionRecord& r : results()) {
        pairs_.insert(pairs_.end(), r.pairs.begin(), r.pairs.end());
      }
    }
    results().clear();
  }

  int numPairs() const { return static_cast<int>(pairs_.size()); }
  const int* pairs() const { return reinterpret_cast<const int*>(pairs_.data()); }
  int coherent() const { return coherent_; }

 protected:
  // A triangle whose box fits inside the last leaf visited for the previous
  // element is listed there only; otherwise in every leaf its box overlaps
  // that the element's exact test accepts.
  void process(int, int begin, int end, PartitionRecord& record) override {
    record.pairs.reserve(std::size_t(9) * std::size_t(end - begin) / 4);
    CoherentDescent leaves(octree_, links_.data());
    BoundingBox box;
    for (int i = begin; i < end; ++i) {
      if (!elements_.box(i, box)) continue;
      if (leaves.hasLastLeaf() && leaves.lastLeafBox().contains(box)) {
        record.pairs.push_back({leaves.lastLeafVoxel(), i});
        ++record.coherent;
        continue;
      }
      leaves.forEachLeaf(box, [&](const BoundingBox& leaf, int voxel) {
        if (elements_.overlaps(leaf, i)) record.pairs.push_back({voxel, i});
      });
    }
  }

 private:
  const Octree& octree_;
  kx::vector<std::int32_t> links_;
  Elements elements_;
  kx::vector<VoxelPair> pairs_;
  int coherent_ = 0;
};

// What a partition reports: elements, voxels, seconds, the fraction listed
// by the coherence shortcut, pairs per element and elements per second.
struct PartitionReport {
  int elements, voxels;
  double seconds, coherence, pairsPerElement, rate;
};

// Partitions `numElements` elements into the leaves of `octree` (which has
// some) and hands the (voxel, element) pairs, in element order, to
// `list(numPairs, pairs)`.
template <class Elements, class List>
PartitionReport partition(const Octree& octree, const Elements& elements, int numElements,
                          List list) {
  kxOS::StopWatch watch;
  PartitionAlg<Elements> alg(octree, elements, numElements);
  kxUtil::ThreadPool::get().run(alg);
  const double seconds = watch.stop();
  list(alg.numPairs(), alg.pairs());
  const float n = float(numElements);
  return {numElements,
          octree.numLeaves,
          seconds,
          double(float(alg.coherent()) / n),
          double(float(alg.numPairs()) / n),
          numElements / seconds};
}

}  // namespace

void computeOctreeTris(const CompactMesh& mesh, const Octree& octree, OctreeTris& result) {
  if (octree.numLeaves <= 0) return;
  ArrayOfSets sets;
  std::shared_ptr<const OctreeTrisLayout> layout;
  kxOS::StopWatch watch;
  const PartitionReport r =
      partition(octree, TriangleElements{mesh.getVerticesRaw(), mesh.getTrianglesRaw()},
                mesh.getNumTriangles(), [&](int numPairs, const int* pairs) {
                  watch.clear();
                  layout = listAndLayOut(mesh, octree, octree.numLeaves, numPairs, pairs, sets);
                });
  OctreeTris lists(sets, std::move(layout));
  result.swap(lists);
  debugChannel().print(
      "OctreeTris:  Partitioned %d triangles into %d voxels in %.3f seconds.\n"
      "             (%.2f coherence, %.2f voxels/tri, %.0f tri/sec; listed and laid out in %.3f "
      "seconds)\n",
      r.elements, r.voxels, r.seconds, r.coherence, r.pairsPerElement, r.rate, watch.stop());
}

void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& result) {
  if (octree.numLeaves <= 0) return;
  ArrayOfSets sets;
  const PartitionReport r = partition(octree, LineElements{mesh.getVerticesRaw(), mesh.getLines()},
                                      mesh.getNumLines(), [&](int numPairs, const int* pairs) {
                                        sets.assignFromPairs(octree.numLeaves, numPairs, pairs);
                                      });
  OctreeLines lists(sets);
  result.swap(lists);
  debugChannel().print(
      "OctreeLines:  Partitioned %d lines into %d voxels in %.3f seconds.\n"
      "             (%.2f coherence, %.2f duplication, %.0f tri/sec)\n",
      r.elements, r.voxels, r.seconds, r.coherence, r.pairsPerElement, r.rate);
}

}  // namespace kxGeom
