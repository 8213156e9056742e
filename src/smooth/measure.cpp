#include <kxgeom/measure.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <kxgeom/adjacency.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

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

}  // namespace

double meshArea(const CompactMesh& mesh) {
  return sumBlocks<double>(mesh.getNumTriangles(),
                           [&](int t, double& sum) { sum += Corners(mesh, t).area(); });
}

double meshArea(const CompactMesh& mesh, const BitVector& selection) {
  const int n = std::min(mesh.getNumTriangles(), selection.size());
  return sumBlocks<double>(n, [&](int t, double& sum) {
    if (selection.isBitSet(t)) sum += Corners(mesh, t).area();
  });
}

double meshArea(const CompactMesh& mesh, const int* triangles, int count) {
  return sumBlocks<double>(std::max(0, count),
                           [&](int i, double& sum) { sum += Corners(mesh, triangles[i]).area(); });
}

double meshVolume(const CompactMesh& mesh) {
  const Point apex = coneApex(mesh);
  return sumBlocks<double>(mesh.getNumTriangles(), [&](int t, double& sum) {
    const Corners c(mesh, t);
    sum += sixVolume(c.p[0] - apex, c.p[1] - apex, c.p[2] - apex) / 6;
  });
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

}  // namespace kxGeom
