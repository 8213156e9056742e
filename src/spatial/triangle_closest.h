// The closest point of a triangle to a point, as weights of its corners:
// the searches over octrees share it.
#pragma once

#include <algorithm>
#include <limits>

#include <kxgeom/platform/linear.h>

namespace kxGeom {
namespace closest {

// Parameter in [0, 1] of the point of segment from + t * edge nearest to p.
inline double segmentParameter(const kxLinear::Point& p, const kxLinear::Point& from,
                               const kxLinear::Vector& edge) {
  const double len2 = edge.length2();
  if (!(len2 > 0)) return 0;
  return std::clamp(kxLinear::dot(p - from, edge) / len2, 0.0, 1.0);
}

// Closest point of triangle abc to p as weights of a, b, c. The interior is
// tried when the triangle has a usable area; otherwise, or when p projects
// outside, the nearest of the three edges wins (edges cover degenerate
// triangles exactly).
inline void triangleClosestWeights(const kxLinear::Point& p, const kxLinear::Point tri[3],
                                   double w[3]) {
  const kxLinear::Vector e0 = tri[1] - tri[0], e1 = tri[2] - tri[0], ap = p - tri[0];
  const double d00 = kxLinear::dot(e0, e0), d01 = kxLinear::dot(e0, e1);
  const double d11 = kxLinear::dot(e1, e1);
  const double denom = d00 * d11 - d01 * d01;
  if (denom > 1e-12 * d00 * d11) {
    const double d20 = kxLinear::dot(ap, e0), d21 = kxLinear::dot(ap, e1);
    const double v = (d11 * d20 - d01 * d21) / denom;
    const double u = (d00 * d21 - d01 * d20) / denom;
    if (v >= 0 && u >= 0 && v + u <= 1) {
      w[0] = 1 - v - u;
      w[1] = v;
      w[2] = u;
      return;
    }
  }
  double best = std::numeric_limits<double>::infinity();
  for (int e = 0; e < 3; ++e) {
    const int i = e, j = (e + 1) % 3;
    const kxLinear::Vector edge = tri[j] - tri[i];
    const double t = segmentParameter(p, tri[i], edge);
    const double d2 = (tri[i] + edge * t - p).length2();
    if (d2 < best || e == 0) {
      best = d2;
      w[0] = w[1] = w[2] = 0;
      w[i] = 1 - t;
      w[j] = t;
    }
  }
}

}  // namespace closest
}  // namespace kxGeom
