// What the format readers and writers of the mesh file family share, and
// their entry points for the dispatch in mesh_file.cpp.
//
// A reader fills a fresh mesh that the dispatch swaps into the caller's only
// on success, so a reader may stop anywhere; it says why through ReadError.
#pragma once

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <string>

#include <kxgeom/mesh_file.h>

#include "file_stream.h"

namespace kxGeom {
namespace fileio {

/// Why a read failed, as one line naming the file and, where there is one,
/// the line or byte offset. Every setter returns false, so that a reader can
/// `return error.atLine(...)`.
class ReadError {
 public:
  explicit ReadError(std::string file) : file_(std::move(file)) {}

  bool atLine(int line, const char* format, ...) __attribute__((format(printf, 3, 4)));
  bool atByte(std::uint64_t offset, const char* format, ...) __attribute__((format(printf, 3, 4)));
  bool inFile(const char* format, ...) __attribute__((format(printf, 2, 3)));
  const std::string& message() const { return message_; }
  const std::string& file() const { return file_; }

 private:
  void place(const std::string& where, const char* format, va_list args);

  std::string file_;
  std::string message_;
};

/// Collects triangles straight into a mesh's triangle array, which grows
/// geometrically from a first guess; polygons arrive corner by corner and
/// leave as the fan from their first corner.
class TriangleSink {
 public:
  /// `expected`: the triangles to make room for at once (the caller caps it
  /// by what the file can hold).
  TriangleSink(CompactMesh& mesh, std::uint64_t expected);
  void add(int a, int b, int c) {
    if (count_ == capacity_) grow();
    int* t = triangles_ + 3 * std::size_t(count_++);
    t[0] = a;
    t[1] = b;
    t[2] = c;
  }
  /// Corner k (0-based) of the current polygon.
  void corner(std::uint32_t k, int index) {
    if (k >= 2) add(first_, previous_, index);
    if (k == 0) first_ = index;
    previous_ = index;
  }
  /// Trims the mesh's triangle array to the triangles added.
  void finish();

 private:
  void grow();

  CompactMesh& mesh_;
  int* triangles_ = nullptr;
  int count_ = 0, capacity_ = 0;
  int first_ = 0, previous_ = 0;
};

/// The first of `count` positions with a coordinate that is not a finite
/// number, or `count` when there is none.
inline std::size_t firstNonFinite(const MeshVertex* positions, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const MeshVertex& p = positions[i];
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) return i;
  }
  return count;
}

/// A colour channel from `value` times `scale`, rounded and clamped to
/// 0..255 (NaN gives 0).
inline unsigned char colourByte(float value, float scale) {
  const float v = value * scale;
  if (!(v > 0.0f)) return 0;
  return v >= 255.0f ? 255 : static_cast<unsigned char>(v + 0.5f);
}

/// Whether a vertex index read from a file names one of `numVertices`.
inline bool indexInRange(std::int64_t index, int numVertices) {
  return std::uint64_t(index) < std::uint64_t(numVertices);
}

/// Whether `count` items of at least `minBytes` bytes each fit the bytes
/// left, compared without overflow.
inline bool countFits(std::uint64_t count, std::uint64_t minBytes, std::uint64_t bytesLeft) {
  return minBytes == 0 || count <= bytesLeft / minBytes;
}

// ---- The formats ----------------------------------------------------------------
// Readers start at the window's cursor (any byte order mark still there)
// and fill `mesh`, a fresh mesh.

bool readPly(FileWindow& in, ReadError& error, CompactMesh& mesh);
/// `facetNormals`, if not null, receives one normal per facet; welding is
/// the caller's.
bool readStl(FileWindow& in, ReadError& error, CompactMesh& mesh,
             kx::vector<kxLinear::VectorFlt>* facetNormals);
bool readOff(FileWindow& in, ReadError& error, CompactMesh& mesh);
bool readIndexedStrictly(FileWindow& in, ReadError& error, CompactMesh& mesh);

/// What a vertex line of the OFF family holds besides its position, and
/// the comment character (0 for none).
struct VertexLineLayout {
  bool normals = false, colours = false, uvs = false;
  char comment = 0;
  bool faceTails = false;  ///< whether text may follow a face's indices
};
/// Reads the vertex and face lines that follow an OFF or indexed header
/// declaring the counts, and requires nothing but blank lines (and
/// comments) after them.
bool readVertexAndFaceLines(TextCursor& text, ReadError& error, std::uint64_t numVertices,
                            std::uint64_t numFaces, const VertexLineLayout& layout,
                            std::uint64_t bytesLeft, CompactMesh& mesh);
bool readObj(FileWindow& in, ReadError& error, CompactMesh& mesh);

/// Whether [begin, end) is the first word of an OFF header:
/// [ST][C][N][4][n]OFF.
bool isOffKeyword(const char* begin, const char* end);

/// Whether a file of `size` bytes starting with `head` (n bytes) has the
/// size of a binary STL file with the facet count at byte 80.
bool hasBinaryStlSize(const char* head, std::size_t n, std::uint64_t size);

// Writers append the whole file to `out`; the mesh's indices are valid.
void writePly(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out);
void writeStl(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out);
void writeOff(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out);
void writeIndexed(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out);
void writeObj(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out);

/// Writes one text line per vertex: the position, then those of the normal,
/// the colour (as 0..1 when `unitColours`, else 0..255) and the UV that
/// `layout` asks for, separated by blanks. Shared by the OFF, ascii PLY and
/// indexed writers.
void writeVertexLines(const CompactMesh& mesh, const VertexLineLayout& layout, bool unitColours,
                      int precision, OutputFile& out);
/// The layout of everything the mesh has.
VertexLineLayout layoutOf(const CompactMesh& mesh);
/// Writes one line "3 a b c" per triangle.
void writeTriangleLines(const CompactMesh& mesh, OutputFile& out);

}  // namespace fileio
}  // namespace kxGeom
