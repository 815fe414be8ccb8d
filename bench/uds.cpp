// Diagnostics on CAN through the usbsim against the virtual ECU, which answers at once: a
// 4095-byte request (write data by identifier) and a 4095-byte response (reading it back), each
// 586 frames plus flow control. Reported against the bus's own minimum for the same frames at
// 500 kbit/s: frames x the bus time of one 8-byte frame. The ECU runs in-process, in the
// fetching thread, so the CPU time covers both sides.
//
//   bench_uds --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <numeric>
#include <vector>

#include "sim/ecu/can_diag_ecu.h"
#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345670;

void BM_Uds4095RequestAndResponse(benchmark::State& state) {
  usbsim::unplug_all();
  auto bus = sim::default_can_bus();
  auto adapter = usbsim::plug(kHandle);
  USB_ScanDevice(nullptr);
  USB_OpenDevice(kHandle);
  auto ecu = sim::CanDiagnosticEcu::create(bus, {});
  if (CAN_Init2(kHandle, 0, 500000) != 0) state.SkipWithError("init failed");
  CAN_UDS_ADDR addr{0x7E0, 0x7E8, 0, 0, 0, 8};
  std::vector<uint8_t> write(4095), read{0x22, 0x01, 0x00}, answer(8192);
  std::iota(write.begin(), write.end(), uint8_t(0));
  write[0] = 0x2E, write[1] = 0x01, write[2] = 0x00;
  const uint64_t frames_before = bus->frames_carried();
  for (auto _ : state) {
    bool ok = CAN_UDS_Request(kHandle, 0, &addr, write.data(), 4095) == 0 &&
              VARNEL_CAN_UDS_ResponseN(kHandle, 0, &addr, answer.data(), 8192, 1000) == 3 &&
              CAN_UDS_Request(kHandle, 0, &addr, read.data(), 3) == 0 &&
              VARNEL_CAN_UDS_ResponseN(kHandle, 0, &addr, answer.data(), 8192, 1000) == 4095;
    if (!ok) {
      state.SkipWithError("exchange failed");
      break;
    }
  }
  const double frames = double(bus->frames_carried() - frames_before) / double(state.iterations());
  sim::CanFrame eight;
  eight.len = 8;
  const double frame_us = double(sim::can_frame_duration_us(eight, {500000, 0}));
  state.counters["frames"] = frames;
  state.counters["bus_min_ms"] = frames * frame_us / 1000;
  state.counters["frames_per_s"] =
      benchmark::Counter(frames * double(state.iterations()), benchmark::Counter::kIsRate);
  usbsim::unplug_all();
}
BENCHMARK(BM_Uds4095RequestAndResponse)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
