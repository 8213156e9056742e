// Deviation between a noisy sphere of about 1M triangles and a copy smoothed
// by one Laplacian pass: from the vertices only, and from the vertices plus
// one sample per triangle. With peers, CGAL's
// Polygon_mesh_processing::approximate_Hausdorff_distance measures the same
// pair in the same run from the same number of points (the vertices, and as
// many random face samples as the library's lattice gives), its AABB tree
// built inside the call as the library's octree is.
#include <kxgeom/adjacency.h>
#include <kxgeom/closest_point.h>
#include <kxgeom/deviation.h>
#include <kxgeom/smoothing.h>

#include <cstdio>

#include "support/bench_meshes.h"
#include "support/peer_mesh.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/distance.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using kxGeom::CompactMesh;

const CompactMesh& noisy() {
  static const CompactMesh mesh = kxbench::makeDenseSphere(1000000);
  return mesh;
}

const CompactMesh& smoothed() {
  static const CompactMesh mesh = [] {
    CompactMesh m = noisy();
    kxGeom::MeshAdjTris adjTris;
    kxGeom::MeshAdjVertices adjVertices;
    kxGeom::meshAdjTris(m, adjTris);
    kxGeom::meshAdjVertices(m, adjTris, adjVertices);
    m.getSelectedVertices().resize(m.getNumVertices());
    m.getSelectedVertices().setAllBits();
    kxUtil::Progress progress;
    kxGeom::meshSmoothLaplacian(m, adjVertices, progress);
    return m;
  }();
  return mesh;
}

// The spacing that gives every triangle of the noisy sphere one sample.
kxGeom::MeshDeviationOptions oneSamplePerTriangle() {
  return {kxGeom::meshLongestEdge(noisy()) * 1.0001};
}

kxGeom::MeshDeviation deviation(const kxGeom::MeshDeviationOptions& options) {
  kxGeom::MeshDeviation result;
  kxUtil::Progress progress;
  kxGeom::meshDeviation(noisy(), smoothed(), options, result, progress);
  return result;
}

void report(const char* name, double maximum, long long points) {
  std::fprintf(stderr, "%s: maximum %.6g from %lld points\n", name, maximum, points);
}

void BM_Deviation(benchmark::State& state, bool sampled) {
  smoothed();
  const kxGeom::MeshDeviationOptions options =
      sampled ? oneSamplePerTriangle() : kxGeom::MeshDeviationOptions();
  kxGeom::MeshDeviation result;
  kxbench::timeIterations(
      state, sampled ? "meshDeviation sampled" : "meshDeviation vertices", [] { return 0; },
      [&](int) { result = deviation(options); });
  report(sampled ? "meshDeviation sampled" : "meshDeviation vertices", result.maximum,
         static_cast<long long>(result.points));
}

BENCHMARK_CAPTURE(BM_Deviation, vertices, false)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Deviation, sampled, true)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

#ifdef KXGEOM_BENCH_PEERS
using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
using SurfaceMesh = CGAL::Surface_mesh<Kernel::Point_3>;
namespace PMP = CGAL::Polygon_mesh_processing;

SurfaceMesh surfaceOf(const CompactMesh& m) { return kxbench::toPeerMesh<SurfaceMesh>(m); }

void BM_CgalHausdorff(benchmark::State& state, bool sampled) {
  const SurfaceMesh a = surfaceOf(noisy()), b = surfaceOf(smoothed());
  // As many face samples as the library measures beyond the vertices.
  const std::size_t faceSamples =
      sampled ? std::size_t(deviation(oneSamplePerTriangle()).points - noisy().getNumVertices())
              : 0;
  double maximum = 0;
  kxbench::timeIterations(
      state, sampled ? "CGAL approximate_Hausdorff sampled" : "CGAL approximate_Hausdorff vertices",
      [] { return 0; },
      [&](int) {
        maximum = PMP::approximate_Hausdorff_distance<CGAL::Sequential_tag>(
            a, b,
            CGAL::parameters::do_sample_vertices(true)
                .do_sample_edges(false)
                .do_sample_faces(sampled)
                .number_of_points_on_faces(faceSamples)
                .random_seed(1));
      });
  report(sampled ? "CGAL sampled" : "CGAL vertices", maximum,
         static_cast<long long>(noisy().getNumVertices() + faceSamples));
}

BENCHMARK_CAPTURE(BM_CgalHausdorff, vertices, false)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);
BENCHMARK_CAPTURE(BM_CgalHausdorff, sampled, true)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
#endif

}  // namespace

int main(int argc, char** argv) {
  return kxbench::runAndPrintRatios(
      argc, argv,
      {{"CGAL approximate_Hausdorff vertices", "meshDeviation vertices"},
       {"CGAL approximate_Hausdorff sampled", "meshDeviation sampled"}});
}
