#include <kxgeom/quad_ray.h>

#include <algorithm>
#include <limits>

#include <emmintrin.h>
#include <xmmintrin.h>

#include "octree_layout.h"
#include "simd4.h"

namespace kxGeom {

namespace {

constexpr QuadLanes broadcast(float value) { return QuadLanes{{value, value, value, value}}; }

constexpr QuadBits broadcastBits(std::uint32_t bits) { return QuadBits{{bits, bits, bits, bits}}; }

inline __m128 load(const QuadLanes& q) { return _mm_load_ps(q.lane); }

inline __m128 load(const QuadBits& q) {
  return _mm_castsi128_ps(_mm_load_si128(reinterpret_cast<const __m128i*>(q.lane)));
}

inline void store(QuadLanes& q, __m128 value) { _mm_store_ps(q.lane, value); }

// The processor's reciprocal estimate, clamped as the exact reciprocals of
// the tracer: a ray parallel to a slab that starts exactly on its plane then
// gets the interval [0, huge) instead of NaN, so an axis-aligned ray lying in
// an octree split plane still enters the cells on one side of it.
inline __m128 reciprocalEstimate(__m128 d) { return simd4::clampToFloats(_mm_rcp_ps(d)); }

// x*a + y*b + z*c per lane.
inline __m128 dot(__m128 x, __m128 y, __m128 z, __m128 a, __m128 b, __m128 c) {
  return _mm_add_ps(_mm_add_ps(_mm_mul_ps(x, a), _mm_mul_ps(y, b)), _mm_mul_ps(z, c));
}

// One axis of the slab test: the lane-wise parameter interval [start, end]
// between the planes at `low` and `high`.
inline void slab(float low, float high, __m128 origin, __m128 reciprocal, __m128& start,
                 __m128& end) {
  const __m128 t1 = _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(low), origin), reciprocal);
  const __m128 t2 = _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(high), origin), reciprocal);
  start = _mm_min_ps(t1, t2);
  end = _mm_max_ps(t1, t2);
}

// Whether the lane intervals [startA, endA] and [startB, endB] overlap.
inline __m128 overlaps(__m128 startA, __m128 endA, __m128 startB, __m128 endB) {
  return _mm_and_ps(_mm_cmple_ps(startA, endB), _mm_cmple_ps(startB, endA));
}

// Lane `lane` of a quad's first corners, and of one of its edge arrays.
inline kxLinear::PointFlt quadCorner(const TriangleQuad& quad, int lane) {
  return {quad.v0[0][lane], quad.v0[1][lane], quad.v0[2][lane]};
}
inline kxLinear::VectorFlt quadEdge(const float edge[3][4], int lane) {
  return {edge[0][lane], edge[1][lane], edge[2][lane]};
}

// The four rays of a packet with exact reciprocal directions, for the
// conservative box tests of the tracer.
struct Rays {
  __m128 o[3], r[3];

  Rays(const QuadLanes& ox, const QuadLanes& oy, const QuadLanes& oz, const QuadLanes rcp[3])
      : o{load(ox), load(oy), load(oz)}, r{load(rcp[0]), load(rcp[1]), load(rcp[2])} {}

  // The lanes that meet the box (lo, hi) ahead of the origin before their
  // nearest t; `entry` gets their entry parameters, +infinity elsewhere.
  bool reach(const __m128 lo[3], const __m128 hi[3], __m128 nearest, __m128& entry) const {
    __m128 near, far;
    simd4::slabs(lo, hi, o, r, near, far);
    const __m128 passing = simd4::meets(near, far, simd4::slackBound(nearest));
    entry = simd4::select(passing, near, simd4::infinity());
    return _mm_movemask_ps(passing) != 0;
  }
};

// Column `column` of row `axis` of a four-column array, in every lane.
inline __m128 broadcast(const float rows[3][4], int axis, int column) {
  return _mm_set1_ps(rows[axis][column]);
}

}  // namespace

const QuadLanes QuadRay::zero = broadcast(0.0f);
const QuadLanes QuadRay::maxfloat = broadcast(BoundingBox::kMaxFloat);
const QuadBits QuadRay::abs_mask = broadcastBits(0x7FFFFFFFu);
const QuadBits QuadRay::sgn_mask = broadcastBits(0x80000000u);
const QuadLanes QuadRay::eps = broadcast(kxLinear::epsilonTolFlt);
QuadLanes QuadRay::cullDistance = broadcast(kxLinear::epsilonTolFlt);

QuadRay::QuadRay(const kxLinear::PointFlt& origin, const kxLinear::VectorFlt& d0,
                 const kxLinear::VectorFlt& d1, const kxLinear::VectorFlt& d2,
                 const kxLinear::VectorFlt& d3, bool nearestHit)
    : origin_{{origin.x, origin.y, origin.z, 0.0f}},
      ox_(broadcast(origin.x)),
      oy_(broadcast(origin.y)),
      oz_(broadcast(origin.z)),
      dx_{{d0.x, d1.x, d2.x, d3.x}},
      dy_{{d0.y, d1.y, d2.y, d3.y}},
      dz_{{d0.z, d1.z, d2.z, d3.z}},
      t_(maxfloat),
      nearestHit_(nearestHit) {
  const kxLinear::VectorFlt mean = (d0 + d1 + d2 + d3) * 0.25f;
  meanDirection_[0] = mean.x;
  meanDirection_[1] = mean.y;
  meanDirection_[2] = mean.z;
  store(rdx_, reciprocalEstimate(load(dx_)));
  store(rdy_, reciprocalEstimate(load(dy_)));
  store(rdz_, reciprocalEstimate(load(dz_)));
}

void QuadRay::setBackfaceCullDistance(float distance) { cullDistance = broadcast(distance); }

// Moller-Trumbore on four lanes, with the determinant's sign folded into u,
// v and t so that front and back faces share one set of comparisons, and the
// division deferred until some lane is known to hit.
void QuadRay::intersect(const MeshTriangle& triangle, const MeshVertex* const vertices) {
  const MeshVertex& v0 = vertices[triangle[0]];
  const MeshVertex& v1 = vertices[triangle[1]];
  const MeshVertex& v2 = vertices[triangle[2]];
  intersect(v0.asPointFlt(), kxLinear::VectorFlt(v1.x - v0.x, v1.y - v0.y, v1.z - v0.z),
            kxLinear::VectorFlt(v2.x - v0.x, v2.y - v0.y, v2.z - v0.z));
}

void QuadRay::intersect(const kxLinear::PointFlt& v0, const kxLinear::VectorFlt& e1,
                        const kxLinear::VectorFlt& e2) {
  const __m128 dx = load(dx_), dy = load(dy_), dz = load(dz_);
  const __m128 e2x = _mm_set1_ps(e2.x), e2y = _mm_set1_ps(e2.y), e2z = _mm_set1_ps(e2.z);
  const __m128 px = _mm_sub_ps(_mm_mul_ps(dy, e2z), _mm_mul_ps(dz, e2y));
  const __m128 py = _mm_sub_ps(_mm_mul_ps(dz, e2x), _mm_mul_ps(dx, e2z));
  const __m128 pz = _mm_sub_ps(_mm_mul_ps(dx, e2y), _mm_mul_ps(dy, e2x));
  const __m128 det = dot(_mm_set1_ps(e1.x), _mm_set1_ps(e1.y), _mm_set1_ps(e1.z), px, py, pz);
  const __m128 absDet = _mm_and_ps(det, load(abs_mask));
  const __m128 sgnDet = _mm_and_ps(det, load(sgn_mask));
  const __m128 epsilon = load(eps);
  __m128 active = _mm_cmpge_ps(absDet, epsilon);
  if (_mm_movemask_ps(active) == 0) return;

  const kxLinear::VectorFlt s(origin_.lane[0] - v0.x, origin_.lane[1] - v0.y,
                              origin_.lane[2] - v0.z);
  const __m128 u =
      _mm_xor_ps(dot(_mm_set1_ps(s.x), _mm_set1_ps(s.y), _mm_set1_ps(s.z), px, py, pz), sgnDet);
  const __m128 zeros = load(zero);
  active = _mm_and_ps(active, _mm_and_ps(_mm_cmpge_ps(u, zeros), _mm_cmple_ps(u, absDet)));
  if (_mm_movemask_ps(active) == 0) return;

  const kxLinear::VectorFlt q = kxLinear::cross(s, e1);
  const __m128 v =
      _mm_xor_ps(dot(dx, dy, dz, _mm_set1_ps(q.x), _mm_set1_ps(q.y), _mm_set1_ps(q.z)), sgnDet);
  active = _mm_and_ps(active,
                      _mm_and_ps(_mm_cmpge_ps(v, zeros), _mm_cmple_ps(_mm_add_ps(u, v), absDet)));
  if (_mm_movemask_ps(active) == 0) return;

  const __m128 tScaled = _mm_set1_ps(kxLinear::dot(e2, q));
  active = _mm_and_ps(active, _mm_cmpge_ps(_mm_xor_ps(tScaled, sgnDet), zeros));
  if (_mm_movemask_ps(active) == 0) return;

  const __m128 t = _mm_div_ps(tScaled, det);
  const __m128 facing = _mm_or_ps(_mm_cmpge_ps(det, epsilon), _mm_cmpge_ps(t, load(cullDistance)));
  const __m128 hit = _mm_and_ps(_mm_and_ps(active, _mm_cmpgt_ps(t, epsilon)), facing);
  hitMask_ |= std::uint32_t(_mm_movemask_ps(hit));
  const __m128 nearest = load(t_);
  store(t_, simd4::select(hit, _mm_min_ps(nearest, t), nearest));
}

void QuadRay::intersect(const BoundingBox& box, kxUtil::BitField32& mask) const {
  const __m128 ox = load(ox_), oy = load(oy_), oz = load(oz_);
  __m128 startX, endX, startY, endY;
  slab(box[0], box[3], ox, load(rdx_), startX, endX);
  slab(box[1], box[4], oy, load(rdy_), startY, endY);
  const __m128 overlapXY = overlaps(startX, endX, startY, endY);
  if (_mm_movemask_ps(overlapXY) == 0) {
    mask = kxUtil::BitField32(0);
    return;
  }
  const __m128 entry = _mm_max_ps(startX, startY);
  const __m128 exit = _mm_min_ps(endX, endY);
  __m128 startZ, endZ;
  slab(box[2], box[5], oz, load(rdz_), startZ, endZ);
  const __m128 overlap = _mm_and_ps(overlapXY, overlaps(entry, exit, startZ, endZ));
  const __m128 beforeNearest = _mm_cmplt_ps(_mm_max_ps(entry, startZ), load(t_));
  const __m128 aheadOfOrigin = _mm_cmpgt_ps(_mm_min_ps(exit, endZ), load(zero));
  std::uint32_t passing =
      std::uint32_t(_mm_movemask_ps(_mm_and_ps(overlap, _mm_and_ps(beforeNearest, aheadOfOrigin))));
  if (!nearestHit_) passing &= ~hitMask_;
  mask = kxUtil::BitField32(passing);
}

OctreeQuadRayIntersectIt::OctreeQuadRayIntersectIt(const Octree& octree)
    : order_{0, 1, 2, 3, 4, 5, 6, 7},
      octree_(&octree),
      stack_(new Entry[std::size_t(8 * std::max(1, octree.depth))]) {}

OctreeQuadRayIntersectIt::OctreeQuadRayIntersectIt(const Octree& octree, QuadRay& packet)
    : OctreeQuadRayIntersectIt(octree) {
  reset(packet, true);
}

void OctreeQuadRayIntersectIt::reset(QuadRay& packet, bool ordered) {
  packet_ = &packet;
  if (ordered) {
    Octree::getNodeOrdering(kxLinear::Vector(packet.meanDirection()), order_);
  } else {
    for (int k = 0; k < 8; ++k) order_[k] = k;
  }
  count_ = 0;
  const OctreeIterator root = octree_->getRoot();
  if (!root.getNode()) return;
  push(root);
  expandToLeaf();
}

void OctreeQuadRayIntersectIt::push(const OctreeIterator& cell) {
  kxUtil::BitField32 mask;
  packet_->intersect(cell.getBox(), mask);
  if (mask.any()) stack_[count_++] = Entry{cell, mask};
}

// Children are pushed from order[7] down to order[0], so order[0] is on top
// and explored first.
void OctreeQuadRayIntersectIt::expandToLeaf() {
  while (count_ > 0 && !stack_[count_ - 1].cell.isLeaf()) {
    const OctreeIterator parent = stack_[--count_].cell;
    for (int k = 7; k >= 0; --k) {
      OctreeIterator child = parent;
      if (child.descend(order_[k])) push(child);
    }
  }
}

void OctreeQuadRayIntersectIt::next() {
  if (count_ == 0) return;
  --count_;  // the current leaf
  expandToLeaf();
}

QuadRayTracer::QuadRayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh)
    : leaves_(octree),
      pending_(new Pending[std::size_t(8 * std::max(1, octree.depth))]),
      layout_(layoutOf(*mesh, octree, tris)) {}

bool QuadRayTracer::intersectLeafInOrder(QuadRay& packet, int voxel) {
  const TriangleQuad* quad = layout_->firstQuad(voxel);
  for (int i = 0, n = layout_->numTriangles(voxel); i < n; ++i) {
    packet.intersect(quadCorner(quad[i / 4], i % 4), quadEdge(quad[i / 4].e1, i % 4),
                     quadEdge(quad[i / 4].e2, i % 4));
    if (packet.allRaysTerminated()) return false;
  }
  return true;
}

void QuadRayTracer::intersectLeafNearest(QuadRay& packet, int voxel) {
  const TriangleQuad* quads = layout_->firstQuad(voxel);
  const QuadBoxes* boxes = layout_->firstBoxes(voxel);
  const Rays rays(packet.ox_, packet.oy_, packet.oz_, reciprocal_);
  const int count = layout_->numTriangles(voxel);
  for (int q = 0, n = layout_->numQuads(voxel); q < n; ++q) {
    const QuadBoxes& block = boxes[q / 4];
    const int column = q % 4;
    const __m128 lo[3] = {broadcast(block.lo, 0, column), broadcast(block.lo, 1, column),
                          broadcast(block.lo, 2, column)};
    const __m128 hi[3] = {broadcast(block.hi, 0, column), broadcast(block.hi, 1, column),
                          broadcast(block.hi, 2, column)};
    __m128 entry;
    if (!rays.reach(lo, hi, load(packet.t_), entry)) continue;
    const TriangleQuad& quad = quads[q];
    for (int lane = 0, lanes = std::min(4, count - 4 * q); lane < lanes; ++lane) {
      packet.intersect(quadCorner(quad, lane), quadEdge(quad.e1, lane), quadEdge(quad.e2, lane));
    }
  }
}

void QuadRayTracer::pushChildren(const QuadRay& packet, int cell) {
  const ChildLinks& links = layout_->links[std::size_t(cell)];
  const ChildBoxes& boxes = layout_->clipped[std::size_t(cell)];
  const Rays rays(packet.ox_, packet.oy_, packet.oz_, reciprocal_);
  const __m128 nearest = load(packet.t_);
  const int first = numPending_;
  for (int k = 0; k < 8; ++k) {
    if (!((links.listing >> k) & 1)) continue;
    const __m128 lo[3] = {_mm_set1_ps(boxes.lo[0][k]), _mm_set1_ps(boxes.lo[1][k]),
                          _mm_set1_ps(boxes.lo[2][k])};
    const __m128 hi[3] = {_mm_set1_ps(boxes.hi[0][k]), _mm_set1_ps(boxes.hi[1][k]),
                          _mm_set1_ps(boxes.hi[2][k])};
    __m128 entry;
    if (!rays.reach(lo, hi, nearest, entry)) continue;
    // Insertion by the nearest entry of any ray, farthest deepest.
    Pending child;
    store(child.entry, entry);
    child.nearest = *std::min_element(child.entry.lane, child.entry.lane + 4);
    child.cell = links.cell(k);
    int at = numPending_++;
    for (; at > first && pending_[at - 1].nearest < child.nearest; --at) {
      pending_[at] = pending_[at - 1];
    }
    pending_[at] = child;
  }
}

void QuadRayTracer::intersectNearestFirst(QuadRay& packet) {
  for (int axis = 0; axis < 3; ++axis) {
    const QuadLanes& d = axis == 0 ? packet.dx_ : axis == 1 ? packet.dy_ : packet.dz_;
    store(reciprocal_[axis], simd4::clampedReciprocal(load(d)));
  }
  numPending_ = 0;
  const OctreeTrisLayout& layout = *layout_;
  if (!layout.rootClipped.isValid()) return;
  const Rays rays(packet.ox_, packet.oy_, packet.oz_, reciprocal_);
  const __m128 lo[3] = {_mm_set1_ps(layout.rootClipped[0]), _mm_set1_ps(layout.rootClipped[1]),
                        _mm_set1_ps(layout.rootClipped[2])};
  const __m128 hi[3] = {_mm_set1_ps(layout.rootClipped[3]), _mm_set1_ps(layout.rootClipped[4]),
                        _mm_set1_ps(layout.rootClipped[5])};
  __m128 entry;
  if (!rays.reach(lo, hi, load(packet.t_), entry)) return;
  Pending& root = pending_[numPending_++];
  store(root.entry, entry);
  root.cell = layout.rootVoxel >= 0 ? ~layout.rootVoxel : 0;
  while (numPending_ > 0) {
    const Pending& top = pending_[--numPending_];
    // Hits found since the cell was pushed may lie before it for every ray.
    const __m128 bound = simd4::slackBound(load(packet.t_));
    if (_mm_movemask_ps(_mm_cmplt_ps(load(top.entry), bound)) == 0) continue;
    const int cell = top.cell;
    if (cell < 0) {
      intersectLeafNearest(packet, ~cell);
    } else {
      pushChildren(packet, cell);
    }
  }
}

void QuadRayTracer::intersect(QuadRay& packet) {
  if (packet.nearestHit_) {
    intersectNearestFirst(packet);
    return;
  }
  for (leaves_.reset(packet, ordered_); leaves_.valid(); leaves_.next()) {
    const int voxel = leaves_.get().getVoxel();
    if (voxel >= int(layout_->leaves.size())) continue;
    if (!intersectLeafInOrder(packet, voxel)) break;
  }
}

}  // namespace kxGeom
