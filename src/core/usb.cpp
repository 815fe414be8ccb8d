// USB adapters: discovery, the device list, open/close/reset and reconnection, and the bulk and
// control transfers the transport uses.
//
// The device list keeps the order of discovery, which is also the device index. An adapter is
// known by the 32-bit identity it answers to vendor request 0x50 and found again by its location
// path, so it keeps its handle across reconnects and port moves.
#include "core/usb.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/locks.h"
#include "core/net.h"
#include "core/usb_stream.h"
#include "varnel.h"

namespace varnel {
namespace {

constexpr uint16_t kVendorId = 0x0483;
constexpr uint16_t kProductIds[] = {31000, 31001};
constexpr uint8_t kRequestIdentity = 0x50;
constexpr uint8_t kRequestReset = 0x60;
constexpr unsigned kControlTimeoutMs = 100;
constexpr uint8_t kVendorOut = 0x41;  // vendor, interface, host to device
constexpr uint8_t kVendorIn = 0xC1;
constexpr int kMinReadTimeoutMs = 1000;
// After a failed read: how long the next transaction waits for a stale reply, per bulk read,
// and how many reads it makes at most (a header and the 64 KiB chunks of the largest reply).
constexpr unsigned kDrainTimeoutMs = 100;
constexpr int kMaxDrainReads = 2 + kUsbReplyLimit / kUsbReplyChunk;

// Transfers on an entry's device handle hold the gate shared; closing the handle holds it alone.
// Transfers run under different locks (the CAN and LIN channel locks, not only the device lock),
// so the device lock alone cannot keep a close from freeing the handle under one of them. A close
// waits for the transfers in progress and keeps new ones out until the handle is gone.
class HandleGate {
 public:
  void enter() {
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [&] { return !closing_; });
    ++users_;
  }
  void leave() {
    std::lock_guard guard(mutex_);
    if (--users_ == 0) changed_.notify_all();
  }
  void close_begin() {
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [&] { return !closing_; });
    closing_ = true;
    changed_.wait(guard, [&] { return users_ == 0; });
  }
  void close_end() {
    std::lock_guard guard(mutex_);
    closing_ = false;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int users_ = 0;
  bool closing_ = false;
};

struct UsbDeviceEntry {
  libusb_device* device = nullptr;  // referenced while stored here
  std::atomic<libusb_device_handle*> device_handle{nullptr};
  HandleGate gate;
  uint32_t handle = 0;
  std::atomic<uint8_t> opened{0};
  uint8_t bus_number = 0;
  uint8_t device_address = 0;
  uint8_t port_number = 0;
  std::string location_path;
  // A read on this adapter failed, so its answer (or the rest of it) may still come in.
  std::atomic<bool> reply_may_be_pending{false};
};
using EntryPtr = std::shared_ptr<UsbDeviceEntry>;

// The open device handle of an entry for the length of one use, or null when it has none.
class HandleUse {
 public:
  explicit HandleUse(UsbDeviceEntry& entry) : entry_(entry) {
    entry_.gate.enter();
    handle_ = entry_.device_handle;
  }
  ~HandleUse() { entry_.gate.leave(); }
  HandleUse(const HandleUse&) = delete;
  HandleUse& operator=(const HandleUse&) = delete;
  libusb_device_handle* get() const { return handle_; }

 private:
  UsbDeviceEntry& entry_;
  libusb_device_handle* handle_;
};

// What belongs to an adapter's handle beyond its list entry (which a scan drops and makes anew
// when the adapter is re-plugged): whether the application closed it, and the bulk-in streams
// running on it, which a close or reconnection stops before the device handle goes.
struct UsbSession {
  std::atomic<bool> closed_by_application{false};
  std::mutex streams_mutex;
  std::vector<BulkInStream*> streams;
};

// Stops every stream running on the adapter's device handle. The list is held while they stop,
// so an owner destroying its stream meanwhile waits in usb_stream_stopped.
void stop_streams_on(uint32_t handle) {
  const auto session = adapter_table<UsbSession>().find(handle);
  if (!session) return;
  std::lock_guard guard(session->streams_mutex);
  for (BulkInStream* stream : session->streams)
    stream->stop_because(BulkInStream::End::kClosedUnderIt);
  session->streams.clear();
}

// One libusb device list, freed with its device references when its last reader lets go: a
// reconnection walks the list on a transaction's thread while a scan may replace it.
struct DeviceList {
  libusb_device** devices = nullptr;
  ssize_t count = 0;
  DeviceList() = default;
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;
  ~DeviceList() {
    if (devices) libusb_free_device_list(devices, 1);
  }
};
using DeviceListPtr = std::shared_ptr<const DeviceList>;

// Library-wide USB state. Entries are shared so that a transfer running outside the list mutex
// keeps its entry alive while a scan edits the list. An entry's fields other than its handle
// change only under its adapter's device lock.
struct UsbState {
  std::atomic<bool> usb_ready{false};  // set once, under the global lock, after the context
  libusb_context* context = nullptr;
  std::mutex cached_list_mutex;  // innermost: guards only the pointer below
  DeviceListPtr cached_list;
  std::list<EntryPtr> devices;
  DevHandle scratch_handles[kMaxDevices] = {};
};

UsbState& state() {
  static auto* s = new UsbState;  // lives until process exit, like the libusb context
  return *s;
}

void set_device(UsbDeviceEntry& entry, libusb_device* device) {
  if (device) libusb_ref_device(device);
  if (entry.device) libusb_unref_device(entry.device);
  entry.device = device;
}

void mark_closed(UsbDeviceEntry& entry) {
  entry.opened = 0;
  entry.device_handle = nullptr;
}

// Every close of a device handle goes through here: the streams on it are stopped and reaped,
// the transfers in progress end, and only then is the handle released and closed.
void close_handle(UsbDeviceEntry& entry, bool release_interface = false) {
  // First without the gate: a stream's callback may itself make a transfer on the adapter.
  stop_streams_on(entry.handle);
  entry.gate.close_begin();
  stop_streams_on(entry.handle);  // one that started meanwhile
  if (libusb_device_handle* dh = entry.device_handle) {
    if (release_interface) libusb_release_interface(dh, 0);
    libusb_close(dh);
  }
  mark_closed(entry);
  entry.gate.close_end();
}

void free_entry(UsbDeviceEntry& entry) {
  close_handle(entry, entry.opened != 0);
  set_device(entry, nullptr);
}

EntryPtr find_entry(uint32_t handle) {
  std::lock_guard guard(device_list_mutex());
  for (auto& entry : state().devices)
    if (entry->handle == handle) return entry;
  return nullptr;
}

EntryPtr find_entry_by_path(const std::string& path) {
  std::lock_guard guard(device_list_mutex());
  for (auto& entry : state().devices)
    if (entry->location_path == path) return entry;
  return nullptr;
}

void remove_entry(const EntryPtr& entry) {
  std::lock_guard guard(device_list_mutex());
  state().devices.remove(entry);
}

bool is_adapter(const libusb_device_descriptor& d) {
  return d.idVendor == kVendorId && std::find(std::begin(kProductIds), std::end(kProductIds),
                                              d.idProduct) != std::end(kProductIds);
}

// Port chain, then the bus number, then the port number again: "1.4.2.4" for bus 2 behind
// ports 1 and 4. The repeated port number is kept so paths match those of earlier releases.
bool location_path(libusb_device* device, std::string* path) {
  uint8_t ports[16];
  int count = libusb_get_port_numbers(device, ports, 16);
  if (count <= 0) return false;
  std::string text;
  for (int i = 0; i < count; ++i) text += "." + std::to_string(ports[i]);
  text += "." + std::to_string(libusb_get_bus_number(device));
  text += "." + std::to_string(libusb_get_port_number(device));
  *path = text.substr(1, 31);  // the field holds 31 characters and a terminator
  return true;
}

bool read_identity(libusb_device_handle* dh, uint32_t* identity) {
  if (!dh) return false;
  unsigned char data[4];
  int n =
      libusb_control_transfer(dh, kVendorIn, kRequestIdentity, 0, 0, data, 4, kControlTimeoutMs);
  if (n != 4) return false;
  std::memcpy(identity, data, 4);  // stored as it arrives, in host byte order
  return true;
}

// Creates the libusb context on first use; returns libusb's code when that fails.
int library_start() {
  auto& s = state();
  if (s.usb_ready) return 0;
  std::lock_guard start_guard(global_lock());
  if (s.usb_ready) return 0;  // another thread started it while this one waited
  {
    std::lock_guard guard(device_list_mutex());
    s.devices.clear();
  }
  int rc = libusb_init(&s.context);
  if (rc != 0) return rc;
  libusb_set_option(s.context, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_NONE);
  s.usb_ready = true;
  return 0;
}

// Lists the devices again and keeps the list for reconnections. The list, or null with libusb's
// code in *error.
DeviceListPtr refresh_device_list(int* error = nullptr) {
  auto& s = state();
  auto list = std::make_shared<DeviceList>();
  list->count = libusb_get_device_list(s.context, &list->devices);
  if (list->count < 0) {
    if (error) *error = int(list->count);
    list->devices = nullptr;
    list = nullptr;
  }
  std::lock_guard guard(s.cached_list_mutex);
  s.cached_list = list;
  return list;
}

// The last list a scan made, or a new one when there is none.
DeviceListPtr cached_device_list() {
  {
    std::lock_guard guard(state().cached_list_mutex);
    if (state().cached_list) return state().cached_list;
  }
  return refresh_device_list();
}

// A known location: the adapter there is checked again; false when the entry must go.
bool rescan_known_entry(UsbDeviceEntry& entry, libusb_device* device) {
  uint32_t identity = 0;
  DeviceLockGuard guard(entry.handle);  // a transaction may be using the entry meanwhile
  // Whatever answers must answer with this entry's identity: another adapter plugged into the
  // port is a newcomer under its own handle, and this entry goes.
  if (entry.opened) {
    set_device(entry, device);
    if (read_identity(entry.device_handle, &identity)) return identity == entry.handle;
    libusb_device_handle* dh = nullptr;
    if (libusb_open(entry.device, &dh) != 0) return true;  // still counted as seen
    close_handle(entry);
    entry.device_handle = dh;
    if (!read_identity(dh, &identity) || identity != entry.handle) return false;
    // the entry stays open for the application, so its new handle gets the interface too
    if (libusb_claim_interface(dh, 0) != 0) return false;
    entry.opened = 1;
    count_reconnect(entry.handle);  // it came back (a power cycle?): the application is told
    return true;
  }
  libusb_device_handle* dh = nullptr;
  if (libusb_open(device, &dh) != 0) return false;
  bool ok = read_identity(dh, &identity) && identity == entry.handle;
  libusb_close(dh);
  // an adapter unplugged and plugged back at the same port is a new libusb device: the next
  // open must use that one, not the old device that no longer answers
  if (ok) set_device(entry, device);
  return ok;
}

// A new location: the adapter is opened, asked for its identity and closed again. An adapter
// already listed under that identity has moved: its entry takes the new device.
EntryPtr scan_new_location(libusb_device* device, const std::string& path) {
  auto entry = std::make_shared<UsbDeviceEntry>();
  entry->bus_number = libusb_get_bus_number(device);
  entry->device_address = libusb_get_device_address(device);
  entry->port_number = libusb_get_port_number(device);
  entry->location_path = path;
  libusb_device_handle* dh = nullptr;
  if (libusb_open(device, &dh) != 0 || !dh) return nullptr;
  uint32_t identity = 0;
  if (!read_identity(dh, &identity)) {
    libusb_close(dh);
    return nullptr;
  }
  libusb_close(dh);  // a scan does not keep the adapter open
  if (EntryPtr existing = find_entry(identity)) {
    DeviceLockGuard guard(identity);
    close_handle(*existing, existing->opened != 0);
    set_device(*existing, device);
    existing->bus_number = entry->bus_number;
    existing->device_address = entry->device_address;
    existing->port_number = entry->port_number;
    existing->location_path = path;
    return existing;
  }
  entry->handle = identity;
  set_device(*entry, device);
  std::lock_guard guard(device_list_mutex());  // published complete: other threads see it now
  state().devices.push_back(entry);
  return entry;
}

void scan_one_device(libusb_device* device, std::vector<uint32_t>& seen) {
  libusb_device_descriptor descriptor;
  if (libusb_get_device_descriptor(device, &descriptor) != 0) return;
  std::string path;
  if (!location_path(device, &path)) return;
  if (!is_adapter(descriptor)) return;
  if (EntryPtr entry = find_entry_by_path(path)) {
    if (rescan_known_entry(*entry, device)) {
      seen.push_back(entry->handle);
      return;
    }
    remove_entry(entry);
    DeviceLockGuard guard(entry->handle);
    free_entry(*entry);
    // whatever answers at this location now is looked at as a newcomer
  }
  if (EntryPtr entry = scan_new_location(device, path)) seen.push_back(entry->handle);
}

void drop_unseen_entries(const std::vector<uint32_t>& seen) {
  std::vector<EntryPtr> gone;
  {
    std::lock_guard guard(device_list_mutex());
    auto& devices = state().devices;
    for (auto it = devices.begin(); it != devices.end();) {
      if (std::find(seen.begin(), seen.end(), (*it)->handle) == seen.end()) {
        gone.push_back(*it);
        it = devices.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& entry : gone) {
    DeviceLockGuard guard(entry->handle);
    free_entry(*entry);
  }
}

int list_handles(DevHandle* out) {
  std::lock_guard guard(device_list_mutex());
  int count = 0;
  for (auto& entry : state().devices) {
    if (count == kMaxDevices) break;  // the caller's array holds at most this many
    out[count++] = entry->handle;
  }
  return count;
}

int scan_devices(DevHandle* out) {
  std::lock_guard scan_guard(global_lock());
  int rc = library_start();
  if (rc != 0) return rc;
  int error = 0;
  DeviceListPtr list = refresh_device_list(&error);
  if (!list) return error;
  std::vector<uint32_t> seen;
  for (ssize_t i = 0; i < list->count; ++i) scan_one_device(list->devices[i], seen);
  drop_unseen_entries(seen);
  return list_handles(out ? out : state().scratch_handles);
}

// Whether the adapter has a device to open. A scan on another thread sets an entry's device under
// the adapter's lock, so it is read under that lock too.
bool has_device(uint32_t handle) {
  DeviceLockGuard guard(handle);
  EntryPtr entry = find_entry(handle);
  return entry && entry->device;
}

bool open_entry(uint32_t handle) {
  DeviceLockGuard guard(handle);
  EntryPtr entry = find_entry(handle);
  if (!state().usb_ready || !entry || !entry->device) return false;
  if (entry->opened && entry->device_handle) {
    uint32_t identity = 0;
    if (read_identity(entry->device_handle, &identity)) {
      if (identity != entry->handle) {  // another adapter now sits at this location
        close_handle(*entry);           // closed, not just forgotten: the handle would leak
        return false;
      }
    } else {
      close_handle(*entry);
      libusb_device_handle* dh = nullptr;
      if (libusb_open(entry->device, &dh) != 0 || !dh) {
        mark_closed(*entry);
        return false;
      }
      entry->device_handle = dh;
    }
  } else {
    libusb_device_handle* dh = nullptr;
    if (libusb_open(entry->device, &dh) != 0 || !dh) {
      mark_closed(*entry);
      return false;
    }
    entry->device_handle = dh;
  }
  if (libusb_claim_interface(entry->device_handle, 0) != 0) {
    close_handle(*entry);
    return false;
  }
  entry->opened = 1;
  return true;
}

// Called under the adapter's device lock (by the retry loop inside a transaction, or the resume
// calls), so it must not take the global lock: it reads the scan's list through a reference.
bool reconnect_usb(uint32_t handle) {
  EntryPtr entry = find_entry(handle);
  if (!state().usb_ready || !entry || usb_closed_by_application(handle)) return false;
  DeviceListPtr list = cached_device_list();
  if (!list) return false;
  bool present = false;
  for (ssize_t i = 0; i < list->count && !present; ++i) {
    libusb_device_descriptor descriptor;
    std::string path;
    libusb_device* device = list->devices[i];
    present = libusb_get_device_descriptor(device, &descriptor) == 0 && is_adapter(descriptor) &&
              location_path(device, &path) && path == entry->location_path;
  }
  if (!present) return false;
  if (entry->device_handle) close_handle(*entry);
  libusb_device_handle* dh = nullptr;
  if (!entry->device || libusb_open(entry->device, &dh) != 0 || !dh) return false;
  entry->device_handle = dh;
  if (libusb_claim_interface(dh, 0) != 0) return false;
  entry->opened = 1;
  return true;
}

// The open device handle of an adapter, or null when it is unknown or not open.
EntryPtr open_entry_for_transfer(uint32_t handle) {
  if (!state().usb_ready) return nullptr;
  EntryPtr entry = find_entry(handle);
  if (!entry || !entry->device || !entry->device_handle) return nullptr;
  return entry;
}

int max_packet_size(const EntryPtr& entry) {
  return libusb_get_device_speed(entry->device) == LIBUSB_SPEED_HIGH ? 512 : 64;
}

// Whatever is pending on the IN endpoint after a failed read answers an earlier request: read it
// off before the next request goes out, or every later call would read its predecessor's reply.
void drain_stale_replies(UsbDeviceEntry& entry, libusb_device_handle* dh) {
  if (!entry.reply_may_be_pending.exchange(false)) return;
  std::vector<uint8_t> sink(static_cast<size_t>(kUsbReplyChunk));
  for (int i = 0; i < kMaxDrainReads; ++i) {
    int transferred = 0;
    if (libusb_bulk_transfer(dh, kEndpointIn, sink.data(), int(sink.size()), &transferred,
                             kDrainTimeoutMs) != 0)
      return;
  }
}

bool bulk_in_exact(libusb_device_handle* dh, uint8_t* data, int size, int timeout_ms) {
  int transferred = 0;
  int rc = libusb_bulk_transfer(dh, kEndpointIn, data, size, &transferred, unsigned(timeout_ms));
  return rc == 0 && transferred == size;
}

// The header, then the payload in 64 KiB chunks. 0 or -3. `cut`: the reply was longer than a
// reply may be, so the rest of it is still on its way.
int read_reply_from(libusb_device_handle* dh, CommandPacket& reply, uint32_t expected, int timeout,
                    bool& cut) {
  uint8_t header[8];
  if (!bulk_in_exact(dh, header, 8, timeout)) {
    reply.payload = nullptr;
    return -3;
  }
  reply.command = get_be32(header);
  reply.length = int32_t(get_be32(header + 4));
  if (reply.length <= 0) return 0;
  cut = reply.length > kUsbReplyLimit;
  if (cut) reply.length = kUsbReplyLimit;
  std::unique_ptr<uint8_t[]> scratch;
  for (int32_t offset = 0; offset < reply.length;) {
    if (reply.command != expected) return -3;
    const int32_t chunk = std::min(kUsbReplyChunk, reply.length - offset);
    // Bytes beyond the caller's buffer are read into scratch and dropped.
    const bool fits = reply.payload && offset + chunk <= reply.capacity;
    if (!fits && !scratch) scratch.reset(new uint8_t[kUsbReplyChunk]);
    uint8_t* target = fits ? reply.payload + offset : scratch.get();
    if (!bulk_in_exact(dh, target, chunk, timeout)) return -3;
    if (!fits && reply.payload && offset < reply.capacity)
      std::memcpy(reply.payload + offset, target, size_t(reply.capacity - offset));
    offset += chunk;
  }
  return 0;
}

}  // namespace

std::mutex& device_list_mutex() {
  static auto* m = new std::mutex;
  return *m;
}

int usb_list_position_locked(uint32_t handle) {
  int position = 0;
  for (auto& entry : state().devices) {
    if (entry->handle == handle) return position;
    ++position;
  }
  return -1;
}

int usb_write_packet(uint32_t handle, unsigned char endpoint, const uint8_t* data, int size,
                     int timeout_ms) {
  EntryPtr entry = open_entry_for_transfer(handle);
  if (!entry) return -2;
  HandleUse use(*entry);
  libusb_device_handle* dh = use.get();
  if (!dh) return -2;  // closed meanwhile
  drain_stale_replies(*entry, dh);
  int transferred = 0;
  int rc = libusb_bulk_transfer(dh, endpoint, const_cast<uint8_t*>(data), size, &transferred,
                                unsigned(timeout_ms));
  if (rc != 0 || transferred != size) {
    libusb_reset_device(dh);
    return -2;
  }
  // A transfer that fills its last packet exactly needs a zero-length packet to end it.
  if (size % max_packet_size(entry) == 0) {
    rc = libusb_bulk_transfer(dh, endpoint, const_cast<uint8_t*>(data), 0, &transferred,
                              unsigned(timeout_ms));
    if (rc != 0) {
      libusb_reset_device(dh);
      return -2;
    }
  }
  return 0;
}

int usb_read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms) {
  const uint32_t expected = reply.command;
  EntryPtr entry = open_entry_for_transfer(handle);
  if (!entry) {
    reply.payload = nullptr;
    return -3;
  }
  HandleUse use(*entry);
  if (!use.get()) {  // closed meanwhile
    reply.payload = nullptr;
    return -3;
  }
  bool cut = false;
  const int rc =
      read_reply_from(use.get(), reply, expected, std::max(timeout_ms, kMinReadTimeoutMs), cut);
  // What is left of a failed or cut reply is read off before the next request.
  if (rc != 0 || cut) entry->reply_may_be_pending = true;
  return rc;
}

int usb_control_out(uint32_t handle, uint8_t request, int timeout_ms) {
  EntryPtr entry = open_entry_for_transfer(handle);
  if (!entry) return -1;
  HandleUse use(*entry);
  if (!use.get()) return -1;
  int rc = libusb_control_transfer(use.get(), kVendorOut, request, 0, 0, nullptr, 0,
                                   unsigned(timeout_ms));
  if (rc < 0) {
    libusb_reset_device(use.get());
    return -2;
  }
  return 0;
}

std::string usb_location_path(uint32_t handle) {
  DeviceLockGuard guard(handle);  // a scan may be moving the entry
  EntryPtr entry = find_entry(handle);
  return entry ? entry->location_path : std::string();
}

libusb_context* usb_context() {
  return state().context;
}

bool usb_start_stream(uint32_t handle, BulkInStream* stream,
                      const std::function<bool(libusb_device_handle*)>& submit) {
  EntryPtr entry = open_entry_for_transfer(handle);
  const auto session = adapter_table<UsbSession>().find_or_create(handle);
  if (!entry || !session || !entry->opened) return false;
  HandleUse use(*entry);
  if (!use.get() || !submit(use.get())) return false;
  std::lock_guard guard(session->streams_mutex);
  session->streams.push_back(stream);
  return true;
}

void usb_stream_stopped(uint32_t handle, BulkInStream* stream) {
  const auto session = adapter_table<UsbSession>().find(handle);
  if (!session) return;
  std::lock_guard guard(session->streams_mutex);
  std::erase(session->streams, stream);
}

bool usb_closed_by_application(uint32_t handle) {
  const auto session = adapter_table<UsbSession>().find(handle);
  return session && session->closed_by_application;
}

bool reconnect_device(uint32_t handle) {
  const bool reconnected =
      (handle & 0xFF000001u) == 0x55000000u ? net_reconnect(handle) : reconnect_usb(handle);
  if (reconnected) count_reconnect(handle);
  return reconnected;
}

}  // namespace varnel

using namespace varnel;

VARNEL_API int USB_ScanDevice(DevHandle* pDevHandle) {
  return varnel::guarded(LIBUSB_ERROR_OTHER, [&] { return scan_devices(pDevHandle); });
}

VARNEL_API bool USB_OpenDevice(DevHandle handle) {
  return varnel::guarded(false, [&] {
    library_start();
    if (const auto session = adapter_table<UsbSession>().find(handle))
      session->closed_by_application = false;
    if (has_device(handle)) return open_entry(handle);
    DevHandle found[kMaxDevices];
    int count = scan_devices(found);
    if (count <= 0 || std::find(found, found + count, handle) == found + count) return false;
    return open_entry(handle);
  });
}

VARNEL_API bool USB_CloseDevice(DevHandle handle) {
  return varnel::guarded(false, [&] {
    DeviceLockGuard guard(handle);  // waits for a transaction on another thread to finish
    EntryPtr entry = find_entry(handle);
    if (!state().usb_ready || !entry || !entry->device || !entry->device_handle) return false;
    // Closed stays closed: no reconnection or retry reopens it, only USB_OpenDevice.
    if (const auto session = adapter_table<UsbSession>().find_or_create(handle))
      session->closed_by_application = true;
    close_handle(*entry, true);
    return true;
  });
}

VARNEL_API bool USB_ResetDevice(DevHandle handle) {
  DeviceLockGuard guard(handle);
  return usb_control_out(handle, kRequestReset, kControlTimeoutMs) == 0;
}

VARNEL_API bool USB_RetryConnect(DevHandle handle) {
  std::lock_guard scan_guard(global_lock());
  DeviceLockGuard guard(handle);
  return reconnect_device(handle);
}

VARNEL_API bool USB_WaitResume(DevHandle handle, int TimeOutMs) {
  const uint64_t start = monotonic_ns();
  while (true) {
    {
      std::lock_guard scan_guard(global_lock());
      DeviceLockGuard guard(handle);
      if (reconnect_device(handle)) return true;
    }
    sleep_for_ms(100);
    if (elapsed_ms_since(start) >= TimeOutMs) return false;
  }
}
