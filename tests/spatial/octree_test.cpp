// The point octree: tiling, permutation, leaf capacity, depth cap and
// non-finite points.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "spatial/octree_oracles.h"

using kxGeom::BoundingBox;
using kxGeom::Octree;
using kxGeom::OctreeIterator;

namespace {

std::vector<float> randomCloud(int n, unsigned seed, bool clustered) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-1, 1);
  std::normal_distribution<float> g(0, 0.01f);
  std::vector<float> xyz(3 * n);
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 3; ++k) xyz[3 * i + k] = clustered && i % 2 ? 0.3f + g(rng) : u(rng);
  }
  return xyz;
}

double volume(const BoundingBox& b) {
  return (double(b[3]) - b[0]) * (double(b[4]) - b[1]) * (double(b[5]) - b[2]);
}

// Checks the structural invariants every octree must satisfy.
void expectWellFormed(const Octree& tree, const std::vector<float>& xyz, int capacity) {
  const int n = int(xyz.size() / 3);
  const auto leaves = kxtest::allLeaves(tree);
  ASSERT_EQ(int(leaves.size()), tree.numLeaves);
  // Every voxel index appears once; leaf volumes add up to the root volume
  // and every leaf box lies in the root box: the leaves tile the root.
  double sum = 0;
  for (const OctreeIterator& leaf : leaves) {
    ASSERT_NE(leaf.getNode(), nullptr);
    EXPECT_TRUE(tree.getBox().contains(leaf.getBox()));
    sum += volume(leaf.getBox());
  }
  EXPECT_NEAR(sum, volume(tree.getBox()), 1e-12 * volume(tree.getBox()));
  // The leaf ranges partition the permutation, which is a permutation.
  std::vector<int> owner(n, -1);
  std::vector<int> seen(n, 0);
  for (const OctreeIterator& leaf : leaves) {
    for (int i = leaf.firstPoint(); i < leaf.endPoint(); ++i) {
      ASSERT_EQ(owner[i], -1);
      owner[i] = leaf.getVoxel();
      const int p = tree.getPointIndices()[i];
      ASSERT_GE(p, 0);
      ASSERT_LT(p, n);
      ++seen[p];
      const float* q = &xyz[3 * p];
      if (std::isfinite(q[0]) && std::isfinite(q[1]) && std::isfinite(q[2])) {
        EXPECT_TRUE(kxGeom::contains(leaf.getBox(), kxLinear::PointFlt(q[0], q[1], q[2])));
      }
    }
  }
  for (int i = 0; i < n; ++i) ASSERT_EQ(seen[i], 1) << i;
  for (int i = 0; i < n; ++i) ASSERT_NE(owner[i], -1) << i;
  // Over-full leaves only at the depth cap or where float cannot halve.
  int maxLevel = 0;
  std::vector<std::pair<OctreeIterator, int>> stack{{tree.getRoot(), 1}};
  while (!stack.empty()) {
    auto [cell, level] = stack.back();
    stack.pop_back();
    maxLevel = std::max(maxLevel, level);
    if (cell.isLeaf()) {
      const float side = cell.getBox()[3] - cell.getBox()[0];
      if (cell.endPoint() - cell.firstPoint() > capacity) {
        EXPECT_TRUE(level == Octree::kMaxDepth ||
                    side <= 1e-6f * (tree.getBox()[3] - tree.getBox()[0]))
            << "level " << level;
      }
      continue;
    }
    for (int k = 0; k < 8; ++k) {
      OctreeIterator child = cell;
      ASSERT_TRUE(child.descend(k)) << "an inner cell has all eight children";
      stack.push_back({child, level + 1});
    }
  }
  EXPECT_EQ(maxLevel, tree.depth);
}

BoundingBox boxOf(const std::vector<float>& xyz) {
  BoundingBox box;
  for (std::size_t i = 0; i + 2 < xyz.size(); i += 3) {
    if (std::isfinite(xyz[i]) && std::isfinite(xyz[i + 1]) && std::isfinite(xyz[i + 2])) {
      box.extend(xyz[i], xyz[i + 1], xyz[i + 2]);
    }
  }
  return box;
}

}  // namespace

TEST(Octree, StructureOnRandomAndClusteredClouds) {
  for (bool clustered : {false, true}) {
    for (int capacity : {1, 16}) {
      const auto xyz = randomCloud(5000, 7 + capacity, clustered);
      const Octree tree(5000, xyz.data(), boxOf(xyz), true, capacity);
      expectWellFormed(tree, xyz, capacity);
      EXPECT_GT(tree.numLeaves, 5000 / capacity / 8);
      // Cubed root: every side equal.
      EXPECT_FLOAT_EQ(tree.getBox()[3] - tree.getBox()[0], tree.getBox()[4] - tree.getBox()[1]);
      EXPECT_FLOAT_EQ(tree.getBox()[3] - tree.getBox()[0], tree.getBox()[5] - tree.getBox()[2]);
    }
  }
}

TEST(Octree, FlatGridWithoutCubingAndSmallGivenBox) {
  const kxGeom::CompactMesh grid = kxtest::makeGrid(40, 30);
  std::vector<float> xyz(grid.getVerticesRaw(), grid.getVerticesRaw() + 3 * grid.getNumVertices());
  const Octree flat(grid.getNumVertices(), xyz.data(), boxOf(xyz), false, 4);
  expectWellFormed(flat, xyz, 4);
  EXPECT_EQ(flat.getBox()[2], 0.0f);
  EXPECT_EQ(flat.getBox()[5], 0.0f);
  // A given box smaller than the points grows to hold them.
  const Octree grown(grid.getNumVertices(), xyz.data(), BoundingBox(0.f, 0.f, 0.f, 1.f, 1.f, 1.f),
                     false, 4);
  EXPECT_TRUE(grown.getBox().contains(boxOf(xyz)));
  expectWellFormed(grown, xyz, 4);
}

TEST(Octree, DegenerateInputs) {
  // No points, no box: no leaves, a root handle on nothing.
  const Octree none(0, nullptr, BoundingBox(), true, 16);
  EXPECT_EQ(none.numLeaves, 0);
  EXPECT_EQ(none.depth, 0);
  EXPECT_EQ(none.getRoot().getNode(), nullptr);
  EXPECT_FALSE(kxGeom::OctreeLeafIterator(none).valid());
  OctreeIterator nothing;
  EXPECT_FALSE(nothing.descend(0));
  EXPECT_FALSE(nothing.getBox().contains(BoundingBox(0.f, 0.f, 0.f, 0.f, 0.f, 0.f)));
  // No points with a box: one empty leaf.
  const Octree empty(0, nullptr, BoundingBox(0.f, 0.f, 0.f, 1.f, 1.f, 1.f), true, 16);
  EXPECT_EQ(empty.numLeaves, 1);
  EXPECT_EQ(empty.depth, 1);
  // One point: a root leaf holding it.
  const std::vector<float> one{0.5f, -2.f, 3.f};
  const Octree single(1, one.data(), boxOf(one), true, 16);
  EXPECT_EQ(single.numLeaves, 1);
  expectWellFormed(single, one, 16);
  // Many identical points: terminates at the depth cap (or float limit) with all in one leaf.
  const std::vector<float> same(3 * 1000, 0.25f);
  std::vector<float> mixed = same;
  mixed.insert(mixed.end(), {1.f, 1.f, 1.f, -1.f, -1.f, -1.f});
  const Octree piled(int(mixed.size() / 3), mixed.data(), boxOf(mixed), true, 16);
  EXPECT_LE(piled.depth, Octree::kMaxDepth);
  expectWellFormed(piled, mixed, 16);
  EXPECT_LT(piled.getNumNodes(), 8 * Octree::kMaxDepth + 2);
}

TEST(Octree, NonFinitePointsStayOutOfTheBox) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  auto xyz = randomCloud(200, 3, false);
  const BoundingBox finiteBox = boxOf(xyz);
  xyz.insert(xyz.end(), {nan, nan, nan, inf, 0.f, 0.f, 0.f, -inf, nan, nan, nan, nan});
  const int n = int(xyz.size() / 3);
  const Octree tree(n, xyz.data(), BoundingBox(), true, 4);
  BoundingBox cube = finiteBox;
  cube.extendToCube();
  EXPECT_EQ(tree.getBox(), cube);
  expectWellFormed(tree, xyz, 4);
  // All-NaN points land in leaf 0, the minimum corner.
  const auto leaves = kxtest::allLeaves(tree);
  for (int i = leaves[0].firstPoint(), found = 0; i <= leaves[0].endPoint(); ++i) {
    if (i == leaves[0].endPoint()) {
      EXPECT_EQ(found, 2);
      break;
    }
    const int p = tree.getPointIndices()[i];
    found += p == 200 || p == 203;
  }
  EXPECT_EQ(leaves[0].getBox()[0], tree.getBox()[0]);
  EXPECT_EQ(leaves[0].getBox()[1], tree.getBox()[1]);
  EXPECT_EQ(leaves[0].getBox()[2], tree.getBox()[2]);
}

// Entry parameter of a ray into a box (double slab test); infinity on a miss.
double entryParameter(const kxLinear::Point& o, const kxLinear::Vector& d, const BoundingBox& b) {
  double t0 = -std::numeric_limits<double>::infinity(),
         t1 = std::numeric_limits<double>::infinity();
  for (int k = 0; k < 3; ++k) {
    const double a = (b[k] - o[k]) / d[k], c = (b[k + 3] - o[k]) / d[k];
    t0 = std::max(t0, std::min(a, c));
    t1 = std::min(t1, std::max(a, c));
  }
  return t0 <= t1 ? t0 : std::numeric_limits<double>::infinity();
}

// The leaf iterator: depth first with the highest child first, copyable.
void reverseLeaves(OctreeIterator cell, std::vector<int>& out) {
  if (cell.isLeaf()) {
    out.push_back(cell.getVoxel());
    return;
  }
  for (int k = 7; k >= 0; --k) {
    OctreeIterator child = cell;
    child.descend(k);
    reverseLeaves(child, out);
  }
}
