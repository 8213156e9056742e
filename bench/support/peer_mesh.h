// A kxgeom mesh copied into a peer library's half-edge mesh (CGAL's
// Surface_mesh, OpenMesh's TriMesh), for the benchmarks that time a peer on
// the same input: both add vertices from points and faces from the vertex
// handles they return.
#pragma once

#include <vector>

#include <kxgeom/platform/mesh.h>

namespace kxbench {

template <class PeerMesh>
PeerMesh toPeerMesh(const kxGeom::CompactMesh& m) {
  using Point = typename PeerMesh::Point;
  PeerMesh out;
  std::vector<decltype(out.add_vertex(Point()))> v;
  v.reserve(std::size_t(m.getNumVertices()));
  for (int i = 0; i < m.getNumVertices(); ++i) {
    const kxGeom::MeshVertex& p = m.getVertices()[i];
    v.push_back(out.add_vertex(Point(p.x, p.y, p.z)));
  }
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
    out.add_face(v[tri[0]], v[tri[1]], v[tri[2]]);
  }
  return out;
}

}  // namespace kxbench
