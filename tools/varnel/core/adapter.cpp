#include "core/adapter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "core/can_names.h"
#include "core/command_group.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

// How long an open waits for network adapters to answer the probe: they answer at once, and the
// scan always runs its whole time-out.
constexpr int kOpenScanMs = 500;

std::string& local_ip_option() {
  static std::string ip;
  return ip;
}

void add_net_option(CLI::App& app) {
  app.add_option("--net", local_ip_option(),
                 "reach network adapters through this local IPv4 address (scan, info, gpio, can)");
}

bool open_usb_adapter(uint32_t handle) {
  std::vector<DevHandle> handles(VARNEL_MAX_DEVICES);
  int count = USB_ScanDevice(handles.data());
  bool known = false;
  for (int i = 0; i < count; ++i) known = known || handles[size_t(i)] == handle;
  if (!known) {
    std::fprintf(stderr, "adapter %s: not found (%d adapter(s) on USB; see `varnel scan`)\n",
                 handle_text(handle).c_str(), count < 0 ? 0 : count);
    return false;
  }
  if (!USB_OpenDevice(handle)) {
    std::fprintf(stderr, "adapter %s: cannot be opened\n", handle_text(handle).c_str());
    return false;
  }
  return true;
}

bool open_network_adapter(uint32_t handle) {
  const std::string& ip = network_local_ip();
  if (ip.empty()) {
    std::fprintf(stderr,
                 "adapter %s: a network adapter; give --net LOCAL_IP, the local address on its "
                 "network\n",
                 handle_text(handle).c_str());
    return false;
  }
  std::vector<uint32_t> handles(VARNEL_MAX_DEVICES);
  const int count = NET_ScanDevice(ip.c_str(), handles.data(), kOpenScanMs);
  bool known = false;
  for (int i = 0; i < count; ++i) known = known || handles[size_t(i)] == handle;
  if (!known) {
    std::fprintf(stderr,
                 "adapter %s: not found (%d adapter(s) on the network of %s; see `varnel --net "
                 "%s scan`)\n",
                 handle_text(handle).c_str(), count < 0 ? 0 : count, ip.c_str(), ip.c_str());
    return false;
  }
  if (!NET_ConnectDevice(handle)) {
    std::fprintf(stderr, "adapter %s: no TCP connection\n", handle_text(handle).c_str());
    return false;
  }
  return true;
}

}  // namespace

bool parse_handle(const std::string& text, uint32_t& handle) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || errno != 0 || value > 0xFFFFFFFFull) return false;
  handle = static_cast<uint32_t>(value);
  return true;
}

bool parse_channel_target(const std::string& text, uint32_t channels, bool channel_optional,
                          ChannelTarget& target) {
  const size_t colon = text.find(':');
  uint32_t channel = 0;
  if (colon == std::string::npos
          ? !channel_optional
          : !parse_handle(text.substr(colon + 1), channel) || channel >= channels)
    return false;
  target.channel = uint8_t(channel);
  return parse_handle(text.substr(0, colon), target.handle);
}

CLI::Validator handle_validator() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        uint32_t handle = 0;
        return parse_handle(text, handle)
                   ? std::string()
                   : "not an adapter handle: " + text + " (expected e.g. 0x12345678)";
      },
      "HANDLE");
}

CLI::Validator u32_validator(const std::string& name) {
  return CLI::Validator(
      [name](std::string& text) -> std::string {
        uint32_t value = 0;
        return parse_handle(text, value) ? std::string() : name + ": not a 32-bit number: " + text;
      },
      name);
}

std::string handle_text(uint32_t handle) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", handle);
  return text;
}

std::string handle_kind(uint32_t handle) {
  std::string carrier = is_network_handle(handle) ? "network" : "USB";
  return carrier + (is_fd_adapter(handle) ? ", CAN FD" : ", CAN");
}

bool is_network_handle(uint32_t handle) {
  const uint32_t top = handle & 0xFF000001u;
  return top == 0x55000000u || top == 0x56000000u;
}

bool is_fd_adapter(uint32_t handle) {
  return (handle >> 28) == 0x5;
}

const std::string& network_local_ip() {
  return local_ip_option();
}

bool open_adapter(uint32_t handle) {
  return is_network_handle(handle) ? open_network_adapter(handle) : open_usb_adapter(handle);
}

bool open_found_adapter(uint32_t handle) {
  if (is_network_handle(handle) ? NET_ConnectDevice(handle) : USB_OpenDevice(handle)) return true;
  std::fprintf(stderr, "adapter %s: cannot be opened\n", handle_text(handle).c_str());
  return false;
}

void close_adapter(uint32_t handle) {
  if (is_network_handle(handle))
    NET_DisconnectDevice(handle);
  else
    USB_CloseDevice(handle);
}

std::vector<CanChannelId> scan_can_channels() {
  std::vector<DevHandle> handles(VARNEL_MAX_DEVICES);
  handles.resize(size_t(std::max(USB_ScanDevice(handles.data()), 0)));
  if (!network_local_ip().empty()) {
    std::vector<uint32_t> network(VARNEL_MAX_DEVICES);
    const int count = NET_ScanDevice(network_local_ip().c_str(), network.data(), kOpenScanMs);
    handles.insert(handles.end(), network.begin(), network.begin() + std::max(count, 0));
  }
  std::vector<CanChannelId> channels;
  for (uint32_t handle : handles) channels.insert(channels.end(), {{handle, 0}, {handle, 1}});
  return channels;
}

VARNEL_COMMAND_GROUP(add_net_option)

}  // namespace varnel_cli
