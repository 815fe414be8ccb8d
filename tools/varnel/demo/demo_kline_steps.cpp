// Demo step of the K-line: the virtual unit on channel 0 woken with the fast-init pattern and
// StartCommunication, then asked for its identification (1A 90).
#include <cstdio>
#include <string>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

KWP_MSG addressed(uint8_t sid, uint8_t data_byte, uint8_t length) {
  KWP_MSG m{};
  m.Fmt = uint8_t(0x80 | length);
  m.Tgt = 0x10;
  m.Src = 0xF1;
  m.SID = sid;
  m.Data[0] = data_byte;
  return m;
}

bool kline_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  KWP_MSG init{}, response{};
  KWP_MSG request = addressed(0x81, 0, 1);
  int rc = KWP_FastInit(h, 0, 10400, &init, &request, &response, 1000);
  if (!demo.check(rc == 0 && response.SID == 0xC1, "KWP_FastInit", rc)) return false;
  char text[128];
  std::snprintf(text, sizeof text,
                "fast init at 10400 baud, StartCommunication: C1, key bytes %02X %02X",
                response.Data[0], response.Data[1]);
  demo.say(text);
  request = addressed(0x1A, 0x90, 2);
  rc = KWP_Request(h, 0, &request);
  if (rc == 0) rc = KWP_Response(h, 0, &response, 1000);
  if (!demo.check(rc == 0 && response.SID == 0x5A, "KWP_Response", rc)) return false;
  const int n = response.Len > 2 ? response.Len - 2 : 0;
  demo.say("ReadEcuIdentification 90: " + std::string(response.Data + 1, response.Data + 1 + n));
  return true;
}

}  // namespace

VARNEL_DEMO_STEP(660, "K-line: fast init and a KWP2000 request to a virtual unit", kline_step)

}  // namespace varnel_cli
