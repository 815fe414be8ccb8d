#include "files/dbc_parser.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

using varnel::dbc::Database;
using varnel::dbc::Message;
using varnel::dbc::parse;
using varnel::dbc::Signal;

std::unique_ptr<Database> must_parse(const std::string& text) {
  auto db = parse(text);
  EXPECT_NE(db, nullptr);
  return db;
}

const Signal& only_signal(const std::string& sg_line) {
  static std::unique_ptr<Database> db;
  db = must_parse("BO_ 100 M: 8 N\n" + sg_line);
  EXPECT_EQ(db->messages.size(), 1u);
  EXPECT_EQ(db->messages[0].signals.size(), 1u) << sg_line;
  static Signal none;
  return db->messages[0].signals.empty() ? none : db->messages[0].signals[0];
}

TEST(DbcParser, FlagsExtendedIdentifiers) {
  struct Row {
    const char* token;
    uint32_t stored;
  } rows[] = {
      {"2364540158", 2364540158u},  // bit 31 already set
      {"3000", 2147486648u},        // bare 29-bit number
      {"2047", 2047u},
      {"2048", 0x80000800u},
      {"0x7FF", 2047u},  // read base 0
      {"010", 8u},       // leading zero is octal
      {"junk", 0u},
  };
  for (const Row& r : rows) {
    auto db = must_parse(std::string("BO_ ") + r.token + " Msg: 8 Node;\n");
    ASSERT_EQ(db->messages.size(), 1u) << r.token;
    EXPECT_EQ(db->messages[0].id, r.stored) << r.token;
  }
}

TEST(DbcParser, MessageLineForms) {
  struct Row {
    const char* line;
    const char* name;
    uint8_t dlc;
    const char* transmitter;
  } rows[] = {
      {"BO_ 100 Msg: 8 Node;\n", "Msg", 8, "Node"},
      {"BO_ 100 Msg: 8 Node\n", "Msg", 8, "Node\n"},      // no ';': the line feed stays
      {"BO_ 100 Msg: 8 Node\r\n", "Msg", 8, "Node\n"},    // CRLF reads as LF
      {"BO_ 100 Msg: 8 Node\r", "Msg", 8, "Node\r"},      // a lone CR is a character
      {"BO_ 100 Msg : 0x40 Node;\n", "Msg", 64, "Node"},  // colon as its own token
      {"BO_ 100 M:s:g 8 Node;\n", "Msg", 8, "Node"},      // every colon goes
      {"BO_  100   Msg:  8  Node  Extra;\n", "Msg", 8, "Node"},
  };
  for (const Row& r : rows) {
    auto db = must_parse(r.line);
    ASSERT_EQ(db->messages.size(), 1u) << r.line;
    const Message& m = db->messages[0];
    EXPECT_EQ(m.name, r.name) << r.line;
    EXPECT_EQ(m.dlc, r.dlc) << r.line;
    EXPECT_EQ(m.transmitter, r.transmitter) << r.line;
    EXPECT_EQ(m.cycle_time, 10u);
    EXPECT_EQ(m.flag, 1);
    EXPECT_EQ(m.fd, 0);
  }
}

TEST(DbcParser, MessageLineThatRunsOutFailsTheLoad) {
  EXPECT_EQ(parse("BO_ 100 Msg: 8\n"), nullptr);
  EXPECT_EQ(parse("BO_ 100 Msg : 8\n"), nullptr);
  EXPECT_EQ(parse("BO_ 100 Msg :\n"), nullptr);
  // Fewer than four tokens is a line to skip, not a failure.
  auto db = must_parse("BO_ 100 Msg:\nBO_\n");
  EXPECT_TRUE(db->messages.empty());
}

TEST(DbcParser, EmptyMessageNameIsNotStoredAndItsSignalsGoToThePreviousMessage) {
  auto db = must_parse(
      "BO_ 1 First: 8 N\n"
      "BO_ 2 : 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n");
  ASSERT_EQ(db->messages.size(), 1u);
  EXPECT_EQ(db->messages[0].signals.size(), 1u);
}

TEST(DbcParser, ConvertsMotorolaStartBitToLeastSignificantBit) {
  struct Row {
    uint32_t file_start;
    uint16_t length;
    uint16_t stored;
  } rows[] = {
      {7, 16, 8},   {0, 2, 15},   {3, 12, 8},  {7, 8, 0}, {7, 1, 7},
      {15, 16, 16}, {39, 32, 56}, {63, 8, 56}, {5, 0, 6},  // no bits: one past the start
  };
  for (const Row& r : rows) {
    EXPECT_EQ(varnel::dbc::motorola_lsb_start(r.file_start, r.length), r.stored)
        << r.file_start << "|" << r.length;
  }
}

TEST(DbcParser, SignalLineForms) {
  struct Row {
    const char* line;
    uint32_t indicator;
    uint16_t mux_value;
    uint32_t order;
    uint32_t is_signed;
    uint16_t start;
    uint16_t length;
  } rows[] = {
      {" SG_ S : 3|4@1- (1,0) [0|0] \"\" N\n", 0, 0, 1, 1, 3, 4},
      {"SG_ S: 3|4@1+ (1,0) [0|0] \"\" N\n", 0, 0, 1, 0, 3, 4},
      {" SG_ S :3|4@1+ (1,0) [0|0] \"\" N\n", 0, 0, 1, 0, 3, 4},
      {" SG_ S M : 0|8@1+ (1,0) [0|0] \"\" N\n", 2, 0, 1, 0, 0, 8},
      {" SG_ S m3 : 8|8@1+ (1,0) [0|0] \"\" N\n", 1, 3, 1, 0, 8, 8},
      {" SG_ S m0x10: 8|8@1+ (1,0) [0|0] \"\" N\n", 1, 16, 1, 0, 8, 8},
      {" SG_ S m1M : 8|8@1+ (1,0) [0|0] \"\" N\n", 2, 0, 1, 0, 8, 8},  // M wins
      {" SG_ S : 7|16@0+ (1,0) [0|0] \"\" N\n", 0, 0, 0, 0, 8, 16},
      {" SG_ S : 0x7|0x10@0- (1,0) [0|0] \"\" N\n", 0, 0, 0, 1, 8, 16},
  };
  for (const Row& r : rows) {
    const Signal& s = only_signal(r.line);
    EXPECT_EQ(s.name, "S") << r.line;
    EXPECT_EQ(s.multiplex_indicator, r.indicator) << r.line;
    EXPECT_EQ(s.multiplex_value, r.mux_value) << r.line;
    EXPECT_EQ(s.byte_order, r.order) << r.line;
    EXPECT_EQ(s.is_signed, r.is_signed) << r.line;
    EXPECT_EQ(s.start_bit, r.start) << r.line;
    EXPECT_EQ(s.length, r.length) << r.line;
  }
}

TEST(DbcParser, WidensZeroWidthRange) {
  struct Row {
    const char* position;
    const char* scale;
    const char* range;
    double minimum, maximum;
  } rows[] = {
      {"7|16@0+", "(1,0)", "[0|0]", 0, 65535},
      {"0|8@1+", "(0.5,-10)", "[0|0]", -10, 117.5},
      {"0|8@1-", "(1,0)", "[0|0]", 0, 255},  // whatever the sign
      {"0|8@1+", "(2,1)", "[5|5]", 1, 511},  // any zero width, not only 0..0
      {"0|64@1+", "(1,0)", "[0|0]", 0, 18446744073709551615.0},
      {"0|8@1+", "(1,0)", "[-3|1E+002]", -3, 100},  // exponent numbers
      {"0|8@1+", "(1E-006,0)", "[0|1]", 0, 1},
  };
  for (const Row& r : rows) {
    const std::string line =
        std::string(" SG_ S : ") + r.position + " " + r.scale + " " + r.range + " \"\" N\n";
    const Signal& s = only_signal(line);
    EXPECT_DOUBLE_EQ(s.minimum, r.minimum) << line;
    EXPECT_DOUBLE_EQ(s.maximum, r.maximum) << line;
  }
  EXPECT_DOUBLE_EQ(only_signal(" SG_ S : 0|8@1+ (1E-006,0) [0|1] \"\" N\n").factor, 1e-6);
}

TEST(DbcParser, UnitAndReceivers) {
  struct Row {
    const char* tail;
    const char* unit;
    std::vector<std::string> receivers;
  } rows[] = {
      {"\"km/h\" A,B\n", "km/h", {"A", "B\n"}},  // the last receiver keeps the line feed
      {"\"\" Vector__XXX\n", "", {"Vector__XXX\n"}},
      {"\"deg  C\" A\n", "deg C", {"A\n"}},  // blank runs collapse
      {"\"a b c\" X,Y;\n", "a b c", {"X", "Y"}},
      {"\"rpm\"", "rpm", {}},
  };
  for (const Row& r : rows) {
    const std::string line = std::string(" SG_ S : 0|8@1+ (1,0) [0|0] ") + r.tail;
    const Signal& s = only_signal(line);
    EXPECT_EQ(s.unit, r.unit) << line;
    EXPECT_EQ(s.receivers, r.receivers) << line;
  }
}

TEST(DbcParser, IgnoresSignalLinesItCannotPlace) {
  auto db = must_parse(
      " SG_ Early : 0|8@1+ (1,0) [0|0] \"\" N\n"  // before any message
      "BO_ 100 M: 8 N\n"
      " SG_ Short : 0|8@1+ (1,0)\n"                 // fewer than 7 tokens
      "\tSG_ Tabbed : 0|8@1+ (1,0) [0|0] \"\" N\n"  // a tab is not a separator
      " SG_ : 0|8@1+ (1,0) [0|0] \"\" N\n"          // empty name
      " SG_ Kept : 0|8@1+ (1,0) [0|0] \"\" N\n");
  ASSERT_EQ(db->messages.size(), 1u);
  ASSERT_EQ(db->messages[0].signals.size(), 1u);
  EXPECT_EQ(db->messages[0].signals[0].name, "Kept");
}

TEST(DbcParser, CommentsValueTablesAndValueTypes) {
  auto db = must_parse(
      "BO_ 100 A: 8 N\n"
      " SG_ S : 0|32@1- (1,0) [0|0] \"\" N\n"
      " SG_ T : 32|32@1- (1,0) [0|0] \"\" N\n"
      "BO_ 100 B: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
      "CM_ BO_ 100 \"first line\n"
      "second line\";\n"
      "CM_ BO_ 100 \"later\";\n"
      "CM_ SG_ 100 S \"shared \"\"text\";\n"
      "VAL_ 100 S 1 \"On\" 0 \"Off  now\" -1 \"Err\" 0x10 \"Hex\" 1 \"Again\" ;\n"
      "SIG_VALTYPE_ 100 S : 1;\n"
      "SIG_VALTYPE_ 100 T : 3;\n");
  const Message& a = db->messages[0];
  const Message& b = db->messages[1];
  // Only the first line of a multi-line comment; the first message with the id gets it and
  // keeps the first CM_ line's text until a later one overwrites it.
  EXPECT_EQ(a.comment, "later");
  EXPECT_EQ(b.comment, "");
  EXPECT_EQ(a.signals[0].comment_text(), "shared text");
  EXPECT_EQ(b.signals[0].comment_text(), "shared text");
  const std::map<int32_t, std::string> table{
      {-1, "Err"}, {0, "Off now"}, {1, "Again"}, {16, "Hex"}};
  EXPECT_EQ(a.signals[0].value_table, table);
  EXPECT_TRUE(b.signals[0].value_table.empty());  // only the first signal found
  EXPECT_EQ(a.signals[0].value_type, 1u);
  EXPECT_EQ(b.signals[0].value_type, 1u);  // every message with the id
  EXPECT_EQ(a.signals[1].value_type, 0u);  // 3 is not a known type
}

TEST(DbcParser, KeepsOnlyFirstLineOfMultiLineComment) {
  auto db = must_parse("BO_ 7 A: 8 N\nCM_ BO_ 7 \"one\ntwo\";\n");
  EXPECT_EQ(db->messages[0].comment, "one\n");
}

TEST(DbcParser, AttributeDefinitions) {
  auto db = must_parse(
      "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n"
      "BA_DEF_ BO_ \"GenMsgCycleTime\" FLOAT 1 2;\n"  // the first definition wins
      "BA_DEF_ \"Net\" STRING ;\n"
      "BA_DEF_ SG_ \"Kind\" ENUM \"One\",\"Two\", \"Three\";\n"
      "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\n"
      "BA_DEF_DEF_ \"Net\" \"x\";\n"
      "BA_DEF_DEF_ \"Undefined\" 5;\n");
  ASSERT_EQ(db->attribute_definitions.size(), 3u);
  const auto& cycle = db->attribute_definitions[0];
  EXPECT_EQ(cycle.name(), "GenMsgCycleTime");
  EXPECT_EQ(cycle.value_type(), "INT");
  EXPECT_EQ(cycle.shape->object_type, "BO_");
  EXPECT_EQ(cycle.shape->maximum, 65535);
  EXPECT_EQ(cycle.value, "100");
  EXPECT_EQ(db->attribute_definitions[1].shape->object_type, " ");
  EXPECT_EQ(db->attribute_definitions[1].value, "x");
  // A list with a blank after a comma is cut there.
  EXPECT_EQ(db->attribute_definitions[2].shape->enum_values,
            (std::vector<std::string>{"One", "Two", ""}));
}

const char* kFrameFormats =
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM "
    "\"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\",\"ExtendedCAN_FD\",\"J1939PG\";\n"
    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
    "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n";

TEST(DbcParser, ResolvesFrameFormatBitRateSwitchAndCycleTime) {
  const std::string text = std::string(kFrameFormats) +
                           "BA_DEF_DEF_ \"CANFD_BRS\" \"0\";\n"
                           "BO_ 1 A: 64 N\nBO_ 2 B: 64 N\nBO_ 3 C: 64 N\nBO_ 4 D: 8 N\n"
                           "BO_ 5 E: 8 N\nBO_ 6 F: 8 N\nBO_ 2147483655 G: 8 N\nBO_ 8 H: 8 N\n"
                           "BA_ \"CANFD_BRS\" BO_ 1 1;\n"
                           "BA_ \"VFrameFormat\" BO_ 1 3;\n"
                           "BA_ \"VFrameFormat\" BO_ 2 2;\n"  // takes the carried-over 1
                           "BA_ \"CANFD_BRS\" BO_ 3 0;\n"
                           "BA_ \"VFrameFormat\" BO_ 3 2;\n"
                           "BA_ \"VFrameFormat\" BO_ 4 1;\n"
                           "BA_ \"VFrameFormat\" BO_ 5 9;\n"  // no such format
                           "BA_ \"VFrameFormat\" BO_ 6 4;\n"
                           "BA_ \"VFrameFormat\" BO_ 2147483655 0;\n"
                           "BA_ \"GenMsgCycleTime\" BO_ 8 250;\n"
                           "BA_ \"GenMsgCycleTime\" BO_ 9 77;\n";  // no such message
  auto db = must_parse(text);
  struct Row {
    uint32_t id;
    uint8_t fd, brs;
    uint32_t cycle;
  } expected[] = {
      {0x80000001u, 1, 1, 10}, {2, 1, 1, 10},           {3, 1, 0, 10}, {0x80000004u, 0, 0, 10},
      {5, 0, 0, 10},           {0x80000006u, 0, 0, 10}, {7, 0, 0, 10}, {8, 0, 0, 250},
  };
  ASSERT_EQ(db->messages.size(), 8u);
  for (size_t i = 0; i < 8; ++i) {
    const Message& m = db->messages[i];
    EXPECT_EQ(m.id, expected[i].id) << m.name;
    EXPECT_EQ(m.fd, expected[i].fd) << m.name;
    EXPECT_EQ(m.brs, expected[i].brs) << m.name;
    EXPECT_EQ(m.cycle_time, expected[i].cycle) << m.name;
  }
}

TEST(DbcParser, BitRateSwitchDefaultComesFromDefinition) {
  const std::string text = std::string(kFrameFormats) +
                           "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
                           "BO_ 1 A: 64 N\n"
                           "BA_ \"VFrameFormat\" BO_ 1 2;\n";
  EXPECT_EQ(must_parse(text)->messages[0].brs, 1);
}

TEST(DbcParser, SignalAttributeSetsStartValueWhateverItsName) {
  auto db = must_parse(
      "BA_DEF_ SG_ \"Anything\" INT 0 100;\n"
      "BO_ 100 A: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ T : 8|8@1+ (1,0) [0|0] \"\" N\n"
      "BA_ \"Anything\" SG_ 100 S 42;\n"
      "BA_ \"NotDefined\" SG_ 100 T 7;\n"
      "BA_ \"Anything\" SG_ 100 T -3;\n");
  const Message& m = db->messages[0];
  EXPECT_EQ(m.signals[0].raw_value, 42u);
  ASSERT_EQ(m.signals[0].attributes.size(), 1u);
  EXPECT_EQ(m.signals[0].attributes[0].value, "42");
  EXPECT_EQ(m.signals[0].attributes[0].value_type(), "INT");
  EXPECT_EQ(m.signals[1].raw_value, uint64_t(-3));
}

TEST(DbcParser, LongLinesContinueAsNextLineAndZeroByteEndsALine) {
  // The 8191st character ends the first line; what follows is read as a line of its own.
  const std::string comment = "CM_ " + std::string(8191 - 4, 'x');
  auto db = must_parse(comment + "BO_ 5 Late: 8 N;\n");
  ASSERT_EQ(db->messages.size(), 1u);
  EXPECT_EQ(db->messages[0].name, "Late");
  auto shifted = must_parse(comment + "xBO_ 5 Late: 8 N;\n");
  EXPECT_TRUE(shifted->messages.empty());

  std::string with_zero = "BO_ 5 Z: 8 N;\n";
  with_zero += std::string("BO_ 6 Y: 8 N", 12) + '\0' + " junk\n";
  auto zdb = must_parse(with_zero);
  ASSERT_EQ(zdb->messages.size(), 2u);
  EXPECT_EQ(zdb->messages[1].transmitter, "N");
}

TEST(DbcParser, LooksUpFirstMatchInFileOrder) {
  auto db = must_parse(
      "BO_ 100 Dup: 8 First\nBO_ 100 Dup: 8 Second\nBO_ 2147483748 Ext: 8 Third\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n SG_ S : 8|8@1+ (1,0) [0|0] \"\" N\n");
  EXPECT_EQ(db->find_message("Dup")->transmitter, "First\n");
  EXPECT_EQ(db->find_message_by_id(100)->transmitter, "First\n");
  EXPECT_EQ(db->find_message_by_id29(100)->transmitter, "First\n");  // not the extended 100
  EXPECT_EQ(db->find_signal("Ext", "S")->start_bit, 0);
  EXPECT_EQ(db->find_message("dup"), nullptr);
}

TEST(DbcParser, UnreadableFilesGiveNoDatabase) {
  EXPECT_EQ(varnel::dbc::load_file("/nonexistent/file.dbc"), nullptr);
  EXPECT_EQ(varnel::dbc::load_file("/"), nullptr);  // a directory
  EXPECT_EQ(varnel::dbc::load_file(nullptr), nullptr);
}

}  // namespace
