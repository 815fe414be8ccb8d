// Firmware image files as the tool reads them: the text of a file, its format from its first
// line, and the segments the library's converters make of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "varnel.h"

namespace varnel_cli {

// The file's text (at most VARNEL_HEXFILE_MAX_FILE bytes); false, with the reason on stderr.
bool load_image_text(const std::string& path, std::vector<char>& text);
// The first line that is not blank tells the format: ':' Intel HEX, 'S' and a digit S-records,
// anything else text.
int detect_image_format(const std::vector<char>& text);

// Converted segments; the data is released with the object.
struct ImageSegments {
  std::vector<HEXFILE_SEGMENT> array;
  int count = 0;
  ~ImageSegments() { hexfile_free_data(array.data(), static_cast<int32_t>(array.size())); }
};
// The file read and converted with its own format (byte addresses, at most 256 segments); false,
// with the reason on stderr.
bool read_image(const std::string& path, ImageSegments& out);

// CRC-32 of IEEE 802.3 (reflected polynomial EDB88320), what boot loaders check images with.
uint32_t image_crc32(const uint8_t* data, size_t n);

}  // namespace varnel_cli
