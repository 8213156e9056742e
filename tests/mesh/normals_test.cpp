// Vertex and triangle normals against a double-precision sum of area-free
// unit normals, the (0, 0, 1) fallback, notices, logs and thread counts.
#include <kxgeom/normals.h>
#include <kxgeom/predicates.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxLinear::Vector;

Vector cornerOf(const CompactMesh& mesh, int t, int c) {
  return mesh.getVertices()[mesh.getTriangles()[t][c]].asPoint();
}

// Unit normal of triangle t from the edge cross product, in double.
Vector unitNormal(const CompactMesh& mesh, int t) {
  const Vector a = cornerOf(mesh, t, 0), b = cornerOf(mesh, t, 1), c = cornerOf(mesh, t, 2);
  const Vector n = kxLinear::cross(b - a, c - a);
  return n.length2() > 0 ? n / n.length() : Vector(0, 0, 1);
}

TEST(VertexNormals, MatchTheSumOfUnitTriangleNormals) {
  CompactMesh mesh = kxtest::makeRandomMesh(300, 1200, 59);
  std::vector<Vector> sum(mesh.getNumVertices());
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    for (int c = 0; c < 3; ++c) sum[mesh.getTriangles()[t][c]] += unitNormal(mesh, t);
  }
  kxtest::LogCapture log;
  kxGeom::meshComputeNormals(mesh);
  ASSERT_NE(nullptr, mesh.getNormals());
  int compared = 0;
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    const Vector got = mesh.getNormals()[i].asVector();
    if (sum[i].length() < 1e-3) continue;
    EXPECT_LT((got - sum[i] / sum[i].length()).length(), 2e-4) << i;
    ++compared;
  }
  EXPECT_GT(compared, 250);
  EXPECT_TRUE(mesh.getNormalsComputed());
  EXPECT_EQ(1, mesh.getModificationCount());
  EXPECT_EQ(2, mesh.getLastModificationType());
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ("meshComputeNormals:  vertices 300  triangles 1200\n", log.lines()[0]);
}

TEST(VertexNormals, VanishingSumsAndRepeatedCorners) {
  // Triangles 0 and 1 are opposite (+z, -z), triangle 2 faces -x, and the
  // degenerate triangle 3 lists vertex 0 twice, adding its fallback (0, 0, 1)
  // to it twice. Vertex 3 is unused.
  const kxGeom::MeshVertex v[5] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 5, 5}, {0, 0, 1}};
  const int t[12] = {0, 1, 2, 0, 2, 1, 0, 4, 2, 0, 0, 1};
  CompactMesh mesh(5, v, nullptr, nullptr, nullptr);
  mesh.copyTriangles(4, t);
  kxGeom::meshComputeNormals(mesh);
  const kxGeom::MeshNormal* n = mesh.getNormals();
  // Vertex 0: (-1, 0, 0) from triangle 2, (0, 0, 1) twice from triangle 3.
  const double s = 1 / std::sqrt(5.0);
  EXPECT_NEAR(-s, n[0].x, 1e-6);
  EXPECT_NEAR(0, n[0].y, 1e-6);
  EXPECT_NEAR(2 * s, n[0].z, 1e-6);
  EXPECT_EQ(0.0f, n[3].x);  // unused vertex: the fallback
  EXPECT_EQ(1.0f, n[3].z);
  // Vertex 1: +z and -z cancel, the degenerate triangle adds +z once.
  EXPECT_NEAR(1.0, n[1].z, 1e-6);
  // Vertex 2: +z, -z and (-1, 0, 0).
  EXPECT_NEAR(-1.0, n[2].x, 1e-6);

  const kxGeom::MeshVertex tip[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0}};
  const int opposite[6] = {0, 1, 2, 0, 2, 1};
  CompactMesh cancel(4, tip, nullptr, nullptr, nullptr);
  cancel.copyTriangles(2, opposite);
  kxGeom::meshComputeNormals(cancel);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(0.0f, cancel.getNormals()[i].x);
    EXPECT_EQ(0.0f, cancel.getNormals()[i].y);
    EXPECT_EQ(1.0f, cancel.getNormals()[i].z);
  }
}

TEST(VertexNormals, EmptyMeshIsLeftAlone) {
  CompactMesh empty;
  kxtest::LogCapture log;
  kxGeom::meshComputeNormals(empty);
  kxGeom::meshComputeTriangleNormals(empty);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(0, empty.getModificationCount());
  EXPECT_EQ(nullptr, empty.getNormals());
}

TEST(TriangleNormals, EqualTriNormalOfEachTriangle) {
  CompactMesh mesh = kxtest::makeRandomMesh(100, 500, 61);
  kxtest::LogCapture log;
  kxGeom::meshComputeTriangleNormals(mesh);
  ASSERT_NE(nullptr, mesh.getTriangleNormals());
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const Vector ref = unitNormal(mesh, t);
    const kxGeom::MeshNormal& got = mesh.getTriangleNormals()[t];
    EXPECT_LT((got.asVector() - ref).length(), 1e-6) << t;
    // The pass must round exactly what meshTriNormal gives, bit for bit.
    const kxLinear::Normal exact =
        kxGeom::meshTriNormal(mesh.getVerticesRaw(), mesh.getTrianglesRaw() + 3 * t);
    ASSERT_EQ(float(exact.x()), got.x) << t;
    ASSERT_EQ(float(exact.y()), got.y) << t;
    ASSERT_EQ(float(exact.z()), got.z) << t;
  }
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ("meshComputeTriangleNormals:  vertices 100  triangles 500\n", log.lines()[0]);
  EXPECT_TRUE(kxtest::matchesLogLine(log.lines()[1], "normalized: ", " s\n"));
  EXPECT_EQ(2, mesh.getLastModificationType());
}

TEST(Normalize, UnitVectorsAndFallbackForTinyOrInvalid) {
  std::vector<float> v = {3, 0, 4,  0,  0, 0, 1e-9f, 0, 0, 1e-7f, 0, 0, std::nanf(""),
                          1, 1, -2, -2, -1};
  kxGeom::meshNormalize(v.data(), 6);
  const std::vector<float> want = {0.6f, 0, 0.8f, 0, 0, 1, 0, 0, 1, 1, 0, 0, 0, 0, 1};
  for (int i = 0; i < 15; ++i) EXPECT_NEAR(want[i], v[i], 1e-6) << i;
  EXPECT_NEAR(-2.0 / 3, v[15], 1e-6);
  EXPECT_NEAR(-1.0 / 3, v[17], 1e-6);
}

}  // namespace
