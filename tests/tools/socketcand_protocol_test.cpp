// The socketcand texts (how a byte stream is cut into commands, what each command parses to, the
// exact frame lines), and the built `varnel socketcand` on the virtual adapter fed hostile bytes
// through real sockets; this also runs in the sanitizer build, where the python-can interop
// test, which covers what a well-behaved client sees, cannot.
#include "socketcand/socketcand_protocol.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "cli/cli_support.h"

namespace {

using namespace varnel_cli::socketcand;

// Elements as "ok:<text>" / "error:<text>", so a table can list them in order.
std::vector<std::string> split(const std::vector<std::string>& reads) {
  ElementSplitter splitter;
  std::vector<std::string> out;
  for (const auto& read : reads)
    for (const auto& element : splitter.feed(read))
      out.push_back((element.ok ? "ok:" : "error:") + element.text);
  return out;
}

TEST(SocketcandSplitter, CutsTheStreamIntoElements) {
  const std::string garbage = "error:garbage outside a command";
  const std::string missing = "error:missing > after a command";
  const std::string overlong = "< send " + std::string(kMaxElementLength, '1');
  const std::string longest = "<" + std::string(kMaxElementLength - 1, ' ') + ">";
  struct Case {
    std::vector<std::string> reads, expected;
  } cases[] = {
      {{"< rawmode >\r\n  < echo >"}, {"ok:< rawmode >", "ok:< echo >"}},
      {{"< se", "nd 1 0 ", ">"}, {"ok:< send 1 0 >"}},
      {{"x\ny\n< echo >"}, {garbage, garbage, "ok:< echo >"}},
      {{"abc< echo >"}, {garbage, "ok:< echo >"}},
      {{"< send 123 0 < echo >"}, {missing, "ok:< echo >"}},
      {{"< echo\n echo >"}, {missing, garbage}},
      {{"< echo\r echo >"}, {missing, garbage}},
      {{"< echo"}, {}},
      // refused once and skipped to its end, also over several reads
      {{overlong, "1111 >< echo >"}, {"error:command too long", "ok:< echo >"}},
      {{longest}, {"ok:" + longest}},
  };
  for (const auto& c : cases) EXPECT_EQ(split(c.reads), c.expected) << c.reads[0].substr(0, 20);
}

// A send is shown as the frame line it becomes (time 0), with " fd" for a CAN FD frame.
TEST(SocketcandCommands, ParsesWhatClientsSendAndNamesWhatIsWrong) {
  std::string longest = "< send 1 40", longest_data;
  for (int i = 0; i < 64; ++i)
    longest += " " + std::to_string(i % 10), longest_data += "0" + std::to_string(i % 10);
  constexpr auto kBad = CommandKind::Malformed, kSend = CommandKind::Send;
  struct Case {
    std::string text;
    CommandKind kind;
    std::string detail;  // bus for open, frame line for send, error text otherwise
  } cases[] = {
      // clang-format off
      {"< open can0 >", CommandKind::Open, "can0"},
      {"<open 0x12345678:1>", CommandKind::Open, "0x12345678:1"},
      {"< rawmode >", CommandKind::RawMode, ""},
      {"< bcmmode >", CommandKind::BcmMode, ""},
      {"< echo >", CommandKind::Echo, ""},
      {"< open can0 can1 >", kBad, "open takes one bus name"},
      {"< rawmode now >", kBad, "rawmode takes no arguments"},
      {"<  >", kBad, "empty command"},
      {"echo", kBad, "not a command"},
      {"< \x01\xff >", kBad, "unknown command ??"},
      {"< muxfilter 0 >", CommandKind::Unsupported, "muxfilter is a BCM command; this server offers rawmode only"},
      {"< isotpsend >", CommandKind::Unsupported, "isotpsend is not supported"},
      // python-can writes the identifier and length with %X and each byte with %x
      {"< send 123 3 1 a ff >", kSend, "< frame 123 0.000000 010AFF >"},
      {"< send 5 0 >", kSend, "< frame 005 0.000000  >"},
      // eight digits make an identifier extended even when it is small; so does a large value
      {"< send 00000123 1 11 >", kSend, "< frame 00000123 0.000000 11 >"},
      {"< send 7FF 1 11 >", kSend, "< frame 7FF 0.000000 11 >"},
      {"< send 800 1 11 >", kSend, "< frame 00000800 0.000000 11 >"},
      {"< send 1fffffff 2 DE ad >", kSend, "< frame 1FFFFFFF 0.000000 DEAD >"},
      {"< send 2 8 0 1 2 3 4 5 6 7 >", kSend, "< frame 002 0.000000 0001020304050607 >"},
      {"< send 123 C 0 1 2 3 4 5 6 7 8 9 a b >", kSend, "< frame 123 0.000000 000102030405060708090A0B > fd"},
      {longest + " >", kSend, "< frame 001 0.000000 " + longest_data + " > fd"},
      {"< send 123 >", kBad, "send needs ID LEN and the data bytes"},
      {"< send 12G 0 >", kBad, "send: bad identifier 12G"},
      {"< send 20000000 0 >", kBad, "send: bad identifier 20000000"},
      {"< send 123456789 0 >", kBad, "send: bad identifier 123456789"},
      {"< send 123 9 1 2 3 4 5 6 7 8 9 >", kBad, "send: bad length 9"},
      {"< send 123 41 >", kBad, "send: bad length 41"},
      {"< send 123 100 >", kBad, "send: bad length 100"},
      {"< send 123 2 1 >", kBad, "send: length 2 but 1 data bytes"},
      {"< send 123 1 1 2 >", kBad, "send: length 1 but 2 data bytes"},
      {"< send 123 1 100 >", kBad, "send: bad data byte 100"},
      // clang-format on
  };
  for (const auto& c : cases) {
    const Command command = parse_command(c.text);
    EXPECT_EQ(command.kind, c.kind) << c.text;
    const std::string frame = format_frame(command.frame, 0) + (command.frame.fd ? " fd" : "");
    EXPECT_EQ(c.kind == kSend               ? frame
              : c.kind == CommandKind::Open ? command.bus
                                            : command.error,
              c.detail)
        << c.text;
  }
}

TEST(SocketcandFormat, TimeStampsAndBeacon) {
  const Frame frame = parse_command("< send 1ABCDEF0 1 5 >").frame;
  EXPECT_EQ(format_frame(frame, 1700000000123456ull), "< frame 1ABCDEF0 1700000000.123456 05 >");
  EXPECT_EQ(format_beacon("b<1>&\"", "can://127.0.0.1:29536", {"can0", "can1"}),
            "<CANBeacon name=\"b&lt;1&gt;&amp;&quot;\" type=\"SocketCAN\" "
            "description=\"VARNEL socketcand bridge\">\n<URL>can://127.0.0.1:29536</URL>\n"
            "<Bus name=\"can0\"/>\n<Bus name=\"can1\"/>\n</CANBeacon>");
}

constexpr int kWaitMs = 5000;

// Killed when a failed assertion leaves the test early, so no server outlives it.
struct ServerProcess {
  pid_t pid = -1;
  std::string banner;  // the port line and the bus list
  ~ServerProcess() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

// Reads until `end` has arrived (or the wait runs out) and returns everything read.
std::string read_until(int fd, const std::string& end) {
  std::string text;
  pollfd p{fd, POLLIN, 0};
  char buffer[4096];
  while (text.find(end) == std::string::npos && poll(&p, 1, kWaitMs) == 1) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, size_t(n));
  }
  return text;
}

// Starts the server and returns the port it prints, or 0.
int start_server(ServerProcess& server) {
  int out[2];
  if (pipe(out) != 0) return 0;
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
  // the port line, then the bus list, which ends with can3's line
  std::string text = read_until(out[0], "can3 = ");
  if (text.find('\n', text.find("can3 = ")) == std::string::npos) text += read_until(out[0], "\n");
  server.banner = text;
  close(out[0]);
  const size_t at = text.find("listening on 127.0.0.1:");
  return at == std::string::npos ? 0 : std::atoi(text.c_str() + at + 23);
}

int connect_to(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

void send_text(int fd, const std::string& text) {
  ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
}

TEST(SocketcandServer, ListedBusesAreTargetsOfTheSameName) {
  ServerProcess server;
  ASSERT_GT(start_server(server), 0);
  const std::regex listed(R"(socketcand: (can\d+) = (0x[0-9A-F]{8}:[01]))");
  std::smatch m;
  int buses = 0;
  for (auto it = server.banner.cbegin(); std::regex_search(it, server.banner.cend(), m, listed);
       it = m.suffix().first, ++buses) {
    for (const std::string& target : {m[1].str(), m[2].str()})
      EXPECT_EQ(cli_test::varnel("--sim can send " + target + " 123#01").out,
                "  " + m[1].str() + "  123   [1]  01\n")
          << target;
  }
  EXPECT_EQ(buses, 4) << server.banner;
}

TEST(SocketcandServer, SurvivesHostileBytesAndStopsOnSigterm) {
  ServerProcess server;
  const int port = start_server(server);
  ASSERT_GT(port, 0) << "the server did not print its port";

  // A client that goes away in the middle of a command leaves no trace.
  const int quitter = connect_to(port);
  send_text(quitter, "< open can0 >< send 123 8 1 2");
  close(quitter);

  const int a = connect_to(port);
  ASSERT_EQ(read_until(a, "< hi >"), "< hi >");
  struct Case {
    std::string input, reply;
  } cases[] = {
      // clang-format off
      {"< send 123 1 ff >< rawmode >< echo >", "< error open a bus first >< error open a bus first >< echo >"},
      {std::string("\0\xff\x80 x\n< echo >", 14), "< error garbage outside a command >< echo >"},
      {"< open \x01\xfe >< echo >", "< error no such bus (use can0..can3 or HANDLE:CH) >< echo >"},
      {"< " + std::string(5000, 'A') + " >< echo >", "< error command too long >< echo >"},
      {"<<<>< echo >", "< error missing > after a command >< error missing > after a command >< error empty command >< echo >"},
      {"< subscribe 0 0 123 >< echo >", "< error subscribe is a BCM command; this server offers rawmode only >< echo >"},
      {"< open 0x11111111:0 >< echo >", "< error adapter 0x11111111 not found or not opened (see the server's log) >< echo >"},
      {"< open can0 >< rawmode >", "< ok >< ok >"},
      {"< open can1 >< echo >", "< error a bus is open already >< echo >"},
      {"< send 123 C 1 2 3 4 5 6 7 8 9 a b c >< echo >", "< error CAN FD frame on a classic CAN channel >< echo >"},
      // clang-format on
  };
  for (const auto& c : cases) {
    send_text(a, c.input);
    EXPECT_EQ(read_until(a, c.reply), c.reply) << c.input.substr(0, 40);
  }

  ASSERT_EQ(kill(server.pid, SIGTERM), 0);
  int status = 0;
  ASSERT_TRUE(cli_test::wait_for_exit(server.pid, &status, std::chrono::milliseconds(kWaitMs)))
      << "still running after SIGTERM";
  server.pid = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  close(a);
}

}  // namespace
