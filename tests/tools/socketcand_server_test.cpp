// The built `varnel socketcand` on the virtual adapter, fed hostile bytes through real sockets
// (this also runs in the sanitizer build, where the python-can interop test cannot).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <string>

#include "cli/cli_support.h"

namespace {

constexpr int kWaitMs = 5000;

// Killed when a failed assertion leaves the test early, so no server outlives it.
struct ServerProcess {
  pid_t pid = -1;
  int port = 0;
  std::string banner;  // the port and bus lines
  ~ServerProcess() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

void start_server(ServerProcess& server) {
  int out[2];
  if (pipe(out) != 0) return;
  server.pid = fork();
  if (server.pid == 0) {
    dup2(out[1], 1);
    unsetenv("LD_LIBRARY_PATH");
    unsetenv("VARNEL_USBSIM_ADAPTERS");
    unsetenv("VARNEL_SIM_ACTIVE");
    execl(VARNEL_BINARY_DIR "/bin/varnel", "varnel", "--sim", "socketcand", "--port", "0", nullptr);
    _exit(127);
  }
  close(out[1]);
  std::string text;
  pollfd fd{out[0], POLLIN, 0};
  char buffer[256];
  // the port, then the four buses of the two virtual adapters
  while (std::count(text.begin(), text.end(), '\n') < 5 && poll(&fd, 1, kWaitMs) == 1) {
    const ssize_t n = read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, size_t(n));
  }
  close(out[0]);
  server.banner = text;
  std::smatch match;
  if (std::regex_search(text, match, std::regex("listening on 127\\.0\\.0\\.1:(\\d+)")))
    server.port = std::stoi(match[1]);
}

int connect_to(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads until `end` has arrived (or the wait runs out) and returns everything read.
std::string read_until(int fd, const std::string& end) {
  std::string text;
  pollfd p{fd, POLLIN, 0};
  char buffer[4096];
  while (text.find(end) == std::string::npos && poll(&p, 1, kWaitMs) == 1) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    text.append(buffer, size_t(n));
  }
  return text;
}

void send_text(int fd, const std::string& text) {
  ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
}

// The exit code; -2 when the process did not end in time (the guard kills it).
int wait_exit(ServerProcess& server) {
  for (int i = 0; i < kWaitMs / 10; ++i) {
    int status = 0;
    if (waitpid(server.pid, &status, WNOHANG) == server.pid) {
      server.pid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    usleep(10000);
  }
  return -2;
}

// Each listed bus is a `varnel can` target, and the tool names its channel as the list does.
TEST(SocketcandServer, ListedBusesAreTargetsOfTheSameName) {
  ServerProcess server;
  start_server(server);
  const std::regex listed(R"(socketcand: (can\d+) = (0x[0-9A-F]{8}:[01])\n)");
  std::smatch m;
  int buses = 0;
  for (auto it = server.banner.cbegin(); std::regex_search(it, server.banner.cend(), m, listed);
       it = m.suffix().first, ++buses) {
    for (const std::string target : {m[1].str(), m[2].str()})
      EXPECT_EQ(cli_test::varnel("--sim can send " + target + " 123#01").out,
                "  " + m[1].str() + "  123   [1]  01\n")
          << target;
  }
  EXPECT_EQ(buses, 4) << server.banner;
}

TEST(SocketcandServer, SurvivesHostileBytesAndStopsOnSigterm) {
  ServerProcess server;
  start_server(server);
  ASSERT_GT(server.pid, 0);
  ASSERT_GT(server.port, 0) << "the server did not print its port";

  // A client that goes away in the middle of a command leaves no trace.
  const int quitter = connect_to(server.port);
  send_text(quitter, "< open can0 >< send 123 8 1 2");
  close(quitter);

  const int a = connect_to(server.port);
  const int b = connect_to(server.port);
  ASSERT_EQ(read_until(a, "< hi >"), "< hi >");
  ASSERT_EQ(read_until(b, "< hi >"), "< hi >");
  struct Case {
    std::string input;
    std::string reply;
  } cases[] = {
      {std::string("\0\xff\x80 x\n< echo >", 14), "< error garbage outside a command >< echo >"},
      {"< open \x01\xfe >< echo >", "< error no such bus (use can0..can3 or HANDLE:CH) >< echo >"},
      {"< " + std::string(5000, 'A') + " >< echo >", "< error command too long >< echo >"},
      {"<<<>< echo >",
       "< error missing > after a command >< error missing > after a command >"
       "< error empty command >< echo >"},
      {"< open 0x11111111:0 >< echo >",
       "< error adapter 0x11111111 not found or not opened (see the server's log) >< echo >"},
      {"< open can0 >< rawmode >", "< ok >< ok >"},
      {"< send 123 C 1 2 3 4 5 6 7 8 9 a b c >< echo >",
       "< error CAN FD frame on a classic CAN channel >< echo >"},
  };
  for (const auto& c : cases) {
    send_text(a, c.input);
    EXPECT_EQ(read_until(a, c.reply), c.reply) << c.input.substr(0, 40);
  }

  // A frame crosses from can0 to can1 with the exact line a client parses.
  send_text(b, "< open can1 >< rawmode >");
  ASSERT_EQ(read_until(b, "< ok >< ok >"), "< ok >< ok >");
  send_text(a, "< send 1ABCDEF0 3 de ad 1 >< send 000 0 >");
  const std::string frames = read_until(b, "  >");  // the frame without data ends so
  EXPECT_TRUE(std::regex_match(
      frames,
      std::regex("\n< frame 1ABCDEF0 \\d+\\.\\d{6} DEAD01 >\n< frame 000 \\d+\\.\\d{6}  >")))
      << frames;

  ASSERT_EQ(kill(server.pid, SIGTERM), 0);
  EXPECT_EQ(wait_exit(server), 0);
  close(a);
  close(b);
}

}  // namespace
