// `varnel scan` and `varnel info`: which adapters there are, and what one of them says it is.
//   varnel scan [--net LOCAL_IP]
//   varnel info HANDLE
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct DeviceOptions {
  std::string net_local_ip;
  std::string handle;
};

constexpr ResultMeaning kNetScanResults[] = {
    {-1, "not a usable local IPv4 address"},
    {-3, "no UDP socket could be opened"},
    {-4, "the discovery probe could not be sent"},
};

// Probes the local /24 network from `local_ip` (one second) and lists what answered.
void run_net_scan(const std::string& local_ip) {
  std::vector<DevHandle> handles(VARNEL_MAX_DEVICES);
  int count = NET_ScanDevice(local_ip.c_str(), handles.data(), 1000);
  if (count < 0) {
    std::fprintf(stderr, "scan --net %s: %s\n", local_ip.c_str(),
                 describe_result(count, kNetScanResults).c_str());
    exit_code() = 1;
    return;
  }
  std::printf("%d adapter(s) on the network of %s\n", count, local_ip.c_str());
  for (int i = 0; i < count; ++i) {
    DevHandle h = handles[size_t(i)];
    std::printf("  %s  %s\n", handle_text(h).c_str(), handle_kind(h).c_str());
  }
}

void run_scan(const DeviceOptions& options) {
  const std::string& local_ip =
      options.net_local_ip.empty() ? network_local_ip() : options.net_local_ip;
  if (!local_ip.empty()) {
    run_net_scan(local_ip);
    return;
  }
  if (!prepare_adapters()) {
    exit_code() = 1;
    return;
  }
  std::vector<DevHandle> handles(VARNEL_MAX_DEVICES);
  int count = USB_ScanDevice(handles.data());
  if (count < 0) {
    std::fprintf(stderr, "scan: USB enumeration failed (libusb error %d)\n", count);
    exit_code() = 1;
    return;
  }
  std::printf("%d adapter(s) on USB\n", count);
  for (int i = 0; i < count; ++i) {
    DevHandle h = handles[size_t(i)];
    std::printf("  %s  %s\n", handle_text(h).c_str(), handle_kind(h).c_str());
  }
}

std::string text_field(const char* field, size_t size) {
  size_t length = 0;
  while (length < size && field[length]) ++length;
  return std::string(field, length);
}

// Prints the adapter's identity; false when it could not be read.
bool print_info(uint32_t handle) {
  DEVICE_INFO info{};
  char functions[VARNEL_DEV_FUNCTION_STRING_SIZE] = {};
  if (!DEV_GetDeviceInfo(handle, &info, functions)) {
    std::fprintf(stderr, "adapter %s: the device information could not be read\n",
                 handle_text(handle).c_str());
    return false;
  }
  std::printf("adapter %s (%s)\n", handle_text(handle).c_str(), handle_kind(handle).c_str());
  std::printf("  firmware:          %s\n",
              text_field(info.FirmwareName, sizeof info.FirmwareName).c_str());
  std::printf("  firmware version:  0x%08X\n", info.FirmwareVersion);
  std::printf("  hardware version:  0x%08X\n", info.HardwareVersion);
  std::printf("  serial number:     %08X-%08X-%08X\n", info.SerialNumber[0], info.SerialNumber[1],
              info.SerialNumber[2]);
  std::printf("  functions:         %s\n", functions);
  std::printf("  firmware built:    %s\n",
              text_field(info.BuildDate, sizeof info.BuildDate).c_str());
  return true;
}

void run_info(const DeviceOptions& options) {
  uint32_t handle = 0;
  parse_handle(options.handle, handle);  // checked by the validator
  run_adapter_session({}, handle, [](const ChannelTarget& t) {
    return print_info(t.handle) ? CallResult() : CallResult::reported();
  });
}

void add_device_commands(CLI::App& app) {
  auto options = std::make_shared<DeviceOptions>();
  CLI::App* scan = app.add_subcommand("scan", "list the adapters on USB (or the network)");
  scan->add_option("--net", options->net_local_ip,
                   "look for network adapters from this local IPv4 address");
  scan->callback([options] { run_scan(*options); });

  CLI::App* info = app.add_subcommand("info", "firmware, versions and serial number of an adapter");
  info->add_option("HANDLE", options->handle, "adapter handle, e.g. 0x12345678")
      ->required()
      ->check(handle_validator());
  info->callback([options] { run_info(*options); });
}

VARNEL_COMMAND_GROUP(add_device_commands)

}  // namespace
}  // namespace varnel_cli
