// What exported DBC files do that the standard reading must read as DBC tools do; expected values
// worked out by hand from tool_habits.dbc, and from the text of a real file by a regular
// expression.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "files/dbc_parser.h"
#include "varnel.h"

namespace {

const std::string kData = std::string(VARNEL_TEST_DATA);
const std::string kFile = kData + "/dbc-standard/tool_habits.dbc";
constexpr uint32_t kEngine = 640;

std::vector<std::string> choices(DBC_HANDLE db, uint32_t id, std::vector<uint8_t> frame) {
  const char* names[8] = {};
  const int n = VARNEL_DbcDecodeChoices(db, id, frame.data(), int(frame.size()), names, 8);
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back(names[i] ? names[i] : "-");
  return out;
}

// A comment over two lines is read to its closing quote; the line break reads as a blank, and
// the statements after it are still read.
TEST(DbcToolHabits, CommentOverSeveralLinesIsReadWhole) {
  std::ifstream in(kFile, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  const auto db = varnel::dbc::parse(text.str(), true);
  ASSERT_NE(db, nullptr);
  const varnel::dbc::Signal* temp = db->find_message_by_id(kEngine)->find_signal("Temp");
  EXPECT_EQ(temp->comment_text(), "Coolant temperature, measured at the outlet");
  EXPECT_EQ(choices(VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD), kEngine,
                    {0, 0, 1, 0, 0, 0, 0, 0})[4],
            "Idle");
}

TEST(DbcToolHabits, WrappedValueStatementKeepsEveryName) {
  const DBC_HANDLE standard = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  const DBC_HANDLE legacy = VARNEL_DbcLoadFileEx(kFile.c_str(), 0);
  // State is byte 2, signed: FF is -1, FE is -2. Code 0 selects Version (-).
  struct Case {
    uint8_t state;
    const char* name;
  } cases[] = {{0, "Off"},        {3, "Fault"},      {4, "Service"},
               {0xFF, "Invalid"}, {0xFE, "Stalled"}, {5, "-"}};
  for (const auto& c : cases) {
    EXPECT_EQ(choices(standard, kEngine, {0, 0, c.state, 0, 0, 0, 0, 0}),
              (std::vector<std::string>{"-", "-", "Version", "-", c.name}))
        << int(c.state);
  }
  // The original reading stops at the first line: 3 has no name there.
  EXPECT_EQ(choices(legacy, kEngine, {0, 0, 3, 0, 0, 0, 0, 0})[4], "-");

  // A real file whose tool wraps long VAL_ statements: every number/name pair up to the ';'.
  std::ifstream in(kData + "/dbc/foxbms__foxbms.dbc", std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  const std::string body = text.str();
  auto db = varnel::dbc::parse(body, true);
  ASSERT_NE(db, nullptr);
  const std::regex statement(R"(\nVAL_ (\d+) (\w+) ([^;]*);)"), pair(R"((-?\d+)\s+"[^"]*")");
  int statements = 0;
  for (std::sregex_iterator it(body.begin(), body.end(), statement), end; it != end; ++it) {
    const std::string pairs = (*it)[3];
    std::set<std::string> numbers;
    for (std::sregex_iterator p(pairs.begin(), pairs.end(), pair); p != end; ++p) {
      numbers.insert((*p)[1]);
    }
    const uint32_t id = uint32_t(std::stoul((*it)[1]));
    const varnel::dbc::Message* m = db->find_message_by_id(id > 2047 ? id | 0x80000000u : id);
    ASSERT_NE(m, nullptr) << id;
    const varnel::dbc::Signal* s = m->find_signal((*it)[2].str());
    ASSERT_NE(s, nullptr) << (*it)[2];
    EXPECT_EQ(s->value_table.size(), numbers.size()) << (*it)[2];
    ++statements;
  }
  EXPECT_GT(statements, 100);
}

// Code (written `m`, bits 6-7) switches Gear at 2 and Version at 0 through SG_MUL_VAL_.
TEST(DbcToolHabits, BareMultiplexMarkIsShownInEveryFrameAndStillSwitches) {
  const DBC_HANDLE db = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  struct Case {
    uint8_t byte0;
    std::vector<uint8_t> selected;  // Gear Version Code Temp State
    double code;
  } cases[] = {{0x85, {1, 0, 1, 1, 1}, 2}, {0x05, {0, 1, 1, 1, 1}, 0}, {0x45, {0, 0, 1, 1, 1}, 1}};
  for (const auto& c : cases) {
    double values[8];
    uint8_t selected[8];
    const uint8_t frame[8] = {c.byte0};
    ASSERT_EQ(VARNEL_DbcDecodeFrame(db, kEngine, frame, 8, values, selected, 8), 5);
    EXPECT_EQ(std::vector<uint8_t>(selected, selected + 5), c.selected) << int(c.byte0);
    EXPECT_EQ(values[2], c.code);
  }
  // The switch is written before what it selects, though the file lists it after: Gear 5 and
  // Code 2 give 0x85.
  const double nan = std::nan("");
  const double values[5] = {5, nan, 2, nan, nan};
  uint8_t frame[8] = {};
  ASSERT_EQ(VARNEL_DbcEncodeFrame(db, kEngine, values, 5, 0, frame, 8), 8);
  EXPECT_EQ(frame[0], 0x85);
}

TEST(DbcToolHabits, IdentifierBits29And30AreNoPartOfTheFrameIdentifier) {
  const DBC_HANDLE db = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  const DBC_HANDLE legacy = VARNEL_DbcLoadFileEx(kFile.c_str(), 0);
  const uint8_t frame[8] = {0x11, 0xFF};
  double values[4];
  struct Case {
    DBC_HANDLE db;
    uint32_t id;
    int result;
  } cases[] = {
      {db, 0x682, 2},        // 0x40000682: standard 0x682
      {db, 0x80140639, 1},   // 0x40140639: 0x140639 needs 29 bits, so extended
      {db, 0x40000682, -5},  // the file's number is no frame's identifier
      {db, 0x0, 1},          // Zero, not the pseudo-message before it
      {legacy, 0x682, -5},   // the original reading keeps the number, with bit 31 added
      {legacy, 0xC0000682, 2},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(VARNEL_DbcDecodeFrame(c.db, c.id, frame, 8, values, nullptr, 4), c.result)
        << std::hex << c.id;
  }
  EXPECT_EQ(DBC_GetMsgIDByName(db, "Relayed"), 0x682);
  char name[VARNEL_DBC_TEXT_MAX];
  ASSERT_EQ(DBC_GetMsgName(db, 0, name), 0);
  EXPECT_STREQ(name, "VECTOR__INDEPENDENT_SIG_MSG");
  EXPECT_EQ(uint32_t(DBC_GetMsgIDByName(db, name)), 0xC0000000u);
  // The lines that refer to the message by the file's number find it too.
  EXPECT_EQ(choices(db, 0x682, {0x11, 0xFF, 0, 0, 0, 0, 0, 0}),
            (std::vector<std::string>{"-", "Full"}));
}

}  // namespace
