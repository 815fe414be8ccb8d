// `varnel adc`: the analogue inputs, one block or a stream.
//   varnel adc HANDLE read [-m MASK] [-r RATE] [-n N]        N samples of each input, a row per
//   instant varnel adc HANDLE stream [-m MASK] --rate R --seconds S [--csv FILE]
// The stream prints what came: samples, packets lost, and min/mean/max per input. Rows (on stdout
// for `read`, in the CSV file for `stream`) are "sample,in0,in1,..." with one column per input of
// the mask.
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct AdcOptions {
  uint32_t handle = 0;
  std::string mask_text = "0x01";
  uint32_t mask = 0x01;
  uint32_t rate = 1000;
  uint32_t count = 10;
  uint32_t packet = 0;  // 0: about 10 ms of samples
  double seconds = 1;
  std::string csv;
};

std::vector<int> inputs_of(uint32_t mask) {
  std::vector<int> inputs;
  for (int i = 0; i < 8; ++i)
    if (mask >> i & 1) inputs.push_back(i);
  return inputs;
}

std::string header(const std::vector<int>& inputs) {
  std::string text = "sample";
  for (int i : inputs) text += ",in" + std::to_string(i);
  return text;
}

bool failed(const char* call, int rc) {
  return call_failed(call, rc, {}, true);
}

void read_block(const AdcOptions& o) {
  const std::vector<int> inputs = inputs_of(o.mask);
  std::vector<uint16_t> samples(size_t(o.count) * inputs.size());
  if (failed("ADC_Init", ADC_Init(o.handle, uint8_t(o.mask), o.rate)) ||
      failed("ADC_Read", ADC_Read(o.handle, samples.data(), o.count)))
    return;
  std::printf("%s\n", header(inputs).c_str());
  for (size_t k = 0; k < o.count; ++k) {
    std::printf("%zu", k);
    for (size_t i = 0; i < inputs.size(); ++i) std::printf(",%u", samples[k * inputs.size() + i]);
    std::printf("\n");
  }
}

void run_read(const AdcOptions& o) {
  run_adapter_session({}, o.handle, [&o](const ChannelTarget&) {
    read_block(o);
    return 0;
  });
}

// Per input: the samples seen, their sum and extremes; the rows go to the CSV file if asked.
class StreamSummary {
 public:
  StreamSummary(std::vector<int> inputs, std::ofstream* csv)
      : inputs_(std::move(inputs)), csv_(csv), stats_(inputs_.size()) {
    if (csv_) *csv_ << header(inputs_) << "\n";
  }
  void add(const uint16_t* samples, int n) {
    for (int i = 0; i < n; ++i, ++position_) {
      const size_t column = position_ % inputs_.size();
      Stats& s = stats_[column];
      s.count++;
      s.sum += samples[i];
      s.min = std::min<unsigned>(s.min, samples[i]);
      s.max = std::max<unsigned>(s.max, samples[i]);
      if (!csv_) continue;
      if (column == 0) *csv_ << position_ / inputs_.size();
      *csv_ << "," << samples[i];
      if (column + 1 == inputs_.size()) *csv_ << "\n";
    }
  }
  void print(double seconds, int64_t lost) const {
    std::printf("samples received: %llu (%llu per input) in %.2f s\n",
                static_cast<unsigned long long>(position_),
                static_cast<unsigned long long>(position_ / inputs_.size()), seconds);
    std::printf("packets lost: %lld\n", static_cast<long long>(lost));
    for (size_t c = 0; c < inputs_.size(); ++c) {
      const Stats& s = stats_[c];
      if (s.count == 0) {
        std::printf("in%d: no samples\n", inputs_[c]);
        continue;
      }
      std::printf("in%d: min %u mean %.1f max %u\n", inputs_[c], s.min, double(s.sum) / s.count,
                  s.max);
    }
  }

 private:
  struct Stats {
    uint64_t count = 0, sum = 0;
    unsigned min = std::numeric_limits<unsigned>::max(), max = 0;
  };
  std::vector<int> inputs_;
  std::ofstream* csv_;
  std::vector<Stats> stats_;
  uint64_t position_ = 0;
};

void stream_for(const AdcOptions& o, std::ofstream* csv);

void run_stream(const AdcOptions& o) {
  std::unique_ptr<std::ofstream> csv;
  if (!o.csv.empty()) {
    csv = std::make_unique<std::ofstream>(o.csv);
    if (!*csv) {
      std::fprintf(stderr, "%s: cannot write\n", o.csv.c_str());
      exit_code() = 1;
      return;
    }
  }
  run_adapter_session({}, o.handle, [&](const ChannelTarget&) {
    stream_for(o, csv.get());
    return 0;
  });
}

// Streams for --seconds, then prints the summary (and has written the CSV rows).
void stream_for(const AdcOptions& o, std::ofstream* csv) {
  const std::vector<int> inputs = inputs_of(o.mask);
  const uint64_t per_10ms = std::max<uint64_t>(uint64_t(o.rate) * inputs.size() / 100, 1);
  const uint32_t packet = o.packet ? o.packet : uint32_t(std::min<uint64_t>(per_10ms, 0x10000));
  StreamSummary summary(inputs, csv);
  std::vector<uint16_t> chunk(std::max<size_t>(packet * 64, 0x10000));
  const auto take = [&] {
    int n;
    while ((n = ADC_GetData(o.handle, chunk.data(), int32_t(chunk.size()))) > 0)
      summary.add(chunk.data(), n);
  };
  const auto start = std::chrono::steady_clock::now();
  if (!failed("ADC_StartContinueRead",
              ADC_StartContinueRead(o.handle, uint8_t(o.mask), o.rate, packet, nullptr))) {
    const auto end = start + std::chrono::duration<double>(o.seconds);
    while (std::chrono::steady_clock::now() < end) {
      take();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADC_StopContinueRead(o.handle);
    take();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    summary.print(elapsed, VARNEL_ADC_Dropped(o.handle));
  }
}

void add_adc_commands(CLI::App& app) {
  CLI::App* adc = app.add_subcommand("adc", "analogue inputs: one block, or a stream");
  auto o = std::make_shared<AdcOptions>();
  adc->add_option("HANDLE", o->handle, "the adapter")->required()->check(handle_validator());
  adc->require_subcommand(1);
  CLI::App* read = adc->add_subcommand("read", "one block of -n samples of each input");
  read->add_option("-n,--count", o->count, "samples per input (default 10)")
      ->check(CLI::Range(1u, 1u << 20));
  read->callback([o] { run_read(*o); });
  CLI::App* stream = adc->add_subcommand("stream", "a continuous read with a summary");
  stream->add_option("--seconds", o->seconds, "how long (default 1)")
      ->check(CLI::Range(0.0, 86400.0));
  stream->add_option("--csv", o->csv, "write every sample to this file");
  stream->add_option("--packet", o->packet, "samples per packet (default: 10 ms of samples)")
      ->check(CLI::Range(1u, 0x40000u));
  stream->callback([o] { run_stream(*o); });
  for (CLI::App* command : {read, stream}) {
    command->add_option("-m,--mask", o->mask_text, "inputs, bit n = input n (default 0x01)")
        ->check(CLI::Validator(
            [o](std::string& text) -> std::string {
              return parse_handle(text, o->mask) && o->mask >= 1 && o->mask <= 0xFF
                         ? std::string()
                         : "mask: expected 0x01..0xFF, got " + text;
            },
            "MASK"));
    command->add_option("-r,--rate", o->rate, "samples per second per input (default 1000)")
        ->check(CLI::Range(1u, 100000000u));
  }
}

}  // namespace

VARNEL_COMMAND_GROUP(add_adc_commands)

}  // namespace varnel_cli
