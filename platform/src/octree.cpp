#include <kxgeom/platform/octree.h>

#include <algorithm>
#include <cmath>

namespace kxGeom {

namespace {

bool isFinitePoint(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

bool isFiniteBox(const BoundingBox& box) {
  return box.isValid() && isFinitePoint(box.data()) && isFinitePoint(box.data() + 3);
}

// The given box grown by the finite points, then cubed when asked (unless
// cubing would overflow single precision).
BoundingBox makeRootBox(int numPoints, const float* xyz, const BoundingBox& box, bool cube) {
  BoundingBox root;
  if (isFiniteBox(box)) root = box;
  for (int i = 0; i < numPoints; ++i) {
    const float* p = xyz + 3 * std::size_t(i);
    if (isFinitePoint(p)) root.extend(p[0], p[1], p[2]);
  }
  if (cube && root.isValid()) {
    BoundingBox cubed = root;
    cubed.extendToCube();
    if (isFiniteBox(cubed)) root = cubed;
  }
  return root;
}

// True when single precision can still halve the box on some axis.
bool canHalve(const BoundingBox& box) {
  for (int axis = 0; axis < 3; ++axis) {
    const float mid = 0.5f * (box[axis] + box[axis + 3]);
    if (box[axis] < mid && mid < box[axis + 3]) return true;
  }
  return false;
}

// Recursive subdivision over one node array and one permutation array. The
// recursion is at most Octree::kMaxDepth deep.
class OctreeBuild {
 public:
  OctreeBuild(const float* xyz, int leafCapacity, kx::vector<OctreeNode>& nodes,
              kx::vector<int>& permutation)
      : xyz_(xyz),
        capacity_(leafCapacity),
        nodes_(nodes),
        perm_(permutation),
        scratch_(permutation.size()),
        codes_(permutation.size()) {}

  void build(int node, const BoundingBox& box, int level) {
    depth_ = std::max(depth_, level);
    const int first = nodes_[node].first, end = nodes_[node].end;
    if (end - first <= capacity_ || level >= Octree::kMaxDepth || !canHalve(box)) {
      makeLeaf(node);
      return;
    }
    int bounds[9];
    partition(box, first, end, bounds);
    const int child0 = static_cast<int>(nodes_.size());
    nodes_.resize(nodes_.size() + 8);
    nodes_[node].children = child0 - node;
    for (int k = 0; k < 8; ++k) nodes_[child0 + k] = OctreeNode{0, 0, -1, bounds[k], bounds[k + 1]};
    for (int k = 0; k < 8; ++k) build(child0 + k, OctreeIterator::childBox(box, k), level + 1);
  }

  int numLeaves() const { return leaves_; }
  int depth() const { return depth_; }

 private:
  void makeLeaf(int node) {
    nodes_[node].leaf = 1;
    nodes_[node].children = 0;
    nodes_[node].voxel = leaves_++;
  }

  // Counting sort of perm_[first, end) by child number; bounds[k] .. bounds[k+1]
  // is child k's range afterwards.
  void partition(const BoundingBox& box, int first, int end, int bounds[9]) {
    const float mx = 0.5f * (box[0] + box[3]);
    const float my = 0.5f * (box[1] + box[4]);
    const float mz = 0.5f * (box[2] + box[5]);
    int count[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (int i = first; i < end; ++i) {
      const float* p = xyz_ + 3 * std::size_t(perm_[i]);
      const int code = int(p[0] >= mx) | int(p[1] >= my) << 1 | int(p[2] >= mz) << 2;
      codes_[i] = static_cast<std::uint8_t>(code);
      ++count[code];
    }
    int next[8];
    bounds[0] = first;
    for (int k = 0; k < 8; ++k) {
      next[k] = bounds[k];
      bounds[k + 1] = bounds[k] + count[k];
    }
    for (int i = first; i < end; ++i) scratch_[next[codes_[i]]++] = perm_[i];
    std::copy(scratch_.begin() + first, scratch_.begin() + end, perm_.begin() + first);
  }

  const float* xyz_;
  int capacity_;
  kx::vector<OctreeNode>& nodes_;
  kx::vector<int>& perm_;
  kx::vector<int> scratch_;
  kx::vector<std::uint8_t> codes_;
  int leaves_ = 0;
  int depth_ = 0;
};

}  // namespace

Octree::Octree(int numPoints, const float* xyz, const BoundingBox& box, bool cube,
               int leafCapacity) {
  numPoints = std::max(0, numPoints);
  box_ = makeRootBox(numPoints, xyz, box, cube);
  if (!box_.isValid()) {
    box_.setInvalid();
    return;
  }
  permutation_.resize(std::size_t(numPoints));
  for (int i = 0; i < numPoints; ++i) permutation_[i] = i;
  const int capacity = std::max(1, leafCapacity);
  nodes_.reserve(std::size_t(numPoints / capacity) * 4 + 1);
  nodes_.push_back(OctreeNode{0, 0, -1, 0, numPoints});
  OctreeBuild build(xyz, capacity, nodes_, permutation_);
  build.build(0, box_, 1);
  numLeaves = build.numLeaves();
  depth = build.depth();
}

OctreeIterator Octree::getRoot() const {
  return nodes_.empty() ? OctreeIterator() : OctreeIterator(box_, nodes_.data());
}

void Octree::getNodeOrdering(const kxLinear::Vector& direction, int order[8]) {
  double key[8];
  bool ordered = true;
  for (int k = 0; k < 8; ++k) {
    order[k] = k;
    key[k] = 0;
    for (int axis = 0; axis < 3; ++axis) {
      key[k] += ((k >> axis) & 1) ? direction[axis] : -direction[axis];
    }
    ordered = ordered && !std::isnan(key[k]);
  }
  // Without NaN keys, the stable sort puts child k at its rank among the
  // children by (key, child number): counted without a branch per pair,
  // which a tracer pays once per ray.
  if (ordered) {
    for (int k = 0; k < 8; ++k) {
      int rank = 0;
      for (int j = 0; j < 8; ++j) rank += (key[j] < key[k]) | ((key[j] == key[k]) & (j < k));
      order[rank] = k;
    }
    return;
  }
  // Stable insertion sort: equal keys (and NaN keys) keep child order.
  for (int i = 1; i < 8; ++i) {
    for (int j = i; j > 0 && key[order[j]] < key[order[j - 1]]; --j) {
      std::swap(order[j], order[j - 1]);
    }
  }
}

void OctreeLeafIterator::reset(const Octree& octree) {
  stack_.clear();
  stack_.reserve(std::size_t(std::max(1, octree.depth)));
  const OctreeIterator root = octree.getRoot();
  if (!root.getNode()) return;
  stack_.push_back(root);
  if (!root.isLeaf()) next();
}

void OctreeLeafIterator::next() {
  if (!stack_.empty() && stack_.back().isLeaf()) stack_.pop_back();
  while (!stack_.empty()) {
    const OctreeIterator top = stack_.back();
    if (top.isLeaf()) return;
    stack_.pop_back();
    for (int child = 0; child < 8; ++child) {
      OctreeIterator handle = top;
      if (handle.descend(child)) stack_.push_back(handle);
    }
  }
}

}  // namespace kxGeom
