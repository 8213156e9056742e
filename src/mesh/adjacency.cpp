#include <kxgeom/adjacency.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <set>
#include <unordered_map>

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/os.h>

namespace kxGeom {

namespace {

// ---------------------------------------------------------------------------
// Vertex to vertices

// Collects the distinct neighbours of a vertex. A stamp per vertex marks the
// vertices already seen for the current centre, so nothing is cleared between
// centres; the array is wiped only when the 32-bit stamp wraps.
class NeighbourCollector {
 public:
  NeighbourCollector(int numVertices, const MeshTriangle* triangles, const MeshAdjTris& adjTris)
      : stamps_(std::size_t(numVertices), 0u), triangles_(triangles), adjTris_(adjTris) {}

  // Calls emit(w) for each neighbour w of v in order of first appearance and
  // returns their number.
  template <class Emit>
  int collect(int v, Emit emit) {
    const std::uint32_t stamp = nextStamp();
    stamps_[v] = stamp;
    int count = 0;
    const int* tris = adjTris_.triIndices(v);
    const int numTris = adjTris_.numTris(v);
    for (int i = 0; i < numTris; ++i) {
      const MeshTriangle& tri = triangles_[tris[i]];
      for (int c = 0; c < 3; ++c) {
        const int w = tri[c];
        if (stamps_[w] == stamp) continue;
        stamps_[w] = stamp;
        emit(w);
        ++count;
      }
    }
    return count;
  }

 private:
  std::uint32_t nextStamp() {
    if (++current_ == 0xFFFFFFFFu) {
      std::fill(stamps_.begin(), stamps_.end(), 0u);
      current_ = 1;
    }
    return current_;
  }

  kx::vector<std::uint32_t> stamps_;
  std::uint32_t current_ = 0;
  const MeshTriangle* triangles_;
  const MeshAdjTris& adjTris_;
};

// ---------------------------------------------------------------------------
// Triangle to triangles
//
// Edge e of triangle t is numbered 3t + e, which is also its insertion order.
// The edges are sorted stably by their undirected key (min, max): a counting
// sort by the lower vertex, then, inside each lower-vertex bucket, a sort of
// 64-bit words (max << 32 | edge number), so equal keys keep ascending edge
// numbers. While a bucket is sorted, each edge records what it will list:
// in the common manifold case the one other edge of its group, otherwise the
// position of its group in the sorted edge numbers. The table is then written
// triangle by triangle, in its own order.

// The top bit of a sorted edge number marks the last entry of its group
// (edge numbers stay below 2^31, so the bit is free).
constexpr std::uint32_t kGroupEnd = 0x80000000u;
// Per-edge codes besides a partner edge number (>= 0).
constexpr int kListsNothing = -1;
int codeOfGroup(std::size_t position) { return -int(position) - 2; }
std::size_t groupOfCode(int code) { return std::size_t(-(code + 2)); }

int edgeOfEntry(std::uint32_t entry) { return int(entry & ~kGroupEnd); }
int triangleOfEntry(std::uint32_t entry) { return edgeOfEntry(entry) / 3; }
int edgeOfWord(std::uint64_t word) { return int(std::uint32_t(word)); }
std::uint32_t upperOfWord(std::uint64_t word) { return std::uint32_t(word >> 32); }
int nextCorner(int edge) { return edge % 3 == 2 ? edge - 2 : edge + 1; }

// Buckets of a few words (the usual case: a vertex is the lower end of a
// handful of edges) are sorted by insertion; larger ones by std::sort.
void sortWords(std::uint64_t* begin, std::uint64_t* end) {
  constexpr std::ptrdiff_t kInsertionLimit = 24;
  if (end - begin > kInsertionLimit) {
    std::sort(begin, end);
    return;
  }
  for (std::uint64_t* i = begin + 1; i < end; ++i) {
    const std::uint64_t word = *i;
    std::uint64_t* j = i;
    for (; j > begin && *(j - 1) > word; --j) *j = *(j - 1);
    *j = word;
  }
}

// What the edges list, in sorted order, with the per-triangle list sizes.
struct EdgeGroups {
  kx::vector<std::uint32_t> entries;  // sorted edge numbers, group ends flagged
  kx::vector<int> code;               // per edge: partner edge, or a code above
  kx::vector<int> listSizes;          // per triangle
  std::int64_t total = 0;
};

// Scatters the edge numbers into buckets by lower vertex, keeping ascending
// edge order inside each bucket; bucketEnd[v] is one past bucket v. Returns
// the largest bucket size.
int bucketByLowerVertex(const int* corners, int numVertices, int numTriangles,
                        kx::vector<std::uint32_t>& entries, kx::vector<int>& bucketEnd) {
  bucketEnd.assign(std::size_t(numVertices) + 1, 0);
  int* start = bucketEnd.data() + 1;  // start[v] is where bucket v begins
  for (int t = 0; t < numTriangles; ++t) {
    const int* c = corners + 3 * t;
    ++start[std::min(c[0], c[1])];
    ++start[std::min(c[1], c[2])];
    ++start[std::min(c[2], c[0])];
  }
  int largest = 0, sum = 0;
  for (int v = 0; v < numVertices; ++v) {
    largest = std::max(largest, start[v]);
    sum += start[v];
    start[v] = sum - start[v];
  }
  entries.resize(3 * std::size_t(numTriangles));
  const auto place = [&](int a, int b, int edge) {
    entries[start[std::min(a, b)]++] = std::uint32_t(edge);
  };
  for (int t = 0; t < numTriangles; ++t) {
    const int* c = corners + 3 * t;
    place(c[0], c[1], 3 * t);
    place(c[1], c[2], 3 * t + 1);
    place(c[2], c[0], 3 * t + 2);
  }
  bucketEnd.erase(bucketEnd.begin());  // start[v] now ends bucket v
  return largest;
}

// Records what each edge of a group of equal keys lists: words[0, size) are
// the group's sorted words, starting at `position` in the sorted entries.
void recordGroup(const std::uint64_t* words, std::size_t size, std::size_t position,
                 EdgeGroups& groups) {
  if (size == 2 && edgeOfWord(words[0]) / 3 != edgeOfWord(words[1]) / 3) {
    const int e0 = edgeOfWord(words[0]), e1 = edgeOfWord(words[1]);
    groups.code[e0] = e1;
    groups.code[e1] = e0;
    ++groups.listSizes[e0 / 3];
    ++groups.listSizes[e1 / 3];
    groups.total += 2;
    return;
  }
  // Entries of one triangle are adjacent (their edge numbers are), and each
  // lists the group minus its own triangle's entries.
  for (std::size_t r = 0; r < size;) {
    const int triangle = edgeOfWord(words[r]) / 3;
    std::size_t runEnd = r + 1;
    while (runEnd < size && edgeOfWord(words[runEnd]) / 3 == triangle) ++runEnd;
    const int others = int(size - (runEnd - r));
    for (std::size_t i = r; i < runEnd; ++i) {
      groups.code[edgeOfWord(words[i])] = others ? codeOfGroup(position) : kListsNothing;
    }
    groups.listSizes[triangle] += others * int(runEnd - r);
    groups.total += std::int64_t(others) * std::int64_t(runEnd - r);
    r = runEnd;
  }
}

void groupEdges(const int* corners, int numVertices, int numTriangles, EdgeGroups& groups) {
  kx::vector<int> bucketEnd;
  const int largest =
      bucketByLowerVertex(corners, numVertices, numTriangles, groups.entries, bucketEnd);
  groups.code.resize(3 * std::size_t(numTriangles));
  groups.listSizes.assign(std::size_t(numTriangles), 0);
  kx::vector<std::uint64_t> words(static_cast<std::size_t>(largest));
  std::uint32_t* entries = groups.entries.data();
  for (int v = 0, begin = 0; v < numVertices; begin = bucketEnd[v++]) {
    const int size = bucketEnd[v] - begin;
    for (int i = 0; i < size; ++i) {
      const int edge = int(entries[begin + i]);
      const int hi = std::max(corners[edge], corners[nextCorner(edge)]);
      words[i] = (std::uint64_t(std::uint32_t(hi)) << 32) | std::uint32_t(edge);
    }
    sortWords(words.data(), words.data() + size);
    for (int g = 0; g < size;) {
      int groupEnd = g + 1;
      while (groupEnd < size && upperOfWord(words[groupEnd]) == upperOfWord(words[g])) ++groupEnd;
      recordGroup(words.data() + g, std::size_t(groupEnd - g), std::size_t(begin + g), groups);
      for (int i = g; i < groupEnd; ++i) {
        entries[begin + i] = std::uint32_t(words[i]) | (i + 1 == groupEnd ? kGroupEnd : 0u);
      }
      g = groupEnd;
    }
  }
}

// Writes the triangles that edge `edge` lists at dst; returns the new end.
int* listNeighbours(const EdgeGroups& groups, int edge, int* dst) {
  const int code = groups.code[edge];
  if (code >= 0) {
    *dst++ = code / 3;
  } else if (code != kListsNothing) {
    const int self = edge / 3;
    const std::uint32_t* entry = groups.entries.data() + groupOfCode(code);
    for (bool last = false; !last; ++entry) {
      last = (*entry & kGroupEnd) != 0;
      if (triangleOfEntry(*entry) != self) *dst++ = triangleOfEntry(*entry);
    }
  }
  return dst;
}

void fillTriAdjTris(const EdgeGroups& groups, int numTriangles, ArrayOfSets& sets) {
  int* offsets = sets.offsets();
  offsets[0] = 0;
  for (int t = 0; t < numTriangles; ++t) offsets[t + 1] = offsets[t] + groups.listSizes[t];
  int* dst = sets.members();
  for (int t = 0; t < numTriangles; ++t) {
    for (int e = 0; e < 3; ++e) dst = listNeighbours(groups, 3 * t + e, dst);
  }
}

// ---------------------------------------------------------------------------
// Boundaries

// The walk over the whole mesh: every vertex starts, every triangle counts.
struct WholeMesh {
  int numVertices;
  int numStarts() const { return numVertices; }
  int start(int i) const { return i; }
  bool usesTriangle(int) const { return true; }
  bool isSeam(int) const { return false; }
};

// The walk over one part: the part's vertices start, only its triangles
// count, and a vertex shared with other parts passes the cheap filter.
struct OnePart {
  const MeshSubset& subset;
  int part;
  const ArrayOfSets& vertexParts;
  const Remap& triangleParts;
  int numStarts() const { return subset.getNumVertices(); }
  int start(int i) const { return subset.getVertices()[i]; }
  bool usesTriangle(int t) const { return triangleParts(t) == part; }
  bool isSeam(int v) const { return vertexParts.getSetSize(v) >= 2; }
};

// True when a triangle of the scope holds the directed edge from -> to. Such a
// triangle is listed at both ends, so the shorter list is scanned: at the hub
// of a fan every spoke is then answered from the rim vertex's few triangles.
template <class Scope>
bool hasEdgeIn(const MeshTriangle* triangles, const MeshAdjTris& adjTris, int from, int to,
               const Scope& scope) {
  const int end = adjTris.numTris(to) < adjTris.numTris(from) ? to : from;
  const int* tris = adjTris.triIndices(end);
  const int numTris = adjTris.numTris(end);
  for (int i = 0; i < numTris; ++i) {
    if (scope.usesTriangle(tris[i]) && Boundary::findEdge(from, triangles[tris[i]]) == to) {
      return true;
    }
  }
  return false;
}

template <class Scope>
bool walkIn(int v, int& next, const MeshTriangle* triangles, const MeshAdjTris& adjTris,
            const MeshAdjVertices& adjVerts, const Scope& scope) {
  const int* tris = adjTris.triIndices(v);
  const int numTris = adjTris.numTris(v);
  for (int i = 0; i < numTris; ++i) {
    if (!scope.usesTriangle(tris[i])) continue;
    const int w = Boundary::findEdge(v, triangles[tris[i]]);
    next = w;
    // At an interior manifold vertex the neighbour and triangle counts agree.
    const bool irregular = scope.isSeam(w) || adjVerts.numAdjVertices(w) != adjTris.numTris(w);
    if (irregular && !hasEdgeIn(triangles, adjTris, w, v, scope)) return true;
  }
  return false;
}

template <class Scope>
void computeLoops(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                  const MeshAdjVertices& adjVerts, const Scope& scope, MeshBoundaries& out) {
  const MeshTriangle* triangles = mesh.getTriangles();
  BitVector visited(mesh.getNumVertices());
  MeshBoundaries loops;
  kx::vector<int> loop;
  for (int s = 0; s < scope.numStarts(); ++s) {
    int v = scope.start(s);
    if (visited.isBitSet(v)) continue;
    visited.setBit(v);
    loop.clear();
    int next = -1;
    if (walkIn(v, next, triangles, adjTris, adjVerts, scope)) {
      for (;;) {
        loop.push_back(v);
        v = next;
        if (visited.isBitSet(v)) break;
        visited.setBit(v);
        if (!walkIn(v, next, triangles, adjTris, adjVerts, scope)) break;
      }
    }
    if (!loop.empty()) loops.addLoop(loop.data(), static_cast<int>(loop.size()));
  }
  out.swap(loops);
}

bool containsDirectedEdge(const MeshTriangle& tri, int from, int to) {
  return (tri[0] == from && tri[1] == to) || (tri[1] == from && tri[2] == to) ||
         (tri[2] == from && tri[0] == to);
}

// Fans up to this size are ordered by the plain forward scan; larger ones
// (the hub of a big fan) by an index of positions that answers the same
// question in logarithmic time.
constexpr int kPlainFanLimit = 64;

// The positions in `order` of the triangles holding each directed edge
// vertex -> w, keyed by w: the first such position past i is the triangle the
// forward scan from i + 1 would meet first.
class FanEdgeIndex {
 public:
  FanEdgeIndex(int vertex, const MeshTriangle* triangles, const kx::vector<int>& order)
      : vertex_(vertex), triangles_(triangles) {
    for (int j = 0; j < int(order.size()); ++j) update(order[j], -1, j);
  }

  // First position after `i` of a triangle with the edge vertex -> to, or -1.
  int firstAfter(int i, int to) const {
    const auto key = positions_.find(to);
    if (key == positions_.end()) return -1;
    const auto it = key->second.upper_bound(i);
    return it == key->second.end() ? -1 : *it;
  }

  // Triangle t moved from position `from` (-1: new) to position `to`.
  void update(int t, int from, int to) {
    const MeshTriangle& tri = triangles_[t];
    for (int c = 0; c < 3; ++c) {
      if (tri[c] != vertex_) continue;
      std::set<int>& at = positions_[tri[(c + 1) % 3]];
      if (from >= 0) at.erase(from);
      at.insert(to);
    }
  }

 private:
  int vertex_;
  const MeshTriangle* triangles_;
  std::unordered_map<int, std::set<int>> positions_;
};

int cornerBefore(int vertex, const MeshTriangle& tri) {
  const int k = tri[0] == vertex ? 0 : (tri[1] == vertex ? 1 : 2);
  return tri[(k + 2) % 3];
}

void sortLargeFan(int vertex, const MeshTriangle* triangles, kx::vector<int>& out) {
  FanEdgeIndex index(vertex, triangles, out);
  for (int i = 0; i + 1 < int(out.size()); ++i) {
    const int j = index.firstAfter(i, cornerBefore(vertex, triangles[out[i]]));
    if (j <= i + 1) continue;  // none, or already next
    index.update(out[i + 1], i + 1, j);
    index.update(out[j], j, i + 1);
    std::swap(out[i + 1], out[j]);
  }
}

}  // namespace

void meshAdjTris(const CompactMesh& mesh, MeshAdjTris& out) {
  kxOS::StopWatch watch;
  watch.start();
  const int n = mesh.getNumVertices();
  const int m = mesh.getNumTriangles();
  const int* corners = mesh.getTrianglesRaw();
  ArrayOfSets sets(n, 3 * m);
  int* offsets = sets.offsets();
  std::fill(offsets, offsets + n + 1, 0);
  for (int c = 0; c < 3 * m; ++c) ++offsets[corners[c] + 1];
  for (int v = 0; v < n; ++v) offsets[v + 1] += offsets[v];
  kx::vector<int> cursor(offsets, offsets + n);
  int* members = sets.members();
  for (int t = 0; t < m; ++t) {
    const int* c = corners + 3 * t;
    members[cursor[c[0]]++] = t;
    members[cursor[c[1]]++] = t;
    members[cursor[c[2]]++] = t;
  }
  MeshAdjTris table(sets);
  out.swap(table);
  debugChannel().print("MeshAdjTris: %d vertices %d triangles %f\n", n, m, watch.stop());
}

void meshAdjVertices(const CompactMesh& mesh, const MeshAdjTris& adjTris, MeshAdjVertices& out) {
  kxOS::StopWatch watch;
  watch.start();
  const int n = mesh.getNumVertices();
  NeighbourCollector collector(n, mesh.getTriangles(), adjTris);
  // One walk over the fans, each vertex's neighbours gathered into room for
  // the most it can have (two per triangle), then packed by a sequential
  // copy: the fans are visited once, which on meshes whose vertex order has
  // little locality costs far more than the copy.
  kx::vector<int> loose(2 * static_cast<std::size_t>(adjTris.getData().getNumMembers()));
  kx::vector<int> counts(static_cast<std::size_t>(n));
  std::unique_ptr<int[]> starts(new int[std::size_t(n)]);
  int maxCount = 0;
  int numEntries = 0;
  for (int v = 0, room = 0; v < n; room += 2 * adjTris.numTris(v++)) {
    int* next = loose.data() + room;
    const int count = collector.collect(v, [&next](int w) { *next++ = w; });
    counts[std::size_t(v)] = count;
    maxCount = std::max(maxCount, count);
    starts[v] = numEntries;
    numEntries += count + 1;
  }
  std::unique_ptr<int[]> entries(new int[std::size_t(numEntries)]);
  for (int v = 0, room = 0; v < n; room += 2 * adjTris.numTris(v++)) {
    int* const countSlot = entries.get() + starts[v];
    *countSlot = counts[std::size_t(v)];
    std::copy(loose.data() + room, loose.data() + room + *countSlot, countSlot + 1);
  }
  MeshAdjVertices table(n, maxCount, starts.release(), entries.release());
  out.swap(table);
  debugChannel().print("MeshAdjVertices: %d vertices, %d triangles: %f s\n", n,
                       mesh.getNumTriangles(), watch.stop());
}

void meshTriAdjTris(const CompactMesh& mesh, MeshTriAdjTris& out) {
  kxOS::StopWatch watch;
  watch.start();
  const int n = mesh.getNumVertices();
  const int m = mesh.getNumTriangles();
  EdgeGroups groups;
  groupEdges(mesh.getTrianglesRaw(), n, m, groups);
  // A table beyond the int range of ArrayOfSets cannot be stored; such a mesh
  // gets one empty set per triangle instead.
  const bool fits = groups.total <= INT_MAX;
  ArrayOfSets sets(m, fits ? int(groups.total) : 0);
  if (fits) {
    fillTriAdjTris(groups, m, sets);
  } else {
    std::fill(sets.offsets(), sets.offsets() + m + 1, 0);
    debugChannel().print(
        "MeshTriAdjTris: %lld neighbour entries exceed the table's range, "
        "left empty\n",
        static_cast<long long>(groups.total));
  }
  MeshTriAdjTris table(sets);
  out.swap(table);
  debugChannel().print("MeshTriAdjTris: %d vertices %d triangles %f\n", n, m, watch.stop());
}

bool getSharedEdgeAdjacentTriangle(const int& triangle, int edge, const MeshTriangle* triangles,
                                   const MeshAdjTris& adjTris, int& adjacentTriangle,
                                   int& adjacentEdge) {
  const int self = triangle;  // `triangle` may alias `adjacentTriangle`
  const int a = triangles[self][edge];
  const int b = triangles[self][(edge + 1) % 3];
  adjacentEdge = -1;
  // Both ends list their triangles in ascending order, so the first triangle
  // of a's list holding b is the first of b's list holding a: the shorter
  // list answers, and a hub's long list is never scanned edge after edge.
  const int end = adjTris.numTris(b) < adjTris.numTris(a) ? b : a;
  const int other = end == a ? b : a;
  const int* tris = adjTris.triIndices(end);
  const int numTris = adjTris.numTris(end);
  for (int i = 0; i < numTris; ++i) {
    if (tris[i] == self) continue;
    const MeshTriangle& candidate = triangles[tris[i]];
    if (candidate[0] != other && candidate[1] != other && candidate[2] != other) continue;
    adjacentTriangle = tris[i];
    adjacentEdge = candidate[0] == b ? 0 : (candidate[1] == b ? 1 : 2);
    return true;
  }
  return false;
}

void sortAdjTris(int vertex, int count, const int* triangleIndices, const MeshTriangle* triangles,
                 kx::vector<int>& out) {
  count = std::max(count, 0);
  if (triangleIndices == out.data()) {
    out.resize(std::size_t(count));
  } else {
    out.assign(triangleIndices, triangleIndices + count);
  }
  if (count > kPlainFanLimit) {
    sortLargeFan(vertex, triangles, out);
    return;
  }
  for (int i = 0; i + 1 < count; ++i) {
    const int before = cornerBefore(vertex, triangles[out[i]]);
    for (int j = i + 1; j < count; ++j) {
      if (containsDirectedEdge(triangles[out[j]], vertex, before)) {
        std::swap(out[i + 1], out[j]);
        break;
      }
    }
  }
}

namespace Boundary {

int findEdge(int vertex, const MeshTriangle& triangle) {
  for (int i = 0; i < 3; ++i) {
    if (triangle[i] == vertex) return triangle[(i + 1) % 3];
  }
  return -1;
}

bool hasEdge(const CompactMesh& mesh, const MeshAdjTris& adjTris, int from, int to) {
  return hasEdgeIn(mesh.getTriangles(), adjTris, from, to, WholeMesh{mesh.getNumVertices()});
}

bool walkBoundary(int vertex, int& next, const CompactMesh& mesh, const MeshAdjTris& adjTris,
                  const MeshAdjVertices& adjVerts) {
  return walkIn(vertex, next, mesh.getTriangles(), adjTris, adjVerts,
                WholeMesh{mesh.getNumVertices()});
}

}  // namespace Boundary

void meshComputeBoundary(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                         const MeshAdjVertices& adjVerts, MeshBoundaries& out) {
  computeLoops(mesh, adjTris, adjVerts, WholeMesh{mesh.getNumVertices()}, out);
}

void meshComputeSubsetBoundary(const CompactMesh& mesh, const MeshSubset& subset, int part,
                               const MeshAdjTris& adjTris, const MeshAdjVertices& adjVerts,
                               const ArrayOfSets& vertexParts, const Remap& triangleParts,
                               MeshBoundaries& out) {
  computeLoops(mesh, adjTris, adjVerts, OnePart{subset, part, vertexParts, triangleParts}, out);
}

bool invertRemap(const Remap& map, ArrayOfSets& out) {
  const int domain = map.getDomainSize();
  if (domain == 0) {
    ArrayOfSets empty;
    out.swap(empty);
    return true;
  }
  kx::vector<int> pairs;
  pairs.reserve(2 * std::size_t(domain));
  int largest = 0;
  for (int i = 0; i < domain; ++i) {
    const int r = map(i);
    if (r < 0) continue;
    pairs.push_back(r);
    pairs.push_back(i);
    largest = std::max(largest, r);
  }
  if (pairs.empty()) return false;
  out.assignFromPairs(largest + 1, static_cast<int>(pairs.size() / 2), pairs.data());
  return true;
}

MeshBoundaryTables::MeshBoundaryTables(const CompactMesh& mesh) {
  meshAdjTris(mesh, adjTris);
  meshAdjVertices(mesh, adjTris, adjVertices);
  meshComputeBoundary(mesh, adjTris, adjVertices, loops);
}

}  // namespace kxGeom
