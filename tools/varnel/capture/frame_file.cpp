#include "capture/frame_file.h"

#include <fstream>
#include <iterator>
#include <span>

#include "capture/candump_log.h"
#include "capture/capture_records.h"
#include "capture/pcapng_reader.h"

namespace varnel_cli::capture {
namespace {

// The channel's index, added on first sight.
uint32_t channel_index(FrameFile& file, const std::string& name, const std::string& where) {
  for (size_t i = 0; i < file.channels.size(); ++i)
    if (file.channels[i].name == name) return uint32_t(i);
  file.channels.push_back({name, where});
  return uint32_t(file.channels.size() - 1);
}

bool starts_with_section_header(std::istream& in) {
  char magic[4] = {};
  in.read(magic, sizeof magic);
  const bool pcapng = in.gcount() == 4 && uint8_t(magic[0]) == 0x0A && uint8_t(magic[1]) == 0x0D &&
                      uint8_t(magic[2]) == 0x0D && uint8_t(magic[3]) == 0x0A;
  in.clear();
  in.seekg(0);
  return pcapng;
}

std::optional<FrameFile> read_log(std::istream& in, const std::string& name, std::string& error) {
  FrameFile file;
  candump_log::LogReader reader(in);
  candump_log::LogRecord record;
  while (reader.next(record)) {
    if (record.error_frame) continue;
    const std::string where = name + ":" + std::to_string(reader.line_number());
    file.frames.push_back(
        {record.time_us, channel_index(file, record.channel, where), record.frame});
  }
  if (!reader.error().empty()) {
    error = name + ":" + std::to_string(reader.line_number()) + ": " + reader.error();
    return std::nullopt;
  }
  return file;
}

// An interface without a name is called after its number, which an assignment can then name.
std::string interface_name(const CaptureInterface& interface, uint32_t number) {
  return interface.name.empty() ? "if" + std::to_string(number) : interface.name;
}

std::optional<FrameFile> read_capture(std::istream& in, const std::string& name,
                                      std::string& error) {
  const std::vector<uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
  PcapngReader reader(bytes);
  FrameFile file;
  CapturePacket packet;
  for (size_t number = 1; reader.next(packet); ++number) {
    if (packet.link_type != kLinkTypeSocketCan) continue;
    const auto decoded = decode_socketcan(packet.data);
    if (!decoded || decoded->error) continue;
    const std::string where = name + " (packet " + std::to_string(number) + ")";
    const std::string channel =
        interface_name(reader.interfaces()[packet.interface], packet.interface);
    file.frames.push_back({packet.time_us, channel_index(file, channel, where), decoded->frame});
  }
  if (!reader.error().empty()) {
    error = name + ": " + reader.error();
    return std::nullopt;
  }
  return file;
}

}  // namespace

std::optional<FrameFile> read_frame_file(std::istream& in, const std::string& name,
                                         std::string& error) {
  return starts_with_section_header(in) ? read_capture(in, name, error) : read_log(in, name, error);
}

std::optional<FrameFile> read_frame_file(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read " + path;
    return std::nullopt;
  }
  return read_frame_file(in, path, error);
}

}  // namespace varnel_cli::capture
