// DBC parse time and decode throughput, through the exported calls. bench/compare_dbc.py runs this
// beside canmatrix and candied on the same file and prints the ratios.
//   bench_dbc [--benchmark_filter=...]   (VARNEL_DBC_BENCH_FILE overrides the file)
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "files/dbc_codec.h"
#include "files/dbc_parser.h"
#include "files/dbc_signals.h"
#include "varnel.h"

namespace {

std::string bench_file() {
  const char* env = std::getenv("VARNEL_DBC_BENCH_FILE");
  return env ? env : std::string(VARNEL_TEST_DATA) + "/dbc/opendbc__ford_lincoln_base_pt.dbc";
}

// The load alone: a database lives until the process ends, so freeing it is not part of it.
void BM_ParseFile(benchmark::State& state) {
  const std::string file = bench_file();
  for (auto _ : state) {
    auto db = varnel::dbc::load_file(file.c_str());
    if (!db) state.SkipWithError("cannot load");
    benchmark::DoNotOptimize(db.get());
    state.PauseTiming();
    db.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ParseFile)->Unit(benchmark::kMillisecond);

struct Workload {
  uint64_t handle = 0;
  struct Item {
    std::string name;
    std::vector<std::string> signals;
    CANFD_MSG frame;
  };
  std::vector<Item> items;  // one random frame per message, in file order
  size_t signal_count = 0;
};

const Workload& workload() {
  static Workload w = [] {
    Workload w;
    w.handle = VARNEL_DbcLoadFile(bench_file().c_str());
    std::mt19937 rng(7);
    char text[VARNEL_DBC_TEXT_MAX];
    for (int i = 0; i < DBC_GetMsgQuantity(w.handle); ++i) {
      Workload::Item item{};
      DBC_GetMsgName(w.handle, i, text);
      item.name = text;
      for (int k = 0; k < DBC_GetMsgSignalQuantity(w.handle, text); ++k) {
        char sig[VARNEL_DBC_TEXT_MAX];
        DBC_GetMsgSignalName(w.handle, item.name.c_str(), uint32_t(k), sig);
        item.signals.push_back(sig);
      }
      item.frame.Id = uint32_t(DBC_GetMsgIDByName(w.handle, text));
      item.frame.DataLen = 64;
      for (auto& b : item.frame.Data) b = uint8_t(rng());
      w.signal_count += item.signals.size();
      w.items.push_back(std::move(item));
    }
    return w;
  }();
  return w;
}

void set_rates(benchmark::State& state, size_t frames, size_t signals) {
  state.counters["frames_per_s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
  state.counters["signals_per_s"] =
      benchmark::Counter(double(signals), benchmark::Counter::kIsRate);
}

// A frame in, every signal's physical value out: what a bus monitor does per received frame.
void BM_DecodeFrames(benchmark::State& state) {
  const Workload& w = workload();
  size_t frames = 0;
  for (auto _ : state) {
    for (const auto& item : w.items) {
      DBC_SyncCANFDMsgToValue(w.handle, &item.frame, 1);
      for (const auto& s : item.signals) {
        double v;
        DBC_GetSignalValue(w.handle, item.name.c_str(), s.c_str(), &v);
        benchmark::DoNotOptimize(v);
      }
    }
    frames += w.items.size();
  }
  set_rates(state, frames, frames / w.items.size() * w.signal_count);
}
BENCHMARK(BM_DecodeFrames);

// The same work without the name look-ups: a decoded line for a dump.
void BM_FormatFrames(benchmark::State& state) {
  const Workload& w = workload();
  char line[VARNEL_DBC_TEXT_MAX * 4];
  size_t frames = 0;
  for (auto _ : state) {
    for (const auto& item : w.items) {
      benchmark::DoNotOptimize(
          VARNEL_DbcFormatFrame(w.handle, item.frame.Id, item.frame.Data, 64, line, sizeof line));
    }
    frames += w.items.size();
  }
  state.counters["frames_per_s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FormatFrames);

// The same frames through the whole-frame call: every signal's value in load order, no names.
// Argument 1: the standard reading; 0: the file read as DBC_ParserFile does.
void BM_DecodeFramesWhole(benchmark::State& state) {
  const Workload& w = workload();
  const uint64_t db = VARNEL_DbcLoadFileEx(bench_file().c_str(), uint32_t(state.range(0)));
  std::vector<double> values(1024);
  size_t frames = 0;
  for (auto _ : state) {
    for (const auto& item : w.items) {
      benchmark::DoNotOptimize(VARNEL_DbcDecodeFrame(db, item.frame.Id, item.frame.Data, 64,
                                                     values.data(), nullptr, 1024));
    }
    benchmark::ClobberMemory();
    frames += w.items.size();
  }
  set_rates(state, frames, frames / w.items.size() * w.signal_count);
}
BENCHMARK(BM_DecodeFramesWhole)->Arg(0)->Arg(1);

// The bit extraction alone: each signal's raw value from the frame, the frame read once.
void BM_ExtractBits(benchmark::State& state) {
  const Workload& w = workload();
  varnel::dbc::Database* db = varnel::dbc::database(w.handle);
  std::vector<const varnel::dbc::Message*> messages;
  for (const auto& item : w.items) messages.push_back(db->find_message(item.name));
  size_t frames = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < messages.size(); ++i) {
      const uint8_t* payload = w.items[i].frame.Data;
      const varnel::dbc::FirstWord word(payload, 64);
      uint64_t sum = 0;
      for (const auto& s : messages[i]->signals) sum += varnel::dbc::extract(s, word, payload, 64);
      benchmark::DoNotOptimize(sum);
    }
    frames += messages.size();
  }
  set_rates(state, frames, frames / w.items.size() * w.signal_count);
}
BENCHMARK(BM_ExtractBits);

}  // namespace

BENCHMARK_MAIN();
