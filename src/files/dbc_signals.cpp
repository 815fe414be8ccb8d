// The exported DBC calls: database handles, message and signal queries, the value calls and the
// sync calls between signal values and CAN / CAN FD records.
#include "files/dbc_signals.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <unordered_set>

#include "core/c_boundary.h"
#include "core/transport.h"
#include "files/dbc_codec.h"
#include "varnel.h"

namespace varnel::dbc {

namespace {

// Databases live until the process ends; the registry owns them so that nothing is reported
// as leaked at exit, and so that a handle that was never issued is refused instead of followed.
struct Registry {
  std::mutex mutex;
  std::deque<std::unique_ptr<Database>> databases;
  std::unordered_set<uint64_t> handles;
  // Bumped whenever a handle goes away, so the per-thread memory of the last handle found
  // (which spares a decoding loop the lock) is never trusted after a release.
  std::atomic<uint64_t> releases{0};
};

struct LastFound {
  uint64_t handle = 0;
  uint64_t releases = 0;
};
thread_local LastFound last_found;

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles stay valid during exit
  return *r;
}

constexpr size_t kCanDataBytes = 8;
constexpr uint32_t kRecordTimeStamp = 10;

int copy_text(const std::string& text, char* out) {
  std::memcpy(out, text.c_str(), text.size() + 1);
  return 0;
}

}  // namespace

uint64_t register_database(std::unique_ptr<Database> db) {
  if (!db) return 0;
  Registry& r = registry();
  std::lock_guard guard(r.mutex);
  const uint64_t handle = uint64_t(reinterpret_cast<uintptr_t>(db.get()));
  r.databases.push_back(std::move(db));
  r.handles.insert(handle);
  return handle;
}

void forget_database(uint64_t handle) {
  Registry& r = registry();
  std::lock_guard guard(r.mutex);
  if (!r.handles.erase(handle)) return;
  r.releases.fetch_add(1, std::memory_order_release);
  for (auto it = r.databases.begin(); it != r.databases.end(); ++it) {
    if (uint64_t(reinterpret_cast<uintptr_t>(it->get())) == handle) {
      r.databases.erase(it);
      return;
    }
  }
}

Database* database(uint64_t handle) {
  if (handle == 0) return nullptr;
  Registry& r = registry();
  const uint64_t releases = r.releases.load(std::memory_order_acquire);
  if (last_found.handle == handle && last_found.releases == releases) {
    return reinterpret_cast<Database*>(uintptr_t(handle));
  }
  std::lock_guard guard(r.mutex);
  if (!r.handles.count(handle)) return nullptr;
  last_found = {handle, releases};
  return reinterpret_cast<Database*>(uintptr_t(handle));
}

// Insert the multiplexor first, then every signal the multiplexor selects, in file order.
void build_payload(const Message& m, uint8_t* payload, size_t size) {
  const Signal* mux = m.multiplexor >= 0 ? &m.signals[size_t(m.multiplexor)] : nullptr;
  if (mux) insert(*mux, mux->raw_value, payload, size);
  for (const Signal& s : m.signals) {
    if (mux && s.multiplex_indicator == kMultiplexed && s.multiplex_value != mux->raw_value) {
      continue;
    }
    insert(s, s.raw_value, payload, size);
  }
}

void take_payload(Message& m, const uint8_t* payload, size_t size) {
  for (Signal& s : m.signals) s.raw_value = extract(s, payload, size);
}

}  // namespace varnel::dbc

using namespace varnel::dbc;

namespace {

Message* message_named(Database* db, const char* name) {
  return (db && name) ? db->find_message(name) : nullptr;
}

int get_value(uint64_t handle, const char* message_name, const char* signal_name, double* value) {
  Database* db = database(handle);
  if (!db) return -4;
  if (!message_name || !signal_name) return -9;
  Message* m = db->find_message(message_name);
  Signal* s = m ? m->find_signal(signal_name) : nullptr;
  if (!s) return -9;
  if (!signal_active(*m, *s, m->data, kPayloadBytes)) return -6;
  if (s->raw_value > s->mask) s->raw_value &= s->mask;
  *value = physical_from_raw(*s, s->raw_value);
  return 0;
}

}  // namespace

VARNEL_API uint64_t DBC_ParserFile(DevHandle dev_handle, const char* file_name) {
  return varnel::guarded(0, [&]() -> uint64_t {
    if (varnel::device_index(dev_handle) < 0 || !file_name) return 0;
    std::FILE* f = std::fopen(file_name, "rb");
    if (!f) return 0;
    std::fclose(f);
    return register_database(load_file(file_name));
  });
}

VARNEL_API uint64_t VARNEL_DbcLoadFile(const char* file_name) {
  return varnel::guarded(0, [&] { return register_database(load_file(file_name)); });
}

VARNEL_API uint64_t VARNEL_DbcLoadFileEx(const char* file_name, uint32_t options) {
  return varnel::guarded(0, [&]() -> uint64_t {
    if (options & ~uint32_t(VARNEL_DBC_STANDARD)) return 0;
    return register_database(load_file(file_name, options & VARNEL_DBC_STANDARD));
  });
}

VARNEL_API int VARNEL_DbcDecodeFrame(uint64_t dbc, uint32_t id, const uint8_t* data, int length,
                                     double* values, uint8_t* selected, int count) {
  Database* db = database(dbc);
  if (!db) return -4;
  if (length < 0 || (length > 0 && !data) || count < 0 || (count > 0 && !values)) return -7;
  const Message* m = db->find_message_by_id(id);
  if (!m) return -5;
  if (db->standard && size_t(length) < std::min<size_t>(m->dlc, kPayloadBytes)) return -6;
  decode_all(*m, data, std::min<size_t>(size_t(length), kPayloadBytes), values, selected,
             size_t(count));
  return int(m->signals.size());
}

VARNEL_API int VARNEL_DbcDecodeChoices(uint64_t dbc, uint32_t id, const uint8_t* data, int length,
                                       const char** names, int count) {
  Database* db = database(dbc);
  if (!db) return -4;
  if (length < 0 || (length > 0 && !data) || count < 0 || (count > 0 && !names)) return -7;
  const Message* m = db->find_message_by_id(id);
  if (!m) return -5;
  if (db->standard && size_t(length) < std::min<size_t>(m->dlc, kPayloadBytes)) return -6;
  decode_choices(*m, data, std::min<size_t>(size_t(length), kPayloadBytes), names, size_t(count));
  return int(m->signals.size());
}

VARNEL_API int VARNEL_DbcEncodeFrame(uint64_t dbc, uint32_t id, const double* values, int count,
                                     uint32_t flags, uint8_t* data, int size) {
  return varnel::guarded(-4, [&] {
    Database* db = database(dbc);
    if (!db) return -4;
    if (count < 0 || (count > 0 && !values) || size < 0 || (size > 0 && !data)) return -7;
    if (flags & ~uint32_t(VARNEL_DBC_CLAMP)) return -7;
    const Message* m = db->find_message_by_id(id);
    if (!m) return -5;
    const size_t length = std::min<size_t>(m->dlc, kPayloadBytes);
    if (size_t(size) < length) return -7;
    const size_t given = std::min(size_t(count), m->signals.size());
    if (!(flags & VARNEL_DBC_CLAMP)) {
      for (size_t i = 0; i < given; ++i) {
        if (!std::isnan(values[i]) && !in_range(m->signals[i], values[i])) return -8;
      }
    }
    uint8_t payload[kPayloadBytes] = {};
    encode_all(*m, values, given, payload, length);
    // A value for a signal the multiplexor values do not select would be lost: refused.
    for (size_t i = 0; i < given; ++i) {
      if (!std::isnan(values[i]) && !signal_active(*m, m->signals[i], payload, length)) return -6;
    }
    std::memcpy(data, payload, length);
    return int(length);
  });
}

VARNEL_API int DBC_GetMsgQuantity(uint64_t dbc) {
  Database* db = database(dbc);
  return db ? int(db->messages.size()) : -4;
}

VARNEL_API int DBC_GetMsgName(uint64_t dbc, int index, char* msg_name) {
  Database* db = database(dbc);
  if (!db || !msg_name) return -4;
  if (index < 0 || size_t(index) >= db->messages.size()) return -5;
  return copy_text(db->messages[size_t(index)].name, msg_name);
}

VARNEL_API int DBC_GetMsgNameByID(uint64_t dbc, uint32_t id, char* msg_name) {
  Database* db = database(dbc);
  if (!db || !msg_name) return -4;
  const Message* m = db->find_message_by_id29(id);
  return m ? copy_text(m->name, msg_name) : -5;
}

VARNEL_API int DBC_GetMsgIDByName(uint64_t dbc, const char* msg_name) {
  Database* db = database(dbc);
  if (!db || !msg_name) return -4;
  const Message* m = db->find_message(msg_name);
  // An extended identifier has bit 31 set and so reads as negative.
  return m ? int(m->id) : -5;
}

VARNEL_API int DBC_GetMsgSignalQuantity(uint64_t dbc, const char* msg_name) {
  Database* db = database(dbc);
  if (!db) return -4;
  const Message* m = message_named(db, msg_name);
  return m ? int(m->signals.size()) : -7;
}

VARNEL_API int DBC_GetMsgSignalName(uint64_t dbc, const char* msg_name, uint32_t index,
                                    char* signal_name) {
  Database* db = database(dbc);
  if (!db || !signal_name) return -4;
  const Message* m = message_named(db, msg_name);
  if (!m) return -7;
  if (index >= m->signals.size()) return -5;
  return copy_text(m->signals[index].name, signal_name);
}

VARNEL_API int DBC_GetMsgPublisher(uint64_t dbc, const char* msg_name, char* publisher) {
  Database* db = database(dbc);
  if (!db || !publisher) return -4;
  const Message* m = message_named(db, msg_name);
  return m ? copy_text(m->transmitter, publisher) : -7;
}

VARNEL_API int DBC_SetSignalValue(uint64_t dbc, const char* msg_name, const char* signal_name,
                                  double value) {
  Database* db = database(dbc);
  if (!db) return -4;
  Message* m = message_named(db, msg_name);
  Signal* s = (m && signal_name) ? m->find_signal(signal_name) : nullptr;
  if (!s) return -9;
  s->raw_value = raw_from_physical(*s, value, s->raw_value);
  if (s->multiplex_indicator == kMultiplexed && m->multiplexor >= 0) {
    // Selecting this signal's multiplex value makes the next frame built carry it.
    m->signals[size_t(m->multiplexor)].raw_value = s->multiplex_value;
  }
  return 0;
}

VARNEL_API int DBC_GetSignalValue(uint64_t dbc, const char* msg_name, const char* signal_name,
                                  double* value) {
  double v = 0;
  const int ret = get_value(dbc, msg_name, signal_name, &v);
  if (ret != 0) return ret;
  if (!value) return -4;
  *value = v;
  return 0;
}

VARNEL_API int DBC_GetSignalValueStr(uint64_t dbc, const char* msg_name, const char* signal_name,
                                     char* value_str) {
  return varnel::guarded(-4, [&] {
    double v = 0;
    const int ret = get_value(dbc, msg_name, signal_name, &v);
    if (ret != 0) return ret;
    if (!value_str) return -4;
    const Signal* s = database(dbc)->find_signal(msg_name, signal_name);
    if (!s->value_table.empty()) return copy_text(value_table_text(*s, v), value_str);
    // "%f" of the largest double is about 310 characters.
    std::string text(340 + s->unit.size(), '\0');
    const int n = std::snprintf(text.data(), text.size(), "%f %s", v, s->unit.c_str());
    text.resize(size_t(n > 0 ? n : 0));
    return copy_text(text, value_str);
  });
}

VARNEL_API int DBC_SyncCANMsgToValue(uint64_t dbc, const CAN_MSG* msgs, int count) {
  Database* db = database(dbc);
  if (!db) return -4;
  if (count < 1) return 0;
  if (!msgs) return -4;
  for (int i = 0; i < count; ++i) {
    const CAN_MSG& rec = msgs[i];
    const uint32_t key = (uint32_t(rec.Extended) << 31) | rec.Id;
    Message* m = db->find_message_by_id(key);
    if (!m) continue;
    std::memcpy(m->data, rec.Data, kCanDataBytes);
    take_payload(*m, rec.Data, kCanDataBytes);
  }
  return 0;
}

VARNEL_API int DBC_SyncCANFDMsgToValue(uint64_t dbc, const CANFD_MSG* msgs, int count) {
  Database* db = database(dbc);
  if (!db) return -4;
  if (count < 1) return 0;
  if (!msgs) return -4;
  for (int i = 0; i < count; ++i) {
    const CANFD_MSG& rec = msgs[i];
    Message* m = db->find_message_by_id(rec.Id);
    if (!m) continue;
    std::memcpy(m->data, rec.Data, std::min<size_t>(rec.DataLen, kPayloadBytes));
    take_payload(*m, rec.Data, kPayloadBytes);
  }
  return 0;
}

VARNEL_API int DBC_SyncValueToCANMsg(uint64_t dbc, const char* msg_name, CAN_MSG* msg) {
  Database* db = database(dbc);
  if (!db) return -4;
  const Message* m = message_named(db, msg_name);
  if (!m) return -7;
  if (!msg) return -4;
  std::memset(msg, 0, sizeof *msg);
  build_payload(*m, msg->Data, kCanDataBytes);
  msg->Id = m->id & 0x1FFFFFFFu;
  msg->Flags = 0;
  msg->Extended = uint8_t(m->id >> 31);
  msg->DataLen = m->dlc;
  // A fixed 10, not the message's cycle time.
  msg->TimeStamp = kRecordTimeStamp;
  return 0;
}

VARNEL_API int DBC_SyncValueToCANFDMsg(uint64_t dbc, const char* msg_name, CANFD_MSG* msg) {
  Database* db = database(dbc);
  if (!db) return -4;
  const Message* m = message_named(db, msg_name);
  if (!m) return -7;
  if (!msg) return -4;
  std::memset(msg, 0, sizeof *msg);
  build_payload(*m, msg->Data, kPayloadBytes);
  msg->Id = m->id;
  msg->DataLen = m->dlc;
  msg->Flags = uint8_t(((m->fd << 2) | m->brs) & 5);
  msg->TimeStamp = kRecordTimeStamp;
  return 0;
}

VARNEL_API int VARNEL_DbcFormatFrame(uint64_t dbc, uint32_t id, const uint8_t* data, int length,
                                     char* text, int size) {
  return varnel::guarded(-4, [&] {
    Database* db = database(dbc);
    if (!db) return -4;
    if (length < 0 || (length > 0 && !data) || size < 0 || (size > 0 && !text)) return -7;
    const Message* m = db->find_message_by_id(id);
    if (!m) return -5;
    if (db->standard && size_t(length) < std::min<size_t>(m->dlc, kPayloadBytes)) return -6;
    uint8_t payload[kPayloadBytes] = {};
    if (length > 0) std::memcpy(payload, data, std::min<size_t>(size_t(length), kPayloadBytes));
    const std::string line = format_decoded(*m, payload, kPayloadBytes);
    if (size > 0) std::snprintf(text, size_t(size), "%s", line.c_str());
    return int(line.size());
  });
}

VARNEL_API int VARNEL_DbcDescribe(uint64_t dbc, char* text, int size) {
  return varnel::guarded(-4, [&] {
    Database* db = database(dbc);
    if (!db) return -4;
    if (size < 0 || (size > 0 && !text)) return -7;
    const std::string info = describe(*db);
    if (size > 0) std::snprintf(text, size_t(size), "%s", info.c_str());
    return int(std::min<size_t>(info.size(), INT32_MAX));
  });
}
