// The umockdev tests' entry point. The testbed works only with libumockdev-preload in the
// process (it redirects /sys and /dev and carries the ioctls to the handler), so a program
// started without it starts itself again with it: ctest, gtest discovery and a plain run from a
// shell all get the same environment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/umockdev/usbfs_testbed.h"

namespace {

constexpr const char* kPreload = "libumockdev-preload.so.0";

// The sanitizer runtimes insist on coming first in the library list; the preload comes first.
void allow_preload_before_sanitizers() {
  std::string options = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
  if (options.find("verify_asan_link_order") != std::string::npos) return;
  options += std::string(options.empty() ? "" : ":") + "verify_asan_link_order=0";
  setenv("ASAN_OPTIONS", options.c_str(), 1);
}

// The testbed lives for the whole run (the library's libusb context does too) and its
// temporary directory goes when the run ends.
class TestbedEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { usbfs::start(); }
  void TearDown() override { usbfs::stop(); }
};

}  // namespace

int main(int argc, char** argv) {
  if (!usbfs::preload_active()) {
    const char* old = std::getenv("LD_PRELOAD");
    std::string preload = old && *old ? std::string(kPreload) + ":" + old : kPreload;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    allow_preload_before_sanitizers();
    execv("/proc/self/exe", argv);
    std::perror("re-executing under libumockdev-preload");
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  // Before any test initialises libusb: it must see the testbed's /sys and /dev.
  ::testing::AddGlobalTestEnvironment(new TestbedEnvironment);
  return RUN_ALL_TESTS();
}
