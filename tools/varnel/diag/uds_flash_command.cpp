// varnel uds flash CHANNEL TXID RXID FILE [--key-routine NAME|LIB.so:FUNCTION]
//                  [--erase-routine FF00] [--check-routine 0202] [--verify]
//   Reprograms an ECU with an image (Intel HEX, S-records or text with addresses; each segment a
//   download of its own): extended session, security access, programming session, every segment
//   erased (31 01 FF00 address size) before any is written, then per segment 34 (no compression,
//   4-byte address and size), 36 in blocks of the ECU's maxNumberOfBlockLength (counter from 1,
//   FF wrapping to 00), 37 and the check routine (31 01 0202 address size: the ECU's CRC-32 of the
//   range, compared with the image's), --verify's read-back (23), and an ECU reset (11 01).
//   Progress goes to stderr: a bar on a terminal, plain lines otherwise. Ctrl-C stops between
//   blocks and puts the ECU back in its default session.
// Exit codes: 0 done, 1 adapter or transport failure (no response), 2 usage or unreadable file,
// 3 session or security access refused, 4 erase, download or transfer refused, 5 the check
// routine's CRC or the read-back differs from the image, 130 interrupted.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "core/progress.h"
#include "diag/uds_client.h"
#include "diag/uds_workflows.h"
#include "files/image_file.h"

namespace varnel_cli {
namespace {

enum Exit {
  kDone = 0,
  kTransport = 1,
  kUsage = 2,
  kRefusedAccess = 3,
  kRefusedWrite = 4,
  kMismatch = 5,
  kInterrupted = 130
};

struct FlashOptions {
  UdsLinkOptions link;
  std::string file;
  std::string key_routine;  // empty: rotate7
  std::string erase_routine = "FF00", check_routine = "0202";
  bool verify = false;
};

volatile std::sig_atomic_t interrupted = 0;

void be_append(std::vector<uint8_t>& out, uint32_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
}

class Flasher {
 public:
  Flasher(UdsLink& link, const FlashOptions& o, UdsKeyRoutine key)
      : link_(link), o_(o), key_(key) {}
  int run(const ImageSegments& image);

 private:
  bool step(const char* what, const std::vector<uint8_t>& request, int refusal_exit,
            UdsReply* reply = nullptr);
  bool unlock();
  bool download(const HEXFILE_SEGMENT& seg, Progress& progress, uint64_t& done);
  bool check(const HEXFILE_SEGMENT& seg);
  bool read_back(const HEXFILE_SEGMENT& seg);
  bool stopped();

  UdsLink& link_;
  const FlashOptions& o_;
  UdsKeyRoutine key_;
  int exit_ = kDone;
  bool programming_ = false;  // in the programming session: an abort leaves it for the default
  uint32_t max_block_ = 0;    // the last download's maxNumberOfBlockLength
};

// Sends one request of the workflow; on a refusal or silence prints why and keeps the exit code
// (a refusal: `refusal_exit`; no response: 1). A refusal once programming has begun may come from
// an ECU that reset: its session is asked and told.
bool Flasher::step(const char* what, const std::vector<uint8_t>& request, int refusal_exit,
                   UdsReply* out) {
  UdsReply reply = link_.request(request);
  if (out) *out = reply;
  if (reply.positive()) return true;
  std::fprintf(stderr, "%s: %s\n", what, UdsLink::describe(reply).c_str());
  exit_ = reply.transport < 0 ? kTransport : refusal_exit;
  if (programming_ && reply.transport == 0) {
    const UdsReply session = link_.request({0x22, 0xF1, 0x86});
    if (session.positive() && session.bytes.size() == 4 && session.bytes[3] != 0x02) {
      std::fprintf(stderr,
                   "the ECU is no longer in its programming session (now %02X): it reset "
                   "or dropped the session\n",
                   session.bytes[3]);
      programming_ = false;
    }
  }
  return false;
}

// Seed and key; a seed of zeros means the ECU is unlocked already.
bool Flasher::unlock() {
  UdsReply seed;
  if (!step("security access (seed)", {0x27, 0x01}, kRefusedAccess, &seed)) return false;
  if (seed.bytes.size() < 3) {
    std::fprintf(stderr, "security access: the ECU sent no seed\n");
    return (exit_ = kRefusedAccess), false;
  }
  const std::vector<uint8_t> s(seed.bytes.begin() + 2, seed.bytes.end());
  if (std::all_of(s.begin(), s.end(), [](uint8_t b) { return b == 0; })) return true;
  uint8_t key[64];
  const int n = key_(s.data(), int(s.size()), key, int(sizeof key));
  if (n <= 0 || n > int(sizeof key)) {
    std::fprintf(stderr, "security access: the key routine has no key for a %zu-byte seed\n",
                 s.size());
    return (exit_ = kRefusedAccess), false;
  }
  std::vector<uint8_t> request{0x27, 0x02};
  request.insert(request.end(), key, key + n);
  return step("security access (key)", request, kRefusedAccess);
}

bool Flasher::stopped() {
  if (!interrupted) return false;
  std::fprintf(stderr, "\ninterrupted: ");
  if (programming_) {
    const UdsReply reply = link_.request({0x10, 0x01});
    std::fprintf(
        stderr, "%s\n",
        reply.positive()
            ? "the ECU is back in its default session; its flash is "
              "partly written: flash it again"
            : ("the ECU did not take the default session: " + UdsLink::describe(reply)).c_str());
  } else {
    std::fprintf(stderr, "nothing was written\n");
  }
  exit_ = kInterrupted;
  return true;
}

bool Flasher::download(const HEXFILE_SEGMENT& seg, Progress& progress, uint64_t& done) {
  std::vector<uint8_t> request{0x34, 0x00, 0x44};  // no compression or encryption; 4 + 4 bytes
  be_append(request, seg.StartAddr, 4);
  be_append(request, seg.DataLen, 4);
  UdsReply reply;
  if (!step("request download", request, kRefusedWrite, &reply)) return false;
  // 74, lengthFormatIdentifier (byte count in the high nibble), maxNumberOfBlockLength
  const auto& r = reply.bytes;
  const size_t length_bytes = r.size() >= 2 ? r[1] >> 4 : 0;
  max_block_ = 0;
  for (size_t i = 0;
       length_bytes >= 1 && length_bytes <= 4 && r.size() == 2 + length_bytes && i < length_bytes;
       ++i)
    max_block_ = max_block_ << 8 | r[2 + i];
  if (max_block_ < 3) {
    std::fprintf(stderr, "request download: an answer without a usable block length: %s\n",
                 UdsLink::describe(reply).c_str());
    return (exit_ = kRefusedWrite), false;
  }
  const uint32_t per_block = std::min<uint32_t>(max_block_ - 2, 0xFFFF);
  uint8_t counter = 1;
  for (uint32_t at = 0; at < seg.DataLen; at += per_block, ++counter) {  // FF wraps to 00
    if (stopped()) return false;
    const uint32_t n = std::min(per_block, seg.DataLen - at);
    std::vector<uint8_t> block{0x36, counter};
    block.insert(block.end(), seg.pData + at, seg.pData + at + n);
    if (!step("transfer data", block, kRefusedWrite, &reply)) return false;
    if (reply.bytes.size() < 2 || reply.bytes[1] != counter) {
      std::fprintf(stderr, "transfer data: block %02X answered for block %02X\n", counter,
                   reply.bytes.size() < 2 ? 0 : reply.bytes[1]);
      return (exit_ = kRefusedWrite), false;
    }
    progress.at(done += n);
  }
  return step("request transfer exit", {0x37}, kRefusedWrite);
}

bool Flasher::check(const HEXFILE_SEGMENT& seg) {
  const uint16_t routine = uint16_t(std::stoul(o_.check_routine, nullptr, 16));
  std::vector<uint8_t> request{0x31, 0x01, uint8_t(routine >> 8), uint8_t(routine)};
  be_append(request, seg.StartAddr, 4);
  be_append(request, seg.DataLen, 4);
  UdsReply reply;
  if (!step("check routine", request, kRefusedWrite, &reply)) return false;
  const auto& r = reply.bytes;
  const uint32_t expected = image_crc32(seg.pData, seg.DataLen);
  if (r.size() != 8) {
    std::fprintf(stderr, "check routine: no CRC-32 in its answer %s\n",
                 UdsLink::describe(reply).c_str());
    return (exit_ = kMismatch), false;
  }
  const uint32_t got = uint32_t(r[4]) << 24 | uint32_t(r[5]) << 16 | uint32_t(r[6]) << 8 | r[7];
  if (got == expected) return true;
  std::fprintf(stderr, "check routine at 0x%08X: the ECU's CRC-32 is %08X, the image's %08X\n",
               seg.StartAddr, got, expected);
  return (exit_ = kMismatch), false;
}

// 23 with 4-byte address and size, in pieces no longer than the ECU's block length.
bool Flasher::read_back(const HEXFILE_SEGMENT& seg) {
  const uint32_t piece = std::max<uint32_t>(1, std::min<uint32_t>(max_block_ - 2, 0xFFF));
  for (uint32_t at = 0; at < seg.DataLen; at += piece) {
    if (stopped()) return false;
    const uint32_t n = std::min(piece, seg.DataLen - at);
    std::vector<uint8_t> request{0x23, 0x44};
    be_append(request, seg.StartAddr + at, 4);
    be_append(request, n, 4);
    UdsReply reply;
    if (!step("read memory by address", request, kRefusedWrite, &reply)) return false;
    if (reply.bytes.size() != 1 + n) {
      std::fprintf(stderr, "read memory by address: %zu bytes for %u asked\n",
                   reply.bytes.size() - 1, n);
      return (exit_ = kMismatch), false;
    }
    for (uint32_t i = 0; i < n; ++i)
      if (reply.bytes[1 + i] != seg.pData[at + i]) {
        std::fprintf(stderr, "verify: 0x%08X reads %02X, the image has %02X\n",
                     seg.StartAddr + at + i, reply.bytes[1 + i], seg.pData[at + i]);
        return (exit_ = kMismatch), false;
      }
  }
  return true;
}

int Flasher::run(const ImageSegments& image) {
  uint64_t total = 0, done = 0;
  for (int i = 0; i < image.count; ++i) total += image.array[size_t(i)].DataLen;
  if (!step("extended session", {0x10, 0x03}, kRefusedAccess) || !unlock()) return exit_;
  if (stopped()) return exit_;
  if (!step("programming session", {0x10, 0x02}, kRefusedAccess)) return exit_;
  programming_ = true;
  if (!unlock()) return exit_;  // an ECU that locks on the session change asks again
  const uint16_t erase_id = uint16_t(std::stoul(o_.erase_routine, nullptr, 16));
  // every segment erased before any is written: erasing is by sector, which two segments may share
  for (int i = 0; i < image.count; ++i) {
    const HEXFILE_SEGMENT& seg = image.array[size_t(i)];
    std::vector<uint8_t> request{0x31, 0x01, uint8_t(erase_id >> 8), uint8_t(erase_id)};
    be_append(request, seg.StartAddr, 4);
    be_append(request, seg.DataLen, 4);
    std::fprintf(stderr, "erasing 0x%08X, %u bytes\n", seg.StartAddr, seg.DataLen);
    if (stopped() || !step("erase routine", request, kRefusedWrite)) return exit_;
  }
  Progress progress("writing", total);
  for (int i = 0; i < image.count; ++i) {
    const HEXFILE_SEGMENT& seg = image.array[size_t(i)];
    if (!download(seg, progress, done) || !check(seg)) return exit_;
  }
  std::printf("Wrote %llu bytes in %d segment(s); the ECU's CRC-32 matches.\n",
              static_cast<unsigned long long>(total), image.count);
  if (o_.verify) {
    for (int i = 0; i < image.count; ++i)
      if (!read_back(image.array[size_t(i)])) return exit_;
    std::printf("Read back %llu bytes: VERIFIED.\n", static_cast<unsigned long long>(total));
  }
  if (!step("ECU reset", {0x11, 0x01}, kRefusedWrite)) return exit_;
  programming_ = false;
  return kDone;
}

void run_flash(const FlashOptions& o) {
  std::string why;
  const UdsKeyRoutine key = find_uds_key_routine(o.key_routine, why);
  if (!key) {
    std::fprintf(stderr, "--key-routine: %s\n", why.c_str());
    exit_code() = kUsage;
    return;
  }
  ImageSegments image;
  if (!read_image(o.file, image)) {
    exit_code() = kUsage;
    return;
  }
  auto link = UdsLink::open(o.link);
  if (!link) return;
  interrupted = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  struct sigaction previous {};
  sigaction(SIGINT, &action, &previous);
  Flasher flasher(*link, o, key);
  exit_code() = flasher.run(image);
  sigaction(SIGINT, &previous, nullptr);
}

CLI::Validator routine_validator() {
  return CLI::Validator(
      [](std::string& text) {
        const bool ok = !text.empty() && text.size() <= 4 &&
                        text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        return ok ? std::string() : "expected a routine identifier in hex (FF00), got " + text;
      },
      "ROUTINE");
}

}  // namespace

void add_uds_flash_command(CLI::App* uds) {
  auto o = std::make_shared<FlashOptions>();
  CLI::App* flash = uds->add_subcommand("flash", "reprogram an ECU with an image file");
  add_uds_link_options(flash, o->link);
  flash->add_option("FILE", o->file, "Intel HEX, S-records or text with addresses")->required();
  flash->add_option("--key-routine", o->key_routine,
                    "security access key routine: rotate7 (the default), xor, or LIB.so:FUNCTION "
                    "(int FUNCTION(const uint8_t* seed, int seed_length, uint8_t* key, "
                    "int key_size), the key's length)");
  flash->add_option("--erase-routine", o->erase_routine, "erase routine (hex, default FF00)")
      ->check(routine_validator());
  flash->add_option("--check-routine", o->check_routine, "check routine (hex, default 0202)")
      ->check(routine_validator());
  flash->add_flag("--verify", o->verify, "read the image back (23) and compare");
  flash->callback([o] { run_flash(*o); });
}

}  // namespace varnel_cli
