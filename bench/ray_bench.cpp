// Ray tracing throughput on a dense sphere (830k triangles): four-ray packets
// (QuadRayTracer) and single rays (RayTracer), nearest hits, on coherent
// camera rays (a 1000 x 1000 pinhole image, 2 x 2 pixel blocks as packets) and
// incoherent rays (origins around the model, targets in its box). With
// KXGEOM_BENCH_PEERS the same rays go through Embree 3 (rtcIntersect1 and
// rtcIntersect4 on an SSE4.2 device) and the run ends with throughput ratios.
#include <benchmark/benchmark.h>

#include "support/bench_meshes.h"

#include <kxgeom/bounds.h>
#include <kxgeom/octree_query.h>
#include <kxgeom/quad_ray.h>
#include <kxgeom/ray_tracer.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#ifdef KXGEOM_BENCH_PEERS
#include <embree3/rtcore.h>
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
      : mesh(kxbench::makeDenseSphere(830000)),
        box(boxOf(mesh)),
        octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16) {
    kxGeom::computeOctreeTris(mesh, octree, tris);
  }
  kxGeom::CompactMesh mesh;
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

constexpr int kImageSize = 1000;

// A pinhole camera a little off the z axis, looking at the sphere's centre
// with a field of view that just frames it; packets are 2 x 2 pixel blocks.
RaySet makeCoherentRays() {
  const kxLinear::Vector eye(0.31, 0.27, 3.0);
  const kxLinear::Vector forward = kxLinear::normalized(kxLinear::Vector(0, 0, 0) - eye);
  const kxLinear::Vector right = kxLinear::normalized(kxLinear::cross(forward, {0, 1, 0}));
  const kxLinear::Vector up = kxLinear::cross(right, forward);
  const double halfExtent = 1.05 / std::sqrt(eye.length2() - 1.05 * 1.05);
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
  for (int p = 0; p < kImageSize * kImageSize / 4; ++p) {
    VectorFlt away(unit(rng), unit(rng), unit(rng));
    while (away.length2() < 1e-3f) away = VectorFlt(unit(rng), unit(rng), unit(rng));
    const PointFlt origin = box.center() + kxLinear::normalized(away) * radius(rng);
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

const RaySet& coherentRays() {
  static const RaySet rays = makeCoherentRays();
  return rays;
}
const RaySet& incoherentRays() {
  static const RaySet rays = makeIncoherentRays();
  return rays;
}

using RaySource = const RaySet& (*)();

void setRayRate(benchmark::State& state, int raysPerIteration) {
  state.counters["rays/s"] = benchmark::Counter(double(state.iterations()) * raysPerIteration,
                                                benchmark::Counter::kIsRate);
}

// Every 25th packet: a sample spread over the whole image, on which the hit
// counts of the compared tracers are printed (not timed).
constexpr std::size_t kSampleStride = 25;

// Number of rays of the sample that the packet tracer finds hits for.
long packetHits(const RaySet& rays) {
  const Model& m = model();
  kxGeom::QuadRayTracer tracer(m.octree, m.tris, &m.mesh);
  long hits = 0;
  for (std::size_t p = 0; p < rays.numPackets(); p += kSampleStride) {
    const VectorFlt* d = &rays.directions[4 * p];
    kxGeom::QuadRay packet(rays.origins[p], d[0], d[1], d[2], d[3], true);
    tracer.intersect(packet);
    for (int k = 0; k < 4; ++k) hits += packet.triHit(k);
  }
  return hits;
}

// `ordered`: front-to-back traversal (the render command's setting).
void BM_QuadRayTracer(benchmark::State& state, RaySource source, bool ordered) {
  const Model& m = model();
  const RaySet& rays = source();
  kxGeom::QuadRayTracer tracer(m.octree, m.tris, &m.mesh);
  tracer.setOrderedTraversal(ordered);
  std::size_t p = 0;
  for (auto _ : state) {
    const VectorFlt* d = &rays.directions[4 * p];
    kxGeom::QuadRay packet(rays.origins[p], d[0], d[1], d[2], d[3], true);
    tracer.intersect(packet);
    benchmark::DoNotOptimize(packet.hitMask());
    if (++p == rays.numPackets()) p = 0;
  }
  setRayRate(state, 4);
}

void BM_RayTracer(benchmark::State& state, RaySource source) {
  const Model& m = model();
  const RaySet& rays = source();
  kxGeom::RayTracer tracer(m.octree, m.tris, &m.mesh);
  std::size_t r = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracer.intersect(rays.origins[r / 4], kxLinear::Vector(rays.directions[r])));
    if (++r == rays.directions.size()) r = 0;
  }
  setRayRate(state, 1);
}

BENCHMARK_CAPTURE(BM_QuadRayTracer, coherent, &coherentRays, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_QuadRayTracer, coherent_ordered, &coherentRays, true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RayTracer, coherent, &coherentRays)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_QuadRayTracer, incoherent, &incoherentRays, false)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_QuadRayTracer, incoherent_ordered, &incoherentRays, true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RayTracer, incoherent, &incoherentRays)->Unit(benchmark::kMicrosecond);

#ifdef KXGEOM_BENCH_PEERS

// The model as one Embree triangle geometry on an SSE4.2 device.
struct EmbreeScene {
  EmbreeScene() {
    const Model& m = model();
    device = rtcNewDevice("isa=sse4.2");
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
  RTCDevice device;
  RTCScene scene;
};

const EmbreeScene& embree() {
  static const EmbreeScene e;
  return e;
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

RTCIntersectContext makeContext(RaySource source) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  context.flags = source == &coherentRays ? RTC_INTERSECT_CONTEXT_FLAG_COHERENT
                                          : RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
  return context;
}

void BM_EmbreeIntersect1(benchmark::State& state, RaySource source) {
  const RaySet& rays = source();
  RTCIntersectContext context = makeContext(source);
  std::size_t r = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(embreeIntersect1(context, rays.origins[r / 4], rays.directions[r]));
    if (++r == rays.directions.size()) r = 0;
  }
  setRayRate(state, 1);
}

void BM_EmbreeIntersect4(benchmark::State& state, RaySource source) {
  const RaySet& rays = source();
  RTCIntersectContext context = makeContext(source);
  std::size_t p = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(embreeIntersect4(context, rays.origins[p], &rays.directions[4 * p]));
    if (++p == rays.numPackets()) p = 0;
  }
  setRayRate(state, 4);
}

BENCHMARK_CAPTURE(BM_EmbreeIntersect1, coherent, &coherentRays)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect4, coherent, &coherentRays)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect1, incoherent, &incoherentRays)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EmbreeIntersect4, incoherent, &incoherentRays)->Unit(benchmark::kMicrosecond);

// Number of rays of the sample that Embree finds hits for.
long embreeHits(RaySource source) {
  RTCIntersectContext context = makeContext(source);
  long hits = 0;
  for (std::size_t p = 0; p < source().numPackets(); p += kSampleStride)
    hits += embreeIntersect4(context, source().origins[p], &source().directions[4 * p]);
  return hits;
}

#endif

// Collects the ray rates of every run for the closing ratio lines.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto it = run.counters.find("rays/s");
      if (it != run.counters.end()) rates[run.benchmark_name()] = it->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double rate(const std::string& name) const {
    const auto it = rates.find(name);
    return it == rates.end() ? 0.0 : it->second;
  }

 private:
  std::map<std::string, double> rates;
};

void printRatio(const RateReporter& r, const char* what, const std::string& a,
                const std::string& b) {
  const double ra = r.rate(a), rb = r.rate(b);
  if (ra > 0 && rb > 0)
    std::printf("ratio %-11s %s / %s = %.3f\n", what, a.c_str(), b.c_str(), ra / rb);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Build the model, the rays and the peer's scene before any timing.
  model();
  coherentRays();
  incoherentRays();
#ifdef KXGEOM_BENCH_PEERS
  embree();
#endif
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const char* kind : {"coherent", "incoherent"}) {
    const std::string quad = std::string("BM_QuadRayTracer/") + kind;
    const std::string single = std::string("BM_RayTracer/") + kind;
    printRatio(reporter, kind, quad, single);
#ifdef KXGEOM_BENCH_PEERS
    printRatio(reporter, kind, quad, std::string("BM_EmbreeIntersect4/") + kind);
    printRatio(reporter, kind, quad + "_ordered", std::string("BM_EmbreeIntersect4/") + kind);
    printRatio(reporter, kind, single, std::string("BM_EmbreeIntersect1/") + kind);
#endif
  }
  // Hit counts on a sample of the packets, so the compared runs can be seen
  // to answer the same question.
  for (RaySource source : {RaySource(&coherentRays), RaySource(&incoherentRays)}) {
    const char* kind = source == &coherentRays ? "coherent" : "incoherent";
    std::printf("hits %-11s QuadRayTracer %ld", kind, packetHits(source()));
#ifdef KXGEOM_BENCH_PEERS
    std::printf(", Embree %ld", embreeHits(source));
#endif
    std::printf(" of %zu rays\n",
                4 * ((source().numPackets() + kSampleStride - 1) / kSampleStride));
  }
  benchmark::Shutdown();
  return 0;
}
