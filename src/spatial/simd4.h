// Four-wide single-precision helpers of the ray tracers (library internal):
// SSE2 only, the x86-64 baseline.
#pragma once

#include <limits>

#include <emmintrin.h>
#include <xmmintrin.h>

#include <kxgeom/platform/boundingbox.h>

namespace kxGeom {
namespace simd4 {

/// Relative slack of the conservative slab tests: far above the few
/// roundings in a slab parameter, so a ray through a box's boundary in exact
/// arithmetic is never rejected.
constexpr float kSlabSlack = 1.0f / (1 << 18);

inline __m128 infinity() { return _mm_set1_ps(std::numeric_limits<float>::infinity()); }

/// Lane-wise select: a where mask is set, b elsewhere (SSE2 has no blend).
inline __m128 select(__m128 mask, __m128 a, __m128 b) {
  return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

/// r clamped to [-largest float, largest float] (a NaN becomes the largest
/// float).
inline __m128 clampToFloats(__m128 r) {
  const __m128 limit = _mm_set1_ps(BoundingBox::kMaxFloat);
  return _mm_max_ps(_mm_min_ps(r, limit), _mm_sub_ps(_mm_setzero_ps(), limit));
}

/// 1 / d with the infinities of zero components clamped to the largest
/// float: a ray parallel to a slab that starts on its plane then gets the
/// interval [0, huge) instead of NaN.
inline __m128 clampedReciprocal(__m128 d) {
  return clampToFloats(_mm_div_ps(_mm_set1_ps(1.0f), d));
}

/// Parameters of lane-wise rays (origin o, reciprocal direction r per axis)
/// entering and leaving lane-wise boxes (lo, hi per axis): a ray inside the
/// box for t in [near, far].
inline void slabs(const __m128 lo[3], const __m128 hi[3], const __m128 o[3], const __m128 r[3],
                  __m128& near, __m128& far) {
  near = _mm_sub_ps(_mm_setzero_ps(), infinity());
  far = infinity();
  for (int axis = 0; axis < 3; ++axis) {
    const __m128 t1 = _mm_mul_ps(_mm_sub_ps(lo[axis], o[axis]), r[axis]);
    const __m128 t2 = _mm_mul_ps(_mm_sub_ps(hi[axis], o[axis]), r[axis]);
    near = _mm_max_ps(near, _mm_min_ps(t1, t2));
    far = _mm_min_ps(far, _mm_max_ps(t1, t2));
  }
}

/// The lanes whose slab interval [near, far] meets (0, bound), with the
/// relative slack of `kSlabSlack` (bound must already include it): a
/// conservative test, never false for a ray that meets the box in exact
/// arithmetic at a parameter in (0, bound).
inline __m128 meets(__m128 near, __m128 far, __m128 bound) {
  const __m128 stretched = _mm_mul_ps(far, _mm_set1_ps(1.0f + kSlabSlack));
  return _mm_and_ps(_mm_and_ps(_mm_cmple_ps(near, stretched), _mm_cmpgt_ps(far, _mm_setzero_ps())),
                    _mm_cmplt_ps(near, bound));
}

/// A nearest parameter widened by the slack, for `meets`.
inline __m128 slackBound(__m128 t) { return _mm_mul_ps(t, _mm_set1_ps(1.0f + kSlabSlack)); }

}  // namespace simd4
}  // namespace kxGeom
