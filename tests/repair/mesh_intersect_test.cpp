// The exact self-intersection search against a separating-axis oracle in
// integer arithmetic on random soups full of touching and coplanar pairs,
// and the rules for triangles that share vertices.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <random>
#include <vector>

#include <kxgeom/mesh_intersect.h>
#include <kxgeom/octree_query.h>

#include "mesh/thread_counts.h"
#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

namespace {

using namespace kxGeom;
using V = std::array<long long, 3>;

V sub(const V& a, const V& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
V cross(const V& a, const V& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
long long dot(const V& a, const V& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Closed triangles meet unless an axis among the normals, the edge-edge
// crosses and the in-plane edge normals separates them strictly.
bool satMeet(const std::array<V, 3>& a, const std::array<V, 3>& b) {
  std::vector<V> axes;
  const V na = cross(sub(a[1], a[0]), sub(a[2], a[0])),
          nb = cross(sub(b[1], b[0]), sub(b[2], b[0]));
  axes.push_back(na);
  axes.push_back(nb);
  for (int i = 0; i < 3; ++i) {
    const V ea = sub(a[(i + 1) % 3], a[i]), eb = sub(b[(i + 1) % 3], b[i]);
    axes.push_back(cross(na, ea));
    axes.push_back(cross(nb, eb));
    for (int j = 0; j < 3; ++j) axes.push_back(cross(ea, sub(b[(j + 1) % 3], b[j])));
  }
  for (const V& axis : axes) {
    long long loA = dot(axis, a[0]), hiA = loA, loB = dot(axis, b[0]), hiB = loB;
    for (int k = 1; k < 3; ++k) {
      loA = std::min(loA, dot(axis, a[k]));
      hiA = std::max(hiA, dot(axis, a[k]));
      loB = std::min(loB, dot(axis, b[k]));
      hiB = std::max(hiB, dot(axis, b[k]));
    }
    if (hiA < loB || hiB < loA) return false;
  }
  return true;
}

struct Soup {
  CompactMesh mesh;
  std::vector<std::array<V, 3>> tris;
};

// Triangles with their own corners on a small integer grid: many of them
// touch, share positions or lie in one plane.
Soup randomSoup(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> coord(0, 3);
  Soup s;
  std::vector<MeshVertex> v;
  while (int(s.tris.size()) < n) {
    std::array<V, 3> t;
    for (V& p : t) p = {coord(rng), coord(rng), coord(rng)};
    const V normal = cross(sub(t[1], t[0]), sub(t[2], t[0]));
    if (dot(normal, normal) == 0) continue;
    s.tris.push_back(t);
    for (const V& p : t) v.push_back({float(p[0]), float(p[1]), float(p[2])});
  }
  std::vector<int> corners(v.size());
  for (std::size_t i = 0; i < corners.size(); ++i) corners[i] = int(i);
  s.mesh = CompactMesh(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  s.mesh.copyTriangles(n, corners.data());
  return s;
}

kx::vector<std::pair<int, int>> selfPairs(const CompactMesh& m) {
  const Octree octree = kxtest::vertexOctree(m);
  OctreeTris tris;
  computeOctreeTris(m, octree, tris);
  kx::vector<std::pair<int, int>> pairs;
  MeshIntersect::selfIntersect(m, octree, tris, pairs);
  return pairs;
}

TEST(SelfIntersect, AgreesWithSeparatingAxesOnRandomSoups) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    const Soup s = randomSoup(120, seed);
    kx::vector<std::pair<int, int>> expected;
    for (int a = 0; a < 120; ++a) {
      for (int b = a + 1; b < 120; ++b) {
        if (satMeet(s.tris[a], s.tris[b])) expected.push_back({a, b});
      }
    }
    kxtest::forEachThreadCount(
        [&](int threads) { EXPECT_EQ(selfPairs(s.mesh), expected) << seed << " " << threads; });
  }
}

TEST(SelfIntersect, SharedCornersCountOnlyWhenTheTrianglesMeetBeyondThem) {
  const std::vector<MeshVertex> v{{0, 0, 0},  {4, 0, 0}, {0, 4, 0},  {1, 1, 0},
                                  {0, -4, 0}, {1, 1, 3}, {-4, 0, 0}, {2, 2, -1}};
  const float* p = &v[0].x;
  const auto meet = [&](std::array<int, 3> a, std::array<int, 3> b) {
    return MeshIntersect::trianglesIntersect(p, a.data(), b.data());
  };
  EXPECT_FALSE(meet({0, 1, 2}, {1, 0, 4}));  // an edge, the other side: a flat fold-out
  EXPECT_TRUE(meet({0, 1, 2}, {0, 1, 3}));   // an edge, the same side: folded over
  EXPECT_FALSE(meet({0, 1, 2}, {0, 1, 5}));  // an edge, another plane
  EXPECT_FALSE(meet({0, 1, 2}, {0, 4, 6}));  // a vertex, apart in the plane
  EXPECT_TRUE(meet({0, 1, 2}, {0, 3, 6}));   // a vertex, overlapping corners
  EXPECT_FALSE(meet({0, 1, 5}, {0, 6, 2}));  // a vertex, other planes meeting only there
  EXPECT_TRUE(meet({0, 1, 2}, {0, 5, 7}));   // a vertex, piercing beyond it
  EXPECT_TRUE(meet({0, 5, 7}, {0, 1, 2}));   // the same, in the other order
  EXPECT_TRUE(meet({0, 1, 2}, {2, 0, 1}));   // the same triangle
  // A triangle with a NaN corner is skipped, even where its other corners
  // would cross a neighbour.
  Soup nan = randomSoup(2, 9);
  const float* first = nan.mesh.getVerticesRaw();
  for (int k = 0; k < 3; ++k) nan.mesh.getVertices()[3 + k] = {first[0], first[1], first[2] + k};
  ASSERT_FALSE(selfPairs(nan.mesh).empty());
  nan.mesh.getVertices()[5].y = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(selfPairs(nan.mesh).empty());
  // A closed surface has no intersections.
  EXPECT_TRUE(selfPairs(kxtest::makeLatLongSphere(12, 16)).empty());
  CompactMesh folded = kxtest::makeGrid(2, 1);
  folded.getVertices()[4].x = 2.5f;  // folds the right square under the left
  EXPECT_EQ(selfPairs(folded),
            (kx::vector<std::pair<int, int>>{{0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}}));
}

}  // namespace
