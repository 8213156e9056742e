// Conformal flattening: a planar disk comes back as a similarity of itself, a
// hemisphere and a disk with a hole flatten without flips, closed surfaces
// are refused or cut, refusals print their exact texts and leave the mesh,
// and cancellation writes nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <kxgeom/adjacency.h>
#include <kxgeom/cut_surface.h>
#include <kxgeom/primitives.h>
#include <kxgeom/reparameterize.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

// Collects what the application output receives.
class OutputCapture {
 public:
  OutputCapture() {
    kxOS::AppOutput::getInstance().setSink([this](kxOS::AppOutput::Level level, const char* text) {
      (level == kxOS::AppOutput::Level::Error ? errors : infos).push_back(text);
    });
  }
  ~OutputCapture() { kxOS::AppOutput::getInstance().setSink(nullptr); }
  bool saw(const std::string& text) const {
    for (const auto* list : {&errors, &infos}) {
      for (const std::string& s : *list) {
        if (s == text) return true;
      }
    }
    return false;
  }
  std::vector<std::string> errors, infos;
};

// The northern half of a sphere (rings 0..rings/2), open at the equator.
CompactMesh hemisphere(int rings, int segments) {
  const CompactMesh s = kxtest::makeLatLongSphere(rings, segments);
  const int keep = segments + (rings / 2 - 1) * 2 * segments;
  CompactMesh h(s.getNumVertices() - 1, s.getVertices(), nullptr, nullptr, nullptr);
  h.copyTriangles(keep, s.getTrianglesRaw());
  std::vector<int> used(s.getTrianglesRaw(), s.getTrianglesRaw() + 3 * keep);
  const int last = *std::max_element(used.begin(), used.end());
  h.resizeVertexArray(last + 1);
  return h;
}

TEST(Reparameterize, PlanarDiskComesBackAsASimilarity) {
  CompactMesh disk;
  constructDisk(kxLinear::Point(0.3, -0.2, 0.5), 2.0f, 12, 3, disk);
  disk.deleteUVs();
  OutputCapture output;
  reparameterizeMesh flattener(disk);
  ASSERT_TRUE(flattener.flatten());
  const UVLayoutQuality q = meshUVLayoutQuality(disk);
  EXPECT_EQ(q.flipped, 0);
  // The solve ends at the absolute breakdown tolerance (1e-8 on p.Ap), which
  // on this scale leaves about 1e-5 of the angles.
  EXPECT_LT(q.worstAngleError, 1e-4);
  EXPECT_NEAR(q.meanAreaRatio, 1.0, 1e-4);
  EXPECT_TRUE(output.errors.empty());
  EXPECT_TRUE(output.saw(
      "Parameterization: calculated planeNormal is good.  Using orthogonal component.\n"));
  EXPECT_TRUE(output.saw("getMeshGenus: chi = 1 + 37 + 60 - 96 = 2 \n"));
  EXPECT_TRUE(output.saw("getMeshGenus: genus = ( 2 - 2 ) / 2 = 0 \n"));
  for (const std::string& line : output.infos) {
    EXPECT_EQ(line.find("complete"), std::string::npos);  // 70 unknowns: no percentages
  }
}

TEST(Reparameterize, CurvedAndHoleyDisksFlattenWithoutFlips) {
  CompactMesh half = hemisphere(16, 24);
  OutputCapture output;
  reparameterizeMesh flattener(half);
  ASSERT_TRUE(flattener.flatten());
  EXPECT_TRUE(output.saw("Parameterization   5.0% complete\n"));
  const UVLayoutQuality q = meshUVLayoutQuality(half);
  EXPECT_EQ(q.flipped, 0);
  EXPECT_LT(q.meanAngleError, 0.05);
  // A grid with a square hole keeps its triangles; the hole closes for the
  // solve only.
  CompactMesh grid = kxtest::makeGrid(8, 8);
  std::vector<int> c(grid.getTrianglesRaw(), grid.getTrianglesRaw() + 3 * grid.getNumTriangles());
  c.erase(c.begin() + 6 * 27, c.begin() + 6 * 29);  // two squares of the middle row
  for (int v = 0; v < grid.getNumVertices(); ++v) {
    MeshVertex& p = grid.getVertices()[v];
    p.z = 0.05f * (p.x - 4) * (p.x - 4);
  }
  CompactMesh holey =
      kxtest::meshFrom({grid.getVertices(), grid.getVertices() + grid.getNumVertices()}, c);
  const int triangles = holey.getNumTriangles();
  reparameterizeMesh flattenHoley(holey);
  ASSERT_TRUE(flattenHoley.flatten());
  EXPECT_EQ(holey.getNumTriangles(), triangles);
  EXPECT_EQ(meshUVLayoutQuality(holey).flipped, 0);
  // A flat triangle standing on its edge along z: no plane normal, the z
  // axis taken instead runs along the fixed vertices, so another is chosen.
  CompactMesh upright = kxtest::meshFrom({{0, 0, -1}, {0, 0, 0.5f}, {0, 0, 1}}, {0, 1, 2});
  OutputCapture uprightOutput;
  reparameterizeMesh(upright).flatten();
  EXPECT_TRUE(uprightOutput.saw(
      "Parameterization: failed to calculateD planeNormal.  Choosing Z-axis instead.\n"));
  EXPECT_TRUE(uprightOutput.saw(
      "Parameterization: calculated planeNormal is (anti-)parallel to the vector between the fixed "
      "vertices of the 3D-boundary.  Choosing a random orthogonal vector instead.\n"));
  // One triangle: the two fixed corners keep their places, the third follows.
  CompactMesh one = kxtest::meshFrom({{0, 0, 0}, {2, 0, 0}, {0, 1, 0}}, {0, 1, 2});
  reparameterizeMesh single(one);
  ASSERT_TRUE(single.flatten());
  EXPECT_LT(meshUVLayoutQuality(one).worstAngleError, 1e-6);
}

TEST(Reparameterize, ClosedSurfacesAreRefusedOrCutToADisk) {
  CompactMesh sphere = kxtest::makeLatLongSphere(10, 16);
  {
    OutputCapture output;
    reparameterizeMesh refuse(sphere);
    EXPECT_FALSE(refuse.flatten());
    EXPECT_TRUE(output.saw("- - - MeshReparameterize: genus = 0\n"));
    EXPECT_EQ(sphere.getUVs(), nullptr);
  }
  reparameterizeMesh cut(sphere);
  cut.enableMeshCutSurface(true);
  EXPECT_TRUE(cut.flatten());
  EXPECT_NE(sphere.getUVs(), nullptr);
}

TEST(Reparameterize, RefusalsPrintTheirTextsAndLeaveTheMesh) {
  struct Case {
    CompactMesh mesh;
    std::string error;
  };
  std::vector<Case> cases;
  cases.push_back({kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {0, 1, 1}),
                   "Found degenerate triangle 0 (0,1,1), mesh not changed. \n"});
  cases.push_back(
      {kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}, {0, 1, 2, 0, 1, 3}),
       "Invalid mesh, reverse wound triangle 1 (0,1,3) \n"});
  cases.push_back({kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 1}},
                                    {0, 1, 2, 1, 0, 3, 0, 1, 4}),
                   "Invalid mesh, non-manifold triangle 2 (0,1,4) \n"});
  cases.push_back({kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {2, 2, 0}},
                                    {0, 1, 2, 0, 3, 4}),
                   "A degenerate boundary found, mesh not changed. \n"});
  cases.push_back({kxtest::meshFrom({{0, 0, 0}, {1, NAN, 0}, {0, 1, 0}}, {0, 1, 2}),
                   "Found vertex 1 with a non-finite position, mesh not changed. \n"});
  for (Case& c : cases) {
    c.mesh.allocUVArray()[0] = {7, 7};
    OutputCapture output;
    reparameterizeMesh flattener(c.mesh);
    EXPECT_FALSE(flattener.flatten()) << c.error;
    ASSERT_EQ(output.errors.size(), 1u) << c.error;
    EXPECT_EQ(output.errors[0], c.error);
    EXPECT_EQ(c.mesh.getUVs()[0].u, 7.0f);
  }
  CompactMesh empty;
  reparameterizeMesh none(empty);
  EXPECT_FALSE(none.flatten());
}

TEST(Reparameterize, CancellationAtAnyPointWritesNothing) {
  class CancelAt : public kxUtil::Progress {
   public:
    explicit CancelAt(int at) : at_(at) {}
    bool cancelled() const override { return ++polls_ >= at_; }
    mutable int polls_ = 0;

   private:
    int at_;
  };
  CompactMesh half = hemisphere(12, 16);
  CancelAt counting(1 << 30);
  CompactMesh copy = half;
  ASSERT_TRUE(reparameterizeMesh(copy).flatten(counting));
  for (int at : {1, counting.polls_ / 2, counting.polls_}) {
    CompactMesh m = half;
    CancelAt cancel(at);
    EXPECT_FALSE(reparameterizeMesh(m).flatten(cancel)) << at;
    EXPECT_EQ(m.getUVs(), nullptr);
  }
}

TEST(CutSurface, ClosedSurfacesOfAnyGenusBecomeOneDisk) {
  // A sphere and a torus (a lat-long grid closed both ways).
  std::vector<CompactMesh> surfaces{kxtest::makeLatLongSphere(8, 10)};
  const int a = 12, b = 8;
  std::vector<MeshVertex> v;
  std::vector<int> c;
  for (int i = 0; i < a; ++i) {
    for (int j = 0; j < b; ++j) {
      const double u = 2 * 3.14159265358979 * i / a, w = 2 * 3.14159265358979 * j / b;
      v.push_back({float((2 + std::cos(w)) * std::cos(u)), float((2 + std::cos(w)) * std::sin(u)),
                   float(std::sin(w))});
      const int p = i * b + j, q = ((i + 1) % a) * b + j, r = i * b + (j + 1) % b,
                s = ((i + 1) % a) * b + (j + 1) % b;
      c.insert(c.end(), {p, q, s, p, s, r});
    }
  }
  surfaces.push_back(kxtest::meshFrom(v, c));
  for (CompactMesh& m : surfaces) {
    const std::vector<MeshVertex> before(m.getVertices(), m.getVertices() + m.getNumVertices());
    kx::vector<int> source;
    ASSERT_TRUE(cutSurface::makeDisk(m, &source));
    MeshAdjTris adj;
    meshAdjTris(m, adj);
    MeshAdjVertices adjVerts;
    meshAdjVertices(m, adj, adjVerts);
    MeshBoundaries loops;
    meshComputeBoundary(m, adj, adjVerts, loops);
    ASSERT_EQ(loops.size(), 1);
    int boundary = loops.getLength(0);
    const int edges = (boundary + 3 * m.getNumTriangles()) / 2;
    EXPECT_EQ(1 + m.getNumVertices() + m.getNumTriangles() - edges, 2);  // genus 0
    for (int i = 0; i < m.getNumVertices(); ++i) {
      EXPECT_EQ(m.getVertices()[i].x, before[source[i]].x);
    }
    EXPECT_FALSE(cutSurface::makeDisk(m));  // already a disk
  }
}

}  // namespace
