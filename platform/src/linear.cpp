#include <kxgeom/platform/linear.h>

namespace kxLinear {

double epsilonTol = 1e-8;
double epsilon2Tol = 1e-16;
float epsilonTolFlt = 1e-6f;
double parallelTol = 1e-8;
double perpendicular2Tol = 1e-16;

Normal::Normal(const Vector& v) {
  const double len2 = v.length2();
  if (len2 > 0.0 && std::isfinite(len2)) {
    v_ = v / std::sqrt(len2);
    valid_ = true;
  }
}

Point project(const Point& p, const Line& line) {
  const Vector& d = line.getDirection();
  const double d2 = d.length2();
  if (d2 == 0.0) return line.getOrigin();
  return line.eval(dot(p - line.getOrigin(), d) / d2);
}

Point project(const Point& p, const Plane& plane) { return p - plane.getNormal() * plane.eval(p); }

bool intersect(const Line& line, const Plane& plane, Point& hit, double perp2Tol) {
  const Vector& d = line.getDirection();
  const double dn = dot(d, plane.getNormal());
  if (dn * dn < perp2Tol * d.length2() || dn == 0.0) return false;
  hit = line.eval(-plane.eval(line.getOrigin()) / dn);
  return true;
}

}  // namespace kxLinear
