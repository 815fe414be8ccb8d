// How DBC files are read: CRLF files as LF files, and memory that follows content, not length.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

#include "files/dbc_parser.h"

// Live and peak heap bytes of the process while `counting` is on.
namespace {
std::atomic<bool> counting{false};
std::atomic<long> live{0}, peak{0};
}  // namespace

void* operator new(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  if (counting) {
    const long now = live += long(malloc_usable_size(p));
    for (long old = peak; now > old && !peak.compare_exchange_weak(old, now);) {
    }
  }
  return p;
}
void operator delete(void* p) noexcept {
  if (p && counting) live -= long(malloc_usable_size(p));
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  operator delete(p);
}
// The nothrow forms too (std::stable_sort's buffer): under AddressSanitizer the runtime's own
// would otherwise hand out memory that the delete above frees as malloc'ed.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  operator delete(p);
}

namespace {

namespace fs = std::filesystem;

std::string write_temp(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (size_t i = 0; (i = s.find(from, i)) != std::string::npos; i += to.size())
    s.replace(i, from.size(), to);
  return s;
}

// Everything a caller can reach of a database, one text per message with its signals.
std::vector<std::string> dump(const varnel::dbc::Database& db) {
  std::vector<std::string> texts;
  for (const auto& m : db.messages) {
    std::ostringstream out;
    out.precision(17);
    out << m.name << '|' << m.id << '|' << int(m.dlc) << '|' << m.transmitter << '|' << m.comment
        << '|' << int(m.fd) << int(m.brs) << '|' << m.cycle_time;
    for (const auto& a : m.attributes) out << '|' << a.name() << '=' << a.value;
    out << '\n';
    for (const auto& s : m.signals) {
      out << ' ' << s.name << '|' << s.byte_order << s.is_signed << s.value_type << '|'
          << s.start_bit << '|' << s.length << '|' << s.factor << ',' << s.offset << '|'
          << s.minimum << ',' << s.maximum << '|' << s.unit << '|' << s.multiplex_indicator
          << s.multiplex_value << '|' << s.comment_text() << '|' << s.raw_value;
      for (const auto& r : s.receivers) out << '|' << r;
      for (const auto& [k, v] : s.value_table) out << '|' << k << '=' << v;
      out << '\n';
    }
    texts.push_back(out.str());
  }
  return texts;
}

TEST(DbcLines, EveryDataFileLoadsTheSameWithCrlfEnds) {
  int files = 0, fd_messages = 0;
  for (const auto& entry : fs::directory_iterator(VARNEL_TEST_DATA "/dbc")) {
    if (entry.path().extension() != ".dbc") continue;
    SCOPED_TRACE(entry.path().filename().string());
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string lf =
        replace_all(std::string(std::istreambuf_iterator<char>(in), {}), "\r\n", "\n");
    auto a = varnel::dbc::load_file(write_temp("lf.dbc", lf).c_str());
    auto b = varnel::dbc::load_file(write_temp("crlf.dbc", replace_all(lf, "\n", "\r\n")).c_str());
    ASSERT_TRUE(a && b);
    const auto lf_texts = dump(*a), crlf_texts = dump(*b);
    EXPECT_EQ(lf_texts.size(), crlf_texts.size());
    auto [x, y] =
        std::mismatch(lf_texts.begin(), lf_texts.end(), crlf_texts.begin(), crlf_texts.end());
    if (x != lf_texts.end() && y != crlf_texts.end()) EXPECT_EQ(*x, *y);  // the first that differs
    for (const auto& m : a->messages) fd_messages += m.fd;
    ++files;
  }
  EXPECT_EQ(files, 42);
  EXPECT_GT(fd_messages, 0);  // the FD settings a CRLF file used to lose are in the data
}

TEST(DbcLines, EmptyLinesCostNoMemory) {
  const size_t kBlankBytes = 2u << 20;
  for (const std::string end : {"\n", "\r\n"}) {
    SCOPED_TRACE(end == "\n" ? "LF" : "CRLF");
    std::string text;
    for (size_t i = 0; i < kBlankBytes / end.size(); ++i) text += end;
    const std::string path = write_temp("blank.dbc", text + "BO_ 1 Last: 8 N" + end);
    text = std::string();
    live = 0, peak = 0, counting = true;
    auto db = varnel::dbc::load_file(path.c_str());
    counting = false;
    ASSERT_NE(db, nullptr);
    ASSERT_EQ(db->messages.size(), 1u);
    EXPECT_EQ(db->messages[0].transmitter, "N\n");
    // One read chunk and one message, far below the file's size.
    EXPECT_LT(peak, 256 * 1024);
  }
}

}  // namespace
