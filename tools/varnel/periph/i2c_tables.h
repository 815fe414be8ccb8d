// The text i2c-tools prints, so that scripts and eyes used to it read ours: i2cdetect's grid and
// i2cdump's tables, with the same spacing (every cell ends in a space, blanks where a register or
// address lies outside the range asked for).
#pragma once

#include <array>
#include <string>
#include <vector>

namespace varnel_cli {

// One register as a dump shows it: a byte (0-255), kFailed ("XX") or kOutside (blank).
constexpr int kFailed = -1;
constexpr int kOutside = -2;

// i2cdetect's 8 rows of 16: the address where it answered, "--" where it did not, blank
// outside FIRST-LAST.
std::string detect_grid(const std::vector<bool>& answered, int first, int last);

// i2cdump's byte table (modes b, c, i, s): rows of 16 registers from the one holding `first` to
// the one holding `last`, hex then ASCII. A block dump (mode s) ends where the block does: no
// rows after it, its last row's ASCII cut short.
std::string byte_table(const std::array<int, 256>& cells, int first, int last, bool block);

// i2cdump's word table (mode w): a word read at every register, rows of 8.
std::string word_table(const std::array<int, 256>& words, int first, int last);

}  // namespace varnel_cli
