#include "periph/i2c_tables.h"

#include <cstdio>

namespace varnel_cli {
namespace {

std::string hex(int value, int digits) {
  char text[8];
  std::snprintf(text, sizeof text, "%0*x", digits, value);
  return text;
}

// i2cdump shows 0x00 and 0xff apart from the other bytes that have no character.
char ascii(int value) {
  if (value == kFailed) return 'X';
  if (value == 0x00 || value == 0xFF) return '.';
  return value < 0x20 || value >= 0x7F ? '?' : char(value);
}

}  // namespace

std::string detect_grid(const std::vector<bool>& answered, int first, int last) {
  std::string out = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
  for (int row = 0; row < 128; row += 16) {
    out += hex(row, 2) + ": ";
    for (int a = row; a < row + 16; ++a)
      out += a < first || a > last                             ? "   "
             : a < int(answered.size()) && answered[size_t(a)] ? hex(a, 2) + " "
                                                               : "-- ";
    out += "\n";
  }
  return out;
}

std::string byte_table(const std::array<int, 256>& cells, int first, int last, bool block) {
  std::string out = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n";
  for (int row = first & ~15; row <= last; row += 16) {
    std::string text;
    out += hex(row, 2) + ": ";
    for (int r = row; r < row + 16; ++r) {
      const bool outside = r < first || r > last;
      const int v = cells[size_t(r)];
      out += outside ? "   " : v == kFailed ? "XX " : hex(v, 2) + " ";
      if (block && outside) continue;  // a block's ASCII ends with it
      text += outside ? ' ' : ascii(v);
    }
    out += "   " + text + "\n";
  }
  return out;
}

std::string word_table(const std::array<int, 256>& words, int first, int last) {
  std::string out = "     0,8  1,9  2,a  3,b  4,c  5,d  6,e  7,f\n";
  for (int row = first & ~7; row <= last; row += 8) {
    out += hex(row, 2) + ": ";
    for (int r = row; r < row + 8; ++r)
      out += r < first || r > last         ? "     "
             : words[size_t(r)] == kFailed ? "XXXX "
                                           : hex(words[size_t(r)], 4) + " ";
    out += "\n";
  }
  return out;
}

}  // namespace varnel_cli
