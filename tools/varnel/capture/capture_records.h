// The packets a capture carries, as Wireshark and tcpdump read them:
//   - CAN and CAN FD frames with the SocketCAN header (link type 227): the identifier in network
//     byte order with the extended (bit 31), remote (bit 30) and error (bit 29) flags, the payload
//     length, the CAN FD flags (0x01 bit-rate switch, 0x02 error state indicator, 0x04 CAN FD
//     format), two reserved bytes, then the data, padded to the 8 or 64 bytes of Linux's
//     can_frame / canfd_frame so that a reader that tells the two apart by size reads it too;
//   - the adapter's error state events as SocketCAN error frames;
//   - LIN frames with the 8-byte LIN pseudo-header (link type 212).
// The same definitions decode what the reader finds (`varnel can play`, the monitor's replay).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "varnel.h"

namespace varnel_cli::capture {

constexpr uint16_t kLinkTypeSocketCan = 227;
constexpr uint16_t kLinkTypeLin = 212;  // LINKTYPE_LIN (254 is the Bluetooth monitor)

constexpr uint32_t kCanExtendedFlag = 0x80000000u;
constexpr uint32_t kCanRemoteFlag = 0x40000000u;
constexpr uint32_t kCanErrorFlag = 0x20000000u;
constexpr uint8_t kCanFdBrs = 0x01, kCanFdEsi = 0x02, kCanFdFdf = 0x04;
constexpr size_t kSocketCanHeader = 8;
constexpr size_t kClassicPacketSize = kSocketCanHeader + 8;  // struct can_frame
constexpr size_t kFdPacketSize = kSocketCanHeader + 64;      // struct canfd_frame
constexpr size_t kLinHeader = 8;
constexpr size_t kMaxPacketSize = kFdPacketSize;

// The largest packet any record below makes fits a fixed buffer: no allocation per frame.
struct Packet {
  uint8_t bytes[kMaxPacketSize];
  size_t size = 0;
  std::span<const uint8_t> view() const { return {bytes, size}; }
};

// A received CAN or CAN FD record (Flags bit 2 for CAN FD, bit 0 bit-rate switch, bit 1 error
// state indicator; Id bit 31 extended, bit 30 remote).
Packet socketcan_packet(const CANFD_MSG& frame);

// A CAN FD adapter's error state event (Data[1] transmit errors, Data[2] receive errors, Data[3]
// 1 warning, 2 passive, 4 bus off) as the error frame SocketCAN delivers for that change: a
// controller problem with the counters, the warning and passive bits for each direction in byte
// 1, bus-off when it is, the counters in bytes 6 and 7.
struct ErrorFrame {
  uint32_t id = 0;  // with the error flag
  uint8_t data[8] = {};
};
ErrorFrame error_frame_from_event(const CANFD_MSG& event);
Packet socketcan_error_packet(const CANFD_MSG& event);

// A LIN frame as the adapter reports it (LIN_EX_MSG): the protected identifier, the checksum and
// its verdict; a verdict of "matched neither sum" sets the checksum error bit, a header nobody
// answered (no data) the no-response bit.
Packet lin_packet(const LIN_EX_MSG& frame);

// Decoded SocketCAN packet: a CANFD_MSG as the library delivers it (time stamp fields left 0),
// and whether it was an error frame (then Id holds the error flag and class bits).
struct DecodedCan {
  CANFD_MSG frame{};
  bool error = false;
};
std::optional<DecodedCan> decode_socketcan(std::span<const uint8_t> packet);

struct DecodedLin {
  uint8_t pid = 0;  // protected identifier as on the bus
  uint8_t checksum = 0;
  uint8_t checksum_type = 0;  // 0 unknown, 1 classic, 2 enhanced
  uint8_t errors = 0;
  uint8_t length = 0;
  uint8_t data[8] = {};
};
std::optional<DecodedLin> decode_lin(std::span<const uint8_t> packet);

// The protected identifier of a 6-bit frame identifier (parity bits 6 and 7 as LIN defines).
uint8_t lin_protected_id(uint8_t id);

}  // namespace varnel_cli::capture
