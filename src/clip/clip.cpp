// Outcodes, point-set classification and polygon clipping.
#include <kxgeom/clip.h>

#include <utility>

namespace kxGeom {

namespace {

// Projects points one by one and classifies the set. `store(i, vertex)` sees
// every projected vertex until the pass ends; with `stopWhenInside` the pass
// ends at the first inside point and `*stopped` is set.
template <class Store>
Clip::Result classifyPoints(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix,
                            bool stopWhenInside, bool* stopped, Store store) {
  if (n < 1) return Clip::AllOutside;
  std::uint32_t common = ~0u;
  bool inside = false;
  for (int i = 0; i < n; ++i) {
    float h[4];
    matrix.transform(points + 3 * std::size_t(i), h);
    const Clip::Vertex v{h[0], h[1], h[2], h[3], Clip::computeOutcode(h[0], h[1], h[2], h[3])};
    store(i, v);
    if (v.outcode == 0) {
      inside = true;
      if (stopWhenInside) {
        *stopped = true;
        return Clip::SomeInside;
      }
    }
    common &= v.outcode;
  }
  if (inside) return Clip::SomeInside;
  return common == 0 ? Clip::Straddling : Clip::AllOutside;
}

// Signed distance-like value of a vertex for plane p (0..5 in the order xmin,
// xmax, ymin, ymax, zmin, zmax): f = s*v[axis] - d*w with s = -1, d = -min for
// a lower plane and s = +1, d = max for an upper one. Inside when f <= 0.
struct PlaneFunction {
  int axis;
  double s, d;

  PlaneFunction(int plane, const ClipBox& box)
      : axis(plane / 2),
        s((plane & 1) ? 1.0 : -1.0),
        d((plane & 1) ? box.bound(plane) : -box.bound(plane)) {}
  double operator()(const ClipVert& v) const { return s * v[axis] - d * v[3]; }
};

constexpr int kNumComponents = 16;

void appendIntersection(const ClipVert& prev, double fPrev, const ClipVert& cur, double fCur,
                        std::uint32_t mask, ClipVert& out) {
  const double t = fPrev / (fPrev - fCur);
  for (int k = 0; k < kNumComponents; ++k) {
    if (mask & (1u << k)) out[k] = prev[k] + (cur[k] - prev[k]) * t;
  }
}

// One Sutherland-Hodgman pass of `src` against a plane into `dst`. Writes stop
// at the capacity, which convex input of at most four vertices never reaches.
void clipAgainstPlane(const ClipPolygon& src, const PlaneFunction& f, ClipPolygon& dst) {
  dst.count = 0;
  const ClipVert* prev = &src.vertices[src.count - 1];
  double fPrev = f(*prev);
  for (int i = 0; i < src.count; ++i) {
    const ClipVert& cur = src.vertices[i];
    const double fCur = f(cur);
    const bool prevInside = fPrev <= 0.0, curInside = fCur <= 0.0;
    if (prevInside != curInside && dst.count < ClipPolygon::kCapacity) {
      appendIntersection(*prev, fPrev, cur, fCur, dst.mask, dst.vertices[dst.count++]);
    }
    if (curInside && dst.count < ClipPolygon::kCapacity) dst.vertices[dst.count++] = cur;
    prev = &cur;
    fPrev = fCur;
  }
}

}  // namespace

IntersectionResult clipTriangle(ClipPolygon& polygon, const ClipBox& box) {
  const int n = polygon.count;
  if (n < 0 || n > ClipPolygon::kCapacity) {
    polygon.count = 0;
    return Rejected;
  }
  int outside[6] = {0, 0, 0, 0, 0, 0};
  bool anyOutside = false;
  for (int p = 0; p < 6; ++p) {
    const PlaneFunction f(p, box);
    for (int i = 0; i < n; ++i) outside[p] += f(polygon.vertices[i]) > 0.0 ? 1 : 0;
    if (outside[p] == n && n > 0) {
      polygon.count = 0;
      return Rejected;
    }
    anyOutside = anyOutside || outside[p] > 0;
  }
  if (!anyOutside) return Accepted;

  // Zeroed so that unmasked components of new vertices are defined.
  ClipPolygon temp{};
  temp.mask = polygon.mask;
  ClipPolygon* src = &polygon;
  ClipPolygon* dst = &temp;
  for (int p = 0; p < 6; ++p) {
    if (outside[p] == 0) continue;
    clipAgainstPlane(*src, PlaneFunction(p, box), *dst);
    std::swap(src, dst);
    if (src->count == 0) {
      polygon.count = 0;
      return Rejected;
    }
  }
  if (src == &temp) {
    polygon.count = temp.count;
    polygon.mask = temp.mask;
    for (int i = 0; i < temp.count; ++i) polygon.vertices[i] = temp.vertices[i];
  }
  return Clipped;
}

namespace Clip {

std::uint32_t computeOutcode(float x, float y, float z, float w) {
  std::uint32_t code = 0;
  if (x < -w) code |= OutXMin;
  if (x > w) code |= OutXMax;
  if (y < -w) code |= OutYMin;
  if (y > w) code |= OutYMax;
  if (z < -w) code |= OutZMin;
  if (z > w) code |= OutZMax;
  return code;
}

Result clipVertices(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix) {
  bool stopped = false;
  return classifyPoints(points, n, matrix, true, &stopped, [](int, const Vertex&) {});
}

Result clipVertices(const PointMesh& mesh, const kxLinear::ProjMatrixFlt& matrix) {
  return clipVertices(mesh.getVerticesRaw(), mesh.getNumVertices(), matrix);
}

bool evaluatePoint(const float* point, const kxLinear::ProjMatrixFlt& matrix) {
  return clipVertices(point, 1, matrix) == SomeInside;
}

Result projectVertices(const float* points, int n, const kxLinear::ProjMatrixFlt& matrix,
                       kx::vector<Vertex>& out, bool stopWhenInside) {
  out.resize(std::size_t(n > 0 ? n : 0));
  Vertex* dst = out.data();
  bool stopped = false;
  const Result r = classifyPoints(points, n, matrix, stopWhenInside, &stopped,
                                  [dst](int i, const Vertex& v) { dst[i] = v; });
  if (stopped) out.clear();
  return r;
}

Result projectVertices(const PointMesh& mesh, const kxLinear::ProjMatrixFlt& matrix,
                       kx::vector<Vertex>& out, bool stopWhenInside) {
  return projectVertices(mesh.getVerticesRaw(), mesh.getNumVertices(), matrix, out, stopWhenInside);
}

}  // namespace Clip

}  // namespace kxGeom
