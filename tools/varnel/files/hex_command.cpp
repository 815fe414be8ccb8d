// `varnel hex`: firmware image files (S-records, Intel HEX, address/value text).
//   varnel hex info FILE                 format, segments, sizes, bad lines with their numbers
//   varnel hex convert FILE OUT.bin      flat binary image (--fill BYTE fills the gaps)
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "files/image_file.h"
#include "varnel.h"

using varnel_cli::detect_image_format;
using varnel_cli::ImageSegments;
using varnel_cli::load_image_text;

namespace {

struct HexOptions {
  std::string file;
  std::string out;
  std::string format = "auto";
  int unit = 1;
  std::string fill;  // empty: no filling, the image is the first contiguous run
  uint32_t max_segments = 4096;
};

const char* format_name(int format) {
  switch (format) {
    case VARNEL_HEXFILE_S19:
      return "Motorola S-records";
    case VARNEL_HEXFILE_IHX:
      return "Intel HEX";
    default:
      return "address/value text";
  }
}

const char* problem_name(int kind) {
  switch (kind) {
    case VARNEL_HEXFILE_BAD_CHECKSUM:
      return "checksum mismatch";
    case VARNEL_HEXFILE_OVERLONG:
      return "line too long";
    case VARNEL_HEXFILE_BAD_FIELD:
      return "bad address or value field";
    default:
      return "malformed record";
  }
}

int format_from_option(const std::string& option, const std::vector<char>& text) {
  if (option == "s19" || option == "srec") return VARNEL_HEXFILE_S19;
  if (option == "ihx" || option == "hex") return VARNEL_HEXFILE_IHX;
  if (option == "txt") return VARNEL_HEXFILE_TXT;
  return detect_image_format(text);
}

void convert(int format, const std::vector<char>& text, const HexOptions& options,
             ImageSegments& out) {
  auto converter = format == VARNEL_HEXFILE_S19   ? hexfile_convert_s19
                   : format == VARNEL_HEXFILE_IHX ? hexfile_convert_ihx
                                                  : hexfile_convert_txt;
  out.array.resize(options.max_segments);
  out.count = converter(text.data(), static_cast<int32_t>(text.size()), out.array.data(),
                        options.max_segments, static_cast<int8_t>(options.unit));
}

// Prints every bad line; returns how many there are.
int report_problems(const std::string& path, int format, const std::vector<char>& text) {
  const int32_t length = static_cast<int32_t>(text.size());
  int found = VARNEL_hexfile_check(text.data(), length, format, nullptr, 0);
  if (found <= 0) return 0;
  std::vector<VARNEL_HEXFILE_PROBLEM> problems(static_cast<size_t>(found));
  VARNEL_hexfile_check(text.data(), length, format, problems.data(), problems.size());
  for (const auto& p : problems)
    std::printf("%s:%u: %s\n", path.c_str(), p.Line, problem_name(p.Kind));
  return found;
}

// Explains a failed conversion that no bad line accounts for.
void explain_failure(const std::string& path, int problems, const HexOptions& options) {
  if (problems == 0)
    std::fprintf(stderr, "%s: no data, or more than %u segments (see --max-segments)\n",
                 path.c_str(), options.max_segments);
  else
    std::fprintf(stderr, "%s: %d bad line(s)\n", path.c_str(), problems);
}

void run_info(const HexOptions& options) {
  std::vector<char> text;
  if (!load_image_text(options.file, text)) {
    varnel_cli::exit_code() = 1;
    return;
  }
  int format = format_from_option(options.format, text);
  std::printf("file: %s\nformat: %s\ntext: %zu bytes\n", options.file.c_str(), format_name(format),
              text.size());
  int problems = report_problems(options.file, format, text);
  ImageSegments segments;
  convert(format, text, options, segments);
  if (segments.count == 0) {
    explain_failure(options.file, problems, options);
    varnel_cli::exit_code() = 1;
    return;
  }
  std::printf("segments: %d (address unit %d)\n  #  start       end         bytes\n",
              segments.count, options.unit);
  uint64_t total = 0;
  for (int i = 0; i < segments.count; ++i) {
    const HEXFILE_SEGMENT& s = segments.array[static_cast<size_t>(i)];
    uint64_t units = s.DataLen / static_cast<uint32_t>(options.unit);
    uint64_t end = uint64_t{s.StartAddr} + (units ? units - 1 : 0);
    std::printf("%3d  0x%08X  0x%08llX  %u\n", i, s.StartAddr, static_cast<unsigned long long>(end),
                s.DataLen);
    total += s.DataLen;
  }
  std::printf("data: %llu bytes\n", static_cast<unsigned long long>(total));
  int image = VARNEL_hexfile_convert_image_n(nullptr, 0, segments.array.data(), segments.count,
                                             static_cast<int8_t>(options.unit), 0);
  if (image > 0)
    std::printf("filled image: %d bytes from 0x%08X\n", image, segments.array[0].StartAddr);
  else
    std::printf("filled image: none (segments overlap or exceed %d bytes)\n",
                VARNEL_HEXFILE_MAX_IMAGE);
}

bool parse_fill(const std::string& text, int8_t& fill) {
  char* end = nullptr;
  unsigned long value = std::strtoul(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || value > 255) return false;
  fill = static_cast<int8_t>(value);
  return true;
}

bool write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) return false;
  return std::fclose(file.release()) == 0;
}

void run_convert(const HexOptions& options) {
  int8_t fill = 0;
  if (!options.fill.empty() && !parse_fill(options.fill, fill)) {
    std::fprintf(stderr, "--fill: expected a byte value (0-255 or 0x00-0xFF)\n");
    varnel_cli::exit_code() = 2;
    return;
  }
  std::vector<char> text;
  if (!load_image_text(options.file, text)) {
    varnel_cli::exit_code() = 1;
    return;
  }
  int format = format_from_option(options.format, text);
  ImageSegments segments;
  convert(format, text, options, segments);
  if (segments.count == 0) {
    explain_failure(options.file, report_problems(options.file, format, text), options);
    varnel_cli::exit_code() = 1;
    return;
  }
  const int8_t unit = static_cast<int8_t>(options.unit);
  int written = 0;
  if (options.fill.empty()) {
    written = hexfile_save_image(options.out.c_str(), segments.array.data(),
                                 static_cast<uint32_t>(segments.count), unit, 0);
  } else {
    int size = VARNEL_hexfile_convert_image_n(nullptr, 0, segments.array.data(), segments.count,
                                              unit, fill);
    std::vector<uint8_t> image(static_cast<size_t>(std::max(size, 0)));
    if (size > 0)
      written = VARNEL_hexfile_convert_image_n(image.data(), image.size(), segments.array.data(),
                                               segments.count, unit, fill);
    if (written > 0 && !write_file(options.out, image)) written = -1;
  }
  if (written < 0) {
    std::fprintf(stderr, "%s: cannot write the image\n", options.out.c_str());
    varnel_cli::exit_code() = 1;
    return;
  }
  if (written == 0) {
    std::fprintf(stderr, "%s: segments overlap or the image exceeds %d bytes\n",
                 options.file.c_str(), VARNEL_HEXFILE_MAX_IMAGE);
    varnel_cli::exit_code() = 1;
    return;
  }
  std::printf("%s: %d bytes from address 0x%08X\n", options.out.c_str(), written,
              segments.array[0].StartAddr);
  if (options.fill.empty() && segments.count > 1)
    std::fprintf(stderr,
                 "note: %d segments; without --fill the image stops at the first gap, "
                 "so only the first contiguous run is written\n",
                 segments.count);
}

void add_common_options(CLI::App* command, HexOptions& options) {
  command->add_option("FILE", options.file, "S-record, Intel HEX or address/value text file")
      ->required();
  command->add_option("--format", options.format, "file format (default: detected)")
      ->check(CLI::IsMember({"auto", "s19", "srec", "ihx", "hex", "txt"}));
  command->add_option("--unit", options.unit, "bytes per address: 1, 2 or 4")
      ->check(CLI::IsMember({1, 2, 4}));
  command->add_option("--max-segments", options.max_segments, "most segments accepted")
      ->check(CLI::Range(1u, 1u << 20));
}

void add_hex_commands(CLI::App& app) {
  auto options = std::make_shared<HexOptions>();
  CLI::App* hex = app.add_subcommand("hex", "firmware image files");
  hex->require_subcommand(1);

  CLI::App* info = hex->add_subcommand("info", "format, segments and bad lines of an image file");
  add_common_options(info, *options);
  info->callback([options] { run_info(*options); });

  CLI::App* to_bin = hex->add_subcommand("convert", "write an image file as a flat binary");
  add_common_options(to_bin, *options);
  to_bin->add_option("OUT", options->out, "binary output file")->required();
  to_bin->add_option("--fill", options->fill,
                     "fill gaps with this byte (without it, only the first contiguous run)");
  to_bin->callback([options] { run_convert(*options); });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_hex_commands)
