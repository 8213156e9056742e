// PLY: the header, its elements read (vertices and faces) or skipped by
// their declared sizes in ascii and both binary byte orders, and the writer.
#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "binary_scalars.h"
#include "mesh_file_formats.h"
#include "text_numbers.h"

namespace kxGeom {
namespace fileio {

namespace {

// ---- Header -------------------------------------------------------------------

enum class PlyEncoding { Ascii, BinaryLittleEndian, BinaryBigEndian };

// What a property feeds in the mesh.
enum class Role : std::uint8_t {
  Skip,
  X,
  Y,
  Z,
  NX,
  NY,
  NZ,
  Red,
  Green,
  Blue,
  Alpha,
  U,
  V,
  Corners
};

struct PlyProperty {
  std::string name;
  Scalar type = Scalar::Float32;  // of the value, or of a list's items
  bool list = false;
  Scalar countType = Scalar::UInt8;
  Role role = Role::Skip;
};

struct PlyElement {
  std::string name;
  std::uint64_t count = 0;
  std::vector<PlyProperty> properties;
  int line = 0;  // of its header line, for messages

  bool hasLists() const {
    return std::any_of(properties.begin(), properties.end(),
                       [](const PlyProperty& p) { return p.list; });
  }
  // Bytes of one instance in binary: exact without lists, the least (every
  // list empty) with them.
  std::uint64_t minBinaryBytes() const {
    std::uint64_t bytes = 0;
    for (const PlyProperty& p : properties) bytes += scalarBytes(p.list ? p.countType : p.type);
    return bytes;
  }
  // The least in ascii: a digit and a separator per value, a line per instance.
  std::uint64_t minAsciiBytes() const { return std::max<std::uint64_t>(1, 2 * properties.size()); }
  const PlyProperty* withRole(Role role) const {
    for (const PlyProperty& p : properties) {
      if (p.role == role) return &p;
    }
    return nullptr;
  }
};

struct PlyHeader {
  PlyEncoding encoding = PlyEncoding::Ascii;
  std::vector<PlyElement> elements;
  int vertexElement = -1, faceElement = -1;
  bool normals = false, colours = false, alpha = false, uvs = false;
};

bool wordIs(const char* begin, const char* end, const char* word) {
  return std::size_t(end - begin) == std::strlen(word) &&
         std::memcmp(begin, word, end - begin) == 0;
}

bool scalarNamed(const char* begin, const char* end, Scalar& type) {
  static const struct {
    const char* name;
    Scalar type;
  } kNames[] = {
      {"char", Scalar::Int8},      {"int8", Scalar::Int8},       {"uchar", Scalar::UInt8},
      {"uint8", Scalar::UInt8},    {"short", Scalar::Int16},     {"int16", Scalar::Int16},
      {"ushort", Scalar::UInt16},  {"uint16", Scalar::UInt16},   {"int", Scalar::Int32},
      {"int32", Scalar::Int32},    {"uint", Scalar::UInt32},     {"uint32", Scalar::UInt32},
      {"float", Scalar::Float32},  {"float32", Scalar::Float32}, {"double", Scalar::Float64},
      {"float64", Scalar::Float64}};
  for (const auto& n : kNames) {
    if (wordIs(begin, end, n.name)) {
      type = n.type;
      return true;
    }
  }
  return false;
}

class HeaderReader {
 public:
  HeaderReader(TextCursor& text, ReadError& error, PlyHeader& header)
      : text_(text), error_(error), header_(header) {}

  bool read() {
    const char* begin;
    const char* end;
    if (!text_.nextLine(begin, end) || !LineFields(begin, end).word(begin, end) ||
        !wordIs(begin, end, "ply")) {
      return error_.atLine(1, "not a PLY file (no \"ply\" line)");
    }
    bool format = false;
    while (text_.nextLine(begin, end)) {
      LineFields fields(begin, end);
      const char* word;
      const char* wordEnd;
      if (!fields.word(word, wordEnd)) continue;
      if (wordIs(word, wordEnd, "comment") || wordIs(word, wordEnd, "obj_info")) continue;
      if (wordIs(word, wordEnd, "end_header")) {
        return format || error_.atLine(text_.line(), "the header has no format line");
      }
      bool ok = false;
      if (wordIs(word, wordEnd, "format")) {
        ok = format = readFormat(fields);
      } else if (wordIs(word, wordEnd, "element")) {
        ok = readElement(fields);
      } else if (wordIs(word, wordEnd, "property")) {
        ok = readProperty(fields);
      } else {
        return error_.atLine(text_.line(), "unknown header line");
      }
      if (!ok) return false;
    }
    return error_.atLine(text_.line(), "the header has no end_header line");
  }

 private:
  bool readFormat(LineFields& fields) {
    const char* word;
    const char* end;
    const char* version;
    const char* versionEnd;
    if (!fields.word(word, end) || !fields.word(version, versionEnd) || !fields.atEnd()) {
      return error_.atLine(text_.line(), "malformed format line");
    }
    if (wordIs(word, end, "ascii")) {
      header_.encoding = PlyEncoding::Ascii;
    } else if (wordIs(word, end, "binary_little_endian")) {
      header_.encoding = PlyEncoding::BinaryLittleEndian;
    } else if (wordIs(word, end, "binary_big_endian")) {
      header_.encoding = PlyEncoding::BinaryBigEndian;
    } else {
      return error_.atLine(text_.line(), "unknown format");
    }
    return true;
  }
  bool readElement(LineFields& fields) {
    const char* name;
    const char* end;
    PlyElement element;
    if (!fields.word(name, end) || !fields.count(element.count) || !fields.atEnd()) {
      return error_.atLine(text_.line(), "malformed element line");
    }
    element.name.assign(name, end);
    element.line = text_.line();
    header_.elements.push_back(std::move(element));
    return true;
  }
  bool readProperty(LineFields& fields) {
    if (header_.elements.empty()) {
      return error_.atLine(text_.line(), "a property before any element");
    }
    PlyProperty property;
    const char* word;
    const char* end;
    bool ok = fields.word(word, end);
    if (ok && wordIs(word, end, "list")) {
      property.list = true;
      ok = fields.word(word, end) && scalarNamed(word, end, property.countType) &&
           fields.word(word, end);
    }
    ok = ok && scalarNamed(word, end, property.type) && fields.word(word, end) && fields.atEnd();
    if (!ok) return error_.atLine(text_.line(), "malformed property line");
    property.name.assign(word, end);
    header_.elements.back().properties.push_back(std::move(property));
    return true;
  }

  TextCursor& text_;
  ReadError& error_;
  PlyHeader& header_;
};

// ---- What the properties feed ------------------------------------------------------

struct NamedRole {
  const char* name;
  Role role;
};

// Gives `role` to the first property named `name` that has none yet.
void nameRole(PlyElement& element, const char* name, Role role) {
  for (PlyProperty& p : element.properties) {
    if (p.role == Role::Skip && p.name == name) {
      p.role = role;
      return;
    }
  }
}

// Takes back the roles of a group that is incomplete (normals or colours
// without all their channels).
bool keepGroupIfComplete(PlyElement& element, std::initializer_list<Role> required,
                         std::initializer_list<Role> group) {
  const bool complete = std::all_of(required.begin(), required.end(),
                                    [&](Role r) { return element.withRole(r) != nullptr; });
  if (complete) return true;
  for (PlyProperty& p : element.properties) {
    if (std::find(group.begin(), group.end(), p.role) != group.end()) p.role = Role::Skip;
  }
  return false;
}

bool assignVertexRoles(PlyElement& vertex, PlyHeader& header, ReadError& error) {
  static const NamedRole kRoles[] = {
      {"x", Role::X},       {"y", Role::Y},        {"z", Role::Z},     {"nx", Role::NX},
      {"ny", Role::NY},     {"nz", Role::NZ},      {"red", Role::Red}, {"green", Role::Green},
      {"blue", Role::Blue}, {"alpha", Role::Alpha}};
  for (const NamedRole& r : kRoles) nameRole(vertex, r.name, r.role);
  static const char* const kUVNames[][2] = {{"s", "t"}, {"u", "v"}, {"texture_u", "texture_v"}};
  for (const auto& uv : kUVNames) {
    nameRole(vertex, uv[0], Role::U);
    nameRole(vertex, uv[1], Role::V);
    if (keepGroupIfComplete(vertex, {Role::U, Role::V}, {Role::U, Role::V})) break;
  }
  for (const PlyProperty& p : vertex.properties) {
    if (p.role != Role::Skip && p.list) {
      return error.atLine(vertex.line, "vertex property %s is a list", p.name.c_str());
    }
  }
  for (const NamedRole& axis : {NamedRole{"x", Role::X}, {"y", Role::Y}, {"z", Role::Z}}) {
    if (!vertex.withRole(axis.role)) {
      return error.atLine(vertex.line, "the vertex element has no property %s", axis.name);
    }
  }
  header.normals =
      keepGroupIfComplete(vertex, {Role::NX, Role::NY, Role::NZ}, {Role::NX, Role::NY, Role::NZ});
  header.colours = keepGroupIfComplete(vertex, {Role::Red, Role::Green, Role::Blue},
                                       {Role::Red, Role::Green, Role::Blue, Role::Alpha});
  header.alpha = vertex.withRole(Role::Alpha) != nullptr;
  header.uvs = vertex.withRole(Role::U) != nullptr;
  return true;
}

bool assignFaceRoles(PlyElement& face, ReadError& error) {
  nameRole(face, "vertex_indices", Role::Corners);
  if (!face.withRole(Role::Corners)) nameRole(face, "vertex_index", Role::Corners);
  const PlyProperty* corners = face.withRole(Role::Corners);
  if (!corners) return error.atLine(face.line, "the face element has no vertex_indices list");
  if (!corners->list || !isIntegerScalar(corners->countType) || !isIntegerScalar(corners->type)) {
    return error.atLine(face.line, "%s is not a list of integers", corners->name.c_str());
  }
  return true;
}

bool assignRoles(PlyHeader& header, ReadError& error) {
  for (std::size_t i = 0; i < header.elements.size(); ++i) {
    PlyElement& e = header.elements[i];
    int* slot = e.name == "vertex" ? &header.vertexElement
                : e.name == "face" ? &header.faceElement
                                   : nullptr;
    if (!slot) continue;
    if (*slot >= 0) return error.atLine(e.line, "a second %s element", e.name.c_str());
    *slot = int(i);
    const bool ok = slot == &header.vertexElement ? assignVertexRoles(e, header, error)
                                                  : assignFaceRoles(e, error);
    if (!ok) return false;
  }
  return header.vertexElement >= 0 || error.inFile("the header declares no vertex element");
}

// Every element must fit the bytes after the header at its least size.
bool checkCounts(const PlyHeader& header, std::uint64_t offset, std::uint64_t bytesLeft,
                 ReadError& error) {
  const bool ascii = header.encoding == PlyEncoding::Ascii;
  for (const PlyElement& e : header.elements) {
    const std::uint64_t least = ascii ? e.minAsciiBytes() : e.minBinaryBytes();
    const bool indexable = (e.name != "vertex" && e.name != "face") || e.count <= INT_MAX;
    if (!indexable || !countFits(e.count, least, bytesLeft)) {
      return error.atByte(offset, "element %s: %llu instances cannot fit in the %llu bytes left",
                          e.name.c_str(), static_cast<unsigned long long>(e.count),
                          static_cast<unsigned long long>(bytesLeft));
    }
    bytesLeft -= e.count * least;
  }
  return true;
}

// ---- Where the values go ---------------------------------------------------------

// A destination column: one float or colour byte per vertex, `stride` apart.
struct Column {
  float* floats = nullptr;
  unsigned char* bytes = nullptr;
  std::size_t stride = 0;
};

// Integer channels are 0..255 as they stand, float channels 0..1.
template <class T>
unsigned char toColourByte(T value) {
  if constexpr (std::is_floating_point<T>::value) {
    return colourByte(float(value), 255.0f);
  } else {
    return static_cast<unsigned char>(
        std::min<std::int64_t>(std::max<std::int64_t>(value, 0), 255));
  }
}

// Component k of an array that may not exist yet (a mesh of no vertices has
// none): null then, since offsetting a null pointer is undefined.
template <class T>
T* component(T* base, int k) {
  return base ? base + k : nullptr;
}

Column columnFor(Role role, CompactMesh& mesh) {
  Column c;
  switch (role) {
    case Role::X:
    case Role::Y:
    case Role::Z:
      c.floats = component(mesh.getVerticesRaw(), int(role) - int(Role::X));
      c.stride = 3;
      break;
    case Role::NX:
    case Role::NY:
    case Role::NZ:
      c.floats = component(mesh.getNormalsRaw(), int(role) - int(Role::NX));
      c.stride = 3;
      break;
    case Role::U:
    case Role::V:
      c.floats = component(mesh.getUVsRaw(), int(role) - int(Role::U));
      c.stride = 2;
      break;
    case Role::Red:
    case Role::Green:
    case Role::Blue:
    case Role::Alpha:
      c.bytes = component(reinterpret_cast<unsigned char*>(mesh.getColours()),
                          int(role) - int(Role::Red));
      c.stride = 4;
      break;
    default:
      break;
  }
  return c;
}

// Converts `n` values of type T, `step` bytes apart from `src` on, into
// the column from vertex `first` on.
template <class T, bool Swap>
void convertColumn(const char* src, std::size_t step, std::size_t n, const Column& c,
                   std::size_t first) {
  if (c.floats) {
    float* out = c.floats + first * c.stride;
    for (std::size_t r = 0; r < n; ++r)
      out[r * c.stride] = float(loadScalar<T, Swap>(src + r * step));
  } else {
    unsigned char* out = c.bytes + first * c.stride;
    for (std::size_t r = 0; r < n; ++r)
      out[r * c.stride] = toColourByte(loadScalar<T, Swap>(src + r * step));
  }
}

template <bool Swap>
void convert(Scalar type, const char* src, std::size_t step, std::size_t n, const Column& c,
             std::size_t first) {
  withScalarType(type, [&](auto t) { convertColumn<decltype(t), Swap>(src, step, n, c, first); });
}

// ---- Binary elements ---------------------------------------------------------------

template <bool Swap>
class BinaryElements {
 public:
  BinaryElements(FileWindow& in, ReadError& error, CompactMesh& mesh)
      : in_(in), error_(error), mesh_(mesh) {}

  bool readVertices(const PlyElement& e) {
    std::vector<Column> columns;
    for (const PlyProperty& p : e.properties) columns.push_back(columnFor(p.role, mesh_));
    return e.hasLists() ? readInstances(e, columns) : readRecords(e, columns);
  }

  bool readFaces(const PlyElement& e, TriangleSink& sink) {
    const int numVertices = mesh_.getNumVertices();
    const bool plain = hasPlainTriangles(e);
    auto corners = [&](const PlyProperty& p, std::uint64_t count) {
      return readCorners(p, e, count, numVertices, sink);
    };
    for (std::uint64_t f = 0; f < e.count;) {
      if (plain) f += readPlainTriangles(e.count - f, numVertices, sink);
      if (f == e.count) break;
      if (!walkInstance(e, nullptr, corners)) return false;
      ++f;
    }
    return true;
  }

  bool skip(const PlyElement& e) {
    if (!e.hasLists()) return skipBytes(e.count * e.minBinaryBytes(), e);
    for (std::uint64_t i = 0; i < e.count; ++i) {
      if (!walkInstance(e, nullptr, nullptr)) return false;
    }
    return true;
  }

 private:
  // Fixed-size records, converted column by column a window at a time; a
  // record of three native floats is read straight into the positions.
  bool readRecords(const PlyElement& e, const std::vector<Column>& columns) {
    const std::size_t recordBytes = std::size_t(e.minBinaryBytes());
    const std::size_t count = std::size_t(e.count);
    if (isPlainPositions(e)) {
      const std::uint64_t start = in_.offset();
      if (!in_.readInto(mesh_.getVerticesRaw(), 12 * count)) return truncated(e);
      return allFinite(0, count, start, 12);
    }
    for (std::size_t done = 0; done < count;) {
      const std::size_t held = in_.fill(recordBytes);
      if (held < recordBytes) return truncated(e);
      const std::size_t batch = std::min(held / recordBytes, count - done);
      std::size_t offset = 0;
      for (std::size_t k = 0; k < e.properties.size(); ++k) {
        const Scalar type = e.properties[k].type;
        if (e.properties[k].role != Role::Skip) {
          convert<Swap>(type, in_.data() + offset, recordBytes, batch, columns[k], done);
        }
        offset += scalarBytes(type);
      }
      if (!allFinite(done, batch, in_.offset(), recordBytes)) return false;
      in_.advance(batch * recordBytes);
      done += batch;
    }
    return true;
  }
  bool isPlainPositions(const PlyElement& e) const {
    if (Swap || e.properties.size() != 3) return false;
    for (int k = 0; k < 3; ++k) {
      const PlyProperty& p = e.properties[k];
      if (p.type != Scalar::Float32 || p.role != Role(int(Role::X) + k)) return false;
    }
    return true;
  }
  // Faces of nothing but a byte count and 32-bit indices, the layout most
  // writers use, which readPlainTriangles takes in bulk.
  static bool hasPlainTriangles(const PlyElement& e) {
    const PlyProperty& p = e.properties.front();
    return e.properties.size() == 1 && scalarBytes(p.countType) == 1 && scalarBytes(p.type) == 4;
  }
  // Takes the triangles held in the window up to the first face that is not
  // one (or whose indices need a closer look), which the caller then reads
  // on its own; returns how many it took.
  std::uint64_t readPlainTriangles(std::uint64_t left, int numVertices, TriangleSink& sink) {
    constexpr std::size_t kFaceBytes = 13;
    const std::size_t held = in_.fill(kFaceBytes) / kFaceBytes;
    const std::size_t n = std::size_t(std::min<std::uint64_t>(held, left));
    const char* face = in_.data();
    std::size_t taken = 0;
    for (; taken < n && face[0] == 3; ++taken, face += kFaceBytes) {
      const std::uint32_t a = loadScalar<std::uint32_t, Swap>(face + 1);
      const std::uint32_t b = loadScalar<std::uint32_t, Swap>(face + 5);
      const std::uint32_t c = loadScalar<std::uint32_t, Swap>(face + 9);
      const std::uint32_t limit = std::uint32_t(numVertices);
      if (a >= limit || b >= limit || c >= limit) break;
      sink.add(int(a), int(b), int(c));
    }
    in_.advance(taken * kFaceBytes);
    return taken;
  }

  // Records with lists, one at a time.
  bool readInstances(const PlyElement& e, const std::vector<Column>& columns) {
    for (std::size_t i = 0; i < std::size_t(e.count); ++i) {
      const std::uint64_t start = in_.offset();
      auto scalar = [&](std::size_t k, const char* bytes) {
        if (e.properties[k].role != Role::Skip) {
          convert<Swap>(e.properties[k].type, bytes, 0, 1, columns[k], i);
        }
      };
      if (!walkInstance(e, scalar, nullptr) || !allFinite(i, 1, start, 0)) return false;
    }
    return true;
  }

  // Reads one instance property by property: each scalar is handed to
  // onScalar(index, bytes) when given, the list with the corners role to
  // onCorners(property, count); other lists are skipped.
  template <class OnScalar, class OnCorners>
  bool walkInstance(const PlyElement& e, OnScalar onScalar, OnCorners onCorners) {
    for (std::size_t k = 0; k < e.properties.size(); ++k) {
      const PlyProperty& p = e.properties[k];
      const std::size_t size = scalarBytes(p.list ? p.countType : p.type);
      if (in_.fill(size) < size) return truncated(e);
      if (!p.list) {
        if constexpr (!std::is_same<OnScalar, std::nullptr_t>::value) onScalar(k, in_.data());
        in_.advance(size);
        continue;
      }
      const std::int64_t count = loadInteger<Swap>(p.countType, in_.data());
      // A count has at most 32 bits, so the product cannot overflow.
      if (count < 0 || std::uint64_t(count) * scalarBytes(p.type) > in_.remaining() - size) {
        return error_.atByte(in_.offset(), "list count %lld runs past the end of the file",
                             static_cast<long long>(count));
      }
      in_.advance(size);
      bool ok;
      if constexpr (!std::is_same<OnCorners, std::nullptr_t>::value) {
        ok = p.role == Role::Corners ? onCorners(p, std::uint64_t(count))
                                     : skipBytes(std::uint64_t(count) * scalarBytes(p.type), e);
      } else {
        ok = skipBytes(std::uint64_t(count) * scalarBytes(p.type), e);
      }
      if (!ok) return false;
    }
    return true;
  }

  bool readCorners(const PlyProperty& p, const PlyElement& e, std::uint64_t count, int numVertices,
                   TriangleSink& sink) {
    if (count < 3) return error_.atByte(in_.offset(), "a face of %d corners", int(count));
    const std::size_t size = scalarBytes(p.type);
    for (std::uint64_t k = 0; k < count;) {
      const std::size_t held = in_.fill(size);
      if (held < size) return truncated(e);
      const std::size_t batch = std::size_t(std::min<std::uint64_t>(held / size, count - k));
      const char* bytes = in_.data();
      for (std::size_t j = 0; j < batch; ++j, ++k, bytes += size) {
        const std::int64_t index = loadInteger<Swap>(p.type, bytes);
        if (!indexInRange(index, numVertices)) {
          return error_.atByte(in_.offset() + j * size, "face refers to missing vertex %lld",
                               static_cast<long long>(index));
        }
        sink.corner(std::uint32_t(k), int(index));
      }
      in_.advance(batch * size);
    }
    return true;
  }

  bool skipBytes(std::uint64_t n, const PlyElement& e) {
    while (n > 0) {
      const std::size_t held = in_.fill(1);
      if (held == 0) return truncated(e);
      const std::size_t step = std::size_t(std::min<std::uint64_t>(held, n));
      in_.advance(step);
      n -= step;
    }
    return true;
  }

  // Vertices [first, first + n), whose records start at `start`, `step`
  // bytes apart, must be finite points.
  bool allFinite(std::size_t first, std::size_t n, std::uint64_t start, std::size_t step) {
    const std::size_t bad = firstNonFinite(mesh_.getVertices() + first, n);
    if (bad == n) return true;
    return error_.atByte(start + bad * step, "vertex %zu is not a finite point", first + bad);
  }

  bool truncated(const PlyElement& e) {
    return error_.atByte(in_.offset(), "the file ends inside element %s", e.name.c_str());
  }

  FileWindow& in_;
  ReadError& error_;
  CompactMesh& mesh_;
};

// ---- Ascii elements ------------------------------------------------------------------

class AsciiElements {
 public:
  AsciiElements(TextCursor& text, ReadError& error, CompactMesh& mesh)
      : text_(text), error_(error), mesh_(mesh) {}

  bool readVertices(const PlyElement& e) {
    std::vector<Column> columns;
    for (const PlyProperty& p : e.properties) columns.push_back(columnFor(p.role, mesh_));
    for (std::size_t i = 0; i < std::size_t(e.count); ++i) {
      LineFields fields(nullptr, nullptr);
      if (!nextInstance(e, fields)) return false;
      for (std::size_t k = 0; k < e.properties.size(); ++k) {
        if (!readValue(e.properties[k], columns[k], i, fields)) return false;
      }
      if (!endOfInstance(fields)) return false;
      if (firstNonFinite(mesh_.getVertices() + i, 1) == 0) {
        return error_.atLine(text_.line(), "vertex %zu is not a finite point", i);
      }
    }
    return true;
  }

  bool readFaces(const PlyElement& e, TriangleSink& sink) {
    const int numVertices = mesh_.getNumVertices();
    for (std::uint64_t f = 0; f < e.count; ++f) {
      LineFields fields(nullptr, nullptr);
      if (!nextInstance(e, fields)) return false;
      for (const PlyProperty& p : e.properties) {
        const bool ok =
            p.role == Role::Corners ? readCorners(fields, numVertices, sink) : skipValue(p, fields);
        if (!ok) return false;
      }
      if (!endOfInstance(fields)) return false;
    }
    return true;
  }

  bool skip(const PlyElement& e) {
    for (std::uint64_t i = 0; i < e.count && !e.properties.empty(); ++i) {
      LineFields fields(nullptr, nullptr);
      if (!nextInstance(e, fields)) return false;
    }
    return true;
  }

 private:
  bool nextInstance(const PlyElement& e, LineFields& fields) {
    const char* begin;
    const char* end;
    if (!text_.nextContentLine(begin, end, 0)) {
      return error_.atLine(text_.line(), "the file ends inside element %s", e.name.c_str());
    }
    fields = LineFields(begin, end);
    return true;
  }
  bool endOfInstance(LineFields& fields) {
    return fields.atEnd() || error_.atLine(text_.line(), "more values than the element declares");
  }
  bool readValue(const PlyProperty& p, const Column& column, std::size_t vertex,
                 LineFields& fields) {
    if (p.role == Role::Skip) return skipValue(p, fields);
    float value;
    if (!fields.real(value)) return error_.atLine(text_.line(), "cannot parse %s", p.name.c_str());
    if (column.floats) {
      column.floats[vertex * column.stride] = value;
    } else {
      column.bytes[vertex * column.stride] =
          colourByte(value, isIntegerScalar(p.type) ? 1.0f : 255.0f);
    }
    return true;
  }
  bool skipValue(const PlyProperty& p, LineFields& fields) {
    std::uint64_t count = 1;
    if (p.list && !fields.count(count)) {
      return error_.atLine(text_.line(), "cannot parse the count of %s", p.name.c_str());
    }
    const char* begin;
    const char* end;
    for (std::uint64_t k = 0; k < count; ++k) {
      if (!fields.word(begin, end)) {
        return error_.atLine(text_.line(), "fewer values than the element declares");
      }
    }
    return true;
  }
  bool readCorners(LineFields& fields, int numVertices, TriangleSink& sink) {
    std::uint64_t count = 0;
    if (!fields.count(count)) return error_.atLine(text_.line(), "cannot parse a corner count");
    if (count < 3) return error_.atLine(text_.line(), "a face of %d corners", int(count));
    for (std::uint64_t k = 0; k < count; ++k) {
      int index = 0;
      if (!fields.integer(index)) return error_.atLine(text_.line(), "cannot parse a vertex index");
      if (!indexInRange(index, numVertices)) {
        return error_.atLine(text_.line(), "face refers to missing vertex %d", index);
      }
      sink.corner(std::uint32_t(k), index);
    }
    return true;
  }

  TextCursor& text_;
  ReadError& error_;
  CompactMesh& mesh_;
};

// ---- Reading -------------------------------------------------------------------------

void allocateVertexArrays(const PlyHeader& header, CompactMesh& mesh) {
  mesh.resizeVertexArray(int(header.elements[header.vertexElement].count));
  if (header.normals) mesh.allocNormalArray();
  if (header.uvs) mesh.allocUVArray();
  if (header.colours) {
    MeshColour* colours = mesh.allocColourArray();
    if (!header.alpha) {
      for (int i = 0; i < mesh.getNumVertices(); ++i) colours[i].a = 255;
    }
  }
}

// Room for the triangles the face element can hold at its least per face.
std::uint64_t expectedTriangles(const PlyHeader& header, std::uint64_t bytesLeft) {
  if (header.faceElement < 0) return 0;
  const PlyElement& face = header.elements[header.faceElement];
  const std::uint64_t perTriangle =
      header.encoding == PlyEncoding::Ascii
          ? 8
          : face.minBinaryBytes() + 3 * scalarBytes(face.withRole(Role::Corners)->type);
  return std::min(face.count, bytesLeft / perTriangle);
}

template <class Elements>
bool readElements(const PlyHeader& header, Elements& elements, TriangleSink& sink) {
  for (std::size_t i = 0; i < header.elements.size(); ++i) {
    const PlyElement& e = header.elements[i];
    const bool ok = int(i) == header.vertexElement ? elements.readVertices(e)
                    : int(i) == header.faceElement ? elements.readFaces(e, sink)
                                                   : elements.skip(e);
    if (!ok) return false;
  }
  return true;
}

template <bool Swap>
bool readBinaryBody(const PlyHeader& header, FileWindow& in, ReadError& error, CompactMesh& mesh,
                    TriangleSink& sink) {
  BinaryElements<Swap> elements(in, error, mesh);
  if (!readElements(header, elements, sink)) return false;
  return in.fill(1) == 0 || error.atByte(in.offset(), "%llu bytes after the last element",
                                         static_cast<unsigned long long>(in.remaining()));
}

}  // namespace

bool readPly(FileWindow& in, ReadError& error, CompactMesh& mesh) {
  in.skipByteOrderMark();
  PlyHeader header;
  TextCursor text(in);
  if (!HeaderReader(text, error, header).read() || !assignRoles(header, error)) return false;
  const std::uint64_t bytesLeft = text.bytesLeft();
  if (!checkCounts(header, in.offset(), bytesLeft, error)) return false;
  allocateVertexArrays(header, mesh);
  TriangleSink sink(mesh, expectedTriangles(header, bytesLeft));
  bool read;
  if (header.encoding == PlyEncoding::Ascii) {
    AsciiElements elements(text, error, mesh);
    read = readElements(header, elements, sink) &&
           (text.onlySpaceLeft(0) || error.atLine(text.line(), "text after the last element"));
  } else if ((header.encoding == PlyEncoding::BinaryLittleEndian) == kHostLittleEndian) {
    read = readBinaryBody<false>(header, in, error, mesh, sink);
  } else {
    read = readBinaryBody<true>(header, in, error, mesh, sink);
  }
  sink.finish();
  return read;
}

// ---- Writing -------------------------------------------------------------------------

namespace {

void writePlyHeader(const CompactMesh& mesh, bool binary, OutputFile& out) {
  out.text(binary ? "ply\nformat binary_little_endian 1.0\n" : "ply\nformat ascii 1.0\n");
  out.text("comment written by kxgeom\nelement vertex ");
  out.number(static_cast<long long>(mesh.getNumVertices()));
  out.text("\nproperty float x\nproperty float y\nproperty float z\n");
  if (mesh.getNormals()) out.text("property float nx\nproperty float ny\nproperty float nz\n");
  if (mesh.getColours()) {
    out.text(
        "property uchar red\nproperty uchar green\nproperty uchar blue\nproperty uchar alpha\n");
  }
  if (mesh.getUVs()) out.text("property float s\nproperty float t\n");
  out.text("element face ");
  out.number(static_cast<long long>(mesh.getNumTriangles()));
  out.text("\nproperty list uchar int vertex_indices\nend_header\n");
}

void writeBinaryVertices(const CompactMesh& mesh, OutputFile& out) {
  const int n = mesh.getNumVertices();
  const VertexLineLayout layout = layoutOf(mesh);
  if (kHostLittleEndian && !layout.normals && !layout.colours && !layout.uvs) {
    out.bytes(mesh.getVerticesRaw(), 12 * std::size_t(n));
    return;
  }
  const std::size_t record =
      12 + (layout.normals ? 12 : 0) + (layout.colours ? 4 : 0) + (layout.uvs ? 8 : 0);
  for (int i = 0; i < n; ++i) {
    char* p = storeLittleFloats(out.reserve(record), &mesh.getVertices()[i].x, 3);
    if (layout.normals) p = storeLittleFloats(p, &mesh.getNormals()[i].x, 3);
    if (layout.colours) {
      std::memcpy(p, &mesh.getColours()[i], 4);
      p += 4;
    }
    if (layout.uvs) storeLittleFloats(p, &mesh.getUVs()[i].u, 2);
    out.commit(record);
  }
}

void writeBinaryFaces(const CompactMesh& mesh, OutputFile& out) {
  const int* corners = mesh.getTrianglesRaw();
  for (int t = 0; t < mesh.getNumTriangles(); ++t, corners += 3) {
    char* p = out.reserve(13);
    p[0] = 3;
    for (int k = 0; k < 3; ++k) storeLittle<std::int32_t>(p + 1 + 4 * k, corners[k]);
    out.commit(13);
  }
}

}  // namespace

void writePly(const CompactMesh& mesh, const MeshWriteOptions& options, OutputFile& out) {
  writePlyHeader(mesh, options.binary, out);
  if (options.binary) {
    writeBinaryVertices(mesh, out);
    writeBinaryFaces(mesh, out);
  } else {
    writeVertexLines(mesh, layoutOf(mesh), false, options.precision, out);
    writeTriangleLines(mesh, out);
  }
}

}  // namespace fileio
}  // namespace kxGeom
