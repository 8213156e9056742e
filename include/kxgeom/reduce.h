// Mesh reduction by quadric-error edge collapse: fewer triangles that stay
// close to the input surface, with its topology, boundaries and locked
// vertices kept.
#pragma once

#include <limits>

#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// Where the vertex that replaces a collapsed edge goes.
enum class MeshReducePlacement {
  /// The point of least quadric error (a 3x3 solve); when that system is
  /// ill-conditioned, or its solution lies farther than one edge length from
  /// the edge's midpoint, the best of the two endpoints and the midpoint.
  Optimal,
  /// The better of the two endpoints: every output vertex is an input vertex.
  Endpoint,
};

/// How open boundaries are treated.
enum class MeshReduceBoundary {
  /// Boundary vertices never move or vanish: the boundary polylines come out
  /// exactly as they went in.
  Keep,
  /// Boundary edges may collapse; each adds to its ends the quadric of the
  /// plane through it perpendicular to its triangle, weighted by
  /// `boundaryWeight` times its squared length, which holds the boundary
  /// near its old course.
  Weighted,
};

/// What `meshReduce` is asked to do. The defaults halve the triangle count.
struct KXGEOM_API MeshReduceOptions {
  /// Stop once at most this many triangles are left (0: no count bound).
  int targetTriangles = 0;
  /// Stop once at most this fraction of the input's triangles is left,
  /// rounded up to a whole triangle (0: no fraction bound). In [0, 1].
  double targetFraction = 0.5;
  /// Stop before the first collapse whose error exceeds this, in model
  /// units (infinity: no error bound). The error of a collapse is the
  /// root-mean-square distance of the new vertex from the planes of the
  /// input triangles merged into it, each plane weighted by its triangle's
  /// area (see `MeshReduceResult::maxError`). >= 0.
  double maxError = std::numeric_limits<double>::infinity();
  MeshReducePlacement placement = MeshReducePlacement::Optimal;
  MeshReduceBoundary boundary = MeshReduceBoundary::Keep;
  /// `Weighted` boundaries: weight of a boundary edge's plane per squared
  /// unit of its length, against area for triangle planes. >= 0.
  double boundaryWeight = 10.0;
  /// A collapse is refused when it turns the normal of any triangle that
  /// survives it by more than this many degrees, or leaves such a triangle
  /// with (nearly) zero area. In [0, 180].
  double maxNormalChange = 60.0;
  /// Vertices selected in the mesh's vertex selection neither move nor
  /// vanish.
  bool lockSelected = true;
};

/// How a reduction ended.
enum class MeshReduceStatus {
  Reduced,    ///< at least one edge collapsed; the mesh was rewritten
  Unchanged,  ///< nothing could or had to collapse; the mesh is untouched
  Cancelled,  ///< the progress was cancelled; the mesh is untouched
  Invalid,    ///< a triangle corner outside [0, vertices) or an option out
              ///< of range; the mesh is untouched
};

/// Why the collapsing stopped (meaningful for Reduced and Unchanged).
enum class MeshReduceStop {
  TargetReached,  ///< the triangle count reached the count or fraction bound
  ErrorBound,     ///< the cheapest remaining collapse exceeded `maxError`
  Exhausted,      ///< every remaining collapse was refused
};

/// Counts and measures of one reduction.
struct KXGEOM_API MeshReduceResult {
  MeshReduceStatus status = MeshReduceStatus::Invalid;
  MeshReduceStop stop = MeshReduceStop::Exhausted;
  int trianglesBefore = 0, trianglesAfter = 0;
  int verticesBefore = 0, verticesAfter = 0;
  int collapses = 0;
  /// The largest error of the collapses done, in model units (0 for none).
  double maxError = 0;
};

/// Reduces a triangle mesh by collapsing edges in order of increasing
/// quadric error (Garland and Heckbert's measure: per vertex, the sum of the
/// squared distances to the planes of its triangles, here area-weighted and
/// divided by the total weight), until the first of the three bounds of
/// `options` is met. Collapses are refused that would make the surface
/// non-manifold (the link condition: the two ends may share no neighbour
/// but the opposite corners of the edge's triangles, an interior edge may
/// not join two boundary vertices, a lone triangle does not collapse), that
/// would create duplicate or zero-area triangles, or that would turn a
/// surviving triangle's normal by more than `maxNormalChange`; every
/// triangle keeps its winding, so a consistently oriented mesh stays so.
/// A refused edge is queued again when the neighbourhood of one of its ends
/// changes: at once when that end is the survivor of a collapse, otherwise
/// after 1, 2, 4, ... changes around that end (so that the hub of a fan of
/// slivers is not re-examined at every change of its fan).
///
/// Vertices that are not manifold (two or more fans, an edge with more than
/// two triangles or two triangles running it the same way), corners of
/// triangles that name a vertex twice or have a non-finite corner, locked
/// vertices and, with `Keep`, boundary vertices never move or vanish; an
/// edge between two of them never collapses, an edge from one of them to a
/// free vertex collapses into it. Vertices no triangle uses are kept.
///
/// Output: surviving vertices and triangles keep their relative order;
/// triangles keep their winding. Vertex normals and UVs, when present, are
/// interpolated linearly along the collapsed edge at the projection of the
/// new position onto it (normals renormalised); other per-vertex arrays
/// (STs, colours, named arrays) and the vertex selection follow the vertex
/// map through the notice (a merged vertex takes the highest old index's
/// data; the selection is the union). Triangle normals, when present, are
/// recomputed. Lines and line strips are renumbered through the vertex map
/// (a line whose ends merged joins a vertex to itself); triangle strips and
/// fans are removed. Exactly one notice of type 1 (TopologyChanged) carrying
/// the vertex and triangle maps is sent when anything collapsed; none
/// otherwise. One line "meshReduce: ..." with the counts and time goes to
/// the debug channel.
///
/// \param mesh     [in,out] the mesh; corners are validated.
/// \param options  [in] the bounds and rules above.
/// \param progress [in,out] set to the fraction of the triangles to remove
///                 that are gone (every 1024 collapses), polled for
///                 cancellation as often; a cancelled run writes nothing.
/// \param remap    [out] when not null, the map from every input vertex to
///                 the output vertex that replaces it (domain = input
///                 vertices, range = output vertices; no image is negative);
///                 the identity when the mesh is unchanged; untouched on
///                 Cancelled and Invalid.
/// \return the result; `status` tells whether the mesh changed.
/// Cost: O((V + T) log T) time for meshes of bounded valence (a collapse at
/// a vertex of valence k costs O(k log T)); per vertex 136 bytes (a record
/// of its quadric of 11 doubles, position, triangle list slice, stamp and
/// flags, the time of its last change, what it merged into), per
/// triangle 12 bytes plus about 24 bytes of triangle lists that grow as
/// collapses merge them, and 16 bytes per queued edge: a binary heap holds
/// the cheapest (at least 65536, so that it stays in cache), an unordered
/// overflow list the rest, from which the heap is refilled when it runs dry;
/// an edge is queued again with its new error whenever an end changes, and
/// the old entry is dropped when it surfaces. The setup passes (fan
/// classification, quadrics, the first errors) run on
/// kxUtil::ThreadPool::get(), the collapses on the calling thread; results
/// are identical for every thread count.
/// Thread safety: the mesh and the progress need exclusive access for the
/// duration of the call.
KXGEOM_API MeshReduceResult meshReduce(CompactMesh& mesh, const MeshReduceOptions& options,
                                       kxUtil::Progress& progress, Remap* remap = nullptr);

}  // namespace kxGeom
