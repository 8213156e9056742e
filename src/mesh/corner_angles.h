// Angles and cotangents at triangle corners, for the code that weighs edges
// by them: flattening, curvature and edge swapping.
#pragma once

#include <cmath>

#include <kxgeom/platform/linear.h>

namespace kxGeom {
namespace corner {

// The angle at `apex` of the triangle (a, apex, b), in [0, pi]. The atan2 of
// the sine and cosine parts stays accurate near 0 and pi, where acos of a
// normalised dot product does not.
inline double angleAt(const kxLinear::Point& a, const kxLinear::Point& apex,
                      const kxLinear::Point& b) {
  const kxLinear::Vector u = a - apex, v = b - apex;
  return std::atan2(kxLinear::cross(u, v).length(), kxLinear::dot(u, v));
}

// The cotangent of the angle at `apex` of the triangle (a, apex, b); false
// when the triangle is too thin to give one (twice its area below
// kxLinear::epsilonTol).
inline bool cotangentAt(const kxLinear::Point& a, const kxLinear::Point& apex,
                        const kxLinear::Point& b, double& cot) {
  const kxLinear::Vector u = a - apex, v = b - apex;
  const double sine = kxLinear::cross(u, v).length();
  if (sine < kxLinear::epsilonTol) return false;
  cot = kxLinear::dot(u, v) / sine;
  return true;
}

}  // namespace corner
}  // namespace kxGeom
