// Demo step of the SPI family: the SPI NOR flash on port 0 identified, a 4 KiB sector written
// across a page end, read back and compared, as `varnel spi flash` does it.
#include <numeric>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool spi_flash_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  SPI_CONFIG config{0, 1, 0, 0, 0, 0, {}, 10000000};
  SPI_FLASH_CONFIG flash;
  VARNEL_SPI_NorFlashConfig(&flash, 1 << 20);
  int rc = SPI_Init(h, 0, &config);
  if (!demo.check(rc == 0, "SPI_Init", rc)) return false;
  rc = SPI_FlashInit(h, 0, 10000000, &flash);
  if (!demo.check(rc == 0, "SPI_FlashInit", rc)) return false;
  uint8_t id[VARNEL_SPI_FLASH_ID_SIZE] = {};
  rc = SPI_FlashReadID(h, 0, id);
  if (!demo.check(rc == 0, "SPI_FlashReadID", rc)) return false;
  char text[64];
  std::snprintf(text, sizeof text, "SPI_FlashReadID: %02X %02X %02X (a 1 MiB SPI NOR flash)", id[0],
                id[1], id[2]);
  demo.say(text);
  std::vector<uint8_t> image(4096), back(4096);
  std::iota(image.begin(), image.end(), uint8_t(0x5A));
  rc = SPI_FlashErase(h, 0, 0x10080, int32_t(image.size()), 1000);
  if (!demo.check(rc == 0, "SPI_FlashErase", rc)) return false;
  rc = SPI_FlashWrite(h, 0, 0x10080, image.data(), int32_t(image.size()));
  if (!demo.check(rc == 0, "SPI_FlashWrite", rc)) return false;
  rc = SPI_FlashRead(h, 0, 0x10080, back.data(), int32_t(back.size()));
  if (!demo.check(rc == 0 && back == image, "SPI_FlashRead", rc)) return false;
  demo.say("erased, wrote and read back 4096 bytes at 0x10080, across 17 pages: identical");
  return true;
}

}  // namespace

VARNEL_DEMO_STEP(720, "SPI: write the SPI NOR flash and read it back", spi_flash_step)

}  // namespace varnel_cli
