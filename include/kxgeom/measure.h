// Measures of triangle meshes: surface area, enclosed volume, the mass
// properties of the enclosed solid and discrete curvature at the vertices.
//
// Area, volume and mass sums are taken in double precision over fixed blocks
// of 4096 triangles on the shared pool and folded in block order, so every
// result is the same for every thread count. Positions are read as they are: a corner with a NaN or
// infinite coordinate makes every sum it enters NaN or infinite.
//
// None of these functions validates indices: every triangle corner must lie
// in [0, number of vertices).
//
// Thread safety: re-entrant; the mesh is only read, and may be shared with
// other readers, but must not change during a call.
#pragma once

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>

namespace kxGeom {

/// Surface area of every triangle: the sum of |(b - a) x (c - a)| / 2.
/// [in] mesh.
/// Returns the area in model units squared; 0 without triangles. Never
/// fails. Logs one line. Cost O(T), on the shared pool.
KXGEOM_API double meshArea(const CompactMesh& mesh);

/// Surface area of the triangles whose bit is set, as `meshArea`.
/// [in] mesh.
/// [in] selection  one bit per triangle, such as mesh.getSelectedTriangles();
///                 bits past its size count as clear.
/// Returns the area in model units squared; 0 when no bit is set. Logs one
/// line. Cost O(T), on the shared pool.
KXGEOM_API double meshArea(const CompactMesh& mesh, const BitVector& selection);

/// Surface area of the listed triangles, as `meshArea`; a triangle listed
/// twice counts twice.
/// [in] mesh.
/// [in] triangles  `count` triangle indices in [0, T) (not validated).
/// [in] count      number of indices; 0 or less gives 0.
/// Returns the area in model units squared. Logs one line. Cost O(count), on
/// the shared pool.
KXGEOM_API double meshArea(const CompactMesh& mesh, const int* triangles, int count);

/// Signed volume enclosed by the triangles: the sum over triangles (a, b, c)
/// of the signed volumes of the tetrahedra (r, a, b, c), r being the first
/// corner of the first triangle. For a closed mesh the sum does not depend on
/// r; it is positive when the triangles face outward (counter-clockwise seen
/// from outside), negative when they face inward. For an open mesh it
/// depends on r and measures no solid.
/// [in] mesh.
/// Returns the volume in model units cubed; 0 without triangles. Never
/// fails. Logs one line. Cost O(T), on the shared pool.
KXGEOM_API double meshVolume(const CompactMesh& mesh);

/// Mass properties of the solid a triangle mesh encloses, at unit density.
struct MeshMassProperties {
  /// Surface area, model units squared (as `meshArea`).
  double area = 0;
  /// Signed enclosed volume, model units cubed (as `meshVolume`).
  double volume = 0;
  /// Centre of mass of the solid (model units).
  kxLinear::Point centroid;
  /// Inertia tensor about the centroid, unit density, model units to the
  /// fifth: inertia[i][j] = integral over the solid of
  /// (|r|^2 delta_ij - r_i r_j), r measured from the centroid. Symmetric; the
  /// diagonal holds the moments about the axes through the centroid, the
  /// rest the negated products of inertia. Whichever way the triangles face,
  /// it is that of the solid (positive moments).
  double inertia[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
  /// True when every triangle edge is shared by exactly two triangles that
  /// run along it in opposite directions and no triangle repeats a corner:
  /// only then do volume, centroid and inertia describe a solid.
  bool closed = false;
  /// The triangle edges that break that rule (each direction of each triangle
  /// edge counts once; a triangle repeating a corner counts its three).
  int unmatchedEdges = 0;
};

/// Computes the area, volume, centroid and inertia of the solid enclosed by
/// `mesh` with the exact integrals of the tetrahedra (r, a, b, c) (r as in
/// `meshVolume`), in double precision, and whether the mesh is closed.
/// [in]  mesh.
/// [out] result  filled entirely on success. On failure area, volume,
///               closed and unmatchedEdges are filled and centroid and
///               inertia are zero.
/// Returns false when the volume is zero or not finite (no triangles, a flat
/// or open sheet whose cones cancel, a non-finite corner); true otherwise,
/// also for an open mesh (result.closed false; its values then depend on r).
/// Logs one line. Cost O(V + T) time, on the shared pool, and the
/// vertex-to-triangle table (3T + V ints) for the closedness test.
KXGEOM_API bool meshMassProperties(const CompactMesh& mesh, MeshMassProperties& result);

/// Discrete curvature at one vertex. Curvatures are in 1 / model units,
/// Gaussian curvature in 1 / model units squared, and positive where the
/// surface bends away from the side its normal points to (a sphere wound
/// counter-clockwise seen from outside: mean curvature 1 / r).
struct MeshVertexCurvature {
  /// Mean curvature H. Interior vertices: (1 / 4A) times the dot product of
  /// the normal with the sum over neighbours j of (cot alpha_ij + cot
  /// beta_ij)(x_i - x_j), alpha and beta the angles opposite the edge ij.
  double mean = 0;
  /// Gaussian curvature K. Interior vertices: the angle defect
  /// (2 pi - sum of the corner angles at the vertex) / A.
  double gaussian = 0;
  /// Principal curvatures, k1 >= k2. Interior vertices: H +- sqrt(H^2 - K),
  /// the root taken as 0 where H^2 < K.
  double k1 = 0, k2 = 0;
  /// Unit tangent directions of k1 and k2 (direction2 = normal x
  /// direction1), the eigenvectors of the fitted curvature tensor; at an
  /// umbilic (a sphere) the tensor has no preferred direction and they are
  /// an arbitrary tangent pair. Zero when the vertex has no estimate.
  kxLinear::Vector direction1, direction2;
  /// Unit normal: the corner-angle weighted mean of the normals of the
  /// vertex's triangles.
  kxLinear::Vector normal;
  /// A: the mixed Voronoi area of the vertex (model units squared): the
  /// Voronoi region within each non-obtuse triangle, half of an obtuse
  /// triangle at an obtuse corner, a quarter at the others.
  double area = 0;
  /// True when an edge at the vertex is not shared by exactly two of its
  /// triangles (a border, or a non-manifold fan). The angle defect and the
  /// cotangent sum need the whole ring, so here k1 and k2 are the
  /// eigenvalues of the fitted tensor, H their mean and K their product:
  /// rough values, since the normal of a one-sided fan leans toward its
  /// triangles. They are exact on a cylinder's rim but, where the surface
  /// also bends across the border, biased at every resolution (on a
  /// hemisphere's rim H comes out a quarter low and K half).
  bool boundary = false;
};

/// Estimates the curvature at every vertex of `mesh`. The tensor that gives
/// the principal directions is fitted per triangle to the change of the
/// vertex normals along its edges (a 2 x 2 second fundamental form in the
/// triangle's plane, by least squares), turned into each corner's tangent
/// plane by the smallest rotation between the two normals, and averaged
/// with the corner's mixed area as weight. Triangles that repeat a corner
/// are left out; triangles too thin for a cotangent count only with their
/// corner angle. A vertex without usable triangles keeps zeros everywhere
/// (area 0).
/// [in]  mesh  the surface; its own normals are not read.
/// [out] out   resized to the vertex count and filled, or emptied on failure.
/// Returns false (out empty) when the mesh has no triangles.
/// Logs one line. Cost O(V + T) time, each triangle's tensor fitted once per
/// corner, in two passes over the vertices on the shared pool (identical for
/// every thread count), plus the vertex-to-triangle table (3T + V ints).
KXGEOM_API bool meshCurvature(const CompactMesh& mesh, kx::vector<MeshVertexCurvature>& out);

}  // namespace kxGeom
