// OBJ reading speed on the benchmark model (the armadillo refined twice,
// 832k triangles; see support/off_mesh.h), written once to temporary files
// (positions only, and with "i/i/i" vertex normals and projected UVs).
// With KXGEOM_BENCH_PEERS the same files are read by tinyobjloader in the
// same run and the ratio of the best CPU times is printed at the end; with
// CGAL, writing the positions-only file is timed against CGAL's OBJ writer.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <kxgeom/mesh_io.h>

#include <kxgeom/normals.h>

#include "support/off_mesh.h"

#ifdef KXGEOM_BENCH_PEERS
#include <tiny_obj_loader.h>
#endif
#ifdef KXGEOM_BENCH_CGAL
#include <CGAL/IO/OBJ.h>
#include <CGAL/Simple_cartesian.h>
#endif

namespace {

namespace fs = std::filesystem;

struct BenchFiles {
  fs::path dir;
  std::string plain, attributed;
  int triangles = 0;

  BenchFiles() {
    dir = fs::temp_directory_path() / ("kxgeom_mesh_io_bench_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    kxGeom::CompactMesh mesh = kxbench::benchModel().mesh;
    triangles = mesh.getNumTriangles();
    plain = (dir / "plain.obj").string();
    kxGeom::meshWriteObj(mesh, plain);
    kxGeom::meshComputeNormals(mesh);
    kxGeom::MeshUV* uv = mesh.allocUVArray();
    for (int i = 0; i < mesh.getNumVertices(); ++i) {
      const kxLinear::Point& p = mesh.getVertices()[i].asPoint();
      uv[i] = {float(p.x), float(p.y)};
    }
    attributed = (dir / "attributed.obj").string();
    kxGeom::meshWriteObj(mesh, attributed);
  }
  ~BenchFiles() { fs::remove_all(dir); }
  const std::string& file(int which) const { return which ? attributed : plain; }
};

const BenchFiles& files() {
  static BenchFiles f;
  return f;
}

// Process CPU seconds since start: the readers are single-threaded, and CPU
// time keeps the ratio steady on a machine shared with other work.
double cpuSeconds() { return double(std::clock()) / CLOCKS_PER_SEC; }

// Best CPU seconds per read, by benchmark name, for the closing ratio lines.
std::map<std::string, double>& bestTimes() {
  static std::map<std::string, double> t;
  return t;
}

void record(const std::string& name, double seconds) {
  auto [it, fresh] = bestTimes().emplace(name, seconds);
  if (!fresh && seconds < it->second) it->second = seconds;
}

const char* kindName(int which) { return which ? "vn+vt" : "plain"; }

void BM_MeshReadObj(benchmark::State& state) {
  const int which = static_cast<int>(state.range(0));
  const std::string& file = files().file(which);
  for (auto _ : state) {
    const double start = cpuSeconds();
    kxGeom::CompactMesh mesh;
    const bool ok = kxGeom::meshReadObj(mesh, file);
    benchmark::DoNotOptimize(ok);
    record(std::string("kxgeom ") + kindName(which), cpuSeconds() - start);
    if (!ok || mesh.getNumTriangles() != files().triangles) state.SkipWithError("bad read");
  }
  state.counters["triangles"] = files().triangles;
}
BENCHMARK(BM_MeshReadObj)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(0.5);

#ifdef KXGEOM_BENCH_PEERS
void BM_TinyObjLoadObj(benchmark::State& state) {
  const int which = static_cast<int>(state.range(0));
  const std::string& file = files().file(which);
  for (auto _ : state) {
    const double start = cpuSeconds();
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    const bool ok = tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, file.c_str());
    benchmark::DoNotOptimize(ok);
    record(std::string("tinyobjloader ") + kindName(which), cpuSeconds() - start);
    if (!ok) state.SkipWithError("tinyobjloader failed");
  }
}
BENCHMARK(BM_TinyObjLoadObj)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(0.5);
#endif

// Writing the positions-only mesh (v/f lines), ours and CGAL's writer.
void BM_MeshWriteObj(benchmark::State& state) {
  kxGeom::CompactMesh mesh;
  kxGeom::meshReadObj(mesh, files().plain);
  const std::string out = (files().dir / "written.obj").string();
  for (auto _ : state) {
    const double start = cpuSeconds();
    benchmark::DoNotOptimize(kxGeom::meshWriteObj(mesh, out));
    record("kxgeom write", cpuSeconds() - start);
  }
}
BENCHMARK(BM_MeshWriteObj)->Unit(benchmark::kMillisecond)->MinTime(0.5);

#ifdef KXGEOM_BENCH_CGAL
void BM_CgalWriteObj(benchmark::State& state) {
  using Point = CGAL::Simple_cartesian<double>::Point_3;
  kxGeom::CompactMesh mesh;
  kxGeom::meshReadObj(mesh, files().plain);
  std::vector<Point> points;
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    const kxGeom::MeshVertex& p = mesh.getVertices()[v];
    points.emplace_back(p.x, p.y, p.z);
  }
  std::vector<std::vector<std::size_t>> polygons;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = mesh.getTriangles()[t];
    polygons.push_back({std::size_t(tri[0]), std::size_t(tri[1]), std::size_t(tri[2])});
  }
  const std::string out = (files().dir / "cgal.obj").string();
  for (auto _ : state) {
    const double start = cpuSeconds();
    benchmark::DoNotOptimize(CGAL::IO::write_OBJ(out, points, polygons));
    record("CGAL write", cpuSeconds() - start);
  }
}
BENCHMARK(BM_CgalWriteObj)->Unit(benchmark::kMillisecond)->MinTime(0.5);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  for (int which = 0; which < 2; ++which) {
    const auto& t = bestTimes();
    const auto ours = t.find(std::string("kxgeom ") + kindName(which));
    const auto peer = t.find(std::string("tinyobjloader ") + kindName(which));
    if (ours == t.end() || peer == t.end()) continue;
    std::printf(
        "OBJ read %s (%d triangles): tinyobjloader / meshReadObj = %.2fx (best CPU %.1f ms vs %.1f "
        "ms)\n",
        kindName(which), files().triangles, peer->second / ours->second, 1e3 * peer->second,
        1e3 * ours->second);
  }
  const auto& t = bestTimes();
  const auto ours = t.find("kxgeom write"), peer = t.find("CGAL write");
  if (ours != t.end() && peer != t.end()) {
    std::printf("OBJ write v/f: CGAL / meshWriteObj = %.2fx (best CPU %.1f ms vs %.1f ms)\n",
                peer->second / ours->second, 1e3 * peer->second, 1e3 * ours->second);
  }
  benchmark::Shutdown();
  return 0;
}
