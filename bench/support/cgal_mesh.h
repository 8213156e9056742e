// CGAL's kernel and Surface_mesh as the benchmarks that time CGAL use them
// (peers only); copy a kxgeom mesh in with kxbench::toPeerMesh.
#pragma once

#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>

#include "support/peer_mesh.h"

namespace kxbench {

using CgalKernel = CGAL::Simple_cartesian<double>;
using CgalSurfaceMesh = CGAL::Surface_mesh<CgalKernel::Point_3>;

}  // namespace kxbench
