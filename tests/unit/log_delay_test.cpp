// The log file switch, the busy-wait delays and the wait inside calls.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "core/clock.h"
#include "core/delay.h"
#include "varnel.h"

namespace {

std::string temp_path(const char* name) {
  return testing::TempDir() + "varnel_" + std::to_string(getpid()) + "_" + name;
}

std::string contents(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

double elapsed_ms(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

}  // namespace

TEST(DebugLog, StartReportsWhetherTheFileOpenedAndAppends) {
  DEBUG_SetHandle();
  EXPECT_EQ(DEBUG_StopLog(), 0);  // nothing open
  const std::string existing = temp_path("log_existing.txt"), fresh = temp_path("log_new.txt");
  std::ofstream(existing) << "earlier lines\n";
  std::remove(fresh.c_str());
  const std::pair<const char*, int> cases[] = {{"/nonexistent-varnel-dir/sub/log.txt", -1},
                                               {nullptr, -1},
                                               {"/", -1},
                                               {existing.c_str(), 0},
                                               {fresh.c_str(), 0}};
  for (auto [path, result] : cases) {
    EXPECT_EQ(DEBUG_StartLogToFile(path), result) << (path ? path : "null");
    EXPECT_EQ(DEBUG_StopLog(), 0);
  }
  EXPECT_EQ(contents(existing), "earlier lines\n");  // opened for appending
  EXPECT_EQ(access(fresh.c_str(), F_OK), 0);
  ASSERT_EQ(DEBUG_StartLogToFile(fresh.c_str()), 0);
  ASSERT_EQ(DEBUG_StartLogToFile(fresh.c_str()), 0);  // a second start replaces the first
  EXPECT_EQ(DEBUG_StopLog(), 0);
  EXPECT_EQ(DEBUG_StopLog(), 0);
  std::remove(existing.c_str());
  std::remove(fresh.c_str());
}

TEST(Delay, MillisecondsBecomeMicrosecondsIn32Bits) {
  struct Case {
    uint32_t ms;
    int64_t us;
  } cases[] = {
      {0, 0},
      {1, 1000},
      {2147483, 2147483000},
      {2147484, -2147483296},  // past INT32_MAX: negative, no wait
      {4294968, 704},          // wraps past 2^32
      {4294967295u, -1000},
  };
  for (auto c : cases) EXPECT_EQ(varnel::delay_ms_as_us(c.ms), c.us) << c.ms;
}

TEST(Delay, ZeroOrNegativeWaitsForOneCounterTick) {
  for (int32_t us : {0, -1, -1000000}) EXPECT_GT(varnel::spin_for_us(us), 0) << us;
  auto start = std::chrono::steady_clock::now();
  delay_us(0);
  delay_ms(2147484);  // wrapped negative
  delay_ms(4294968);  // wrapped to 704 us
  EXPECT_LT(elapsed_ms(start), 1000.0);
}

TEST(Delay, WaitsAtLeastTheAskedTime) {
  const std::pair<void (*)(), double> waits[] = {
      {[] { delay_us(3000); }, 3.0}, {[] { delay_ms(2); }, 2.0}, {[] { sleep_ms(2); }, 2.0}};
  for (auto [wait, ms] : waits) {
    const auto start = std::chrono::steady_clock::now();
    wait();
    EXPECT_GE(elapsed_ms(start), ms);
  }
}

// The wait inside calls never ends before its deadline, whether it spins whole (50 us) or sleeps
// first, and leaves the thread's timer slack as the application set it.
TEST(Delay, WaitInsideCallsEndsNoEarlierThanItsDeadlineAndKeepsTheTimerSlack) {
  ASSERT_EQ(prctl(PR_SET_TIMERSLACK, 70000UL, 0, 0, 0), 0);
  for (uint64_t us : {0, 50, 150, 2000}) {
    const auto start = std::chrono::steady_clock::now();
    varnel::wait_for_us(us);
    EXPECT_GE(elapsed_ms(start) * 1000.0, double(us)) << us;
  }
  const uint64_t deadline = varnel::monotonic_ns() + 1'000'000;
  varnel::wait_until_ns(deadline);
  EXPECT_GE(varnel::monotonic_ns(), deadline);
  EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 70000);
}
