// What the library keeps per adapter belongs to the adapter's handle: a rescan that renumbers the
// adapters does not hand one adapter's state to another, and a closed adapter stays closed.
#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "core/transport.h"
#include "support/sim_fixture.h"

using testing_support::Adapter;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kGone = 0x11111110, kStays = 0x22222220;

bool contains(const Bytes& haystack, const Bytes& needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) !=
         haystack.end();
}
bool received(Adapter& adapter, uint32_t command, const Bytes& part) {
  for (auto& packet : adapter->received())
    if (packet.command == command && contains(packet.payload, part)) return true;
  return false;
}

int transfers_to(uint32_t handle, usbsim::Transfer::Kind kind, uint8_t endpoint) {
  int n = 0;
  for (auto& t : usbsim::transfers(handle)) n += t.kind == kind && t.endpoint == endpoint;
  return n;
}

// Each family: its state set on both adapters (unlike), and a call on the adapter that stays which
// shows whether it still finds its own.
struct LinChannel {
  static void set(DevHandle h, bool stays) {
    if (!stays) return;
    ASSERT_EQ(LIN_EX_Init(h, 0, 19200, 1), 0);
  }
  static void expect_own(Adapter&) {
    uint8_t data[8];
    EXPECT_EQ(LIN_EX_MasterRead(kStays, 0, 0x21, data), 4) << "initialised: the node answers";
  }
};
struct SpiFlash {
  static void set(DevHandle h, bool stays) {
    SPI_FLASH_CONFIG flash{};
    VARNEL_SPI_NorFlashConfig(&flash, 1 << 20);
    if (!stays) return;
    ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  }
  static void expect_own(Adapter&) { EXPECT_EQ(SPI_FlashEraseChip(kStays, 0, 1000), 0); }
};
struct I2cWidth {
  static void set(DevHandle h, bool stays) {
    IIC_CONFIG config{100000, 0, 1, 7, 0, 0, {}};
    if (!stays) return;
    ASSERT_EQ(IIC_Init(h, 0, &config), 0);
  }
  static void expect_own(Adapter&) {
    uint16_t found[1024];
    usbsim::clear_transfers(kStays);
    EXPECT_EQ(IIC_GetSlaveAddr(kStays, 0, found), 3);
    EXPECT_EQ(transfers_to(kStays, usbsim::Transfer::Kind::kBulk, 0x01), 128) << "7-bit: 0..127";
  }
};
struct KlineConfig {
  static void set(DevHandle h, bool stays) { ASSERT_EQ(K_Init(h, 0, stays ? 9600 : 10400), 0); }
  static void expect_own(Adapter& adapter) {
    K_MSG start{}, answer{};
    K_FastInit(kStays, 0, &start, &answer, 0);
    EXPECT_TRUE(received(adapter, 0xA00, {0, 0x80, 0x25, 0, 0})) << "9600 baud, as stored";
  }
};
struct UdsConfig {
  static void set(DevHandle h, bool stays) {
    CAN_UDS_CONFIG config{0, 0, uint8_t(stays ? 0xAA : 0x55), 0, 0};
    ASSERT_EQ(CAN_UDS_Config(h, 0, &config), 0);
  }
  static void expect_own(Adapter& adapter) {
    CAN_UDS_ADDR addr{0x7E0, 0x7E8, 0, 0, 0, 8};
    uint8_t message[] = {0x3E, 0x00};
    CAN_UDS_Request(kStays, 0, &addr, message, 2);
    EXPECT_TRUE(received(adapter, 0xC02, {0x02, 0x3E, 0x00, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}));
  }
};
struct CanStartTime {
  static void set(DevHandle h, bool stays) {
    ASSERT_EQ(CAN_SetStartTime(h, 0, stays ? 2222 : 1111), 0);
  }
  static void expect_own(Adapter&) { EXPECT_EQ(CAN_GetStartTime(kStays, 0), 2222); }
};
struct AdcStream {
  static void set(DevHandle h, bool stays) {
    if (!stays) return;
    ASSERT_EQ(ADC_StartContinueRead(h, 0x01, 10000, 64, nullptr), 0);
  }
  static void expect_own(Adapter&) {
    ASSERT_EQ(VARNEL_ADC_StreamState(kStays), 1);
    usbsim::clear_transfers(kStays);
    EXPECT_EQ(ADC_StopContinueRead(kStays), 0);
    EXPECT_EQ(VARNEL_ADC_StreamState(kStays), 0);
    EXPECT_EQ(transfers_to(kStays, usbsim::Transfer::Kind::kControl, 0x40), 1) << "the stop";
  }
};

template <class Family>
class AdapterState : public testing_support::SimTest {};
using Families = ::testing::Types<LinChannel, SpiFlash, I2cWidth, KlineConfig, UdsConfig,
                                  CanStartTime, AdcStream>;
TYPED_TEST_SUITE(AdapterState, Families);

TYPED_TEST(AdapterState, StaysWithItsAdapterWhenARescanRenumbersTheAdapters) {
  this->plug_and_open(kGone, {1, {1}});
  Adapter stays = this->plug_and_open(kStays, {1, {2}});
  TypeParam::set(kGone, false);
  TypeParam::set(kStays, true);
  ASSERT_EQ(varnel::device_index(kStays), 1);
  usbsim::unplug(kGone);
  ASSERT_TRUE(testing_support::scan_until_listed(kGone, false));
  ASSERT_EQ(varnel::device_index(kStays), 0);
  stays->clear_received();
  TypeParam::expect_own(stays);
}

class AdapterLifecycle : public testing_support::SimTest {};

// A close sticks: calls after it fail at once without reopening, also one that was running on
// another thread; the resume calls do not reopen it either, only an open does.
TEST_F(AdapterLifecycle, ClosedAdapterStaysClosedUntilOpenedAgain) {
  this->plug_and_open(kStays);
  std::atomic<bool> closed{false}, failed_after_close{false};
  std::thread caller([&] {
    for (int i = 0; i < 100000 && !failed_after_close; ++i) {
      const bool was_closed = closed;
      if (DEV_GetTimestampMs(kStays) == 0 && was_closed) failed_after_close = true;
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(USB_CloseDevice(kStays));
  closed = true;
  caller.join();
  EXPECT_TRUE(failed_after_close);
  const int opens = usbsim::counters(kStays).opens;
  EXPECT_EQ(DEV_GetTimestampMs(kStays), 0) << "the write fails";
  EXPECT_FALSE(USB_RetryConnect(kStays));
  EXPECT_FALSE(USB_WaitResume(kStays, 0));
  EXPECT_EQ(usbsim::counters(kStays).opens, opens);
  ASSERT_TRUE(USB_OpenDevice(kStays));
  EXPECT_NE(DEV_GetTimestampMs(kStays), 0);
}

// Whatever closes or replaces the adapter's device handle stops the stream on it first (else its
// transfer outlives the handle) and the stream's state says why it ended.
TEST_F(AdapterLifecycle, StreamIsStoppedBeforeItsHandleIsClosedOrReplaced) {
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"closed", [] { USB_CloseDevice(kStays); }},
      {"reconnected", [] { USB_RetryConnect(kStays); }},
      {"reconnected after a failed write",
       [] {
         usbsim::short_next_transfer(kStays, 0x01, 3);
         DIO_Init(kStays, 1);
       }},
  };
  for (int round = 0; round < 9; ++round) {  // the close may catch the transfer anywhere
    auto& [name, replace_handle] = cases[round % 3];
    SCOPED_TRACE(name);
    this->fresh_adapter(kStays);
    ASSERT_EQ(ADC_StartContinueRead(kStays, 0x01, 10000, 64, nullptr), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    replace_handle();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the pump would run on
    EXPECT_EQ(VARNEL_ADC_StreamState(kStays), -2);
    EXPECT_EQ(ADC_StopContinueRead(kStays), 0);
  }
}

}  // namespace
