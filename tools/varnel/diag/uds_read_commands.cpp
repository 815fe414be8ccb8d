// varnel uds info CHANNEL TXID RXID          the identification identifiers, named and decoded
// varnel uds dtc CHANNEL TXID RXID [--clear] [--mask HEX]
//                                             trouble codes (19 02 MASK) as P0123-00 with their
//                                             status bits named, or cleared (14 FF FF FF)
// varnel uds read CHANNEL TXID RXID DID...   each identifier read (22), hex and ASCII
// Exit codes: 0 done, 1 no response or a refusal, 2 usage.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "diag/uds_client.h"
#include "diag/uds_workflows.h"

namespace varnel_cli {
namespace {

// What `info` asks for, in this order; an identifier the ECU does not know (31) is left out.
constexpr uint16_t kIdentification[] = {0xF186, 0xF187, 0xF188, 0xF189, 0xF18A,
                                        0xF18B, 0xF18C, 0xF190, 0xF191, 0xF192,
                                        0xF193, 0xF194, 0xF195, 0xF197, 0xF199};
constexpr uint8_t kRequestOutOfRange = 0x31;

// Dates are 3 bytes of BCD, year (20YY), month, day; sessions are named.
std::string decoded(uint16_t id, const std::vector<uint8_t>& v) {
  auto bcd = [](uint8_t b) { return (b >> 4) < 10 && (b & 0xF) < 10; };
  if ((id == 0xF18B || id == 0xF199) && v.size() == 3 && bcd(v[0]) && bcd(v[1]) && bcd(v[2])) {
    char text[16];
    std::snprintf(text, sizeof text, "20%02X-%02X-%02X", v[0], v[1], v[2]);
    return text;
  }
  if (id == 0xF186 && v.size() == 1) {
    static const char* const kSessions[] = {"", "default", "programming", "extended"};
    if (v[0] >= 1 && v[0] <= 3) return std::string(kSessions[v[0]]) + " session";
  }
  return {};
}

// One identifier read; the value, or nothing with the refusal in `reply`.
std::optional<std::vector<uint8_t>> read_did(UdsLink& link, uint16_t id, UdsReply& reply) {
  reply = link.request({0x22, uint8_t(id >> 8), uint8_t(id)});
  if (!reply.positive()) return std::nullopt;
  const auto& r = reply.bytes;
  if (r.size() < 3 || r[1] != uint8_t(id >> 8) || r[2] != uint8_t(id)) {
    reply.nrc = 0x10;  // an answer for another identifier: as good as a general reject
    return std::nullopt;
  }
  return std::vector<uint8_t>(r.begin() + 3, r.end());
}

void run_info(const UdsLinkOptions& o) {
  auto link = UdsLink::open(o);
  if (!link) return;
  int shown = 0;
  for (uint16_t id : kIdentification) {
    UdsReply reply;
    const auto value = read_did(*link, id, reply);
    if (reply.transport < 0) {
      std::fprintf(stderr, "%04X: %s\n", id, UdsLink::describe(reply).c_str());
      exit_code() = 1;
      return;
    }
    if (!value) {
      if (reply.nrc != kRequestOutOfRange)
        std::fprintf(stderr, "%04X: %s\n", id, UdsLink::describe(reply).c_str());
      continue;
    }
    const std::string meaning = decoded(id, *value);
    std::printf("%04X %-40s %s%s\n", id, did_name(id), value_text(*value).c_str(),
                meaning.empty() ? "" : (" (" + meaning + ")").c_str());
    ++shown;
  }
  if (shown == 0) exit_code() = 1;
}

struct DtcOptions {
  UdsLinkOptions link;
  bool clear = false;
  std::string mask = "FF";
};

void run_dtc(const DtcOptions& o) {
  auto link = UdsLink::open(o.link);
  if (!link) return;
  if (o.clear) {
    const UdsReply reply = link->request({0x14, 0xFF, 0xFF, 0xFF});
    if (!reply.positive()) {
      std::fprintf(stderr, "clear: %s\n", UdsLink::describe(reply).c_str());
      exit_code() = 1;
      return;
    }
    std::printf("trouble codes cleared\n");
    return;
  }
  const uint8_t mask = uint8_t(std::stoul(o.mask, nullptr, 16));
  const UdsReply reply = link->request({0x19, 0x02, mask});
  const auto& r = reply.bytes;
  // 59 02 availability mask, then 4 bytes a code: DTC high, middle, low, status
  if (!reply.positive() || r.size() < 3 || r[1] != 0x02 || (r.size() - 3) % 4 != 0) {
    std::fprintf(stderr, "dtc: %s\n",
                 reply.positive() ? "an answer not shaped as 59 02 mask (DTC status)..."
                                  : UdsLink::describe(reply).c_str());
    exit_code() = 1;
    return;
  }
  if (r.size() == 3) std::printf("no trouble codes (status mask %02X)\n", mask);
  for (size_t at = 3; at < r.size(); at += 4) {
    const uint32_t dtc = uint32_t(r[at]) << 16 | uint32_t(r[at + 1]) << 8 | r[at + 2];
    std::printf("%s  status %02X: %s\n", dtc_text(dtc).c_str(), r[at + 3],
                dtc_status_text(r[at + 3]).c_str());
  }
}

struct ReadOptions {
  UdsLinkOptions link;
  std::vector<std::string> ids;
};

void run_read(const ReadOptions& o) {
  auto link = UdsLink::open(o.link);
  if (!link) return;
  for (const std::string& text : o.ids) {
    const uint16_t id = uint16_t(std::stoul(text, nullptr, 16));
    UdsReply reply;
    const auto value = read_did(*link, id, reply);
    if (value) {
      std::printf("%04X: %s\n", id, value_text(*value).c_str());
      continue;
    }
    std::printf("%04X: %s\n", id, UdsLink::describe(reply).c_str());
    exit_code() = 1;
    if (reply.transport < 0) return;
  }
}

CLI::Validator hex_validator(size_t digits, const char* what) {
  return CLI::Validator(
      [digits, what](std::string& text) {
        if (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0) text = text.substr(2);
        const bool ok = !text.empty() && text.size() <= digits &&
                        text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        return ok ? std::string() : std::string("expected ") + what + " in hex, got " + text;
      },
      what);
}

}  // namespace

void add_uds_read_commands(CLI::App* uds) {
  auto info_options = std::make_shared<UdsLinkOptions>();
  CLI::App* info = uds->add_subcommand("info", "identification identifiers, named and decoded");
  add_uds_link_options(info, *info_options);
  info->callback([info_options] { run_info(*info_options); });

  auto dtc_options = std::make_shared<DtcOptions>();
  CLI::App* dtc = uds->add_subcommand("dtc", "trouble codes (19 02) with status bits; --clear");
  add_uds_link_options(dtc, dtc_options->link);
  dtc->add_flag("--clear", dtc_options->clear, "clear every trouble code (14 FF FF FF)");
  dtc->add_option("--mask", dtc_options->mask, "status mask in hex (default FF: all)")
      ->check(hex_validator(2, "a status mask"));
  dtc->callback([dtc_options] { run_dtc(*dtc_options); });

  auto read_options = std::make_shared<ReadOptions>();
  CLI::App* read = uds->add_subcommand("read", "data identifiers (22), hex and ASCII");
  add_uds_link_options(read, read_options->link);
  read->add_option("DID", read_options->ids, "data identifiers in hex (F190)")
      ->required()
      ->check(hex_validator(4, "a data identifier"));
  read->callback([read_options] { run_read(*read_options); });
}

}  // namespace varnel_cli
