#include <kxgeom/smoothing.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshAdjVertices;
using kxGeom::MeshVertex;

// The vertex-to-vertices table, as the library builds it.
void buildAdjacency(const CompactMesh& mesh, MeshAdjVertices& out) {
  kxGeom::MeshAdjTris tris;
  kxGeom::meshAdjTris(mesh, tris);
  kxGeom::meshAdjVertices(mesh, tris, out);
}

std::vector<MeshVertex> positions(const CompactMesh& mesh) {
  return std::vector<MeshVertex>(mesh.getVertices(), mesh.getVertices() + mesh.getNumVertices());
}

bool sameBits(const std::vector<MeshVertex>& a, const CompactMesh& mesh) {
  return int(a.size()) == mesh.getNumVertices() &&
         std::memcmp(a.data(), mesh.getVertices(), a.size() * sizeof(MeshVertex)) == 0;
}

/// A grid with its vertices moved by up to `noise` in x, y and z.
CompactMesh noisyGrid(int nx, int ny, float noise, unsigned seed) {
  CompactMesh mesh = kxtest::makeGrid(nx, ny);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> jitter(-noise, noise);
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    MeshVertex& p = mesh.getVertices()[v];
    p.set(p.x + jitter(rng), p.y + jitter(rng), p.z + jitter(rng));
  }
  return mesh;
}

/// Selects each vertex with probability (skipOneIn - 1) / skipOneIn.
void selectRandomly(CompactMesh& mesh, unsigned seed, unsigned skipOneIn) {
  std::mt19937 rng(seed);
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    if (rng() % skipOneIn != 0) mesh.getSelectedVertices().setBit(v);
  }
}

/// Counts polls and records the fractions set; cancels from poll `cancelAt`
/// on (never when negative).
class RecordingProgress : public kxUtil::Progress {
 public:
  explicit RecordingProgress(int cancelAt = -1) : cancelAt_(cancelAt) {}
  bool cancelled() const override { return cancelAt_ >= 0 && polls_++ >= cancelAt_; }
  int polls() const { return polls_; }

 private:
  int cancelAt_;
  mutable int polls_ = 0;
};

class CountingProgress : public kxUtil::Progress {
 public:
  bool cancelled() const override {
    ++polls;
    return false;
  }
  mutable int polls = 0;
};

TEST(LaplacianSmoothingTest, SelectedVerticesMoveToTheAverageOfOldPositions) {
  CompactMesh mesh = noisyGrid(12, 10, 0.3f, 3);
  MeshAdjVertices adjacency;
  buildAdjacency(mesh, adjacency);
  selectRandomly(mesh, 5, 3);
  const std::vector<MeshVertex> old = positions(mesh);
  const int notices = mesh.getModificationCount();
  kxUtil::Progress progress;
  kxGeom::meshSmoothLaplacian(mesh, adjacency, progress);

  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    const MeshVertex& p = mesh.getVertices()[v];
    if (!mesh.getSelectedVertices().isBitSet(v)) {
      EXPECT_EQ(std::memcmp(&p, &old[v], sizeof p), 0) << v;
      continue;
    }
    double s[3] = {0, 0, 0};
    const int k = adjacency.numAdjVertices(v);
    for (int j = 0; j < k; ++j) {
      const MeshVertex& q = old[adjacency.adjVertices(v)[j]];
      s[0] += q.x, s[1] += q.y, s[2] += q.z;
    }
    EXPECT_NEAR(p.x, s[0] / k, 2e-6) << v;
    EXPECT_NEAR(p.y, s[1] / k, 2e-6) << v;
    EXPECT_NEAR(p.z, s[2] / k, 2e-6) << v;
  }
  EXPECT_EQ(mesh.getModificationCount(), notices + 1);
  EXPECT_EQ(mesh.getLastModificationType(), 0);
  // Fewer than 1000 selected: one poll, at the first vertex.
  EXPECT_EQ(progress.get(), 1.0 / mesh.getSelectedVertices().countSetBits());
}

TEST(LaplacianSmoothingTest, HandComputedCornersAndRepeatedPasses) {
  // 2 x 2 grid: vertex 0 = (0,0) has neighbours (1,0), (0,1), (1,1); the
  // centre 4 has six neighbours whose average is (1, 1, 0).
  CompactMesh mesh = kxtest::makeGrid(2, 2);
  mesh.getVertices()[4].set(1.3f, 0.7f, 0.5f);
  MeshAdjVertices adjacency;
  buildAdjacency(mesh, adjacency);
  mesh.getSelectedVertices().setBit(0);
  mesh.getSelectedVertices().setBit(4);
  kxUtil::Progress progress;
  kxGeom::meshSmoothLaplacian(mesh, adjacency, progress);
  const MeshVertex& c = mesh.getVertices()[4];
  EXPECT_EQ(c.x, 1.0f);
  EXPECT_EQ(c.y, 1.0f);
  EXPECT_EQ(c.z, 0.0f);
  const MeshVertex& corner = mesh.getVertices()[0];
  EXPECT_EQ(corner.x, (1.0f + 0.0f + 1.3f) / 3);  // uses the centre's old position
  EXPECT_EQ(corner.y, (0.0f + 1.0f + 0.7f) / 3);
  EXPECT_EQ(corner.z, 0.5f / 3);

  // Two calls are two passes: the second reads the first one's results.
  CompactMesh twice = noisyGrid(6, 6, 0.2f, 9);
  MeshAdjVertices adj;
  buildAdjacency(twice, adj);
  twice.getSelectedVertices().setAllBits();
  CompactMesh once = twice;
  kxGeom::meshSmoothLaplacian(twice, adj, progress);
  kxGeom::meshSmoothLaplacian(twice, adj, progress);
  kxGeom::meshSmoothLaplacian(once, adj, progress);
  const std::vector<MeshVertex> afterOne = positions(once);
  kxGeom::meshSmoothLaplacian(once, adj, progress);
  EXPECT_TRUE(sameBits(positions(once), twice));
  EXPECT_FALSE(sameBits(afterOne, twice));
  EXPECT_EQ(twice.getModificationCount(), once.getModificationCount());
}

TEST(LaplacianSmoothingTest, ResultsDoNotDependOnTheThreadCount) {
  // Large enough for several parallel blocks of selected vertices.
  CompactMesh base = noisyGrid(400, 400, 0.3f, 21);
  MeshAdjVertices adjacency;
  buildAdjacency(base, adjacency);
  selectRandomly(base, 2, 5);
  // The polls of a sequential walk: at every vertex while the count of
  // selected vertices done is a multiple of 1000.
  int expectedPolls = 0;
  for (int v = 0, done = 0; v < base.getNumVertices(); ++v) {
    expectedPolls += done % 1000 == 0;
    done += base.getSelectedVertices().isBitSet(v) != 0;
  }
  std::vector<std::vector<MeshVertex>> results;
  for (int threads : {1, 3, 8}) {
    kxUtil::ThreadPool::setNumThreads(threads);
    CompactMesh mesh = base;
    CountingProgress progress;
    kxGeom::meshSmoothLaplacian(mesh, adjacency, progress);
    EXPECT_EQ(progress.polls, expectedPolls);
    results.push_back(positions(mesh));
  }
  kxUtil::ThreadPool::setNumThreads(0);
  for (std::size_t k = 1; k < results.size(); ++k) {
    EXPECT_EQ(0, std::memcmp(results[0].data(), results[k].data(),
                             results[0].size() * sizeof(MeshVertex)));
  }
}

TEST(SmoothingProgressTest, PollsEveryThousandSelectedVerticesAndCancelsCleanly) {
  CompactMesh mesh = noisyGrid(49, 49, 0.2f, 11);  // 2500 vertices
  MeshAdjVertices adjacency;
  buildAdjacency(mesh, adjacency);
  mesh.getSelectedVertices().setAllBits();
  CountingProgress counting;
  kxGeom::meshSmoothLaplacian(mesh, adjacency, counting);
  EXPECT_EQ(counting.polls, 3);  // at c = 0, 1000 and 2000
  EXPECT_NEAR(counting.get(), 2001.0 / 2500.0, 1e-12);

  // While c stays a multiple of 1000 every vertex polls, selected or not.
  CompactMesh sparse = kxtest::makeGrid(3, 3);
  MeshAdjVertices sparseAdjacency;
  buildAdjacency(sparse, sparseAdjacency);
  sparse.getSelectedVertices().setBit(5);
  CountingProgress few;
  kxGeom::meshSmoothLaplacian(sparse, sparseAdjacency, few);
  EXPECT_EQ(few.polls, 6);  // vertices 0..5

  // Cancelled at the first or at a later poll: nothing written, no notice.
  for (int cancelAt : {0, 1, 2}) {
    for (int op = 0; op < 2; ++op) {
      CompactMesh m = noisyGrid(49, 49, 0.2f, 11);
      m.allocNormalArray();
      for (int v = 0; v < m.getNumVertices(); ++v) m.getNormals()[v].set(0, 0, 1);
      m.getSelectedVertices().setAllBits();
      const std::vector<MeshVertex> old = positions(m);
      const int notices = m.getModificationCount();
      RecordingProgress stop(cancelAt);
      if (op == 0) kxGeom::meshSmoothLaplacian(m, adjacency, stop);
      if (op == 1) kxGeom::meshSmoothBilateral(m, adjacency, 2.0, stop);
      EXPECT_TRUE(sameBits(old, m)) << cancelAt << " " << op;
      EXPECT_EQ(m.getModificationCount(), notices);
      EXPECT_EQ(stop.polls(), cancelAt + 1);
    }
  }

  // An empty selection changes nothing but still sends the notice.
  CompactMesh none = kxtest::makeGrid(3, 3);
  const std::vector<MeshVertex> old = positions(none);
  kxUtil::Progress progress;
  kxGeom::meshSmoothLaplacian(none, sparseAdjacency, progress);
  EXPECT_TRUE(sameBits(old, none));
  EXPECT_EQ(none.getModificationCount(), 1);
  EXPECT_EQ(none.getLastModificationType(), 0);
}

/// A fan around vertex 0 at the origin with four rim vertices at the given
/// heights, every normal (0, 0, 1); only vertex 0 selected.
CompactMesh fan(const float heights[4]) {
  const MeshVertex v[5] = {
      {0, 0, 0}, {1, 0, heights[0]}, {0, 1, heights[1]}, {-1, 0, heights[2]}, {0, -1, heights[3]}};
  CompactMesh mesh(5, v, nullptr, nullptr, nullptr);
  const int t[] = {0, 1, 2, 0, 2, 3, 0, 3, 4, 0, 4, 1};
  mesh.copyTriangles(4, t);
  mesh.allocNormalArray();
  for (int i = 0; i < 5; ++i) mesh.getNormals()[i].set(0, 0, 1);
  mesh.getSelectedVertices().setBit(0);
  return mesh;
}

TEST(BilateralSmoothingTest, HandComputedFanAndFixedPoints) {
  const float heights[4] = {0.1f, -0.1f, 0.2f, 0.0f};
  CompactMesh mesh = fan(heights);
  MeshAdjVertices adjacency;
  buildAdjacency(mesh, adjacency);
  kxUtil::Progress progress;
  const double sigma = 2.0;
  kxGeom::meshSmoothBilateral(mesh, adjacency, sigma, progress);
  // Gathered: the four rim vertices. Mean 0.05, variance 0.0125.
  double mean = 0, s2 = 0, sum = 0, norm = 0;
  for (float h : heights) mean += h / 4.0;
  for (float h : heights) s2 += (h - mean) * (h - mean) / 4.0;
  EXPECT_NEAR(s2, 0.0125, 1e-8);
  for (float h : heights) {
    const double d2 = 1.0 + double(h) * h;
    const double w = std::exp(-d2 / (2 * sigma * sigma)) * std::exp(-double(h) * h / (2 * s2));
    sum += w * h;
    norm += w;
  }
  EXPECT_EQ(mesh.getVertices()[0].x, 0.0f);
  EXPECT_EQ(mesh.getVertices()[0].y, 0.0f);
  EXPECT_NEAR(mesh.getVertices()[0].z, sum / norm, 1e-7);
  EXPECT_GT(std::fabs(sum / norm), 0.01);  // the case really moves
  EXPECT_EQ(mesh.getLastModificationType(), 0);

  // Rim farther than sigma: nothing gathered, the centre stays.
  CompactMesh far = fan(heights);
  kxGeom::meshSmoothBilateral(far, adjacency, 0.9, progress);
  EXPECT_EQ(far.getVertices()[0].z, 0.0f);

  // A flat region is a fixed point (all heights 0): bit for bit, everywhere.
  CompactMesh flat = kxtest::makeGrid(8, 8);
  flat.allocNormalArray();
  for (int v = 0; v < flat.getNumVertices(); ++v) flat.getNormals()[v].set(0, 0, 1);
  flat.getSelectedVertices().setAllBits();
  MeshAdjVertices flatAdjacency;
  buildAdjacency(flat, flatAdjacency);
  const std::vector<MeshVertex> old = positions(flat);
  kxGeom::meshSmoothBilateral(flat, flatAdjacency, 3.0, progress);
  EXPECT_TRUE(sameBits(old, flat));
  EXPECT_EQ(flat.getModificationCount(), 1);

  // Without normals there is nothing to move along: untouched, no notice.
  CompactMesh bare = kxtest::makeGrid(2, 2);
  bare.getSelectedVertices().setAllBits();
  kxGeom::meshSmoothBilateral(bare, flatAdjacency, 1.0, progress);
  EXPECT_EQ(bare.getModificationCount(), 0);
}

TEST(BilateralSmoothingTest, NeighbourhoodFollowsEdgesOnly) {
  // A strip 0-1-2-3 folded back so that vertex 3 lies next to vertex 0 while
  // 1 and 2 are far: 3 is near in space but reachable only through far
  // vertices, so it must not be gathered. The near neighbours 4 and 5 differ
  // in height; had 3 (height 0.3) been gathered the result would change.
  const MeshVertex v[6] = {{0, 0, 0},          {5, 0, 0},        {5, 1, 0},
                           {0.2f, 0.2f, 0.3f}, {0.3f, 0, 0.05f}, {0, 0.3f, -0.02f}};
  CompactMesh mesh(6, v, nullptr, nullptr, nullptr);
  const int t[] = {0, 1, 2, 1, 3, 2, 0, 4, 5};
  mesh.copyTriangles(3, t);
  mesh.allocNormalArray();
  for (int i = 0; i < 6; ++i) mesh.getNormals()[i].set(0, 0, 1);
  mesh.getSelectedVertices().setBit(0);
  MeshAdjVertices adjacency;
  buildAdjacency(mesh, adjacency);
  kxUtil::Progress progress;
  const double sigma = 1.0;
  kxGeom::meshSmoothBilateral(mesh, adjacency, sigma, progress);
  const double h[2] = {0.05f, -0.02f}, d2[2] = {0.09 + h[0] * h[0], 0.09 + h[1] * h[1]};
  const double mean = (h[0] + h[1]) / 2,
               s2 = ((h[0] - mean) * (h[0] - mean) + (h[1] - mean) * (h[1] - mean)) / 2;
  double sum = 0, norm = 0;
  for (int i = 0; i < 2; ++i) {
    const double w = std::exp(-d2[i] / (2 * sigma * sigma)) * std::exp(-h[i] * h[i] / (2 * s2));
    sum += w * h[i];
    norm += w;
  }
  EXPECT_NEAR(mesh.getVertices()[0].z, sum / norm, 1e-7);
}

}  // namespace
