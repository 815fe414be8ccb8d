// SPI NOR flash reads through the usbsim: SPI_FlashRead of 64 KiB pieces (the firmware reads its
// flash) against the floor, a transfer of the same size that the firmware answers without the
// flash model (SPI_ReadBytes on a port: an undriven line). Throughput in bytes per second.
//
//   bench_spi --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <vector>

#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345678;
constexpr int32_t kPiece = 64 * 1024;

struct Bench {
  Bench() {
    usbsim::unplug_all();
    adapter = usbsim::plug(kHandle);
    USB_ScanDevice(nullptr);
    USB_OpenDevice(kHandle);
    SPI_CONFIG config{0, 1, 0, 0, 0, 0, {}, 10000000};
    SPI_FLASH_CONFIG flash;
    VARNEL_SPI_NorFlashConfig(&flash, 1 << 20);
    ok = SPI_Init(kHandle, 0, &config) == 0 && SPI_FlashInit(kHandle, 0, 10000000, &flash) == 0;
  }
  ~Bench() { usbsim::unplug_all(); }
  std::shared_ptr<sim::VirtualAdapter> adapter;
  bool ok = false;
};

template <typename Read>
void run(benchmark::State& state, Read read) {
  Bench bench;
  std::vector<uint8_t> out(kPiece);
  uint32_t address = 0;
  for (auto _ : state) {
    if (!bench.ok || read(address, out.data()) != 0) {
      state.SkipWithError("read failed");
      break;
    }
    address = (address + kPiece) % (1 << 20);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kPiece);
}

void BM_RawRead64K(benchmark::State& state) {
  run(state, [](uint32_t, uint8_t* out) { return SPI_ReadBytes(kHandle, 0, out, kPiece); });
}
BENCHMARK(BM_RawRead64K)->UseRealTime();

void BM_FlashRead64K(benchmark::State& state) {
  run(state, [](uint32_t address, uint8_t* out) {
    return SPI_FlashRead(kHandle, 0, address, out, kPiece);
  });
}
BENCHMARK(BM_FlashRead64K)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
