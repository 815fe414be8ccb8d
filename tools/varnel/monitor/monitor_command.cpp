// varnel monitor CHANNEL... [--dbc FILE] [--record FILE] [--allow-send] [--listen ADDR] [--port N]
// varnel monitor --replay FILE [--fast]   (a candump log or pcapng capture) [--dbc FILE]
// The bus live in a browser: the per-identifier table with decoded signals, the trace, plots and
// each channel's health, with LIN frames, UART bytes and K-line frames of such channels (lin0,
// uart1, kline2), served on the loopback (docs/monitor.md).
#include <memory>

#include "core/command_group.h"
#include "monitor/monitor_server.h"

namespace varnel_cli {
namespace {

void add_monitor_command(CLI::App& app) {
  auto o = std::make_shared<monitor::MonitorOptions>();
  CLI::App* command = app.add_subcommand(
      "monitor", "see buses live in a browser: table, trace, decoded signals, plots, bus load");
  command->add_option("CHANNEL", o->channels,
                      "channels: CAN canN or HANDLE:CH; LIN linN or lin:HANDLE:CH, the same "
                      "for uart and kline, each with @BAUD or not");
  command->add_option("--dbc", o->dbc, "decode frames with this DBC database");
  auto* replay = command->add_option("--replay", o->replay,
                                     "play a candump log or pcapng capture into the page");
  command->add_flag("--fast", o->fast, "with --replay: as fast as the monitor takes it")
      ->needs(replay);
  command->add_option("--record", o->record,
                      "record the frames into this candump log (pcapng if it ends in .pcapng)");
  command->add_flag("--allow-send", o->allow_send, "let the page send frames");
  command->add_option("--listen", o->listen,
                      "address to serve on (default 127.0.0.1; elsewhere the URL needs its token)");
  command->add_option("--port", o->port, "port (default 28262; 0: any free one)")
      ->check(CLI::Range(0, 65535));
  command->add_option("-b,--bitrate", o->bitrate, "nominal bit rate (default 500000)");
  command->add_option("--data-bitrate", o->data_bitrate, "CAN FD data bit rate (default 2000000)");
  command->callback([o, command] {
    if (o->replay.empty() == o->channels.empty())
      throw CLI::ValidationError("CHANNEL", "name the channels to watch, or --replay a file");
    exit_code() = monitor::run_monitor(*o);
  });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_monitor_command)

}  // namespace varnel_cli
