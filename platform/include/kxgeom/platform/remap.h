// Index maps that report renumberings.
#pragma once

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>

namespace kxGeom {

class BitVector;

/// A map from a domain [0, domain) to a range [0, range). A negative image
/// means the element was removed. Thread safety: const members may be called
/// concurrently.
class KXGEOM_API Remap {
 public:
  Remap() = default;
  /// Domain and range sizes; every image starts as -1 (removed).
  Remap(int domainSize, int rangeSize) { resize(domainSize, rangeSize); }

  /// Resets to the given sizes with every image -1.
  void resize(int domainSize, int rangeSize);
  void set(int from, int to) { map_[from] = to; }
  int operator()(int i) const { return map_[i]; }
  /// Maps `count` indices in place.
  void operator()(int* indices, int count) const;
  /// The map that removes the elements whose bits are set and numbers the
  /// survivors in their original order; domain = bits.size().
  void setDeleteMap(const BitVector& deleted);
  /// The identity on the current domain (range = domain).
  void setSequential();
  bool isSequential() const;
  int getDomainSize() const { return static_cast<int>(map_.size()); }
  int getRangeSize() const { return range_; }
  void setRangeSize(int range) { range_ = range; }
  const int* data() const { return map_.data(); }

 private:
  kx::vector<int> map_;
  int range_ = 0;
};

/// A vertex map and a triangle map (either may be null; not owned).
class MeshRemap {
 public:
  MeshRemap(Remap* vertexMap, Remap* triangleMap) : vertices_(vertexMap), triangles_(triangleMap) {}
  Remap* getVertexMap() const { return vertices_; }
  Remap* getTriangleMap() const { return triangles_; }

 private:
  Remap* vertices_;
  Remap* triangles_;
};

}  // namespace kxGeom
