// Derived data of a mesh built on demand and dropped when the mesh changes.
#pragma once

#include <memory>

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>

namespace kxGeom {

/// The adjacency and spatial index of one mesh, for operations that ask for
/// them repeatedly. A getter returns data that matches the mesh as it is
/// now: whatever was built before the mesh received a change notice (or
/// changed its counts) is rebuilt. References stay valid until the next
/// getter call. Thread safety: one thread at a time.
class KXGEOM_API MeshCache {
 public:
  virtual ~MeshCache() = default;
  /// `meshAdjTris` of the mesh. Cost O(V + T) when rebuilt.
  virtual const MeshAdjTris& getAdjTris() = 0;
  /// An octree over the mesh's vertices (finite ones bound its box).
  /// Cost O(V log V) when rebuilt.
  virtual const Octree& getOctree() = 0;
  /// `computeOctreeTris` over `getOctree()`. Cost O(T log V) when rebuilt.
  virtual const OctreeTris& getOctreeTris() = 0;
};

/// The plain cache: each item built on first request after a change.
class KXGEOM_API SimpleMeshCache : public MeshCache {
 public:
  /// @param[in] mesh the mesh; it must outlive the cache.
  explicit SimpleMeshCache(const CompactMesh& mesh);
  ~SimpleMeshCache() override;
  const MeshAdjTris& getAdjTris() override;
  const Octree& getOctree() override;
  const OctreeTris& getOctreeTris() override;
  /// Drops everything built so far.
  void clear();

 private:
  void dropIfStale();

  const CompactMesh& mesh_;
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kxGeom
