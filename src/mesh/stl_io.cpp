// STL: binary facets read in bulk, ascii solids token by token, and both
// written. Welding the three vertices per facet is the caller's.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>

#include "binary_scalars.h"
#include "mesh_file_formats.h"
#include "text_numbers.h"

namespace kxGeom {
namespace fileio {

namespace {

constexpr std::size_t kHeaderBytes = 80;
constexpr std::size_t kPreambleBytes = 84;  // header and facet count
constexpr std::size_t kFacetBytes = 50;     // normal, three corners, attribute
constexpr std::uint64_t kMaxFacets = INT_MAX / 3;

// Numbers the corners 0, 1, 2, ... in facet order: one vertex per corner.
void setCornerTriangles(CompactMesh& mesh, int numFacets) {
  mesh.resizeTriangleArray(numFacets);
  int* corners = mesh.getTrianglesRaw();
  for (int i = 0; i < 3 * numFacets; ++i) corners[i] = i;
}

bool readBinary(FileWindow& in, ReadError& error, CompactMesh& mesh,
                kx::vector<kxLinear::VectorFlt>* facetNormals) {
  if (in.fill(kPreambleBytes) < kPreambleBytes) {
    return error.inFile("%llu bytes are too few for a binary STL file",
                        static_cast<unsigned long long>(in.size()));
  }
  const std::uint32_t numFacets = loadLittle<std::uint32_t>(in.data() + kHeaderBytes);
  const std::uint64_t needed = kPreambleBytes + kFacetBytes * std::uint64_t(numFacets);
  if (needed != in.size() || numFacets > kMaxFacets) {
    return error.atByte(kHeaderBytes, "%u facets need %llu bytes, the file holds %llu", numFacets,
                        static_cast<unsigned long long>(needed),
                        static_cast<unsigned long long>(in.size()));
  }
  in.advance(kPreambleBytes);
  const int n = int(numFacets);
  mesh.resizeVertexArray(3 * n);
  setCornerTriangles(mesh, n);
  if (facetNormals) facetNormals->resize(n);
  float* positions = mesh.getVerticesRaw();
  for (int done = 0; done < n;) {
    const std::size_t held = in.fill(kFacetBytes);
    if (held < kFacetBytes) return error.atByte(in.offset(), "the file ends inside a facet");
    const int batch = int(std::min<std::size_t>(held / kFacetBytes, std::size_t(n - done)));
    const char* facet = in.data();
    for (int j = 0; j < batch; ++j, facet += kFacetBytes) {
      if (facetNormals) {
        (*facetNormals)[done + j] = {loadLittle<float>(facet), loadLittle<float>(facet + 4),
                                     loadLittle<float>(facet + 8)};
      }
      float* corner = positions + 9 * std::size_t(done + j);
      for (int k = 0; k < 9; ++k) corner[k] = loadLittle<float>(facet + 12 + 4 * k);
    }
    const std::size_t bad = firstNonFinite(mesh.getVertices() + 3 * done, 3 * std::size_t(batch));
    if (bad < 3 * std::size_t(batch)) {
      return error.atByte(in.offset() + (bad / 3) * kFacetBytes + 12 + (bad % 3) * 12,
                          "facet %zu has a corner that is not a finite point", done + bad / 3);
    }
    in.advance(std::size_t(batch) * kFacetBytes);
    done += batch;
  }
  return true;
}

// Keywords compare without regard to case: some writers shout.
bool keywordIs(const char* begin, const char* end, const char* word) {
  const std::size_t n = std::strlen(word);
  if (std::size_t(end - begin) != n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(begin[i])) != word[i]) return false;
  }
  return true;
}

class AsciiStl {
 public:
  AsciiStl(TextCursor& text, ReadError& error) : text_(text), error_(error) {}

  // Solids one after another, each "solid [name]", facets, "endsolid [name]".
  bool read(CompactMesh& mesh, kx::vector<kxLinear::VectorFlt>* facetNormals) {
    const char* begin;
    const char* end;
    bool solid = false;
    for (; text_.nextToken(begin, end); solid = true) {
      if (!keywordIs(begin, end, "solid")) return expected("solid");
      text_.skipLine();  // the name
      if (!readFacets()) return false;
    }
    if (!solid) return error_.inFile("no solid");
    const int n = int(normals_.size());
    mesh.resizeVertexArray(3 * n);
    std::copy(corners_.begin(), corners_.end(), mesh.getVertices());
    setCornerTriangles(mesh, n);
    if (facetNormals) facetNormals->swap(normals_);
    return true;
  }

 private:
  bool readFacets() {
    const char* begin;
    const char* end;
    for (;;) {
      if (!text_.nextToken(begin, end)) return error_.atLine(text_.line(), "no endsolid");
      if (keywordIs(begin, end, "endsolid")) break;
      if (!keywordIs(begin, end, "facet")) return expected("facet or endsolid");
      if (!readFacet()) return false;
    }
    text_.skipLine();  // the name
    return true;
  }
  bool readFacet() {
    if (normals_.size() == kMaxFacets) return error_.atLine(text_.line(), "too many facets");
    kxLinear::VectorFlt normal;
    if (!keyword("normal") || !numbers(normal.data())) return false;
    if (!keyword("outer") || !keyword("loop")) return false;
    for (int k = 0; k < 3; ++k) {
      MeshVertex corner;
      if (!keyword("vertex") || !numbers(&corner.x)) return false;
      if (firstNonFinite(&corner, 1) == 0) {
        return error_.atLine(text_.line(), "a corner that is not a finite point");
      }
      corners_.push_back(corner);
    }
    if (!keyword("endloop") || !keyword("endfacet")) return false;
    normals_.push_back(normal);
    return true;
  }
  bool keyword(const char* word) {
    const char* begin;
    const char* end;
    return (text_.nextToken(begin, end) && keywordIs(begin, end, word)) || expected(word);
  }
  bool numbers(float* out) {
    const char* begin;
    const char* end;
    for (int k = 0; k < 3; ++k) {
      if (!text_.nextToken(begin, end) || parseFloat(begin, end, out[k]) != end) {
        return error_.atLine(text_.line(), "cannot parse a number");
      }
    }
    return true;
  }
  bool expected(const char* what) { return error_.atLine(text_.line(), "expected %s", what); }

  TextCursor& text_;
  ReadError& error_;
  kx::vector<MeshVertex> corners_;
  kx::vector<kxLinear::VectorFlt> normals_;
};

bool startsWithSolid(FileWindow& in) {
  const std::size_t held = in.fill(6);
  return held >= 5 && std::memcmp(in.data(), "solid", 5) == 0 &&
         (held == 5 || isSpace(in.data()[5]));
}

}  // namespace

bool hasBinaryStlSize(const char* head, std::size_t n, std::uint64_t size) {
  return n >= kPreambleBytes &&
         kPreambleBytes +
                 kFacetBytes * std::uint64_t(loadLittle<std::uint32_t>(head + kHeaderBytes)) ==
             size;
}

bool readStl(FileWindow& in, ReadError& error, CompactMesh& mesh,
             kx::vector<kxLinear::VectorFlt>* facetNormals) {
  const std::size_t held = in.fill(kPreambleBytes);
  if (hasBinaryStlSize(in.data(), held, in.size()))
    return readBinary(in, error, mesh, facetNormals);
  in.skipByteOrderMark();
  if (!startsWithSolid(in)) return readBinary(in, error, mesh, facetNormals);
  TextCursor text(in);
  return AsciiStl(text, error).read(mesh, facetNormals);
}

// ---- Writing ---------------------------------------------------------------------

namespace {

// The unit normal of a triangle by the right-hand rule; 0 0 0 when it has
// no area (or a corner is not finite).
kxLinear::VectorFlt unitNormal(const MeshVertex* positions, const int* corners) {
  const kxLinear::Point a = positions[corners[0]].asPoint();
  const kxLinear::Vector n =
      kxLinear::cross(positions[corners[1]].asPoint() - a, positions[corners[2]].asPoint() - a);
  const double length = n.length();
  if (!(length > 0) || !std::isfinite(length)) return {};
  return kxLinear::VectorFlt(n / length);
}

void writeBinary(const CompactMesh& mesh, OutputFile& out) {
  char header[kPreambleBytes] = "binary STL written by kxgeom";
  storeLittle<std::uint32_t>(header + kHeaderBytes, std::uint32_t(mesh.getNumTriangles()));
  out.bytes(header, kPreambleBytes);
  const MeshVertex* positions = mesh.getVertices();
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t, corners += 3) {
    char* p = storeLittleFloats(out.reserve(kFacetBytes), unitNormal(positions, corners).data(), 3);
    for (int k = 0; k < 3; ++k) p = storeLittleFloats(p, &positions[corners[k]].x, 3);
    storeLittle<std::uint16_t>(p, 0);
    out.commit(kFacetBytes);
  }
}

void writeTriple(const char* prefix, const float* values, int precision, OutputFile& out) {
  out.text(prefix);
  for (int k = 0; k < 3; ++k) {
    out.character(' ');
    out.number(values[k], precision);
  }
  out.character('\n');
}

void writeAscii(const CompactMesh& mesh, int precision, OutputFile& out) {
  out.text("solid kxgeom\n");
  const MeshVertex* positions = mesh.getVertices();
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t, corners += 3) {
    writeTriple("facet normal", unitNormal(positions, corners).data(), precision, out);
    out.text(" outer loop\n");
    for (int k = 0; k < 3; ++k) writeTriple("  vertex", &positions[corners[k]].x, precision, out);
    out.text(" endloop\nendfacet\n");
  }
  out.text("endsolid kxgeom\n");
}

}  // namespace

void writeStl(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out) {
  if (options.binary) {
    writeBinary(mesh, out);
  } else {
    writeAscii(mesh, options.precision, out);
  }
}

}  // namespace fileio
}  // namespace kxGeom
