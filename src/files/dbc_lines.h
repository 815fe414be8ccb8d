// Lines and tokens of a DBC file, read the way the format's original readers see them: a text-mode
// line buffer of 8192 bytes and blanks as the only separators.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace varnel::dbc {

// Lines are read as by a 8192-byte line buffer: a longer line continues as the next line.
constexpr size_t kMaxLineChars = 8191;

// Hands out one line at a time from a file or from text in memory, so a pass over a file holds
// one line and one read chunk whatever the file's size. "\r\n" reads as "\n", as a text-mode
// read turns it on the platforms where DBC files are written; a lone "\r" stays.
class LineReader {
 public:
  explicit LineReader(std::string_view text) : pending_(text) {}
  explicit LineReader(std::FILE* file) : file_(file) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line with its line feed, cut at a zero byte (a line is a C string from here on);
  // false at the end of the input. Lines of a lone line feed hold nothing for either pass and are
  // skipped a run at a time, so empty lines cost a scan, not a line each. `line` keeps its
  // capacity from call to call.
  bool next(std::string& line);
  // Bytes taken from the input so far, line ends as they were in the input.
  size_t bytes_read() const { return bytes_read_; }
  // A read error on the file (never for text).
  bool failed() const { return file_ && std::ferror(file_); }

 private:
  bool refill();
  void consume(size_t n);
  void skip_empty_lines();

  std::string_view pending_;
  std::FILE* file_ = nullptr;
  std::vector<char> chunk_;
  size_t bytes_read_ = 0;
};

// Splits a line into tokens after taking out every ";\n"; the vector is reused between lines.
// With `any_blank`, tabs and line ends separate too, as in the files other DBC tools read.
void tokenize(std::string_view line, std::vector<std::string>& tokens, bool any_blank = false);

}  // namespace varnel::dbc
