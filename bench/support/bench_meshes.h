// Inputs shared by the benchmarks.
#pragma once

#include <cmath>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace kxbench {

/// A closed latitude-longitude sphere of radius 1 with about `targetTriangles`
/// triangles, its radius perturbed by up to `noise` so it is not perfectly
/// regular. Vertex and triangle order follow rings, as a real scan would be
/// spatially coherent. 830k triangles: rings = 456, segments = 912.
inline kxGeom::CompactMesh makeDenseSphere(int targetTriangles, float noise = 0.01f,
                                           unsigned seed = 1) {
  const int rings = std::max(3, int(std::sqrt(targetTriangles / 4.0)));
  const int segments = 2 * rings;
  const double pi = 3.14159265358979323846;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> jitter(-noise, noise);
  std::vector<kxGeom::MeshVertex> v;
  v.push_back({0, 0, 1});
  for (int r = 1; r < rings; ++r) {
    const double theta = pi * r / rings;
    for (int s = 0; s < segments; ++s) {
      const double phi = 2 * pi * s / segments;
      const double rad = 1.0 + jitter(rng);
      v.push_back({float(rad * std::sin(theta) * std::cos(phi)),
                   float(rad * std::sin(theta) * std::sin(phi)), float(rad * std::cos(theta))});
    }
  }
  v.push_back({0, 0, -1});
  const int south = int(v.size()) - 1;
  auto at = [&](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
  std::vector<int> t;
  t.reserve(std::size_t(rings) * segments * 6);
  for (int s = 0; s < segments; ++s) t.insert(t.end(), {0, at(1, s), at(1, s + 1)});
  for (int r = 1; r + 1 < rings; ++r) {
    for (int s = 0; s < segments; ++s) {
      t.insert(t.end(), {at(r, s), at(r + 1, s), at(r + 1, s + 1)});
      t.insert(t.end(), {at(r, s), at(r + 1, s + 1), at(r, s + 1)});
    }
  }
  for (int s = 0; s < segments; ++s) t.insert(t.end(), {south, at(rings - 1, s + 1), at(rings - 1, s)});
  kxGeom::CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

}  // namespace kxbench
