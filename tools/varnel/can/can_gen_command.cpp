// varnel can gen CHANNEL [-n N] [-g MS] [-I ID] [-L N] [-D DATA] [-f|-b|-E] [-m] [-v]   frames
// as cangen makes them, with cangen's letters.
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "can/can_channel.h"
#include "core/command_group.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

// What `can gen` makes, in cangen's terms: each of identifier (-I), length (-L) and data (-D) is
// random ("r", the default), incrementing ("i") or fixed (hex identifier, decimal length, hex
// data); -f makes CAN FD frames, -b CAN FD frames with the bit-rate switch, -E CAN FD frames with
// the error state indicator, -e extended identifiers, -R remote frames; -m mixes them frame by
// frame (CAN FD only where the adapter has it). -v prints each frame sent.
struct GenOptions {
  int count = 10;
  int gap_ms = 200;
  std::string id = "r", len = "r", data = "r";
  bool fd = false, brs = false, esi = false, extended = false, remote = false, mix = false;
  int verbose = 0;
  bool any_fd() const { return fd || brs || esi; }
};

struct GenPlan {
  enum class Mode { kRandom, kIncrement, kFixed };
  Mode id = Mode::kRandom, len = Mode::kRandom, data = Mode::kRandom;
  uint32_t fixed_id = 0;
  int fixed_len = 0;
  std::vector<uint8_t> fixed_data;
};

using varnel::can_text::kFdLengths;

bool is_frame_length(int len, bool fd) {
  if (len >= 0 && len <= 8) return true;
  return fd && std::find(std::begin(kFdLengths), std::end(kFdLengths), len) != std::end(kFdLengths);
}

GenPlan::Mode mode_of(const std::string& text) {
  if (text == "r") return GenPlan::Mode::kRandom;
  if (text == "i") return GenPlan::Mode::kIncrement;
  return GenPlan::Mode::kFixed;
}

GenPlan checked_gen_plan(const GenOptions& o) {
  GenPlan plan;
  // a mix may make CAN FD frames, which take the longer lengths (its classic ones carry 8)
  const bool fd = o.any_fd() || o.mix;
  if (o.any_fd() && o.remote) throw CLI::ValidationError("-R", "CAN FD has no remote frames");
  plan.id = mode_of(o.id);
  plan.len = mode_of(o.len);
  plan.data = mode_of(o.data);
  if (plan.id == GenPlan::Mode::kFixed) {
    const auto id = varnel::can_text::parse_hex_number(o.id);
    if (!id) throw CLI::ValidationError("-I", "not r, i or a hex id");
    plan.fixed_id = *id;
    if (plan.fixed_id > 0x1FFFFFFF) throw CLI::ValidationError("-I", "identifier beyond 29 bits");
  }
  if (plan.len == GenPlan::Mode::kFixed) {
    char* end = nullptr;
    const long len = std::strtol(o.len.c_str(), &end, 10);
    if (o.len.empty() || *end != '\0' || !is_frame_length(int(len), fd))
      throw CLI::ValidationError(
          "-L", o.len + " is not a " + (fd ? "CAN FD" : "classic CAN") + " frame length");
    plan.fixed_len = int(len);
  }
  if (plan.data == GenPlan::Mode::kFixed) {
    auto bytes = varnel::can_text::parse_frame("0#" + o.data);
    if (!bytes) throw CLI::ValidationError("-D", "not r, i or hex data of at most 8 bytes");
    plan.fixed_data.assign(bytes->Data, bytes->Data + bytes->DataLen);
  }
  return plan;
}

// The frames' kinds, drawn per frame with -m: cangen's mix.
struct FrameKind {
  bool extended = false, fd = false, brs = false, esi = false, remote = false;
};

FrameKind frame_kind(const GenOptions& o, bool fd_channel, uint32_t random) {
  const bool mix = o.mix;
  FrameKind kind;
  kind.extended = o.extended || (mix && (random & 1));
  kind.fd = o.any_fd() || (mix && fd_channel && (random & 2));
  kind.brs = kind.fd && (o.brs || (mix && (random & 4)));
  kind.esi = kind.fd && (o.esi || (mix && (random & 8)));
  // a remote frame in every fourth classic frame of a mix, as cangen thins them out
  kind.remote = !kind.fd && (o.remote || (mix && (random & 0x30) == 0x30));
  return kind;
}

// Frame `i` of the generator. cangen's habits: a random length is never 0 (at least one data
// byte unless -L asks for none); with -D i the data is a counter of the frames sent before it,
// little-endian in the first eight bytes, and a frame carries at least one byte of it.
CANFD_MSG generated_frame(const GenPlan& plan, const FrameKind& kind, uint64_t i,
                          const std::function<uint32_t()>& random) {
  using Mode = GenPlan::Mode;
  const bool extended = kind.extended || plan.fixed_id > 0x7FF;
  const uint32_t id_mask = extended ? 0x1FFFFFFF : 0x7FF;
  CANFD_MSG f{};
  f.Id = plan.id == Mode::kFixed       ? plan.fixed_id
         : plan.id == Mode::kIncrement ? uint32_t(i) & id_mask
                                       : (random() >> 8) & id_mask;
  if (extended) f.Id |= 0x80000000u;
  if (kind.remote) f.Id |= 0x40000000u;
  const size_t lengths = kind.fd ? std::size(kFdLengths) : 9;
  int len = plan.len == Mode::kFixed       ? std::min(plan.fixed_len, kind.fd ? 64 : 8)
            : plan.len == Mode::kIncrement ? kFdLengths[i % lengths]
                                           : kFdLengths[1 + (random() >> 16) % (lengths - 1)];
  if (plan.data == Mode::kIncrement && len == 0) len = 1;
  f.DataLen = uint8_t(len);
  if (kind.fd) f.Flags = uint8_t(0x04 | (kind.brs ? 0x01 : 0) | (kind.esi ? 0x02 : 0));
  for (int b = 0; b < len; ++b) {
    if (plan.data == Mode::kFixed)
      f.Data[b] = plan.fixed_data[size_t(b) % plan.fixed_data.size()];
    else if (plan.data == Mode::kIncrement)
      f.Data[b] = b < 8 ? uint8_t(i >> (8 * b)) : 0;
    else
      f.Data[b] = uint8_t(random() >> 16);
  }
  return f;
}

// cangen -v: "  can0  123#11.22.33"; -vv the candump line; -vvv with the bytes as text.
void print_generated(const std::string& interface, const CANFD_MSG& f, int verbose) {
  if (verbose <= 0) return;
  const std::string text = verbose == 1 ? varnel::can_text::cansend_text(f, true)
                                        : varnel::can_text::candump_frame_text(f, verbose > 2);
  std::printf("  %s  %s\n", interface.c_str(), text.c_str());
  std::fflush(stdout);
}

void run_gen(const std::string& target, const CanRates& rates, const GenOptions& o) {
  const GenPlan plan = checked_gen_plan(o);
  run_can_session({}, target, rates, [&](const OpenCanChannel& c) -> CallResult {
    const bool fd_channel = is_fd_adapter(c.handle);
    uint32_t seed = 12345;
    const std::function<uint32_t()> random = [&] { return seed = seed * 1103515245u + 12345u; };
    for (uint64_t i = 0; o.count <= 0 || i < uint64_t(o.count); ++i) {
      const FrameKind kind = frame_kind(o, fd_channel, o.mix ? random() >> 16 : 0);
      std::vector<CANFD_MSG> one{generated_frame(plan, kind, i, random)};
      if (const CallResult sent = send_frames(c, one); sent.code < 0) return sent;
      print_generated(c.interface, one.front(), o.verbose);
      if (o.gap_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.gap_ms));
    }
    return 0;
  });
}

struct GenArguments {
  std::string target;
  CanRates rates;
};

}  // namespace

void add_can_gen_command(CLI::App* can) {
  auto gen_args = std::make_shared<GenArguments>();
  auto gen = can->add_subcommand("gen", "generate frames as cangen does");
  auto o = std::make_shared<GenOptions>();
  add_channel_argument(gen, gen_args->target);
  // cangen's letters: -b is its bit-rate switch, so the bit rate is --bitrate only here
  add_can_rates(gen, gen_args->rates, false);
  gen->add_option("-n,--count", o->count, "frames to send (0: until interrupted)");
  gen->add_option("-g,--gap", o->gap_ms, "milliseconds between frames (default 200)");
  gen->add_option("-I,--id", o->id, "identifier: r random, i increment, or hex");
  gen->add_option("-L,--len", o->len, "data length: r random (1 or more), i increment, or bytes");
  gen->add_option("-D,--data", o->data,
                  "data: r random, i a frame counter (little-endian), or hex bytes");
  gen->add_flag("-f,--fd", o->fd, "CAN FD frames");
  gen->add_flag("-b,--brs", o->brs, "CAN FD frames with the bit-rate switch");
  gen->add_flag("-E,--esi", o->esi, "CAN FD frames with the error state indicator");
  gen->add_flag("-e,--extended", o->extended, "29-bit identifiers");
  gen->add_flag("-R,--remote", o->remote, "remote frames");
  gen->add_flag("-m,--mix", o->mix,
                "mix classic, CAN FD (where the adapter has it), extended and remote frames");
  gen->add_flag("-v,--verbose", o->verbose,
                "print each frame sent (-v cansend syntax, -vv candump lines, -vvv with text)");
  gen->callback([gen_args, o] { run_gen(gen_args->target, gen_args->rates, *o); });
}

}  // namespace varnel_cli
