// Network adapters. Until discovery and the socket table exist, no network handle is known.
#include "core/net.h"

namespace varnel {

int net_table_position(uint32_t) {
  return -1;
}
int net_write_packet(uint32_t, const uint8_t*, int, bool) {
  return -1;
}
int net_read_reply(uint32_t, CommandPacket& reply, int) {
  reply.payload = nullptr;
  return -1;
}
bool net_reconnect(uint32_t) {
  return false;
}

}  // namespace varnel
