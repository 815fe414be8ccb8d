// Demo step of reprogramming over LIN: the virtual boot loader with NAD 20 on channel 0's bus
// gets 256 bytes at 0x100, which its own CRC-32 check then confirms, as `varnel lin flash` does.
#include <cstdio>
#include <numeric>
#include <vector>

#include "demo/demo.h"
#include "files/image_file.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool lin_boot_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  constexpr uint8_t kNad = 0x20;
  int rc = USDLINBoot_Init(h, 0, 19200);
  if (!demo.check(rc == 0, "USDLINBoot_Init", rc)) return false;
  rc = USDLINBoot_Start(h, 0, kNad, 0xBEEF, 2000);
  if (!demo.check(rc == 0, "USDLINBoot_Start", rc)) return false;
  demo.say("programming session, security access with key constant BEEF");
  std::vector<uint8_t> image(256);
  std::iota(image.begin(), image.end(), uint8_t(0x40));
  rc = USDLINBoot_Erase(h, 0, kNad, 0x100, uint32_t(image.size()));
  if (rc == 0) rc = USDLINBoot_WriteData(h, 0, kNad, 0x100, image.data(), uint32_t(image.size()));
  if (!demo.check(rc == 0, "USDLINBoot_Erase/WriteData", rc)) return false;
  uint8_t status = 0xFF;
  const uint32_t crc = image_crc32(image.data(), image.size());
  rc = VARNEL_USDLINBoot_MemCheckResult(h, 0, kNad, crc, &status);
  if (!demo.check(rc == 0 && status == 0, "USDLINBoot_MemCheck", rc)) return false;
  char text[96];
  std::snprintf(text, sizeof text,
                "erased and wrote 256 bytes at 0x100; the unit's CRC-32 %08X agrees", crc);
  demo.say(text);
  rc = USDLINBoot_ResetECU(h, 0, kNad);
  return demo.check(rc == 0, "USDLINBoot_ResetECU", rc);
}

}  // namespace

VARNEL_DEMO_STEP(610, "LIN: reprogram a control unit through its boot loader", lin_boot_step)

}  // namespace varnel_cli
