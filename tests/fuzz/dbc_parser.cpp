// libFuzzer target: arbitrary bytes as a DBC file. The load must succeed or fail cleanly, and a
// loaded database must answer every query and build every frame without a fault, in both
// readings (the standard one also takes tabs, SG_MUL_VAL_ chains and float value types).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "files/dbc_signals.h"
#include "varnel.h"

namespace {

void exercise(const uint8_t* data, size_t size, bool standard) {
  auto db =
      varnel::dbc::parse(std::string_view(reinterpret_cast<const char*>(data), size), standard);
  if (!db) return;
  // Through the exported calls as well, with a handle of its own.
  const uint64_t h = varnel::dbc::register_database(std::move(db));
  static char text[VARNEL_DBC_TEXT_MAX];
  const int n = DBC_GetMsgQuantity(h);
  for (int i = 0; i < n && i < 64; ++i) {
    DBC_GetMsgName(h, i, text);
    const std::string msg = text;
    CAN_MSG can;
    CANFD_MSG fd;
    DBC_SyncValueToCANMsg(h, msg.c_str(), &can);
    DBC_SyncValueToCANFDMsg(h, msg.c_str(), &fd);
    DBC_SyncCANFDMsgToValue(h, &fd, 1);
    double values[64];
    uint8_t selected[64];
    VARNEL_DbcDecodeFrame(h, fd.Id, data, int(size < 64 ? size : 64), values, selected, 64);
    const char* names[64];
    VARNEL_DbcDecodeChoices(h, fd.Id, data, int(size < 64 ? size : 64), names, 64);
    VARNEL_DbcEncodeFrame(h, fd.Id, values, 64, VARNEL_DBC_CLAMP, fd.Data, 64);
    const int signals = DBC_GetMsgSignalQuantity(h, msg.c_str());
    for (int k = 0; k < signals && k < 64; ++k) {
      DBC_GetMsgSignalName(h, msg.c_str(), uint32_t(k), text);
      const std::string sig = text;
      double v = 0;
      DBC_SetSignalValue(h, msg.c_str(), sig.c_str(), 1e300);
      DBC_GetSignalValue(h, msg.c_str(), sig.c_str(), &v);
      DBC_GetSignalValueStr(h, msg.c_str(), sig.c_str(), text);
    }
  }
  VARNEL_DbcDescribe(h, nullptr, 0);
  varnel::dbc::forget_database(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  exercise(data, size, false);
  exercise(data, size, true);
  return 0;
}
