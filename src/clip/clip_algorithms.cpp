// Mesh and segment walks over the clip volume.
#include <kxgeom/clip.h>

#include <algorithm>
#include <array>

namespace kxGeom {
namespace Clip {

namespace {

constexpr std::uint32_t kUVMask = 0x30;  // components 4 (u) and 5 (v)
constexpr double kFaceSlack = 1.000001;  // relative slack at face crossings

// Where a clip-space vertex lands on the screen: its perspective division.
// Facing is the winding of these positions, not of the homogeneous points,
// whose determinant loses the winding when w vanishes or changes sign.
kxLinear::PointFlt screenPosition(const Clip::Vertex& v) {
  return kxLinear::PointFlt(v.x / v.w, v.y / v.w, 0.0f);
}

constexpr Region makeRegion(std::uint32_t code) {
  const std::uint32_t axisBits[3] = {0x03, 0x0C, 0x30};
  std::uint32_t outsideAxes = 0;
  int count = 0;
  for (std::uint32_t bits : axisBits) {
    if ((code & bits) == bits) return Region{RegionInvalid, 0};
    if (code & bits) {
      outsideAxes |= bits;
      ++count;
    }
  }
  switch (count) {
    case 0:
      return Region{RegionInside, 0};
    case 1:
      return Region{RegionFace, outsideAxes};
    case 2:
      return Region{RegionEdge, outsideAxes};
    default:
      return Region{RegionCorner, 0};
  }
}

constexpr std::array<Region, 64> makeRegionTable() {
  std::array<Region, 64> table{};
  for (std::uint32_t code = 0; code < 64; ++code) table[code] = makeRegion(code);
  return table;
}

constexpr std::array<Region, 64> kRegionTable = makeRegionTable();

int axisOfFaceMask(std::uint32_t mask) { return mask == 0x03 ? 0 : (mask == 0x0C ? 1 : 2); }

HPoint toHPoint(const Vertex& v) { return HPoint(v.x, v.y, v.z, v.w); }

HPoint toHPoint(const ClipVert& v) { return HPoint(v[0], v[1], v[2], v[3]); }

double component(const Vertex& v, int k) { return k == 0 ? v.x : (k == 1 ? v.y : v.z); }

// Intersects the line through a and b with the plane coordinate k = s*w, s
// being -1 when `code` (the outcode of the endpoint that chose this test) lies
// below axis k and +1 otherwise, and asks whether the other two coordinates
// lie strictly within +-w (with the relative slack) there.
bool faceTest(const Vertex& a, const Vertex& b, int k, std::uint32_t code) {
  const double s = (code & (1u << (2 * k))) ? -1.0 : 1.0;
  const double ak = component(a, k), bk = component(b, k);
  const double denom = (ak - bk) - (double(a.w) - double(b.w)) * s;
  if (denom == 0.0) return false;
  const double t = (ak - s * a.w) / denom;
  const double w = a.w + (double(b.w) - a.w) * t;
  const double limit = w * kFaceSlack;
  for (int i = 0; i < 3; ++i) {
    if (i == k) continue;
    const double c = component(a, i) + (component(b, i) - component(a, i)) * t;
    if (!(c > -limit && c < limit)) return false;
  }
  return true;
}

// Edge regions test two faces: y then z for the y-z edge, x then y for the
// others -- the x-z edge included, which is how this test has always behaved.
bool edgeTest(const Vertex& a, const Vertex& b, std::uint32_t code, std::uint32_t mask) {
  const int first = mask == 0x3C ? 1 : 0;
  return faceTest(a, b, first, code) || faceTest(a, b, first + 1, code);
}

bool cornerTest(const Vertex& a, const Vertex& b, std::uint32_t code) {
  return faceTest(a, b, 0, code) || faceTest(a, b, 1, code) || faceTest(a, b, 2, code);
}

// Both endpoints outside, no common outside plane: decide by the regions.
bool outsideSegmentMeets(const Vertex& a, const Vertex& b, bool quickSlab) {
  const Region ra = kRegionTable[a.outcode & 63], rb = kRegionTable[b.outcode & 63];
  if (quickSlab && ra.kind == RegionFace && rb.kind == RegionFace && ra.axisMask == rb.axisMask) {
    return true;  // opposite sides of one slab, inside the other two
  }
  for (RegionKind kind : {RegionFace, RegionEdge, RegionCorner}) {
    const Vertex* chooser = ra.kind == kind ? &a : (rb.kind == kind ? &b : nullptr);
    if (!chooser) continue;
    const Region& r = chooser == &a ? ra : rb;
    switch (kind) {
      case RegionFace:
        return faceTest(a, b, axisOfFaceMask(r.axisMask), chooser->outcode);
      case RegionEdge:
        return edgeTest(a, b, chooser->outcode, r.axisMask);
      default:
        return cornerTest(a, b, chooser->outcode);
    }
  }
  return false;  // both endpoints have an axis with both sides set (w < 0)
}

bool isSelected(const BitVector& selection, int i) {
  return i < selection.size() && selection.isBitSet(i);
}

bool validIndex(int i, int n) { return i >= 0 && i < n; }

}  // namespace

Region classifyRegion(std::uint32_t outcode) { return kRegionTable[outcode & 63]; }

// --- TriangleAlgorithm --------------------------------------------------------

bool TriangleAlgorithm::evaluateMesh(const CompactMesh& mesh,
                                     const kxLinear::ProjMatrixFlt& matrix) {
  const int nv = mesh.getNumVertices();
  if (nv < 3) return false;
  const Result r = projectVertices(mesh, matrix, projected_, false);
  if (r == AllOutside) return false;
  if (!func_ && r == SomeInside) return true;

  const MeshUV* uvs = mesh.getUVs();
  const MeshTriangle* tris = mesh.getTriangles();
  const BitVector& selection = mesh.getSelectedTriangles();
  stopped_ = false;
  bool any = false;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    if (selectedOnly_ && !isSelected(selection, t)) continue;
    const MeshTriangle& tri = tris[t];
    if (!validIndex(tri[0], nv) || !validIndex(tri[1], nv) || !validIndex(tri[2], nv)) continue;
    triangleNum_ = t;
    const MeshUV corners[3] = {uvs ? uvs[tri[0]] : MeshUV{0, 0}, uvs ? uvs[tri[1]] : MeshUV{0, 0},
                               uvs ? uvs[tri[2]] : MeshUV{0, 0}};
    if (!evaluateTriangle(projected_[tri[0]], projected_[tri[1]], projected_[tri[2]],
                          uvs ? corners : nullptr)) {
      continue;
    }
    any = true;
    if (!func_ || stopped_) break;
  }
  return any;
}

bool TriangleAlgorithm::evaluateTriangle(const Vertex& a, const Vertex& b, const Vertex& c,
                                         const MeshUV* uvs) {
  if (a.outcode & b.outcode & c.outcode) return false;
  if (cullFace(screenPosition(a), screenPosition(b), screenPosition(c))) {
    return false;
  }
  const Vertex* corners[3] = {&a, &b, &c};
  polygon_.count = 3;
  polygon_.mask = 0x0F | (uvs ? kUVMask : 0u);
  for (int i = 0; i < 3; ++i) {
    ClipVert& v = polygon_.vertices[i];
    v = ClipVert{};
    v[0] = corners[i]->x;
    v[1] = corners[i]->y;
    v[2] = corners[i]->z;
    v[3] = corners[i]->w;
    if (uvs) {
      v[4] = uvs[i].u;
      v[5] = uvs[i].v;
    }
  }
  if (clipTriangle(polygon_, ClipBox()) == Rejected) return false;
  if (func_ && !stopped_) stopped_ = !reportPieces();
  return true;
}

bool TriangleAlgorithm::reportPieces() {
  const ClipVert* v = polygon_.vertices;
  for (piece_ = 2; piece_ < polygon_.count; ++piece_) {
    if (!func_(userData_, toHPoint(v[0]), toHPoint(v[piece_ - 1]), toHPoint(v[piece_]))) {
      return false;
    }
  }
  return true;
}

bool TriangleAlgorithm::cullFace(const kxLinear::PointFlt& a, const kxLinear::PointFlt& b,
                                 const kxLinear::PointFlt& c) {
  const double area2 =
      (double(b.x) - a.x) * (double(c.y) - a.y) - (double(b.y) - a.y) * (double(c.x) - a.x);
  const bool counterClockwise = area2 > 0.0;
  frontFacing_ = clockwiseFront_ ? !counterClockwise : counterClockwise;
  return (cullFront_ && frontFacing_) || (cullBack_ && !frontFacing_);
}

void TriangleAlgorithm::getUVs(MeshUV& uv0, MeshUV& uv1, MeshUV& uv2) const {
  const int idx[3] = {0, piece_ - 1, piece_};
  MeshUV* out[3] = {&uv0, &uv1, &uv2};
  for (int i = 0; i < 3; ++i) {
    const bool valid = idx[i] >= 0 && idx[i] < polygon_.count;
    const ClipVert& v = polygon_.vertices[valid ? idx[i] : 0];
    *out[i] = valid ? MeshUV{float(v[4]), float(v[5])} : MeshUV{0, 0};
  }
}

// --- LineAlgorithm --------------------------------------------------------------

bool LineAlgorithm::evaluateSegment(const Vertex& a, const Vertex& b) {
  if (a.outcode & b.outcode) return false;
  const bool hit = a.outcode == 0 || b.outcode == 0 || outsideSegmentMeets(a, b, func_ == nullptr);
  if (hit && func_ && !stopped_) stopped_ = !func_(userData_, toHPoint(a), toHPoint(b));
  return hit;
}

bool LineAlgorithm::beginWalk(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix,
                              bool& answer) {
  stopped_ = false;
  // Without a segment function an inside endpoint answers the walk at once.
  const Result r = projectVertices(points, n, matrix, projected_, func_ == nullptr);
  answer = r == SomeInside;
  return r == Straddling || (r == SomeInside && func_);
}

bool LineAlgorithm::testPair(int segment, int i, int j, bool& any) {
  segmentNum_ = segment;
  const bool hit = evaluateSegment(projected_[i], projected_[j]);
  any = any || hit;
  return !stopped_ && !(hit && !func_);
}

bool LineAlgorithm::evaluateSegments(const float* points, int n,
                                     const kxLinear::ProjMatrixFlt& matrix) {
  const int used = n > 0 ? n & ~1 : 0;  // an odd last point has no partner
  bool any = false;
  if (!beginWalk(points, used, matrix, any)) return any;
  any = false;
  for (int i = 0; i < used && testPair(i / 2, i, i + 1, any); i += 2) {
  }
  return any;
}

bool LineAlgorithm::evaluateStrip(const float* points, int n,
                                  const kxLinear::ProjMatrixFlt& matrix) {
  if (n < 2) return false;
  bool any = false;
  if (!beginWalk(points, n, matrix, any)) return any;
  any = false;
  for (int i = 0; i + 1 < n && testPair(i, i, i + 1, any); ++i) {
  }
  return any;
}

bool LineAlgorithm::evaluateMesh(const CompactMesh& mesh, const kxLinear::ProjMatrixFlt& matrix) {
  const int nv = mesh.getNumVertices();
  stopped_ = false;
  // Mesh vertices need not all belong to lines, so an inside vertex answers
  // nothing by itself: project them all.
  if (projectVertices(mesh, matrix, projected_, false) == AllOutside) return false;
  bool any = false;
  int segment = 0;
  const MeshLine* lines = mesh.getLines();
  for (int l = 0; l < mesh.getNumLines(); ++l, ++segment) {
    const MeshLine& line = lines[l];
    if (!validIndex(line[0], nv) || !validIndex(line[1], nv)) continue;
    if (!testPair(segment, line[0], line[1], any)) return any;
  }
  const int* lengths = mesh.getLineStripLengths();
  const int* points = mesh.getLineStripPoints();
  const int numPoints = mesh.getNumLineStripPoints();
  int start = 0;
  for (int s = 0; s < mesh.getNumLineStrips() && start < numPoints; ++s) {
    // Lengths are clamped to the points that remain.
    const int end = start + std::min(std::max(lengths[s], 0), numPoints - start);
    for (int p = start; p + 1 < end; ++p, ++segment) {
      if (!validIndex(points[p], nv) || !validIndex(points[p + 1], nv)) continue;
      if (!testPair(segment, points[p], points[p + 1], any)) return any;
    }
    start = end;
  }
  return any;
}

}  // namespace Clip
}  // namespace kxGeom
