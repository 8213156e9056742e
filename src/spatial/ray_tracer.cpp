#include <kxgeom/ray_tracer.h>

#include <cmath>

#include <kxgeom/predicates.h>

namespace kxGeom {

RayTracer::RayTracer(const Octree& octree, const OctreeTris& tris, const CompactMesh* mesh)
    : leaves_(octree),
      tris_(&tris),
      vertices_(mesh->getVerticesRaw()),
      triangles_(mesh->getTrianglesRaw()) {}

bool RayTracer::intersectVoxel(const Ray& ray, int voxel, double& nearestT) {
  const int* tris = tris_->firstTri(voxel);
  const int count = tris_->numTris(voxel);
  const double* dir = ray.direction().data();
  const float* orig = ray.origin().data();
  bool hit = false;
  for (int i = 0; i < count; ++i) {
    const int* corner = triangles_ + 3 * tris[i];
    double t, u, v;
    if (intersectRayTriangle(dir, orig, vertices_ + 3 * corner[0], vertices_ + 3 * corner[1],
                             vertices_ + 3 * corner[2], t, u, v) &&
        t > kxLinear::epsilonTol && t < nearestT) {
      nearestT = t;
      triangle_ = tris[i];
      hit = true;
      if (!findNearest_) return true;
    }
  }
  return hit;
}

bool RayTracer::intersect(const kxLinear::PointFlt& origin, const kxLinear::Vector& direction) {
  const Ray ray(origin, direction);
  double nearestT = Ray::kNoHit;
  triangle_ = -1;
  for (leaves_.reset(ray); leaves_.valid(); leaves_.next()) {
    const OctreeIterator leaf = leaves_.get();
    // Leaves come front to back, so once one starts beyond the nearest hit
    // so do all that follow. The bound is rounded up so that rounding to
    // float never drops a leaf that starts just before the hit.
    if (triangle_ >= 0 && !ray.intersects(leaf.getBox(), 0.0f,
                                          std::nextafter(float(nearestT), BoundingBox::kMaxFloat)))
      break;
    if (intersectVoxel(ray, leaf.getVoxel(), nearestT) && !findNearest_) break;
  }
  distance_ = triangle_ >= 0 ? nearestT * direction.length() : Ray::kNoHit;
  return triangle_ >= 0;
}

}  // namespace kxGeom
