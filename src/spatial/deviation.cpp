#include <kxgeom/deviation.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include <kxgeom/closest_point.h>
#include <kxgeom/mesh_cache.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

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

// What `MeshClosestPoint::compute` returns when b offers no point.
double noAnswer() { return std::sqrt(std::numeric_limits<double>::max()); }

// Running statistics of one block.
struct Tally {
  double sum = 0, sum2 = 0, maximum = -1;
  std::int64_t points = 0, unanswered = 0;
  Point farthest;

  void add(double d, const Point& p) {
    if (!(d < noAnswer())) {
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

// One measurement of a against b: the per-thread searches, the staged vertex
// distances and the running totals.
class Measurement {
 public:
  Measurement(const CompactMesh& a, const CompactMesh& b, const Octree& octree,
              const OctreeTris& tris, double spacing, bool keepDistances)
      : a_(a), b_(b), octree_(octree), tris_(tris), spacing_(spacing) {
    finders_.resize(std::size_t(kxUtil::ThreadPool::get().numThreads()));
    if (keepDistances) distances_.assign(std::size_t(a.getNumVertices()), 0.0);
  }

  bool sampling() const { return spacing_ > 0; }
  kx::vector<double>& distances() { return distances_; }
  Tally& total() { return total_; }

  void measureVertices(int thread, int begin, int end, Tally& tally) {
    MeshClosestPoint& finder = finderOf(thread);
    const MeshVertex* vertices = a_.getVertices();
    for (int v = begin; v < end; ++v) {
      const Point p = vertices[v].asPoint();
      const double d = isFinite(p) ? finder.compute(p, nullptr) : kNaN;
      if (!distances_.empty()) distances_[std::size_t(v)] = d < noAnswer() ? d : kNaN;
      if (isFinite(p)) tally.add(d, p);
    }
  }

  void measureSamples(int thread, int begin, int end, Tally& tally) {
    MeshClosestPoint& finder = finderOf(thread);
    for (int t = begin; t < end; ++t) {
      Point c[3];
      for (int k = 0; k < 3; ++k) c[k] = a_.getVertices()[a_.getTriangles()[t][k]].asPoint();
      if (!isFinite(c[0]) || !isFinite(c[1]) || !isFinite(c[2])) continue;
      forEachSample(c, splitsOf(c, spacing_),
                    [&](const Point& p) { tally.add(finder.compute(p, nullptr), p); });
    }
  }

 private:
  static constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

  // Each pool thread builds its search on first use; none is shared.
  MeshClosestPoint& finderOf(int thread) {
    std::unique_ptr<MeshClosestPoint>& finder = finders_[std::size_t(thread)];
    if (!finder) finder.reset(new MeshClosestPoint(b_, octree_, tris_));
    return *finder;
  }

  const CompactMesh& a_;
  const CompactMesh& b_;
  const Octree& octree_;
  const OctreeTris& tris_;
  double spacing_;
  std::vector<std::unique_ptr<MeshClosestPoint>> finders_;
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
                   const OctreeTris& bTris, const MeshDeviationOptions& options,
                   MeshDeviation& result, kxUtil::Progress& progress,
                   kx::vector<double>* vertexDistances) {
  kxOS::StopWatch watch;
  if (b.getNumTriangles() == 0) return false;
  Measurement measurement(a, b, bOctree, bTris, options.sampleSpacing, vertexDistances != nullptr);
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
  return meshDeviation(a, b, cache.getOctree(), cache.getOctreeTris(), options, result, progress,
                       vertexDistances);
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
