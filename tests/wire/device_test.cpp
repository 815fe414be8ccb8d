// Device housekeeping against the virtual adapter over USB: request bytes, reply checks, the
// user-data flash and the time base.
#include "core/device.h"

#include <cstring>
#include <string>

#include "core/transport.h"
#include "sim/families/device.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;

namespace {

constexpr uint32_t kHandle = 0x31000010;

class Device : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adapter = plug_and_open(kHandle);
  }
  // Requests the adapter received, as (command, payload).
  std::vector<sim::Packet> sent() { return adapter->received(); }
  std::shared_ptr<sim::VirtualAdapter> adapter;
};

}  // namespace

TEST_F(Device, InfoRecordCarriesFirmwareVersionAtBytes68To71) {
  adapter->state<sim::DeviceModel>().firmware_version = 0x0105001E;
  DEVICE_INFO info{};
  char functions[VARNEL_DEV_FUNCTION_STRING_SIZE];
  std::memset(functions, 'x', sizeof functions);
  ASSERT_TRUE(DEV_GetDeviceInfo(kHandle, &info, functions));
  uint8_t raw[88];
  std::memcpy(raw, &info, sizeof raw);
  EXPECT_EQ(raw[68], 0x1E);
  EXPECT_EQ(raw[71], 0x01);
  EXPECT_EQ(info.FirmwareVersion, 0x0105001Eu);
  EXPECT_STREQ(info.FirmwareName, "VARNEL virtual adapter");
  EXPECT_STREQ(functions, adapter->state<sim::DeviceModel>().functions.c_str());
  auto packets = sent();
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0].command, 0x0100u);
  EXPECT_EQ(packets[1].command, 0x0106u);
}

TEST_F(Device, InfoWithoutFunctionStringMakesOneTransaction) {
  DEVICE_INFO info{};
  ASSERT_TRUE(DEV_GetDeviceInfo(kHandle, &info, nullptr));
  EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Device, FunctionStringLengths) {
  struct Case {
    size_t length;
    bool ok;
  } cases[] = {{0, true}, {200, true}, {201, false}, {5000, false}};
  for (auto c : cases) {
    adapter->state<sim::DeviceModel>().functions = std::string(c.length, 'F');
    DEVICE_INFO info{};
    std::vector<char> functions(VARNEL_DEV_FUNCTION_STRING_SIZE + 16, 'x');
    EXPECT_EQ(DEV_GetDeviceInfo(kHandle, &info, functions.data()), c.ok) << c.length;
    // the record is filled before the function string is asked for
    EXPECT_EQ(info.FirmwareVersion, sim::kDefaultFirmwareVersion);
    if (c.ok) {
      EXPECT_EQ(std::strlen(functions.data()), c.length);
    }
    // nothing beyond the documented buffer size is touched
    EXPECT_EQ(functions[VARNEL_DEV_FUNCTION_STRING_SIZE], 'x') << c.length;
  }
}

TEST_F(Device, HardwareInfoJudgesLengthAndFirstByte) {
  struct Case {
    std::vector<uint8_t> reply;
    bool ok;
  } cases[] = {{std::vector<uint8_t>(64, 0x01), true},
               {std::vector<uint8_t>(63, 0x01), false},
               {std::vector<uint8_t>(65, 0x01), false},
               {std::vector<uint8_t>(64, 0x00), false},
               {std::vector<uint8_t>(64, 0xFF), false}};
  for (auto& c : cases) {
    auto reply = c.reply;
    adapter->on(0x010D, 0x010D, [reply](sim::VirtualAdapter&, const sim::Packet&) {
      return std::optional<sim::Packet>(sim::reply_with(0x010D, reply));
    });
    uint8_t out[64] = {};
    EXPECT_EQ(DEV_GetHardwareInfo(kHandle, out), c.ok) << c.reply.size() << " " << int(c.reply[0]);
  }
}

TEST_F(Device, UserDataWriteChecksBeforeSending) {
  std::vector<uint8_t> data(VARNEL_DEV_USER_DATA_SIZE + 1, 0x5A);
  EXPECT_FALSE(DEV_WriteUserData(kHandle, 2, data.data(), 4));
  EXPECT_FALSE(DEV_WriteUserData(kHandle, 0, data.data(), VARNEL_DEV_USER_DATA_SIZE + 1));
  EXPECT_FALSE(DEV_ReadUserData(kHandle, 6, data.data(), 4));
  EXPECT_TRUE(sent().empty());

  ASSERT_TRUE(DEV_WriteUserData(kHandle, 0, data.data(), VARNEL_DEV_USER_DATA_SIZE));
  auto packets = sent();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].command, 0x0107u);
  ASSERT_EQ(packets[0].payload.size(), size_t(VARNEL_DEV_USER_DATA_SIZE + 4));
  EXPECT_EQ(sim::be32(packets[0].payload, 0), 0u);
}

TEST_F(Device, UserDataRoundTripsAndSectorsErase) {
  const uint8_t pattern[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(DEV_EraseUserData(kHandle));
  ASSERT_TRUE(DEV_WriteUserData(kHandle, 4096 - 4, pattern, 8));  // spans sectors 0 and 1
  uint8_t back[8] = {};
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 4096 - 4, back, 8));
  EXPECT_EQ(std::memcmp(back, pattern, 8), 0);
  EXPECT_EQ(sim::be32(sent().back().payload, 0), 4092u);
  EXPECT_EQ(sim::be32(sent().back().payload, 4), 8u);

  ASSERT_TRUE(DEV_EraseUserDataSector(kHandle, 1));
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 4096 - 4, back, 8));
  const uint8_t expect[8] = {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(std::memcmp(back, expect, 8), 0);
  EXPECT_FALSE(DEV_EraseUserDataSector(kHandle, 5));  // the area has sectors 0..4
  // past the end of the area the firmware refuses
  EXPECT_FALSE(DEV_WriteUserData(kHandle, VARNEL_DEV_USER_DATA_SIZE - 4, pattern, 8));
}

TEST_F(Device, ReadUserDataStoresNoMoreThanAsked) {
  uint8_t buffer[12];
  std::memset(buffer, 0xAB, sizeof buffer);
  adapter->on(0x0108, 0x0108, [](sim::VirtualAdapter&, const sim::Packet&) {
    return std::optional<sim::Packet>(sim::reply_with(0x0108, std::vector<uint8_t>(100, 0x11)));
  });
  EXPECT_TRUE(DEV_ReadUserData(kHandle, 0, buffer, 8));
  EXPECT_EQ(buffer[7], 0x11);
  EXPECT_EQ(buffer[8], 0xAB);
}

TEST_F(Device, TimestampMsIsTheDeviceClockInMilliseconds) {
  adapter->clock().advance_us(5'000'000'000ull);  // 5,000,000 ms
  int64_t ms = DEV_GetTimestampMs(kHandle);
  EXPECT_GE(ms, 5'000'000);
  EXPECT_LT(ms, 5'000'000 + 60'000);
  ASSERT_TRUE(DEV_ResetTimestamp(kHandle));
  EXPECT_LT(DEV_GetTimestampMs(kHandle), 60'000);
  EXPECT_EQ(sent().back().command, 0x0015u);
  EXPECT_TRUE(sent().back().payload.empty());
}

TEST_F(Device, TimestampMsFailureValues) {
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 4});
  EXPECT_EQ(DEV_GetTimestampMs(kHandle), -1);
  EXPECT_EQ(DEV_GetTimestampMs(0x0BADF00D), 0);  // unknown handle: nothing written
}

TEST_F(Device, CorrectionSendsHostTimeInHostOrderAndKeepsTheFirst) {
  const int index = varnel::device_index(kHandle);
  ASSERT_GE(index, 0);
  const auto before = varnel::correction_times(index);
  ASSERT_TRUE(DEV_CorrectionTimestamp(kHandle));
  const auto first = varnel::correction_times(index);
  auto packet = sent().back();
  ASSERT_EQ(packet.command, 0x0014u);
  ASSERT_EQ(packet.payload.size(), 8u);
  uint64_t on_wire = 0;
  std::memcpy(&on_wire, packet.payload.data(), 8);
  EXPECT_EQ(on_wire, first.last_ms);
  EXPECT_EQ(uint64_t(adapter->state<sim::DeviceModel>().last_correction_ms), first.last_ms);
  if (before.first_ms == 0) {
    EXPECT_EQ(first.first_ms, first.last_ms);
  }

  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(DEV_CorrectionTimestamp(kHandle));
  const auto second = varnel::correction_times(index);
  EXPECT_EQ(second.first_ms, first.first_ms);
  EXPECT_GT(second.last_ms, first.last_ms);

  EXPECT_FALSE(DEV_CorrectionTimestamp(0x0BADF00D));
}

TEST_F(Device, PowerLevelIpAddressAndTimers) {
  ASSERT_TRUE(DEV_SetPowerLevel(kHandle, 3));
  EXPECT_EQ(adapter->state<sim::DeviceModel>().power_level, 3);
  char ip[VARNEL_DEV_IP_ADDR_SIZE] = "10.1.2.3";
  ASSERT_TRUE(DEV_SetIPAddr(kHandle, ip));
  EXPECT_EQ(sent().back().payload.size(), 16u);
  char back[VARNEL_DEV_IP_ADDR_SIZE + 1];
  std::memset(back, 'x', sizeof back);
  ASSERT_TRUE(DEV_GetIPAddr(kHandle, back));
  EXPECT_STREQ(back, "10.1.2.3");
  EXPECT_EQ(back[VARNEL_DEV_IP_ADDR_SIZE], 'x');

  uint8_t stamp[VARNEL_DEV_TIMESTAMP_SIZE] = {};
  ASSERT_TRUE(DEV_GetTimestamp(kHandle, 1, stamp));
  EXPECT_EQ(sent().back().payload, std::vector<uint8_t>{1});
  EXPECT_TRUE(DEV_GetDllBuildTime(nullptr));
  char built[VARNEL_DEV_BUILD_TIME_SIZE];
  ASSERT_TRUE(DEV_GetDllBuildTime(built));
  EXPECT_EQ(std::strlen(built), 19u);
  EXPECT_EQ(built[4], '-');
  EXPECT_NE(std::string(built).substr(5, 2), "00");  // the month name was recognised
}
