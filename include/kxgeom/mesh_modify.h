// A working copy of part of a triangle mesh as a topological mesh, edited
// freely and merged back into the mesh once.
#pragma once

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/topomesh.h>

namespace kxGeom {

/// Extracts the selected triangles of a CompactMesh, with their corners, as
/// a TopoMesh (twins linked), remembering which mesh vertex each TopoMesh
/// vertex came from. Edit the TopoMesh (add vertices and triangles, delete
/// or swap the extracted ones), then `merge` once: the region's triangles
/// are replaced by the TopoMesh's faces. The object holds a reference to the
/// mesh, which must not change until the merge. Indices are not validated.
/// Thread safety: one thread at a time.
class KXGEOM_API MeshModifyRep {
 public:
  /// @param[in,out] mesh the mesh (changed only by `merge`).
  /// @param[in] triangles one bit per triangle: the region.
  /// Cost O(V + T + region log region).
  MeshModifyRep(CompactMesh& mesh, const BitVector& triangles);
  virtual ~MeshModifyRep() = default;

  TopoMesh& getTopoMesh() { return topo_; }
  /// The TopoMesh vertex of mesh vertex `v`; invalid when `v` is outside the
  /// region.
  TopoMeshVertex getTopoVertex(int v) const { return TopoMeshVertex(toTopo_[std::size_t(v)]); }
  /// The mesh vertex a TopoMesh vertex came from; -1 for a vertex added to
  /// the TopoMesh.
  int getMeshVertex(TopoMeshVertex v) const;

  /// Writes the region back: TopoMesh vertices added since extraction are
  /// appended to the mesh in slot order (positions moved in the TopoMesh are
  /// written too), the region's triangles are rewritten in place by the
  /// TopoMesh's faces in slot order, further faces appended, and region
  /// triangles left over deleted (later triangles move down). New vertices
  /// get a normal from their faces and the UVs, STs, colours and named
  /// attributes of the first mesh corner of their first face. Triangle normals, when
  /// present, are recomputed from the geometry. One notice of type 1
  /// carries the triangle map. Returns false, writing nothing, when a face is
  /// not a triangle. Cost O(V + T).
  bool merge();

 private:
  CompactMesh& mesh_;
  TopoMesh topo_;
  kx::vector<int> region_;    // the region's triangles, ascending
  kx::vector<int> toTopo_;    // mesh vertex -> topo vertex (-1 outside)
  kx::vector<int> fromTopo_;  // topo vertex slot -> mesh vertex
};

}  // namespace kxGeom
