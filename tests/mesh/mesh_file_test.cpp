// Mesh files by format: exact round trips of every attribute, hand-made
// files of each variant against their known content, hostile files that must
// fail cleanly (mesh untouched, one log line naming the place, no large
// allocation), and the choice of format by name and by content.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kxgeom/mesh_file.h>

#include "support/file_fixture.h"
#include "support/memory_budget.h"
#include "support/test_meshes.h"

namespace {

namespace fs = std::filesystem;
using kxGeom::CompactMesh;
using kxGeom::MeshFileFormat;
using kxGeom::meshReadFile;
using kxGeom::meshWriteFile;

using MeshFileTest = kxtest::FileTest;

// The bytes of a binary file, each value in the chosen byte order (the
// tests run on little-endian hosts).
class Bytes {
 public:
  explicit Bytes(bool bigEndian = false) : big_(bigEndian) {}
  template <class T>
  Bytes& put(T value) {
    char b[sizeof(T)];
    std::memcpy(b, &value, sizeof(T));
    if (big_) std::reverse(b, b + sizeof(T));
    data_.append(b, sizeof(T));
    return *this;
  }
  Bytes& text(const std::string& s) {
    data_ += s;
    return *this;
  }
  const std::string& str() const { return data_; }

 private:
  bool big_;
  std::string data_;
};

std::vector<float> floats(const float* p, int n) {
  return p ? std::vector<float>(p, p + n) : std::vector<float>();
}

// Exact equality of positions, triangles and the attributes both have, and
// of which attributes they have.
void expectSameMesh(const CompactMesh& a, const CompactMesh& b) {
  ASSERT_EQ(a.getNumVertices(), b.getNumVertices());
  const int n = a.getNumVertices();
  EXPECT_EQ(floats(a.getVerticesRaw(), 3 * n), floats(b.getVerticesRaw(), 3 * n));
  EXPECT_EQ(std::vector<int>(a.getTrianglesRaw(), a.getTrianglesRaw() + 3 * a.getNumTriangles()),
            std::vector<int>(b.getTrianglesRaw(), b.getTrianglesRaw() + 3 * b.getNumTriangles()));
  EXPECT_EQ(floats(a.getNormalsRaw(), 3 * n), floats(b.getNormalsRaw(), 3 * n));
  EXPECT_EQ(floats(a.getUVsRaw(), 2 * n), floats(b.getUVsRaw(), 2 * n));
  ASSERT_EQ(a.getColours() != nullptr, b.getColours() != nullptr);
  if (a.getColours()) {
    EXPECT_EQ(0, std::memcmp(a.getColours(), b.getColours(), 4 * std::size_t(n)));
  }
}

CompactMesh attributedSphere(bool normals, bool uvs, bool colours) {
  CompactMesh m = kxtest::makeLatLongSphere(5, 7);
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> d(-1, 1);
  for (int i = 0; i < m.getNumVertices(); ++i) {  // the same draws whatever is kept
    const kxGeom::MeshNormal n = {d(rng), -0.0f, d(rng) * 1e-30f};
    const kxGeom::MeshUV uv = {d(rng), d(rng) * 1e20f};
    const std::uint32_t c = std::uint32_t(rng());
    if (normals) m.allocNormalArray()[i] = n;
    if (uvs) m.allocUVArray()[i] = uv;
    if (colours) std::memcpy(&m.allocColourArray()[i], &c, 4);
  }
  return m;
}

// One read expected to succeed: the positions (x y z per vertex) and triangles.
void expectContent(const CompactMesh& m, const std::vector<float>& xyz,
                   const std::vector<int>& tris) {
  EXPECT_EQ(floats(m.getVerticesRaw(), 3 * m.getNumVertices()), xyz);
  EXPECT_EQ(std::vector<int>(m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()),
            tris);
}

const std::vector<float> kSquare = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
const std::vector<int> kSquareFan = {0, 1, 2, 0, 2, 3};

// ---- Names -----------------------------------------------------------------------

TEST_F(MeshFileTest, FormatsByNameIgnoreCaseAndDirectories) {
  const std::pair<const char*, MeshFileFormat> cases[] = {
      {"a.obj", MeshFileFormat::Obj},       {"A.PLY", MeshFileFormat::Ply},
      {"dir.x/b.Stl", MeshFileFormat::Stl}, {"c.off", MeshFileFormat::Off},
      {"d.mesh", MeshFileFormat::Indexed},  {"e.TXT", MeshFileFormat::Indexed},
      {"f.msh", MeshFileFormat::Indexed},   {"dir.ply/noext", MeshFileFormat::Unknown},
      {"g.plyx", MeshFileFormat::Unknown},  {"", MeshFileFormat::Unknown}};
  for (const auto& c : cases)
    EXPECT_EQ(kxGeom::meshFileFormatFromName(c.first), c.second) << c.first;
  const char* names[] = {"unknown", "indexed", "obj", "ply", "stl", "off"};
  for (int f = 0; f < 6; ++f) EXPECT_STREQ(kxGeom::meshFileFormatName(MeshFileFormat(f)), names[f]);
}

// ---- Round trips -------------------------------------------------------------------

TEST_F(MeshFileTest, RoundTripsAreExactForEveryFormatAndAttribute) {
  struct Case {
    const char* name;
    bool binary, normals, uvs, colours;  // what the format keeps
  } cases[] = {{"b.ply", true, true, true, true},
               {"a.ply", false, true, true, true},
               {"m.off", false, true, true, true},
               {"m.obj", false, true, true, false},
               {"m.mesh", false, false, false, false}};
  for (const Case& c : cases) {
    for (int mask = 0; mask < 8; ++mask) {
      SCOPED_TRACE(std::string(c.name) + " attributes " + std::to_string(mask));
      const CompactMesh m = attributedSphere(mask & 1, mask & 2, mask & 4);
      kxGeom::MeshWriteOptions w;
      w.binary = c.binary;
      ASSERT_TRUE(meshWriteFile(m, path(c.name), w));
      CompactMesh back;
      ASSERT_TRUE(meshReadFile(back, path(c.name)));
      CompactMesh kept =
          attributedSphere(c.normals && (mask & 1), c.uvs && (mask & 2), c.colours && (mask & 4));
      expectSameMesh(kept, back);
    }
  }
}

TEST_F(MeshFileTest, StlRoundTripWeldsEqualPositionsAndKeepsFacetNormals) {
  const CompactMesh m = kxtest::makeLatLongSphere(5, 7);  // every position distinct
  const int numTriangles = m.getNumTriangles();
  for (int variant = 0; variant < 3; ++variant) {  // binary, ascii, binary without weld
    kxGeom::MeshWriteOptions w;
    w.binary = variant != 1;
    ASSERT_TRUE(meshWriteFile(m, path("s.stl"), w));
    kxGeom::Remap remap;
    kx::vector<kxLinear::VectorFlt> normals;
    kxGeom::MeshReadOptions r;
    r.weldStl = variant != 2;
    r.stlRemap = &remap;
    r.facetNormals = &normals;
    CompactMesh back;
    ASSERT_TRUE(meshReadFile(back, path("s.stl"), r));
    EXPECT_EQ(back.getNumVertices(), variant == 2 ? 3 * numTriangles : m.getNumVertices());
    ASSERT_EQ(back.getNumTriangles(), numTriangles);
    ASSERT_EQ(remap.getDomainSize(), 3 * numTriangles);
    ASSERT_EQ(int(normals.size()), numTriangles);
    for (int t = 0; t < numTriangles; ++t) {
      const kxGeom::MeshTriangle& was = m.getTriangles()[t];
      const kxGeom::MeshTriangle& is = back.getTriangles()[t];
      for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(remap(3 * t + k), is[k]);
        const kxGeom::MeshVertex a = m.getVertices()[was[k]], b = back.getVertices()[is[k]];
        EXPECT_TRUE(a.x == b.x && a.y == b.y && a.z == b.z) << t << " " << k;
      }
      const kxLinear::Point p0 = m.getVertices()[was[0]].asPoint();
      const kxLinear::Vector n = kxLinear::normalized(kxLinear::cross(
          m.getVertices()[was[1]].asPoint() - p0, m.getVertices()[was[2]].asPoint() - p0));
      EXPECT_NEAR(normals[t].x, n.x, 1e-6);
      EXPECT_NEAR(normals[t].y, n.y, 1e-6);
      EXPECT_NEAR(normals[t].z, n.z, 1e-6);
    }
  }
}

TEST_F(MeshFileTest, TextWritersUseThePrecisionAsked) {
  const kxGeom::MeshVertex v[3] = {{0, 0, 0}, {1e-7f, 123456.7f, -2.5f}, {0.1f, 1, 3}};
  CompactMesh m(3, v, nullptr, nullptr, nullptr);
  const int t[3] = {0, 1, 2};
  m.copyTriangles(1, t);
  kxGeom::MeshWriteOptions w;
  ASSERT_TRUE(meshWriteFile(m, path("t.mesh"), w));
  EXPECT_EQ(read(path("t.mesh")),
            "3 1\n0 0 0\n1.00000001e-07 123456.703 -2.5\n0.100000001 1 3\n3 0 1 2\n");
  w.precision = 3;
  ASSERT_TRUE(meshWriteFile(m, path("t.obj"), w));
  EXPECT_EQ(read(path("t.obj")), "v 0 0 0\nv 1e-07 1.23e+05 -2.5\nv 0.1 1 3\nf 1 2 3\n");
  ASSERT_TRUE(meshWriteFile(m, path("t.off"), w));
  EXPECT_EQ(read(path("t.off")), "OFF\n3 1 0\n0 0 0\n1e-07 1.23e+05 -2.5\n0.1 1 3\n3 0 1 2\n");
  w.binary = false;
  ASSERT_TRUE(meshWriteFile(m, path("t.stl"), w));
  const std::string stl =
      "solid kxgeom\nfacet normal 0.999 -6.75e-07 -0.0333\n outer loop\n"
      "  vertex 0 0 0\n  vertex 1e-07 1.23e+05 -2.5\n  vertex 0.1 1 3\n"
      " endloop\nendfacet\nendsolid kxgeom\n";
  EXPECT_EQ(read(path("t.stl")), stl);
  // Beyond the 17 digits that round-trip a double, more are not written.
  for (int precision : {17, 30}) {
    w.precision = precision;
    ASSERT_TRUE(meshWriteFile(m, path(std::to_string(precision) + ".mesh"), w));
  }
  EXPECT_EQ(read(path("17.mesh")), read(path("30.mesh")));
}

// ---- Hand-made files of each variant ---------------------------------------------------

TEST_F(MeshFileTest, BinaryPlyInBothByteOrdersWithDoublesListsAndUnknownElements) {
  for (int variant = 0; variant < 4; ++variant) {
    const bool big = variant & 1, vertexList = variant & 2;
    SCOPED_TRACE(variant);
    Bytes b(big);
    b.text(std::string("ply\nformat ") + (big ? "binary_big_endian" : "binary_little_endian") +
           " 1.0\ncomment hand-made\nobj_info none\nelement vertex 5\nproperty double x\n"
           "property double y\nproperty double z\nproperty float nx\nproperty float ny\n"
           "property float nz\nproperty uchar red\nproperty uchar green\nproperty uchar blue\n"
           "property short flags\n" +
           (vertexList ? "property list uchar float extra\n" : "") +
           "element face 2\nproperty list uchar int vertex_indices\nproperty uchar material\n"
           "element material 3\nproperty uchar id\nproperty float shine\nelement edge 1\nproperty "
           "list ushort uint vertex\nproperty float crease\nend_header\n");
    const double p[5][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0.1, 0.2, 0.3}};
    for (int i = 0; i < 5; ++i) {
      b.put(p[i][0]).put(p[i][1]).put(p[i][2]).put(0.f).put(0.f).put(1.f);
      b.put<std::uint8_t>(10 * i).put<std::uint8_t>(20).put<std::uint8_t>(255).put<std::int16_t>(
          -1);
      if (vertexList) b.put<std::uint8_t>(2).put(1.5f).put(2.5f);
    }
    b.put<std::uint8_t>(4).put(0).put(1).put(2).put(3).put<std::uint8_t>(7);
    b.put<std::uint8_t>(3).put(4).put(0).put(1).put<std::uint8_t>(7);
    for (int i = 0; i < 3; ++i) b.put<std::uint8_t>(i).put(0.5f);
    b.put<std::uint16_t>(2).put<std::uint32_t>(0).put<std::uint32_t>(1).put(0.5f);
    CompactMesh m;
    ASSERT_TRUE(meshReadFile(m, write("b.ply", b.str())));
    std::vector<float> xyz = kSquare;
    xyz.insert(xyz.end(), {0.1f, 0.2f, 0.3f});
    expectContent(m, xyz, {0, 1, 2, 0, 2, 3, 4, 0, 1});
    ASSERT_NE(m.getNormals(), nullptr);
    ASSERT_NE(m.getColours(), nullptr);
    EXPECT_EQ(m.getUVs(), nullptr);
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(m.getNormals()[i].z, 1.0f);
      const kxGeom::MeshColour c = m.getColours()[i];
      EXPECT_TRUE(c.r == 10 * i && c.g == 20 && c.b == 255 && c.a == 255) << i;
    }
  }
}

TEST_F(MeshFileTest, AsciiPlyWithByteOrderMarkCrlfAlphaFloatColoursAndEveryUVNaming) {
  const std::string head =
      "\xEF\xBB\xBFply\r\nformat ascii 1.0\r\ncomment c\r\nelement vertex 4\r\n"
      "property float x\r\nproperty float y\r\nproperty float z\r\n";
  const std::string faces =
      "element face 1\r\nproperty list uchar uint vertex_index\r\nend_header\r\n";
  struct Case {
    std::string properties, tail;  // vertex properties after z, and their values
    kxGeom::MeshColour colour;
  } cases[] = {
      {"property uchar red\r\nproperty uchar green\r\nproperty uchar blue\r\nproperty uchar "
       "alpha\r\nproperty float texture_u\r\nproperty float texture_v\r\n",
       "7 8 9 10 0.25 0.5",
       {7, 8, 9, 10}},
      {"property float red\r\nproperty float green\r\nproperty float blue\r\nproperty float "
       "u\r\nproperty float v\r\n",
       "0.5 1 0 0.25 0.5",
       {128, 255, 0, 255}},
      {"property double s\r\nproperty double t\r\nproperty float red\r\nproperty float green\r\n",
       "0.25 0.5 1 1",
       {0, 0, 0, 0}},  // no blue: no colours
  };
  for (const Case& c : cases) {
    std::string body;
    for (int i = 0; i < 4; ++i) {
      body += std::to_string(int(kSquare[3 * i])) + " " + std::to_string(int(kSquare[3 * i + 1])) +
              " 0 " + c.tail + "\n";
    }
    CompactMesh m;
    ASSERT_TRUE(
        meshReadFile(m, write("a.ply", head + c.properties + faces + body + "4 0 1 2 3\n\n")));
    expectContent(m, kSquare, kSquareFan);
    ASSERT_NE(m.getUVs(), nullptr);
    EXPECT_TRUE(m.getUVs()[3].u == 0.25f && m.getUVs()[3].v == 0.5f);
    const kxGeom::MeshColour* colour = m.getColours();
    ASSERT_EQ(colour != nullptr, c.colour.a != 0);
    if (colour) {
      EXPECT_TRUE(colour[2].r == c.colour.r && colour[2].g == c.colour.g &&
                  colour[2].b == c.colour.b && colour[2].a == c.colour.a);
    }
  }
}

TEST_F(MeshFileTest, StlBinaryWithSolidHeaderAndAsciiSolidsWeldToTheSameSquare) {
  const float normals[2][3] = {{0, 0, 1}, {0, 0, -1}};
  const int corners[2][3] = {{0, 1, 2}, {0, 2, 3}};
  Bytes b;
  b.text("solid but binary" + std::string(64, ' ')).put<std::uint32_t>(2);
  std::string text = "solid first\r\n";
  for (int f = 0; f < 2; ++f) {
    b.put(normals[f][0]).put(normals[f][1]).put(normals[f][2]);
    text += f == 1 ? "endsolid first\r\nsolid second\r\n  FACET NORMAL 0 0 -1\r\n"
                   : "facet normal 0 0 1\n";
    text += "outer loop\n";
    for (int k = 0; k < 3; ++k) {
      const float* p = &kSquare[3 * corners[f][k]];
      b.put(p[0]).put(p[1]).put(p[2]);
      text += " vertex " + std::to_string(p[0]) + " " + std::to_string(p[1]) + " 0\n";
    }
    b.put<std::uint16_t>(0);
    text += "endloop\nendfacet\n";
  }
  text += "endsolid second";
  for (const std::string& file : {write("b.stl", b.str()), write("a.stl", text)}) {
    kx::vector<kxLinear::VectorFlt> facetNormals;
    kxGeom::MeshReadOptions r;
    r.facetNormals = &facetNormals;
    CompactMesh m;
    ASSERT_TRUE(meshReadFile(m, file, r)) << file;
    ASSERT_EQ(m.getNumVertices(), 4);
    ASSERT_EQ(m.getNumTriangles(), 2);
    for (int f = 0; f < 2; ++f) {
      for (int k = 0; k < 3; ++k) {
        const kxGeom::MeshVertex& v = m.getVertices()[m.getTriangles()[f][k]];
        EXPECT_EQ(v.x, kSquare[3 * corners[f][k]]);
        EXPECT_EQ(v.y, kSquare[3 * corners[f][k] + 1]);
      }
      EXPECT_EQ(facetNormals[f].z, normals[f][2]);
    }
  }
}

TEST_F(MeshFileTest, OffVariantsReadColoursNormalsAndTextureCoordinates) {
  struct Case {
    std::string text;
    std::vector<float> normal3, uv3;
    std::vector<int> colours;  // r g b a of vertices 0..3
  } cases[] = {
      {"# comment\nCOFF\n4 1 0\n0 0 0 255 0 0 255\n1 0 0 0 255 0\n1 1 0 0.5 0.5 0.5 1\n"
       "0 1 0 0 0 1  # a comment\n4 0 1 2 3 1 0 0\n",
       {},
       {},
       {255, 0, 0, 255, 0, 255, 0, 255, 128, 128, 128, 255, 0, 0, 255, 255}},
      {"NOFF 4 1 0\n0 0 0 0 0 1\n1 0 0 0 0 1\n1 1 0 0 0 1\n0 1 0 0 -1 0\n4 0 1 2 3\n",
       {0, -1, 0},
       {},
       {}},
      {"\xEF\xBB\xBFSTOFF\r\n4 1 4\r\n0 0 0 0 0\r\n1 0 0 1 0\r\n1 1 0 1 1\r\n0 1 0 0.25 0.75\r\n4 "
       "0 1 2 3\r\n",
       {},
       {0.25f, 0.75f},
       {}},
      {"STCNOFF\n4 1 0\n0 0 0 0 0 1 1 1 1 1 0 0\n1 0 0 0 0 1 1 1 1 1 0 0\n1 1 0 0 0 1 1 1 1 1 0 0\n"
       "0 1 0 1 0 0 0 0 0 0 0.5 0.5\n4 0 1 2 3\n",
       {1, 0, 0},
       {0.5f, 0.5f},
       {255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    CompactMesh m;
    ASSERT_TRUE(meshReadFile(m, write("v.off", c.text)));
    expectContent(m, kSquare, kSquareFan);
    ASSERT_EQ(m.getNormals() != nullptr, !c.normal3.empty());
    if (m.getNormals()) {
      EXPECT_EQ(floats(&m.getNormals()[3].x, 3), c.normal3);
    }
    ASSERT_EQ(m.getUVs() != nullptr, !c.uv3.empty());
    if (m.getUVs()) {
      EXPECT_EQ(floats(&m.getUVs()[3].u, 2), c.uv3);
    }
    ASSERT_EQ(m.getColours() != nullptr, !c.colours.empty());
    if (m.getColours()) {
      const unsigned char* rgba = &m.getColours()[0].r;
      EXPECT_EQ(std::vector<int>(rgba, rgba + 16), c.colours);
    }
  }
}

TEST_F(MeshFileTest, StrictIndexedFormatSplitsPolygonsAndToleratesBlankLines) {
  CompactMesh m;
  ASSERT_TRUE(meshReadFile(m, write("i.mesh", "4 1\n0 0 0\n1 0 0\n\n1 1 0\n0 1 0\n4 0 1 2 3\n\n")));
  expectContent(m, kSquare, kSquareFan);
}

TEST_F(MeshFileTest, NumbersReadAsTheCLibraryReadsThem) {
  // Hard cases first (ties, denormals, the float range's ends, long digit
  // strings), then random values in several printf forms.
  std::vector<std::string> texts;
  std::istringstream hard(
      "16777217 16777219 -0 0.000 .5 5. 1e-45 3.4028235e38 0.1 123456789012345 "
      "1234567890123456789 00000000000000000001.5 -2.5e+3 9007199254740993 +7");
  for (std::string t; hard >> t;) texts.push_back(t);
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(-1, 1);
  const char* formats[] = {"%.9g", "%.6f", "%.15g", "%.17g", "%.3e", "%.12f"};
  for (int i = 0; i < 3000; ++i) {
    char text[64];
    std::snprintf(text, sizeof text, formats[i % 6], std::ldexp(unit(rng), int(rng() % 81) - 40));
    texts.push_back(text);
  }
  std::string off = "OFF\n" + std::to_string(texts.size()) + " 1 0\n";
  for (const std::string& t : texts) off += t + " " + t + "\t" + t + "\n";
  CompactMesh m;
  ASSERT_TRUE(meshReadFile(m, write("n.off", off + "3 00000000000000000000 +1 0002\n")));
  expectContent(m, std::vector<float>(m.getVerticesRaw(), m.getVerticesRaw() + 3 * texts.size()),
                {0, 1, 2});
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const float expected = std::strtof(texts[i].c_str(), nullptr);
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(std::memcmp(&m.getVerticesRaw()[3 * i + k], &expected, 4), 0) << texts[i];
    }
  }
}

// ---- Hostile files ------------------------------------------------------------------------

std::string plyHeader(const char* encoding, const std::string& vertices, const std::string& faces,
                      const char* indexType = "int") {
  return std::string("ply\nformat ") + encoding + " 1.0\nelement vertex " + vertices +
         "\nproperty float x\nproperty float y\nproperty float z\nelement face " + faces +
         "\nproperty list uchar " + indexType + " vertex_indices\nend_header\n";
}

std::string binaryTriangle(float nanAt1 = 0, int index2 = 2, std::uint8_t corners = 3) {
  Bytes b;
  for (float v : {0.f, 0.f, 0.f, nanAt1, 1.f, 0.f, 1.f, 1.f, 0.f}) b.put(v);
  b.put(corners).put(0).put(1).put(index2);
  return b.str();
}

std::string binaryStl(std::uint32_t claimed, int facets, float corner = 0) {
  Bytes b;
  b.text(std::string(80, 'h')).put(claimed);
  for (int f = 0; f < facets; ++f) {
    for (int k = 0; k < 12; ++k) b.put(k == 5 ? corner : float(k));
    b.put<std::uint16_t>(0);
  }
  return b.str();
}

struct Hostile {
  std::string name, bytes, needle;
};

std::vector<Hostile> hostileFiles() {
  const std::string ble = "binary_little_endian", h = plyHeader(ble.c_str(), "3", "1");
  const std::string at = " byte " + std::to_string(h.size());
  const float nan = std::nanf("");
  const std::string tri = "3 1\n0 0 0\n1 0 0\n0 1 0\n";
  std::string lateNan = binaryStl(2, 2);  // facet 1, corner 2, z
  std::memcpy(&lateNan[84 + 50 + 12 + 24 + 8], &nan, 4);
  const std::string asciiStl =
      "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n";
  return {
      {"short.ply", h + binaryTriangle().substr(0, 24),
       at + ": element vertex: 3 instances cannot fit"},
      {"count255.ply", h + binaryTriangle(0, 2, 255),
       " byte " + std::to_string(h.size() + 36) + ": list count 255 runs past"},
      {"huge.ply", plyHeader(ble.c_str(), "4294967295", "1") + binaryTriangle(),
       ": element vertex: 4294967295 instances"},
      {"hugefaces.ply", plyHeader("ascii", "3", "2147483647") + "0 0 0\n1 0 0\n0 1 0\n",
       "element face: 2147483647 instances"},
      {"floatlist.ply", plyHeader(ble.c_str(), "3", "1", "float") + binaryTriangle(),
       "line 7: vertex_indices is not a list of integers"},
      {"xlist.ply",
       "ply\nformat ascii 1.0\nelement vertex 1\nproperty list uchar float x\nend_header\n1 0\n",
       "line 3: vertex property x is a list"},
      {"nan.ply", h + binaryTriangle(nan),
       " byte " + std::to_string(h.size() + 12) + ": vertex 1 is not a finite point"},
      {"nan_ascii.ply", plyHeader("ascii", "3", "1") + "0 0 0\nnan 1 0\n0 1 0\n3 0 1 2\n",
       "line 11: vertex 1 is not a finite point"},
      {"range.ply", h + binaryTriangle(0, 3), "face refers to missing vertex 3"},
      {"twocorners.ply", h + binaryTriangle(0, 2, 2), "a face of 2 corners"},
      {"type.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty real x\nend_header\n0\n",
       "line 4: malformed property line"},
      {"noend.ply", "ply\nformat ascii 1.0\nelement vertex 0\n",
       "the header has no end_header line"},
      {"trailing.ply", h + binaryTriangle() + "x", "1 bytes after the last element"},
      {"fewvalues.ply", plyHeader("ascii", "3", "1") + "0 0 0\n1 0\n0 1 0\n3 0 1 2\n",
       "line 11: cannot parse z"},
      {"wrongfloat.ply", plyHeader("ascii", "3", "1") + "0 0 0\n1 0 0\n0 1 0\n3 0 1 2.5\n",
       "line 13: cannot parse a vertex index"},
      {"truncated.stl", binaryStl(2, 1), "byte 80: 2 facets need 184 bytes, the file holds 134"},
      {"huge.stl", binaryStl(4294967295u, 1), "byte 80: 4294967295 facets need"},
      {"latenan.stl", lateNan, "byte 170: facet 1 has a corner that is not a finite point"},
      {"nan.stl", binaryStl(1, 1, nan), "byte 96: facet 0 has a corner that is not a finite point"},
      {"noendloop.stl", asciiStl + "vertex 0 1 0\nendfacet\n", "line 7: expected endloop"},
      {"nan_ascii.stl", asciiStl + "vertex 0 nan 0\n",
       "line 6: a corner that is not a finite point"},
      {"noendsolid.stl", asciiStl + "vertex 0 1 0\nendloop\nendfacet\n", "line 8: no endsolid"},
      {"short.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n# room for the counts\n",
       "line 5: the file ends after 2 of 3 vertices"},
      {"huge.off", "OFF\n4294967295 1 0\n0 0 0\n", "4294967295 vertices and 1 faces cannot fit"},
      {"nan.off", "OFF\n3 1 0\n0 0 0\n1 nan 0\n0 1 0\n3 0 1 2\n",
       "line 4: vertex 1 is not a finite point"},
      {"range.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 5\n",
       "line 6: face refers to missing vertex 5"},
      {"values.off", "COFF\n1 0 0\n0 0 0 1 1\n",
       "line 3: expected 7 numbers on the vertex line, found 5"},
      {"four.off", "4OFF\n1 0 0\n0 0 0 1\n", "line 1: only three-dimensional vertices"},
      {"bigindex.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2147483648\n",
       "line 6: cannot parse a vertex index"},
      {"corners.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n2 0 1\n# room\n",
       "line 6: a face of 2 corners"},
      {"range.mesh", tri + "3 0 1 3\n", "line 5: face refers to missing vertex 3"},
      {"extra.mesh", tri + "3 0 1 2 7\n", "line 5: more indices than 3"},
      {"leftover.mesh", tri + "3 0 1 2\n0 0 0\n", "line 6: unexpected content after the last face"},
      {"few.mesh", "3 1\n0 0 0\n1 0 0\n" + std::string(14, '\n'),
       "the file ends after 2 of 3 vertices"},
      {"two.mesh", "1 0\n0 0    \n", "line 2: expected 3 numbers on the vertex line, found 2"},
      {"huge.mesh", "4294967295 4294967295\n",
       "4294967295 vertices and 4294967295 faces cannot fit"},
      {"missing.obj", "v 0 0 0\nf 1 2 3\n", "line 2: face refers to missing vertex 2"},
      {"empty.ply", "", ": empty file"},
      {"junk.bin", "\x01\x02junk", ": not a mesh file of a known format"},
      {"comments.dat", "# nothing\n\n", ": not a mesh file of a known format"},
  };
}

TEST_F(MeshFileTest, HostileFilesFailWithOneLineNamingThePlaceAndLeaveTheMeshUntouched) {
  const CompactMesh before = attributedSphere(true, true, true);
  for (const Hostile& h : hostileFiles()) {
    SCOPED_TRACE(h.name);
    const std::string file = write(h.name, h.bytes);
    CompactMesh m = before;
    std::string error;
    kx::vector<kxLinear::VectorFlt> normals(1);
    kxGeom::MeshReadOptions r;
    r.error = &error;
    r.facetNormals = &normals;
    kxtest::LogCapture log;
    EXPECT_FALSE(meshReadFile(m, file, r));
    expectSameMesh(before, m);
    EXPECT_EQ(normals.size(), 1u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "meshReadFile: " + error + "\n");
    EXPECT_EQ(error.rfind(file, 0), 0u) << error;
    EXPECT_NE(error.find(h.needle), std::string::npos) << error;
  }
  for (const std::string& file : {path("absent.ply"), dir_.string()}) {
    CompactMesh m = before;
    std::string error;
    kxGeom::MeshReadOptions r;
    r.error = &error;
    EXPECT_FALSE(meshReadFile(m, file, r));
    expectSameMesh(before, m);
    EXPECT_EQ(error, file + ": cannot open or read the file");
  }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(MeshFileTest, ClaimedCountsAllocateNothingLarge) {
  for (const Hostile& h : hostileFiles()) {
    if (h.name.rfind("huge", 0) != 0) continue;
    const std::string file = write(h.name, h.bytes);
    EXPECT_TRUE(kxtest::readsWithin(8u << 20, [&] {
      CompactMesh m;
      kxtest::LogCapture log;
      return !meshReadFile(m, file) && log.lines().size() == 1;
    })) << h.name;
  }
}
#endif

// ---- Format choice, progress, writer failures ----------------------------------------------

TEST_F(MeshFileTest, ContentDecidesWhereTheExtensionLiesOrIsMissing) {
  const CompactMesh m = kxtest::makeGrid(2, 1);
  struct Case {
    MeshFileFormat written;
    bool binary, byteOrderMark;
    const char* name;
    const char* found;
  } cases[] = {
      {MeshFileFormat::Ply, true, false, "ply_as.stl", "ply"},
      {MeshFileFormat::Ply, false, true, "ply_bom.ply", "ply"},
      {MeshFileFormat::Off, false, true, "off_as.obj", "off"},
      {MeshFileFormat::Stl, true, false, "stl_without_extension", "stl"},
      {MeshFileFormat::Stl, false, true, "ascii_stl.mesh", "stl"},
      {MeshFileFormat::Obj, false, true, "obj_as.txt", "obj"},
      {MeshFileFormat::Indexed, false, true, "indexed.dat", "indexed"},
      {MeshFileFormat::Indexed, false, false, "indexed_as.off", "indexed"},
  };
  for (const Case& c : cases) {
    kxGeom::MeshWriteOptions w;
    w.format = c.written;
    w.binary = c.binary;
    ASSERT_TRUE(meshWriteFile(m, path("w"), w));
    const std::string file =
        write(c.name, (c.byteOrderMark ? "\xEF\xBB\xBF" : "") + read(path("w")));
    CompactMesh back;
    kxtest::LogCapture log;
    ASSERT_TRUE(meshReadFile(back, file)) << c.name;
    EXPECT_EQ(back.getNumTriangles(), 4) << c.name;
    EXPECT_NE(log.lines().back().find(std::string(": ") + c.found + ", "), std::string::npos)
        << log.lines().back();
  }
  // A format given explicitly is not second-guessed.
  kxGeom::MeshReadOptions r;
  r.format = MeshFileFormat::Ply;
  CompactMesh back;
  EXPECT_FALSE(meshReadFile(back, path("off_as.obj"), r));
  r.format = MeshFileFormat::Off;
  EXPECT_TRUE(meshReadFile(back, path("off_as.obj"), r));
  // The bare word "solid" is an ascii STL (without its endsolid).
  kxtest::LogCapture bare;
  EXPECT_FALSE(meshReadFile(back, write("bare.dat", "solid")));
  EXPECT_NE(bare.all().find("no endsolid"), std::string::npos) << bare.all();
}

// Cancels once a fifth of the file is read.
class CancelEarly : public kxUtil::Progress {
 public:
  bool cancelled() const override { return get() > 0.2; }
};

TEST_F(MeshFileTest, ProgressCountsBytesAndCancellingLeavesTheMeshUntouched) {
  const CompactMesh big = kxtest::makeLatLongSphere(200, 400);  // each file > 1 MiB
  const CompactMesh before = kxtest::makeGrid(1, 1);
  for (const char* name : {"b.ply", "b.stl", "b.off", "b.obj", "b.mesh"}) {
    ASSERT_TRUE(meshWriteFile(big, path(name)));
    ASSERT_GT(fs::file_size(path(name)), 1u << 20);
    kxUtil::Progress progress;
    kxGeom::MeshReadOptions r;
    r.progress = &progress;
    CompactMesh m;
    ASSERT_TRUE(meshReadFile(m, path(name), r)) << name;
    EXPECT_EQ(progress.get(), 1.0) << name;
    CancelEarly cancel;
    std::string error;
    r.progress = &cancel;
    r.error = &error;
    m = before;
    EXPECT_FALSE(meshReadFile(m, path(name), r)) << name;
    expectSameMesh(before, m);
    EXPECT_NE(error.find(": cancelled"), std::string::npos) << error;
  }
}

TEST_F(MeshFileTest, WriterFailuresReportAndLeaveNoFile) {
  const CompactMesh good = kxtest::makeGrid(1, 1);
  CompactMesh bad = good;
  bad.getTriangles()[1][2] = 4;
  struct Case {
    const CompactMesh& mesh;
    std::string file, needle;
  } cases[] = {{good, path("m.xyz"), "no known format by that name"},
               {bad, path("m.ply"), "triangle 1 refers to a missing vertex"},
               {good, path("no/such/dir/m.ply"), "cannot create the file"}};
  for (const Case& c : cases) {
    std::string error;
    kxGeom::MeshWriteOptions w;
    w.error = &error;
    kxtest::LogCapture log;
    EXPECT_FALSE(meshWriteFile(c.mesh, c.file, w));
    EXPECT_FALSE(fs::exists(c.file));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"meshWriteFile: " + error + "\n"});
    EXPECT_EQ(error, c.file + ": " + c.needle);
  }
}

}  // namespace
