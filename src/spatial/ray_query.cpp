#include <kxgeom/ray_query.h>

#include <limits>

#include <kxgeom/closest_point.h>
#include <kxgeom/octree_query.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/predicates.h>

namespace kxGeom {

bool meshRayTriIntersect(const CompactMesh& mesh, int triangle, const kxLinear::Line& ray,
                         kxLinear::PointFlt& hit) {
  const float* vertices = mesh.getVerticesRaw();
  const int* tri = mesh.getTrianglesRaw() + 3 * std::size_t(triangle);
  const kxLinear::PointFlt origin(ray.getOrigin());
  double t, u, v;
  if (!intersectRayTriangle(ray.getDirection().data(), origin.data(),
                            vertices + 3 * std::size_t(tri[0]), vertices + 3 * std::size_t(tri[1]),
                            vertices + 3 * std::size_t(tri[2]), t, u, v)) {
    return false;
  }
  hit = kxLinear::PointFlt(ray.eval(t));
  return true;
}

bool meshRayTriIntersect(const CompactMesh& mesh, int triangle, const kxLinear::Line& ray,
                         kxLinear::Point& hit) {
  kxLinear::PointFlt hitFlt;
  if (!meshRayTriIntersect(mesh, triangle, ray, hitFlt)) return false;
  hit = kxLinear::Point(hitFlt);
  return true;
}

bool meshRayIntersect(const CompactMesh& mesh, const Octree& vertexOctree,
                      const MeshAdjTris& adjTris, const Frustum& frustum, kxLinear::PointFlt& hit,
                      int* triangle) {
  kxOS::StopWatch watch;
  BitVector vertexSeen(mesh.getNumVertices());
  BitVector triangleSeen(mesh.getNumTriangles());
  const kxLinear::Line& ray = frustum.getRay();
  const int* points = vertexOctree.getPointIndices();
  for (OctreeIntersectIt it(vertexOctree, frustum); it.valid(); it.next()) {
    const OctreeIterator leaf = it.get();
    for (int i = leaf.firstPoint(); i < leaf.endPoint(); ++i) {
      const int v = points[i];
      if (vertexSeen.isBitSet(v)) continue;
      vertexSeen.setBit(v);
      const int* tris = adjTris.triIndices(v);
      for (int k = 0, n = adjTris.numTris(v); k < n; ++k) {
        const int t = tris[k];
        if (triangleSeen.isBitSet(t)) continue;
        triangleSeen.setBit(t);
        if (!meshRayTriIntersect(mesh, t, ray, hit)) continue;
        if (triangle) *triangle = t;
        debugChannel().print("meshRayIntersect:  (%f,%f,%f) %f s\n", hit.x, hit.y, hit.z,
                             watch.stop());
        return true;
      }
    }
  }
  debugChannel().print("meshRayIntersect:  no intersection %f s\n", watch.stop());
  return false;
}

MeshCoord meshRayClosestPt(const CompactMesh& mesh, double longestEdge, const Octree& vertexOctree,
                           const MeshAdjTris& adjTris, const kxLinear::Line& ray,
                           const kxLinear::Point& p) {
  // A line without a usable direction has no foot: NaN makes the search find nothing.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  kxLinear::Point foot(nan, nan, nan);
  kxLinear::intersect(ray, kxLinear::Plane(p, ray.getDirection()), foot,
                      kxLinear::perpendicular2Tol);
  MeshCoord result;
  meshClosestPoint(mesh, vertexOctree, adjTris, foot, longestEdge,
                   std::numeric_limits<double>::max(), nullptr, &result);
  return result;
}

}  // namespace kxGeom
