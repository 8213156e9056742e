// A kxgeom mesh copied into CGAL's Surface_mesh with double coordinates, for
// the benchmarks that time CGAL on the same input (peers only).
#pragma once

#include <vector>

#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>

#include <kxgeom/platform/mesh.h>

namespace kxbench {

using CgalKernel = CGAL::Simple_cartesian<double>;
using CgalSurfaceMesh = CGAL::Surface_mesh<CgalKernel::Point_3>;

inline CgalSurfaceMesh toCgalSurfaceMesh(const kxGeom::CompactMesh& m) {
  CgalSurfaceMesh s;
  std::vector<CgalSurfaceMesh::Vertex_index> v;
  for (int i = 0; i < m.getNumVertices(); ++i) {
    const kxGeom::MeshVertex& p = m.getVertices()[i];
    v.push_back(s.add_vertex(CgalKernel::Point_3(p.x, p.y, p.z)));
  }
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
    s.add_face(v[tri[0]], v[tri[1]], v[tri[2]]);
  }
  return s;
}

}  // namespace kxbench
