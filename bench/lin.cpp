// LIN through the usbsim, the virtual bus playing every frame in bus time (the device clock is
// held, so it moves only by the frames' durations and the units' modelled waits):
//
// - a 10,000-record master request list: split into the adapter's pieces, checksums computed,
//   every reply record judged; records/s of host CPU (the virtual firmware runs in-process, so
//   its share is included);
// - draining the frames a channel saw from the host buffer (LIN_EX_GetMsg); records/s;
// - a 4095-byte diagnostic request and response to the virtual control unit: frames/s of host
//   CPU for segmentation and reassembly;
// - reprogramming 64 KiB into the virtual boot loader against the bus's own time for the same
//   frames at 19,200 baud.
//
//   bench_lin --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include "sim/families/lin.h"

#include <benchmark/benchmark.h>

#include <numeric>
#include <vector>

#include "sim/usbsim.h"
#include "sim/virtual_adapter.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x11223344;

// A held clock moves only by bus time; a request the library sends as schedules waits out their
// time on the host's clock, so it needs a clock that runs.
std::shared_ptr<sim::VirtualAdapter> open_adapter(uint32_t baud, bool hold_clock = true) {
  usbsim::unplug_all();
  auto adapter = usbsim::plug(kHandle);
  if (hold_clock) adapter->clock().hold_at_us(0);
  USB_ScanDevice(nullptr);
  USB_OpenDevice(kHandle);
  LIN_EX_Init(kHandle, 0, baud, 1);
  return adapter;
}

std::vector<LIN_EX_MSG> master_writes(size_t count) {
  std::vector<LIN_EX_MSG> records(count);
  for (size_t i = 0; i < count; ++i) {
    LIN_EX_MSG& r = records[i];
    r.MsgType = LIN_EX_MSG_TYPE_MW;
    r.CheckType = LIN_EX_CHECK_EXT;
    r.DataLen = 8;
    r.PID = uint8_t(i % 0x3C);
    for (uint8_t b = 0; b < 8; ++b) r.Data[b] = uint8_t(i + b);
  }
  return records;
}

void BM_LinMasterList10k(benchmark::State& state) {
  auto adapter = open_adapter(19200);
  std::vector<LIN_EX_MSG> in = master_writes(10000), out(10000);
  for (auto _ : state) {
    if (LIN_EX_MasterSync(kHandle, 0, in.data(), out.data(), 10000) != 10000) {
      state.SkipWithError("master list failed");
      break;
    }
    state.PauseTiming();
    std::vector<LIN_EX_MSG> drain(VARNEL_LIN_BUFFER_SIZE);
    while (LIN_EX_GetMsg(kHandle, 0, drain.data(), int32_t(drain.size())) > 0) {
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * 10000);
  usbsim::unplug_all();
}
BENCHMARK(BM_LinMasterList10k)->Unit(benchmark::kMillisecond);

void BM_LinDrainReceived(benchmark::State& state) {
  auto adapter = open_adapter(19200);
  std::vector<LIN_EX_MSG> in = master_writes(5000), out(5000), drained(1000);
  int64_t records = 0;
  for (auto _ : state) {
    state.PauseTiming();
    LIN_EX_MasterSync(kHandle, 0, in.data(), out.data(), 5000);
    state.ResumeTiming();
    for (int n; (n = LIN_EX_GetMsg(kHandle, 0, drained.data(), 1000)) > 0;) records += n;
  }
  if (records == 0) state.SkipWithError("nothing drained");
  state.SetItemsProcessed(records);
  usbsim::unplug_all();
}
BENCHMARK(BM_LinDrainReceived)->Unit(benchmark::kMillisecond);

// At 1 Mbit/s the schedules' bus time, which the library sleeps through, stays short; the CPU
// time is the host's work.
void BM_LinDiagnostic4095(benchmark::State& state) {
  auto adapter = open_adapter(1000000, false);
  LIN_UDS_ADDR addr{0x3C, 0x3D, 0x10, LIN_EX_CHECK_STD, 0};
  // write data by identifier 0100 with 4092 bytes, then read it back: 4095 bytes each way
  std::vector<uint8_t> write(4095), read{0x22, 0x01, 0x00}, answer(8192);
  std::iota(write.begin(), write.end(), uint8_t(0));
  write[0] = 0x2E, write[1] = 0x01, write[2] = 0x00;
  for (auto _ : state) {
    bool ok = LIN_UDS_Request(kHandle, 0, &addr, write.data(), 4095) == 0 &&
              VARNEL_LIN_UDS_ResponseN(kHandle, 0, &addr, answer.data(), 8192, 5000) == 3 &&
              LIN_UDS_Request(kHandle, 0, &addr, read.data(), 3) == 0 &&
              VARNEL_LIN_UDS_ResponseN(kHandle, 0, &addr, answer.data(), 8192, 5000) == 4095;
    if (!ok) {
      state.SkipWithError("exchange failed");
      break;
    }
  }
  // 4095 bytes: a first frame with 5 and consecutive frames with 6 each, both ways, plus the
  // single-frame request and answer
  const int64_t frames = 2 * (1 + (4095 - 5 + 5) / 6) + 2;
  state.counters["frames"] = double(frames);
  state.SetItemsProcessed(state.iterations() * frames);
  usbsim::unplug_all();
}
BENCHMARK(BM_LinDiagnostic4095)->Unit(benchmark::kMillisecond);

// The bus time of one diagnostic frame at 19,200 baud: break 13 + delimiter 1, then sync, PID,
// 8 data bytes and the checksum, 10 bits each.
constexpr double kDiagnosticFrameUs = (13 + 1 + 10 * (1 + 1 + 8 + 1)) * 1e6 / 19200;

void BM_LinFlash64KiB(benchmark::State& state) {
  auto adapter = open_adapter(19200);
  constexpr uint8_t kBootNad = 0x20;
  std::vector<uint8_t> image(64 * 1024);
  std::iota(image.begin(), image.end(), uint8_t(0x11));
  uint64_t bus_us = 0;
  for (auto _ : state) {
    const uint64_t before = adapter->clock().now_us();
    bool ok =
        USDLINBoot_Init(kHandle, 0, 19200) == 0 &&
        USDLINBoot_Start(kHandle, 0, kBootNad, 0xBEEF, 2000) == 0 &&
        USDLINBoot_Erase(kHandle, 0, kBootNad, 0, uint32_t(image.size())) == 0 &&
        USDLINBoot_WriteData(kHandle, 0, kBootNad, 0, image.data(), uint32_t(image.size())) == 0 &&
        USDLINBoot_ResetECU(kHandle, 0, kBootNad) == 0;
    if (!ok) {
      state.SkipWithError("reprogramming failed");
      break;
    }
    bus_us += adapter->clock().now_us() - before;
  }
  const double iterations = double(state.iterations());
  const double bus_ms = double(bus_us) / 1000 / iterations;
  state.counters["bus_ms"] = bus_ms;
  state.counters["frames_on_bus"] = bus_ms * 1000 / kDiagnosticFrameUs;
  usbsim::unplug_all();
}
BENCHMARK(BM_LinFlash64KiB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
