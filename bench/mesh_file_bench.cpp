// Reading mesh files: binary and ascii PLY, binary STL and OFF of the dense
// sphere (about 830k triangles), written once to temporary files. With
// KXGEOM_BENCH_PEERS assimp and OpenMesh read the same files in the same
// run; the program closes with each peer / kxgeom ratio and every reader's
// throughput in MB/s. STL is timed both ways: meshReadFile welds (as
// OpenMesh does), assimp is timed with and without its vertex joining, and
// kxgeom without the weld to match the latter.
#include <kxgeom/mesh_file.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <OpenMesh/Core/IO/MeshIO.hh>
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>
#include <assimp/Importer.hpp>
#endif

namespace {

namespace fs = std::filesystem;

struct BenchFile {
  const char* label;  // e.g. "binary PLY"
  const char* name;
  kxGeom::MeshFileFormat format;
  bool binary;
};

const BenchFile kFiles[] = {{"binary PLY", "mesh.ply", kxGeom::MeshFileFormat::Ply, true},
                            {"ascii PLY", "ascii.ply", kxGeom::MeshFileFormat::Ply, false},
                            {"binary STL", "mesh.stl", kxGeom::MeshFileFormat::Stl, true},
                            {"OFF", "mesh.off", kxGeom::MeshFileFormat::Off, false}};
constexpr int kNumFiles = int(sizeof kFiles / sizeof kFiles[0]);

// The files, written once per process and removed at exit.
class BenchFiles {
 public:
  BenchFiles() {
    dir_ = fs::temp_directory_path() / ("kxgeom_mesh_file_bench_" + std::to_string(::getpid()));
    fs::create_directories(dir_);
    const kxGeom::CompactMesh mesh = kxbench::makeDenseSphere(830000);
    triangles_ = mesh.getNumTriangles();
    for (const BenchFile& f : kFiles) {
      kxGeom::MeshWriteOptions options;
      options.format = f.format;
      options.binary = f.binary;
      kxGeom::meshWriteFile(mesh, path(f), options);
    }
  }
  ~BenchFiles() { fs::remove_all(dir_); }
  std::string path(const BenchFile& f) const { return (dir_ / f.name).string(); }
  double megabytes(const BenchFile& f) const { return double(fs::file_size(path(f))) / 1e6; }
  int triangles() const { return triangles_; }

 private:
  fs::path dir_;
  int triangles_ = 0;
};

const BenchFiles& files() {
  static const BenchFiles f;
  return f;
}

// The size of the file each variant reads, for the throughput lines.
std::map<std::string, double>& megabytesRead() {
  static std::map<std::string, double> sizes;
  return sizes;
}

std::string variant(const char* reader, const BenchFile& f) {
  return std::string(reader) + " " + f.label;
}

// Times `read(path)`, which returns the triangle count it read.
template <class Read>
void timeRead(benchmark::State& state, const char* reader, Read read) {
  const BenchFile& f = kFiles[state.range(0)];
  const std::string path = files().path(f);
  megabytesRead()[variant(reader, f)] = files().megabytes(f);
  kxbench::timeIterations(
      state, variant(reader, f), [] { return 0; },
      [&](int) {
        const int triangles = read(path);
        if (triangles != files().triangles()) state.SkipWithError("wrong triangle count");
      });
  state.SetLabel(f.label);
  state.SetBytesProcessed(std::int64_t(state.iterations() * files().megabytes(f) * 1e6));
}

int readWithKxgeom(const std::string& path, bool weld) {
  kxGeom::CompactMesh mesh;
  kxGeom::MeshReadOptions options;
  options.weldStl = weld;
  return kxGeom::meshReadFile(mesh, path, options) ? mesh.getNumTriangles() : -1;
}

void BM_Kxgeom(benchmark::State& state) {
  timeRead(state, "kxgeom", [](const std::string& p) { return readWithKxgeom(p, true); });
}
BENCHMARK(BM_Kxgeom)->DenseRange(0, kNumFiles - 1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_KxgeomStlUnwelded(benchmark::State& state) {
  timeRead(state, "kxgeom unwelded", [](const std::string& p) { return readWithKxgeom(p, false); });
}
BENCHMARK(BM_KxgeomStlUnwelded)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS
int readWithAssimp(const std::string& path, unsigned flags) {
  Assimp::Importer importer;
  const aiScene* scene = importer.ReadFile(path, flags);
  return scene && scene->mNumMeshes > 0 ? int(scene->mMeshes[0]->mNumFaces) : -1;
}

void BM_Assimp(benchmark::State& state) {
  timeRead(state, "assimp", [](const std::string& p) { return readWithAssimp(p, 0); });
}
BENCHMARK(BM_Assimp)->DenseRange(0, kNumFiles - 1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_AssimpStlJoined(benchmark::State& state) {
  timeRead(state, "assimp joined",
           [](const std::string& p) { return readWithAssimp(p, aiProcess_JoinIdenticalVertices); });
}
BENCHMARK(BM_AssimpStlJoined)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_OpenMesh(benchmark::State& state) {
  timeRead(state, "OpenMesh", [](const std::string& p) {
    OpenMesh::TriMesh_ArrayKernelT<> mesh;
    return OpenMesh::IO::read_mesh(mesh, p) ? int(mesh.n_faces()) : -1;
  });
}
BENCHMARK(BM_OpenMesh)
    ->DenseRange(0, kNumFiles - 1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
#endif

// Peer / kxgeom pairs for every file, and the unwelded STL pair.
std::vector<std::pair<std::string, std::string>> ratioPairs() {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const BenchFile& f : kFiles) {
    for (const char* peer : {"assimp", "OpenMesh"})
      pairs.emplace_back(variant(peer, f), variant("kxgeom", f));
  }
  pairs.emplace_back(variant("assimp joined", kFiles[2]), variant("kxgeom", kFiles[2]));
  pairs.emplace_back(variant("assimp", kFiles[2]), variant("kxgeom unwelded", kFiles[2]));
  return pairs;
}

void printThroughput() {
  for (const auto& [name, megabytes] : megabytesRead()) {
    const auto best = kxbench::bestTimes().find(name);
    if (best == kxbench::bestTimes().end()) continue;
    std::printf("throughput %s: %.0f MB/s (%.1f MB in %.2f ms)\n", name.c_str(),
                megabytes / best->second, megabytes, 1e3 * best->second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int status = kxbench::runAndPrintRatios(argc, argv, ratioPairs());
  if (status == 0) printThroughput();
  return status;
}
