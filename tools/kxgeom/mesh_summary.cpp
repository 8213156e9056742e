#include "mesh_summary.h"

#include <cstdio>

namespace kxtool {

int countBoundaryLoops(const kxGeom::CompactMesh& mesh) {
  kxGeom::MeshAdjTris adjTris;
  kxGeom::meshAdjTris(mesh, adjTris);
  kxGeom::MeshAdjVertices adjVertices;
  kxGeom::meshAdjVertices(mesh, adjTris, adjVertices);
  kxGeom::MeshBoundaries loops;
  kxGeom::meshComputeBoundary(mesh, adjTris, adjVertices, loops);
  return loops.size();
}

std::string summarize(const kxGeom::CompactMesh& mesh) {
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(mesh, box);
  char text[1024];
  const int n = std::snprintf(
      text, sizeof text,
      "vertices:       %d\ntriangles:      %d\nboundary loops: %d\n"
      "bounding box:   (%g, %g, %g) .. (%g, %g, %g)\nnormals:        %s\nUVs:            %s\n"
      "longest edge:   %g\n",
      mesh.getNumVertices(), mesh.getNumTriangles(), countBoundaryLoops(mesh), box[0], box[1],
      box[2], box[3], box[4], box[5], mesh.getNormals() ? "yes" : "no",
      mesh.getUVs() ? "yes" : "no", mesh.getNumTriangles() ? kxGeom::meshLongestEdge(mesh) : 0.0);
  return std::string(text, std::size_t(n));
}

}  // namespace kxtool
