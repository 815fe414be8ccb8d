// The network carrier as the transport sees it: the socket table and its TCP packet stream.
#pragma once

#include <cstdint>

#include "core/transport.h"

namespace varnel {

// Position of the handle in the socket table, or -1 (takes the socket-table mutex).
int net_table_position(uint32_t handle);
// Writes one whole packet. Connects first when connect_on_demand is set. 0 or -1.
int net_write_packet(uint32_t handle, const uint8_t* data, int size, bool connect_on_demand);
// Reads one reply from the handle's TCP connection. 0, -1 or -3.
int net_read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms);
// Reconnects the handle's TCP connection.
bool net_reconnect(uint32_t handle);

}  // namespace varnel
