// Query shapes of the spatial searches: a ray with precomputed slab data, a
// sphere, and a frustum bounded by six planes.
//
// All three are plain values: cheap to copy, immutable after construction
// (except the hit fields of `Ray`, which belong to the tracer carrying it), and
// safe to read from any number of threads at once.
#pragma once

#include <cstdint>

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

/// A half-line from a single-precision origin along a double-precision
/// direction, prepared for fast slab tests against boxes.
///
/// Box components are numbered minimum x, y, z = 0, 1, 2 and maximum x, y, z =
/// 3, 4, 5. For axis k the near index is k and the far index k + 3 when the
/// reciprocal direction component is >= 0, and the reverse when it is
/// negative, so the slab test needs no per-box comparison of the direction.
class KXGEOM_API Ray {
 public:
  /// The largest float: the hit parameter of a ray that has hit nothing yet.
  static constexpr double kNoHit = 3.4028234663852886e38;

  /// Builds the ray and its slab data.
  /// [in] origin     start point (model units).
  /// [in] direction  direction; need not be unit length. A zero component
  ///                 gives an infinite reciprocal, which the slab test handles.
  /// Cost O(1). The hit parameter starts at kNoHit, the hit words at 0.
  Ray(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction);

  const kxLinear::PointFlt& origin() const { return origin_; }
  const kxLinear::Vector& direction() const { return direction_; }
  /// 1 / direction component k (k = 0, 1, 2), computed in double and stored as float.
  float reciprocal(int k) const { return reciprocal_[k]; }
  /// Box component (0..5) met first, resp. last, along axis k.
  int nearIndex(int k) const { return near_[k]; }
  int farIndex(int k) const { return far_[k]; }

  /// Hit record for tracers that carry their nearest hit along the ray: the
  /// ray parameter of the hit and two words of the tracer's own meaning.
  /// Not read by any test in this library.
  double hitParameter() const { return hit_; }
  void setHitParameter(double t) { hit_ = t; }
  std::uint32_t hitWord(int i) const { return hitWords_[i]; }
  void setHitWord(int i, std::uint32_t w) { hitWords_[i] = w; }

  /// Slab test of the ray against a box on the open parameter interval (t0, t1).
  /// [in] box  the box (six floats, minimum then maximum).
  /// [in] t0   lower parameter bound, exclusive (0 for the forward ray).
  /// [in] t1   upper parameter bound, exclusive (3.4028235e38 for no bound).
  /// Returns true when the ray's parameter interval inside the box overlaps
  /// (t0, t1); computed in single precision. A ray that starts exactly on a
  /// slab plane while parallel to it (0 * inf) reports a miss.
  /// Cost O(1). Re-entrant.
  bool intersects(const BoundingBox& box, float t0, float t1) const;

 private:
  kxLinear::PointFlt origin_;
  float reciprocal_[3];
  kxLinear::Vector direction_;
  int near_[3];
  int far_[3];
  double hit_ = kNoHit;
  std::uint32_t hitWords_[2] = {0, 0};
};

/// A solid sphere: centre then radius (model units).
struct Sphere {
  kxLinear::Point center;
  double radius = 0;

  Sphere() = default;
  Sphere(const kxLinear::Point& c, double r) : center(c), radius(r) {}
};

/// One bounding plane of a frustum: a point on it, its outward unit normal, and
/// the plane constant dot(normal, point). A point p is outside the plane when
/// dot(p - point, normal) > 0.
struct FrustumPlane {
  kxLinear::Point point;
  kxLinear::Vector normal;
  double constant = 0;
};

/// A convex view volume given by eight corners and six outward planes, with
/// the axis ray along which it looks.
///
/// Corner i has bit 0 set on the right (+x screen / +u) side, bit 1 on the top
/// (+y screen / +v) side and bit 2 on the far face. The planes are, in order,
/// left, right, bottom, top, near and far (indices of `PlaneIndex`).
class KXGEOM_API Frustum {
 public:
  enum PlaneIndex { Left = 0, Right, Bottom, Top, Near, Far };

  /// The cube [-1, 1]^3 seen along +z (near face z = -1, far face z = +1):
  /// the clip volume of an identity projection.
  Frustum();
  /// Builds the planes from eight corners in the order described above.
  /// [in] corners  the eight corners (model units).
  /// [in] axis     the ray along the frustum's axis; its direction is
  ///               normalised and becomes the viewing direction.
  /// Preconditions: the corners form a convex frustum whose far face has
  /// non-zero extent and whose near and far faces are apart; the near face may
  /// collapse to a point (an apex). Cost O(1).
  Frustum(const kxLinear::Point corners[8], const kxLinear::Line& axis);

  const kxLinear::Point& corner(int i) const { return corners_[i]; }
  const FrustumPlane& plane(int i) const { return planes_[i]; }
  /// The unit viewing direction.
  const kxLinear::Vector& getVector() const { return axis_.getDirection(); }
  /// The ray along the frustum's axis, from its near face towards its far face
  /// (unit direction).
  const kxLinear::Line& getRay() const { return axis_; }

 private:
  kxLinear::Point corners_[8];
  FrustumPlane planes_[6];
  kxLinear::Line axis_;
};

/// Builds a pick frustum around a ray: a square cross-section of half-width
/// `halfWidth` at the ray's origin that widens by tan(`halfAngle`) per unit of
/// distance, from the origin (near face) to `length` along the ray (far face).
/// [in]  ray        the pick ray; its direction need not be unit length.
/// [in]  halfWidth  half the side of the near face (model units), >= 0.
/// [in]  halfAngle  half the aperture in radians, in [0, pi/2).
/// [in]  length     distance from the near to the far face (model units), > 0.
/// [out] frustum    the frustum; its `getRay()` is the ray with unit direction.
/// Returns false, leaving `frustum` untouched, when the direction is zero or
/// not finite, or the arguments are out of range, or the far face would have
/// no extent. Cost O(1). Re-entrant.
KXGEOM_API bool makePickFrustum(const kxLinear::Line& ray, double halfWidth, double halfAngle,
                                double length, Frustum& frustum);

/// Builds the frustum that a screen rectangle sweeps through a projection.
/// [in]  projection  view-projection matrix in the row-vector convention,
///                   (x, y, z, w) = (px, py, pz, 1) * M, clip volume
///                   -w <= x, y, z <= w.
/// [in]  minX, minY, maxX, maxY  the rectangle in normalised device
///                   coordinates ([-1, 1] spans the screen), min < max.
/// [out] frustum     the frustum between the near (z = -1) and far (z = +1)
///                   clip planes; its ray runs from the near face's centre
///                   through the far face's centre.
/// Returns false, leaving `frustum` untouched, when the rectangle is empty or
/// not finite, the matrix is singular, or a corner maps to infinity (w = 0).
/// Cost O(1). Re-entrant.
KXGEOM_API bool makeScreenFrustum(const kxLinear::ProjMatrixFlt& projection, double minX,
                                  double minY, double maxX, double maxY, Frustum& frustum);

}  // namespace kxGeom
