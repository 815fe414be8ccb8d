// Delays. delay_us and delay_ms spin on the high-resolution counter so that sub-millisecond waits
// are exact; sleep_ms yields the thread for long waits.
#include "core/delay.h"

#include <time.h>

#include <chrono>
#include <thread>

#include "varnel.h"

namespace varnel {
namespace {

// CLOCK_MONOTONIC counts nanoseconds: 1e9 ticks per second.
constexpr int64_t kTicksPerSecond = 1'000'000'000;

int64_t counter_ticks() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * kTicksPerSecond + now.tv_nsec;
}

}  // namespace

int64_t delay_ms_as_us(uint32_t ms) {
  return int64_t{static_cast<int32_t>(ms * 1000u)};
}

int64_t spin_for_us(int64_t us) {
  const int64_t start = counter_ticks();
  // Strictly greater: a wait of 0 still lasts until the counter has moved once.
  const int64_t target = us * kTicksPerSecond;
  for (;;) {
    int64_t elapsed = counter_ticks() - start;
    if (elapsed * 1'000'000 > target) return elapsed;
  }
}

}  // namespace varnel

VARNEL_API void delay_us(int32_t us) {
  varnel::spin_for_us(us);
}

VARNEL_API void delay_ms(uint32_t ms) {
  varnel::spin_for_us(varnel::delay_ms_as_us(ms));
}

VARNEL_API void sleep_ms(uint32_t ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
