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

// Writes lane `lane` of `quad` for the triangle with corners a, b, c.
void setLane(TriangleQuad& quad, int lane, const float* a, const float* b, const float* c) {
  for (int k = 0; k < 3; ++k) {
    quad.v0[k][lane] = a[k];
    quad.e1[k][lane] = b[k] - a[k];
    quad.e2[k][lane] = c[k] - a[k];
  }
}

// An empty box is stored as the point at +infinity, which every slab test
// places beyond reach (either ahead at +infinity or behind the origin).
void setBoxLane(QuadBoxes& boxes, int lane, const BoundingBox& box) {
  for (int k = 0; k < 3; ++k) {
    boxes.lo[k][lane] = box.isValid() ? box[k] : kInfinity;
    boxes.hi[k][lane] = box.isValid() ? box[k + 3] : kInfinity;
  }
}

// Whether all nine coordinates of a triangle are finite (no branch per
// coordinate: the lists are long and the answer nearly always yes).
bool isFiniteTriangle(const float* a, const float* b, const float* c) {
  bool finite = true;
  for (int k = 0; k < 3; ++k) {
    finite &= std::fabs(a[k]) <= BoundingBox::kMaxFloat;
    finite &= std::fabs(b[k]) <= BoundingBox::kMaxFloat;
    finite &= std::fabs(c[k]) <= BoundingBox::kMaxFloat;
  }
  return finite;
}

// Grows the six floats lo, hi by the triangle a, b, c (min and max, which
// compile to branch-free instructions).
void growBox(float box[6], const float* a, const float* b, const float* c) {
  for (int k = 0; k < 3; ++k) {
    box[k] = std::min(box[k], std::min(a[k], std::min(b[k], c[k])));
    box[k + 3] = std::max(box[k + 3], std::max(a[k], std::max(b[k], c[k])));
  }
}

// Fills the quads and quad boxes of one voxel from its list and returns the
// box of the listed triangles (invalid for none). Triangles with a
// non-finite corner, which no test hits, stay out of the boxes.
BoundingBox layOutLeaf(const float* vertices, const int* triangles, const int* list, int count,
                       TriangleQuad* quads, QuadBoxes* boxes) {
  static const float kOrigin[3] = {0, 0, 0};
  BoundingBox leafBox;
  const int numQuads = (count + 3) / 4;
  for (int q = 0; q < numQuads; ++q) {
    BoundingBox quadBox;
    for (int lane = 0; lane < 4; ++lane) {
      const int i = 4 * q + lane;
      if (i >= count) {
        setLane(quads[q], lane, kOrigin, kOrigin, kOrigin);
        continue;
      }
      const int* corner = triangles + 3 * std::size_t(list[i]);
      const float* a = vertices + 3 * std::size_t(corner[0]);
      const float* b = vertices + 3 * std::size_t(corner[1]);
      const float* c = vertices + 3 * std::size_t(corner[2]);
      setLane(quads[q], lane, a, b, c);
      if (isFiniteTriangle(a, b, c)) growBox(quadBox.data(), a, b, c);
    }
    quadBox = padded(quadBox);
    setBoxLane(boxes[q / 4], q % 4, quadBox);
    if (quadBox.isValid()) leafBox.extend(quadBox);
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

std::shared_ptr<const OctreeTrisLayout> layOutOctreeTris(const CompactMesh& mesh,
                                                         const Octree& octree,
                                                         const ArrayOfSets& lists) {
  auto layout = std::make_shared<OctreeTrisLayout>();
  const int numVoxels = std::min(octree.numLeaves, lists.getNumSets());
  layout->leaves.resize(std::size_t(numVoxels));
  int quads = 0, blocks = 0;
  for (int v = 0; v < numVoxels; ++v) {
    const int count = lists.getSetSize(v);
    layout->leaves[std::size_t(v)] =
        LeafData{quads, blocks, count, int(lists.getSet(v) - lists.members())};
    quads += (count + 3) / 4;
    blocks += ((count + 3) / 4 + 3) / 4;
  }
  layout->quads.resize(std::size_t(quads));
  layout->boxes.resize(std::size_t(blocks));
  kx::vector<BoundingBox> leafBoxes(static_cast<std::size_t>(numVoxels));
  OctreeTrisLayout& out = *layout;
  kxUtil::forEachRange(kxUtil::ThreadPool::get(), numVoxels, [&](int, int begin, int end) {
    for (int v = begin; v < end; ++v) {
      leafBoxes[std::size_t(v)] =
          layOutLeaf(mesh.getVerticesRaw(), mesh.getTrianglesRaw(), lists.getSet(v),
                     lists.getSetSize(v), out.quads.data() + out.leaves[std::size_t(v)].firstQuad,
                     out.boxes.data() + out.leaves[std::size_t(v)].firstBox);
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
  return layout;
}

std::shared_ptr<const OctreeTrisLayout> layoutOf(const CompactMesh& mesh, const Octree& octree,
                                                 const OctreeTris& tris) {
  return tris.layout() ? tris.layout() : layOutOctreeTris(mesh, octree, tris.getData());
}

}  // namespace kxGeom
