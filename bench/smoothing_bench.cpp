// One Laplacian and one bilateral smoothing pass over every vertex of a dense
// sphere of about 1M vertices. Yardsticks in the same run: a plain averaging
// loop over a compressed neighbour table written to a separate array (the
// floor for a uniform Laplacian pass) and, with KXGEOM_BENCH_PEERS, one
// iteration of OpenMesh's JacobiLaplaceSmootherT (uniform weights, C0,
// tangential and normal) on the same mesh. Adjacency and smoother setup are
// built outside the timed passes. Each variant's best wall-clock pass is
// compared, with the shared thread pool at its default size (KXGEOM_THREADS
// overrides it).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include <kxgeom/adjacency.h>
#include <kxgeom/smoothing.h>

#include "support/bench_meshes.h"
#include "support/peer_mesh.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>
#include <OpenMesh/Tools/Smoother/JacobiLaplaceSmootherT.hh>
#endif

namespace {

using namespace kxGeom;

/// The sphere with radial unit normals and every vertex selected.
CompactMesh makeMesh() {
  CompactMesh mesh = kxbench::makeDenseSphere(2000000);
  MeshNormal* normals = mesh.allocNormalArray();
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    const kxLinear::Vector n =
        kxLinear::normalized(mesh.getVertices()[v].asPoint() - kxLinear::Point());
    normals[v].set(float(n.x), float(n.y), float(n.z));
  }
  mesh.getSelectedVertices().setAllBits();
  return mesh;
}

/// The vertex-to-vertices table of the sphere (every sphere made by makeMesh
/// has the same triangles), built on first use.
const MeshAdjVertices& adjacency(const CompactMesh& mesh) {
  static MeshAdjVertices adj;
  if (adj.getNumVertices() == 0) {
    MeshAdjTris adjTris;
    meshAdjTris(mesh, adjTris);
    meshAdjVertices(mesh, adjTris, adj);
  }
  return adj;
}

/// Times `pass` alone, once per iteration, as variant `name`.
template <class Pass>
void timePasses(benchmark::State& state, const char* name, Pass&& pass) {
  kxbench::timeIterations(
      state, name, [] { return 0; }, [&](int) { pass(); });
}

void BM_Laplacian(benchmark::State& state) {
  CompactMesh mesh = makeMesh();
  const MeshAdjVertices& adj = adjacency(mesh);
  kxUtil::Progress progress;
  timePasses(state, "kxgeom Laplacian", [&] { meshSmoothLaplacian(mesh, adj, progress); });
}

void BM_Bilateral(benchmark::State& state) {
  CompactMesh mesh = makeMesh();
  const MeshAdjVertices& adj = adjacency(mesh);
  kxUtil::Progress progress;
  // About two rings of neighbours: the edge length is about pi / 707.
  timePasses(state, "kxgeom bilateral", [&] { meshSmoothBilateral(mesh, adj, 0.009, progress); });
}

void BM_PlainNeighbourAverage(benchmark::State& state) {
  const CompactMesh mesh = makeMesh();
  const MeshAdjVertices& adj = adjacency(mesh);
  const int n = mesh.getNumVertices();
  std::vector<int> start(n + 1, 0), neighbours;
  for (int v = 0; v < n; ++v) {
    neighbours.insert(neighbours.end(), adj.adjVertices(v),
                      adj.adjVertices(v) + adj.numAdjVertices(v));
    start[v + 1] = int(neighbours.size());
  }
  const float* in = mesh.getVerticesRaw();
  std::vector<float> out(3 * std::size_t(n));
  timePasses(state, "plain neighbour loop", [&] {
    for (int v = 0; v < n; ++v) {
      float x = 0, y = 0, z = 0;
      for (int e = start[v]; e < start[v + 1]; ++e) {
        const float* q = in + 3 * neighbours[e];
        x += q[0], y += q[1], z += q[2];
      }
      const int k = start[v + 1] - start[v];
      out[3 * v] = x / k, out[3 * v + 1] = y / k, out[3 * v + 2] = z / k;
    }
    benchmark::DoNotOptimize(out.data());
  });
}

BENCHMARK(BM_Laplacian)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_Bilateral)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_PlainNeighbourAverage)->Unit(benchmark::kMillisecond)->UseManualTime();

#ifdef KXGEOM_BENCH_PEERS
void BM_OpenMeshJacobiLaplace(benchmark::State& state) {
  using OMesh = OpenMesh::TriMesh_ArrayKernelT<>;
  const CompactMesh mesh = makeMesh();
  OMesh om = kxbench::toPeerMesh<OMesh>(mesh);
  om.request_vertex_normals();
  om.request_face_normals();
  OpenMesh::Smoother::JacobiLaplaceSmootherT<OMesh> smoother(om);
  smoother.initialize(smoother.Tangential_and_Normal, smoother.C0);
  timePasses(state, "OpenMesh JacobiLaplace", [&] { smoother.smooth(1); });
}
BENCHMARK(BM_OpenMeshJacobiLaplace)->Unit(benchmark::kMillisecond)->UseManualTime();
#endif

}  // namespace

int main(int argc, char** argv) {
  std::printf("Threads in the shared pool: %d\n", kxUtil::ThreadPool::get().numThreads());
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"kxgeom Laplacian", "plain neighbour loop"},
                                     {"OpenMesh JacobiLaplace", "kxgeom Laplacian"}});
}
