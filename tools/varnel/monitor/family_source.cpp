#include "monitor/family_source.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>

#include "capture/capture_file.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/result_text.h"
#include "core/sim_mode.h"

namespace varnel_cli::monitor {
namespace {

constexpr unsigned kChannelsPerAdapter = 8;  // LIN, UART and K-line channels 0..7
constexpr auto kPollInterval = std::chrono::milliseconds(10);

struct FamilyWord {
  Family family;
  std::string_view word;
  uint32_t default_baud;
};
constexpr FamilyWord kWords[] = {{Family::kKline, "kline", 10400},
                                 {Family::kLin, "lin", 19200},
                                 {Family::kUart, "uart", 115200}};

uint64_t host_now_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

bool all_digits(std::string_view text) {
  return !text.empty() && text.size() <= 9 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

bool looks_like_family_channel(std::string_view text) {
  for (const auto& w : kWords)
    if (text.substr(0, w.word.size()) == w.word) return true;
  return false;
}

std::optional<FamilyChannelName> parse_family_channel_name(std::string_view text,
                                                           std::string* why) {
  auto fail = [&](const char* reason) -> std::optional<FamilyChannelName> {
    if (why) *why = reason;
    return std::nullopt;
  };
  const FamilyWord* word = nullptr;
  for (const auto& w : kWords)
    if (text.substr(0, w.word.size()) == w.word) word = &w;
  if (!word) return fail("not a LIN, UART or K-line channel");
  FamilyChannelName name;
  name.family = word->family;
  name.baud = word->default_baud;
  std::string_view rest = text.substr(word->word.size());
  if (const size_t at = rest.find('@'); at != std::string_view::npos) {
    if (!all_digits(rest.substr(at + 1)) || std::stoul(std::string(rest.substr(at + 1))) < 110)
      return fail("the baud rate after @ is a whole number of 110 or more");
    name.baud = uint32_t(std::stoul(std::string(rest.substr(at + 1))));
    rest = rest.substr(0, at);
  }
  if (all_digits(rest)) {
    name.numbered = true;
    name.index = unsigned(std::stoul(std::string(rest)));
    return name;
  }
  ChannelTarget target;
  if (rest.empty() || rest[0] != ':' ||
      !parse_channel_target(std::string(rest.substr(1)), kChannelsPerAdapter, false, target))
    return fail("expected linN, lin:HANDLE:CH (the same for uart and kline), then @BAUD or not");
  name.handle = target.handle;
  name.channel = target.channel;
  return name;
}

// ---- the channels

std::unique_ptr<FamilySource> FamilySource::open(const std::vector<FamilyChannelName>& names,
                                                 const std::vector<std::string>& texts) {
  std::unique_ptr<FamilySource> source(new FamilySource());
  if (names.empty()) return source;
  if (!prepare_adapters()) return nullptr;
  std::vector<uint32_t> scanned;  // adapters in scan order, for linN
  if (std::any_of(names.begin(), names.end(), [](auto& n) { return n.numbered; }))
    for (const CanChannelId& id : scan_can_channels())
      if (scanned.empty() || scanned.back() != id.handle) scanned.push_back(id.handle);
  std::set<uint32_t> opened;
  for (size_t i = 0; i < names.size(); ++i) {
    const FamilyChannelName& n = names[i];
    FamilyChannelInfo info{n.family, texts[i].substr(0, texts[i].find('@')), n.handle, n.channel,
                           n.baud};
    if (n.numbered) {
      if (n.index / kChannelsPerAdapter >= scanned.size()) {
        std::fprintf(stderr, "monitor: %s: no such channel (%zu adapters found)\n",
                     texts[i].c_str(), scanned.size());
        return nullptr;
      }
      info.handle = scanned[n.index / kChannelsPerAdapter];
      info.channel = uint8_t(n.index % kChannelsPerAdapter);
    }
    if (!opened.count(info.handle)) {
      const bool ok = n.numbered ? open_found_adapter(info.handle) : open_adapter(info.handle);
      if (!ok) return nullptr;
      opened.insert(info.handle);
    }
    int rc = 0;
    const char* call = "";
    if (n.family == Family::kLin) {
      call = "LIN_EX_Init";
      rc = LIN_EX_Init(info.handle, info.channel, info.baud, 0);  // a slave hears every frame
    } else if (n.family == Family::kUart) {
      call = "UART_Init";
      UART_CONFIG config{info.baud, 0, 0, 0, 0};
      rc = UART_Init(info.handle, info.channel, &config);
    } else {
      call = "K_Init";
      rc = K_Init(info.handle, info.channel, info.baud);
    }
    source->info_.push_back(info);
    source->lin_start_ms_.push_back(
        n.family == Family::kLin ? LIN_EX_GetStartTime(info.handle, info.channel) : 0);
    source->framers_.emplace_back();
    if (rc != 0) {
      std::fprintf(stderr, "monitor: %s: %s: %s\n", texts[i].c_str(), call, result_text(rc));
      source->close();
      return nullptr;
    }
  }
  return source;
}

FamilySource::~FamilySource() {
  close();
}

bool FamilySource::fetch(FamilyBatch& out, std::string& message) {
  if (info_.empty() || failed_) return true;  // a failure is said once
  const auto now = std::chrono::steady_clock::now();
  if (now < next_poll_) return true;
  next_poll_ = now + kPollInterval;
  LIN_EX_MSG frames[256];
  uint8_t bytes[VARNEL_UART_READ_SIZE];
  for (size_t i = 0; i < info_.size(); ++i) {
    const FamilyChannelInfo& c = info_[i];
    const uint64_t at_us = host_now_us();
    if (c.family == Family::kLin) {
      const int n = LIN_EX_GetMsg(c.handle, c.channel, frames, 256);
      if (n < 0) {
        message = c.name + ": LIN_EX_GetMsg: " + result_text(n);
        failed_ = true;
        return false;
      }
      for (int k = 0; k < n; ++k)
        if (frames[k].MsgType != LIN_EX_MSG_TYPE_BK)  // a break alone is no frame
          out.lin.push_back(
              {i, capture::lin_host_us(lin_start_ms_[i], frames[k].TimeStamp), frames[k]});
      continue;
    }
    const int n = UART_ReadBytes(c.handle, c.channel, bytes, 0);  // one poll, no waiting
    if (n < 0) {
      message = c.name + ": UART_ReadBytes: " + result_text(n);
      failed_ = true;
      return false;
    }
    if (c.family == Family::kUart) {
      if (n > 0) out.uart.push_back({i, at_us, {bytes, bytes + n}});
      continue;
    }
    std::vector<KlineFrame> frames_out;
    if (n > 0)
      framers_[i].add(bytes, size_t(n), at_us, frames_out);
    else
      framers_[i].idle(at_us, frames_out);
    for (auto& f : frames_out) out.kline.push_back({i, std::move(f)});
  }
  return true;
}

void FamilySource::close() {
  std::set<uint32_t> handles;
  for (const FamilyChannelInfo& c : info_) {
    c.family == Family::kLin ? LIN_EX_Stop(c.handle, c.channel) : UART_Stop(c.handle, c.channel);
    handles.insert(c.handle);
  }
  for (uint32_t handle : handles) close_adapter(handle);
  info_.clear();
}

}  // namespace varnel_cli::monitor
