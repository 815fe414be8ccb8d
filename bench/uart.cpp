// UART throughput through the usbsim: 256-byte writes (UART_WriteBytes) and 256 bytes written and
// read back on the loopback plug (UART_WriteBytes + UART_ReadBytes) against the floor, bare
// transactions of the same shape (256 bytes out and an empty reply; one byte out and 256 back)
// answered by a handler that does nothing else. Each UART benchmark times the floor beside itself
// and reports `x_floor`: how many floor transactions one of its iterations costs (1.0 per
// transaction would be no cost above the transport). The device clock, not the host, takes the
// bytes' time on the wire, so the rate is the library's and the transport's.
//
//   bench_uart --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "sim/families/uart.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include "core/transaction.h"
#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345678;
constexpr int32_t kBytes = 256;
constexpr uint32_t kFloorCommand = 0x0AF0;  // not a firmware command: the bench's own handler

struct Bench {
  explicit Bench(bool echo) {
    usbsim::unplug_all();
    adapter = usbsim::plug(kHandle);
    // The floor: a request of more than one byte gets an empty reply, a one-byte one 256 bytes.
    adapter->on(kFloorCommand, kFloorCommand, [](sim::VirtualAdapter&, const sim::Packet& in) {
      return std::optional<sim::Packet>(sim::reply_with(
          in.command, std::vector<uint8_t>(in.payload.size() > 1 ? 0 : size_t(kBytes), 0x5A)));
    });
    USB_ScanDevice(nullptr);
    USB_OpenDevice(kHandle);
    sim::uart_model(*adapter).set_echo(0, echo);
    UART_CONFIG config{};
    config.BaudRate = 3000000;
    ok = UART_Init(kHandle, 0, &config) == 0;
  }
  ~Bench() { usbsim::unplug_all(); }

  // Seconds per floor transaction that moves `out` bytes to the adapter and `back` from it:
  // the mean of 20,000 after 2,000 to warm up.
  static double floor_seconds(size_t out, size_t back) {
    std::vector<uint8_t> request(out, 0xA5), reply(kBytes);
    auto calls = [&](int n) {
      for (int i = 0; i < n; ++i) {
        auto r = varnel::transact(kHandle, kFloorCommand, request, reply);
        if (!r.ok() || size_t(r.reply_length) != back) return false;
      }
      return true;
    };
    constexpr int kCalls = 20000;
    if (!calls(2000)) return 0;
    const auto start = std::chrono::steady_clock::now();
    if (!calls(kCalls)) return 0;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / kCalls;
  }

  std::shared_ptr<sim::VirtualAdapter> adapter;
  bool ok = false;
};

// Runs `step` per iteration and reports bytes/s and the cost in floor transactions.
template <typename Step>
void run(benchmark::State& state, Bench& bench, double floor_per_iteration, Step step) {
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state)
    if (!bench.ok || floor_per_iteration <= 0 || !step()) {
      state.SkipWithError("UART call failed");
      return;
    }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
  state.counters["x_floor"] = seconds / double(state.iterations()) / floor_per_iteration;
}

void floor_benchmark(benchmark::State& state, size_t out) {
  Bench bench(false);
  std::vector<uint8_t> request(out), reply(kBytes);
  for (auto _ : state)
    if (!varnel::transact(kHandle, kFloorCommand, request, reply).ok()) {
      state.SkipWithError("round trip failed");
      break;
    }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
void BM_FloorWrite256(benchmark::State& state) {
  floor_benchmark(state, 1 + kBytes);
}
BENCHMARK(BM_FloorWrite256)->UseRealTime();
void BM_FloorRead256(benchmark::State& state) {
  floor_benchmark(state, 1);
}
BENCHMARK(BM_FloorRead256)->UseRealTime();

void BM_UartWrite256(benchmark::State& state) {
  Bench bench(false);
  const std::vector<uint8_t> data(kBytes, 0x55);
  run(state, bench, Bench::floor_seconds(1 + kBytes, 0),
      [&] { return UART_WriteBytes(kHandle, 0, data.data(), kBytes) == 0; });
}
BENCHMARK(BM_UartWrite256)->UseRealTime();

void BM_UartWriteReadBack256(benchmark::State& state) {
  Bench bench(true);
  const std::vector<uint8_t> data(kBytes, 0x55);
  std::vector<uint8_t> in(VARNEL_UART_READ_SIZE);
  const double floor = Bench::floor_seconds(1 + kBytes, 0) + Bench::floor_seconds(1, kBytes);
  run(state, bench, floor, [&] {
    return UART_WriteBytes(kHandle, 0, data.data(), kBytes) == 0 &&
           UART_ReadBytes(kHandle, 0, in.data(), 0) == kBytes;
  });
}
BENCHMARK(BM_UartWriteReadBack256)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
