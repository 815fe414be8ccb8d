// What the network tests share: a scan of loopback, and a fixture that forgets the adapters and
// the ports a test pointed the library at.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "core/net.h"
#include "varnel.h"

namespace testing_support {

// Scans loopback (probe to 127.0.0.255) and returns the handles found.
inline std::vector<uint32_t> net_scan() {
  uint32_t handles[VARNEL_MAX_DEVICES] = {};
  const int n = NET_ScanDevice("127.0.0.1", handles, 200);
  return std::vector<uint32_t>(handles, handles + std::max(n, 0));
}

class NetTest : public ::testing::Test {
 protected:
  void SetUp() override { varnel::net_forget_all(); }
  void TearDown() override {
    varnel::net_forget_all();
    VARNEL_SetNetPorts(0, 0);
  }
};

}  // namespace testing_support
