// Welding a triangle soup (three vertices per triangle) of the benchmark
// model (the armadillo refined twice, 2.5M soup vertices; three times, 10M,
// with KXGEOM_BENCH_S3 set; see support/off_mesh.h): meshCompact on the shared pool and on one
// thread, a plain one-thread std::sort + scan, and (with peers) CGAL's soup point merging and
// meshoptimizer's hash-based vertex remap.
#include <kxgeom/weld.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "support/off_mesh.h"
#include "support/peak_memory.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Polygon_mesh_processing/repair_polygon_soup.h>
#include <CGAL/Simple_cartesian.h>
#endif
#ifdef KXGEOM_BENCH_MESHOPTIMIZER
#include <meshoptimizer.h>
#endif

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshVertex;

const CompactMesh& soup() {
  static const CompactMesh mesh = [] {
    const CompactMesh& sphere = kxbench::benchModelOrFiner();
    const int m = sphere.getNumTriangles();
    std::vector<MeshVertex> v(3 * std::size_t(m));
    std::vector<int> t(3 * std::size_t(m));
    for (int i = 0; i < 3 * m; ++i) {
      v[i] = sphere.getVertices()[sphere.getTrianglesRaw()[i]];
      t[i] = i;
    }
    CompactMesh out(3 * m, v.data(), nullptr, nullptr, nullptr);
    out.copyTriangles(m, t.data());
    return out;
  }();
  return mesh;
}

void weldWithThreads(benchmark::State& state, int threads, const char* variant) {
  const int original = kxUtil::ThreadPool::get().numThreads();
  if (threads > 0) kxUtil::ThreadPool::setNumThreads(threads);
  kxbench::timeIterations(
      state, variant, [] { return soup(); },
      [](CompactMesh& mesh) {
        kxUtil::Progress progress;
        kxGeom::Remap remap;
        kxGeom::meshCompact(mesh, progress, remap);
        benchmark::DoNotOptimize(mesh.getNumVertices());
      });
  kxUtil::ThreadPool::setNumThreads(original);
  state.counters["vertices"] = soup().getNumVertices();
}

void BM_MeshCompact(benchmark::State& state) { weldWithThreads(state, 0, "meshCompact"); }
void BM_MeshCompactOneThread(benchmark::State& state) {
  weldWithThreads(state, 1, "meshCompact 1 thread");
}

struct Soup {
  std::vector<MeshVertex> vertices;
  std::vector<int> triangles;
};

// The textbook weld: sort indices by position, scan, gather, renumber.
void BM_SortAndScan(benchmark::State& state) {
  kxbench::timeIterations(
      state, "std::sort + scan",
      [] {
        const CompactMesh& s = soup();
        return Soup{{s.getVertices(), s.getVertices() + s.getNumVertices()},
                    {s.getTrianglesRaw(), s.getTrianglesRaw() + 3 * s.getNumTriangles()}};
      },
      [](Soup& in) {
        const int n = int(in.vertices.size());
        std::vector<int> order(n), map(n);
        std::iota(order.begin(), order.end(), 0);
        const MeshVertex* v = in.vertices.data();
        auto key = [v](int i) { return std::array<float, 3>{v[i].x, v[i].y, v[i].z}; };
        std::sort(order.begin(), order.end(), [&](int a, int b) { return key(a) < key(b); });
        std::vector<MeshVertex> out;
        for (int i = 0; i < n; ++i) {
          if (i == 0 || key(order[i]) != key(order[i - 1])) out.push_back(v[order[i]]);
          map[order[i]] = int(out.size()) - 1;
        }
        for (int& c : in.triangles) c = map[c];
        benchmark::DoNotOptimize(out.data());
      });
}

BENCHMARK(BM_MeshCompact)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshCompactOneThread)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SortAndScan)->UseManualTime()->Iterations(4)->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS
using CgalPoint = CGAL::Simple_cartesian<double>::Point_3;
struct CgalSoup {
  std::vector<CgalPoint> points;
  std::vector<std::array<std::size_t, 3>> polygons;
};

void BM_CgalMergeDuplicatePoints(benchmark::State& state) {
  kxbench::timeIterations(
      state, "CGAL merge_duplicate_points",
      [] {
        const CompactMesh& s = soup();
        CgalSoup in;
        in.points.reserve(s.getNumVertices());
        for (int i = 0; i < s.getNumVertices(); ++i) {
          const MeshVertex& p = s.getVertices()[i];
          in.points.emplace_back(p.x, p.y, p.z);
        }
        for (int t = 0; t < s.getNumTriangles(); ++t) {
          const kxGeom::MeshTriangle& tri = s.getTriangles()[t];
          in.polygons.push_back({std::size_t(tri[0]), std::size_t(tri[1]), std::size_t(tri[2])});
        }
        return in;
      },
      [](CgalSoup& in) {
        benchmark::DoNotOptimize(
            CGAL::Polygon_mesh_processing::merge_duplicate_points_in_polygon_soup(in.points,
                                                                                  in.polygons));
      });
}
BENCHMARK(BM_CgalMergeDuplicatePoints)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
#endif

#ifdef KXGEOM_BENCH_MESHOPTIMIZER
// meshoptimizer's hash-based remap of the unindexed soup plus the remapped
// vertex array: the same output as a weld, in first-seen order.
void BM_MeshoptRemap(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshopt remap", [] { return soup(); },
      [](const CompactMesh& s) {
        const std::size_t n = std::size_t(s.getNumVertices());
        std::vector<unsigned> remap(n);
        const std::size_t unique = meshopt_generateVertexRemap(
            remap.data(), nullptr, n, s.getVertices(), n, sizeof(MeshVertex));
        std::vector<MeshVertex> out(unique);
        meshopt_remapVertexBuffer(out.data(), s.getVertices(), n, sizeof(MeshVertex), remap.data());
        benchmark::DoNotOptimize(out.data());
      });
}
BENCHMARK(BM_MeshoptRemap)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char** argv) {
  std::printf("model: %s%s, soup of %d vertices\n", kxbench::benchModel().name.c_str(),
              std::getenv("KXGEOM_BENCH_S3") ? " and once more" : "", soup().getNumVertices());
  kxbench::printPeakMemory(
      "the weld with its remap", soup(), [] { return soup(); },
      [](CompactMesh& mesh) {
        kxUtil::Progress progress;
        kxGeom::Remap remap;
        kxGeom::meshCompact(mesh, progress, remap);
        return remap;
      });
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"CGAL merge_duplicate_points", "meshCompact"},
                                     {"std::sort + scan", "meshCompact"},
                                     {"meshCompact 1 thread", "meshCompact"},
                                     {"CGAL merge_duplicate_points", "meshCompact 1 thread"},
                                     {"meshopt remap", "meshCompact 1 thread"},
                                     {"meshopt remap", "meshCompact"}});
}
