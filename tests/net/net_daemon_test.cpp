// The varnel-sim program as a user runs it: adapters from the command line, discovery and TCP on
// the ports it prints, clean exit on SIGTERM and SIGINT.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "net_support.h"

namespace {

struct Process {
  pid_t pid = -1;
  FILE* out = nullptr;
};

Process spawn(std::vector<std::string> args) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv;
    std::string binary = VARNEL_BINARY_DIR "/bin/varnel-sim";
    argv.push_back(binary.data());
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  return {pid, fdopen(fds[0], "r")};
}

int wait_exit(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run(std::vector<std::string> args) {
  Process p = spawn(std::move(args));
  int code = wait_exit(p.pid);
  if (p.out) fclose(p.out);
  return code;
}

class NetDaemon : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(VARNEL_BINARY_DIR "/bin/varnel-sim", X_OK) != 0) GTEST_SKIP() << "not built";
    varnel::net_forget_all();
  }
  void TearDown() override {
    varnel::net_forget_all();
    VARNEL_SetNetPorts(0, 0);
  }
};

}  // namespace

TEST_F(NetDaemon, ServesTheAdaptersGivenAndStopsCleanlyOnSignals) {
  for (int signal_number : {SIGTERM, SIGINT}) {
    Process daemon =
        spawn({"--adapter", "0x55000110", "--adapter", "0x56000120", "--discovery-port", "0",
               "--tcp-port", "0", "--first-address", "127.0.0.20"});
    ASSERT_GT(daemon.pid, 0);
    unsigned discovery = 0, tcp = 0;
    char line[256];
    ASSERT_TRUE(fgets(line, sizeof line, daemon.out));
    ASSERT_EQ(
        sscanf(line, "varnel-sim: discovery on 127.0.0.255:%u, TCP port %u", &discovery, &tcp), 2)
        << line;
    VARNEL_SetNetPorts(uint16_t(discovery), uint16_t(tcp));
    EXPECT_EQ(net_support::scan(), (std::vector<uint32_t>{0x55000110, 0x56000120}));
    char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
    ASSERT_TRUE(DEV_SetIPAddr(0x56000120, "10.0.0.9\0\0\0\0\0\0\0"));
    ASSERT_TRUE(DEV_GetIPAddr(0x56000120, ip));
    EXPECT_STREQ(ip, "10.0.0.9");
    EXPECT_GE(DEV_GetTimestampMs(0x55000110), 0);

    kill(daemon.pid, signal_number);
    EXPECT_EQ(wait_exit(daemon.pid), 0);
    fclose(daemon.out);
    varnel::net_forget_all();
  }
}

TEST_F(NetDaemon, RefusesBadArgumentsAndTakenPorts) {
  EXPECT_EQ(run({"--adapter", "banana"}), 2);
  EXPECT_EQ(run({"--tcp-port", "70000"}), 2);
  net_support::Daemon first({0x55000210});
  ASSERT_TRUE(first.ok);
  // the same discovery port is already bound
  EXPECT_EQ(run({"--discovery-port", std::to_string(first.server->discovery_port()), "--tcp-port",
                 "0", "--first-address", "127.0.0.30"}),
            1);
}
