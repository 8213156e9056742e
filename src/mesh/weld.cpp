#include <kxgeom/weld.h>

#include <algorithm>
#include <numeric>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

IMeshVertexEqualityChecker::~IMeshVertexEqualityChecker() = default;

bool DefaultMeshVertexEqualityChecker::equal(const float* a, const float* b) {
  return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
}

namespace {

// Sorts the two halves of an index array concurrently: thread 0 the first,
// thread 1 the second, split by the range rule for two threads. Any further
// threads of the pool have nothing to do.
template <class Less>
class HalfSortAlg : public kxUtil::ThreadedAlgBase {
 public:
  HalfSortAlg(int* data, int n, Less less) : data_(data), n_(n), less_(less) {}
  void run(int thread, int) override {
    if (thread > 1) return;
    const int begin = getBeginIndex(thread, 2, n_), end = getBeginIndex(thread + 1, 2, n_);
    std::sort(data_ + begin, data_ + end, less_);
  }

 private:
  int* data_;
  int n_;
  Less less_;
};

// Merges the two sorted halves into `out` from both ends at once: thread 0
// takes from the halves' fronts and fills the lower half of the result,
// thread 1 takes from their ends and fills the upper half backwards. With a
// total order the two meet exactly.
template <class Less>
class TwoEndedMergeAlg : public kxUtil::ThreadedAlgBase {
 public:
  TwoEndedMergeAlg(const int* data, int n, Less less, int* out)
      : data_(data), n_(n), mid_(getBeginIndex(1, 2, n)), less_(less), out_(out) {}
  void run(int thread, int) override {
    if (thread == 0) mergeFronts();
    if (thread == 1) mergeBacks();
  }

 private:
  void mergeFronts() {
    int i = 0, j = mid_;
    for (int k = 0; k < mid_; ++k) {
      const bool takeFirst = j == n_ || (i < mid_ && !less_(data_[j], data_[i]));
      out_[k] = takeFirst ? data_[i++] : data_[j++];
    }
  }
  void mergeBacks() {
    int i = mid_ - 1, j = n_ - 1;
    for (int k = n_ - 1; k >= mid_; --k) {
      const bool takeSecond = i < 0 || (j >= mid_ && !less_(data_[j], data_[i]));
      out_[k] = takeSecond ? data_[j--] : data_[i--];
    }
  }

  const int* data_;
  int n_;
  int mid_;
  Less less_;
  int* out_;
};

// Sorts indices on the shared pool: directly with one thread, otherwise two
// concurrently sorted halves merged from both ends into a temporary array.
template <class Less>
void parallelSortIndices(kx::vector<int>& indices, Less less) {
  kxUtil::ThreadPool& pool = kxUtil::ThreadPool::get();
  const int n = int(indices.size());
  if (pool.numThreads() == 1) {
    std::sort(indices.begin(), indices.end(), less);
    return;
  }
  HalfSortAlg<Less> halves(indices.data(), n, less);
  pool.run(halves);
  kx::vector<int> merged(n);
  TwoEndedMergeAlg<Less> merge(indices.data(), n, less, merged.data());
  pool.run(merge);
  indices.swap(merged);
}

// What besides the position keeps two vertices apart.
struct WeldKeys {
  const float* normals = nullptr;  // given normals, or null
  const float* uvs = nullptr;      // UVs when normals take part, or null

  bool sameExtras(int r, int q) const {
    if (normals && !std::equal(normals + 3 * r, normals + 3 * r + 3, normals + 3 * q)) {
      return false;
    }
    return !uvs || (uvs[2 * r] == uvs[2 * q] && uvs[2 * r + 1] == uvs[2 * q + 1]);
  }
};

WeldKeys chooseKeys(const CompactMesh& mesh) {
  WeldKeys keys;
  if (mesh.getNormals() && !mesh.getNormalsComputed()) {
    keys.normals = mesh.getNormalsRaw();
    keys.uvs = mesh.getUVsRaw();
  }
  return keys;
}

void sortByKeys(kx::vector<int>& order, const float* vertices, const WeldKeys& keys) {
  if (keys.uvs) {
    parallelSortIndices(order, VertexNormalUVCompare(vertices, keys.normals, keys.uvs));
  } else if (keys.normals) {
    parallelSortIndices(order, VertexNormalCompare(vertices, keys.normals));
  } else {
    parallelSortIndices(order, VertexCompare(vertices));
  }
}

// Scans the sorted indices and numbers the groups; returns the group count.
int numberGroups(kx::vector<int>& order, const float* vertices, const WeldKeys& keys,
                 IMeshVertexEqualityChecker& checker, Remap& remap) {
  const int n = int(order.size());
  if (n == 0) return 0;
  int next = 0;
  remap.set(order[0], next++);
  for (int i = 1; i < n; ++i) {
    const int r = order[i - 1], q = order[i];
    if (checker.equal(vertices + 3 * r, vertices + 3 * q) && keys.sameExtras(r, q)) {
      remap.set(q, next - 1);
      order[i] = r;  // the next candidate meets the group's first member again
    } else {
      remap.set(q, next++);
    }
  }
  return next;
}

// Writes each old element to its new index, ascending, so the highest old
// index wins where several merge.
template <class T>
kx::vector<T> gather(const T* old, int n, const Remap& remap, int k) {
  kx::vector<T> out(k);
  for (int i = 0; i < n; ++i) out[remap(i)] = old[i];
  return out;
}

template <class T>
void copyInto(const kx::vector<T>& from, T* to) {
  std::copy(from.begin(), from.end(), to);
}

// Renumbers every index list of the mesh that refers to vertices, marking
// the notice for each one that exists.
void remapVertexReferences(CompactMesh& mesh, const Remap& remap, MeshModification& mod) {
  if (mesh.getNumTriStrips() > 0) {
    remap(mesh.getTriStripPoints(), mesh.getNumTriStripPoints());
    mod.stripsAndFansModified();
  }
  if (mesh.getNumTriFans() > 0) {
    remap(mesh.getTriFanPoints(), mesh.getNumTriFanPoints());
    mod.stripsAndFansModified();
  }
  if (mesh.getNumLines() > 0) {
    remap(reinterpret_cast<int*>(mesh.getLines()), 2 * mesh.getNumLines());
    mod.linesModified();
  }
  if (mesh.getNumLineStrips() > 0) {
    remap(mesh.getLineStripPoints(), mesh.getNumLineStripPoints());
    mod.lineStripsModified();
  }
}

}  // namespace

void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress) {
  Remap remap;
  meshCompact(mesh, progress, remap);
}

void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress, Remap& remap) {
  DefaultMeshVertexEqualityChecker checker;
  meshCompact(mesh, progress, remap, checker);
}

void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress, Remap& remap,
                 IMeshVertexEqualityChecker& checker) {
  const int n = mesh.getNumVertices();
  debugChannel().print("meshCompact: %d vertices, %d triangles\n", n, mesh.getNumTriangles());
  kxOS::StopWatch watch;
  const WeldKeys keys = chooseKeys(mesh);
  const float* vertices = mesh.getVerticesRaw();
  kx::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  remap.resize(n, n);

  kxUtil::Progress sortPhase;
  progress.subPhase(0.8, sortPhase);
  sortByKeys(order, vertices, keys);
  sortPhase.set(1.0);
  debugChannel().print("sorted vertices: %f s\n", watch.clear());

  kxUtil::Progress scanPhase;
  progress.subPhase(0.2, scanPhase);
  const int k = numberGroups(order, vertices, keys, checker, remap);
  scanPhase.set(1.0);
  debugChannel().print("initialized remap: %f s\n", watch.clear());
  kx::vector<int>().swap(order);
  if (k == n) {
    remap.setSequential();
    return;
  }

  remap.setRangeSize(k);
  MeshRemap meshRemap(&remap, nullptr);
  MeshModification mod(&mesh, MeshModification::TopologyChanged, &meshRemap);
  const kx::vector<MeshVertex> newVertices = gather(mesh.getVertices(), n, remap, k);
  debugChannel().print("remapped vertices: %f s\n", watch.clear());
  kx::vector<MeshNormal> newNormals;
  if (keys.normals) {
    newNormals = gather(mesh.getNormals(), n, remap, k);
    mod.normalsModified();
    debugChannel().print("remapped normals: %f s\n", watch.clear());
  }
  kx::vector<MeshUV> newUVs;
  if (mesh.getUVs()) {
    newUVs = gather(mesh.getUVs(), n, remap, k);
    mod.uvsModified();
  }
  remapVertexReferences(mesh, remap, mod);

  mesh.resizeVertexArray(k);
  copyInto(newVertices, mesh.getVertices());
  if (keys.normals) copyInto(newNormals, mesh.getNormals());
  if (mesh.getUVs()) copyInto(newUVs, mesh.getUVs());
  remap(mesh.getTrianglesRaw(), 3 * mesh.getNumTriangles());
  mod.triangleNormalsValid();
  mesh.modified(mod);
  debugChannel().print("remapped triangles: %f s\n", watch.clear());
}

}  // namespace kxGeom
