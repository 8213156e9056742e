// Conformal flattening of a bumpy hemisphere of about 100k triangles. With
// peers, CGAL's LSCM parameterizer lays out the same mesh in the same run;
// both layouts are measured the same way (flipped triangles, mean angle
// distortion in degrees), as counters.
#include <kxgeom/reparameterize.h>

#include <vector>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/measure.h>
#include <CGAL/Polygon_mesh_processing/polygon_soup_to_polygon_mesh.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/Surface_mesh_parameterization/LSCM_parameterizer_3.h>
#include <CGAL/Surface_mesh_parameterization/parameterize.h>
#endif

namespace {

using kxGeom::CompactMesh;

// The northern half of the noisy sphere, open at the equator.
const CompactMesh& hemisphere() {
  static const CompactMesh half = [] {
    const CompactMesh sphere = kxbench::makeDenseSphere(200000);
    std::vector<int> kept;
    for (int t = 0; t < sphere.getNumTriangles(); ++t) {
      const int* x = sphere.getTrianglesRaw() + 3 * t;
      bool north = true;
      for (int k = 0; k < 3; ++k) north = north && sphere.getVertices()[x[k]].z >= -1e-6f;
      if (north) kept.insert(kept.end(), x, x + 3);
    }
    // Only the vertices the kept triangles use, renumbered.
    std::vector<int> index(std::size_t(sphere.getNumVertices()), -1);
    std::vector<kxGeom::MeshVertex> v;
    for (int& c : kept) {
      if (index[c] < 0) {
        index[c] = int(v.size());
        v.push_back(sphere.getVertices()[c]);
      }
      c = index[c];
    }
    CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
    m.copyTriangles(int(kept.size() / 3), kept.data());
    return m;
  }();
  return half;
}

void report(benchmark::State& state, const CompactMesh& laidOut) {
  const kxGeom::UVLayoutQuality q = kxGeom::meshUVLayoutQuality(laidOut);
  state.counters["triangles"] = laidOut.getNumTriangles();
  state.counters["flipped"] = q.flipped;
  state.counters["mean_angle_err_deg"] = q.meanAngleError * 57.29577951308232;
}

void BM_Flatten(benchmark::State& state) {
  const auto work = [](CompactMesh& m) {
    kxOS::AppOutput::getInstance().setSink([](kxOS::AppOutput::Level, const char*) {});
    benchmark::DoNotOptimize(kxGeom::reparameterizeMesh(m).flatten());
    kxOS::AppOutput::getInstance().setSink(nullptr);
  };
  kxbench::timeIterations(
      state, "reparameterizeMesh", [] { return hemisphere(); }, work);
  CompactMesh laidOut = hemisphere();
  work(laidOut);
  report(state, laidOut);
}
BENCHMARK(BM_Flatten)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

#ifdef KXGEOM_BENCH_PEERS
using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
using SurfaceMesh = CGAL::Surface_mesh<Kernel::Point_3>;
namespace SMP = CGAL::Surface_mesh_parameterization;

void BM_CgalLSCM(benchmark::State& state) {
  std::vector<Kernel::Point_3> points;
  std::vector<std::array<std::size_t, 3>> polygons;
  const CompactMesh& m = hemisphere();
  for (int v = 0; v < m.getNumVertices(); ++v) {
    points.emplace_back(m.getVertices()[v].x, m.getVertices()[v].y, m.getVertices()[v].z);
  }
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const int* x = m.getTrianglesRaw() + 3 * t;
    polygons.push_back({std::size_t(x[0]), std::size_t(x[1]), std::size_t(x[2])});
  }
  SurfaceMesh base;
  CGAL::Polygon_mesh_processing::polygon_soup_to_polygon_mesh(points, polygons, base);
  const auto work = [](SurfaceMesh& sm) {
    auto uv = sm.add_property_map<SurfaceMesh::Vertex_index, Kernel::Point_2>("v:uv").first;
    const auto border = CGAL::Polygon_mesh_processing::longest_border(sm).first;
    SMP::parameterize(sm, SMP::LSCM_parameterizer_3<SurfaceMesh>(), border, uv);
  };
  kxbench::timeIterations(
      state, "CGAL LSCM", [&] { return base; }, work);
  SurfaceMesh laid = base;
  work(laid);
  const auto uv = laid.property_map<SurfaceMesh::Vertex_index, Kernel::Point_2>("v:uv").first;
  CompactMesh copy = m;  // soup order keeps the vertex numbers
  kxGeom::MeshUV* uvs = copy.allocUVArray();
  for (SurfaceMesh::Vertex_index v : laid.vertices()) {
    uvs[v.idx()] = {float(uv[v].x()), float(uv[v].y())};
  }
  report(state, copy);
}
BENCHMARK(BM_CgalLSCM)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
#endif

}  // namespace

int main(int argc, char** argv) {
  return kxbench::runAndPrintRatios(argc, argv, {{"CGAL LSCM", "reparameterizeMesh"}});
}
