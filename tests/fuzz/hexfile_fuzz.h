// Shared body of the image-file fuzz targets: any input must convert without a crash or a leak,
// and whatever converts must make a consistent image.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "varnel.h"

namespace varnel_fuzz {

using Converter = int (*)(const char*, int32_t, HEXFILE_SEGMENT*, uint32_t, int8_t);

inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

// The first byte picks the address unit and the segment limit; the rest is the file text.
inline int fuzz_converter(Converter convert, int32_t format, const uint8_t* data, size_t size) {
  if (size < 1 || size > (1u << 20)) return 0;
  static const int8_t units[] = {1, 2, 4, 1};
  const int8_t unit = units[data[0] & 3];
  const uint32_t max_segments = (data[0] >> 2) & 15;
  // A heap copy of exactly the text, so a read past its end is caught.
  std::vector<char> text(data + 1, data + size);
  const int32_t length = static_cast<int32_t>(text.size());

  HEXFILE_SEGMENT segments[16];
  int count = convert(text.data(), length, segments, max_segments, unit);
  require(count >= 0 && static_cast<uint32_t>(count) <= max_segments);
  int problems = VARNEL_hexfile_check(text.data(), length, format, nullptr, 0);
  require(problems >= 0);
  if (problems > 0) require(count == 0);
  for (int i = 0; i < count; ++i) require(segments[i].DataLen == 0 || segments[i].pData);

  if (count > 0) {
    int image_size = VARNEL_hexfile_convert_image_n(nullptr, 0, segments, count, unit, 0);
    require(image_size >= 0);
    if (image_size > 0 && image_size <= (1 << 22)) {
      std::vector<uint8_t> image(static_cast<size_t>(image_size));
      require(VARNEL_hexfile_convert_image_n(image.data(), image.size(), segments, count, unit,
                                             0x5A) == image_size);
      require(VARNEL_hexfile_convert_image_n(image.data(), image.size() - 1, segments, count, unit,
                                             0) == -2);
    }
  }
  hexfile_free_data(segments, static_cast<int32_t>(max_segments));
  return 0;
}

}  // namespace varnel_fuzz
