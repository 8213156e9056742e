// A double-precision slab clipper shared by the ray and segment tests as
// their independent oracle.
#pragma once

#include <algorithm>

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/linear.h>

namespace kxtest {

/// The parameter interval [t0, t1] of the line o + t d inside `box` grown by
/// `margin` on every side; false when the line misses it.
inline bool slabInterval(const kxLinear::Point& o, const kxLinear::Vector& d,
                         const kxGeom::BoundingBox& box, double margin, double& t0, double& t1) {
  t0 = -1e300;
  t1 = 1e300;
  for (int k = 0; k < 3; ++k) {
    const double lo = box[k] - margin, hi = box[k + 3] + margin;
    if (d[k] == 0) {
      if (o[k] < lo || o[k] > hi) return false;
      continue;
    }
    double a = (lo - o[k]) / d[k], b = (hi - o[k]) / d[k];
    if (a > b) std::swap(a, b);
    t0 = std::max(t0, a);
    t1 = std::min(t1, b);
  }
  return t0 <= t1;
}

}  // namespace kxtest
