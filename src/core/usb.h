// The USB carrier: the device list, bulk and control transfers, reconnection.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "core/transport.h"

namespace varnel {

constexpr unsigned char kEndpointCommandOut = 0x01;
constexpr unsigned char kEndpointSelectedOut = 0x02;
constexpr unsigned char kEndpointIn = 0x81;

// Guards the USB device list; held only for look-ups and edits, never across a transfer.
std::mutex& device_list_mutex();

// Position of the handle in the USB device list, or -1. The caller holds device_list_mutex().
int usb_list_position_locked(uint32_t handle);

// One bulk write of a whole packet plus the zero-length packet when the size is a multiple of
// the endpoint's packet size. On a failed transfer the device is reset. 0 or -2.
int usb_write_packet(uint32_t handle, unsigned char endpoint, const uint8_t* data, int size,
                     int timeout_ms);
// Reads one reply (header, then payload in 64 KiB chunks). 0 or -3.
int usb_read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms);
// Vendor OUT control request without data; a failure resets the device. 0, -1 no device, -2.
int usb_control_out(uint32_t handle, uint8_t request, int timeout_ms);

}  // namespace varnel

struct libusb_context;
struct libusb_device_handle;
namespace varnel {
// The library's libusb context (null before the first scan or open).
libusb_context* usb_context();
class BulkInStream;
// Hands the adapter's open device handle to `submit` (a stream's first transfer) while no close
// can take it away, and keeps the stream on the adapter's list, so that closing or replacing the
// handle (USB_CloseDevice, a reconnection, a scan) stops it first. False, and nothing kept, when
// the adapter is not open or `submit` failed.
bool usb_start_stream(uint32_t handle, BulkInStream* stream,
                      const std::function<bool(libusb_device_handle*)>& submit);
// Takes a stream its owner stopped off the adapter's list.
void usb_stream_stopped(uint32_t handle, BulkInStream* stream);
// Whether the application closed the adapter (USB_CloseDevice) and has not opened it since: no
// reconnection reopens it then, and a failed write is not retried.
bool usb_closed_by_application(uint32_t handle);

// The adapter's attachment point, e.g. "1.4.2.4" (port chain, bus, port); empty if unknown.
std::string usb_location_path(uint32_t handle);

// Reopens the adapter at its location (USB) or its TCP connection (network handle 0x55...).
bool reconnect_device(uint32_t handle);
// Counts one successful reconnection of the handle (VARNEL_GetReconnectCount).
void count_reconnect(uint32_t handle);

}  // namespace varnel
