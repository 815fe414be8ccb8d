// The frames of a recorded file, whichever of the two forms the tools write: a candump log
// ("(1700000000.123456) can0 123#DEADBEEF" lines) or a pcapng capture (`can dump -w`, tshark,
// Wireshark). A pcapng file is told by its first four bytes, the section header's block type;
// anything else is read as a log. Each pcapng interface's name (can0) stands where a log names
// its channel, so that the replay's CHANNEL=LOGCHANNEL and the monitor's channels read both the
// same. Error frames are the controller's report, not frames on the bus: they are left out, as
// are the packets of other link types (LIN) and SocketCAN packets that do not decode.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "varnel.h"

namespace varnel_cli::capture {

struct FileChannel {
  std::string name;   // the log's interface or the capture's if_name
  std::string where;  // where it first appears: "FILE:LINE" or "FILE (packet N)"
};

struct TimedFrame {
  uint64_t time_us = 0;  // host time the file gives, in µs
  uint32_t channel = 0;  // index into FrameFile::channels
  CANFD_MSG frame{};     // Id bit 31 extended, bit 30 remote; Flags 0x04 FD, 0x01 BRS, 0x02 ESI
};

struct FrameFile {
  std::vector<FileChannel> channels;  // in order of first appearance
  std::vector<TimedFrame> frames;     // in file order
};

// Reads a whole file from a stream that can be rewound (a file, or standard input kept in
// memory); `name` names it in messages. Nullopt with `error` set ("FILE:LINE: why" for a log,
// "FILE: why at offset N" for a capture) when the file is bad: then nothing of it is used.
std::optional<FrameFile> read_frame_file(std::istream& in, const std::string& name,
                                         std::string& error);
std::optional<FrameFile> read_frame_file(const std::string& path, std::string& error);

}  // namespace varnel_cli::capture
