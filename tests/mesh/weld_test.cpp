// Vertex welding against a map of distinct positions, with normals, UVs,
// strips, lines, a tolerant checker, hostile values and every thread count.
#include <kxgeom/normals.h>
#include <kxgeom/weld.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshVertex;
using kxGeom::Remap;

// Every triangle gets three vertices of its own, in triangle order.
CompactMesh makeSoup(const CompactMesh& mesh) {
  std::vector<MeshVertex> v;
  std::vector<int> t;
  for (int i = 0; i < mesh.getNumTriangles(); ++i) {
    for (int c = 0; c < 3; ++c) {
      v.push_back(mesh.getVertices()[mesh.getTriangles()[i][c]]);
      t.push_back(int(t.size()));
    }
  }
  CompactMesh soup(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  soup.copyTriangles(mesh.getNumTriangles(), t.data());
  return soup;
}

using Key = std::tuple<float, float, float>;
Key keyOf(const MeshVertex& v) { return Key(v.x, v.y, v.z); }

Remap weld(CompactMesh& mesh) {
  kxUtil::Progress progress;
  Remap remap;
  kxGeom::meshCompact(mesh, progress, remap);
  return remap;
}

TEST(Weld, GivenNormalsKeepVerticesApartDerivedOnesDoNot) {
  const MeshVertex v[4] = {{0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  const kxGeom::MeshNormal n[4] = {{0, 0, 1}, {0, 1, 0}, {0, 0, 1}, {0, 0, 1}};
  const int t[6] = {0, 2, 3, 1, 3, 2};
  CompactMesh given(4, v, n, nullptr, nullptr);
  given.copyTriangles(2, t);
  const Remap same = weld(given);
  EXPECT_TRUE(same.isSequential());
  EXPECT_EQ(4, given.getNumVertices());
  EXPECT_EQ(0, given.getModificationCount());

  CompactMesh derived(4, v, n, nullptr, nullptr);
  derived.copyTriangles(2, t);
  derived.setNormalsComputed(true);
  const Remap merged = weld(derived);
  ASSERT_EQ(3, derived.getNumVertices());
  EXPECT_EQ(merged(0), merged(1));
  // The notice carries the map, so the derived normals follow it: the
  // highest old index of the merged pair wins.
  ASSERT_NE(nullptr, derived.getNormals());
  EXPECT_EQ(0.0f, derived.getNormals()[merged(0)].x);
  EXPECT_EQ(1.0f, derived.getNormals()[merged(0)].y);
  EXPECT_EQ(1.0f, derived.getNormals()[merged(2)].z);

  // Given normals that agree merge and are remapped by the weld itself.
  const kxGeom::MeshNormal agree[4] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
  CompactMesh equalNormals(4, v, agree, nullptr, nullptr);
  equalNormals.copyTriangles(2, t);
  kxtest::LogCapture log;
  weld(equalNormals);
  EXPECT_EQ(3, equalNormals.getNumVertices());
  EXPECT_NE(std::string::npos, log.all().find("remapped normals: "));
}

TEST(Weld, UVsWithoutGivenNormalsMergeKeepingTheHighestIndex) {
  const MeshVertex v[5] = {{1, 1, 1}, {0, 0, 0}, {1, 1, 1}, {2, 0, 0}, {1, 1, 1}};
  const kxGeom::MeshUV uv[5] = {{0.1f, 0.1f}, {0, 0}, {0.2f, 0.2f}, {1, 0}, {0.3f, 0.3f}};
  const int t[3] = {0, 1, 3};
  CompactMesh mesh(5, v, nullptr, uv, nullptr);
  mesh.copyTriangles(1, t);
  const Remap remap = weld(mesh);
  ASSERT_EQ(3, mesh.getNumVertices());
  EXPECT_EQ(remap(0), remap(2));
  EXPECT_EQ(remap(0), remap(4));
  EXPECT_EQ(0.3f, mesh.getUVs()[remap(0)].u);
  EXPECT_EQ(1.0f, mesh.getUVs()[remap(3)].u);

  // With given normals the UVs take part and keep the vertices apart.
  const kxGeom::MeshNormal n[5] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
  CompactMesh withNormals(5, v, n, uv, nullptr);
  withNormals.copyTriangles(1, t);
  EXPECT_TRUE(weld(withNormals).isSequential());
}

// Merges coordinates within a tolerance of the group's first member.
class TolerantChecker : public kxGeom::IMeshVertexEqualityChecker {
 public:
  int calls = 0;
  bool equal(const float* a, const float* b) override {
    ++calls;
    return std::fabs(a[0] - b[0]) <= 0.01f && a[1] == b[1] && a[2] == b[2];
  }
};

TEST(Weld, TolerantCheckerComparesWithTheGroupsFirstMember) {
  // Sorted x: 0, 0.006, 0.012, 0.018. A chain would merge all four; against
  // the group's first member they form {0, 0.006} and {0.012, 0.018}.
  const MeshVertex v[4] = {{0.012f, 0, 0}, {0.006f, 0, 0}, {0.018f, 0, 0}, {0, 0, 0}};
  const int t[3] = {0, 1, 2};
  CompactMesh mesh(4, v, nullptr, nullptr, nullptr);
  mesh.copyTriangles(1, t);
  kxUtil::Progress progress;
  Remap remap;
  TolerantChecker checker;
  kxGeom::meshCompact(mesh, progress, remap, checker);
  EXPECT_EQ(3, checker.calls);
  ASSERT_EQ(2, mesh.getNumVertices());
  EXPECT_EQ(0, remap(3));
  EXPECT_EQ(0, remap(1));
  EXPECT_EQ(1, remap(0));
  EXPECT_EQ(1, remap(2));
  // The highest old index of each group supplies the kept position.
  EXPECT_EQ(0.0f, mesh.getVertices()[0].x);    // old 3
  EXPECT_EQ(0.018f, mesh.getVertices()[1].x);  // old 2
}

TEST(Weld, StripsFansAndLinesFollowTheRenumbering) {
  CompactMesh mesh = makeSoup(kxtest::makeGrid(2, 1));
  mesh.resizeTriStripArrays(1, 4);
  const int strip[4] = {0, 1, 2, 5};
  std::copy(strip, strip + 4, mesh.getTriStripPoints());
  mesh.getTriStripLengths()[0] = 4;
  mesh.resizeTriFanArrays(1, 3);
  const int fan[3] = {3, 4, 5};
  std::copy(fan, fan + 3, mesh.getTriFanPoints());
  mesh.getTriFanLengths()[0] = 3;
  mesh.resizeLineArray(1);
  mesh.getLines()[0] = {{6, 11}};
  mesh.resizeLineStripArrays(1, 2);
  mesh.getLineStripLengths()[0] = 2;
  mesh.getLineStripPoints()[0] = 7;
  mesh.getLineStripPoints()[1] = 10;
  std::vector<Key> stripBefore;
  for (int p : strip) stripBefore.push_back(keyOf(mesh.getVertices()[p]));
  const Key lineEnd = keyOf(mesh.getVertices()[11]);
  const Remap remap = weld(mesh);
  ASSERT_EQ(6, mesh.getNumVertices());
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(remap(strip[i]), mesh.getTriStripPoints()[i]);
    EXPECT_EQ(stripBefore[i], keyOf(mesh.getVertices()[mesh.getTriStripPoints()[i]]));
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(remap(fan[i]), mesh.getTriFanPoints()[i]);
  EXPECT_EQ(lineEnd, keyOf(mesh.getVertices()[mesh.getLines()[0][1]]));
  EXPECT_EQ(remap(7), mesh.getLineStripPoints()[0]);
  EXPECT_EQ(remap(10), mesh.getLineStripPoints()[1]);
}

TEST(Weld, HostileValuesAndEmptyMeshes) {
  const float nan = std::nanf("");
  const MeshVertex v[6] = {{nan, 0, 0},   {nan, 0, 0}, {0.0f, 1, 0},
                           {-0.0f, 1, 0}, {0, nan, 1}, {0, nan, 1}};
  const int t[6] = {0, 2, 4, 1, 3, 5};
  CompactMesh mesh(6, v, nullptr, nullptr, nullptr);
  mesh.copyTriangles(2, t);
  const Remap remap = weld(mesh);
  EXPECT_EQ(5, mesh.getNumVertices());  // only +0 and -0 merge
  EXPECT_EQ(remap(2), remap(3));
  for (int i = 0; i < 6; ++i) EXPECT_LT(mesh.getTrianglesRaw()[i], 5);

  CompactMesh empty;
  const Remap none = weld(empty);
  EXPECT_EQ(0, none.getDomainSize());
  EXPECT_EQ(0, empty.getModificationCount());
}

TEST(Weld, NumberingFollowsThePublicSortOrders) {
  // Positions (with signed zeros, infinities and NaN), given normals and
  // UVs from small sets, so each key part decides some comparisons; new
  // indices must rise along the index order of VertexNormalUVCompare, by one
  // exactly where the full key changes.
  std::mt19937 rng(83);
  std::uniform_int_distribution<int> pick(0, 2);
  const int n = 3000;
  std::vector<MeshVertex> v(n);
  std::vector<kxGeom::MeshNormal> nn(n);
  std::vector<kxGeom::MeshUV> uv(n);
  const float inf = std::numeric_limits<float>::infinity();
  const float xs[7] = {-inf, -2.5f, -0.0f, 0.0f, 3.0f, inf, std::nanf("")};
  std::uniform_int_distribution<int> pickX(0, 6);
  for (int i = 0; i < n; ++i) {
    v[i] = {xs[pickX(rng)], float(pick(rng)), -0.0f};
    nn[i] = {0, float(pick(rng)), 1};
    uv[i] = {float(pick(rng)), 0.5f};
  }
  CompactMesh mesh(n, v.data(), nn.data(), uv.data(), nullptr);
  const Remap remap = weld(mesh);
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  const float* uvs = reinterpret_cast<const float*>(uv.data());
  const kxGeom::VertexNormalUVCompare less(&v[0].x, &nn[0].x, uvs);
  std::sort(order.begin(), order.end(), less);
  EXPECT_EQ(0, remap(order[0]));
  int groups = 1;
  for (int i = 1; i < n; ++i) {
    const int a = order[i - 1], b = order[i];
    const bool sameKey =
        v[a].x == v[b].x && v[a].y == v[b].y && nn[a].y == nn[b].y && uv[a].u == uv[b].u;
    ASSERT_EQ(remap(a) + (sameKey ? 0 : 1), remap(b)) << i;
    groups += !sameKey;
  }
  EXPECT_EQ(groups, mesh.getNumVertices());
  EXPECT_GT(groups, 5 * 27);  // five x values besides NaN, and every NaN alone
}

TEST(Weld, IdenticalForEveryThreadCount) {
  // Random positions from a small set, so many merge, with NaNs mixed in.
  std::mt19937 rng(53);
  std::uniform_int_distribution<int> pick(0, 40);
  std::vector<MeshVertex> v(5000);
  for (auto& p : v) {
    p = {float(pick(rng) % 4), float(pick(rng) % 3), float(pick(rng) % 5)};
    if (pick(rng) == 0) p.y = std::nanf("");
  }
  std::vector<int> t(v.size());
  for (std::size_t i = 0; i < t.size(); ++i) t[i] = int(i);
  std::vector<int> reference;
  kxtest::forEachThreadCount([&](int threads) {
    CompactMesh mesh(int(v.size()), v.data(), nullptr, nullptr, nullptr);
    mesh.copyTriangles(int(t.size() / 3), t.data());
    const Remap remap = weld(mesh);
    std::vector<int> got(remap.data(), remap.data() + remap.getDomainSize());
    if (reference.empty()) reference = got;
    EXPECT_EQ(reference, got) << threads << " threads";
  });
  int nans = 0;
  for (const auto& p : v) nans += std::isnan(p.y);
  int groups = 0;
  for (int r : reference) groups = std::max(groups, r + 1);
  EXPECT_EQ(60 + nans, groups);  // 4 * 3 * 5 positions, every NaN alone
}

}  // namespace
