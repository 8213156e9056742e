// A double-precision ray-mesh oracle for the ray tracers, built on signed
// tetrahedron volumes and a plane intersection (not on the Moller-Trumbore
// formulation the tracers use), with explicit uncertainty near the decision
// boundaries so that float and double answers can be compared strictly.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>

#include <kxgeom/kxgeom.h>
#include <kxgeom/octree_query.h>

namespace kxtest {

/// Classification of one ray against one triangle.
enum class RayTriClass { Miss, Hit, Unsure };

/// The tracers' rules: a hit needs the ray to cross the triangle (edges
/// included) at t > `eps`, the triangle not seen edge-on (|determinant| <
/// `detMin`), and either a front
/// face (the ray travels against the right-handed normal) or t >= `cull`.
/// `Unsure` marks answers that rounding in single precision may flip: a
/// crossing within a relative 1e-4 of an edge, t within a relative 1e-4 of
/// `eps` or of `cull`, and any crossing near the triangle at a grazing angle
/// (|cosine| < 0.01, where float arithmetic loses about 1e-7 / |cosine|) or
/// with a determinant within 10 `detMin` of the edge-on cutoff. `t` is written
/// for Hit and Unsure.
inline RayTriClass classifyRayTriangle(const kxLinear::Point& o, const kxLinear::Vector& d,
                                       const kxLinear::Point& a, const kxLinear::Point& b,
                                       const kxLinear::Point& c, double cull, double& t,
                                       double eps = 1e-6, double detMin = 1e-6) {
  using kxLinear::cross;
  using kxLinear::dot;
  const kxLinear::Vector n = cross(b - a, c - a);
  const double nLen = n.length(), dLen = d.length();
  if (nLen == 0.0) return RayTriClass::Miss;
  const double cosine = dot(n, d) / (nLen * dLen);
  // Signed volumes of the ray with each edge: all of one sign inside; they
  // sum to dot(d, n).
  const kxLinear::Vector pa = a - o, pb = b - o, pc = c - o;
  const double wa = dot(d, cross(pb, pc)), wb = dot(d, cross(pc, pa)), wc = dot(d, cross(pa, pb));
  const double sum = wa + wb + wc;
  if (sum == 0.0) return RayTriClass::Miss;
  const double margin = std::min({wa / sum, wb / sum, wc / sum});
  t = dot(n, a - o) / sum;
  if (std::fabs(cosine) < 1e-2 || std::fabs(sum) < 10 * detMin) {
    const double slack = 1e-5 / std::fabs(cosine);
    const bool near = margin > -slack && t > eps - slack * (1.0 + std::fabs(t));
    return near ? RayTriClass::Unsure : RayTriClass::Miss;
  }
  const double tTol = 1e-4 * (1.0 + std::fabs(t));
  const bool front = sum < 0;
  const bool unsure = std::fabs(margin) < 1e-4 || std::fabs(t - eps) < tTol ||
                      (!front && std::fabs(t - cull) < tTol);
  if (unsure) return RayTriClass::Unsure;
  const bool hit = margin > 0 && t > eps && (front || t >= cull);
  return hit ? RayTriClass::Hit : RayTriClass::Miss;
}

/// What a brute-force loop over every triangle knows about one ray.
struct BruteForceRay {
  bool surelyHit = false;      ///< some triangle is hit beyond doubt
  bool possiblyHit = false;    ///< some triangle is hit or unsure
  double nearestSure = 1e300;  ///< smallest t of the sure hits
  double nearestAny = 1e300;   ///< smallest t of the sure and unsure hits
  int nearestSureTriangle = -1;

  /// Whether a tracer's answer (hit flag, nearest t) is consistent, with t
  /// compared within the relative tolerance `tTol`.
  bool accepts(bool hit, double t, double tTol) const {
    if (hit ? !possiblyHit : surelyHit) return false;
    if (!hit) return true;
    const double lo = nearestAny - tTol * (1.0 + std::fabs(nearestAny));
    const double hi = nearestSure + tTol * (1.0 + std::fabs(nearestSure));
    return t >= lo && t <= hi;
  }
  /// True when rounding cannot change the nearest hit.
  bool certain() const { return surelyHit == possiblyHit && nearestSure == nearestAny; }
};

/// Tests the ray o + t d against every triangle of `mesh`.
/// [in] eps  the smallest t that counts (1e-6 for packets, 1e-8 for RayTracer).
inline BruteForceRay bruteForceRay(const kxGeom::CompactMesh& mesh, const kxLinear::Point& o,
                                   const kxLinear::Vector& d, double cull, double eps = 1e-6) {
  BruteForceRay r;
  const kxGeom::MeshVertex* v = mesh.getVertices();
  const kxGeom::MeshTriangle* tris = mesh.getTriangles();
  for (int i = 0; i < mesh.getNumTriangles(); ++i) {
    double t = 0;
    const RayTriClass k =
        classifyRayTriangle(o, d, v[tris[i][0]].asPoint(), v[tris[i][1]].asPoint(),
                            v[tris[i][2]].asPoint(), cull, t, eps);
    if (k == RayTriClass::Miss) continue;
    r.possiblyHit = true;
    r.nearestAny = std::min(r.nearestAny, t);
    if (k == RayTriClass::Hit) {
      r.surelyHit = true;
      if (t < r.nearestSure) {
        r.nearestSure = t;
        r.nearestSureTriangle = i;
      }
    }
  }
  return r;
}

/// A mesh with the octree over its vertices (the library's usual settings)
/// and the per-voxel triangle lists that the tracers walk.
struct IndexedMesh {
  explicit IndexedMesh(const kxGeom::CompactMesh& m)
      : mesh(m), box(boxOf(m)), octree(m.getNumVertices(), m.getVerticesRaw(), box, true, 16) {
    kxGeom::computeOctreeTris(mesh, octree, tris);
  }
  static kxGeom::BoundingBox boxOf(const kxGeom::CompactMesh& m) {
    kxGeom::BoundingBox b;
    kxGeom::meshBoundingBox(m, b);
    return b;
  }

  kxGeom::CompactMesh mesh;
  kxGeom::BoundingBox box;  ///< the mesh's bounding box
  kxGeom::Octree octree;
  kxGeom::OctreeTris tris;
};

/// A random point of `box` grown by `grow` about its centre.
inline kxLinear::PointFlt randomPointInBox(const kxGeom::BoundingBox& box, float grow,
                                           std::mt19937& rng) {
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  const kxLinear::PointFlt c = box.center();
  const kxLinear::VectorFlt h = box.halfDiagonal() * grow;
  return {c.x + h.x * unit(rng), c.y + h.y * unit(rng), c.z + h.z * unit(rng)};
}

/// A random ray origin: inside `box` when `inside`, otherwise outside it at
/// 1.5 to 3 times its half diagonal from its centre.
inline kxLinear::PointFlt randomOrigin(const kxGeom::BoundingBox& box, bool inside,
                                       std::mt19937& rng) {
  if (inside) return randomPointInBox(box, 1.0f, rng);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  kxLinear::VectorFlt away(unit(rng), unit(rng), unit(rng));
  while (away.length2() < 1e-4f) away = kxLinear::VectorFlt(unit(rng), unit(rng), unit(rng));
  const float distance = box.halfDiagonal().length() * (2.25f + 0.75f * unit(rng));
  return box.center() + kxLinear::normalized(away) * distance;
}

}  // namespace kxtest
