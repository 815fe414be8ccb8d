#include "adapter.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "varnel.h"

namespace varnel_cli {

bool parse_handle(const std::string& text, uint32_t& handle) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || errno != 0 || value > 0xFFFFFFFFull) return false;
  handle = static_cast<uint32_t>(value);
  return true;
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
  const uint32_t top = handle & 0xFF000001u;
  std::string carrier = (top == 0x55000000u || top == 0x56000000u) ? "network" : "USB";
  // Adapters whose handle has the top nibble 0x5 carry a CAN FD controller.
  return carrier + ((handle >> 28) == 0x5 ? ", CAN FD" : ", CAN");
}

bool open_adapter(uint32_t handle) {
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

void close_adapter(uint32_t handle) {
  USB_CloseDevice(handle);
}

}  // namespace varnel_cli
