// What a mesh is, topologically, whatever its orientation and indexing: the
// counts a user wants to see before editing a file from elsewhere (a scan
// with flipped patches, an OBJ whose texture seams split its vertices).
#pragma once

#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// Topology of a triangle mesh taken edge by edge on its positions: vertices
/// at bitwise-equal positions (+0 and -0 alike) count as one, so texture and
/// normal seams do not open the surface, and nothing depends on the winding.
struct MeshTopologyReport {
  int positions = 0;            ///< distinct positions used by triangles
  int edges = 0;                ///< distinct edges between distinct positions
  int degenerateTriangles = 0;  ///< triangles with two corners at one position (left out below)
  int boundaryEdges = 0;        ///< edges of exactly one triangle
  int boundaryLoops = 0;        ///< connected sets of boundary edges (holes)
  int nonManifoldEdges = 0;     ///< edges of three or more triangles
  int nonManifoldVertices = 0;  ///< positions whose triangles form two or more fans
  int seamEdges = 0;            ///< edges of two triangles that name different vertices
  int components = 0;           ///< pieces connected through shared positions
  bool oriented = true;         ///< every edge of two triangles is used once in each direction
  /// Genus of the surface, from Euler's formula per the counts above
  /// ((2 components - V + E - F - boundary loops) / 2 summed over the mesh);
  /// -1 when the surface is not a manifold (non-manifold edges or vertices)
  /// or not consistently oriented, where the formula means nothing.
  int genus = -1;
};

/// Reports the topology of `mesh` (see `MeshTopologyReport`).
/// [in] mesh  any triangle mesh; corners must lie in [0, vertex count).
/// Returns the report (all zero for a mesh without triangles).
/// Cost: O(V log V + T log T) time, about 60 bytes per triangle of scratch.
/// Thread safety: re-entrant; `mesh` may be shared with other readers.
KXGEOM_API MeshTopologyReport meshTopologyReport(const CompactMesh& mesh);

}  // namespace kxGeom
