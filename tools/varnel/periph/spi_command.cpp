// `varnel spi`: byte transfers, and the SPI NOR flash in the manner of flashrom.
//   varnel spi transfer TARGET DEADBEEF [-r N]       write the bytes, then read N and print them
//   varnel spi flash TARGET id                       the flash's identification and size
//   varnel spi flash TARGET read|write|verify FILE   the whole flash (or --size bytes) to/from FILE
//   varnel spi flash TARGET erase                    the whole chip
//   varnel spi flash TARGET -r|-w|-v FILE, -E         flashrom's spelling of the same; an image
//                                                    must then be the flash's size, as there
// TARGET is HANDLE:CHANNEL. `write` erases only the 4 KiB sectors that need it, writes only the
// sectors that differ, and verifies. Progress goes to stderr: a bar on a terminal, a line per
// quarter otherwise.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/progress.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr uint32_t kSector = 4096;
constexpr int kEraseTimeoutMs = 5000;

constexpr ResultMeaning kSpiResults[] = {
    {-5, "bad bit text, or no flash description"},
    {-6, "the flash stayed busy past the time-out"},
};

struct SpiOptions {
  std::string target, operation, data, file;
  bool flashrom_flags = false;  // -r/-w/-v/-E: an image must be exactly the flash's size
  uint32_t read = 0;
  uint32_t size = 0;  // 0: the size the identification gives
  uint32_t clock = 10000000;
};

// The size the JEDEC capacity byte (the third identification byte) gives, 0 when unknown. Up to
// 0x19 the makers write log2 of the size in bytes (0x14: 1 MiB, 0x19: 32 MiB); from 64 MiB on
// they go on at 0x20 (0x20: 64 MiB, 0x21: 128 MiB, 0x22: 256 MiB) instead of 0x1A.
uint32_t size_from_capacity(uint8_t capacity) {
  if (capacity >= 0x10 && capacity <= 0x19) return uint32_t(1) << capacity;
  if (capacity >= 0x20 && capacity <= 0x22) return uint32_t(64 << 20) << (capacity - 0x20);
  return 0;
}

using Target = ChannelTarget;

bool parse_target(const std::string& text, Target& t) {
  return parse_channel_target(text, 2, true, t);
}

bool failed(const char* call, int rc) {
  return call_failed(call, rc, kSpiResults, true);
}

bool read_flash(const Target& t, uint32_t size, std::vector<uint8_t>& out, const char* what) {
  out.assign(size, 0);
  Progress progress(what, size);
  for (uint32_t at = 0; at < size; at += kSector) {
    const uint32_t n = std::min(kSector, size - at);
    if (failed("SPI_FlashRead", SPI_FlashRead(t.handle, t.channel, at, &out[at], int32_t(n))))
      return false;
    progress.at(at + n);
  }
  return true;
}

// Sectors that differ: erased when a bit must go from 0 to 1, then written.
bool write_flash(const Target& t, const std::vector<uint8_t>& image) {
  std::vector<uint8_t> current;
  if (!read_flash(t, uint32_t(image.size()), current, "reading")) return false;
  Progress progress("writing", image.size());
  for (uint32_t at = 0; at < image.size(); at += kSector) {
    const uint32_t n = std::min<uint32_t>(kSector, uint32_t(image.size()) - at);
    bool differs = false, needs_erase = false;
    for (uint32_t i = at; i < at + n; ++i) {
      differs |= current[i] != image[i];
      needs_erase |= (image[i] & ~current[i]) != 0;
    }
    if (needs_erase && failed("SPI_FlashErase",
                              SPI_FlashErase(t.handle, t.channel, at, int32_t(n), kEraseTimeoutMs)))
      return false;
    std::vector<uint8_t> sector(image.begin() + at, image.begin() + at + n);
    if (differs && failed("SPI_FlashWrite", SPI_FlashWrite(t.handle, t.channel, at, sector.data(),
                                                           int32_t(sector.size()))))
      return false;
    progress.at(at + n);
  }
  return true;
}

bool verify_flash(const Target& t, const std::vector<uint8_t>& image) {
  std::vector<uint8_t> current;
  if (!read_flash(t, uint32_t(image.size()), current, "verifying")) return false;
  for (size_t i = 0; i < image.size(); ++i)
    if (current[i] != image[i]) {
      std::printf("Verifying flash... FAILED at 0x%08zx: expected 0x%02x, read 0x%02x\n", i,
                  image[i], current[i]);
      exit_code() = 1;
      return false;
    }
  std::printf("Verifying flash... VERIFIED.\n");
  return true;
}

// flashrom's words for a file it cannot open.
void cannot_open(const std::string& file, int error) {
  std::fprintf(stderr, "Error: opening file \"%s\" failed: %s\n", file.c_str(),
               std::strerror(error));
  exit_code() = 1;
}

bool load_image(const SpiOptions& o, std::vector<uint8_t>& image) {
  std::ifstream in(o.file, std::ios::binary);
  if (!in.is_open()) {
    cannot_open(o.file, errno);
    return false;
  }
  image.assign(std::istreambuf_iterator<char>(in), {});
  if (!in.good() && !in.eof()) image.clear();
  if (!in || image.empty()) {
    std::fprintf(stderr, "%s: not a readable image of 1 byte or more\n", o.file.c_str());
    exit_code() = 1;
    return false;
  }
  return true;
}

// The flash's size: its identification's, or --size where the identification does not tell; a
// --size larger than the flash, an image larger than the size (with flashrom's flags: of another
// size) are refused here, before anything is erased. 0: refused.
uint32_t flash_size(const SpiOptions& o, const uint8_t* id, size_t image_size) {
  const uint32_t chip = size_from_capacity(id[2]);
  const uint32_t size = o.size ? o.size : chip;
  const char* refusal = nullptr;
  if (size == 0)
    refusal = "the identification does not give the flash size: give --size";
  else if (chip && size > chip)
    refusal = "--size is larger than the flash";
  if (!refusal && image_size && (image_size > size || (o.flashrom_flags && image_size != size))) {
    std::fprintf(stderr, "Error: Image size (%zu B) doesn't match the expected size (%u B)!\n",
                 image_size, size);
    exit_code() = 1;
    return 0;
  }
  if (!refusal) return size;
  std::fprintf(stderr, "flash ID %02X %02X %02X (%u bytes): %s\n", id[0], id[1], id[2], chip,
               refusal);
  exit_code() = 1;
  return 0;
}

// The port and the flash description, sized by the identification (or --size): the description
// first goes without a size, as the identification needs one. `size` stays 0 for id and erase,
// which need none.
bool start_flash(const SpiOptions& o, const Target& t, size_t image_size, uint8_t* id,
                 uint32_t* size) {
  SPI_CONFIG config{0, 1, 0, 0, 0, 0, {}, o.clock};
  SPI_FLASH_CONFIG flash;
  VARNEL_SPI_NorFlashConfig(&flash, 0);
  if (failed("SPI_Init", SPI_Init(t.handle, t.channel, &config)) ||
      failed("SPI_FlashInit", SPI_FlashInit(t.handle, t.channel, o.clock, &flash)) ||
      failed("SPI_FlashReadID", SPI_FlashReadID(t.handle, t.channel, id)))
    return false;
  if (o.operation == "id" || o.operation == "erase") return true;
  *size = flash_size(o, id, image_size);
  if (*size == 0) return false;
  VARNEL_SPI_NorFlashConfig(&flash, *size);
  return !failed("SPI_FlashInit", SPI_FlashInit(t.handle, t.channel, o.clock, &flash));
}

// The operation asked for, on a flash that start_flash identified and set up.
void run_flash_operation(const SpiOptions& o, const Target& t, const uint8_t* id, uint32_t size,
                         const std::vector<uint8_t>& image) {
  if (o.operation == "id") {
    std::printf("flash ID %02X %02X %02X: manufacturer 0x%02X, device 0x%02X%02X, %u kB\n", id[0],
                id[1], id[2], id[0], id[1], id[2], size_from_capacity(id[2]) / 1024);
  } else if (o.operation == "read") {
    std::vector<uint8_t> data;
    if (!read_flash(t, size, data, "reading")) return;
    std::ofstream out(o.file, std::ios::binary);
    if (!out.is_open()) return cannot_open(o.file, errno);
    out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
    if (!out) {
      std::fprintf(stderr, "%s: cannot write\n", o.file.c_str());
      exit_code() = 1;
    } else {
      std::printf("Reading flash... done.\n");
    }
  } else if (o.operation == "write") {
    if (write_flash(t, image)) {
      std::printf("Erasing and writing flash chip... Erase/write done.\n");
      verify_flash(t, image);
    }
  } else if (o.operation == "verify") {
    verify_flash(t, image);
  } else if (!failed("SPI_FlashEraseChip",
                     SPI_FlashEraseChip(t.handle, t.channel, 20 * kEraseTimeoutMs))) {
    std::printf("Erasing flash chip... Erase done.\n");
  }
}

void run_flash(const SpiOptions& o) {
  Target target;
  parse_target(o.target, target);
  std::vector<uint8_t> image;
  if ((o.operation == "write" || o.operation == "verify") && !load_image(o, image)) return;
  uint8_t id[VARNEL_SPI_FLASH_ID_SIZE] = {};
  uint32_t size = 0;
  run_channel_session(
      {}, target,
      [&](const Target& t) {
        return start_flash(o, t, image.size(), id, &size) ? CallResult() : CallResult::reported();
      },
      [&](const Target& t) {
        run_flash_operation(o, t, id, size, image);
        return 0;
      });
}

bool parse_hex(const std::string& text, std::vector<uint8_t>& out) {
  std::string digits;
  for (char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c)))
      digits += c;
    else if (c != '.' && c != ' ')
      return false;
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2)
    out.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return true;
}

void run_transfer(const SpiOptions& o) {
  Target t;
  parse_target(o.target, t);
  std::vector<uint8_t> out;
  if (!parse_hex(o.data, out)) {
    std::fprintf(stderr, "not hex bytes: %s\n", o.data.c_str());
    exit_code() = 2;
    return;
  }
  std::vector<uint8_t> in(o.read);
  run_channel_session(
      {"", kSpiResults, 1, true}, t,
      [&o](const Target& t) {
        SPI_CONFIG config{0, 1, 0, 0, 0, 0, {}, o.clock};
        return CallResult(SPI_Init(t.handle, t.channel, &config), {"SPI_Init", {}});
      },
      [&](const Target& t) {
        const int rc = SPI_WriteReadBytes(t.handle, t.channel, out.data(), int32_t(out.size()),
                                          in.data(), int32_t(in.size()), 0);
        if (rc == 0) {
          for (size_t i = 0; i < in.size(); ++i) std::printf(i ? " %02X" : "%02X", in[i]);
          if (!in.empty()) std::printf("\n");
        }
        return CallResult(rc, {"SPI_WriteReadBytes", {}});
      });
}

CLI::Validator target_validator() {
  return CLI::Validator(
      [](std::string& text) {
        Target t;
        return parse_target(text, t) ? std::string() : "expected HANDLE:CHANNEL, got " + text;
      },
      "HANDLE:CH");
}

void add_spi_commands(CLI::App& app) {
  CLI::App* spi = app.add_subcommand("spi", "SPI transfers and SPI NOR flash (flashrom-like)");
  spi->require_subcommand(1);
  auto o = std::make_shared<SpiOptions>();
  CLI::App* transfer = spi->add_subcommand("transfer", "write bytes, then read -r N of them");
  transfer->add_option("TARGET", o->target, "HANDLE:CHANNEL")
      ->required()
      ->check(target_validator());
  transfer->add_option("DATA", o->data, "bytes in hex: DEADBEEF")->required();
  transfer->add_option("-r,--read", o->read, "bytes to read after writing")
      ->check(CLI::Range(0, VARNEL_SPI_MAX_LENGTH));
  transfer->callback([o] { run_transfer(*o); });

  CLI::App* flash = spi->add_subcommand("flash", "SPI NOR flash: id, read, write, verify, erase");
  flash->add_option("TARGET", o->target, "HANDLE:CHANNEL")->required()->check(target_validator());
  CLI::Option* operation =
      flash->add_option("OPERATION", o->operation, "id|read|write|verify|erase")
          ->check(CLI::IsMember({"id", "read", "write", "verify", "erase"}));
  flash->add_option("FILE", o->file, "the image (read, write, verify)");
  // flashrom's flags for the same operations
  std::vector<CLI::Option*> flags;
  for (const auto& [names, word] :
       {std::pair{"-r,--read", "read"}, {"-w,--write", "write"}, {"-v,--verify", "verify"}}) {
    const std::string op = word;
    flags.push_back(flash
                        ->add_option_function<std::string>(
                            names,
                            [o, op](const std::string& file) {
                              o->operation = op;
                              o->file = file;
                              o->flashrom_flags = true;
                            },
                            op + " the flash from/to FILE as flashrom does")
                        ->type_name("FILE"));
  }
  flags.push_back(flash->add_flag_callback(
      "-E,--erase",
      [o] {
        o->operation = "erase";
        o->flashrom_flags = true;
      },
      "erase the chip as flashrom does"));
  for (CLI::Option* flag : flags) {
    flag->excludes(operation);
    for (CLI::Option* other : flags)
      if (other != flag) flag->excludes(other);
  }
  flash
      ->add_option("--size", o->size,
                   "bytes of the flash to use (default: the size its identification gives)")
      ->check(CLI::Range(1u, 1u << 28));
  flash->callback([o] {
    if (o->operation.empty()) {
      std::fprintf(stderr, "spi flash: give an OPERATION, or one of -r, -w, -v FILE, -E\n");
      exit_code() = 2;
      return;
    }
    const bool needs_file =
        o->operation == "read" || o->operation == "write" || o->operation == "verify";
    if (needs_file == o->file.empty()) {
      std::fprintf(stderr, "%s %s a FILE\n", o->operation.c_str(),
                   needs_file ? "needs" : "takes no");
      exit_code() = 2;
      return;
    }
    run_flash(*o);
  });
  for (CLI::App* command : {transfer, flash})
    command->add_option("--clock", o->clock, "SPI clock in Hz (default 10000000)");
}

}  // namespace

VARNEL_COMMAND_GROUP(add_spi_commands)

}  // namespace varnel_cli
