// Builds a small grid mesh, boxes it and lists its vertex neighbourhoods
// through the installed kxgeom package.
#include <cstdio>
#include <vector>

#include <kxgeom/kxgeom.h>

int main() {
  std::vector<kxGeom::MeshVertex> vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
  const int triangles[] = {0, 1, 3, 0, 3, 2};
  kxGeom::CompactMesh mesh(4, vertices.data(), nullptr, nullptr, nullptr);
  mesh.copyTriangles(2, triangles);

  kxGeom::BoundingBox box;
  for (const auto& v : vertices) box.extend(v.asPointFlt());
  std::printf("consumer: %d vertices, %d triangles, box diagonal %.3f\n", mesh.getNumVertices(),
              mesh.getNumTriangles(), box.diagonalLength());
  return mesh.getNumTriangles() == 2 ? 0 : 1;
}
