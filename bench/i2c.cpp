// I2C register reads per second through the usbsim: a 2-byte read after a 1-byte register write
// (IIC_WriteReadBytes, and SMBUS_ReadWordProtocol on the same bus) against the floor, a bare
// command round trip of the same transport (the device time: no request payload, 8-byte reply).
// The virtual adapter runs in-process, so every figure includes its share.
//
//   bench_i2c --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <array>

#include "core/transaction.h"
#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345678;

struct Bench {
  Bench() {
    usbsim::unplug_all();
    adapter = usbsim::plug(kHandle);
    USB_ScanDevice(nullptr);
    USB_OpenDevice(kHandle);
    IIC_CONFIG config{400000, 0, 1, 7, 0, 0, {}};
    ok = IIC_Init(kHandle, 0, &config) == 0;
  }
  ~Bench() { usbsim::unplug_all(); }
  std::shared_ptr<sim::VirtualAdapter> adapter;
  bool ok = false;
};

void BM_RawRoundTrip(benchmark::State& state) {
  Bench bench;
  std::array<uint8_t, 8> reply{};
  for (auto _ : state) {
    auto result = varnel::transact(kHandle, 0x0015, {}, reply);
    if (!result.ok() || result.reply_length != 8) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_RawRoundTrip)->UseRealTime();

void BM_I2cRegisterRead2(benchmark::State& state) {
  Bench bench;
  uint8_t reg = 0x10, in[2];
  for (auto _ : state)
    if (!bench.ok || IIC_WriteReadBytes(kHandle, 0, 0x50, &reg, 1, in, 2, 10) != 0) {
      state.SkipWithError("register read failed");
      break;
    }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_I2cRegisterRead2)->UseRealTime();

void BM_SmbusReadWord(benchmark::State& state) {
  Bench bench;
  uint16_t word = 0;
  for (auto _ : state)
    if (!bench.ok || SMBUS_ReadWordProtocol(kHandle, 0, 0x48, 0x10, &word, 1) != 0) {
      state.SkipWithError("word read failed");
      break;
    }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_SmbusReadWord)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
