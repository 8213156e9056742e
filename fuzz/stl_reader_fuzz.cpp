// Fuzzes the STL reader (binary and ascii, told apart by content) with the
// weld that follows it: no crash, no sanitizer report, and the checks of
// kxfuzz::readAndCheck.
#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kxfuzz::readAndCheck(data, size, kxGeom::MeshFileFormat::Stl);
  return 0;
}
