#include <kxgeom/predicates.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace kxGeom {

using kxLinear::Point;
using kxLinear::Point2Flt;
using kxLinear::Vector;

namespace {

// Determinant below which a ray counts as parallel to a triangle's plane.
constexpr double kParallelDet = 1e-6;
// The nearest float to 1/3, reported for a degenerate planar triangle.
constexpr float kOneThird = 0.33333334f;
// Sub-triangle area, relative to the normal's length, that may face backwards.
constexpr double kInsideAreaTol = 1e-5;

double backfaceCullDistance = 1e-6;

// A difference of two single-precision points, formed in single precision
// and widened to double.
Vector floatDifference(const float* p, const float* q) {
  return Vector(double(p[0] - q[0]), double(p[1] - q[1]), double(p[2] - q[2]));
}

// The shared core of the ray-triangle tests: the determinant and the edge
// vectors that both the two-sided and the culling variant start from.
struct RayTriangleSetup {
  Vector e1, e2, p;
  double det;

  RayTriangleSetup(const Vector& dir, const Vector& edge1, const Vector& edge2)
      : e1(edge1), e2(edge2), p(kxLinear::cross(dir, e2)), det(kxLinear::dot(e1, p)) {}
};

// Barycentric bounds of a front face (det > 0): 0 <= u, v and u + v <= det,
// unscaled. Writes u and v as it goes; on success `q` holds s x e1. The
// bounds are written as conditions that must hold, so a NaN (which fails
// every comparison) is a miss.
bool frontFaceBounds(const RayTriangleSetup& rt, const Vector& dir, const Vector& s, Vector& q,
                     double& u, double& v) {
  u = kxLinear::dot(s, rt.p);
  if (!(u >= 0.0 && u <= rt.det)) return false;
  q = kxLinear::cross(s, rt.e1);
  v = kxLinear::dot(dir, q);
  return v >= 0.0 && u + v <= rt.det;
}

// The same bounds mirrored for a back face (det < 0).
bool backFaceBounds(const RayTriangleSetup& rt, const Vector& dir, const Vector& s, Vector& q,
                    double& u, double& v) {
  u = kxLinear::dot(s, rt.p);
  if (!(u <= 0.0 && u >= rt.det)) return false;
  q = kxLinear::cross(s, rt.e1);
  v = kxLinear::dot(dir, q);
  return v <= 0.0 && u + v >= rt.det;
}

// Scales the unscaled results by one reciprocal of the determinant.
void scaleHit(const RayTriangleSetup& rt, const Vector& q, double& t, double& u, double& v) {
  const double inv = 1.0 / rt.det;
  t = kxLinear::dot(rt.e2, q) * inv;
  u *= inv;
  v *= inv;
}

bool inUnitTriangle(float s, float t) {
  return s >= 0.0f && s <= 1.0f && t >= 0.0f && s + t <= 1.0f;
}

// True when the centre lies closer than r to the infinite line.
bool lineWithinRadius(const Sphere& sphere, const Point& origin, const Vector& direction) {
  const Point foot = kxLinear::project(sphere.center, kxLinear::Line(origin, direction));
  return (foot - sphere.center).length2() < sphere.radius * sphere.radius;
}

// Which side of the directed 2D edge a -> b the point p lies on (x and y only).
double edgeSide(const Point& p, const Point& a, const Point& b) {
  return (p.y - a.y) * (b.x - a.x) - (b.y - a.y) * (p.x - a.x);
}

// The sphere test once the triangle is known to be non-degenerate: the centre
// in the triangle's frame, then the interior or the nearest edge's line.
bool sphereOverTriangle(const Sphere& sphere, const Point& a, const Point& b, const Point& c,
                        const kxLinear::Normal& z) {
  const Vector x = kxLinear::normalized(b - a);
  const Vector y = kxLinear::cross(z.vector(), x);
  kxLinear::AffineMatrix toLocal;
  kxLinear::AffineMatrix::frame(a, x, y, z.vector()).inverse(toLocal);
  const Point centre = toLocal.transformPoint(sphere.center);
  if (sphere.radius * sphere.radius < centre.z * centre.z) return false;
  const Point la = toLocal.transformPoint(a), lb = toLocal.transformPoint(b),
              lc = toLocal.transformPoint(c);
  const bool ab = edgeSide(centre, la, lb) > 0.0;
  const bool bc = edgeSide(centre, lb, lc) > 0.0;
  const bool ca = edgeSide(centre, lc, la) > 0.0;
  if (ab == bc && bc == ca) return true;
  if (ab != bc && ab != ca) return lineWithinRadius(sphere, a, b - a);
  if (bc != ab && bc != ca) return lineWithinRadius(sphere, b, c - b);
  return lineWithinRadius(sphere, c, a - c);
}

// Separating-axis step: true when the interval [lo, hi] of a shape projected
// on `axis` lies strictly beside the projection of the box [boxLo, boxHi].
bool separatedOnAxis(const float* axis, const float* boxLo, const float* boxHi, float lo,
                     float hi) {
  float boxMin = 0.0f, boxMax = 0.0f;
  for (int k = 0; k < 3; ++k) {
    const float p = axis[k] * boxLo[k], q = axis[k] * boxHi[k];
    boxMin += std::min(p, q);
    boxMax += std::max(p, q);
  }
  return lo > boxMax || hi < boxMin;
}

// The cross product of `e` with coordinate axis k.
void crossWithAxis(const float* e, int k, float* out) {
  const int i = (k + 1) % 3, j = (k + 2) % 3;
  out[k] = 0.0f;
  out[i] = e[j];
  out[j] = -e[i];
}

// The box corners taken relative to the point `origin`.
void boxRelativeTo(const BoundingBox& box, const float* origin, float* lo, float* hi) {
  for (int k = 0; k < 3; ++k) {
    lo[k] = box[k] - origin[k];
    hi[k] = box[k + 3] - origin[k];
  }
}

float dot3(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

}  // namespace

bool intersectRayTriangle(const double* dir, const float* orig, const float* vert0,
                          const float* vert1, const float* vert2, double& t, double& u, double& v) {
  const float edge1[3] = {vert1[0] - vert0[0], vert1[1] - vert0[1], vert1[2] - vert0[2]};
  const float edge2[3] = {vert2[0] - vert0[0], vert2[1] - vert0[1], vert2[2] - vert0[2]};
  return intersectRayTriangleEdges(dir, orig, vert0, edge1, edge2, t, u, v);
}

bool intersectRayTriangleEdges(const double* dir, const float* orig, const float* vert0,
                               const float* edge1, const float* edge2, double& t, double& u,
                               double& v) {
  const Vector d = Vector::from(dir);
  const RayTriangleSetup rt(d, Vector(edge1[0], edge1[1], edge1[2]),
                            Vector(edge2[0], edge2[1], edge2[2]));
  const Vector s = floatDifference(orig, vert0);
  Vector q;
  if (rt.det > kParallelDet) {
    if (!frontFaceBounds(rt, d, s, q, u, v)) return false;
  } else if (rt.det < -kParallelDet) {
    if (!backFaceBounds(rt, d, s, q, u, v)) return false;
  } else {
    return false;
  }
  scaleHit(rt, q, t, u, v);
  // Infinite coordinates can pass the bounds and still give t = inf / inf.
  if (std::isnan(t)) return false;
  return rt.det >= 0.0 || t >= backfaceCullDistance;
}

bool intersectRayTriangleCull(const double* dir, const float* orig, const float* vert0,
                              const float* vert1, const float* vert2, double& t, double& u,
                              double& v) {
  const Vector d = Vector::from(dir);
  const RayTriangleSetup rt(d, floatDifference(vert1, vert0), floatDifference(vert2, vert0));
  if (!(rt.det >= kParallelDet)) return false;  // NaN included
  Vector q;
  if (!frontFaceBounds(rt, d, floatDifference(orig, vert0), q, u, v)) return false;
  scaleHit(rt, q, t, u, v);
  return !std::isnan(t);
}

bool intersectRayTriangle(const Vector& dir, const kxLinear::PointFlt& orig,
                          const kxLinear::PointFlt& vert0, const kxLinear::PointFlt& vert1,
                          const kxLinear::PointFlt& vert2) {
  double t = 0.0, u = 0.0, v = 0.0;
  return intersectRayTriangle(dir.data(), orig.data(), vert0.data(), vert1.data(), vert2.data(), t,
                              u, v) &&
         t > kxLinear::epsilonTol;
}

void setBackfaceCullDistance(double distance) { backfaceCullDistance = distance; }

bool isPointInTriangleDefinitive(const Point2Flt& p, const Point2Flt& a, const Point2Flt& b,
                                 const Point2Flt& c, float& s, float& t) {
  const float e = kxLinear::epsilonTolFlt;
  const Point2Flt d0 = p - a, d1 = b - a, d2 = c - a;
  if (std::fabs(d1.x) < e) {
    if (std::fabs(d2.x) < e || std::fabs(d1.y) < e) {
      s = t = kOneThird;
      return false;
    }
    s = d0.x / d2.x;
    t = (d0.y - s * d2.y) / d1.y;
  } else {
    const float den = d2.y * d1.x - d2.x * d1.y;
    if (std::fabs(den) < e) {
      s = t = kOneThird;
      return false;
    }
    s = (d0.y * d1.x - d0.x * d1.y) / den;
    t = (d0.x - s * d2.x) / d1.x;
  }
  return inUnitTriangle(s, t);
}

bool isPointInTriangleInclusive(const Point2Flt& p, const Point2Flt& a, const Point2Flt& b,
                                const Point2Flt& c, float& s, float& t) {
  const Point2Flt d0 = p - a, d1 = b - a, d2 = c - a;
  if (d1.x != 0.0f) {
    const float den = d2.y * d1.x - d2.x * d1.y;
    if (den == 0.0f) return false;
    s = (d0.y * d1.x - d0.x * d1.y) / den;
    if (s < 0.0f || s > 1.0f) return false;
    t = (d0.x - s * d2.x) / d1.x;
  } else {
    if (d2.x == 0.0f) return false;
    s = d0.x / d2.x;
    if (s < 0.0f || s > 1.0f || d1.y == 0.0f) return false;
    t = (d0.y - s * d2.y) / d1.y;
  }
  return t >= 0.0f && s + t <= 1.0f;
}

bool isPointInTriangleInclusive(const Point& p, const Point& a, const Point& b, const Point& c,
                                const Vector& n) {
  const Vector da = a - p, db = b - p, dc = c - p;
  const Vector areas[3] = {kxLinear::cross(db, dc) * 0.5, kxLinear::cross(dc, da) * 0.5,
                           kxLinear::cross(da, db) * 0.5};
  const double length = n.length();
  const Vector unit = kxLinear::normalized(n);
  for (const Vector& area : areas) {
    const bool backwards = kxLinear::dot(kxLinear::normalized(area), unit) <= 0.0;
    if (backwards && area.length() / length >= kInsideAreaTol) return false;
  }
  return true;
}

bool isPointInTriangleInclusive(const Point& p, const Point& a, const Point& b, const Point& c) {
  return isPointInTriangleInclusive(p, a, b, c, kxLinear::cross(b - a, c - a) * 0.5);
}

kxLinear::Normal triNormal(const Point& a, const Point& b, const Point& c) {
  const kxLinear::Normal n(kxLinear::cross(c - b, a - b));
  return n.isValid() ? n : kxLinear::Normal(0.0, 0.0, 1.0);
}

kxLinear::Normal meshTriNormal(const float* vertices, const int* triangle) {
  return triNormal(Point::from(vertices + 3 * std::ptrdiff_t(triangle[0])),
                   Point::from(vertices + 3 * std::ptrdiff_t(triangle[1])),
                   Point::from(vertices + 3 * std::ptrdiff_t(triangle[2])));
}

bool sphereTriIntersect(const Sphere& sphere, const Point& a, const Point& b, const Point& c) {
  const double r2 = sphere.radius * sphere.radius;
  const double da2 = (a - sphere.center).length2();
  const double db2 = (b - sphere.center).length2();
  const double dc2 = (c - sphere.center).length2();
  if (da2 < r2 || db2 < r2 || dc2 < r2) return true;
  if ((b - a).length2() < da2 && (c - b).length2() < db2 && (a - c).length2() < dc2) return false;
  const double tol = kxLinear::epsilonTol;
  const bool abSame = kxLinear::equivalent(a, b, tol);
  const bool bcSame = kxLinear::equivalent(b, c, tol);
  if (abSame && bcSame) return false;
  if (abSame) return lineWithinRadius(sphere, b, c - b);
  if (bcSame) return lineWithinRadius(sphere, a, b - a);
  if (kxLinear::equivalent(c, a, tol)) return lineWithinRadius(sphere, c, c - b);
  const kxLinear::Normal z(kxLinear::cross(b - a, c - a));
  // Three distinct collinear corners have no frame; they lie on one line.
  if (!z.isValid()) return lineWithinRadius(sphere, a, b - a);
  return sphereOverTriangle(sphere, a, b, c, z);
}

bool contains(const BoundingBox& box, const kxLinear::PointFlt& p) {
  return p.x >= box[0] && p.y >= box[1] && p.z >= box[2] && p.x <= box[3] && p.y <= box[4] &&
         p.z <= box[5];
}

bool contains(const Frustum& frustum, const Point& p) {
  for (int i = 0; i < 6; ++i) {
    const FrustumPlane& plane = frustum.plane(i);
    if (kxLinear::dot(p - plane.point, plane.normal) > 0.0) return false;
  }
  return true;
}

int intersects(const BoundingBox& box, const kxLinear::Plane& plane) {
  const kxLinear::VectorFlt h = box.halfDiagonal();
  const Vector& n = plane.getNormal();
  const double r = std::fabs(n.x) * h.x + std::fabs(n.y) * h.y + std::fabs(n.z) * h.z;
  const double s = plane.eval(Point(box.center()));
  if (s - r > 0.0) return 1;
  if (s + r < 0.0) return -1;
  return 0;
}

bool intersects(const BoundingBox& box, const Frustum& frustum) {
  int below[3] = {0, 0, 0}, above[3] = {0, 0, 0};
  for (int i = 0; i < 8; ++i) {
    const Point& p = frustum.corner(i);
    bool inside = true;
    for (int k = 0; k < 3; ++k) {
      const bool lo = p[k]<box[k], hi = p[k]> box[k + 3];
      below[k] += lo;
      above[k] += hi;
      inside = inside && !lo && !hi;
    }
    if (inside) return true;
  }
  for (int k = 0; k < 3; ++k) {
    if (below[k] == 8 || above[k] == 8) return false;
  }
  for (int f = 0; f < 6; ++f) {
    const FrustumPlane& plane = frustum.plane(f);
    int outside = 0;
    for (int i = 0; i < 8; ++i) {
      float corner[3];
      box.getPoint(i, corner);
      outside += kxLinear::dot(Point::from(corner) - plane.point, plane.normal) > 0.0;
    }
    if (outside == 8) return false;
  }
  return true;
}

bool intersects(const BoundingBox& box, const Sphere& sphere) {
  return box.distance(kxLinear::PointFlt(sphere.center)) <= sphere.radius;
}

bool intersects(const BoundingBox& box, const float (&a)[3], const float (&b)[3],
                const float (&c)[3]) {
  // Everything relative to the first corner, which then sits at the origin.
  float lo[3], hi[3], v1[3], v2[3];
  boxRelativeTo(box, a, lo, hi);
  for (int k = 0; k < 3; ++k) {
    v1[k] = b[k] - a[k];
    v2[k] = c[k] - a[k];
  }
  // The box's face normals: the triangle's own box against the box.
  for (int k = 0; k < 3; ++k) {
    if (std::min({0.0f, v1[k], v2[k]}) > hi[k] || std::max({0.0f, v1[k], v2[k]}) < lo[k]) {
      return false;
    }
  }
  // The triangle's normal: the whole triangle projects onto 0.
  const float normal[3] = {v1[1] * v2[2] - v1[2] * v2[1], v1[2] * v2[0] - v1[0] * v2[2],
                           v1[0] * v2[1] - v1[1] * v2[0]};
  if (separatedOnAxis(normal, lo, hi, 0.0f, 0.0f)) return false;
  // Each edge crossed with each coordinate axis.
  const float edges[3][3] = {
      {v1[0], v1[1], v1[2]}, {v2[0] - v1[0], v2[1] - v1[1], v2[2] - v1[2]}, {v2[0], v2[1], v2[2]}};
  for (const auto& edge : edges) {
    for (int k = 0; k < 3; ++k) {
      float axis[3];
      crossWithAxis(edge, k, axis);
      const float p1 = dot3(axis, v1), p2 = dot3(axis, v2);
      if (separatedOnAxis(axis, lo, hi, std::min({0.0f, p1, p2}), std::max({0.0f, p1, p2}))) {
        return false;
      }
    }
  }
  return true;
}

bool intersects(const BoundingBox& box, const float (&p)[3], const float (&q)[3]) {
  for (int k = 0; k < 3; ++k) {
    if (p[k] < box[k] && q[k] < box[k]) return false;
    if (p[k] > box[k + 3] && q[k] > box[k + 3]) return false;
  }
  // Relative to p the segment runs from the origin to d; every direction
  // perpendicular to d projects it onto 0. Axis pairs (2, 1), (0, 2), (1, 0).
  float lo[3], hi[3];
  boxRelativeTo(box, p, lo, hi);
  const float d[3] = {q[0] - p[0], q[1] - p[1], q[2] - p[2]};
  for (int k = 0; k < 3; ++k) {
    float axis[3];
    crossWithAxis(d, k, axis);
    if (separatedOnAxis(axis, lo, hi, 0.0f, 0.0f)) return false;
  }
  return true;
}

void meshTriBoundingBox(const float* a, const float* b, const float* c, BoundingBox& box) {
  box.setInvalid();
  box.extend(a[0], a[1], a[2]);
  box.extend(b[0], b[1], b[2]);
  box.extend(c[0], c[1], c[2]);
}

}  // namespace kxGeom
