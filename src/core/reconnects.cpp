// Reconnections per handle (an extension): the one trace a power cycle leaves for calls that have
// no error path, such as CAN_GetMsg returning 0 from a channel the restarted adapter no longer
// runs.
#include <map>
#include <mutex>

#include "core/c_boundary.h"
#include "core/usb.h"
#include "varnel.h"

namespace varnel {
namespace {

struct Reconnects {
  std::mutex mutex;
  std::map<uint32_t, int64_t> counts;  // one entry per handle ever reconnected
};

Reconnects& reconnects() {
  static auto* r = new Reconnects;  // never destroyed: a poller may reconnect at exit
  return *r;
}

}  // namespace

void count_reconnect(uint32_t handle) {
  std::lock_guard guard(reconnects().mutex);
  ++reconnects().counts[handle];
}

}  // namespace varnel

VARNEL_API int64_t VARNEL_GetReconnectCount(DevHandle handle) {
  return varnel::guarded(int64_t{0}, [&] {
    std::lock_guard guard(varnel::reconnects().mutex);
    const auto it = varnel::reconnects().counts.find(handle);
    return it == varnel::reconnects().counts.end() ? int64_t{0} : it->second;
  });
}
