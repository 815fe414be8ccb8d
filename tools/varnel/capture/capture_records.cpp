#include "capture/capture_records.h"

#include <algorithm>
#include <cstring>

namespace varnel_cli::capture {
namespace {

void put_be32(uint8_t* at, uint32_t value) {
  at[0] = uint8_t(value >> 24);
  at[1] = uint8_t(value >> 16);
  at[2] = uint8_t(value >> 8);
  at[3] = uint8_t(value);
}

uint32_t be32(const uint8_t* at) {
  return uint32_t(at[0]) << 24 | uint32_t(at[1]) << 16 | uint32_t(at[2]) << 8 | at[3];
}

// The library's record keeps extended and remote in bits 31 and 30 as SocketCAN does; only the
// identifier's width differs (11 bits unless extended).
uint32_t socketcan_id(uint32_t id) {
  const bool extended = id & 0x80000000u;
  return (id & (extended ? 0x1FFFFFFFu : 0x7FFu)) | (extended ? kCanExtendedFlag : 0) |
         (id & 0x40000000u ? kCanRemoteFlag : 0);
}

Packet header_and_data(uint32_t id, uint8_t length, uint8_t fd_flags, const uint8_t* data,
                       size_t padded) {
  Packet p;
  std::memset(p.bytes, 0, padded);
  put_be32(p.bytes, id);
  p.bytes[4] = length;
  p.bytes[5] = fd_flags;
  std::memcpy(p.bytes + kSocketCanHeader, data, length);
  p.size = padded;
  return p;
}

}  // namespace

Packet socketcan_packet(const CANFD_MSG& frame) {
  const bool fd = frame.Flags & 0x04;
  const uint8_t length = std::min<uint8_t>(frame.DataLen, fd ? 64 : 8);
  // SocketCAN's remote frames carry their length code but no data
  const bool remote = frame.Id & 0x40000000u;
  uint8_t fd_flags = 0;
  if (fd)
    fd_flags =
        kCanFdFdf | (frame.Flags & 0x01 ? kCanFdBrs : 0) | (frame.Flags & 0x02 ? kCanFdEsi : 0);
  static constexpr uint8_t kNoData[64] = {};
  return header_and_data(socketcan_id(frame.Id), length, fd_flags, remote ? kNoData : frame.Data,
                         fd ? kFdPacketSize : kClassicPacketSize);
}

ErrorFrame error_frame_from_event(const CANFD_MSG& event) {
  constexpr uint32_t kController = 0x04, kBusOff = 0x40, kCounters = 0x200;
  constexpr uint8_t kRxWarning = 0x04, kTxWarning = 0x08, kRxPassive = 0x10, kTxPassive = 0x20;
  const uint8_t tec = event.Data[1], rec = event.Data[2];
  ErrorFrame e;
  e.id = kCanErrorFlag | kController | kCounters | ((event.Data[3] & 4) ? kBusOff : 0);
  // the controller's limits: warning at 96 errors, passive at 128
  e.data[1] = uint8_t((rec >= 96 ? kRxWarning : 0) | (tec >= 96 ? kTxWarning : 0) |
                      (rec >= 128 ? kRxPassive : 0) | (tec >= 128 ? kTxPassive : 0));
  e.data[6] = tec;
  e.data[7] = rec;
  return e;
}

Packet socketcan_error_packet(const CANFD_MSG& event) {
  const ErrorFrame e = error_frame_from_event(event);
  return header_and_data(e.id, 8, 0, e.data, kClassicPacketSize);
}

uint8_t lin_protected_id(uint8_t id) {
  auto bit = [id](int n) { return (id >> n) & 1; };
  const int p0 = bit(0) ^ bit(1) ^ bit(2) ^ bit(4);
  const int p1 = 1 ^ bit(1) ^ bit(3) ^ bit(4) ^ bit(5);
  return uint8_t((id & 0x3F) | p0 << 6 | p1 << 7);
}

Packet lin_packet(const LIN_EX_MSG& frame) {
  constexpr uint8_t kRevision = 1, kFrame = 0;
  constexpr uint8_t kNoSlaveResponse = 0x01, kChecksumError = 0x08;
  constexpr uint8_t kUnknown = 0, kClassic = 1, kEnhanced = 2;
  Packet p;
  if (frame.MsgType == LIN_EX_MSG_TYPE_BK) return p;  // a break alone is not a frame
  const uint8_t length = std::min<uint8_t>(frame.DataLen, 8);
  const uint8_t checksum_type = frame.CheckType == LIN_EX_CHECK_STD   ? kClassic
                                : frame.CheckType == LIN_EX_CHECK_EXT ? kEnhanced
                                                                      : kUnknown;
  uint8_t errors = 0;
  if (length == 0) errors |= kNoSlaveResponse;
  if (frame.CheckType == LIN_EX_CHECK_ERROR) errors |= kChecksumError;
  std::memset(p.bytes, 0, kLinHeader);
  p.bytes[0] = kRevision;
  p.bytes[4] = uint8_t(length << 4 | kFrame << 2 | checksum_type);
  p.bytes[5] = lin_protected_id(frame.PID);
  p.bytes[6] = length ? frame.Check : 0;
  p.bytes[7] = errors;
  std::memcpy(p.bytes + kLinHeader, frame.Data, length);
  p.size = kLinHeader + length;
  return p;
}

std::optional<DecodedCan> decode_socketcan(std::span<const uint8_t> packet) {
  if (packet.size() < kSocketCanHeader) return std::nullopt;
  const uint32_t id = be32(packet.data());
  const uint8_t length = packet[4], fd_flags = packet[5];
  // CAN FD by its flag or, from writers that leave it out, by the size of a canfd_frame
  const bool fd = (fd_flags & kCanFdFdf) || packet.size() == kFdPacketSize;
  const bool error = id & kCanErrorFlag;
  if (length > (fd ? 64 : 8) || packet.size() < kSocketCanHeader + length) return std::nullopt;
  DecodedCan out;
  out.error = error;
  CANFD_MSG& f = out.frame;
  if (error) {
    f.Id = id;
  } else {
    const bool extended = id & kCanExtendedFlag;
    f.Id = (id & (extended ? 0x1FFFFFFFu : 0x7FFu)) | (extended ? 0x80000000u : 0) |
           (id & kCanRemoteFlag ? 0x40000000u : 0);
  }
  f.DataLen = length;
  if (fd)
    f.Flags = uint8_t(0x04 | (fd_flags & kCanFdBrs ? 0x01 : 0) | (fd_flags & kCanFdEsi ? 0x02 : 0));
  std::memcpy(f.Data, packet.data() + kSocketCanHeader, length);
  return out;
}

std::optional<DecodedLin> decode_lin(std::span<const uint8_t> packet) {
  if (packet.size() < kLinHeader || packet[0] != 1) return std::nullopt;
  DecodedLin out;
  out.length = packet[4] >> 4;
  if ((packet[4] >> 2 & 3) != 0) return std::nullopt;  // an event, not a frame
  if (out.length > 8 || packet.size() < kLinHeader + out.length) return std::nullopt;
  out.checksum_type = packet[4] & 3;
  out.pid = packet[5];
  out.checksum = packet[6];
  out.errors = packet[7];
  std::memcpy(out.data, packet.data() + kLinHeader, out.length);
  return out;
}

}  // namespace varnel_cli::capture
