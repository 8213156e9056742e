// Cutting a triangle mesh along edges into one topological disk.
#pragma once

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {
namespace cutSurface {

/// Cuts `mesh` along edges so that it becomes one topological disk (genus 0,
/// one boundary loop), vertex positions unchanged. The cut is the dual of a
/// spanning tree of the triangles: every edge that the breadth-first tree of
/// triangles (grown across shared manifold edges from triangle 0) does not
/// cross is a candidate, and candidates ending at a vertex that no other
/// candidate or boundary edge reaches are pruned away repeatedly. What
/// remains, the loops that carry the genus joined to the boundaries, is cut:
/// a vertex gets one copy per fan of triangles left between cut edges (the
/// first keeps its index; copies are appended with its position and other
/// per-vertex data). A closed surface of genus 0 prunes to nothing and is cut
/// along two edges at one vertex instead. The cut is short only as far as the
/// breadth-first tree is: it is not shortened along shortest paths.
/// Preconditions: one edge-connected component, manifold edges (shared by
/// at most two triangles); indices are not validated.
/// @param[in,out] mesh the mesh; one notice of type 1 is sent when cut.
/// @param[out] source when not null, receives for every vertex of the cut
///   mesh the vertex it was copied from (itself for the originals).
/// Returns false, leaving the mesh unchanged, when it has no triangles or is
/// already a disk. Cost O(T log T).
KXGEOM_API bool makeDisk(CompactMesh& mesh, kx::vector<int>* source = nullptr);

}  // namespace cutSurface
}  // namespace kxGeom
