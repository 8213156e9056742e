// Duplicate and degenerate triangles against a brute-force grouping, the
// check cache's order and coupling, and the repair loop on a clean mesh with
// every kind of defect injected: afterwards every check passes and exactly
// the defect-free triangles remain.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include <kxgeom/adjacency.h>
#include <kxgeom/repair.h>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

std::vector<int> sortedTriple(const MeshTriangle& t) {
  std::vector<int> s{t[0], t[1], t[2]};
  std::sort(s.begin(), s.end());
  return s;
}

TEST(DuplicateTris, MatchBruteForceGroupingForEveryThreadCount) {
  // Few vertices, many triangles: large groups of equal triples, repeated
  // indices, and positions that coincide exactly or differ by one ulp.
  CompactMesh m = kxtest::makeRandomMesh(7, 3000, 5);
  m.getVertices()[3] = m.getVertices()[4];
  m.getVertices()[5] = m.getVertices()[6];
  m.getVertices()[5].x = std::nextafter(m.getVertices()[5].x, 2.0f);
  MeshDuplicateTrisResult want;
  std::map<std::vector<int>, int> first;
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const MeshTriangle& tri = m.getTriangles()[t];
    const std::vector<int> key = sortedTriple(tri);
    if (!first.emplace(key, t).second) want.duplicateTris.push_back(t);
    if (key[0] == key[1] || key[1] == key[2]) {
      want.repeatedIndexTris.push_back(t);
    } else if (std::count(key.begin(), key.end(), 3) + std::count(key.begin(), key.end(), 4) == 2) {
      want.coincidentVertexTris.push_back(t);
    }
  }
  // The duplicates come grouped by triple, ascending within each group.
  std::stable_sort(want.duplicateTris.begin(), want.duplicateTris.end(), [&](int a, int b) {
    return sortedTriple(m.getTriangles()[a]) < sortedTriple(m.getTriangles()[b]);
  });
  kxtest::forEachThreadCount([&](int threads) {
    MeshDuplicateTrisResult got;
    kxtest::LogCapture log;
    EXPECT_TRUE(meshDuplicateTris(m, got));
    EXPECT_EQ(got.duplicateTris, want.duplicateTris) << threads;
    EXPECT_EQ(got.repeatedIndexTris, want.repeatedIndexTris);
    EXPECT_EQ(got.coincidentVertexTris, want.coincidentVertexTris);
    char prefix[128];
    std::snprintf(prefix, sizeof prefix,
                  "meshDuplicateTris:  verts(7) tris(3000) dup(%d) degenerate(%d) ",
                  int(want.duplicateTris.size()),
                  int(want.repeatedIndexTris.size() + want.coincidentVertexTris.size()));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[0], prefix, " s\n")) << log.lines()[0];
  });
  kx::vector<int> bad;
  want.getBadTriangles(m, bad);
  BitVector union3(m.getNumTriangles());
  for (const auto* list :
       {&want.duplicateTris, &want.repeatedIndexTris, &want.coincidentVertexTris}) {
    for (int t : *list) union3.setBit(t);
  }
  EXPECT_EQ(int(bad.size()), union3.countSetBits());
  EXPECT_TRUE(std::is_sorted(bad.begin(), bad.end()));
}

TEST(Characteristics, CoincidentOnlyFailureCouplesTheTwoTriangleChecks) {
  std::vector<MeshVertex> v{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 0, 0}};
  CompactMesh m = kxtest::meshFrom(v, {0, 1, 2, 0, 3, 1});  // the second has two equal positions
  MeshCharacteristics c(m);
  EXPECT_EQ(c.check(MeshCharacteristics::TopoGoodTriangles),
            MeshCharacteristics::TopoGoodTriangles);
  EXPECT_EQ(c.getTestsPerformed(), MeshCharacteristics::TopoGoodTriangles);
  c.reset(MeshCharacteristics::AllChecks);
  EXPECT_FALSE(c.checkGoodTriangles());
  EXPECT_EQ(c.getTestsPerformed(), 1 | 32);
  EXPECT_FALSE(c.checkTopoGoodTriangles());  // settled by the good-triangles check
  EXPECT_EQ(c.getNumBadTriangles(), 1);
  EXPECT_EQ(c.check(MeshCharacteristics::AllChecks), 2 | 4 | 8 | 16);
  EXPECT_EQ(c.getNumIntersectingTriangles(), 0);
  c.reset(MeshCharacteristics::GoodTriangles);
  EXPECT_EQ(c.getGoodAnglesResult(), nullptr);
  EXPECT_EQ(c.getTestsPassed(), 2 | 4 | 8 | 16);  // only the reset bit is forgotten
  // An empty mesh passes everything.
  CompactMesh empty;
  MeshCharacteristics none(empty);
  EXPECT_EQ(none.check(MeshCharacteristics::AllChecks), MeshCharacteristics::AllChecks);
}

// A closed sphere with defects injected; `kept` lists, by corner positions,
// the triangles a repair must leave.
struct Broken {
  CompactMesh mesh;
  std::vector<std::array<float, 9>> kept;
};

Broken brokenMesh() {
  const CompactMesh sphere = kxtest::makeLatLongSphere(10, 12);
  std::vector<MeshVertex> v(sphere.getVertices(), sphere.getVertices() + sphere.getNumVertices());
  std::vector<int> good(sphere.getTrianglesRaw(),
                        sphere.getTrianglesRaw() + 3 * sphere.getNumTriangles());
  std::vector<int> bad;
  const auto add = [&](float x, float y, float z) {
    v.push_back({x, y, z});
    return int(v.size()) - 1;
  };
  // A second sphere with scattered flipped triangles (kept, re-wound).
  const CompactMesh small = kxtest::makeLatLongSphere(5, 6, 0.5, kxLinear::Point(3, 0, 0));
  const int base = int(v.size());
  v.insert(v.end(), small.getVertices(), small.getVertices() + small.getNumVertices());
  for (int t = 0; t < small.getNumTriangles(); ++t) {
    const MeshTriangle& s = small.getTriangles()[t];
    const bool flip = t % 4 == 3;
    good.insert(good.end(),
                {base + s[0], base + (flip ? s[2] : s[1]), base + (flip ? s[1] : s[2])});
  }
  // A fan sharing only vertex 0 with the sphere: a pinched vertex (kept).
  const int f1 = add(0.2f, 0.3f, 2), f2 = add(-0.3f, 0.2f, 2), f3 = add(-0.2f, -0.3f, 2);
  good.insert(good.end(), {0, f1, f2, 0, f2, f3});
  // A fin on a sphere edge (over-shared), duplicates, degenerates.
  bad.insert(bad.end(), {good[0], good[1], add(0, 0, 3)});
  bad.insert(bad.end(), {good[3], good[4], good[5], good[5], good[4], good[3]});
  const int twin = add(v[20].x, v[20].y, v[20].z);
  bad.insert(bad.end(), {7, 7, 8, 20, twin, 21});
  // A Möbius band of its own.
  const int m0 = int(v.size());
  for (int i = 0; i < 6; ++i) {
    const double a = 2 * 3.14159265358979 * i / 6;
    for (int s : {-1, 1}) {
      const double r = 5 + 0.3 * s * std::cos(a / 2);
      v.push_back(
          {float(r * std::cos(a)), float(r * std::sin(a)), float(0.3 * s * std::sin(a / 2))});
    }
  }
  for (int i = 0; i < 6; ++i) {
    const int a = m0 + 2 * i, b = a + 1;
    int d = m0 + (2 * i + 2) % 12, e = m0 + (2 * i + 3) % 12;
    if (i == 5) std::swap(d, e);
    bad.insert(bad.end(), {a, d, e, a, e, b});
  }
  Broken out;
  std::vector<int> all = good;
  // Interleave the defects with the good triangles.
  for (std::size_t i = 0; i < bad.size(); i += 3) {
    all.insert(all.begin() + 3 * (7 * i / 3 + 5), bad.begin() + i, bad.begin() + i + 3);
  }
  out.mesh = kxtest::meshFrom(v, all);
  for (std::size_t i = 0; i < good.size(); i += 3) {
    std::array<float, 9> t;
    for (int k = 0; k < 3; ++k) {
      const MeshVertex& p = v[good[i + k]];
      t[3 * k] = p.x, t[3 * k + 1] = p.y, t[3 * k + 2] = p.z;
    }
    out.kept.push_back(t);
  }
  return out;
}

// Triangles as corner positions, each rotated to its smallest corner first
// and, when `unwound`, with its other two corners ordered too.
std::vector<std::array<float, 9>> canonical(std::vector<std::array<float, 9>> tris, bool unwound) {
  for (auto& t : tris) {
    std::array<std::array<float, 3>, 3> c{
        {{t[0], t[1], t[2]}, {t[3], t[4], t[5]}, {t[6], t[7], t[8]}}};
    if (unwound) {
      std::sort(c.begin(), c.end());
    } else {
      std::rotate(c.begin(), std::min_element(c.begin(), c.end()), c.end());
    }
    for (int k = 0; k < 9; ++k) t[k] = c[k / 3][k % 3];
  }
  std::sort(tris.begin(), tris.end());
  return tris;
}

TEST(Repair, RepairAllRemovesExactlyTheDefectsAndLeavesEveryCheckPassing) {
  Broken b = brokenMesh();
  MeshRepair repair(b.mesh);
  EXPECT_TRUE(repair.needsRepair());
  bool clean = false;
  EXPECT_TRUE(repair.repairAll(&clean));
  EXPECT_TRUE(clean);
  EXPECT_FALSE(repair.hasMobiusStrip());
  std::vector<std::array<float, 9>> after;
  for (int t = 0; t < b.mesh.getNumTriangles(); ++t) {
    std::array<float, 9> tri;
    for (int k = 0; k < 3; ++k) {
      const MeshVertex& p = b.mesh.getVertices()[b.mesh.getTriangles()[t][k]];
      tri[3 * k] = p.x, tri[3 * k + 1] = p.y, tri[3 * k + 2] = p.z;
    }
    after.push_back(tri);
  }
  EXPECT_EQ(canonical(after, true), canonical(b.kept, true));
  // Every check passes but intersection: the split pinched vertex leaves two
  // triangles touching at one point through different vertices.
  MeshCharacteristics check(b.mesh);
  EXPECT_EQ(check.check(MeshCharacteristics::AllChecks), 1 | 2 | 4 | 16 | 32);
  EXPECT_EQ(check.getNumIntersectingTriangles(), 12 + 2);  // the pole's fan and the other
  // The main sphere kept its winding: it came first and is followed.
  const CompactMesh sphere = kxtest::makeLatLongSphere(10, 12);
  std::vector<std::array<float, 9>> first(after.begin(), after.begin() + sphere.getNumTriangles());
  std::vector<std::array<float, 9>> original =
      std::vector<std::array<float, 9>>(b.kept.begin(), b.kept.begin() + sphere.getNumTriangles());
  EXPECT_EQ(canonical(first, false), canonical(original, false));
}

TEST(Repair, OptionalStepsAndHopelessInputs) {
  // With intersections checked, a folded grid loses the overlapping pair.
  CompactMesh folded = kxtest::makeGrid(2, 1);
  folded.getVertices()[4].x = 2.5f;
  MeshRepair plain(folded);
  EXPECT_FALSE(plain.needsRepair());
  MeshRepair strict(folded);
  strict.checkSelfIntersection(true);
  EXPECT_TRUE(strict.canRepair());
  EXPECT_TRUE(strict.repairOnce());
  EXPECT_LT(folded.getNumTriangles(), 4);
  // A sharp fold of two triangles goes when angles are checked.
  CompactMesh fold =
      kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.1f, 1, 0.001f}}, {0, 1, 2, 1, 0, 3});
  MeshRepair angles(fold);
  EXPECT_FALSE(angles.needsRepair());
  angles.checkGoodAngles(true);
  angles.setMinGoodAngle(5);
  bool clean = false;
  EXPECT_TRUE(angles.repairAll(&clean));
  EXPECT_EQ(fold.getNumTriangles(), 0);
  // All degenerate: everything goes. NaN positions: no crash, still repaired.
  CompactMesh junk = kxtest::meshFrom({{0, 0, 0}, {0, 0, 0}}, {0, 0, 1, 1, 1, 1});
  EXPECT_TRUE(MeshRepair(junk).repairAll(nullptr));
  EXPECT_EQ(junk.getNumTriangles(), 0);
  CompactMesh nan = kxtest::makeLatLongSphere(6, 8);
  nan.getVertices()[5].y = std::numeric_limits<float>::quiet_NaN();
  MeshRepair withNaN(nan);
  withNaN.checkSelfIntersection(true);
  withNaN.repairAll(&clean);
  EXPECT_TRUE(clean);
  // A mesh that is one Möbius band is never deleted: the loop gives up.
  CompactMesh band =
      kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 0, 0}, {2, 1, 0}},
                       {0, 1, 2, 0, 2, 3, 1, 4, 5, 1, 5, 2, 4, 3, 0, 4, 0, 5});
  MeshRepair mobius(band);
  mobius.repairAll(&clean);
  EXPECT_EQ(band.getNumTriangles(), 6);
}

}  // namespace
