// Demo step of the ADC: a block of the first two inputs, then a quarter-second stream of input 0
// checked sample by sample against the ramp the virtual adapter puts on it.
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool adc_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t h = demo.handle;
  int rc = ADC_Init(h, 0x03, 10000);
  if (!demo.check(rc == 0, "ADC_Init", rc)) return false;
  uint16_t block[8];
  rc = ADC_Read(h, block, 4);
  if (!demo.check(rc == 0, "ADC_Read", rc)) return false;
  char text[96];
  std::snprintf(text, sizeof text, "ADC_Read: in0 %u %u %u %u, in1 %u %u %u %u", block[0], block[2],
                block[4], block[6], block[1], block[3], block[5], block[7]);
  demo.say(text);

  rc = ADC_StartContinueRead(h, 0x01, 200000, 1000, nullptr);
  if (!demo.check(rc == 0, "ADC_StartContinueRead", rc)) return false;
  std::vector<uint16_t> chunk(20000);
  uint64_t received = 0;
  bool in_order = true;
  const auto take = [&] {
    for (int n; (n = ADC_GetData(h, chunk.data(), int32_t(chunk.size()))) > 0;)
      for (int i = 0; i < n; ++i, ++received) in_order &= chunk[size_t(i)] == received % 4096;
  };
  for (int round = 0; round < 25; ++round) {
    take();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ADC_StopContinueRead(h);
  take();
  const int64_t lost = VARNEL_ADC_Dropped(h);
  std::snprintf(text, sizeof text, "streamed %llu samples of in0 at 200 kHz, %lld packets lost",
                static_cast<unsigned long long>(received), static_cast<long long>(lost));
  demo.say(text);
  return demo.check(received > 0 && in_order && lost == 0, "ADC stream: every sample in order");
}

}  // namespace

VARNEL_DEMO_STEP(730, "ADC: read a block, then stream an input", adc_step)

}  // namespace varnel_cli
