#include <kxgeom/reduce.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

using kxLinear::Point;
using kxLinear::Vector;

/// Collapses between two progress reports and cancellation polls.
constexpr int kPollInterval = 1024;
/// A triangle whose sine at the moved corner falls below this is degenerate.
constexpr double kMinSine2 = 1e-12;
/// A quadric whose 3x3 determinant is below this share of (trace / 3)^3 is
/// treated as singular: its minimiser is too poorly determined to trust.
constexpr double kMinDeterminant = 1e-12;

/// The error of points against weighted planes: the sum of w (n.p + d)^2 as
/// a symmetric 4x4 matrix, and the sum of the weights, so that evaluating
/// and dividing by the weight gives a mean squared distance.
struct Quadric {
  double xx = 0, xy = 0, xz = 0, yy = 0, yz = 0, zz = 0;
  double x = 0, y = 0, z = 0, c = 0;
  double weight = 0;

  /// Adds the plane n.p + d = 0 (n of unit length) with weight w.
  void addPlane(const Vector& n, double d, double w) {
    xx += w * n.x * n.x, xy += w * n.x * n.y, xz += w * n.x * n.z;
    yy += w * n.y * n.y, yz += w * n.y * n.z, zz += w * n.z * n.z;
    x += w * n.x * d, y += w * n.y * d, z += w * n.z * d;
    c += w * d * d;
    weight += w;
  }
  void add(const Quadric& q) {
    xx += q.xx, xy += q.xy, xz += q.xz, yy += q.yy, yz += q.yz, zz += q.zz;
    x += q.x, y += q.y, z += q.z, c += q.c;
    weight += q.weight;
  }
  /// Mean squared distance of p from the planes (0 without weight).
  double meanError2(const Point& p) const {
    if (!(weight > 0)) return 0;
    const double e = p.x * (xx * p.x + 2 * (xy * p.y + xz * p.z + x)) +
                     p.y * (yy * p.y + 2 * (yz * p.z + y)) + p.z * (zz * p.z + 2 * z) + c;
    return std::max(0.0, e / weight);
  }
  /// The point of least error, when the system is well conditioned.
  bool minimiser(Point& p) const {
    const double c00 = yy * zz - yz * yz, c01 = xz * yz - xy * zz, c02 = xy * yz - xz * yy;
    const double det = xx * c00 + xy * c01 + xz * c02;
    const double scale = (xx + yy + zz) / 3;
    if (!(std::fabs(det) > kMinDeterminant * scale * scale * scale)) return false;
    const double c11 = xx * zz - xz * xz, c12 = xy * xz - xx * yz, c22 = xx * yy - xy * xy;
    p = Point(-(c00 * x + c01 * y + c02 * z), -(c01 * x + c11 * y + c12 * z),
              -(c02 * x + c12 * y + c22 * z)) /
        det;
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
  }
};

/// The quadric of one triangle's plane weighted by its area; empty for a
/// triangle of zero area.
Quadric triangleQuadric(const Point& a, const Point& b, const Point& c) {
  const Vector n = kxLinear::cross(b - a, c - a);
  const double length = n.length();
  Quadric q;
  if (length > 0) q.addPlane(n / length, -kxLinear::dot(n / length, a), length / 2);
  return q;
}

/// Per-vertex state bits.
enum VertexFlag : unsigned char {
  kLocked = 1,    ///< never moves or vanishes
  kBoundary = 2,  ///< has a boundary edge
  kBlocked = 4,   ///< one of its edges was refused since it last changed
};

/// A queued edge: its error when queued, and the time it was queued, which
/// makes it stale once either end changed later.
struct HeapEntry {
  float error2;
  int a, b;
  int time;
};

/// The queued edges in order of error: a binary heap of the entries up to
/// a limit, small enough to stay in cache, and an unordered overflow list
/// above it from which the heap is refilled with the cheapest entries when
/// it runs dry. Every entry in the heap is no costlier than any in the
/// overflow, so entries leave in the order of one big heap.
class EdgeQueue {
 public:
  void assign(std::vector<HeapEntry>&& entries) {
    overflow_ = std::move(entries);
    heap_.clear();
  }
  bool empty() const { return heap_.empty(); }
  const HeapEntry& top() const { return heap_[0]; }
  void push(const HeapEntry& e) {
    if (!(e.error2 <= limit_)) {
      overflow_.push_back(e);
      return;
    }
    std::size_t i = heap_.size();
    heap_.push_back(e);
    for (; i > 0 && e.error2 < heap_[(i - 1) / 2].error2; i = (i - 1) / 2)
      heap_[i] = heap_[(i - 1) / 2];
    heap_[i] = e;
  }
  void pop() {
    const HeapEntry last = heap_.back();
    heap_.pop_back();
    if (!heap_.empty()) siftDown(0, last);
  }
  /// Moves the cheapest overflow entries into the empty heap, first
  /// dropping those `dead` rejects; the heap stays empty when none are left.
  template <class Dead>
  void refill(Dead dead) {
    overflow_.erase(std::remove_if(overflow_.begin(), overflow_.end(), dead), overflow_.end());
    if (overflow_.empty()) return;
    const std::size_t count = std::min(overflow_.size(), std::max(kMinBatch, overflow_.size() / 8));
    std::nth_element(overflow_.begin(), overflow_.begin() + (count - 1), overflow_.end(),
                     [](const HeapEntry& p, const HeapEntry& q) { return p.error2 < q.error2; });
    limit_ = overflow_[count - 1].error2;
    heap_.assign(overflow_.begin(), overflow_.begin() + count);
    overflow_.erase(overflow_.begin(), overflow_.begin() + count);
    for (std::size_t i = heap_.size() / 2; i-- > 0;) siftDown(i, heap_[i]);
  }

 private:
  static constexpr std::size_t kMinBatch = 1 << 16;

  /// Places e at hole i or below, moving smaller children up.
  void siftDown(std::size_t i, const HeapEntry e) {
    const std::size_t n = heap_.size();
    for (std::size_t child = 2 * i + 1; child < n; i = child, child = 2 * i + 1) {
      if (child + 1 < n && heap_[child + 1].error2 < heap_[child].error2) ++child;
      if (!(heap_[child].error2 < e.error2)) break;
      heap_[i] = heap_[child];
    }
    heap_[i] = e;
  }

  std::vector<HeapEntry> heap_, overflow_;
  float limit_ = -1;
};

/// A collapse: `removed` merges into `survivor`, which moves to `position`.
struct Candidate {
  int survivor, removed;
  Point position;
  double error2;
};

/// What the checks of a collapse learn about the edge's neighbourhood.
struct EdgeStar {
  int shared = 0;  // triangles holding both ends (1 on a boundary edge, 2 inside)
  int sharedTri[2] = {-1, -1};
  int opposite[2] = {-1, -1};      // their third corners
  bool closesTetrahedron = false;  // the larger fan has a triangle on both
};

/// One neighbour of a vertex during the setup: how many of the vertex's
/// triangles leave towards it and arrive from it, and the neighbour the fan
/// turns to next.
struct Spoke {
  int vertex, out, in, next;
};

/// What the collapses read of a vertex, in two cache lines: the quadric
/// fills the first; the second holds what is also read of the neighbours
/// (position, stamp, flags, triangle list). The time of its last change
/// lives apart, densely, since every queued edge that surfaces reads it.
struct alignas(64) VertexRecord {
  Quadric quadric;
  MeshVertex position;
  // A slice of the incidence array listing the vertex's triangles; a
  // collapse appends the survivor's merged list, so slices only move forward.
  int listBegin = 0, listCount = 0;
  unsigned mark = 0;  // visit stamp
  unsigned char flags = 0;
  // Refused edges of the vertex are retried after 1, 2, 4, ... changes
  // around it, so that a hub whose collapses keep failing (the centre of a
  // fan of slivers) is not re-examined at every change of its large fan.
  unsigned char retryShift = 0;
  unsigned short retryCountdown = 0;
};

/// The reduction's working copy of the mesh and its queue.
class Reducer {
 public:
  Reducer(const CompactMesh& mesh, const MeshReduceOptions& options)
      : options_(options),
        numVertices_(mesh.getNumVertices()),
        numTriangles_(mesh.getNumTriangles()),
        corners_(mesh.getTriangles(), mesh.getTriangles() + numTriangles_),
        vertices_(numVertices_),
        cosMaxChange_(std::cos(options.maxNormalChange * 3.14159265358979323846 / 180)) {
    for (int v = 0; v < numVertices_; ++v) vertices_[v].position = mesh.getVertices()[v];
    if (const MeshNormal* n = mesh.getNormals()) normals_.assign(n, n + numVertices_);
    if (const MeshUV* uv = mesh.getUVs()) uvs_.assign(uv, uv + numVertices_);
  }

  /// Whether every triangle corner names a vertex of the mesh.
  bool cornersValid() const {
    for (const MeshTriangle& t : corners_) {
      for (int k = 0; k < 3; ++k) {
        if (t[k] < 0 || t[k] >= numVertices_) return false;
      }
    }
    return true;
  }

  /// Builds the triangle lists, classifies the vertices, sums their
  /// quadrics and queues every edge; `selection` locks vertices when asked.
  void prepare(const BitVector& selection, kxUtil::ThreadPool& pool) {
    buildIncidence();
    mergedInto_.assign(numVertices_, -1);
    lastChange_.assign(numVertices_, 0);
    liveTriangles_ = numTriangles_;
    kxUtil::forEachRange(pool, numVertices_, [&](int, int begin, int end) {
      std::vector<Spoke> spokes;
      for (int v = begin; v < end; ++v) classify(v, selection, spokes);
    });
    seedQueue(pool);
  }

  /// Collapses until a bound is met; false when cancelled.
  bool collapse(int target, kxUtil::Progress& progress, MeshReduceResult& result) {
    const int toRemove = std::max(1, liveTriangles_ - target);
    const int before = liveTriangles_;
    result.stop = MeshReduceStop::TargetReached;
    while (liveTriangles_ > target) {
      if (queue_.empty()) queue_.refill([this](const HeapEntry& e) { return stale(e); });
      if (queue_.empty()) {
        result.stop = MeshReduceStop::Exhausted;
        break;
      }
      const HeapEntry e = queue_.top();
      queue_.pop();
      if (stale(e)) continue;
      const Candidate c = candidate(e.a, e.b);
      const double error = std::sqrt(c.error2);
      if (error > options_.maxError) {
        result.stop = MeshReduceStop::ErrorBound;
        break;
      }
      if (!collapseIfValid(c)) {
        vertices_[e.a].flags |= kBlocked;
        vertices_[e.b].flags |= kBlocked;
        continue;
      }
      result.maxError = std::max(result.maxError, error);
      if (++result.collapses % kPollInterval == 0) {
        if (progress.cancelled()) return false;
        progress.set(double(before - liveTriangles_) / toRemove);
      }
    }
    return !progress.cancelled();
  }

  int liveTriangles() const { return liveTriangles_; }

  /// Rewrites the mesh from the working copy with one notice; returns the
  /// number of output vertices.
  int writeBack(CompactMesh& mesh, Remap& vertexMap) {
    const int kept = numberVertices(vertexMap);
    Remap triangleMap(numTriangles_, liveTriangles_);
    std::vector<MeshTriangle> triangles;
    triangles.reserve(liveTriangles_);
    for (int t = 0; t < numTriangles_; ++t) {
      if (!live(t)) continue;
      triangleMap.set(t, int(triangles.size()));
      const MeshTriangle& c = corners_[t];
      triangles.push_back({{vertexMap(c[0]), vertexMap(c[1]), vertexMap(c[2])}});
    }
    MeshRemap maps(&vertexMap, &triangleMap);
    MeshModification mod(&mesh, MeshModification::TopologyChanged, &maps);
    mesh.resizeVertexArray(kept);
    writeSurvivors(mesh.getVertices(), [this](int v) { return vertices_[v].position; });
    if (!normals_.empty()) {
      writeSurvivors(mesh.getNormals(), [this](int v) { return normals_[v]; });
      mod.normalsModified();
    }
    if (!uvs_.empty()) {
      writeSurvivors(mesh.getUVs(), [this](int v) { return uvs_[v]; });
      mod.uvsModified();
    }
    mesh.copyTriangles(liveTriangles_, reinterpret_cast<const int*>(triangles.data()));
    if (MeshNormal* n = mesh.getTriangleNormals()) {
      writeTriangleNormals(mesh, n);
      mod.triangleNormalsModified();
    }
    renumberOtherElements(mesh, vertexMap, mod);
    mesh.modified(mod);
    return kept;
  }

 private:
  bool stale(const HeapEntry& e) const {
    return lastChange_[e.a] > e.time || lastChange_[e.b] > e.time;
  }
  bool live(int t) const { return corners_[t][0] >= 0; }
  Point position(int v) const { return vertices_[v].position.asPoint(); }
  bool locked(int v) const { return vertices_[v].flags & kLocked; }
  const int* trianglesOf(int v) const { return incidence_.data() + vertices_[v].listBegin; }
  int triangleCount(int v) const { return vertices_[v].listCount; }

  /// The vertex-to-triangles lists by a counting sort, in triangle order.
  void buildIncidence() {
    for (const MeshTriangle& t : corners_) {
      for (int k = 0; k < 3; ++k) ++vertices_[t[k]].listCount;
    }
    std::vector<int> fill(numVertices_);
    int total = 0;
    for (int v = 0; v < numVertices_; ++v) {
      fill[v] = vertices_[v].listBegin = total;
      total += vertices_[v].listCount;
    }
    // Room for the merged lists the collapses append.
    incidence_.reserve(std::size_t(total) * 2);
    incidence_.resize(total);
    for (int t = 0; t < numTriangles_; ++t) {
      for (int k = 0; k < 3; ++k) incidence_[fill[corners_[t][k]]++] = t;
    }
  }

  /// The spoke of `w` in `spokes`, added when missing.
  static Spoke& spokeOf(std::vector<Spoke>& spokes, int w) {
    for (Spoke& s : spokes) {
      if (s.vertex == w) return s;
    }
    spokes.push_back({w, 0, 0, -1});
    return spokes.back();
  }

  /// Gathers the spokes of v from its triangles; false when a triangle
  /// names a vertex twice or has a non-finite corner.
  bool gatherSpokes(int v, std::vector<Spoke>& spokes) const {
    spokes.clear();
    bool clean = true;
    for (int i = 0; i < triangleCount(v); ++i) {
      const MeshTriangle& t = corners_[trianglesOf(v)[i]];
      if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0]) {
        clean = false;
        continue;
      }
      const int k = t[0] == v ? 0 : t[1] == v ? 1 : 2;
      const int out = t[(k + 1) % 3], in = t[(k + 2) % 3];
      clean = clean && finite(v) && finite(out) && finite(in);
      Spoke& o = spokeOf(spokes, out);
      ++o.out;
      o.next = in;
      ++spokeOf(spokes, in).in;
    }
    return clean;
  }

  bool finite(int v) const {
    const MeshVertex& p = vertices_[v].position;
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
  }

  /// Whether the spokes form one fan with every edge run once each way (or
  /// once, on the boundary), and whether that fan is open.
  static bool oneFan(std::vector<Spoke>& spokes, int triangles, bool& open) {
    int starts = 0, first = spokes.empty() ? -1 : spokes[0].vertex;
    for (const Spoke& s : spokes) {
      if (s.out > 1 || s.in > 1) return false;
      if (s.out == 1 && s.in == 0) ++starts, first = s.vertex;
    }
    open = starts > 0;
    if (starts > 1) return false;
    int steps = 0;
    for (int w = first; steps <= triangles; ++steps) {
      w = spokeOf(spokes, w).next;
      if (w < 0 || w == first) break;
    }
    return steps + (open ? 0 : 1) == triangles;
  }

  /// Sets the flags and the quadric of v (reads only v's own triangles and
  /// their corners, so vertices may be classified concurrently).
  void classify(int v, const BitVector& selection, std::vector<Spoke>& spokes) {
    if (triangleCount(v) == 0) {
      vertices_[v].flags = kLocked;
      return;
    }
    bool open = false;
    const bool manifold = gatherSpokes(v, spokes) && oneFan(spokes, triangleCount(v), open);
    unsigned char f = open ? kBoundary : 0;
    if (!manifold || (open && options_.boundary == MeshReduceBoundary::Keep) ||
        (options_.lockSelected && v < selection.size() && selection.isBitSet(v))) {
      f |= kLocked;
    }
    vertices_[v].flags = f;
    Quadric& q = vertices_[v].quadric;
    for (int i = 0; i < triangleCount(v); ++i) {
      const MeshTriangle& t = corners_[trianglesOf(v)[i]];
      if (finite(t[0]) && finite(t[1]) && finite(t[2]))
        q.add(triangleQuadric(position(t[0]), position(t[1]), position(t[2])));
    }
    if (manifold && open && options_.boundary == MeshReduceBoundary::Weighted)
      addBoundaryPlanes(v, q);
  }

  /// Adds the perpendicular planes of v's two boundary edges.
  void addBoundaryPlanes(int v, Quadric& q) const {
    for (int i = 0; i < triangleCount(v); ++i) {
      const MeshTriangle& t = corners_[trianglesOf(v)[i]];
      const int k = t[0] == v ? 0 : t[1] == v ? 1 : 2;
      for (int side = 1; side <= 2; ++side) {
        const int w = t[(k + side) % 3];
        if (edgeTriangles(v, w) != 1) continue;
        const Point a = position(v), b = position(w), c = position(t[(k + 3 - side) % 3]);
        const Vector edge = b - a;
        const Vector n = kxLinear::normalized(kxLinear::cross(edge, kxLinear::cross(edge, c - a)));
        if (n.length2() > 0)
          q.addPlane(n, -kxLinear::dot(n, a), options_.boundaryWeight * edge.length2());
      }
    }
  }

  /// Number of live triangles of v that also hold w.
  int edgeTriangles(int v, int w) const {
    int count = 0;
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (!live(t)) continue;
      const MeshTriangle& c = corners_[t];
      count += c[0] == w || c[1] == w || c[2] == w;
    }
    return count;
  }

  /// Queues every edge once, from its lower end, in vertex order.
  void seedQueue(kxUtil::ThreadPool& pool) {
    std::vector<std::vector<HeapEntry>> parts(std::size_t(pool.numThreads()));
    kxUtil::forEachRange(pool, numVertices_, [&](int thread, int begin, int end) {
      std::vector<Spoke> spokes;
      for (int v = begin; v < end; ++v) {
        gatherSpokes(v, spokes);
        for (const Spoke& s : spokes) {
          if (s.vertex > v && collapsible(v, s.vertex))
            parts[thread].push_back(edgeEntry(v, s.vertex));
        }
      }
    });
    std::vector<HeapEntry> all;
    std::size_t total = 0;
    for (const auto& p : parts) total += p.size();
    all.reserve(total);
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    queue_.assign(std::move(all));
  }

  /// The queue entry of edge a-b as it is now.
  HeapEntry edgeEntry(int a, int b) const { return {float(candidate(a, b).error2), a, b, time_}; }
  /// Whether edge a-b may collapse at all.
  bool collapsible(int a, int b) const { return !(locked(a) && locked(b)); }

  void queueEdge(int a, int b) {
    if (collapsible(a, b)) queue_.push(edgeEntry(a, b));
  }

  /// Where the collapse of a-b puts its vertex, and which end survives.
  Candidate candidate(int a, int b) const {
    Quadric q = vertices_[a].quadric;
    q.add(vertices_[b].quadric);
    const Point pa = position(a), pb = position(b);
    if (locked(a) || locked(b)) {
      const int s = locked(a) ? a : b;
      const Point p = s == a ? pa : pb;
      return {s, a + b - s, p, q.meanError2(p)};
    }
    Point p;
    if (options_.placement == MeshReducePlacement::Optimal && q.minimiser(p)) {
      p = Point(kxLinear::PointFlt(p));
      const Point mid = (pa + pb) * 0.5;
      if ((p - mid).length2() <= (pb - pa).length2()) {
        const int s = (p - pa).length2() <= (p - pb).length2() ? a : b;
        return {s, a + b - s, p, q.meanError2(p)};
      }
    }
    Candidate best{a, b, pa, q.meanError2(pa)};
    const double eb = q.meanError2(pb);
    if (eb < best.error2) best = {b, a, pb, eb};
    if (options_.placement == MeshReducePlacement::Optimal) {
      const Point mid = Point(kxLinear::PointFlt((pa + pb) * 0.5));
      const double em = q.meanError2(mid);
      if (em < best.error2) best.position = mid, best.error2 = em;
    }
    return best;
  }

  unsigned nextStamp() {
    if (++stamp_ == 0) {
      for (VertexRecord& r : vertices_) r.mark = 0;
      stamp_ = 1;
    }
    return stamp_;
  }

  /// Whether triangle (from, x, y) keeps a usable shape when `from` moves to
  /// `to`: not degenerate, normal turned by at most the allowed angle.
  bool keepsShape(const Point& from, const Point& to, int x, int y) const {
    const Point px = position(x), py = position(y);
    const Vector before = kxLinear::cross(px - from, py - from);
    const Vector ex = px - to, ey = py - to;
    const Vector after = kxLinear::cross(ex, ey);
    const double after2 = after.length2();
    if (!(after2 > kMinSine2 * ex.length2() * ey.length2())) return false;
    return kxLinear::dot(before, after) >= cosMaxChange_ * std::sqrt(before.length2() * after2);
  }

  /// The two corners of triangle t other than v, in winding order after v.
  void othersOf(int t, int v, int& x, int& y) const {
    const MeshTriangle& c = corners_[t];
    const int k = c[0] == v ? 0 : c[1] == v ? 1 : 2;
    x = c[(k + 1) % 3];
    y = c[(k + 2) % 3];
  }

  /// Whether the collapse keeps the surface a manifold of usable triangles.
  /// The smaller fan is walked first, so that a refusal is usually found
  /// there before a hub's large fan is read: it yields the edge's triangles
  /// and marks its neighbours, against which the larger fan is checked.
  bool collapseIfValid(const Candidate& c) {
    EdgeStar star;
    prefetchFan(c.survivor);
    prefetchFan(c.removed);
    const bool survivorFirst = triangleCount(c.survivor) <= triangleCount(c.removed);
    const int first = survivorFirst ? c.survivor : c.removed;
    const int second = survivorFirst ? c.removed : c.survivor;
    if (!walkSmallerFan(first, second, c, star) || !walkLargerFan(second, first, c, star))
      return false;
    // An interior edge between two boundary vertices would pinch the
    // surface into one vertex.
    if (star.shared == 2 && boundary(first) && boundary(second)) return false;
    // Both ends with a triangle on the two opposite corners: the collapse
    // would leave two triangles on the same three vertices.
    if (star.closesTetrahedron && hasTriangleOn(first, star.opposite[0], star.opposite[1]))
      return false;
    // A lone triangle (all three edges open) does not collapse.
    if (star.shared == 1 && edgeTriangles(first, star.opposite[0]) == 1 &&
        edgeTriangles(second, star.opposite[0]) == 1)
      return false;
    apply(c, star);
    return true;
  }

  bool boundary(int v) const { return vertices_[v].flags & kBoundary; }

  /// Whether v's corners move in the collapse: the removed end always, the
  /// survivor unless it stays where it is.
  bool moves(int v, const Candidate& c) const {
    return v == c.removed || position(v) != c.position;
  }

  /// Walks v's triangles: finds those on the edge to `other`, marks the
  /// other corners and checks the shape of the triangles that stay.
  bool walkSmallerFan(int v, int other, const Candidate& c, EdgeStar& star) {
    const unsigned stamp = nextStamp();
    const bool moving = moves(v, c);
    const Point from = position(v);
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (!live(t)) continue;
      int x, y;
      othersOf(t, v, x, y);
      if (x == other || y == other) {
        if (star.shared == 2) return false;
        star.sharedTri[star.shared] = t;
        star.opposite[star.shared++] = x == other ? y : x;
        vertices_[x == other ? y : x].mark = stamp;
        continue;
      }
      vertices_[x].mark = vertices_[y].mark = stamp;
      if (moving && !keepsShape(from, c.position, x, y)) return false;
    }
    return star.shared > 0;
  }

  /// Walks v's triangles that stay: none may reach a neighbour of the other
  /// end but the edge's opposite corners (the link condition), and each must
  /// keep its shape.
  bool walkLargerFan(int v, int other, const Candidate& c, EdgeStar& star) {
    const bool moving = moves(v, c);
    const Point from = position(v);
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (!live(t)) continue;
      int x, y;
      othersOf(t, v, x, y);
      if (x == other || y == other) continue;
      if ((vertices_[x].mark == stamp_ && !isOpposite(star, x)) ||
          (vertices_[y].mark == stamp_ && !isOpposite(star, y)))
        return false;
      star.closesTetrahedron = star.closesTetrahedron ||
                               (star.shared == 2 && isOpposite(star, x) && isOpposite(star, y));
      if (moving && !keepsShape(from, c.position, x, y)) return false;
    }
    return true;
  }

  bool isOpposite(const EdgeStar& star, int v) const {
    return v == star.opposite[0] || v == star.opposite[1];
  }

  bool hasTriangleOn(int v, int x, int y) const {
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (!live(t)) continue;
      const MeshTriangle& c = corners_[t];
      const bool hasX = c[0] == x || c[1] == x || c[2] == x;
      const bool hasY = c[0] == y || c[1] == y || c[2] == y;
      if (hasX && hasY) return true;
    }
    return false;
  }

  /// Performs the collapse and queues the survivor's edges anew.
  void apply(const Candidate& c, const EdgeStar& star) {
    for (int i = 0; i < star.shared; ++i) corners_[star.sharedTri[i]][0] = -1;
    liveTriangles_ -= star.shared;
    const int s = c.survivor, r = c.removed;
    const int begin = int(incidence_.size());
    appendLive(s);
    for (int i = 0; i < triangleCount(r); ++i) {
      const int t = trianglesOf(r)[i];
      if (!live(t)) continue;
      MeshTriangle& corners = corners_[t];
      for (int k = 0; k < 3; ++k) {
        if (corners[k] == r) corners[k] = s;
      }
      incidence_.push_back(t);
    }
    vertices_[s].listBegin = begin;
    vertices_[s].listCount = int(incidence_.size()) - begin;
    carryAttributes(c);
    vertices_[s].position.set(c.position.data());
    vertices_[s].quadric.add(vertices_[r].quadric);
    vertices_[s].flags |= vertices_[r].flags & kBoundary;
    mergedInto_[r] = s;
    lastChange_[r] = INT_MAX;
    lastChange_[s] = ++time_;
    queueAround(s);
  }

  void appendLive(int v) {
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (live(t)) incidence_.push_back(t);
    }
  }

  /// Normals and UVs of the survivor: interpolated along the edge at the
  /// projection of the new position.
  void carryAttributes(const Candidate& c) {
    if (normals_.empty() && uvs_.empty()) return;
    const int s = c.survivor, r = c.removed;
    const Point ps = position(s), pr = position(r);
    const Vector edge = pr - ps;
    const double length2 = edge.length2();
    const double w =
        length2 > 0 ? std::clamp(kxLinear::dot(c.position - ps, edge) / length2, 0.0, 1.0) : 0.0;
    if (!normals_.empty()) {
      const Vector n =
          kxLinear::normalized(normals_[s].asVector() * (1 - w) + normals_[r].asVector() * w);
      normals_[s].set(float(n.x), float(n.y), float(n.z));
    }
    if (!uvs_.empty()) {
      const MeshUV a = uvs_[s], b = uvs_[r];
      uvs_[s] = {float(a.u * (1 - w) + b.u * w), float(a.v * (1 - w) + b.v * w)};
    }
  }

  /// Queues the survivor's edges anew, and those refused edges of its
  /// neighbours that are due for a retry.
  void queueAround(int s) {
    VertexRecord& survivor = vertices_[s];
    survivor.flags &= ~kBlocked;
    survivor.retryShift = 0;
    survivor.retryCountdown = 0;
    ring_.clear();
    forEachNeighbour(s, [&](int w) {
      // The neighbours' quadrics are fetched together rather than one
      // cache miss after another as each error is computed.
      prefetchRecord(w);
      ring_.push_back(w);
    });
    blocked_.clear();
    for (int w : ring_) {
      queueEdge(s, w);
      if ((vertices_[w].flags & kBlocked) && retryDue(vertices_[w])) blocked_.push_back(w);
    }
    for (int w : blocked_) requeue(w);
  }

  /// Fetches the corners of v's triangles together, ahead of a walk.
  void prefetchFan(int v) const {
    for (int i = 0; i < triangleCount(v); ++i) __builtin_prefetch(&corners_[trianglesOf(v)[i]]);
  }

  void prefetchRecord(int v) const {
    const char* line = reinterpret_cast<const char*>(&vertices_[v]);
    __builtin_prefetch(line);
    __builtin_prefetch(line + 64);
  }

  static bool retryDue(VertexRecord& r) {
    if (r.retryCountdown > 0) {
      --r.retryCountdown;
      return false;
    }
    r.retryCountdown = (1u << r.retryShift) - 1;
    if (r.retryShift < 15) ++r.retryShift;
    return true;
  }

  /// Queues the edges from w to blocked neighbours (a refused edge leaves
  /// both its ends blocked) and unblocks w.
  void requeue(int w) {
    vertices_[w].flags &= ~kBlocked;
    forEachNeighbour(w, [&](int x) {
      if (vertices_[x].flags & kBlocked) queueEdge(w, x);
    });
  }

  /// Calls fn once for every vertex that shares a live triangle with v.
  template <class Fn>
  void forEachNeighbour(int v, Fn&& fn) {
    const unsigned stamp = nextStamp();
    for (int i = 0; i < triangleCount(v); ++i) {
      const int t = trianglesOf(v)[i];
      if (!live(t)) continue;
      int x, y;
      othersOf(t, v, x, y);
      for (int w : {x, y}) {
        if (vertices_[w].mark != stamp) vertices_[w].mark = stamp, fn(w);
      }
    }
  }

  /// Numbers the surviving vertices in order and maps every vertex to the
  /// survivor it merged into; returns the survivor count.
  int numberVertices(Remap& vertexMap) {
    std::vector<int> index(numVertices_, -1);
    int kept = 0;
    for (int v = 0; v < numVertices_; ++v) {
      if (mergedInto_[v] < 0) index[v] = kept++;
    }
    vertexMap.resize(numVertices_, kept);
    for (int v = 0; v < numVertices_; ++v) vertexMap.set(v, index[survivorOf(v)]);
    return kept;
  }

  /// The vertex v finally merged into, shortening the chains on the way.
  int survivorOf(int v) {
    int root = v;
    while (mergedInto_[root] >= 0) root = mergedInto_[root];
    while (mergedInto_[v] >= 0) {
      const int next = mergedInto_[v];
      mergedInto_[v] = root;
      v = next;
    }
    return root;
  }

  /// Writes value(v) of the surviving vertices, in order, to `out`.
  template <class T, class Value>
  void writeSurvivors(T* out, Value value) const {
    for (int v = 0; v < numVertices_; ++v) {
      if (mergedInto_[v] < 0) *out++ = value(v);
    }
  }

  static void writeTriangleNormals(const CompactMesh& mesh, MeshNormal* out) {
    const MeshVertex* p = mesh.getVertices();
    for (int t = 0; t < mesh.getNumTriangles(); ++t) {
      const MeshTriangle& c = mesh.getTriangles()[t];
      const Vector n = kxLinear::normalized(kxLinear::cross(p[c[1]].asPoint() - p[c[0]].asPoint(),
                                                            p[c[2]].asPoint() - p[c[0]].asPoint()));
      out[t].set(float(n.x), float(n.y), float(n.z));
    }
  }

  /// Lines and line strips follow the vertex map; triangle strips and fans
  /// described the old triangles and go.
  static void renumberOtherElements(CompactMesh& mesh, const Remap& vertexMap,
                                    MeshModification& mod) {
    if (mesh.getNumLines() > 0) {
      vertexMap(reinterpret_cast<int*>(mesh.getLines()), 2 * mesh.getNumLines());
      mod.linesModified();
    }
    if (mesh.getNumLineStrips() > 0) {
      vertexMap(mesh.getLineStripPoints(), mesh.getNumLineStripPoints());
      mod.lineStripsModified();
    }
    if (mesh.getNumTriStrips() > 0 || mesh.getNumTriFans() > 0) {
      mesh.resizeTriStripArrays(0, 0);
      mesh.resizeTriFanArrays(0, 0);
      mod.stripsAndFansModified();
    }
  }

  const MeshReduceOptions& options_;
  const int numVertices_, numTriangles_;
  std::vector<MeshTriangle> corners_;  // corner 0 is -1 once a triangle is gone
  std::vector<VertexRecord> vertices_;
  std::vector<MeshNormal> normals_;
  std::vector<MeshUV> uvs_;
  const double cosMaxChange_;
  std::vector<int> mergedInto_;  // -1 while the vertex survives
  // Time of each vertex's last change (INT_MAX once merged away), read for
  // every queued edge that surfaces: a dense array.
  std::vector<int> lastChange_;
  std::vector<int> incidence_;  // the vertices' triangle lists
  unsigned stamp_ = 0;
  std::vector<int> ring_, blocked_;
  EdgeQueue queue_;
  int time_ = 0;
  int liveTriangles_ = 0;
};

bool optionsValid(const MeshReduceOptions& o) {
  return o.targetTriangles >= 0 && o.targetFraction >= 0 && o.targetFraction <= 1 &&
         o.maxError >= 0 && o.boundaryWeight >= 0 && o.maxNormalChange >= 0 &&
         o.maxNormalChange <= 180;
}

/// The triangle count at which the count and fraction bounds are both met
/// first: the larger of the two.
int targetCount(const MeshReduceOptions& o, int triangles) {
  const double fraction = std::ceil(o.targetFraction * triangles);
  return std::max(o.targetTriangles, int(std::min(fraction, double(triangles))));
}

}  // namespace

MeshReduceResult meshReduce(CompactMesh& mesh, const MeshReduceOptions& options,
                            kxUtil::Progress& progress, Remap* remap) {
  kxOS::StopWatch watch;
  MeshReduceResult result;
  result.trianglesBefore = result.trianglesAfter = mesh.getNumTriangles();
  result.verticesBefore = result.verticesAfter = mesh.getNumVertices();
  Reducer reducer(mesh, options);
  if (!optionsValid(options) || !reducer.cornersValid()) {
    result.status = MeshReduceStatus::Invalid;
  } else {
    reducer.prepare(mesh.getSelectedVertices(), kxUtil::ThreadPool::get());
    const int target = targetCount(options, mesh.getNumTriangles());
    if (!reducer.collapse(target, progress, result)) {
      result.status = MeshReduceStatus::Cancelled;
    } else if (result.collapses == 0) {
      result.status = MeshReduceStatus::Unchanged;
      if (remap) {
        remap->resize(mesh.getNumVertices(), mesh.getNumVertices());
        remap->setSequential();
      }
    } else {
      Remap local;
      Remap& vertexMap = remap ? *remap : local;
      result.status = MeshReduceStatus::Reduced;
      result.verticesAfter = reducer.writeBack(mesh, vertexMap);
      result.trianglesAfter = reducer.liveTriangles();
      progress.set(1.0);
    }
  }
  debugChannel().print(
      "meshReduce: %d -> %d triangles, %d -> %d vertices, %d collapses, max error %g, "
      "status %d: %f s\n",
      result.trianglesBefore, result.trianglesAfter, result.verticesBefore, result.verticesAfter,
      result.collapses, result.maxError, int(result.status), watch.stop());
  return result;
}

}  // namespace kxGeom
