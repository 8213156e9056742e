// Builds a two-triangle square and finds its boundary loop through the
// installed kxgeom package.
#include <cstdio>
#include <vector>

#include <kxgeom/kxgeom.h>

int main() {
  std::vector<kxGeom::MeshVertex> vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
  const int triangles[] = {0, 1, 3, 0, 3, 2};
  kxGeom::CompactMesh mesh(4, vertices.data(), nullptr, nullptr, nullptr);
  mesh.copyTriangles(2, triangles);

  kxGeom::MeshAdjTris adjTris;
  kxGeom::meshAdjTris(mesh, adjTris);
  kxGeom::MeshAdjVertices adjVertices;
  kxGeom::meshAdjVertices(mesh, adjTris, adjVertices);
  kxGeom::MeshBoundaries loops;
  kxGeom::meshComputeBoundary(mesh, adjTris, adjVertices, loops);

  std::printf("consumer: %d vertices, %d triangles, %d boundary loop(s) of length %d\n",
              mesh.getNumVertices(), mesh.getNumTriangles(), loops.size(),
              loops.size() ? loops.getLength(0) : 0);
  return loops.size() == 1 && loops.getLength(0) == 4 ? 0 : 1;
}
