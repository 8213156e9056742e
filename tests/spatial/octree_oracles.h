// Independent oracles and fixtures for the octree, closest-point and ray
// tests: brute-force leaf lists, a vertex-to-triangle table built from pairs,
// and the closest point of a triangle by Voronoi regions.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/test_meshes.h"

namespace kxtest {

/// Every leaf of `octree`, by a plain recursion over `descend`, indexed by voxel.
inline void collectLeaves(kxGeom::OctreeIterator cell, std::vector<kxGeom::OctreeIterator>& out) {
  if (cell.isLeaf()) {
    if (cell.getVoxel() >= int(out.size())) out.resize(cell.getVoxel() + 1);
    out[cell.getVoxel()] = cell;
    return;
  }
  for (int k = 0; k < 8; ++k) {
    kxGeom::OctreeIterator child = cell;
    if (child.descend(k)) collectLeaves(child, out);
  }
}

inline std::vector<kxGeom::OctreeIterator> allLeaves(const kxGeom::Octree& octree) {
  std::vector<kxGeom::OctreeIterator> leaves;
  if (octree.getRoot().getNode()) collectLeaves(octree.getRoot(), leaves);
  return leaves;
}

/// An octree over the mesh's vertices, as the library builds it.
inline kxGeom::Octree vertexOctree(const kxGeom::CompactMesh& mesh) {
  kxGeom::BoundingBox box;
  for (int v = 0; v < mesh.getNumVertices(); ++v) {
    const kxGeom::MeshVertex& p = mesh.getVertices()[v];
    if (std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z)) box.extend(p.asPointFlt());
  }
  return kxGeom::Octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16);
}

/// The vertex-to-triangle table from (vertex, triangle) pairs.
inline kxGeom::MeshAdjTris adjacentTriangles(const kxGeom::CompactMesh& mesh) {
  std::vector<int> pairs;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) pairs.insert(pairs.end(), {mesh.getTriangles()[t][k], t});
  }
  kxGeom::ArrayOfSets sets;
  sets.assignFromPairs(mesh.getNumVertices(), int(pairs.size() / 2), pairs.data());
  return kxGeom::MeshAdjTris(sets);
}

inline kxLinear::Point closestOnSegment(const kxLinear::Point& p, const kxLinear::Point& a,
                                        const kxLinear::Point& b) {
  const kxLinear::Vector ab = b - a;
  const double len2 = ab.length2();
  const double t = len2 > 0 ? std::clamp(kxLinear::dot(p - a, ab) / len2, 0.0, 1.0) : 0.0;
  return a + ab * t;
}

/// Closest point of a non-degenerate triangle by its Voronoi regions
/// (vertex, edge and face regions tested in turn).
inline kxLinear::Point closestOnTriangle(const kxLinear::Point& p, const kxLinear::Point& a,
                                         const kxLinear::Point& b, const kxLinear::Point& c) {
  using kxLinear::dot;
  const kxLinear::Vector ab = b - a, ac = c - a, ap = p - a;
  const double d1 = dot(ab, ap), d2 = dot(ac, ap);
  if (d1 <= 0 && d2 <= 0) return a;
  const kxLinear::Vector bp = p - b;
  const double d3 = dot(ab, bp), d4 = dot(ac, bp);
  if (d3 >= 0 && d4 <= d3) return b;
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0 && d1 >= 0 && d3 <= 0) return a + ab * (d1 / (d1 - d3));
  const kxLinear::Vector cp = p - c;
  const double d5 = dot(ab, cp), d6 = dot(ac, cp);
  if (d6 >= 0 && d5 <= d6) return c;
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0 && d2 >= 0 && d6 <= 0) return a + ac * (d2 / (d2 - d6));
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) {
    return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
  }
  const double denom = 1 / (va + vb + vc);
  return a + ab * (vb * denom) + ac * (vc * denom);
}

inline kxLinear::Point corner(const kxGeom::CompactMesh& mesh, int t, int k) {
  return mesh.getVertices()[mesh.getTriangles()[t][k]].asPoint();
}

/// Squared distance from p to the mesh over all triangles (largest double for
/// none): the face oracle for triangles with area, the edges otherwise.
inline double bruteClosest2(const kxGeom::CompactMesh& mesh, const kxLinear::Point& p) {
  double best = std::numeric_limits<double>::max();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxLinear::Point a = corner(mesh, t, 0), b = corner(mesh, t, 1), c = corner(mesh, t, 2);
    if (!std::isfinite((a - b).length2() + (b - c).length2())) continue;
    const double area2 = kxLinear::cross(b - a, c - a).length2();
    double d2 = std::numeric_limits<double>::max();
    if (area2 > 1e-20 * (b - a).length2() * (c - a).length2()) {
      d2 = (closestOnTriangle(p, a, b, c) - p).length2();
    } else {
      for (const auto& q :
           {closestOnSegment(p, a, b), closestOnSegment(p, b, c), closestOnSegment(p, c, a)}) {
        d2 = std::min(d2, (q - p).length2());
      }
    }
    best = std::min(best, d2);
  }
  return best;
}

/// n random points in the box `box` scaled by `scale` about its centre.
inline std::vector<kxLinear::Point> randomPoints(int n, const kxGeom::BoundingBox& box,
                                                 double scale, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-0.5, 0.5);
  std::vector<kxLinear::Point> pts(n);
  for (auto& p : pts) {
    for (int k = 0; k < 3; ++k) {
      const double mid = 0.5 * (box[k] + box[k + 3]), half = box[k + 3] - box[k];
      p[k] = mid + scale * half * u(rng);
    }
  }
  return pts;
}

/// n points within `offset` of random surface points of the mesh.
inline std::vector<kxLinear::Point> pointsNearSurface(const kxGeom::CompactMesh& mesh, int n,
                                                      double offset, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> tri(0, mesh.getNumTriangles() - 1);
  std::uniform_real_distribution<double> u(0, 1), o(-offset, offset);
  std::vector<kxLinear::Point> pts;
  while (int(pts.size()) < n) {
    const int t = tri(rng);
    double s = u(rng), r = u(rng);
    if (s + r > 1) s = 1 - s, r = 1 - r;
    const kxLinear::Point q = kxLinear::combine(corner(mesh, t, 0), 1 - s - r, corner(mesh, t, 1),
                                                s, corner(mesh, t, 2), r);
    pts.push_back(q + kxLinear::Vector(o(rng), o(rng), o(rng)));
  }
  return pts;
}

/// Brute-force containment: the side (`MeshPtInside::Result`) given by every
/// triangle's own closest point, the nearer side winning; -1 when the two
/// sides are too close to call.
inline int bruteForceSide(const kxGeom::CompactMesh& mesh, const kxLinear::Point& p,
                          double tolerance) {
  double nearest[2] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
  const kxGeom::MeshNormal* normals = mesh.getNormals();
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshCoord c =
        kxGeom::meshTriClosestPt(mesh.getVerticesRaw(), mesh.getTrianglesRaw(), t, p);
    if (!c.isValid()) continue;  // a non-finite corner
    const kxGeom::MeshTriangle& tri = mesh.getTriangles()[t];
    kxLinear::Vector n;
    for (int k = 0; k < 3; ++k) {
      n += normals ? normals[tri[k]].asVector() * c.w[k]
                   : kxGeom::meshTriNormal(mesh.getVerticesRaw(), tri.v).vector() * c.w[k];
    }
    const kxLinear::Vector toSurface = c.evaluate(mesh.getVertices(), mesh.getTriangles()) - p;
    const int side = kxLinear::dot(toSurface, n) >= 0 ? kxGeom::MeshPtInside::Inside
                                                      : kxGeom::MeshPtInside::Outside;
    nearest[side] = std::min(nearest[side], toSurface.length());
  }
  const double d = std::min(nearest[0], nearest[1]);
  if (d < tolerance) return kxGeom::MeshPtInside::OnSurface;
  if (std::fabs(nearest[0] - nearest[1]) < 1e-9 * (1 + d) || std::fabs(d - tolerance) < 1e-9) {
    return -1;
  }
  return nearest[0] < nearest[1] ? kxGeom::MeshPtInside::Inside : kxGeom::MeshPtInside::Outside;
}

}  // namespace kxtest
