#include "files/image_file.h"

#include <cstdio>

namespace varnel_cli {

bool load_image_text(const std::string& path, std::vector<char>& text) {
  int size = VARNEL_hexfile_load_file_n(path.c_str(), nullptr, 0);
  if (size == -2) {
    std::fprintf(stderr, "%s: file too large\n", path.c_str());
    return false;
  }
  if (size >= 0) {
    text.resize(static_cast<size_t>(size));
    size = VARNEL_hexfile_load_file_n(path.c_str(), text.data(), text.size());
  }
  if (size < 0) {
    std::fprintf(stderr, "%s: cannot read the file\n", path.c_str());
    return false;
  }
  text.resize(static_cast<size_t>(size));
  return true;
}

// The first line that is not blank tells the format: ':' Intel HEX, 'S' and a digit S-records.
int detect_image_format(const std::vector<char>& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\r' || c == '\n' || c == ' ' || c == '\t') continue;
    if (c == ':') return VARNEL_HEXFILE_IHX;
    if (c == 'S' && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '9')
      return VARNEL_HEXFILE_S19;
    return VARNEL_HEXFILE_TXT;
  }
  return VARNEL_HEXFILE_TXT;
}

bool read_image(const std::string& path, ImageSegments& out) {
  std::vector<char> text;
  if (!load_image_text(path, text)) return false;
  const int format = detect_image_format(text);
  auto converter = format == VARNEL_HEXFILE_S19   ? hexfile_convert_s19
                   : format == VARNEL_HEXFILE_IHX ? hexfile_convert_ihx
                                                  : hexfile_convert_txt;
  out.array.resize(256);
  out.count = converter(text.data(), static_cast<int32_t>(text.size()), out.array.data(), 256, 1);
  if (out.count <= 0) {
    std::fprintf(stderr, "%s: not a readable image (varnel hex info %s tells why)\n", path.c_str(),
                 path.c_str());
    return false;
  }
  return true;
}

uint32_t image_crc32(const uint8_t* data, size_t n) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < n; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (0xEDB88320 & (0u - (crc & 1)));
  }
  return ~crc;
}

}  // namespace varnel_cli
