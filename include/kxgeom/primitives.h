// Primitive shapes built as meshes.
//
// Every builder replaces the whole content of the mesh it is given: the
// shape is built in a fresh mesh that is swapped in, so no array of the old
// content (UVs, colours, attributes, selections) survives. Builders send no
// change notice, except `updateAnnularArc`, which edits an existing mesh.
// Surfaces are wound counter-clockwise seen from the side their normals
// face, so triangle normals computed from the winding agree with the vertex
// normals written; closed shapes face outward.
//
// Thread safety: each call needs exclusive access to its output mesh only.
// Failure: the builders have no failure value; each documents how it treats
// out-of-range counts. A size whose vertex count, or three times whose
// triangle count, exceeds the int range is refused: the mesh is left as it
// was and one line naming the builder goes to the debug channel.
#pragma once

#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/polyline.h>
#include <kxgeom/platform/topomesh.h>

namespace kxGeom {

/// A sphere of latitude rings and longitude segments with vertex normals.
/// With n = resolution: R = 2n - 1 rings, S = 4n segments, S*R + 2 vertices
/// and 2*S*R triangles. Vertex 0 is the north pole (+z), vertex 1 the south
/// pole; ring i (polar angle (i+1)*h, h = pi / 2n) segment j (azimuth j*h,
/// accumulated, 0 on +y growing towards +x) is vertex 2 + i*S + j. Triangles:
/// the north cap, then the bands ring by ring, then the south cap.
/// [in] center; [in] radius (length units); [in] resolution (values below 1
/// are taken as 1); [out] mesh. Cost: O(n^2).
KXGEOM_API void constructSphere(const kxLinear::Point& center, float radius, int resolution,
                                CompactMesh& mesh);

/// An axis-aligned box of 24 vertices (four per face, each face with its own
/// normal) and 12 triangles. Faces in the order +x, -x, +y, -y, +z, -z; the
/// corners of face f are vertices 4f .. 4f+3 and its triangles
/// (4f+2, 4f+1, 4f) and (4f+1, 4f+2, 4f+3).
/// [in] bounds: bounds[axis][0] is the minimum, bounds[axis][1] the maximum
/// of x, y, z. A minimum equal to the maximum gives degenerate triangles but
/// the same layout. [out] mesh. Cost: O(1).
KXGEOM_API void constructCuboid(const float (*const bounds)[2], CompactMesh& mesh);

/// constructCuboid with the same [minimum, maximum] pair on every axis.
/// [in] range: two floats. [out] mesh. Cost: O(1).
KXGEOM_API void constructCube(const float* const range, CompactMesh& mesh);

/// Gives every vertex the normal `normal` (converted to float, not
/// normalised), creating the normal array. Other arrays are kept.
/// [in,out] mesh; [in] normal. Sends no notice. Cost: O(V).
KXGEOM_API void addUniformNormals(CompactMesh& mesh, const kxLinear::Vector& normal);

/// A flat disk in the plane z = center.z facing +z: vertex 0 at the center,
/// then `rings` rings of `segments` vertices (ring r at radius
/// radius*(r+1)/rings, segment j at angle 2*pi*j/segments from +x towards +y).
/// Normals are (0, 0, 1); UVs map the disk's bounding square to [0, 1]^2.
/// [in] center; [in] radius; [in] segments (below 3 taken as 3); [in] rings
/// (below 1 taken as 1); [out] mesh. Triangles: segments*(2*rings - 1).
/// Cost: O(segments*rings).
KXGEOM_API void constructDisk(const kxLinear::Point& center, float radius, int segments, int rings,
                              CompactMesh& mesh);

/// A circle as a closed line strip of `segments` vertices in the plane
/// through `center` perpendicular to axis `normalAxis` (0 = x, 1 = y,
/// 2 = z; other values are taken as 2), counter-clockwise seen from that
/// axis. One strip of segments + 1 points (the first repeated at the end).
/// [in] center; [in] radius; [in] segments (below 3 taken as 3);
/// [in] normalAxis; [out] mesh. Cost: O(segments).
KXGEOM_API void constructCircle(const kxLinear::Point& center, float radius, int segments,
                                int normalAxis, CompactMesh& mesh);

/// An open circular arc as one line strip of segments + 1 vertices from
/// angle `startAngle` to `endAngle` (radians, measured as for
/// constructCircle), in the plane perpendicular to `normalAxis`.
/// [in] center; [in] radius; [in] startAngle; [in] endAngle; [in] segments
/// (below 1 taken as 1); [in] normalAxis; [out] mesh. Cost: O(segments).
KXGEOM_API void constructArc(const kxLinear::Point& center, float radius, float startAngle,
                             float endAngle, int segments, int normalAxis, CompactMesh& mesh);

/// A flat annular sector in the plane z = 0 around the origin, facing +z,
/// spanning angles from min(0, sweep) to max(0, sweep) (radians, from +x
/// towards +y), so it faces +z for either sign: segments + 1 pairs of
/// vertices in angle order (the smaller radius at even, the larger at odd
/// indices) and
/// 2*segments triangles, with normals (0, 0, 1).
/// [in] innerRadius; [in] outerRadius; [in] sweep; [in] segments (below 1
/// taken as 1); [out] mesh. Cost: O(segments).
KXGEOM_API void constructAnnularArc(float innerRadius, float outerRadius, double sweep,
                                    int segments, CompactMesh& mesh);

/// Moves the vertices of a mesh built by constructAnnularArc to new radii
/// and sweep, keeping its topology, and sends one notice of type 0
/// (positions moved). Precondition: the mesh came from constructAnnularArc
/// (an even vertex count of at least 4); otherwise it is left unchanged.
/// [in] innerRadius; [in] outerRadius; [in] sweep; [in,out] mesh. Cost: O(V).
KXGEOM_API void updateAnnularArc(float innerRadius, float outerRadius, double sweep,
                                 CompactMesh& mesh);

/// The parallelogram of `plane` with vertices origin, origin+u, origin+v and
/// origin+u+v, as two triangles facing u x v, with normals.
/// [in] plane; [out] mesh. Cost: O(1).
KXGEOM_API void constructRectangle(const kxLinear::ParamPlane& plane, CompactMesh& mesh);

/// An axis-aligned rectangle in the plane z = `z` as a grid of
/// `subdivisions` x `subdivisions` cells, two triangles per cell; vertex
/// (i, j) of the (subdivisions+1)^2 grid is j*(subdivisions+1) + i, i along x.
/// [in] min, max: (x, y) corners; [in] z; [in] subdivisions (below 1 taken
/// as 1); [out] mesh; [in] withNormals: also write normals. The rectangle
/// faces +z when max exceeds min on both axes (in general it faces
/// (max-min)_x x (max-min)_y; a degenerate one gets normals (0, 0, 1)).
/// The overload with uvMin and uvMax also writes UVs interpolated over the
/// grid from uvMin at `min` to uvMax at `max`. Cost: O(subdivisions^2).
KXGEOM_API void constructRectangle(const float* const min, const float* const max, float z,
                                   int subdivisions, CompactMesh& mesh, bool withNormals);
KXGEOM_API void constructRectangle(const float* const min, const float* const max, float z,
                                   int subdivisions, CompactMesh& mesh, bool withNormals,
                                   const float* const uvMin, const float* const uvMax);
/// The same grid as quadrilateral faces of a topological mesh, twins linked.
KXGEOM_API void constructRectangle(const float* const min, const float* const max, float z,
                                   int subdivisions, TopoMesh& mesh);

/// constructRectangle for the square of side `size` centred on (x, y) =
/// `center`. [in] center: two floats. Other arguments as constructRectangle.
KXGEOM_API void constructSquare(const float* const center, float size, int subdivisions,
                                CompactMesh& mesh, bool withNormals);
KXGEOM_API void constructSquare(const float* const center, float size, int subdivisions,
                                TopoMesh& mesh);

/// The parallelogram with a corner at `corner` and edges to `uEnd` and
/// `vEnd` (three floats each): vertices corner, uEnd, vEnd and the opposite
/// corner uEnd+vEnd-corner, two triangles facing (uEnd-corner) x (vEnd-corner).
/// [in] corner, uEnd, vEnd; [out] mesh; [in] withNormals. The overload with
/// uvMin and uvMax also writes UVs (uvMin at the corner, uvMax opposite).
/// Cost: O(1).
KXGEOM_API void constructRectangularCorner(const float* const corner, const float* const uEnd,
                                           const float* const vEnd, CompactMesh& mesh,
                                           bool withNormals);
KXGEOM_API void constructRectangularCorner(const float* const corner, const float* const uEnd,
                                           const float* const vEnd, CompactMesh& mesh,
                                           bool withNormals, const float* const uvMin,
                                           const float* const uvMax);

/// A segment as two vertices and one line element (0, 1).
/// [in] start, end; [out] mesh. Cost: O(1).
KXGEOM_API void constructLineSegment(const kxLinear::Point& start, const kxLinear::Point& end,
                                     CompactMesh& mesh);
/// The segment of `line` from parameter t0 to t1.
/// [in] line; [out] mesh; [in] t0, t1. Cost: O(1).
KXGEOM_API void constructLineSegment(const kxLinear::ParamLine& line, CompactMesh& mesh, float t0,
                                     float t1);

/// A polyline as one line strip over the given points in order (a copy of
/// each, narrowed to float; 2D points get z = 0). With `closed` the strip
/// returns to its first point (one more strip index, no extra vertex).
/// [in] points; [in] closed. Returns a new mesh (never null; empty with no
/// points). Cost: O(n).
KXGEOM_API kx::Reference<CompactMesh> constructLineStrip(const kx::vector<kxLinear::Point>& points,
                                                         bool closed);
KXGEOM_API kx::Reference<CompactMesh> constructLineStrip(const kx::vector<kxLinear::Point2>& points,
                                                         bool closed);
KXGEOM_API kx::Reference<CompactMesh> constructLineStrip(
    const kx::vector<kxLinear::Point2Flt>& points, bool closed);

/// A stand-in for an infinite line: one line element between
/// origin - L*d and origin + L*d, with d the unit direction and
/// L = kInfiniteLineHalfLength, far beyond any model of interactive size.
/// A zero direction gives a degenerate element at the origin.
/// [in] line. Returns a new mesh (never null). Cost: O(1).
KXGEOM_API kx::Reference<CompactMesh> constructInfiniteLine(const kxLinear::Line& line);
/// Half-length (length units) of the segment that stands for an infinite line.
constexpr double kInfiniteLineHalfLength = 1e6;

/// The twelve edges of a box as line strips over its 8 corners (corner code:
/// bit 0 maximum x, bit 1 maximum y, bit 2 maximum z): the bottom and top
/// loops as two closed strips of 5 points, then the four vertical edges as
/// strips of 2. [in] box; [out] mesh. Cost: O(1).
KXGEOM_API void constructBoxEdgeLineStrips(const BoundingBox& box, CompactMesh& mesh);

/// A cube of 8 vertices and 6 outward quadrilateral faces, twins linked.
/// [in] range: [minimum, maximum] on every axis; [out] mesh: replaced.
/// Cost: O(1).
KXGEOM_API void constructQuadCube(const float* const range, TopoMesh& mesh);

/// An octahedron centred at the plane's origin with vertices along +-u,
/// +-v and +-(u x v) (normalised), each triangle split into four `level`
/// times, every vertex placed at distance `radius` from the centre: a
/// closed, outward-wound sphere approximation of 8*4^level triangles.
/// [in] plane; [in] level (clamped to [0, 10]); [in] radius.
/// Returns a new mesh owned by the caller (never null). Cost: O(4^level).
KXGEOM_API TopoMesh* constructSubdividedOctahedron(const kxLinear::ParamPlane& plane, int level,
                                                   double radius);

/// The convex region inside `boundary`, as a fan of triangles from its first
/// vertex in the z = 0 plane, wound to face +z whatever the boundary's
/// direction, with normals (0, 0, 1). A closing vertex that repeats the first
/// is not duplicated. Fewer than three distinct vertices give a mesh with the
/// vertices and no triangles. The boundary is not checked for convexity: a
/// concave one gives overlapping triangles.
/// [in] boundary  the convex outline. Returns a new mesh (never null).
/// Cost: O(n).
KXGEOM_API kx::Reference<CompactMesh> constructPolygonFromConvexBoundary(
    const Polyline2d& boundary);

}  // namespace kxGeom
