// Spatial queries on the benchmark model (the armadillo refined twice, 832k
// triangles, with vertex normals; see support/off_mesh.h): octree, triangle
// lists and their tracing layout built together; closest point for points
// in the model's box and near its surface; containment. With
// KXGEOM_BENCH_PEERS the same work with Embree 3 (BVH build at its default
// medium quality, rtcPointQuery with the library's per-triangle closest
// point in the callback) and CGAL (AABB tree build, closest_point,
// Side_of_triangle_mesh). Everything runs on one thread but the batch rows
// (1 and 2 threads, wall time); each row answers the whole query set per
// iteration, timed in processor time, and the run ends with peer time /
// kxgeom time per pair (for the batch rows also 1 thread / 2 threads).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/off_mesh.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <embree3/rtcore.h>

#include <CGAL/AABB_face_graph_triangle_primitive.h>
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#include "support/cgal_mesh.h"
#endif

namespace {

using kxLinear::Point;

constexpr int kQueries = 20000;

const kxGeom::CompactMesh& model() {
  static const kxGeom::CompactMesh mesh = [] {
    kxGeom::CompactMesh m = kxbench::benchModel().mesh;
    kxGeom::meshComputeNormals(m);
    return m;
  }();
  return mesh;
}

kxGeom::BoundingBox modelBox() {
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(model(), box);
  return box;
}

// Random points in the model's box scaled by 1.2 about its centre, or
// within 0.3% of the box diagonal of random surface points.
std::vector<Point> makeQueryPoints(bool nearSurface) {
  const kxGeom::CompactMesh& m = model();
  const kxGeom::BoundingBox box = modelBox();
  const double offset = 0.003 * 2.0 * box.halfDiagonal().length();
  std::mt19937 rng(nearSurface ? 2 : 1);
  std::uniform_real_distribution<double> u(-0.6, 0.6), o(-offset, offset), w(0, 1);
  std::uniform_int_distribution<int> tri(0, m.getNumTriangles() - 1);
  std::vector<Point> pts(kQueries);
  for (Point& p : pts) {
    if (!nearSurface) {
      for (int k = 0; k < 3; ++k) {
        p[k] = 0.5 * (double(box[k]) + box[k + 3]) + (double(box[k + 3]) - box[k]) * u(rng);
      }
      continue;
    }
    const kxGeom::MeshTriangle& t = m.getTriangles()[tri(rng)];
    double s = w(rng), r = w(rng);
    if (s + r > 1) s = 1 - s, r = 1 - r;
    p = kxLinear::combine(m.getVertices()[t[0]].asPoint(), 1 - s - r,
                          m.getVertices()[t[1]].asPoint(), s, m.getVertices()[t[2]].asPoint(), r) +
        kxLinear::Vector(o(rng), o(rng), o(rng));
  }
  return pts;
}

const std::vector<Point>& queryPoints(bool nearSurface) {
  static const std::vector<Point> inBox = makeQueryPoints(false);
  static const std::vector<Point> near = makeQueryPoints(true);
  return nearSurface ? near : inBox;
}

const char* placeName(bool nearSurface) { return nearSurface ? "near surface" : "in box"; }

std::string variant(const char* what, bool nearSurface) {
  return std::string(what) + " " + placeName(nearSurface);
}

// Times `work(input)` in processor time; `prepare()` runs untimed.
template <class Prepare, class Work>
void timeWork(benchmark::State& state, const std::string& name, Prepare prepare, Work work) {
  kxbench::timeIterations(state, name, prepare, work, kxbench::Clock::ProcessCpu);
}

// The library's search structures over the model.
struct Index {
  kxGeom::Octree octree;
  kxGeom::OctreeTris tris;
};

Index buildIndex() {
  const kxGeom::CompactMesh& m = model();
  Index index{kxGeom::Octree(m.getNumVertices(), m.getVerticesRaw(), modelBox(), true, 16), {}};
  kxGeom::computeOctreeTris(m, index.octree, index.tris);
  return index;
}

const Index& index() {
  static const Index built = buildIndex();
  return built;
}

void BM_OctreeBuild(benchmark::State& state) {
  timeWork(
      state, "kxgeom octree+lists+layout", [] { return 0; },
      [](int) {
        Index built = buildIndex();
        benchmark::DoNotOptimize(built.tris.getData().getNumMembers());
      });
}
BENCHMARK(BM_OctreeBuild)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void BM_ClosestPoint(benchmark::State& state, bool nearSurface) {
  kxGeom::MeshClosestPoint search(model(), index().octree, index().tris);
  timeWork(
      state, variant("kxgeom MeshClosestPoint", nearSurface), [] { return 0; },
      [&](int) {
        double sum = 0;
        kxGeom::MeshCoord coord;
        for (const Point& p : queryPoints(nearSurface)) sum += search.compute(p, &coord);
        benchmark::DoNotOptimize(sum);
      });
}
BENCHMARK_CAPTURE(BM_ClosestPoint, in_box, false)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ClosestPoint, near_surface, true)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

void BM_PointInside(benchmark::State& state) {
  kxGeom::MeshPtInside inside(model(), index().octree, index().tris, 1e-6);
  timeWork(
      state, "kxgeom MeshPtInside in box", [] { return 0; },
      [&](int) {
        int count = 0;
        for (const Point& p : queryPoints(false)) count += inside.evaluate(p);
        benchmark::DoNotOptimize(count);
      });
}
BENCHMARK(BM_PointInside)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// The batch entry points on the shared pool, sized per row; wall time, so
// the two-thread rows show what the second core gives. Each thread builds one
// searcher per batch, so the rows also run the query set ten times over,
// where that set-up weighs a tenth as much.
std::string batchName(const char* what, int threads, int copies = 1) {
  return std::string(what) + (copies > 1 ? " x" + std::to_string(copies) : "") + " " +
         std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

std::vector<Point> repeated(const std::vector<Point>& points, int copies) {
  std::vector<Point> out;
  for (int c = 0; c < copies; ++c) out.insert(out.end(), points.begin(), points.end());
  return out;
}

// Times one batch call over the query set; the row's arguments are the
// thread count and how many times over the set is run. The outputs are sized
// on the first (slowest, so never the best) iteration.
template <class Batch>
void timeBatch(benchmark::State& state, const char* what, bool nearSurface, Batch batch) {
  const int threads = int(state.range(0)), copies = int(state.range(1));
  kxUtil::ThreadPool::setNumThreads(threads);
  const std::vector<Point> points = repeated(queryPoints(nearSurface), copies);
  kxbench::timeIterations(
      state, batchName(what, threads, copies), [] { return 0; }, [&](int) { batch(points); });
  kxUtil::ThreadPool::setNumThreads(1);
}

void BM_ClosestPointsBatch(benchmark::State& state) {
  std::vector<double> distances;
  std::vector<kxGeom::MeshCoord> coords;
  timeBatch(state, "kxgeom meshClosestPoints near surface", true,
            [&](const std::vector<Point>& points) {
              distances.resize(points.size());
              coords.resize(points.size());
              kxGeom::meshClosestPoints(model(), index().octree, index().tris, points.data(),
                                        int(points.size()), distances.data(), coords.data());
            });
}
BENCHMARK(BM_ClosestPointsBatch)
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({1, 10})
    ->Args({2, 10})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

void BM_PointsInsideBatch(benchmark::State& state) {
  std::vector<kxGeom::MeshPtInside::Result> results;
  timeBatch(state, "kxgeom meshPointsInside in box", false, [&](const std::vector<Point>& points) {
    results.resize(points.size());
    kxGeom::meshPointsInside(model(), index().octree, index().tris, 1e-6, points.data(),
                             int(points.size()), results.data());
  });
}
BENCHMARK(BM_PointsInsideBatch)
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({1, 10})
    ->Args({2, 10})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS

// ---- Embree 3: BVH over the triangles on a one-thread SSE4.2 device,
// closest point by rtcPointQuery with the library's per-triangle closest
// point in the callback.
struct EmbreeScene {
  RTCDevice device = nullptr;
  RTCScene scene = nullptr;
  EmbreeScene() {
    const kxGeom::CompactMesh& m = model();
    device = rtcNewDevice("isa=sse4.2,threads=1");
    scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
    RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(
        geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), m.getNumVertices()));
    std::copy(m.getVerticesRaw(), m.getVerticesRaw() + 3 * m.getNumVertices(), v);
    auto* t = static_cast<unsigned*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0,
                                                             RTC_FORMAT_UINT3, 3 * sizeof(unsigned),
                                                             m.getNumTriangles()));
    std::copy(m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles(), t);
    rtcCommitGeometry(geom);
    rtcAttachGeometry(scene, geom);
    rtcReleaseGeometry(geom);
    rtcCommitScene(scene);
  }
  ~EmbreeScene() {
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
  }
  EmbreeScene(const EmbreeScene&) = delete;
  EmbreeScene& operator=(const EmbreeScene&) = delete;
};

bool embreeClosestTriangle(RTCPointQueryFunctionArguments* args) {
  const kxGeom::CompactMesh& m = model();
  const Point p(args->query->x, args->query->y, args->query->z);
  const kxGeom::MeshCoord c =
      kxGeom::meshTriClosestPt(m.getVerticesRaw(), m.getTrianglesRaw(), int(args->primID), p);
  const double d = (c.evaluate(m.getVertices(), m.getTriangles()) - p).length();
  if (d >= args->query->radius) return false;
  args->query->radius = float(d);
  *static_cast<double*>(args->userPtr) = d;
  return true;
}

void BM_EmbreeBuild(benchmark::State& state) {
  timeWork(
      state, "Embree BVH build", [] { return 0; },
      [](int) {
        EmbreeScene scene;
        benchmark::DoNotOptimize(scene.scene);
      });
}
BENCHMARK(BM_EmbreeBuild)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void BM_EmbreeClosestPoint(benchmark::State& state, bool nearSurface) {
  static const EmbreeScene scene;
  timeWork(
      state, variant("Embree rtcPointQuery", nearSurface), [] { return 0; },
      [&](int) {
        double sum = 0;
        for (const Point& p : queryPoints(nearSurface)) {
          RTCPointQuery query;
          query.x = float(p.x);
          query.y = float(p.y);
          query.z = float(p.z);
          query.time = 0;
          query.radius = std::numeric_limits<float>::infinity();
          RTCPointQueryContext context;
          rtcInitPointQueryContext(&context);
          double best = 0;
          rtcPointQuery(scene.scene, &query, &context, embreeClosestTriangle, &best);
          sum += best;
        }
        benchmark::DoNotOptimize(sum);
      });
}
BENCHMARK_CAPTURE(BM_EmbreeClosestPoint, in_box, false)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EmbreeClosestPoint, near_surface, true)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// ---- CGAL: AABB tree over a Surface_mesh with double coordinates.
using Kernel = kxbench::CgalKernel;
using SurfaceMesh = kxbench::CgalSurfaceMesh;
using Primitive = CGAL::AABB_face_graph_triangle_primitive<SurfaceMesh>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<Kernel, Primitive>>;

const SurfaceMesh& cgalMesh() {
  static const SurfaceMesh mesh = kxbench::toPeerMesh<SurfaceMesh>(model());
  return mesh;
}

void BM_CGALBuild(benchmark::State& state) {
  cgalMesh();
  timeWork(
      state, "CGAL AABB tree build", [] { return 0; },
      [](int) {
        Tree tree(faces(cgalMesh()).first, faces(cgalMesh()).second, cgalMesh());
        tree.accelerate_distance_queries();
        benchmark::DoNotOptimize(tree.size());
      });
}
BENCHMARK(BM_CGALBuild)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_CGALClosestPoint(benchmark::State& state, bool nearSurface) {
  static const Tree tree = [] {
    Tree t(faces(cgalMesh()).first, faces(cgalMesh()).second, cgalMesh());
    t.accelerate_distance_queries();
    t.closest_point(Kernel::Point_3(0, 0, 0));  // builds its search hint outside the timing
    return t;
  }();
  timeWork(
      state, variant("CGAL closest_point", nearSurface), [] { return 0; },
      [&](int) {
        double sum = 0;
        for (const Point& p : queryPoints(nearSurface)) {
          sum += tree.closest_point(Kernel::Point_3(p.x, p.y, p.z)).x();
        }
        benchmark::DoNotOptimize(sum);
      });
}
BENCHMARK_CAPTURE(BM_CGALClosestPoint, in_box, false)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CGALClosestPoint, near_surface, true)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

void BM_CGALPointInside(benchmark::State& state) {
  static CGAL::Side_of_triangle_mesh<SurfaceMesh, Kernel> inside(cgalMesh());
  inside(Kernel::Point_3(0, 0, 0));  // builds its tree outside the timing
  timeWork(
      state, "CGAL Side_of_triangle_mesh in box", [] { return 0; },
      [&](int) {
        int count = 0;
        for (const Point& p : queryPoints(false)) {
          count += inside(Kernel::Point_3(p.x, p.y, p.z)) == CGAL::ON_BOUNDED_SIDE;
        }
        benchmark::DoNotOptimize(count);
      });
}
BENCHMARK(BM_CGALPointInside)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

#endif

}  // namespace

int main(int argc, char** argv) {
  // One thread for the library's passes, as for the peers.
  kxUtil::ThreadPool::setNumThreads(1);
  std::printf("model: %s, %d triangles\n", kxbench::benchModel().name.c_str(),
              model().getNumTriangles());
  queryPoints(false);
  index();
  std::vector<std::pair<std::string, std::string>> pairs = {
      {"Embree BVH build", "kxgeom octree+lists+layout"},
      {"CGAL AABB tree build", "kxgeom octree+lists+layout"}};
  for (bool nearSurface : {false, true}) {
    pairs.push_back({variant("Embree rtcPointQuery", nearSurface),
                     variant("kxgeom MeshClosestPoint", nearSurface)});
    pairs.push_back({variant("CGAL closest_point", nearSurface),
                     variant("kxgeom MeshClosestPoint", nearSurface)});
  }
  pairs.push_back({"CGAL Side_of_triangle_mesh in box", "kxgeom MeshPtInside in box"});
  for (const char* batch :
       {"kxgeom meshClosestPoints near surface", "kxgeom meshPointsInside in box"}) {
    for (int copies : {1, 10}) {
      pairs.push_back({batchName(batch, 1, copies), batchName(batch, 2, copies)});
    }
  }
  pairs.push_back({variant("Embree rtcPointQuery", true),
                   batchName("kxgeom meshClosestPoints near surface", 2)});
  pairs.push_back(
      {"CGAL Side_of_triangle_mesh in box", batchName("kxgeom meshPointsInside in box", 2)});
  return kxbench::runAndPrintRatios(argc, argv, pairs);
}
