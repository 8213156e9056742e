// Ray tracing on the benchmark model (the armadillo refined twice, 832k
// triangles; see support/off_mesh.h): four-ray packets (QuadRayTracer) and
// single rays (RayTracer), nearest hits, on coherent camera rays (a 400 x
// 400 pinhole image, 2 x 2 pixel blocks as packets) and incoherent rays
// (origins around the model, each packet's four targets spread over its
// box). With KXGEOM_BENCH_PEERS the same rays go through Embree 3
// (rtcIntersect4 and rtcIntersect1 on an SSE4.2 device) and CGAL's AABB
// tree (first_intersection). Everything runs on one thread; each row traces
// the whole ray set per iteration, timed in processor time, and the run
// ends with peer time / kxgeom time per pair and the hit counts of every
// tracer on the same rays.
#include <benchmark/benchmark.h>

#include "support/off_mesh.h"
#include "support/timed_ratio.h"

#include <kxgeom/bounds.h>
#include <kxgeom/octree_query.h>
#include <kxgeom/quad_ray.h>
#include <kxgeom/ray_tracer.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <utility>
#include <vector>

#ifdef KXGEOM_BENCH_PEERS
#include <embree3/rtcore.h>

#include <CGAL/AABB_face_graph_triangle_primitive.h>
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#include "support/cgal_mesh.h"
#endif

namespace {

using kxLinear::PointFlt;
using kxLinear::VectorFlt;

kxGeom::BoundingBox boxOf(const kxGeom::CompactMesh& mesh) {
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(mesh, box);
  return box;
}

// The mesh, the octree over its vertices and the per-voxel triangle lists,
// built once with the library's usual settings.
struct Model {
  Model()
      : mesh(kxbench::benchModel().mesh),
        box(boxOf(mesh)),
        octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16) {
    kxGeom::computeOctreeTris(mesh, octree, tris);
  }
  const kxGeom::CompactMesh& mesh;
  kxGeom::BoundingBox box;
  kxGeom::Octree octree;
  kxGeom::OctreeTris tris;
};

const Model& model() {
  static const Model m;
  return m;
}

// Rays in packets of four sharing an origin: packet p has origin[p] and
// directions 4p .. 4p + 3.
struct RaySet {
  std::vector<PointFlt> origins;
  std::vector<VectorFlt> directions;
  std::size_t numPackets() const { return origins.size(); }
};

constexpr int kImageSize = 400;
constexpr int kIncoherentPackets = 16000;

// The radius of the model's bounding sphere about its box centre.
float modelRadius() { return model().box.halfDiagonal().length(); }

// A pinhole camera a little off the z axis at three radii from the model,
// looking at its centre with a field of view that just frames it; packets
// are 2 x 2 pixel blocks.
RaySet makeCoherentRays() {
  const kxLinear::Vector centre(model().box.center());
  const double radius = modelRadius();
  const kxLinear::Vector eye = centre + kxLinear::Vector(0.31, 0.27, 3.0) * radius;
  const kxLinear::Vector forward = kxLinear::normalized(centre - eye);
  const kxLinear::Vector right = kxLinear::normalized(kxLinear::cross(forward, {0, 1, 0}));
  const kxLinear::Vector up = kxLinear::cross(right, forward);
  const double distance = (centre - eye).length();
  const double halfExtent = radius / std::sqrt(distance * distance - radius * radius);
  RaySet rays;
  for (int by = 0; by < kImageSize; by += 2) {
    for (int bx = 0; bx < kImageSize; bx += 2) {
      rays.origins.push_back(PointFlt(eye));
      for (int k = 0; k < 4; ++k) {
        const double sx = (2.0 * (bx + (k & 1) + 0.5) / kImageSize - 1.0) * halfExtent;
        const double sy = (2.0 * (by + (k >> 1) + 0.5) / kImageSize - 1.0) * halfExtent;
        rays.directions.push_back(VectorFlt(kxLinear::normalized(forward + right * sx + up * sy)));
      }
    }
  }
  return rays;
}

// Origins at 2 to 4 radii from the centre, each with four targets spread
// over the model's box: rays of one packet diverge.
RaySet makeIncoherentRays() {
  const kxGeom::BoundingBox& box = model().box;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f), radius(2.0f, 4.0f);
  RaySet rays;
  for (int p = 0; p < kIncoherentPackets; ++p) {
    VectorFlt away(unit(rng), unit(rng), unit(rng));
    while (away.length2() < 1e-3f) away = VectorFlt(unit(rng), unit(rng), unit(rng));
    const PointFlt origin = box.center() + kxLinear::normalized(away) * radius(rng) * modelRadius();
    rays.origins.push_back(origin);
    for (int k = 0; k < 4; ++k) {
      const PointFlt target(box[0] + (box[3] - box[0]) * 0.5f * (unit(rng) + 1),
                            box[1] + (box[4] - box[1]) * 0.5f * (unit(rng) + 1),
                            box[2] + (box[5] - box[2]) * 0.5f * (unit(rng) + 1));
      rays.directions.push_back(kxLinear::normalized(target - origin));
    }
  }
  return rays;
}

const RaySet& rays(bool coherent) {
  static const RaySet coherentSet = makeCoherentRays();
  static const RaySet incoherentSet = makeIncoherentRays();
  return coherent ? coherentSet : incoherentSet;
}

const char* kindName(bool coherent) { return coherent ? "coherent" : "incoherent"; }

std::string variant(const char* tracer, bool coherent) {
  return std::string(tracer) + " " + kindName(coherent);
}

// Traces every ray of the set once per iteration, timed in processor time.
template <class TraceAll>
void timeRaySet(benchmark::State& state, const std::string& name, bool coherent,
                TraceAll traceAll) {
  const RaySet& set = rays(coherent);
  kxbench::timeIterations(
      state, name, [] { return 0; }, [&](int) { benchmark::DoNotOptimize(traceAll(set)); },
      kxbench::Clock::ProcessCpu);
  state.counters["rays"] = double(set.directions.size());
}

// Number of rays of the set that the packet tracer finds hits for.
long packetHits(const RaySet& set) {
  const Model& m = model();
  kxGeom::QuadRayTracer tracer(m.octree, m.tris, &m.mesh);
  long hits = 0;
  for (std::size_t p = 0; p < set.numPackets(); ++p) {
    const VectorFlt* d = &set.directions[4 * p];
    kxGeom::QuadRay packet(set.origins[p], d[0], d[1], d[2], d[3], true);
    tracer.intersect(packet);
    hits += __builtin_popcount(packet.hitMask());
  }
  return hits;
}

long singleRayHits(const RaySet& set) {
  const Model& m = model();
  kxGeom::RayTracer tracer(m.octree, m.tris, &m.mesh);
  long hits = 0;
  for (std::size_t r = 0; r < set.directions.size(); ++r) {
    hits += tracer.intersect(set.origins[r / 4], kxLinear::Vector(set.directions[r]));
  }
  return hits;
}

void BM_QuadRayTracer(benchmark::State& state, bool coherent) {
  timeRaySet(state, variant("kxgeom QuadRayTracer", coherent), coherent, packetHits);
}

void BM_RayTracer(benchmark::State& state, bool coherent) {
  timeRaySet(state, variant("kxgeom RayTracer", coherent), coherent, singleRayHits);
}

BENCHMARK_CAPTURE(BM_QuadRayTracer, coherent, true)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RayTracer, coherent, true)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_QuadRayTracer, incoherent, false)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RayTracer, incoherent, false)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS

// The model as one Embree triangle geometry on a one-thread SSE4.2 device.
struct EmbreeScene {
  EmbreeScene() {
    const Model& m = model();
    device = rtcNewDevice("isa=sse4.2,threads=1");
    scene = rtcNewScene(device);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* vertices = static_cast<float*>(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                3 * sizeof(float), std::size_t(m.mesh.getNumVertices())));
    std::copy(m.mesh.getVerticesRaw(), m.mesh.getVerticesRaw() + 3 * m.mesh.getNumVertices(),
              vertices);
    auto* indices = static_cast<unsigned*>(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                3 * sizeof(unsigned), std::size_t(m.mesh.getNumTriangles())));
    std::copy(m.mesh.getTrianglesRaw(), m.mesh.getTrianglesRaw() + 3 * m.mesh.getNumTriangles(),
              indices);
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(scene);
  }
  ~EmbreeScene() {
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
  }
  EmbreeScene(const EmbreeScene&) = delete;
  EmbreeScene& operator=(const EmbreeScene&) = delete;
  RTCDevice device;
  RTCScene scene;
};

const EmbreeScene& embree() {
  static const EmbreeScene e;
  return e;
}

RTCIntersectContext makeContext(bool coherent) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  context.flags =
      coherent ? RTC_INTERSECT_CONTEXT_FLAG_COHERENT : RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
  return context;
}

bool embreeIntersect1(RTCIntersectContext& context, const PointFlt& o, const VectorFlt& d) {
  RTCRayHit rh;
  rh.ray.org_x = o.x, rh.ray.org_y = o.y, rh.ray.org_z = o.z, rh.ray.tnear = 0;
  rh.ray.dir_x = d.x, rh.ray.dir_y = d.y, rh.ray.dir_z = d.z, rh.ray.time = 0;
  rh.ray.tfar = kxGeom::BoundingBox::kMaxFloat;
  rh.ray.mask = ~0u, rh.ray.id = 0, rh.ray.flags = 0;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rtcIntersect1(embree().scene, &context, &rh);
  return rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
}

int embreeIntersect4(RTCIntersectContext& context, const PointFlt& o, const VectorFlt* d) {
  alignas(16) const int valid[4] = {-1, -1, -1, -1};
  RTCRayHit4 rh;
  for (int k = 0; k < 4; ++k) {
    rh.ray.org_x[k] = o.x, rh.ray.org_y[k] = o.y, rh.ray.org_z[k] = o.z, rh.ray.tnear[k] = 0;
    rh.ray.dir_x[k] = d[k].x, rh.ray.dir_y[k] = d[k].y, rh.ray.dir_z[k] = d[k].z;
    rh.ray.time[k] = 0, rh.ray.tfar[k] = kxGeom::BoundingBox::kMaxFloat;
    rh.ray.mask[k] = ~0u, rh.ray.id[k] = 0, rh.ray.flags[k] = 0;
    rh.hit.geomID[k] = RTC_INVALID_GEOMETRY_ID;
  }
  rtcIntersect4(valid, embree().scene, &context, &rh);
  int hits = 0;
  for (int k = 0; k < 4; ++k) hits += rh.hit.geomID[k] != RTC_INVALID_GEOMETRY_ID;
  return hits;
}

long embreeHits4(const RaySet& set, bool coherent) {
  RTCIntersectContext context = makeContext(coherent);
  long hits = 0;
  for (std::size_t p = 0; p < set.numPackets(); ++p) {
    hits += embreeIntersect4(context, set.origins[p], &set.directions[4 * p]);
  }
  return hits;
}

long embreeHits1(const RaySet& set, bool coherent) {
  RTCIntersectContext context = makeContext(coherent);
  long hits = 0;
  for (std::size_t r = 0; r < set.directions.size(); ++r) {
    hits += embreeIntersect1(context, set.origins[r / 4], set.directions[r]);
  }
  return hits;
}

void BM_EmbreeIntersect4(benchmark::State& state, bool coherent) {
  timeRaySet(state, variant("Embree rtcIntersect4", coherent), coherent,
             [coherent](const RaySet& set) { return embreeHits4(set, coherent); });
}

void BM_EmbreeIntersect1(benchmark::State& state, bool coherent) {
  timeRaySet(state, variant("Embree rtcIntersect1", coherent), coherent,
             [coherent](const RaySet& set) { return embreeHits1(set, coherent); });
}

// ---- CGAL: AABB tree over a Surface_mesh with double coordinates.
using Kernel = kxbench::CgalKernel;
using SurfaceMesh = kxbench::CgalSurfaceMesh;
using Primitive = CGAL::AABB_face_graph_triangle_primitive<SurfaceMesh>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<Kernel, Primitive>>;

const SurfaceMesh& cgalMesh() {
  static const SurfaceMesh mesh = kxbench::toPeerMesh<SurfaceMesh>(model().mesh);
  return mesh;
}

const Tree& cgalTree() {
  static const Tree tree = [] {
    Tree t(faces(cgalMesh()).first, faces(cgalMesh()).second, cgalMesh());
    t.build();
    return t;
  }();
  return tree;
}

long cgalHits(const RaySet& set) {
  long hits = 0;
  for (std::size_t r = 0; r < set.directions.size(); ++r) {
    const PointFlt& o = set.origins[r / 4];
    const VectorFlt& d = set.directions[r];
    const Kernel::Ray_3 ray(Kernel::Point_3(o.x, o.y, o.z), Kernel::Vector_3(d.x, d.y, d.z));
    hits += bool(cgalTree().first_intersection(ray));
  }
  return hits;
}

void BM_CGALFirstIntersection(benchmark::State& state, bool coherent) {
  timeRaySet(state, variant("CGAL first_intersection", coherent), coherent, cgalHits);
}

BENCHMARK_CAPTURE(BM_EmbreeIntersect4, coherent, true)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect1, coherent, true)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CGALFirstIntersection, coherent, true)
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect4, incoherent, false)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect1, incoherent, false)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CGALFirstIntersection, incoherent, false)
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

#endif

}  // namespace

int main(int argc, char** argv) {
  // One thread for the library's passes (the octree lists) as for the peers.
  kxUtil::ThreadPool::setNumThreads(1);
  std::printf("model: %s, %d triangles\n", kxbench::benchModel().name.c_str(),
              model().mesh.getNumTriangles());
  // The rays and the peers' structures are built before any timing.
  rays(true);
  rays(false);
#ifdef KXGEOM_BENCH_PEERS
  embree();
  cgalTree();
#endif
  std::vector<std::pair<std::string, std::string>> pairs;
  for (bool coherent : {true, false}) {
    pairs.push_back(
        {variant("Embree rtcIntersect4", coherent), variant("kxgeom QuadRayTracer", coherent)});
    pairs.push_back(
        {variant("Embree rtcIntersect1", coherent), variant("kxgeom RayTracer", coherent)});
    pairs.push_back(
        {variant("CGAL first_intersection", coherent), variant("kxgeom RayTracer", coherent)});
  }
  const int status = kxbench::runAndPrintRatios(argc, argv, pairs);
  // Hit counts on the same rays, so the compared runs can be seen to answer
  // the same question.
  for (bool coherent : {true, false}) {
    const RaySet& set = rays(coherent);
    std::printf("hits %-10s of %zu rays: QuadRayTracer %ld, RayTracer %ld", kindName(coherent),
                set.directions.size(), packetHits(set), singleRayHits(set));
#ifdef KXGEOM_BENCH_PEERS
    std::printf(", Embree %ld, CGAL %ld", embreeHits4(set, coherent), cgalHits(set));
#endif
    std::printf("\n");
  }
  return status;
}
