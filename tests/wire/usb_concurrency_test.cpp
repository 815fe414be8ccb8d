// USB housekeeping calls (scan, open, reconnect) made on one thread while other threads run
// transactions on the same adapter: the adapter's entry is shared, and an open adapter must stay
// usable throughout. Run under ThreadSanitizer these also check that every shared field is locked.
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "core/transaction.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;

namespace {

constexpr uint32_t kHandle = 0x12345678;
constexpr uint32_t kOther = 0x23456780;

void install_echo(sim::VirtualAdapter& adapter) {
  adapter.on(0x0100, 0x01FF, [](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(request);
  });
}

// Short writes queued by the disturbance: one at a time, since faults queued faster than the
// transactions take them would pile up and fail every write.
std::atomic<int> faults_queued{0};

struct Disturbance {
  const char* name;
  std::function<void()> once;  // called in a loop while the transactions run
};

class UsbConcurrency : public SimTest, public ::testing::WithParamInterface<Disturbance> {};

}  // namespace

TEST_P(UsbConcurrency, OpenAdapterAnswersEveryTransaction) {
  auto adapter = plug_and_open(kHandle, {1, {1}});
  usbsim::plug(kOther, {1, {2}});  // a second adapter for the scans to look at
  install_echo(*adapter);
  faults_queued = 0;  // the open above cleared the reset counter
  constexpr int kThreads = 2, kRounds = 150;
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread disturber([&] {
    while (!done) GetParam().once();
  });
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t)
    workers.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        std::vector<uint8_t> payload(size_t(1 + i % 40), uint8_t(t * 40 + i % 40));
        std::vector<uint8_t> reply(payload.size());
        auto r = varnel::transact(kHandle, 0x0100 + uint32_t(t), payload, reply);
        if (r.expect_length(int32_t(payload.size())) != 0 || reply != payload) ++failures;
      }
    });
  for (auto& w : workers) w.join();
  done = true;
  disturber.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    WhileTransacting, UsbConcurrency,
    ::testing::Values(Disturbance{"Scan", [] { USB_ScanDevice(nullptr); }},
                      Disturbance{"OpenAgain", [] { USB_OpenDevice(kHandle); }},
                      Disturbance{"RetryConnect", [] { USB_RetryConnect(kHandle); }},
                      // a short write makes the transaction reset and reconnect, which reads the
                      // device list that the scan replaces
                      Disturbance{"FailedWritesAndScan",
                                  [] {
                                    // each short write is taken by one reset
                                    if (usbsim::counters(kHandle).resets == faults_queued) {
                                      usbsim::short_next_transfer(kHandle, 0x01, 3);
                                      ++faults_queued;
                                    }
                                    USB_ScanDevice(nullptr);
                                  }},
                      Disturbance{"ScanOtherAdapterOpenClose",
                                  [] {
                                    USB_ScanDevice(nullptr);
                                    USB_OpenDevice(kOther);
                                    USB_CloseDevice(kOther);
                                  }}),
    [](const auto& info) { return std::string(info.param.name); });

// Every scan stores the device it found in the adapter's entry while an open on another thread
// reads it: the open must still succeed each time (and ThreadSanitizer sees the field locked).
class UsbOpen : public SimTest {};

TEST_F(UsbOpen, SucceedsWhileAnotherThreadScans) {
  usbsim::plug(kHandle, {1, {1}});
  ASSERT_EQ(USB_ScanDevice(nullptr), 1);
  constexpr int kRounds = 200;
  std::thread scanner([] {
    for (int i = 0; i < kRounds; ++i) USB_ScanDevice(nullptr);
  });
  int opened = 0;
  for (int i = 0; i < kRounds; ++i) opened += USB_OpenDevice(kHandle) ? 1 : 0;
  scanner.join();
  EXPECT_EQ(opened, kRounds);
}
