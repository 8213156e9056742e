#include <kxgeom/quad_ray.h>

#include <algorithm>
#include <limits>

#include <emmintrin.h>
#include <xmmintrin.h>

namespace kxGeom {

namespace {

constexpr QuadLanes broadcast(float value) { return QuadLanes{{value, value, value, value}}; }

constexpr QuadBits broadcastBits(std::uint32_t bits) { return QuadBits{{bits, bits, bits, bits}}; }

inline __m128 load(const QuadLanes& q) { return _mm_load_ps(q.lane); }

inline __m128 load(const QuadBits& q) {
  return _mm_castsi128_ps(_mm_load_si128(reinterpret_cast<const __m128i*>(q.lane)));
}

inline void store(QuadLanes& q, __m128 value) { _mm_store_ps(q.lane, value); }

// The processor's reciprocal estimate, with the infinities of zero
// components clamped to the largest float: a ray parallel to a slab that
// starts exactly on its plane then gets the interval [0, huge) instead of
// NaN, so an axis-aligned ray lying in an octree split plane still enters
// the cells on one side of it.
inline __m128 reciprocalEstimate(__m128 d) {
  const __m128 limit = _mm_set1_ps(BoundingBox::kMaxFloat);
  return _mm_max_ps(_mm_min_ps(_mm_rcp_ps(d), limit), _mm_sub_ps(_mm_setzero_ps(), limit));
}

// Lane-wise select: a where mask is set, b elsewhere (SSE2 has no blend).
inline __m128 select(__m128 mask, __m128 a, __m128 b) {
  return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

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
  const kxLinear::VectorFlt e1(v1.x - v0.x, v1.y - v0.y, v1.z - v0.z);
  const kxLinear::VectorFlt e2(v2.x - v0.x, v2.y - v0.y, v2.z - v0.z);

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
  store(t_, select(hit, _mm_min_ps(nearest, t), nearest));
}

// The slab test shared by the box tests: the lanes that overlap the box
// ahead of the origin before their nearest t (without the first-hit rule),
// and each lane's entry parameter.
std::uint32_t QuadRay::enter(const BoundingBox& box, QuadLanes& entry) const {
  const __m128 ox = load(ox_), oy = load(oy_), oz = load(oz_);
  __m128 startX, endX, startY, endY;
  slab(box[0], box[3], ox, load(rdx_), startX, endX);
  slab(box[1], box[4], oy, load(rdy_), startY, endY);
  const __m128 overlapXY = overlaps(startX, endX, startY, endY);
  if (_mm_movemask_ps(overlapXY) == 0) return 0;
  const __m128 entryXY = _mm_max_ps(startX, startY);
  const __m128 exit = _mm_min_ps(endX, endY);
  __m128 startZ, endZ;
  slab(box[2], box[5], oz, load(rdz_), startZ, endZ);
  const __m128 overlap = _mm_and_ps(overlapXY, overlaps(entryXY, exit, startZ, endZ));
  const __m128 start = _mm_max_ps(entryXY, startZ);
  const __m128 beforeNearest = _mm_cmplt_ps(start, load(t_));
  const __m128 aheadOfOrigin = _mm_cmpgt_ps(_mm_min_ps(exit, endZ), load(zero));
  const __m128 passing = _mm_and_ps(overlap, _mm_and_ps(beforeNearest, aheadOfOrigin));
  store(entry, select(passing, start, _mm_set1_ps(std::numeric_limits<float>::infinity())));
  return std::uint32_t(_mm_movemask_ps(passing));
}

std::uint32_t QuadRay::reaches(const QuadLanes& entry) const {
  return std::uint32_t(_mm_movemask_ps(_mm_cmplt_ps(load(entry), load(t_))));
}

void QuadRay::intersect(const BoundingBox& box, kxUtil::BitField32& mask) const {
  QuadLanes entry;
  std::uint32_t passing = enter(box, entry);
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
      octree_(&octree),
      tris_(&tris),
      vertices_(mesh->getVertices()),
      triangles_(mesh->getTriangles()) {
  stamps_.assign(std::size_t(mesh->getNumTriangles()), 0u);
}

bool QuadRayTracer::intersectVoxel(QuadRay& packet, int voxel) {
  const int* tris = tris_->firstTri(voxel);
  const int count = tris_->numTris(voxel);
  for (int i = 0; i < count; ++i) {
    const int tri = tris[i];
    if (stamps_[std::size_t(tri)] == stamp_) continue;
    stamps_[std::size_t(tri)] = stamp_;
    packet.intersect(triangles_[tri], vertices_);
    if (packet.allRaysTerminated()) return false;
  }
  return true;
}

void QuadRayTracer::pushChildren(const QuadRay& packet, const OctreeIterator& cell) {
  const int first = numPending_;
  for (int k = 0; k < 8; ++k) {
    Pending& child = pending_[numPending_];
    child.cell = cell;
    child.cell.descend(k);
    if (!packet.enter(child.cell.getBox(), child.entry)) continue;
    // Insertion by the nearest entry of any ray, farthest deepest, so the
    // nearest child ends on top of the stack.
    child.nearest = *std::min_element(child.entry.lane, child.entry.lane + 4);
    int at = numPending_++;
    const Pending inserted = child;
    for (; at > first && pending_[at - 1].nearest < inserted.nearest; --at) {
      pending_[at] = pending_[at - 1];
    }
    pending_[at] = inserted;
  }
}

void QuadRayTracer::intersectNearestFirst(QuadRay& packet) {
  numPending_ = 0;
  const OctreeIterator root = octree_->getRoot();
  if (!root.getNode()) return;
  Pending& first = pending_[numPending_];
  first.cell = root;
  if (packet.enter(root.getBox(), first.entry)) ++numPending_;
  while (numPending_ > 0) {
    const Pending& top = pending_[--numPending_];
    // Hits found since the cell was pushed may lie before it for every ray.
    if (!packet.reaches(top.entry)) continue;
    const OctreeIterator cell = top.cell;
    if (cell.isLeaf()) {
      intersectVoxel(packet, cell.getVoxel());
    } else {
      pushChildren(packet, cell);
    }
  }
}

void QuadRayTracer::intersect(QuadRay& packet) {
  if (packet.nearestHit_) {
    intersectNearestFirst(packet);
  } else {
    for (leaves_.reset(packet, ordered_); leaves_.valid(); leaves_.next()) {
      if (!intersectVoxel(packet, leaves_.get().getVoxel())) break;
    }
  }
  if (++stamp_ == 0xFFFFFFFFu) {
    std::fill(stamps_.begin(), stamps_.end(), 0u);
    stamp_ = 1;
  }
}

}  // namespace kxGeom
