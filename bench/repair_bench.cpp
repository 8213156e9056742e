// Diagnosis and repair of a dense sphere of about 1M triangles with injected
// defects (repeated and degenerate triangles, fins on edges, flipped
// patches), and self-intersection of a 100k-triangle sphere with a dent
// pushed through it. With peers, CGAL's polygon-mesh-processing counterparts
// run on the same inputs in the same run: orient_polygon_soup,
// is_polygon_soup_a_polygon_mesh, remove_degenerate_faces,
// duplicate_non_manifold_vertices and does_self_intersect.
#include <kxgeom/adjacency.h>
#include <kxgeom/mesh_intersect.h>
#include <kxgeom/octree_query.h>
#include <kxgeom/repair.h>

#include <array>
#include <vector>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/manifoldness.h>
#include <CGAL/Polygon_mesh_processing/orient_polygon_soup.h>
#include <CGAL/Polygon_mesh_processing/polygon_soup_to_polygon_mesh.h>
#include <CGAL/Polygon_mesh_processing/repair_degeneracies.h>
#include <CGAL/Polygon_mesh_processing/self_intersections.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using kxGeom::CompactMesh;

// The sphere with defects: every 997th triangle repeated reversed, every
// 1009th followed by a degenerate copy, fins on every 4001st edge, and a
// flipped triangle every 211.
const CompactMesh& broken() {
  static const CompactMesh mesh = [] {
    CompactMesh sphere = kxbench::makeDenseSphere(1000000);
    const int m = sphere.getNumTriangles();
    std::vector<kxGeom::MeshVertex> v(sphere.getVertices(),
                                      sphere.getVertices() + sphere.getNumVertices());
    std::vector<int> c;
    for (int t = 0; t < m; ++t) {
      const int* x = sphere.getTrianglesRaw() + 3 * t;
      if (t % 211 == 0) {
        c.insert(c.end(), {x[0], x[2], x[1]});
      } else {
        c.insert(c.end(), {x[0], x[1], x[2]});
      }
      if (t % 997 == 0) c.insert(c.end(), {x[2], x[1], x[0]});
      if (t % 1009 == 0) c.insert(c.end(), {x[0], x[0], x[1]});
      if (t % 4001 == 0) {
        v.push_back({v[x[0]].x * 1.01f, v[x[0]].y * 1.01f, v[x[0]].z * 1.01f});
        c.insert(c.end(), {x[0], x[1], int(v.size()) - 1});
      }
    }
    CompactMesh out(int(v.size()), v.data(), nullptr, nullptr, nullptr);
    out.copyTriangles(int(c.size() / 3), c.data());
    return out;
  }();
  return mesh;
}

// A 100k-triangle sphere with a patch pushed through the far side.
const CompactMesh& dented() {
  static const CompactMesh mesh = [] {
    CompactMesh m = kxbench::makeDenseSphere(100000);
    for (int v = 0; v < m.getNumVertices(); ++v) {
      kxGeom::MeshVertex& p = m.getVertices()[v];
      if (p.z > 0.8f) p.z -= 1.9f;
    }
    return m;
  }();
  return mesh;
}

const kxGeom::MeshAdjTris& brokenAdjacency() {
  static const kxGeom::MeshAdjTris adj = [] {
    kxGeom::MeshAdjTris a;
    kxGeom::meshAdjTris(broken(), a);
    return a;
  }();
  return adj;
}

void BM_DuplicateTris(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshDuplicateTris", [] { return 0; },
      [](int) {
        kxGeom::MeshDuplicateTrisResult r;
        benchmark::DoNotOptimize(kxGeom::meshDuplicateTris(broken(), r));
      });
}

void BM_Manifold(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshManifold", [] { return 0; },
      [](int) {
        kxGeom::MeshManifoldResult r;
        kxGeom::meshManifold(broken(), brokenAdjacency(), r);
        benchmark::DoNotOptimize(r.badEdges.size());
      });
}

// The clean sphere: tests that pass read the whole mesh.
const CompactMesh& clean() {
  static const CompactMesh mesh = kxbench::makeDenseSphere(1000000);
  return mesh;
}

void BM_Oriented(benchmark::State& state) {
  kxGeom::MeshAdjTris adj;
  kxGeom::meshAdjTris(clean(), adj);
  kxbench::timeIterations(
      state, "meshOriented", [] { return 0; },
      [&](int) { benchmark::DoNotOptimize(kxGeom::meshOriented(clean(), adj)); });
}

void BM_ManifoldClean(benchmark::State& state) {
  kxGeom::MeshAdjTris adj;
  kxGeom::meshAdjTris(clean(), adj);
  kxbench::timeIterations(
      state, "meshManifold clean", [] { return 0; },
      [&](int) {
        kxGeom::MeshManifoldResult r;
        kxGeom::meshManifold(clean(), adj, r);
        benchmark::DoNotOptimize(r.badEdges.size());
      });
}

void BM_SelfIntersectClean(benchmark::State& state) {
  static const CompactMesh sphere = kxbench::makeDenseSphere(100000);
  kxbench::timeIterations(
      state, "selfIntersect clean", [] { return 0; },
      [&](int) {
        kxGeom::SimpleMeshCache cache(sphere);
        kx::vector<std::pair<int, int>> pairs;
        kxGeom::MeshIntersect::selfIntersect(sphere, cache.getOctree(), cache.getOctreeTris(),
                                             pairs);
        benchmark::DoNotOptimize(pairs.size());
      });
}

// Orientation of the defect-free part (after the repairs that precede it).
const CompactMesh& flippedOnly() {
  static const CompactMesh mesh = [] {
    CompactMesh m = kxbench::makeDenseSphere(1000000);
    for (int t = 0; t < m.getNumTriangles(); t += 211)
      std::swap(m.getTriangles()[t][1], m.getTriangles()[t][2]);
    return m;
  }();
  return mesh;
}

void BM_MakeOriented(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshMakeOriented", [] { return flippedOnly(); },
      [](CompactMesh& m) {
        kxGeom::MeshAdjTris adj;
        kxGeom::meshAdjTris(m, adj);
        benchmark::DoNotOptimize(kxGeom::meshMakeOriented(m, adj));
      });
}

void BM_RepairAll(benchmark::State& state) {
  kxbench::timeIterations(
      state, "repairAll", [] { return broken(); },
      [](CompactMesh& m) {
        kxGeom::MeshRepair repair(m);
        bool clean = false;
        repair.repairAll(&clean);
        benchmark::DoNotOptimize(clean);
      });
}

void BM_SelfIntersect(benchmark::State& state) {
  kxbench::timeIterations(
      state, "selfIntersect", [] { return 0; },
      [](int) {
        kxGeom::SimpleMeshCache cache(dented());
        kx::vector<std::pair<int, int>> pairs;
        kxGeom::MeshIntersect::selfIntersect(dented(), cache.getOctree(), cache.getOctreeTris(),
                                             pairs);
        benchmark::DoNotOptimize(pairs.size());
      });
}

BENCHMARK(BM_DuplicateTris)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Manifold)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Oriented)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_MakeOriented)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_RepairAll)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SelfIntersect)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ManifoldClean)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_SelfIntersectClean)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

#ifdef KXGEOM_BENCH_PEERS
using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
using Point = Kernel::Point_3;
using SurfaceMesh = CGAL::Surface_mesh<Point>;
namespace PMP = CGAL::Polygon_mesh_processing;

struct Soup {
  std::vector<Point> points;
  std::vector<std::array<std::size_t, 3>> polygons;
};

Soup soupOf(const CompactMesh& m) {
  Soup s;
  for (int v = 0; v < m.getNumVertices(); ++v) {
    const kxGeom::MeshVertex& p = m.getVertices()[v];
    s.points.emplace_back(p.x, p.y, p.z);
  }
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const int* x = m.getTrianglesRaw() + 3 * t;
    s.polygons.push_back({std::size_t(x[0]), std::size_t(x[1]), std::size_t(x[2])});
  }
  return s;
}

SurfaceMesh surfaceOf(const CompactMesh& m) {
  Soup s = soupOf(m);
  SurfaceMesh sm;
  PMP::polygon_soup_to_polygon_mesh(s.points, s.polygons, sm);
  return sm;
}

void BM_CgalIsSoupAMesh(benchmark::State& state) {
  const Soup s = soupOf(clean());
  kxbench::timeIterations(
      state, "CGAL is_polygon_soup_a_polygon_mesh", [] { return 0; },
      [&](int) { benchmark::DoNotOptimize(PMP::is_polygon_soup_a_polygon_mesh(s.polygons)); });
}

void BM_CgalOrientSoup(benchmark::State& state) {
  kxbench::timeIterations(
      state, "CGAL orient_polygon_soup", [] { return soupOf(flippedOnly()); },
      [](Soup& s) { benchmark::DoNotOptimize(PMP::orient_polygon_soup(s.points, s.polygons)); });
}

void BM_CgalRemoveDegenerate(benchmark::State& state) {
  // The surface mesh of the clean sphere with degenerate faces only (the
  // soup's repeats and fins cannot be a surface mesh).
  static const CompactMesh degenerate = [] {
    CompactMesh m = kxbench::makeDenseSphere(1000000);
    for (int t = 0; t < m.getNumTriangles(); t += 1009)
      m.getVertices()[m.getTriangles()[t][1]] = m.getVertices()[m.getTriangles()[t][0]];
    return m;
  }();
  kxbench::timeIterations(
      state, "CGAL remove_degenerate_faces", [] { return surfaceOf(degenerate); },
      [](SurfaceMesh& sm) { benchmark::DoNotOptimize(PMP::remove_degenerate_faces(sm)); });
}

void BM_CgalDuplicateNonManifold(benchmark::State& state) {
  kxbench::timeIterations(
      state, "CGAL duplicate_non_manifold_vertices", [] { return surfaceOf(flippedOnly()); },
      [](SurfaceMesh& sm) { benchmark::DoNotOptimize(PMP::duplicate_non_manifold_vertices(sm)); });
}

void BM_CgalSelfIntersections(benchmark::State& state) {
  const SurfaceMesh sm = surfaceOf(dented());
  kxbench::timeIterations(
      state, "CGAL self_intersections", [] { return 0; },
      [&](int) {
        std::vector<std::pair<SurfaceMesh::Face_index, SurfaceMesh::Face_index>> pairs;
        PMP::self_intersections(sm, std::back_inserter(pairs));
        benchmark::DoNotOptimize(pairs.size());
      });
}

void BM_CgalDoesSelfIntersectClean(benchmark::State& state) {
  const SurfaceMesh sm = surfaceOf(kxbench::makeDenseSphere(100000));
  kxbench::timeIterations(
      state, "CGAL does_self_intersect clean", [] { return 0; },
      [&](int) { benchmark::DoNotOptimize(PMP::does_self_intersect(sm)); });
}

BENCHMARK(BM_CgalIsSoupAMesh)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_CgalOrientSoup)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CgalRemoveDegenerate)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CgalDuplicateNonManifold)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_CgalSelfIntersections)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CgalDoesSelfIntersectClean)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
#endif

}  // namespace

int main(int argc, char** argv) {
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"CGAL is_polygon_soup_a_polygon_mesh", "meshManifold clean"},
                                     {"CGAL is_polygon_soup_a_polygon_mesh", "meshOriented"},
                                     {"CGAL orient_polygon_soup", "meshMakeOriented"},
                                     {"CGAL remove_degenerate_faces", "meshDuplicateTris"},
                                     {"CGAL duplicate_non_manifold_vertices", "meshManifold clean"},
                                     {"CGAL self_intersections", "selfIntersect"},
                                     {"CGAL does_self_intersect clean", "selfIntersect clean"}});
}
