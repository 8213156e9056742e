// Writes 8-bit RGB images as PNG files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kxtool {

/// An 8-bit RGB image, rows top to bottom.
struct Image {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgb;  // width * height * 3

  Image(int w, int h) : width(w), height(h), rgb(std::size_t(w) * h * 3, 0) {}
  std::uint8_t* pixel(int x, int y) { return &rgb[(std::size_t(y) * width + x) * 3]; }
};

/// Writes `image` to `path`; false when the file cannot be written.
bool writePng(const Image& image, const std::string& path);

}  // namespace kxtool
