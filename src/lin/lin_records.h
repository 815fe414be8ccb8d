// LIN frame records: the protected identifier, the two checksums, what the library does to a
// caller's records before they go out, and its verdict on the checksums of what comes back.
#pragma once

#include <cstdint>
#include <span>

#include "varnel.h"

namespace varnel::lin {

// Both parity bits recomputed from the low 6 bits; the caller's top bits are discarded.
uint8_t protected_id(uint8_t id);
// Classic (over the data) or enhanced (the protected identifier first) checksum.
uint8_t checksum(uint8_t pid, const uint8_t* data, int length, bool enhanced);

// Which call a record goes out with: each clamps and checksums its own kinds.
enum class Outgoing { kSync, kSchedule, kSlaveTable };
void prepare(LIN_EX_MSG& msg, Outgoing call, uint32_t baud);

// The verdict on a record the bus returned for `request` in a master exchange; sets Tag to the
// request's kind and the channel.
void judge_master_reply(LIN_EX_MSG& reply, const LIN_EX_MSG& request, uint8_t channel);
// The verdict on a record received as a slave (or from a fetch).
void judge_received(LIN_EX_MSG& msg);
// The verdict on a master read entry of a schedule read back.
void judge_schedule_entry(LIN_EX_MSG& msg);

// The older calls' 11-byte records on the newer firmware. A request becomes a frame record
// (TimeStamp 1, the kind and checksum type given, ID, length and data as they are).
LIN_EX_MSG translated(const LIN_MSG& in, uint8_t type, uint8_t check_type);
// The diagnostic identifiers take the classic checksum: from 3C when writing, but only from 3D
// when reading, so a read of 3C is enhanced. Both as the older adapters' tools have it.
uint8_t write_check(uint8_t id);
uint8_t read_check(uint8_t id);
// A frame read back as the older calls report it: the checksum counted in the length.
void copy_back(LIN_MSG& to, const LIN_EX_MSG& from);
// A judged frame the channel received, as the older slave call reports it: the protected
// identifier, and data only when a checksum matched.
LIN_MSG received_as_legacy(const LIN_EX_MSG& from);

}  // namespace varnel::lin
