// Demo step of the UART family: send on a channel, read it back through the virtual adapter's
// loopback plug, compare.
#include <string>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool loopback_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  UART_CONFIG config{};
  config.BaudRate = 115200;
  int rc = UART_Init(demo.handle, 0, &config);
  if (!demo.check(rc == 0, "UART_Init", rc)) return false;
  demo.say("UART_Init(channel 0): 115200 baud, 8N1; a loopback plug joins its TX and RX");
  const std::string sent = "Hello, VARNEL";
  rc = UART_WriteBytes(demo.handle, 0, reinterpret_cast<const uint8_t*>(sent.data()),
                       int32_t(sent.size()));
  if (!demo.check(rc == 0, "UART_WriteBytes", rc)) return false;
  demo.say("UART_WriteBytes: \"" + sent + "\"");
  uint8_t in[VARNEL_UART_READ_SIZE];
  std::string got;
  while (got.size() < sent.size()) {
    rc = UART_ReadBytes(demo.handle, 0, in, 100);
    if (rc <= 0) break;
    got.append(reinterpret_cast<const char*>(in), size_t(rc));
  }
  if (!demo.check(rc >= 0, "UART_ReadBytes", rc)) return false;
  demo.say("UART_ReadBytes: \"" + got + "\"" + (got == sent ? " (the same)" : " (differs)"));
  return got == sent;
}

VARNEL_DEMO_STEP(740, "uart: send and read back on a loopback", loopback_step)

}  // namespace
}  // namespace varnel_cli
