// Vertex and triangle normals of indexed triangle meshes.
#pragma once

#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// Computes one unit normal per vertex: the sum of the unit normals
/// (`meshTriNormal`, rounded to float) of the triangles using it, each
/// triangle counting once per corner whatever its area or angle, then
/// normalised. A vanishing sum becomes (0, 0, 1).
/// [in,out] mesh  gains (or overwrites) its normal array, marked computed;
///                one notice of type 2 marked normalsModified is sent. With no
///                vertices nothing happens (no log line, no notice).
/// Preconditions: triangle indices lie in [0, vertex count).
/// Never fails. Runs on the shared pool, each thread owning a range of
/// vertices and summing their triangles in triangle order, so results are
/// identical for every thread count. Cost O(vertices + threads * triangles)
/// (each thread reads every triangle's indices; only triangles touching its
/// range cost a normal), no temporary memory. Not to be called on one mesh
/// from two threads.
KXGEOM_API void meshComputeNormals(CompactMesh& mesh);

/// Stores `meshTriNormal` of every triangle, rounded to float, in the
/// mesh's triangle normal array.
/// [in,out] mesh  gains (or overwrites) its triangle normals; one notice of
///                type 2 marked triangleNormalsModified. With no triangles
///                nothing happens.
/// Preconditions, thread safety: as `meshComputeNormals`. Cost O(triangles),
/// in parallel on the shared pool.
KXGEOM_API void meshComputeTriangleNormals(CompactMesh& mesh);

/// Normalises `count` three-float vectors in place. The squared length is
/// summed in float; at or below kxLinear::epsilon2Tol the vector becomes
/// (0, 0, 1), otherwise each component is multiplied by 1 / sqrt(length^2).
/// [in,out] vectors  3 * count floats.
/// [in]     count    number of vectors (>= 0).
/// Cost O(count), in parallel on the shared pool; identical for every thread
/// count. The caller must not touch the array while it runs.
KXGEOM_API void meshNormalize(float* vectors, int count);

}  // namespace kxGeom
