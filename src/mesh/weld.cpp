#include <kxgeom/weld.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

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
// record are skipped. Stability keeps equal keys in their incoming order.
// `scratch` holds `count` records and `counts` K * 4 * 256 ints; the result
// ends up in `data`.
template <int K>
void radixSortRecords(WeldRecord<K>* data, int count, WeldRecord<K>* scratch, int* counts) {
  constexpr int kBits = 8, kBuckets = 1 << kBits, kDigitsPerWord = 4;
  constexpr int kDigits = K * kDigitsPerWord;
  auto digit = [](const WeldRecord<K>& r, int d) {
    const int word = K - 1 - d / kDigitsPerWord, shift = (d % kDigitsPerWord) * kBits;
    return int((r.words[word] >> shift) & (kBuckets - 1));
  };
  std::fill(counts, counts + kDigits * kBuckets, 0);
  for (int i = 0; i < count; ++i) {
    for (int d = 0; d < kDigits; ++d) ++counts[d * kBuckets + digit(data[i], d)];
  }
  WeldRecord<K>* src = data;
  WeldRecord<K>* dst = scratch;
  for (int d = 0; d < kDigits; ++d) {
    int* offsets = counts + d * kBuckets;
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

// Sorts a few records in place by insertion.
template <int K>
void insertionSortRecords(WeldRecord<K>* data, int count) {
  const RecordLess<K> less;
  for (int i = 1; i < count; ++i) {
    const WeldRecord<K> r = data[i];
    int j = i;
    for (; j > 0 && less(r, data[j - 1]); --j) data[j] = data[j - 1];
    data[j] = r;
  }
}

// The records' total order (keys, then index) in two steps: a stable
// scatter by the top 16 bits of the first key word into buckets, each thread
// scattering its slice of the input behind the slices before it, then every
// bucket sorted on its own. A bucket usually fits the cache, so its radix
// passes run there rather than over the whole array. Threads take buckets
// in turn; since the order is total the result is the same for every
// thread count.
template <int K>
class BucketSortAlg : public kxUtil::ThreadedAlgBase {
 public:
  static constexpr int kTopBits = 16, kBuckets = 1 << kTopBits;

  BucketSortAlg(WeldRecord<K>* data, int n, WeldRecord<K>* scratch)
      : data_(data), n_(n), scratch_(scratch) {}

  // Called by every run of the pool; the state is set up by `sort`.
  void initialize(int numThreads) override {
    ThreadedAlgBase::initialize(numThreads);
    if (phase_ == 0) {
      slices_ = numThreads;
      histograms_.assign(std::size_t(numThreads) * kBuckets, 0);
    }
  }
  void run(int thread, int numThreads) override {
    if (phase_ == 0) countSlice(thread, numThreads);
    if (phase_ == 1) scatterSlice(thread, numThreads);
    if (phase_ == 2) sortBuckets();
  }
  // Runs the three phases on `pool`; the sorted records end in `scratch`.
  void sort(kxUtil::ThreadPool& pool) {
    phase_ = 0;
    nextBucket_.store(0);
    pool.run(*this);  // histograms
    computeOffsets();
    ++phase_;
    pool.run(*this);  // scatter
    ++phase_;
    pool.run(*this);  // bucket sorts
  }

 private:
  static int top(const WeldRecord<K>& r) { return int(r.words[0] >> (32 - kTopBits)); }
  int* histogram(int slice) { return histograms_.data() + std::size_t(slice) * kBuckets; }

  void countSlice(int thread, int numThreads) {
    int* h = histogram(thread);
    const int end = getBeginIndex(thread + 1, numThreads, n_);
    for (int i = getBeginIndex(thread, numThreads, n_); i < end; ++i) ++h[top(data_[i])];
  }
  // Slice t of bucket b starts after the whole of the buckets before b and
  // after slices 0 .. t-1 of bucket b: the scatter is stable.
  void computeOffsets() {
    int sum = 0;
    for (int b = 0; b < kBuckets; ++b) {
      bucketStart_[std::size_t(b)] = sum;
      for (int t = 0; t < slices_; ++t) {
        const int c = histogram(t)[b];
        histogram(t)[b] = sum;
        sum += c;
      }
    }
    bucketStart_[kBuckets] = sum;
  }
  void scatterSlice(int thread, int numThreads) {
    int* offsets = histogram(thread);
    const int end = getBeginIndex(thread + 1, numThreads, n_);
    for (int i = getBeginIndex(thread, numThreads, n_); i < end; ++i) {
      scratch_[offsets[top(data_[i])]++] = data_[i];
    }
  }
  void sortBuckets() {
    std::vector<int> counts(static_cast<std::size_t>(K) * 4 * 256);
    for (int b = nextBucket_.fetch_add(1); b < kBuckets; b = nextBucket_.fetch_add(1)) {
      const int begin = bucketStart_[std::size_t(b)],
                count = bucketStart_[std::size_t(b) + 1] - begin;
      if (count <= 32) {
        insertionSortRecords(scratch_ + begin, count);
      } else {
        radixSortRecords(scratch_ + begin, count, data_ + begin, counts.data());
      }
    }
  }

  WeldRecord<K>* data_;
  int n_;
  WeldRecord<K>* scratch_;
  int slices_ = 1;
  int phase_ = 0;
  std::vector<int> histograms_;
  std::vector<int> bucketStart_ = std::vector<int>(kBuckets + 1);
  std::atomic<int> nextBucket_{0};
};

// Sorts the records on the shared pool into their total order.
template <int K>
void parallelSort(kx::vector<WeldRecord<K>>& records) {
  kx::vector<WeldRecord<K>> scratch(records.size());
  BucketSortAlg<K> sorter(records.data(), int(records.size()), scratch.data());
  sorter.sort(kxUtil::ThreadPool::get());
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
