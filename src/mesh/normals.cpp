#include <kxgeom/normals.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/predicates.h>

namespace kxGeom {

namespace {

// Writes the float unit normal of every triangle to `out` (three floats
// each), in parallel: each thread owns a contiguous range of triangles.
void computeTriangleNormals(const CompactMesh& mesh, float* out) {
  const float* vertices = mesh.getVerticesRaw();
  const int* triangles = mesh.getTrianglesRaw();
  kxUtil::forEachRange(kxUtil::ThreadPool::get(), mesh.getNumTriangles(),
                       [&](int, int begin, int end) {
                         for (int t = begin; t < end; ++t) {
                           const kxLinear::Normal n = meshTriNormal(vertices, triangles + 3 * t);
                           float* o = out + 3 * std::ptrdiff_t(t);
                           o[0] = float(n.x());
                           o[1] = float(n.y());
                           o[2] = float(n.z());
                         }
                       });
}

// Adds each triangle's normal to its three corners, in triangle order, so
// every vertex sums its contributions in one fixed order.
void accumulateAtCorners(const int* triangles, int numTriangles, const float* triNormals,
                         float* normals) {
  for (int t = 0; t < numTriangles; ++t) {
    const float* n = triNormals + 3 * std::ptrdiff_t(t);
    for (int c = 0; c < 3; ++c) {
      float* v = normals + 3 * std::ptrdiff_t(triangles[3 * std::ptrdiff_t(t) + c]);
      v[0] += n[0];
      v[1] += n[1];
      v[2] += n[2];
    }
  }
}

void notifyData(CompactMesh& mesh, void (MeshModification::*mark)()) {
  MeshModification mod(&mesh, MeshModification::DataChanged, nullptr);
  (mod.*mark)();
  mesh.modified(mod);
}

}  // namespace

void meshComputeNormals(CompactMesh& mesh) {
  const int n = mesh.getNumVertices(), m = mesh.getNumTriangles();
  if (n == 0) return;
  debugChannel().print("meshComputeNormals:  vertices %d  triangles %d\n", n, m);
  mesh.allocNormalArray();
  float* normals = mesh.getNormalsRaw();
  std::fill(normals, normals + 3 * std::ptrdiff_t(n), 0.0f);
  kx::vector<float> triNormals(3 * std::size_t(m));
  computeTriangleNormals(mesh, triNormals.data());
  accumulateAtCorners(mesh.getTrianglesRaw(), m, triNormals.data(), normals);
  meshNormalize(normals, n);
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
