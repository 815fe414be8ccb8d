// `varnel monitor`: the frames of a source gathered into the page's model, served over HTTP
// with the updates pushed as Server-Sent Events.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace varnel_cli::monitor {

// A port no common tool or development server takes (see docs/monitor.md).
constexpr uint16_t kDefaultPort = 28262;

struct MonitorOptions {
  std::vector<std::string> channels;  // canN or HANDLE:CH
  std::string dbc;
  std::string replay;  // a candump log or pcapng capture instead of channels
  bool fast = false;
  std::string record;  // a candump log (pcapng: FILE.pcapng) to write from the start
  bool allow_send = false;
  std::string listen = "127.0.0.1";
  int port = kDefaultPort;  // 0: any free one
  uint32_t bitrate = 500000, data_bitrate = 2000000;
  int update_ms = 100;             // how often the page gets an update
  size_t max_pages = 8;            // pages connected at once
  size_t max_queued_updates = 50;  // per page; the oldest go first
};

// Runs until Ctrl-C (or SIGTERM); returns the exit code.
int run_monitor(const MonitorOptions& options);

}  // namespace varnel_cli::monitor
