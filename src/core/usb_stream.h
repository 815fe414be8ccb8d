// A continuous bulk-in stream on endpoint 0x81, read with libusb's asynchronous interface on a
// worker thread of its own. The families that stream (ADC continuous read, sniffer) each own one.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

struct libusb_transfer;

namespace varnel {

class BulkInStream {
 public:
  // Called on the worker thread with each completed transfer's bytes.
  using DataCallback = std::function<void(const uint8_t* data, int size)>;

  struct Options {
    int buffer_size = 4096;
    int pump_timeout_ms = 2000;  // one pass of the event pump while running
    int drain_passes = 10;       // passes pumped before and after the cancel when stopping
    int drain_pass_ms = 10;
  };

  BulkInStream(uint32_t handle, Options options, DataCallback on_data);
  ~BulkInStream();
  BulkInStream(const BulkInStream&) = delete;
  BulkInStream& operator=(const BulkInStream&) = delete;

  // Why a stream is no longer running.
  enum class End {
    kRunning,        // not ended
    kStopped,        // its owner stopped it, or it never started
    kDeviceGone,     // the adapter went away (or the transfer failed)
    kClosedUnderIt,  // the adapter's handle was closed or replaced: stopped first
  };

  // Submits the first transfer and starts the pump. False if the adapter is not open or the
  // submission failed (the stream is then stopped and ended). A running stream is known to the
  // USB carrier, which stops it before it closes or replaces the adapter's handle.
  bool start();
  // Stops resubmitting, cancels the transfer, drains the pump and joins the worker. Safe to call
  // again, and from the carrier's thread while the owner calls it.
  void stop();
  // stop(), noting why when the stream was still running (the carrier's close or reconnect).
  void stop_because(End why);
  bool stopped() const { return stop_; }
  bool ended() const { return ended_; }
  End end() const { return end_; }

 private:
  static void on_transfer_done(libusb_transfer* transfer);
  bool resubmit(libusb_transfer* transfer);
  void pump();
  void pump_for(int passes, int pass_ms);
  void note_end(End why);
  void stop_locked();

  uint32_t handle_;
  Options options_;
  DataCallback on_data_;
  libusb_transfer* transfer_ = nullptr;
  unsigned char* buffer_ = nullptr;
  std::atomic<bool> stop_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> in_flight_{false};
  std::atomic<End> end_{End::kRunning};
  std::mutex submit_mutex_;  // orders a resubmission against stop()'s flag and cancel
  std::mutex stop_mutex_;    // one stop at a time: the owner's and the carrier's
  bool registered_ = false;  // with the carrier, from a successful start until the stop
  std::thread worker_;
};

}  // namespace varnel
