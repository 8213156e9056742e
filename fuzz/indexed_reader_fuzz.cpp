// Fuzzes both indexed-format readers: no crash, no sanitizer report, valid
// indices, faces of at least three corners, and no more elements than the
// input's bytes can describe.
#include <kxgeom/mesh_io.h>

#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string& file = kxfuzz::writeScratch(data, size);
  kxGeom::CompactMesh mesh;
  kxGeom::meshRead(mesh, file);
  kxfuzz::checkIndices(mesh);
  if (std::size_t(mesh.getNumVertices()) > size + 1) std::abort();

  kxGeom::TopoMesh topo;
  kxGeom::meshRead(topo, file);
  if (std::size_t(topo.getNumVertices()) > size + 1) std::abort();
  for (kxGeom::TopoMeshFace f : topo.faces()) {
    if (topo.getFaceSize(f) < 3) std::abort();
  }
  for (int h = 0; h < topo.halfEdgeSlots(); ++h) {
    const kxGeom::TopoMeshHalfEdge e(h), t = topo.twin(e);
    if (t.isValid() && (topo.twin(t) != e || topo.origin(t) != topo.target(e))) std::abort();
  }
  return 0;
}
