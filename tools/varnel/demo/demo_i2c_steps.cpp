// Demo steps of the I2C family: scan the bus, write the EEPROM and read it back.
#include <cstdio>
#include <string>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr uint16_t kEeprom = 0x50;  // 24C02 on the virtual adapter's channel 0

bool detect_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  IIC_CONFIG config{100000, 0, 1, 7, 0, 0, {}};
  int rc = IIC_Init(demo.handle, 0, &config);
  if (!demo.check(rc == 0, "IIC_Init", rc)) return false;
  demo.say("IIC_Init(channel 0): master, 7-bit addresses, 100 kHz");
  uint16_t found[128];
  int n = IIC_GetSlaveAddr(demo.handle, 0, found);
  if (!demo.check(n >= 0, "IIC_GetSlaveAddr", n)) return false;
  std::string list;
  bool eeprom = false;
  for (int i = 0; i < n; ++i) {
    char text[8];
    std::snprintf(text, sizeof text, " 0x%02X", found[i]);
    list += text;
    eeprom |= found[i] == kEeprom;
  }
  demo.say("IIC_GetSlaveAddr probed 0x00-0x7F and found" + list);
  return eeprom;
}

bool eeprom_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint8_t write[] = {0x10, 'V', 'A', 'R', 'N', 'E', 'L'};  // word address, then data
  int rc = IIC_WriteBytes(demo.handle, 0, kEeprom, write, sizeof write, 100);
  if (!demo.check(rc == 0, "IIC_WriteBytes", rc)) return false;
  demo.say("IIC_WriteBytes(0x50): \"VARNEL\" at word address 0x10");
  uint8_t read[6] = {};
  rc = IIC_WriteReadBytes(demo.handle, 0, kEeprom, write, 1, read, sizeof read, 100);
  if (!demo.check(rc == 0, "IIC_WriteReadBytes", rc)) return false;
  std::string text(read, read + sizeof read);
  demo.say("IIC_WriteReadBytes(0x50, from 0x10, 6 bytes) = \"" + text + "\"");
  return text == "VARNEL";
}

VARNEL_DEMO_STEP(700, "i2c: scan the bus", detect_step)
VARNEL_DEMO_STEP(710, "i2c: write the EEPROM and read it back", eeprom_step)

}  // namespace
}  // namespace varnel_cli
