// Peak resident memory of one piece of work beyond what the process held when
// it began. Linux resets the peak (VmHWM) to the current resident size when
// "5" is written to /proc/self/clear_refs; elsewhere the figure reads 0.
#pragma once

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <kxgeom/kxgeom.h>

namespace kxbench {

/// A "VmXXX:" line of /proc/self/status in bytes, or 0 when it cannot be read.
inline double statusBytes(const char* key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, std::strlen(key), key) == 0) {
      return std::stod(line.substr(std::strlen(key))) * 1024.0;
    }
  }
  return 0;
}

/// Bytes of a mesh's own position and triangle arrays.
inline double meshArrayBytes(const kxGeom::CompactMesh& mesh) {
  return double(mesh.getNumVertices()) * sizeof(kxGeom::MeshVertex) +
         double(mesh.getNumTriangles()) * sizeof(kxGeom::MeshTriangle);
}

/// Prints one line: how far the resident size rose above its level at the
/// start of `work(prepared)` (which returns its result), in MB and as a
/// multiple of the input mesh's arrays, and how much of that the result still
/// holds. `prepare()` runs before the measurement starts.
template <class Prepare, class Work>
void printPeakMemory(const char* what, const kxGeom::CompactMesh& input, Prepare prepare,
                     Work work) {
  auto prepared = prepare();
  std::ofstream("/proc/self/clear_refs") << "5";
  const double base = statusBytes("VmRSS:");
  double kept = 0;
  {
    const auto result = work(prepared);
    kept = statusBytes("VmRSS:") - base;
  }
  const double peak = statusBytes("VmHWM:") - base, own = meshArrayBytes(input);
  std::printf(
      "peak memory of %s: %.1f MB above the start = %.2fx the input's arrays (%.1f MB); "
      "the result holds %.1f MB of it\n",
      what, peak / 1e6, peak / own, own / 1e6, kept / 1e6);
}

}  // namespace kxbench
