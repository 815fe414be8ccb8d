// libFuzzer target: K-line bytes as a device sends them. The input drives the response reader in
// chunks of fuzzed sizes (both the K_ reading, addresses always, and the KWP_ one), then builds a
// request from fuzzed record fields and judges a fuzzed echo of it. Each result is checked
// against the frame format worked out here from the raw bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "lin/kline_frames.h"
#include "varnel.h"

namespace {

using namespace varnel::kline;

void require(bool ok) {
  if (!ok) std::abort();
}

// Where the frame at the start of `stream` ends, by the format alone; 0 while its header is cut.
size_t expected_total(std::span<const uint8_t> stream, bool addresses_always) {
  if (stream.empty()) return 0;
  const uint8_t fmt = stream[0];
  const bool addressed = addresses_always || (fmt & 0xC0) == 0x80 || (fmt & 0xC0) == 0xC0;
  const size_t header = 1 + (addressed ? 2 : 0) + ((fmt & 0x3F) == 0 ? 1 : 0);
  if (stream.size() < header) return 0;
  const size_t length = (fmt & 0x3F) == 0 ? stream[header - 1] : (fmt & 0x3F);
  return header + length + 1;
}

template <class Record>
void check_record(const ResponseReader& reader, std::span<const uint8_t> frame) {
  Record m{};
  fill_record(reader, m);
  const size_t header = frame.size() - reader.length() - 1;
  unsigned sum = 0;
  for (size_t i = 0; i + 1 < frame.size(); ++i) sum += frame[i];
  require(m.Fmt == frame[0] && m.Len == reader.length() && m.CheckSum == uint8_t(sum));
  require((m.CheckSum == frame.back()) == (reader.sum() == reader.received_checksum()));
  if (reader.length() == 0) return;  // no SID: the checksum follows the header
  require(m.SID == frame[header]);
  const size_t rest = std::min<size_t>(frame.size() - header - 1, VARNEL_KLINE_DATA_SIZE);
  require(std::memcmp(m.Data, frame.data() + header + 1, rest) == 0);
}

void read_response(std::span<const uint8_t> control, std::span<const uint8_t> stream,
                   bool addresses_always) {
  ResponseReader reader(addresses_always);
  const size_t total = expected_total(stream, addresses_always);
  size_t fed = 0, c = 0;
  while (fed < stream.size() && !reader.complete()) {
    const size_t chunk = std::min<size_t>(
        c < control.size() ? control[c++] % 17 + 1 : stream.size(), stream.size() - fed);
    reader.feed(stream.subspan(fed, chunk));
    fed += chunk;
  }
  require(reader.empty() == stream.empty());
  require(reader.complete() == (total != 0 && total <= stream.size()));
  if (!reader.complete()) return;
  require(reader.header_size() + reader.length() + 1 == total);
  check_record<K_MSG>(reader, stream.first(total));
  check_record<KWP_MSG>(reader, stream.first(total));
}

void judge_request_echo(std::span<const uint8_t> in) {
  if (in.size() < 6) return;
  KWP_MSG kwp{};
  kwp.Fmt = in[0], kwp.Len = in[1], kwp.SID = in[2];
  std::memcpy(kwp.Data, in.data() + 6, std::min<size_t>(in.size() - 6, sizeof kwp.Data));
  K_MSG k{};
  k.Fmt = in[0], k.Len = in[1], k.SID = in[2];
  std::memcpy(k.Data, kwp.Data, sizeof k.Data);
  for (const Frame& f : {kwp_request_frame(kwp), k_request_frame(k)}) {
    require(f.size >= 3 && f.size <= kMaxFrame);
    require(f.bytes[f.size - 1] == checksum(f.view().first(f.size - 1)));
    // The echo: the frame itself, then with one byte changed or cut at a fuzzed place.
    std::vector<uint8_t> echo(f.view().begin(), f.view().end());
    require(echo_matches(f.view(), echo));
    const size_t at = in[3] % f.size;
    if (in[4] & 1) {
      echo[at] ^= uint8_t(in[5] | 1);
    } else {
      echo.resize(at);
    }
    require(!echo_matches(f.view(), echo));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  // byte 0: how many control bytes follow; the rest: the bytes of the line
  const size_t controls = std::min<size_t>(data[0] % 8, size - 1);
  const std::span<const uint8_t> control(data + 1, controls);
  const std::span<const uint8_t> stream(data + 1 + controls, size - 1 - controls);
  read_response(control, stream, true);
  read_response(control, stream, false);
  judge_request_echo(stream);
  return 0;
}
