// Duplicate and degenerate triangles, the cached diagnosis of a mesh
// (MeshCharacteristics) and the repair loop (MeshRepair) that alternates
// diagnosis with one repair step until the mesh is clean or nothing more can
// be done. Indices are not validated: every triangle corner must lie in
// [0, getNumVertices()). Thread safety: every object and every function that
// edits a mesh needs that mesh exclusively.
#pragma once

#include <memory>

#include <kxgeom/dihedral_angles.h>
#include <kxgeom/mesh_cache.h>
#include <kxgeom/orientation.h>
#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// Triangles that carry no surface or repeat another.
class KXGEOM_API MeshDuplicateTrisResult {
 public:
  /// Triangles whose index triple, as a set, equals that of a lower-ranked
  /// triangle in the stable sort of the sorted triples (the first of each
  /// group is not listed), ascending within each group.
  kx::vector<int> duplicateTris;
  /// Triangles naming one vertex twice or three times.
  kx::vector<int> repeatedIndexTris;
  /// Triangles of three distinct indices two of whose vertices have
  /// bit-identical positions.
  kx::vector<int> coincidentVertexTris;

  /// True when any list is non-empty.
  explicit operator bool() const {
    return !duplicateTris.empty() || !repeatedIndexTris.empty() || !coincidentVertexTris.empty();
  }
  /// The union of the three lists, ascending, each triangle once.
  /// @param[in] mesh the diagnosed mesh. @param[out] out replaced. Cost O(T).
  void getBadTriangles(const CompactMesh& mesh, kx::vector<int>& out) const;
};

/// Fills `result` (logs "meshDuplicateTris:  verts(..) tris(..) dup(..)
/// degenerate(..) <s> s"). Positions are compared exactly; the sort is a
/// stable parallel sort, so the result is the same for every thread count.
/// @param[in] mesh. @param[out] result replaced. Returns whether any list is
/// non-empty. Cost O(T log T).
KXGEOM_API bool meshDuplicateTris(const CompactMesh& mesh, MeshDuplicateTrisResult& result);

/// Deletes every triangle `result` lists, and those of their vertices that
/// no other triangle uses (the mesh's selections are sized, not cleared, and
/// every set bit is deleted with them). Does nothing when `result` is empty.
/// @param[in,out] mesh. @param[in] adjacency its `meshAdjTris`.
/// @param[in] result `meshDuplicateTris` of the mesh. Cost O(V + T).
KXGEOM_API void meshRemoveDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjacency,
                                        const MeshDuplicateTrisResult& result);
/// Diagnoses, then removes as above. Cost O(T log T).
KXGEOM_API void meshRemoveDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjacency);

/// A cache of six checks of one mesh, each named by a bit. A check runs only
/// when its result is unknown; `reset` forgets results (the repair loop
/// resets all after every edit). An empty mesh passes every check.
class KXGEOM_API MeshCharacteristics : public kx::ReferenceCount {
 public:
  enum Check : int {
    GoodTriangles = 1,       ///< no duplicate, repeated-index or coincident-vertex triangle
    Manifold = 2,            ///< no over-shared edge, no vertex of several fans
    Oriented = 4,            ///< consistent winding
    NonIntersecting = 8,     ///< no two triangles intersect
    GoodAngles = 16,         ///< no dihedral angle below the requested one
    TopoGoodTriangles = 32,  ///< no duplicate or repeated-index triangle
    AllChecks = 63,
  };

  /// @param[in] mesh the mesh; it must outlive the object. Builds its own
  /// SimpleMeshCache.
  explicit MeshCharacteristics(const CompactMesh& mesh);
  ~MeshCharacteristics() override;

  /// Runs the checks of `mask` whose results are unknown, in the order 2, 4,
  /// 1, 32, 8, 16, and returns the passed bits of `mask`.
  int check(int mask);
  bool checkGoodTriangles() { return check(GoodTriangles) != 0; }
  bool checkManifold() { return check(Manifold) != 0; }
  bool checkOriented() { return check(Oriented) != 0; }
  bool checkNonIntersecting() { return check(NonIntersecting) != 0; }
  /// @param[in] angle in degrees; a new angle re-runs the check.
  bool checkGoodAngles(double angle);
  bool checkTopoGoodTriangles() { return check(TopoGoodTriangles) != 0; }
  /// Forgets the results of the checks of `mask` (a good-triangles bit also
  /// forgets the angle result).
  void reset(int mask);

  int getTestsPassed() const { return passed_; }
  int getTestsPerformed() const { return performed_; }
  const MeshDuplicateTrisResult* getDuplicateTrisResult() const { return duplicates_.get(); }
  const MeshManifoldResult* getManifoldResult() const { return manifold_.get(); }
  const MeshDihedralAnglesResult* getGoodAnglesResult() const { return angles_.get(); }
  const BitVector& getIntersectingTriangles() const { return intersecting_; }
  MeshCache& getCache() { return *cache_; }
  /// Replaces the cache; with `owned` the object deletes it.
  void setCache(MeshCache* cache, bool owned);

  /// Counts from the cached results (-1 when the check has not run).
  int getNumBadTriangles();
  int getNumFoldedTriangles() const;
  int getNumNonManifoldEdges() const;
  int getNumNonManifoldVertices() const;
  int getNumIntersectingTriangles() const;

 private:
  void runCheck(int bit);
  void runGoodTriangles(int bit);

  const CompactMesh& mesh_;
  MeshCache* cache_;
  bool cacheOwned_ = true;
  int passed_ = 0, performed_ = 0;
  double lastAngle_ = 15.0, requestedAngle_ = 15.0;
  std::unique_ptr<MeshManifoldResult> manifold_;
  std::unique_ptr<MeshDuplicateTrisResult> duplicates_;
  std::unique_ptr<MeshDihedralAnglesResult> angles_;
  BitVector intersecting_;
  int badTriangles_ = -1;
};

/// The repair loop. Each step repairs the first failing condition: bad
/// triangles (deleted), then manifoldness (over-shared edges trimmed, then
/// pinched vertices split), then orientation (made consistent; a region
/// that cannot be oriented, a Möbius band, is recorded on the first attempt
/// and deleted on the next unless it is the whole mesh), then, when asked,
/// intersecting triangles and triangles at folds below the minimum good
/// angle (deleted). Every step sends the mesh its notices.
class KXGEOM_API MeshRepair {
 public:
  /// @param[in,out] mesh it must outlive the object.
  explicit MeshRepair(CompactMesh& mesh);
  MeshRepair(const MeshRepair&) = default;
  virtual ~MeshRepair() = default;

  /// Whether steps delete triangles at sharp folds (default off).
  void checkGoodAngles(bool on);
  /// Whether steps delete intersecting triangles (default off).
  void checkSelfIntersection(bool on);
  /// The fold angle in degrees (default 1.5707963267948966, which only flags
  /// almost flat folds).
  void setMinGoodAngle(double angle) { minGoodAngle_ = angle; }
  kx::Reference<MeshCharacteristics> getCharacteristics() const { return characteristics_; }
  void setCharacteristics(kx::Reference<MeshCharacteristics> c) { characteristics_ = c; }

  /// Whether a step can make progress.
  bool canRepair();
  /// Whether any enabled check fails.
  bool needsRepair();
  /// One step when `canRepair()`; returns whether the mesh changed.
  bool repairOnce();
  /// Steps while `canRepair()`; returns whether any step changed the mesh.
  /// @param[out] clean when not null, receives `!needsRepair()` afterwards.
  bool repairAll(bool* clean);
  bool hasMobiusStrip();
  bool isMobiusStripRemovable() const;
  /// Sets the mesh's selections to the recorded Möbius region.
  void selectMobiusStrip();

 private:
  bool repair();
  bool repairOriented(MeshCharacteristics& c);
  bool repairUnoriented(MeshCharacteristics& c);
  void deleteSelection();

  CompactMesh& mesh_;
  kx::Reference<MeshCharacteristics> characteristics_;
  bool checkGoodAngles_ = false;
  double minGoodAngle_ = 1.5707963267948966;
  bool checkSelfIntersection_ = false;
  bool mobiusAttempted_ = false;
  BitVector mobiusStrip_;
};

}  // namespace kxGeom
