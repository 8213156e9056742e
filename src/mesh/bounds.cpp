#include <kxgeom/bounds.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

// Four floats in one vector register (a GNU vector extension that g++ and
// clang++ both lower to SSE/NEON min/max for the selects below).
using Float4 = float __attribute__((vector_size(16)));

Float4 load4(const float* p) {
  Float4 r;
  std::memcpy(&r, p, sizeof(r));
  return r;
}

// A running box in six floats, small enough to live in registers.
struct Extent {
  float lo[3], hi[3];

  explicit Extent(const BoundingBox& b) : lo{b[0], b[1], b[2]}, hi{b[3], b[4], b[5]} {}
  // Folds in a box given by its minimum and maximum corners: replace the
  // minimum if smaller, the maximum if larger, written as selects so it
  // compiles to branch-free min/max (a NaN never replaces).
  void fold(const float* otherLo, const float* otherHi) {
    for (int k = 0; k < 3; ++k) {
      lo[k] = otherLo[k] < lo[k] ? otherLo[k] : lo[k];
      hi[k] = otherHi[k] > hi[k] ? otherHi[k] : hi[k];
    }
  }
  void add(const float* p) { fold(p, p); }
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
  // Four vertices (twelve floats, three 4-float vectors) per step, each
  // float position with its own running minimum and maximum: the chains are
  // independent and use vector min/max. Lane j of vector r holds component
  // (4 r + j) % 3.
  void addAll(int begin, int end, Extent& extent) const {
    const float* v = vertices_ + 3 * std::ptrdiff_t(begin);
    Float4 lo[3], hi[3];
    for (int r = 0; r < 3; ++r) {
      for (int j = 0; j < 4; ++j) {
        lo[r][j] = extent.lo[(4 * r + j) % 3];
        hi[r][j] = extent.hi[(4 * r + j) % 3];
      }
    }
    int i = begin;
    for (; i + 4 <= end; i += 4, v += 12) {
      for (int r = 0; r < 3; ++r) {
        const Float4 p = load4(v + 4 * r);
        lo[r] = p < lo[r] ? p : lo[r];
        hi[r] = p > hi[r] ? p : hi[r];
      }
    }
    for (; i < end; ++i, v += 3) extent.add(v);
    float flat[2][12];
    std::memcpy(flat[0], lo, sizeof(lo));
    std::memcpy(flat[1], hi, sizeof(hi));
    for (int j = 0; j < 12; j += 3) extent.fold(flat[0] + j, flat[1] + j);
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
