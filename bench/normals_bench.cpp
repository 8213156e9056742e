// Vertex normals of the dense sphere (830k triangles): meshComputeNormals
// against (with peers) OpenMesh's update_normals on a TriMesh with vertex and
// face normals requested, which computes the same two kinds of normals.
#include <kxgeom/normals.h>

#include "support/bench_meshes.h"
#include "support/peer_mesh.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>

#include <vector>
#endif

namespace {

using kxGeom::CompactMesh;

CompactMesh& sphere() {
  static CompactMesh mesh = kxbench::makeDenseSphere(830000);
  return mesh;
}

void BM_MeshComputeNormals(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshComputeNormals", [] { return &sphere(); },
      [](CompactMesh* mesh) {
        kxGeom::meshComputeNormals(*mesh);
        benchmark::DoNotOptimize(mesh->getNormalsRaw());
      });
  state.counters["triangles"] = sphere().getNumTriangles();
}
BENCHMARK(BM_MeshComputeNormals)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

void BM_MeshComputeTriangleNormals(benchmark::State& state) {
  kxbench::timeIterations(
      state, "meshComputeTriangleNormals", [] { return &sphere(); },
      [](CompactMesh* mesh) {
        kxGeom::meshComputeTriangleNormals(*mesh);
        benchmark::DoNotOptimize(mesh->getTriangleNormalsRaw());
      });
}
BENCHMARK(BM_MeshComputeTriangleNormals)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS
using OMesh = OpenMesh::TriMesh_ArrayKernelT<>;

OMesh& openMeshSphere() {
  static OMesh mesh = [] {
    const CompactMesh& s = sphere();
    OMesh m = kxbench::toPeerMesh<OMesh>(s);
    m.request_vertex_normals();
    m.request_face_normals();
    return m;
  }();
  return mesh;
}

void BM_OpenMeshUpdateNormals(benchmark::State& state) {
  kxbench::timeIterations(
      state, "OpenMesh update_normals", [] { return &openMeshSphere(); },
      [](OMesh* mesh) {
        mesh->update_normals();
        benchmark::DoNotOptimize(mesh->vertex_normals());
      });
  state.counters["faces"] = double(openMeshSphere().n_faces());
}
BENCHMARK(BM_OpenMeshUpdateNormals)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char** argv) {
  return kxbench::runAndPrintRatios(argc, argv,
                                    {{"OpenMesh update_normals", "meshComputeNormals"}});
}
