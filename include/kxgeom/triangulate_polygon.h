// Triangulation of a closed polygon given by its corners in 3D, without new
// vertices: the patch hole filling and flattening lay over a loop.
#pragma once

#include <functional>

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/progress.h>

namespace kxGeom {

/// Triangulates the polygon whose corners are `loop`, in order (the edge
/// from the last corner back to the first closes it). The loop may be
/// non-planar, non-convex and overlap itself in any projection: the result
/// is always a triangulated disk over the loop's indices, so no triangle is
/// repeated, every loop edge is used once and in the loop's direction, and
/// every diagonal twice, once each way. Triangles are wound with the loop.
///
/// Method: the minimal-area triangulation by dynamic programming over the
/// loop's sub-chains (cubic in the loop length) for loops of up to 300
/// corners. A longer loop is first cut along the chord between the closest
/// pair of corners that splits it into parts of at least a third each, and
/// each part is triangulated the same way, so a loop of n corners costs
/// O(n^2) for the cuts plus O(300^2 n) for the programmes; the result is then
/// minimal only within each part. Non-finite positions count as infinite
/// area (the programme still yields a valid triangulation).
///
/// @param[in]  loop       the corners, at least 3.
/// @param[out] triangles  replaced by index triples into `loop`, n - 2 of them.
/// @param[out] used       resized to the loop length; bit i set when corner i
///                        is used by a triangle (every corner, on success).
/// @param[in]  progress   polled once per row of the programme.
/// Returns false, with `triangles` empty, for fewer than 3 corners or when
/// cancelled. Cost as above; memory O(min(n, 300)^2). Re-entrant.
KXGEOM_API bool triangulatePolygon(const kx::vector<kxLinear::Point>& loop,
                                   kx::vector<int>& triangles, BitVector& used,
                                   kxUtil::Progress& progress);

/// As above, avoiding the diagonals for which `forbidden(i, k)` (i < k,
/// corner numbers) is true: the least area is taken among the triangulations
/// with the fewest forbidden diagonals, so one is used only where every
/// triangulation needs it. Hole filling forbids the edges a mesh already has.
/// Cost as above, plus one call of `forbidden` per candidate diagonal.
KXGEOM_API bool triangulatePolygon(const kx::vector<kxLinear::Point>& loop,
                                   kx::vector<int>& triangles, BitVector& used,
                                   kxUtil::Progress& progress,
                                   const std::function<bool(int, int)>& forbidden);

}  // namespace kxGeom
