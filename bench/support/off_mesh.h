// The scanned model of the spatial and ray benchmarks: the armadillo of
// CGAL's sample data (an OFF file inside a tarball that the libcgal-demo
// package installs), refined twice by splitting every triangle into four at
// its edge midpoints (52k -> 832k triangles). A tiny OFF reader, the
// midpoint refinement and a fallback to the noisy sphere when the file is
// not there.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <kxgeom/kxgeom.h>

#include "support/bench_meshes.h"

namespace kxbench {

/// Where the armadillo lives once libcgal-demo is installed.
constexpr const char* kCgalDataTarball = "/usr/share/doc/libcgal-dev/data.tar.gz";
constexpr const char* kArmadilloMember = "data/meshes/armadillo.off";

/// Reads an OFF text (vertex and face counts, then positions, then faces);
/// polygons are fanned into triangles. Returns false on a malformed header
/// or an index out of range.
inline bool readOff(std::istream& in, kxGeom::CompactMesh& mesh) {
  std::string magic;
  int numVertices = 0, numFaces = 0, numEdges = 0;
  if (!(in >> magic) || magic != "OFF" || !(in >> numVertices >> numFaces >> numEdges)) {
    return false;
  }
  std::vector<kxGeom::MeshVertex> vertices(std::size_t(std::max(0, numVertices)));
  for (kxGeom::MeshVertex& v : vertices) {
    if (!(in >> v.x >> v.y >> v.z)) return false;
  }
  std::vector<int> triangles;
  for (int f = 0; f < numFaces; ++f) {
    int corners = 0;
    if (!(in >> corners) || corners < 3) return false;
    std::vector<int> polygon(std::size_t(corners), 0);
    for (int& index : polygon) {
      if (!(in >> index) || index < 0 || index >= numVertices) return false;
    }
    for (int k = 1; k + 1 < corners; ++k) {
      triangles.insert(triangles.end(),
                       {polygon[0], polygon[std::size_t(k)], polygon[std::size_t(k) + 1]});
    }
  }
  mesh = kxGeom::CompactMesh(numVertices, vertices.data(), nullptr, nullptr, nullptr);
  mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
  return true;
}

/// Splits every triangle into four at its edge midpoints (one new vertex per
/// edge, shared by the triangles on both sides): the corner triangles first,
/// then the middle one, so the order stays spatially coherent.
inline kxGeom::CompactMesh subdivideMidpoints(const kxGeom::CompactMesh& mesh) {
  const kxGeom::MeshVertex* in = mesh.getVertices();
  std::vector<kxGeom::MeshVertex> vertices(in, in + mesh.getNumVertices());
  std::unordered_map<std::uint64_t, int> midpoints;
  midpoints.reserve(std::size_t(mesh.getNumTriangles()) * 2);
  auto midpoint = [&](int a, int b) {
    const std::uint64_t key = std::uint64_t(std::min(a, b)) << 32 | std::uint32_t(std::max(a, b));
    const auto found = midpoints.emplace(key, int(vertices.size()));
    if (found.second) {
      const kxGeom::MeshVertex& p = in[a];
      const kxGeom::MeshVertex& q = in[b];
      vertices.push_back({0.5f * (p.x + q.x), 0.5f * (p.y + q.y), 0.5f * (p.z + q.z)});
    }
    return found.first->second;
  };
  std::vector<int> triangles;
  triangles.reserve(std::size_t(mesh.getNumTriangles()) * 12);
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = mesh.getTriangles()[t];
    const int a = tri[0], b = tri[1], c = tri[2];
    const int ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
    triangles.insert(triangles.end(), {a, ab, ca, ab, b, bc, ca, bc, c, ab, bc, ca});
  }
  kxGeom::CompactMesh out(int(vertices.size()), vertices.data(), nullptr, nullptr, nullptr);
  out.copyTriangles(int(triangles.size() / 3), triangles.data());
  return out;
}

/// The benchmark model and what it is.
struct BenchModel {
  kxGeom::CompactMesh mesh;
  std::string name;
};

/// The armadillo refined twice, or, when the tarball or its member is
/// missing, the noisy sphere of about the same size.
inline BenchModel loadBenchModel() {
  const std::string command =
      std::string("tar -xzOf ") + kCgalDataTarball + " " + kArmadilloMember + " 2>/dev/null";
  std::string text;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[1 << 16];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
    pclose(pipe);
  }
  std::istringstream stream(text);
  kxGeom::CompactMesh mesh;
  if (!text.empty() && readOff(stream, mesh) && mesh.getNumTriangles() > 0) {
    return {subdivideMidpoints(subdivideMidpoints(mesh)), "armadillo refined twice"};
  }
  return {makeDenseSphere(830000), "noisy sphere (armadillo not found)"};
}

/// The benchmark model, loaded once per process.
inline const BenchModel& benchModel() {
  static const BenchModel model = loadBenchModel();
  return model;
}

/// The benchmark model, refined once more (the armadillo three times) when
/// the environment variable KXGEOM_BENCH_S3 is set.
inline const kxGeom::CompactMesh& benchModelOrFiner() {
  static const kxGeom::CompactMesh mesh =
      std::getenv("KXGEOM_BENCH_S3") ? subdivideMidpoints(benchModel().mesh) : benchModel().mesh;
  return mesh;
}

}  // namespace kxbench
