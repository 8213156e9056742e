#include <kxgeom/dihedral_angles.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/adjacency.h>
#include <kxgeom/platform/os.h>

namespace kxGeom {

namespace {

// The (unnormalised) normal of triangle t, in double precision.
kxLinear::Vector triangleNormal(const MeshVertex* v, const MeshTriangle& t) {
  const kxLinear::Point a = v[t[0]].asPoint();
  return kxLinear::cross(v[t[1]].asPoint() - a, v[t[2]].asPoint() - a);
}

// The angle between two normals in [0, pi]; negative when one has no
// direction.
double normalAngle(const kxLinear::Vector& n, const kxLinear::Vector& m) {
  const double sine = kxLinear::cross(n, m).length(), cosine = kxLinear::dot(n, m);
  if (!(n.length2() > 0) || !(m.length2() > 0)) return -1;
  return std::atan2(sine, cosine);
}

}  // namespace

void MeshDihedralAnglesResult::getAdjacentTriangles(kx::vector<int>& out) const {
  out.clear();
  for (const auto& p : pairs_) {
    out.push_back(p.first);
    out.push_back(p.second);
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
}

bool meshFindAnglesLessThan(const CompactMesh& mesh, const MeshAdjTris& adjacency, double angle,
                            MeshDihedralAnglesResult& result) {
  kxOS::StopWatch watch;
  watch.start();
  const double pi = 3.14159265358979323846;
  const double limit = pi - angle * pi / 180.0;
  const MeshTriangle* tris = mesh.getTriangles();
  const MeshVertex* vertices = mesh.getVertices();
  result.pairs_.clear();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxLinear::Vector n = triangleNormal(vertices, tris[t]);
    for (int e = 0; e < 3; ++e) {
      int across = -1, edge = -1;
      if (!getSharedEdgeAdjacentTriangle(t, e, tris, adjacency, across, edge) || across < t) {
        continue;
      }
      const double a = normalAngle(n, triangleNormal(vertices, tris[across]));
      if (a > limit) result.pairs_.push_back({t, across});
    }
  }
  std::sort(result.pairs_.begin(), result.pairs_.end());
  result.pairs_.erase(std::unique(result.pairs_.begin(), result.pairs_.end()), result.pairs_.end());
  debugChannel().print(
      "meshFindAnglesLessThan: %d triangles, %d sharp edges below %f degrees %f s\n",
      mesh.getNumTriangles(), int(result.pairs_.size()), angle, watch.stop());
  return !result.pairs_.empty();
}

}  // namespace kxGeom
