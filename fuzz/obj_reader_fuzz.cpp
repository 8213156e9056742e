// Fuzzes meshReadObj: no crash, no sanitizer report, and a successful read
// yields only valid indices and attribute arrays sized to the vertices.
#include <kxgeom/mesh_io.h>

#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kxGeom::CompactMesh mesh;
  if (kxGeom::meshReadObj(mesh, kxfuzz::writeScratch(data, size))) {
    kxfuzz::checkIndices(mesh);
    if (mesh.getNumVertices() > 0 && !mesh.getVertices()) std::abort();
  } else if (mesh.getNumVertices() != 0 || mesh.getNumTriangles() != 0) {
    std::abort();  // a failed read must leave the mesh untouched
  }
  return 0;
}
