// Vertex welding: merging vertices that coincide so that touching triangles
// share indices, reported through a `Remap` and one change notice.
#pragma once

#include <cmath>

#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// Decides whether two vertices of one sorted group are the same vertex.
/// Implementations must be callable from the calling thread only (the weld
/// scan is sequential); they may keep state.
class KXGEOM_API IMeshVertexEqualityChecker {
 public:
  virtual ~IMeshVertexEqualityChecker();
  /// [in] representative  the current group's first vertex (three floats).
  /// [in] candidate       the next vertex in sorted order (three floats).
  /// Both are copies of the positions in which a -0 coordinate reads as +0
  /// (the sort does not tell the two zeros apart).
  /// Returns true to merge the candidate into the group.
  virtual bool equal(const float* representative, const float* candidate) = 0;
};

/// Exact equality: x, y and z compare equal as floats, so a NaN coordinate
/// never matches and +0 equals -0.
class KXGEOM_API DefaultMeshVertexEqualityChecker : public IMeshVertexEqualityChecker {
 public:
  bool equal(const float* representative, const float* candidate) override;
};

namespace weldDetail {
// Lexicographic strict order on `count` floats. NaN sorts after every number
// and NaNs are equivalent to each other, so the order stays a strict weak
// order on any input (std::sort would otherwise run off the array). Returns
// -1, 0 or 1 for less, equivalent, greater.
inline int compareFloats(const float* a, const float* b, int count) {
  for (int k = 0; k < count; ++k) {
    if (a[k] < b[k]) return -1;
    if (b[k] < a[k]) return 1;
    if (a[k] != b[k]) {
      const bool nanA = std::isnan(a[k]), nanB = std::isnan(b[k]);
      if (nanA != nanB) return nanA ? 1 : -1;
    }
  }
  return 0;
}
}  // namespace weldDetail

/// Orders vertex indices by position: x, then y, then z; ties by index, so
/// the order is total and every sort of the same indices gives one result.
/// [in] vertices  raw vertex array (three floats per vertex), not owned.
/// Cost O(1) per comparison. Thread safety: const, shareable.
struct VertexCompare {
  const float* vertices;

  explicit VertexCompare(const float* v) : vertices(v) {}
  bool operator()(int a, int b) const {
    const int c = weldDetail::compareFloats(vertices + 3 * a, vertices + 3 * b, 3);
    return c != 0 ? c < 0 : a < b;
  }
};

/// Orders by position, then the vertex normal's three components, then index.
/// [in] vertices, normals  raw arrays (three floats per vertex), not owned.
struct VertexNormalCompare {
  const float* vertices;
  const float* normals;

  VertexNormalCompare(const float* v, const float* n) : vertices(v), normals(n) {}
  bool operator()(int a, int b) const {
    int c = weldDetail::compareFloats(vertices + 3 * a, vertices + 3 * b, 3);
    if (c == 0) c = weldDetail::compareFloats(normals + 3 * a, normals + 3 * b, 3);
    return c != 0 ? c < 0 : a < b;
  }
};

/// Orders by position, then normal, then the UV's two components, then index.
/// [in] vertices, normals  three floats per vertex; uvs  two floats per vertex.
struct VertexNormalUVCompare {
  const float* vertices;
  const float* normals;
  const float* uvs;

  VertexNormalUVCompare(const float* v, const float* n, const float* uv)
      : vertices(v), normals(n), uvs(uv) {}
  bool operator()(int a, int b) const {
    int c = weldDetail::compareFloats(vertices + 3 * a, vertices + 3 * b, 3);
    if (c == 0) c = weldDetail::compareFloats(normals + 3 * a, normals + 3 * b, 3);
    if (c == 0) c = weldDetail::compareFloats(uvs + 2 * a, uvs + 2 * b, 2);
    return c != 0 ? c < 0 : a < b;
  }
};

/// Welds the vertices of `mesh` with exact equality; the renumbering is
/// discarded. See the full form.
KXGEOM_API void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress);

/// Welds with exact equality.
/// [out] remap  old vertex index -> new vertex index. See the full form.
KXGEOM_API void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress, Remap& remap);

/// Merges vertices that the checker reports equal after sorting.
///
/// Vertices are sorted by position; given normals (a normal array whose
/// `getNormalsComputed()` is false) must match too, and then UVs as well.
/// Derived normals never keep vertices apart, nor do UVs without given
/// normals. Each sorted vertex is compared with its group's first member, so
/// a chain of small differences cannot drift. Where several vertices merge,
/// the data of the highest old index is kept.
///
/// [in,out] mesh      the mesh; untouched when nothing merges. Otherwise its
///                    vertices, given normals, UVs, strips, fans, lines, line
///                    strips and triangle corners are renumbered, and one
///                    notice of type 1 carrying the vertex map is sent (derived
///                    data such as computed normals follows through it).
/// [in,out] progress  advances through a sort (0.8) and a scan (0.2) phase;
///                    cancellation is not polled.
/// [out]    remap     old -> new vertex index, domain and range n; sequential
///                    (the identity) when nothing merged; range k otherwise.
/// [in,out] checker   the equality test of positions.
/// Preconditions: triangle, strip, fan and line indices lie in [0, n).
/// Never fails. Logs on the debug channel. Cost O(n) time and memory plus
/// O(triangles): a radix sort of the keys (split over two threads of the
/// shared pool when it has more than one, then merged), one scan, one
/// renumbering. Identical results for every thread count. Not to be called
/// on one mesh from two threads.
KXGEOM_API void meshCompact(CompactMesh& mesh, kxUtil::Progress& progress, Remap& remap,
                            IMeshVertexEqualityChecker& checker);

}  // namespace kxGeom
