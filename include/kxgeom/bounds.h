// Axis-aligned bounding boxes of meshes and of arrangements of placed meshes.
#pragma once

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// One member of an arrangement: a mesh placed by a single-precision affine
/// transform (mesh coordinates -> arrangement coordinates). The mesh is not
/// owned and must outlive every use of the placement.
struct MeshPlacement {
  kxLinear::AffineMatrixFlt transform;
  const PointMesh* mesh = nullptr;

  MeshPlacement() = default;
  MeshPlacement(const kxLinear::AffineMatrixFlt& m, const PointMesh* placed)
      : transform(m), mesh(placed) {}
};

/// The box of all vertices of `mesh`.
/// [in]  mesh  the mesh.
/// [out] box   the box; with no vertices the invalid box (minimum
///             3.4028235e38, maximum -3.4028235e38 on every axis).
/// NaN coordinates are ignored. Never fails; logs on the debug channel.
/// Cost O(n), in parallel on the shared pool; identical for every thread
/// count. The mesh must not change while it runs.
KXGEOM_API void meshBoundingBox(const PointMesh& mesh, BoundingBox& box);

/// The box of the vertices whose bit is set in `filter`.
/// [in]  mesh    the mesh.
/// [in]  filter  selected vertices; null means all. Bits beyond the filter's
///               size count as clear.
/// [out] box     the box; the invalid box when nothing is selected.
/// Cost O(n), in parallel; as the unfiltered form.
KXGEOM_API void meshBoundingBox(const PointMesh& mesh, const BitVector* filter, BoundingBox& box);

/// The box of all vertices as two double corners (the float box widened).
/// [in]  mesh      the mesh.
/// [out] minimum   three doubles; 3.4028234663852886e38 each with no vertices.
/// [out] maximum   three doubles; -3.4028234663852886e38 each with no vertices.
/// Cost O(n), in parallel; as the unfiltered form.
KXGEOM_API void meshBoundingBox(const PointMesh& mesh, double* const minimum,
                                double* const maximum);

/// The box of every placed mesh in arrangement coordinates: each mesh's box,
/// transformed (the axis-aligned box of its transformed corners), in list
/// order. An empty mesh contributes nothing.
/// [in]  placements  the arrangement; every `mesh` pointer non-null.
/// [out] box         the box; invalid for an empty arrangement.
/// Never fails; logs on the debug channel. Cost O(total vertices).
KXGEOM_API void arrangementBoundingBox(const kx::list<MeshPlacement>& placements, BoundingBox& box);

}  // namespace kxGeom
