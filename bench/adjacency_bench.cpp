// Adjacency table builds on the armadillo refined twice (832k triangles; three
// times with KXGEOM_BENCH_S3 set), measured
// against two yardsticks in the same run: a plain copy of the triangle array
// (the memory-bandwidth floor) and, with KXGEOM_BENCH_PEERS, building an
// OpenMesh half-edge TriMesh from the same vertices and index array. A summary
// of the ratios is printed after the Google Benchmark table.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/bench_meshes.h"
#include "support/off_mesh.h"
#include "support/peak_memory.h"

#ifdef KXGEOM_BENCH_PEERS
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>
#endif
#ifdef KXGEOM_BENCH_CGAL
#include <CGAL/Polygon_mesh_processing/polygon_soup_to_polygon_mesh.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using namespace kxGeom;

// The armadillo refined twice (the noisy sphere when the data is missing);
// with KXGEOM_BENCH_S3 set, refined once more.
const CompactMesh& sphere() { return kxbench::benchModelOrFiner(); }

const MeshAdjTris& sphereAdjTris() {
  static const MeshAdjTris adj = [] {
    MeshAdjTris a;
    meshAdjTris(sphere(), a);
    return a;
  }();
  return adj;
}

// Allocation included: every table build below allocates its result afresh.
void BM_CopyTriangles(benchmark::State& state) {
  const int* raw = sphere().getTrianglesRaw();
  const std::size_t count = 3 * std::size_t(sphere().getNumTriangles());
  for (auto _ : state) {
    kx::vector<int> copy(raw, raw + count);
    benchmark::DoNotOptimize(copy.data());
  }
}

void BM_MeshAdjTris(benchmark::State& state) {
  for (auto _ : state) {
    MeshAdjTris adj;
    meshAdjTris(sphere(), adj);
    benchmark::DoNotOptimize(adj.triIndices(0));
  }
}

void BM_MeshAdjVertices(benchmark::State& state) {
  const MeshAdjTris& adj = sphereAdjTris();
  for (auto _ : state) {
    MeshAdjVertices adjV;
    meshAdjVertices(sphere(), adj, adjV);
    benchmark::DoNotOptimize(adjV.adjVertices(0));
  }
}

void BM_MeshTriAdjTris(benchmark::State& state) {
  for (auto _ : state) {
    MeshTriAdjTris triAdj;
    meshTriAdjTris(sphere(), triAdj);
    benchmark::DoNotOptimize(triAdj.triIndices(0));
  }
}

#ifdef KXGEOM_BENCH_PEERS
void BM_OpenMeshBuild(benchmark::State& state) {
  using OMesh = OpenMesh::TriMesh_ArrayKernelT<>;
  const CompactMesh& mesh = sphere();
  const int n = mesh.getNumVertices(), m = mesh.getNumTriangles();
  std::vector<OMesh::VertexHandle> handles(static_cast<std::size_t>(n));
  for (auto _ : state) {
    OMesh om;
    om.reserve(n, 3 * std::size_t(m) / 2, m);
    for (int v = 0; v < n; ++v) {
      const MeshVertex& p = mesh.getVertices()[v];
      handles[v] = om.add_vertex(OMesh::Point(p.x, p.y, p.z));
    }
    for (int t = 0; t < m; ++t) {
      const MeshTriangle& tri = mesh.getTriangles()[t];
      om.add_face(handles[tri[0]], handles[tri[1]], handles[tri[2]]);
    }
    benchmark::DoNotOptimize(om.n_faces());
  }
}
BENCHMARK(BM_OpenMeshBuild)->Unit(benchmark::kMillisecond)->MinTime(1.0);
#endif

// The three tables a caller asking for full adjacency builds.
void BM_AllThreeTables(benchmark::State& state) {
  for (auto _ : state) {
    MeshAdjTris adj;
    meshAdjTris(sphere(), adj);
    MeshAdjVertices adjV;
    meshAdjVertices(sphere(), adj, adjV);
    MeshTriAdjTris triAdj;
    meshTriAdjTris(sphere(), triAdj);
    benchmark::DoNotOptimize(triAdj.triIndices(0));
  }
}

// The textbook vertex-to-triangles build: count, prefix sum, fill.
void BM_CountingSortBaseline(benchmark::State& state) {
  const int n = sphere().getNumVertices(), m = sphere().getNumTriangles();
  const int* corners = sphere().getTrianglesRaw();
  for (auto _ : state) {
    std::unique_ptr<int[]> start(new int[std::size_t(n) + 1]());
    std::unique_ptr<int[]> members(new int[3 * std::size_t(m)]);
    for (int c = 0; c < 3 * m; ++c) ++start[corners[c] + 1];
    for (int v = 0; v < n; ++v) start[v + 1] += start[v];
    for (int c = 0; c < 3 * m; ++c) members[start[corners[c]]++] = c / 3;
    benchmark::DoNotOptimize(members.get());
  }
}

#ifdef KXGEOM_BENCH_CGAL
// CGAL's polygon soup to a half-edge Surface_mesh: its way to all three kinds
// of adjacency at once.
void BM_CgalSoupToSurfaceMesh(benchmark::State& state) {
  using CgalPoint = CGAL::Simple_cartesian<double>::Point_3;
  const CompactMesh& mesh = sphere();
  std::vector<CgalPoint> points;
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    const MeshVertex& p = mesh.getVertices()[v];
    points.emplace_back(p.x, p.y, p.z);
  }
  std::vector<std::array<int, 3>> polygons;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const MeshTriangle& tri = mesh.getTriangles()[t];
    polygons.push_back({tri[0], tri[1], tri[2]});
  }
  for (auto _ : state) {
    CGAL::Surface_mesh<CgalPoint> out;
    CGAL::Polygon_mesh_processing::polygon_soup_to_polygon_mesh(points, polygons, out);
    benchmark::DoNotOptimize(out.number_of_faces());
  }
}
BENCHMARK(BM_CgalSoupToSurfaceMesh)->Unit(benchmark::kMillisecond)->MinTime(1.0);
#endif

BENCHMARK(BM_AllThreeTables)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_CountingSortBaseline)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_CopyTriangles)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_MeshAdjTris)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_MeshAdjVertices)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_MeshTriAdjTris)->Unit(benchmark::kMillisecond)->MinTime(0.5);

// Keeps the mean CPU time per iteration of every benchmark for the summary.
// Every build here is single-threaded, and on a shared machine CPU time is far
// steadier than wall time.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  // Colour only on a terminal, so piped output stays plain text.
  SummaryReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        const std::string name = run.benchmark_name();
        seconds[name.substr(0, name.find('/'))] = run.cpu_accumulated_time / double(run.iterations);
      }
    }
  }
  std::map<std::string, double> seconds;
};

// Prints peer time / our time for one pair, when both ran.
void printRatio(const std::map<std::string, double>& seconds, const char* label, const char* theirs,
                const char* ours) {
  const auto a = seconds.find(theirs), b = seconds.find(ours);
  if (a == seconds.end() || b == seconds.end()) return;
  std::printf("  %-44s %.2f\n", label, a->second / b->second);
}

void printSummary(const std::map<std::string, double>& seconds) {
  const auto find = [&](const char* name) {
    const auto it = seconds.find(name);
    return it == seconds.end() ? 0.0 : it->second;
  };
  const double copy = find("BM_CopyTriangles");
  const double peer = find("BM_OpenMeshBuild");
  std::printf("\nSummary on %d vertices, %d triangles (CPU time ratios; below 1 is faster):\n",
              sphere().getNumVertices(), sphere().getNumTriangles());
  std::printf("  %-16s %16s %22s\n", "build", "x triangle copy", "x OpenMesh TriMesh build");
  for (const char* name :
       {"BM_MeshAdjTris", "BM_MeshAdjVertices", "BM_MeshTriAdjTris", "BM_AllThreeTables"}) {
    const double t = find(name);
    if (t <= 0.0) continue;
    std::printf("  %-16s", name + 3);
    if (copy > 0.0) {
      std::printf(" %16.2f", t / copy);
    } else {
      std::printf(" %16s", "n/a");
    }
    if (peer > 0.0) {
      std::printf(" %14.3f (%.1fx faster)\n", t / peer, peer / t);
    } else {
      std::printf(" %22s\n", "n/a (no peers)");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  sphere();
  kxbench::printPeakMemory(
      "the three tables", sphere(), [] { return 0; },
      [](int) {
        struct Tables {
          MeshAdjTris adj;
          MeshAdjVertices adjV;
          MeshTriAdjTris triAdj;
        };
        auto tables = std::make_unique<Tables>();
        meshAdjTris(sphere(), tables->adj);
        meshAdjVertices(sphere(), tables->adj, tables->adjV);
        meshTriAdjTris(sphere(), tables->triAdj);
        return tables;
      });
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printSummary(reporter.seconds);
  std::printf("\nPeer or baseline time / kxgeom time (above 1: kxgeom faster):\n");
  printRatio(reporter.seconds, "counting sort / meshAdjTris", "BM_CountingSortBaseline",
             "BM_MeshAdjTris");
  printRatio(reporter.seconds, "CGAL soup to Surface_mesh / all three tables",
             "BM_CgalSoupToSurfaceMesh", "BM_AllThreeTables");
  benchmark::Shutdown();
  return 0;
}
