// Area, volume and mass properties against closed forms (a box, refined
// spheres) and a Monte Carlo integration of a rough closed mesh; closedness
// of open and misoriented meshes. Curvature of spheres, a cylinder and a
// saddle against their analytic values as the meshes refine. Identical
// results for every thread count.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include <kxgeom/measure.h>

#include "mesh/thread_counts.h"
#include "support/test_meshes.h"

namespace {

using kxGeom::CompactMesh;
using kxGeom::MeshMassProperties;
using kxGeom::MeshVertexCurvature;
using kxLinear::Point;
using kxLinear::Vector;

const double kPi = 3.14159265358979323846;

// The box [lo, hi], eight shared corners, twelve outward triangles.
CompactMesh makeBox(const Point& lo, const Point& hi) {
  std::vector<kxGeom::MeshVertex> v;
  for (int i = 0; i < 8; ++i) {
    v.push_back(
        {float(i & 1 ? hi.x : lo.x), float(i & 2 ? hi.y : lo.y), float(i & 4 ? hi.z : lo.z)});
  }
  return kxtest::meshFrom(v, {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                              2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5});
}

// The integral of x_i x_j over the solid about the origin, recovered from
// the inertia about the centroid: tr(J)/2 - J, plus V c c^T.
double secondMoment(const MeshMassProperties& r, int i, int j) {
  const double trace = r.inertia[0][0] + r.inertia[1][1] + r.inertia[2][2];
  return (i == j ? trace / 2 : 0) - r.inertia[i][j] + r.volume * r.centroid[i] * r.centroid[j];
}

TEST(MeshMass, BoxMatchesClosedFormMovedOrReversed) {
  const Point lo(-1, 0.5, 2), hi(2, 1.5, 2.5);
  const double a = 3, b = 1, c = 0.5, volume = a * b * c;
  const double moments[3] = {volume * (b * b + c * c) / 12, volume * (a * a + c * c) / 12,
                             volume * (a * a + b * b) / 12};
  // Moved by a shift: same volume and inertia; reversed: negative volume,
  // the same solid.
  const Vector shift(100.25, -40.5, 7.75);
  for (int variant = 0; variant < 3; ++variant) {
    CompactMesh box = variant == 1 ? makeBox(lo + shift, hi + shift) : makeBox(lo, hi);
    for (int t = 0; t < 12 && variant == 2; ++t)
      std::swap(box.getTriangles()[t][1], box.getTriangles()[t][2]);
    const double tolerance = variant == 1 ? 1e-9 : 1e-12;
    MeshMassProperties r;
    ASSERT_TRUE(kxGeom::meshMassProperties(box, r));
    EXPECT_TRUE(r.closed);
    EXPECT_NEAR(r.volume, variant == 2 ? -volume : volume, tolerance);
    EXPECT_EQ(kxGeom::meshVolume(box), r.volume);
    EXPECT_NEAR(r.area, 2 * (a * b + b * c + c * a), 1e-9);
    EXPECT_EQ(kxGeom::meshArea(box), r.area);
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(r.centroid[i], 0.5 * (lo[i] + hi[i]) + (variant == 1 ? shift[i] : 0), tolerance);
      for (int j = 0; j < 3; ++j) EXPECT_NEAR(r.inertia[i][j], i == j ? moments[i] : 0, tolerance);
    }
  }
}

TEST(MeshMass, OpenMisorientedAndEmptyMeshesAreFlagged) {
  CompactMesh sphere = kxtest::makeOctaSphere(2);
  MeshMassProperties r;
  // One triangle turned over: its three edges and its neighbours' three;
  // then one triangle removed: a hole of three edges more.
  std::swap(sphere.getTriangles()[5][1], sphere.getTriangles()[5][2]);
  EXPECT_TRUE(kxGeom::meshMassProperties(sphere, r));
  EXPECT_EQ(r.unmatchedEdges, 6);
  sphere.resizeTriangleArray(sphere.getNumTriangles() - 1);
  kxGeom::meshMassProperties(sphere, r);
  EXPECT_FALSE(r.closed);
  EXPECT_EQ(r.unmatchedEdges, 6 + 3);
  // A flat sheet bounds nothing; no triangles neither.
  EXPECT_FALSE(kxGeom::meshMassProperties(kxtest::makeGrid(3, 2), r));
  EXPECT_FALSE(r.closed);
  EXPECT_NEAR(r.area, 6, 1e-12);
  EXPECT_EQ(r.inertia[0][0], 0);
  EXPECT_FALSE(kxGeom::meshMassProperties(CompactMesh(), r));
  EXPECT_EQ(r.volume, 0);
}

TEST(MeshMass, RoughClosedMeshAgreesWithMonteCarlo) {
  // A star-shaped sphere with radii jittered by 25 %, moved off the origin:
  // a sample lies inside when it lies in a cone from the star centre over a
  // triangle.
  CompactMesh rough = kxtest::makeOctaSphere(2);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> jitter(0.75, 1.25), unit(-1.3, 1.3);
  const Vector centre(0.5, -0.25, 0.125);
  for (int v = 0; v < rough.getNumVertices(); ++v) {
    const Point p = rough.getVertices()[v].asPoint() * jitter(rng) + centre;
    rough.getVertices()[v].set(float(p.x), float(p.y), float(p.z));
  }
  MeshMassProperties r;
  ASSERT_TRUE(kxGeom::meshMassProperties(rough, r));
  ASSERT_TRUE(r.closed);
  const int samples = 400000;
  double sum[10] = {}, sum2[10] = {};
  for (int s = 0; s < samples; ++s) {
    const Vector q(unit(rng), unit(rng), unit(rng));
    bool inside = false;
    for (int t = 0; t < rough.getNumTriangles() && !inside; ++t) {
      Vector c[3];
      for (int k = 0; k < 3; ++k)
        c[k] = rough.getVertices()[rough.getTriangles()[t][k]].asPoint() - centre;
      const double d = kxLinear::dot(c[0], kxLinear::cross(c[1], c[2]));
      const double w0 = kxLinear::dot(q, kxLinear::cross(c[1], c[2])) / d;
      const double w1 = kxLinear::dot(c[0], kxLinear::cross(q, c[2])) / d;
      const double w2 = kxLinear::dot(c[0], kxLinear::cross(c[1], q)) / d;
      inside = w0 >= 0 && w1 >= 0 && w2 >= 0 && w0 + w1 + w2 <= 1;
    }
    const Point p = q + centre;
    const double f[10] = {1,         p.x,       p.y,       p.z,       p.x * p.x,
                          p.y * p.y, p.z * p.z, p.x * p.y, p.y * p.z, p.z * p.x};
    for (int k = 0; k < 10 && inside; ++k) sum[k] += f[k], sum2[k] += f[k] * f[k];
  }
  // Each integral within five standard errors of its estimate.
  const double box = std::pow(2.6, 3);
  const double exact[10] = {r.volume,
                            r.volume * r.centroid.x,
                            r.volume * r.centroid.y,
                            r.volume * r.centroid.z,
                            secondMoment(r, 0, 0),
                            secondMoment(r, 1, 1),
                            secondMoment(r, 2, 2),
                            secondMoment(r, 0, 1),
                            secondMoment(r, 1, 2),
                            secondMoment(r, 2, 0)};
  for (int k = 0; k < 10; ++k) {
    const double mean = sum[k] / samples, spread = std::sqrt(sum2[k] / samples - mean * mean);
    EXPECT_NEAR(exact[k], box * mean, 5 * box * spread / std::sqrt(samples)) << k;
  }
}

kx::vector<MeshVertexCurvature> curvature(const CompactMesh& mesh) {
  kx::vector<MeshVertexCurvature> c;
  EXPECT_TRUE(kxGeom::meshCurvature(mesh, c));
  return c;
}

TEST(MeshCurvature, SpheresConvergeToOneOverRadius) {
  const double r = 2;
  double lastH = 1e9, lastK = 1e9;
  for (int levels = 2; levels <= 5; ++levels) {
    const CompactMesh sphere = kxtest::makeOctaSphere(levels, r);
    double errorH = 0, errorK = 0, area = 0;
    for (const MeshVertexCurvature& c : curvature(sphere)) {
      ASSERT_FALSE(c.boundary);
      errorH = std::max(errorH, std::fabs(c.mean * r - 1));
      errorK = std::max(errorK, std::fabs(c.gaussian * r * r - 1));
      EXPECT_NEAR(c.k1, c.k2, 1e-12);
      EXPECT_NEAR(kxLinear::dot(c.direction1, c.normal), 0, 1e-12);
      area += c.area;
    }
    EXPECT_NEAR(area, kxGeom::meshArea(sphere), 1e-9 * area);  // the mixed areas tile it
    EXPECT_LT(errorH, 0.5 * lastH);
    EXPECT_LT(errorK, 0.5 * lastK);
    lastH = errorH, lastK = errorK;
  }
  EXPECT_LT(lastH, 1e-4);
  EXPECT_LT(lastK, 2e-3);
}

TEST(MeshCurvature, CylinderBendsAroundItsAxisOnly) {
  // Radius 1.5 around the z axis, 32 segments, 16 rows, open, wound outward.
  const double r = 1.5;
  std::vector<kxGeom::MeshVertex> v;
  std::vector<int> t;
  for (int j = 0; j <= 16; ++j) {
    for (int i = 0; i < 32; ++i) {
      v.push_back({float(r * std::cos(kPi * i / 16)), float(r * std::sin(kPi * i / 16)), j / 8.0f});
      const int a = j * 32 + i, b = j * 32 + (i + 1) % 32;
      if (j < 16) t.insert(t.end(), {a, b, b + 32, a, b + 32, a + 32});
    }
  }
  int rim = 0;
  for (const MeshVertexCurvature& c : curvature(kxtest::meshFrom(v, t))) {
    rim += c.boundary;
    // The rim's one-sided estimate is exact here too.
    EXPECT_NEAR(c.k1, 1 / r, 1e-5);
    EXPECT_NEAR(c.k2, 0, 1e-5);
    EXPECT_NEAR(c.direction1.z, 0, 1e-6);
    EXPECT_NEAR(std::fabs(c.direction2.z), 1, 1e-6);
    EXPECT_NEAR(c.mean, 0.5 / r, 1e-5);
    EXPECT_NEAR(c.gaussian, 0, 1e-5);
  }
  EXPECT_EQ(rim, 2 * 32);
}

TEST(MeshCurvature, SaddleAtTheOriginConverges) {
  // z = x^2 - y^2 wound to face +z: at the origin H = 0, K = -4, and the
  // surface bends toward its normal along x (-2) and away along y (+2).
  double lastK = 1e9;
  for (int n : {4, 8, 16, 32}) {
    CompactMesh saddle = kxtest::makeGrid(2 * n, 2 * n);
    for (int v = 0; v < saddle.getNumVertices(); ++v) {
      kxGeom::MeshVertex& p = saddle.getVertices()[v];
      const double x = (p.x - n) * 0.4 / n, y = (p.y - n) * 0.4 / n;
      p.set(float(x), float(y), float(x * x - y * y));
    }
    const kx::vector<MeshVertexCurvature> all = curvature(saddle);
    const MeshVertexCurvature& c = all[n * (2 * n + 1) + n];
    EXPECT_TRUE(all[0].boundary && !c.boundary);
    EXPECT_NEAR(c.mean, 0, 1e-6);
    EXPECT_LT(std::fabs(c.gaussian + 4), 0.3 * lastK);
    lastK = std::fabs(c.gaussian + 4);
    EXPECT_NEAR(c.k1, 2, 2 * lastK);
    EXPECT_NEAR(std::fabs(c.direction1.y), 1, 1e-9);
    EXPECT_NEAR(std::fabs(c.direction2.x), 1, 1e-9);
  }
  EXPECT_LT(lastK, 0.01);
}

TEST(MeshMeasures, SelectionsListsAndThreadCountsAgree) {
  CompactMesh sphere = kxtest::makeOctaSphere(6);
  for (int v = 0; v < sphere.getNumVertices(); v += 7) sphere.getVertices()[v].x *= 1.02f;
  std::vector<int> listed;
  double expected = 0;
  sphere.getSelectedTriangles().resize(sphere.getNumTriangles());
  for (int t = 0; t < sphere.getNumTriangles(); t += 3) {
    const auto p = [&](int k) {
      return sphere.getVertices()[sphere.getTriangles()[t][k]].asPoint();
    };
    expected += 0.5 * kxLinear::cross(p(1) - p(0), p(2) - p(0)).length();
    sphere.getSelectedTriangles().setBit(t);
    listed.push_back(t);
  }
  EXPECT_NEAR(kxGeom::meshArea(sphere, sphere.getSelectedTriangles()), expected, 1e-10);
  EXPECT_NEAR(kxGeom::meshArea(sphere, listed.data(), int(listed.size())), expected, 1e-10);
  EXPECT_EQ(kxGeom::meshArea(sphere, listed.data(), 0), 0);
  kx::vector<MeshVertexCurvature> none(3);
  EXPECT_FALSE(kxGeom::meshCurvature(CompactMesh(), none));
  EXPECT_TRUE(none.empty());
  MeshMassProperties first;
  kx::vector<MeshVertexCurvature> firstCurvature;
  kxtest::forEachThreadCount([&](int threads) {
    MeshMassProperties r;
    kxGeom::meshMassProperties(sphere, r);
    const kx::vector<MeshVertexCurvature> c = curvature(sphere);
    if (threads == 1) first = r, firstCurvature = c;
    EXPECT_EQ(r.volume, first.volume);
    EXPECT_EQ(r.centroid, first.centroid);
    EXPECT_EQ(r.inertia[0][1], first.inertia[0][1]);
    for (std::size_t v = 0; v < c.size(); ++v) {
      ASSERT_EQ(c[v].mean, firstCurvature[v].mean);
      ASSERT_EQ(c[v].direction1, firstCurvature[v].direction1);
    }
  });
}

}  // namespace
