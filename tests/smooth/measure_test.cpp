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
  const int t[] = {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                   2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5};
  CompactMesh m(8, v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(12, t);
  return m;
}

// The integrals of x_i x_j over the solid about the origin, recovered from
// the inertia about the centroid: S = tr(J)/2 - J, plus V c c^T.
double secondMoment(const MeshMassProperties& r, int i, int j) {
  const double trace = r.inertia[0][0] + r.inertia[1][1] + r.inertia[2][2];
  return (i == j ? trace / 2 : 0) - r.inertia[i][j] + r.volume * r.centroid[i] * r.centroid[j];
}

TEST(MeshMass, BoxMatchesClosedFormAndMovesWithTranslation) {
  const Point lo(-1, 0.5, 2), hi(2, 1.5, 2.5);
  const double a = 3, b = 1, c = 0.5, volume = a * b * c;
  CompactMesh box = makeBox(lo, hi);
  MeshMassProperties r;
  ASSERT_TRUE(kxGeom::meshMassProperties(box, r));
  EXPECT_TRUE(r.closed);
  EXPECT_EQ(r.unmatchedEdges, 0);
  EXPECT_NEAR(r.volume, volume, 1e-12);
  EXPECT_NEAR(kxGeom::meshVolume(box), volume, 1e-12);
  EXPECT_NEAR(r.area, 2 * (a * b + b * c + c * a), 1e-12);
  EXPECT_NEAR(kxGeom::meshArea(box), r.area, 1e-12);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(r.centroid[k], 0.5 * (lo[k] + hi[k]), 1e-12);
  const double moments[3] = {volume * (b * b + c * c) / 12, volume * (a * a + c * c) / 12,
                             volume * (a * a + b * b) / 12};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(r.inertia[i][j], i == j ? moments[i] : 0, 1e-12);
  }
  // Translated: same volume and inertia, centroid moved; reversed: negative
  // volume, same solid.
  const Vector shift(100.25, -40.5, 7.75);
  MeshMassProperties moved;
  ASSERT_TRUE(kxGeom::meshMassProperties(makeBox(lo + shift, hi + shift), moved));
  EXPECT_NEAR(moved.volume, volume, 1e-9);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(moved.centroid[k], r.centroid[k] + shift[k], 1e-9);
  for (int k = 0; k < 12; ++k) std::swap(box.getTriangles()[k][1], box.getTriangles()[k][2]);
  MeshMassProperties reversed;
  ASSERT_TRUE(kxGeom::meshMassProperties(box, reversed));
  EXPECT_TRUE(reversed.closed);
  EXPECT_NEAR(reversed.volume, -volume, 1e-12);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(reversed.inertia[k][k], moments[k], 1e-12);
}

TEST(MeshMass, OpenMisorientedAndEmptyMeshesAreFlagged) {
  CompactMesh sphere = kxtest::makeOctaSphere(2);
  MeshMassProperties r;
  // One triangle turned over: its three edges and its neighbours' three.
  std::swap(sphere.getTriangles()[5][1], sphere.getTriangles()[5][2]);
  EXPECT_TRUE(kxGeom::meshMassProperties(sphere, r));
  EXPECT_FALSE(r.closed);
  EXPECT_EQ(r.unmatchedEdges, 6);
  // One triangle removed: a hole of three edges.
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

TEST(MeshMass, RefinedSpheresConvergeToTheBall) {
  const double radius = 2, volume = 4 * kPi * radius * radius * radius / 3;
  const double moment = 0.4 * volume * radius * radius;
  double lastVolumeError = 1e9, lastMomentError = 1e9;
  for (int levels = 2; levels <= 6; ++levels) {
    MeshMassProperties r;
    ASSERT_TRUE(kxGeom::meshMassProperties(kxtest::makeOctaSphere(levels, radius), r));
    const double volumeError = std::fabs(r.volume - volume) / volume;
    double momentError = 0;
    for (int k = 0; k < 3; ++k) {
      momentError = std::max(momentError, std::fabs(r.inertia[k][k] - moment) / moment);
      EXPECT_NEAR(r.centroid[k], 0, 1e-6);
    }
    EXPECT_LT(volumeError, 0.3 * lastVolumeError) << levels;
    EXPECT_LT(momentError, 0.3 * lastMomentError) << levels;
    lastVolumeError = volumeError;
    lastMomentError = momentError;
  }
  EXPECT_LT(lastVolumeError, 1e-3);
  EXPECT_LT(lastMomentError, 1e-3);
}

TEST(MeshMass, RoughClosedMeshAgreesWithMonteCarlo) {
  // A star-shaped sphere with radii jittered by 25 %, moved off the origin:
  // a sample lies inside when it lies in one of the cones from the star
  // centre over the triangles.
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
    if (!inside) continue;
    const Point p = q + centre;
    const double f[10] = {1,         p.x,       p.y,       p.z,       p.x * p.x,
                          p.y * p.y, p.z * p.z, p.x * p.y, p.y * p.z, p.z * p.x};
    for (int k = 0; k < 10; ++k) sum[k] += f[k], sum2[k] += f[k] * f[k];
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

TEST(MeshArea, SelectionsListsAndThreadCountsAgree) {
  CompactMesh sphere = kxtest::makeOctaSphere(6);
  const int m = sphere.getNumTriangles();
  std::vector<int> listed;
  double expected = 0;
  sphere.getSelectedTriangles().resize(m);
  for (int t = 0; t < m; t += 3) {
    const Point a = sphere.getVertices()[sphere.getTriangles()[t][0]].asPoint();
    const Point b = sphere.getVertices()[sphere.getTriangles()[t][1]].asPoint();
    const Point c = sphere.getVertices()[sphere.getTriangles()[t][2]].asPoint();
    expected += 0.5 * kxLinear::cross(b - a, c - a).length();
    sphere.getSelectedTriangles().setBit(t);
    listed.push_back(t);
  }
  EXPECT_NEAR(kxGeom::meshArea(sphere, sphere.getSelectedTriangles()), expected, 1e-10);
  EXPECT_NEAR(kxGeom::meshArea(sphere, listed.data(), int(listed.size())), expected, 1e-10);
  EXPECT_EQ(kxGeom::meshArea(sphere, listed.data(), 0), 0);
  MeshMassProperties first;
  kxtest::forEachThreadCount([&](int threads) {
    MeshMassProperties r;
    kxGeom::meshMassProperties(sphere, r);
    if (threads == 1) first = r;
    EXPECT_EQ(r.volume, first.volume);
    EXPECT_EQ(r.area, first.area);
    EXPECT_EQ(r.centroid, first.centroid);
    EXPECT_EQ(r.inertia[0][1], first.inertia[0][1]);
  });
}

using kxGeom::MeshVertexCurvature;

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
      EXPECT_NEAR(std::fabs(kxLinear::dot(c.direction1, c.normal)), 0, 1e-12);
      area += c.area;
    }
    // The mixed areas tile the surface.
    EXPECT_NEAR(area, kxGeom::meshArea(sphere), 1e-9 * area);
    EXPECT_LT(errorH, 0.5 * lastH);
    EXPECT_LT(errorK, 0.5 * lastK);
    lastH = errorH, lastK = errorK;
  }
  EXPECT_LT(lastH, 1e-4);
  EXPECT_LT(lastK, 2e-3);
}

// An open cylinder of radius r around the z axis, wound outward.
CompactMesh makeCylinder(int segments, int rows, double r) {
  std::vector<kxGeom::MeshVertex> v;
  std::vector<int> t;
  for (int j = 0; j <= rows; ++j) {
    for (int i = 0; i < segments; ++i) {
      const double a = 2 * kPi * i / segments;
      v.push_back({float(r * std::cos(a)), float(r * std::sin(a)), float(2.0 * j / rows)});
    }
  }
  for (int j = 0; j < rows; ++j) {
    for (int i = 0; i < segments; ++i) {
      const int a = j * segments + i, b = j * segments + (i + 1) % segments;
      t.insert(t.end(), {a, b, b + segments, a, b + segments, a + segments});
    }
  }
  CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

TEST(MeshCurvature, CylinderBendsAroundItsAxisOnly) {
  const double r = 1.5;
  int rim = 0;
  for (const MeshVertexCurvature& c : curvature(makeCylinder(32, 16, r))) {
    rim += c.boundary;
    // The rim's one-sided estimate is exact here too.
    EXPECT_NEAR(c.k1, 1 / r, 1e-5);
    EXPECT_NEAR(c.k2, 0, 1e-5);
    EXPECT_NEAR(std::fabs(c.direction1.z), 0, 1e-6);
    EXPECT_NEAR(std::fabs(c.direction2.z), 1, 1e-6);
    if (c.boundary) continue;
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
    const double h = 0.4 / n;
    for (int v = 0; v < saddle.getNumVertices(); ++v) {
      kxGeom::MeshVertex& p = saddle.getVertices()[v];
      const double x = (p.x - n) * h, y = (p.y - n) * h;
      p.set(float(x), float(y), float(x * x - y * y));
    }
    const kx::vector<MeshVertexCurvature> all = curvature(saddle);
    const MeshVertexCurvature& c = all[n * (2 * n + 1) + n];
    EXPECT_TRUE(all[0].boundary);
    EXPECT_FALSE(c.boundary);
    EXPECT_NEAR(c.mean, 0, 1e-6);
    EXPECT_LT(std::fabs(c.gaussian + 4), 0.3 * lastK);
    lastK = std::fabs(c.gaussian + 4);
    EXPECT_NEAR(c.k1, 2, 2 * lastK);
    EXPECT_NEAR(std::fabs(c.direction1.y), 1, 1e-9);
    EXPECT_NEAR(std::fabs(c.direction2.x), 1, 1e-9);
  }
  EXPECT_LT(lastK, 0.01);
}

TEST(MeshCurvature, SameForEveryThreadCountAndEmptyFails) {
  CompactMesh rough = kxtest::makeOctaSphere(4);
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> jitter(0.97f, 1.03f);
  for (int v = 0; v < rough.getNumVertices(); ++v) {
    kxGeom::MeshVertex& p = rough.getVertices()[v];
    const float s = jitter(rng);
    p.set(p.x * s, p.y * s, p.z * s);
  }
  kx::vector<MeshVertexCurvature> first;
  kxtest::forEachThreadCount([&](int threads) {
    const kx::vector<MeshVertexCurvature> c = curvature(rough);
    if (threads == 1) first = c;
    for (std::size_t v = 0; v < c.size(); ++v) {
      ASSERT_EQ(c[v].mean, first[v].mean);
      ASSERT_EQ(c[v].k2, first[v].k2);
      ASSERT_EQ(c[v].direction1, first[v].direction1);
    }
  });
  kx::vector<MeshVertexCurvature> none(3);
  EXPECT_FALSE(kxGeom::meshCurvature(CompactMesh(), none));
  EXPECT_TRUE(none.empty());
}

}  // namespace
