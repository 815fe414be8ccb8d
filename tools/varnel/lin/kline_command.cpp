// `varnel kline`: KWP2000 diagnostics on a channel's K-line.
//   varnel kline TARGET --fast | --5baud ADDR [--baud 10400] [--tgt 10] [--src F1]
//                [--no-addresses] [--p4 MS] [-t MS] REQUEST...
// TARGET is HANDLE:CHANNEL (0..7). The channel is woken with the fast-init pattern and
// StartCommunication (81), or with an address sent at 5 baud; then each request (SID and data in
// hex: 1A90) goes out as a KWP2000 frame with target and source addresses (Fmt 80 + length), or
// without them (--no-addresses). Each response is printed in hex (SID and data), a negative one
// with its code's name; "response pending" answers are waited through.
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "diag/uds_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct KlineOptions {
  std::string target, five_baud;
  bool fast = false, no_addresses = false;
  uint32_t baud = 10400;
  std::string tgt = "10", src = "F1";
  int p4_ms = 5, timeout_ms = 1000;
  std::vector<std::string> requests;
};

constexpr ResultMeaning kKlineResults[] = {
    {-5, "no response before the time-out"},
    {-6, "a wrong sync byte or inverted address, or an incomplete response"},
    {-7, "the echo of what was sent was missing or different"},
    {-8, "the response's checksum does not match"},
    {KWP_ERR_UNKNOWN_HANDLE, "the adapter is not open"},
};
constexpr uint8_t kStartCommunication = 0x81;

// One byte in hex, "33" or "0x33" alike.
std::optional<uint8_t> parse_hex_byte(std::string text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.erase(0, 2);
  auto bytes = parse_hex_bytes(text.size() % 2 ? "0" + text : text);
  if (!bytes || bytes->size() != 1) return std::nullopt;
  return (*bytes)[0];
}

uint8_t hex_byte(const std::string& text) {
  return parse_hex_byte(text).value_or(0);
}

// A request record: SID and data with the addresses, the length in Fmt up to 63, else in Len.
KWP_MSG request_record(const KlineOptions& o, const std::vector<uint8_t>& message) {
  KWP_MSG m{};
  const size_t length = std::min<size_t>(message.size(), 1 + VARNEL_KLINE_DATA_SIZE);
  m.Fmt = uint8_t((o.no_addresses ? 0x00 : 0x80) | (length <= 63 ? length : 0));
  m.Tgt = hex_byte(o.tgt);
  m.Src = hex_byte(o.src);
  m.Len = uint8_t(length);
  m.SID = message[0];
  std::memcpy(m.Data, message.data() + 1, length - 1);
  m.P4 = uint8_t(o.p4_ms);
  return m;
}

// SID and data of a response record (Len counts both; the checksum follows the data).
int response_bytes(const KWP_MSG& m, uint8_t* out, uint32_t size) {
  if (m.Len == 0 || size < m.Len) return -6;
  out[0] = m.SID;
  std::memcpy(out + 1, m.Data, size_t(m.Len - 1));
  return m.Len;
}

bool failed(const char* call, int rc) {
  return call_failed(call, rc, kKlineResults, true);
}

bool wake(const KlineOptions& o, uint32_t handle, uint8_t ch) {
  if (!o.fast) {
    KWP_MSG m{};
    m.Tgt = hex_byte(o.five_baud);
    if (failed("KWP_5BaudInit", KWP_5BaudInit(handle, ch, o.baud, &m, o.timeout_ms))) return false;
    std::printf("5-baud init %02X: sync %02X, key bytes %02X %02X\n", m.Tgt, m.Data[0], m.Data[1],
                m.Data[2]);
    return true;
  }
  KWP_MSG init{}, response{};
  KWP_MSG request = request_record(o, {kStartCommunication});
  const int rc =
      KWP_FastInit(handle, ch, o.baud, &init, &request, &response, uint32_t(o.timeout_ms));
  if (failed("KWP_FastInit", rc)) return false;
  uint8_t bytes[256];
  const int n = response_bytes(response, bytes, sizeof bytes);
  std::printf("fast init: %s\n", hex_line(bytes, n).c_str());
  if (response.SID == 0xC1) return true;
  std::fprintf(stderr, "StartCommunication was not answered positively\n");
  exit_code() = 1;
  return false;
}

void run_kline(const KlineOptions& o) {
  const auto requests = parse_requests(o.requests);
  if (!requests) {
    exit_code() = 2;
    return;
  }
  ChannelTarget target;
  parse_channel_target(o.target, VARNEL_LIN_MAX_CHANNELS, false, target);
  run_channel_session(
      {}, target,
      [&o](const ChannelTarget& t) {
        return wake(o, t.handle, t.channel) ? CallResult() : CallResult::reported();
      },
      [&](const ChannelTarget& t) {
        for (const auto& message : *requests) {
          KWP_MSG request = request_record(o, message);
          if (failed("KWP_Request", KWP_Request(t.handle, t.channel, &request))) break;
          const bool ok = print_final_response(
              [&](uint8_t* out, uint32_t size, int wait_ms) {
                KWP_MSG response{};
                const int rc = KWP_Response(t.handle, t.channel, &response, uint32_t(wait_ms));
                return rc != 0 ? rc : response_bytes(response, out, size);
              },
              o.timeout_ms, kKlineResults);
          if (!ok) exit_code() = 1;
        }
        return 0;
      });
}

CLI::Validator hex_byte_check(const char* name) {
  return CLI::Validator(
      [=](std::string& text) {
        return parse_hex_byte(text) ? std::string()
                                    : std::string("expected one byte in hex for ") + name;
      },
      "BYTE");
}

void add_kline_commands(CLI::App& app) {
  auto o = std::make_shared<KlineOptions>();
  CLI::App* kline = app.add_subcommand("kline", "KWP2000 requests on a channel's K-line");
  kline->add_option("TARGET", o->target, "HANDLE:CHANNEL, channel 0..7")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            ChannelTarget target;
            return parse_channel_target(text, VARNEL_LIN_MAX_CHANNELS, false, target)
                       ? std::string()
                       : "expected HANDLE:CHANNEL (0..7)";
          },
          "HANDLE:CHANNEL"));
  auto* fast = kline->add_flag("--fast", o->fast, "wake the unit with the fast-init pattern");
  auto* slow =
      kline->add_option("--5baud", o->five_baud, "wake the unit with this address at 5 baud")
          ->check(hex_byte_check("--5baud"));
  fast->excludes(slow);
  kline->add_option("--baud", o->baud, "K-line baud rate (default 10400)");
  kline->add_option("--tgt", o->tgt, "target address in hex (default 10)")
      ->check(hex_byte_check("--tgt"));
  kline->add_option("--src", o->src, "source (tester) address in hex (default F1)")
      ->check(hex_byte_check("--src"));
  kline->add_flag("--no-addresses", o->no_addresses, "frames without target and source");
  kline->add_option("--p4", o->p4_ms, "ms between the bytes of a request (default 5)")
      ->check(CLI::Range(0, 255));
  kline->add_option("-t,--timeout", o->timeout_ms, "ms to wait for each response (default 1000)")
      ->check(CLI::Range(1, 600000));
  kline->add_option("REQUESTS", o->requests, "requests in hex, SID and data: 1A90");
  kline->callback([o] {
    if (!o->fast && o->five_baud.empty()) {
      std::fprintf(stderr, "give --fast or --5baud ADDR\n");
      exit_code() = 2;
      return;
    }
    run_kline(*o);
  });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_kline_commands)

}  // namespace varnel_cli
