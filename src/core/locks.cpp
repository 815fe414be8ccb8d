// Six independent lock registries. Each maps (handle << 32 | channel) to a recursive mutex held
// under shared ownership: a thread waiting on a mutex keeps it alive through its own reference,
// so lock_cleanup may erase an entry that somebody still holds.
#include "core/locks.h"

#include <map>
#include <memory>
#include <vector>

#include "varnel.h"

namespace varnel {
namespace {

class LockRegistry {
 public:
  void acquire(uint32_t handle, uint32_t channel) {
    std::shared_ptr<std::recursive_mutex> mutex;
    {
      std::lock_guard guard(guard_);
      auto& slot = mutexes_[key(handle, channel)];
      if (!slot) slot = std::make_shared<std::recursive_mutex>();
      mutex = slot;
    }
    mutex->lock();  // may block: the guard is not held while waiting
  }

  void release(uint32_t handle, uint32_t channel) {
    std::shared_ptr<std::recursive_mutex> mutex;
    {
      std::lock_guard guard(guard_);
      auto it = mutexes_.find(key(handle, channel));
      if (it == mutexes_.end() || !it->second) return;
      mutex = it->second;
    }
    mutex->unlock();
  }

  // The erased mutex may still be held by a thread that locked it before the cleanup; it is
  // retired rather than destroyed, since destroying a held mutex is undefined. One small object
  // per cleanup of a key that was ever locked.
  void erase(uint32_t handle, uint32_t channel) {
    std::lock_guard guard(guard_);
    auto it = mutexes_.find(key(handle, channel));
    if (it == mutexes_.end()) return;
    if (it->second) retired_.push_back(std::move(it->second));
    mutexes_.erase(it);
  }

 private:
  static uint64_t key(uint32_t handle, uint32_t channel) {
    return (uint64_t{handle} << 32) | channel;
  }

  std::mutex guard_;
  std::map<uint64_t, std::shared_ptr<std::recursive_mutex>> mutexes_;
  std::vector<std::shared_ptr<std::recursive_mutex>> retired_;
};

// Function-local statics: usable from static constructors of other files and never destroyed
// before a late unlock at process exit.
LockRegistry& device_registry() {
  static auto* r = new LockRegistry;
  return *r;
}
LockRegistry& can_channel_registry() {
  static auto* r = new LockRegistry;
  return *r;
}
LockRegistry& can_data_registry() {
  static auto* r = new LockRegistry;
  return *r;
}
LockRegistry& lin_channel_registry() {
  static auto* r = new LockRegistry;
  return *r;
}
LockRegistry& pa_data_registry() {
  static auto* r = new LockRegistry;
  return *r;
}
LockRegistry& spi_slave_registry() {
  static auto* r = new LockRegistry;
  return *r;
}

}  // namespace

std::recursive_mutex& global_lock() {
  static auto* m = new std::recursive_mutex;
  return *m;
}

DeviceLockGuard::DeviceLockGuard(uint32_t handle) : handle_(handle) {
  device_registry().acquire(handle, 0);
}
DeviceLockGuard::~DeviceLockGuard() {
  device_registry().release(handle_, 0);
}

}  // namespace varnel

using varnel::can_channel_registry;
using varnel::can_data_registry;
using varnel::device_registry;
using varnel::lin_channel_registry;
using varnel::pa_data_registry;
using varnel::spi_slave_registry;

VARNEL_API void lock(uint32_t handle) {
  device_registry().acquire(handle, 0);
}
VARNEL_API void unlock(uint32_t handle) {
  device_registry().release(handle, 0);
}
VARNEL_API void can_lock(uint32_t handle, uint32_t channel) {
  can_channel_registry().acquire(handle, channel);
}
VARNEL_API void can_unlock(uint32_t handle, uint32_t channel) {
  can_channel_registry().release(handle, channel);
}
VARNEL_API void can_data_lock(uint32_t handle, uint32_t channel) {
  can_data_registry().acquire(handle, channel);
}
VARNEL_API void can_data_unlock(uint32_t handle, uint32_t channel) {
  can_data_registry().release(handle, channel);
}
VARNEL_API void lin_lock(uint32_t handle, uint32_t channel) {
  lin_channel_registry().acquire(handle, channel);
}
VARNEL_API void lin_unlock(uint32_t handle, uint32_t channel) {
  lin_channel_registry().release(handle, channel);
}
VARNEL_API void pa_data_lock(uint32_t handle) {
  pa_data_registry().acquire(handle, 0);
}
VARNEL_API void pa_data_unlock(uint32_t handle) {
  pa_data_registry().release(handle, 0);
}
VARNEL_API void spi_slave_data_lock(uint32_t handle, uint32_t channel) {
  spi_slave_registry().acquire(handle, channel);
}
VARNEL_API void spi_slave_data_unlock(uint32_t handle, uint32_t channel) {
  spi_slave_registry().release(handle, channel);
}
VARNEL_API void lock_all() {
  varnel::global_lock().lock();
}
VARNEL_API void unlock_all() {
  varnel::global_lock().unlock();
}

VARNEL_API void lock_cleanup(uint32_t handle) {
  device_registry().erase(handle, 0);
  can_channel_registry().erase(handle, 0);
  can_data_registry().erase(handle, 0);
  lin_channel_registry().erase(handle, 0);
  spi_slave_registry().erase(handle, 0);
  pa_data_registry().erase(handle, 0);
}
