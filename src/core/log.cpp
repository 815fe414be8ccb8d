// The log file switch of the interface. The library itself never writes to the file: it exists so
// that applications can turn their logging on and off through the same calls they always used.
#include <cstdio>

#include "varnel.h"

namespace {

// Not guarded: starting and stopping the log from two threads at once is not supported.
std::FILE* log_file = nullptr;

}  // namespace

VARNEL_API void DEBUG_SetHandle(void) {}

VARNEL_API int DEBUG_StartLogToFile(const char* path) {
  if (!path) return -1;
  std::FILE* file = std::fopen(path, "a");
  if (!file) return -1;
  // A log opened earlier is closed rather than leaked with its descriptor.
  if (log_file) std::fclose(log_file);
  log_file = file;
  return 0;
}

VARNEL_API int DEBUG_StopLog(void) {
  if (log_file) {
    std::fclose(log_file);
    log_file = nullptr;
  }
  return 0;
}
