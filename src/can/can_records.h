// CAN and CAN FD records inside the library: frame bit lengths and bus times, the conversions
// between the classic record and the CAN FD record, and the CAN FD adapters' device record format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "varnel.h"

namespace varnel::can {

constexpr int kChannels = 2;
constexpr uint32_t kFdEventId = 0xFFFFFFFFu;

// True for adapters with a CAN FD controller: handle top nibble 0x5.
inline bool is_fd_adapter(uint32_t handle) {
  return (handle & 0xF0000000u) == 0x50000000u;
}

// A classic record goes out with a 29-bit identifier when it asks for one or when the identifier
// does not fit in 11 bits.
inline bool needs_extended(const CAN_MSG& msg) {
  return (msg.Extended & 1) || (msg.Id & 0x1FFFFFFFu) > 0x7FF;
}

// Bits the frame occupies on the bus: start of frame to the end of frame, stuff bits and the
// 15-bit CRC included, interframe space not.
int frame_bit_length(const CAN_MSG& msg);
// (bits x 1000000) / bit rate in 32-bit arithmetic; 0 for a bit rate of 0.
uint32_t frame_time_us(const CAN_MSG& msg, uint32_t bitrate);
// Estimated bus time of a CAN FD record: arbitration and trailer at the nominal rate, the data
// phase at the data rate when the frame switches rates.
uint32_t fd_frame_time_us(const CANFD_MSG& msg, uint32_t nominal_bps, uint32_t data_bps);

// Length codes of the device record: 0-8 as is, 9..15 for 12, 16, 20, 24, 32, 48, 64 bytes.
uint8_t fd_length_code(uint8_t data_len);
uint8_t fd_code_length(uint8_t code);

// Classic -> CAN FD (Id bit 31 extended, bit 30 remote; 40-bit time stamp times 10).
CANFD_MSG to_canfd(const CAN_MSG& msg);
// CAN FD -> classic (time stamp divided by 10, at most 8 data bytes, channel from Flags bit 5).
CAN_MSG to_can(const CANFD_MSG& msg);

// Device record: three words (identifier in device layout, control word, time stamp) and the
// data. Returns the bytes written (12 + the data length of the code), at most 76.
size_t encode_fd_record(const CANFD_MSG& msg, uint8_t index_in_chunk, uint8_t* out);
// Decodes device records until fewer than 12 bytes remain, a record is cut short or `max`
// records were produced. Every record gets Flags bit 5 = channel AND 1.
size_t decode_fd_records(std::span<const uint8_t> bytes, uint8_t channel, CANFD_MSG* out,
                         size_t max);

}  // namespace varnel::can
