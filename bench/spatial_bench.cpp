// Spatial queries on a dense sphere (830k triangles): octree and triangle
// list build, closest point far from and near the surface, containment.
// With KXGEOM_BENCH_PEERS, the same work with Embree 3 (BVH build and
// rtcPointQuery) and CGAL (AABB tree build, closest_point and
// Side_of_triangle_mesh), and the ratios printed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/bench_meshes.h"

#ifdef KXGEOM_BENCH_PEERS
#include <embree3/rtcore.h>

#include <CGAL/AABB_face_graph_triangle_primitive.h>
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using kxLinear::Point;

constexpr int kQueries = 20000;

const kxGeom::CompactMesh& sphere() {
  static const kxGeom::CompactMesh mesh = [] {
    kxGeom::CompactMesh m = kxbench::makeDenseSphere(830000);
    kxGeom::MeshNormal* normals = m.allocNormalArray();
    for (int v = 0; v < m.getNumVertices(); ++v) {
      const kxLinear::Vector n = kxLinear::normalized(m.getVertices()[v].asPoint() - Point());
      normals[v].set(float(n.x), float(n.y), float(n.z));
    }
    return m;
  }();
  return mesh;
}

// Random points in the sphere's box scaled by 1.2, or within 0.01 of random
// surface points.
std::vector<Point> queryPoints(bool nearSurface) {
  const kxGeom::CompactMesh& m = sphere();
  std::mt19937 rng(nearSurface ? 2 : 1);
  std::uniform_real_distribution<double> u(-1.2, 1.2), o(-0.01, 0.01), w(0, 1);
  std::uniform_int_distribution<int> tri(0, m.getNumTriangles() - 1);
  std::vector<Point> pts(kQueries);
  for (Point& p : pts) {
    if (!nearSurface) {
      p = Point(u(rng), u(rng), u(rng));
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

// Seconds per item of each benchmark, for the ratios printed at the end.
std::map<std::string, double>& secondsPerItem() {
  static std::map<std::string, double> table;
  return table;
}

void record(benchmark::State& state, const char* name, double seconds, long items) {
  secondsPerItem()[name] = seconds / double(items);
  state.SetItemsProcessed(items);
}

// The library's search structures over the sphere.
struct Index {
  kxGeom::Octree octree;
  kxGeom::OctreeTris tris;
};

Index buildIndex() {
  const kxGeom::CompactMesh& m = sphere();
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(m, box);
  Index index{kxGeom::Octree(m.getNumVertices(), m.getVerticesRaw(), box, true, 16), {}};
  kxGeom::computeOctreeTris(m, index.octree, index.tris);
  return index;
}

const Index& index() {
  static const Index built = buildIndex();
  return built;
}

void BM_OctreeBuild(benchmark::State& state) {
  sphere();
  kxOS::StopWatch watch;
  long n = 0;
  for (auto _ : state) {
    Index built = buildIndex();
    benchmark::DoNotOptimize(built.tris.getData().getNumMembers());
    ++n;
  }
  record(state, "build", watch.stop(), n);
}
BENCHMARK(BM_OctreeBuild)->Unit(benchmark::kMillisecond)->Iterations(3);

void closestPoints(benchmark::State& state, bool nearSurface, const char* name) {
  const std::vector<Point> pts = queryPoints(nearSurface);
  kxGeom::MeshClosestPoint search(sphere(), index().octree, index().tris);
  kxGeom::MeshCoord coord;
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    benchmark::DoNotOptimize(search.compute(pts[n % kQueries], &coord));
    ++n;
  }
  record(state, name, watch.stop(), n);
}

void BM_ClosestPointInBox(benchmark::State& state) { closestPoints(state, false, "closest box"); }
void BM_ClosestPointNearSurface(benchmark::State& state) {
  closestPoints(state, true, "closest near");
}
BENCHMARK(BM_ClosestPointInBox);
BENCHMARK(BM_ClosestPointNearSurface);

void BM_PointInside(benchmark::State& state) {
  const std::vector<Point> pts = queryPoints(false);
  kxGeom::MeshPtInside inside(sphere(), index().octree, index().tris, 1e-6);
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    benchmark::DoNotOptimize(inside.evaluate(pts[n % kQueries]));
    ++n;
  }
  record(state, "inside", watch.stop(), n);
}
BENCHMARK(BM_PointInside);

#ifdef KXGEOM_BENCH_PEERS

// ---- Embree 3: BVH over the triangles, closest point by rtcPointQuery with
// the library's per-triangle closest point in the callback.
struct EmbreeScene {
  RTCDevice device = nullptr;
  RTCScene scene = nullptr;
  EmbreeScene() {
    const kxGeom::CompactMesh& m = sphere();
    device = rtcNewDevice("isa=sse4.2");
    scene = rtcNewScene(device);
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
  const kxGeom::CompactMesh& m = sphere();
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
  sphere();
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    EmbreeScene scene;
    benchmark::DoNotOptimize(scene.scene);
    ++n;
  }
  record(state, "embree build", watch.stop(), n);
}
BENCHMARK(BM_EmbreeBuild)->Unit(benchmark::kMillisecond)->Iterations(3);

void embreeClosestPoints(benchmark::State& state, bool nearSurface, const char* name) {
  static EmbreeScene scene;
  const std::vector<Point> pts = queryPoints(nearSurface);
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    const Point& p = pts[n % kQueries];
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
    benchmark::DoNotOptimize(best);
    ++n;
  }
  record(state, name, watch.stop(), n);
}

void BM_EmbreeClosestPointInBox(benchmark::State& state) {
  embreeClosestPoints(state, false, "embree closest box");
}
void BM_EmbreeClosestPointNearSurface(benchmark::State& state) {
  embreeClosestPoints(state, true, "embree closest near");
}
BENCHMARK(BM_EmbreeClosestPointInBox);
BENCHMARK(BM_EmbreeClosestPointNearSurface);

// ---- CGAL: AABB tree over a Surface_mesh with double coordinates.
using Kernel = CGAL::Simple_cartesian<double>;
using SurfaceMesh = CGAL::Surface_mesh<Kernel::Point_3>;
using Primitive = CGAL::AABB_face_graph_triangle_primitive<SurfaceMesh>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<Kernel, Primitive>>;

const SurfaceMesh& cgalMesh() {
  static const SurfaceMesh mesh = [] {
    const kxGeom::CompactMesh& m = sphere();
    SurfaceMesh s;
    std::vector<SurfaceMesh::Vertex_index> v;
    for (int i = 0; i < m.getNumVertices(); ++i) {
      const kxGeom::MeshVertex& p = m.getVertices()[i];
      v.push_back(s.add_vertex(Kernel::Point_3(p.x, p.y, p.z)));
    }
    for (int t = 0; t < m.getNumTriangles(); ++t) {
      const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
      s.add_face(v[tri[0]], v[tri[1]], v[tri[2]]);
    }
    return s;
  }();
  return mesh;
}

void BM_CGALBuild(benchmark::State& state) {
  cgalMesh();
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    Tree tree(faces(cgalMesh()).first, faces(cgalMesh()).second, cgalMesh());
    tree.accelerate_distance_queries();
    benchmark::DoNotOptimize(tree.size());
    ++n;
  }
  record(state, "cgal build", watch.stop(), n);
}
BENCHMARK(BM_CGALBuild)->Unit(benchmark::kMillisecond)->Iterations(2);

void cgalClosestPoints(benchmark::State& state, bool nearSurface, const char* name) {
  static Tree tree = [] {
    Tree t(faces(cgalMesh()).first, faces(cgalMesh()).second, cgalMesh());
    t.accelerate_distance_queries();
    return t;
  }();
  const std::vector<Point> pts = queryPoints(nearSurface);
  tree.closest_point(Kernel::Point_3(0, 0, 0));  // builds its search hint outside the timing
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    const Point& p = pts[n % kQueries];
    benchmark::DoNotOptimize(tree.closest_point(Kernel::Point_3(p.x, p.y, p.z)));
    ++n;
  }
  record(state, name, watch.stop(), n);
}

void BM_CGALClosestPointInBox(benchmark::State& state) {
  cgalClosestPoints(state, false, "cgal closest box");
}
void BM_CGALClosestPointNearSurface(benchmark::State& state) {
  cgalClosestPoints(state, true, "cgal closest near");
}
BENCHMARK(BM_CGALClosestPointInBox);
BENCHMARK(BM_CGALClosestPointNearSurface);

void BM_CGALPointInside(benchmark::State& state) {
  static CGAL::Side_of_triangle_mesh<SurfaceMesh, Kernel> inside(cgalMesh());
  const std::vector<Point> pts = queryPoints(false);
  inside(Kernel::Point_3(0, 0, 0));  // builds its tree outside the timing
  long n = 0;
  kxOS::StopWatch watch;
  for (auto _ : state) {
    const Point& p = pts[n % kQueries];
    benchmark::DoNotOptimize(inside(Kernel::Point_3(p.x, p.y, p.z)));
    ++n;
  }
  record(state, "cgal inside", watch.stop(), n);
}
BENCHMARK(BM_CGALPointInside);

#endif

void printRatio(const char* what, const char* ours, const char* peer, double aim) {
  const auto& t = secondsPerItem();
  if (!t.count(ours) || !t.count(peer)) return;
  const double ratio = t.at(peer) / t.at(ours);
  std::printf("%-34s %6.2fx  (aim >= %.1fx: %s)\n", what, ratio, aim,
              ratio >= aim ? "met" : "NOT met");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nSpeed-up of kxgeom over the peer (peer time / kxgeom time):\n");
  printRatio("closest point (box) vs Embree", "closest box", "embree closest box", 3.0);
  printRatio("closest point (near) vs Embree", "closest near", "embree closest near", 3.0);
  printRatio("closest point (box) vs CGAL", "closest box", "cgal closest box", 10.0);
  printRatio("closest point (near) vs CGAL", "closest near", "cgal closest near", 10.0);
  printRatio("containment vs CGAL", "inside", "cgal inside", 1.0);
  printRatio("octree+partition vs Embree build", "build", "embree build", 1.0);
  printRatio("octree+partition vs CGAL build", "build", "cgal build", 1.0);
  benchmark::Shutdown();
  return 0;
}
