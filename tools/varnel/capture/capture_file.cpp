#include "capture/capture_file.h"

#include <cerrno>
#include <cstring>

#include "capture/capture_records.h"
#include "core/adapter.h"
#include "varnel_version.h"

namespace varnel_cli::capture {

CaptureFile::CaptureFile(std::FILE* out, bool owned)
    : out_(out), owned_(owned), writer_(out, "varnel " VARNEL_VERSION_STRING) {}

CaptureFile::~CaptureFile() {
  writer_.flush();
  if (owned_) std::fclose(out_);
}

std::unique_ptr<CaptureFile> CaptureFile::create(const std::string& path) {
  if (path == "-") return on_stream(stdout, false);
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) {
    std::fprintf(stderr, "cannot write %s: %s\n", path.c_str(), std::strerror(errno));
    return nullptr;
  }
  return on_stream(out, true);
}

std::unique_ptr<CaptureFile> CaptureFile::on_stream(std::FILE* out, bool owned) {
  return std::unique_ptr<CaptureFile>(new CaptureFile(out, owned));
}

uint32_t CaptureFile::add_can_channel(const std::string& name, uint32_t handle, uint8_t channel,
                                      uint32_t bitrate, uint32_t data_bitrate) {
  const bool fd = is_fd_adapter(handle);
  std::string description = "VARNEL " + handle_text(handle) + ":" + std::to_string(channel) +
                            (fd ? " CAN FD " : " CAN ") + std::to_string(bitrate);
  if (fd) description += "/" + std::to_string(data_bitrate);
  description += " bit/s";
  return add_can_interface(name, description);
}

uint32_t CaptureFile::add_can_interface(const std::string& name, const std::string& description) {
  return writer_.add_interface(kLinkTypeSocketCan, name, description, uint32_t(kFdPacketSize));
}

uint32_t CaptureFile::add_lin_channel(const std::string& name, uint32_t handle, uint8_t channel,
                                      uint32_t baud) {
  const std::string description = "VARNEL " + handle_text(handle) + ":" + std::to_string(channel) +
                                  " LIN " + std::to_string(baud) + " baud";
  return writer_.add_interface(kLinkTypeLin, name, description, uint32_t(kLinHeader + 8));
}

bool CaptureFile::write_can(uint32_t interface, const CANFD_MSG& frame, uint64_t host_us) {
  const Packet p =
      frame.Id == VARNEL_CANFD_EVENT_ID ? socketcan_error_packet(frame) : socketcan_packet(frame);
  return writer_.write_packet(interface, host_us, p.view());
}

bool CaptureFile::write_lin(uint32_t interface, const LIN_EX_MSG& frame, uint64_t host_us) {
  const Packet p = lin_packet(frame);
  return p.size == 0 || writer_.write_packet(interface, host_us, p.view());
}

}  // namespace varnel_cli::capture
