// varnel uds CHANNEL TXID RXID REQUEST...   diagnostic requests over ISO-TP, one response line each
//
// Each REQUEST is hex (22F190, 22.F1.90 or "22 F1 90"); its response is printed in hex, a
// negative response with its code's name: 7F 22 31 (requestOutOfRange). "Response pending"
// answers (7F xx 78) are reported on stderr and waited through. A negative or missing response
// does not stop the list; a request that cannot be sent does. Exit code 1 when any request failed
// or was answered negatively. Flow control is read as ISO 15765-2 reads it unless
// --no-iso-timing asks for the adapter's own reading.
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "can/can_channel.h"
#include "core/adapter.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "diag/uds_client.h"
#include "diag/uds_text.h"
#include "diag/uds_workflows.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct UdsOptions {
  std::string target;
  std::string tx_text, rx_text;
  std::vector<std::string> requests;
  std::string ext_addr;  // hex, as isotpsend -x takes it; empty: normal addressing
  bool fd = false, brs = false;
  bool iso_timing = true;
  int timeout_ms = 1000;
  CanRates rates;
};

enum class Outcome { kAnswered, kRefused, kNotSent };

// One request and its final response: answered positively, refused or unanswered, or not sent.
Outcome exchange(const OpenCanChannel& ch, CAN_UDS_ADDR& addr, std::vector<uint8_t> request,
                 int timeout_ms) {
  const int sent =
      CAN_UDS_Request(ch.handle, ch.channel, &addr, request.data(), int32_t(request.size()));
  if (sent != 0) {
    std::fprintf(stderr, "CAN_UDS_Request: %s\n", describe_result(sent, uds_results()).c_str());
    return Outcome::kNotSent;
  }
  const bool answered = print_final_response(
      [&](uint8_t* out, uint32_t size, int wait_ms) {
        return VARNEL_CAN_UDS_ResponseN(ch.handle, ch.channel, &addr, out, size, wait_ms);
      },
      timeout_ms, uds_results());
  return answered ? Outcome::kAnswered : Outcome::kRefused;
}

// Every request in turn on an open channel; failures are told as they come.
CallResult run_requests(const OpenCanChannel& ch, const UdsOptions& o,
                        const std::vector<std::vector<uint8_t>>& requests) {
  const uint32_t tx = uint32_t(std::stoul(o.tx_text, nullptr, 16));
  const uint32_t rx = uint32_t(std::stoul(o.rx_text, nullptr, 16));
  // identifiers of eight digits are 29-bit, as cansend reads them
  const bool extended = o.tx_text.size() == 8 || tx > 0x7FF || rx > 0x7FF;
  const bool ext = !o.ext_addr.empty();
  CAN_UDS_ADDR addr{tx,
                    rx,
                    uint8_t((extended ? 0x01 : 0) | (o.fd ? 0x02 : 0) | (o.brs ? 0x06 : 0)),
                    uint8_t(ext ? 1 : 0),
                    uint8_t(ext ? std::stoul(o.ext_addr, nullptr, 16) : 0),
                    uint8_t(o.fd || o.brs ? 64 : 8)};
  VARNEL_CAN_UDS_SetIsoTiming(ch.handle, ch.channel, o.iso_timing ? 1 : 0);
  // No receive poller: without it the library fetches from the adapter whenever it waits for a
  // frame (every millisecond), where the poller would hold each flow control and answer back for
  // up to its 10 ms period, longer than many ECUs' P2 over a multi-frame exchange.
  for (const auto& request : requests) {
    const Outcome outcome = exchange(ch, addr, request, o.timeout_ms);
    if (outcome != Outcome::kAnswered) exit_code() = 1;
    if (outcome == Outcome::kNotSent) break;
  }
  return 0;
}

void run_uds(const UdsOptions& o) {
  const auto requests = parse_requests(o.requests);
  if (!requests) {
    exit_code() = 2;
    return;
  }
  run_can_session({}, o.target, o.rates,
                  [&](const OpenCanChannel& ch) { return run_requests(ch, o, *requests); });
}

void add_uds_commands(CLI::App& app) {
  auto o = std::make_shared<UdsOptions>();
  CLI::App* uds = app.add_subcommand(
      "uds", "diagnostic requests over ISO-TP: varnel uds can0 7E0 7E8 22F190 (response in hex)");
  // the workflows are subcommands; without one the arguments are the requests in hex
  add_uds_read_commands(uds);
  add_uds_flash_command(uds);
  auto* target = add_channel_argument(uds, o->target)->required(false);
  auto* txid = uds->add_option("TXID", o->tx_text, "identifier of the requests (hex)")
                   ->check(can_id_validator());
  auto* rxid = uds->add_option("RXID", o->rx_text, "identifier of the responses (hex)")
                   ->check(can_id_validator());
  auto* request = uds->add_option("REQUEST", o->requests, "requests in hex, sent in order");
  uds->add_option("-x,--ext-addr", o->ext_addr, "extended addressing with this address (hex)")
      ->check(CLI::Validator(
          [](std::string& text) {
            const bool ok = !text.empty() && text.size() <= 2 &&
                            text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
            return ok ? std::string() : "expected one byte in hex, got " + text;
          },
          "ADDR"));
  uds->add_flag("--fd", o->fd, "CAN FD frames of 64 bytes");
  uds->add_flag("--brs", o->brs, "CAN FD frames with the bit-rate switch");
  uds->add_flag("--iso-timing,!--no-iso-timing", o->iso_timing,
                "flow control as ISO 15765-2 reads it: STmin F1-F9 in 100 us, each wait frame "
                "restarts the wait (default on)");
  uds->add_option("-t,--timeout", o->timeout_ms, "ms to wait for a response (default 1000)")
      ->check(CLI::Range(1, 600000));
  uds->add_option("-b,--bitrate", o->rates.bitrate, "nominal bit rate (default 500000)");
  uds->add_option("--data-bitrate", o->rates.data_bitrate,
                  "CAN FD data bit rate (default 2000000)");
  uds->callback([=] {
    if (!uds->get_subcommands().empty()) return;
    for (const CLI::Option* required : {target, txid, rxid, request})
      if (required->count() == 0) throw CLI::RequiredError(required->get_name());
    run_uds(*o);
  });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_uds_commands)

}  // namespace varnel_cli
