// Shared by the reader fuzzers: the readers take file names, so each input
// is written to one scratch file per process before it is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

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

}  // namespace kxfuzz
