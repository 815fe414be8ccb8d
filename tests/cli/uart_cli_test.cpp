// `varnel uart` against the virtual adapter, whose channels have a loopback plug: a terminal fed
// from a pipe shows its own input come back, and Ctrl-A Ctrl-X ends it before what follows.
#include <unistd.h>

#include <chrono>
#include <regex>

#include "cli_support.h"

using cli_test::ToolRun;
using cli_test::varnel;

namespace {

// The terminal as people look at it: in tmux, keys sent, the pane read back. The virtual
// channel's loopback plug brings every byte sent back. The lines of the Ctrl-A keys are
// picocom 3.1's, as it prints them in the same pane.
class TermInTmux {
 public:
  explicit TermInTmux(const std::string& args)
      : socket_("varnel_uart_" + std::to_string(getpid()) + "_" + std::to_string(++sessions_)) {
    const std::string tool =
        "env -u LD_LIBRARY_PATH -u VARNEL_USBSIM_ADAPTERS -u VARNEL_SIM_ACTIVE " VARNEL_BINARY_DIR
        "/bin/varnel --sim uart 0x12345678:0 term " +
        args + "; echo \"[exit $?]\"; sleep 60";
    tmux("new-session -d -x 60 -y 40 '" + tool + "'");
  }
  ~TermInTmux() { tmux("kill-server"); }

  // Sends keys (tmux's names: C-a, Enter, or text) once `ready` shows, so nothing is typed ahead.
  bool keys(const std::string& ready, const std::string& keys) {
    if (!shows(ready)) return false;
    tmux("send-keys " + keys);
    return true;
  }
  // The pane's text, trailing spaces and empty lines dropped, once it contains `text` (or 10 s).
  std::string screen_with(const std::string& text) {
    shows(text);
    return screen();
  }

 private:
  std::string tmux(const std::string& command) const {
    return cli_test::shell("tmux -L " + socket_ + " " + command + " 2>/dev/null");
  }
  std::string screen() const {
    std::string text = std::regex_replace(tmux("capture-pane -p"), std::regex(" +\n"), "\n");
    return text.erase(text.find_last_not_of('\n') + 1);
  }
  bool shows(const std::string& text) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (screen().find(text) == std::string::npos)
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      else
        usleep(20000);
    return true;
  }

  static inline int sessions_ = 0;
  std::string socket_;
};

}  // namespace

TEST(VarnelUartCli, TermSendsItsInputAndShowsWhatComesBack) {
  struct Case {
    std::string input, out;
  } cases[] = {
      {"ping\n\x01\x01!", "ping\n\x01!"},  // Ctrl-A Ctrl-A sends one Ctrl-A
      {"ab\x01\x18"
       "cd",
       "ab\r\nTerminating...\r\n"},
      {"\x01\x03x", "\r\n*** local echo: yes ***\r\nxx"},  // the echo, then the loopback's
  };
  for (const auto& c : cases) {
    const std::string path = cli_test::temp_file("uart_in", c.input);
    ToolRun run = varnel("--sim uart 0x12345678:1 --baud 9600 term < " + path);
    std::remove(path.c_str());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, c.out);
  }
}

TEST(VarnelUartCli, BadDataTargetOrFramingIsAUsageError) {
  ToolRun run = varnel("--sim uart 0x12345678:0 send DEADBEE");
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "uart send: 'DEADBEE' is not hex (or use --text)\n");
  EXPECT_EQ(varnel("--sim uart 0x12345678:8 read").exit_code, 2);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -y x send 41").exit_code, 2);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -y e -p 2 --baud 300 send 41").exit_code, 0);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -d 8 send 41").exit_code, 0);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -d 7 send 41").exit_code, 2);  // 8 data bits only
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 term --omap crlf,nocr < /dev/null").exit_code, 2);
}

TEST(VarnelUartCli, TermKeysAreAsPicocomsInATerminal) {
  TermInTmux term("-b 115200 --imap crcrlf");
  ASSERT_TRUE(term.keys("Terminal ready", "hello Enter world"));
  ASSERT_TRUE(term.keys("world", "C-a C-u"));
  ASSERT_TRUE(term.keys("230400 ***", "C-a C-d"));
  ASSERT_TRUE(term.keys("115200 ***", "C-a C-d"));
  ASSERT_TRUE(term.keys("57600 ***", "C-a C-c"));
  ASSERT_TRUE(term.keys("echo: yes ***", "x"));
  ASSERT_TRUE(term.keys("xx", "C-a C-b"));
  ASSERT_TRUE(term.keys("*** baud: ", "9600 Enter"));
  ASSERT_TRUE(term.keys("9600 ***", "C-a C-q"));
  EXPECT_EQ(term.screen_with("[exit 0]"),
            "Type [C-a] [C-h] to see available commands\n"
            "Terminal ready\n"
            "hello\n"  // the CR came back, shown as CR LF (--imap crcrlf)
            "world\n"
            "*** baud: 230400 ***\n\n"
            "*** baud: 115200 ***\n\n"
            "*** baud: 57600 ***\n\n"
            "*** local echo: yes ***\n"
            "xx\n"  // the echo, then the loopback's
            "*** baud: 9600\n\n"
            "*** baud: 9600 ***\n\n"
            "Terminating...\n"
            "Skipping channel stop...\n"
            "[exit 0]");
}

TEST(VarnelUartCli, TermMapsWhatGoesOutAndWhatComesIn) {
  struct Case {
    std::string args, shown;
  } cases[] = {
      // a CR that comes back as it went moves to the line's start: "cd" over "ab"
      {"", "cd"},
      // sent as LF, which in raw mode goes down a line without going back
      {"--omap crlf", "ab\n  cd"},
      {"--omap crcrlf --imap lfcrlf,crhex", "ab[0d]\ncd"},
      {"--imap crhex,nrmhex", "[61][62][0d][63][64]"},
  };
  for (const auto& c : cases) {
    TermInTmux term(c.args);
    ASSERT_TRUE(term.keys("Terminal ready", "ab Enter cd")) << c.args;
    ASSERT_TRUE(term.keys(c.shown, "C-a C-x")) << c.args;
    EXPECT_EQ(term.screen_with("[exit 0]"),
              "Type [C-a] [C-h] to see available commands\nTerminal ready\n" + c.shown +
                  "\nTerminating...\n[exit 0]")
        << c.args;
  }
}
