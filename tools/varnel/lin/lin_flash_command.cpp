// varnel lin flash TARGET NAD FILE [--key K] [--key-routine ROUTINE] [-b BAUD] [--timeout MS]
//   Reprograms the LIN control unit NAD through its boot loader with an image file in any format
//   the image calls read (S-records, Intel HEX, text): programming session and security access,
//   then each segment erased, written in pieces of 1 KiB (a bar on a terminal, plain lines
//   otherwise) and verified by the unit's CRC-32 check, then an ECU reset. The key routine of
//   security access is the library's default (rotate5), another named one, or a function
//   `uint16_t f(uint16_t seed, uint16_t key_constant)` in a shared library, given as LIB.so:f.
// Exit codes: 0 done, 1 adapter or transport failure, 2 usage or unreadable file, 3 session or
// security access refused, 4 erase or write refused, 5 verification failed.
#include "lin/lin_flash_command.h"

#include <cstdio>
#include <memory>
#include <string>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/library_symbol.h"
#include "core/progress.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "files/image_file.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr uint32_t kPiece = 1024;
enum Exit {
  kDone = 0,
  kTransport = 1,
  kUsage = 2,
  kRefusedAccess = 3,
  kRefusedWrite = 4,
  kMismatch = 5
};

constexpr ResultMeaning kBootResults[] = {
    {-8, "a frame did not come back from the bus as sent"},
    {-9, "the unit did not answer"},
    {-10, "the unit refused"},
    {-11, "no programming session before the time-out"},
    {-13, "the unit's download answer is not one this tool knows"},
    {-14, "the unit did not echo the transfer counter"},
};

struct FlashOptions {
  std::string target, nad, file;
  uint32_t baud = 19200, timeout_ms = 2000;
  std::string key_text = "0xBEEF";
  std::string key_routine;  // empty: the library's default
};

// The named key routines; anything else with a colon is LIB.so:SYMBOL.
uint16_t key_rotate5(uint16_t seed, uint16_t constant) {
  return uint16_t((seed << 5 | seed >> 11) ^ constant);
}
uint16_t key_xor(uint16_t seed, uint16_t constant) {
  return uint16_t(seed ^ constant);
}
constexpr struct {
  const char* name;
  VARNEL_LIN_BOOT_KEY_ROUTINE routine;
} kKeyRoutines[] = {{"rotate5", key_rotate5}, {"xor", key_xor}};

// The routine a --key-routine names, or null with `why` set. A library stays loaded for the
// process's life: the routine is called from it.
VARNEL_LIN_BOOT_KEY_ROUTINE find_key_routine(const std::string& text, std::string& why) {
  for (const auto& k : kKeyRoutines)
    if (text == k.name) return k.routine;
  if (!names_library_symbol(text)) {
    why = "expected rotate5, xor or LIB.so:FUNCTION, got " + text;
    return nullptr;
  }
  return reinterpret_cast<VARNEL_LIN_BOOT_KEY_ROUTINE>(find_library_symbol(text, why));
}

int fail(const char* what, int rc, int code) {
  std::fprintf(stderr, "%s: %s\n", what, describe_result(rc, kBootResults).c_str());
  return code;
}

// One segment: erase, then each piece written and checked. An exit code.
int program(uint32_t h, uint8_t ch, uint8_t nad, const HEXFILE_SEGMENT& seg, Progress& progress,
            uint64_t& done) {
  if (int rc = USDLINBoot_Erase(h, ch, nad, seg.StartAddr, seg.DataLen); rc != 0)
    return fail("USDLINBoot_Erase", rc, rc == -10 ? kRefusedWrite : kTransport);
  for (uint32_t at = 0; at < seg.DataLen; at += kPiece) {
    const uint32_t n = std::min(kPiece, seg.DataLen - at);
    if (int rc = USDLINBoot_WriteData(h, ch, nad, seg.StartAddr + at, seg.pData + at, n); rc != 0)
      return fail("USDLINBoot_WriteData", rc, rc <= -10 ? kRefusedWrite : kTransport);
    uint8_t status = 0xFF;
    if (int rc =
            VARNEL_USDLINBoot_MemCheckResult(h, ch, nad, image_crc32(seg.pData + at, n), &status);
        rc != 0)
      return fail("USDLINBoot_MemCheck", rc, kTransport);
    if (status != 0) {
      std::printf("Verifying at 0x%08X... FAILED (the unit's check says %u)\n", seg.StartAddr + at,
                  status);
      return kMismatch;
    }
    progress.at(done += n);
  }
  return kDone;
}

int flash(const FlashOptions& o, uint32_t h, uint8_t ch, uint8_t nad, const ImageSegments& image) {
  if (!o.key_routine.empty()) {
    std::string why;
    VARNEL_LIN_BOOT_KEY_ROUTINE routine = find_key_routine(o.key_routine, why);
    if (!routine) {
      std::fprintf(stderr, "--key-routine: %s\n", why.c_str());
      return kUsage;
    }
    VARNEL_USDLINBoot_SetKeyRoutine(h, ch, routine);
  }
  if (int rc = USDLINBoot_Init(h, ch, o.baud); rc != 0)
    return fail("USDLINBoot_Init", rc, kTransport);
  uint32_t key = 0;
  parse_handle(o.key_text, key);
  if (int rc = USDLINBoot_Start(h, ch, nad, uint16_t(key), o.timeout_ms); rc != 0)
    return fail("USDLINBoot_Start", rc, rc == -10 || rc == -11 ? kRefusedAccess : kTransport);
  uint64_t total = 0, done = 0;
  for (int i = 0; i < image.count; ++i) total += image.array[size_t(i)].DataLen;
  Progress progress("writing", total);
  for (int i = 0; i < image.count; ++i)
    if (int code = program(h, ch, nad, image.array[size_t(i)], progress, done); code != kDone)
      return code;
  std::printf("Erasing, writing and verifying %llu bytes in %d segment(s)... VERIFIED.\n",
              static_cast<unsigned long long>(total), image.count);
  if (int rc = USDLINBoot_ResetECU(h, ch, nad); rc != 0)
    return fail("USDLINBoot_ResetECU", rc, kTransport);
  return kDone;
}

void run_flash(const FlashOptions& o) {
  uint32_t h = 0, ch = 0, nad = 0;
  const size_t colon = o.target.find(':');
  parse_handle(o.target.substr(0, colon), h);
  parse_handle(o.target.substr(colon + 1), ch);
  nad = uint32_t(std::stoul(o.nad, nullptr, 16));
  ImageSegments image;
  if (!read_image(o.file, image)) {
    exit_code() = kUsage;
    return;
  }
  run_channel_session({"lin flash", {}, kTransport}, {h, uint8_t(ch)}, nullptr,
                      [&](const ChannelTarget& t) {
                        exit_code() = flash(o, t.handle, t.channel, uint8_t(nad), image);
                        return 0;
                      });
}

}  // namespace

void add_lin_flash_command(CLI::App* lin) {
  CLI::App* flash = lin->add_subcommand("flash", "reprogram a LIN control unit with an image file");
  auto o = std::make_shared<FlashOptions>();
  flash->add_option("TARGET", o->target, "HANDLE:CHANNEL")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            uint32_t h, ch;
            const size_t colon = text.find(':');
            return colon != std::string::npos && parse_handle(text.substr(0, colon), h) &&
                           parse_handle(text.substr(colon + 1), ch) && ch < 8
                       ? std::string()
                       : "expected HANDLE:CHANNEL (0..7), got " + text;
          },
          "HANDLE:CH"));
  flash->add_option("NAD", o->nad, "node address in hex (00..FF; 7F: whichever node is there)")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            char* end = nullptr;
            const unsigned long nad = std::strtoul(text.c_str(), &end, 16);
            return !text.empty() && *end == 0 && nad <= 0xFF
                       ? std::string()
                       : "expected a NAD of 00..FF, got " + text;
          },
          "NAD"));
  flash->add_option("FILE", o->file, "S-records, Intel HEX or text")->required();
  flash->add_option("--key", o->key_text, "the unit's 16-bit key constant (default 0xBEEF)")
      ->check(u32_validator("key"));
  flash->add_option("--key-routine", o->key_routine,
                    "the unit's key routine: rotate5 (the default), xor, or LIB.so:FUNCTION "
                    "(uint16_t FUNCTION(uint16_t seed, uint16_t key_constant))");
  flash->add_option("-b,--baud", o->baud, "baud rate (default 19200)")
      ->check(CLI::Range(1000u, 20000u));
  flash->add_option("--timeout", o->timeout_ms, "ms to wait for the programming session");
  flash->callback([o] { run_flash(*o); });
}

}  // namespace varnel_cli
