// Axis-aligned bounding boxes.
#pragma once

#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

/// An axis-aligned box of six floats: minimum x, y, z then maximum x, y, z.
/// The empty (invalid) box has minimum +FLT_MAX and maximum -FLT_MAX, so the
/// first `extend` sets it. Plain value; safe to share between threads.
class KXGEOM_API BoundingBox {
 public:
  static constexpr float kMaxFloat = 3.4028235e38f;

  /// An invalid (empty) box.
  BoundingBox() { setInvalid(); }
  BoundingBox(float minX, float minY, float minZ, float maxX, float maxY, float maxZ)
      : b_{minX, minY, minZ, maxX, maxY, maxZ} {}
  BoundingBox(double minX, double minY, double minZ, double maxX, double maxY, double maxZ)
      : b_{float(minX), float(minY), float(minZ), float(maxX), float(maxY), float(maxZ)} {}
  /// From six floats (minimum then maximum), grown by `margin` on every side.
  BoundingBox(const float* six, float margin);

  void setInvalid();
  /// All six values 0 (a point box at the origin).
  void zero();
  /// Minimum not above maximum on every axis.
  bool isValid() const { return b_[0] <= b_[3] && b_[1] <= b_[4] && b_[2] <= b_[5]; }

  void extend(const kxLinear::PointFlt& p) { extend(p.x, p.y, p.z); }
  void extend(float x, float y, float z) {
    if (x < b_[0]) b_[0] = x;
    if (x > b_[3]) b_[3] = x;
    if (y < b_[1]) b_[1] = y;
    if (y > b_[4]) b_[4] = y;
    if (z < b_[2]) b_[2] = z;
    if (z > b_[5]) b_[5] = z;
  }
  void extend(const BoundingBox& o);
  /// Grows every side by `margin`.
  void extend(float margin);
  /// Grows the shorter sides about the centre to the longest side.
  void extendToCube();
  /// Replaces the box by the axis-aligned box of its transformed corners.
  /// An invalid box stays invalid.
  void transform(const kxLinear::AffineMatrix& m);
  void transform(const kxLinear::AffineMatrixFlt& m);

  kxLinear::PointFlt minPt() const { return {b_[0], b_[1], b_[2]}; }
  kxLinear::PointFlt maxPt() const { return {b_[3], b_[4], b_[5]}; }
  kxLinear::PointFlt center() const;
  kxLinear::VectorFlt halfDiagonal() const;
  float diagonalLength() const;
  /// Corner `corner` (0..7): bit 0 selects maximum x, bit 1 maximum y, bit 2
  /// maximum z. Writes three floats.
  void getPoint(int corner, float* out) const;
  /// Inclusive containment of o.
  bool contains(const BoundingBox& o) const;
  /// Inclusive overlap (touching boxes intersect).
  bool intersects(const BoundingBox& o) const;
  /// Inclusive overlap of the x-y projections.
  bool intersects2D(const BoundingBox& o) const;
  /// Distance from p to the box (0 inside).
  float distance(const kxLinear::PointFlt& p) const;
  float distance2(const kxLinear::PointFlt& p) const;

  float& operator[](int i) { return b_[i]; }
  const float& operator[](int i) const { return b_[i]; }
  const float* data() const { return b_; }
  float* data() { return b_; }
  bool operator==(const BoundingBox& o) const;

 private:
  float b_[6];
};

/// Equality of all six values within `tol`.
KXGEOM_API bool equivalent(const BoundingBox& a, const BoundingBox& b, float tol);

}  // namespace kxGeom
