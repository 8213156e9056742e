// One-pass smoothing of the selected vertices of a mesh.
//
// Both operators move only the vertices whose bit is set in the mesh's vertex
// selection, compute every new position from the old positions (results are
// staged and written back together, so a pass never reads a position it moved
// itself), and end with one MeshModification of type 0 (positions moved, no
// remap, no marks). Iterating is the caller's business: each call is one pass.
//
// Progress: vertices are walked in index order, counting the selected ones
// done so far, c; at every vertex where c is a multiple of 1000 the progress
// is polled for cancellation and set to (c + 1) / (number of selected
// vertices). A cancelled pass returns with the mesh exactly as it was and
// sends no notice.
//
// Preconditions (not checked): `adjacency` was built from `mesh` as it is
// (same vertex count, valid indices), and the selection has one bit per
// vertex.
//
// Thread safety: the mesh and the progress need exclusive access for the
// duration of the call; `adjacency` may be shared with other readers. The
// progress is polled and set only on the calling thread.
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>

namespace kxGeom {

/// Moves every selected vertex to the average of its neighbours: the
/// neighbours' coordinates summed in single precision, in adjacency order,
/// and divided by their count. Uniform weights, no damping, no special
/// treatment of boundaries. A selected vertex without neighbours receives
/// NaN coordinates (0 / 0): keep isolated vertices out of the selection.
/// \param mesh      [in,out] the mesh; its selected vertices move.
/// \param adjacency [in] the vertex-to-vertices table of `mesh`.
/// \param progress  [in,out] polled and set as described above.
/// Failure: none reported; a cancelled pass, or a table whose vertex count
/// differs from the mesh's, leaves the mesh untouched and sends no notice.
/// Cost: O(n + sum of the selected vertices' valences) time, the averages
/// computed in blocks of 64000 selected vertices on kxUtil::ThreadPool::get()
/// (identical results for every thread count); one staging record (16 bytes)
/// per selected vertex.
KXGEOM_API void meshSmoothLaplacian(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                                    kxUtil::Progress& progress);

/// Moves every selected vertex v along its vertex normal n by a bilateral
/// average of the heights of nearby vertices over its tangent plane, which
/// removes noise but keeps sharp features. The neighbourhood is gathered
/// depth-first from v through edges, taking the vertices within distance
/// sigma of v that are connected to it through such vertices (v excluded).
/// With m gathered vertices, heights h over the plane through v with unit
/// normal n, squared distances d2, mean height mu and variance
/// s2 = sum (h - mu)^2 / m: v keeps its position when m = 0 or
/// s2 < kxLinear::epsilonTol; otherwise, with wc = exp(-d2 / (2 sigma^2))
/// and ws = exp(-h^2 / (2 s2)), sum = Σ wc ws h and norm = Σ wc ws, v moves
/// to v + n sum / norm unless |norm| < kxLinear::epsilonTol. Computed in
/// double precision, stored in single precision. A flat region is a fixed
/// point. The normals are read as they are (recomputing them between passes
/// is the caller's choice); a zero normal leaves its vertex in place.
/// \param mesh      [in,out] the mesh; its selected vertices move.
/// \param adjacency [in] the vertex-to-vertices table of `mesh`.
/// \param sigma     [in] neighbourhood radius and spatial scale, in model
///                  units; > 0.
/// \param progress  [in,out] polled and set as described above.
/// Failure: a mesh without vertex normals, a table whose vertex count differs
/// from the mesh's, or a cancelled pass leaves the mesh untouched and sends
/// no notice.
/// Cost: O(n + sum over selected vertices of their neighbourhood's edges)
/// time, on the calling thread; one staging record per selected vertex, one
/// int per vertex of visit stamps and working lists of the neighbourhood
/// size.
KXGEOM_API void meshSmoothBilateral(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                                    double sigma, kxUtil::Progress& progress);

}  // namespace kxGeom
