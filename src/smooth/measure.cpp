#include <kxgeom/measure.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <kxgeom/adjacency.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

#include "mesh/corner_angles.h"

namespace kxGeom {

namespace {

using kxLinear::Point;
using kxLinear::Vector;

// Triangles per block of a sum. Fixed, so that blocks and the order they
// are folded in do not depend on the thread count.
constexpr int kBlock = 4096;

// Runs add(i, partial) for i in [0, n), block by block on the shared pool,
// each block into its own partial sum.
template <class Sum, class AddItem>
class BlockSum final : public kxUtil::ThreadedChunkAlg<Sum> {
 public:
  BlockSum(int n, const AddItem& add) : kxUtil::ThreadedChunkAlg<Sum>(n, kBlock), add_(add) {}

 protected:
  void process(int, int begin, int end, Sum& partial) override {
    for (int i = begin; i < end; ++i) add_(i, partial);
  }

 private:
  const AddItem& add_;
};

// The sum of add(i, partial) over [0, n), the blocks folded in order.
template <class Sum, class AddItem>
Sum sumBlocks(int n, const AddItem& add) {
  BlockSum<Sum, AddItem> alg(n, add);
  kxUtil::ThreadPool::get().run(alg);
  Sum total{};
  for (const Sum& partial : alg.results()) total += partial;
  return total;
}

// Logs one measure over `count` triangles and returns it.
double logged(const char* what, int count, double value) {
  debugChannel().print("%s: %d triangles: %g\n", what, count, value);
  return value;
}

// The corners of triangle t, widened to double.
struct Corners {
  Point p[3];

  Corners(const CompactMesh& mesh, int t) {
    const float* vertices = mesh.getVerticesRaw();
    const int* tri = mesh.getTrianglesRaw() + 3 * std::size_t(t);
    for (int k = 0; k < 3; ++k) p[k] = Point::from(vertices + 3 * std::size_t(tri[k]));
  }
  double area() const { return 0.5 * kxLinear::cross(p[1] - p[0], p[2] - p[0]).length(); }
};

// The point the volume cones start from: near the mesh, so that the cone
// terms stay small and cancel little.
Point coneApex(const CompactMesh& mesh) {
  if (mesh.getNumTriangles() == 0) return Point();
  return Point::from(mesh.getVerticesRaw() + 3 * std::size_t(mesh.getTrianglesRaw()[0]));
}

// Six times the signed volume of the tetrahedron (0, a, b, c).
double sixVolume(const Vector& a, const Vector& b, const Vector& c) {
  return kxLinear::dot(a, kxLinear::cross(b, c));
}

// The integrals over the solid: volume, first moments and second moments
// (xx, yy, zz, xy, yz, zx), about the cone apex; the area, and the count of
// unmatched edges.
struct Moments {
  double volume = 0;
  double first[3] = {0, 0, 0};
  double second[6] = {0, 0, 0, 0, 0, 0};
  double area = 0;
  int unmatched = 0;

  Moments& operator+=(const Moments& o) {
    volume += o.volume;
    for (int k = 0; k < 3; ++k) first[k] += o.first[k];
    for (int k = 0; k < 6; ++k) second[k] += o.second[k];
    area += o.area;
    unmatched += o.unmatched;
    return *this;
  }

  // Adds the tetrahedron (0, a, b, c): with d = six times its signed volume,
  // the integral of x_i is d (a_i + b_i + c_i) / 24, of x_i x_j
  // d (sum of the corner products + the square of the corner sum) / 120.
  void addTetrahedron(const Vector& a, const Vector& b, const Vector& c) {
    const double d = sixVolume(a, b, c);
    volume += d / 6;
    const Vector s = a + b + c;
    for (int i = 0; i < 3; ++i) first[i] += d * s[i] / 24;
    static const int pairs[6][2] = {{0, 0}, {1, 1}, {2, 2}, {0, 1}, {1, 2}, {2, 0}};
    for (int k = 0; k < 6; ++k) {
      const int i = pairs[k][0], j = pairs[k][1];
      second[k] += d * (a[i] * a[j] + b[i] * b[j] + c[i] * c[j] + s[i] * s[j]) / 120;
    }
  }
};

// Edges of triangle t that are not run once each way by exactly one triangle
// (t itself and its neighbour).
int unmatchedEdges(const CompactMesh& mesh, const MeshAdjTris& adjacency, int t) {
  const MeshTriangle* triangles = mesh.getTriangles();
  const MeshTriangle& tri = triangles[t];
  if (tri[0] == tri[1] || tri[1] == tri[2] || tri[2] == tri[0]) return 3;
  int unmatched = 0;
  for (int k = 0; k < 3; ++k) {
    const int a = tri[k], b = tri[(k + 1) % 3];
    int along = 0, against = 0;
    const int* around = adjacency.triIndices(a);
    for (int i = 0, n = adjacency.numTris(a); i < n; ++i) {
      const MeshTriangle& s = triangles[around[i]];
      along += Boundary::findEdge(a, s) == b;
      against += Boundary::findEdge(b, s) == a;
    }
    unmatched += along != 1 || against != 1;
  }
  return unmatched;
}

// The inertia tensor about the centroid from the moments about the apex.
void inertiaAboutCentroid(const Moments& m, const Vector& centroid, double inertia[3][3]) {
  static const int index[3][3] = {{0, 3, 5}, {3, 1, 4}, {5, 4, 2}};
  const double sign = m.volume < 0 ? -1 : 1;
  double central[3][3];
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      central[i][j] = sign * (m.second[index[i][j]] - m.volume * centroid[i] * centroid[j]);
    }
  }
  const double trace = central[0][0] + central[1][1] + central[2][2];
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) inertia[i][j] = (i == j ? trace : 0) - central[i][j];
  }
}

// ---- curvature ----------------------------------------------------------------

constexpr double kTwoPi = 6.283185307179586476925286766559;

// A unit normal and two unit tangents completing a right-handed frame.
struct Frame {
  Vector n, u, w;
};

// A symmetric 2 x 2 form [e f; f g] in the tangents of some frame.
struct Form {
  double e = 0, f = 0, g = 0;
};

// The corners of a triangle of v's fan, rotated so that v comes first.
struct FanCorners {
  Point p, q, r;  // v, then the next two corners in winding order
  int iq, ir;     // the vertex indices of q and r
};

FanCorners fanCorners(const CompactMesh& mesh, const MeshTriangle& tri, int v) {
  const int k = tri[0] == v ? 0 : (tri[1] == v ? 1 : 2);
  const MeshVertex* vertices = mesh.getVertices();
  const int iq = tri[(k + 1) % 3], ir = tri[(k + 2) % 3];
  return {vertices[v].asPoint(), vertices[iq].asPoint(), vertices[ir].asPoint(), iq, ir};
}

bool repeatsCorner(const MeshTriangle& t) { return t[0] == t[1] || t[1] == t[2] || t[2] == t[0]; }

// x turned by the smallest rotation that takes unit a to unit b (Rodrigues'
// formula with v = a x b, whose length is the sine); a and b not opposite.
Vector rotateBetween(const Vector& x, const Vector& a, const Vector& b) {
  const Vector v = kxLinear::cross(a, b);
  const double c = kxLinear::dot(a, b);
  return x * c + kxLinear::cross(v, x) + v * (kxLinear::dot(v, x) / (1 + c));
}

// The tangent frame at a point with unit normal n, its first tangent along
// the projection of `toward` (false when that projection vanishes).
bool tangentFrame(const Vector& n, const Vector& toward, Frame& frame) {
  const Vector u = toward - n * kxLinear::dot(n, toward);
  if (!(u.length2() > 0)) return false;
  frame.n = n;
  frame.u = kxLinear::normalized(u);
  frame.w = kxLinear::cross(n, frame.u);
  return true;
}

// Least-squares fit of the second fundamental form of triangle (p0, p1, p2)
// in its own frame: along each edge e, from corner i to corner j, the form
// maps e to the change n_j - n_i of the vertex normals. Writes the
// triangle's frame and the form; false for a degenerate triangle.
bool fitTriangleForm(const Point p[3], const Vector n[3], Frame& frame, Form& form) {
  const Vector normal = kxLinear::cross(p[1] - p[0], p[2] - p[0]);
  if (!(normal.length2() > 0) || !tangentFrame(kxLinear::normalized(normal), p[1] - p[0], frame)) {
    return false;
  }
  // Normal equations of: e eu + f ew = du, f eu + g ew = dw over the edges.
  double m00 = 0, m01 = 0, m11 = 0, m12 = 0, m22 = 0, r0 = 0, r1 = 0, r2 = 0;
  for (int i = 0; i < 3; ++i) {
    const int j = (i + 1) % 3;
    const Vector edge = p[j] - p[i], change = n[j] - n[i];
    const double eu = kxLinear::dot(edge, frame.u), ew = kxLinear::dot(edge, frame.w);
    const double du = kxLinear::dot(change, frame.u), dw = kxLinear::dot(change, frame.w);
    m00 += eu * eu;
    m01 += eu * ew;
    m11 += eu * eu + ew * ew;
    m12 += eu * ew;
    m22 += ew * ew;
    r0 += eu * du;
    r1 += ew * du + eu * dw;
    r2 += ew * dw;
  }
  // Cramer's rule on [[m00, m01, 0], [m01, m11, m12], [0, m12, m22]].
  const double det = m00 * (m11 * m22 - m12 * m12) - m01 * m01 * m22;
  if (!(std::fabs(det) > 0)) return false;
  form.e = (r0 * (m11 * m22 - m12 * m12) - m01 * (r1 * m22 - m12 * r2)) / det;
  form.f = (m00 * (r1 * m22 - m12 * r2) - r0 * m01 * m22) / det;
  form.g = (m00 * (m11 * r2 - r1 * m12) - m01 * m01 * r2 + r0 * m01 * m12) / det;
  return true;
}

// `form`, given in the frame `from`, expressed in the frame `to` after
// turning `to` so that its normal matches from's; false when the normals
// are opposite.
bool reexpress(const Form& form, const Frame& from, const Frame& to, Form& out) {
  if (!(kxLinear::dot(from.n, to.n) > -1 + 1e-12)) return false;
  const Vector u = rotateBetween(to.u, to.n, from.n), w = rotateBetween(to.w, to.n, from.n);
  const double uu = kxLinear::dot(u, from.u), uw = kxLinear::dot(u, from.w);
  const double wu = kxLinear::dot(w, from.u), ww = kxLinear::dot(w, from.w);
  out.e = form.e * uu * uu + 2 * form.f * uu * uw + form.g * uw * uw;
  out.f = form.e * uu * wu + form.f * (uu * ww + uw * wu) + form.g * uw * ww;
  out.g = form.e * wu * wu + 2 * form.f * wu * ww + form.g * ww * ww;
  return true;
}

// The mixed Voronoi area of corner p of triangle (p, q, r), given the
// cotangents at q and r.
double mixedArea(const FanCorners& c, double cotQ, double cotR) {
  const Vector pq = c.q - c.p, pr = c.r - c.p;
  const double area = 0.5 * kxLinear::cross(pq, pr).length();
  if (kxLinear::dot(pq, pr) < 0) return area / 2;
  if (cotQ < 0 || cotR < 0) return area / 4;
  return (pr.length2() * cotQ + pq.length2() * cotR) / 8;
}

// The corner-angle weighted unit normal of vertex v.
Vector angleWeightedNormal(const CompactMesh& mesh, const MeshAdjTris& adjacency, int v) {
  Vector sum;
  const int* around = adjacency.triIndices(v);
  for (int i = 0, n = adjacency.numTris(v); i < n; ++i) {
    const MeshTriangle& tri = mesh.getTriangles()[around[i]];
    if (repeatsCorner(tri)) continue;
    const FanCorners c = fanCorners(mesh, tri, v);
    const Vector normal = kxLinear::cross(c.q - c.p, c.r - c.p);
    if (normal.length2() > 0) {
      sum += kxLinear::normalized(normal) * corner::angleAt(c.q, c.p, c.r);
    }
  }
  return kxLinear::normalized(sum);
}

// Whether an edge at v is not shared by exactly two of v's triangles: every
// neighbour must be named by exactly two of them. `ring` is scratch.
bool onBoundary(const CompactMesh& mesh, const MeshAdjTris& adjacency, int v,
                kx::vector<int>& ring) {
  ring.clear();
  const int* around = adjacency.triIndices(v);
  for (int i = 0, n = adjacency.numTris(v); i < n; ++i) {
    const MeshTriangle& tri = mesh.getTriangles()[around[i]];
    for (int k = 0; k < 3; ++k) {
      if (tri[k] != v) ring.push_back(tri[k]);
    }
  }
  std::sort(ring.begin(), ring.end());
  for (std::size_t i = 0; i < ring.size(); i += 2) {
    const bool pair = i + 1 < ring.size() && ring[i] == ring[i + 1];
    if (!pair || (i + 2 < ring.size() && ring[i + 2] == ring[i])) return true;
  }
  return false;
}

// Sums over the fan of one vertex.
struct FanSums {
  double area = 0, angles = 0, formWeight = 0;
  Vector laplacian;  // sum of (cot alpha + cot beta)(x_i - x_j)
  Form form;         // area-weighted, in the vertex frame
};

// Adds triangle `tri` of v's fan to the sums.
void addFanTriangle(const CompactMesh& mesh, const kx::vector<MeshVertexCurvature>& vertices,
                    const Frame& frame, const MeshTriangle& tri, int v, FanSums& sums) {
  const FanCorners c = fanCorners(mesh, tri, v);
  sums.angles += corner::angleAt(c.q, c.p, c.r);
  double cotQ, cotR;
  if (!corner::cotangentAt(c.p, c.q, c.r, cotQ) || !corner::cotangentAt(c.p, c.r, c.q, cotR)) {
    return;
  }
  const double area = mixedArea(c, cotQ, cotR);
  sums.area += area;
  sums.laplacian += (c.p - c.q) * cotR + (c.p - c.r) * cotQ;
  const Point p[3] = {c.p, c.q, c.r};
  const Vector n[3] = {frame.n, vertices[std::size_t(c.iq)].normal,
                       vertices[std::size_t(c.ir)].normal};
  Frame face;
  Form form, local;
  if (!fitTriangleForm(p, n, face, form) || !reexpress(form, face, frame, local)) return;
  sums.form.e += area * local.e;
  sums.form.f += area * local.f;
  sums.form.g += area * local.g;
  sums.formWeight += area;
}

// Principal curvatures and directions of the averaged form: the larger
// eigenvalue's eigenvector lies at half the angle atan2(2f, e - g).
void principal(const Form& form, const Frame& frame, MeshVertexCurvature& out) {
  const double theta = 0.5 * std::atan2(2 * form.f, form.e - form.g);
  const double c = std::cos(theta), s = std::sin(theta);
  out.direction1 = frame.u * c + frame.w * s;
  out.direction2 = kxLinear::cross(frame.n, out.direction1);
  out.k1 = form.e * c * c + 2 * form.f * c * s + form.g * s * s;
  out.k2 = form.e + form.g - out.k1;
}

// Curvature of vertex v from its fan; the normals of all vertices are set.
void vertexCurvature(const CompactMesh& mesh, const MeshAdjTris& adjacency,
                     kx::vector<MeshVertexCurvature>& vertices, int v, kx::vector<int>& ring) {
  MeshVertexCurvature& out = vertices[std::size_t(v)];
  if (!(out.normal.length2() > 0)) return;
  const int* around = adjacency.triIndices(v);
  const int count = adjacency.numTris(v);
  Frame frame;
  const Point centre = mesh.getVertices()[v].asPoint();
  for (int i = 0; i < count && !(frame.u.length2() > 0); ++i) {
    const MeshTriangle& tri = mesh.getTriangles()[around[i]];
    if (!repeatsCorner(tri)) tangentFrame(out.normal, fanCorners(mesh, tri, v).q - centre, frame);
  }
  if (!(frame.u.length2() > 0)) return;
  FanSums sums;
  for (int i = 0; i < count; ++i) {
    const MeshTriangle& tri = mesh.getTriangles()[around[i]];
    if (!repeatsCorner(tri)) addFanTriangle(mesh, vertices, frame, tri, v, sums);
  }
  if (!(sums.area > 0)) return;
  out.area = sums.area;
  out.boundary = onBoundary(mesh, adjacency, v, ring);
  if (sums.formWeight > 0) {
    const Form mean = {sums.form.e / sums.formWeight, sums.form.f / sums.formWeight,
                       sums.form.g / sums.formWeight};
    principal(mean, frame, out);
  }
  if (out.boundary) {
    out.mean = 0.5 * (out.k1 + out.k2);
    out.gaussian = out.k1 * out.k2;
    return;
  }
  out.mean = kxLinear::dot(sums.laplacian, out.normal) / (4 * sums.area);
  out.gaussian = (kTwoPi - sums.angles) / sums.area;
  const double root = std::sqrt(std::max(0.0, out.mean * out.mean - out.gaussian));
  out.k1 = out.mean + root;
  out.k2 = out.mean - root;
}

}  // namespace

double meshArea(const CompactMesh& mesh) {
  return logged("meshArea", mesh.getNumTriangles(),
                sumBlocks<double>(mesh.getNumTriangles(),
                                  [&](int t, double& sum) { sum += Corners(mesh, t).area(); }));
}

double meshArea(const CompactMesh& mesh, const BitVector& selection) {
  const int n = std::min(mesh.getNumTriangles(), selection.size());
  return logged("meshArea of a selection", n, sumBlocks<double>(n, [&](int t, double& sum) {
                  if (selection.isBitSet(t)) sum += Corners(mesh, t).area();
                }));
}

double meshArea(const CompactMesh& mesh, const int* triangles, int count) {
  const int n = std::max(0, count);
  return logged("meshArea of a list", n, sumBlocks<double>(n, [&](int i, double& sum) {
                  sum += Corners(mesh, triangles[i]).area();
                }));
}

double meshVolume(const CompactMesh& mesh) {
  const Point apex = coneApex(mesh);
  return logged("meshVolume", mesh.getNumTriangles(),
                sumBlocks<double>(mesh.getNumTriangles(), [&](int t, double& sum) {
                  const Corners c(mesh, t);
                  sum += sixVolume(c.p[0] - apex, c.p[1] - apex, c.p[2] - apex) / 6;
                }));
}

bool meshMassProperties(const CompactMesh& mesh, MeshMassProperties& result) {
  kxOS::StopWatch watch;
  MeshAdjTris adjacency;
  meshAdjTris(mesh, adjacency);
  const Point apex = coneApex(mesh);
  const Moments m = sumBlocks<Moments>(mesh.getNumTriangles(), [&](int t, Moments& sum) {
    const Corners c(mesh, t);
    sum.addTetrahedron(c.p[0] - apex, c.p[1] - apex, c.p[2] - apex);
    sum.area += c.area();
    sum.unmatched += unmatchedEdges(mesh, adjacency, t);
  });
  result = MeshMassProperties();
  result.area = m.area;
  result.volume = m.volume;
  result.unmatchedEdges = m.unmatched;
  result.closed = mesh.getNumTriangles() > 0 && m.unmatched == 0;
  const bool solid = m.volume != 0 && std::isfinite(m.volume);
  if (solid) {
    const Vector offset(m.first[0] / m.volume, m.first[1] / m.volume, m.first[2] / m.volume);
    result.centroid = apex + offset;
    inertiaAboutCentroid(m, offset, result.inertia);
  }
  debugChannel().print("meshMassProperties: %d triangles, volume %g, %d unmatched edges %f s\n",
                       mesh.getNumTriangles(), m.volume, m.unmatched, watch.stop());
  return solid;
}

bool meshCurvature(const CompactMesh& mesh, kx::vector<MeshVertexCurvature>& out) {
  kxOS::StopWatch watch;
  out.clear();
  if (mesh.getNumTriangles() == 0) return false;
  MeshAdjTris adjacency;
  meshAdjTris(mesh, adjacency);
  const int n = mesh.getNumVertices();
  out.assign(std::size_t(n), MeshVertexCurvature());
  kxUtil::ThreadPool& pool = kxUtil::ThreadPool::get();
  // Every vertex's fit reads its neighbours' normals: all of them first.
  kxUtil::forEachRange(pool, n, [&](int, int begin, int end) {
    for (int v = begin; v < end; ++v)
      out[std::size_t(v)].normal = angleWeightedNormal(mesh, adjacency, v);
  });
  kxUtil::forEachRange(pool, n, [&](int, int begin, int end) {
    kx::vector<int> ring;
    for (int v = begin; v < end; ++v) vertexCurvature(mesh, adjacency, out, v, ring);
  });
  int boundary = 0;
  for (const MeshVertexCurvature& c : out) boundary += c.boundary;
  debugChannel().print("meshCurvature: %d vertices %d triangles, %d on a boundary %f s\n", n,
                       mesh.getNumTriangles(), boundary, watch.stop());
  return true;
}

}  // namespace kxGeom
