#include "files/dbc_lines.h"

#include <cctype>

namespace varnel::dbc {

bool LineReader::refill() {
  if (!file_) return false;
  chunk_.resize(64 * 1024);
  const size_t n = std::fread(chunk_.data(), 1, chunk_.size(), file_);
  pending_ = std::string_view(chunk_.data(), n);
  return n > 0;
}

void LineReader::consume(size_t n) {
  pending_.remove_prefix(n);
  bytes_read_ += n;
}

void LineReader::skip_empty_lines() {
  while (!pending_.empty() || refill()) {
    if (pending_.starts_with("\r\n")) {
      consume(2);
      continue;
    }
    const size_t run = pending_.find_first_not_of('\n');
    consume(run == std::string_view::npos ? pending_.size() : run);
    // Stop at anything else; a "\r" at the end of a chunk is left for next() to pair up.
    if (run != std::string_view::npos && !pending_.starts_with("\r\n")) return;
  }
}

bool LineReader::next(std::string& line) {
  line.clear();
  skip_empty_lines();
  bool any = false;
  while (line.size() < kMaxLineChars && (!pending_.empty() || refill())) {
    any = true;
    const std::string_view part = pending_.substr(0, kMaxLineChars - line.size());
    const size_t stop = part.find_first_of("\r\n");
    line.append(part.substr(0, stop));
    if (stop == std::string_view::npos) {
      consume(part.size());
      continue;
    }
    consume(stop);
    const char c = pending_.front();
    consume(1);
    // A carriage return right before a line feed is dropped; the line feed then ends the line.
    if (c == '\r' && (!pending_.empty() || refill()) && pending_.front() == '\n') continue;
    line += c;
    if (c == '\n') break;
  }
  const size_t zero = line.find('\0');
  if (zero != std::string::npos) line.resize(zero);
  return any;
}

void tokenize(std::string_view line, std::vector<std::string>& tokens, bool any_blank) {
  tokens.clear();
  std::string token;
  auto finish = [&] {
    if (!token.empty()) tokens.push_back(std::move(token));
    token.clear();
  };
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ';' && i + 1 < line.size() && line[i + 1] == '\n') {
      ++i;  // ";\n" goes; so a line ending in ';' loses its line feed with it
    } else if (line[i] == ' ' || (any_blank && std::isspace(static_cast<unsigned char>(line[i])))) {
      finish();
    } else {
      token += line[i];
    }
  }
  finish();
}

}  // namespace varnel::dbc
