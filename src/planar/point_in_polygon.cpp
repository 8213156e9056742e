#include <kxgeom/planar.h>

#include <algorithm>
#include <cmath>

namespace kxGeom {

namespace {

using kxLinear::Point2;

// Edge a-b crosses the point's horizontal line at or right of it. Called only
// for non-horizontal edges whose y-range holds py.
bool crossesRightOf(float px, float py, const float* a, const float* b) {
  const float t = (py - a[1]) / (b[1] - a[1]);
  return t >= 0.0f && t < 1.0f && (b[0] - a[0]) * t - (px - a[0]) >= 0.0f;
}

// Both ends of the edge lie beyond the same side of the tolerance square
// around p, so the edge cannot come within the band.
bool edgeOutsideSquare(const Point2& a, const Point2& b, const Point2& p, double tol) {
  return (a.x < p.x - tol && b.x < p.x - tol) || (a.x > p.x + tol && b.x > p.x + tol) ||
         (a.y < p.y - tol && b.y < p.y - tol) || (a.y > p.y + tol && b.y > p.y + tol);
}

}  // namespace

bool pointPolygonIntersect2D(const float point[2], const float (*points)[2], int n) {
  if (n < 3) return false;
  const float px = point[0], py = point[1];
  int crossings = 0;
  for (int i = 0; i < n; ++i) {
    const float* a = points[i];
    const float* b = points[i + 1];
    if (py < std::min(a[1], b[1]) || py > std::max(a[1], b[1])) continue;
    if (px > std::max(a[0], b[0])) continue;
    if (a[1] == b[1]) {
      if (px >= std::min(a[0], b[0])) return true;  // px <= max already holds
      continue;
    }
    if (crossesRightOf(px, py, a, b)) ++crossings;
  }
  return (crossings & 1) != 0;
}

void isPointInPolygon(const Point2& point, const kx::vector<Point2>& polygon,
                      pointPolygonRelation& result, double tolerance) {
  const int edges = static_cast<int>(polygon.size()) - 1;
  const double x = point.x, y = point.y;
  bool inside = false;
  for (int i = 0; i < edges; ++i) {
    const Point2& p0 = polygon[std::size_t(i)];
    const Point2& p1 = polygon[std::size_t(i) + 1];
    if ((y < p0.y) == (y < p1.y)) continue;
    const double xc = (p1.x - p0.x) * (y - p0.y) / (p1.y - p0.y) + p0.x;
    if (std::fabs(xc - x) < tolerance) {
      result = PointOnBoundary;
      return;
    }
    if (x < xc) inside = !inside;
  }
  for (int i = 0; i < edges; ++i) {
    const Point2& p0 = polygon[std::size_t(i)];
    const Point2& p1 = polygon[std::size_t(i) + 1];
    if (edgeOutsideSquare(p0, p1, point, tolerance)) continue;
    if (isPointOnEdge(p0, p1, point, tolerance)) {
      result = PointOnBoundary;
      return;
    }
  }
  result = inside ? PointInside : PointOutside;
}

void intersectPointWithPolygon(const Point2& point, const Polyline2d& polyline,
                               pointPolygonRelation& result, double tolerance) {
  if (!polyline.getBoundingBox().contains(point, tolerance)) {
    result = PointOutside;
    return;
  }
  kx::vector<Point2> closed(polyline.getVertices());
  if (!polyline.isClosed()) closed.push_back(polyline.getVertex(0));
  isPointInPolygon(point, closed, result, tolerance);
}

bool isPointOnEdge(const Point2& a, const Point2& b, const Point2& p, double tolerance) {
  const kxLinear::Vector2 d = b - a;
  const double length = d.length();
  if (length == 0.0) return kxLinear::equivalent(a, p, tolerance);
  const kxLinear::Vector2 u = d / length;
  const kxLinear::Vector2 normal(u.y, -u.x);
  const kxLinear::Vector2 w = p - a;
  return std::fabs(kxLinear::dot(normal, w)) < tolerance &&
         kxLinear::Range1d(0.0, length).contains(kxLinear::dot(w, u), tolerance);
}

}  // namespace kxGeom
