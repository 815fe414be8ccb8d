// Putting an ISO 15765-2 message together from the frames received for it, apart from any
// adapter: the CAN UDS response reads frames off the channel and hands them in here one by one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace varnel::can {

class IsoTpReader {
 public:
  // `out` has room for `size` bytes; `pci_offset` is 1 under extended addressing (the address
  // byte in front of every frame is skipped unchecked), else 0.
  IsoTpReader(uint8_t* out, uint64_t size, size_t pci_offset)
      : out_(out), size_(size), pci_offset_(pci_offset) {}

  // One frame's bytes as they came off the bus (at most 64 are read). Returns the message length
  // when it is whole, 0 while it is not (frames too short for a protocol byte and flow control
  // frames count for nothing), or a CAN_UDS_ERR_* / VARNEL_CAN_UDS_ERR_SIZE code.
  // `flow_control_due` is set when the frame was a first frame: the sender waits for ours.
  int take(const uint8_t* frame, size_t length, bool* flow_control_due);

 private:
  int single(uint8_t pci, const uint8_t* body, size_t body_len, bool long_frame);
  int first(uint8_t pci, const uint8_t* body, size_t body_len, bool* flow_control_due);
  int consecutive(uint8_t pci, const uint8_t* body, size_t body_len);
  void copy(size_t at, const uint8_t* bytes, size_t n);

  uint8_t* out_;
  uint64_t size_;
  size_t pci_offset_;
  bool started_ = false;
  uint8_t expected_ = 1;
  uint64_t announced_ = 0, received_ = 0;
};

}  // namespace varnel::can
