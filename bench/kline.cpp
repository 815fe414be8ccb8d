// KWP2000 on the K-line through the usbsim against the virtual unit: one request (21 01, six
// bytes on the wire) and its response (61 01 + four bytes, ten bytes), host CPU time per exchange
// against the K-line's own minimum for the same bytes at 10,400 baud: 16 bytes x 10 bits plus the
// unit's P2 of 40 ms (P4 is 0 here), 55.4 ms.
//
// BM_KwpExchangeSimulatedTime moves the device clock past the response after each request, so
// the response is there at the first poll: what is left is the library's own work (six command
// transactions). BM_KwpExchangeRealTime lets the device clock run: KWP_Response busy-waits 10 ms
// between its polls, as it must, and that wait is what its CPU time shows.
//
//   bench_kline --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include "sim/families/kline.h"

#include <benchmark/benchmark.h>
#include <time.h>

#include "sim/usbsim.h"
#include "sim/virtual_adapter.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345670;
constexpr double kLineMinimumMs = 16 * 10 * 1000.0 / 10400 + sim::KLineEcu::Config{}.p2_us / 1000.0;

KWP_MSG record(uint8_t fmt, uint8_t sid, uint8_t data) {
  KWP_MSG m{};
  m.Fmt = fmt;
  m.Tgt = 0x10;
  m.Src = 0xF1;
  m.SID = sid;
  m.Data[0] = data;
  return m;
}

std::shared_ptr<sim::VirtualAdapter> awake_unit(benchmark::State& state) {
  usbsim::unplug_all();
  auto adapter = usbsim::plug(kHandle);
  USB_ScanDevice(nullptr);
  USB_OpenDevice(kHandle);
  KWP_MSG init{}, request = record(0x81, 0x81, 0), response{};
  if (KWP_FastInit(kHandle, 0, 10400, &init, &request, &response, 500) != 0)
    state.SkipWithError("fast init failed");
  return adapter;
}

uint64_t cpu_ns(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return uint64_t(t.tv_sec) * 1'000'000'000u + uint64_t(t.tv_nsec);
}

void exchange(benchmark::State& state, bool simulated) {
  auto adapter = awake_unit(state);
  const uint64_t thread_from = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
  const uint64_t process_from = cpu_ns(CLOCK_PROCESS_CPUTIME_ID);
  for (auto _ : state) {
    KWP_MSG request = record(0x82, 0x21, 0x01), response{};
    bool ok = KWP_Request(kHandle, 0, &request) == 0;
    if (simulated) adapter->clock().advance_us(100'000);
    ok = ok && KWP_Response(kHandle, 0, &response, 500) == 0 && response.SID == 0x61;
    if (!ok) {
      state.SkipWithError("exchange failed");
      break;
    }
  }
  // CPU per exchange as a fraction of the line's minimum: the calling thread (the library, and
  // the usbsim's firmware model, which runs in the caller's thread), and the whole process.
  const double n = double(std::max<benchmark::IterationCount>(state.iterations(), 1));
  const double line_ns = kLineMinimumMs * 1e6;
  state.counters["line_min_ms"] = kLineMinimumMs;
  state.counters["thread_cpu_of_line"] =
      double(cpu_ns(CLOCK_THREAD_CPUTIME_ID) - thread_from) / n / line_ns;
  state.counters["process_cpu_of_line"] =
      double(cpu_ns(CLOCK_PROCESS_CPUTIME_ID) - process_from) / n / line_ns;
  usbsim::unplug_all();
}

void BM_KwpExchangeSimulatedTime(benchmark::State& state) {
  exchange(state, true);
}
void BM_KwpExchangeRealTime(benchmark::State& state) {
  exchange(state, false);
}
BENCHMARK(BM_KwpExchangeSimulatedTime)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KwpExchangeRealTime)->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace

BENCHMARK_MAIN();
