#include <kxgeom/mesh_io.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>
#include <unordered_map>

#include <kxgeom/platform/os.h>

namespace kxGeom {

namespace {

// ---- Whole-file input -----------------------------------------------------

// Reads the file into `out` in one go. False when it cannot be opened.
bool readWholeFile(const kxOS::Filename& filename, std::string& out) {
  std::FILE* f = std::fopen(filename.asMultibyte().c_str(), "rb");
  if (!f) return false;
  out.clear();
  char chunk[1 << 16];
  if (std::fseek(f, 0, SEEK_END) == 0) {
    const long size = std::ftell(f);
    if (size > 0) out.reserve(std::size_t(size));
    std::fseek(f, 0, SEEK_SET);
  }
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) out.append(chunk, n);
  std::fclose(f);
  return true;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
bool isSpace(char c) { return isBlank(c) || c == '\n' || c == '\v' || c == '\f'; }

// from_chars for numbers as the C library scans them: an optional '+' is
// accepted, and a float beyond float range falls back to double precision
// (rounding to infinity or zero) instead of failing.
template <class T>
const char* parseNumber(const char* p, const char* end, T& value) {
  if (p != end && *p == '+' && end - p > 1 && p[1] != '-') ++p;
  std::from_chars_result r = std::from_chars(p, end, value);
  if constexpr (std::is_same<T, float>::value) {
    if (r.ec == std::errc::result_out_of_range) {
      double wide = 0;
      r = std::from_chars(p, end, wide);
      value = static_cast<float>(wide);
    }
  }
  return r.ec == std::errc() ? r.ptr : nullptr;
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

void reportMissingVertex(const kxOS::Filename& filename, const ScanCursor& cursor, int index) {
  debugChannel().print("meshRead: %s line %d: face refers to missing vertex %d\n",
                       filename.asMultibyte().c_str(), cursor.line(), index);
}

bool isVertexIndex(int index, int numVertices) { return index >= 0 && index < numVertices; }

// Reads "%f %f %f" per vertex into a vertex array.
template <class Real, class Store>
void scanVertices(ScanCursor& in, int count, Store store) {
  for (int i = 0; i < count; ++i) {
    const Real x = in.next<Real>(), y = in.next<Real>(), z = in.next<Real>();
    store(i, x, y, z);
  }
}

FILE* openForWriting(const kxOS::Filename& filename) {
  return std::fopen(filename.asMultibyte().c_str(), "w");
}

// ---- OBJ reading ------------------------------------------------------------

// Everything an OBJ file holds that the mesh needs, before vertices are split.
struct ObjContent {
  kx::vector<float> positions, normals, uvs;  // 3, 3 and 2 floats per element
  kx::vector<int> corners;                    // (v, vt, vn) per corner, -1 = none
  bool anyUV = false, anyNormal = false;
};

enum class ObjError { None, Number, MissingVertex, MissingUV, MissingNormal };

// One corner's indices, 0-based after resolution.
struct ObjCorner {
  int v = -1, vt = -1, vn = -1;
};

class ObjParser {
 public:
  explicit ObjParser(ObjContent& out) : out_(out) {}

  // Parses the buffer; on failure reports the line and what went wrong.
  ObjError parse(const char* p, const char* end) {
    line_ = 0;
    while (p < end) {
      ++line_;
      const char* eol = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
      if (!eol) eol = end;
      const ObjError e = parseLine(p, eol);
      if (e != ObjError::None) return e;
      p = eol + 1;
    }
    return ObjError::None;
  }
  int line() const { return line_; }
  int badIndex() const { return badIndex_; }

 private:
  static bool keyword(const char*& p, const char* eol, const char* word) {
    const std::size_t n = std::strlen(word);
    if (std::size_t(eol - p) <= n || std::memcmp(p, word, n) != 0 || !isBlank(p[n])) return false;
    p += n;
    return true;
  }
  ObjError parseLine(const char* p, const char* eol) {
    while (p != eol && isBlank(*p)) ++p;
    if (keyword(p, eol, "v")) return parseFloats(p, eol, 3, 3, out_.positions);
    if (keyword(p, eol, "vn")) return parseFloats(p, eol, 3, 3, out_.normals);
    if (keyword(p, eol, "vt")) return parseFloats(p, eol, 1, 2, out_.uvs);
    if (keyword(p, eol, "f")) return parseFace(p, eol);
    return ObjError::None;
  }
  // Reads `required` numbers (at most `kept` are stored, missing optional
  // ones as 0); anything after them on the line is ignored.
  static ObjError parseFloats(const char* p, const char* eol, int required, int kept,
                              kx::vector<float>& out) {
    for (int i = 0; i < kept; ++i) {
      while (p != eol && isBlank(*p)) ++p;
      float value = 0;
      if (p == eol && i >= required) {
        out.push_back(0.0f);
        continue;
      }
      p = parseNumber(p, eol, value);
      if (!p || (p != eol && !isBlank(*p))) return ObjError::Number;
      out.push_back(value);
    }
    return ObjError::None;
  }
  // Turns a 1-based or negative index into a 0-based one; -1 if invalid.
  static int resolve(int index, int count) {
    if (index > 0) return index <= count ? index - 1 : -1;
    if (index < 0) return index >= -count ? count + index : -1;
    return -1;
  }
  static const char* parseIndex(const char* p, const char* eol, int& index) {
    return parseNumber(p, eol, index);
  }
  ObjError parseCorner(const char*& p, const char* eol, ObjCorner& c) {
    int v = 0, vt = 0, vn = 0;
    p = parseIndex(p, eol, v);
    if (!p) return ObjError::Number;
    if (p != eol && *p == '/') {
      ++p;
      if (p != eol && *p != '/') {
        p = parseIndex(p, eol, vt);
        if (!p) return ObjError::Number;
      }
      if (p != eol && *p == '/') {
        p = parseIndex(p + 1, eol, vn);
        if (!p) return ObjError::Number;
      }
    }
    if (p != eol && !isBlank(*p)) return ObjError::Number;
    return resolveCorner(v, vt, vn, c);
  }
  ObjError resolveCorner(int v, int vt, int vn, ObjCorner& c) {
    c.v = resolve(v, static_cast<int>(out_.positions.size() / 3));
    if (c.v < 0) return fail(ObjError::MissingVertex, v);
    if (vt != 0) {
      c.vt = resolve(vt, static_cast<int>(out_.uvs.size() / 2));
      if (c.vt < 0) return fail(ObjError::MissingUV, vt);
    }
    if (vn != 0) {
      c.vn = resolve(vn, static_cast<int>(out_.normals.size() / 3));
      if (c.vn < 0) return fail(ObjError::MissingNormal, vn);
    }
    return ObjError::None;
  }
  ObjError fail(ObjError e, int index) {
    badIndex_ = index;
    return e;
  }
  ObjError parseFace(const char* p, const char* eol) {
    polygon_.clear();
    for (;;) {
      while (p != eol && isBlank(*p)) ++p;
      if (p == eol) break;
      ObjCorner c;
      const ObjError e = parseCorner(p, eol, c);
      if (e != ObjError::None) return e;
      polygon_.push_back(c);
    }
    for (std::size_t i = 1; i + 1 < polygon_.size(); ++i) {
      addCorner(polygon_[0]);
      addCorner(polygon_[i]);
      addCorner(polygon_[i + 1]);
    }
    return ObjError::None;
  }
  void addCorner(const ObjCorner& c) {
    out_.corners.insert(out_.corners.end(), {c.v, c.vt, c.vn});
    out_.anyUV |= c.vt >= 0;
    out_.anyNormal |= c.vn >= 0;
  }

  ObjContent& out_;
  kx::vector<ObjCorner> polygon_;
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
    const int numPositions = static_cast<int>(in_.positions.size() / 3);
    const int numCorners = static_cast<int>(in_.corners.size() / 3);
    owner_.assign(numPositions, -1);
    attribs_.assign(std::size_t(numPositions) * 2, -1);
    triangles_.resize(numCorners);
    for (int c = 0; c < numCorners; ++c)
      triangles_[c] = vertexFor(&in_.corners[3 * std::size_t(c)]);
    const int numVertices = numPositions + static_cast<int>(splitSource_.size());
    kx::vector<MeshVertex> vertices(numVertices);
    std::memcpy(static_cast<void*>(vertices.data()), in_.positions.data(),
                sizeof(float) * in_.positions.size());
    for (std::size_t s = 0; s < splitSource_.size(); ++s) {
      vertices[numPositions + s] = vertices[splitSource_[s]];
    }
    CompactMesh mesh(numVertices, vertices.data(), nullptr, nullptr, nullptr);
    if (in_.anyNormal) fillNormals(mesh.allocNormalArray(), numVertices);
    if (in_.anyUV) fillUVs(mesh.allocUVArray(), numVertices);
    mesh.copyTriangles(numCorners / 3, triangles_.data());
    result.swap(mesh);
  }

 private:
  int vertexFor(const int* corner) {
    const int v = corner[0], vt = corner[1], vn = corner[2];
    if (owner_[v] < 0) {
      owner_[v] = v;
      attribs_[2 * std::size_t(v)] = vt;
      attribs_[2 * std::size_t(v) + 1] = vn;
      return v;
    }
    if (attribs_[2 * std::size_t(v)] == vt && attribs_[2 * std::size_t(v) + 1] == vn) return v;
    const int fresh = static_cast<int>(in_.positions.size() / 3 + splitSource_.size());
    auto inserted = split_.emplace(CornerKey{v, vt, vn}, fresh);
    if (inserted.second) {
      splitSource_.push_back(v);
      attribs_.insert(attribs_.end(), {vt, vn});
    }
    return inserted.first->second;
  }
  void fillNormals(MeshNormal* normals, int n) const {
    for (int i = 0; i < n; ++i) {
      const int k = attribs_[2 * std::size_t(i) + 1];
      normals[i] =
          k < 0 ? MeshNormal{0, 0, 0}
                : MeshNormal{in_.normals[3 * std::size_t(k)], in_.normals[3 * std::size_t(k) + 1],
                             in_.normals[3 * std::size_t(k) + 2]};
    }
  }
  void fillUVs(MeshUV* uvs, int n) const {
    for (int i = 0; i < n; ++i) {
      const int k = attribs_[2 * std::size_t(i)];
      uvs[i] = k < 0 ? MeshUV{0, 0}
                     : MeshUV{in_.uvs[2 * std::size_t(k)], in_.uvs[2 * std::size_t(k) + 1]};
    }
  }

  const ObjContent& in_;
  kx::vector<int> owner_;    // per position: -1 until a corner uses it
  kx::vector<int> attribs_;  // per output vertex: (vt, vn)
  kx::vector<int> splitSource_;
  kx::vector<int> triangles_;
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

void writeObjVertices(std::ostream& os, const CompactMesh& mesh) {
  const int n = mesh.getNumVertices();
  const MeshVertex* v = mesh.getVertices();
  for (int i = 0; i < n; ++i) os << "v " << v[i].x << " " << v[i].y << " " << v[i].z << "\n";
  if (const MeshNormal* vn = mesh.getNormals()) {
    for (int i = 0; i < n; ++i) os << "vn " << vn[i].x << " " << vn[i].y << " " << vn[i].z << "\n";
  }
  if (const MeshUV* vt = mesh.getUVs()) {
    for (int i = 0; i < n; ++i) os << "vt " << vt[i].u << " " << vt[i].v << "\n";
  }
}

void writeObjFace(std::ostream& os, const MeshTriangle& t, bool normals, bool uvs) {
  os << "f ";
  for (int k = 0; k < 3; ++k) {
    const int i = t[k] + 1;
    if (normals && uvs) {
      os << i << "/" << i << "/" << i;
    } else if (normals) {
      os << i << "//" << i;
    } else if (uvs) {
      os << i << "/" << i;
    } else {
      os << i << " ";
    }
    if (k < 2) os << " ";
  }
  os << "\n";
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
  std::ofstream os(filename.asMultibyte().c_str());
  if (!os) return false;
  int k = 0;
  for (const kxUtil::Color& c : colours) {
    os << "newmtl mat" << k++ << "\n"
       << "Ns 100.0\n"
       << "d 1.0\n"
       << "illum 2\n"
       << "Kd " << c.red() << " " << c.green() << " " << c.blue() << "\n"
       << "Ka 1.0 1.0 1.0\n"
       << "Ks 1.0 1.0 1.0\n"
       << "Ke 0.0 0.0 0.0\n"
       << "\n";
  }
  os.flush();
  return bool(os);
}

}  // namespace

void meshRead(CompactMesh& mesh, const kxOS::Filename& filename) {
  std::string text;
  if (!readWholeFile(filename, text)) return;
  ScanCursor in(text.data(), text.data() + text.size());
  const int claimedVertices = in.next<int>();
  const int claimedFaces = in.next<int>();
  const int numVertices = in.capCount(claimedVertices, kMinVertexBytes);
  kx::vector<MeshVertex> vertices(numVertices);
  scanVertices<float>(in, numVertices, [&vertices](int i, float x, float y, float z) {
    vertices[i] = {x, y, z};
  });
  const int numFaces = in.capCount(claimedFaces, kMinFaceBytes);
  kx::vector<int> triangles(3 * std::size_t(numFaces));
  for (int f = 0; f < numFaces; ++f) {
    in.next<int>();  // the corner count: always taken as three
    for (int k = 0; k < 3; ++k) {
      const int index = in.next<int>();
      if (!isVertexIndex(index, numVertices)) return reportMissingVertex(filename, in, index);
      triangles[3 * std::size_t(f) + k] = index;
    }
  }
  CompactMesh result(numVertices, vertices.data(), nullptr, nullptr, nullptr);
  result.copyTriangles(numFaces, triangles.data());
  mesh.swap(result);
}

void meshRead(TopoMesh& mesh, const kxOS::Filename& filename) {
  std::string text;
  if (!readWholeFile(filename, text)) return;
  ScanCursor in(text.data(), text.data() + text.size());
  const int claimedVertices = in.next<int>();
  const int claimedFaces = in.next<int>();
  TopoMesh result;
  const int numVertices = in.capCount(claimedVertices, kMinVertexBytes);
  scanVertices<double>(in, numVertices, [&result](int, double x, double y, double z) {
    result.addVertex(kxLinear::Point(x, y, z));
  });
  const int numFaces = in.capCount(claimedFaces, kMinFaceBytes);
  kx::vector<TopoMeshVertex> corners;
  for (int f = 0; f < numFaces; ++f) {
    const int count = in.capCount(in.next<int>(), kMinIndexBytes);
    corners.clear();
    for (int k = 0; k < count; ++k) {
      const int index = in.next<int>();
      if (!isVertexIndex(index, numVertices)) return reportMissingVertex(filename, in, index);
      corners.push_back(TopoMeshVertex(index));
    }
    result.addFace(corners.data(), count);  // skips faces of fewer than 3 corners
  }
  meshTwin(result);
  mesh.swap(result);
  TopoMeshModification mod(&mesh, TopoMeshModification::Topology);
  mesh.modified(mod);
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

bool meshReadObj(CompactMesh& mesh, const kxOS::Filename& filename) {
  kxOS::StopWatch watch;
  const kxString::CString name = filename.asMultibyte();
  std::string text;
  if (!readWholeFile(filename, text)) {
    debugChannel().print("meshReadObj: cannot open %s\n", name.c_str());
    return false;
  }
  ObjContent content;
  ObjParser parser(content);
  const ObjError e = parser.parse(text.data(), text.data() + text.size());
  if (e == ObjError::Number) {
    debugChannel().print("meshReadObj: %s line %d: cannot parse a number\n", name.c_str(),
                         parser.line());
    return false;
  }
  if (e != ObjError::None) {
    debugChannel().print("meshReadObj: %s line %d: face refers to missing %s %d\n", name.c_str(),
                         parser.line(), missingKind(e), parser.badIndex());
    return false;
  }
  ObjAssembler(content).build(mesh);
  debugChannel().print("meshReadObj: %d vertices, %d triangles %f s\n", mesh.getNumVertices(),
                       mesh.getNumTriangles(), watch.stop());
  return true;
}

bool meshWriteObj(const CompactMesh& mesh, const kxOS::Filename& filename) {
  std::ofstream os(filename.asMultibyte().c_str());
  if (!os) return false;
  writeObjVertices(os, mesh);
  const bool normals = mesh.getNormals() != nullptr, uvs = mesh.getUVs() != nullptr;
  const MeshTriangle* t = mesh.getTriangles();
  for (int i = 0; i < mesh.getNumTriangles(); ++i) writeObjFace(os, t[i], normals, uvs);
  os.flush();
  return bool(os);
}

bool meshWriteObj(const CompactMesh& mesh, const kx::list<kx::Reference<MeshSubset>>& subsets,
                  const kx::list<kxUtil::Color>& colours, const kxOS::Filename& filename) {
  if (!subsetsInRange(mesh, subsets)) return false;
  std::ofstream os(filename.asMultibyte().c_str());
  if (!os) return false;
  os << "mtllib " << filename.baseName().c_str() << ".mtl\n";
  writeObjVertices(os, mesh);
  const bool normals = mesh.getNormals() != nullptr, uvs = mesh.getUVs() != nullptr;
  const MeshTriangle* t = mesh.getTriangles();
  int k = 0;
  for (const kx::Reference<MeshSubset>& s : subsets) {
    os << "usemtl mat" << k++ << "\n";
    if (!s) continue;
    for (int i = 0; i < s->getNumTriangles(); ++i) {
      writeObjFace(os, t[s->getTriangles()[i]], normals, uvs);
    }
  }
  os.flush();
  return bool(os) && writeMaterialLibrary(colours, filename.withExtension(".mtl"));
}

}  // namespace kxGeom
