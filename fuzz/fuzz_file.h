// Shared by the reader fuzzers: the readers take file names, so each input
// is written to one scratch file per process before it is read.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <kxgeom/mesh_file.h>
#include <kxgeom/platform/mesh.h>

namespace kxfuzz {

/// Writes the input to this process's scratch file and returns its name.
inline const std::string& writeScratch(const std::uint8_t* data, std::size_t size) {
  static const std::string path = "/tmp/kxgeom_fuzz_" + std::to_string(::getpid());
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
  return path;
}

/// Aborts (a finding) unless every triangle index names a vertex.
inline void checkIndices(const kxGeom::CompactMesh& m) {
  const int* t = m.getTrianglesRaw();
  for (int i = 0; i < 3 * m.getNumTriangles(); ++i) {
    if (t[i] < 0 || t[i] >= m.getNumVertices()) std::abort();
  }
}

/// Reads the input as `format` through meshReadFile and aborts unless a
/// successful read yields valid indices, finite positions and no more
/// vertices than the input has bytes, and a failed one leaves the mesh
/// untouched.
inline void readAndCheck(const std::uint8_t* data, std::size_t size,
                         kxGeom::MeshFileFormat format) {
  kxGeom::CompactMesh mesh;
  kxGeom::MeshReadOptions options;
  options.format = format;
  if (!kxGeom::meshReadFile(mesh, writeScratch(data, size), options)) {
    if (mesh.getNumVertices() != 0 || mesh.getNumTriangles() != 0) std::abort();
    return;
  }
  checkIndices(mesh);
  if (std::size_t(mesh.getNumVertices()) > size) std::abort();
  const float* p = mesh.getVerticesRaw();
  for (int i = 0; i < 3 * mesh.getNumVertices(); ++i) {
    if (!std::isfinite(p[i])) std::abort();
  }
}

}  // namespace kxfuzz
