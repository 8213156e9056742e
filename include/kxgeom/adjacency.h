// Neighbourhood tables of an indexed triangle mesh (vertex to triangles,
// vertex to vertices, triangle to triangles), the two local questions asked of
// them most often (the triangle across an edge, the order of a vertex's fan),
// and the boundary loops of a mesh or of one part of it.
//
// Every table is a snapshot of the mesh as it was when built; rebuild it after
// any change of the triangles. Edge e of a triangle runs from its corner e to
// its corner (e + 1) mod 3.
//
// None of these functions validates indices: every triangle corner must lie in
// [0, number of vertices) and every table passed in must have been built from
// the mesh passed with it. Nothing is reported as an error.
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// Builds the vertex-to-triangles table by a counting sort (count, prefix sum,
/// fill), without sorting or hashing. The triangles of each vertex are listed
/// in ascending triangle index; an unused vertex has an empty set; a triangle
/// that names a vertex twice is listed twice in that vertex's set. Logs
/// "MeshAdjTris: <n> vertices <m> triangles <seconds>".
/// \param mesh [in] the mesh; corners must lie in [0, getNumVertices()).
/// \param out  [out] replaced as a whole by the new table (one set per vertex).
/// Failure: none. Cost: O(n + m) time, 3m + n ints of storage.
/// Thread safety: reentrant; `mesh` may be shared with other readers.
KXGEOM_API void meshAdjTris(const CompactMesh& mesh, MeshAdjTris& out);

/// Builds the vertex-to-vertices table from the vertex-to-triangles table.
/// The neighbours of v are the other corners of v's triangles, without
/// repetition, in the order of their first appearance (triangles in `adjTris`
/// order, corners in corner order); v is never its own neighbour. Logs
/// "MeshAdjVertices: <n> vertices, <m> triangles: <seconds> s".
/// \param mesh    [in] the mesh.
/// \param adjTris [in] `meshAdjTris` of `mesh`.
/// \param out     [out] replaced as a whole by the new table.
/// Failure: none. Cost: O(n + m) time (two passes), one 32-bit stamp per
/// vertex of scratch. Thread safety: reentrant.
KXGEOM_API void meshAdjVertices(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                                MeshAdjVertices& out);

/// Builds the triangle-to-triangles table. For triangle t, for its edges 0, 1
/// and 2 in turn, the table lists every other triangle that has the same
/// undirected edge {a, b}, in ascending triangle order, once per shared edge;
/// t itself is never listed (a degenerate t may name one edge twice). A
/// boundary edge contributes nothing;
/// an edge shared by k triangles gives each k - 1 neighbours through it;
/// orientation plays no part. Logs "MeshTriAdjTris: <n> vertices <m>
/// triangles <seconds>".
/// \param mesh [in] the mesh.
/// \param out  [out] replaced as a whole by the new table (one set per
///             triangle).
/// Failure: none; a table too large for int offsets (more than 2^31 - 1
/// entries, only possible with edges shared by tens of thousands of
/// triangles) comes out as one empty set per triangle.
/// Cost: O(n + m + size of the table) time for ordinary meshes; a vertex that
/// is the lower end of k edges costs O(k log k). Scratch: 8 bytes per edge
/// (sorted edge numbers, what each edge lists) and 4 bytes per triangle and
/// per vertex.
/// Thread safety: reentrant.
KXGEOM_API void meshTriAdjTris(const CompactMesh& mesh, MeshTriAdjTris& out);

/// Finds the triangle across edge `edge` of `triangle`: with a = corner `edge`
/// and b = corner (edge + 1) mod 3, the first triangle of a (in `adjTris`
/// order, skipping `triangle` itself) that has a corner equal to b. On a
/// non-manifold edge the lowest-index neighbour wins, whatever its
/// orientation.
/// \param triangle         [in] the triangle index; may alias
///                         `adjacentTriangle`.
/// \param edge             [in] 0, 1 or 2.
/// \param triangles        [in] the mesh's triangle array.
/// \param adjTris          [in] `meshAdjTris` of the mesh.
/// \param adjacentTriangle [out] the neighbour; left unchanged when none.
/// \param adjacentEdge     [out] the corner index of b in the neighbour (in a
///                         consistently oriented neighbour, its edge from b
///                         to a); -1 when there is none.
/// \return true when a neighbour was found. Cost: O(triangles of a).
/// Thread safety: reentrant.
KXGEOM_API bool getSharedEdgeAdjacentTriangle(const int& triangle, int edge,
                                              const MeshTriangle* triangles,
                                              const MeshAdjTris& adjTris, int& adjacentTriangle,
                                              int& adjacentEdge);

/// Orders the fan of triangles around `vertex` so that consecutive triangles
/// share an edge where possible: after triangle t, where `vertex` is corner k
/// and p is corner (k + 2) mod 3, comes the first later triangle that contains
/// the directed edge vertex -> p (the consistently oriented neighbour across
/// that edge). Where no such triangle exists (a boundary, an inconsistent
/// orientation) the chain breaks and the remaining triangles keep their
/// relative order.
/// \param vertex          [in] the fan's centre; every listed triangle should
///                        contain it.
/// \param count           [in] number of triangle indices, >= 0.
/// \param triangleIndices [in] the triangles; may be `out.data()` itself, but
///                        must not otherwise overlap `out`'s storage.
/// \param triangles       [in] the mesh's triangle array.
/// \param out             [out] resized to `count` and filled with the
///                        reordered triangles (its capacity is reused).
/// Failure: none. Cost: O(count^2) time, no allocation beyond `out`.
/// Thread safety: reentrant.
KXGEOM_API void sortAdjTris(int vertex, int count, const int* triangleIndices,
                            const MeshTriangle* triangles, kx::vector<int>& out);

namespace Boundary {

/// The end of the edge of `triangle` that leaves `vertex`: if `vertex` is
/// corner i (the first such corner), corner (i + 1) mod 3.
/// \param vertex   [in] a vertex index.
/// \param triangle [in] the triangle.
/// \return the vertex index, or -1 when `vertex` is not a corner.
/// Cost: O(1). Thread safety: reentrant.
KXGEOM_API int findEdge(int vertex, const MeshTriangle& triangle);

/// Whether some triangle of `from` contains the directed edge from -> to,
/// judged by `findEdge(from, triangle) == to`.
/// \param mesh    [in] the mesh.
/// \param adjTris [in] `meshAdjTris` of `mesh`.
/// \param from    [in] start vertex, in [0, n).
/// \param to      [in] end vertex.
/// \return true when the directed edge exists. Cost: O(triangles of from).
/// Thread safety: reentrant.
KXGEOM_API bool hasEdge(const CompactMesh& mesh, const MeshAdjTris& adjTris, int from, int to);

/// Looks for a boundary edge leaving `vertex`: for each triangle of `vertex`
/// in `adjTris` order, w = findEdge(vertex, triangle) is written to `next`;
/// the edge vertex -> w is a boundary edge when w's neighbour count differs
/// from its triangle count (a cheap filter that rejects interior manifold
/// vertices) and no triangle traverses w -> vertex.
/// \param vertex   [in] the start vertex, in [0, n).
/// \param next     [out] the end of the boundary edge found; when none is
///                 found, the last candidate examined (unchanged when
///                 `vertex` has no triangles).
/// \param mesh     [in] the mesh.
/// \param adjTris  [in] `meshAdjTris` of `mesh`.
/// \param adjVerts [in] `meshAdjVertices` of `mesh`.
/// \return true when a boundary edge was found. Cost: O(sum over v's
/// triangles of the triangles of their corners). Thread safety: reentrant.
KXGEOM_API bool walkBoundary(int vertex, int& next, const CompactMesh& mesh,
                             const MeshAdjTris& adjTris, const MeshAdjVertices& adjVerts);

}  // namespace Boundary

/// Extracts the boundary loops of a mesh by following `Boundary::walkBoundary`
/// from every not yet visited vertex in ascending order. Loops follow the
/// winding of their triangles; a closed loop does not repeat its first vertex;
/// a chain that cannot be continued ends without the vertex from which no
/// boundary edge leaves (each loop holds the start of every boundary edge
/// followed). Isolated vertices never start a loop.
/// \param mesh     [in] the mesh.
/// \param adjTris  [in] `meshAdjTris` of `mesh`.
/// \param adjVerts [in] `meshAdjVertices` of `mesh`.
/// \param out      [out] replaced by the loops, in the order found.
/// Failure: none. Cost: O(n + sum of walk costs), one bit per vertex of
/// scratch. Thread safety: reentrant.
KXGEOM_API void meshComputeBoundary(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                                    const MeshAdjVertices& adjVerts, MeshBoundaries& out);

/// The tables a boundary walk needs and the loops it finds, built together
/// from one mesh: `meshAdjTris`, `meshAdjVertices`, `meshComputeBoundary`.
/// A snapshot like every table here. @param[in] mesh. Cost O(V + T).
struct KXGEOM_API MeshBoundaryTables {
  explicit MeshBoundaryTables(const CompactMesh& mesh);
  MeshAdjTris adjTris;
  MeshAdjVertices adjVertices;
  MeshBoundaries loops;
};

/// Extracts the boundary loops of one part of a partitioned mesh, seams with
/// other parts included. The walk is that of `meshComputeBoundary` with three
/// differences: the start vertices are the subset's vertex list, in list
/// order; only triangles whose image under `triangleParts` is `part` are
/// considered, both as edges leaving a vertex and as opposite edges; and a
/// vertex that belongs to two or more parts passes the cheap filter.
/// \param mesh          [in] the mesh.
/// \param subset        [in] the part's vertices (its triangle list is not
///                      read); indices in [0, n).
/// \param part          [in] the part number.
/// \param adjTris       [in] `meshAdjTris` of `mesh`.
/// \param adjVerts      [in] `meshAdjVertices` of `mesh`.
/// \param vertexParts   [in] per mesh vertex, the parts it belongs to (at
///                      least n sets).
/// \param triangleParts [in] the part of every triangle (domain >= m).
/// \param out           [out] replaced by the loops, in the order found.
/// Failure: none. Cost: as `meshComputeBoundary`. Thread safety: reentrant.
KXGEOM_API void meshComputeSubsetBoundary(const CompactMesh& mesh, const MeshSubset& subset,
                                          int part, const MeshAdjTris& adjTris,
                                          const MeshAdjVertices& adjVerts,
                                          const ArrayOfSets& vertexParts,
                                          const Remap& triangleParts, MeshBoundaries& out);

/// Inverts a map: set r of `out` lists, in ascending order, the domain indices
/// whose image is r. `out` has (largest image + 1) sets.
/// \param map [in] the map; negative images (removed elements) are ignored.
/// \param out [out] the inverse; emptied when the domain is empty.
/// \return true on success; false, with `out` unchanged, when the domain is
/// not empty but no index has an image. Cost: O(domain size) time and
/// storage. Thread safety: reentrant.
KXGEOM_API bool invertRemap(const Remap& map, ArrayOfSets& out);

}  // namespace kxGeom
