// libFuzzer target: random frames and values against a database with every kind of signal the
// codec knows (Intel and Motorola, signed, float and double, multiplexed, wider than 64 bits,
// placed past the classic data area).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "files/dbc_signals.h"
#include "varnel.h"

namespace {

const char kDatabase[] =
    "BO_ 100 Plain: 8 N\n"
    " SG_ I8 : 0|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ M16 : 15|16@0- (0.5,-3) [-100|100] \"x\" N\n"
    " SG_ F32 : 32|32@1- (1,0) [-1E+038|1E+038] \"\" N\n"
    " SG_ Past : 60|16@1+ (1,0) [0|0] \"\" N\n"
    "BO_ 2147483848 Mux: 64 N\n"
    " SG_ Sel M : 7|8@0+ (1,0) [0|0] \"\" N\n"
    " SG_ A m0 : 8|64@1- (1,0) [0|0] \"\" N\n"
    " SG_ B m1 : 8|64@1- (1,0) [0|0] \"\" N\n"
    " SG_ Wide m2 : 500|70@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Down m3 : 511|80@0+ (-1,0) [0|0] \"\" N\n"
    " SG_ Zero : 100|0@1+ (0,0) [0|0] \"\" N\n"
    "SIG_VALTYPE_ 100 F32 : 1;\n"
    "SIG_VALTYPE_ 2147483848 B : 2;\n"
    "VAL_ 100 I8 1 \"one\" 2 \"two\" ;\n";

const char* kSignals[][2] = {{"Plain", "I8"}, {"Plain", "M16"}, {"Plain", "F32"}, {"Plain", "Past"},
                             {"Mux", "Sel"},  {"Mux", "A"},     {"Mux", "B"},     {"Mux", "Wide"},
                             {"Mux", "Down"}, {"Mux", "Zero"}};

uint64_t handle() {
  static const uint64_t h = varnel::dbc::register_database(varnel::dbc::parse(kDatabase));
  return h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 10) return 0;
  const uint64_t h = handle();
  char text[VARNEL_DBC_TEXT_MAX];
  const auto& which = kSignals[data[0] % (sizeof kSignals / sizeof kSignals[0])];
  double value;
  std::memcpy(&value, data + 1, sizeof value);
  DBC_SetSignalValue(h, which[0], which[1], value);

  CANFD_MSG fd{};
  fd.Id = (data[9] & 1) ? 100 : 0x800000C8u;
  fd.DataLen = data[9];  // may claim more than 64
  std::memcpy(fd.Data, data + 10, std::min<size_t>(size - 10, 64));
  CAN_MSG can{};
  can.Id = 100;
  std::memcpy(can.Data, fd.Data, 8);
  DBC_SyncCANFDMsgToValue(h, &fd, 1);
  DBC_SyncCANMsgToValue(h, &can, 1);
  for (const auto& s : kSignals) {
    double v;
    DBC_GetSignalValue(h, s[0], s[1], &v);
    DBC_GetSignalValueStr(h, s[0], s[1], text);
  }
  DBC_SyncValueToCANMsg(h, "Plain", &can);
  DBC_SyncValueToCANFDMsg(h, "Mux", &fd);
  VARNEL_DbcFormatFrame(h, fd.Id, fd.Data, 64, text, sizeof text);
  return 0;
}
