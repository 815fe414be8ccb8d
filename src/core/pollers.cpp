#include "core/pollers.h"

#include <chrono>

#include "core/clock.h"
#include "core/result_codes.h"

namespace varnel {

Pollers::~Pollers() {
  for (Slot& slot : slots_) {
    for (auto& flag : slot.flags) flag = 0;
    std::thread thread;
    {
      std::lock_guard guard(slot.mutex);
      thread = std::move(slot.thread);
    }
    if (thread.joinable()) thread.join();
  }
}

Pollers::Slot* Pollers::find(uint32_t handle) const {
  std::lock_guard guard(table_mutex_);
  for (Slot& slot : slots_)
    if (slot.used && slot.handle == handle) return &slot;
  return nullptr;
}

// The handle's slot, else a never used one, else one whose thread has ended for good. The
// channel's flag is set before the table is let go, so the slot is no longer idle and a second
// start for another handle cannot take it too.
Pollers::Slot* Pollers::claim(uint32_t handle, uint8_t channel) {
  std::lock_guard guard(table_mutex_);
  Slot* chosen = nullptr;
  Slot* idle = nullptr;
  for (Slot& slot : slots_) {
    if (slot.used && slot.handle == handle) {
      chosen = &slot;
      break;
    }
    if (!slot.used) {
      slot.used = true;
      slot.handle = handle;
      chosen = &slot;
      break;
    }
    std::lock_guard slot_guard(slot.mutex);
    if (!idle && !slot.running && !any_polled(slot)) idle = &slot;
  }
  if (!chosen && idle) {
    std::lock_guard slot_guard(idle->mutex);
    idle->handle = handle;
    idle->ever_started = false;
    for (auto& result : idle->stop_results) result = 0;
    chosen = idle;
  }
  if (chosen) {
    std::lock_guard slot_guard(chosen->mutex);
    chosen->stop_results[channel] = 0;
    chosen->flags[channel] = 1;
  }
  return chosen;
}

bool Pollers::any_polled(const Slot& slot) const {
  for (int channel = 0; channel < channels_; ++channel)
    if (slot.flags[size_t(channel)]) return true;
  return false;
}

int Pollers::start(uint32_t handle, uint8_t channel) {
  if (channel >= channels_) return result::kReplyFailed;
  Slot* slot = claim(handle, channel);
  if (!slot) return result::kReplyFailed;
  std::thread finished;
  {
    std::lock_guard guard(slot->mutex);
    if (slot->running) return result::kOk;  // the thread picks the channel up on its next round
    finished = std::move(slot->thread);
    try {
      slot->thread = std::thread([this, slot] { run(*slot); });
    } catch (...) {
      slot->flags[channel] = 0;
      return result::kReplyFailed;
    }
    slot->running = true;
    slot->ever_started = true;
  }
  if (finished.joinable()) finished.join();  // it had ended already: nothing to wait for
  return result::kOk;
}

bool Pollers::stop(uint32_t handle, uint8_t channel) {
  Slot* slot = find(handle);
  if (!slot || channel >= channels_) return false;
  slot->flags[channel] = 0;
  if (any_polled(*slot)) return true;
  std::thread finished;
  {
    std::unique_lock guard(slot->mutex);
    if (!slot->ever_started) return false;
    slot->ended.wait_for(guard, std::chrono::milliseconds(100), [&] { return !slot->running; });
    if (!slot->running) finished = std::move(slot->thread);
  }
  if (finished.joinable()) finished.join();
  return true;
}

void Pollers::clear(uint32_t handle, uint8_t channel) {
  if (Slot* slot = find(handle); slot && channel < channels_) slot->flags[channel] = 0;
}

bool Pollers::polled(uint32_t handle, uint8_t channel) const {
  const Slot* slot = find(handle);
  return slot && channel < channels_ && slot->flags[channel];
}

int Pollers::stop_result(uint32_t handle, uint8_t channel) const {
  const Slot* slot = find(handle);
  return slot && channel < channels_ ? slot->stop_results[channel].load() : 0;
}

void Pollers::run(Slot& slot) {
  const uint32_t handle = slot.handle;  // a slot changes hands only once its thread has ended
  for (;;) {
    {
      std::lock_guard guard(slot.mutex);
      if (!any_polled(slot)) {
        slot.running = false;
        slot.ended.notify_all();
        return;
      }
    }
    sleep_for_ms(pause_ms_);
    for (uint8_t channel = 0; channel < channels_; ++channel) {
      if (!slot.flags[channel]) continue;
      const int r = step_(handle, channel);
      if (r < 0) {
        slot.stop_results[channel] = r;
        slot.flags[channel] = 0;
      }
    }
  }
}

}  // namespace varnel
