#include <kxgeom/weld.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

IMeshVertexEqualityChecker::~IMeshVertexEqualityChecker() = default;

bool DefaultMeshVertexEqualityChecker::equal(const float* a, const float* b) {
  return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
}

namespace {

// Maps a float to an unsigned int of the same order: -0 goes to +0 and
// every NaN to the top value (after +infinity), so NaNs sort last and are
// equivalent to each other, as in VertexCompare.
std::uint32_t sortableBits(float f) {
  if (std::isnan(f)) return 0xFFFFFFFFu;
  std::uint32_t bits;
  const float canonical = f == 0.0f ? 0.0f : f;
  std::memcpy(&bits, &canonical, sizeof(bits));
  return (bits & 0x80000000u) ? ~bits : bits | 0x80000000u;
}

float fromSortableBits(std::uint32_t u) {
  const std::uint32_t bits = (u & 0x80000000u) ? u & 0x7FFFFFFFu : ~u;
  float f;
  std::memcpy(&f, &bits, sizeof(f));
  return f;
}

// A vertex's sort key stored next to its index, so that sorting compares
// contiguous integers instead of chasing indices into the vertex arrays. The
// key is the position, then the given normal (K >= 6), then the UV (K = 8),
// as sortable bits; word K is the index. Compared lexicographically as
// 64-bit pairs, this is exactly the order of VertexCompare,
// VertexNormalCompare or VertexNormalUVCompare on the indices.
template <int K>
struct WeldRecord {
  std::uint32_t words[K + 1];

  int index() const { return int(words[K]); }
  // Exact float equality of key word w: same value and not NaN.
  bool sameFloat(const WeldRecord& o, int w) const {
    return words[w] == o.words[w] && words[w] != 0xFFFFFFFFu;
  }
};

template <int K>
struct RecordLess {
  bool operator()(const WeldRecord<K>& a, const WeldRecord<K>& b) const {
    for (int w = 0; w + 1 <= K; w += 2) {
      const std::uint64_t x = std::uint64_t(a.words[w]) << 32 | a.words[w + 1];
      const std::uint64_t y = std::uint64_t(b.words[w]) << 32 | b.words[w + 1];
      if (x != y) return x < y;
    }
    return (K + 1) % 2 == 1 && a.words[K] < b.words[K];
  }
};

// Stable LSD radix sort of records by their key words, 8 bits per pass,
// least significant digit first; passes whose digit is the same in every
// record are skipped. Stability keeps equal keys in their incoming order,
// which is index order, so the result is the records' total order.
// `scratch` holds `count` records; the result ends up in `data`.
template <int K>
void radixSortRecords(WeldRecord<K>* data, int count, WeldRecord<K>* scratch) {
  constexpr int kBits = 8, kBuckets = 1 << kBits, kDigitsPerWord = 4;
  constexpr int kDigits = K * kDigitsPerWord;
  auto digit = [](const WeldRecord<K>& r, int d) {
    const int word = K - 1 - d / kDigitsPerWord, shift = (d % kDigitsPerWord) * kBits;
    return int((r.words[word] >> shift) & (kBuckets - 1));
  };
  if (count < 2) return;
  kx::vector<int> counts;
  counts.assign(std::size_t(kDigits) * kBuckets, 0);
  for (int i = 0; i < count; ++i) {
    for (int d = 0; d < kDigits; ++d) ++counts[std::size_t(d) * kBuckets + digit(data[i], d)];
  }
  WeldRecord<K>* src = data;
  WeldRecord<K>* dst = scratch;
  for (int d = 0; d < kDigits; ++d) {
    int* offsets = counts.data() + std::size_t(d) * kBuckets;
    if (offsets[digit(src[0], d)] == count) continue;
    for (int b = 0, sum = 0; b < kBuckets; ++b) {
      const int c = offsets[b];
      offsets[b] = sum;
      sum += c;
    }
    for (int i = 0; i < count; ++i) dst[offsets[digit(src[i], d)]++] = src[i];
    std::swap(src, dst);
  }
  if (src != data) std::copy(src, src + count, data);
}

// Sorts the two halves of the records concurrently: thread 0 the first,
// thread 1 the second, split by the range rule for two threads, each with
// its own slice of the scratch array. Further threads have nothing to do.
template <int K>
class HalfSortAlg : public kxUtil::ThreadedAlgBase {
 public:
  HalfSortAlg(WeldRecord<K>* data, int n, WeldRecord<K>* scratch)
      : data_(data), n_(n), scratch_(scratch) {}
  void run(int thread, int) override {
    if (thread > 1) return;
    const int begin = getBeginIndex(thread, 2, n_), end = getBeginIndex(thread + 1, 2, n_);
    radixSortRecords(data_ + begin, end - begin, scratch_ + begin);
  }

 private:
  WeldRecord<K>* data_;
  int n_;
  WeldRecord<K>* scratch_;
};

// Merges the two sorted halves into `out` from both ends at once: thread 0
// takes from the halves' fronts and fills the lower half of the result,
// thread 1 takes from their ends and fills the upper half backwards. With a
// total order the two meet exactly.
template <class T, class Less>
class TwoEndedMergeAlg : public kxUtil::ThreadedAlgBase {
 public:
  TwoEndedMergeAlg(const T* data, int n, Less less, T* out)
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

  const T* data_;
  int n_;
  int mid_;
  Less less_;
  T* out_;
};

// Sorts the records on the shared pool: directly with one thread, otherwise
// two concurrently sorted halves merged from both ends into a temporary
// array (the halves' scratch space, free again by then).
template <int K>
void parallelSort(kx::vector<WeldRecord<K>>& records) {
  kxUtil::ThreadPool& pool = kxUtil::ThreadPool::get();
  const int n = int(records.size());
  kx::vector<WeldRecord<K>> scratch(n);
  if (pool.numThreads() == 1) {
    radixSortRecords(records.data(), n, scratch.data());
    return;
  }
  HalfSortAlg<K> halves(records.data(), n, scratch.data());
  pool.run(halves);
  TwoEndedMergeAlg<WeldRecord<K>, RecordLess<K>> merge(records.data(), n, RecordLess<K>(),
                                                       scratch.data());
  pool.run(merge);
  records.swap(scratch);
}

// Fills each vertex's record with its key and index, in parallel.
template <int K>
kx::vector<WeldRecord<K>> makeRecords(const CompactMesh& mesh) {
  const float* vertices = mesh.getVerticesRaw();
  const float* normals = mesh.getNormalsRaw();
  const float* uvs = mesh.getUVsRaw();
  kx::vector<WeldRecord<K>> records(mesh.getNumVertices());
  kxUtil::forEachRange(kxUtil::ThreadPool::get(), mesh.getNumVertices(),
                       [&](int, int begin, int end) {
                         for (int i = begin; i < end; ++i) {
                           std::uint32_t* w = records[i].words;
                           for (int k = 0; k < 3; ++k) w[k] = sortableBits(vertices[3 * i + k]);
                           for (int k = 3; k < std::min(K, 6); ++k) {
                             w[k] = sortableBits(normals[3 * i + k - 3]);
                           }
                           for (int k = 6; k < K; ++k) w[k] = sortableBits(uvs[2 * i + k - 6]);
                           w[K] = std::uint32_t(i);
                         }
                       });
  return records;
}

// Scans the sorted records and numbers the groups; returns the group count.
// Normals and UVs in the key must match exactly (as floats) besides the
// checker's verdict on the positions, which it sees decoded from the key.
template <int K>
int numberGroups(kx::vector<WeldRecord<K>>& records, IMeshVertexEqualityChecker& checker,
                 Remap& remap) {
  const int n = int(records.size());
  if (n == 0) return 0;
  int next = 0;
  remap.set(records[0].index(), next++);
  float first[3] = {fromSortableBits(records[0].words[0]), fromSortableBits(records[0].words[1]),
                    fromSortableBits(records[0].words[2])};
  for (int i = 1; i < n; ++i) {
    const WeldRecord<K>& r = records[i - 1];
    const WeldRecord<K>& q = records[i];
    const float candidate[3] = {fromSortableBits(q.words[0]), fromSortableBits(q.words[1]),
                                fromSortableBits(q.words[2])};
    bool same = checker.equal(first, candidate);
    for (int w = 3; w < K && same; ++w) same = r.sameFloat(q, w);
    if (same) {
      remap.set(q.index(), next - 1);
      records[i] = r;  // the next candidate meets the group's first member again
    } else {
      remap.set(q.index(), next++);
      std::copy(candidate, candidate + 3, first);
    }
  }
  return next;
}

// The sort and scan phases of the weld with K key floats; returns the
// number of new vertices.
template <int K>
int sortAndNumber(const CompactMesh& mesh, kxUtil::Progress& progress, Remap& remap,
                  IMeshVertexEqualityChecker& checker, kxOS::StopWatch& watch) {
  kx::vector<WeldRecord<K>> records = makeRecords<K>(mesh);
  kxUtil::Progress sortPhase;
  progress.subPhase(0.8, sortPhase);
  parallelSort(records);
  sortPhase.set(1.0);
  debugChannel().print("sorted vertices: %f s\n", watch.clear());

  kxUtil::Progress scanPhase;
  progress.subPhase(0.2, scanPhase);
  const int k = numberGroups(records, checker, remap);
  scanPhase.set(1.0);
  debugChannel().print("initialized remap: %f s\n", watch.clear());
  return k;
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
  // Given normals take part in the comparison, and UVs only with them.
  const bool useNormals = mesh.getNormals() && !mesh.getNormalsComputed();
  const bool useUVs = useNormals && mesh.getUVs();
  remap.resize(n, n);
  const int k = useUVs       ? sortAndNumber<8>(mesh, progress, remap, checker, watch)
                : useNormals ? sortAndNumber<6>(mesh, progress, remap, checker, watch)
                             : sortAndNumber<3>(mesh, progress, remap, checker, watch);
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
  if (useNormals) {
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
  if (useNormals) copyInto(newNormals, mesh.getNormals());
  if (mesh.getUVs()) copyInto(newUVs, mesh.getUVs());
  remap(mesh.getTrianglesRaw(), 3 * mesh.getNumTriangles());
  mod.triangleNormalsValid();
  mesh.modified(mod);
  debugChannel().print("remapped triangles: %f s\n", watch.clear());
}

}  // namespace kxGeom
