#include <kxgeom/ray_tracer.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/predicates.h>

#include "octree_layout.h"
#include "simd4.h"

namespace kxGeom {

namespace {

// The screening's error bound per unit of the magnitudes it multiplies:
// sixteen float roundings, several times what a cross and a dot product of
// single-precision values (and a direction rounded to float) can lose.
constexpr float kScreenError = 1.0f / (1 << 20);
// Below the determinant of the double-precision test's edge-on rule, 1e-6.
constexpr float kScreenDeterminant = 0.9e-6f;

inline __m128 absolute(__m128 x) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), x); }
inline __m128 l1Norm(const __m128 v[3]) {
  return _mm_add_ps(_mm_add_ps(absolute(v[0]), absolute(v[1])), absolute(v[2]));
}
inline __m128 dot(const __m128 a[3], const __m128 b[3]) {
  return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a[0], b[0]), _mm_mul_ps(a[1], b[1])),
                    _mm_mul_ps(a[2], b[2]));
}
inline void cross(const __m128 a[3], const __m128 b[3], __m128 out[3]) {
  out[0] = _mm_sub_ps(_mm_mul_ps(a[1], b[2]), _mm_mul_ps(a[2], b[1]));
  out[1] = _mm_sub_ps(_mm_mul_ps(a[2], b[0]), _mm_mul_ps(a[0], b[2]));
  out[2] = _mm_sub_ps(_mm_mul_ps(a[0], b[1]), _mm_mul_ps(a[1], b[0]));
}
inline void loadRows(const float rows[3][4], __m128 out[3]) {
  for (int k = 0; k < 3; ++k) out[k] = _mm_load_ps(rows[k]);
}

// Children 4 g .. 4 g + 3 (one per lane) that lie in the upper half of
// their parent along `axis`.
inline __m128 upperHalves(int axis, int group) {
  const int lane[4] = {4 * group, 4 * group + 1, 4 * group + 2, 4 * group + 3};
  return _mm_castsi128_ps(_mm_set_epi32(-((lane[3] >> axis) & 1), -((lane[2] >> axis) & 1),
                                        -((lane[1] >> axis) & 1), -((lane[0] >> axis) & 1)));
}

// Asks for the cache lines of [data, data + bytes) ahead of their use.
inline void prefetch(const void* data, std::size_t bytes) {
  const char* first = static_cast<const char*>(data);
  for (std::size_t offset = 0; offset < bytes; offset += 64) {
    _mm_prefetch(first + offset, _MM_HINT_T0);
  }
}

bool isFinite(const kxLinear::PointFlt& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}
bool isFinite(const kxLinear::Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

}  // namespace

struct RayTracer::Trace {
  Trace(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction)
      : ray(origin, direction), dir(ray.direction().data()), orig(ray.origin().data()) {
    Octree::getNodeOrdering(direction, order);
    for (int k = 0; k < 3; ++k) {
      o[k] = _mm_set1_ps(orig[k]);
      r[k] = _mm_set1_ps(ray.reciprocal(k));
      d[k] = _mm_set1_ps(float(dir[k]));
    }
    dNorm = l1Norm(d);
  }

  Ray ray;  // the float reciprocals of the slab tests
  const double* dir;
  const float* orig;
  int order[8];
  __m128 o[3], r[3], d[3];  // origin, reciprocal and direction in every lane
  __m128 dNorm;

  // The children (bits 0..7) of a cell with box `b` that the slab test of
  // `Ray::intersects` on (0, largest float) accepts, bit for bit: the
  // children's faces are the parent's faces and midplanes, so three
  // parameters per axis serve all eight. `entry` gets each child's entry.
  unsigned cellsEntered(const BoundingBox& b, __m128 entry[2]) const {
    __m128 exit[2];
    for (int axis = 0; axis < 3; ++axis) {
      const float mid = 0.5f * (b[axis] + b[axis + 3]);
      const float rcp = ray.reciprocal(axis);
      const float low = (b[axis] - orig[axis]) * rcp, middle = (mid - orig[axis]) * rcp,
                  high = (b[axis + 3] - orig[axis]) * rcp;
      const bool forward = rcp >= 0.0f;
      const __m128 nearLower = _mm_set1_ps(forward ? low : middle);
      const __m128 farLower = _mm_set1_ps(forward ? middle : low);
      const __m128 nearUpper = _mm_set1_ps(forward ? middle : high);
      const __m128 farUpper = _mm_set1_ps(forward ? high : middle);
      for (int g = 0; g < 2; ++g) {
        const __m128 upper = upperHalves(axis, g);
        const __m128 near = simd4::select(upper, nearUpper, nearLower);
        const __m128 far = simd4::select(upper, farUpper, farLower);
        entry[g] = axis == 0 ? near : _mm_max_ps(entry[g], near);
        exit[g] = axis == 0 ? far : _mm_min_ps(exit[g], far);
      }
    }
    unsigned mask = 0;
    for (int g = 0; g < 2; ++g) {
      const __m128 accepted =
          _mm_and_ps(_mm_and_ps(_mm_cmple_ps(entry[g], exit[g]),
                                _mm_cmplt_ps(entry[g], _mm_set1_ps(BoundingBox::kMaxFloat))),
                     _mm_cmpgt_ps(exit[g], _mm_setzero_ps()));
      mask |= unsigned(_mm_movemask_ps(accepted)) << (4 * g);
    }
    return mask;
  }

  // The lanes of four boxes (rows lo, hi) that the ray meets before `bound`
  // (conservatively).
  unsigned boxesMet(const float* lo[3], const float* hi[3], float bound) const {
    const __m128 low[3] = {_mm_load_ps(lo[0]), _mm_load_ps(lo[1]), _mm_load_ps(lo[2])};
    const __m128 high[3] = {_mm_load_ps(hi[0]), _mm_load_ps(hi[1]), _mm_load_ps(hi[2])};
    __m128 near, far;
    simd4::slabs(low, high, o, r, near, far);
    return unsigned(
        _mm_movemask_ps(simd4::meets(near, far, simd4::slackBound(_mm_set1_ps(bound)))));
  }

  // The lanes of `quad` that the double-precision test might accept with a
  // parameter below `bound`: the same test in single precision, rejecting
  // only where its error bounds leave no doubt.
  unsigned screen(const TriangleQuad& quad, float bound) const {
    __m128 v0[3], e1[3], e2[3], s[3], p[3], q[3];
    loadRows(quad.v0, v0);
    loadRows(quad.e1, e1);
    loadRows(quad.e2, e2);
    for (int k = 0; k < 3; ++k) s[k] = _mm_sub_ps(o[k], v0[k]);
    cross(d, e2, p);
    cross(s, e1, q);
    const __m128 det = dot(e1, p), u = dot(s, p), v = dot(d, q), tScaled = dot(e2, q);
    // Error bounds: a multiple of the products of the magnitudes involved.
    const __m128 error = _mm_set1_ps(kScreenError);
    const __m128 sNorm = l1Norm(s), e1Norm = l1Norm(e1), e2Norm = l1Norm(e2);
    const __m128 detError = _mm_mul_ps(_mm_mul_ps(error, e1Norm), _mm_mul_ps(dNorm, e2Norm));
    const __m128 signError = _mm_add_ps(detError, detError);
    const __m128 uError =
        _mm_add_ps(_mm_mul_ps(_mm_mul_ps(error, sNorm), _mm_mul_ps(dNorm, e2Norm)), signError);
    const __m128 vError =
        _mm_add_ps(_mm_mul_ps(_mm_mul_ps(error, sNorm), _mm_mul_ps(dNorm, e1Norm)), signError);
    const __m128 tError = _mm_mul_ps(_mm_mul_ps(error, sNorm), _mm_mul_ps(e1Norm, e2Norm));
    // Fold the determinant's sign into u, v and t, as the test does.
    const __m128 sign = _mm_and_ps(det, _mm_set1_ps(-0.0f));
    const __m128 absDet = absolute(det);
    const __m128 us = _mm_xor_ps(u, sign), vs = _mm_xor_ps(v, sign), ts = _mm_xor_ps(tScaled, sign);
    const __m128 zero = _mm_setzero_ps();
    __m128 pass = _mm_cmpge_ps(_mm_add_ps(absDet, detError), _mm_set1_ps(kScreenDeterminant));
    pass = _mm_and_ps(pass, _mm_cmpge_ps(_mm_add_ps(us, uError), zero));
    pass = _mm_and_ps(pass, _mm_cmpge_ps(_mm_add_ps(vs, vError), zero));
    const __m128 slack = _mm_add_ps(_mm_add_ps(detError, uError), vError);
    pass = _mm_and_ps(pass, _mm_cmple_ps(_mm_add_ps(us, vs), _mm_add_ps(absDet, slack)));
    // Behind the origin, or beyond the bound, once the sign is certain.
    const __m128 certain = _mm_cmpgt_ps(absDet, signError);
    const __m128 behind = _mm_cmplt_ps(_mm_add_ps(ts, tError), zero);
    const __m128 beyond = _mm_cmpgt_ps(
        _mm_sub_ps(ts, tError), _mm_mul_ps(_mm_set1_ps(bound), _mm_add_ps(absDet, signError)));
    pass = _mm_andnot_ps(_mm_and_ps(certain, _mm_or_ps(behind, beyond)), pass);
    return unsigned(_mm_movemask_ps(pass));
  }
};

RayTracer::RayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh)
    : layout_(layoutOf(*mesh, octree, tris)),
      tris_(&tris),
      rootBox_(octree.getBox()),
      pending_(new Pending[std::size_t(8 * std::max(1, octree.depth))]) {}

bool RayTracer::testTriangle(const Trace& trace, const float v0[3], const float e1[3],
                             const float e2[3], int triangle) {
  for (const int seen : mailbox_) {
    if (seen == triangle) return false;  // the same answer as before, not nearer
  }
  mailbox_[mailboxNext_] = triangle;
  mailboxNext_ = (mailboxNext_ + 1) % kMailboxSize;
  double t, u, v;
  if (!intersectRayTriangleEdges(trace.dir, trace.orig, v0, e1, e2, t, u, v) ||
      !(t > kxLinear::epsilonTol && t < nearestT_)) {
    return false;
  }
  nearestT_ = t;
  triangle_ = triangle;
  // Rounded up, so that rounding to float never drops a cell that starts
  // just before the hit.
  bound_ = std::nextafter(float(t), BoundingBox::kMaxFloat);
  return true;
}

bool RayTracer::scanLeaf(const Trace& trace, int voxel) {
  const OctreeTrisLayout& layout = *layout_;
  const LeafData& leaf = layout.leaves[std::size_t(voxel)];
  const TriangleQuad* quads = layout.quads.data() + leaf.firstQuad;
  const QuadBoxes* boxes = layout.boxes.data() + leaf.firstBox;
  const int* members = tris_->getData().members();
  const int count = leaf.count;
  const int numQuads = (count + 3) / 4;
  prefetch(boxes, sizeof(QuadBoxes) * std::size_t((numQuads + 3) / 4));
  for (int first = 0; first < numQuads; first += 4) {
    const QuadBoxes& block = boxes[first / 4];
    const float* lo[3] = {block.lo[0], block.lo[1], block.lo[2]};
    const float* hi[3] = {block.hi[0], block.hi[1], block.hi[2]};
    const unsigned reached = trace.boxesMet(lo, hi, bound_);
    // The quads are far apart in memory: ask for all of them at once, and
    // for their triangle numbers.
    for (unsigned met = reached; met != 0; met &= met - 1) {
      const int q = first + __builtin_ctz(met);
      prefetch(quads + q, sizeof(TriangleQuad));
      prefetch(members + leaf.firstListed + 4 * q, 4 * sizeof(int));
    }
    for (unsigned met = reached; met != 0; met &= met - 1) {
      const int q = first + __builtin_ctz(met);
      const TriangleQuad& quad = quads[q];
      unsigned candidates = trace.screen(quad, bound_);
      if (count - 4 * q < 4) candidates &= (1u << (count - 4 * q)) - 1;
      for (; candidates != 0; candidates &= candidates - 1) {
        const int lane = __builtin_ctz(candidates);
        const float v0[3] = {quad.v0[0][lane], quad.v0[1][lane], quad.v0[2][lane]};
        const float e1[3] = {quad.e1[0][lane], quad.e1[1][lane], quad.e1[2][lane]};
        const float e2[3] = {quad.e2[0][lane], quad.e2[1][lane], quad.e2[2][lane]};
        const int triangle = members[leaf.firstListed + 4 * q + lane];
        if (testTriangle(trace, v0, e1, e2, triangle) && !findNearest_) return true;
      }
    }
  }
  return false;
}

void RayTracer::pushChildren(const Trace& trace, const Pending& parent) {
  const ChildLinks& links = layout_->links[std::size_t(parent.cell)];
  const ChildBoxes& boxes = layout_->tight[std::size_t(parent.cell)];
  alignas(16) float entries[8];
  __m128 entry[2];
  unsigned reached = trace.cellsEntered(parent.box, entry) & links.listing;
  _mm_store_ps(entries, entry[0]);
  _mm_store_ps(entries + 4, entry[1]);
  for (int g = 0; g < 2; ++g) {
    const unsigned group = 0xFu << (4 * g);
    if (!(reached & group)) continue;
    const float* lo[3] = {boxes.lo[0] + 4 * g, boxes.lo[1] + 4 * g, boxes.lo[2] + 4 * g};
    const float* hi[3] = {boxes.hi[0] + 4 * g, boxes.hi[1] + 4 * g, boxes.hi[2] + 4 * g};
    reached &= ~group | trace.boxesMet(lo, hi, bound_) << (4 * g);
  }
  // Bit j: child order[j] is reached. Pushed last, visited first, so the
  // children go on from order[7] down to order[0].
  unsigned inOrder = 0;
  for (int j = 0; j < 8; ++j) inOrder |= ((reached >> trace.order[j]) & 1u) << j;
  while (inOrder != 0) {
    const int j = 31 - __builtin_clz(inOrder);
    inOrder &= ~(1u << j);
    const int k = trace.order[j];
    const int cell = links.cell(k);
    if (cell < 0) prefetch(&layout_->leaves[std::size_t(~cell)], sizeof(LeafData));
    pending_[numPending_++] = Pending{OctreeIterator::childBox(parent.box, k), entries[k], cell};
  }
}

bool RayTracer::intersect(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction) {
  triangle_ = -1;
  nearestT_ = Ray::kNoHit;
  distance_ = Ray::kNoHit;
  bound_ = BoundingBox::kMaxFloat;
  // A non-finite origin or direction makes every triangle test miss.
  const OctreeTrisLayout& layout = *layout_;
  if (!isFinite(origin) || !isFinite(direction) || !layout.rootTight.isValid()) return false;
  const Trace trace(origin, direction);
  if (!trace.ray.intersects(rootBox_, 0.0f, BoundingBox::kMaxFloat)) return false;
  std::fill(mailbox_, mailbox_ + kMailboxSize, -1);
  numPending_ = 0;
  pending_[numPending_++] =
      Pending{rootBox_, -BoundingBox::kMaxFloat, layout.rootVoxel >= 0 ? ~layout.rootVoxel : 0};
  while (numPending_ > 0) {
    const Pending top = pending_[--numPending_];
    // Cells come front to back: once one starts beyond the nearest hit, so
    // do all that follow.
    if (triangle_ >= 0 && !(top.entry < bound_)) break;
    if (top.cell >= 0) {
      pushChildren(trace, top);
    } else if (scanLeaf(trace, ~top.cell)) {
      break;
    }
  }
  if (triangle_ >= 0) distance_ = nearestT_ * direction.length();
  return triangle_ >= 0;
}

}  // namespace kxGeom
