// Running the built `varnel` tool as a user runs it, for the CLI tests.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

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

// Runs the tool with `args` (a shell command tail: redirections work) in a clean environment: no
// usbsim preloaded, no adapters or virtual bus traffic chosen; `environment` ("NAME=value ...")
// adds variables.
inline ToolRun varnel(const std::string& args, const std::string& environment = "") {
  const std::string err_path =
      testing::TempDir() + "varnel_cli_err_" + std::to_string(getpid()) + ".txt";
  const std::string command =
      "env -u LD_LIBRARY_PATH -u VARNEL_USBSIM_ADAPTERS -u VARNEL_SIM_ACTIVE "
      "-u VARNEL_SIM_CAN_PEER -u VARNEL_SIM_CAN_TRAFFIC " +
      environment + " " VARNEL_BINARY_DIR "/bin/varnel " + args + " 2>" + err_path;
  ToolRun run;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) run.out.append(buffer, n);
  int status = pclose(pipe);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.err = read_file(err_path);
  std::remove(err_path.c_str());
  return run;
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
  SimDaemon(const std::string& global_args, const std::string& adapter,
            const std::string& address) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      close(fds[1]);
      const std::string command = "exec " VARNEL_BINARY_DIR "/bin/varnel " + global_args +
                                  " sim --adapter " + adapter +
                                  " --discovery-port 0 --tcp-port 0 --first-address " + address;
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(fds[1]);
    out_ = fdopen(fds[0], "r");
    char line[256];
    unsigned discovery = 0, tcp = 0;
    if (out_ && fgets(line, sizeof line, out_) &&
        sscanf(line, "varnel-sim: discovery on 127.0.0.255:%u, TCP port %u", &discovery, &tcp) == 2)
      environment_ = "VARNEL_NET_DISCOVERY_PORT=" + std::to_string(discovery) +
                     " VARNEL_NET_TCP_PORT=" + std::to_string(tcp);
  }
  ~SimDaemon() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    if (out_) fclose(out_);
  }
  // Empty when the daemon did not come up.
  const std::string& environment() const { return environment_; }
  // The ports into this process's environment, for tools started without a shell.
  void export_ports() const {
    std::istringstream words(environment_);
    for (std::string word; words >> word;) {
      const size_t equals = word.find('=');
      setenv(word.substr(0, equals).c_str(), word.substr(equals + 1).c_str(), 1);
    }
  }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
  std::string environment_;
};

}  // namespace cli_test
