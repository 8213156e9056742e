// The working copy of a region: extraction maps vertices both ways, and a
// merge rewrites the region in place, appends new vertices and triangles
// with their data, and sends one notice.
#include <gtest/gtest.h>

#include <kxgeom/mesh_modify.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

TEST(MeshModifyRep, ExtractEditAndMergeBack) {
  CompactMesh m = kxtest::makeGrid(3, 2);  // 12 vertices, 12 triangles
  MeshUV* uvs = m.allocUVArray();
  for (int v = 0; v < 12; ++v) uvs[v] = {float(v), 0};
  m.allocNormalArray();
  for (int v = 0; v < 12; ++v) m.getNormals()[v] = {0, 0, 1};
  BitVector region(12);
  region.setBit(2);
  region.setBit(3);  // the square of vertices 1, 2, 5, 6
  MeshModifyRep rep(m, region);
  TopoMesh& topo = rep.getTopoMesh();
  EXPECT_EQ(topo.getNumVertices(), 4);
  EXPECT_EQ(topo.getNumFaces(), 2);
  EXPECT_FALSE(rep.getTopoVertex(0).isValid());
  EXPECT_EQ(rep.getMeshVertex(rep.getTopoVertex(5)), 5);
  // Replace the square by four triangles around a raised centre.
  kx::vector<TopoMeshVertex> corners;
  for (TopoMeshFace f : topo.faces()) topo.deleteFace(f);
  const TopoMeshVertex c = topo.addVertex({1.5, 0.5, 0.25});
  const int ring[4] = {1, 2, 6, 5};
  for (int k = 0; k < 4; ++k) {
    const TopoMeshVertex f[3] = {rep.getTopoVertex(ring[k]), rep.getTopoVertex(ring[(k + 1) % 4]),
                                 c};
    topo.addFace(f, 3);
  }
  const int notices = m.getModificationCount();
  ASSERT_TRUE(rep.merge());
  EXPECT_EQ(m.getModificationCount(), notices + 1);
  ASSERT_EQ(m.getNumVertices(), 13);
  ASSERT_EQ(m.getNumTriangles(), 14);
  EXPECT_EQ(m.getVertices()[12].z, 0.25f);
  EXPECT_EQ(m.getTriangles()[2][2], 12);  // rewritten in place
  EXPECT_EQ(m.getTriangles()[13][0], 5);  // appended
  EXPECT_EQ(m.getTriangles()[0][0], 0);   // untouched
  EXPECT_EQ(m.getUVs()[12].u, 1.0f);      // from vertex 1, a corner of its first face
  EXPECT_NEAR(m.getNormals()[12].z, 1.0f, 1e-6);
  // Fewer faces than region triangles: the leftover slot goes.
  BitVector again(14);
  again.setBit(0);
  again.setBit(1);
  MeshModifyRep shrink(m, again);
  for (TopoMeshFace f : shrink.getTopoMesh().faces()) {
    shrink.getTopoMesh().deleteFace(f);
    break;
  }
  ASSERT_TRUE(shrink.merge());
  EXPECT_EQ(m.getNumTriangles(), 13);
  EXPECT_EQ(m.getNumVertices(), 13);     // vertex 0 stays itself, no copy appended
  EXPECT_EQ(m.getTriangles()[1][0], 1);  // what was triangle 2 moved down
  // A face that is not a triangle cannot go back: the merge refuses.
  BitVector first(13);
  first.setBit(0);
  MeshModifyRep quad(m, first);
  const kxGeom::MeshTriangle t0 = m.getTriangles()[0];
  const TopoMeshVertex q[4] = {quad.getTopoVertex(t0[0]), quad.getTopoVertex(t0[1]),
                               quad.getTopoVertex(t0[2]), quad.getTopoMesh().addVertex({9, 9, 9})};
  quad.getTopoMesh().addFace(q, 4);
  EXPECT_FALSE(quad.merge());
  EXPECT_EQ(m.getNumTriangles(), 13);
  EXPECT_EQ(m.getNumVertices(), 13);
}

}  // namespace
