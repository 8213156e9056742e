// A textual summary of a mesh, shared by `kxgeom info` and the demo report.
#pragma once

#include <string>

#include <kxgeom/kxgeom.h>

namespace kxtool {

/// Vertex, triangle and boundary-loop counts, bounding box, presence of
/// normals and UVs, and the longest edge, one item per line.
std::string summarize(const kxGeom::CompactMesh& mesh);

/// Number of boundary loops of `mesh`.
int countBoundaryLoops(const kxGeom::CompactMesh& mesh);

}  // namespace kxtool
