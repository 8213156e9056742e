// Mesh files: exact round trips, byte-exact writer texts, every OBJ corner
// form, and failure paths that must leave the caller's mesh untouched.
#include <cstdio>
#include <locale>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <kxgeom/mesh_io.h>
#include <kxgeom/primitives.h>

#include "support/file_fixture.h"
#include "support/memory_budget.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;

using MeshIoTest = kxtest::FileTest;

void expectSameMesh(const CompactMesh& a, const CompactMesh& b) {
  ASSERT_EQ(a.getNumVertices(), b.getNumVertices());
  ASSERT_EQ(a.getNumTriangles(), b.getNumTriangles());
  for (int i = 0; i < a.getNumVertices(); ++i) {
    ASSERT_EQ(a.getVertices()[i].x, b.getVertices()[i].x) << i;
    ASSERT_EQ(a.getVertices()[i].y, b.getVertices()[i].y) << i;
    ASSERT_EQ(a.getVertices()[i].z, b.getVertices()[i].z) << i;
  }
  for (int t = 0; t < a.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) ASSERT_EQ(a.getTriangles()[t][k], b.getTriangles()[t][k]) << t;
  }
  EXPECT_EQ(a.getNormals() != nullptr, b.getNormals() != nullptr);
  EXPECT_EQ(a.getUVs() != nullptr, b.getUVs() != nullptr);
}

CompactMesh threeVertexMesh() {
  const kxGeom::MeshVertex v[3] = {{0, 0, 0}, {1e-7f, 123456.7f, -2.5f}, {0.1f, 1.0f, 3.0f}};
  CompactMesh m(3, v, nullptr, nullptr, nullptr);
  const int t[3] = {0, 1, 2};
  m.copyTriangles(1, t);
  return m;
}

// ---- Indexed text format ----------------------------------------------------

TEST_F(MeshIoTest, IndexedRoundTripIsExactAndTextMatchesPrintf) {
  const CompactMesh m = kxtest::makeRandomMesh(300, 500, 11);
  kxGeom::meshWrite(m, path("m.txt"));
  CompactMesh back = kxtest::makeGrid(2, 2);
  back.allocUVArray();
  kxGeom::meshRead(back, path("m.txt"));
  expectSameMesh(m, back);
  EXPECT_EQ(back.getUVs(), nullptr);

  std::string expected = "300 500\n";
  char line[128];
  for (int i = 0; i < 300; ++i) {
    const kxGeom::MeshVertex& v = m.getVertices()[i];
    std::snprintf(line, sizeof line, "%.10g %.10g %.10g\n", v.x, v.y, v.z);
    expected += line;
  }
  for (int t = 0; t < 500; ++t) {
    const kxGeom::MeshTriangle& tri = m.getTriangles()[t];
    expected += "3 " + std::to_string(tri[0]) + " " + std::to_string(tri[1]) + " " +
                std::to_string(tri[2]) + "\n";
  }
  EXPECT_EQ(read(path("m.txt")), expected);
}

TEST_F(MeshIoTest, IndexedQuadFaceIsMisreadAsWritten) {
  const std::string file =
      write("q.txt", "5 2\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n2 2 2\n4 0 1 2 3\n3 1 2 4\n");
  CompactMesh m;
  kxGeom::meshRead(m, file);
  ASSERT_EQ(m.getNumTriangles(), 2);
  const int expected[2][3] = {{0, 1, 2}, {3, 1, 2}};  // the 4th index became the next count
  for (int t = 0; t < 2; ++t) {
    for (int k = 0; k < 3; ++k) EXPECT_EQ(m.getTriangles()[t][k], expected[t][k]);
  }
}

TEST_F(MeshIoTest, IndexedReadersSurviveHostileInput) {
  kxtest::LogCapture log;
  CompactMesh m;
  // Counts far beyond the file: capped by the bytes present.
  kxGeom::meshRead(m, write("huge.txt", "2147483647 2147483647\n1 2 3\n4 5 6\n"));
  EXPECT_LE(m.getNumVertices(), 4);
  EXPECT_LE(m.getNumTriangles(), 2);
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      EXPECT_GE(m.getTriangles()[t][k], 0);
      EXPECT_LT(m.getTriangles()[t][k], m.getNumVertices());
    }
  }
  kxGeom::meshRead(m, write("neg.txt", "-5 -9\n"));
  EXPECT_EQ(m.getNumVertices(), 0);
  EXPECT_EQ(m.getNumTriangles(), 0);

  // Garbage stops the scan: later numbers read as 0, like unchecked fscanf.
  kxGeom::meshRead(m, write("junk.txt", "3 1\n1 2 3\n4 x 6\n7 8 9\n3 0 1 2\n"));
  ASSERT_EQ(m.getNumVertices(), 3);
  EXPECT_EQ(m.getVertices()[1].x, 4.0f);
  EXPECT_EQ(m.getVertices()[1].y, 0.0f);
  EXPECT_EQ(m.getVertices()[2].z, 0.0f);
  ASSERT_EQ(m.getNumTriangles(), 1);
  EXPECT_EQ(m.getTriangles()[0][2], 0);
  EXPECT_TRUE(log.lines().empty());

  kxGeom::TopoMesh topo;
  kxGeom::meshRead(topo, write("tophuge.txt", "3 1\n0 0 0\n1 0 0\n0 1 0\n2000000000 0 1 2\n"));
  // The corner count is capped by the bytes left (two per index), and the
  // scan past the end reads 0 like an unchecked fscanf.
  ASSERT_EQ(topo.getNumFaces(), 1);
  EXPECT_EQ(topo.getFaceSize(kxGeom::TopoMeshFace(0)), 4);
}

TEST_F(MeshIoTest, IndexedFailuresLeaveMeshUntouched) {
  CompactMesh m = kxtest::makeGrid(3, 2);
  const CompactMesh before = m;
  kxGeom::TopoMesh topo;
  topo.assign(before);
  {
    kxtest::LogCapture log;
    kxGeom::meshRead(m, path("missing.txt"));
    kxGeom::meshRead(topo, path("missing.txt"));
    EXPECT_TRUE(log.lines().empty());
  }
  expectSameMesh(m, before);
  const std::string bad = write("bad.txt", "3 2\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n3 0 1 3\n");
  for (int pass = 0; pass < 2; ++pass) {
    kxtest::LogCapture log;
    if (pass == 0) kxGeom::meshRead(m, bad);
    if (pass == 1) kxGeom::meshRead(topo, bad);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("line 6"), std::string::npos) << log.lines()[0];
    EXPECT_NE(log.lines()[0].find("missing vertex 3"), std::string::npos) << log.lines()[0];
  }
  expectSameMesh(m, before);
  EXPECT_EQ(topo.getNumFaces(), before.getNumTriangles());
  EXPECT_EQ(topo.getModificationCount(), 0);
}

TEST_F(MeshIoTest, TopoRoundTripKeepsPolygonsAndLinksTwins) {
  kxGeom::TopoMesh cube;
  const float range[2] = {-0.5f, 1.25f};
  kxGeom::constructQuadCube(range, cube);
  const kxGeom::TopoMeshVertex tri[3] = {kxGeom::TopoMeshVertex(0), kxGeom::TopoMeshVertex(1),
                                         kxGeom::TopoMeshVertex(2)};
  cube.addFace(tri, 3);
  cube.deleteFace(kxGeom::TopoMeshFace(0));  // a dead slot must not be written
  kxGeom::meshWrite(cube, path("t.txt"));
  EXPECT_EQ(read(path("t.txt")),
            "8 6\n-0.5 -0.5 -0.5\n1.25 -0.5 -0.5\n-0.5 1.25 -0.5\n1.25 1.25 -0.5\n"
            "-0.5 -0.5 1.25\n1.25 -0.5 1.25\n-0.5 1.25 1.25\n1.25 1.25 1.25\n"
            "4 0 4 6 2\n4 2 6 7 3\n4 0 1 5 4\n4 4 5 7 6\n4 0 2 3 1\n3 0 1 2\n");

  kxGeom::TopoMesh back;
  kxGeom::meshRead(back, path("t.txt"));
  EXPECT_EQ(back.getModificationCount(), 1);
  EXPECT_EQ(back.getLastModificationType(), kxGeom::TopoMeshModification::Topology);
  ASSERT_EQ(back.getNumFaces(), 6);
  int twinned = 0;
  for (int h = 0; h < back.halfEdgeSlots(); ++h) {
    twinned += back.twin(kxGeom::TopoMeshHalfEdge(h)).isValid();
  }
  // Five quads of an open box share 8 edges (16 half-edges). The extra
  // triangle's edges 0-1 and 2-0 are already paired between earlier quads
  // (a third face on an edge stays unlinked) and 1-2 is a diagonal.
  EXPECT_EQ(twinned, 16);
  kxGeom::meshWrite(back, path("t2.txt"));
  EXPECT_EQ(read(path("t2.txt")), read(path("t.txt")));
}

// ---- OBJ writing --------------------------------------------------------------

TEST_F(MeshIoTest, ObjWriterTextsAreByteExactForEveryAttributeCombination) {
  const std::string v = "v 0 0 0\nv 1e-07 123457 -2.5\nv 0.1 1 3\n";
  const std::string vn = "vn 0 0 1\nvn 0 0 1\nvn 0 0 1\n";
  const std::string vt = "vt 0.25 0.5\nvt 0.25 0.5\nvt 0.25 0.5\n";
  struct Case {
    bool normals, uvs;
    std::string text;
  } cases[] = {
      {false, false, v + "f 1  2  3 \n"},
      {true, false, v + vn + "f 1//1 2//2 3//3\n"},
      {false, true, v + vt + "f 1/1 2/2 3/3\n"},
      {true, true, v + vn + vt + "f 1/1/1 2/2/2 3/3/3\n"},
  };
  for (const Case& c : cases) {
    CompactMesh m = threeVertexMesh();
    if (c.normals) kxGeom::addUniformNormals(m, {0, 0, 1});
    if (c.uvs) {
      kxGeom::MeshUV* uv = m.allocUVArray();
      for (int i = 0; i < 3; ++i) uv[i] = {0.25f, 0.5f};
    }
    ASSERT_TRUE(kxGeom::meshWriteObj(m, path("w.obj")));
    EXPECT_EQ(read(path("w.obj")), c.text);
  }
  EXPECT_FALSE(kxGeom::meshWriteObj(threeVertexMesh(), path("no/such/dir/w.obj")));

  // An application's global locale must not turn "0.1" into "0,1".
  struct CommaDecimal : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  const std::locale previous =
      std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
  const bool written = kxGeom::meshWriteObj(threeVertexMesh(), path("w.obj"));
  std::locale::global(previous);
  ASSERT_TRUE(written);
  EXPECT_EQ(read(path("w.obj")), cases[0].text);
}

// ---- OBJ reading ----------------------------------------------------------------

// The corner table of a file: expected position, uv and normal per corner.
struct CornerOracle {
  int vi, ti, ni;  // 0-based indices as written, -1 for none
  float p[3];
  float uv[2];
  float n[3];
};

TEST_F(MeshIoTest, ObjCornerFormsNegativeIndicesAndSplitsMatchCornerOracle) {
  // Two quads sharing an edge, one fanned pentagon, every token form, CRLF
  // line ends, relative indices, and no final newline.
  const std::string text =
      "# comment\r\n$ skipped\r\nmtllib x.mtl\r\n"
      "v 0 0 0\r\nv 1 0 0\r\nv 1 1 0\r\nv 0 1 0\r\nv 2 0 0\r\nv 2 1 0\r\n"
      "vt 0 0\r\nvt 1 0\r\nvt 1 1\r\nvt 0 1 0\r\n"
      "vn 0 0 1\r\nvn 0 0 -1\r\n"
      "o thing\r\ng group\r\nusemtl m\r\ns 1\r\n"
      "f 1/1/1 2/2/1 3/3/1 4/4/1\r\n"
      "f 2//2 -2//-1 -1//-1 3//2\r\n"
      "  f\t1/1 2/2 3/3\r\n"
      "f -6 -5 -4 -3 -2\r\n"
      "f 1 2";  // two corners: adds nothing
  CompactMesh m;
  ASSERT_TRUE(kxGeom::meshReadObj(m, write("c.obj", text)));
  const float P[6][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 0, 0}, {2, 1, 0}};
  const float T[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  const float N[3][3] = {{0, 0, 1}, {0, 0, -1}, {0, 0, 0}};
  auto c = [&](int v, int t, int n) {
    CornerOracle o{v,
                   t,
                   n,
                   {P[v][0], P[v][1], P[v][2]},
                   {t < 0 ? 0 : T[t][0], t < 0 ? 0 : T[t][1]},
                   {N[n < 0 ? 2 : n][0], N[n < 0 ? 2 : n][1], N[n < 0 ? 2 : n][2]}};
    return o;
  };
  const std::vector<std::vector<CornerOracle>> expected = {
      {c(0, 0, 0), c(1, 1, 0), c(2, 2, 0)},       {c(0, 0, 0), c(2, 2, 0), c(3, 3, 0)},
      {c(1, -1, 1), c(4, -1, 1), c(5, -1, 1)},    {c(1, -1, 1), c(5, -1, 1), c(2, -1, 1)},
      {c(0, 0, -1), c(1, 1, -1), c(2, 2, -1)},    {c(0, -1, -1), c(1, -1, -1), c(2, -1, -1)},
      {c(0, -1, -1), c(2, -1, -1), c(3, -1, -1)}, {c(0, -1, -1), c(3, -1, -1), c(4, -1, -1)},
  };
  ASSERT_EQ(m.getNumTriangles(), int(expected.size()));
  ASSERT_NE(m.getNormals(), nullptr);
  ASSERT_NE(m.getUVs(), nullptr);
  // Positions keep their indices; each distinct (v, vt, vn) beyond the first
  // use of a position adds one split vertex.
  for (int i = 0; i < 6; ++i) EXPECT_EQ(m.getVertices()[i].x, P[i][0]);
  std::set<std::tuple<int, int, int>> distinct;
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      const int v = m.getTriangles()[t][k];
      ASSERT_GE(v, 0);
      ASSERT_LT(v, m.getNumVertices());
      const CornerOracle& o = expected[t][k];
      const kxGeom::MeshVertex& p = m.getVertices()[v];
      EXPECT_EQ(p.x, o.p[0]) << t << "," << k;
      EXPECT_EQ(p.y, o.p[1]) << t << "," << k;
      EXPECT_EQ(m.getUVs()[v].u, o.uv[0]) << t << "," << k;
      EXPECT_EQ(m.getUVs()[v].v, o.uv[1]) << t << "," << k;
      EXPECT_EQ(m.getNormals()[v].z, o.n[2]) << t << "," << k;
      distinct.insert({o.vi, o.ti, o.ni});
    }
  }
  EXPECT_EQ(m.getNumVertices(), int(distinct.size()));  // all six positions are used
}

TEST_F(MeshIoTest, ObjFailuresReturnFalseLeaveMeshAndLogOneLineWithLineNumber) {
  struct Case {
    const char* text;
    const char* needle;
  } cases[] = {
      {"v 0 0 0\nv 1 0 0\nv 1 x 0\n", "line 3: cannot parse a number"},
      {"v 0 0 0\nv 1 0\n", "line 2: cannot parse a number"},
      {"v 0 0 0\r\nv 1 0 0\r\nv 0 1 0\r\nf 1 2 4\r\n", "line 4: face refers to missing vertex 4"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 0\n", "line 4: face refers to missing vertex 0"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf -1 -2 -4\n", "line 4: face refers to missing vertex -4"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nf 1/1 2/2 3/1",
       "line 5: face refers to missing texture coordinate 2"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\n\n\nf 1//1 2//1 3//1\nvn 0 0 1\n",
       "line 6: face refers to missing normal 1"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3x\n", "line 4: cannot parse a number"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 99999999999\n", "line 4: cannot parse a number"},
      {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1/ 2// 3//\n", "line 4: cannot parse a number"},
  };
  for (const Case& c : cases) {
    CompactMesh m;
    kxGeom::constructSphere({0, 0, 0}, 1, 2, m);
    const CompactMesh before = m;
    kxtest::LogCapture log;
    EXPECT_FALSE(kxGeom::meshReadObj(m, write("f.obj", c.text))) << c.text;
    expectSameMesh(m, before);
    ASSERT_EQ(log.lines().size(), 1u) << c.text;
    EXPECT_NE(log.lines()[0].find(c.needle), std::string::npos) << log.lines()[0];
  }
  CompactMesh m = kxtest::makeGrid(1, 1);
  kxtest::LogCapture log;
  EXPECT_FALSE(kxGeom::meshReadObj(m, path("absent.obj")));
  EXPECT_FALSE(kxGeom::meshReadObj(m, dir_.string()));  // a directory opens but cannot be read
  kxGeom::meshRead(m, dir_.string());
  EXPECT_EQ(m.getNumTriangles(), 2);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_NE(log.lines()[0].find("cannot open"), std::string::npos);
  EXPECT_NE(log.lines()[1].find("cannot open"), std::string::npos);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(MeshIoTest, ReadersNeedMemoryInProportionToTheFile) {
  // Two million vertices (16 MB of text) and one face: the mesh needs about
  // 32 MB; room for a closed mesh's corners would be 144 MB more.
  std::string text;
  for (int i = 0; i < 2000000; ++i) text += "v 0 0 0\n";
  const std::string obj = write("many.obj", text + "f 1 2 3\n");
  EXPECT_TRUE(kxtest::readsWithin(96u << 20, [&] {
    CompactMesh m;
    return kxGeom::meshReadObj(m, obj) && m.getNumVertices() == 2000000;
  }));
  // With far too little memory the readers fail cleanly instead of throwing.
  EXPECT_TRUE(kxtest::readsWithin(8u << 20, [&] {
    CompactMesh m = kxtest::makeGrid(1, 1);
    kxtest::LogCapture log;
    return !kxGeom::meshReadObj(m, obj) && m.getNumTriangles() == 2 && log.lines().size() == 1;
  }));
  const std::string indexed = write("many.mesh", "2000000 1\n" + std::string(text.size(), '0'));
  EXPECT_TRUE(kxtest::readsWithin(4u << 20, [&] {
    CompactMesh m = kxtest::makeGrid(1, 1);
    kxGeom::meshRead(m, indexed);
    return m.getNumTriangles() == 2;
  }));
}
#endif

}  // namespace
