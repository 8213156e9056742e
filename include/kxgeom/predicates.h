// Exact predicates of the spatial queries: ray-triangle intersection,
// point-in-triangle tests, triangle normals, sphere-triangle overlap, and the
// overlap tests of axis-aligned boxes against points, planes, frustums,
// spheres, segments and triangles.
//
// Vertex data arrives in single precision. Differences of two vertices are
// formed in single precision and widened to double; the ray-triangle
// arithmetic is double. Every function is re-entrant and allocates nothing.
// The only state is the process-wide back-face cull distance, read without
// synchronisation: set it before queries run.
#pragma once

#include <type_traits>

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/query_shapes.h>

namespace kxGeom {

/// Two-sided ray-triangle test (Moller-Trumbore, determinant threshold 1e-6).
/// [in]  dir      ray direction, three doubles (any length; t is in its units).
/// [in]  orig     ray origin, three floats.
/// [in]  vert0, vert1, vert2  triangle corners, three floats each.
/// [out] t        ray parameter of the hit (written only on a hit).
/// [out] u, v     barycentric weights of vert1 and vert2 on a hit; on a miss
///                they may hold unscaled intermediate values.
/// Returns true on a hit: edges and vertices are inside (inclusive bounds). A
/// front face (det > 1e-6) is reported for any t, also behind the origin; a
/// back face (det < -1e-6) only when t >= the back-face cull distance. A ray in
/// the triangle's plane (|det| <= 1e-6) misses. Cost O(1). Re-entrant.
KXGEOM_API bool intersectRayTriangle(const double* dir, const float* orig, const float* vert0,
                                     const float* vert1, const float* vert2, double& t, double& u,
                                     double& v);

/// As `intersectRayTriangle`, on the corner vert0 and the edges from it,
/// edge1 = vert1 - vert0 and edge2 = vert2 - vert0 formed in single precision
/// (as that test forms them, so both give the same answers bit for bit).
/// [in] edge1, edge2  three floats each; other arguments as above.
/// Cost O(1). Re-entrant.
KXGEOM_API bool intersectRayTriangleEdges(const double* dir, const float* orig, const float* vert0,
                                          const float* edge1, const float* edge2, double& t,
                                          double& u, double& v);

/// Front-face-only ray-triangle test: misses when det < 1e-6 (det == 1e-6
/// passes), otherwise as the two-sided test's front-face branch, for any t.
/// Arguments as `intersectRayTriangle`; the cull distance is not consulted.
/// Cost O(1). Re-entrant.
KXGEOM_API bool intersectRayTriangleCull(const double* dir, const float* orig, const float* vert0,
                                         const float* vert1, const float* vert2, double& t,
                                         double& u, double& v);

/// True when the two-sided test hits at t > kxLinear::epsilonTol (strictly in
/// front of the origin, in units of `dir`).
/// [in] dir   ray direction.  [in] orig  ray origin.
/// [in] vert0, vert1, vert2  triangle corners.
/// Cost O(1). Re-entrant.
KXGEOM_API bool intersectRayTriangle(const kxLinear::Vector& dir, const kxLinear::PointFlt& orig,
                                     const kxLinear::PointFlt& vert0,
                                     const kxLinear::PointFlt& vert1,
                                     const kxLinear::PointFlt& vert2);

/// Sets the process-wide back-face cull distance (initially 1e-6): back faces
/// hit at a ray parameter below it are ignored by `intersectRayTriangle`.
/// [in] distance  ray parameter; negative values admit back faces behind the origin.
/// Not synchronised: call before queries run. Cost O(1).
KXGEOM_API void setBackfaceCullDistance(double distance);

/// Planar point-in-triangle test with tolerance e = kxLinear::epsilonTolFlt.
/// Solves p = a + s (c - a) + t (b - a).
/// [in]  p, a, b, c  the point and the triangle's corners.
/// [out] s, t        weights of c and b; both 0.33333334 when the triangle is
///                   degenerate (its edge determinant below e).
/// Returns true when 0 <= s <= 1, t >= 0 and s + t <= 1 (boundary inside);
/// false for a degenerate triangle. Cost O(1). Re-entrant.
KXGEOM_API bool isPointInTriangleDefinitive(const kxLinear::Point2Flt& p,
                                            const kxLinear::Point2Flt& a,
                                            const kxLinear::Point2Flt& b,
                                            const kxLinear::Point2Flt& c, float& s, float& t);

/// Planar point-in-triangle test with exact zero checks (boundary inside).
/// [in]  p, a, b, c  the point and the triangle's corners.
/// [out] s, t        weights of c and b as far as computed: s is written once
///                   its denominator is non-zero, t only when s lies in [0, 1].
/// Returns false for a degenerate triangle (zero denominator), never writing
/// a fallback. Cost O(1). Re-entrant.
KXGEOM_API bool isPointInTriangleInclusive(const kxLinear::Point2Flt& p,
                                           const kxLinear::Point2Flt& a,
                                           const kxLinear::Point2Flt& b,
                                           const kxLinear::Point2Flt& c, float& s, float& t);

/// Spatial point-in-triangle test against the triangle's own area vector.
/// [in] p, a, b, c  the point and the corners (model units).
/// Returns true when no sub-triangle (p with an edge) faces against the
/// triangle with an area of at least 1e-5 of the triangle's; points on or very
/// near the triangle's edges count as inside. Meant for points in (or near)
/// the triangle's plane. Cost O(1). Re-entrant.
KXGEOM_API bool isPointInTriangleInclusive(const kxLinear::Point& p, const kxLinear::Point& a,
                                           const kxLinear::Point& b, const kxLinear::Point& c);

/// As above against a caller's normal.
/// [in] n  the triangle's normal; its length L scales the tolerance (a
///         sub-triangle facing against n is tolerated when its area < 1e-5 L).
/// Cost O(1). Re-entrant.
KXGEOM_API bool isPointInTriangleInclusive(const kxLinear::Point& p, const kxLinear::Point& a,
                                           const kxLinear::Point& b, const kxLinear::Point& c,
                                           const kxLinear::Vector& n);

/// Unit normal of the winding a, b, c: normalised (c - b) x (a - b); (0, 0, 1)
/// when that vanishes (collinear or coincident corners).
/// [in] a, b, c  corners (model units). Always returns a valid normal.
/// Cost O(1). Re-entrant.
KXGEOM_API kxLinear::Normal triNormal(const kxLinear::Point& a, const kxLinear::Point& b,
                                      const kxLinear::Point& c);

/// `triNormal` of one mesh triangle, its corners widened to double.
/// [in] vertices  raw vertex array (three floats per vertex).
/// [in] triangle  three vertex indices (not validated).
/// Cost O(1). Re-entrant.
KXGEOM_API kxLinear::Normal meshTriNormal(const float* vertices, const int* triangle);

/// Sphere-triangle overlap (strict: a sphere exactly at distance r misses).
/// [in] s        the sphere.  [in] a, b, c  the triangle's corners.
/// A sphere containing a corner always overlaps. A triangle whose every edge
/// is shorter than the distance from the edge's first corner to the centre is
/// rejected at once, even if the sphere reaches its interior (a deliberate
/// shortcut for queries with small spheres over fine meshes). Coincident
/// corners reduce the triangle to a line, tested as an infinite line. When the
/// centre projects outside the triangle, the test uses the line of the edge
/// whose side sign differs from the other two edges'.
/// Cost O(1). Re-entrant.
KXGEOM_API bool sphereTriIntersect(const Sphere& s, const kxLinear::Point& a,
                                   const kxLinear::Point& b, const kxLinear::Point& c);

/// Inclusive containment of a point in a box (min <= p <= max on every axis).
/// Cost O(1). Re-entrant.
KXGEOM_API bool contains(const BoundingBox& box, const kxLinear::PointFlt& p);

/// True unless p lies strictly outside one of the frustum's six planes.
/// Cost O(1). Re-entrant.
KXGEOM_API bool contains(const Frustum& frustum, const kxLinear::Point& p);

/// Side of a plane a box lies on.
/// [in] box    the box.  [in] plane  the plane (unit normal).
/// Returns 1 when the box lies wholly on the positive side, -1 when wholly on
/// the negative side, 0 when the plane cuts or touches it. Cost O(1).
KXGEOM_API int intersects(const BoundingBox& box, const kxLinear::Plane& plane);

/// Conservative box-frustum overlap: never false for an overlapping pair, but
/// may be true for a box near the frustum's edges that misses it.
/// Cost O(1) (at most 64 plane evaluations). Re-entrant.
KXGEOM_API bool intersects(const BoundingBox& box, const Frustum& frustum);

/// Box-sphere overlap: the box's distance to the centre (in single precision)
/// is <= the radius. Cost O(1). Re-entrant.
KXGEOM_API bool intersects(const BoundingBox& box, const Sphere& sphere);

/// Exact box-triangle overlap by separating axes, in single precision with
/// the box and corners taken relative to the first corner. Touching counts as
/// overlap. This is the test that assigns triangles to octree leaves.
/// [in] box      the box.  [in] a, b, c  the corners, three floats each.
/// Cost O(1) (13 axes). Re-entrant.
KXGEOM_API bool intersects(const BoundingBox& box, const float (&a)[3], const float (&b)[3],
                           const float (&c)[3]);

/// Pointer form of the box-triangle test. A template so that calls with
/// float[3] arrays resolve to the array form without ambiguity.
template <class T, class = std::enable_if_t<std::is_same<T, float>::value>>
bool intersects(const BoundingBox& box, const T* a, const T* b, const T* c) {
  using Corner = const float(&)[3];
  return intersects(box, reinterpret_cast<Corner>(*a), reinterpret_cast<Corner>(*b),
                    reinterpret_cast<Corner>(*c));
}

/// Box-segment overlap (touching counts). Rejects segments whose endpoints
/// both lie strictly beyond one face, then tests the three separating
/// directions perpendicular to the segment and a coordinate axis.
/// [in] box  the box.  [in] p, q  the endpoints, three floats each.
/// Cost O(1). Re-entrant.
KXGEOM_API bool intersects(const BoundingBox& box, const float (&p)[3], const float (&q)[3]);

/// Pointer form of the box-segment test (see the box-triangle pointer form).
template <class T, class = std::enable_if_t<std::is_same<T, float>::value>>
bool intersects(const BoundingBox& box, const T* p, const T* q) {
  using Corner = const float(&)[3];
  return intersects(box, reinterpret_cast<Corner>(*p), reinterpret_cast<Corner>(*q));
}

/// The box of a triangle's three corners, replacing `box`'s contents.
/// [in]  a, b, c  the corners, three floats each.
/// [out] box      the smallest box holding the three corners.
/// Cost O(1). Re-entrant.
KXGEOM_API void meshTriBoundingBox(const float* a, const float* b, const float* c,
                                   BoundingBox& box);

}  // namespace kxGeom
