// Inputs shared by the benchmarks.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>

#include <kxgeom/kxgeom.h>

#include "support/test_meshes.h"

namespace kxbench {

/// A closed latitude-longitude sphere of radius 1 with about `targetTriangles`
/// triangles, each vertex's radius perturbed by up to `noise` so the surface
/// is not perfectly regular. Vertex and triangle order follow the rings, as
/// in a scanned model: spatially coherent. 830k triangles: 456 rings.
inline kxGeom::CompactMesh makeDenseSphere(int targetTriangles, float noise = 0.01f,
                                           unsigned seed = 1) {
  const int rings = std::max(3, int(std::sqrt(targetTriangles / 4.0)));
  kxGeom::CompactMesh mesh = kxtest::makeLatLongSphere(rings, 2 * rings);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> jitter(-noise, noise);
  kxGeom::MeshVertex* v = mesh.getVertices();
  // The poles stay put, as they did when the sphere was generated directly.
  for (int i = 1; i + 1 < mesh.getNumVertices(); ++i) {
    const float scale = 1.0f + jitter(rng);
    v[i].set(v[i].x * scale, v[i].y * scale, v[i].z * scale);
  }
  return mesh;
}

}  // namespace kxbench
