// The monitor's channels of the other families: LIN frames (the channel listening as a slave,
// LIN_EX_GetMsg), bytes a UART channel received (UART_ReadBytes) and the KWP2000 frames on a
// K-line (its UART's bytes cut into frames by their format byte). Named as the page names them:
//   linN, uartN, klineN       channel N % 8 of the (N / 8)-th adapter in scan order (the library
//                             numbers 8 channels of each family per adapter)
//   lin:HANDLE:CH, uart:..., kline:...   a channel of an adapter named directly
// each optionally with @BAUD (lin0@9600; defaults 19200, 115200 and 10400).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "monitor/kline_framer.h"
#include "varnel.h"

namespace varnel_cli::monitor {

enum class Family { kLin, kUart, kKline };
const char* family_word(Family family);  // "lin", "uart", "kline" (family_view.cpp)

struct FamilyChannelName {
  Family family = Family::kLin;
  bool numbered = false;
  unsigned index = 0;  // linN's N
  uint32_t handle = 0;
  uint8_t channel = 0;
  uint32_t baud = 0;
};
// nullopt for a name of no family here (a CAN channel, or a typo: `why` says which).
std::optional<FamilyChannelName> parse_family_channel_name(std::string_view text,
                                                           std::string* why = nullptr);
bool looks_like_family_channel(std::string_view text);

struct FamilyChannelInfo {
  Family family = Family::kLin;
  std::string name;  // as the user gave it, without @BAUD
  uint32_t handle = 0;
  uint8_t channel = 0;
  uint32_t baud = 0;
};

// What one poll brought.
struct FamilyBatch {
  struct Lin {
    size_t channel;
    uint64_t at_us;
    LIN_EX_MSG msg;
  };
  struct Bytes {
    size_t channel;
    uint64_t at_us;
    std::vector<uint8_t> bytes;
  };
  struct Kline {
    size_t channel;
    KlineFrame frame;
  };
  std::vector<Lin> lin;
  std::vector<Bytes> uart;
  std::vector<Kline> kline;
  bool empty() const { return lin.empty() && uart.empty() && kline.empty(); }
};

class FamilySource {
 public:
  // Opens the channels (LIN as a listening slave, UART 8N1, K-line through K_Init); nullptr,
  // having printed why, when one cannot be had. An empty list gives a source without channels.
  static std::unique_ptr<FamilySource> open(const std::vector<FamilyChannelName>& names,
                                            const std::vector<std::string>& texts);
  ~FamilySource();

  const std::vector<FamilyChannelInfo>& channels() const { return info_; }
  // Polls the adapters at most every 10 ms (each poll is a transaction with the adapter); false
  // with `message` when a channel's read failed.
  bool fetch(FamilyBatch& out, std::string& message);
  void close();

 private:
  FamilySource() = default;
  std::vector<FamilyChannelInfo> info_;
  std::vector<KlineFramer> framers_;  // one per channel (used by K-line channels)
  std::vector<int64_t> lin_start_ms_;
  std::chrono::steady_clock::time_point next_poll_{};
  bool failed_ = false;
};

}  // namespace varnel_cli::monitor
