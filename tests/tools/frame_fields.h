// A frame as one line of fields for the table tests: "TIME_US CHANNEL ID FLAGS DATA", the
// identifier and flags in hex as the bits they are.
#pragma once

#include <cstdio>
#include <string>

#include "varnel.h"

inline std::string frame_fields(uint64_t time_us, const std::string& channel, const CANFD_MSG& f) {
  char head[96];
  std::snprintf(head, sizeof head, "%llu %s %08X %02X ", (unsigned long long)time_us,
                channel.c_str(), f.Id, f.Flags);
  std::string text = head;
  for (int i = 0; i < f.DataLen && i < 64; ++i)
    text += "0123456789ABCDEF"[f.Data[i] >> 4], text += "0123456789ABCDEF"[f.Data[i] & 15];
  return text;
}
