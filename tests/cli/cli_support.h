// Running the built `varnel` tool as a user runs it, for the CLI tests.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace cli_test {

struct ToolRun {
  int exit_code = -1;
  std::string out;
  std::string err;
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The standard output of `command` run by the shell; its wait status in `status`.
inline std::string shell(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int ended = pclose(pipe);
  if (status) *status = ended;
  return out;
}

// The tool with `args` (a shell command tail: redirections work) in a clean environment: no
// usbsim preloaded, no adapters or virtual bus traffic chosen; `environment` ("NAME=value ...")
// adds variables.
inline std::string tool_command(const std::string& args, const std::string& environment) {
  return "env -u LD_LIBRARY_PATH -u VARNEL_USBSIM_ADAPTERS -u VARNEL_SIM_ACTIVE "
         "-u VARNEL_SIM_CAN_PEER -u VARNEL_SIM_CAN_TRAFFIC " +
         environment + " " VARNEL_BINARY_DIR "/bin/varnel " + args;
}

inline ToolRun varnel(const std::string& args, const std::string& environment = "") {
  const std::string err_path =
      testing::TempDir() + "varnel_cli_err_" + std::to_string(getpid()) + ".txt";
  ToolRun run;
  int status = -1;
  run.out = shell(tool_command(args, environment) + " 2>" + err_path, &status);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.err = read_file(err_path);
  std::remove(err_path.c_str());
  return run;
}

// Waits up to `limit` for the child `pid` to end: true with its wait status, false (the child left
// running) when it did not.
inline bool wait_for_exit(pid_t pid, int* status,
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (waitpid(pid, status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// The tool started as varnel() runs it, in the background: its standard output readable from
// `out` (redirect stderr in `args` to read that instead), `pid` the tool's own.
struct Started {
  pid_t pid = -1;
  FILE* out = nullptr;
  // Stops it, by default as Ctrl-C does; its wait status (-1 when it ignored the signal for 10 s
  // and was killed).
  int stop(int signal = SIGINT) {
    int status = -1;
    if (pid > 0 && kill(pid, signal) == 0 && !wait_for_exit(pid, &status)) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      status = -1;
    }
    if (out) fclose(out);
    pid = -1, out = nullptr;
    return status;
  }
};

inline Started start(const std::string& args, const std::string& environment = "") {
  Started started;
  int fds[2];
  if (pipe(fds) != 0) return started;
  started.pid = fork();
  if (started.pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    execl("/bin/sh", "sh", "-c", ("exec " + tool_command(args, environment)).c_str(), nullptr);
    _exit(127);
  }
  close(fds[1]);
  started.out = fdopen(fds[0], "r");
  return started;
}

// A path under the test's temporary folder, unique to this process.
inline std::string temp_path(const std::string& name) {
  return testing::TempDir() + "varnel_" + std::to_string(getpid()) + "_" + name;
}

// A file there holding `content`; its path.
inline std::string temp_file(const std::string& name, const std::string& content) {
  const std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

inline std::string golden(const std::string& name) {
  return read_file(VARNEL_SOURCE_DIR "/tests/cli/golden/" + name);
}

inline std::string data_file(const std::string& name) {
  return VARNEL_SOURCE_DIR "/tests/cli/data/" + name;
}

// Host time stamps "(1795399051.217590)" change from run to run.
inline std::string without_host_times(const std::string& text) {
  return std::regex_replace(text, std::regex("\\(\\d+\\.\\d{6}\\)"), "(<time>)");
}

// `varnel GLOBAL_ARGS sim` in the background on ports of its own choosing, serving one network
// adapter at `address`; `environment()` reaches it from `varnel --net 127.0.0.1`. Stopped when
// the object goes.
class SimDaemon {
 public:
  SimDaemon(const std::string& global_args, const std::string& adapter, const std::string& address)
      : daemon_(start(global_args + " sim --adapter " + adapter +
                      " --discovery-port 0 --tcp-port 0 --first-address " + address)) {
    char line[256];
    unsigned discovery = 0, tcp = 0;
    if (daemon_.out && fgets(line, sizeof line, daemon_.out) &&
        sscanf(line, "varnel-sim: discovery on 127.0.0.255:%u, TCP port %u", &discovery, &tcp) == 2)
      environment_ = "VARNEL_NET_DISCOVERY_PORT=" + std::to_string(discovery) +
                     " VARNEL_NET_TCP_PORT=" + std::to_string(tcp);
  }
  ~SimDaemon() { stop(); }
  // Empty when the daemon did not come up.
  const std::string& environment() const { return environment_; }
  // True when it ends with exit code 0 on SIGTERM.
  bool stop() {
    const int status = daemon_.stop(SIGTERM);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  Started daemon_;
  std::string environment_;
};

}  // namespace cli_test
