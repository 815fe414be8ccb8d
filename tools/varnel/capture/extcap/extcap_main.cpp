// varnel-extcap: Wireshark's extcap program for the VARNEL channels (extcap.h). The command groups
// of the `varnel` core register here too, which brings the global --sim, --sim-traffic and --net
// options and their re-execution on the virtual adapter.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "can/can_channel.h"
#include "capture/capture_file.h"
#include "capture/extcap/extcap.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/can_time.h"
#include "core/command_group.h"
#include "core/sim_mode.h"
#include "varnel.h"
#include "varnel_version.h"

namespace {

using namespace varnel_cli;
using namespace varnel_cli::extcap;

struct Options {
  bool list = false, dlts = false, config = false, capture = false;
  std::string interface, fifo, control_in, control_out, filter, version;
  uint32_t bitrate = 0, data_bitrate = 2000000;
};

std::atomic<bool> stopping{false};

// Wireshark stops a capture with SIGTERM (and a user at a terminal with Ctrl-C); it also closes
// the control pipe when there is one.
void install_stop_signals() {
  struct sigaction stop {};
  stop.sa_handler = [](int) { stopping = true; };
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // a reader gone shows as a failed write instead
}

// Watches the control pipe from Wireshark: its closing stops the capture. Opened without waiting
// for the writer, so that a capture stopped by a signal never hangs in open().
std::thread watch_control_pipe(const std::string& path) {
  if (path.empty()) return {};
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) return {};
  return std::thread([fd] {
    char discard[256];
    while (!stopping) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = read(fd, discard, sizeof discard);  // no controls: messages are dropped
      if (n == 0 || (n < 0 && errno != EAGAIN)) stopping = true;
    }
    close(fd);
  });
}

std::vector<uint32_t> scanned_handles() {
  std::vector<uint32_t> handles;
  for (const auto& id : scan_can_channels())
    if (handles.empty() || handles.back() != id.handle) handles.push_back(id.handle);
  return handles;
}

int list(const Options&) {
  // Without hardware the virtual adapter's channels are listed, to be captured with the
  // "Virtual adapter" option: Wireshark then has something to show a user trying it out.
  if (!running_on_sim() && USB_ScanDevice(nullptr) <= 0 && network_local_ip().empty() &&
      !usbsim_directory().empty()) {
    if (!prepare_adapters(true)) return 1;
  }
  std::fputs(interfaces_text(list_interfaces(scanned_handles(), running_on_sim())).c_str(), stdout);
  return 0;
}

std::unique_ptr<capture::CaptureFile> open_fifo(const std::string& path) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) {
    std::fprintf(stderr, "varnel-extcap: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
    return nullptr;
  }
  return capture::CaptureFile::on_stream(out, true);
}

int capture_can(const Options& o, const InterfaceName& name) {
  CanChannelName channel;
  channel.numbered = true;
  channel.index = name.index;
  const uint32_t bitrate = o.bitrate ? o.bitrate : 500000;
  const auto open = open_can_channel(channel, bitrate, o.data_bitrate);
  if (!open) return 1;
  auto file = open_fifo(o.fifo);
  if (!file) return 1;
  const uint32_t interface = file->add_can_channel(can_channel_name(name.index), open->handle,
                                                   open->channel, bitrate, o.data_bitrate);
  file->flush();
  const bool fd = is_fd_adapter(open->handle);
  fd ? CANFD_StartGetMsg(open->handle, open->channel)
     : CAN_StartGetMsg(open->handle, open->channel);
  int64_t start_ms = fd ? CANFD_GetStartTime(open->handle, open->channel)
                        : CAN_GetStartTime(open->handle, open->channel);
  const unsigned tick_us = fd ? kFdTickUs : kClassicTickUs;
  std::vector<CANFD_MSG> frames(fd ? 5000 : 0);
  std::vector<CAN_MSG> classic(fd ? 0 : VARNEL_CAN_QUEUE_SIZE);
  int rc = 0;
  while (!stopping) {
    const int n =
        fd ? CANFD_GetMsg(open->handle, open->channel, frames.data(), int32_t(frames.size()))
           : CAN_GetMsg(open->handle, open->channel, classic.data());
    if (n < 0) {
      std::fprintf(stderr, "varnel-extcap: receiving failed: %d\n", n);
      rc = 1;
      break;
    }
    for (int i = 0; i < n; ++i) {
      CANFD_MSG f{};
      if (fd) {
        f = frames[size_t(i)];
      } else {
        const CAN_MSG& c = classic[size_t(i)];
        f.Id = c.Id | (c.Extended & 1 ? 0x80000000u : 0) | (c.Flags & 1 ? 0x40000000u : 0);
        f.DataLen = c.DataLen;
        f.TimeStamp = c.TimeStamp;
        f.TimeStampHigh = c.TimeStampHigh;
        std::memcpy(f.Data, c.Data, 8);
      }
      file->write_can(interface, f, frame_host_us(start_ms, f.TimeStampHigh, f.TimeStamp, tick_us));
    }
    if (!file->flush()) break;  // Wireshark closed the FIFO: the capture is over
    if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  fd ? CANFD_StopGetMsg(open->handle, open->channel) : CAN_StopGetMsg(open->handle, open->channel);
  close_adapter(open->handle);
  return rc;
}

int capture_lin(const Options& o, const InterfaceName& name) {
  if (!prepare_adapters()) return 1;
  const auto handles = scanned_handles();
  const size_t adapter = name.index / 2;
  if (adapter >= handles.size()) {
    std::fprintf(stderr, "varnel-extcap: no LIN channel lin%u (%zu found)\n", name.index,
                 handles.size() * 2);
    return 1;
  }
  const uint32_t handle = handles[adapter];
  const uint8_t channel = uint8_t(name.index % 2);
  const uint32_t baud = o.bitrate ? o.bitrate : 19200;
  if (!open_found_adapter(handle)) return 1;
  const int rc = LIN_EX_Init(handle, channel, baud, 0);
  if (rc != 0) {
    std::fprintf(stderr, "varnel-extcap: LIN_EX_Init: %d\n", rc);
    close_adapter(handle);
    return 1;
  }
  auto file = open_fifo(o.fifo);
  if (!file) return 1;
  const uint32_t interface =
      file->add_lin_channel("lin" + std::to_string(name.index), handle, channel, baud);
  file->flush();
  std::vector<LIN_EX_MSG> frames(256);
  int result = 0;
  while (!stopping) {
    const int n = LIN_EX_GetMsg(handle, channel, frames.data(), int32_t(frames.size()));
    if (n < 0) {
      std::fprintf(stderr, "varnel-extcap: LIN_EX_GetMsg: %d\n", n);
      result = 1;
      break;
    }
    const int64_t start_ms = LIN_EX_GetStartTime(handle, channel);
    for (int i = 0; i < n; ++i)
      file->write_lin(interface, frames[size_t(i)],
                      capture::lin_host_us(start_ms, frames[size_t(i)].TimeStamp));
    if (!file->flush()) break;
    if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  close_adapter(handle);
  return result;
}

int run(const Options& o) {
  if (o.list) return list(o);
  const auto name = parse_interface_name(o.interface);
  if (!name) {
    std::fprintf(stderr, "varnel-extcap: not a VARNEL interface: '%s'\n", o.interface.c_str());
    return 2;
  }
  if (o.dlts) return std::fputs(dlts_text(*name).c_str(), stdout), 0;
  if (o.config) return std::fputs(config_text(*name).c_str(), stdout), 0;
  if (!o.capture || o.fifo.empty()) {
    std::fprintf(stderr, "varnel-extcap: nothing to do (--capture --fifo PATH?)\n");
    return 2;
  }
  install_stop_signals();
  std::thread control = watch_control_pipe(o.control_in);
  const int rc = name->lin ? capture_lin(o, *name) : capture_can(o, *name);
  stopping = true;
  if (control.joinable()) control.join();
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"varnel-extcap - VARNEL CAN, CAN FD and LIN channels as Wireshark interfaces"};
  app.set_version_flag("--version", "varnel-extcap " VARNEL_VERSION_STRING);
  for (auto adder : command_groups()) adder(app);
  Options o;
  app.add_flag("--extcap-interfaces", o.list, "list the interfaces");
  app.add_option("--extcap-version", o.version, "Wireshark's version");
  app.add_flag("--extcap-dlts", o.dlts, "the link type of --extcap-interface");
  app.add_flag("--extcap-config", o.config, "the options of --extcap-interface");
  app.add_option("--extcap-interface", o.interface, "varnel-canN or varnel-linN");
  app.add_flag("--capture", o.capture, "capture into --fifo");
  app.add_option("--fifo", o.fifo, "where the capture goes (pcapng)");
  app.add_option("--extcap-control-in", o.control_in, "Wireshark's control pipe");
  app.add_option("--extcap-control-out", o.control_out, "the pipe back (unused: no controls)");
  app.add_option("--extcap-capture-filter", o.filter, "ignored: Wireshark filters what it shows");
  app.add_option("--bitrate", o.bitrate, "CAN bit rate (default 500000) or LIN baud rate (19200)");
  app.add_option("--data-bitrate", o.data_bitrate, "CAN FD data bit rate (default 2000000)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  return run(o);
}
