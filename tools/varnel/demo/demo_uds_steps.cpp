// Demo step of diagnostics on CAN: a request to the virtual bus's diagnostic ECU over ISO-TP, and
// a long one that takes first, consecutive and flow control frames both ways.
#include <numeric>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

int exchange(uint32_t handle, CAN_UDS_ADDR& addr, std::vector<uint8_t> request,
             std::vector<uint8_t>& response) {
  const int sent = CAN_UDS_Request(handle, 0, &addr, request.data(), int32_t(request.size()));
  if (sent != 0) return sent;
  response.assign(8192, 0);
  const int n =
      VARNEL_CAN_UDS_ResponseN(handle, 0, &addr, response.data(), uint32_t(response.size()), 1000);
  response.resize(size_t(std::max(n, 0)));
  return n;
}

bool uds_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  CAN_UDS_ADDR addr{0x7E0, 0x7E8, 0, 0, 0, 8};
  std::vector<uint8_t> response;
  int n = exchange(h, addr, {0x22, 0xF1, 0x90}, response);
  if (!demo.check(n > 3, "CAN_UDS_Request/Response 22 F1 90", n)) return false;
  demo.say("22 F1 90 (read the VIN) on 0x7E0, answer on 0x7E8: \"" +
           std::string(response.begin() + 3, response.end()) + "\"");
  std::vector<uint8_t> write(4000);
  std::iota(write.begin(), write.end(), uint8_t(0));
  write[0] = 0x2E, write[1] = 0x01, write[2] = 0x00;
  n = exchange(h, addr, write, response);
  if (!demo.check(n == 3 && response[0] == 0x6E, "CAN_UDS_Request 2E 01 00 (4000 bytes)", n))
    return false;
  n = exchange(h, addr, {0x22, 0x01, 0x00}, response);
  write[0] = 0x62;
  if (!demo.check(n == 4000 && response == write, "CAN_UDS_Response 62 01 00", n)) return false;
  // a first frame with 6 bytes, then consecutive frames of 7
  const size_t frames = 1 + (write.size() - 6 + 6) / 7;
  demo.say("wrote 4000 bytes to identifier 0x0100 and read them back: " + std::to_string(frames) +
           " frames each way");
  return true;
}

}  // namespace

VARNEL_DEMO_STEP(550, "UDS on CAN: the virtual ECU answers over ISO-TP", uds_step)

}  // namespace varnel_cli
