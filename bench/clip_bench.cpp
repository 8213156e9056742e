// Clipping throughput: single triangles around the view volume, and whole
// meshes walked by the triangle algorithm. Reports triangles per second.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/bench_meshes.h"

namespace {

// Random triangles with corners in [-2, 2]^3 (w = 1): most straddle the
// volume and need clipping (the clipped share is reported).
std::vector<kxGeom::ClipPolygon> randomTriangles(int n) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(-2, 2);
  std::vector<kxGeom::ClipPolygon> out(static_cast<std::size_t>(n));
  for (kxGeom::ClipPolygon& p : out) {
    p.count = 3;
    for (int i = 0; i < 3; ++i) {
      for (int k = 0; k < 16; ++k) p.vertices[i][k] = 0;
      for (int k = 0; k < 3; ++k) p.vertices[i][k] = u(rng);
      p.vertices[i][3] = 1;
    }
  }
  return out;
}

void BM_ClipTriangle(benchmark::State& state) {
  const std::vector<kxGeom::ClipPolygon> input = randomTriangles(4096);
  const kxGeom::ClipBox box;
  kxGeom::ClipPolygon work;
  std::size_t i = 0;
  int clipped = 0;
  for (auto _ : state) {
    work = input[i];
    i = (i + 1) & 4095;
    clipped += kxGeom::clipTriangle(work, box) == kxGeom::Clipped;
    benchmark::DoNotOptimize(work.count);
  }
  state.counters["triangles/s"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["clipped share"] = double(clipped) / double(state.iterations());
}
BENCHMARK(BM_ClipTriangle);

bool countPiece(void* user, const kxGeom::HPoint&, const kxGeom::HPoint&, const kxGeom::HPoint&) {
  ++*static_cast<long*>(user);
  return true;
}

void BM_TriangleWalk(benchmark::State& state) {
  // A dense sphere of radius 1 scaled so that the volume cuts it.
  const kxGeom::CompactMesh mesh = kxbench::makeDenseSphere(200000);
  kxLinear::ProjMatrixFlt m;
  m.m[0][0] = m.m[1][1] = m.m[2][2] = 1.6f;
  kxGeom::Clip::TriangleAlgorithm alg;
  long pieces = 0;
  alg.setTriangleFunc(countPiece, &pieces);
  for (auto _ : state) benchmark::DoNotOptimize(alg.evaluateMesh(mesh, m));
  state.counters["pieces/walk"] = double(pieces) / double(state.iterations());
  state.counters["triangles/s"] = benchmark::Counter(
      double(state.iterations()) * mesh.getNumTriangles(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TriangleWalk)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
