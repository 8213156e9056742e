// Bounding box of the dense sphere's vertices against a plain copy of the
// vertex array, the memory-bandwidth floor of any pass that reads it once.
#include <kxgeom/bounds.h>

#include <cstring>
#include <vector>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

namespace {

using kxGeom::CompactMesh;

const CompactMesh& sphere() {
  static const CompactMesh mesh = kxbench::makeDenseSphere(830000);
  return mesh;
}

void BM_MeshBoundingBox(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshBoundingBox", [] { return 0; },
      [](int) {
        kxGeom::BoundingBox box;
        kxGeom::meshBoundingBox(sphere(), box);
        benchmark::DoNotOptimize(box);
      });
  state.counters["vertices"] = sphere().getNumVertices();
}
BENCHMARK(BM_MeshBoundingBox)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);

void BM_MeshBoundingBoxHalfSelected(benchmark::State& state) {
  static const kxGeom::BitVector filter = [] {
    kxGeom::BitVector bits(sphere().getNumVertices());
    for (int i = 0; i < bits.size(); i += 2) bits.setBit(i);
    return bits;
  }();
  kxbench::timeIterations(
      state, "meshBoundingBox filtered", [] { return 0; },
      [](int) {
        kxGeom::BoundingBox box;
        kxGeom::meshBoundingBox(sphere(), &filter, box);
        benchmark::DoNotOptimize(box);
      });
}
BENCHMARK(BM_MeshBoundingBoxHalfSelected)
    ->UseManualTime()
    ->Iterations(200)
    ->Unit(benchmark::kMicrosecond);

void BM_CopyVertexArray(benchmark::State& state) {
  static std::vector<float> target(3 * std::size_t(sphere().getNumVertices()));
  kxbench::timeIterations(
      state, "vertex array copy", [] { return 0; },
      [](int) {
        std::memcpy(target.data(), sphere().getVerticesRaw(), target.size() * sizeof(float));
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
      });
}
BENCHMARK(BM_CopyVertexArray)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"meshBoundingBox", "vertex array copy"},
                                     {"meshBoundingBox filtered", "vertex array copy"}});
}
