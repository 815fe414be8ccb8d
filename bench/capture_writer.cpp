// Writing a capture at bus speed: two channels of 20,000 frames a second each (a saturated
// 1 Mbit/s classic bus is about 8,000; CAN FD at 2 Mbit/s data rate some 15,000), as `can dump
// -w` does per frame. One iteration is one second of that traffic: its CPU time over one second
// is the share of a core the writer costs ("core_share"). The file is read back afterwards and
// every frame counted.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "capture/capture_records.h"
#include "capture/pcapng_reader.h"
#include "capture/pcapng_writer.h"

using namespace varnel_cli::capture;

namespace {

constexpr int kFramesPerSecondPerChannel = 20000;
constexpr int kChannels = 2;

void BM_CaptureTwoChannelsOneSecond(benchmark::State& state) {
  const bool fd = state.range(0);
  const std::string path = "/tmp/varnel_bench_capture_" + std::to_string(getpid()) + ".pcapng";
  uint64_t written = 0;
  for (auto _ : state) {
    FILE* out = std::fopen(path.c_str(), "wb");
    PcapngWriter writer(out, "bench");
    for (int ch = 0; ch < kChannels; ++ch)
      writer.add_interface(kLinkTypeSocketCan, "can" + std::to_string(ch), "", 72);
    CANFD_MSG f{};
    f.DataLen = fd ? 64 : 8;
    f.Flags = fd ? 0x05 : 0;
    uint64_t us = 1700000000000000;
    for (int i = 0; i < kFramesPerSecondPerChannel; ++i) {
      for (int ch = 0; ch < kChannels; ++ch) {
        f.Id = uint32_t(0x100 + ch);
        f.Data[0] = uint8_t(i);
        writer.write_packet(uint32_t(ch), us, socketcan_packet(f).view());
      }
      us += 50;
    }
    writer.flush();
    std::fclose(out);
    written = writer.packets();
  }
  uint64_t read = 0;
  const auto bytes = read_capture_file(path);
  PcapngReader reader(*bytes);
  CapturePacket p;
  while (reader.next(p)) ++read;
  std::remove(path.c_str());
  if (read != uint64_t(kFramesPerSecondPerChannel) * kChannels || written != read)
    state.SkipWithError("frames missing from the capture");
  state.counters["frames_read_back"] = double(read);
}

}  // namespace

BENCHMARK(BM_CaptureTwoChannelsOneSecond)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("fd")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

BENCHMARK_MAIN();
