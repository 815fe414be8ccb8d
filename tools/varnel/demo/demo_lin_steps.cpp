// Demo step of LIN: channel 0 as master at 19,200 baud; the virtual bus's node answers 21. A write,
// a read, then a schedule of two slots played twice by the adapter, seen through the channel.
#include <chrono>
#include <cstdio>
#include <thread>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool lin_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  int rc = LIN_EX_Init(h, 0, 19200, 1);
  if (!demo.check(rc == 0, "LIN_EX_Init", rc)) return false;
  uint8_t data[8] = {0x01, 0x02};
  rc = LIN_EX_MasterWrite(h, 0, 0x3C, data, 2, LIN_EX_CHECK_STD);
  if (!demo.check(rc == 0, "LIN_EX_MasterWrite", rc)) return false;
  demo.say("master write 3C#0102 (classic checksum FC)");
  rc = LIN_EX_MasterRead(h, 0, 0x21, data);
  if (!demo.check(rc == 4, "LIN_EX_MasterRead", rc)) return false;
  char text[96];
  std::snprintf(text, sizeof text, "master read 21: %02X %02X %02X %02X, enhanced checksum good",
                data[0], data[1], data[2], data[3]);
  demo.say(text);
  LIN_EX_MSG drained[VARNEL_LIN_FETCH_SIZE];
  LIN_EX_GetMsg(h, 0, drained, VARNEL_LIN_FETCH_SIZE);  // the two frames above
  LIN_EX_MSG table[2] = {};
  table[0] = {10, LIN_EX_MSG_TYPE_MR, LIN_EX_CHECK_EXT, 0, 0, 0x21, {}, 0, 13, 1};
  table[1] = {10, LIN_EX_MSG_TYPE_MW, LIN_EX_CHECK_EXT, 1, 0, 0x22, {0x05}, 0, 13, 1};
  rc = LIN_EX_MasterSetSchRunTimes(h, 0, 2);
  if (rc == 0) rc = LIN_EX_MasterStartSch(h, 0, table, 2);
  if (!demo.check(rc == 0, "LIN_EX_MasterStartSch", rc)) return false;
  int seen = 0;
  for (int round = 0; round < 50 && seen < 4; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const int n = LIN_EX_GetMsg(h, 0, drained, VARNEL_LIN_FETCH_SIZE);
    seen += n > 0 ? n : 0;
  }
  std::snprintf(text, sizeof text,
                "a schedule of 21 and 22#05, 10 ms each, played twice: %d frames", seen);
  demo.say(text);
  return demo.check(seen == 4, "LIN_EX_GetMsg");
}

}  // namespace

VARNEL_DEMO_STEP(600, "LIN: master write, read and a schedule against a virtual node", lin_step)

}  // namespace varnel_cli
