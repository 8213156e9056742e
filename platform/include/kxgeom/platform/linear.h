// Small fixed-size linear algebra: points, vectors, normals, matrices, lines,
// planes and ranges in single and double precision.
//
// All types are plain values, cheap to copy and safe to use from any number of
// threads. Points and vectors share one representation (`Tuple3`); the names
// `Point` and `Vector` document intent at the call site.
#pragma once

#include <cmath>
#include <cstdint>

#include <kxgeom/platform/export.h>

namespace kxLinear {

/// Length tolerance (model units). Also the default convergence and breakdown
/// tolerance of the conjugate-gradient callers; deliberately small (1e-8).
KXGEOM_API extern double epsilonTol;
/// Square of the length tolerance (1e-16).
KXGEOM_API extern double epsilon2Tol;
/// Single-precision length tolerance (1e-6f).
KXGEOM_API extern float epsilonTolFlt;
/// Tolerance for "directions are parallel" tests (1e-8).
KXGEOM_API extern double parallelTol;
/// Squared tolerance for "directions are perpendicular" tests (1e-16).
KXGEOM_API extern double perpendicular2Tol;

/// Three components of type T: a point or a vector.
template <class T>
struct Tuple3 {
  T x = 0, y = 0, z = 0;

  constexpr Tuple3() = default;
  constexpr Tuple3(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}
  /// Explicit conversion between precisions (double <-> float).
  template <class U>
  constexpr explicit Tuple3(const Tuple3<U>& o) : x(T(o.x)), y(T(o.y)), z(T(o.z)) {}
  /// From three consecutive values (a raw vertex or normal).
  template <class U>
  static constexpr Tuple3 from(const U* p) {
    return Tuple3(T(p[0]), T(p[1]), T(p[2]));
  }

  T& operator[](int i) { return (&x)[i]; }
  const T& operator[](int i) const { return (&x)[i]; }
  T* data() { return &x; }
  const T* data() const { return &x; }

  constexpr Tuple3 operator+(const Tuple3& o) const { return {x + o.x, y + o.y, z + o.z}; }
  constexpr Tuple3 operator-(const Tuple3& o) const { return {x - o.x, y - o.y, z - o.z}; }
  constexpr Tuple3 operator-() const { return {-x, -y, -z}; }
  constexpr Tuple3 operator*(T s) const { return {x * s, y * s, z * s}; }
  constexpr Tuple3 operator/(T s) const { return {x / s, y / s, z / s}; }
  Tuple3& operator+=(const Tuple3& o) { return *this = *this + o; }
  Tuple3& operator-=(const Tuple3& o) { return *this = *this - o; }
  Tuple3& operator*=(T s) { return *this = *this * s; }
  Tuple3& operator/=(T s) { return *this = *this / s; }
  constexpr bool operator==(const Tuple3& o) const { return x == o.x && y == o.y && z == o.z; }
  constexpr bool operator!=(const Tuple3& o) const { return !(*this == o); }

  constexpr T length2() const { return x * x + y * y + z * z; }
  T length() const { return std::sqrt(length2()); }
};

template <class T>
constexpr Tuple3<T> operator*(T s, const Tuple3<T>& v) {
  return v * s;
}
template <class T>
constexpr T dot(const Tuple3<T>& a, const Tuple3<T>& b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}
template <class T>
constexpr Tuple3<T> cross(const Tuple3<T>& a, const Tuple3<T>& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
/// The unit vector of v; v unchanged when its length is zero.
template <class T>
Tuple3<T> normalized(const Tuple3<T>& v) {
  const T len = v.length();
  return len > T(0) ? v / len : v;
}
/// wa*a + wb*b + wc*c, evaluated in the precision of the weights.
template <class T, class W>
constexpr Tuple3<W> combine(const Tuple3<T>& a, W wa, const Tuple3<T>& b, W wb, const Tuple3<T>& c,
                            W wc) {
  return Tuple3<W>(a) * wa + Tuple3<W>(b) * wb + Tuple3<W>(c) * wc;
}

using Point = Tuple3<double>;
using Vector = Tuple3<double>;
using PointFlt = Tuple3<float>;
using VectorFlt = Tuple3<float>;

/// The coordinate axes as unit vectors.
inline constexpr Vector xAxis{1, 0, 0};
inline constexpr Vector yAxis{0, 1, 0};
inline constexpr Vector zAxis{0, 0, 1};

/// Two components of type T.
template <class T>
struct Tuple2 {
  T x = 0, y = 0;

  constexpr Tuple2() = default;
  constexpr Tuple2(T x_, T y_) : x(x_), y(y_) {}
  template <class U>
  constexpr explicit Tuple2(const Tuple2<U>& o) : x(T(o.x)), y(T(o.y)) {}

  T& operator[](int i) { return (&x)[i]; }
  const T& operator[](int i) const { return (&x)[i]; }
  constexpr Tuple2 operator+(const Tuple2& o) const { return {x + o.x, y + o.y}; }
  constexpr Tuple2 operator-(const Tuple2& o) const { return {x - o.x, y - o.y}; }
  constexpr Tuple2 operator*(T s) const { return {x * s, y * s}; }
  constexpr Tuple2 operator/(T s) const { return {x / s, y / s}; }
  constexpr bool operator==(const Tuple2& o) const { return x == o.x && y == o.y; }
  constexpr bool operator!=(const Tuple2& o) const { return !(*this == o); }
  constexpr T length2() const { return x * x + y * y; }
  T length() const { return std::sqrt(length2()); }
};

template <class T>
constexpr T dot(const Tuple2<T>& a, const Tuple2<T>& b) {
  return a.x * b.x + a.y * b.y;
}

using Point2 = Tuple2<double>;
using Point2Flt = Tuple2<float>;
using Vector2 = Tuple2<double>;

/// A unit direction with a validity flag. Construction normalises; a vector
/// that is zero, or not finite, yields an invalid normal (0, 0, 0).
class KXGEOM_API Normal {
 public:
  Normal() = default;
  explicit Normal(const Vector& v);
  Normal(double x, double y, double z) : Normal(Vector(x, y, z)) {}

  bool isValid() const { return valid_; }
  const Vector& vector() const { return v_; }
  double x() const { return v_.x; }
  double y() const { return v_.y; }
  double z() const { return v_.z; }
  double operator[](int i) const { return v_[i]; }

 private:
  Vector v_;
  bool valid_ = false;
};

/// An affine map p -> R p + t, stored as three rows of four (R | t).
template <class T>
struct AffineMatrixT {
  T m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};

  static AffineMatrixT identity() { return AffineMatrixT(); }
  static AffineMatrixT translation(const Tuple3<T>& t) {
    AffineMatrixT a;
    for (int r = 0; r < 3; ++r) a.m[r][3] = t[r];
    return a;
  }
  static AffineMatrixT scaling(T sx, T sy, T sz) {
    AffineMatrixT a;
    a.m[0][0] = sx;
    a.m[1][1] = sy;
    a.m[2][2] = sz;
    return a;
  }
  /// The frame with the given origin and axes as columns: local -> world.
  static AffineMatrixT frame(const Tuple3<T>& origin, const Tuple3<T>& xa, const Tuple3<T>& ya,
                             const Tuple3<T>& za) {
    AffineMatrixT a;
    for (int r = 0; r < 3; ++r) {
      a.m[r][0] = xa[r];
      a.m[r][1] = ya[r];
      a.m[r][2] = za[r];
      a.m[r][3] = origin[r];
    }
    return a;
  }

  Tuple3<T> transformPoint(const Tuple3<T>& p) const {
    return {m[0][0] * p.x + m[0][1] * p.y + m[0][2] * p.z + m[0][3],
            m[1][0] * p.x + m[1][1] * p.y + m[1][2] * p.z + m[1][3],
            m[2][0] * p.x + m[2][1] * p.y + m[2][2] * p.z + m[2][3]};
  }
  Tuple3<T> transformVector(const Tuple3<T>& v) const {
    return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
            m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
            m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
  }
  /// this * o: apply o first, then this.
  AffineMatrixT operator*(const AffineMatrixT& o) const {
    AffineMatrixT a;
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 4; ++c) {
        T s = c == 3 ? m[r][3] : T(0);
        for (int k = 0; k < 3; ++k) s += m[r][k] * o.m[k][c];
        a.m[r][c] = s;
      }
    }
    return a;
  }
  T determinant() const {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
  }
  /// The inverse map; false (and `out` untouched) when the linear part is singular.
  bool inverse(AffineMatrixT& out) const {
    const T det = determinant();
    if (det == T(0) || !std::isfinite(det)) return false;
    const T inv = T(1) / det;
    AffineMatrixT a;
    a.m[0][0] = (m[1][1] * m[2][2] - m[1][2] * m[2][1]) * inv;
    a.m[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) * inv;
    a.m[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) * inv;
    a.m[1][0] = (m[1][2] * m[2][0] - m[1][0] * m[2][2]) * inv;
    a.m[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) * inv;
    a.m[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) * inv;
    a.m[2][0] = (m[1][0] * m[2][1] - m[1][1] * m[2][0]) * inv;
    a.m[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) * inv;
    a.m[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) * inv;
    for (int r = 0; r < 3; ++r) {
      a.m[r][3] = -(a.m[r][0] * m[0][3] + a.m[r][1] * m[1][3] + a.m[r][2] * m[2][3]);
    }
    out = a;
    return true;
  }
};

using AffineMatrix = AffineMatrixT<double>;
using AffineMatrixFlt = AffineMatrixT<float>;

/// A 4x4 single-precision projection matrix stored row by row. Points are row
/// vectors: (x, y, z, w) = (px, py, pz, 1) * M, the fourth row being the
/// translation.
struct ProjMatrixFlt {
  float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

  /// Writes the homogeneous image of p (three floats) into out[4].
  void transform(const float* p, float* out) const {
    for (int c = 0; c < 4; ++c) {
      out[c] = p[0] * m[0][c] + p[1] * m[1][c] + p[2] * m[2][c] + m[3][c];
    }
  }
  /// this * o for row vectors: apply this first, then o.
  ProjMatrixFlt operator*(const ProjMatrixFlt& o) const {
    ProjMatrixFlt r;
    for (int i = 0; i < 4; ++i) {
      for (int j = 0; j < 4; ++j) {
        float s = 0;
        for (int k = 0; k < 4; ++k) s += m[i][k] * o.m[k][j];
        r.m[i][j] = s;
      }
    }
    return r;
  }
};

/// An infinite line (or ray) through `origin` along `direction`; the direction
/// is kept as given, so `eval(t)` measures t in units of its length.
class Line {
 public:
  Line() = default;
  Line(const Point& origin, const Vector& direction) : origin_(origin), dir_(direction) {}

  const Point& getOrigin() const { return origin_; }
  const Vector& getDirection() const { return dir_; }
  Point eval(double t) const { return origin_ + dir_ * t; }

 private:
  Point origin_;
  Vector dir_{0, 0, 1};
};

/// A line given by two points: eval(0) = p0, eval(1) = p1.
class ParamLine {
 public:
  ParamLine() = default;
  ParamLine(const Point& p0, const Point& p1) : p0_(p0), p1_(p1) {}

  const Point& start() const { return p0_; }
  const Point& end() const { return p1_; }
  Point eval(double t) const { return p0_ + (p1_ - p0_) * t; }
  Line asLine() const { return Line(p0_, p1_ - p0_); }

 private:
  Point p0_;
  Point p1_{1, 0, 0};
};

/// The plane through `point` with unit normal `normal` (normalised on
/// construction). `eval` is the signed distance, positive on the normal's side.
class Plane {
 public:
  Plane() = default;
  Plane(const Point& point, const Vector& normal) : point_(point), n_(normalized(normal)) {}

  const Point& getPoint() const { return point_; }
  const Vector& getNormal() const { return n_; }
  double eval(const Point& p) const { return dot(p - point_, n_); }

 private:
  Point point_;
  Vector n_{0, 0, 1};
};

/// A parametric plane: eval(s, t) = origin + s*u + t*v.
class ParamPlane {
 public:
  ParamPlane() = default;
  ParamPlane(const Point& origin, const Vector& u, const Vector& v) : o_(origin), u_(u), v_(v) {}

  const Point& getOrigin() const { return o_; }
  const Vector& getU() const { return u_; }
  const Vector& getV() const { return v_; }
  Point eval(double s, double t) const { return o_ + u_ * s + v_ * t; }
  Vector getNormal() const { return normalized(cross(u_, v_)); }
  Plane asPlane() const { return Plane(o_, cross(u_, v_)); }

 private:
  Point o_;
  Vector u_{1, 0, 0};
  Vector v_{0, 1, 0};
};

/// A closed interval [min, max]; empty when min > max.
struct Range1d {
  double min = 1.7976931348623157e308;
  double max = -1.7976931348623157e308;

  Range1d() = default;
  Range1d(double lo, double hi) : min(lo), max(hi) {}
  bool isEmpty() const { return min > max; }
  void extend(double v) {
    if (v < min) min = v;
    if (v > max) max = v;
  }
  /// True when v lies in [min - tol, max + tol].
  bool contains(double v, double tol = 0) const { return v >= min - tol && v <= max + tol; }
};

/// An axis-aligned rectangle.
struct Range2d {
  Range1d x, y;

  Range2d() = default;
  Range2d(const Range1d& rx, const Range1d& ry) : x(rx), y(ry) {}
  bool isEmpty() const { return x.isEmpty() || y.isEmpty(); }
  void extend(const Point2& p) {
    x.extend(p.x);
    y.extend(p.y);
  }
  bool contains(const Point2& p, double tol = 0) const {
    return x.contains(p.x, tol) && y.contains(p.y, tol);
  }
};

/// True when a and b are no farther apart than tol.
template <class T>
bool equivalent(const Tuple3<T>& a, const Tuple3<T>& b, T tol) {
  return (a - b).length2() <= tol * tol;
}
template <class T>
bool equivalent(const Tuple2<T>& a, const Tuple2<T>& b, T tol) {
  return (a - b).length2() <= tol * tol;
}

/// The orthogonal projection of p on the infinite line (not clamped to any
/// segment). A line with a zero direction projects everything on its origin.
KXGEOM_API Point project(const Point& p, const Line& line);
/// The orthogonal projection of p on the plane.
KXGEOM_API Point project(const Point& p, const Plane& plane);

/// Intersects a line with a plane. Fails (returns false, `hit` untouched) when
/// the line is parallel to the plane: (d.n)^2 < perp2Tol * |d|^2.
KXGEOM_API bool intersect(const Line& line, const Plane& plane, Point& hit,
                          double perp2Tol = perpendicular2Tol);

}  // namespace kxLinear
