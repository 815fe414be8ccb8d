// Demo step of the CAN family: channel 0 sends to channel 1 of the same adapter over the virtual
// bus, and channel 1 reads the frames back.
#include <cstring>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool can_loopback_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  for (uint8_t ch = 0; ch < 2; ++ch) {
    const int rc = CAN_Init2(h, ch, 500000);
    if (!demo.check(rc == 0, "CAN_Init2", rc)) return false;
  }
  demo.say("CAN_Init2: channels 0 and 1 at 500 kbit/s on the same virtual bus");
  CAN_MSG out[2] = {};
  out[0].Id = 0x123;
  out[0].DataLen = 4;
  std::memcpy(out[0].Data, "\xDE\xAD\xBE\xEF", 4);
  out[1].Id = 0x1ABCDEF0;  // does not fit 11 bits: goes out extended
  out[1].DataLen = 2;
  out[1].Data[0] = 0x01;
  out[1].Data[1] = 0x02;
  const int sent = CAN_SendMsg(h, 0, out, 2);
  if (!demo.check(sent == 2, "CAN_SendMsg", sent)) return false;
  demo.say("CAN_SendMsg on channel 0: 123#DEADBEEF and 1ABCDEF0#0102");
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  const int got = CAN_GetMsg(h, 1, in.data());
  if (!demo.check(got == 2, "CAN_GetMsg", got)) return false;
  for (int i = 0; i < got; ++i) {
    CANFD_MSG view{};
    view.Id = in[size_t(i)].Id | (in[size_t(i)].Extended ? 0x80000000u : 0);
    view.DataLen = in[size_t(i)].DataLen;
    std::memcpy(view.Data, in[size_t(i)].Data, 8);
    demo.say("received" + varnel::can_text::candump_line("can1", view));
  }
  return in[0].Id == 0x123 && in[1].Id == 0x1ABCDEF0 && in[1].Extended == 1;
}

}  // namespace

VARNEL_DEMO_STEP(500, "CAN: channel 0 sends, channel 1 receives", can_loopback_step)

}  // namespace varnel_cli
