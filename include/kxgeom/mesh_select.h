// Selections over a triangle mesh: growing a triangle selection to its
// vertices, its neighbours or its whole edge-connected part, and deleting a
// selection with every array of the mesh compacted to match.
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// Grows and converts selections held in two caller-owned bit sets. The
/// object keeps references to all four arguments, which must outlive it.
/// Indices are not validated: every triangle corner must lie in
/// [0, getNumVertices()), `adjacency` must be `meshAdjTris` of `mesh`, and the
/// two sets must be sized to the vertex and the triangle count.
/// Thread safety: one object per thread; the mesh and adjacency may be
/// shared with other readers.
class KXGEOM_API MeshSelect {
 public:
  /// @param[in] mesh        the mesh the selections refer to.
  /// @param[in] adjacency   its vertex-to-triangles table.
  /// @param[in,out] vertices   one bit per vertex.
  /// @param[in,out] triangles  one bit per triangle.
  MeshSelect(const CompactMesh& mesh, const MeshAdjTris& adjacency, BitVector& vertices,
             BitVector& triangles);
  virtual ~MeshSelect() = default;

  /// Adds every corner of every selected triangle to the vertex selection.
  /// Cost O(T).
  void selectVerticesFromTriangles();
  /// Adds every triangle with at least `count` selected corners (a corner
  /// named twice counts twice) to the triangle selection. Cost O(T).
  void selectTrianglesFromVertices(int count);
  /// Grows the triangle selection over shared edges (two triangles share an
  /// edge when both name its two vertices): by one ring of neighbours when
  /// `oneRing` is true, else to every triangle edge-connected to a selected
  /// one. Cost O(T + sum of the fans scanned).
  void selectTrianglesRecursive(bool oneRing = false);

 private:
  void addEdgeNeighbours(int t, kx::vector<int>& found);

  const CompactMesh& mesh_;
  const MeshAdjTris& adjacency_;
  BitVector& vertices_;
  BitVector& triangles_;
};

/// Deletes selected triangles, and selected vertices that no remaining
/// triangle uses, compacting the mesh: survivors keep their order, every
/// per-vertex array (normals, UVs, STs, colours, named arrays, the
/// selection) and per-triangle array (triangle normals, the selection)
/// follows, lines and line strips that touch a deleted vertex are dropped and
/// the rest renumbered; triangle strips and fans, which describe the old
/// triangles, are cleared when any triangle goes. One notice of type 1 with
/// both maps is sent; nothing is sent when nothing is deleted.
/// Thread safety: needs exclusive access to the mesh.
class KXGEOM_API MeshDeleteSelected {
 public:
  /// @param[in,out] mesh  the mesh to edit; it must outlive the object.
  explicit MeshDeleteSelected(CompactMesh& mesh) : mesh_(mesh) {}
  virtual ~MeshDeleteSelected() = default;

  /// Deletes by the mesh's own selections (`getSelectedTriangles`,
  /// `getSelectedVertices`; bits past a set's size count as clear).
  /// @param[out] vertexMap, triangleMap  when not null, old to new indices
  ///   (-1 for deleted elements).
  /// Returns true when anything was deleted. Cost O(V + T).
  bool apply(Remap* vertexMap = nullptr, Remap* triangleMap = nullptr);
  /// Deletes the listed triangles and those of their corners that no
  /// remaining triangle uses; the mesh's selections are replaced by the
  /// deleted sets. Indices are not validated.
  /// @param[in] adjacency  `meshAdjTris` of the mesh.
  /// @param[in] triangles  triangle indices (repeats allowed).
  /// Returns true when anything was deleted. Cost O(V + T).
  bool apply(const MeshAdjTris& adjacency, const kx::vector<int>& triangles);

 private:
  CompactMesh& mesh_;
};

}  // namespace kxGeom
