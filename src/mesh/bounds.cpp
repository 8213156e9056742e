#include <kxgeom/bounds.h>

#include <algorithm>
#include <cstdint>

#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

// A running box kept in six locals so the compiler can hold it in registers.
struct Extent {
  float lo[3], hi[3];

  explicit Extent(const BoundingBox& b) : lo{b[0], b[1], b[2]}, hi{b[3], b[4], b[5]} {}
  void add(const float* p) {
    for (int k = 0; k < 3; ++k) {
      if (p[k] < lo[k]) lo[k] = p[k];
      if (p[k] > hi[k]) hi[k] = p[k];
    }
  }
  BoundingBox box() const { return BoundingBox(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]); }
};

// One box per thread over its contiguous vertex range; with a filter only
// the vertices whose bit is set count.
class BoundingBoxAlg : public kxUtil::ThreadedAlg<BoundingBox> {
 public:
  BoundingBoxAlg(const float* vertices, int n, const BitVector* filter)
      : ThreadedAlg(n), vertices_(vertices), filter_(filter) {}

 protected:
  void process(int, int begin, int end, BoundingBox& partial) override {
    Extent extent(partial);
    if (filter_) {
      addSelected(begin, std::min(end, filter_->size()), extent);
    } else {
      addAll(begin, end, extent);
    }
    partial = extent.box();
  }

 private:
  void addAll(int begin, int end, Extent& extent) const {
    const float* v = vertices_ + 3 * std::ptrdiff_t(begin);
    int i = begin;
    for (; i + 4 <= end; i += 4, v += 12) {
      extent.add(v);
      extent.add(v + 3);
      extent.add(v + 6);
      extent.add(v + 9);
    }
    for (; i < end; ++i, v += 3) extent.add(v);
  }
  // Reads the filter's 32-bit words directly and skips empty words whole.
  void addSelected(int begin, int end, Extent& extent) const {
    const std::uint32_t* words = filter_->words();
    for (int i = begin; i < end;) {
      const std::uint32_t word = words[i >> 5];
      if (word == 0 && (i & 31) == 0) {
        i += 32;
        continue;
      }
      if ((word >> (i & 31)) & 1u) extent.add(vertices_ + 3 * std::ptrdiff_t(i));
      ++i;
    }
  }

  const float* vertices_;
  const BitVector* filter_;
};

}  // namespace

void meshBoundingBox(const PointMesh& mesh, const BitVector* filter, BoundingBox& box) {
  kxOS::StopWatch watch;
  const int n = mesh.getNumVertices();
  BoundingBoxAlg alg(mesh.getVerticesRaw(), n, filter);
  kxUtil::ThreadPool::get().run(alg);
  const auto& partials = alg.results();
  BoundingBox result = partials[0];
  for (std::size_t t = 1; t < partials.size(); ++t) result.extend(partials[t]);
  box = result;
  debugChannel().print("meshBoundingBox: %d vertices  %f s\n", n, watch.clear());
}

void meshBoundingBox(const PointMesh& mesh, BoundingBox& box) {
  meshBoundingBox(mesh, nullptr, box);
}

void meshBoundingBox(const PointMesh& mesh, double* const minimum, double* const maximum) {
  BoundingBox box;
  meshBoundingBox(mesh, nullptr, box);
  for (int k = 0; k < 3; ++k) {
    minimum[k] = box[k];
    maximum[k] = box[k + 3];
  }
}

void arrangementBoundingBox(const kx::list<MeshPlacement>& placements, BoundingBox& box) {
  kxOS::StopWatch watch;
  BoundingBox result;
  for (const MeshPlacement& placement : placements) {
    BoundingBox part;
    meshBoundingBox(*placement.mesh, part);
    part.transform(placement.transform);
    result.extend(part);
  }
  box = result;
  debugChannel().print("arrangementBoundingBox: %d meshes  %f s\n", int(placements.size()),
                       watch.clear());
}

}  // namespace kxGeom
