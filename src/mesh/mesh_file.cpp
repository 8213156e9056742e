// The mesh file family's entry points: choosing a format by name and
// content, running its reader or writer, and the one log line per call.
// Also the parts the OFF and indexed formats share: their vertex and face
// lines, read strictly, and written.
#include <kxgeom/mesh_file.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <new>

#include <kxgeom/platform/os.h>
#include <kxgeom/weld.h>

#include "binary_scalars.h"
#include "mesh_file_formats.h"
#include "text_numbers.h"

namespace kxGeom {
namespace fileio {

// ---- Shared reading parts ----------------------------------------------------

namespace {

std::string formatted(const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int n = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string text(std::size_t(std::max(n, 0)) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.pop_back();
  return text;
}

}  // namespace

void ReadError::place(const std::string& where, const char* format, va_list args) {
  message_ = where + ": " + formatted(format, args);
}

bool ReadError::atLine(int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  place(file_ + " line " + std::to_string(line), format, args);
  va_end(args);
  return false;
}

bool ReadError::atByte(std::uint64_t offset, const char* format, ...) {
  va_list args;
  va_start(args, format);
  place(file_ + " byte " + std::to_string(offset), format, args);
  va_end(args);
  return false;
}

bool ReadError::inFile(const char* format, ...) {
  va_list args;
  va_start(args, format);
  place(file_, format, args);
  va_end(args);
  return false;
}

TriangleSink::TriangleSink(CompactMesh& mesh, std::uint64_t expected) : mesh_(mesh) {
  capacity_ = int(std::min<std::uint64_t>(std::max<std::uint64_t>(expected, 1), INT_MAX));
  mesh_.resizeTriangleArray(capacity_);
  triangles_ = mesh_.getTrianglesRaw();
}

void TriangleSink::grow() {
  if (capacity_ == INT_MAX) throw std::bad_alloc();  // more triangles than a mesh can index
  capacity_ = int(std::min<long long>(2ll * capacity_, INT_MAX));
  mesh_.resizeTriangleArray(capacity_);
  triangles_ = mesh_.getTrianglesRaw();
}

void TriangleSink::finish() { mesh_.resizeTriangleArray(count_); }

// ---- Vertex and face lines (OFF and the indexed format) ---------------------

namespace {

constexpr std::uint64_t kMinVertexLineBytes = 6;  // "0 0 0\n"
constexpr std::uint64_t kMinFaceLineBytes = 8;    // "3 0 0 0\n"
constexpr int kMaxVertexNumbers = 12;             // x y z  nx ny nz  r g b a  s t

// Three or four components, as 0..1 unless one exceeds 1 (then 0..255).
MeshColour colourOf(const float* c, int n) {
  const float scale = std::any_of(c, c + n, [](float v) { return v > 1.0f; }) ? 1.0f : 255.0f;
  return {colourByte(c[0], scale), colourByte(c[1], scale), colourByte(c[2], scale),
          n == 4 ? colourByte(c[3], scale) : static_cast<unsigned char>(255)};
}

class VertexAndFaceLines {
 public:
  VertexAndFaceLines(TextCursor& text, ReadError& error, const VertexLineLayout& layout)
      : text_(text), error_(error), layout_(layout) {}

  bool read(int numVertices, int numFaces, CompactMesh& mesh) {
    mesh.resizeVertexArray(numVertices);
    positions_ = mesh.getVertices();
    normals_ = layout_.normals ? mesh.allocNormalArray() : nullptr;
    colours_ = layout_.colours ? mesh.allocColourArray() : nullptr;
    uvs_ = layout_.uvs ? mesh.allocUVArray() : nullptr;
    const char* begin;
    const char* end;
    for (int i = 0; i < numVertices; ++i) {
      if (!text_.nextContentLine(begin, end, layout_.comment)) {
        return error_.atLine(text_.line(), "the file ends after %d of %d vertices", i, numVertices);
      }
      if (!readVertex(begin, end, i)) return false;
    }
    TriangleSink sink(mesh, std::uint64_t(numFaces));
    for (int f = 0; f < numFaces; ++f) {
      if (!text_.nextContentLine(begin, end, layout_.comment)) {
        return error_.atLine(text_.line(), "the file ends after %d of %d faces", f, numFaces);
      }
      if (!readFace(begin, end, numVertices, sink)) return false;
    }
    sink.finish();
    if (!text_.onlySpaceLeft(layout_.comment)) {
      return error_.atLine(text_.line(), "unexpected content after the last face");
    }
    return true;
  }

 private:
  bool readVertex(const char* begin, const char* end, int i) {
    float values[kMaxVertexNumbers + 1];
    LineFields fields(begin, end, layout_.comment);
    int n = 0;
    for (; n <= kMaxVertexNumbers && !fields.atEnd(); ++n) {
      if (!fields.real(values[n])) return error_.atLine(text_.line(), "cannot parse a number");
    }
    const int fixed = 3 + (normals_ ? 3 : 0) + (uvs_ ? 2 : 0);
    const int colourCount = n - fixed;
    if (colours_ ? colourCount != 3 && colourCount != 4 : colourCount != 0) {
      return error_.atLine(text_.line(), "expected %d numbers on the vertex line, found %d",
                           fixed + (colours_ ? 4 : 0), n);
    }
    positions_[i] = {values[0], values[1], values[2]};
    if (firstNonFinite(positions_ + i, 1) == 0) {
      return error_.atLine(text_.line(), "vertex %d is not a finite point", i);
    }
    const float* next = values + 3;
    if (normals_) {
      normals_[i] = {next[0], next[1], next[2]};
      next += 3;
    }
    if (colours_) {
      colours_[i] = colourOf(next, colourCount);
      next += colourCount;
    }
    if (uvs_) uvs_[i] = {next[0], next[1]};
    return true;
  }

  bool readFace(const char* begin, const char* end, int numVertices, TriangleSink& sink) {
    LineFields fields(begin, end, layout_.comment);
    int corners = 0;
    if (!fields.integer(corners)) return error_.atLine(text_.line(), "cannot parse a corner count");
    if (corners < 3) return error_.atLine(text_.line(), "a face of %d corners", corners);
    for (int k = 0; k < corners; ++k) {
      int index = 0;
      if (!fields.integer(index)) {
        if (fields.atEnd()) return error_.atLine(text_.line(), "fewer indices than %d", corners);
        return error_.atLine(text_.line(), "cannot parse a vertex index");
      }
      if (!indexInRange(index, numVertices)) {
        return error_.atLine(text_.line(), "face refers to missing vertex %d", index);
      }
      sink.corner(std::uint32_t(k), index);
    }
    if (!layout_.faceTails && !fields.atEnd()) {
      return error_.atLine(text_.line(), "more indices than %d", corners);
    }
    return true;
  }

  TextCursor& text_;
  ReadError& error_;
  const VertexLineLayout& layout_;
  MeshVertex* positions_ = nullptr;
  MeshNormal* normals_ = nullptr;
  MeshColour* colours_ = nullptr;
  MeshUV* uvs_ = nullptr;
};

}  // namespace

bool readVertexAndFaceLines(TextCursor& text, ReadError& error, std::uint64_t numVertices,
                            std::uint64_t numFaces, const VertexLineLayout& layout,
                            std::uint64_t bytesLeft, CompactMesh& mesh) {
  if (numVertices > INT_MAX || numFaces > INT_MAX ||
      !countFits(numVertices, kMinVertexLineBytes, bytesLeft) ||
      !countFits(numFaces, kMinFaceLineBytes, bytesLeft - numVertices * kMinVertexLineBytes)) {
    return error.atLine(
        text.line(), "%llu vertices and %llu faces cannot fit in the %llu bytes left",
        static_cast<unsigned long long>(numVertices), static_cast<unsigned long long>(numFaces),
        static_cast<unsigned long long>(bytesLeft));
  }
  return VertexAndFaceLines(text, error, layout).read(int(numVertices), int(numFaces), mesh);
}

bool readIndexedStrictly(FileWindow& in, ReadError& error, CompactMesh& mesh) {
  in.skipByteOrderMark();
  TextCursor text(in);
  const char* begin;
  const char* end;
  if (!text.nextContentLine(begin, end, 0)) return error.inFile("no header line");
  LineFields header(begin, end);
  std::uint64_t numVertices = 0, numFaces = 0;
  if (!header.count(numVertices) || !header.count(numFaces) || !header.atEnd()) {
    return error.atLine(text.line(), "expected the vertex and face counts");
  }
  return readVertexAndFaceLines(text, error, numVertices, numFaces, VertexLineLayout(),
                                text.bytesLeft(), mesh);
}

// ---- Shared writing parts ---------------------------------------------------

VertexLineLayout layoutOf(const CompactMesh& mesh) {
  VertexLineLayout layout;
  layout.normals = mesh.getNormals() != nullptr;
  layout.colours = mesh.getColours() != nullptr;
  layout.uvs = mesh.getUVs() != nullptr;
  return layout;
}

namespace {

void writeFloats(const float* values, int n, int precision, OutputFile& out) {
  for (int k = 0; k < n; ++k) {
    out.character(' ');
    out.number(values[k], precision);
  }
}

}  // namespace

void writeVertexLines(const CompactMesh& mesh, const VertexLineLayout& layout, bool unitColours,
                      int precision, OutputFile& out) {
  const MeshVertex* positions = mesh.getVertices();
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    out.number(positions[i].x, precision);
    writeFloats(&positions[i].y, 2, precision, out);
    if (layout.normals) writeFloats(&mesh.getNormals()[i].x, 3, precision, out);
    if (layout.colours) {
      const MeshColour& c = mesh.getColours()[i];
      for (unsigned char channel : {c.r, c.g, c.b, c.a}) {
        out.character(' ');
        if (unitColours) {
          out.number(float(channel) / 255.0f, precision);
        } else {
          out.number(static_cast<long long>(channel));
        }
      }
    }
    if (layout.uvs) writeFloats(&mesh.getUVs()[i].u, 2, precision, out);
    out.character('\n');
  }
}

void writeTriangleLines(const CompactMesh& mesh, OutputFile& out) {
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t, corners += 3) {
    out.text("3");
    for (int k = 0; k < 3; ++k) {
      out.character(' ');
      out.number(static_cast<long long>(corners[k]));
    }
    out.character('\n');
  }
}

void writeIndexed(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out) {
  out.number(static_cast<long long>(mesh.getNumVertices()));
  out.character(' ');
  out.number(static_cast<long long>(mesh.getNumTriangles()));
  out.character('\n');
  writeVertexLines(mesh, VertexLineLayout(), false, options.precision, out);
  writeTriangleLines(mesh, out);
}

namespace {

void writeObjLines(const char* keyword, const float* values, int count, int stride, int precision,
                   OutputFile& out) {
  for (int i = 0; i < count; ++i, values += stride) {
    out.text(keyword);
    writeFloats(values, stride, precision, out);
    out.character('\n');
  }
}

}  // namespace

void writeObj(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out) {
  const int n = mesh.getNumVertices();
  writeObjLines("v", mesh.getVerticesRaw(), n, 3, options.precision, out);
  if (mesh.getNormals()) writeObjLines("vn", mesh.getNormalsRaw(), n, 3, options.precision, out);
  if (mesh.getUVs()) writeObjLines("vt", mesh.getUVsRaw(), n, 2, options.precision, out);
  // One index serves every attribute: "i", "i/i" (UV), "i//i" (normal), "i/i/i".
  const char* separator = mesh.getUVs() ? "/" : "//";
  const int repeats = (mesh.getUVs() ? 1 : 0) + (mesh.getNormals() ? 1 : 0);
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t, corners += 3) {
    out.character('f');
    for (int k = 0; k < 3; ++k) {
      const long long index = corners[k] + 1ll;
      out.character(' ');
      out.number(index);
      for (int r = 0; r < repeats; ++r) {
        out.text(r == 0 ? separator : "/");
        out.number(index);
      }
    }
    out.character('\n');
  }
}

}  // namespace fileio

// ---- Names and content ---------------------------------------------------------

namespace {

using fileio::FileWindow;
using fileio::ReadError;

bool startsWith(const char* text, std::size_t n, const char* prefix) {
  const std::size_t k = std::strlen(prefix);
  return n >= k && std::memcmp(text, prefix, k) == 0;
}

// The first bytes of a file, after any byte order mark, for telling formats
// by content; `raw` keeps the mark (binary STL headers are raw bytes).
struct Head {
  const char* raw;
  std::size_t rawSize;
  const char* text;
  std::size_t size;
  std::uint64_t fileSize;
};

// The first line of the head that is neither blank nor a '#' comment,
// trimmed; false when the head holds none.
bool firstContentLine(const Head& head, const char*& begin, const char*& end) {
  const char* p = head.text;
  const char* stop = head.text + head.size;
  while (p != stop) {
    const char* eol = static_cast<const char*>(std::memchr(p, '\n', std::size_t(stop - p)));
    if (!eol) eol = stop;
    const char* b = p;
    while (b != eol && fileio::isSpace(*b)) ++b;
    const char* e = eol;
    while (e != b && fileio::isSpace(e[-1])) --e;
    if (b != e && *b != '#') {
      begin = b;
      end = e;
      return true;
    }
    p = eol == stop ? stop : eol + 1;
  }
  return false;
}

bool looksLikePly(const Head& h) {
  return startsWith(h.text, h.size, "ply\n") || startsWith(h.text, h.size, "ply\r\n");
}

// The first blank-separated word of the first line that is not blank or a
// "#" comment; false when there is none.
bool firstWord(const Head& h, const char*& word, const char*& wordEnd) {
  const char* begin;
  const char* end;
  if (!firstContentLine(h, begin, end)) return false;
  fileio::LineFields fields(begin, end);
  return fields.word(word, wordEnd);
}

bool looksLikeOff(const Head& h) {
  const char* word;
  const char* wordEnd;
  return firstWord(h, word, wordEnd) && fileio::isOffKeyword(word, wordEnd);
}

bool looksLikeStl(const Head& h) {
  return fileio::hasBinaryStlSize(h.raw, h.rawSize, h.fileSize) ||
         (startsWith(h.text, h.size, "solid") && (h.size == 5 || fileio::isSpace(h.text[5])));
}

bool looksLikeObj(const Head& h) {
  const char* word;
  const char* wordEnd;
  if (!firstWord(h, word, wordEnd)) return false;
  const std::string keyword(word, wordEnd);
  for (const char* k : {"v", "vn", "vt", "vp", "f", "l", "o", "g", "s", "mtllib", "usemtl"}) {
    if (keyword == k) return true;
  }
  return false;
}

bool looksLikeIndexed(const Head& h) {
  const char* begin;
  const char* end;
  if (!firstContentLine(h, begin, end)) return false;
  fileio::LineFields fields(begin, end);
  std::uint64_t vertices, faces;
  return fields.count(vertices) && fields.count(faces) && fields.atEnd();
}

bool looksLike(MeshFileFormat format, const Head& head) {
  switch (format) {
    case MeshFileFormat::Ply:
      return looksLikePly(head);
    case MeshFileFormat::Off:
      return looksLikeOff(head);
    case MeshFileFormat::Stl:
      return looksLikeStl(head);
    case MeshFileFormat::Obj:
      return looksLikeObj(head);
    case MeshFileFormat::Indexed:
      return looksLikeIndexed(head);
    default:
      return false;
  }
}

// Formats in the order content is tested: the most distinctive first.
constexpr MeshFileFormat kSniffOrder[] = {MeshFileFormat::Ply, MeshFileFormat::Off,
                                          MeshFileFormat::Stl, MeshFileFormat::Obj,
                                          MeshFileFormat::Indexed};

// The extension's format where the content agrees with it or tells
// nothing; otherwise the format the content shows.
MeshFileFormat chooseFormat(const std::string& path, FileWindow& in) {
  constexpr std::size_t kHeadBytes = 4096;
  Head head;
  head.rawSize = in.fill(kHeadBytes);
  head.raw = in.data();
  head.fileSize = in.size();
  const bool mark = startsWith(head.raw, head.rawSize, "\xEF\xBB\xBF");
  head.text = head.raw + (mark ? 3 : 0);
  head.size = head.rawSize - (mark ? 3 : 0);
  head.size = std::min(head.size, kHeadBytes);
  const MeshFileFormat named = meshFileFormatFromName(path);
  if (named != MeshFileFormat::Unknown && looksLike(named, head)) return named;
  for (MeshFileFormat format : kSniffOrder) {
    if (looksLike(format, head)) return format;
  }
  return named;
}

bool readFormat(MeshFileFormat format, FileWindow& in, ReadError& error, CompactMesh& mesh,
                kx::vector<kxLinear::VectorFlt>* facetNormals) {
  switch (format) {
    case MeshFileFormat::Ply:
      return fileio::readPly(in, error, mesh);
    case MeshFileFormat::Stl:
      return fileio::readStl(in, error, mesh, facetNormals);
    case MeshFileFormat::Off:
      return fileio::readOff(in, error, mesh);
    case MeshFileFormat::Obj:
      return fileio::readObj(in, error, mesh);
    case MeshFileFormat::Indexed:
      return fileio::readIndexedStrictly(in, error, mesh);
    default:
      return error.inFile("not a mesh file of a known format");
  }
}

// Everything a successful read hands back besides the mesh.
struct ReadResults {
  CompactMesh mesh;
  kx::vector<kxLinear::VectorFlt> facetNormals;
  Remap stlRemap;
  MeshFileFormat format = MeshFileFormat::Unknown;
};

bool readFile(const std::string& path, const MeshReadOptions& options, ReadError& error,
              ReadResults& out) {
  FileWindow in;
  if (!in.open(path.c_str(), options.progress)) return error.inFile("cannot open or read the file");
  if (!in.sizeKnown()) return error.inFile("not a regular file");
  if (in.size() == 0) return error.inFile("empty file");
  out.format = options.format != MeshFileFormat::Unknown ? options.format : chooseFormat(path, in);
  const bool read = readFormat(out.format, in, error, out.mesh,
                               options.facetNormals ? &out.facetNormals : nullptr);
  if (in.cancelled()) return error.atByte(in.offset(), "cancelled");
  if (in.readFailed()) return error.atByte(in.offset(), "cannot read the file");
  if (!read) return false;
  if (out.format != MeshFileFormat::Stl) return true;
  if (options.weldStl) {
    kxUtil::Progress weld;
    meshCompact(out.mesh, weld, out.stlRemap);
  } else {
    out.stlRemap.resize(out.mesh.getNumVertices(), out.mesh.getNumVertices());
    out.stlRemap.setSequential();
  }
  return true;
}

}  // namespace

MeshFileFormat meshFileFormatFromName(const std::string& path) {
  const std::size_t slash = path.find_last_of("/\\");
  const std::size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
    return MeshFileFormat::Unknown;
  }
  std::string extension = path.substr(dot + 1);
  for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
  struct Named {
    const char* extension;
    MeshFileFormat format;
  };
  static const Named kNames[] = {
      {"obj", MeshFileFormat::Obj},      {"ply", MeshFileFormat::Ply},
      {"stl", MeshFileFormat::Stl},      {"off", MeshFileFormat::Off},
      {"mesh", MeshFileFormat::Indexed}, {"txt", MeshFileFormat::Indexed},
      {"msh", MeshFileFormat::Indexed},
  };
  for (const Named& n : kNames) {
    if (extension == n.extension) return n.format;
  }
  return MeshFileFormat::Unknown;
}

const char* meshFileFormatName(MeshFileFormat format) {
  switch (format) {
    case MeshFileFormat::Indexed:
      return "indexed";
    case MeshFileFormat::Obj:
      return "obj";
    case MeshFileFormat::Ply:
      return "ply";
    case MeshFileFormat::Stl:
      return "stl";
    case MeshFileFormat::Off:
      return "off";
    default:
      return "unknown";
  }
}

bool meshReadFile(CompactMesh& mesh, const std::string& path, const MeshReadOptions& options) {
  kxOS::StopWatch watch;
  ReadError error(path);
  ReadResults results;
  bool read = false;
  try {
    read = readFile(path, options, error, results);
  } catch (const std::bad_alloc&) {
    read = error.inFile("out of memory");
  }
  if (!read) {
    debugChannel().print("meshReadFile: %s\n", error.message().c_str());
    if (options.error) *options.error = error.message();
    return false;
  }
  mesh.swap(results.mesh);
  if (options.facetNormals) options.facetNormals->swap(results.facetNormals);
  if (options.stlRemap) *options.stlRemap = results.stlRemap;
  debugChannel().print("meshReadFile: %s: %s, %d vertices, %d triangles, %f s\n", path.c_str(),
                       meshFileFormatName(results.format), mesh.getNumVertices(),
                       mesh.getNumTriangles(), watch.stop());
  return true;
}

namespace {

// The first triangle with a corner outside the mesh, or -1.
int firstBadTriangle(const CompactMesh& mesh) {
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      if (!fileio::indexInRange(corners[3 * t + k], mesh.getNumVertices())) return t;
    }
  }
  return -1;
}

void writeFormat(MeshFileFormat format, const CompactMesh& mesh, const MeshWriteOptions& options,
                 fileio::OutputFile& out) {
  switch (format) {
    case MeshFileFormat::Ply:
      return fileio::writePly(mesh, options, out);
    case MeshFileFormat::Stl:
      return fileio::writeStl(mesh, options, out);
    case MeshFileFormat::Off:
      return fileio::writeOff(mesh, options, out);
    case MeshFileFormat::Obj:
      return fileio::writeObj(mesh, options, out);
    default:
      return fileio::writeIndexed(mesh, options, out);
  }
}

// Writes the file; an empty string on success, else why not.
std::string writeFile(const CompactMesh& mesh, const std::string& path,
                      const MeshWriteOptions& options, MeshFileFormat format) {
  if (format == MeshFileFormat::Unknown) return "no known format by that name";
  const int bad = firstBadTriangle(mesh);
  if (bad >= 0) return "triangle " + std::to_string(bad) + " refers to a missing vertex";
  fileio::OutputFile out;
  if (!out.open(path.c_str())) return "cannot create the file";
  writeFormat(format, mesh, options, out);
  return out.close() ? std::string() : "cannot write the file";
}

}  // namespace

bool meshWriteFile(const CompactMesh& mesh, const std::string& path,
                   const MeshWriteOptions& options) {
  kxOS::StopWatch watch;
  const MeshFileFormat format =
      options.format != MeshFileFormat::Unknown ? options.format : meshFileFormatFromName(path);
  std::string why;
  try {
    why = writeFile(mesh, path, options, format);
  } catch (const std::bad_alloc&) {
    why = "out of memory";
  }
  if (!why.empty()) {
    const std::string message = path + ": " + why;
    debugChannel().print("meshWriteFile: %s\n", message.c_str());
    if (options.error) *options.error = message;
    return false;
  }
  debugChannel().print("meshWriteFile: %s: %s, %d vertices, %d triangles, %f s\n", path.c_str(),
                       meshFileFormatName(format), mesh.getNumVertices(), mesh.getNumTriangles(),
                       watch.stop());
  return true;
}

}  // namespace kxGeom
