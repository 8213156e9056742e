// Reduction of a noisy sphere of about 1M triangles to 10% of its triangles,
// with optimal and with endpoint placement. With peers, in the same run:
// CGAL's Surface_mesh_simplification::edge_collapse with the Garland-Heckbert
// plane policies (optimal placement), OpenMesh's Decimater with ModQuadric
// (halfedge collapses: endpoint placement) and meshoptimizer's
// meshopt_simplify (endpoint placement). Each row reports, as counters, the
// triangles left and the largest distance from an input vertex to the result
// (a one-sided Hausdorff distance, by the library's closest-point search).
// Inputs are copied or converted outside the timed region; each run times
// the whole reduction, peers' own setup of their quadrics included.
#include <kxgeom/closest_point.h>
#include <kxgeom/mesh_cache.h>
#include <kxgeom/reduce.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "support/bench_meshes.h"
#include "support/peer_mesh.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/Surface_mesh_simplification/Policies/Edge_collapse/Count_ratio_stop_predicate.h>
#include <CGAL/Surface_mesh_simplification/Policies/Edge_collapse/GarlandHeckbert_plane_policies.h>
#include <CGAL/Surface_mesh_simplification/edge_collapse.h>
#endif
#ifdef KXGEOM_BENCH_OPENMESH
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>
#include <OpenMesh/Tools/Decimater/DecimaterT.hh>
#include <OpenMesh/Tools/Decimater/ModQuadricT.hh>
#endif
#ifdef KXGEOM_BENCH_MESHOPTIMIZER
#include <meshoptimizer.h>
#endif

namespace {

using kxGeom::CompactMesh;

constexpr double kKeep = 0.1;

const CompactMesh& input() {
  static const CompactMesh mesh = kxbench::makeDenseSphere(1000000);
  return mesh;
}

int targetTriangles() { return int(input().getNumTriangles() * kKeep); }

#ifdef KXGEOM_BENCH_PEERS
/// A mesh from raw positions (three floats each) and triangle corners.
CompactMesh meshFrom(const std::vector<float>& positions, const std::vector<int>& corners) {
  CompactMesh m(int(positions.size() / 3),
                reinterpret_cast<const kxGeom::MeshVertex*>(positions.data()), nullptr, nullptr,
                nullptr);
  m.copyTriangles(int(corners.size() / 3), corners.data());
  return m;
}
#endif

/// Largest distance from a vertex of the input to the surface of `result`,
/// the queries split over the shared pool.
double hausdorffFromInput(const CompactMesh& result) {
  kxGeom::SimpleMeshCache cache(result);
  const kxGeom::Octree& octree = cache.getOctree();
  const kxGeom::OctreeTris& tris = cache.getOctreeTris();
  std::vector<double> worst(std::size_t(kxUtil::ThreadPool::get().numThreads()), 0.0);
  kxUtil::forEachRange(
      kxUtil::ThreadPool::get(), input().getNumVertices(), [&](int thread, int begin, int end) {
        kxGeom::MeshClosestPoint closest(result, octree, tris);
        for (int v = begin; v < end; ++v) {
          const double d = closest.compute(input().getVertices()[v].asPoint(), nullptr);
          worst[thread] = std::max(worst[thread], d);
        }
      });
  return *std::max_element(worst.begin(), worst.end());
}

/// Records the result's size and distance as counters and prints them.
void report(benchmark::State& state, const char* variant, const CompactMesh& result) {
  const double distance = hausdorffFromInput(result);
  state.counters["triangles"] = result.getNumTriangles();
  state.counters["hausdorff"] = distance;
  std::printf("%-28s %7d triangles, max distance of input vertices %.6f\n", variant,
              result.getNumTriangles(), distance);
}

void runKxgeom(benchmark::State& state, const char* variant,
               kxGeom::MeshReducePlacement placement) {
  kxGeom::MeshReduceOptions options;
  options.targetFraction = kKeep;
  options.placement = placement;
  CompactMesh result;
  kxbench::timeIterations(
      state, variant, [] { return input(); },
      [&](CompactMesh& mesh) {
        kxUtil::Progress progress;
        kxGeom::meshReduce(mesh, options, progress);
        result.swap(mesh);
      });
  report(state, variant, result);
}

void BM_KxgeomOptimal(benchmark::State& state) {
  runKxgeom(state, "kxgeom optimal", kxGeom::MeshReducePlacement::Optimal);
}
void BM_KxgeomEndpoint(benchmark::State& state) {
  runKxgeom(state, "kxgeom endpoint", kxGeom::MeshReducePlacement::Endpoint);
}
BENCHMARK(BM_KxgeomOptimal)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
BENCHMARK(BM_KxgeomEndpoint)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

#ifdef KXGEOM_BENCH_PEERS
using Kernel = CGAL::Simple_cartesian<double>;
using SurfaceMesh = CGAL::Surface_mesh<Kernel::Point_3>;

SurfaceMesh toSurfaceMesh() { return kxbench::toPeerMesh<SurfaceMesh>(input()); }

void BM_CgalGarlandHeckbert(benchmark::State& state) {
  namespace SMS = CGAL::Surface_mesh_simplification;
  std::vector<float> positions;
  std::vector<int> corners;
  kxbench::timeIterations(
      state, "CGAL edge_collapse GH", [] { return toSurfaceMesh(); },
      [&](SurfaceMesh& sm) {
        SMS::Count_ratio_stop_predicate<SurfaceMesh> stop(kKeep);
        SMS::GarlandHeckbert_plane_policies<SurfaceMesh, Kernel> policies(sm);
        SMS::edge_collapse(sm, stop,
                           CGAL::parameters::get_cost(policies.get_cost())
                               .get_placement(policies.get_placement()));
        sm.collect_garbage();
        positions.clear();
        corners.clear();
        for (auto v : sm.vertices()) {
          const Kernel::Point_3& p = sm.point(v);
          positions.insert(positions.end(), {float(p.x()), float(p.y()), float(p.z())});
        }
        for (auto f : sm.faces()) {
          for (auto v : CGAL::vertices_around_face(sm.halfedge(f), sm)) corners.push_back(int(v));
        }
      });
  report(state, "CGAL edge_collapse GH", meshFrom(positions, corners));
}
BENCHMARK(BM_CgalGarlandHeckbert)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
#endif

#ifdef KXGEOM_BENCH_OPENMESH
using OMesh = OpenMesh::TriMesh_ArrayKernelT<>;

OMesh toOpenMesh() { return kxbench::toPeerMesh<OMesh>(input()); }

void BM_OpenMeshDecimater(benchmark::State& state) {
  std::vector<float> positions;
  std::vector<int> corners;
  kxbench::timeIterations(
      state, "OpenMesh Decimater", [] { return toOpenMesh(); },
      [&](OMesh& om) {
        OpenMesh::Decimater::DecimaterT<OMesh> decimater(om);
        OpenMesh::Decimater::ModQuadricT<OMesh>::Handle quadric;
        decimater.add(quadric);
        decimater.module(quadric).unset_max_err();
        decimater.initialize();
        decimater.decimate_to_faces(0, targetTriangles());
        om.garbage_collection();
        positions.clear();
        corners.clear();
        for (auto v : om.vertices()) {
          const OMesh::Point& p = om.point(v);
          positions.insert(positions.end(), {p[0], p[1], p[2]});
        }
        for (auto f : om.faces()) {
          for (auto v : om.fv_range(f)) corners.push_back(v.idx());
        }
      });
  report(state, "OpenMesh Decimater", meshFrom(positions, corners));
}
BENCHMARK(BM_OpenMeshDecimater)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
#endif

#ifdef KXGEOM_BENCH_MESHOPTIMIZER
void BM_MeshoptSimplify(benchmark::State& state) {
  const std::vector<unsigned> indices(
      reinterpret_cast<const unsigned*>(input().getTrianglesRaw()),
      reinterpret_cast<const unsigned*>(input().getTrianglesRaw()) + 3 * input().getNumTriangles());
  std::vector<unsigned> out(indices.size());
  std::size_t count = 0;
  kxbench::timeIterations(
      state, "meshopt_simplify", [] { return 0; },
      [&](int) {
        count = meshopt_simplify(out.data(), indices.data(), indices.size(),
                                 input().getVerticesRaw(), input().getNumVertices(), 12,
                                 3 * std::size_t(targetTriangles()), 1.0f, 0, nullptr);
      });
  const std::vector<float> positions(input().getVerticesRaw(),
                                     input().getVerticesRaw() + 3 * input().getNumVertices());
  report(state, "meshopt_simplify",
         meshFrom(positions, std::vector<int>(out.begin(), out.begin() + count)));
}

BENCHMARK(BM_MeshoptSimplify)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
#endif

}  // namespace

int main(int argc, char** argv) {
  std::printf("Input: %d triangles, %d vertices, reduced to %d triangles; %d threads\n",
              input().getNumTriangles(), input().getNumVertices(), targetTriangles(),
              kxUtil::ThreadPool::get().numThreads());
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"CGAL edge_collapse GH", "kxgeom optimal"},
                                     {"OpenMesh Decimater", "kxgeom endpoint"},
                                     {"kxgeom optimal", "meshopt_simplify"},
                                     {"kxgeom endpoint", "meshopt_simplify"}});
}
