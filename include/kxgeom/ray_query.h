// Ray queries on triangle meshes: one triangle against a line, picking with a
// frustum over a vertex octree, and the mesh point nearest to a ray.
//
// Thread safety: every function is re-entrant: the mesh, octree and adjacency
// table are only read, and each call owns its visited-element bits, so any
// number of threads may pick on one mesh at once. Picking reads the
// process-wide back-face cull distance (`setBackfaceCullDistance`).
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/query_shapes.h>

namespace kxGeom {

/// Two-sided hit test of one mesh triangle with a line (`intersectRayTriangle`):
/// a front face is hit at any parameter, also behind the origin; a back face
/// only at parameters >= the back-face cull distance.
/// [in]  mesh      the mesh.  [in] triangle  its index (not validated).
/// [in]  ray       origin (narrowed to single precision) and direction.
/// [out] hit       the hit point, ray.eval(t) in single precision; untouched
///                 on a miss.
/// Returns true on a hit. Cost O(1). Re-entrant.
KXGEOM_API bool meshRayTriIntersect(const CompactMesh& mesh, int triangle,
                                    const kxLinear::Line& ray, kxLinear::PointFlt& hit);

/// As above with the hit point widened to double precision (the single-
/// precision hit point, not ray.eval(t) in double).
KXGEOM_API bool meshRayTriIntersect(const CompactMesh& mesh, int triangle,
                                    const kxLinear::Line& ray, kxLinear::Point& hit);

/// Picks a triangle with a frustum: walks the leaves of a vertex octree that
/// the frustum overlaps (front to back along its viewing vector), expands each
/// vertex once and tests each of its triangles once against the frustum's
/// ray. Returns the first hit in that order, which is normally but not
/// necessarily the nearest one. Logs the hit point and the seconds, or the
/// miss.
/// [in]  mesh          the mesh.
/// [in]  vertexOctree  an octree over the mesh's vertices.
/// [in]  adjTris       the vertex-to-triangle table of `mesh`.
/// [in]  frustum       the pick frustum; its `getRay()` is the tested ray.
/// [out] hit           the hit point; untouched on a miss.
/// [out] triangle      when not null, the hit triangle; untouched on a miss.
/// Returns true when a triangle is hit. Cost O(V + T) for the visit bits
/// plus the vertices in the overlapped leaves. Re-entrant.
KXGEOM_API bool meshRayIntersect(const CompactMesh& mesh, const Octree& vertexOctree,
                                 const MeshAdjTris& adjTris, const Frustum& frustum,
                                 kxLinear::PointFlt& hit, int* triangle);

/// The mesh point nearest to q, the foot of the perpendicular from p on the
/// ray, found by the vertex-octree `meshClosestPoint` (no distance limit, no
/// vertex boxes).
/// [in] mesh, longestEdge, vertexOctree, adjTris  as `meshClosestPoint`.
/// [in] ray  the line.  [in] p  the point whose foot on the line is searched
///           from (for a zero direction q is undefined and nothing is found).
/// Returns the coordinate; invalid (triangle -1) when nothing is found.
/// Cost: one `meshClosestPoint`. Re-entrant.
KXGEOM_API MeshCoord meshRayClosestPt(const CompactMesh& mesh, double longestEdge,
                                      const Octree& vertexOctree, const MeshAdjTris& adjTris,
                                      const kxLinear::Line& ray, const kxLinear::Point& p);

}  // namespace kxGeom
