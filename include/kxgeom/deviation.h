// Deviation between two triangle meshes: how far the points of one mesh lie
// from the surface of the other. The largest such distance estimates the
// one-sided Hausdorff distance; the larger of both directions the symmetric
// one.
//
// Points of mesh A are measured in a fixed order: its vertices by index, then
// the samples of its triangles (see MeshDeviationOptions) triangle by
// triangle. Every distance is an exact closest-point query over B's octree,
// run in fixed blocks on the shared pool, and the statistics are folded block
// by block in that order, so every result is the same for every thread count.
//
// Indices are not validated: every triangle corner must lie in [0, number of
// vertices) of its mesh.
#pragma once

#include <cstdint>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/platform/progress.h>

namespace kxGeom {

/// Which points of mesh A are measured.
struct MeshDeviationOptions {
  /// Largest spacing of the points sampled on A's triangles besides its
  /// vertices, in model units; 0 or less measures the vertices only. A
  /// triangle whose longest edge is L is split n ways along each edge,
  /// n = ceil(L / sampleSpacing) capped at 256, and sampled at the centroid
  /// of each of its n^2 small triangles. Every point of the triangle then
  /// lies within 2/3 sampleSpacing of a sample (when n is below the cap), so
  /// the true one-sided distance exceeds the reported maximum by at most that.
  double sampleSpacing = 0;
};

/// Distances from the points of mesh A to the surface of mesh B.
struct MeshDeviation {
  /// Largest distance (model units): the one-sided Hausdorff estimate.
  double maximum = 0;
  /// Mean and root mean square of the distances, every measured point (vertex
  /// or sample) counting once.
  double mean = 0;
  double rms = 0;
  /// Points measured: A's finite vertices and its samples.
  std::int64_t points = 0;
  /// The measured point at the largest distance (the first in measuring
  /// order on a tie).
  kxLinear::Point farthest;
};

/// Measures the distances from the points of `a` to the surface of `b`.
/// [in]  a          the measured mesh; vertices with a NaN or infinite
///                  coordinate, and samples of triangles with such a corner,
///                  are left out.
/// [in]  b          the reference mesh.
/// [in]  bOctree    an octree built over b's vertices (point i is vertex i),
///                  such as `MeshCache::getOctree`; b's triangles are grouped
///                  by the leaf of their first corner and bounded node by
///                  node for the searches (box-triangle lists are not needed).
/// [in]  options    which points of a are measured.
/// [out] result     the statistics; written only on success.
/// [in,out] progress  polled for cancellation (also from the pool's
///                  threads) and advanced as blocks finish.
/// [out] vertexDistances  when not null, resized to a's vertex count and
///                  filled with each vertex's distance (model units; NaN for
///                  a vertex left out); written only on success.
/// Returns false, writing nothing, when cancelled, when a has no finite
/// vertex, when b gives no closest point (no triangles, none finite) or when
/// bOctree does not hold one point per vertex of b.
/// Logs one line. Cost O(V_b + T_b) to group and bound b's triangles (28
/// bytes per triangle), then O(log T_b) typical per measured point, on the
/// shared pool; consecutive points near each other (as in a mesh whose
/// vertex and triangle order is spatially coherent) start their search from
/// the previous answer and cost least. Thread safety: re-entrant; the meshes
/// and octree are only read and must not change during the call.
KXGEOM_API bool meshDeviation(const CompactMesh& a, const CompactMesh& b, const Octree& bOctree,
                              const MeshDeviationOptions& options, MeshDeviation& result,
                              kxUtil::Progress& progress,
                              kx::vector<double>* vertexDistances = nullptr);

/// As above, building b's octree over its finite vertices (leaves of 16
/// points) first. Cost adds O(V_b log V_b) and the octree's memory.
KXGEOM_API bool meshDeviation(const CompactMesh& a, const CompactMesh& b,
                              const MeshDeviationOptions& options, MeshDeviation& result,
                              kxUtil::Progress& progress,
                              kx::vector<double>* vertexDistances = nullptr);

/// The symmetric deviation: a measured against b and b against a, with the
/// same options, each as `meshDeviation` (building both meshes' octrees).
/// [in]  a, b      the meshes.
/// [in]  options   which points of each mesh are measured.
/// [out] hausdorff the larger of the two maxima (model units): the symmetric
///                 Hausdorff estimate.
/// [in,out] progress  as above; each direction takes half of it.
/// [out] aToB, bToA  when not null, the two one-sided results.
/// Returns false, writing nothing, when either direction fails or the call
/// is cancelled. Logs one line per direction. Cost: both directions.
KXGEOM_API bool meshSymmetricDeviation(const CompactMesh& a, const CompactMesh& b,
                                       const MeshDeviationOptions& options, double& hausdorff,
                                       kxUtil::Progress& progress, MeshDeviation* aToB = nullptr,
                                       MeshDeviation* bToA = nullptr);

}  // namespace kxGeom
