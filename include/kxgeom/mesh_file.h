// Mesh files as users hold them: one entry point that reads PLY, STL, OFF,
// OBJ and the library's indexed text format into a triangle mesh, telling
// the format by the file's extension and, where that is missing or wrong, by
// its content; and one that writes any of them.
//
// Formats read (polygons become triangle fans from their first corner):
//   PLY      ascii, binary_little_endian and binary_big_endian. Vertex
//            properties x y z (required), nx ny nz, red green blue [alpha]
//            (integer types as 0..255, float types as 0..1), texture
//            coordinates as s t, u v or texture_u texture_v; any scalar type,
//            converted. Faces: the list `vertex_indices` or `vertex_index` of
//            the element `face`, with integer count and index types. Other
//            elements and properties are skipped by their declared sizes;
//            comment and obj_info lines are ignored. In ascii files each
//            element instance is one line; a binary file ends with its last
//            element.
//   STL      binary and ascii, told apart by content: a file whose size is
//            84 + 50 n (n the facet count at byte 80) is binary even when its
//            header begins with "solid"; a file of another size is read as
//            ascii if it begins with "solid", and fails otherwise. Ascii files may hold
//            several solids; keywords are compared without regard to case.
//   OFF      headers OFF, COFF, NOFF, STOFF and their combinations ([ST][C][N]OFF);
//            per vertex x y z [nx ny nz] [r g b [a]] [s t] on one line, colours
//            as 0..1 unless a component on the line exceeds 1 (then 0..255);
//            "#" starts a comment; anything after a face's indices (a face
//            colour) is ignored. One vertex or face per line.
//   Indexed  the format of mesh_io.h read strictly: the header's counts,
//            exactly three numbers per vertex line, a corner count of at least
//            three and that many indices per face line, nothing after the last
//            face but blank lines.
//   OBJ      as meshReadObj reads it.
// Every reader checks each vertex index against the vertex count; all but the
// OBJ reader also require a finite position for every vertex and at least
// three corners for every face. Counts a
// header declares are checked against the bytes the file holds before
// anything is allocated for them. Text formats may start with a UTF-8 byte
// order mark and use LF or CRLF line ends.
//
// Thread safety: calls on different meshes and files may run concurrently; a
// mesh being read into or written from needs exclusive access for the call.
#pragma once

#include <string>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/platform/remap.h>

namespace kxGeom {

/// A mesh file format. Unknown asks the reader or writer to decide.
enum class MeshFileFormat { Unknown, Indexed, Obj, Ply, Stl, Off };

/// How meshReadFile reads. Every pointer is optional and not owned; outputs
/// are written only when the read succeeds.
struct MeshReadOptions {
  /// Unknown: by the extension, and by content where the extension lies or is
  /// missing. Any other value reads the file as that format.
  MeshFileFormat format = MeshFileFormat::Unknown;
  /// STL: merge exactly equal positions with the library's own weld
  /// (meshCompact with exact float equality: -0 and +0 merge, a NaN never
  /// does). False keeps three vertices per facet.
  bool weldStl = true;
  /// STL: if set, the map from the file's vertices (three per facet, in
  /// facet order) to the mesh's vertices; the identity without a weld.
  Remap* stlRemap = nullptr;
  /// STL: if set, receives each facet's normal as stored, one per triangle.
  kx::vector<kxLinear::VectorFlt>* facetNormals = nullptr;
  /// If set: set() receives the fraction of the file's bytes read so far; a
  /// cancel() aborts the read, which then fails as below.
  kxUtil::Progress* progress = nullptr;
  /// If set: on failure, receives the one-line message, which names the file
  /// and, where there is one, the line or byte offset of the fault.
  std::string* error = nullptr;
};

/// How meshWriteFile writes.
struct MeshWriteOptions {
  /// Unknown: by the extension (an unknown extension fails).
  MeshFileFormat format = MeshFileFormat::Unknown;
  /// PLY (binary little-endian) and STL: binary; false writes ascii.
  bool binary = true;
  /// Significant digits of every number in text output (OBJ, OFF, indexed,
  /// ascii PLY and STL), clamped to [1, 17]; 9 reproduces every float.
  int precision = 9;
  /// If set: on failure, receives the one-line message naming the file.
  std::string* error = nullptr;
};

/// The format a file name's extension names, compared without regard to
/// case: .obj, .ply, .stl, .off; .mesh, .txt and .msh for the indexed format;
/// anything else (no extension included) Unknown. Only the last path
/// component counts. [in] path. Never fails. Cost O(length). Thread-safe.
KXGEOM_API MeshFileFormat meshFileFormatFromName(const std::string& path);

/// The format's short lower-case name: "indexed", "obj", "ply", "stl",
/// "off" or "unknown". Never null. Cost O(1). Thread-safe.
KXGEOM_API const char* meshFileFormatName(MeshFileFormat format);

/// Reads a mesh file, replacing the whole content of `mesh` with its
/// vertices (positions, and normals, UVs and colours where the file holds
/// them) and triangles.
///
/// [in,out] mesh     replaced on success; untouched on failure.
/// [in]     path     the file (a multibyte name).
/// [in]     options  format, STL welding and outputs, progress, error text.
/// Returns true on success, printing one debug-channel line
/// "meshReadFile: <path>: <format>, <V> vertices, <T> triangles, <s> s" (the
/// STL weld logs its own lines before it). Returns false, leaving `mesh` and
/// every output in `options` but `error` untouched and printing one
/// debug-channel line "meshReadFile: <message>\n", when the file cannot be
/// opened or read, is empty, has no recognisable format, breaks its format
/// (the message says how, with the line or byte offset), is cancelled, or
/// needs more memory than there is.
/// Preconditions: none; any bytes are safe input.
/// Cost: O(file size) time (an STL weld adds meshCompact's radix sort of
/// the 3T file vertices); memory: the mesh and a window of about 1 MiB (OBJ:
/// its elements before assembly), never more than the file's bytes can
/// describe. Thread safety: see the header comment.
KXGEOM_API bool meshReadFile(CompactMesh& mesh, const std::string& path,
                             const MeshReadOptions& options = {});

/// Writes a triangle mesh in a file format, with the attributes the mesh
/// has that the format can hold: PLY writes positions, normals, colours
/// (uchar red green blue alpha) and UVs (s t) and the triangles as
/// `vertex_indices` (uchar count, int indices); STL writes each triangle
/// with its unit normal (0 0 0 for a degenerate one) and drops the rest; OFF
/// writes [ST][C][N]OFF with colours as 0..1; OBJ writes v, vn and vt lines
/// and "f i/i/i" faces (one index serving all); the indexed format writes
/// positions and triangles.
///
/// [in] mesh, [in] path (replaced if it exists), [in] options.
/// Returns true on success, printing one debug-channel line. Returns false,
/// printing one debug-channel line "meshWriteFile: <message>\n", when the
/// format is unknown or a triangle names a vertex outside the mesh (nothing
/// is written), or when the file cannot be created or written completely
/// (what was written is removed: no partial file is left at `path`).
/// Cost: O(V + T); memory: a 1 MiB buffer. Thread safety: see the header
/// comment.
KXGEOM_API bool meshWriteFile(const CompactMesh& mesh, const std::string& path,
                              const MeshWriteOptions& options = {});

}  // namespace kxGeom
