// How DBC files are read: CRLF files as LF files, and memory that follows content, not length.
#include <gtest/gtest.h>
#include <unistd.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>

#include "files/dbc_parser.h"
#include "files/dbc_signals.h"

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

std::string write_temp(const std::string& name, const std::string& text) {
  // one name per process: several suites may run at once on one machine
  const std::string path = testing::TempDir() + "/" + std::to_string(getpid()) + "_" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (size_t i = 0; (i = s.find(from, i)) != std::string::npos; i += to.size())
    s.replace(i, from.size(), to);
  return s;
}

// The database as its description shows it, with what that leaves out of each signal.
std::string dump(const varnel::dbc::Database& db) {
  std::string out = varnel::dbc::describe(db);
  for (const auto& m : db.messages)
    for (const auto& s : m.signals) {
      out += s.name + ": " + s.comment_text() + " " + std::to_string(s.raw_value);
      for (const auto& r : s.receivers) out += " " + r;
      out += "\n";
    }
  return out;
}

TEST(DbcLines, EveryDataFileLoadsTheSameWithCrlfEnds) {
  int files = 0, fd_messages = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VARNEL_TEST_DATA "/dbc")) {
    if (entry.path().extension() != ".dbc") continue;
    SCOPED_TRACE(entry.path().filename().string());
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string lf =
        replace_all(std::string(std::istreambuf_iterator<char>(in), {}), "\r\n", "\n");
    auto a = varnel::dbc::load_file(write_temp("lf.dbc", lf).c_str());
    auto b = varnel::dbc::load_file(write_temp("crlf.dbc", replace_all(lf, "\n", "\r\n")).c_str());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(dump(*a), dump(*b));
    for (const auto& m : a->messages) fd_messages += m.fd;
    ++files;
  }
  EXPECT_EQ(files, 42);
  EXPECT_GT(fd_messages, 0);  // the FD settings a CRLF file used to lose are in the data
}

TEST(DbcLines, EmptyLinesCostNoMemory) {
  for (const std::string end : {"\n", "\r\n"}) {
    std::string text;
    for (size_t i = 0; i < (2u << 20) / end.size(); ++i) text += end;
    const std::string path = write_temp("blank.dbc", text + "BO_ 1 Last: 8 N" + end);
    text = std::string();
    live = 0, peak = 0, counting = true;
    auto db = varnel::dbc::load_file(path.c_str());
    counting = false;
    ASSERT_NE(db, nullptr);
    ASSERT_EQ(db->messages.size(), 1u);
    EXPECT_EQ(db->messages[0].transmitter, "N\n");
    EXPECT_LT(peak, 256 * 1024) << (end.size() == 1 ? "LF" : "CRLF");  // one chunk, one message
  }
}

}  // namespace
