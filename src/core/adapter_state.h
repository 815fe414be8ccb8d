// What the library keeps per adapter, keyed by the adapter's handle.
//
// A device index is a position in the USB device list or the socket table: a rescan that drops
// one adapter renumbers the ones behind it, so state kept by index would pass to another adapter
// (its channel state, its flash description, its stream). Every family keeps its per-adapter
// state in an AdapterTable instead, and so does the carrier for what belongs to an open handle.
//
// - An entry is created on first use, and only for a handle the library lists (a scan or a
//   network scan found it): a made-up handle gets no state, whatever its bits say. A handle that
//   has an entry keeps finding it after its adapter went away, so a stream of an unplugged
//   adapter can still be stopped and asked about.
// - The table is bounded (kMaxAdapterStates). When it is full, the entry of an adapter that is no
//   longer listed and that nobody holds is given to the newcomer; when there is none, the
//   newcomer gets no state and the family answers as for an unknown handle.
// - Entries are shared: whoever holds one (a call, a stream thread) keeps it alive until it lets
//   go, also when the entry is given away meanwhile. No state is freed under its user.
// - Channels inside a state are reached through channel_at, which checks the channel: the one
//   place where an index into a family's table is bounded.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/transport.h"

namespace varnel {

constexpr size_t kMaxAdapterStates = kMaxDevices;

template <typename State>
class AdapterTable {
 public:
  using Ptr = std::shared_ptr<State>;

  // The handle's state, created now if the handle is listed; null otherwise or when full.
  Ptr find_or_create(uint32_t handle) {
    if (Ptr found = find(handle)) return found;
    if (!adapter_listed(handle)) return nullptr;
    Ptr given_away;  // dropped after the table's mutex, its destructor may join a thread
    std::lock_guard guard(mutex_);
    Entry* free_entry = nullptr;
    for (Entry& entry : entries_) {
      if (entry.state && entry.handle == handle) return entry.state;  // made meanwhile
      if (!entry.state && !free_entry) free_entry = &entry;
    }
    if (!free_entry) free_entry = reusable_locked();
    if (!free_entry) return nullptr;
    given_away = std::move(free_entry->state);
    free_entry->handle = handle;
    free_entry->state = std::make_shared<State>();
    return free_entry->state;
  }

  // The handle's state if it has one; never creates.
  Ptr find(uint32_t handle) const {
    std::lock_guard guard(mutex_);
    for (const Entry& entry : entries_)
      if (entry.state && entry.handle == handle) return entry.state;
    return nullptr;
  }

  // Every state there is, held for the caller (to stop the streams at exit, for example).
  std::vector<Ptr> all() const {
    std::vector<Ptr> out;
    std::lock_guard guard(mutex_);
    for (const Entry& entry : entries_)
      if (entry.state) out.push_back(entry.state);
    return out;
  }

 private:
  struct Entry {
    uint32_t handle = 0;
    Ptr state;
  };

  // An entry only the table holds, of an adapter no longer listed. adapter_listed takes the
  // device-list mutex, a leaf lock, so it may be called under this table's mutex.
  Entry* reusable_locked() {
    for (Entry& entry : entries_)
      if (entry.state.use_count() == 1 && !adapter_listed(entry.handle)) return &entry;
    return nullptr;
  }

  mutable std::mutex mutex_;
  std::array<Entry, kMaxAdapterStates> entries_{};
};

// The one table of a family's State, created on first use and never destroyed: a stream or poller
// thread may still reach it while the process exits.
template <typename State>
AdapterTable<State>& adapter_table() {
  static auto* table = new AdapterTable<State>;
  return *table;
}

// The channel's element of a per-channel array, or null for a channel beyond it.
template <typename T, size_t N>
T* channel_at(std::array<T, N>& channels, unsigned channel) {
  return channel < N ? &channels[channel] : nullptr;
}

}  // namespace varnel
