#include <kxgeom/smoothing.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

/// A new position waiting for the end of the pass.
struct StagedVertex {
  int index;
  float x, y, z;
};

/// Four floats added lane by lane (GCC and Clang vector extension).
typedef float Float4 __attribute__((vector_size(16)));

/// How often, in selected vertices, a pass polls its progress.
constexpr int kPollInterval = 1000;

int bitCount(std::uint32_t word) { return __builtin_popcount(word); }
int lowestBit(std::uint32_t word) { return __builtin_ctz(word); }

/// Selected vertices computed per parallel block. The walk and its polls run
/// on the calling thread, a block at a time, so a cancel is seen within one
/// block's work and the polls happen exactly as in a plain sequential walk.
constexpr int kBlock = 64 * kPollInterval;

/// Runs one staged pass: computes `newPosition(v)` for every selected vertex
/// from the unmodified mesh, block by block on `pool` (every vertex is
/// computed independently, so the result does not depend on the thread
/// count), then writes all results back in increasing vertex order and sends
/// the type-0 notice. Returns early, writing nothing, when cancelled.
template <class NewPosition>
void smoothSelected(CompactMesh& mesh, const MeshAdjVertices& adjacency, kxUtil::Progress& progress,
                    kxUtil::ThreadPool& pool, NewPosition&& newPosition) {
  const BitVector& selection = mesh.getSelectedVertices();
  const int n = mesh.getNumVertices();
  if (adjacency.getNumVertices() != n) return;
  const int end = std::min(n, selection.size());
  const int numSelected = selection.countSetBits();
  kx::vector<StagedVertex> staged(static_cast<std::size_t>(numSelected));
  int done = 0;
  for (int v = 0; v < end;) {
    const int blockBegin = done;
    while (v < end && done - blockBegin < kBlock) {
      if (done % kPollInterval == 0) {
        if (progress.cancelled()) return;
        progress.set((done + 1) / double(numSelected));
      } else if ((v & 31) == 0 && v + 32 <= end) {
        // A whole selection word at once when the count cannot reach the
        // next multiple of the poll interval inside it (so no vertex of the
        // word would poll, and the block cannot fill up).
        std::uint32_t word = selection.words()[v >> 5];
        if (done % kPollInterval + bitCount(word) < kPollInterval) {
          for (; word != 0; word &= word - 1) staged[done++].index = v + lowestBit(word);
          v += 32;
          continue;
        }
      }
      if (selection.isBitSet(v)) staged[done++].index = v;
      ++v;
    }
    kxUtil::forEachRange(pool, done - blockBegin, [&](int, int b, int e) {
      for (StagedVertex* s = &staged[blockBegin + b]; s != &staged[0] + blockBegin + e; ++s) {
        const MeshVertex p = newPosition(s->index);
        s->x = p.x, s->y = p.y, s->z = p.z;
      }
    });
  }
  MeshVertex* vertices = mesh.getVertices();
  for (int i = 0; i < done; ++i)
    vertices[staged[i].index].set(staged[i].x, staged[i].y, staged[i].z);
  MeshModification mod(&mesh, MeshModification::PositionsChanged, nullptr);
  mesh.modified(mod);
}

/// Gathers, depth-first from a centre vertex, the vertices within a radius
/// that are connected to the centre through such vertices, with their squared
/// distances and heights over the centre's tangent plane. The visit stamps
/// are reused across centres; they are cleared only when the stamp wraps.
class NeighbourhoodWalker {
 public:
  NeighbourhoodWalker(const CompactMesh& mesh, const MeshAdjVertices& adjacency, double radius)
      : radius2_(radius * radius),
        vertices_(mesh.getVertices()),
        adjacency_(adjacency),
        stamps_(static_cast<std::size_t>(mesh.getNumVertices()), 0) {
    stack_.reserve(1000);
    distances2_.reserve(1000);
    heights_.reserve(1000);
  }

  /// Fills distances2() and heights() for the centre v on `plane`.
  void gather(int v, const kxLinear::Plane& plane) {
    nextStamp();
    centre_ = plane.getPoint();
    distances2_.clear();
    heights_.clear();
    stamps_[v] = stamp_;
    pushNeighbours(v);
    while (!stack_.empty()) {
      const Entry e = stack_.back();
      stack_.pop_back();
      distances2_.push_back(e.distance2);
      heights_.push_back(plane.eval(vertices_[e.vertex].asPoint()));
      pushNeighbours(e.vertex);
    }
  }
  const kx::vector<double>& distances2() const { return distances2_; }
  const kx::vector<double>& heights() const { return heights_; }

 private:
  struct Entry {
    int vertex;
    double distance2;
  };

  void nextStamp() {
    stamp_ = static_cast<int>(static_cast<unsigned>(stamp_) + 1u);
    if (stamp_ == -1) {
      std::fill(stamps_.begin(), stamps_.end(), 0);
      stamp_ = 1;
    }
  }
  void pushNeighbours(int v) {
    const int count = adjacency_.numAdjVertices(v);
    const int* neighbours = adjacency_.adjVertices(v);
    for (int j = 0; j < count; ++j) {
      const int w = neighbours[j];
      if (stamps_[w] == stamp_) continue;
      stamps_[w] = stamp_;
      const double d2 = (vertices_[w].asPoint() - centre_).length2();
      if (d2 <= radius2_) stack_.push_back({w, d2});
    }
  }

  double radius2_;
  kx::vector<Entry> stack_;
  kxLinear::Point centre_;
  const MeshVertex* vertices_;
  const MeshAdjVertices& adjacency_;
  kx::vector<int> stamps_;
  int stamp_ = 1;
  kx::vector<double> distances2_;
  kx::vector<double> heights_;
};

/// The height, over the tangent plane, to which the bilateral filter moves
/// the centre; 0 when the neighbourhood is empty, flat or has no weight.
double bilateralOffset(const kx::vector<double>& distances2, const kx::vector<double>& heights,
                       double sigma) {
  const std::size_t m = heights.size();
  if (m == 0) return 0.0;
  double mean = 0.0;
  for (double h : heights) mean += h;
  mean /= double(m);
  double deviation2 = 0.0;
  for (double h : heights) deviation2 += (h - mean) * (h - mean);
  const double variance = (1.0 / double(m)) * deviation2;
  if (variance < kxLinear::epsilonTol) return 0.0;
  double sum = 0.0, norm = 0.0;
  for (std::size_t i = 0; i < m; ++i) {
    const double wc = std::exp(-distances2[i] / (2.0 * sigma * sigma));
    const double ws = std::exp(-heights[i] * heights[i] / (2.0 * variance));
    sum += wc * ws * heights[i];
    norm += wc * ws;
  }
  if (std::fabs(norm) < kxLinear::epsilonTol) return 0.0;
  return sum / norm;
}

}  // namespace

void meshSmoothLaplacian(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                         kxUtil::Progress& progress) {
  const MeshVertex* vertices = mesh.getVertices();
  const int lastVertex = mesh.getNumVertices() - 1;
  smoothSelected(mesh, adjacency, progress, kxUtil::ThreadPool::get(), [&](int v) {
    const int count = adjacency.numAdjVertices(v);
    const int* neighbours = adjacency.adjVertices(v);
    // x, y and z summed in the lanes of one 4-float vector: each lane adds
    // exactly as a scalar float sum would, in the same order. A vertex is
    // loaded with the next vertex's x as a fourth (ignored) float, except the
    // last vertex, which has no successor to read.
    Float4 sum = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int j = 0; j < count; ++j) {
      const int w = neighbours[j];
      Float4 q;
      if (w < lastVertex) {
        std::memcpy(&q, &vertices[w], sizeof q);
      } else {
        q = Float4{vertices[w].x, vertices[w].y, vertices[w].z, 0.0f};
      }
      sum += q;
    }
    const Float4 average = sum / float(count);
    return MeshVertex{average[0], average[1], average[2]};
  });
}

void meshSmoothBilateral(CompactMesh& mesh, const MeshAdjVertices& adjacency, double sigma,
                         kxUtil::Progress& progress) {
  const MeshNormal* normals = mesh.getNormals();
  if (!normals) return;
  const MeshVertex* vertices = mesh.getVertices();
  NeighbourhoodWalker walker(mesh, adjacency, sigma);
  // One walker, hence one visit-stamp array, for the whole pass: the pass
  // runs on the calling thread.
  smoothSelected(
      mesh, adjacency, progress, kxUtil::ThreadPool::getSingleThreadedPool(), [&](int v) {
        const kxLinear::Plane plane(vertices[v].asPoint(), normals[v].asVector());
        walker.gather(v, plane);
        const double offset = bilateralOffset(walker.distances2(), walker.heights(), sigma);
        MeshVertex moved = vertices[v];
        if (offset != 0.0) moved.set((plane.getPoint() + plane.getNormal() * offset).data());
        return moved;
      });
}

}  // namespace kxGeom
