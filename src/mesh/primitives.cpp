#include <kxgeom/primitives.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <utility>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/os.h>

namespace kxGeom {

namespace {

// True when a shape of these counts can be stored with int indices, three
// per triangle; otherwise logs why `shape` leaves the mesh as it was.
bool countsFit(const char* shape, std::int64_t vertices, std::int64_t triangles) {
  if (vertices <= INT_MAX && 3 * triangles <= INT_MAX) return true;
  debugChannel().print("%s: %lld vertices and %lld triangles exceed the index range\n", shape,
                       static_cast<long long>(vertices), static_cast<long long>(triangles));
  return false;
}

// countsFit for a square grid of `cells` x `cells` cells.
bool gridFits(const char* shape, int cells) {
  const std::int64_t row = std::int64_t(cells) + 1;
  return countsFit(shape, row * row, 2 * std::int64_t(cells) * cells);
}

constexpr double kPi = 3.14159265358979323846;

// The arrays of a shape under construction; `install` swaps them into the
// caller's mesh as a fresh mesh, so nothing of its old content survives.
struct ShapeBuffers {
  kx::vector<MeshVertex> vertices;
  kx::vector<MeshNormal> normals;
  kx::vector<MeshUV> uvs;
  kx::vector<int> triangles;

  void addTriangle(int a, int b, int c) { triangles.insert(triangles.end(), {a, b, c}); }
  CompactMesh build() const {
    const int n = static_cast<int>(vertices.size());
    CompactMesh mesh(n, vertices.data(), normals.empty() ? nullptr : normals.data(),
                     uvs.empty() ? nullptr : uvs.data(), nullptr);
    mesh.copyTriangles(static_cast<int>(triangles.size() / 3), triangles.data());
    return mesh;
  }
  void install(CompactMesh& out) const {
    CompactMesh mesh = build();
    out.swap(mesh);
  }
};

MeshVertex toVertex(const kxLinear::Point& p) { return {float(p.x), float(p.y), float(p.z)}; }
MeshNormal toNormal(const kxLinear::Vector& n) { return {float(n.x), float(n.y), float(n.z)}; }

// The unit normal of a surface spanned by du and dv; (0, 0, 1) when they
// are parallel.
kxLinear::Vector surfaceNormal(const kxLinear::Vector& du, const kxLinear::Vector& dv) {
  const kxLinear::Vector n = kxLinear::cross(du, dv);
  return n.length2() > 0 ? kxLinear::normalized(n) : kxLinear::Vector(0, 0, 1);
}

// An optional texture range of a grid: UV (s, t) in [0, 1]^2 maps to
// uvMin + (uvMax - uvMin) * (s, t).
struct UVRange {
  const float* min = nullptr;
  const float* max = nullptr;
  bool present() const { return min && max; }
  MeshUV at(double s, double t) const {
    return {float(min[0] + (max[0] - min[0]) * s), float(min[1] + (max[1] - min[1]) * t)};
  }
};

// A (cells+1)^2 vertex grid origin + du*i/cells + dv*j/cells, vertex (i, j)
// at j*(cells+1) + i, two triangles per cell facing du x dv.
ShapeBuffers gridShape(const kxLinear::Point& origin, const kxLinear::Vector& du,
                       const kxLinear::Vector& dv, int cells, bool withNormals, UVRange uv) {
  ShapeBuffers s;
  const int row = cells + 1;
  const MeshNormal normal = toNormal(surfaceNormal(du, dv));
  for (int j = 0; j <= cells; ++j) {
    for (int i = 0; i <= cells; ++i) {
      const double fs = double(i) / cells, ft = double(j) / cells;
      s.vertices.push_back(toVertex(origin + du * fs + dv * ft));
      if (withNormals) s.normals.push_back(normal);
      if (uv.present()) s.uvs.push_back(uv.at(fs, ft));
    }
  }
  for (int j = 0; j < cells; ++j) {
    for (int i = 0; i < cells; ++i) {
      const int a = j * row + i, b = a + 1, c = a + row, d = c + 1;
      s.addTriangle(a, b, d);
      s.addTriangle(a, d, c);
    }
  }
  return s;
}

// The same grid as quadrilateral faces of a topological mesh.
void gridTopo(const kxLinear::Point& origin, const kxLinear::Vector& du, const kxLinear::Vector& dv,
              int cells, TopoMesh& out) {
  TopoMesh mesh;
  const int row = cells + 1;
  for (int j = 0; j <= cells; ++j) {
    for (int i = 0; i <= cells; ++i) {
      mesh.addVertex(origin + du * (double(i) / cells) + dv * (double(j) / cells));
    }
  }
  for (int j = 0; j < cells; ++j) {
    for (int i = 0; i < cells; ++i) {
      const int a = j * row + i;
      const TopoMeshVertex quad[4] = {TopoMeshVertex(a), TopoMeshVertex(a + 1),
                                      TopoMeshVertex(a + row + 1), TopoMeshVertex(a + row)};
      mesh.addFace(quad, 4);
    }
  }
  meshTwin(mesh);
  out.swap(mesh);
}

// Axis-aligned rectangle in z = `z` from min to max (x, y).
void rectangleFrame(const float* min, const float* max, float z, kxLinear::Point& origin,
                    kxLinear::Vector& du, kxLinear::Vector& dv) {
  origin = kxLinear::Point(min[0], min[1], z);
  du = kxLinear::Vector(double(max[0]) - min[0], 0, 0);
  dv = kxLinear::Vector(0, double(max[1]) - min[1], 0);
}

void squareCorners(const float* center, float size, float min[2], float max[2]) {
  for (int k = 0; k < 2; ++k) {
    min[k] = center[k] - 0.5f * size;
    max[k] = center[k] + 0.5f * size;
  }
}

kxLinear::Point pointOf(const float* p) { return kxLinear::Point::from(p); }

void rectangularCorner(const float* corner, const float* uEnd, const float* vEnd, CompactMesh& mesh,
                       bool withNormals, UVRange uv) {
  const kxLinear::Point o = pointOf(corner);
  gridShape(o, pointOf(uEnd) - o, pointOf(vEnd) - o, 1, withNormals, uv).install(mesh);
}

kxLinear::Point planarOrSpatial(const kxLinear::Point& p) { return p; }
template <class T>
kxLinear::Point planarOrSpatial(const kxLinear::Tuple2<T>& p) {
  return kxLinear::Point(p.x, p.y, 0);
}

// One line strip over `count` vertices (closed back to the first when asked).
void setSingleStrip(CompactMesh& mesh, int count, bool closed) {
  const int points = count + (closed && count > 0 ? 1 : 0);
  mesh.resizeLineStripArrays(count > 0 ? 1 : 0, points);
  if (count == 0) return;
  mesh.getLineStripLengths()[0] = points;
  for (int k = 0; k < points; ++k) mesh.getLineStripPoints()[k] = k % count;
}

template <class P>
kx::Reference<CompactMesh> lineStrip(const kx::vector<P>& points, bool closed) {
  ShapeBuffers s;
  for (const P& p : points) s.vertices.push_back(toVertex(planarOrSpatial(p)));
  kx::Reference<CompactMesh> mesh(new CompactMesh(s.build()));
  setSingleStrip(*mesh, static_cast<int>(points.size()), closed);
  return mesh;
}

// Two unit axes spanning the plane perpendicular to coordinate axis `axis`,
// ordered so that e1 x e2 points along it.
void planeAxes(int axis, kxLinear::Vector& e1, kxLinear::Vector& e2) {
  switch (axis) {
    case 0:
      e1 = kxLinear::yAxis;
      e2 = kxLinear::zAxis;
      break;
    case 1:
      e1 = kxLinear::zAxis;
      e2 = kxLinear::xAxis;
      break;
    default:
      e1 = kxLinear::xAxis;
      e2 = kxLinear::yAxis;
  }
}

// Vertices center + radius*(cos a e1 + sin a e2) for `count` angles from
// `start` in steps of `step`, as one line strip (closed back to its first
// vertex when `closed`).
void arcStrip(const kxLinear::Point& center, float radius, double start, double step, int count,
              int axis, bool closed, CompactMesh& out) {
  kxLinear::Vector e1, e2;
  planeAxes(axis, e1, e2);
  ShapeBuffers s;
  for (int k = 0; k < count; ++k) {
    const double a = start + step * k;
    s.vertices.push_back(toVertex(center + (e1 * std::cos(a) + e2 * std::sin(a)) * double(radius)));
  }
  CompactMesh mesh = s.build();
  setSingleStrip(mesh, count, closed);
  out.swap(mesh);
}

// Positions of the annular sector: pair k at angle lo + k*(hi-lo)/segments.
void annularPositions(float innerRadius, float outerRadius, double sweep, int segments,
                      MeshVertex* vertices) {
  const double lo = std::min(0.0, sweep), hi = std::max(0.0, sweep);
  const float r0 = std::min(innerRadius, outerRadius), r1 = std::max(innerRadius, outerRadius);
  for (int k = 0; k <= segments; ++k) {
    const double a = lo + (hi - lo) * k / segments;
    const float c = float(std::cos(a)), s = float(std::sin(a));
    vertices[2 * k] = {r0 * c, r0 * s, 0.0f};
    vertices[2 * k + 1] = {r1 * c, r1 * s, 0.0f};
  }
}

// The 8 corners of a box by corner code (bit 0 max x, bit 1 max y, bit 2 max z).
kxLinear::Point boxCorner(const float lo[3], const float hi[3], int code) {
  return kxLinear::Point((code & 1) ? hi[0] : lo[0], (code & 2) ? hi[1] : lo[1],
                         (code & 4) ? hi[2] : lo[2]);
}

// Splits every triangle of `tris` into four through its edge midpoints, which
// are projected back onto the unit sphere.
void subdivideOnSphere(kx::vector<kxLinear::Vector>& dirs, kx::vector<int>& tris) {
  kx::hash_map<long long, int> midpoints;
  auto midpoint = [&](int a, int b) {
    const long long key = (long long)std::min(a, b) << 32 | std::max(a, b);
    auto found = midpoints.find(key);
    if (found != midpoints.end()) return found->second;
    dirs.push_back(kxLinear::normalized(dirs[a] + dirs[b]));
    const int m = static_cast<int>(dirs.size()) - 1;
    midpoints.emplace(key, m);
    return m;
  };
  kx::vector<int> out;
  out.reserve(tris.size() * 4);
  for (std::size_t t = 0; t < tris.size(); t += 3) {
    const int a = tris[t], b = tris[t + 1], c = tris[t + 2];
    const int ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
    out.insert(out.end(), {a, ab, ca, ab, b, bc, ca, bc, c, ab, bc, ca});
  }
  tris.swap(out);
}

}  // namespace

void constructSphere(const kxLinear::Point& center, float radius, int resolution,
                     CompactMesh& mesh) {
  const int n = std::max(1, resolution);
  const int rings = 2 * n - 1, segments = 4 * n;
  const std::int64_t bands = 4 * std::int64_t(n) * (2 * std::int64_t(n) - 1);
  if (!countsFit("constructSphere", bands + 2, 2 * bands)) return;
  const float cx = float(center.x), cy = float(center.y), cz = float(center.z);
  ShapeBuffers s;
  s.vertices.reserve(std::size_t(segments) * rings + 2);
  s.normals.reserve(std::size_t(segments) * rings + 2);
  s.vertices.push_back({cx, cy, cz + radius});
  s.normals.push_back({0, 0, 1});
  s.vertices.push_back({cx, cy, cz - radius});
  s.normals.push_back({0, 0, -1});
  const float h = float(kPi / (float(n) * 2.0));
  for (int i = 0; i < rings; ++i) {
    const float theta = float(i + 1) * h;
    const float st = std::sin(theta), ct = std::cos(theta);
    float phi = 0;
    for (int j = 0; j < segments; ++j, phi += h) {
      const MeshNormal nrm{std::sin(phi) * st, std::cos(phi) * st, ct};
      s.normals.push_back(nrm);
      s.vertices.push_back({cx + radius * nrm.x, cy + radius * nrm.y, cz + radius * nrm.z});
    }
  }
  auto prev = [segments](int j) { return j == 0 ? segments - 1 : j - 1; };
  for (int j = 0; j < segments; ++j) s.addTriangle(0, 2 + j, 2 + prev(j));
  for (int i = 0; i + 1 < rings; ++i) {
    for (int j = 0; j < segments; ++j) {
      const int a = 2 + i * segments + j, p = 2 + i * segments + prev(j);
      s.addTriangle(p, a, a + segments);
      s.addTriangle(p, a + segments, p + segments);
    }
  }
  for (int j = 0; j < segments; ++j) {
    const int base = 2 + (rings - 1) * segments;
    s.addTriangle(base + j, 1, base + prev(j));
  }
  s.install(mesh);
}

void constructCuboid(const float (*const bounds)[2], CompactMesh& mesh) {
  static const int kCorners[24] = {1, 5, 3, 7, 4, 0, 6, 2, 2, 3, 6, 7,
                                   4, 5, 0, 1, 5, 4, 7, 6, 0, 1, 2, 3};
  const float lo[3] = {bounds[0][0], bounds[1][0], bounds[2][0]};
  const float hi[3] = {bounds[0][1], bounds[1][1], bounds[2][1]};
  ShapeBuffers s;
  for (int k = 0; k < 24; ++k) {
    s.vertices.push_back(toVertex(boxCorner(lo, hi, kCorners[k])));
    MeshNormal n{0, 0, 0};
    (&n.x)[k / 8] = (k % 8) < 4 ? 1.0f : -1.0f;
    s.normals.push_back(n);
  }
  for (int f = 0; f < 6; ++f) {
    const int b = 4 * f;
    s.addTriangle(b + 2, b + 1, b);
    s.addTriangle(b + 1, b + 2, b + 3);
  }
  s.install(mesh);
}

void constructCube(const float* const range, CompactMesh& mesh) {
  const float bounds[3][2] = {{range[0], range[1]}, {range[0], range[1]}, {range[0], range[1]}};
  constructCuboid(bounds, mesh);
}

void addUniformNormals(CompactMesh& mesh, const kxLinear::Vector& normal) {
  MeshNormal* normals = mesh.allocNormalArray();
  std::fill(normals, normals + mesh.getNumVertices(), toNormal(normal));
}

void constructDisk(const kxLinear::Point& center, float radius, int segments, int rings,
                   CompactMesh& mesh) {
  segments = std::max(3, segments);
  rings = std::max(1, rings);
  if (!countsFit("constructDisk", 1 + std::int64_t(segments) * rings,
                 std::int64_t(segments) * (2 * std::int64_t(rings) - 1))) {
    return;
  }
  ShapeBuffers s;
  s.vertices.push_back(toVertex(center));
  s.uvs.push_back({0.5f, 0.5f});
  for (int r = 0; r < rings; ++r) {
    const double rad = double(radius) * (r + 1) / rings;
    for (int j = 0; j < segments; ++j) {
      const double a = 2 * kPi * j / segments;
      const double x = std::cos(a) * (r + 1) / rings, y = std::sin(a) * (r + 1) / rings;
      s.vertices.push_back(
          toVertex(center + kxLinear::Vector(rad * std::cos(a), rad * std::sin(a), 0)));
      s.uvs.push_back({float(0.5 + 0.5 * x), float(0.5 + 0.5 * y)});
    }
  }
  s.normals.assign(s.vertices.size(), MeshNormal{0, 0, 1});
  auto at = [segments](int r, int j) { return 1 + r * segments + j % segments; };
  for (int j = 0; j < segments; ++j) s.addTriangle(0, at(0, j), at(0, j + 1));
  for (int r = 0; r + 1 < rings; ++r) {
    for (int j = 0; j < segments; ++j) {
      s.addTriangle(at(r, j), at(r + 1, j), at(r + 1, j + 1));
      s.addTriangle(at(r, j), at(r + 1, j + 1), at(r, j + 1));
    }
  }
  s.install(mesh);
}

void constructCircle(const kxLinear::Point& center, float radius, int segments, int normalAxis,
                     CompactMesh& mesh) {
  segments = std::max(3, segments);
  if (!countsFit("constructCircle", std::int64_t(segments) + 1, 0)) return;
  arcStrip(center, radius, 0.0, 2 * kPi / segments, segments, normalAxis, true, mesh);
}

void constructArc(const kxLinear::Point& center, float radius, float startAngle, float endAngle,
                  int segments, int normalAxis, CompactMesh& mesh) {
  segments = std::max(1, segments);
  if (!countsFit("constructArc", std::int64_t(segments) + 1, 0)) return;
  arcStrip(center, radius, startAngle, (double(endAngle) - startAngle) / segments, segments + 1,
           normalAxis, false, mesh);
}

void constructAnnularArc(float innerRadius, float outerRadius, double sweep, int segments,
                         CompactMesh& mesh) {
  segments = std::max(1, segments);
  if (!countsFit("constructAnnularArc", 2 * std::int64_t(segments) + 2,
                 2 * std::int64_t(segments))) {
    return;
  }
  ShapeBuffers s;
  s.vertices.resize(2 * std::size_t(segments) + 2);
  annularPositions(innerRadius, outerRadius, sweep, segments, s.vertices.data());
  s.normals.assign(s.vertices.size(), MeshNormal{0, 0, 1});
  for (int k = 0; k < segments; ++k) {
    s.addTriangle(2 * k, 2 * k + 1, 2 * k + 3);
    s.addTriangle(2 * k, 2 * k + 3, 2 * k + 2);
  }
  s.install(mesh);
}

void updateAnnularArc(float innerRadius, float outerRadius, double sweep, CompactMesh& mesh) {
  const int n = mesh.getNumVertices();
  if (n < 4 || n % 2 != 0) return;
  annularPositions(innerRadius, outerRadius, sweep, n / 2 - 1, mesh.getVertices());
  MeshModification mod(&mesh, MeshModification::PositionsChanged, nullptr);
  mesh.modified(mod);
}

void constructRectangle(const kxLinear::ParamPlane& plane, CompactMesh& mesh) {
  gridShape(plane.getOrigin(), plane.getU(), plane.getV(), 1, true, UVRange()).install(mesh);
}

void constructRectangle(const float* const min, const float* const max, float z, int subdivisions,
                        CompactMesh& mesh, bool withNormals) {
  constructRectangle(min, max, z, subdivisions, mesh, withNormals, nullptr, nullptr);
}

void constructRectangle(const float* const min, const float* const max, float z, int subdivisions,
                        CompactMesh& mesh, bool withNormals, const float* const uvMin,
                        const float* const uvMax) {
  kxLinear::Point origin;
  kxLinear::Vector du, dv;
  rectangleFrame(min, max, z, origin, du, dv);
  const int cells = std::max(1, subdivisions);
  if (!gridFits("constructRectangle", cells)) return;
  gridShape(origin, du, dv, cells, withNormals, UVRange{uvMin, uvMax}).install(mesh);
}

void constructRectangle(const float* const min, const float* const max, float z, int subdivisions,
                        TopoMesh& mesh) {
  kxLinear::Point origin;
  kxLinear::Vector du, dv;
  rectangleFrame(min, max, z, origin, du, dv);
  const int cells = std::max(1, subdivisions);
  if (!gridFits("constructRectangle", cells)) return;
  gridTopo(origin, du, dv, cells, mesh);
}

void constructSquare(const float* const center, float size, int subdivisions, CompactMesh& mesh,
                     bool withNormals) {
  float min[2], max[2];
  squareCorners(center, size, min, max);
  constructRectangle(min, max, 0.0f, subdivisions, mesh, withNormals);
}

void constructSquare(const float* const center, float size, int subdivisions, TopoMesh& mesh) {
  float min[2], max[2];
  squareCorners(center, size, min, max);
  constructRectangle(min, max, 0.0f, subdivisions, mesh);
}

void constructRectangularCorner(const float* const corner, const float* const uEnd,
                                const float* const vEnd, CompactMesh& mesh, bool withNormals) {
  rectangularCorner(corner, uEnd, vEnd, mesh, withNormals, UVRange());
}

void constructRectangularCorner(const float* const corner, const float* const uEnd,
                                const float* const vEnd, CompactMesh& mesh, bool withNormals,
                                const float* const uvMin, const float* const uvMax) {
  rectangularCorner(corner, uEnd, vEnd, mesh, withNormals, UVRange{uvMin, uvMax});
}

void constructLineSegment(const kxLinear::Point& start, const kxLinear::Point& end,
                          CompactMesh& mesh) {
  ShapeBuffers s;
  s.vertices = {toVertex(start), toVertex(end)};
  CompactMesh result = s.build();
  result.resizeLineArray(1);
  result.getLines()[0] = MeshLine{{0, 1}};
  mesh.swap(result);
}

void constructLineSegment(const kxLinear::ParamLine& line, CompactMesh& mesh, float t0, float t1) {
  constructLineSegment(line.eval(t0), line.eval(t1), mesh);
}

kx::Reference<CompactMesh> constructLineStrip(const kx::vector<kxLinear::Point>& points,
                                              bool closed) {
  return lineStrip(points, closed);
}

kx::Reference<CompactMesh> constructLineStrip(const kx::vector<kxLinear::Point2>& points,
                                              bool closed) {
  return lineStrip(points, closed);
}

kx::Reference<CompactMesh> constructLineStrip(const kx::vector<kxLinear::Point2Flt>& points,
                                              bool closed) {
  return lineStrip(points, closed);
}

kx::Reference<CompactMesh> constructInfiniteLine(const kxLinear::Line& line) {
  const kxLinear::Vector reach =
      kxLinear::normalized(line.getDirection()) * kInfiniteLineHalfLength;
  kx::Reference<CompactMesh> mesh(new CompactMesh);
  constructLineSegment(line.getOrigin() - reach, line.getOrigin() + reach, *mesh);
  return mesh;
}

void constructBoxEdgeLineStrips(const BoundingBox& box, CompactMesh& mesh) {
  static const int kLengths[6] = {5, 5, 2, 2, 2, 2};
  static const int kPoints[18] = {0, 1, 3, 2, 0, 4, 5, 7, 6, 4, 0, 4, 1, 5, 2, 6, 3, 7};
  const kxLinear::PointFlt mn = box.minPt(), mx = box.maxPt();
  const float lo[3] = {mn.x, mn.y, mn.z}, hi[3] = {mx.x, mx.y, mx.z};
  ShapeBuffers s;
  for (int code = 0; code < 8; ++code) s.vertices.push_back(toVertex(boxCorner(lo, hi, code)));
  CompactMesh result = s.build();
  result.resizeLineStripArrays(6, 18);
  std::copy(kLengths, kLengths + 6, result.getLineStripLengths());
  std::copy(kPoints, kPoints + 18, result.getLineStripPoints());
  mesh.swap(result);
}

void constructQuadCube(const float* const range, TopoMesh& mesh) {
  static const int kFaces[6][4] = {{1, 3, 7, 5}, {0, 4, 6, 2}, {2, 6, 7, 3},
                                   {0, 1, 5, 4}, {4, 5, 7, 6}, {0, 2, 3, 1}};
  const float lo[3] = {range[0], range[0], range[0]}, hi[3] = {range[1], range[1], range[1]};
  TopoMesh result;
  for (int code = 0; code < 8; ++code) result.addVertex(boxCorner(lo, hi, code));
  for (const auto& face : kFaces) {
    const TopoMeshVertex quad[4] = {TopoMeshVertex(face[0]), TopoMeshVertex(face[1]),
                                    TopoMeshVertex(face[2]), TopoMeshVertex(face[3])};
    result.addFace(quad, 4);
  }
  meshTwin(result);
  mesh.swap(result);
}

TopoMesh* constructSubdividedOctahedron(const kxLinear::ParamPlane& plane, int level,
                                        double radius) {
  const kxLinear::Vector u = kxLinear::normalized(plane.getU());
  const kxLinear::Vector v = kxLinear::normalized(plane.getV());
  const kxLinear::Vector w = plane.getNormal();
  kx::vector<kxLinear::Vector> dirs = {u, -u, v, -v, w, -w};
  kx::vector<int> tris;
  for (int octant = 0; octant < 8; ++octant) {
    const int a = (octant & 1), b = 2 + ((octant >> 1) & 1), c = 4 + ((octant >> 2) & 1);
    const bool flipped = ((octant & 1) + ((octant >> 1) & 1) + ((octant >> 2) & 1)) % 2 == 1;
    tris.insert(tris.end(), {a, flipped ? c : b, flipped ? b : c});
  }
  for (int l = 0; l < std::clamp(level, 0, 10); ++l) subdivideOnSphere(dirs, tris);
  TopoMesh* mesh = new TopoMesh;
  for (const kxLinear::Vector& d : dirs) mesh->addVertex(plane.getOrigin() + d * radius);
  for (std::size_t t = 0; t < tris.size(); t += 3) {
    const TopoMeshVertex tri[3] = {TopoMeshVertex(tris[t]), TopoMeshVertex(tris[t + 1]),
                                   TopoMeshVertex(tris[t + 2])};
    mesh->addFace(tri, 3);
  }
  meshTwin(*mesh);
  return mesh;
}

kx::Reference<CompactMesh> constructPolygonFromConvexBoundary(const Polyline2d& boundary) {
  int n = boundary.getNumVertices();
  if (n > 1 && boundary.getVertex(n - 1) == boundary.getVertex(0)) --n;
  ShapeBuffers s;
  double twiceArea = 0.0;
  for (int i = 0; i < n; ++i) {
    const kxLinear::Point2& p = boundary.getVertex(i);
    const kxLinear::Point2& q = boundary.getVertex((i + 1) % n);
    twiceArea += p.x * q.y - q.x * p.y;
    s.vertices.push_back({float(p.x), float(p.y), 0.0f});
    s.normals.push_back({0.0f, 0.0f, 1.0f});
  }
  const bool counterClockwise = twiceArea >= 0.0;
  for (int i = 1; i + 1 < n; ++i) {
    if (counterClockwise) {
      s.addTriangle(0, i, i + 1);
    } else {
      s.addTriangle(0, i + 1, i);
    }
  }
  kx::Reference<CompactMesh> mesh(new CompactMesh);
  s.install(*mesh);
  return mesh;
}

}  // namespace kxGeom
