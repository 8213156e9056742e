#include <kxgeom/reduce.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "mesh/thread_counts.h"
#include "spatial/octree_oracles.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshReduceOptions;
using kxGeom::MeshReduceResult;
using kxGeom::MeshReduceStatus;
using kxLinear::Point;
using kxLinear::Vector;

CompactMesh makeTorus(int nu, int nv, float noise) {
  return kxtest::makeTorus(nu, nv, 1.0, 0.35, noise);
}

Vector normalOf(const CompactMesh& m, int t) {
  return kxLinear::cross(kxtest::corner(m, t, 1) - kxtest::corner(m, t, 0),
                         kxtest::corner(m, t, 2) - kxtest::corner(m, t, 0));
}

/// Consistently oriented, manifold at every edge and vertex, no triangle
/// repeating a corner (the topology report, which a duplicate triangle would
/// fail through its over-shared edges); returns V - E + F.
int checkManifoldOriented(const CompactMesh& m) {
  const kxGeom::MeshTopologyReport r = kxGeom::meshTopologyReport(m);
  EXPECT_TRUE(r.oriented);
  EXPECT_EQ(r.nonManifoldEdges, 0);
  EXPECT_EQ(r.nonManifoldVertices, 0);
  EXPECT_EQ(r.degenerateTriangles, 0);
  return r.positions - r.edges + m.getNumTriangles();
}

/// Largest distance from a vertex of `from` to the surface of `to`, by
/// brute force over all triangles.
double oneSidedHausdorff(const CompactMesh& from, const CompactMesh& to) {
  double worst2 = 0;
  for (int v = 0; v < from.getNumVertices(); ++v) {
    worst2 = std::max(worst2, kxtest::bruteClosest2(to, from.getVertices()[v].asPoint()));
  }
  return std::sqrt(worst2);
}

void expectValidRemap(const kxGeom::Remap& map, const CompactMesh& before,
                      const CompactMesh& after) {
  ASSERT_EQ(map.getDomainSize(), before.getNumVertices());
  ASSERT_EQ(map.getRangeSize(), after.getNumVertices());
  std::vector<int> hit(after.getNumVertices(), 0);
  for (int v = 0; v < before.getNumVertices(); ++v) {
    ASSERT_TRUE(map(v) >= 0 && map(v) < after.getNumVertices()) << v;
    hit[map(v)] = 1;
  }
  EXPECT_EQ(std::count(hit.begin(), hit.end(), 1), after.getNumVertices());
}

MeshReduceResult reduce(CompactMesh& m, const MeshReduceOptions& o, kxGeom::Remap* map = nullptr) {
  kxUtil::Progress progress;
  return kxGeom::meshReduce(m, o, progress, map);
}

MeshReduceOptions toCount(int triangles) {
  MeshReduceOptions o;
  o.targetFraction = 0;
  o.targetTriangles = triangles;
  return o;
}

TEST(MeshReduceTest, ClosedMeshesReachTheCountKeepTopologyWindingAndShape) {
  struct Case {
    CompactMesh mesh;
    int euler;
    double hausdorff;  // the shape's tolerance at this count
  };
  Case cases[] = {{kxtest::makeLatLongSphere(24, 48), 2, 0.06}, {makeTorus(48, 20, 0.02f), 0, 0.1}};
  for (Case& c : cases) {
    const CompactMesh input = c.mesh;
    const int notices = c.mesh.getModificationCount();
    kxGeom::Remap map;
    kxtest::LogCapture log;
    const MeshReduceResult r = reduce(c.mesh, toCount(300), &map);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind("meshReduce: ", 0), 0u);
    ASSERT_EQ(r.status, MeshReduceStatus::Reduced);
    EXPECT_EQ(r.stop, kxGeom::MeshReduceStop::TargetReached);
    EXPECT_EQ(c.mesh.getNumTriangles(), 300);  // even counts: two triangles per collapse
    EXPECT_EQ(r.trianglesAfter, 300);
    EXPECT_EQ(r.verticesAfter, c.mesh.getNumVertices());
    EXPECT_EQ(r.collapses, (input.getNumTriangles() - 300) / 2);
    EXPECT_EQ(checkManifoldOriented(c.mesh), c.euler);
    expectValidRemap(map, input, c.mesh);
    EXPECT_EQ(c.mesh.getModificationCount(), notices + 1);
    EXPECT_EQ(c.mesh.getLastModificationType(), 1);
    // Outward normals stay outward: against the centre, or the tube's core.
    for (int t = 0; t < c.mesh.getNumTriangles(); ++t) {
      const Point g = (kxtest::corner(c.mesh, t, 0) + kxtest::corner(c.mesh, t, 1) +
                       kxtest::corner(c.mesh, t, 2)) /
                      3.0;
      const Vector out =
          c.euler == 2 ? g - Point() : g - Point(g.x, g.y, 0) * (1 / std::hypot(g.x, g.y));
      EXPECT_GT(kxLinear::dot(kxLinear::normalized(normalOf(c.mesh, t)), kxLinear::normalized(out)),
                0.5)
          << t;
    }
    EXPECT_LT(oneSidedHausdorff(input, c.mesh), c.hausdorff);
  }
}

TEST(MeshReduceTest, ErrorBoundStopsAndBoundsTheDistance) {
  for (double bound : {0.002, 0.01, 0.02}) {
    CompactMesh mesh = makeTorus(60, 24, 0.0f);
    const CompactMesh input = mesh;
    MeshReduceOptions o = toCount(0);
    o.maxError = bound;
    const MeshReduceResult r = reduce(mesh, o);
    EXPECT_EQ(r.stop, kxGeom::MeshReduceStop::ErrorBound);
    EXPECT_LE(r.maxError, bound);
    EXPECT_GT(r.maxError, 0.5 * bound);
    EXPECT_LT(mesh.getNumTriangles(), input.getNumTriangles() * 2 / 3);
    // The error is an area-weighted RMS of distances to the input's planes:
    // at a vertex of a coarse, curved result the farthest input vertex lies
    // a few times beyond it.
    EXPECT_LT(oneSidedHausdorff(input, mesh), 3 * bound);
  }
}

/// A flat grid with UVs and normals that are linear in the position.
CompactMesh flatGridWithAttributes(int n) {
  CompactMesh m = kxtest::makeGrid(n, n);
  kxGeom::MeshUV* uv = m.allocUVArray();
  kxGeom::MeshNormal* normal = m.allocNormalArray();
  for (int v = 0; v < m.getNumVertices(); ++v) {
    uv[v] = {m.getVertices()[v].x / n, 1 - m.getVertices()[v].y / n};
    normal[v].set(0, 0, 1);
  }
  return m;
}

TEST(MeshReduceTest, FlatGridKeepsItsBoundaryAndAttributesAndEndsNearlyMinimal) {
  const int n = 12;
  for (auto placement :
       {kxGeom::MeshReducePlacement::Optimal, kxGeom::MeshReducePlacement::Endpoint}) {
    CompactMesh mesh = flatGridWithAttributes(n);
    const CompactMesh input = mesh;
    MeshReduceOptions o = toCount(0);
    o.maxError = 0;
    o.placement = placement;
    kxGeom::Remap map;
    const MeshReduceResult r = reduce(mesh, o, &map);
    EXPECT_EQ(r.maxError, 0.0);
    // 4n boundary vertices; a polygon of b corners needs b - 2 triangles.
    EXPECT_LE(mesh.getNumTriangles(), 4 * n - 2 + 6);
    EXPECT_EQ(checkManifoldOriented(mesh), 1);
    expectValidRemap(map, input, mesh);
    double area = 0;
    for (int t = 0; t < mesh.getNumTriangles(); ++t) {
      EXPECT_GT(normalOf(mesh, t).z, 0) << t;
      area += normalOf(mesh, t).z / 2;
    }
    EXPECT_NEAR(area, n * n, 1e-9);
    std::set<std::vector<float>> inputPositions;
    for (int v = 0; v < input.getNumVertices(); ++v) {
      const kxGeom::MeshVertex& p = input.getVertices()[v];
      inputPositions.insert({p.x, p.y, p.z});
      if (p.x == 0 || p.y == 0 || p.x == n || p.y == n) {
        EXPECT_EQ(std::memcmp(&mesh.getVertices()[map(v)], &p, sizeof p), 0) << v;
      }
    }
    for (int v = 0; v < mesh.getNumVertices(); ++v) {
      const kxGeom::MeshVertex& p = mesh.getVertices()[v];
      if (placement == kxGeom::MeshReducePlacement::Endpoint) {
        EXPECT_EQ(inputPositions.count({p.x, p.y, p.z}), 1u);
      }
      EXPECT_NEAR(mesh.getUVs()[v].u, p.x / n, 1e-6);
      EXPECT_NEAR(mesh.getUVs()[v].v, 1 - p.y / n, 1e-6);
      EXPECT_EQ(mesh.getNormals()[v].z, 1.0f);
    }
  }
}

TEST(MeshReduceTest, OtherElementsFollowTheVertices) {
  CompactMesh mesh = kxtest::makeGrid(12, 12);
  mesh.resizeLineArray(1);
  mesh.getLines()[0] = {{14, 15}};
  mesh.resizeTriStripArrays(1, 3);
  mesh.allocTriangleNormalArray();
  kxGeom::Remap map;
  reduce(mesh, toCount(20), &map);
  ASSERT_EQ(mesh.getNumLines(), 1);
  EXPECT_EQ(mesh.getLines()[0][0], map(14));
  EXPECT_EQ(mesh.getLines()[0][1], map(15));
  EXPECT_EQ(mesh.getNumTriStrips(), 0);
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    EXPECT_EQ(mesh.getTriangleNormals()[t].z, 1.0f) << t;
  }
}

TEST(MeshReduceTest, LockedVerticesStayPut) {
  CompactMesh mesh = kxtest::makeLatLongSphere(24, 48);
  const int n = mesh.getNumVertices();
  mesh.getSelectedVertices().resize(n);
  for (int v = 0; v < n; v += 7) mesh.getSelectedVertices().setBit(v);
  const CompactMesh input = mesh;
  kxGeom::Remap map;
  reduce(mesh, toCount(400), &map);
  EXPECT_EQ(mesh.getNumTriangles(), 400);
  std::set<int> images;
  for (int v = 0; v < n; v += 7) {
    EXPECT_EQ(std::memcmp(&mesh.getVertices()[map(v)], &input.getVertices()[v], 12), 0) << v;
    EXPECT_TRUE(mesh.getSelectedVertices().isBitSet(map(v)));
    images.insert(map(v));
  }
  EXPECT_EQ(int(images.size()), (n + 6) / 7);
  EXPECT_EQ(mesh.getSelectedVertices().countSetBits(), (n + 6) / 7);
}

/// An open, curved patch: a grid bent into a saddle.
CompactMesh saddle(int n) {
  CompactMesh m = kxtest::makeGrid(n, n);
  for (int v = 0; v < m.getNumVertices(); ++v) {
    kxGeom::MeshVertex& p = m.getVertices()[v];
    p.set(p.x / n - 0.5f, p.y / n - 0.5f, (p.x / n - 0.5f) * (p.y / n - 0.5f));
  }
  return m;
}

TEST(MeshReduceTest, OpenPatchBoundariesKeptOrWeighted) {
  for (auto boundary : {kxGeom::MeshReduceBoundary::Keep, kxGeom::MeshReduceBoundary::Weighted}) {
    CompactMesh mesh = saddle(30);
    const CompactMesh input = mesh;
    MeshReduceOptions o = toCount(361);  // odd: needs a collapse of one triangle or stops one short
    o.boundary = boundary;
    kxGeom::Remap map;
    reduce(mesh, o, &map);
    EXPECT_GE(mesh.getNumTriangles(), 360);
    EXPECT_LE(mesh.getNumTriangles(), 361);
    EXPECT_EQ(checkManifoldOriented(mesh), 1);
    expectValidRemap(map, input, mesh);
    int boundaryVertices = 0;
    for (int v = 0; v < mesh.getNumVertices(); ++v) {
      const kxGeom::MeshVertex& p = mesh.getVertices()[v];
      boundaryVertices += std::fabs(p.x) == 0.5f || std::fabs(p.y) == 0.5f;
    }
    if (boundary == kxGeom::MeshReduceBoundary::Keep) {
      EXPECT_EQ(boundaryVertices, 120);
      EXPECT_LT(oneSidedHausdorff(input, mesh), 0.002);
    } else {
      EXPECT_LT(boundaryVertices, 60);
      EXPECT_LT(oneSidedHausdorff(input, mesh), 0.01);
    }
  }
}

/// Cancels at the given poll.
class CancellingProgress : public kxUtil::Progress {
 public:
  explicit CancellingProgress(int at) : at_(at) {}
  bool cancelled() const override { return polls_++ >= at_; }

 private:
  int at_;
  mutable int polls_ = 0;
};

bool identical(const CompactMesh& a, const CompactMesh& b) {
  const auto same = [](const void* x, const void* y, std::size_t bytes) {
    return bytes == 0 || std::memcmp(x, y, bytes) == 0;
  };
  return a.getNumVertices() == b.getNumVertices() && a.getNumTriangles() == b.getNumTriangles() &&
         same(a.getVertices(), b.getVertices(), 12 * std::size_t(a.getNumVertices())) &&
         same(a.getTriangles(), b.getTriangles(), 12 * std::size_t(a.getNumTriangles())) &&
         (a.getUVs() == nullptr) == (b.getUVs() == nullptr) &&
         (!a.getUVs() || same(a.getUVs(), b.getUVs(), 8 * std::size_t(a.getNumVertices())));
}

TEST(MeshReduceTest, CancelledOrInvalidRunsLeaveTheMeshBitIdentical) {
  for (int at : {0, 2}) {
    CompactMesh mesh = kxtest::makeLatLongSphere(60, 120);
    kxGeom::MeshUV* uv = mesh.allocUVArray();
    for (int v = 0; v < mesh.getNumVertices(); ++v) uv[v] = {mesh.getVertices()[v].x, 0.5f};
    const CompactMesh input = mesh;
    kxGeom::Remap map(3, 3);
    CancellingProgress progress(at);
    const MeshReduceResult r = kxGeom::meshReduce(mesh, toCount(1000), progress, &map);
    EXPECT_EQ(r.status, MeshReduceStatus::Cancelled);
    EXPECT_EQ(r.collapses, 1024 * (at + 1));  // polled every 1024 collapses
    EXPECT_TRUE(identical(mesh, input));
    EXPECT_EQ(mesh.getModificationCount(), input.getModificationCount());
    EXPECT_EQ(map.getDomainSize(), 3);
  }
  CompactMesh broken = kxtest::makeLatLongSphere(8, 16);
  broken.getTriangles()[5][1] = broken.getNumVertices();
  MeshReduceOptions badFraction;
  badFraction.targetFraction = 1.5;
  CompactMesh sphere = kxtest::makeLatLongSphere(8, 16);
  const std::pair<CompactMesh*, MeshReduceOptions> invalid[] = {{&broken, MeshReduceOptions()},
                                                                {&sphere, badFraction}};
  CompactMesh empty;
  EXPECT_EQ(reduce(empty, MeshReduceOptions()).status, MeshReduceStatus::Unchanged);
  for (const auto& c : invalid) {
    const CompactMesh before = *c.first;
    EXPECT_EQ(reduce(*c.first, c.second).status, MeshReduceStatus::Invalid);
    EXPECT_TRUE(identical(*c.first, before));
    EXPECT_EQ(c.first->getModificationCount(), before.getModificationCount());
  }
}

TEST(MeshReduceTest, ProgressIsTheShareOfTheTrianglesToRemove) {
  CompactMesh mesh = kxtest::makeLatLongSphere(60, 120);
  const double toRemove = mesh.getNumTriangles() - 1000;
  kxUtil::Progress progress;
  std::vector<double> seen;
  progress.setObserver([&](double overall, const char*) { seen.push_back(overall); });
  kxGeom::meshReduce(mesh, toCount(1000), progress);
  ASSERT_GE(seen.size(), 2u);
  EXPECT_NEAR(seen.front(), 2048 / toRemove, 1e-3);  // after 1024 collapses of two triangles
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(seen.back(), 1.0);
}

TEST(MeshReduceTest, DefectsAreKeptAndNotMultiplied) {
  // A fin on one edge (three triangles), a NaN vertex, a repeated-corner
  // triangle; and a random soup.
  CompactMesh sphere = kxtest::makeLatLongSphere(16, 32);
  const kxGeom::MeshTriangle first = sphere.getTriangles()[40];
  std::vector<int> t(sphere.getTrianglesRaw(),
                     sphere.getTrianglesRaw() + 3 * sphere.getNumTriangles());
  t.insert(t.end(), {first[1], first[0], 0, first[2], first[2], 5});
  sphere.copyTriangles(int(t.size() / 3), t.data());
  sphere.getVertices()[200].x = std::nanf("");
  CompactMesh soup = kxtest::makeRandomMesh(60, 300, 4);
  kxGeom::Remap maps[2];
  CompactMesh* meshes[2] = {&sphere, &soup};
  for (int i = 0; i < 2; ++i) {
    CompactMesh* m = meshes[i];
    kxGeom::Remap& map = maps[i];
    kxGeom::MeshAdjTris adjacency;
    kxGeom::meshAdjTris(*m, adjacency);
    kxGeom::MeshManifoldResult before, after;
    kxGeom::meshManifold(*m, adjacency, before);
    const CompactMesh input = *m;
    const int notices = m->getModificationCount();
    const MeshReduceResult r = reduce(*m, toCount(0), &map);
    EXPECT_EQ(r.status, i == 0 ? MeshReduceStatus::Reduced : MeshReduceStatus::Unchanged);
    EXPECT_EQ(m->getModificationCount(), notices + (i == 0));
    kxGeom::meshAdjTris(*m, adjacency);
    kxGeom::meshManifold(*m, adjacency, after);
    EXPECT_LE(after.badEdges.size(), before.badEdges.size());
    for (const auto& e : before.badEdges) {
      for (int v : {e.first, e.second}) {
        EXPECT_EQ(std::memcmp(&m->getVertices()[map(v)], &input.getVertices()[v], 12), 0);
      }
    }
  }
  EXPECT_TRUE(std::isnan(sphere.getVertices()[maps[0](200)].x));
}
}  // namespace
