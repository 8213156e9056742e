// Fuzzes the PLY reader (ascii and both binary byte orders): no crash, no
// sanitizer report, and the checks of kxfuzz::readAndCheck.
#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kxfuzz::readAndCheck(data, size, kxGeom::MeshFileFormat::Ply);
  return 0;
}
