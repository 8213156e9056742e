// Query shapes: rays against boxes behind and around their origin, refused
// pick frustums, and frustums built from a projection against clip-space
// coordinates.
#include <kxgeom/predicates.h>
#include <kxgeom/query_shapes.h>

#include <gtest/gtest.h>

#include "spatial/slab_oracle.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using kxGeom::BoundingBox;
using kxGeom::Frustum;
using kxGeom::Ray;
using kxLinear::Point;
using kxLinear::PointFlt;
using kxLinear::Vector;

TEST(RayShape, BoxBehindOrAroundTheOrigin) {
  const BoundingBox box(0.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f);
  const float far = 3.4028235e38f;
  EXPECT_TRUE(Ray(PointFlt(0.5f, 0.5f, 0.5f), Vector(1, 2, 3)).intersects(box, 0, far));
  EXPECT_FALSE(Ray(PointFlt(2, 2, 2), Vector(1, 1, 1)).intersects(box, 0, far));
  EXPECT_TRUE(Ray(PointFlt(2, 2, 2), Vector(-1, -1, -1)).intersects(box, 0, far));
  EXPECT_FALSE(Ray(PointFlt(2, 2, 2), Vector(-1, -1, -1)).intersects(box, 0, 0.5f));
  EXPECT_TRUE(Ray(PointFlt(-1, 0.5f, 0.5f), Vector(1, 0, 0)).intersects(box, 0, far));
  EXPECT_FALSE(Ray(PointFlt(-1, 1.5f, 0.5f), Vector(1, 0, 0)).intersects(box, 0, far));
}

// --- Frustums -------------------------------------------------------------

void expectPlanesConsistent(const Frustum& f) {
  Point centroid;
  for (int i = 0; i < 8; ++i) centroid += f.corner(i);
  centroid = centroid * 0.125;
  EXPECT_TRUE(kxGeom::contains(f, centroid));
  const int faces[6][4] = {{0, 2, 4, 6}, {1, 3, 5, 7}, {0, 1, 4, 5},
                           {2, 3, 6, 7}, {0, 1, 2, 3}, {4, 5, 6, 7}};
  for (int p = 0; p < 6; ++p) {
    const kxGeom::FrustumPlane& plane = f.plane(p);
    EXPECT_NEAR(1.0, plane.normal.length(), 1e-12);
    EXPECT_NEAR(kxLinear::dot(plane.normal, plane.point), plane.constant, 1e-9);
    for (int corner : faces[p]) {
      EXPECT_NEAR(0.0, kxLinear::dot(f.corner(corner) - plane.point, plane.normal), 1e-6)
          << "plane " << p << " corner " << corner;
    }
  }
}

TEST(FrustumShape, PickFrustumRejectsBadArguments) {
  Frustum f;
  const Frustum before = f;
  const kxLinear::Line ray(Point(0, 0, 0), Vector(0, 0, 1));
  EXPECT_FALSE(kxGeom::makePickFrustum(kxLinear::Line(Point(), Vector(0, 0, 0)), 1, 0, 1, f));
  EXPECT_FALSE(kxGeom::makePickFrustum(ray, 0, 0, 1, f));
  EXPECT_FALSE(kxGeom::makePickFrustum(ray, -1, 0.1, 1, f));
  EXPECT_FALSE(kxGeom::makePickFrustum(ray, 1, 1.6, 1, f));
  EXPECT_FALSE(kxGeom::makePickFrustum(ray, 1, 0.1, 0, f));
  EXPECT_FALSE(kxGeom::makePickFrustum(ray, std::nan(""), 0.1, 1, f));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(before.corner(i), f.corner(i));
}

// A perspective view-projection in the row-vector convention: the camera at
// `eye` looking along -z of its frame, then an OpenGL-style projection.
kxLinear::ProjMatrixFlt perspective(double fovy, double aspect, double n, double fa) {
  const double f = 1.0 / std::tan(fovy / 2);
  kxLinear::ProjMatrixFlt p;
  for (auto& row : p.m) std::fill(row, row + 4, 0.0f);
  p.m[0][0] = float(f / aspect);
  p.m[1][1] = float(f);
  p.m[2][2] = float((fa + n) / (n - fa));
  p.m[2][3] = -1.0f;
  p.m[3][2] = float(2 * fa * n / (n - fa));
  return p;
}

kxLinear::ProjMatrixFlt view(double angle, const Point& eye) {
  // Rotation about y by `angle`, then translation of -eye, as row vectors.
  const float c = float(std::cos(angle)), s = float(std::sin(angle));
  kxLinear::ProjMatrixFlt rot, move;
  rot.m[0][0] = c;
  rot.m[0][2] = -s;
  rot.m[2][0] = s;
  rot.m[2][2] = c;
  move.m[3][0] = float(-eye.x);
  move.m[3][1] = float(-eye.y);
  move.m[3][2] = float(-eye.z);
  return move * rot;
}

TEST(FrustumShape, ScreenFrustumAgreesWithClipCoordinates) {
  const kxLinear::ProjMatrixFlt m = view(0.4, Point(1, 2, 3)) * perspective(0.9, 1.5, 0.5, 20);
  const double x0 = -0.3, y0 = 0.1, x1 = 0.4, y1 = 0.6;
  Frustum f;
  ASSERT_TRUE(kxGeom::makeScreenFrustum(m, x0, y0, x1, y1, f));
  expectPlanesConsistent(f);
  std::mt19937 rng(47);
  std::uniform_real_distribution<double> coord(-12.0, 12.0);
  int inside = 0;
  for (int iter = 0; iter < 40000; ++iter) {
    const Point p(coord(rng), coord(rng), coord(rng));
    const float pf[3] = {float(p.x), float(p.y), float(p.z)};
    float h[4];
    m.transform(pf, h);
    if (h[3] <= 1e-3f) continue;
    const double x = h[0] / h[3], y = h[1] / h[3], z = h[2] / h[3];
    const double margin = std::max({x0 - x, x - x1, y0 - y, y - y1, -1 - z, z - 1});
    if (std::fabs(margin) < 1e-3) continue;
    ASSERT_EQ(margin < 0, kxGeom::contains(f, p)) << iter;
    inside += margin < 0;
  }
  EXPECT_GT(inside, 100);
  // The ray runs from the eye side to the far side through the rectangle's centre.
  const kxLinear::Line& axis = f.getRay();
  const Point mid = axis.eval(1.0);
  const float mf[3] = {float(mid.x), float(mid.y), float(mid.z)};
  float h[4];
  m.transform(mf, h);
  EXPECT_NEAR(0.05, h[0] / h[3], 1e-4);
  EXPECT_NEAR(0.35, h[1] / h[3], 1e-4);
  EXPECT_NEAR(1.0, f.getVector().length(), 1e-12);
}

TEST(FrustumShape, ScreenFrustumRejectsSingularInput) {
  Frustum f;
  const Frustum before = f;
  kxLinear::ProjMatrixFlt singular;
  singular.m[2][2] = 0.0f;
  EXPECT_FALSE(kxGeom::makeScreenFrustum(singular, -1, -1, 1, 1, f));
  EXPECT_FALSE(kxGeom::makeScreenFrustum(kxLinear::ProjMatrixFlt(), 0.5, -1, 0.5, 1, f));
  EXPECT_FALSE(kxGeom::makeScreenFrustum(kxLinear::ProjMatrixFlt(), -1, -1, 1, std::nan(""), f));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(before.corner(i), f.corner(i));
  // The identity projection over the full screen is the clip cube, which is
  // also the default frustum, seen along +z.
  ASSERT_TRUE(kxGeom::makeScreenFrustum(kxLinear::ProjMatrixFlt(), -1, -1, 1, 1, f));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(before.corner(i), f.corner(i));
  expectPlanesConsistent(f);
  EXPECT_EQ(Vector(0, 0, 1), f.getVector());
  EXPECT_FALSE(kxGeom::contains(f, Point(0, 0, 1.0001)));
}

}  // namespace
