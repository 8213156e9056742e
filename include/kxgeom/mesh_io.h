// Mesh files: the library's indexed text format (for CompactMesh and
// TopoMesh) and OBJ with an optional MTL material library.
//
// Indexed text format (all indices 0-based):
//   header            "%d %d\n"           vertex count, face count
//   one per vertex    "%.10g %.10g %.10g\n"
//   one per face      the corner count, then that many vertex indices
// File names are opened by their multibyte form.
//
// Thread safety: every function may run concurrently with others on
// different meshes and files; a mesh being read into or written from needs
// exclusive access for the duration of the call.
#pragma once

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/strings.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/platform/topomesh.h>

namespace kxGeom {

/// Reads the indexed text format into a triangle mesh, replacing all of its
/// previous content with the vertices and triangles of the file (the result
/// has no normals, UVs or colours).
///
/// Each face line is read as a corner count, which is ignored, followed by
/// exactly three indices: a face of another size is misread, not rejected
/// (after a quadrilateral the fourth index is taken as the next count).
/// Numbers are scanned like `fscanf` with "%d" and "%f", without checking
/// the scans: once a number cannot be scanned, it and every later number read
/// as 0. Counts are capped by what the rest of the file could hold (a vertex
/// takes at least 6 bytes, a face 8), so a hostile header cannot cause a
/// large allocation.
///
/// [in,out] mesh: replaced on success.
/// [in] filename: the file to read.
/// Failure: when the file cannot be opened or read the mesh is left
/// unchanged and nothing is printed. When a face index lies outside [0, vertex count) the
/// mesh is left unchanged and one line "meshRead: %s line %d: face refers to
/// missing vertex %d\n" is printed on the debug channel.
/// Cost: O(file size).
KXGEOM_API void meshRead(CompactMesh& mesh, const kxOS::Filename& filename);

/// Reads the indexed text format into a topological mesh, replacing its
/// previous content: one vertex per vertex line (scanned as double), one face
/// per face line with the corner count read from the file. Faces with fewer
/// than three corners are skipped. Afterwards the half-edges of neighbouring
/// faces are paired (`meshTwin`) and the mesh receives one Topology notice.
/// Scanning and count caps as for the triangle mesh (a corner index takes at
/// least 2 bytes).
///
/// [in,out] mesh: replaced on success.
/// [in] filename: the file to read.
/// Failure: as for the triangle mesh; a failed read sends no notice.
/// Cost: O(file size + H log H) for H half-edges.
KXGEOM_API void meshRead(TopoMesh& mesh, const kxOS::Filename& filename);

/// Writes a triangle mesh in the indexed text format: coordinates widened to
/// double with ten significant digits, each triangle as "3 %d %d %d\n".
/// [in] mesh, [in] filename. Failure: when the file cannot be created nothing
/// is written and nothing is reported. Cost: O(V + T).
KXGEOM_API void meshWrite(const CompactMesh& mesh, const kxOS::Filename& filename);

/// Writes a topological mesh in the indexed text format: live vertices
/// numbered in mesh order, each written as "%.10g %.10g %.10g\n", then every
/// face in mesh order as its corner count and corner numbers separated by
/// single blanks. [in] mesh, [in] filename. Failure as for the triangle mesh.
/// Cost: O(V + H).
KXGEOM_API void meshWrite(const TopoMesh& mesh, const kxOS::Filename& filename);

/// Reads an OBJ file into a triangle mesh, replacing all of its content.
///
/// Accepted lines (a keyword followed by a blank or tab; leading blanks
/// allowed; other lines, comments "#" and "$", groups, materials, smoothing
/// and line elements are ignored):
///   "v x y z ..."   a position (extra values such as w or colours ignored)
///   "vn x y z"      a normal
///   "vt u [v ...]"  a texture coordinate (missing v reads as 0)
///   "f c c c ..."   a polygon; each corner is "v", "v/vt", "v//vn" or
///                   "v/vt/vn". Indices are 1-based; a negative index counts
///                   back from the last element of its kind read so far (-1
///                   is the latest). Every index must refer to an element
///                   defined earlier in the file.
/// A polygon of n >= 3 corners becomes n - 2 triangles fanned from its first
/// corner; a face line with fewer than three corners adds nothing. Lines may
/// end in LF or CRLF, and the last line needs no line end. A trailing
/// backslash does not continue a line. A UTF-8 byte order mark at the start
/// is skipped.
///
/// One index serves position, UV and normal in the result: position i keeps
/// index i, and every corner whose (vt, vn) pair differs from the first pair
/// seen with its position gets a split vertex, a copy of the position
/// appended after the positions (one per distinct triple). The mesh has UVs
/// if any corner names a vt and normals if any corner names a vn; vertices
/// without one get (0, 0) or (0, 0, 0). Normals and UVs are attached only
/// through face references.
///
/// [in,out] mesh: replaced on success, untouched on failure.
/// [in] filename: the file to read.
/// Returns true on success. Returns false, leaving the mesh untouched and
/// printing one debug-channel line, when the file cannot be opened or read
/// ("meshReadObj: cannot open %s\n", or "meshReadObj: %s: cannot read the
/// file\n" on a read error after opening), a number cannot be parsed
/// ("meshReadObj: %s line %d: cannot parse a number\n") or a face refers to
/// an element that does not exist ("meshReadObj: %s line %d: face refers to
/// missing %s %d\n", naming vertex, texture coordinate or normal and the
/// index as written). On success prints "meshReadObj: %d vertices, %d
/// triangles %f s\n".
/// Cost: O(file size). Memory: the elements read plus a window of 1 MiB (or
/// the longest line), not the whole file.
KXGEOM_API bool meshReadObj(CompactMesh& mesh, const kxOS::Filename& filename);

/// Writes a triangle mesh as OBJ without materials: "v x y z" per vertex,
/// then "vn x y z" per vertex if the mesh has normals, "vt u v" if it has
/// UVs, then one face line per triangle with 1-based indices, one index
/// serving every attribute: "i/i/i" with normals and UVs, "i//i" with normals
/// only, "i/i" with UVs only, blank-separated. With neither, each corner is
/// written as the index and a blank, with a further blank between corners
/// ("f 1  2  3 "). Numbers use a stream's default float and int formatting.
/// [in] mesh, [in] filename. Returns false when the file cannot be created
/// or written. Cost: O(V + T).
KXGEOM_API bool meshWriteObj(const CompactMesh& mesh, const kxOS::Filename& filename);

/// Writes a triangle mesh as OBJ with one material per subset, and the
/// material library beside it (`filename` with the extension ".mtl").
/// The OBJ starts with "mtllib <base name>.mtl", then the vertex lines as
/// above, then for each subset k in list order "usemtl mat<k>" followed by
/// the face lines of the subset's triangles. The library holds, for each
/// colour k in list order: "newmtl mat<k>", "Ns 100.0", "d 1.0", "illum 2",
/// "Kd r g b", "Ka 1.0 1.0 1.0", "Ks 1.0 1.0 1.0", "Ke 0.0 0.0 0.0" and an
/// empty line. Subset k uses material k; the lists are written as given even
/// when their lengths differ.
/// [in] mesh, [in] subsets (triangle lists; their vertex lists are unused),
/// [in] colours, [in] filename.
/// Returns false, writing nothing, when a subset names a triangle outside
/// the mesh; false when either file cannot be created or written.
/// Cost: O(V + T + total subset size).
KXGEOM_API bool meshWriteObj(const CompactMesh& mesh,
                             const kx::list<kx::Reference<MeshSubset>>& subsets,
                             const kx::list<kxUtil::Color>& colours,
                             const kxOS::Filename& filename);

}  // namespace kxGeom
