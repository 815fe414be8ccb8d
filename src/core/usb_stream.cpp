#include "core/usb_stream.h"

#include <libusb.h>
#include <sys/time.h>

#include <utility>

#include "core/usb.h"

namespace varnel {

BulkInStream::BulkInStream(uint32_t handle, Options options, DataCallback on_data)
    : handle_(handle), options_(options), on_data_(std::move(on_data)) {}

BulkInStream::~BulkInStream() {
  stop();
}

bool BulkInStream::start() {
  {
    std::lock_guard stopping(stop_mutex_);
    if (options_.buffer_size <= 0) {
      note_end(End::kStopped);
      stop_ = ended_ = true;
      return false;
    }
    transfer_ = libusb_alloc_transfer(0);
    buffer_ = new unsigned char[size_t(options_.buffer_size)];
  }
  // Not under the stop mutex: the carrier takes its stream list before a stream's stop mutex.
  const bool submitted = usb_start_stream(handle_, this, [this](libusb_device_handle* dh) {
    libusb_fill_bulk_transfer(transfer_, dh, kEndpointIn, buffer_, options_.buffer_size,
                              &BulkInStream::on_transfer_done, this, 0);
    in_flight_ = true;
    if (libusb_submit_transfer(transfer_) == 0) return true;
    in_flight_ = false;
    return false;
  });
  std::lock_guard stopping(stop_mutex_);
  // A close may have stopped it (and freed its transfer) as soon as it was listed.
  if (!submitted || stop_) {
    if (transfer_) libusb_free_transfer(transfer_);
    transfer_ = nullptr;
    delete[] buffer_;
    buffer_ = nullptr;
    note_end(End::kStopped);
    stop_ = ended_ = true;
    return false;
  }
  registered_ = true;
  worker_ = std::thread([this] { pump(); });
  return true;
}

void BulkInStream::note_end(End why) {
  End running = End::kRunning;
  end_.compare_exchange_strong(running, why);
}

void BulkInStream::on_transfer_done(libusb_transfer* transfer) {
  auto* self = static_cast<BulkInStream*>(transfer->user_data);
  switch (transfer->status) {
    case LIBUSB_TRANSFER_COMPLETED:
      if (self->on_data_) self->on_data_(transfer->buffer, transfer->actual_length);
      if (self->resubmit(transfer)) return;
      self->stop_ = true;  // stopping, or the adapter went away between two transfers
      break;
    case LIBUSB_TRANSFER_STALL:      // the firmware stalls the pipe when it goes away
    case LIBUSB_TRANSFER_NO_DEVICE:  // unplugged
      self->note_end(End::kDeviceGone);
      self->stop_ = true;
      self->ended_ = true;
      break;
    default:  // cancelled, timed out, error: the stream ends without resubmission
      if (!self->stop_) self->note_end(End::kDeviceGone);
      break;
  }
  self->in_flight_ = false;  // last touch: stop() may free the stream once it sees this
}

// The callback may run on another stream's worker while stop() runs here: the check of the stop
// flag and the resubmission happen under the mutex that stop() holds while it sets the flag and
// cancels, so a transfer is never resubmitted after its cancel.
bool BulkInStream::resubmit(libusb_transfer* transfer) {
  std::lock_guard guard(submit_mutex_);
  return !stop_ && libusb_submit_transfer(transfer) == 0;
}

void BulkInStream::pump() {
  timeval tv{options_.pump_timeout_ms / 1000, (options_.pump_timeout_ms % 1000) * 1000};
  while (!stop_ && in_flight_) libusb_handle_events_timeout(usb_context(), &tv);
}

void BulkInStream::pump_for(int passes, int pass_ms) {
  timeval tv{0, pass_ms * 1000};
  for (int i = 0; i < passes && in_flight_; ++i) libusb_handle_events_timeout(usb_context(), &tv);
}

namespace {
constexpr int kCancelGraceMs = 1000;
constexpr int kCancelGracePassMs = 10;
}  // namespace

void BulkInStream::stop() {
  bool registered = false;
  {
    std::lock_guard stopping(stop_mutex_);
    note_end(End::kStopped);
    stop_locked();
    registered = std::exchange(registered_, false);
  }
  if (registered) usb_stream_stopped(handle_, this);
}

// The carrier's stop: it has taken the stream off its list already and holds that list, so the
// stream stays alive here even while its owner destroys it.
void BulkInStream::stop_because(End why) {
  std::lock_guard stopping(stop_mutex_);
  note_end(why);
  stop_locked();
  registered_ = false;
}

void BulkInStream::stop_locked() {
  {
    std::lock_guard guard(submit_mutex_);
    stop_ = true;
  }
  // The worker may sit in a two-second pass of the event pump with nothing arriving: wake it.
  if (worker_.joinable()) {
    libusb_interrupt_event_handler(usb_context());
    worker_.join();
  }
  if (!transfer_) return;
  pump_for(options_.drain_passes, options_.drain_pass_ms);
  {
    std::lock_guard guard(submit_mutex_);
    if (in_flight_) libusb_cancel_transfer(transfer_);
  }
  pump_for(options_.drain_passes, options_.drain_pass_ms);
  // A cancel that has not completed yet gets up to a second more: freeing a transfer libusb still
  // holds is undefined, and its callback would touch this stream after it is gone.
  pump_for(kCancelGraceMs / kCancelGracePassMs, kCancelGracePassMs);
  libusb_free_transfer(transfer_);
  transfer_ = nullptr;
  delete[] buffer_;
  buffer_ = nullptr;
  ended_ = true;
}

}  // namespace varnel
