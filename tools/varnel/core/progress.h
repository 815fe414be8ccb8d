// Progress of a long transfer on stderr: a bar on a terminal (with the bytes, the rate and the time
// left), a line per quarter otherwise (as flashrom shows it).
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace varnel_cli {

class Progress {
 public:
  Progress(const char* what, uint64_t total) : what_(what), total_(total), tty_(isatty(2)) {}
  void at(uint64_t done) {
    const int percent = total_ ? int(done * 100 / total_) : 100;
    if (tty_) {
      const int bar = percent / 5;
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
      const double rate = seconds > 0 ? double(done) / seconds : 0;
      const long left = rate > 0 ? long(double(total_ - done) / rate + 0.5) : 0;
      std::fprintf(stderr, "\r%s [%s%s] %3d%% %llu/%llu bytes %.1f KiB/s %ld:%02ld left ", what_,
                   std::string(size_t(bar), '#').c_str(),
                   std::string(size_t(20 - bar), ' ').c_str(), percent,
                   static_cast<unsigned long long>(done), static_cast<unsigned long long>(total_),
                   rate / 1024, left / 60, left % 60);
      if (done == total_) std::fprintf(stderr, "\n");
    } else if (percent / 25 > last_quarter_) {
      last_quarter_ = percent / 25;
      std::fprintf(stderr, "%s: %d%% (%llu of %llu bytes)\n", what_, percent,
                   static_cast<unsigned long long>(done), static_cast<unsigned long long>(total_));
    }
  }

 private:
  const char* what_;
  uint64_t total_;
  bool tty_;
  int last_quarter_ = 0;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace varnel_cli
