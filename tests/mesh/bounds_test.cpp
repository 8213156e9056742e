// Bounding boxes against a serial scan, with filters, hostile values, every
// thread count, and arrangements against transformed vertices.
#include <kxgeom/bounds.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::BitVector;
using kxGeom::BoundingBox;
using kxGeom::CompactMesh;

constexpr float kBig = 3.4028235e38f;

// The box of the vertices for which `keep` is true, by a plain serial scan.
template <class Keep>
BoundingBox bruteForceBox(const CompactMesh& mesh, Keep keep) {
  float lo[3] = {kBig, kBig, kBig}, hi[3] = {-kBig, -kBig, -kBig};
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    if (!keep(i)) continue;
    const float* p = mesh.getVerticesRaw() + 3 * i;
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::fmin(lo[k], p[k]);
      hi[k] = std::fmax(hi[k], p[k]);
    }
  }
  return BoundingBox(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]);
}

TEST(MeshBox, EmptyMeshKeepsTheSentinels) {
  CompactMesh empty;
  kxtest::LogCapture log;
  BoundingBox box(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f);
  kxGeom::meshBoundingBox(empty, box);
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(kBig, box[k]);
    EXPECT_EQ(-kBig, box[k + 3]);
  }
  double lo[3], hi[3];
  kxGeom::meshBoundingBox(empty, lo, hi);
  EXPECT_EQ(3.4028234663852886e38, lo[1]);
  EXPECT_EQ(-3.4028234663852886e38, hi[2]);
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[0], "meshBoundingBox: 0 vertices  ", " s\n"));
}

TEST(MeshBox, FilteredBoxesMatchSerialScan) {
  std::mt19937 rng(71);
  const CompactMesh mesh = kxtest::makeRandomMesh(3000, 0, 73);
  kxtest::forEachThreadCount([&](int threads) {
    for (double density : {0.0, 0.001, 0.05, 0.5, 1.0}) {
      std::bernoulli_distribution take(density);
      BitVector filter(3000);
      for (int i = 0; i < 3000; ++i) {
        if (take(rng)) filter.setBit(i);
      }
      BoundingBox box;
      kxGeom::meshBoundingBox(mesh, &filter, box);
      EXPECT_EQ(bruteForceBox(mesh, [&](int i) { return filter.isBitSet(i) != 0; }), box)
          << density << " " << threads;
    }
  });
  // A null filter means every vertex; a short filter leaves the rest out.
  BoundingBox all, viaNull;
  kxGeom::meshBoundingBox(mesh, all);
  kxGeom::meshBoundingBox(mesh, nullptr, viaNull);
  EXPECT_EQ(all, viaNull);
  BitVector shortFilter(100);
  shortFilter.setAllBits();
  BoundingBox head;
  kxGeom::meshBoundingBox(mesh, &shortFilter, head);
  EXPECT_EQ(bruteForceBox(mesh, [](int i) { return i < 100; }), head);
}

TEST(MeshBox, NaNCoordinatesAreIgnored) {
  const float nan = std::nanf("");
  const kxGeom::MeshVertex v[6] = {{nan, 5, 5}, {1, 2, 3},  {-1, nan, 0},
                                   {0, 0, nan}, {2, -2, 1}, {nan, nan, nan}};
  const CompactMesh mesh(6, v, nullptr, nullptr, nullptr);
  kxtest::forEachThreadCount([&](int threads) {
    BoundingBox box;
    kxGeom::meshBoundingBox(mesh, box);
    EXPECT_EQ(BoundingBox(-1.0f, -2.0f, 0.0f, 2.0f, 5.0f, 5.0f), box) << threads;
  });
}

TEST(ArrangementBox, EqualsTheBoxOfTransformedVertices) {
  const CompactMesh a = kxtest::makeRandomMesh(500, 0, 79);
  const CompactMesh b = kxtest::makeLatLongSphere(6, 8, 2.0, {10, 0, 0});
  const CompactMesh empty;
  kx::list<kxGeom::MeshPlacement> placements;
  const auto shift = kxLinear::AffineMatrixFlt::translation({1, -2, 3});
  const auto scale = kxLinear::AffineMatrixFlt::scaling(2, 0.5f, -1);
  placements.emplace_back(shift, &a);
  placements.emplace_back(scale, &b);
  placements.emplace_back(shift, &empty);
  BoundingBox expected;
  for (const auto& p : placements) {
    for (int i = 0; i < p.mesh->getNumVertices(); ++i) {
      const auto q = p.transform.transformPoint(p.mesh->getVertices()[i].asPointFlt());
      expected.extend(q);
    }
  }
  kxtest::LogCapture log;
  BoundingBox box;
  kxGeom::arrangementBoundingBox(placements, box);
  EXPECT_TRUE(kxGeom::equivalent(expected, box, 1e-6f));
  EXPECT_TRUE(
      kxtest::matchesLogLine(log.lines().back(), "arrangementBoundingBox: 3 meshes  ", " s\n"));
  // A rotation widens the box but never lets a vertex out.
  kx::list<kxGeom::MeshPlacement> rotated;
  kxLinear::AffineMatrixFlt turn;
  const float c = std::cos(0.7f), s = std::sin(0.7f);
  turn.m[0][0] = c;
  turn.m[0][1] = -s;
  turn.m[1][0] = s;
  turn.m[1][1] = c;
  rotated.emplace_back(turn, &a);
  kxGeom::arrangementBoundingBox(rotated, box);
  for (int i = 0; i < a.getNumVertices(); ++i) {
    const auto q = turn.transformPoint(a.getVertices()[i].asPointFlt());
    EXPECT_TRUE(q.x >= box[0] - 1e-6f && q.x <= box[3] + 1e-6f && q.y >= box[1] - 1e-6f &&
                q.y <= box[4] + 1e-6f);
  }
  kxGeom::arrangementBoundingBox({}, box);
  EXPECT_FALSE(box.isValid());
}

}  // namespace
