#include <kxgeom/reduce.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshReduceOptions;
using kxGeom::MeshReduceResult;
using kxGeom::MeshReduceStatus;
using kxLinear::Point;
using kxLinear::Vector;

const double kPi = 3.14159265358979323846;

/// A closed torus (major radius 1, minor 0.35), outward winding, each
/// vertex's tube radius perturbed by up to `noise`.
CompactMesh makeTorus(int nu, int nv, float noise) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> jitter(-noise, noise);
  std::vector<kxGeom::MeshVertex> v;
  std::vector<int> t;
  for (int i = 0; i < nu; ++i) {
    for (int j = 0; j < nv; ++j) {
      const double u = 2 * kPi * i / nu, w = 2 * kPi * j / nv, r = 0.35 + jitter(rng);
      v.push_back({float((1 + r * std::cos(w)) * std::cos(u)),
                   float((1 + r * std::cos(w)) * std::sin(u)), float(r * std::sin(w))});
      const int a = i * nv + j, b = ((i + 1) % nu) * nv + j, c = i * nv + (j + 1) % nv,
                d = ((i + 1) % nu) * nv + (j + 1) % nv;
      t.insert(t.end(), {a, b, d, a, d, c});
    }
  }
  CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

Point corner(const CompactMesh& m, int t, int k) {
  return m.getVertices()[m.getTriangles()[t][k]].asPoint();
}
Vector normalOf(const CompactMesh& m, int t) {
  return kxLinear::cross(corner(m, t, 1) - corner(m, t, 0), corner(m, t, 2) - corner(m, t, 0));
}

/// Every directed edge run once, every triangle with three distinct corners,
/// no two triangles on one vertex set, every vertex one fan (the library's
/// check); returns V - E + F.
int checkManifoldOriented(const CompactMesh& m) {
  std::map<std::pair<int, int>, int> directed;
  std::set<std::set<int>> vertexSets;
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& c = m.getTriangles()[t];
    const std::set<int> corners = {c[0], c[1], c[2]};
    EXPECT_EQ(corners.size(), 3u) << t;
    EXPECT_TRUE(vertexSets.insert(corners).second) << "duplicate triangle " << t;
    for (int k = 0; k < 3; ++k) EXPECT_EQ(++directed[std::make_pair(c[k], c[(k + 1) % 3])], 1);
  }
  std::set<std::pair<int, int>> edges;
  for (const auto& d : directed) edges.insert(std::minmax(d.first.first, d.first.second));
  kxGeom::MeshAdjTris adjacency;
  kxGeom::meshAdjTris(m, adjacency);
  kxGeom::MeshManifoldResult manifold;
  kxGeom::meshManifold(m, adjacency, manifold);
  EXPECT_TRUE(manifold.isClean());
  return m.getNumVertices() - int(edges.size()) + m.getNumTriangles();
}

/// Largest distance from a vertex of `from` to the surface of `to`, by
/// brute force over all triangles.
double oneSidedHausdorff(const CompactMesh& from, const CompactMesh& to) {
  double worst = 0;
  for (int v = 0; v < from.getNumVertices(); ++v) {
    const Point p = from.getVertices()[v].asPoint();
    double best = 1e300;
    for (int t = 0; t < to.getNumTriangles(); ++t) {
      const kxGeom::MeshCoord c =
          kxGeom::meshTriClosestPt(to.getVerticesRaw(), to.getTrianglesRaw(), t, p);
      best = std::min(best, (c.evaluate(to.getVertices(), to.getTriangles()) - p).length());
    }
    worst = std::max(worst, best);
  }
  return worst;
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
      const Point g = (corner(c.mesh, t, 0) + corner(c.mesh, t, 1) + corner(c.mesh, t, 2)) / 3.0;
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
  for (double bound : {0.002, 0.01, 0.05}) {
    CompactMesh mesh = makeTorus(60, 24, 0.0f);
    const CompactMesh input = mesh;
    MeshReduceOptions o = toCount(0);
    o.maxError = bound;
    const MeshReduceResult r = reduce(mesh, o);
    EXPECT_EQ(r.stop, kxGeom::MeshReduceStop::ErrorBound);
    EXPECT_LE(r.maxError, bound);
    EXPECT_GT(r.maxError, 0.5 * bound);
    EXPECT_LT(mesh.getNumTriangles(), input.getNumTriangles() * 2 / 3);
    // The error is an area-weighted RMS of plane distances, so the farthest
    // input vertex may lie somewhat beyond it.
    EXPECT_LT(oneSidedHausdorff(input, mesh), 2 * bound);
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
}  // namespace
