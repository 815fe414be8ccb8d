// Firmware image conversion speed.
//
//   bench_hexfile                          Google Benchmark runs on a generated 16 MiB image
//   bench_hexfile --convert IN.hex OUT.bin one Intel HEX file to a flat binary (gaps 0xFF), the
//                                          driver bench/compare_hexfile.sh times against srec_cat
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "varnel.h"

namespace {

constexpr size_t kImageSize = 16u << 20;

// Intel HEX of `size` pseudo-random bytes at 0x08000000, 32 data bytes a record, with the type 04
// record each 64 KiB, as linkers and srec_cat write it.
std::string make_ihx(size_t size) {
  static const char* digits = "0123456789ABCDEF";
  std::string text;
  text.reserve(size / 32 * 77 + 64);
  uint32_t seed = 12345;
  auto record = [&](uint8_t type, uint16_t address, const uint8_t* data, size_t n) {
    uint8_t sum = static_cast<uint8_t>(n + (address >> 8) + address + type);
    auto put = [&](uint8_t b) {
      text += digits[b >> 4];
      text += digits[b & 15];
    };
    text += ':';
    put(static_cast<uint8_t>(n));
    put(static_cast<uint8_t>(address >> 8));
    put(static_cast<uint8_t>(address));
    put(type);
    for (size_t i = 0; i < n; ++i) {
      put(data[i]);
      sum = static_cast<uint8_t>(sum + data[i]);
    }
    put(static_cast<uint8_t>(-sum));
    text += "\r\n";
  };
  const uint32_t base = 0x08000000;
  for (size_t offset = 0; offset < size; offset += 32) {
    uint32_t address = base + static_cast<uint32_t>(offset);
    if ((address & 0xFFFF) == 0) {
      uint8_t upper[2] = {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16)};
      record(4, 0, upper, 2);
    }
    uint8_t data[32];
    for (auto& b : data) {
      seed = seed * 1103515245 + 12345;
      b = static_cast<uint8_t>(seed >> 16);
    }
    record(0, static_cast<uint16_t>(address), data, std::min<size_t>(32, size - offset));
  }
  text += ":00000001FF\r\n";
  return text;
}

const std::string& image_text() {
  static const std::string text = make_ihx(kImageSize);
  return text;
}

void BM_IhxToSegments(benchmark::State& state) {
  const std::string& text = image_text();
  HEXFILE_SEGMENT segments[4];
  for (auto _ : state) {
    int n = hexfile_convert_ihx(text.data(), static_cast<int32_t>(text.size()), segments, 4, 1);
    if (n != 1) state.SkipWithError("conversion failed");
    hexfile_free_data(segments, 4);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kImageSize));
}
BENCHMARK(BM_IhxToSegments)->Unit(benchmark::kMillisecond);

void BM_IhxToImage(benchmark::State& state) {
  const std::string& text = image_text();
  std::vector<uint8_t> image(kImageSize);
  HEXFILE_SEGMENT segments[4];
  for (auto _ : state) {
    hexfile_convert_ihx(text.data(), static_cast<int32_t>(text.size()), segments, 4, 1);
    if (hexfile_convert_image(image.data(), segments, 1, 1, -1) != static_cast<int>(kImageSize))
      state.SkipWithError("image failed");
    hexfile_free_data(segments, 4);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kImageSize));
}
BENCHMARK(BM_IhxToImage)->Unit(benchmark::kMillisecond);

// The driver mode: load, convert, fill, write, as a flashing tool would.
int convert_file(const char* in, const char* out) {
  int size = VARNEL_hexfile_load_file_n(in, nullptr, 0);
  if (size < 0) return 1;
  // not a std::vector: zeroing 40 MB only to overwrite it costs as much as the conversion
  std::unique_ptr<char[]> text(new char[static_cast<size_t>(size)]);
  if (VARNEL_hexfile_load_file_n(in, text.get(), static_cast<size_t>(size)) != size) return 1;
  std::vector<HEXFILE_SEGMENT> segments(4096);
  int count = hexfile_convert_ihx(text.get(), size, segments.data(), 4096, 1);
  int written = count > 0 ? hexfile_save_image(out, segments.data(), count, 1, 1) : -1;
  hexfile_free_data(segments.data(), 4096);
  if (written < 0) return 1;
  std::printf("%d bytes\n", written);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--convert") == 0) return convert_file(argv[2], argv[3]);
  if (argc == 3 && std::strcmp(argv[1], "--make-ihx") == 0) {
    // writes the benchmark's own 16 MiB image, for runs without srec_cat at hand
    FILE* f = std::fopen(argv[2], "wb");
    if (!f) return 1;
    const std::string& text = image_text();
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    return std::fclose(f) == 0 && ok ? 0 : 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
