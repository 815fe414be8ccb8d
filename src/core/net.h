// The network carrier as the transport sees it: the socket table and its TCP packet stream.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

#include "core/transport.h"

namespace varnel {

// Position of the handle in the socket table, or -1 (takes the socket-table mutex). Adapters
// beyond the 60th are listed but have no index: the per-device tables stop at 60.
int net_table_position(uint32_t handle);
// Writes one whole packet. Connects first when connect_on_demand is set. 0 or -1.
int net_write_packet(uint32_t handle, const uint8_t* data, int size, bool connect_on_demand);
// Reads one reply from the handle's TCP connection. 0, -1 or -3.
int net_read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms);
// Reconnects the handle's TCP connection.
bool net_reconnect(uint32_t handle);

// ---- inside the network carrier ----

// Ports of the discovery probe and of the adapters' TCP servers (1025, 8000 unless changed by
// VARNEL_SetNetPorts or VARNEL_NET_DISCOVERY_PORT / VARNEL_NET_TCP_PORT).
uint16_t net_discovery_port();
uint16_t net_tcp_port();

// Adds the adapter to the socket table or refreshes its address (network byte order).
void net_table_seen(uint32_t handle, in_addr_t address);
// Handles of the table in discovery order.
std::vector<uint32_t> net_table_handles();
// 0, -1 unknown handle, -3 no socket, -5 no connection.
int net_connect(uint32_t handle);
// 0, or -1 when the handle is unknown or not connected.
int net_disconnect(uint32_t handle);

// The probe's destination for a local address: its /24 broadcast address on the discovery port.
// False when the text is no IPv4 address, or is 0.0.0.0 or 255.255.255.255.
bool net_scan_destination(const char* local_address, sockaddr_in* destination);
// The handle carried by a discovery reply, in either byte order; false for anything else.
bool net_parse_discovery_reply(const uint8_t* data, long size, uint32_t* handle);
// How long a scan listens for a caller's time-out.
int net_scan_duration_ms(int timeout_ms);

// Tests only: closes every connection and empties the table.
void net_forget_all();

}  // namespace varnel
