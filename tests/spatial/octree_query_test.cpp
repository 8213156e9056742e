// Query iterators against brute-force leaf tests, and the triangle and line
// partitions against the exact overlap tests over every leaf.
#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

using kxGeom::BoundingBox;
using kxGeom::Octree;
using kxGeom::OctreeIterator;

namespace {

struct Fixture {
  kxGeom::CompactMesh mesh = kxtest::makeLatLongSphere(24, 48);
  Octree octree = kxtest::vertexOctree(mesh);
  std::vector<OctreeIterator> leaves = kxtest::allLeaves(octree);
};

template <class It, class Query>
std::vector<int> enumerate(It& it, const Query& q) {
  std::vector<int> voxels;
  for (it.reset(q); it.valid(); it.next()) voxels.push_back(it.get().getVoxel());
  return voxels;
}

// Runs `It` for every query and compares the leaf set with `test` over all
// leaves; each leaf must come out once.
template <class It, class Query, class Test>
void expectLeafSets(const Fixture& f, const std::vector<Query>& queries, Test test) {
  It it(f.octree);
  for (std::size_t q = 0; q < queries.size(); ++q) {
    const std::vector<int> got = enumerate(it, queries[q]);
    const std::set<int> unique(got.begin(), got.end());
    ASSERT_EQ(unique.size(), got.size()) << "query " << q;
    std::set<int> expected;
    for (const OctreeIterator& leaf : f.leaves) {
      if (test(leaf.getBox(), queries[q])) expected.insert(leaf.getVoxel());
    }
    ASSERT_EQ(unique, expected) << "query " << q;
  }
}

std::vector<kxLinear::Point> randomCentres(int n, unsigned seed) {
  return kxtest::randomPoints(n, BoundingBox(-1.f, -1.f, -1.f, 1.f, 1.f, 1.f), 1.6, seed);
}

}  // namespace

TEST(OctreeQuery, BoxAndSphereIteratorsMatchBruteForce) {
  Fixture f;
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> size(0.0f, 0.6f);
  std::vector<BoundingBox> boxes;
  std::vector<kxGeom::Sphere> spheres;
  for (const kxLinear::Point& c : randomCentres(200, 4)) {
    const float h = size(rng);
    boxes.emplace_back(float(c.x) - h, float(c.y) - h / 2, float(c.z), float(c.x) + h,
                       float(c.y) + h, float(c.z) + h / 3);
    spheres.emplace_back(c, size(rng));
  }
  expectLeafSets<kxGeom::OctreeBBoxIntersectIt>(
      f, boxes, [](const BoundingBox& cell, const BoundingBox& q) { return cell.intersects(q); });
  expectLeafSets<kxGeom::OctreeSphereIntersectIt>(
      f, spheres, [](const BoundingBox& cell, const kxGeom::Sphere& s) {
        return cell.distance(kxLinear::PointFlt(s.center)) <= float(s.radius);
      });
}

TEST(OctreeQuery, MissesRootLeavesAndReuse) {
  Fixture f;
  const BoundingBox far(5.f, 5.f, 5.f, 6.f, 6.f, 6.f);
  kxGeom::OctreeBBoxIntersectIt it(f.octree, far);
  EXPECT_FALSE(it.valid());
  it.next();
  EXPECT_FALSE(it.valid());
  const kxGeom::Ray away(kxLinear::PointFlt(2.f, 0.f, 0.f), kxLinear::xAxis);
  EXPECT_FALSE(kxGeom::OctreeRayIntersectIt(f.octree, away).valid());
  kxGeom::OctreeBBoxIntersectIt idle(f.octree);
  EXPECT_FALSE(idle.valid());
  // The whole box returns every leaf, twice in a row with the same order.
  const std::vector<int> all = enumerate(it, f.octree.getBox());
  EXPECT_EQ(int(all.size()), f.octree.numLeaves);
  EXPECT_EQ(enumerate(it, f.octree.getBox()), all);
  // A root leaf comes out once.
  const float p[3] = {0.f, 0.f, 0.f};
  const Octree single(1, p, BoundingBox(-1.f, -1.f, -1.f, 1.f, 1.f, 1.f), true, 16);
  kxGeom::OctreeSphereIntersectIt one(single, kxGeom::Sphere({0, 0, 0}, 0.5));
  ASSERT_TRUE(one.valid());
  EXPECT_EQ(one.get().getVoxel(), 0);
  one.next();
  EXPECT_FALSE(one.valid());
  // An octree without leaves yields nothing.
  const Octree none;
  EXPECT_FALSE(kxGeom::OctreeBBoxIntersectIt(none, far).valid());
}

namespace {

// Checks a partition against the exact test over all leaves: every listed
// pair overlaps; every overlapping pair (that touches the element's box) is
// listed unless the element took the coherence shortcut (listed once, in a
// leaf holding its whole box).
template <class Overlap, class ElementBox>
void expectPartition(const Fixture& f, const kxGeom::OctreeLists& lists, int numElements,
                     Overlap overlap, ElementBox elementBox) {
  ASSERT_EQ(lists.numVoxels(), f.octree.numLeaves);
  std::vector<std::set<int>> listed(numElements);
  for (const OctreeIterator& leaf : f.leaves) {
    const int v = leaf.getVoxel();
    const int* members = lists.getData().getSet(v);
    for (int i = 0; i < lists.getData().getSetSize(v); ++i) {
      if (i > 0) {
        EXPECT_LT(members[i - 1], members[i]);
      }
      ASSERT_TRUE(overlap(leaf.getBox(), members[i])) << "voxel " << v << " element " << members[i];
      listed[members[i]].insert(v);
    }
  }
  int shortcuts = 0;
  for (int e = 0; e < numElements; ++e) {
    std::set<int> exact;
    for (const OctreeIterator& leaf : f.leaves) {
      // The leaves are found through the element's box, so a leaf that the
      // exact test accepts within its rounding but that misses the box is
      // rightly absent.
      if (leaf.getBox().intersects(elementBox(e)) && overlap(leaf.getBox(), e)) {
        exact.insert(leaf.getVoxel());
      }
    }
    if (listed[e] == exact) continue;
    ASSERT_EQ(listed[e].size(), 1u) << "element " << e;
    ASSERT_TRUE(f.leaves[*listed[e].begin()].getBox().contains(elementBox(e)));
    ++shortcuts;
  }
  EXPECT_LT(shortcuts, numElements / 4 + 1);
}

// Checks the partition's log line: element and voxel counts, and the
// average number of voxels per element against the lists.
void expectLogLine(const kxtest::LogCapture& log, const char* format, int numElements,
                   int numVoxels, const kxGeom::OctreeLists& lists) {
  ASSERT_EQ(log.lines().size(), 1u);
  const std::string& line = log.lines()[0];
  int n, v;
  double seconds, coherence, perElement, rate;
  ASSERT_EQ(std::sscanf(line.c_str(), format, &n, &v, &seconds, &coherence, &perElement, &rate), 6)
      << line;
  EXPECT_EQ(n, numElements);
  EXPECT_EQ(v, numVoxels);
  EXPECT_GE(coherence, 0.0);
  EXPECT_LE(coherence, 1.0);
  EXPECT_NEAR(perElement, double(lists.getData().getNumMembers()) / n, 0.0051);
  // The second line starts with 13 spaces and the parenthesis.
  EXPECT_EQ(line.compare(line.find('\n') + 1, 14, "             ("), 0);
}

}  // namespace

TEST(OctreePartition, TrianglesMatchExactOverlapForEveryThreadCount) {
  for (kxGeom::CompactMesh mesh :
       {kxtest::makeLatLongSphere(24, 48), kxtest::makeRandomMesh(300, 500, 4)}) {
    Fixture f;
    f.mesh = mesh;
    f.octree = kxtest::vertexOctree(mesh);
    f.leaves = kxtest::allLeaves(f.octree);
    const float* xyz = mesh.getVerticesRaw();
    const kxGeom::MeshTriangle* tris = mesh.getTriangles();
    auto overlap = [&](const BoundingBox& cell, int t) {
      return kxGeom::intersects(cell, xyz + 3 * tris[t][0], xyz + 3 * tris[t][1],
                                xyz + 3 * tris[t][2]);
    };
    auto triBox = [&](int t) {
      BoundingBox b;
      for (int k = 0; k < 3; ++k) b.extend(mesh.getVertices()[tris[t][k]].asPointFlt());
      return b;
    };
    for (int threads : {1, 2, 3, 8}) {
      kxUtil::ThreadPool::setNumThreads(threads);
      kxGeom::OctreeTris lists;
      kxtest::LogCapture log;
      kxGeom::computeOctreeTris(mesh, f.octree, lists);
      expectPartition(f, lists, mesh.getNumTriangles(), overlap, triBox);
      expectLogLine(log,
                    "OctreeTris:  Partitioned %d triangles into %d voxels in %lf seconds.\n"
                    "             (%lf coherence, %lf voxels/tri, %lf tri/sec)\n",
                    mesh.getNumTriangles(), f.octree.numLeaves, lists);
    }
    kxUtil::ThreadPool::setNumThreads(0);
  }
}

TEST(OctreePartition, LinesMatchExactOverlap) {
  Fixture f;
  kxGeom::CompactMesh& mesh = f.mesh;
  std::mt19937 rng(2);
  std::uniform_int_distribution<int> vertex(0, mesh.getNumVertices() - 1);
  mesh.resizeLineArray(400);
  for (int i = 0; i < 400; ++i) mesh.getLines()[i] = {{vertex(rng), vertex(rng)}};
  const float* xyz = mesh.getVerticesRaw();
  auto overlap = [&](const BoundingBox& cell, int l) {
    return kxGeom::intersects(cell, xyz + 3 * mesh.getLines()[l][0],
                              xyz + 3 * mesh.getLines()[l][1]);
  };
  auto lineBox = [&](int l) {
    BoundingBox b;
    for (int k = 0; k < 2; ++k) b.extend(mesh.getVertices()[mesh.getLines()[l][k]].asPointFlt());
    return b;
  };
  kxGeom::OctreeLines lists;
  kxtest::LogCapture log;
  kxGeom::meshOctreeLines(mesh, f.octree, lists);
  expectPartition(f, lists, 400, overlap, lineBox);
  expectLogLine(log,
                "OctreeLines:  Partitioned %d lines into %d voxels in %lf seconds.\n"
                "             (%lf coherence, %lf duplication, %lf tri/sec)\n",
                400, f.octree.numLeaves, lists);
  EXPECT_EQ(lists.numLines(0), lists.getData().getSetSize(0));
}

TEST(OctreePartition, EmptyInputs) {
  Fixture f;
  // No leaves: the result is untouched and nothing is logged.
  kxGeom::OctreeTris tris;
  kxGeom::computeOctreeTris(f.mesh, f.octree, tris);
  const int before = tris.getData().getNumMembers();
  {
    kxtest::LogCapture log;
    kxGeom::computeOctreeTris(f.mesh, Octree(), tris);
    kxGeom::OctreeLines lines;
    kxGeom::meshOctreeLines(f.mesh, Octree(), lines);
    EXPECT_TRUE(log.lines().empty());
  }
  EXPECT_EQ(tris.getData().getNumMembers(), before);
  EXPECT_EQ(tris.numVoxels(), f.octree.numLeaves);
  // No triangles: V empty sets, and the line is still printed.
  kxGeom::CompactMesh bare(f.mesh.getNumVertices(), f.mesh.getVertices(), nullptr, nullptr,
                           nullptr);
  kxtest::LogCapture log;
  kxGeom::computeOctreeTris(bare, f.octree, tris);
  EXPECT_EQ(tris.numVoxels(), f.octree.numLeaves);
  EXPECT_EQ(tris.getData().getNumMembers(), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("OctreeTris:  Partitioned 0 triangles into ", 0), 0u);
  // A NaN triangle is listed nowhere.
  kxGeom::CompactMesh nanMesh = f.mesh;
  nanMesh.getVertices()[0].x = std::numeric_limits<float>::quiet_NaN();
  kxGeom::computeOctreeTris(nanMesh, f.octree, tris);
  for (int v = 0; v < tris.numVoxels(); ++v) {
    for (int i = 0; i < tris.numTris(v); ++i) {
      const kxGeom::MeshTriangle& t = nanMesh.getTriangles()[tris.firstTri(v)[i]];
      EXPECT_TRUE(t[0] != 0 && t[1] != 0 && t[2] != 0);
    }
  }
}
