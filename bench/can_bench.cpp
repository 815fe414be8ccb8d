// Host CPU per CAN frame: CAN_SendMsg of 100,000 frames, the poller -> CAN_GetMsg path, and the
// CAN FD device record decoder. The virtual adapter runs in the same process over the usbsim, so
// send and receive figures include its share; the decoder runs alone.
#include <benchmark/benchmark.h>

#include <thread>
#include <vector>

#include "can/can_records.h"
#include "sim/bus/can_bus.h"
#include "sim/families/can.h"
#include "sim/usbsim.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x12345670;

struct Bench {
  Bench() {
    usbsim::unplug_all();
    bus = std::make_shared<sim::CanBus>();
    sim::set_default_can_bus(bus);
    adapter = usbsim::plug(kHandle);
    USB_ScanDevice(nullptr);
    USB_OpenDevice(kHandle);
    CAN_Init2(kHandle, 0, 1000000);
    CAN_Init2(kHandle, 1, 1000000);
  }
  std::shared_ptr<sim::CanBus> bus;
  std::shared_ptr<sim::VirtualAdapter> adapter;
};

void BM_CanSendMsg100k(benchmark::State& state) {
  Bench bench;
  std::vector<CAN_MSG> msgs(100000);
  for (size_t i = 0; i < msgs.size(); ++i) {
    msgs[i].Id = uint32_t(i & 0x7FF);
    msgs[i].DataLen = 8;
  }
  std::vector<CAN_MSG> drain(VARNEL_CAN_QUEUE_SIZE);
  sim::can_controller(*bench.adapter, 1)->set_fifo_capacity(0);  // the receiver keeps nothing
  for (auto _ : state) {
    const int sent = CAN_SendMsg(kHandle, 0, msgs.data(), uint32_t(msgs.size()));
    if (sent != int(msgs.size())) state.SkipWithError("send failed");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(msgs.size()));
  usbsim::unplug_all();
}
BENCHMARK(BM_CanSendMsg100k)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CanPollerToGetMsg(benchmark::State& state) {
  Bench bench;
  auto peer = sim::CanPeer::create(bench.bus, {1000000, 0});
  sim::CanFrame frame;
  frame.id = 0x123;
  frame.len = 8;
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  CAN_StartGetMsg(kHandle, 0);
  constexpr int kBatch = 20000;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kBatch; ++i) peer->send(frame);
    state.ResumeTiming();
    int got = 0;
    while (got < kBatch) {
      const int n = CAN_GetMsg(kHandle, 0, in.data());
      if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      got += n;
    }
  }
  CAN_StopGetMsg(kHandle, 0);
  state.SetItemsProcessed(int64_t(state.iterations()) * kBatch);
  usbsim::unplug_all();
}
// CPU time of the whole process (poller thread included), not wall time: the poller sleeps 10 ms
BENCHMARK(BM_CanPollerToGetMsg)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void BM_CanFdDecode(benchmark::State& state) {
  std::vector<uint8_t> bytes;
  uint8_t record[76];
  for (int i = 0; i < 5000; ++i) {
    CANFD_MSG msg{};
    msg.Id = uint32_t(i) | (i % 2 ? 0x80000000u : 0);
    msg.DataLen = uint8_t(i % 3 == 0 ? 64 : 8);
    const size_t size = varnel::can::encode_fd_record(msg, 0, record);
    bytes.insert(bytes.end(), record, record + size);
  }
  std::vector<CANFD_MSG> out(5000);
  for (auto _ : state) {
    benchmark::DoNotOptimize(varnel::can::decode_fd_records(bytes, 0, out.data(), out.size()));
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 5000);
}
BENCHMARK(BM_CanFdDecode);

}  // namespace

BENCHMARK_MAIN();
