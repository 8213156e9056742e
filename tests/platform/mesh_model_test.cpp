// The platform mesh model: BitVector resizing, the renumbering notice,
// invalid ranges, boxes against a second formula, and line-plane meets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/test_meshes.h"

namespace {

using namespace kxGeom;

// --- BitVector ---------------------------------------------------------------

TEST(BitVectorModel, ResizeKeepsBitsAndClearsTheTail) {
  BitVector bits(70);
  bits.setAllBits();
  bits.resize(40);
  EXPECT_EQ(bits.words()[1], (1u << 8) - 1u);
  bits.resize(90);
  EXPECT_EQ(bits.countSetBits(), 40);
  EXPECT_FALSE(bits.isBitSet(40));
  const int picks[] = {3, 89, 64};
  bits.clearBits();
  bits.setBits(3, picks);
  EXPECT_EQ(bits.words()[0], 1u << 3);
  EXPECT_EQ(bits.words()[2], (1u << 0) | (1u << 25));
}

// --- ArrayOfSets ----------------------------------------------------------------

// --- Remap ---------------------------------------------------------------------

// --- CompactMesh ------------------------------------------------------------------

CompactMesh makeDecoratedMesh(int n) {
  std::vector<MeshVertex> v;
  std::vector<MeshNormal> nr;
  std::vector<MeshUV> uv;
  for (int i = 0; i < n; ++i) {
    v.push_back({float(i), 0, 0});
    nr.push_back({float(i), 1, 0});
    uv.push_back({float(i), -float(i)});
  }
  CompactMesh mesh(n, v.data(), nr.data(), uv.data(), nullptr);
  std::vector<int> tris;
  for (int t = 0; t + 2 < n; ++t) tris.insert(tris.end(), {t, t + 1, t + 2});
  mesh.copyTriangles(int(tris.size() / 3), tris.data());
  MeshNormal* tn = mesh.allocTriangleNormalArray();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) tn[t] = {float(t), 0, 2};
  float* w = mesh.allocAttributes("weight", 1)->asFloat();
  for (int i = 0; i < n; ++i) w[i] = 10.0f * float(i);
  return mesh;
}

// A weld-like renumbering: vertices 0,1 -> 0; 2,4 -> 1; 3 -> 2. The caller
// shrinks the arrays first, then sends the notice.
TEST(CompactMeshModel, RenumberingNoticeRemapsDerivedDataAndSelection) {
  for (bool normalsHandled : {false, true}) {
    CompactMesh mesh = makeDecoratedMesh(5);
    mesh.setNormalsComputed(true);
    for (int i : {1, 3}) mesh.getSelectedVertices().setBit(i);
    Remap map(5, 3);
    const int images[] = {0, 0, 1, 2, 1};
    for (int i = 0; i < 5; ++i) map.set(i, images[i]);
    const int before = mesh.getModificationCount();
    mesh.resizeVertexArray(3);
    MeshRemap remap(&map, nullptr);
    MeshModification mod(&mesh, MeshModification::TopologyChanged, &remap);
    if (normalsHandled) mod.normalsValid();
    mesh.modified(mod);

    EXPECT_EQ(mesh.getModificationCount(), before + 1);
    EXPECT_EQ(mesh.getLastModificationType(), 1);
    // The highest old index wins where several merge.
    const std::vector<float> remapped{1, 4, 3}, untouched{0, 1, 2};
    const std::vector<float>& want = normalsHandled ? untouched : remapped;
    ASSERT_NE(mesh.getNormals(), nullptr);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(mesh.getNormals()[i].x, want[i]);
      EXPECT_EQ(mesh.getUVs()[i].u, remapped[i]);
      EXPECT_EQ(mesh.getAttributes("weight")->asFloat()[i], 10.0f * remapped[i]);
    }
    EXPECT_EQ(mesh.getSelectedVertices().size(), 3);
    EXPECT_EQ(mesh.getSelectedVertices().words()[0], (1u << 0) | (1u << 2));
  }
}

// --- BoundingBox ------------------------------------------------------------------

TEST(CompactMeshModel, InvalidRangeIsTheUnionSinceTheLastClear) {
  MeshAttributes a("values", 1, 10);
  int begin, end;
  a.invalidateRange(3, 5);
  a.getInvalidRange(begin, end);
  EXPECT_EQ(std::make_pair(begin, end), std::make_pair(3, 5));  // not joined to an empty [0, 0)
  a.invalidateRange(7, 8);
  a.getInvalidRange(begin, end);
  EXPECT_EQ(std::make_pair(begin, end), std::make_pair(3, 8));
  a.clearInvalidRange();
  a.invalidateRange(6, 9);
  a.getInvalidRange(begin, end);
  EXPECT_EQ(std::make_pair(begin, end), std::make_pair(6, 9));
}

TEST(BoundingBoxModel, ExtendContainsIntersectAndDistanceAgreeWithSecondFormulas) {
  std::mt19937 rng(4);
  std::uniform_real_distribution<float> u(-3, 3);
  BoundingBox box;
  EXPECT_FALSE(box.isValid());
  float lo[3] = {1e9f, 1e9f, 1e9f}, hi[3] = {-1e9f, -1e9f, -1e9f};
  for (int k = 0; k < 50; ++k) {
    const float p[3] = {u(rng), u(rng) * 0.5f, u(rng) * 0.25f};
    box.extend(kxLinear::PointFlt{p[0], p[1], p[2]});
    for (int a = 0; a < 3; ++a) lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
  }
  EXPECT_EQ(box, BoundingBox(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]));
  for (int k = 0; k < 200; ++k) {
    const kxLinear::PointFlt p{u(rng), u(rng), u(rng)};
    float clamped[3];
    for (int a = 0; a < 3; ++a) clamped[a] = std::clamp(p[a], lo[a], hi[a]);
    const float d = std::hypot(p.x - clamped[0], p.y - clamped[1], p.z - clamped[2]);
    EXPECT_NEAR(box.distance(p), d, 1e-5f);
    EXPECT_NEAR(box.distance2(p), d * d, 1e-4f);

    BoundingBox other;
    other.extend(p);
    other.extend(kxLinear::PointFlt{u(rng), u(rng), u(rng)});
    BoundingBox common(std::max(box[0], other[0]), std::max(box[1], other[1]),
                       std::max(box[2], other[2]), std::min(box[3], other[3]),
                       std::min(box[4], other[4]), std::min(box[5], other[5]));
    EXPECT_EQ(box.intersects(other), common.isValid());
    BoundingBox merged = box;
    merged.extend(other);
    EXPECT_EQ(box.contains(other), merged == box);
  }
}

TEST(BoundingBoxModel, CubeCornersAndRotatedBox) {
  BoundingBox box(-1.0f, -2.0f, -0.5f, 1.0f, 2.0f, 0.5f);
  float corner[3];
  box.getPoint(5, corner);  // max x, min y, max z
  EXPECT_EQ(corner[0], 1.0f);
  EXPECT_EQ(corner[1], -2.0f);
  EXPECT_EQ(corner[2], 0.5f);
  BoundingBox cube = box;
  cube.extendToCube();
  EXPECT_TRUE(cube.contains(box));
  EXPECT_TRUE(equivalent(cube, BoundingBox(-2.0f, -2.0f, -2.0f, 2.0f, 2.0f, 2.0f), 0.0f));
  EXPECT_FALSE(equivalent(box, BoundingBox(-1.5f, -2.0f, -0.5f, 1.0f, 2.0f, 0.5f), 0.4f));
  // Rotation about z by t: half-widths become |a cos t| + |b sin t| and
  // |a sin t| + |b cos t| for half-widths a, b.
  const double t = 0.3, c = std::cos(t), s = std::sin(t);
  const auto rot = kxLinear::AffineMatrix::frame({5, 0, 0}, {c, s, 0}, {-s, c, 0}, {0, 0, 1});
  BoundingBox turned = box;
  turned.transform(rot);
  const float hx = float(1 * c + 2 * s), hy = float(1 * s + 2 * c);
  EXPECT_TRUE(equivalent(turned, BoundingBox(5 - hx, -hy, -0.5f, 5 + hx, hy, 0.5f), 1e-5f));
  // A shear whose extremes come from the first and last corners alone.
  BoundingBox sheared = box;
  sheared.transform(kxLinear::AffineMatrix::frame({0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {1, 0, 1}));
  EXPECT_TRUE(equivalent(sheared, BoundingBox(-3.5f, -2.0f, -0.5f, 3.5f, 2.0f, 0.5f), 0.0f));
  BoundingBox empty;
  empty.transform(rot);
  EXPECT_FALSE(empty.isValid());
  EXPECT_FLOAT_EQ(box.diagonalLength(), std::sqrt(4.0f + 16.0f + 1.0f));
}

}  // namespace

TEST(CompactMeshModel, DroppingNormalsForgetsTheyWereComputed) {
  CompactMesh mesh = kxtest::meshFrom({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {0, 1, 2});
  mesh.allocNormalArray();
  mesh.setNormalsComputed(true);
  mesh.deleteNormals();
  EXPECT_EQ(mesh.getNormals(), nullptr);
  EXPECT_FALSE(mesh.getNormalsComputed());
}

TEST(CompactMeshModel, SizeCountsTheTrianglesAndTheirSelectionWords) {
  const std::vector<MeshVertex> v(3, MeshVertex{0, 0, 0});
  const CompactMesh a = kxtest::meshFrom(v, std::vector<int>(3 * 32, 0));
  const CompactMesh b = kxtest::meshFrom(v, std::vector<int>(3 * 64, 0));
  EXPECT_EQ(b.getSizeInBytes() - a.getSizeInBytes(), 32 * sizeof(MeshTriangle) + 4);
}

TEST(ArrayOfSetsModel, InverseListsEveryHoldingSetInOrder) {
  const int pairs[] = {0, 2, 1, 0, 0, 0, 2, 2};  // set 0: {2, 0}, set 1: {0}, set 2: {2}
  ArrayOfSets sets, inverse;
  sets.assignFromPairs(3, 4, pairs);
  inverse.assignInverse(4, sets);
  ASSERT_EQ(inverse.getNumSets(), 4);
  const auto set = [&](int i) {
    return std::vector<int>(inverse.getSet(i), inverse.getSet(i) + inverse.getSetSize(i));
  };
  EXPECT_EQ(set(0), (std::vector<int>{0, 1}));
  EXPECT_TRUE(set(1).empty());
  EXPECT_EQ(set(2), (std::vector<int>{0, 2}));
  EXPECT_TRUE(set(3).empty());
}

TEST(LinearModel, LinePlaneIntersectionJudgesParallelLinesByAngleAtAnyLength) {
  const kxLinear::Plane ground(kxLinear::Point(0, 0, 0), kxLinear::Vector(0, 0, 2));
  const kxLinear::Point origin(1, 2, 3);
  for (double scale : {1e-3, 1.0, 1e3}) {
    kxLinear::Point hit(7, 7, 7);
    ASSERT_TRUE(kxLinear::intersect(kxLinear::Line(origin, kxLinear::Vector(1, 0, -1) * scale),
                                    ground, hit, 1e-6));
    EXPECT_NEAR((hit - kxLinear::Point(4, 2, 0)).length(), 0, 1e-12) << scale;
    const double x = hit.x;
    // (d.n)^2 = 1e-8 |d|^2: parallel within the tolerance, hit untouched.
    EXPECT_FALSE(kxLinear::intersect(kxLinear::Line(origin, kxLinear::Vector(1, 0, -1e-4) * scale),
                                     ground, hit, 1e-6));
    EXPECT_EQ(hit.x, x);
  }
}
