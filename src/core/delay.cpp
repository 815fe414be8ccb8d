// Delays. delay_us and delay_ms spin on the high-resolution counter so that sub-millisecond waits
// are exact; sleep_ms yields the thread for long waits.
#include "core/delay.h"

#include <sys/prctl.h>
#include <time.h>

#include <cerrno>
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

// A sleep ends late by the thread's timer slack (50 us by default) and the scheduler's wake-up
// time; the last stretch before a deadline is spun so that the wait ends as exactly as a pure
// spin does.
constexpr int64_t kSpinMarginNs = 100'000;

// The calling thread's timer slack at 1 ns for one sleep, then as the application had it.
class FineTimerSlack {
 public:
  FineTimerSlack() : previous_(::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0)) {
    if (previous_ > 1) ::prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
  }
  ~FineTimerSlack() {
    if (previous_ > 1) ::prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(previous_), 0, 0, 0);
  }
  FineTimerSlack(const FineTimerSlack&) = delete;
  FineTimerSlack& operator=(const FineTimerSlack&) = delete;

 private:
  int previous_;
};

void sleep_until_ticks(int64_t wake) {
  const timespec at{static_cast<time_t>(wake / kTicksPerSecond),
                    static_cast<long>(wake % kTicksPerSecond)};
  FineTimerSlack fine;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

}  // namespace

void wait_until_ns(uint64_t deadline_ns) {
  const auto deadline = static_cast<int64_t>(deadline_ns);
  if (deadline - counter_ticks() > kSpinMarginNs) sleep_until_ticks(deadline - kSpinMarginNs);
  while (counter_ticks() < deadline) {
  }
}

void wait_for_us(uint64_t us) {
  wait_until_ns(static_cast<uint64_t>(counter_ticks()) + us * 1000);
}

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
