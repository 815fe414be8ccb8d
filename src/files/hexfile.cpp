// Firmware image files: Motorola S-records, Intel HEX and address/value text are read into the
// caller's segment array; segments are written out as flat binary images.
//
// Nothing here copies a line: records are decoded in place from the caller's text, and every line
// is held to VARNEL_HEXFILE_MAX_LINE characters, which is what bounds the work per record.
#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "core/c_boundary.h"
#include "varnel.h"

namespace varnel {
namespace {

constexpr uint32_t kUnusedStart = 0xFFFFFFFF;
// Gaps are written from a buffer of this size, so a large gap costs no large allocation.
constexpr size_t kGapPiece = 1024;

enum class LineResult {
  ok,
  bad_checksum,
  malformed,
  overlong,
  bad_field,
  full,  // too many segments, or the data could not be allocated
};

int problem_kind(LineResult r) {
  switch (r) {
    case LineResult::bad_checksum:
      return VARNEL_HEXFILE_BAD_CHECKSUM;
    case LineResult::overlong:
      return VARNEL_HEXFILE_OVERLONG;
    case LineResult::bad_field:
      return VARNEL_HEXFILE_BAD_FIELD;
    default:
      return VARNEL_HEXFILE_MALFORMED;
  }
}

bool valid_unit(int unit) {
  return unit == 1 || unit == 2 || unit == 4;
}

struct HexDigits {
  int8_t value[256];
  constexpr HexDigits() : value() {
    for (int c = 0; c < 256; ++c) value[c] = -1;
    for (int c = 0; c < 10; ++c) value['0' + c] = static_cast<int8_t>(c);
    for (int c = 0; c < 6; ++c) {
      value['a' + c] = static_cast<int8_t>(10 + c);
      value['A' + c] = static_cast<int8_t>(10 + c);
    }
  }
};
constexpr HexDigits kHex;

int hex_digit(char c) {
  return kHex.value[static_cast<uint8_t>(c)];
}

// Decodes 2 * count hex characters into count bytes; false on any non-hex character.
bool decode_hex(const char* s, size_t count, uint8_t* out) {
  for (size_t i = 0; i < count; ++i) {
    int high = hex_digit(s[2 * i]);
    int low = hex_digit(s[2 * i + 1]);
    if ((high | low) < 0) return false;
    out[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return true;
}

// Tools pad records with blanks now and then; anything else after the checksum means the record
// is not what its byte count says (an odd number of digits, two records run together...).
bool only_blanks(const char* s, const char* end) {
  for (; s < end; ++s)
    if (*s != ' ' && *s != '\t') return false;
  return true;
}

// Appends data records to the caller's segment array by the segment-building rule: a record that
// continues the current segment extends it, any other one opens the next entry.
class SegmentBuilder {
 public:
  SegmentBuilder(HEXFILE_SEGMENT* segments, uint32_t max_segments, int unit)
      : segments_(segments), max_(max_segments), unit_(static_cast<uint32_t>(unit)) {
    for (uint32_t i = 0; i < max_; ++i) segments_[i] = HEXFILE_SEGMENT{kUnusedStart, 0, nullptr};
  }

  bool append(uint32_t address, const uint8_t* data, size_t size) {
    if (count_ == 0) {
      if (max_ == 0) return false;
      count_ = 1;
      segments_[0].StartAddr = address;
    } else {
      HEXFILE_SEGMENT& current = segments_[count_ - 1];
      if (address != current.StartAddr + current.DataLen / unit_) {
        if (current.DataLen > 0) {
          if (count_ == max_) return false;
          ++count_;
        }
        segments_[count_ - 1].StartAddr = address;
      }
    }
    return grow_and_copy(segments_[count_ - 1], data, size);
  }

  int count() const { return static_cast<int>(count_); }

 private:
  // The record has no capacity field, so the capacity is implied by the length: the next power of
  // two, at least 256. Appending costs amortised O(1) without side state.
  static size_t capacity_for(size_t length) {
    return length == 0 ? 0 : std::max<size_t>(256, std::bit_ceil(length));
  }

  static bool grow_and_copy(HEXFILE_SEGMENT& segment, const uint8_t* data, size_t size) {
    size_t length = segment.DataLen;
    if (size == 0) return true;
    if (size > UINT32_MAX - length) return false;
    size_t needed = capacity_for(length + size);
    if (needed > capacity_for(length)) {
      auto* grown = static_cast<uint8_t*>(std::realloc(segment.pData, needed));
      if (!grown) return false;
      segment.pData = grown;
    }
    std::memcpy(segment.pData + length, data, size);
    segment.DataLen = static_cast<uint32_t>(length + size);
    return true;
  }

  HEXFILE_SEGMENT* segments_;
  uint32_t max_;
  uint32_t unit_;
  uint32_t count_ = 0;
};

// --- record parsers: one line each, decoded in place; `out` is null when only checking ---------

LineResult parse_s19_line(const char* s, size_t n, SegmentBuilder* out) {
  if (n < 2 || s[0] != 'S' || s[1] < '1' || s[1] > '3') return LineResult::ok;
  const size_t type = static_cast<size_t>(s[1] - '0');
  uint8_t record[1 + 255];  // byte count, then address, data and checksum
  if (n < 4 || !decode_hex(s + 2, 1, record)) return LineResult::malformed;
  const size_t count = record[0];
  if (count < type + 2) return LineResult::malformed;  // no room for address and checksum
  const size_t digits_end = 4 + 2 * count;
  if (n < digits_end || !decode_hex(s + 4, count, record + 1) ||
      !only_blanks(s + digits_end, s + n))
    return LineResult::malformed;
  uint8_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + record[i]);
  if (static_cast<uint8_t>(~sum) != record[count]) return LineResult::bad_checksum;
  uint32_t address = 0;
  for (size_t i = 0; i <= type; ++i) address = address << 8 | record[1 + i];
  if (out && !out->append(address, record + 2 + type, count - type - 2)) return LineResult::full;
  return LineResult::ok;
}

struct IhxBases {
  uint32_t linear = 0;
  uint32_t segment = 0;
};

LineResult parse_ihx_line(const char* s, size_t n, IhxBases& bases, SegmentBuilder* out) {
  if (n < 1 || s[0] != ':') return LineResult::ok;
  uint8_t record[4 + 255 + 1];  // count, address (2), type, data, checksum
  if (n < 11 || !decode_hex(s + 1, 4, record)) return LineResult::malformed;
  const size_t count = record[0];
  const uint8_t type = record[3];
  // End of file, start addresses and type 8 carry nothing we store: skipped unchecked, and an
  // end-of-file record does not end the reading.
  if (type == 1 || type == 3 || type == 5 || type == 8) return LineResult::ok;
  const size_t digits_end = 11 + 2 * count;
  if (n < digits_end || !decode_hex(s + 9, count + 1, record + 4) ||
      !only_blanks(s + digits_end, s + n))
    return LineResult::malformed;
  uint8_t sum = 0;
  for (size_t i = 0; i < count + 4; ++i) sum = static_cast<uint8_t>(sum + record[i]);
  if (static_cast<uint8_t>(-sum) != record[count + 4]) return LineResult::bad_checksum;
  const uint32_t offset = static_cast<uint32_t>(record[1] << 8 | record[2]);
  const uint32_t value = static_cast<uint32_t>(record[4] << 8 | record[5]);
  switch (type) {
    case 0:
      if (out && !out->append(bases.linear + bases.segment + offset, record + 4, count))
        return LineResult::full;
      break;
    case 2:
      if (count != 2) return LineResult::malformed;
      bases.segment = value * 16;
      bases.linear = 0;
      break;
    case 4:
      // The segment base stays: a file that mixes both kinds of record gets both added.
      if (count != 2) return LineResult::malformed;
      bases.linear = value << 16;
      break;
    default:
      break;  // checked, nothing stored
  }
  return LineResult::ok;
}

bool is_field_space(char c) {
  return c == ' ' || c == '\t' || c == '\v' || c == '\f';
}

// "0x"/"0X" and hex digits, or decimal digits; the value must fit in 32 bits.
bool parse_text_field(const char* s, size_t n, uint32_t& value) {
  uint64_t v = 0;
  if (n >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    if (n == 2) return false;
    for (size_t i = 2; i < n; ++i) {
      int d = hex_digit(s[i]);
      if (d < 0) return false;
      v = v << 4 | static_cast<uint64_t>(d);
      if (v > UINT32_MAX) return false;
    }
  } else {
    if (n == 0) return false;
    for (size_t i = 0; i < n; ++i) {
      if (s[i] < '0' || s[i] > '9') return false;
      v = v * 10 + static_cast<uint64_t>(s[i] - '0');
      if (v > UINT32_MAX) return false;
    }
  }
  value = static_cast<uint32_t>(v);
  return true;
}

LineResult parse_txt_line(const char* s, size_t n, int unit, SegmentBuilder* out) {
  if (n >= 1 && s[0] == '#') return LineResult::ok;
  const char* end = s + n;
  const char* fields[2];
  size_t lengths[2];
  size_t found = 0;
  const char* p = s;
  while (found < 2) {
    while (p < end && is_field_space(*p)) ++p;
    if (p == end) break;
    fields[found] = p;
    while (p < end && !is_field_space(*p)) ++p;
    lengths[found] = static_cast<size_t>(p - fields[found]);
    ++found;
  }
  if (found == 0) return LineResult::ok;  // a blank line
  uint32_t address = 0;
  uint32_t value = 0;
  if (found < 2 || !parse_text_field(fields[0], lengths[0], address) ||
      !parse_text_field(fields[1], lengths[1], value))
    return LineResult::bad_field;
  uint8_t bytes[4];
  for (int i = 0; i < unit; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * (unit - 1 - i)));
  if (out && !out->append(address, bytes, static_cast<size_t>(unit))) return LineResult::full;
  return LineResult::ok;
}

// --- line splitting -----------------------------------------------------------------------------

// Calls on_line(start, length, line_number) for each line until it returns false. Lines end at CR,
// LF or a zero byte; runs of CR and LF are skipped; a zero byte ends the text. Line numbers count
// LF, CR LF and a lone CR as one line break each.
template <class OnLine>
void for_each_line(const char* text, size_t length, OnLine&& on_line) {
  const char* p = text;
  const char* end = text + length;
  uint32_t line_number = 1;
  while (p < end) {
    char c = *p;
    if (c == '\n') {
      ++line_number;
      ++p;
      continue;
    }
    if (c == '\r') {
      if (p + 1 == end || p[1] != '\n') ++line_number;
      ++p;
      continue;
    }
    if (c == '\0') return;
    const char* start = p;
    while (p < end && *p != '\n' && *p != '\r' && *p != '\0') ++p;
    if (!on_line(start, static_cast<size_t>(p - start), line_number)) return;
  }
}

enum class Format { s19 = VARNEL_HEXFILE_S19, ihx = VARNEL_HEXFILE_IHX, txt = VARNEL_HEXFILE_TXT };

// Parses a whole text; calls on_result(result, line_number) for every line that is not ok and
// stops when it returns false.
template <class OnProblem>
void parse_text(Format format, const char* text, size_t length, int unit, SegmentBuilder* out,
                OnProblem&& on_problem) {
  IhxBases bases;
  for_each_line(text, length, [&](const char* s, size_t n, uint32_t line_number) {
    LineResult r = LineResult::overlong;
    if (n <= VARNEL_HEXFILE_MAX_LINE) {
      switch (format) {
        case Format::s19:
          r = parse_s19_line(s, n, out);
          break;
        case Format::ihx:
          r = parse_ihx_line(s, n, bases, out);
          break;
        case Format::txt:
          r = parse_txt_line(s, n, unit, out);
          break;
      }
    }
    return r == LineResult::ok || on_problem(r, line_number);
  });
}

int convert(Format format, const char* text, int32_t length, HEXFILE_SEGMENT* segments,
            uint32_t max_segments, int8_t unit) {
  if (!segments || !valid_unit(unit) || length < 0 || (!text && length > 0)) return 0;
  SegmentBuilder builder(segments, max_segments, unit);
  bool failed = false;
  parse_text(format, text, static_cast<size_t>(length), unit, &builder, [&](LineResult, uint32_t) {
    failed = true;
    return false;
  });
  return failed ? 0 : builder.count();
}

// --- images -------------------------------------------------------------------------------------

// Orders by start address. Stable, so entries with equal starts keep their order: the same order a
// bubble sort that stops on a pass without swaps gives, without its quadratic time.
void sort_segments(HEXFILE_SEGMENT* segments, size_t count) {
  std::stable_sort(
      segments, segments + count,
      [](const HEXFILE_SEGMENT& a, const HEXFILE_SEGMENT& b) { return a.StartAddr < b.StartAddr; });
}

// What an image holds, worked out before a byte is written. Empty entries carry no data and take
// no part in the gaps (an unused entry starts at 0xFFFFFFFF and would open a 4 GiB gap).
struct ImagePlan {
  bool valid = false;
  uint64_t size = 0;  // bytes of the whole image, or of the first run when stopping at a gap
  size_t end = 0;     // entries [0, end) are emitted
};

ImagePlan plan_image(const HEXFILE_SEGMENT* segments, size_t count, int unit, bool stop_at_gap) {
  ImagePlan plan;
  const HEXFILE_SEGMENT* previous = nullptr;
  size_t i = 0;
  for (; i < count; ++i) {
    const HEXFILE_SEGMENT& segment = segments[i];
    if (segment.DataLen == 0) continue;
    if (!segment.pData) return plan;
    if (previous) {
      int64_t gap = int64_t{segment.StartAddr} - int64_t{previous->StartAddr} -
                    int64_t{previous->DataLen / static_cast<uint32_t>(unit)};
      if (gap < 0) return plan;  // overlapping segments have no single image
      if (gap > 0 && stop_at_gap) break;
      plan.size += static_cast<uint64_t>(gap) * static_cast<uint64_t>(unit);
    }
    plan.size += segment.DataLen;
    if (plan.size > VARNEL_HEXFILE_MAX_IMAGE) return plan;
    previous = &segment;
  }
  plan.end = i;
  plan.valid = true;
  return plan;
}

// Emits the planned segments through write(data, size) and gaps through fill(size).
template <class Write, class Fill>
bool emit_image(const HEXFILE_SEGMENT* segments, const ImagePlan& plan, int unit, Write&& write,
                Fill&& fill) {
  const HEXFILE_SEGMENT* previous = nullptr;
  for (size_t i = 0; i < plan.end; ++i) {
    const HEXFILE_SEGMENT& segment = segments[i];
    if (segment.DataLen == 0) continue;
    if (previous) {
      uint64_t gap = uint64_t{segment.StartAddr} - previous->StartAddr -
                     previous->DataLen / static_cast<uint32_t>(unit);
      if (gap > 0 && !fill(gap * static_cast<uint64_t>(unit))) return false;
    }
    if (!write(segment.pData, segment.DataLen)) return false;
    previous = &segment;
  }
  return true;
}

int image_to_buffer(uint8_t* output, size_t capacity, HEXFILE_SEGMENT* segments, int32_t count,
                    int8_t unit, int8_t fill_byte, bool size_only) {
  if (!valid_unit(unit) || count < 0 || (!segments && count > 0)) return 0;
  sort_segments(segments, static_cast<size_t>(count));
  ImagePlan plan = plan_image(segments, static_cast<size_t>(count), unit, false);
  if (!plan.valid) return 0;
  if (size_only) return static_cast<int>(plan.size);
  if (plan.size > capacity) return -2;
  if (!output) return 0;
  uint8_t* p = output;
  emit_image(
      segments, plan, unit,
      [&](const uint8_t* data, size_t size) {
        std::memcpy(p, data, size);
        p += size;
        return true;
      },
      [&](uint64_t size) {
        // in memory there is no reason to cut the gap into pieces: one memset is the same bytes
        std::memset(p, static_cast<uint8_t>(fill_byte), size);
        p += size;
        return true;
      });
  return static_cast<int>(plan.size);
}

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

int save_image(const char* path, HEXFILE_SEGMENT* segments, uint32_t count, int8_t unit,
               bool fill_gaps) {
  if (!valid_unit(unit) || (!segments && count > 0)) return 0;
  if (!path) return -1;
  sort_segments(segments, count);
  ImagePlan plan = plan_image(segments, count, unit, !fill_gaps);
  if (!plan.valid) return 0;
  File file(std::fopen(path, "wb"));
  if (!file) return -1;
  static const auto gap_bytes = [] {
    std::array<uint8_t, kGapPiece> bytes;
    bytes.fill(0xFF);
    return bytes;
  }();
  bool ok = emit_image(
      segments, plan, unit,
      [&](const uint8_t* data, size_t size) {
        return std::fwrite(data, 1, size, file.get()) == size;
      },
      [&](uint64_t size) {
        while (size > 0) {
          size_t piece = static_cast<size_t>(std::min<uint64_t>(size, kGapPiece));
          if (std::fwrite(gap_bytes.data(), 1, piece, file.get()) != piece) return false;
          size -= piece;
        }
        return true;
      });
  if (std::fclose(file.release()) != 0) ok = false;
  return ok ? static_cast<int>(plan.size) : -1;
}

// --- files --------------------------------------------------------------------------------------

// Reads at most capacity bytes; -2 when the file holds more.
int load_bounded(const char* path, char* buffer, size_t capacity) {
  File file(std::fopen(path, "rb"));
  if (!file) return -1;
  size_t total = 0;
  while (total < capacity) {
    size_t got = std::fread(buffer + total, 1, capacity - total, file.get());
    if (got == 0) break;
    total += got;
  }
  if (std::ferror(file.get())) return -1;
  if (total == capacity) {
    char extra;
    if (std::fread(&extra, 1, 1, file.get()) == 1) return -2;
    if (std::ferror(file.get())) return -1;
  }
  return total > INT_MAX ? -2 : static_cast<int>(total);
}

// Size of a regular file, or -1 when it is not one (pipes, devices: size known only by reading).
int64_t regular_file_size(const char* path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return -1;
  auto size = std::filesystem::file_size(path, error);
  return error ? -1 : static_cast<int64_t>(size);
}

int file_size_by_reading(const char* path) {
  File file(std::fopen(path, "rb"));
  if (!file) return -1;
  static char sink[65536];
  uint64_t total = 0;
  size_t got;
  while ((got = std::fread(sink, 1, sizeof sink, file.get())) > 0) {
    total += got;
    if (total > VARNEL_HEXFILE_MAX_FILE) return -2;
  }
  return std::ferror(file.get()) ? -1 : static_cast<int>(total);
}

}  // namespace
}  // namespace varnel

using namespace varnel;

VARNEL_API int hexfile_load_file(const char* path, char* buffer) {
  return guarded(-1, [&] {
    if (!path || !buffer) return -1;
    // A regular file is never read past the size it had when looked at, so a file that grows
    // meanwhile cannot overrun a buffer sized for it.
    int64_t size = regular_file_size(path);
    if (size > VARNEL_HEXFILE_MAX_FILE) return -1;
    size_t capacity = size >= 0 ? static_cast<size_t>(size) : size_t{VARNEL_HEXFILE_MAX_FILE};
    int result = load_bounded(path, buffer, capacity);
    return result < 0 ? -1 : result;
  });
}

VARNEL_API int VARNEL_hexfile_load_file_n(const char* path, char* buffer, size_t capacity) {
  return guarded(-1, [&] {
    if (!path) return -1;
    if (!buffer) {
      int64_t size = regular_file_size(path);
      if (size > INT_MAX) return -2;
      return size >= 0 ? static_cast<int>(size) : file_size_by_reading(path);
    }
    return load_bounded(path, buffer, capacity);
  });
}

VARNEL_API int hexfile_convert_s19(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit) {
  return guarded(0,
                 [&] { return convert(Format::s19, text, length, segments, max_segments, unit); });
}

VARNEL_API int hexfile_convert_ihx(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit) {
  return guarded(0,
                 [&] { return convert(Format::ihx, text, length, segments, max_segments, unit); });
}

VARNEL_API int hexfile_convert_txt(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit) {
  return guarded(0,
                 [&] { return convert(Format::txt, text, length, segments, max_segments, unit); });
}

VARNEL_API int hexfile_free_data(HEXFILE_SEGMENT* segments, int32_t count) {
  if (!segments) return 0;
  for (int32_t i = 0; i < count; ++i) {
    std::free(segments[i].pData);
    segments[i].pData = nullptr;
    segments[i].DataLen = 0;
  }
  return 0;
}

VARNEL_API int hexfile_save_image(const char* path, HEXFILE_SEGMENT* segments, uint32_t count,
                                  int8_t unit, int8_t fill_gaps) {
  return guarded(-1, [&] { return save_image(path, segments, count, unit, fill_gaps != 0); });
}

VARNEL_API int hexfile_convert_image(uint8_t* output, HEXFILE_SEGMENT* segments, int32_t count,
                                     int8_t unit, int8_t fill_byte) {
  return guarded(0, [&] {
    if (!output) return 0;
    return image_to_buffer(output, SIZE_MAX, segments, count, unit, fill_byte, false);
  });
}

VARNEL_API int VARNEL_hexfile_convert_image_n(uint8_t* output, size_t capacity,
                                              HEXFILE_SEGMENT* segments, int32_t count, int8_t unit,
                                              int8_t fill_byte) {
  return guarded(0, [&] {
    return image_to_buffer(output, capacity, segments, count, unit, fill_byte, output == nullptr);
  });
}

VARNEL_API int VARNEL_hexfile_check(const char* text, int32_t length, int32_t format,
                                    VARNEL_HEXFILE_PROBLEM* problems, uint32_t max_problems) {
  return guarded(-1, [&] {
    if (format < VARNEL_HEXFILE_S19 || format > VARNEL_HEXFILE_TXT || length < 0 ||
        (!text && length > 0))
      return -1;
    int found = 0;
    // the unit only decides how many bytes a text value takes, not whether a line is good
    parse_text(static_cast<Format>(format), text, static_cast<size_t>(length), 1, nullptr,
               [&](LineResult r, uint32_t line_number) {
                 if (problems && static_cast<uint32_t>(found) < max_problems)
                   problems[found] = VARNEL_HEXFILE_PROBLEM{line_number, problem_kind(r)};
                 ++found;
                 return true;
               });
    return found;
  });
}
