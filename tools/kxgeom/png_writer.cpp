#include "png_writer.h"

#include <png.h>

#include <csetjmp>
#include <cstdio>

namespace kxtool {

bool writePng(const Image& image, const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  bool ok = false;
  if (png && info && setjmp(png_jmpbuf(png)) == 0) {
    png_init_io(png, file);
    png_set_IHDR(png, info, png_uint_32(image.width), png_uint_32(image.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y) {
      png_write_row(png, image.rgb.data() + std::size_t(y) * image.width * 3);
    }
    png_write_end(png, nullptr);
    ok = true;
  }
  png_destroy_write_struct(&png, &info);
  return std::fclose(file) == 0 && ok;
}

}  // namespace kxtool
