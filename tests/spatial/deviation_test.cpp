// Mesh deviation against a brute-force scan of every triangle (vertices and
// the documented samples), the sampling bound on an octahedron against a
// sphere, identical results for every thread count, and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

#include <kxgeom/deviation.h>

#include "mesh/thread_counts.h"
#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshDeviation;
using kxGeom::MeshDeviationOptions;
using kxLinear::Point;
using kxLinear::Vector;

// The points the options document, finite ones only: the vertices, then per
// triangle the centroids of its n^2 small triangles, n = ceil(longest edge /
// spacing).
std::vector<Point> documentedPoints(const CompactMesh& a, double spacing) {
  std::vector<Point> points;
  for (int v = 0; v < a.getNumVertices(); ++v) points.push_back(a.getVertices()[v].asPoint());
  for (int t = 0; t < a.getNumTriangles() && spacing > 0; ++t) {
    const Point c0 = kxtest::corner(a, t, 0), c1 = kxtest::corner(a, t, 1),
                c2 = kxtest::corner(a, t, 2);
    const double longest = std::max({(c1 - c0).length(), (c2 - c1).length(), (c0 - c2).length()});
    const int n = std::max(1, int(std::ceil(longest / spacing)));
    for (int i = 0; i < n; ++i) {
      for (int j = 0; i + j < n; ++j) {
        for (double shift : {1.0 / 3, 2.0 / 3}) {
          if (shift > 0.5 && i + j + 1 >= n) continue;
          points.push_back(c0 + (c1 - c0) * ((i + shift) / n) + (c2 - c0) * ((j + shift) / n));
        }
      }
    }
  }
  points.erase(
      std::remove_if(points.begin(), points.end(), [](const Point& p) { return std::isnan(p.x); }),
      points.end());
  return points;
}

TEST(MeshDeviation, MatchesBruteForceOnRandomMeshesForEveryThreadCount) {
  for (unsigned seed = 1; seed <= 2; ++seed) {
    CompactMesh a = kxtest::makeRandomMesh(1500, 300, seed);  // several blocks
    CompactMesh b = kxtest::makeRandomMesh(40, 60, seed + 100);
    // A NaN vertex is left out of a, and its triangles out of b.
    a.getVertices()[seed].x = b.getVertices()[seed].y = std::nanf("");
    for (double spacing : {0.0, 0.3}) {
      const std::vector<Point> points = documentedPoints(a, spacing);
      double maximum = 0, sum = 0, sum2 = 0;
      std::vector<double> oracle;
      for (const Point& p : points) {
        const double d = std::sqrt(kxtest::bruteClosest2(b, p));
        oracle.push_back(d);
        maximum = std::max(maximum, d);
        sum += d;
        sum2 += d * d;
      }
      MeshDeviation first;
      kx::vector<double> firstDistances;
      kxtest::forEachThreadCount([&](int threads) {
        MeshDeviation r;
        kx::vector<double> distances;
        kxUtil::Progress progress;
        ASSERT_TRUE(kxGeom::meshDeviation(a, b, {spacing}, r, progress, &distances));
        ASSERT_EQ(r.points, std::int64_t(points.size()));
        EXPECT_NEAR(r.maximum, maximum, 1e-9);
        EXPECT_NEAR(r.mean, sum / points.size(), 1e-9);
        EXPECT_NEAR(r.rms, std::sqrt(sum2 / points.size()), 1e-9);
        EXPECT_TRUE(std::isnan(distances[seed]));
        for (int v = 0, i = 0; v < a.getNumVertices(); ++v) {
          if (v != int(seed)) {
            EXPECT_NEAR(distances[v], oracle[i++], 1e-9);
          }
        }
        if (threads == 1) first = r, firstDistances = distances;
        EXPECT_EQ(r.maximum, first.maximum);
        EXPECT_EQ(r.mean, first.mean);
        EXPECT_EQ(r.rms, first.rms);
        EXPECT_EQ(r.farthest, first.farthest);
        EXPECT_EQ(std::memcmp(distances.data(), firstDistances.data(), 8 * distances.size()), 0);
      });
      double hausdorff = 0;
      MeshDeviation forward, backward;
      kxUtil::Progress progress;
      ASSERT_TRUE(kxGeom::meshSymmetricDeviation(a, b, {spacing}, hausdorff, progress, &forward,
                                                 &backward));
      EXPECT_EQ(forward.maximum, first.maximum);
      EXPECT_EQ(hausdorff, std::max(forward.maximum, backward.maximum));
    }
  }
}

TEST(MeshDeviation, SamplesBoundTheFacesBetweenVertices) {
  // The octahedron's vertices lie on the sphere; its face centres lie
  // 1 - 1/sqrt(3) inside it.
  const CompactMesh octahedron = kxtest::makeOctaSphere(0), sphere = kxtest::makeOctaSphere(5);
  const double faceGap = 1 - 1 / std::sqrt(3.0), facets = 1 - std::cos(3.1416 / 64);
  kxUtil::Progress progress;
  MeshDeviation vertices, sampled;
  ASSERT_TRUE(kxGeom::meshDeviation(octahedron, sphere, {}, vertices, progress));
  EXPECT_LT(vertices.maximum, 1e-6);
  const double spacing = 0.05;
  ASSERT_TRUE(kxGeom::meshDeviation(octahedron, sphere, {spacing}, sampled, progress));
  EXPECT_GT(sampled.maximum, faceGap - facets - 2 * spacing / 3);
  EXPECT_LT(sampled.maximum, faceGap + 1e-6);
}

// Cancels on the n-th poll.
class CancelAfter : public kxUtil::Progress {
 public:
  explicit CancelAfter(int polls) : left_(polls) {}
  bool cancelled() const override { return --left_ < 0; }

 private:
  mutable std::atomic<int> left_;
};

TEST(MeshDeviation, CancelledOrEmptyWritesNothing) {
  const CompactMesh a = kxtest::makeOctaSphere(4), b = kxtest::makeOctaSphere(3, 1.1);
  for (int polls : {0, 1, 3}) {
    MeshDeviation r;
    r.maximum = -7;
    kx::vector<double> distances(1, -7.0);
    CancelAfter progress(polls);
    EXPECT_FALSE(kxGeom::meshDeviation(a, b, {0.01}, r, progress, &distances));
    EXPECT_EQ(r.maximum, -7);
    EXPECT_EQ(distances.size(), 1u);
  }
  kxUtil::Progress progress;
  MeshDeviation r;
  EXPECT_FALSE(kxGeom::meshDeviation(a, CompactMesh(), {}, r, progress));
  EXPECT_FALSE(kxGeom::meshDeviation(CompactMesh(), b, {}, r, progress));
  EXPECT_TRUE(kxGeom::meshDeviation(a, b, {0.01}, r, progress));
  EXPECT_NEAR(r.maximum, 0.1, 0.01);
  EXPECT_EQ(progress.get(), 1.0);
}

}  // namespace
