// Device housekeeping against the virtual adapter over USB: request bytes, reply checks, the
// user-data flash and the time base.
#include "core/device.h"

#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "core/transport.h"
#include "sim/families/device.h"
#include "support/sim_fixture.h"

using sim::ReplyFault;
using testing_support::SimTest;

namespace {

constexpr uint32_t kHandle = 0x31000010;  // a classic CAN adapter

class Device : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adapter = plug_and_open(kHandle);
  }
  std::vector<sim::Packet> sent() { return adapter->received(); }
  sim::DeviceModel& model() { return adapter->state<sim::DeviceModel>(); }
  void hold_device_time_ms(uint64_t ms) { adapter->clock().hold_at_us(ms * 1000); }
  std::shared_ptr<sim::VirtualAdapter> adapter;
};

int64_t host_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

TEST_F(Device, InfoCopiesTheRecordAndJudgesTheFunctionString) {
  struct Case {
    int length;  // -1: no function-string buffer
    bool ok;
  } cases[] = {{-1, true}, {0, true}, {200, true}, {201, false}, {5000, false}};
  for (auto c : cases) {
    adapter->clear_received();
    model().functions = std::string(size_t(std::max(c.length, 0)), 'F');
    DEVICE_INFO info{};
    std::vector<char> functions(VARNEL_DEV_FUNCTION_STRING_SIZE + 1, 'x');
    EXPECT_EQ(DEV_GetDeviceInfo(kHandle, &info, c.length < 0 ? nullptr : functions.data()), c.ok);
    EXPECT_EQ(sent().size(), c.length < 0 ? 1u : 2u) << c.length;  // the string: a second one
    // the record is filled (as it stands) before the function string is asked for
    EXPECT_EQ(std::memcmp(&info, sim::device_info_record(*adapter).data(), sizeof info), 0);
    if (c.ok && c.length >= 0) {
      EXPECT_EQ(std::strlen(functions.data()), size_t(c.length));
    }
    EXPECT_EQ(functions[VARNEL_DEV_FUNCTION_STRING_SIZE], 'x') << c.length;
  }
  DEVICE_INFO info{};
  adapter->faults().next_reply({ReplyFault::Kind::kAnnounceLength, 0});
  EXPECT_FALSE(DEV_GetDeviceInfo(kHandle, &info, nullptr));  // an empty record
}

TEST_F(Device, HardwareInfoJudgesLengthAndFirstByte) {
  struct Case {
    size_t length;
    uint8_t fill;
    bool ok;
  } cases[] = {{64, 1, true}, {63, 1, false}, {65, 1, false}, {64, 0, false}, {64, 0xFF, false}};
  for (auto c : cases) {
    adapter->on(0x010D, 0x010D, [c](sim::VirtualAdapter&, const sim::Packet&) {
      return std::optional(sim::reply_with(0x010D, std::vector<uint8_t>(c.length, c.fill)));
    });
    uint8_t out[64] = {};
    EXPECT_EQ(DEV_GetHardwareInfo(kHandle, out), c.ok) << c.length << " " << int(c.fill);
  }
}

TEST_F(Device, UserDataWriteChecksBeforeSending) {
  std::vector<uint8_t> data(VARNEL_DEV_USER_DATA_SIZE + 1, 0x5A);
  EXPECT_FALSE(DEV_WriteUserData(kHandle, 2, data.data(), 4));
  EXPECT_FALSE(DEV_WriteUserData(kHandle, 0, data.data(), VARNEL_DEV_USER_DATA_SIZE + 1));
  EXPECT_FALSE(DEV_ReadUserData(kHandle, 6, data.data(), 4));
  EXPECT_TRUE(sent().empty());

  ASSERT_TRUE(DEV_WriteUserData(kHandle, 0, data.data(), VARNEL_DEV_USER_DATA_SIZE));
  ASSERT_EQ(sent().size(), 1u);
  EXPECT_EQ(sent()[0].command, 0x0107u);
  EXPECT_EQ(sent()[0].payload.size(), size_t(VARNEL_DEV_USER_DATA_SIZE + 4));
}

TEST_F(Device, UserDataRoundTripsAndSectorsErase) {
  const uint8_t pattern[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(DEV_EraseUserData(kHandle));
  ASSERT_TRUE(DEV_WriteUserData(kHandle, 4096 - 4, pattern, 8));  // spans sectors 0 and 1
  uint8_t back[8] = {};
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 4096 - 4, back, 8));
  EXPECT_EQ(std::memcmp(back, pattern, 8), 0);
  EXPECT_EQ(sent().back().payload, (std::vector<uint8_t>{0, 0, 0x0F, 0xFC, 0, 0, 0, 8}));

  ASSERT_TRUE(DEV_EraseUserDataSector(kHandle, 1));
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 4096 - 4, back, 8));
  const uint8_t expect[8] = {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(std::memcmp(back, expect, 8), 0);
  EXPECT_FALSE(DEV_EraseUserDataSector(kHandle, 5));  // the area has sectors 0..4
  EXPECT_FALSE(DEV_WriteUserData(kHandle, VARNEL_DEV_USER_DATA_SIZE - 4, pattern, 8));
}

// The reply goes into the buffer whatever its length (never past the count asked); only a reply
// that could not be read fails. The extension tells how many bytes came.
TEST_F(Device, UserDataReadTakesAnyReplyAndTheCountTells) {
  struct Case {
    const char* name;
    std::optional<ReplyFault> fault;
    uint32_t offset;
    bool ok;
    int count;
  } cases[] = {
      {"whole", {}, 0, true, 8},
      {"the area ends after 4 bytes", {}, VARNEL_DEV_USER_DATA_SIZE - 4, true, 4},
      {"longer", ReplyFault{ReplyFault::Kind::kAnnounceLength, 100}, 0, true, 8},
      {"empty", ReplyFault{ReplyFault::Kind::kAnnounceLength, 0}, 0, true, 0},
      {"length -1", ReplyFault{ReplyFault::Kind::kAnnounceLength, uint32_t(-1)}, 0, true, 0},
      {"cut payload", ReplyFault{ReplyFault::Kind::kShort, 4}, 0, false, -4},
      {"another command", ReplyFault{ReplyFault::Kind::kOtherCommand, 0x0101}, 0, false, -4},
      {"offset not a multiple of 4", {}, 2, false, -7}};
  for (auto& c : cases) {
    uint8_t buffer[9];
    std::memset(buffer, 0xAB, sizeof buffer);
    if (c.fault) adapter->faults().next_reply(*c.fault);
    EXPECT_EQ(DEV_ReadUserData(kHandle, c.offset, buffer, 8), c.ok) << c.name;
    if (c.fault) adapter->faults().next_reply(*c.fault);
    EXPECT_EQ(VARNEL_DEV_ReadUserDataN(kHandle, c.offset, buffer, 8), c.count) << c.name;
    EXPECT_EQ(buffer[8], 0xAB) << c.name;
  }
  // Over USB a reply above 0x80000 bytes is cut to that: still a read.
  constexpr uint32_t kAsked = 0x80000 + 4;
  std::vector<uint8_t> big(kAsked);
  for (int n = 0; n < 2; ++n)
    adapter->faults().next_reply({ReplyFault::Kind::kAnnounceLength, kAsked});
  EXPECT_TRUE(DEV_ReadUserData(kHandle, 0, big.data(), kAsked));
  // the 4 bytes beyond the cut are read off before the next request: its reply is its own
  EXPECT_EQ(VARNEL_DEV_ReadUserDataN(kHandle, 0, big.data(), kAsked), 0x80000);
  EXPECT_NE(DEV_GetTimestampMs(kHandle), 0u);
}

// Calls that store a reply of a known size fail on any other reply, and never store past it.
TEST_F(Device, ReplyOfAnotherShapeFails) {
  struct Case {
    const char* name;
    ReplyFault fault;
  } cases[] = {{"cut payload", {ReplyFault::Kind::kShort, 4}},
               {"length -1", {ReplyFault::Kind::kAnnounceLength, uint32_t(-1)}},
               {"length INT_MIN", {ReplyFault::Kind::kAnnounceLength, uint32_t(INT_MIN)}},
               {"empty", {ReplyFault::Kind::kAnnounceLength, 0}},
               {"longer", {ReplyFault::Kind::kAnnounceLength, 100}},
               {"another command", {ReplyFault::Kind::kOtherCommand, 0x0101}}};
  for (auto& c : cases) {
    uint8_t buffer[9];
    std::memset(buffer, 0xAB, sizeof buffer);
    adapter->faults().next_reply(c.fault);
    EXPECT_FALSE(DEV_GetTimestamp(kHandle, 0, buffer)) << c.name;
    EXPECT_EQ(buffer[8], 0xAB) << c.name;
    EXPECT_TRUE(DEV_GetTimestamp(kHandle, 1, buffer)) << c.name;  // the next call is in step
  }
  EXPECT_EQ(sent().back().payload, std::vector<uint8_t>{1});  // the timer selector
}

TEST_F(Device, DeviceTimeComesLeastSignificantByteFirst) {
  struct Case {
    uint64_t ms;
    std::vector<uint8_t> payload;  // the value's little-endian bytes, written out by hand
  } cases[] = {{123456, {0x40, 0xE2, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00}},
               {1234567890123, {0xCB, 0x04, 0xFB, 0x71, 0x1F, 0x01, 0x00, 0x00}}};
  for (auto& c : cases) {
    hold_device_time_ms(c.ms);
    usbsim::clear_transfers(kHandle);
    EXPECT_EQ(DEV_GetTimestampMs(kHandle), int64_t(c.ms));
    auto in = bulk_on(kHandle, 0x81);
    ASSERT_EQ(in.size(), 2u);
    EXPECT_EQ(in[0].data, (std::vector<uint8_t>{0, 0, 0, 0x15, 0, 0, 0, 8}));
    EXPECT_EQ(in[1].data, c.payload) << c.ms;
  }
  ASSERT_TRUE(DEV_ResetTimestamp(kHandle));
  EXPECT_EQ(DEV_GetTimestampMs(kHandle), 0);     // the held clock stands at the new time base
  EXPECT_EQ(DEV_GetTimestampMs(0x0BADF00D), 0);  // unknown handle: nothing written
}

// A channel's start time is the host's wall clock less the device time T, with T = -1 when the
// device time could not be read and T = 0 when its request could not be written.
TEST_F(Device, CanStartTimeIsHostTimeLessDeviceTime) {
  struct Case {
    const char* name;
    int64_t device_ms;
    std::function<void()> fault;
  } cases[] = {{"device time", 123456, [] {}},
               {"read fails", -1,
                [&] {
                  adapter->faults().next_reply({ReplyFault::Kind::kShort, 4, 0x0015});
                }},
               // the adapter goes to sleep after the correction, so the device time request is
               // never written (the write is retried for 3 s)
               {"write fails", 0, [&] {
                  adapter->on(0x0014, 0x0014, [](sim::VirtualAdapter&, const sim::Packet& request) {
                    usbsim::set_suspended(kHandle, true);
                    return std::optional(sim::reply_with(request.command));
                  });
                }}};
  hold_device_time_ms(123456);
  for (auto& c : cases) {
    c.fault();
    const int64_t before = host_ms();
    ASSERT_EQ(CAN_ResetStartTime(kHandle, 1), 0) << c.name;
    const int64_t after = host_ms(), host = CAN_GetStartTime(kHandle, 1) + c.device_ms;
    EXPECT_TRUE(host >= before && host <= after) << c.name << ": " << host - before;
  }
  usbsim::set_suspended(kHandle, false);
}

TEST_F(Device, CorrectionSendsHostTimeInHostOrderAndKeepsTheFirst) {
  const int64_t host_before = host_ms();
  ASSERT_TRUE(DEV_CorrectionTimestamp(kHandle));
  const auto first = varnel::correction_times(kHandle);
  const auto payload = sent().back().payload;
  ASSERT_EQ(payload.size(), 8u);
  uint64_t on_wire = 0;  // little-endian, written out rather than copied from memory
  for (int i = 7; i >= 0; --i) on_wire = (on_wire << 8) | payload[size_t(i)];
  EXPECT_EQ(on_wire, first.last_ms);
  EXPECT_GE(int64_t(on_wire), host_before);
  EXPECT_NE(first.first_ms, 0u);

  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(DEV_CorrectionTimestamp(kHandle));
  EXPECT_EQ(varnel::correction_times(kHandle).first_ms, first.first_ms);
  EXPECT_GT(varnel::correction_times(kHandle).last_ms, first.last_ms);
  EXPECT_FALSE(DEV_CorrectionTimestamp(0x0BADF00D));
}

TEST_F(Device, PowerLevelIpAddressAndBuildTime) {
  ASSERT_TRUE(DEV_SetPowerLevel(kHandle, 3));
  EXPECT_EQ(model().power_level, 3);
  char ip[VARNEL_DEV_IP_ADDR_SIZE] = "10.1.2.3";
  ASSERT_TRUE(DEV_SetIPAddr(kHandle, ip));
  EXPECT_EQ(sent().back().payload.size(), 16u);
  char back[VARNEL_DEV_IP_ADDR_SIZE + 1];
  std::memset(back, 'x', sizeof back);
  ASSERT_TRUE(DEV_GetIPAddr(kHandle, back));
  EXPECT_STREQ(back, "10.1.2.3");
  EXPECT_EQ(back[VARNEL_DEV_IP_ADDR_SIZE], 'x');

  EXPECT_TRUE(DEV_GetDllBuildTime(nullptr));
  char built[VARNEL_DEV_BUILD_TIME_SIZE];
  ASSERT_TRUE(DEV_GetDllBuildTime(built));
  EXPECT_EQ(std::strlen(built), 19u);
  // "YYYY-MM-DD hh:mm:ss" of a library built moments ago: within two days of today's date
  std::tm when{};
  ASSERT_NE(strptime(built, "%Y-%m-%d %H:%M:%S", &when), nullptr) << built;
  const double days = std::difftime(std::time(nullptr), std::mktime(&when)) / 86400.0;
  EXPECT_LT(std::abs(days), 2.0) << built;
}
