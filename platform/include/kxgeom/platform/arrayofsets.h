// Compact arrays of integer sets and the adjacency tables built on them.
#pragma once

#include <memory>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>

namespace kxGeom {

/// n sets of ints stored back to back: set i is members[offsets[i] ..
/// offsets[i+1]). Thread safety: const members may be called concurrently.
class KXGEOM_API ArrayOfSets {
 public:
  ArrayOfSets() : offsets_(1, 0) {}
  /// Room for `numSets` sets and `numMembers` members in all. The builder
  /// fills `offsets()` (numSets + 1 entries, offsets()[0] = 0 and
  /// offsets()[numSets] = numMembers) and `members()`; neither is initialised.
  ArrayOfSets(int numSets, int numMembers);

  void swap(ArrayOfSets& o) noexcept {
    offsets_.swap(o.offsets_);
    members_.swap(o.members_);
  }
  int getNumSets() const { return static_cast<int>(offsets_.size()) - 1; }
  int getNumMembers() const { return static_cast<int>(members_.size()); }
  int getSetSize(int i) const { return offsets_[i + 1] - offsets_[i]; }
  const int* getSet(int i) const { return members_.data() + offsets_[i]; }
  int* getSet(int i) { return members_.data() + offsets_[i]; }
  int* offsets() { return offsets_.data(); }
  const int* offsets() const { return offsets_.data(); }
  int* members() { return members_.data(); }
  const int* members() const { return members_.data(); }

  /// Builds `numSets` sets from `numPairs` (set, member) pairs stored as
  /// 2 * numPairs ints. Members keep the order of their pairs. Every set
  /// index must lie in [0, numSets).
  void assignFromPairs(int numSets, int numPairs, const int* pairs);
  /// The transposed relation: set m lists, in ascending order, every set of
  /// `o` that contains m. Every member of `o` must lie in [0, numSets).
  void assignInverse(int numSets, const ArrayOfSets& o);

 private:
  kx::vector<int> offsets_;
  kx::vector<int> members_;
};

/// For each vertex, the triangles that use it, in ascending triangle order.
class KXGEOM_API MeshAdjTris {
 public:
  MeshAdjTris() = default;
  /// Takes over `sets` (set v = triangles of vertex v), leaving it empty.
  explicit MeshAdjTris(ArrayOfSets& sets) { sets_.swap(sets); }
  virtual ~MeshAdjTris() = default;

  void swap(MeshAdjTris& o) noexcept { sets_.swap(o.sets_); }
  int getNumVertices() const { return sets_.getNumSets(); }
  int numTris(int v) const { return sets_.getSetSize(v); }
  const int* triIndices(int v) const { return sets_.getSet(v); }
  /// Copies the triangles of vertex v to `out` (numTris(v) ints), each mapped
  /// through `triangleMap` (old index -> new index) when it is not null.
  void copyTriangles(int v, int* out, const int* triangleMap) const;
  const ArrayOfSets& getData() const { return sets_; }

 private:
  ArrayOfSets sets_;
};

/// For each vertex, its neighbouring vertices. Layout: vertex v's entries
/// start at starts[v]: first the neighbour count, then the neighbours.
class KXGEOM_API MeshAdjVertices {
 public:
  MeshAdjVertices() = default;
  /// Takes ownership of `starts` (numVertices ints) and `entries`, both
  /// allocated with new[].
  MeshAdjVertices(int numVertices, int maxCount, int* starts, int* entries)
      : n_(numVertices), maxCount_(maxCount), starts_(starts), entries_(entries) {}
  virtual ~MeshAdjVertices() = default;

  void swap(MeshAdjVertices& o) noexcept {
    std::swap(n_, o.n_);
    std::swap(maxCount_, o.maxCount_);
    starts_.swap(o.starts_);
    entries_.swap(o.entries_);
  }
  int getNumVertices() const { return n_; }
  /// The largest neighbour count of any vertex.
  int getMaxCount() const { return maxCount_; }
  int numAdjVertices(int v) const { return entries_[starts_[v]]; }
  const int* adjVertices(int v) const { return entries_.get() + starts_[v] + 1; }

 private:
  int n_ = 0;
  int maxCount_ = 0;
  std::unique_ptr<int[]> starts_;
  std::unique_ptr<int[]> entries_;
};

/// For each triangle, its neighbouring triangles (grouped by edge 0, 1, 2).
class KXGEOM_API MeshTriAdjTris {
 public:
  MeshTriAdjTris() = default;
  explicit MeshTriAdjTris(ArrayOfSets& sets) { sets_.swap(sets); }
  virtual ~MeshTriAdjTris() = default;

  void swap(MeshTriAdjTris& o) noexcept { sets_.swap(o.sets_); }
  int getNumTriangles() const { return sets_.getNumSets(); }
  int numTris(int t) const { return sets_.getSetSize(t); }
  const int* triIndices(int t) const { return sets_.getSet(t); }
  const ArrayOfSets& getData() const { return sets_; }

 private:
  ArrayOfSets sets_;
};

/// Boundary loops as runs of vertex indices.
class KXGEOM_API MeshBoundaries {
 public:
  MeshBoundaries() : starts_(1, 0) {}
  virtual ~MeshBoundaries() = default;

  void swap(MeshBoundaries& o) noexcept {
    starts_.swap(o.starts_);
    vertices_.swap(o.vertices_);
  }
  /// Number of loops.
  int size() const { return static_cast<int>(starts_.size()) - 1; }
  int getLength(int loop) const { return starts_[loop + 1] - starts_[loop]; }
  /// First vertex of the loop; `getEnd` is one past its last.
  const int* getStart(int loop) const { return vertices_.data() + starts_[loop]; }
  const int* getEnd(int loop) const { return vertices_.data() + starts_[loop + 1]; }
  void addLoop(const int* vertices, int count);
  void clear();

 private:
  kx::vector<int> starts_;
  kx::vector<int> vertices_;
};

/// A part of a mesh given by vertex and triangle index lists.
class KXGEOM_API MeshSubset : public kx::ReferenceCount {
 public:
  MeshSubset() = default;
  MeshSubset(int numVertices, const int* vertices, int numTriangles, const int* triangles)
      : vertices_(vertices, vertices + numVertices),
        triangles_(triangles, triangles + numTriangles) {}

  int getNumVertices() const { return static_cast<int>(vertices_.size()); }
  const int* getVertices() const { return vertices_.data(); }
  int getNumTriangles() const { return static_cast<int>(triangles_.size()); }
  const int* getTriangles() const { return triangles_.data(); }

 private:
  kx::vector<int> vertices_;
  kx::vector<int> triangles_;
};

}  // namespace kxGeom
