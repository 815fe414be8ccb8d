// Host CPU while the library waits inside a call, and how exactly the wait ends.
//
// BM_Wait/<kind>/<us>: one wait of `us` microseconds per iteration, side by side: kind 0 is the
// pure spin on the counter (what the calls did), kind 1 the library's wait_for_us (sleep until
// shortly before the deadline, spin the rest). Counters: cpu_share (CPU time of the waiting
// thread / wall time of the waits) and the wait's error, the time from the deadline to the
// return, in microseconds: median, 99th percentile and maximum.
//
// BM_UartReadNothing: UART_ReadBytes with nothing arriving (200 ms time-out) through the usbsim,
// whose firmware model runs in the caller's thread: thread and process CPU / wall time.
//
//   bench_wait --benchmark_repetitions=3
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "core/clock.h"
#include "core/delay.h"
#include "sim/usbsim.h"
#include "sim/virtual_adapter.h"
#include "varnel.h"

namespace {

uint64_t cpu_ns(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return uint64_t(t.tv_sec) * 1'000'000'000u + uint64_t(t.tv_nsec);
}

double percentile_us(std::vector<uint64_t>& ns, double p) {
  if (ns.empty()) return 0;
  const size_t at = std::min(ns.size() - 1, size_t(p * double(ns.size())));
  std::nth_element(ns.begin(), ns.begin() + long(at), ns.end());
  return double(ns[at]) / 1000.0;
}

void BM_Wait(benchmark::State& state) {
  const bool hybrid = state.range(0) == 1;
  const auto us = uint64_t(state.range(1));
  std::vector<uint64_t> errors;
  uint64_t wall = 0, cpu = 0;
  for (auto _ : state) {
    const uint64_t cpu_from = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
    const uint64_t start = varnel::monotonic_ns();
    if (hybrid)
      varnel::wait_for_us(us);
    else
      varnel::busy_wait_us(us);
    const uint64_t end = varnel::monotonic_ns();
    cpu += cpu_ns(CLOCK_THREAD_CPUTIME_ID) - cpu_from;
    wall += end - start;
    errors.push_back(end - start - us * 1000);
  }
  state.counters["cpu_share"] = double(cpu) / double(std::max<uint64_t>(wall, 1));
  state.counters["err_med_us"] = percentile_us(errors, 0.5);
  state.counters["err_p99_us"] = percentile_us(errors, 0.99);
  state.counters["err_max_us"] = percentile_us(errors, 1.0);
}
BENCHMARK(BM_Wait)
    ->ArgNames({"hybrid", "us"})
    ->ArgsProduct({{0, 1}, {1000, 10000, 25000}})
    ->Iterations(200)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_UartReadNothing(benchmark::State& state) {
  constexpr uint32_t kHandle = 0x12345678;
  usbsim::unplug_all();
  auto adapter = usbsim::plug(kHandle);
  USB_ScanDevice(nullptr);
  USB_OpenDevice(kHandle);
  UART_CONFIG config{};
  config.BaudRate = 115200;
  if (UART_Init(kHandle, 0, &config) != 0) state.SkipWithError("UART_Init failed");
  std::vector<uint8_t> out(VARNEL_UART_READ_SIZE);
  const uint64_t thread_from = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
  const uint64_t process_from = cpu_ns(CLOCK_PROCESS_CPUTIME_ID);
  const uint64_t wall_from = varnel::monotonic_ns();
  for (auto _ : state)
    if (UART_ReadBytes(kHandle, 0, out.data(), 200) != 0) state.SkipWithError("bytes arrived");
  const double wall = double(varnel::monotonic_ns() - wall_from);
  state.counters["thread_cpu_share"] = double(cpu_ns(CLOCK_THREAD_CPUTIME_ID) - thread_from) / wall;
  state.counters["process_cpu_share"] =
      double(cpu_ns(CLOCK_PROCESS_CPUTIME_ID) - process_from) / wall;
  usbsim::unplug_all();
}
BENCHMARK(BM_UartReadNothing)->Iterations(10)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
