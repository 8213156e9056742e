#include "octree_layout.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Boxes are padded by this fraction of their largest coordinate magnitude:
// eight float spacings, far above the rounding of a corner difference or a
// slab parameter, far below any cell or triangle of a model.
constexpr float kPadding = 1.0f / (1 << 20);

BoundingBox padded(const BoundingBox& box) {
  if (!box.isValid()) return box;
  float magnitude = 0;
  for (int i = 0; i < 6; ++i) magnitude = std::max(magnitude, std::fabs(box[i]));
  const float pad = magnitude * kPadding;
  return BoundingBox(box[0] - pad, box[1] - pad, box[2] - pad, box[3] + pad, box[4] + pad,
                     box[5] + pad);
}

BoundingBox intersection(const BoundingBox& a, const BoundingBox& b) {
  return BoundingBox(std::max(a[0], b[0]), std::max(a[1], b[1]), std::max(a[2], b[2]),
                     std::min(a[3], b[3]), std::min(a[4], b[4]), std::min(a[5], b[5]));
}

// An empty box is stored as the point at +infinity, which every slab test
// places beyond reach (either ahead at +infinity or behind the origin).
void setBoxLane(QuadBoxes& boxes, int lane, const BoundingBox& box) {
  for (int k = 0; k < 3; ++k) {
    boxes.lo[k][lane] = box.isValid() ? box[k] : kInfinity;
    boxes.hi[k][lane] = box.isValid() ? box[k + 3] : kInfinity;
  }
}

// One triangle's lane data: first corner and edges, formed in single
// precision as the ray tests form them.
struct LaneData {
  float v0[3], e1[3], e2[3];

  LaneData(const float* vertices, const int* corners) {
    const float* a = vertices + 3 * std::size_t(corners[0]);
    const float* b = vertices + 3 * std::size_t(corners[1]);
    const float* c = vertices + 3 * std::size_t(corners[2]);
    for (int k = 0; k < 3; ++k) {
      v0[k] = a[k];
      e1[k] = b[k] - a[k];
      e2[k] = c[k] - a[k];
    }
  }
};

void setLane(TriangleQuad& quad, int lane, const LaneData& data) {
  for (int k = 0; k < 3; ++k) {
    quad.v0[k][lane] = data.v0[k];
    quad.e1[k][lane] = data.e1[k];
    quad.e2[k][lane] = data.e2[k];
  }
}

// The box of the lanes [0, lanes) of a quad with finite data: corners v0,
// v0 + e1 and v0 + e2, within a float spacing of the triangles the tests
// see, which the padding covers. A lane with a non-finite value (a NaN or
// infinite corner), which no test hits, stays out.
BoundingBox quadBox(const TriangleQuad& quad, int lanes) {
  BoundingBox box;
  float* b = box.data();
  for (int lane = 0; lane < lanes; ++lane) {
    bool finite = true;
    float corner[3][3];
    for (int k = 0; k < 3; ++k) {
      corner[0][k] = quad.v0[k][lane];
      corner[1][k] = quad.v0[k][lane] + quad.e1[k][lane];
      corner[2][k] = quad.v0[k][lane] + quad.e2[k][lane];
      finite &= std::fabs(quad.v0[k][lane]) <= BoundingBox::kMaxFloat;
      finite &= std::fabs(quad.e1[k][lane]) <= BoundingBox::kMaxFloat;
      finite &= std::fabs(quad.e2[k][lane]) <= BoundingBox::kMaxFloat;
    }
    if (!finite) continue;
    for (int k = 0; k < 3; ++k) {
      b[k] = std::min(b[k], std::min(corner[0][k], std::min(corner[1][k], corner[2][k])));
      b[k + 3] = std::max(b[k + 3], std::max(corner[0][k], std::max(corner[1][k], corner[2][k])));
    }
  }
  return padded(box);
}

// Zeroes the padding lanes of a leaf's last quad and fills its quad boxes;
// returns the box of the leaf's triangles (invalid for none).
BoundingBox finishLeaf(TriangleQuad* quads, QuadBoxes* boxes, int count) {
  static const float kOrigin[3] = {0, 0, 0};
  const int numQuads = (count + 3) / 4;
  for (int i = count; i < 4 * numQuads; ++i) {
    for (int k = 0; k < 3; ++k) {
      quads[i / 4].v0[k][i % 4] = kOrigin[k];
      quads[i / 4].e1[k][i % 4] = kOrigin[k];
      quads[i / 4].e2[k][i % 4] = kOrigin[k];
    }
  }
  BoundingBox leafBox;
  for (int q = 0; q < numQuads; ++q) {
    const BoundingBox box = quadBox(quads[q], std::min(4, count - 4 * q));
    setBoxLane(boxes[q / 4], q % 4, box);
    if (box.isValid()) leafBox.extend(box);
  }
  for (int q = numQuads; q % 4 != 0; ++q) setBoxLane(boxes[q / 4], q % 4, BoundingBox());
  return leafBox;
}

// The cell records, depth first, from the leaf boxes.
class CellBuilder {
 public:
  CellBuilder(const kx::vector<BoundingBox>& leafBoxes, OctreeTrisLayout& layout)
      : leafBoxes_(leafBoxes), layout_(layout) {}

  // The boxes of the triangles below `cell`, and its record (inner) or voxel
  // (leaf), -1 when nothing is listed below it.
  int build(const OctreeIterator& cell, BoundingBox& tight, BoundingBox& clipped) {
    if (cell.isLeaf()) {
      const int voxel = cell.getVoxel();
      tight = voxel < int(leafBoxes_.size()) ? leafBoxes_[std::size_t(voxel)] : BoundingBox();
      clipped = intersection(tight, padded(cell.getBox()));
      return tight.isValid() ? voxel : -1;
    }
    const std::size_t record = layout_.links.size();
    layout_.links.emplace_back();
    layout_.tight.emplace_back();
    layout_.clipped.emplace_back();
    tight.setInvalid();
    clipped.setInvalid();
    ChildLinks links;
    ChildBoxes tightBoxes, clippedBoxes;
    links.listing = 0;
    links.leaves = 0;
    for (int k = 0; k < 8; ++k) {
      OctreeIterator child = cell;
      child.descend(k);
      BoundingBox childTight, childClipped;
      links.next[k] = build(child, childTight, childClipped);
      setColumn(tightBoxes, k, childTight);
      setColumn(clippedBoxes, k, childClipped);
      if (links.next[k] < 0) continue;
      links.listing |= std::uint8_t(1u << k);
      if (child.isLeaf()) links.leaves |= std::uint8_t(1u << k);
      tight.extend(childTight);
      clipped.extend(childClipped);
    }
    if (links.listing == 0) {  // the last record: no child below made one
      layout_.links.pop_back();
      layout_.tight.pop_back();
      layout_.clipped.pop_back();
      return -1;
    }
    layout_.links[record] = links;
    layout_.tight[record] = tightBoxes;
    layout_.clipped[record] = clippedBoxes;
    return int(record);
  }

 private:
  static void setColumn(ChildBoxes& boxes, int k, const BoundingBox& box) {
    for (int axis = 0; axis < 3; ++axis) {
      boxes.lo[axis][k] = box.isValid() ? box[axis] : kInfinity;
      boxes.hi[axis][k] = box.isValid() ? box[axis + 3] : kInfinity;
    }
  }

  const kx::vector<BoundingBox>& leafBoxes_;
  OctreeTrisLayout& layout_;
};

}  // namespace

std::shared_ptr<const OctreeTrisLayout> listAndLayOut(const CompactMesh& mesh, const Octree& octree,
                                                      int numVoxels, int numPairs, const int* pairs,
                                                      ArrayOfSets& lists) {
  auto layout = std::make_shared<OctreeTrisLayout>();
  OctreeTrisLayout& out = *layout;
  kxUtil::ThreadPool& pool = kxUtil::ThreadPool::get();
  // Each slice of the pairs counts its voxels; the lists give slice s of
  // voxel v the places after those of the slices before it, which keeps the
  // pairs' order in every list for any number of slices.
  const int slices = std::max(1, std::min(pool.numThreads(), numPairs / 65536 + 1));
  kx::vector<int> start(std::size_t(slices) * std::size_t(numVoxels), 0);
  const auto sliceBegin = [&](int slice) {
    return kxUtil::ThreadedAlgBase::getBeginIndex(slice, slices, numPairs);
  };
  kxUtil::forEachRange(pool, slices, [&](int, int first, int last) {
    for (int slice = first; slice < last; ++slice) {
      int* count = start.data() + std::size_t(slice) * std::size_t(numVoxels);
      for (int p = sliceBegin(slice); p < sliceBegin(slice + 1); ++p) ++count[pairs[2 * p]];
    }
  });
  ArrayOfSets sets(numVoxels, numPairs);
  out.leaves.resize(std::size_t(numVoxels));
  int listed = 0, quads = 0, blocks = 0;
  for (int v = 0; v < numVoxels; ++v) {
    const int first = listed;
    for (int slice = 0; slice < slices; ++slice) {
      int& place = start[std::size_t(slice) * std::size_t(numVoxels) + std::size_t(v)];
      const int count = place;
      place = listed;
      listed += count;
    }
    const int count = listed - first;
    sets.offsets()[v] = first;
    out.leaves[std::size_t(v)] = LeafData{quads, blocks, count, first};
    quads += (count + 3) / 4;
    blocks += ((count + 3) / 4 + 3) / 4;
  }
  sets.offsets()[numVoxels] = listed;
  out.quads.resize(std::size_t(quads));
  out.boxes.resize(std::size_t(blocks));
  // Each pair fills its list entry and its quad lane.
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  kxUtil::forEachRange(pool, slices, [&](int, int first, int last) {
    for (int slice = first; slice < last; ++slice) {
      int* next = start.data() + std::size_t(slice) * std::size_t(numVoxels);
      for (int p = sliceBegin(slice); p < sliceBegin(slice + 1); ++p) {
        const int v = pairs[2 * p], t = pairs[2 * p + 1];
        const int place = next[v]++;
        sets.members()[place] = t;
        const LeafData& leaf = out.leaves[std::size_t(v)];
        const int i = place - leaf.firstListed;
        setLane(out.quads[std::size_t(leaf.firstQuad + i / 4)], i % 4,
                LaneData(vertices, triangles + 3 * std::size_t(t)));
      }
    }
  });
  kx::vector<BoundingBox> leafBoxes(static_cast<std::size_t>(numVoxels));
  kxUtil::forEachRange(pool, numVoxels, [&](int, int begin, int end) {
    for (int v = begin; v < end; ++v) {
      const LeafData& leaf = out.leaves[std::size_t(v)];
      leafBoxes[std::size_t(v)] = finishLeaf(out.quads.data() + leaf.firstQuad,
                                             out.boxes.data() + leaf.firstBox, leaf.count);
    }
  });
  const OctreeIterator root = octree.getRoot();
  if (root.getNode()) {
    const std::size_t innerCells = std::size_t(octree.getNumNodes() - 1) / 8 + 1;
    out.links.reserve(innerCells);
    out.tight.reserve(innerCells);
    out.clipped.reserve(innerCells);
    const int top = CellBuilder(leafBoxes, out).build(root, out.rootTight, out.rootClipped);
    if (root.isLeaf()) out.rootVoxel = top;
  }
  lists.swap(sets);
  return layout;
}

std::shared_ptr<const OctreeTrisLayout> layoutOf(const CompactMesh& mesh, const Octree& octree,
                                                 const OctreeTris& tris) {
  if (tris.layout()) return tris.layout();
  // The lists' own entries as pairs, list by list: the rebuilt lists equal
  // them, so the layout's list positions hold for the given lists.
  const ArrayOfSets& lists = tris.getData();
  const int numVoxels = std::min(octree.numLeaves, lists.getNumSets());
  kx::vector<int> pairs;
  pairs.reserve(2 * std::size_t(lists.getNumMembers()));
  for (int v = 0; v < numVoxels; ++v) {
    for (int i = 0; i < lists.getSetSize(v); ++i)
      pairs.insert(pairs.end(), {v, lists.getSet(v)[i]});
  }
  ArrayOfSets copy;
  return listAndLayOut(mesh, octree, numVoxels, int(pairs.size() / 2), pairs.data(), copy);
}

}  // namespace kxGeom
