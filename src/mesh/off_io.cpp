// OFF: the header that names what each vertex line holds, then the vertex
// and face lines it shares with the indexed format; and the writer.
#include <cstring>

#include "mesh_file_formats.h"
#include "text_numbers.h"

namespace kxGeom {
namespace fileio {

namespace {

// What the first word of an OFF header says: [ST][C][N][4][n]OFF.
struct OffKeyword {
  bool uvs = false, colours = false, normals = false;
  bool otherDimension = false;  // 4OFF, nOFF: not three-dimensional points
};

bool parseOffKeyword(const char* begin, const char* end, OffKeyword& keyword) {
  auto take = [&](const char* prefix) {
    const std::size_t n = std::strlen(prefix);
    if (std::size_t(end - begin) < n || std::memcmp(begin, prefix, n) != 0) return false;
    begin += n;
    return true;
  };
  keyword.uvs = take("ST");
  keyword.colours = take("C");
  keyword.normals = take("N");
  const bool four = take("4");
  const bool any = take("n");
  keyword.otherDimension = four || any;
  return take("OFF") && begin == end;
}

}  // namespace

bool isOffKeyword(const char* begin, const char* end) {
  OffKeyword keyword;
  return parseOffKeyword(begin, end, keyword);
}

bool readOff(FileWindow& in, ReadError& error, CompactMesh& mesh) {
  in.skipByteOrderMark();
  TextCursor text(in);
  const char* begin;
  const char* end;
  OffKeyword keyword;
  if (!text.nextContentLine(begin, end, '#')) return error.inFile("no OFF header");
  LineFields fields(begin, end, '#');
  if (!fields.word(begin, end) || !parseOffKeyword(begin, end, keyword)) {
    return error.atLine(text.line(), "not an OFF header");
  }
  if (keyword.otherDimension) {
    return error.atLine(text.line(), "only three-dimensional vertices are supported");
  }
  // The counts may follow the keyword on its line or stand on the next.
  if (fields.atEnd()) {
    if (!text.nextContentLine(begin, end, '#')) return error.atLine(text.line(), "no counts");
    fields = LineFields(begin, end, '#');
  }
  std::uint64_t numVertices = 0, numFaces = 0, numEdges = 0;
  if (!fields.count(numVertices) || !fields.count(numFaces) ||
      (!fields.atEnd() && !fields.count(numEdges)) || !fields.atEnd()) {
    return error.atLine(text.line(), "expected the vertex, face and edge counts");
  }
  VertexLineLayout layout;
  layout.normals = keyword.normals;
  layout.colours = keyword.colours;
  layout.uvs = keyword.uvs;
  layout.comment = '#';
  layout.faceTails = true;
  return readVertexAndFaceLines(text, error, numVertices, numFaces, layout, text.bytesLeft(), mesh);
}

void writeOff(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out) {
  const VertexLineLayout layout = layoutOf(mesh);
  if (layout.uvs) out.text("ST");
  if (layout.colours) out.text("C");
  if (layout.normals) out.text("N");
  out.text("OFF\n");
  out.number(static_cast<long long>(mesh.getNumVertices()));
  out.character(' ');
  out.number(static_cast<long long>(mesh.getNumTriangles()));
  out.text(" 0\n");
  writeVertexLines(mesh, layout, true, options.precision, out);
  writeTriangleLines(mesh, out);
}

}  // namespace fileio
}  // namespace kxGeom
