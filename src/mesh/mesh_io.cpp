#include <kxgeom/mesh_io.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <unordered_map>

#include <kxgeom/platform/os.h>

#include "file_stream.h"
#include "mesh_file_formats.h"
#include "text_numbers.h"

namespace kxGeom {

namespace {

using fileio::isBlank;
using fileio::isSpace;
using fileio::parseFloat;
using fileio::parseInt;
using fileio::parseReal;

// ---- Whole-file input -----------------------------------------------------

// A file's bytes, read in one go into storage that is not zero-filled first.
struct FileBuffer {
  std::unique_ptr<char[]> bytes;
  std::size_t size = 0;
  const char* begin() const { return bytes.get(); }
  const char* end() const { return bytes.get() + size; }
};

// Reads the whole file. False when it cannot be opened or read.
bool readWholeFile(const kxOS::Filename& filename, FileBuffer& out) {
  std::FILE* f = std::fopen(filename.asMultibyte().c_str(), "rb");
  if (!f) return false;
  // Probe before trusting any size: a directory opens but cannot be read.
  const int first = std::fgetc(f);
  if (first == EOF && std::ferror(f)) {
    std::fclose(f);
    return false;
  }
  if (first != EOF) std::ungetc(first, f);
  // The size is a hint only, capped because some names report sizes that
  // are not theirs (a directory claims an enormous one); the loop grows the
  // buffer for larger files, streams that cannot seek and files that grow.
  constexpr long kMaxHint = 256l << 20;
  std::size_t capacity = 1;  // one more than the hint: reaching the end needs no growth
  if (std::fseek(f, 0, SEEK_END) == 0) {
    const long size = std::ftell(f);
    if (size > 0) capacity += std::size_t(std::min(size, kMaxHint));
    std::fseek(f, 0, SEEK_SET);
  }
  // The scanners read up to kScanSlack bytes past the end.
  std::unique_ptr<char[]> data(new char[capacity + fileio::kScanSlack]);
  std::size_t used = 0;
  for (;;) {
    if (used == capacity) {
      const std::size_t grown = std::max<std::size_t>(4096, 2 * capacity);
      std::unique_ptr<char[]> bigger(new char[grown + fileio::kScanSlack]);
      std::memcpy(bigger.get(), data.get(), used);
      data.swap(bigger);
      capacity = grown;
    }
    const std::size_t n = std::fread(data.get() + used, 1, capacity - used, f);
    if (n == 0) break;
    used += n;
  }
  const bool unreadable = std::ferror(f) != 0;  // e.g. a directory
  std::fclose(f);
  if (unreadable) return false;
  std::memset(data.get() + used, 0, fileio::kScanSlack);
  out.bytes.swap(data);
  out.size = used;
  return true;
}

const char* parseNumber(const char* p, const char* end, int& value) {
  return parseInt(p, end, value);
}
const char* parseNumber(const char* p, const char* end, float& value) {
  return parseFloat(p, end, value);
}
const char* parseNumber(const char* p, const char* end, double& value) {
  return parseReal(p, end, value);
}

// ---- The indexed text format ----------------------------------------------

// A cursor that scans numbers the way fscanf does with unchecked results:
// whitespace is skipped, and once a number cannot be scanned the cursor is
// stuck at that character, so it and every later number read as 0.
class ScanCursor {
 public:
  ScanCursor(const char* begin, const char* end) : p_(begin), begin_(begin), end_(end) {}

  template <class T>
  T next() {
    while (p_ != end_ && isSpace(*p_)) ++p_;
    T value = 0;
    const char* after = parseNumber(p_, end_, value);
    if (!after) return 0;
    p_ = after;
    return value;
  }
  // An upper bound on how many items of at least `bytesPerItem` bytes (with
  // separators) the rest of the input can hold.
  int capCount(int claimed, int bytesPerItem) const {
    const std::size_t fit = std::size_t(end_ - p_) / std::size_t(bytesPerItem) + 1;
    if (claimed < 0) return 0;
    return std::size_t(claimed) < fit ? claimed : static_cast<int>(fit);
  }
  // 1-based line of the cursor, for messages.
  int line() const { return 1 + static_cast<int>(std::count(begin_, p_, '\n')); }

 private:
  const char* p_;
  const char* begin_;
  const char* end_;
};

constexpr int kMinVertexBytes = 6;  // "0 0 0\n"
constexpr int kMinFaceBytes = 8;    // "3 0 0 0\n"
constexpr int kMinIndexBytes = 2;   // " 0"

// Scans one corner index; false (after reporting) when it names no vertex.
bool scanCorner(ScanCursor& in, const kxOS::Filename& filename, int numVertices, int& index) {
  index = in.next<int>();
  if (index >= 0 && index < numVertices) return true;
  debugChannel().print("meshRead: %s line %d: face refers to missing vertex %d\n",
                       filename.asMultibyte().c_str(), in.line(), index);
  return false;
}

// Scans an indexed file: the header, each vertex handed to addVertex(x, y, z)
// as Real, then readFace(cursor) once per face, which returns false to stop.
// Counts are capped by the bytes left. False when the file cannot be opened
// or a face stopped the scan.
template <class Real, class AddVertex, class ReadFace>
bool scanIndexedFile(const kxOS::Filename& filename, AddVertex addVertex, ReadFace readFace) {
  FileBuffer text;
  if (!readWholeFile(filename, text)) return false;
  ScanCursor in(text.begin(), text.end());
  const int claimedVertices = in.next<int>();
  const int claimedFaces = in.next<int>();
  const int numVertices = in.capCount(claimedVertices, kMinVertexBytes);
  for (int i = 0; i < numVertices; ++i) {
    const Real x = in.next<Real>(), y = in.next<Real>(), z = in.next<Real>();
    addVertex(x, y, z);
  }
  const int numFaces = in.capCount(claimedFaces, kMinFaceBytes);
  for (int f = 0; f < numFaces; ++f) {
    if (!readFace(in)) return false;
  }
  return true;
}

FILE* openForWriting(const kxOS::Filename& filename) {
  return std::fopen(filename.asMultibyte().c_str(), "w");
}

// ---- OBJ reading ------------------------------------------------------------

// One corner's indices, 0-based after resolution; -1 for none.
struct ObjCorner {
  int v = -1, vt = -1, vn = -1;
};

// Everything an OBJ file holds that the mesh needs, before vertices are split.
struct ObjContent {
  kx::vector<MeshVertex> positions;
  kx::vector<MeshNormal> normals;
  kx::vector<MeshUV> uvs;
  kx::vector<ObjCorner> corners;  // three per triangle
  bool anyUV = false, anyNormal = false;
};

enum class ObjError { None, Number, MissingVertex, MissingUV, MissingNormal };

class ObjParser {
 public:
  // `fileBytes` bounds what the file can hold, and so what may be reserved.
  ObjParser(ObjContent& out, std::size_t fileBytes) : out_(out), fileBytes_(fileBytes) {}

  // Parses every line; on failure `line()` and `badIndex()` tell where.
  ObjError parse(fileio::TextCursor& lines) {
    line_ = 0;
    const char* p;
    const char* eol;
    while (lines.nextLine(p, eol)) {
      ++line_;
      const ObjError e = parseLine(p, eol);
      if (e != ObjError::None) return e;
    }
    return ObjError::None;
  }
  int line() const { return line_; }
  int badIndex() const { return badIndex_; }

 private:
  // Whether the line continues with `word` and a blank; if so skips both.
  template <std::size_t N>
  static bool keyword(const char*& p, const char* eol, const char (&word)[N]) {
    constexpr std::size_t n = N - 1;
    if (std::size_t(eol - p) <= n || std::memcmp(p, word, n) != 0 || !isBlank(p[n])) return false;
    p += n + 1;
    return true;
  }
  ObjError parseLine(const char* p, const char* eol) {
    while (p != eol && isBlank(*p)) ++p;
    if (keyword(p, eol, "v")) return parseFloats<3>(p, eol, 3, &out_.positions.emplace_back().x);
    if (keyword(p, eol, "vn")) return parseFloats<3>(p, eol, 3, &out_.normals.emplace_back().x);
    if (keyword(p, eol, "vt")) return parseFloats<2>(p, eol, 1, &out_.uvs.emplace_back().u);
    if (keyword(p, eol, "f")) return parseFace(p, eol);
    return ObjError::None;
  }
  // Reads N numbers into out, of which the first `required` must be
  // present (the others default to 0); the rest of the line is ignored.
  template <int N>
  static ObjError parseFloats(const char* p, const char* eol, int required, float* out) {
    for (int i = 0; i < N; ++i) {
      while (p != eol && isBlank(*p)) ++p;
      out[i] = 0.0f;
      if (p == eol && i >= required) continue;
      p = parseFloat(p, eol, out[i]);
      if (!p || (p != eol && !isBlank(*p))) return ObjError::Number;
    }
    return ObjError::None;
  }
  // Turns a 1-based or negative index into a 0-based one; -1 if invalid.
  static int resolve(int index, std::size_t count) {
    const long long n = static_cast<long long>(count);
    if (index > 0) return index <= n ? index - 1 : -1;
    if (index < 0) return -static_cast<long long>(index) <= n ? static_cast<int>(n + index) : -1;
    return -1;
  }
  ObjError parseCorner(const char*& p, const char* eol, ObjCorner& c) {
    int v = 0, vt = 0, vn = 0;
    p = parseInt(p, eol, v);
    if (!p) return ObjError::Number;
    if (p != eol && *p == '/') {
      ++p;
      if (p != eol && *p != '/') {
        p = parseInt(p, eol, vt);
        if (!p) return ObjError::Number;
      }
      if (p != eol && *p == '/') {
        p = parseInt(p + 1, eol, vn);
        if (!p) return ObjError::Number;
      }
    }
    if (p != eol && !isBlank(*p)) return ObjError::Number;
    return resolveCorner(v, vt, vn, c);
  }
  ObjError resolveCorner(int v, int vt, int vn, ObjCorner& c) {
    c.v = resolve(v, out_.positions.size());
    if (c.v < 0) return fail(ObjError::MissingVertex, v);
    if (vt != 0) {
      c.vt = resolve(vt, out_.uvs.size());
      if (c.vt < 0) return fail(ObjError::MissingUV, vt);
    }
    if (vn != 0) {
      c.vn = resolve(vn, out_.normals.size());
      if (c.vn < 0) return fail(ObjError::MissingNormal, vn);
    }
    return ObjError::None;
  }
  ObjError fail(ObjError e, int index) {
    badIndex_ = index;
    return e;
  }
  // Emits the fan (first, previous, current) as corners arrive, so a
  // polygon needs no storage of its own.
  ObjError parseFace(const char* p, const char* eol) {
    reserveCorners();
    ObjCorner first, previous;
    for (int count = 0;; ++count) {
      while (p != eol && isBlank(*p)) ++p;
      if (p == eol) break;
      ObjCorner c;
      const ObjError e = parseCorner(p, eol, c);
      if (e != ObjError::None) return e;
      out_.anyUV |= c.vt >= 0;
      out_.anyNormal |= c.vn >= 0;
      if (count == 0) first = c;
      if (count >= 2) {
        out_.corners.push_back(first);
        out_.corners.push_back(previous);
        out_.corners.push_back(c);
      }
      previous = c;
    }
    return ObjError::None;
  }
  // On the first face, makes room for the two triangles per vertex of a
  // typical closed mesh, but never for more corners than the file's bytes
  // could spell at the eight or so bytes a corner of such a mesh takes: a
  // file of vertices and one face must not ask for memory it cannot fill.
  void reserveCorners() {
    if (out_.corners.capacity() == 0) {
      out_.corners.reserve(std::min(6 * out_.positions.size(), fileBytes_ / 8));
    }
  }

  ObjContent& out_;
  std::size_t fileBytes_;
  int line_ = 0;
  int badIndex_ = 0;
};

struct CornerKey {
  int v, vt, vn;
  bool operator==(const CornerKey& o) const { return v == o.v && vt == o.vt && vn == o.vn; }
};
struct CornerKeyHash {
  std::size_t operator()(const CornerKey& k) const {
    const std::uint64_t h = std::uint64_t(std::uint32_t(k.v)) * 0x9E3779B97F4A7C15ull ^
                            std::uint64_t(std::uint32_t(k.vt)) * 0xC2B2AE3D27D4EB4Full ^
                            std::uint64_t(std::uint32_t(k.vn)) * 0x165667B19E3779F9ull;
    return std::size_t(h ^ (h >> 29));
  }
};

// Gives every corner one vertex index serving position, UV and normal (see
// meshReadObj's contract), and builds the mesh from that.
class ObjAssembler {
 public:
  explicit ObjAssembler(const ObjContent& in) : in_(in) {}

  void build(CompactMesh& result) {
    CompactMesh mesh;
    const std::size_t numCorners = in_.corners.size();
    mesh.resizeTriangleArray(static_cast<int>(numCorners / 3));
    int* triangles = mesh.getTrianglesRaw();
    const bool plain = !in_.anyUV && !in_.anyNormal;
    if (plain) {
      for (std::size_t c = 0; c < numCorners; ++c) triangles[c] = in_.corners[c].v;
    } else {
      attribs_.resize(in_.positions.size());
      for (ObjCorner& a : attribs_) a.v = -1;  // marks a position not yet used
      for (std::size_t c = 0; c < numCorners; ++c) triangles[c] = vertexFor(in_.corners[c]);
    }
    const std::size_t numPositions = in_.positions.size();
    const std::size_t numVertices = plain ? numPositions : attribs_.size();
    mesh.resizeVertexArray(static_cast<int>(numVertices));
    MeshVertex* vertices = mesh.getVertices();
    std::copy(in_.positions.begin(), in_.positions.end(), vertices);
    for (std::size_t i = numPositions; i < numVertices; ++i) {
      vertices[i] = in_.positions[attribs_[i].v];
    }
    if (in_.anyNormal) fillNormals(mesh.allocNormalArray());
    if (in_.anyUV) fillUVs(mesh.allocUVArray());
    result.swap(mesh);
  }

 private:
  int vertexFor(const ObjCorner& c) {
    ObjCorner& owner = attribs_[c.v];
    if (owner.v < 0) {
      owner = c;
      return c.v;
    }
    if (owner.vt == c.vt && owner.vn == c.vn) return c.v;
    const int fresh = static_cast<int>(attribs_.size());
    auto inserted = split_.emplace(CornerKey{c.v, c.vt, c.vn}, fresh);
    if (inserted.second) attribs_.push_back(c);
    return inserted.first->second;
  }
  void fillNormals(MeshNormal* normals) const {
    for (std::size_t i = 0; i < attribs_.size(); ++i) {
      const int k = attribs_[i].vn;
      normals[i] = k < 0 ? MeshNormal{0, 0, 0} : in_.normals[k];
    }
  }
  void fillUVs(MeshUV* uvs) const {
    for (std::size_t i = 0; i < attribs_.size(); ++i) {
      const int k = attribs_[i].vt;
      uvs[i] = k < 0 ? MeshUV{0, 0} : in_.uvs[k];
    }
  }

  const ObjContent& in_;
  kx::vector<ObjCorner> attribs_;  // per output vertex: its source corner
  std::unordered_map<CornerKey, int, CornerKeyHash> split_;
};

const char* missingKind(ObjError e) {
  switch (e) {
    case ObjError::MissingUV:
      return "texture coordinate";
    case ObjError::MissingNormal:
      return "normal";
    default:
      return "vertex";
  }
}

// ---- OBJ writing ----------------------------------------------------------------

// The stream's default formatting, which the OBJ files of this writer have
// always had: six significant digits, shortest form.
constexpr int kObjDigits = 6;

void writeObjValues(fileio::OutputFile& out, const char* keyword, const float* values, int count,
                    int stride) {
  for (int i = 0; i < count; ++i, values += stride) {
    out.text(keyword);
    for (int k = 0; k < stride; ++k) {
      out.character(' ');
      out.number(values[k], kObjDigits);
    }
    out.character('\n');
  }
}

void writeObjVertices(fileio::OutputFile& out, const CompactMesh& mesh) {
  const int n = mesh.getNumVertices();
  writeObjValues(out, "v", mesh.getVerticesRaw(), n, 3);
  if (mesh.getNormals()) writeObjValues(out, "vn", mesh.getNormalsRaw(), n, 3);
  if (mesh.getUVs()) writeObjValues(out, "vt", mesh.getUVsRaw(), n, 2);
}

void writeObjFace(fileio::OutputFile& out, const MeshTriangle& t, bool normals, bool uvs) {
  out.text("f ");
  for (int k = 0; k < 3; ++k) {
    const long long i = t[k] + 1ll;
    out.number(i);
    if (normals || uvs) {
      out.text(normals && !uvs ? "//" : "/");
      out.number(i);
      if (normals && uvs) {
        out.character('/');
        out.number(i);
      }
    } else {
      out.character(' ');
    }
    if (k < 2) out.character(' ');
  }
  out.character('\n');
}

bool subsetsInRange(const CompactMesh& mesh, const kx::list<kx::Reference<MeshSubset>>& subsets) {
  for (const kx::Reference<MeshSubset>& s : subsets) {
    if (!s) continue;
    for (int i = 0; i < s->getNumTriangles(); ++i) {
      const int t = s->getTriangles()[i];
      if (t < 0 || t >= mesh.getNumTriangles()) return false;
    }
  }
  return true;
}

bool writeMaterialLibrary(const kx::list<kxUtil::Color>& colours, const kxOS::Filename& filename) {
  fileio::OutputFile out;
  if (!out.open(filename.asMultibyte().c_str())) return false;
  int k = 0;
  for (const kxUtil::Color& c : colours) {
    out.text("newmtl mat");
    out.number(static_cast<long long>(k++));
    out.text("\nNs 100.0\nd 1.0\nillum 2\nKd ");
    const float kd[3] = {c.red(), c.green(), c.blue()};
    for (int i = 0; i < 3; ++i) {
      if (i) out.character(' ');
      out.number(kd[i], kObjDigits);
    }
    out.text("\nKa 1.0 1.0 1.0\nKs 1.0 1.0 1.0\nKe 0.0 0.0 0.0\n\n");
  }
  return out.close();
}

}  // namespace

namespace {

// Runs a reader that leaves the caller's mesh alone until it succeeds, and
// turns running out of memory into that same untouched failure.
template <class Read>
void readGuarded(const kxOS::Filename& filename, Read read) {
  try {
    read();
  } catch (const std::bad_alloc&) {
    debugChannel().print("meshRead: %s: out of memory\n", filename.asMultibyte().c_str());
  }
}

void readIndexed(CompactMesh& mesh, const kxOS::Filename& filename) {
  kx::vector<MeshVertex> vertices;
  kx::vector<int> triangles;
  auto addVertex = [&vertices](float x, float y, float z) { vertices.push_back({x, y, z}); };
  auto readFace = [&](ScanCursor& in) {
    in.next<int>();  // the corner count: always taken as three
    for (int k = 0; k < 3; ++k) {
      int index;
      if (!scanCorner(in, filename, static_cast<int>(vertices.size()), index)) return false;
      triangles.push_back(index);
    }
    return true;
  };
  if (!scanIndexedFile<float>(filename, addVertex, readFace)) return;
  CompactMesh result(static_cast<int>(vertices.size()), vertices.data(), nullptr, nullptr, nullptr);
  result.copyTriangles(static_cast<int>(triangles.size() / 3), triangles.data());
  mesh.swap(result);
}

void readIndexed(TopoMesh& mesh, const kxOS::Filename& filename) {
  TopoMesh result;
  kx::vector<TopoMeshVertex> corners;
  auto addVertex = [&result](double x, double y, double z) { result.addVertex({x, y, z}); };
  auto readFace = [&](ScanCursor& in) {
    const int count = in.capCount(in.next<int>(), kMinIndexBytes);
    corners.clear();
    for (int k = 0; k < count; ++k) {
      int index;
      if (!scanCorner(in, filename, result.getNumVertices(), index)) return false;
      corners.push_back(TopoMeshVertex(index));
    }
    result.addFace(corners.data(), count);  // skips faces of fewer than 3 corners
    return true;
  };
  if (!scanIndexedFile<double>(filename, addVertex, readFace)) return;
  meshTwin(result);
  mesh.swap(result);
  TopoMeshModification mod(&mesh, TopoMeshModification::Topology);
  mesh.modified(mod);
}

}  // namespace

void meshRead(CompactMesh& mesh, const kxOS::Filename& filename) {
  readGuarded(filename, [&] { readIndexed(mesh, filename); });
}

void meshRead(TopoMesh& mesh, const kxOS::Filename& filename) {
  readGuarded(filename, [&] { readIndexed(mesh, filename); });
}

void meshWrite(const CompactMesh& mesh, const kxOS::Filename& filename) {
  FILE* f = openForWriting(filename);
  if (!f) return;
  std::fprintf(f, "%d %d\n", mesh.getNumVertices(), mesh.getNumTriangles());
  const MeshVertex* v = mesh.getVertices();
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    std::fprintf(f, "%.10g %.10g %.10g\n", double(v[i].x), double(v[i].y), double(v[i].z));
  }
  const MeshTriangle* t = mesh.getTriangles();
  for (int i = 0; i < mesh.getNumTriangles(); ++i) {
    std::fprintf(f, "3 %d %d %d\n", t[i][0], t[i][1], t[i][2]);
  }
  std::fclose(f);
}

void meshWrite(const TopoMesh& mesh, const kxOS::Filename& filename) {
  FILE* f = openForWriting(filename);
  if (!f) return;
  std::fprintf(f, "%d %d\n", mesh.getNumVertices(), mesh.getNumFaces());
  kx::vector<int> number(mesh.vertexSlots());
  int next = 0;
  for (TopoMeshVertex v : mesh.vertices()) {
    number[v.index] = next++;
    const kxLinear::Point& p = mesh.getPoint(v);
    std::fprintf(f, "%.10g %.10g %.10g\n", p.x, p.y, p.z);
  }
  kx::vector<TopoMeshVertex> corners;
  for (TopoMeshFace face : mesh.faces()) {
    mesh.getFaceVertices(face, corners);
    std::fprintf(f, "%d", static_cast<int>(corners.size()));
    for (TopoMeshVertex c : corners) std::fprintf(f, " %d", number[c.index]);
    std::fputc('\n', f);
  }
  std::fclose(f);
}

bool fileio::readObj(FileWindow& in, ReadError& error, CompactMesh& mesh) {
  in.skipByteOrderMark();
  ObjContent content;
  ObjParser parser(content, in.size());
  ObjError e = ObjError::None;
  try {
    TextCursor lines(in);
    e = parser.parse(lines);
  } catch (const std::bad_alloc&) {
    return error.atLine(parser.line(), "out of memory");
  }
  if (e == ObjError::Number) return error.atLine(parser.line(), "cannot parse a number");
  if (e != ObjError::None) {
    return error.atLine(parser.line(), "face refers to missing %s %d", missingKind(e),
                        parser.badIndex());
  }
  ObjAssembler(content).build(mesh);
  return true;
}

bool meshReadObj(CompactMesh& mesh, const kxOS::Filename& filename) {
  kxOS::StopWatch watch;
  const kxString::CString name = filename.asMultibyte();
  fileio::FileWindow in;
  if (!in.open(name.c_str())) {
    debugChannel().print("meshReadObj: cannot open %s\n", name.c_str());
    return false;
  }
  fileio::ReadError error(name.c_str());
  bool read = false;
  try {
    read = fileio::readObj(in, error, mesh);
  } catch (const std::bad_alloc&) {
    read = error.inFile("out of memory");
  }
  if (read && in.readFailed()) read = error.inFile("cannot read the file");
  if (!read) {
    debugChannel().print("meshReadObj: %s\n", error.message().c_str());
    return false;
  }
  debugChannel().print("meshReadObj: %d vertices, %d triangles %f s\n", mesh.getNumVertices(),
                       mesh.getNumTriangles(), watch.stop());
  return true;
}

bool meshWriteObj(const CompactMesh& mesh, const kxOS::Filename& filename) {
  fileio::OutputFile out;
  if (!out.open(filename.asMultibyte().c_str())) return false;
  writeObjVertices(out, mesh);
  const bool normals = mesh.getNormals() != nullptr, uvs = mesh.getUVs() != nullptr;
  const MeshTriangle* t = mesh.getTriangles();
  for (int i = 0; i < mesh.getNumTriangles(); ++i) writeObjFace(out, t[i], normals, uvs);
  return out.close();
}

bool meshWriteObj(const CompactMesh& mesh, const kx::list<kx::Reference<MeshSubset>>& subsets,
                  const kx::list<kxUtil::Color>& colours, const kxOS::Filename& filename) {
  if (!subsetsInRange(mesh, subsets)) return false;
  fileio::OutputFile out;
  if (!out.open(filename.asMultibyte().c_str())) return false;
  out.text("mtllib ");
  out.text(filename.baseName().c_str());
  out.text(".mtl\n");
  writeObjVertices(out, mesh);
  const bool normals = mesh.getNormals() != nullptr, uvs = mesh.getUVs() != nullptr;
  const MeshTriangle* t = mesh.getTriangles();
  int k = 0;
  for (const kx::Reference<MeshSubset>& s : subsets) {
    out.text("usemtl mat");
    out.number(static_cast<long long>(k++));
    out.character('\n');
    if (!s) continue;
    for (int i = 0; i < s->getNumTriangles(); ++i) {
      writeObjFace(out, t[s->getTriangles()[i]], normals, uvs);
    }
  }
  return out.close() && writeMaterialLibrary(colours, filename.withExtension(".mtl"));
}

}  // namespace kxGeom
