// Planar point-in-polygon tests: a single-precision crossing test without
// tolerance, and a double-precision classification with a tolerance band
// around the boundary.
//
// Polygons passed as arrays are closed explicitly: the last point repeats the
// first, so an array of m points has m - 1 edges (point i to point i + 1).
//
// Thread safety: every function is re-entrant and keeps no state; the
// classifications allocate nothing but `intersectPointWithPolygon`'s copy of
// the polyline.
#pragma once

#include <cstdint>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/polyline.h>

namespace kxGeom {

/// Where a point lies with respect to a polygon.
enum pointPolygonRelation : std::int32_t {
  PointInside = 0,      ///< strictly inside
  PointOnBoundary = 1,  ///< within the tolerance of an edge
  PointOutside = 2,     ///< outside
};

/// Crossing-number test in single precision, without tolerance.
/// [in] point   (x, y).
/// [in] points  n + 1 points; the last equals the first (n edges).
/// [in] n       number of edges.
/// Returns true when the point is inside, or lies on a horizontal edge. A
/// point exactly on a non-horizontal edge counts that edge as a crossing at or
/// right of it, so its answer follows parity (on the right side of the unit
/// square: inside; on the left side: outside). A vertex exactly on the point's
/// horizontal line, right of the point, counts as one crossing (the edge
/// starting there), also where the boundary only touches the line, so points
/// on the line of such a tip get the flipped answer. n < 3 gives false.
/// Cost O(n). Re-entrant.
KXGEOM_API bool pointPolygonIntersect2D(const float point[2], const float (*points)[2], int n);

/// Classifies a point against a closed polygon with a tolerance band.
/// [in] point    the point.
/// [in] polygon  closed point array (last point equal to the first); fewer
///               than two points give PointOutside.
/// [out] result  PointOnBoundary when a crossing of the point's horizontal
///               line lies within `tolerance` of the point, or the point lies
///               within `tolerance` of an edge (see `isPointOnEdge`); else
///               PointInside or PointOutside by crossing parity.
/// [in] tolerance  band half-width (model units), >= 0; 0 disables the band
///               (except for a zero-length edge whose end equals the point).
/// Cost O(n). Re-entrant.
KXGEOM_API void isPointInPolygon(const kxLinear::Point2& point,
                                 const kx::vector<kxLinear::Point2>& polygon,
                                 pointPolygonRelation& result, double tolerance);

/// Front end of `isPointInPolygon` for a polyline. A point outside the
/// polyline's bounding box grown by `tolerance` is PointOutside without any
/// edge test. Otherwise the vertices are copied, an open polyline is closed by
/// appending its first vertex, and the copy is classified.
/// [in] point, tolerance  as `isPointInPolygon`.
/// [in] polyline  the polygon; an empty one gives PointOutside.
/// [out] result   the relation.
/// Cost O(n) time and O(n) temporary memory. Re-entrant.
KXGEOM_API void intersectPointWithPolygon(const kxLinear::Point2& point, const Polyline2d& polyline,
                                          pointPolygonRelation& result, double tolerance);

/// Whether p lies within `tolerance` of the segment ab: its distance from the
/// line through a and b is below `tolerance` and its projection on that line
/// falls within the segment extended by `tolerance` at both ends. A segment of
/// length exactly 0 answers whether p is within `tolerance` of a.
/// [in] a, b  the segment's ends.
/// [in] p     the point.
/// [in] tolerance  distance (model units), >= 0.
/// Cost O(1). Re-entrant.
KXGEOM_API bool isPointOnEdge(const kxLinear::Point2& a, const kxLinear::Point2& b,
                              const kxLinear::Point2& p, double tolerance);

}  // namespace kxGeom
