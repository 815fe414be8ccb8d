// Running the built `varnel` tool as a user runs it, for the CLI tests.
#pragma once

#include <gtest/gtest.h>
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

}  // namespace cli_test
