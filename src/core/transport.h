// The command-packet transport: one request written, one reply read, over USB bulk or TCP.
#pragma once

#include <cstdint>

namespace varnel {

// A request or a reply. On the wire: command (BE u32), length (BE i32), payload.
struct CommandPacket {
  uint32_t command = 0;
  int32_t length = 0;
  uint8_t* payload = nullptr;  // request bytes, or where the reply payload goes (may be null)
  // Bytes the reply buffer can take. A longer reply is still read off the carrier (so the
  // stream stays in step) but only this much is stored; length keeps the announced size so the
  // caller's length check fails.
  int32_t capacity = 0;
};

constexpr int kDefaultTimeoutMs = 3000;
constexpr int32_t kUsbReplyLimit = 0x80000;  // longer USB replies are cut to this
constexpr int32_t kUsbReplyChunk = 0x10000;  // one bulk-in transfer
constexpr int32_t kTcpReplyLimit = 65535;    // longer TCP replies are a protocol error
constexpr int kMaxDevices = 60;

// (handle AND 0xFF000001) is 0x55000000 or 0x56000000.
bool is_network_handle(uint32_t handle);

// Position in the USB device list or the socket table; top byte 0xFF: the low byte; else -1.
int device_index(uint32_t handle);
// Whether a scan listed the handle: an entry in the USB device list or the socket table, whatever
// the handle's top byte (device_index gives any handle 0xFF...... an index of its own).
bool adapter_listed(uint32_t handle);

// 0, -1 unknown handle / not connected, -2 write failed, -4 no memory.
int send_command(uint32_t handle, const CommandPacket& request, int timeout_ms);
// Bit 0 of endpoint_flag chooses USB OUT endpoint 0x02; no index check, no TCP connect on demand.
int send_command_on_endpoint(uint32_t handle, uint32_t endpoint_flag, const CommandPacket& request);
// reply.command holds the expected code on entry. 0, -1 not connected, -3 missing/short/other.
int read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms);

// Builds the wire packet: header words big-endian, then the payload.
bool assemble_packet(const CommandPacket& request, uint8_t** out, int* out_size);

}  // namespace varnel
