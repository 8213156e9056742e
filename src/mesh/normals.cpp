#include <kxgeom/normals.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

// The unit normal of one triangle rounded to float, bit for bit what
// `meshTriNormal` returns (the same double arithmetic: corners widened,
// (c - b) x (a - b), divided by its length, (0, 0, 1) when the length
// vanishes or is not finite), inlined so the hot loops pay no calls.
inline void unitTriangleNormal(const float* vertices, const int* tri, float* out) {
  using kxLinear::Point;
  const Point a = Point::from(vertices + 3 * std::ptrdiff_t(tri[0]));
  const Point b = Point::from(vertices + 3 * std::ptrdiff_t(tri[1]));
  const Point c = Point::from(vertices + 3 * std::ptrdiff_t(tri[2]));
  const kxLinear::Vector n = kxLinear::cross(c - b, a - b);
  const double len2 = n.length2();
  if (len2 > 0.0 && std::isfinite(len2)) {
    const double len = std::sqrt(len2);
    out[0] = float(n.x / len);
    out[1] = float(n.y / len);
    out[2] = float(n.z / len);
  } else {
    out[0] = 0.0f;
    out[1] = 0.0f;
    out[2] = 1.0f;
  }
}

// Writes the float unit normal of every triangle to `out` (three floats
// each); each thread owns a contiguous range of triangles.
void computeTriangleNormals(const CompactMesh& mesh, float* out) {
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  kxUtil::forEachRange(kxUtil::ThreadPool::get(), mesh.getNumTriangles(),
                       [&](int, int begin, int end) {
                         for (int t = begin; t < end; ++t) {
                           unitTriangleNormal(vertices, triangles + 3 * std::ptrdiff_t(t),
                                              out + 3 * std::ptrdiff_t(t));
                         }
                       });
}

// Each thread owns a contiguous range of vertices: it zeroes their normals,
// walks all triangles in order adding the normal of every triangle with a
// corner in its range to those corners, then normalizes its range (a nested
// meshNormalize runs on the calling worker). Every vertex thus sums its
// triangles in triangle order, whatever the thread count, with no shared
// writes, no temporary array and a single dispatch to the pool.
void computeVertexNormals(const CompactMesh& mesh, float* normals) {
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  const int m = mesh.getNumTriangles();
  kxUtil::forEachRange(
      kxUtil::ThreadPool::get(), mesh.getNumVertices(), [&](int, int begin, int end) {
        std::fill(normals + 3 * std::ptrdiff_t(begin), normals + 3 * std::ptrdiff_t(end), 0.0f);
        const unsigned span = unsigned(end - begin);
        auto addMine = [&](const int* tri, const float* n) {
          for (int c = 0; c < 3; ++c) {
            if (unsigned(tri[c] - begin) >= span) continue;
            float* v = normals + 3 * std::ptrdiff_t(tri[c]);
            v[0] += n[0];
            v[1] += n[1];
            v[2] += n[2];
          }
        };
        auto touches = [&](const int* tri) {
          return unsigned(tri[0] - begin) < span || unsigned(tri[1] - begin) < span ||
                 unsigned(tri[2] - begin) < span;
        };
        for (const int* tri = triangles; tri != triangles + 3 * std::ptrdiff_t(m); tri += 3) {
          if (!touches(tri)) continue;
          float n[3];
          unitTriangleNormal(vertices, tri, n);
          addMine(tri, n);
        }
        meshNormalize(normals + 3 * std::ptrdiff_t(begin), end - begin);
      });
}

void notifyData(CompactMesh& mesh, void (MeshModification::*mark)()) {
  MeshModification mod(&mesh, MeshModification::DataChanged, nullptr);
  (mod.*mark)();
  mesh.modified(mod);
}

}  // namespace

void meshComputeNormals(CompactMesh& mesh) {
  const int n = mesh.getNumVertices();
  if (n == 0) return;
  debugChannel().print("meshComputeNormals:  vertices %d  triangles %d\n", n,
                       mesh.getNumTriangles());
  mesh.allocNormalArray();
  float* normals = mesh.getNormalsRaw();
  computeVertexNormals(mesh, normals);
  mesh.setNormalsComputed(true);
  notifyData(mesh, &MeshModification::normalsModified);
}

void meshComputeTriangleNormals(CompactMesh& mesh) {
  const int m = mesh.getNumTriangles();
  if (m == 0) return;
  debugChannel().print("meshComputeTriangleNormals:  vertices %d  triangles %d\n",
                       mesh.getNumVertices(), m);
  kxOS::StopWatch watch;
  mesh.allocTriangleNormalArray();
  computeTriangleNormals(mesh, mesh.getTriangleNormalsRaw());
  debugChannel().print("normalized: %f s\n", watch.clear());
  notifyData(mesh, &MeshModification::triangleNormalsModified);
}

void meshNormalize(float* vectors, int count) {
  const double tol = kxLinear::epsilon2Tol;
  kxUtil::forEachRange(kxUtil::ThreadPool::get(), count, [=](int, int begin, int end) {
    for (float* v = vectors + 3 * std::ptrdiff_t(begin); v != vectors + 3 * std::ptrdiff_t(end);
         v += 3) {
      const float len2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
      if (double(len2) > tol) {
        const float inv = 1.0f / std::sqrt(len2);
        v[0] *= inv;
        v[1] *= inv;
        v[2] *= inv;
      } else {
        v[0] = 0.0f;
        v[1] = 0.0f;
        v[2] = 1.0f;
      }
    }
  });
}

}  // namespace kxGeom
