// I2C register reads per second over loopback TCP to the virtual adapter's network server (the
// varnel-sim daemon, in-process), against the floor of the same path: a bare command round trip
// (the device time: no request payload, 8-byte reply).
//
//   bench_net_i2c --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <vector>

#include "core/transaction.h"
#include "sim/net_server.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x55000010;

struct Daemon {
  Daemon() {
    adapters.push_back(std::make_shared<sim::VirtualAdapter>(kHandle));
    server = std::make_unique<sim::NetServer>(adapters, sim::NetPorts{0, 0});
    if (!server->start()) return;
    VARNEL_SetNetPorts(server->discovery_port(), server->tcp_port());
    uint32_t handles[VARNEL_MAX_DEVICES];
    IIC_CONFIG config{400000, 0, 1, 7, 0, 0, {}};
    ok = NET_ScanDevice("127.0.0.1", handles, 200) >= 1 && NET_ConnectDevice(kHandle) &&
         IIC_Init(kHandle, 0, &config) == 0;
  }
  std::vector<std::shared_ptr<sim::VirtualAdapter>> adapters;
  std::unique_ptr<sim::NetServer> server;
  bool ok = false;
};

Daemon& daemon() {
  static Daemon instance;
  return instance;
}

void BM_NetRawRoundTrip(benchmark::State& state) {
  std::array<uint8_t, 8> reply{};
  if (!daemon().ok) state.SkipWithError("no daemon");
  for (auto _ : state) {
    auto result = varnel::transact(kHandle, 0x0015, {}, reply);
    if (!result.ok() || result.reply_length != 8) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_NetRawRoundTrip)->UseRealTime();

void BM_NetI2cRegisterRead2(benchmark::State& state) {
  uint8_t reg = 0x10, in[2];
  for (auto _ : state)
    if (!daemon().ok || IIC_WriteReadBytes(kHandle, 0, 0x50, &reg, 1, in, 2, 10) != 0) {
      state.SkipWithError("register read failed");
      break;
    }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_NetI2cRegisterRead2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
