// KWP2000 frame building, checksum and response reading (see kline_frames.h).
#include "lin/kline_frames.h"

#include <algorithm>
#include <cstring>

namespace varnel::kline {
namespace {

// What both request records share once the length is settled.
struct Header {
  uint8_t fmt, tgt, src, len, sid;
  bool addresses;
  const uint8_t* data;
};

Frame build(const Header& h) {
  Frame f;
  auto put = [&f](uint8_t b) { f.bytes[f.size++] = b; };
  put(h.fmt);
  if (h.addresses) {
    put(h.tgt);
    put(h.src);
  }
  const bool length_byte = length_bits(h.fmt) == 0;
  if (length_byte) put(h.len);
  put(h.sid);
  // SID and L - 1 data bytes; a length of 0 still sends the SID
  const int length = length_byte ? h.len : length_bits(h.fmt);
  for (int i = 0; i < length - 1; ++i) put(h.data[i]);
  put(checksum(f.view()));
  return f;
}

}  // namespace

uint8_t checksum(std::span<const uint8_t> bytes) {
  unsigned sum = 0;
  for (uint8_t b : bytes) sum += b;
  return uint8_t(sum);
}

Frame k_request_frame(const K_MSG& r) {
  return build({r.Fmt, r.Tgt, r.Src, r.Len, r.SID, true, r.Data});
}

Frame kwp_request_frame(KWP_MSG& r) {
  if (r.Len > 63) r.Fmt &= 0xC0;
  Frame f = build({r.Fmt, r.Tgt, r.Src, r.Len, r.SID, has_addresses(r.Fmt), r.Data});
  r.CheckSum = f.bytes[f.size - 1];
  return f;
}

bool echo_matches(std::span<const uint8_t> sent, std::span<const uint8_t> echo) {
  return std::equal(sent.begin(), sent.end(), echo.begin(), echo.end());
}

bool ResponseReader::header_known() const {
  return size_ >= 1 && size_ >= header_size();
}

void ResponseReader::feed(std::span<const uint8_t> bytes) {
  for (uint8_t b : bytes) {
    if (complete()) return;
    bytes_[size_++] = b;
    // header, SID + data, checksum: at most 4 + 255 + 1 bytes, the size of the buffer
    if (total_ == 0 && header_known()) total_ = header_size() + length() + 1;
  }
}

std::span<const uint8_t> ResponseReader::after_sid(size_t capacity) const {
  const size_t first = std::min(header_size() + 1, size_);
  return {bytes_.data() + first, std::min(size_ - first, capacity)};
}

namespace {

// Both records have the same fields from Fmt on.
template <class Record>
void fill_fields(const ResponseReader& reader, Record& record, bool addresses) {
  record.Fmt = reader.fmt();
  if (addresses) {
    record.Tgt = reader.at(1);
    record.Src = reader.at(2);
  }
  record.Len = reader.length();
  record.SID = reader.at(reader.header_size());
  auto rest = reader.after_sid(sizeof record.Data);
  std::memcpy(record.Data, rest.data(), rest.size());
  record.CheckSum = reader.sum();
}

}  // namespace

void fill_record(const ResponseReader& reader, K_MSG& record) {
  fill_fields(reader, record, true);
}

void fill_record(const ResponseReader& reader, KWP_MSG& record) {
  fill_fields(reader, record, reader.addressed());
}

}  // namespace varnel::kline
