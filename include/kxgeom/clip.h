// Homogeneous clip-space classification and clipping.
//
// Points are transformed by a single-precision projection matrix into clip
// coordinates (x, y, z, w) = (px, py, pz, 1) * M and classified by outcodes
// against the canonical volume -w <= x, y, z <= w. Whole point sets are
// accepted or rejected at once; triangles are clipped into convex polygons
// against a `ClipBox`; `Clip::TriangleAlgorithm` and `Clip::LineAlgorithm`
// walk a mesh's triangles or a set of segments and hand the visible pieces to
// a caller-supplied function.
#pragma once

#include <cstdint>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// A homogeneous point (x, y, z, w) in double precision.
struct HPoint {
  double x = 0, y = 0, z = 0, w = 1;

  HPoint() = default;
  HPoint(double x_, double y_, double z_, double w_) : x(x_), y(y_), z(z_), w(w_) {}
  double& operator[](int i) { return (&x)[i]; }
  const double& operator[](int i) const { return (&x)[i]; }
};

/// The clipping volume in homogeneous form: (x, y, z, w) is inside when
/// xmin*w <= x <= xmax*w and likewise for y and z. Plain value.
struct ClipBox {
  double xmin = -1, xmax = 1, ymin = -1, ymax = 1, zmin = -1, zmax = 1;

  /// The canonical volume: -1, 1 on every axis.
  ClipBox() = default;
  ClipBox(double x0, double x1, double y0, double y1, double z0, double z1)
      : xmin(x0), xmax(x1), ymin(y0), ymax(y1), zmin(z0), zmax(z1) {}
  /// Bound i in the order xmin, xmax, ymin, ymax, zmin, zmax (0 <= i < 6).
  double bound(int i) const { return (&xmin)[i]; }
};

/// One polygon vertex: components 0-3 are the homogeneous position x, y, z,
/// w; components 4-15 are attributes carried along (texture coordinates and
/// the like). `Clip::TriangleAlgorithm` carries a vertex's UV in 4 and 5.
struct ClipVert {
  double c[16];

  double& operator[](int k) { return c[k]; }
  const double& operator[](int k) const { return c[k]; }
};

/// A convex polygon under clipping.
struct ClipPolygon {
  /// Capacity of `vertices`. A triangle clipped by six planes never exceeds 9
  /// vertices, a convex quadrilateral never exceeds 10.
  static constexpr int kCapacity = 10;

  int count = 0;              ///< vertices in use
  std::uint32_t mask = 0x0F;  ///< bit k: component k is interpolated at new vertices
  ClipVert vertices[kCapacity];
};

/// The result of `clipTriangle`.
enum IntersectionResult : std::int32_t {
  Rejected = 0,  ///< polygon emptied
  Clipped = 1,   ///< polygon replaced by its clipped part
  Accepted = 2,  ///< polygon untouched
};

/// Clips a convex polygon against a box, in place (Sutherland-Hodgman, one
/// pass per plane that has a vertex strictly outside it, in the order xmin,
/// xmax, ymin, ymax, zmin, zmax). A vertex exactly on a plane is inside. At a
/// new intersection vertex only the components whose bit is set in
/// `polygon.mask` are written, the others keep what the slot held before.
/// [in,out] polygon  0 <= count <= ClipPolygon::kCapacity, convex; holds the
///                   clipped polygon afterwards (count 0 when rejected).
/// [in] box          the volume.
/// Returns Accepted when no vertex is outside (polygon bit for bit untouched),
/// Rejected when all vertices lie outside one plane or a pass leaves nothing,
/// else Clipped. Failure: a count outside [0, kCapacity] is Rejected (count
/// set to 0). Input whose clipped part would exceed the capacity (only
/// possible for non-convex polygons or more than four vertices) is cut off
/// at the capacity.
/// Cost O(count). Re-entrant.
KXGEOM_API IntersectionResult clipTriangle(ClipPolygon& polygon, const ClipBox& box);

namespace Clip {

/// Outcode bits: the planes of the canonical volume a point lies beyond.
enum OutcodeBits : std::uint32_t {
  OutXMin = 0x01,  ///< x < -w
  OutXMax = 0x02,  ///< x > w
  OutYMin = 0x04,  ///< y < -w
  OutYMax = 0x08,  ///< y > w
  OutZMin = 0x10,  ///< z < -w
  OutZMax = 0x20,  ///< z > w
};

/// One projected point: clip coordinates and outcode (0 when inside).
struct Vertex {
  float x, y, z, w;
  std::uint32_t outcode;
};

/// Classification of a point set.
enum Result : std::int32_t {
  AllOutside = 0,  ///< empty, or every point beyond one and the same plane
  Straddling = 1,  ///< no point inside, but no common outside plane
  SomeInside = 2,  ///< at least one point inside the volume
};

/// The outcode of clip coordinates (x, y, z, w); a point exactly on a plane
/// is inside. NaN coordinates set no bit. Cost O(1). Re-entrant.
KXGEOM_API std::uint32_t computeOutcode(float x, float y, float z, float w);

/// Classifies a point set, stopping at the first inside point.
/// [in] points  n packed float triples (model units).
/// [in] n       number of points; n < 1 gives AllOutside.
/// [in] matrix  the projection.
/// Returns SomeInside, Straddling or AllOutside (see `Result`).
/// Cost O(n). Re-entrant.
KXGEOM_API Result clipVertices(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix);
/// As above for a mesh's vertex array. Cost O(vertices). Re-entrant.
KXGEOM_API Result clipVertices(const PointMesh& mesh, const kxLinear::ProjMatrixFlt& matrix);

/// Whether one point lies inside the volume (its classification is
/// SomeInside). A point on a plane is inside.
/// [in] point   one float triple.
/// [in] matrix  the projection.
/// Cost O(1). Re-entrant.
KXGEOM_API bool evaluatePoint(const float* point, const kxLinear::ProjMatrixFlt& matrix);

/// Projects and classifies a point set, keeping every projected vertex.
/// [in] points  n packed float triples.
/// [in] n       number of points; n < 1 gives AllOutside.
/// [in] matrix  the projection.
/// [out] out    resized to n and filled with the projected vertices in order;
///              emptied when `stopWhenInside` ends the pass.
/// [in] stopWhenInside  return SomeInside at the first inside point.
/// Returns as `clipVertices`.
/// Cost O(n); `out` reallocates only when it grows. Re-entrant.
KXGEOM_API Result projectVertices(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix,
                                  kx::vector<Vertex>& out, bool stopWhenInside);
/// As above for a mesh's vertex array.
KXGEOM_API Result projectVertices(const PointMesh& mesh, const kxLinear::ProjMatrixFlt& matrix,
                                  kx::vector<Vertex>& out, bool stopWhenInside);

/// Region of an outcode as used by the segment test.
enum RegionKind : std::int32_t {
  RegionInside = 0,   ///< outcode 0
  RegionFace = 1,     ///< outside on one axis
  RegionEdge = 2,     ///< outside on two axes
  RegionCorner = 3,   ///< outside on all three axes
  RegionInvalid = 4,  ///< both sides of one axis set (only when w < 0)
};

/// One entry of the 64-entry region table.
struct Region {
  RegionKind kind;
  /// Axis mask: 0x03 (x), 0x0C (y) or 0x30 (z) for faces; 0x0F (x and y),
  /// 0x33 (x and z) or 0x3C (y and z) for edges; 0 otherwise.
  std::uint32_t axisMask;
};

/// The region table entry of an outcode (only its low six bits are used).
/// Cost O(1). Re-entrant.
KXGEOM_API Region classifyRegion(std::uint32_t outcode);

/// Walks a mesh's triangles, culls them by facing, clips the survivors
/// against the canonical volume and reports the visible pieces.
///
/// Thread safety: an object keeps per-walk state and scratch buffers; use one
/// object per thread. Distinct objects may walk the same mesh concurrently.
class KXGEOM_API TriangleAlgorithm {
 public:
  /// Receives one visible piece (a triangle in clip coordinates); returning
  /// false stops the walk.
  using TriangleFunc = bool (*)(void* userData, const HPoint&, const HPoint&, const HPoint&);

  TriangleAlgorithm() = default;
  virtual ~TriangleAlgorithm() = default;

  /// [in] func      the piece function, or null for a plain visibility test.
  /// [in] userData  passed to `func` unchanged.
  void setTriangleFunc(TriangleFunc func, void* userData) {
    func_ = func;
    userData_ = userData;
  }
  /// [in] cullFront, cullBack  which facings are skipped (default none).
  void setCullFaces(bool cullFront, bool cullBack) {
    cullFront_ = cullFront;
    cullBack_ = cullBack;
  }
  /// [in] clockwiseFront  clockwise screen winding is front-facing (default
  ///                      false: counter-clockwise is front-facing).
  void setClockwiseFront(bool clockwiseFront) { clockwiseFront_ = clockwiseFront; }
  /// [in] selectedOnly  walk only the mesh's selected triangles.
  void setSelectedTrianglesOnly(bool selectedOnly) { selectedOnly_ = selectedOnly; }

  /// Walks the mesh.
  /// [in] mesh    at least 3 vertices; triangles with an index outside
  ///              [0, vertices) are skipped. A triangle selection shorter than
  ///              the triangle array leaves the rest unselected.
  /// [in] matrix  the projection.
  /// Returns false when the mesh has fewer than 3 vertices or all vertices lie
  /// beyond one plane; true without a piece function when some vertex is
  /// inside; otherwise whether any non-culled triangle is visible. With a
  /// piece function every visible piece is reported, fanned from the clipped
  /// polygon's first vertex, until the function returns false.
  /// Cost O(vertices + triangles).
  bool evaluateMesh(const CompactMesh& mesh, const kxLinear::ProjMatrixFlt& matrix);

  /// Tests one triangle given by projected vertices and reports its pieces
  /// (unless the piece function returned false earlier in the current walk).
  /// [in] a, b, c  the projected corners in winding order.
  /// [in] uvs      the corners' UVs (three), or null.
  /// Returns false when the triangle is culled, lies beyond one plane or is
  /// clipped away; true otherwise. Cost O(1).
  bool evaluateTriangle(const Vertex& a, const Vertex& b, const Vertex& c, const MeshUV* uvs);

  /// Facing of a triangle from its projected 2D screen positions: x and y
  /// are read, z is ignored. The triangle winds counter-clockwise when
  /// (b - a) x (c - a) > 0 (x right, y up). Sets `isFrontFacing()`. Returns
  /// true when the triangle is culled: cull-front set and front-facing, or
  /// cull-back set and back-facing. A degenerate or non-finite triangle
  /// counts as clockwise. Cost O(1).
  bool cullFace(const kxLinear::PointFlt& a, const kxLinear::PointFlt& b,
                const kxLinear::PointFlt& c);
  /// The facing found by the last `cullFace`.
  bool isFrontFacing() const { return frontFacing_; }

  /// Index of the mesh triangle being evaluated (valid inside the piece
  /// function; after a walk the last triangle evaluated, -1 before any).
  int getTriangleNum() const { return triangleNum_; }
  /// The UVs of the piece being reported (zeros when the mesh has no UVs).
  /// [out] uv0, uv1, uv2  the piece's corners, interpolated by clipping.
  void getUVs(MeshUV& uv0, MeshUV& uv1, MeshUV& uv2) const;

 private:
  bool reportPieces();

  TriangleFunc func_ = nullptr;
  void* userData_ = nullptr;
  bool cullFront_ = false, cullBack_ = false;
  bool clockwiseFront_ = false;
  bool selectedOnly_ = false;
  bool frontFacing_ = false;
  bool stopped_ = false;
  int triangleNum_ = -1;
  int piece_ = 0;
  ClipPolygon polygon_;
  kx::vector<Vertex> projected_;
};

/// Tests segments against the canonical volume and reports those that meet
/// it. A segment with an inside endpoint always meets the volume; it is
/// reported whole. A segment with both endpoints outside is decided by the
/// region test of its endpoints' outcodes (see `classifyRegion`), with a
/// relative slack of 1e-6 at the face crossings. Reported segments are the
/// original endpoints, not clipped.
///
/// Thread safety: as `TriangleAlgorithm`.
class KXGEOM_API LineAlgorithm {
 public:
  /// Receives one segment that meets the volume; returning false stops the
  /// walk.
  using LineFunc = bool (*)(void* userData, const HPoint&, const HPoint&);

  LineAlgorithm() = default;
  virtual ~LineAlgorithm() = default;

  /// [in] func      the segment function, or null for a plain visibility test.
  /// [in] userData  passed to `func` unchanged.
  void setLineFunc(LineFunc func, void* userData) {
    func_ = func;
    userData_ = userData;
  }

  /// Tests the mesh's lines, then the segments of its line strips; segment
  /// numbers count the lines first, then the strip segments. Lines or strip
  /// points with an index outside [0, vertices) are skipped; strip lengths
  /// are clamped to the strip points that remain. A mesh vertex inside the
  /// volume answers nothing by itself (it need not lie on a line).
  /// [in] mesh    the lines and line strips with their vertices.
  /// [in] matrix  the projection.
  /// Returns whether any segment meets the volume (without a segment function
  /// the walk stops at the first).
  /// Cost O(vertices + lines + strip points).
  bool evaluateMesh(const CompactMesh& mesh, const kxLinear::ProjMatrixFlt& matrix);
  /// Tests independent segments (0,1), (2,3), ...; an odd last point is
  /// ignored.
  /// [in] points  n packed float triples (model units).
  /// [in] n       number of points.
  /// [in] matrix  the projection.
  /// Returns as `evaluateMesh`. Cost O(n).
  bool evaluateSegments(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix);
  /// Tests the connected polyline (0,1), (1,2), ..., (n-2, n-1); fewer than
  /// two points give false.
  /// [in] points, n, matrix  as `evaluateSegments`.
  /// Returns as `evaluateMesh`. Cost O(n).
  bool evaluateStrip(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix);

  /// Tests one segment of projected vertices and reports it on a hit (unless
  /// the segment function returned false earlier in the current walk).
  /// [in] a, b  the projected endpoints.
  /// Returns whether it meets the volume. Cost O(1).
  bool evaluateSegment(const Vertex& a, const Vertex& b);

  /// Number, in walk order from 0, of the segment being tested (valid inside
  /// the segment function; after a walk the last segment tested, -1 before
  /// any).
  int getLineSegmentNum() const { return segmentNum_; }

 private:
  bool beginWalk(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix, bool& answer);
  bool testPair(int segment, int i, int j, bool& any);

  LineFunc func_ = nullptr;
  void* userData_ = nullptr;
  bool stopped_ = false;
  int segmentNum_ = -1;
  kx::vector<Vertex> projected_;
};

}  // namespace Clip

}  // namespace kxGeom
