// Lock registries: recursion, independence of registries and channels, cleanup.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "varnel.h"

namespace {
// True when `locker` can take its lock from another thread within a generous bound.
template <typename F>
bool acquirable_from_other_thread(F locker) {
  auto done = std::async(std::launch::async, locker);
  return done.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
}

template <uint32_t handle>
void lock_and_unlock() {
  lock(handle);
  unlock(handle);
}
}  // namespace

TEST(Locks, UnlockOfUnknownHandleDoesNothing) {
  unlock(0xDEAD0000);
  can_unlock(0xDEAD0000, 1);
  // the key was not created by the unlock: a lock/unlock pair from another thread still works
  EXPECT_TRUE(acquirable_from_other_thread(lock_and_unlock<0xDEAD0000>));
}

TEST(Locks, RecursiveLockIsFreeAfterAsManyUnlocks) {
  lock(0xA0000000);
  lock(0xA0000000);
  unlock(0xA0000000);
  unlock(0xA0000000);
  EXPECT_TRUE(acquirable_from_other_thread(lock_and_unlock<0xA0000000>));
}

TEST(Locks, ChannelsAndRegistriesAreIndependent) {
  constexpr uint32_t h = 0xB0000000;
  can_lock(h, 0);
  EXPECT_TRUE(acquirable_from_other_thread([] {
    can_lock(h, 1);
    can_unlock(h, 1);
  }));
  EXPECT_TRUE(acquirable_from_other_thread([] {
    lock(h);
    can_data_lock(h, 0);
    lin_lock(h, 0);
    lin_unlock(h, 0);
    can_data_unlock(h, 0);
    unlock(h);
  }));
  can_unlock(h, 0);
}

TEST(Locks, HeldLockBlocksOtherThreads) {
  constexpr uint32_t h = 0xC0000000;
  lock(h);
  std::atomic<bool> got{false};
  std::thread other([&] {
    lock(h);
    got = true;
    unlock(h);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(got);
  unlock(h);
  other.join();
  EXPECT_TRUE(got);
}

TEST(Locks, CleanupGivesAFreshMutex) {
  lock(0xD0000000);
  lock_cleanup(0xD0000000);  // this thread still holds the old mutex through its own reference
  EXPECT_TRUE(acquirable_from_other_thread(lock_and_unlock<0xD0000000>));
  // The old mutex stays held by this thread; unlock(h) would now address the fresh one.
}
