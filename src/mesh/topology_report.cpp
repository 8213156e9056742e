#include <kxgeom/topology_report.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "mesh/disjoint_sets.h"

namespace kxGeom {

namespace {

using detail::DisjointSets;

std::uint32_t coordinateKey(float f) {
  if (f == 0.0f) f = 0.0f;  // -0 and +0 are one position
  std::uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

// One id per distinct position, numbered in order of the sorted positions.
std::vector<int> positionIds(const CompactMesh& mesh, int& distinct) {
  const int n = mesh.getNumVertices();
  const MeshVertex* v = mesh.getVertices();
  struct Keyed {
    std::uint32_t x, y, z;
    int vertex;
    bool operator<(const Keyed& o) const {
      if (x != o.x) return x < o.x;
      if (y != o.y) return y < o.y;
      return z < o.z;
    }
  };
  std::vector<Keyed> keys(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) {
    keys[std::size_t(i)] = {coordinateKey(v[i].x), coordinateKey(v[i].y), coordinateKey(v[i].z), i};
  }
  std::sort(keys.begin(), keys.end());
  std::vector<int> ids(static_cast<std::size_t>(n));
  distinct = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (i > 0 && keys[i - 1] < keys[i]) ++distinct;
    ids[std::size_t(keys[i].vertex)] = distinct;
  }
  if (n > 0) ++distinct;
  return ids;
}

// One side of an edge as one triangle uses it.
struct EdgeUse {
  int lo, hi;    // position ids, lo < hi
  int triangle;  // index among the kept triangles
  int from, to;  // the triangle's own vertex indices, in its winding
  bool operator<(const EdgeUse& o) const { return lo != o.lo ? lo < o.lo : hi < o.hi; }
};

struct Scratch {
  std::vector<int> ids;                  // position id of each vertex
  std::vector<std::array<int, 3>> tris;  // kept triangles, as position ids
  std::vector<EdgeUse> uses;             // every edge use, sorted by edge
};

int cornerOf(const std::array<int, 3>& t, int position) {
  return t[0] == position ? 0 : t[1] == position ? 1 : 2;
}

// Walks the sorted edge uses: counts edges by kind and joins the corners of
// the two triangles at each manifold edge, so that a position's corners fall
// into one set per fan.
void classifyEdges(const Scratch& s, MeshTopologyReport& r, DisjointSets& corners,
                   DisjointSets& boundary, std::vector<char>& onBoundary) {
  for (std::size_t begin = 0, end; begin < s.uses.size(); begin = end) {
    end = begin + 1;
    while (end < s.uses.size() && !(s.uses[begin] < s.uses[end])) ++end;
    const EdgeUse& a = s.uses[begin];
    ++r.edges;
    if (end - begin == 1) {
      ++r.boundaryEdges;
      boundary.join(a.lo, a.hi);
      onBoundary[std::size_t(a.lo)] = onBoundary[std::size_t(a.hi)] = 1;
    } else if (end - begin > 2) {
      ++r.nonManifoldEdges;
    } else {
      const EdgeUse& b = s.uses[begin + 1];
      const auto& ta = s.tris[std::size_t(a.triangle)];
      const auto& tb = s.tris[std::size_t(b.triangle)];
      const bool aForward = s.ids[std::size_t(a.from)] == a.lo;
      const bool bForward = s.ids[std::size_t(b.from)] == b.lo;
      if (aForward == bForward) r.oriented = false;
      const bool sameVertices =
          (a.from == b.to && a.to == b.from) || (a.from == b.from && a.to == b.to);
      if (!sameVertices) ++r.seamEdges;
      for (int p : {a.lo, a.hi}) {
        corners.join(3 * a.triangle + cornerOf(ta, p), 3 * b.triangle + cornerOf(tb, p));
      }
    }
  }
}

int countRoots(DisjointSets& sets, const std::vector<char>& members) {
  int roots = 0;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i] && sets.find(int(i)) == int(i)) ++roots;
  }
  return roots;
}

}  // namespace

MeshTopologyReport meshTopologyReport(const CompactMesh& mesh) {
  MeshTopologyReport r;
  Scratch s;
  int distinct = 0;
  s.ids = positionIds(mesh, distinct);
  const MeshTriangle* t = mesh.getTriangles();
  s.tris.reserve(std::size_t(mesh.getNumTriangles()));
  s.uses.reserve(3 * std::size_t(mesh.getNumTriangles()));
  std::vector<char> used(std::size_t(distinct), 0);
  for (int i = 0; i < mesh.getNumTriangles(); ++i) {
    const std::array<int, 3> p = {s.ids[std::size_t(t[i][0])], s.ids[std::size_t(t[i][1])],
                                  s.ids[std::size_t(t[i][2])]};
    if (p[0] == p[1] || p[1] == p[2] || p[2] == p[0]) {
      ++r.degenerateTriangles;
      continue;
    }
    const int kept = int(s.tris.size());
    s.tris.push_back(p);
    for (int e = 0; e < 3; ++e) {
      const int a = p[std::size_t(e)], b = p[std::size_t((e + 1) % 3)];
      s.uses.push_back({std::min(a, b), std::max(a, b), kept, t[i][e], t[i][(e + 1) % 3]});
      used[std::size_t(a)] = 1;
    }
  }
  std::stable_sort(s.uses.begin(), s.uses.end());
  DisjointSets corners(3 * int(s.tris.size())), boundary(distinct), pieces(distinct);
  std::vector<char> onBoundary(std::size_t(distinct), 0);
  classifyEdges(s, r, corners, boundary, onBoundary);
  for (const auto& p : s.tris) {
    pieces.join(p[0], p[1]);
    pieces.join(p[1], p[2]);
  }
  r.positions = int(std::count(used.begin(), used.end(), 1));
  r.components = countRoots(pieces, used);
  std::vector<char> boundaryRoot(std::size_t(distinct), 0);
  for (int p = 0; p < distinct; ++p) {
    if (onBoundary[std::size_t(p)]) boundaryRoot[std::size_t(boundary.find(p))] = 1;
  }
  r.boundaryLoops = int(std::count(boundaryRoot.begin(), boundaryRoot.end(), 1));
  // Fans: distinct corner sets per position.
  std::vector<std::pair<int, int>> fans;
  fans.reserve(3 * s.tris.size());
  for (std::size_t c = 0; c < 3 * s.tris.size(); ++c) {
    fans.emplace_back(s.tris[c / 3][c % 3], corners.find(int(c)));
  }
  std::sort(fans.begin(), fans.end());
  fans.erase(std::unique(fans.begin(), fans.end()), fans.end());
  for (std::size_t i = 1; i < fans.size(); ++i) {
    if (fans[i].first == fans[i - 1].first && (i < 2 || fans[i - 2].first != fans[i].first)) {
      ++r.nonManifoldVertices;
    }
  }
  if (r.nonManifoldEdges == 0 && r.nonManifoldVertices == 0 && r.oriented) {
    const int euler = r.positions - r.edges + int(s.tris.size());
    r.genus = (2 * r.components - euler - r.boundaryLoops) / 2;
  }
  return r;
}

}  // namespace kxGeom
