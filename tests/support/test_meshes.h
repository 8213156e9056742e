// Meshes and helpers shared by the unit tests. Built independently of the
// library's own constructors so that tests of those have an oracle.
#pragma once

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace kxtest {

/// An nx by ny grid of unit squares in the z = 0 plane, two triangles per
/// square, wound counter-clockwise seen from +z. Vertex (i, j) is j*(nx+1)+i.
inline kxGeom::CompactMesh makeGrid(int nx, int ny) {
  std::vector<kxGeom::MeshVertex> v;
  for (int j = 0; j <= ny; ++j) {
    for (int i = 0; i <= nx; ++i) v.push_back({float(i), float(j), 0.0f});
  }
  std::vector<int> t;
  for (int j = 0; j < ny; ++j) {
    for (int i = 0; i < nx; ++i) {
      const int a = j * (nx + 1) + i, b = a + 1, c = a + nx + 1, d = c + 1;
      t.insert(t.end(), {a, b, d, a, d, c});
    }
  }
  kxGeom::CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

/// A closed latitude-longitude sphere (outward winding) with `rings` rings
/// between the poles and `segments` segments; vertex 0 is the north pole,
/// the last vertex the south pole.
inline kxGeom::CompactMesh makeLatLongSphere(int rings, int segments, double radius = 1.0,
                                             kxLinear::Point center = {}) {
  const double pi = 3.14159265358979323846;
  std::vector<kxGeom::MeshVertex> v;
  v.push_back({float(center.x), float(center.y), float(center.z + radius)});
  for (int r = 1; r < rings; ++r) {
    const double theta = pi * r / rings;
    for (int s = 0; s < segments; ++s) {
      const double phi = 2 * pi * s / segments;
      v.push_back({float(center.x + radius * std::sin(theta) * std::cos(phi)),
                   float(center.y + radius * std::sin(theta) * std::sin(phi)),
                   float(center.z + radius * std::cos(theta))});
    }
  }
  v.push_back({float(center.x), float(center.y), float(center.z - radius)});
  const int south = int(v.size()) - 1;
  auto at = [&](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
  std::vector<int> t;
  for (int s = 0; s < segments; ++s) t.insert(t.end(), {0, at(1, s), at(1, s + 1)});
  for (int r = 1; r + 1 < rings; ++r) {
    for (int s = 0; s < segments; ++s) {
      t.insert(t.end(), {at(r, s), at(r + 1, s), at(r + 1, s + 1)});
      t.insert(t.end(), {at(r, s), at(r + 1, s + 1), at(r, s + 1)});
    }
  }
  for (int s = 0; s < segments; ++s)
    t.insert(t.end(), {south, at(rings - 1, s + 1), at(rings - 1, s)});
  kxGeom::CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

/// A closed sphere from an octahedron whose triangles are split in four
/// `levels` times, every vertex pushed out to `radius` (outward winding):
/// 8 * 4^levels nearly uniform triangles.
inline kxGeom::CompactMesh makeOctaSphere(int levels, double radius = 1.0) {
  std::vector<kxLinear::Point> v = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                    {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
  std::vector<int> t = {0, 2, 4, 2, 1, 4, 1, 3, 4, 3, 0, 4, 2, 0, 5, 1, 2, 5, 3, 1, 5, 0, 3, 5};
  for (int level = 0; level < levels; ++level) {
    std::map<std::pair<int, int>, int> middle;
    auto mid = [&](int a, int b) {
      const auto key = std::make_pair(std::min(a, b), std::max(a, b));
      auto found = middle.find(key);
      if (found != middle.end()) return found->second;
      v.push_back(kxLinear::normalized(v[a] + v[b]));
      return middle[key] = int(v.size()) - 1;
    };
    std::vector<int> finer;
    for (std::size_t i = 0; i < t.size(); i += 3) {
      const int a = t[i], b = t[i + 1], c = t[i + 2];
      const int ab = mid(a, b), bc = mid(b, c), ca = mid(c, a);
      finer.insert(finer.end(), {a, ab, ca, ab, b, bc, ca, bc, c, ab, bc, ca});
    }
    t.swap(finer);
  }
  std::vector<kxGeom::MeshVertex> out;
  for (const kxLinear::Point& p : v)
    out.push_back({float(p.x * radius), float(p.y * radius), float(p.z * radius)});
  kxGeom::CompactMesh m(int(out.size()), out.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

/// A closed torus about the z axis, outward winding, `nu` segments around
/// the axis and `nv` around the tube, each vertex's tube radius perturbed by
/// up to `noise` (a fixed seed). Vertex (i, j) is i * nv + j.
inline kxGeom::CompactMesh makeTorus(int nu, int nv, double major, double minor, float noise = 0) {
  const double pi = 3.14159265358979323846;
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> jitter(-noise, noise);
  std::vector<kxGeom::MeshVertex> v;
  std::vector<int> t;
  for (int i = 0; i < nu; ++i) {
    for (int j = 0; j < nv; ++j) {
      const double u = 2 * pi * i / nu, w = 2 * pi * j / nv;
      const double r = minor + (noise > 0 ? jitter(rng) : 0.0f);
      v.push_back({float((major + r * std::cos(w)) * std::cos(u)),
                   float((major + r * std::cos(w)) * std::sin(u)), float(r * std::sin(w))});
      const int a = i * nv + j, b = ((i + 1) % nu) * nv + j, c = i * nv + (j + 1) % nv,
                d = ((i + 1) % nu) * nv + (j + 1) % nv;
      t.insert(t.end(), {a, b, d, a, d, c});
    }
  }
  kxGeom::CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(t.size() / 3), t.data());
  return m;
}

/// A mesh of the given positions and corner indices (three per triangle).
inline kxGeom::CompactMesh meshFrom(const std::vector<kxGeom::MeshVertex>& v,
                                    const std::vector<int>& corners) {
  kxGeom::CompactMesh m(int(v.size()), v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(int(corners.size() / 3), corners.data());
  return m;
}

/// `numTriangles` random triangles over `numVertices` random vertices in
/// [-1, 1]^3 (corners may repeat: degenerate triangles included).
inline kxGeom::CompactMesh makeRandomMesh(int numVertices, int numTriangles, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> coord(-1.0f, 1.0f);
  std::uniform_int_distribution<int> index(0, numVertices - 1);
  std::vector<kxGeom::MeshVertex> v(numVertices);
  for (auto& p : v) p = {coord(rng), coord(rng), coord(rng)};
  std::vector<int> t(3 * std::size_t(numTriangles));
  for (int& i : t) i = index(rng);
  kxGeom::CompactMesh m(numVertices, v.data(), nullptr, nullptr, nullptr);
  m.copyTriangles(numTriangles, t.data());
  return m;
}

/// Captures everything printed on the geometry debug channel while alive.
class LogCapture {
 public:
  LogCapture() {
    kxGeom::debugChannel().setSink([this](const char* text) { lines_.emplace_back(text); });
  }
  ~LogCapture() { kxGeom::debugChannel().setSink(nullptr); }
  const std::vector<std::string>& lines() const { return lines_; }
  std::string all() const {
    std::string s;
    for (const auto& l : lines_) s += l;
    return s;
  }

 private:
  std::vector<std::string> lines_;
};

/// Replaces every "%f"-style number after `prefix` so timings can be compared:
/// returns true when `line` starts with `prefix` and ends with `suffix`.
inline bool matchesLogLine(const std::string& line, const std::string& prefix,
                           const std::string& suffix) {
  return line.size() >= prefix.size() + suffix.size() &&
         line.compare(0, prefix.size(), prefix) == 0 &&
         line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace kxtest
