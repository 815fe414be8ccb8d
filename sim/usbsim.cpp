// libvarnel-usbsim: the part of the libusb-1.0 API the library uses, over virtual adapters.
// Built as libusb-1.0.so.0 so that it loads in place of the real libusb; the library's own USB
// code runs unchanged against it.
//
// VARNEL_USBSIM_ADAPTERS (comma-separated handles, e.g. "0x12345678,0x53000001") plugs adapters
// at start-up, on bus 1 ports 1, 2, ... so that tools can run against it without a test harness;
// VARNEL_SIM_CAN_PEER / VARNEL_SIM_CAN_TRAFFIC put a node on the virtual CAN bus (can_scene.h).
#include "sim/usbsim.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sim/bus/can_scene.h"

struct libusb_context {
  int unused = 0;
};

struct libusb_device {
  std::atomic<int> refs{1};
  std::shared_ptr<sim::VirtualAdapter> adapter;
  usbsim::Port port;
  uint8_t address = 0;
  std::atomic<bool> attached{true};
  std::atomic<bool> suspended{false};
};

struct libusb_device_handle {
  libusb_device* device = nullptr;
  bool claimed = false;
};

namespace {

struct TransferFault {
  uint8_t endpoint;
  int error;  // 0: short transfer of `bytes`
  int bytes;
};

// VARNEL_USBSIM_POWER_CYCLE_AFTER=N: the first adapter the host writes N bulk packets to loses
// power as the N-th arrives (once per process), so that a tool run shows what a power cycle does.
std::atomic<long> power_cycle_after{0};

struct AdapterRecord {
  sim::RecentLog<usbsim::Transfer> transfers{
      usbsim::kTransferWindow, usbsim::kTransferWindowBytes,
      [](const usbsim::Transfer& t) { return t.data.size(); }};
  usbsim::Counters counters;
  std::deque<TransferFault> faults;
  long writes = 0;  // bulk OUT transfers since the adapter was plugged
};

struct World {
  std::mutex mutex;
  std::vector<libusb_device*> attached;
  std::map<uint32_t, AdapterRecord> records;
  uint8_t next_address = 1;
  std::vector<libusb_transfer*> pending;  // submitted asynchronous transfers
};

World& world() {
  static auto* w = new World;
  return *w;
}

void unref(libusb_device* device) {
  if (device->refs.fetch_sub(1) == 1) delete device;
}

AdapterRecord& record_of(libusb_device* device) {
  return world().records[device->adapter->handle()];
}

void log_transfer(libusb_device* device, usbsim::Transfer transfer) {
  std::lock_guard guard(world().mutex);
  record_of(device).transfers.push(std::move(transfer));
}

void count(libusb_device* device, int usbsim::Counters::*field) {
  std::lock_guard guard(world().mutex);
  ++(record_of(device).counters.*field);
}

std::optional<TransferFault> take_fault(libusb_device* device, uint8_t endpoint) {
  std::lock_guard guard(world().mutex);
  auto& faults = record_of(device).faults;
  auto it =
      std::find_if(faults.begin(), faults.end(), [&](auto& f) { return f.endpoint == endpoint; });
  if (it == faults.end()) return std::nullopt;
  TransferFault fault = *it;
  faults.erase(it);
  return fault;
}

int device_state_error(libusb_device* device) {
  if (!device->attached) return LIBUSB_ERROR_NO_DEVICE;
  if (device->suspended) return LIBUSB_ERROR_IO;
  return 0;
}

libusb_device* find_attached(uint32_t handle) {
  for (auto* device : world().attached)
    if (device->adapter->handle() == handle) return device;
  return nullptr;
}

std::chrono::milliseconds timeout_of(unsigned int timeout_ms) {
  return std::chrono::milliseconds(timeout_ms ? timeout_ms : 24u * 3600 * 1000);
}

bool power_cycle_due(libusb_device* device) {
  long after = power_cycle_after.load();
  {
    std::lock_guard guard(world().mutex);
    if (after <= 0 || ++record_of(device).writes < after) return false;
  }
  return power_cycle_after.compare_exchange_strong(after, 0) &&
         usbsim::power_cycle(device->adapter->handle());
}

int bulk_out(libusb_device* device, unsigned char endpoint, unsigned char* data, int length,
             int* transferred) {
  if (power_cycle_due(device)) return LIBUSB_ERROR_NO_DEVICE;
  usbsim::Transfer log{usbsim::Transfer::Kind::kBulk, endpoint, length, {}, 0};
  int moved = length;
  if (auto fault = take_fault(device, endpoint)) {
    if (fault->error) {
      log.result = fault->error;
      log_transfer(device, log);
      return fault->error;
    }
    moved = std::min(length, fault->bytes);
  }
  log.data.assign(data, data + moved);
  log_transfer(device, log);
  if (moved) device->adapter->receive(data, size_t(moved));
  if (transferred) *transferred = moved;
  return 0;
}

int bulk_in(libusb_device* device, unsigned char endpoint, unsigned char* data, int length,
            int* transferred, unsigned int timeout) {
  usbsim::Transfer log{usbsim::Transfer::Kind::kBulk, endpoint, length, {}, 0};
  if (auto fault = take_fault(device, endpoint); fault && fault->error) {
    log.result = fault->error;
    log_transfer(device, log);
    return fault->error;
  }
  int got = device->adapter->read(data, size_t(length), timeout_of(timeout));
  if (got < 0) {
    log.result = LIBUSB_ERROR_TIMEOUT;
    log_transfer(device, log);
    return LIBUSB_ERROR_TIMEOUT;
  }
  log.data.assign(data, data + got);
  log_transfer(device, log);
  if (transferred) *transferred = got;
  return 0;
}

void plug_from_environment() {
  sim::start_can_scene_from_environment();
  if (const char* after = std::getenv("VARNEL_USBSIM_POWER_CYCLE_AFTER"))
    power_cycle_after = std::strtol(after, nullptr, 10);
  const char* list = std::getenv("VARNEL_USBSIM_ADAPTERS");
  if (!list) return;
  std::string text = list;
  uint8_t port = 1;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::string item = text.substr(start, end - start);
    if (!item.empty())
      usbsim::plug(uint32_t(std::strtoul(item.c_str(), nullptr, 0)), {1, {port++}});
    start = end + 1;
  }
}

}  // namespace

// ----- control API ---------------------------------------------------------------------------

namespace usbsim {

std::shared_ptr<sim::VirtualAdapter> plug(uint32_t handle, const Port& port) {
  auto adapter = std::make_shared<sim::VirtualAdapter>(handle);
  plug_adapter(adapter, port);
  return adapter;
}

void plug_adapter(std::shared_ptr<sim::VirtualAdapter> adapter, const Port& port) {
  auto* device = new libusb_device;
  device->adapter = std::move(adapter);
  device->port = port;
  std::lock_guard guard(world().mutex);
  device->address = world().next_address++;
  world().attached.push_back(device);
  world().records[device->adapter->handle()];
}

bool unplug(uint32_t handle) {
  libusb_device* device = nullptr;
  {
    std::lock_guard guard(world().mutex);
    device = find_attached(handle);
    if (!device) return false;
    auto& attached = world().attached;
    attached.erase(std::find(attached.begin(), attached.end(), device));
  }
  device->attached = false;
  unref(device);
  return true;
}

bool power_cycle(uint32_t handle) {
  Port port;
  {
    std::lock_guard guard(world().mutex);
    libusb_device* device = find_attached(handle);
    if (!device) return false;
    port = device->port;
  }
  if (!unplug(handle)) return false;
  plug(handle, port);
  return true;
}

bool move(uint32_t handle, const Port& port) {
  auto moved = adapter(handle);
  if (!moved || !unplug(handle)) return false;
  plug_adapter(moved, port);
  return true;
}

void set_suspended(uint32_t handle, bool suspended) {
  std::lock_guard guard(world().mutex);
  if (auto* device = find_attached(handle)) device->suspended = suspended;
}

void unplug_all() {
  std::vector<uint32_t> handles;
  {
    std::lock_guard guard(world().mutex);
    for (auto* device : world().attached) handles.push_back(device->adapter->handle());
  }
  for (uint32_t handle : handles) unplug(handle);
}

std::shared_ptr<sim::VirtualAdapter> adapter(uint32_t handle) {
  std::lock_guard guard(world().mutex);
  auto* device = find_attached(handle);
  return device ? device->adapter : nullptr;
}

std::vector<Transfer> transfers(uint32_t handle) {
  std::lock_guard guard(world().mutex);
  return world().records[handle].transfers.entries();
}

void clear_transfers(uint32_t handle) {
  std::lock_guard guard(world().mutex);
  auto& record = world().records[handle];
  record.transfers.clear();
  record.counters = {};
}

Counters counters(uint32_t handle) {
  std::lock_guard guard(world().mutex);
  return world().records[handle].counters;
}

void fail_next_transfers(uint32_t handle, uint8_t endpoint, int libusb_error, int count) {
  std::lock_guard guard(world().mutex);
  for (int i = 0; i < count; ++i)
    world().records[handle].faults.push_back({endpoint, libusb_error, 0});
}

void short_next_transfer(uint32_t handle, uint8_t endpoint, int bytes) {
  std::lock_guard guard(world().mutex);
  world().records[handle].faults.push_back({endpoint, 0, bytes});
}

}  // namespace usbsim

// For tests that reach this library only through the C ABI (the Python bindings' tests load it
// in place of libusb): copies up to `size` bytes of the payload of the last packet with
// `command` that the adapter `handle` received. Its full length, or -1 when there was none.
extern "C" int varnel_usbsim_last_payload(uint32_t handle, uint32_t command, uint8_t* out,
                                          int size) {
  const auto device = usbsim::adapter(handle);
  if (!device) return -1;
  const auto packets = device->received();
  for (auto packet = packets.rbegin(); packet != packets.rend(); ++packet) {
    if (packet->command != command) continue;
    std::copy_n(packet->payload.begin(), std::min<size_t>(packet->payload.size(), size_t(size)),
                out);
    return int(packet->payload.size());
  }
  return -1;
}

// The same for power cycles: 0, or -1 when no adapter with that handle is plugged in.
extern "C" int varnel_usbsim_power_cycle(uint32_t handle) {
  return usbsim::power_cycle(handle) ? 0 : -1;
}

// ----- libusb-1.0 API ------------------------------------------------------------------------

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
  static std::once_flag environment_once;
  std::call_once(environment_once, plug_from_environment);
  if (ctx) *ctx = new libusb_context;
  return 0;
}

void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
  delete ctx;
}

void LIBUSB_CALL libusb_set_debug(libusb_context*, int) {}

int LIBUSB_CALL libusb_set_option(libusb_context*, enum libusb_option, ...) {
  return 0;
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list) {
  std::lock_guard guard(world().mutex);
  auto& attached = world().attached;
  auto** devices = new libusb_device*[attached.size() + 1];
  for (size_t i = 0; i < attached.size(); ++i) {
    attached[i]->refs++;
    devices[i] = attached[i];
  }
  devices[attached.size()] = nullptr;
  *list = devices;
  return ssize_t(attached.size());
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices) {
  if (!list) return;
  if (unref_devices)
    for (auto** d = list; *d; ++d) unref(*d);
  delete[] list;
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev) {
  dev->refs++;
  return dev;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* dev) {
  if (dev) unref(dev);
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev,
                                             struct libusb_device_descriptor* desc) {
  std::memset(desc, 0, sizeof *desc);
  desc->bLength = LIBUSB_DT_DEVICE_SIZE;
  desc->bDescriptorType = LIBUSB_DT_DEVICE;
  desc->bcdUSB = dev->port.speed >= LIBUSB_SPEED_HIGH ? 0x0200 : 0x0110;
  desc->bMaxPacketSize0 = 64;
  desc->idVendor = dev->port.vendor_id;
  desc->idProduct = dev->port.product_id;
  desc->bNumConfigurations = 1;
  return 0;
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* dev) {
  return dev->port.bus;
}
uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* dev) {
  return dev->address;
}
uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device* dev) {
  return dev->port.chain.empty() ? 0 : dev->port.chain.back();
}
int LIBUSB_CALL libusb_get_port_numbers(libusb_device* dev, uint8_t* port_numbers,
                                        int port_numbers_len) {
  int n = int(dev->port.chain.size());
  if (n > port_numbers_len) return LIBUSB_ERROR_OVERFLOW;
  std::copy(dev->port.chain.begin(), dev->port.chain.end(), port_numbers);
  return n;
}
int LIBUSB_CALL libusb_get_device_speed(libusb_device* dev) {
  return dev->port.speed;
}

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** dev_handle) {
  count(dev, &usbsim::Counters::opens);
  if (int error = device_state_error(dev)) return error;
  auto* handle = new libusb_device_handle;
  handle->device = libusb_ref_device(dev);
  *dev_handle = handle;
  return 0;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* dev_handle) {
  if (!dev_handle) return;
  unref(dev_handle->device);
  delete dev_handle;
}

libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* dev_handle) {
  return dev_handle->device;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* dev_handle, int interface_number) {
  count(dev_handle->device, &usbsim::Counters::claims);
  if (int error = device_state_error(dev_handle->device)) return error;
  if (interface_number != 0) return LIBUSB_ERROR_NOT_FOUND;
  dev_handle->claimed = true;
  return 0;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* dev_handle, int) {
  dev_handle->claimed = false;
  return device_state_error(dev_handle->device);
}

int LIBUSB_CALL libusb_reset_device(libusb_device_handle* dev_handle) {
  count(dev_handle->device, &usbsim::Counters::resets);
  if (int error = device_state_error(dev_handle->device)) return error;
  dev_handle->device->adapter->reset();
  return 0;
}

int LIBUSB_CALL libusb_control_transfer(libusb_device_handle* dev_handle, uint8_t request_type,
                                        uint8_t bRequest, uint16_t, uint16_t, unsigned char* data,
                                        uint16_t wLength, unsigned int) {
  libusb_device* device = dev_handle->device;
  usbsim::Transfer log{usbsim::Transfer::Kind::kControl, bRequest, wLength, {}, 0};
  int result = device_state_error(device);
  if (result == 0 && request_type == 0xC1 && bRequest == 0x50 && wLength >= 4) {
    uint32_t identity = device->adapter->handle();
    std::memcpy(data, &identity, 4);  // the firmware sends its identity in host byte order
    log.data.assign(data, data + 4);
    result = 4;
  } else if (result == 0 && request_type == 0x41 && wLength == 0) {
    if (!device->adapter->control_out(bRequest)) result = LIBUSB_ERROR_PIPE;
  } else if (result == 0) {
    result = LIBUSB_ERROR_PIPE;  // the firmware stalls requests it does not know
  }
  log.result = result;
  log_transfer(device, log);
  return result;
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* dev_handle, unsigned char endpoint,
                                     unsigned char* data, int length, int* transferred,
                                     unsigned int timeout) {
  if (transferred) *transferred = 0;
  libusb_device* device = dev_handle->device;
  if (int error = device_state_error(device)) {
    log_transfer(device, {usbsim::Transfer::Kind::kBulk, endpoint, length, {}, error});
    return error;
  }
  if (endpoint & LIBUSB_ENDPOINT_IN)
    return bulk_in(device, endpoint, data, length, transferred, timeout);
  return bulk_out(device, endpoint, data, length, transferred);
}

const char* LIBUSB_CALL libusb_error_name(int errcode) {
  switch (errcode) {
    case LIBUSB_SUCCESS:
      return "LIBUSB_SUCCESS";
    case LIBUSB_ERROR_IO:
      return "LIBUSB_ERROR_IO";
    case LIBUSB_ERROR_NO_DEVICE:
      return "LIBUSB_ERROR_NO_DEVICE";
    case LIBUSB_ERROR_TIMEOUT:
      return "LIBUSB_ERROR_TIMEOUT";
    case LIBUSB_ERROR_PIPE:
      return "LIBUSB_ERROR_PIPE";
    default:
      return "LIBUSB_ERROR_OTHER";
  }
}

const char* LIBUSB_CALL libusb_strerror(int errcode) {
  return libusb_error_name(errcode);
}

// ----- asynchronous transfers: completed by the event pump from the adapter's IN data ----------

struct libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int iso_packets) {
  size_t size =
      sizeof(libusb_transfer) + sizeof(libusb_iso_packet_descriptor) * size_t(iso_packets);
  return static_cast<libusb_transfer*>(std::calloc(1, size));
}

void LIBUSB_CALL libusb_free_transfer(struct libusb_transfer* transfer) {
  if (!transfer) return;
  std::lock_guard guard(world().mutex);
  auto& pending = world().pending;
  pending.erase(std::remove(pending.begin(), pending.end(), transfer), pending.end());
  std::free(transfer);
}

int LIBUSB_CALL libusb_submit_transfer(struct libusb_transfer* transfer) {
  if (int error = device_state_error(transfer->dev_handle->device)) return error;
  std::lock_guard guard(world().mutex);
  transfer->status = LIBUSB_TRANSFER_COMPLETED;
  transfer->actual_length = 0;
  world().pending.push_back(transfer);
  return 0;
}

int LIBUSB_CALL libusb_cancel_transfer(struct libusb_transfer* transfer) {
  std::lock_guard guard(world().mutex);
  auto& pending = world().pending;
  if (std::find(pending.begin(), pending.end(), transfer) == pending.end())
    return LIBUSB_ERROR_NOT_FOUND;
  transfer->status = LIBUSB_TRANSFER_CANCELLED;
  return 0;
}

namespace {

// Completes every pending transfer that can complete now; returns how many did.
int complete_ready_transfers() {
  std::vector<libusb_transfer*> done;
  {
    std::lock_guard guard(world().mutex);
    auto& pending = world().pending;
    for (auto it = pending.begin(); it != pending.end();) {
      libusb_transfer* t = *it;
      libusb_device* device = t->dev_handle->device;
      bool complete = true;
      if (t->status == LIBUSB_TRANSFER_CANCELLED) {
      } else if (!device->attached) {
        t->status = LIBUSB_TRANSFER_NO_DEVICE;
      } else {
        int got = device->adapter->read(t->buffer, size_t(t->length), std::chrono::milliseconds(0));
        complete = got > 0;
        if (complete) t->actual_length = got;
      }
      if (complete) {
        done.push_back(t);
        it = pending.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto* t : done)
    if (t->callback) t->callback(t);  // may resubmit
  return int(done.size());
}

}  // namespace

namespace {
std::atomic<int> interrupts{0};  // wake-ups asked for and not yet taken by an event pump
}  // namespace

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context*, struct timeval* tv, int*) {
  auto deadline = std::chrono::steady_clock::now() +
                  (tv ? std::chrono::seconds(tv->tv_sec) + std::chrono::microseconds(tv->tv_usec)
                      : std::chrono::seconds(60));
  while (complete_ready_transfers() == 0 && std::chrono::steady_clock::now() < deadline) {
    for (int pending = interrupts; pending > 0;)
      if (interrupts.compare_exchange_weak(pending, pending - 1)) return 0;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return 0;
}

void LIBUSB_CALL libusb_interrupt_event_handler(libusb_context*) {
  ++interrupts;
}

int LIBUSB_CALL libusb_handle_events_timeout(libusb_context* ctx, struct timeval* tv) {
  return libusb_handle_events_timeout_completed(ctx, tv, nullptr);
}

int LIBUSB_CALL libusb_handle_events(libusb_context* ctx) {
  timeval tv{0, 100000};  // bounded so a pump loop can see its stop flag
  return libusb_handle_events_timeout_completed(ctx, &tv, nullptr);
}

}  // extern "C"
