// Closing holes of a triangle mesh with patches that are watertight, wound
// like their surroundings, sized like the surrounding triangles and, at the
// highest quality, smooth.
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>

namespace kxGeom {

/// How far a hole's patch is worked after its flat triangulation.
enum HoleQuality : int {
  HoleFlat = 0,     ///< the triangulation of the loop only
  HoleRefined = 1,  ///< refined until its triangles match the edges around, edges relaxed
  HoleFaired = 2,   ///< refined, then its new vertices faired by a membrane solve
};

/// Fills the listed boundary loops. The loop's corners are triangulated
/// (`triangulatePolygon`) and the patch is wound against the loop, so it
/// matches the triangles around the hole. At quality 1 and above, faces are
/// split at their centroids while they are larger than sqrt(2) times the
/// edge lengths around them, and patch edges are swapped by the
/// opposite-angle rule after each pass; at quality 2 (and any value other
/// than 0 and 1) the new vertices are moved to the solution of the umbrella
/// system (each new vertex the mean of its neighbours) by conjugate
/// gradients with a diagonal preconditioner. The work happens on a working
/// copy of the holes' neighbourhood merged back once (see MeshModifyRep),
/// with one notice.
///
/// A hole is left open, and not counted, when its loop has fewer than 3
/// vertices or names a vertex outside the mesh, its number is not a loop of
/// `boundaries`, or its patch would repeat an edge the mesh already has.
/// Progress: one sub-phase of weight 1 / (sum of the listed loops' lengths)
/// per hole, captioned "Filling hole <k> of <n>".
///
/// @param[in,out] mesh       the mesh; indices are not validated.
/// @param[in] adjTris        its `meshAdjTris`.
/// @param[in] adjVertices    its `meshAdjVertices`.
/// @param[in] boundaries     its `meshComputeBoundary` loops.
/// @param[in] holes          loop numbers of `boundaries`, filled in order.
/// @param[in] quality        see HoleQuality.
/// @param[in,out] progress   polled between steps and every 100 solver
///                           iterations.
/// Returns the number of holes filled; 0 when cancelled, and then the mesh
/// is untouched. Cost: per hole O(L^3) for loops of up to 300 vertices
/// (see triangulatePolygon) plus O(P log P) for a patch of P triangles and
/// O(P^1.5) for the fairing solve. Thread safety: needs the mesh exclusively.
KXGEOM_API int meshHoleFill(CompactMesh& mesh, const MeshAdjTris& adjTris,
                            const MeshAdjVertices& adjVertices, const MeshBoundaries& boundaries,
                            const kx::list<int>& holes, HoleQuality quality,
                            kxUtil::Progress& progress);

}  // namespace kxGeom
