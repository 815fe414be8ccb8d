// The ADC stream through the usbsim at the rate the host can take: the virtual adapter's packets
// are due at once (a sample rate no converter has), so the pace is the library's — asynchronous
// transfers, the completion, the queue or the callback. Reported as bytes per second and as a
// ratio to about 40 MB/s, what USB 2.0 high-speed bulk carries in practice; `dropped` counts
// packets the host queue lost (20 MiB bound; it must stay 0).
//
//   bench_adc --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>
#include <vector>

#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345678;
constexpr uint32_t kUnpaced = 0xFFFFFFFF;   // samples per second: every packet is due at once
constexpr int64_t kPerIteration = 4 << 20;  // bytes
constexpr double kHighSpeedBulk = 40e6;     // bytes per second

struct Adapter {
  Adapter() {
    usbsim::unplug_all();
    usbsim::plug(kHandle);
    USB_ScanDevice(nullptr);
    USB_OpenDevice(kHandle);
  }
  ~Adapter() { usbsim::unplug_all(); }
};

void report(benchmark::State& state) {
  const double bytes = double(state.iterations()) * double(kPerIteration);
  state.SetBytesProcessed(int64_t(bytes));
  state.counters["x_40MBps"] =
      benchmark::Counter(bytes / kHighSpeedBulk, benchmark::Counter::kIsRate);
  state.counters["dropped"] = double(VARNEL_ADC_Dropped(kHandle));
}

// Packets queued by the library, taken by ADC_GetData as an application would.
void BM_StreamToQueue(benchmark::State& state) {
  Adapter adapter;
  const uint32_t packet = uint32_t(state.range(0));
  std::vector<uint16_t> out(size_t(packet) * 16);
  if (ADC_StartContinueRead(kHandle, 0x01, kUnpaced, packet, nullptr) != 0) {
    state.SkipWithError("start failed");
    return;
  }
  for (auto _ : state) {
    int64_t got = 0;
    while (got < kPerIteration) {
      const int n = ADC_GetData(kHandle, out.data(), int32_t(out.size()));
      if (n == 0) std::this_thread::yield();
      got += int64_t(n) * 2;
    }
  }
  ADC_StopContinueRead(kHandle);
  report(state);
}
BENCHMARK(BM_StreamToQueue)->Arg(4096)->Arg(32768)->UseRealTime();

std::atomic<int64_t> callback_bytes{0};
void count_bytes(DevHandle, uint16_t*, int32_t samples) {
  callback_bytes += int64_t(samples) * 2;
}

// Packets handed to a callback on the library's thread: no copy into a queue.
void BM_StreamToCallback(benchmark::State& state) {
  Adapter adapter;
  callback_bytes = 0;
  if (ADC_StartContinueRead(kHandle, 0x01, kUnpaced, uint32_t(state.range(0)), count_bytes) != 0) {
    state.SkipWithError("start failed");
    return;
  }
  int64_t target = 0;
  for (auto _ : state) {
    target += kPerIteration;
    while (callback_bytes < target) std::this_thread::yield();
  }
  ADC_StopContinueRead(kHandle);
  report(state);
}
BENCHMARK(BM_StreamToCallback)->Arg(4096)->Arg(32768)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
