#include <kxgeom/deviation.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include <kxgeom/mesh_cache.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/predicates.h>

#include "spatial/triangle_closest.h"

namespace kxGeom {

namespace {

using kxLinear::Point;
using kxLinear::Vector;

// Vertices and triangles per block: fixed, so that the blocks and the order
// their tallies are folded in do not depend on the thread count.
constexpr int kVertexBlock = 1024;
constexpr int kTriangleBlock = 128;
// Blocks run between two progress updates on the calling thread.
constexpr int kBlocksPerSlice = 64;
// The most splits of a triangle edge when sampling.
constexpr int kMaxSplits = 256;

bool isFinite(const Point& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// Running statistics of one block.
struct Tally {
  double sum = 0, sum2 = 0, maximum = -1;
  std::int64_t points = 0, unanswered = 0;
  Point farthest;

  // An infinite distance: b offered no triangle.
  void add(double d, const Point& p) {
    if (!std::isfinite(d)) {
      ++unanswered;
      return;
    }
    sum += d;
    sum2 += d * d;
    ++points;
    if (d > maximum) {
      maximum = d;
      farthest = p;
    }
  }
  // Strictly larger maxima replace: the first point in order wins a tie.
  Tally& operator+=(const Tally& o) {
    sum += o.sum;
    sum2 += o.sum2;
    points += o.points;
    unanswered += o.unanswered;
    if (o.maximum > maximum) {
      maximum = o.maximum;
      farthest = o.farthest;
    }
    return *this;
  }
};

// Splits per edge of a triangle with corners c for the given spacing.
int splitsOf(const Point c[3], double spacing) {
  const double longest2 =
      std::max({(c[1] - c[0]).length2(), (c[2] - c[1]).length2(), (c[0] - c[2]).length2()});
  const double n = std::ceil(std::sqrt(longest2) / spacing);
  return n < 1 ? 1 : (n > kMaxSplits ? kMaxSplits : int(n));
}

// Calls visit(p) for the centroid of each of the n^2 small triangles of the
// n-fold split of triangle c: those pointing like c, then the others, in
// rows along c[0] -> c[1].
template <class Visit>
void forEachSample(const Point c[3], int n, Visit&& visit) {
  const Vector u = (c[1] - c[0]) / double(n), v = (c[2] - c[0]) / double(n);
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i + j < n; ++i) visit(c[0] + u * (i + 1.0 / 3) + v * (j + 1.0 / 3));
  }
  for (int j = 0; j + 1 < n; ++j) {
    for (int i = 0; i + j + 1 < n; ++i) visit(c[0] + u * (i + 2.0 / 3) + v * (j + 2.0 / 3));
  }
}

// Squared distance from p to a box of six floats (minimum, then maximum), in
// double precision, so that pruning by it is as exact as the triangle
// distances it is compared with.
double boxDistance2(const float* box, const Point& p) {
  double d2 = 0;
  for (int k = 0; k < 3; ++k) {
    const double gap = std::max(double(box[k]) - p[k], p[k] - double(box[k + 3]));
    if (gap > 0) d2 += gap * gap;
  }
  return d2;
}

// True when a lower bound shows that nothing nearer than `best2` lies behind
// it. The margin, far above rounding, keeps every triangle whose computed
// distance could still win, so the answer is the least computed distance
// whatever the order of the walk.
bool beyond(double bound2, double best2) { return bound2 > best2 * (1 + 1e-12); }

bool isFinite(const BoundingBox& box) {
  for (int k = 0; k < 6; ++k) {
    if (!std::isfinite(box[k])) return false;
  }
  return true;
}

// b's triangles grouped by the octree leaf that holds their first corner,
// with the box of every triangle and of every octree node over the triangles
// grouped below it: a bounding-volume hierarchy on the octree's cells. It
// needs no exact box-triangle tests (as per-leaf triangle lists do), only
// O(V + T) work; each triangle is met in one leaf, and the node boxes bound
// what lies below them, so a search pruned by them stays exact. Triangles
// with a non-finite corner are left out.
class TriangleGroups {
 public:
  TriangleGroups(const CompactMesh& b, const Octree& octree)
      : nodes_(octree.getRoot().getNode()),
        nodeBoxes_(std::size_t(octree.getNumNodes())),
        occupied_(std::size_t(octree.getNumNodes()), 0),
        starts_(std::size_t(octree.numLeaves) + 1, 0) {
    const kx::vector<int> leafOf = leafOfVertex(octree, b.getNumVertices());
    group(b, leafOf);
    boundNodes();
  }

  const OctreeNode& node(int i) const { return nodes_[i]; }
  const BoundingBox& nodeBox(int i) const { return nodeBoxes_[std::size_t(i)]; }
  // Bit k set when child k of inner node i holds triangles.
  unsigned occupied(int i) const { return occupied_[std::size_t(i)]; }
  bool empty() const { return nodeBoxes_.empty() || !nodeBoxes_[0].isValid(); }
  // Entries [begin(voxel), begin(voxel + 1)) are the triangles of a leaf.
  int begin(int voxel) const { return starts_[std::size_t(voxel)]; }
  int triangle(int entry) const { return triangles_[std::size_t(entry)]; }
  const BoundingBox& box(int entry) const { return boxes_[std::size_t(entry)]; }

 private:
  static kx::vector<int> leafOfVertex(const Octree& octree, int numVertices) {
    kx::vector<int> leafOf(std::size_t(numVertices), -1);
    const OctreeNode* nodes = octree.getRoot().getNode();
    const int* points = octree.getPointIndices();
    for (int i = 0; i < octree.getNumNodes(); ++i) {
      if (!nodes[i].leaf) continue;
      for (int k = nodes[i].first; k < nodes[i].end; ++k)
        leafOf[std::size_t(points[k])] = nodes[i].voxel;
    }
    return leafOf;
  }

  // Counting sort of the finite triangles by leaf, ascending within a leaf.
  void group(const CompactMesh& b, const kx::vector<int>& leafOf) {
    const std::size_t m = std::size_t(b.getNumTriangles());
    const float* vertices = b.getVerticesRaw();
    const int* corners = b.getTrianglesRaw();
    kx::vector<BoundingBox> boxes(m);
    kx::vector<int> leaf(m);
    for (std::size_t t = 0; t < m; ++t) {
      const int* tri = corners + 3 * t;
      meshTriBoundingBox(vertices + 3 * std::size_t(tri[0]), vertices + 3 * std::size_t(tri[1]),
                         vertices + 3 * std::size_t(tri[2]), boxes[t]);
      leaf[t] = isFinite(boxes[t]) ? leafOf[std::size_t(tri[0])] : -1;
      if (leaf[t] >= 0) ++starts_[std::size_t(leaf[t]) + 1];
    }
    for (std::size_t v = 1; v < starts_.size(); ++v) starts_[v] += starts_[v - 1];
    triangles_.resize(std::size_t(starts_.back()));
    boxes_.resize(triangles_.size());
    kx::vector<int> next(starts_.begin(), starts_.end() - 1);
    for (std::size_t t = 0; t < m; ++t) {
      if (leaf[t] < 0) continue;
      const std::size_t entry = std::size_t(next[std::size_t(leaf[t])]++);
      triangles_[entry] = int(t);
      boxes_[entry] = boxes[t];
    }
  }

  // Children follow their parent in the node array, so one backward sweep
  // bounds every node after its children and notes which hold triangles.
  void boundNodes() {
    for (int i = int(nodeBoxes_.size()) - 1; i >= 0; --i) {
      BoundingBox& box = nodeBoxes_[std::size_t(i)];
      box.setInvalid();
      const OctreeNode& n = nodes_[i];
      if (n.leaf) {
        for (int e = begin(n.voxel); e < begin(n.voxel + 1); ++e)
          box.extend(boxes_[std::size_t(e)]);
      } else {
        for (int k = 0; k < 8; ++k) {
          const BoundingBox& child = nodeBoxes_[std::size_t(i + n.children + k)];
          box.extend(child);
          if (child.isValid()) occupied_[std::size_t(i)] |= 1u << k;
        }
      }
    }
  }

  const OctreeNode* nodes_;
  kx::vector<BoundingBox> nodeBoxes_;
  kx::vector<std::uint8_t> occupied_;
  kx::vector<int> starts_;
  kx::vector<int> triangles_;
  kx::vector<BoundingBox> boxes_;
};

// Nearest triangle of b to a run of points that lie close to one another, as
// a's vertices and samples do in measuring order. The node boxes are walked
// depth first, nearer ones first, pruned by the best distance so far; the
// walk starts from the distance to the previous point's nearest triangle,
// which for nearby points is already close to the answer, so only the nodes
// around the point are opened.
class NearestTriangle {
 public:
  NearestTriangle(const CompactMesh& b, const TriangleGroups& groups) : b_(b), groups_(groups) {}

  // Distance from p (finite) to b; infinite when b offers no triangle.
  double distance(const Point& p) {
    double best2 = std::numeric_limits<double>::infinity();
    if (previous_ >= 0) best2 = triangleDistance2(previous_, p);
    if (!groups_.empty()) stack_.push_back({boxDistance2(groups_.nodeBox(0).data(), p), 0});
    while (!stack_.empty()) {
      const Cell cell = stack_.back();
      stack_.pop_back();
      if (beyond(cell.distance2, best2)) continue;
      const OctreeNode& node = groups_.node(cell.node);
      if (node.leaf) {
        scanLeaf(node.voxel, p, best2);
      } else {
        pushChildren(cell.node, p, best2);
      }
    }
    return std::sqrt(best2);
  }

 private:
  struct Cell {
    double distance2;
    int node;
  };

  // Pushes the children of `parent` that hold triangles and may hold one
  // nearer than `best2`, the nearest last so that it is opened first.
  void pushChildren(int parent, const Point& p, double best2) {
    const int first = parent + groups_.node(parent).children;
    const std::size_t bottom = stack_.size();
    for (unsigned mask = groups_.occupied(parent); mask != 0; mask &= mask - 1) {
      const int child = first + __builtin_ctz(mask);
      const double d2 = boxDistance2(groups_.nodeBox(child).data(), p);
      if (beyond(d2, best2)) continue;
      stack_.push_back({d2, child});
      for (std::size_t i = stack_.size() - 1; i > bottom && stack_[i - 1].distance2 < d2; --i) {
        std::swap(stack_[i], stack_[i - 1]);
      }
    }
  }

  void scanLeaf(int voxel, const Point& p, double& best2) {
    for (int e = groups_.begin(voxel), end = groups_.begin(voxel + 1); e < end; ++e) {
      if (beyond(boxDistance2(groups_.box(e).data(), p), best2)) continue;
      const int t = groups_.triangle(e);
      const double d2 = triangleDistance2(t, p);
      if (d2 < best2) {
        best2 = d2;
        previous_ = t;
      }
    }
  }

  // Squared distance from p to grouped (so finite) triangle t.
  double triangleDistance2(int t, const Point& p) const {
    const float* vertices = b_.getVerticesRaw();
    const int* tri = b_.getTrianglesRaw() + 3 * std::size_t(t);
    const Point c[3] = {Point::from(vertices + 3 * std::size_t(tri[0])),
                        Point::from(vertices + 3 * std::size_t(tri[1])),
                        Point::from(vertices + 3 * std::size_t(tri[2]))};
    double w[3];
    closest::triangleClosestWeights(p, c, w);
    return (kxLinear::combine(c[0], w[0], c[1], w[1], c[2], w[2]) - p).length2();
  }

  const CompactMesh& b_;
  const TriangleGroups& groups_;
  kx::vector<Cell> stack_;
  int previous_ = -1;
};

// One measurement of a against b: the per-thread searches, the staged vertex
// distances and the running totals.
class Measurement {
 public:
  Measurement(const CompactMesh& a, const CompactMesh& b, const Octree& octree, double spacing,
              bool keepDistances)
      : a_(a), spacing_(spacing), groups_(b, octree) {
    const int threads = kxUtil::ThreadPool::get().numThreads();
    for (int t = 0; t < threads; ++t) searches_.emplace_back(b, groups_);
    if (keepDistances) distances_.assign(std::size_t(a.getNumVertices()), 0.0);
  }

  bool sampling() const { return spacing_ > 0; }
  kx::vector<double>& distances() { return distances_; }
  Tally& total() { return total_; }

  void measureVertices(int thread, int begin, int end, Tally& tally) {
    NearestTriangle& search = searches_[std::size_t(thread)];
    const MeshVertex* vertices = a_.getVertices();
    for (int v = begin; v < end; ++v) {
      const Point p = vertices[v].asPoint();
      const double d = isFinite(p) ? search.distance(p) : kNaN;
      if (!distances_.empty()) distances_[std::size_t(v)] = std::isfinite(d) ? d : kNaN;
      if (isFinite(p)) tally.add(d, p);
    }
  }

  void measureSamples(int thread, int begin, int end, Tally& tally) {
    NearestTriangle& search = searches_[std::size_t(thread)];
    for (int t = begin; t < end; ++t) {
      Point c[3];
      for (int k = 0; k < 3; ++k) c[k] = a_.getVertices()[a_.getTriangles()[t][k]].asPoint();
      if (!isFinite(c[0]) || !isFinite(c[1]) || !isFinite(c[2])) continue;
      forEachSample(c, splitsOf(c, spacing_),
                    [&](const Point& p) { tally.add(search.distance(p), p); });
    }
  }

 private:
  static constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

  const CompactMesh& a_;
  double spacing_;
  TriangleGroups groups_;
  std::vector<NearestTriangle> searches_;
  kx::vector<double> distances_;
  Tally total_;
};

// Runs the vertex or the sample measurement over [first, first + count) in
// blocks, one tally per block.
class MeasurePass final : public kxUtil::ThreadedChunkAlg<Tally> {
 public:
  MeasurePass(Measurement& measurement, bool samples, int first, int count)
      : ThreadedChunkAlg(count, samples ? kTriangleBlock : kVertexBlock),
        measurement_(measurement),
        samples_(samples),
        first_(first) {}

 protected:
  void process(int thread, int begin, int end, Tally& tally) override {
    if (samples_) {
      measurement_.measureSamples(thread, first_ + begin, first_ + end, tally);
    } else {
      measurement_.measureVertices(thread, first_ + begin, first_ + end, tally);
    }
  }

 private:
  Measurement& measurement_;
  bool samples_;
  int first_;
};

// Measures the vertices (or the triangles' samples) slice by slice, folding
// the block tallies in order; false when cancelled. `done` and `total`
// count items of both kinds for the progress.
bool runSlices(Measurement& measurement, bool samples, int count, int& done, int total,
               kxUtil::Progress& progress) {
  const int slice = kBlocksPerSlice * (samples ? kTriangleBlock : kVertexBlock);
  for (int first = 0; first < count; first += slice) {
    if (progress.cancelled()) return false;
    MeasurePass pass(measurement, samples, first, std::min(slice, count - first));
    pass.setProgress(&progress);
    kxUtil::ThreadPool::get().run(pass);
    if (progress.cancelled()) return false;
    for (const Tally& tally : pass.results()) measurement.total() += tally;
    done += std::min(slice, count - first);
    progress.set(double(done) / total);
  }
  return true;
}

}  // namespace

bool meshDeviation(const CompactMesh& a, const CompactMesh& b, const Octree& bOctree,
                   const MeshDeviationOptions& options, MeshDeviation& result,
                   kxUtil::Progress& progress, kx::vector<double>* vertexDistances) {
  kxOS::StopWatch watch;
  if (b.getNumTriangles() == 0 || bOctree.getNumPoints() != b.getNumVertices()) return false;
  Measurement measurement(a, b, bOctree, options.sampleSpacing, vertexDistances != nullptr);
  const int numVertices = a.getNumVertices();
  const int numTriangles = measurement.sampling() ? a.getNumTriangles() : 0;
  int done = 0;
  const int total = std::max(1, numVertices + numTriangles);
  if (!runSlices(measurement, false, numVertices, done, total, progress) ||
      !runSlices(measurement, true, numTriangles, done, total, progress)) {
    return false;
  }
  const Tally& tally = measurement.total();
  debugChannel().print(
      "meshDeviation: %d vertices %d triangles to %d triangles: %lld points, maximum %g %f s\n",
      numVertices, a.getNumTriangles(), b.getNumTriangles(), static_cast<long long>(tally.points),
      tally.maximum, watch.stop());
  if (tally.points == 0 || tally.unanswered > 0) return false;
  result.maximum = tally.maximum;
  result.mean = tally.sum / double(tally.points);
  result.rms = std::sqrt(tally.sum2 / double(tally.points));
  result.points = tally.points;
  result.farthest = tally.farthest;
  if (vertexDistances) vertexDistances->swap(measurement.distances());
  return true;
}

bool meshDeviation(const CompactMesh& a, const CompactMesh& b, const MeshDeviationOptions& options,
                   MeshDeviation& result, kxUtil::Progress& progress,
                   kx::vector<double>* vertexDistances) {
  SimpleMeshCache cache(b);
  return meshDeviation(a, b, cache.getOctree(), options, result, progress, vertexDistances);
}

bool meshSymmetricDeviation(const CompactMesh& a, const CompactMesh& b,
                            const MeshDeviationOptions& options, double& hausdorff,
                            kxUtil::Progress& progress, MeshDeviation* aToB, MeshDeviation* bToA) {
  MeshDeviation forward, backward;
  kxUtil::Progress first, second;
  progress.subPhase(0.5, first);
  if (!meshDeviation(a, b, options, forward, first)) return false;
  progress.subPhase(0.5, second);
  if (!meshDeviation(b, a, options, backward, second)) return false;
  hausdorff = std::max(forward.maximum, backward.maximum);
  if (aToB) *aToB = forward;
  if (bToA) *bToA = backward;
  return true;
}

}  // namespace kxGeom
