// Request/reply over the adapter's carrier, with the write retry loop: a failed write is retried
// for 3 s, reconnecting every 10 ms in between, so a briefly unplugged adapter comes back without
// the caller noticing.
#include "core/transport.h"

#include <cstring>
#include <memory>
#include <new>

#include "core/bytes.h"
#include "core/clock.h"
#include "core/net.h"
#include "core/usb.h"

namespace varnel {
namespace {

constexpr double kRetryPeriodMs = 3000.0;
constexpr int kReconnectPauseMs = 10;

using PacketBuffer = std::unique_ptr<uint8_t[]>;

PacketBuffer build_packet(const CommandPacket& request, int* size) {
  if (request.length < 0 || (request.length > 0 && !request.payload)) return nullptr;
  *size = request.length + 8;
  PacketBuffer buffer(new (std::nothrow) uint8_t[size_t(*size)]);
  if (!buffer) return nullptr;
  put_be32(&buffer[0], request.command);
  put_be32(&buffer[4], uint32_t(request.length));
  if (request.length) std::memcpy(&buffer[8], request.payload, size_t(request.length));
  return buffer;
}

// One write of the packet, USB or TCP. 0, -1, -2 or -4.
int send_command_once(uint32_t handle, const CommandPacket& request, unsigned char endpoint,
                      int timeout_ms, bool connect_on_demand) {
  int size = 0;
  PacketBuffer packet = build_packet(request, &size);
  if (!packet) return -4;
  if (is_network_handle(handle))
    return net_write_packet(handle, packet.get(), size, connect_on_demand);
  return usb_write_packet(handle, endpoint, packet.get(), size, timeout_ms);
}

template <typename Attempt>
int retry_with_reconnect(uint32_t handle, Attempt attempt) {
  const uint64_t start = monotonic_ns();
  int result = attempt();
  while (result != 0) {
    // an adapter the application closed stays closed: nothing to wait for
    if (usb_closed_by_application(handle)) return result;
    bool reconnected = false;
    while (!reconnected) {
      if (elapsed_ms_since(start) >= kRetryPeriodMs) return result;
      sleep_for_ms(kReconnectPauseMs);
      reconnected = reconnect_device(handle);
    }
    result = attempt();
    if (result != 0 && elapsed_ms_since(start) >= kRetryPeriodMs) return result;
  }
  return 0;
}

}  // namespace

bool is_network_handle(uint32_t handle) {
  const uint32_t masked = handle & 0xFF000001u;
  return masked == 0x55000000u || masked == 0x56000000u;
}

int device_index(uint32_t handle) {
  if ((handle >> 24) == 0xFF) return int(handle & 0xFF);
  std::lock_guard list_guard(device_list_mutex());
  if (is_network_handle(handle)) return net_table_position(handle);
  return usb_list_position_locked(handle);
}

bool adapter_listed(uint32_t handle) {
  std::lock_guard list_guard(device_list_mutex());
  if (is_network_handle(handle)) return net_table_position(handle) >= 0;
  return usb_list_position_locked(handle) >= 0;
}

bool assemble_packet(const CommandPacket& request, uint8_t** out, int* out_size) {
  PacketBuffer packet = build_packet(request, out_size);
  *out = packet.release();
  return *out != nullptr;
}

int send_command(uint32_t handle, const CommandPacket& request, int timeout_ms) {
  if (device_index(handle) < 0) return -1;
  return retry_with_reconnect(handle, [&] {
    return send_command_once(handle, request, kEndpointCommandOut, timeout_ms, true);
  });
}

int send_command_on_endpoint(uint32_t handle, uint32_t endpoint_flag,
                             const CommandPacket& request) {
  const unsigned char endpoint = (endpoint_flag & 1) ? kEndpointSelectedOut : kEndpointCommandOut;
  return retry_with_reconnect(handle, [&] {
    return send_command_once(handle, request, endpoint, kDefaultTimeoutMs, false);
  });
}

int read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms) {
  if (is_network_handle(handle)) return net_read_reply(handle, reply, timeout_ms);
  return usb_read_reply(handle, reply, timeout_ms);
}

}  // namespace varnel
