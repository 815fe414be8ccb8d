// Lock registries: recursive mutexes created on first use per (handle, channel) key.
#pragma once

#include <cstdint>
#include <mutex>

namespace varnel {

// The global lock: lock_all/unlock_all, and the scan lock of USB discovery and reconnection.
std::recursive_mutex& global_lock();

// RAII form of lock(handle)/unlock(handle), the device lock every transaction takes.
class DeviceLockGuard {
 public:
  explicit DeviceLockGuard(uint32_t handle);
  ~DeviceLockGuard();
  DeviceLockGuard(const DeviceLockGuard&) = delete;
  DeviceLockGuard& operator=(const DeviceLockGuard&) = delete;

 private:
  uint32_t handle_;
};

}  // namespace varnel
