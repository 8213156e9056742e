// Fuzzes the OFF reader and the strict indexed reader, which share their
// vertex and face lines: no crash, no sanitizer report, and the checks of
// kxfuzz::readAndCheck for each.
#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kxfuzz::readAndCheck(data, size, kxGeom::MeshFileFormat::Off);
  kxfuzz::readAndCheck(data, size, kxGeom::MeshFileFormat::Indexed);
  return 0;
}
