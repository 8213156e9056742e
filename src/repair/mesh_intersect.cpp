#include <kxgeom/mesh_intersect.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/octree_query.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

// ---- exact signs ---------------------------------------------------------------
//
// The coordinates are floats, so the product of two is exact in double and a
// product of three is exact as the sum of two doubles. Orientation
// determinants are therefore written without differences, as sums of such
// products, and summed exactly as floating-point expansions; a plain double
// evaluation with an error bound answers first whenever it can.

// A sum of doubles kept exact: non-overlapping components, increasing in
// magnitude, so the sign is that of the last non-zero component.
class Expansion {
 public:
  void add(double b) {
    int out = 0;
    for (int i = 0; i < n_; ++i) {
      const double sum = c_[i] + b;
      const double bv = sum - c_[i];
      const double err = (c_[i] - (sum - bv)) + (b - bv);
      b = sum;
      c_[out++] = err;
    }
    c_[out++] = b;
    n_ = out;
  }
  // Adds x * y * z for floats x, y, z.
  void addProduct(float x, float y, float z) {
    const double xy = double(x) * double(y);  // exact: 48 significant bits
    const double hi = xy * double(z);
    add(std::fma(xy, double(z), -hi));  // the rounding error, exactly
    add(hi);
  }
  void addProduct(float x, float y) { add(double(x) * double(y)); }
  int sign() const {
    for (int i = n_ - 1; i >= 0; --i) {
      if (c_[i] != 0) return c_[i] > 0 ? 1 : -1;
    }
    return 0;
  }

 private:
  double c_[56];
  int n_ = 0;
};

using P = const float*;

// Adds s * det[p; q; r] (rows are points) to `e`.
void addDet3(Expansion& e, P p, P q, P r, float s) {
  e.addProduct(s * p[0], q[1], r[2]);
  e.addProduct(-s * p[0], q[2], r[1]);
  e.addProduct(-s * p[1], q[0], r[2]);
  e.addProduct(s * p[1], q[2], r[0]);
  e.addProduct(s * p[2], q[0], r[1]);
  e.addProduct(-s * p[2], q[1], r[0]);
}

// Sign of det[b - a; c - a; d - a]: positive when d lies on the side of the
// plane (a, b, c) that its normal (b - a) x (c - a) points to.
int orient3d(P a, P b, P c, P d) {
  const double bx = double(b[0]) - a[0], by = double(b[1]) - a[1], bz = double(b[2]) - a[2];
  const double cx = double(c[0]) - a[0], cy = double(c[1]) - a[1], cz = double(c[2]) - a[2];
  const double dx = double(d[0]) - a[0], dy = double(d[1]) - a[1], dz = double(d[2]) - a[2];
  const double t1 = cy * dz - cz * dy, t2 = cz * dx - cx * dz, t3 = cx * dy - cy * dx;
  const double det = bx * t1 + by * t2 + bz * t3;
  const double permanent = std::fabs(bx) * (std::fabs(cy * dz) + std::fabs(cz * dy)) +
                           std::fabs(by) * (std::fabs(cz * dx) + std::fabs(cx * dz)) +
                           std::fabs(bz) * (std::fabs(cx * dy) + std::fabs(cy * dx));
  const double bound = 1e-15 * permanent;
  if (det > bound) return 1;
  if (det < -bound) return -1;
  // det[b - a; c - a; d - a] = [bcd] - [acd] + [abd] - [abc].
  Expansion e;
  addDet3(e, b, c, d, 1);
  addDet3(e, a, c, d, -1);
  addDet3(e, a, b, d, 1);
  addDet3(e, a, b, c, -1);
  return e.sign();
}

// Sign of the 2D orientation of a, b, c over coordinates i and j.
int orient2d(P a, P b, P c, int i, int j) {
  Expansion e;
  e.addProduct(a[i], b[j]);
  e.addProduct(-a[i], c[j]);
  e.addProduct(-a[j], b[i]);
  e.addProduct(a[j], c[i]);
  e.addProduct(b[i], c[j]);
  e.addProduct(-b[j], c[i]);
  return e.sign();
}

// ---- the triangle-triangle test ---------------------------------------------------

// The plane coordinates in which a triangle's projection keeps its area:
// the two axes other than its normal's largest component.
struct Projection {
  int i, j;
};

Projection projectionOf(P a, P b, P c) {
  const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
  const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
  const double n[3] = {std::fabs(u[1] * v[2] - u[2] * v[1]), std::fabs(u[2] * v[0] - u[0] * v[2]),
                       std::fabs(u[0] * v[1] - u[1] * v[0])};
  const int k = n[0] >= n[1] && n[0] >= n[2] ? 0 : (n[1] >= n[2] ? 1 : 2);
  return {(k + 1) % 3, (k + 2) % 3};
}

bool sameSideOrOn(int s, int t) { return s * t >= 0; }

// Closed 2D segment pq against closed segment rs.
bool segmentsMeet2d(P p, P q, P r, P s, Projection pr) {
  const int a = orient2d(p, q, r, pr.i, pr.j), b = orient2d(p, q, s, pr.i, pr.j);
  const int c = orient2d(r, s, p, pr.i, pr.j), d = orient2d(r, s, q, pr.i, pr.j);
  if (a == 0 && b == 0) {  // collinear: overlap of the projections on each axis
    for (int k : {pr.i, pr.j}) {
      if (std::max(p[k], q[k]) < std::min(r[k], s[k]) ||
          std::max(r[k], s[k]) < std::min(p[k], q[k])) {
        return false;
      }
    }
    return true;
  }
  return a * b <= 0 && c * d <= 0;
}

// Closed 2D point in closed triangle.
bool pointInTriangle2d(P p, P a, P b, P c, Projection pr) {
  const int s1 = orient2d(a, b, p, pr.i, pr.j), s2 = orient2d(b, c, p, pr.i, pr.j),
            s3 = orient2d(c, a, p, pr.i, pr.j);
  return sameSideOrOn(s1, s2) && sameSideOrOn(s2, s3) && sameSideOrOn(s1, s3);
}

// Closed segment pq against the closed triangle abc (non-degenerate).
bool segmentMeetsTriangle(P p, P q, P a, P b, P c) {
  const int sp = orient3d(a, b, c, p), sq = orient3d(a, b, c, q);
  if (sp * sq > 0) return false;
  if (sp == 0 && sq == 0) {
    const Projection pr = projectionOf(a, b, c);
    return pointInTriangle2d(p, a, b, c, pr) || pointInTriangle2d(q, a, b, c, pr) ||
           segmentsMeet2d(p, q, a, b, pr) || segmentsMeet2d(p, q, b, c, pr) ||
           segmentsMeet2d(p, q, c, a, pr);
  }
  // The segment reaches the plane at one point; it lies in the triangle when
  // the line pq passes the three edges on one side.
  const int s1 = orient3d(p, q, a, b), s2 = orient3d(p, q, b, c), s3 = orient3d(p, q, c, a);
  return sameSideOrOn(s1, s2) && sameSideOrOn(s2, s3) && sameSideOrOn(s1, s3);
}

// General position: the triangles meet when an edge of one meets the other.
bool disjointTrianglesMeet(const P t[3], const P u[3]) {
  for (int k = 0; k < 3; ++k) {
    if (segmentMeetsTriangle(t[k], t[(k + 1) % 3], u[0], u[1], u[2])) return true;
    if (segmentMeetsTriangle(u[k], u[(k + 1) % 3], t[0], t[1], t[2])) return true;
  }
  return false;
}

// Whether the ray from v through a lies in the closed cone at v spanned by
// c and d (an angle below pi), all in one plane.
bool rayInCone(P v, P a, P c, P d, Projection pr) {
  const int s = orient2d(v, c, d, pr.i, pr.j);
  return orient2d(v, c, a, pr.i, pr.j) * s >= 0 && orient2d(v, a, d, pr.i, pr.j) * s >= 0;
}

// Triangles (v, a, b) and (v, c, d) sharing exactly v: they meet beyond v
// when, coplanar, their corners at v overlap, and otherwise when the edge
// opposite v of one meets the other.
bool meetBeyondVertex(P v, P a, P b, P c, P d) {
  if (orient3d(v, a, b, c) == 0 && orient3d(v, a, b, d) == 0) {
    const Projection pr = projectionOf(v, a, b);
    return rayInCone(v, a, c, d, pr) || rayInCone(v, b, c, d, pr) || rayInCone(v, c, a, b, pr) ||
           rayInCone(v, d, a, b, pr);
  }
  P t[3] = {v, a, b}, u[3] = {v, c, d};
  return segmentMeetsTriangle(a, b, u[0], u[1], u[2]) ||
         segmentMeetsTriangle(c, d, t[0], t[1], t[2]);
}

// Triangles (p, q, c) and (p, q, d) sharing the edge pq: they meet beyond it
// only when coplanar with c and d on the same side.
bool meetBeyondEdge(P p, P q, P c, P d) {
  if (orient3d(p, q, c, d) != 0) return false;
  const Projection pr = projectionOf(p, q, c);
  return orient2d(p, q, c, pr.i, pr.j) * orient2d(p, q, d, pr.i, pr.j) > 0;
}

int position(const int* t, int v) { return t[0] == v ? 0 : (t[1] == v ? 1 : (t[2] == v ? 2 : -1)); }

bool isDegenerateTriple(const int* t) { return t[0] == t[1] || t[1] == t[2] || t[0] == t[2]; }

bool isFiniteTriangle(const float* vertices, const int* t) {
  for (int k = 0; k < 3; ++k) {
    const float* p = vertices + 3 * std::size_t(t[k]);
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) return false;
  }
  return true;
}

// ---- the search -------------------------------------------------------------------

BoundingBox triangleBox(const float* vertices, const int* t) {
  BoundingBox box;
  for (int k = 0; k < 3; ++k) {
    const float* p = vertices + 3 * std::size_t(t[k]);
    box.extend(kxLinear::PointFlt(p[0], p[1], p[2]));
  }
  return box;
}

using Pairs = kx::vector<std::pair<int, int>>;

// For each triangle t of a slice, the later triangles listed in the leaves
// its box overlaps (a triangle listed only in the leaf that holds its whole
// box is still met there, since any common point lies in both boxes) are
// tested exactly once each.
class SelfIntersectAlg : public kxUtil::ThreadedChunkAlg<Pairs> {
 public:
  SelfIntersectAlg(const CompactMesh& mesh, const Octree& octree, const OctreeTris& tris, int begin,
                   int end)
      : ThreadedChunkAlg(end - begin, 256),
        mesh_(mesh),
        octree_(octree),
        tris_(tris),
        first_(begin),
        stamps_(std::size_t(kxUtil::ThreadPool::get().numThreads())) {}

 protected:
  void process(int thread, int begin, int end, Pairs& found) override {
    kx::vector<int>& stamp = stamps_[std::size_t(thread)];
    stamp.resize(std::size_t(mesh_.getNumTriangles()), -1);
    const float* vertices = mesh_.getVerticesRaw();
    const int* all = mesh_.getTrianglesRaw();
    for (int t = first_ + begin; t < first_ + end; ++t) {
      const int* a = all + 3 * std::size_t(t);
      if (isDegenerateTriple(a) || !isFiniteTriangle(vertices, a)) continue;
      const BoundingBox box = triangleBox(vertices, a);
      const std::size_t firstFound = found.size();
      for (OctreeBBoxIntersectIt it(octree_, box); it.valid(); it.next()) {
        const int voxel = it.get().getVoxel();
        if (voxel < 0 || voxel >= tris_.numVoxels()) continue;
        const int* listed = tris_.firstTri(voxel);
        for (int i = 0, n = tris_.numTris(voxel); i < n; ++i) {
          const int u = listed[i];
          if (u <= t || stamp[u] == t) continue;
          stamp[u] = t;
          const int* b = all + 3 * std::size_t(u);
          if (isDegenerateTriple(b) || !box.intersects(triangleBox(vertices, b))) continue;
          if (MeshIntersect::trianglesIntersect(vertices, a, b)) found.push_back({t, u});
        }
      }
      std::sort(found.begin() + std::ptrdiff_t(firstFound), found.end());
    }
  }

 private:
  const CompactMesh& mesh_;
  const Octree& octree_;
  const OctreeTris& tris_;
  int first_;
  std::vector<kx::vector<int>> stamps_;
};

}  // namespace

bool MeshIntersect::trianglesIntersect(const float* vertices, const int* a, const int* b) {
  P t[3], u[3];
  for (int k = 0; k < 3; ++k) {
    t[k] = vertices + 3 * std::size_t(a[k]);
    u[k] = vertices + 3 * std::size_t(b[k]);
  }
  int shared = 0, ta = -1, ub = -1, tc = -1, ud = -1;
  for (int k = 0; k < 3; ++k) {
    const int j = position(b, a[k]);
    if (j < 0) continue;
    ++shared;
    if (ta < 0) {
      ta = k;
      ub = j;
    } else {
      tc = k;
      ud = j;
    }
  }
  if (shared == 0) return disjointTrianglesMeet(t, u);
  if (shared == 3) return true;
  if (shared == 1) {
    return meetBeyondVertex(t[ta], t[(ta + 1) % 3], t[(ta + 2) % 3], u[(ub + 1) % 3],
                            u[(ub + 2) % 3]);
  }
  // Two shared corners: the third corner of each.
  const int tOther = 3 - ta - tc, uOther = 3 - ub - ud;
  return meetBeyondEdge(t[ta], t[tc], t[tOther], u[uOther]);
}

bool MeshIntersect::selfIntersect(const CompactMesh& mesh, const Octree& octree,
                                  const OctreeTris& tris, kx::vector<std::pair<int, int>>& pairs,
                                  kxUtil::Progress& progress) {
  kxOS::StopWatch watch;
  watch.start();
  pairs.clear();
  const int m = mesh.getNumTriangles();
  constexpr int kSlice = 1 << 16;  // triangles between polls of the progress
  for (int begin = 0; begin < m; begin += kSlice) {
    if (progress.cancelled()) {
      pairs.clear();
      return false;
    }
    SelfIntersectAlg alg(mesh, octree, tris, begin, std::min(m, begin + kSlice));
    kxUtil::ThreadPool::get().run(alg);
    for (const Pairs& chunk : alg.results()) pairs.insert(pairs.end(), chunk.begin(), chunk.end());
    progress.set(double(std::min(m, begin + kSlice)) / m);
  }
  debugChannel().print("MeshIntersect::selfIntersect: %d triangles, %d pairs %f s\n", m,
                       int(pairs.size()), watch.stop());
  return !pairs.empty();
}

bool MeshIntersect::selfIntersect(const CompactMesh& mesh, const Octree& octree,
                                  const OctreeTris& tris, kx::vector<std::pair<int, int>>& pairs) {
  kxUtil::Progress progress;
  return selfIntersect(mesh, octree, tris, pairs, progress);
}

}  // namespace kxGeom
