#include "files/dbc_parser.h"

#include <gtest/gtest.h>

#include <charconv>
#include <string>
#include <tuple>

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

// "Msg:A,B Next:" for the messages and signals a text gives, "null" when it fails to load.
std::string outline(const std::string& text) {
  auto db = parse(text);
  if (!db) return "null";
  std::string out;
  for (const Message& m : db->messages) {
    out += (out.empty() ? "" : " ") + m.name + ":";
    for (size_t i = 0; i < m.signals.size(); ++i) out += (i ? "," : "") + m.signals[i].name;
  }
  return out;
}

TEST(DbcParser, WhichLinesMakeMessagesAndSignals) {
  const std::string sg = " : 0|8@1+ (1,0) [0|0] \"\" N\n";
  const std::string long_comment = "CM_ " + std::string(8191 - 4, 'x');  // 8191st char ends it
  const std::pair<std::string, std::string> rows[] = {
      // text, outline
      {"BO_ 100 Msg: 8\n", "null"},  // a message line that runs out fails the load
      {"BO_ 100 Msg : 8\n", "null"},
      {"BO_ 100 Msg :\n", "null"},
      {"BO_ 100 Msg:\nBO_\n", ""},                                // fewer than four tokens: skipped
      {"BO_ 1 First: 8 N\nBO_ 2 : 8 N\n SG_ S" + sg, "First:S"},  // empty name: not stored
      {" SG_ Early" + sg + "BO_ 1 M: 8 N\n SG_ Short : 0|8@1+ (1,0)\n\tSG_ Tabbed" + sg + " SG_" +
           sg + " SG_ Kept" + sg,
       "M:Kept"},
      {long_comment + "BO_ 5 Late: 8 N;\n", "Late:"},  // the rest is a line of its own
      {long_comment + "xBO_ 5 Late: 8 N;\n", ""},
  };
  for (const auto& [text, form] : rows) EXPECT_EQ(outline(text), form) << text.substr(0, 80);

  auto zero = must_parse("BO_ 5 Z: 8 N;\n" + std::string("BO_ 6 Y: 8 N\0 junk\n", 19));
  ASSERT_EQ(zero->messages.size(), 2u);
  EXPECT_EQ(zero->messages[1].transmitter, "N");  // a NUL ends the line
}

TEST(DbcParser, MessageLineForms) {
  const std::pair<const char*, const char*> rows[] = {
      // line, "id name dlc transmitter"
      {"BO_ 2364540158 Msg: 8 Node;\n", "2364540158 Msg 8 Node"},  // bit 31 already set
      {"BO_ 3000 Msg: 8 Node;\n", "2147486648 Msg 8 Node"},        // bare 29-bit number
      {"BO_ 2047 Msg: 8 Node;\n", "2047 Msg 8 Node"},
      {"BO_ 2048 Msg: 8 Node;\n", "2147485696 Msg 8 Node"},
      {"BO_ 0x7FF Msg: 8 Node;\n", "2047 Msg 8 Node"},  // read base 0
      {"BO_ 010 Msg: 8 Node;\n", "8 Msg 8 Node"},       // leading zero is octal
      {"BO_ junk Msg: 8 Node;\n", "0 Msg 8 Node"},
      {"BO_ 100 Msg: 8 Node\n", "100 Msg 8 Node\n"},      // no ';': the line feed stays
      {"BO_ 100 Msg: 8 Node\r\n", "100 Msg 8 Node\n"},    // CRLF reads as LF
      {"BO_ 100 Msg: 8 Node\r", "100 Msg 8 Node\r"},      // a lone CR is a character
      {"BO_ 100 Msg : 0x40 Node;\n", "100 Msg 64 Node"},  // colon as its own token
      {"BO_ 100 M:s:g 8 Node;\n", "100 Msg 8 Node"},      // every colon goes
      {"BO_  100   Msg:  8  Node  Extra;\n", "100 Msg 8 Node"},
  };
  for (const auto& [line, form] : rows) {
    auto db = must_parse(line);
    ASSERT_EQ(db->messages.size(), 1u) << line;
    const Message& m = db->messages[0];
    EXPECT_EQ(
        std::to_string(m.id) + " " + m.name + " " + std::to_string(m.dlc) + " " + m.transmitter,
        form);
  }
}

std::string num(double v) {
  char buf[32];
  return std::string(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

// A signal line as the parser stores it:
// name start|length@order sign mux indicator,value (factor,offset) [min|max] "unit" receivers
std::string signal_form(const std::string& sg_line) {
  auto db = must_parse("BO_ 100 M: 8 N\n" + sg_line);
  if (db->messages.size() != 1 || db->messages[0].signals.size() != 1) return "no signal";
  const Signal& s = db->messages[0].signals[0];
  std::string out = s.name + " " + std::to_string(s.start_bit) + "|" + std::to_string(s.length) +
                    "@" + std::to_string(s.byte_order) + (s.is_signed ? "-" : "+") + " mux " +
                    std::to_string(s.multiplex_indicator) + "," +
                    std::to_string(s.multiplex_value) + " (" + num(s.factor) + "," + num(s.offset) +
                    ") [" + num(s.minimum) + "|" + num(s.maximum) + "] \"" + s.unit + "\"";
  for (const std::string& r : s.receivers) out += " " + r;
  return out;
}

TEST(DbcParser, SignalLineForms) {
  const std::string sg = " SG_ S : 0|8@1+ (1,0) [0|0] ";
  const std::pair<std::string, std::string> rows[] = {
      {" SG_ S : 3|4@1- (1,0) [0|0] \"\" N\n", "S 3|4@1- mux 0,0 (1,0) [0|15] \"\" N\n"},
      {"SG_ S: 3|4@1+ (1,0) [0|0] \"\" N\n", "S 3|4@1+ mux 0,0 (1,0) [0|15] \"\" N\n"},
      {" SG_ S :3|4@1+ (1,0) [0|0] \"\" N\n", "S 3|4@1+ mux 0,0 (1,0) [0|15] \"\" N\n"},
      {" SG_ S M : 0|8@1+ (1,0) [0|0] \"\" N\n", "S 0|8@1+ mux 2,0 (1,0) [0|255] \"\" N\n"},
      {" SG_ S m3 : 8|8@1+ (1,0) [0|0] \"\" N\n", "S 8|8@1+ mux 1,3 (1,0) [0|255] \"\" N\n"},
      {" SG_ S m0x10: 8|8@1+ (1,0) [0|0] \"\" N\n", "S 8|8@1+ mux 1,16 (1,0) [0|255] \"\" N\n"},
      {" SG_ S m1M : 8|8@1+ (1,0) [0|0] \"\" N\n", "S 8|8@1+ mux 2,0 (1,0) [0|255] \"\" N\n"},
      // Motorola start bits are stored as the least significant bit's position.
      {" SG_ S : 0x7|0x10@0- (1,0) [0|0] \"\" N\n", "S 8|16@0- mux 0,0 (1,0) [0|65535] \"\" N\n"},
      {" SG_ S : 39|32@0+ (1,0) [0|1] \"\" N\n", "S 56|32@0+ mux 0,0 (1,0) [0|1] \"\" N\n"},
      {" SG_ S : 3|12@0+ (1,0) [0|1] \"\" N\n", "S 8|12@0+ mux 0,0 (1,0) [0|1] \"\" N\n"},
      {" SG_ S : 5|0@0+ (1,0) [0|1] \"\" N\n", "S 6|0@0+ mux 0,0 (1,0) [0|1] \"\" N\n"},
      // A zero-width range widens to what the bits hold, whatever the sign.
      {" SG_ S : 7|16@0+ (1,0) [0|0] \"\" N\n", "S 8|16@0+ mux 0,0 (1,0) [0|65535] \"\" N\n"},
      {" SG_ S : 0|8@1+ (0.5,-10) [0|0] \"\" N\n",
       "S 0|8@1+ mux 0,0 (0.5,-10) [-10|117.5] \"\" N\n"},
      {" SG_ S : 0|8@1- (1,0) [0|0] \"\" N\n", "S 0|8@1- mux 0,0 (1,0) [0|255] \"\" N\n"},
      {" SG_ S : 0|8@1+ (2,1) [5|5] \"\" N\n", "S 0|8@1+ mux 0,0 (2,1) [1|511] \"\" N\n"},
      {" SG_ S : 0|64@1+ (1,0) [0|0] \"\" N\n",
       "S 0|64@1+ mux 0,0 (1,0) [0|18446744073709551616] \"\" N\n"},  // 2^64
      {" SG_ S : 0|8@1+ (1,0) [-3|1E+002] \"\" N\n", "S 0|8@1+ mux 0,0 (1,0) [-3|100] \"\" N\n"},
      {" SG_ S : 0|8@1+ (1E-006,0) [0|1] \"\" N\n", "S 0|8@1+ mux 0,0 (1e-06,0) [0|1] \"\" N\n"},
      // The last receiver keeps the line feed; blank runs in units collapse.
      {sg + "\"km/h\" A,B\n", "S 0|8@1+ mux 0,0 (1,0) [0|255] \"km/h\" A B\n"},
      {sg + "\"\" Vector__XXX\n", "S 0|8@1+ mux 0,0 (1,0) [0|255] \"\" Vector__XXX\n"},
      {sg + "\"deg  C\" A\n", "S 0|8@1+ mux 0,0 (1,0) [0|255] \"deg C\" A\n"},
      {sg + "\"a b c\" X,Y;\n", "S 0|8@1+ mux 0,0 (1,0) [0|255] \"a b c\" X Y"},
      {sg + "\"rpm\"", "S 0|8@1+ mux 0,0 (1,0) [0|255] \"rpm\""},
  };
  for (const auto& [line, form] : rows) EXPECT_EQ(signal_form(line), form) << line;
}

TEST(DbcParser, CommentsValueTablesAndValueTypes) {
  auto db = must_parse(
      "BO_ 100 A: 8 N\n SG_ S : 0|32@1- (1,0) [0|0] \"\" N\n SG_ T : 32|32@1- (1,0) [0|0] \"\" N\n"
      "BO_ 100 B: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n SG_ U : 8|8@1+ (1,0) [0|0] \"\" N\n"
      "BO_ 7 C: 8 N\n"
      "CM_ BO_ 100 \"first line\nsecond line\";\n"
      "CM_ BO_ 100 \"later\";\n"
      "CM_ BO_ 7 \"one\ntwo\";\n"
      "CM_ SG_ 100 S \"shared \"\"text\";\n"
      "VAL_ 100 S 1 \"On\" 0 \"Off  now\" -1 \"Err\" 0x10 \"Hex\" 1 \"Again\" ;\n"
      "SIG_VALTYPE_ 100 S : 1;\nSIG_VALTYPE_ 100 T : 3;\nVAL_ 100 U 2 \"Two\";\n");
  const Message &a = db->messages[0], &b = db->messages[1];
  // Only the first line of a multi-line comment, for the first message with the id; a later
  // CM_ line overwrites it.
  EXPECT_EQ(a.comment, "later");
  EXPECT_EQ(b.comment, "");
  EXPECT_EQ(db->messages[2].comment, "one\n");
  EXPECT_EQ(a.signals[0].comment_text(), "shared text");
  EXPECT_EQ(b.signals[0].comment_text(), "shared text");
  const std::map<int32_t, std::string> table{
      {-1, "Err"}, {0, "Off now"}, {1, "Again"}, {16, "Hex"}};
  EXPECT_EQ(a.signals[0].value_table, table);
  EXPECT_TRUE(b.signals[0].value_table.empty());  // only the first signal found
  // the first message with the id that has the signal
  EXPECT_EQ(b.signals[1].value_table, (std::map<int32_t, std::string>{{2, "Two"}}));
  EXPECT_EQ(a.signals[0].value_type, 1u);
  EXPECT_EQ(b.signals[0].value_type, 1u);  // every message with the id
  EXPECT_EQ(a.signals[1].value_type, 0u);  // 3 is not a known type
}

TEST(DbcParser, AttributeDefinitions) {
  auto db = must_parse(
      "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n"
      "BA_DEF_ BO_ \"GenMsgCycleTime\" FLOAT 1 2;\n"  // the first definition wins
      "BA_DEF_ \"Net\" STRING ;\n"
      "BA_DEF_ SG_ \"Kind\" ENUM \"One\",\"Two\", \"Three\";\n"
      "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\nBA_DEF_DEF_ \"Net\" \"x\";\n"
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

TEST(DbcParser, ResolvesFrameFormatBitRateSwitchAndCycleTime) {
  const std::string formats =
      "BA_DEF_ BO_ \"VFrameFormat\" ENUM "
      "\"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\",\"ExtendedCAN_FD\",\"J1939PG\";\n"
      "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
      "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n"
      "BA_DEF_ BO_ \"Look\" ENUM \"StandardCAN\",\"ExtendedCAN\";\n";  // not a frame format
  auto db = must_parse(formats +
                       "BA_DEF_DEF_ \"CANFD_BRS\" \"0\";\n"
                       "BO_ 1 A: 64 N\nBO_ 2 B: 64 N\nBO_ 3 C: 64 N\nBO_ 4 D: 8 N\n"
                       "BO_ 5 E: 8 N\nBO_ 6 F: 8 N\nBO_ 2147483655 G: 8 N\nBO_ 8 H: 8 N\n"
                       "BA_ \"CANFD_BRS\" BO_ 1 1;\nBA_ \"VFrameFormat\" BO_ 1 3;\n"
                       "BA_ \"VFrameFormat\" BO_ 2 2;\n"  // takes the carried-over 1
                       "BA_ \"CANFD_BRS\" BO_ 3 0;\nBA_ \"VFrameFormat\" BO_ 3 2;\n"
                       "BA_ \"VFrameFormat\" BO_ 4 1;\n"
                       "BA_ \"VFrameFormat\" BO_ 5 9;\n"  // no such format
                       "BA_ \"VFrameFormat\" BO_ 6 4;\n"
                       "BA_ \"VFrameFormat\" BO_ 2147483655 0;\n"
                       "BA_ \"GenMsgCycleTime\" BO_ 8 250;\nBA_ \"Look\" BO_ 8 1;\n"
                       "BA_ \"GenMsgCycleTime\" BO_ 9 77;\n");  // no such message
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
  // Without a BA_ line the bit rate switch is the definition's default.
  auto brs = must_parse(formats + "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\nBO_ 1 A: 64 N\n" +
                        "BA_ \"VFrameFormat\" BO_ 1 2;\n");
  EXPECT_EQ(brs->messages[0].brs, 1);
}

TEST(DbcParser, SignalAttributeSetsStartValueWhateverItsName) {
  auto db = must_parse(
      "BA_DEF_ SG_ \"Anything\" INT 0 100;\n"
      "BO_ 100 A: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n SG_ T : 8|8@1+ (1,0) [0|0] \"\" N\n"
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
  for (const char* path : {"/nonexistent/file.dbc", "/", static_cast<const char*>(nullptr)})
    EXPECT_EQ(varnel::dbc::load_file(path), nullptr) << (path ? path : "null");
}

}  // namespace
