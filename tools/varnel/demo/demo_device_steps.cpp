// Demo steps of device access: find the adapters, open one, read its identity, close it.
#include <cstdio>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

bool scan_step(DemoContext& demo) {
  std::vector<DevHandle> handles(VARNEL_MAX_DEVICES);
  int count = USB_ScanDevice(handles.data());
  if (!demo.check(count > 0, "USB_ScanDevice (no adapter found)", count)) return false;
  demo.say("USB_ScanDevice found " + std::to_string(count) + " adapter(s):");
  for (int i = 0; i < count; ++i) {
    demo.handles.push_back(handles[size_t(i)]);
    demo.say("  " + handle_text(handles[size_t(i)]) + "  " + handle_kind(handles[size_t(i)]));
  }
  demo.handle = demo.handles.front();
  return true;
}

bool open_step(DemoContext& demo) {
  if (demo.handles.empty()) {
    demo.say("skipped: the scan found no adapter");
    return false;
  }
  demo.opened = USB_OpenDevice(demo.handle);
  if (demo.opened) demo.say("USB_OpenDevice(" + handle_text(demo.handle) + "): interface claimed");
  return demo.check(demo.opened, "USB_OpenDevice(" + handle_text(demo.handle) + ")");
}

bool info_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  DEVICE_INFO info{};
  char functions[VARNEL_DEV_FUNCTION_STRING_SIZE] = {};
  if (!demo.check(DEV_GetDeviceInfo(demo.handle, &info, functions), "DEV_GetDeviceInfo"))
    return false;
  char line[160];
  std::snprintf(line, sizeof line, "firmware \"%.32s\", version 0x%08X, serial %08X-%08X-%08X",
                info.FirmwareName, info.FirmwareVersion, info.SerialNumber[0], info.SerialNumber[1],
                info.SerialNumber[2]);
  demo.say(line);
  demo.say(std::string("functions: ") + functions);
  return true;
}

bool close_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  bool closed = USB_CloseDevice(demo.handle);
  if (closed) demo.say("USB_CloseDevice(" + handle_text(demo.handle) + "): released");
  demo.opened = !closed;
  return demo.check(closed, "USB_CloseDevice");
}

VARNEL_DEMO_STEP(100, "scan: find the adapters on USB", scan_step)
VARNEL_DEMO_STEP(200, "open: claim the first adapter", open_step)
VARNEL_DEMO_STEP(300, "info: ask the adapter who it is", info_step)
VARNEL_DEMO_STEP(900, "close: release the adapter", close_step)

}  // namespace
}  // namespace varnel_cli
