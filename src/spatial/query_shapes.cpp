#include <kxgeom/query_shapes.h>

#include <algorithm>
#include <cmath>

namespace kxGeom {

using kxLinear::Point;
using kxLinear::Vector;

namespace {

// Corners of each plane's face, in the order left, right, bottom, top, near,
// far. Side faces list their two near corners first, then their two far ones.
constexpr int kFaceCorners[6][4] = {{0, 2, 4, 6}, {1, 3, 5, 7}, {0, 1, 4, 5},
                                    {2, 3, 6, 7}, {0, 1, 2, 3}, {4, 5, 6, 7}};

Point faceCentre(const Point* corners, const int (&face)[4]) {
  return (corners[face[0]] + corners[face[1]] + corners[face[2]] + corners[face[3]]) * 0.25;
}

// A side face may be a triangle when the near face collapses to an apex, so
// its normal comes from the far edge and the near-to-far midline, which are
// both non-zero for any frustum with depth and a far face.
Vector sideNormal(const Point* c, const int (&face)[4]) {
  const Point nearMid = (c[face[0]] + c[face[1]]) * 0.5;
  const Point farMid = (c[face[2]] + c[face[3]]) * 0.5;
  return kxLinear::cross(c[face[3]] - c[face[2]], farMid - nearMid);
}

Vector capNormal(const Point* c, const int (&face)[4]) {
  return kxLinear::cross(c[face[3]] - c[face[0]], c[face[2]] - c[face[1]]);
}

void buildPlanes(const Point* corners, FrustumPlane* planes) {
  Point centroid;
  for (int i = 0; i < 8; ++i) centroid += corners[i];
  centroid = centroid * 0.125;
  Vector normals[6];
  for (int f = 0; f < 4; ++f) normals[f] = sideNormal(corners, kFaceCorners[f]);
  normals[Frustum::Near] = capNormal(corners, kFaceCorners[Frustum::Near]);
  normals[Frustum::Far] = capNormal(corners, kFaceCorners[Frustum::Far]);
  // An apex has no face of its own; it is cut parallel to the far face.
  if (normals[Frustum::Near].length2() == 0.0) normals[Frustum::Near] = normals[Frustum::Far];
  for (int f = 0; f < 6; ++f) {
    FrustumPlane& plane = planes[f];
    plane.point = faceCentre(corners, kFaceCorners[f]);
    plane.normal = kxLinear::normalized(normals[f]);
    if (kxLinear::dot(plane.normal, plane.point - centroid) < 0.0) plane.normal = -plane.normal;
    plane.constant = kxLinear::dot(plane.normal, plane.point);
  }
}

bool isFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// A unit vector perpendicular to the unit vector d, built from the coordinate
// axis least aligned with d so the cross product is well conditioned.
Vector perpendicular(const Vector& d) {
  const Vector ax{std::fabs(d.x), std::fabs(d.y), std::fabs(d.z)};
  const Vector& axis = ax.x <= ax.y && ax.x <= ax.z ? kxLinear::xAxis
                       : ax.y <= ax.z               ? kxLinear::yAxis
                                                    : kxLinear::zAxis;
  return kxLinear::normalized(kxLinear::cross(d, axis));
}

// Inverts a 4x4 matrix by Gauss-Jordan elimination with partial pivoting.
// False when a pivot vanishes or the result is not finite.
bool invert4(const double (&m)[4][4], double (&inv)[4][4]) {
  double a[4][8];
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      a[r][c] = m[r][c];
      a[r][c + 4] = r == c ? 1.0 : 0.0;
    }
  }
  for (int col = 0; col < 4; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 4; ++r) {
      if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
    }
    if (a[pivot][col] == 0.0 || !std::isfinite(a[pivot][col])) return false;
    std::swap(a[pivot], a[col]);
    const double scale = 1.0 / a[col][col];
    for (double& x : a[col]) x *= scale;
    for (int r = 0; r < 4; ++r) {
      if (r == col) continue;
      const double f = a[r][col];
      for (int c = 0; c < 8; ++c) a[r][c] -= f * a[col][c];
    }
  }
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      if (!std::isfinite(a[r][c + 4])) return false;
      inv[r][c] = a[r][c + 4];
    }
  }
  return true;
}

// Maps a normalised device coordinate back through the inverse projection
// (row vector times matrix). False when the point lies at infinity.
bool unproject(const double (&inv)[4][4], double x, double y, double z, Point& out) {
  const double ndc[4] = {x, y, z, 1.0};
  double h[4];
  for (int c = 0; c < 4; ++c) {
    h[c] = 0.0;
    for (int k = 0; k < 4; ++k) h[c] += ndc[k] * inv[k][c];
  }
  if (h[3] == 0.0) return false;
  out = Point(h[0], h[1], h[2]) / h[3];
  return isFinite(out);
}

}  // namespace

Ray::Ray(const kxLinear::PointFlt& origin, const Vector& direction)
    : origin_(origin), direction_(direction) {
  for (int k = 0; k < 3; ++k) {
    reciprocal_[k] = float(1.0 / direction[k]);
    const bool forward = reciprocal_[k] >= 0.0f;
    near_[k] = forward ? k : k + 3;
    far_[k] = forward ? k + 3 : k;
  }
}

bool Ray::intersects(const BoundingBox& box, float t0, float t1) const {
  float tmin = (box[near_[0]] - origin_.x) * reciprocal_[0];
  float tmax = (box[far_[0]] - origin_.x) * reciprocal_[0];
  for (int k = 1; k < 3; ++k) {
    const float kmin = (box[near_[k]] - origin_[k]) * reciprocal_[k];
    const float kmax = (box[far_[k]] - origin_[k]) * reciprocal_[k];
    if (tmin > kmax || kmin > tmax) return false;
    tmin = std::max(tmin, kmin);
    tmax = std::min(tmax, kmax);
  }
  return tmin < t1 && t0 < tmax;
}

Frustum::Frustum() {
  for (int i = 0; i < 8; ++i) {
    corners_[i] = Point(i & 1 ? 1.0 : -1.0, i & 2 ? 1.0 : -1.0, i & 4 ? 1.0 : -1.0);
  }
  axis_ = kxLinear::Line(Point(0, 0, -1), kxLinear::zAxis);
  buildPlanes(corners_, planes_);
}

Frustum::Frustum(const Point corners[8], const kxLinear::Line& axis)
    : axis_(axis.getOrigin(), kxLinear::normalized(axis.getDirection())) {
  std::copy(corners, corners + 8, corners_);
  buildPlanes(corners_, planes_);
}

bool makePickFrustum(const kxLinear::Line& ray, double halfWidth, double halfAngle, double length,
                     Frustum& frustum) {
  const Vector d = kxLinear::normalized(ray.getDirection());
  const double farHalfWidth = halfWidth + length * std::tan(halfAngle);
  const bool valid = d.length2() > 0.0 && isFinite(d) && isFinite(ray.getOrigin()) &&
                     halfWidth >= 0.0 && halfAngle >= 0.0 && halfAngle < 1.5707963267948966 &&
                     length > 0.0 && std::isfinite(length) && farHalfWidth > 0.0 &&
                     std::isfinite(farHalfWidth);
  if (!valid) return false;
  const Vector u = perpendicular(d);
  const Vector v = kxLinear::cross(d, u);
  Point corners[8];
  for (int i = 0; i < 8; ++i) {
    const bool far = (i & 4) != 0;
    const double w = far ? farHalfWidth : halfWidth;
    const Point centre = far ? ray.getOrigin() + d * length : ray.getOrigin();
    corners[i] = centre + u * (i & 1 ? w : -w) + v * (i & 2 ? w : -w);
  }
  frustum = Frustum(corners, kxLinear::Line(ray.getOrigin(), d));
  return true;
}

bool makeScreenFrustum(const kxLinear::ProjMatrixFlt& projection, double minX, double minY,
                       double maxX, double maxY, Frustum& frustum) {
  if (!(minX < maxX && minY < maxY) || !std::isfinite(maxX - minX) || !std::isfinite(maxY - minY)) {
    return false;
  }
  double m[4][4], inv[4][4];
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) m[r][c] = projection.m[r][c];
  }
  if (!invert4(m, inv)) return false;
  Point corners[8];
  for (int i = 0; i < 8; ++i) {
    if (!unproject(inv, i & 1 ? maxX : minX, i & 2 ? maxY : minY, i & 4 ? 1.0 : -1.0, corners[i])) {
      return false;
    }
  }
  const Point nearCentre = faceCentre(corners, kFaceCorners[Frustum::Near]);
  const Vector axis = faceCentre(corners, kFaceCorners[Frustum::Far]) - nearCentre;
  if (axis.length2() == 0.0) return false;
  frustum = Frustum(corners, kxLinear::Line(nearCentre, axis));
  return true;
}

}  // namespace kxGeom
