// The usbdevfs side of the testbed. libusb's Linux backend does every transfer, synchronous or
// not, as URBs: SUBMITURB, then REAPURBNDELAY when its event loop polls the device node, and
// DISCARDURB when a transfer times out or is cancelled. Control transfers are URBs on endpoint 0
// with the setup packet in front of the data.
//
// umockdev calls the handler on its own worker thread and the handler must not block there, so
// a bulk IN URB stays in flight until the adapter has bytes for it: every reap tries again
// without waiting. OUT URBs complete at once.
#include "sim/umockdev/usbfs_testbed.h"

#include <errno.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace usbfs {
namespace {

constexpr uint8_t kRequestIdentity = 0x50;
// What an xHCI host reports: one URB per transfer of any size, zero-length packets on request.
constexpr uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM;

// A URB the handler holds: its memory in the client, resolved when it was submitted.
struct Urb {
  UMockdevIoctlData* urb = nullptr;     // struct usbdevfs_urb
  UMockdevIoctlData* buffer = nullptr;  // its data, or null for a zero-length transfer
  usbdevfs_urb* fields() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
  void release() {
    if (buffer) g_object_unref(buffer);
    g_object_unref(urb);
  }
};

struct ClientUrbs {
  std::deque<Urb> in_flight;  // bulk IN, in submission order, waiting for adapter data
  std::deque<Urb> completed;  // reapable, in completion order
};

struct Node {
  std::shared_ptr<sim::VirtualAdapter> adapter;
  std::string syspath;  // /sys/devices/...
  std::string devnode;  // /dev/bus/usb/BBB/DDD
  bool gone = false;
  bool scatter_gather = true;
  std::map<UMockdevIoctlClient*, ClientUrbs> clients;
  std::vector<Transfer> transfers;
  Counters counters;
  std::deque<std::pair<uint8_t, int>> faults;  // endpoint, URB status

  // The status the next URB on `endpoint` fails with, or 0.
  int take_fault(uint8_t endpoint) {
    auto it =
        std::find_if(faults.begin(), faults.end(), [&](auto& f) { return f.first == endpoint; });
    if (it == faults.end()) return 0;
    const int status = it->second;
    faults.erase(it);
    return status;
  }
};

struct Testbed {
  // Guards the nodes; the worker thread takes it for every ioctl. umockdev is never called
  // under it, so the worker cannot wait on the test thread while the test thread waits on it.
  std::mutex mutex;
  std::vector<std::shared_ptr<Node>> nodes;  // never shrinks: the worker may still hold one
  std::map<uint32_t, std::shared_ptr<Node>> attached;

  // Guards the sysfs layout; taken by test threads around the calls into umockdev.
  std::mutex setup_mutex;
  UMockdevTestbed* testbed = nullptr;
  std::map<std::string, std::string> hubs;  // sysfs name -> syspath
  std::map<uint8_t, uint8_t> next_address;  // per bus
};

Testbed& bed() {
  static auto* b = new Testbed;
  return *b;
}

std::string hex(const std::vector<uint8_t>& bytes) {
  std::string out;
  char digits[3];
  for (uint8_t b : bytes) {
    std::snprintf(digits, sizeof digits, "%02X", b);
    out += digits;
  }
  return out;
}

void put16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(uint8_t(v));
  out.push_back(uint8_t(v >> 8));
}

// Device descriptor and one configuration: interface 0 (vendor class) with bulk endpoints
// 0x81, 0x01 and 0x02 for an adapter; no interface for a hub (libusb only reads it).
std::vector<uint8_t> descriptors(uint16_t vendor, uint16_t product, bool adapter, int speed) {
  const bool high = speed >= 3;
  std::vector<uint8_t> d{18, 1};
  put16(d, high ? 0x0200 : 0x0110);
  d.insert(d.end(), {uint8_t(adapter ? 0 : 9), 0, 0, 64});
  put16(d, vendor);
  put16(d, product);
  put16(d, 0x0100);
  d.insert(d.end(), {0, 0, 0, 1});
  const uint8_t endpoints = adapter ? 3 : 0;
  d.insert(d.end(), {9, 2});
  put16(d, uint16_t(9 + 9 + 7 * endpoints));
  d.insert(d.end(), {1, 1, 0, 0x80, 50});
  d.insert(d.end(), {9, 4, 0, 0, endpoints, uint8_t(adapter ? 0xFF : 9), 0, 0, 0});
  for (uint8_t ep : {0x81, 0x01, 0x02}) {
    if (!adapter) break;
    d.insert(d.end(), {7, 5, ep, 2});
    put16(d, high ? 512 : 64);
    d.push_back(0);
  }
  return d;
}

const char* speed_text(int speed) {
  switch (speed) {
    case 2:
      return "12";
    case 4:
      return "5000";
    default:
      return "480";
  }
}

// One umockdev-record paragraph for a USB device.
std::string record(const std::string& path, uint8_t bus, uint8_t address, int speed,
                   uint16_t vendor, uint16_t product, bool adapter) {
  char node[32];
  std::snprintf(node, sizeof node, "bus/usb/%03u/%03u", bus, address);
  char text[512];
  std::snprintf(text, sizeof text,
                "P: %s\nN: %s\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=/dev/%s\n"
                "E: BUSNUM=%03u\nE: DEVNUM=%03u\nA: busnum=%u\nA: devnum=%u\nA: speed=%s\n"
                "A: bConfigurationValue=1\nA: idVendor=%04x\nA: idProduct=%04x\n",
                path.c_str(), node, node, bus, address, bus, address, speed_text(speed), vendor,
                product);
  return std::string(text) + "H: descriptors=" + hex(descriptors(vendor, product, adapter, speed)) +
         "\n\n";
}

bool add_record(const std::string& text) {
  GError* error = nullptr;
  if (umockdev_testbed_add_from_string(bed().testbed, text.c_str(), &error)) return true;
  std::fprintf(stderr, "usbfs testbed: %s\n", error ? error->message : "invalid record");
  if (error) g_error_free(error);
  return false;
}

uint8_t take_address(uint8_t bus) {
  auto& next = bed().next_address[bus];
  if (next < 2) next = 2;  // 1 is the root hub
  return next++;
}

// The root hub and every hub of the chain above the port, created once. Returns the parent's
// sysfs path (without the /sys prefix).
std::string ensure_hubs(uint8_t bus, const std::vector<uint8_t>& chain) {
  std::string name = "usb" + std::to_string(bus);
  std::string path = "/devices/pci0000:00/0000:00:14.0/" + name;
  if (!bed().hubs.count(name)) {
    bed().hubs[name] = path;
    add_record(record(path, bus, 1, 3, 0x1d6b, 0x0002, false));
  }
  std::string hub_name = std::to_string(bus) + "-";
  for (size_t i = 0; i + 1 < chain.size(); ++i) {
    hub_name += (i ? "." : "") + std::to_string(chain[i]);
    path += "/" + hub_name;
    if (!bed().hubs.count(hub_name)) {
      bed().hubs[hub_name] = path;
      add_record(record(path, bus, take_address(bus), 3, 0x05e3, 0x0610, false));
    }
  }
  return path;
}

// ----- the ioctl handler (umockdev's worker thread) --------------------------------------------

UMockdevIoctlData* resolve(UMockdevIoctlData* data, size_t offset, size_t length) {
  GError* error = nullptr;
  UMockdevIoctlData* out = umockdev_ioctl_data_resolve(data, offset, length, &error);
  if (error) g_error_free(error);
  return out;
}

void log_urb(Node& node, const Urb& urb) {
  const usbdevfs_urb* u = urb.fields();
  Transfer t;
  if (u->type == USBDEVFS_URB_TYPE_CONTROL) {
    const uint8_t* setup = urb.buffer->data;
    t.kind = Transfer::Kind::kControl;
    t.endpoint = setup[1];
    t.requested = setup[6] | setup[7] << 8;
    if (u->actual_length > 0) t.data.assign(setup + 8, setup + 8 + u->actual_length);
  } else {
    t.kind = Transfer::Kind::kBulk;
    t.endpoint = u->endpoint;
    t.requested = u->buffer_length;
    if (u->actual_length > 0) t.data.assign(urb.buffer->data, urb.buffer->data + u->actual_length);
  }
  t.result = u->status;  // 0, or the URB's negative errno
  node.transfers.push_back(std::move(t));
}

void complete(Node& node, ClientUrbs& urbs, Urb urb, int status, int actual) {
  urb.fields()->status = status;
  urb.fields()->actual_length = actual;
  log_urb(node, urb);
  urbs.completed.push_back(urb);
}

// The adapter answers its identity request and the vendor OUT requests its firmware knows; it
// stalls any other.
void control(Node& node, ClientUrbs& urbs, Urb urb) {
  uint8_t* setup = urb.buffer ? urb.buffer->data : nullptr;
  if (!setup || urb.fields()->buffer_length < 8) return complete(node, urbs, urb, -EPIPE, 0);
  const uint8_t type = setup[0], request = setup[1];
  const int length = setup[6] | setup[7] << 8;
  if (type == 0xC1 && request == kRequestIdentity && length >= 4) {
    const uint32_t identity = node.adapter->handle();
    std::memcpy(setup + 8, &identity, 4);  // the firmware answers in host byte order
    return complete(node, urbs, urb, 0, 4);
  }
  if (type == 0x41 && length == 0 && node.adapter->control_out(request))
    return complete(node, urbs, urb, 0, 0);
  complete(node, urbs, urb, -EPIPE, 0);
}

int submit(Node& node, ClientUrbs& urbs, UMockdevIoctlData* arg) {
  Urb urb;
  urb.urb = resolve(arg, 0, sizeof(usbdevfs_urb));
  if (!urb.urb) return EFAULT;
  usbdevfs_urb* u = urb.fields();
  if (u->buffer_length > 0) {
    urb.buffer = resolve(urb.urb, offsetof(usbdevfs_urb, buffer), size_t(u->buffer_length));
    if (!urb.buffer) {
      urb.release();
      return EFAULT;
    }
  }
  if (u->type == USBDEVFS_URB_TYPE_CONTROL && u->endpoint == 0) {
    control(node, urbs, urb);
    return 0;
  }
  const bool known = u->endpoint == 0x81 || u->endpoint == 0x01 || u->endpoint == 0x02;
  if (u->type != USBDEVFS_URB_TYPE_BULK || !known) {
    urb.release();
    return ENOENT;
  }
  if (u->endpoint & 0x80) {
    urbs.in_flight.push_back(urb);
    return 0;
  }
  if (const int status = node.take_fault(u->endpoint)) {
    complete(node, urbs, urb, status, 0);
    return 0;
  }
  if (u->buffer_length > 0) node.adapter->receive(urb.buffer->data, size_t(u->buffer_length));
  complete(node, urbs, urb, 0, u->buffer_length);
  return 0;
}

int discard(Node& node, ClientUrbs& urbs, UMockdevIoctlData* arg) {
  const unsigned long address = *reinterpret_cast<unsigned long*>(arg->data);
  auto it = std::find_if(urbs.in_flight.begin(), urbs.in_flight.end(),
                         [&](const Urb& u) { return u.urb->client_addr == address; });
  if (it == urbs.in_flight.end()) return EINVAL;
  Urb urb = *it;
  urbs.in_flight.erase(it);
  ++node.counters.discards;
  complete(node, urbs, urb, -ENOENT, 0);
  return 0;
}

// Gives the head IN URB whatever the adapter has now: at most the rest of one reply segment.
void fill_in_urb(Node& node, ClientUrbs& urbs) {
  if (urbs.in_flight.empty()) return;
  Urb& urb = urbs.in_flight.front();
  const int length = urb.fields()->buffer_length;
  if (const int status = node.take_fault(urb.fields()->endpoint)) {
    Urb done = urb;
    urbs.in_flight.pop_front();
    return complete(node, urbs, done, status, 0);
  }
  if (length == 0) {
    Urb done = urb;
    urbs.in_flight.pop_front();
    return complete(node, urbs, done, 0, 0);
  }
  const int got =
      node.adapter->read(urb.buffer->data, size_t(length), std::chrono::milliseconds(0));
  if (got <= 0) return;
  Urb done = urb;
  urbs.in_flight.pop_front();
  complete(node, urbs, done, 0, got);
}

int reap(Node& node, ClientUrbs& urbs, UMockdevIoctlData* arg) {
  if (urbs.completed.empty()) fill_in_urb(node, urbs);
  if (urbs.completed.empty()) return EAGAIN;
  UMockdevIoctlData* slot = resolve(arg, 0, sizeof(void*));
  if (!slot) return EFAULT;
  Urb urb = urbs.completed.front();
  urbs.completed.pop_front();
  umockdev_ioctl_data_set_ptr(slot, 0, urb.urb);
  g_object_unref(slot);
  urb.release();  // the reply holds what it needs until it is written back
  return 0;
}

int interface_call(Node& node, UMockdevIoctlData* arg, int Counters::*counter) {
  UMockdevIoctlData* number = resolve(arg, 0, sizeof(unsigned int));
  if (!number) return EFAULT;
  const unsigned int interface = *reinterpret_cast<unsigned int*>(number->data);
  g_object_unref(number);
  if (interface != 0) return EINVAL;
  ++(node.counters.*counter);
  return 0;
}

int handle(Node& node, UMockdevIoctlClient* client, unsigned long request, UMockdevIoctlData* arg) {
  ClientUrbs& urbs = node.clients[client];
  if (node.gone) {
    // URBs killed by the unplug are still reaped, then the device node only says ENODEV.
    const bool reaping = request == USBDEVFS_REAPURB || request == USBDEVFS_REAPURBNDELAY;
    return reaping && !urbs.completed.empty() ? reap(node, urbs, arg) : ENODEV;
  }
  switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
      UMockdevIoctlData* caps = resolve(arg, 0, sizeof(uint32_t));
      if (!caps) return EFAULT;
      *reinterpret_cast<uint32_t*>(caps->data) =
          kCapabilities | (node.scatter_gather ? USBDEVFS_CAP_BULK_SCATTER_GATHER : 0);
      g_object_unref(caps);
      return 0;
    }
    case USBDEVFS_CLAIMINTERFACE:
      return interface_call(node, arg, &Counters::claims);
    case USBDEVFS_RELEASEINTERFACE:
      return interface_call(node, arg, &Counters::releases);
    case USBDEVFS_DISCONNECT_CLAIM:  // how libusb claims again after a reset
      return interface_call(node, arg, &Counters::claims);
    case USBDEVFS_GETDRIVER:
    case USBDEVFS_IOCTL:
      return ENODATA;  // no kernel driver is bound to the adapter
    case USBDEVFS_RESET:
      ++node.counters.resets;
      node.adapter->reset();
      return 0;
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
      return 0;
    case USBDEVFS_SUBMITURB:
      return submit(node, urbs, arg);
    case USBDEVFS_DISCARDURB:
      return discard(node, urbs, arg);
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY:
      return reap(node, urbs, arg);
    default:
      std::fprintf(stderr, "usbfs testbed: ioctl 0x%lx not emulated\n", request);
      return ENOTTY;
  }
}

gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
  Node& node = *static_cast<Node*>(user);
  int error;
  {
    std::lock_guard guard(bed().mutex);
    error = handle(node, client, umockdev_ioctl_client_get_request(client),
                   umockdev_ioctl_client_get_arg(client));
  }
  umockdev_ioctl_client_complete(client, error ? -1 : 0, error);
  return TRUE;
}

void on_connected(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer user) {
  std::lock_guard guard(bed().mutex);
  ++static_cast<Node*>(user)->counters.opens;
}

// libusb_close: the kernel kills what the file still had in flight.
void on_vanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
  Node& node = *static_cast<Node*>(user);
  std::lock_guard guard(bed().mutex);
  auto it = node.clients.find(client);
  if (it == node.clients.end()) return;
  for (auto& urb : it->second.in_flight) urb.release();
  for (auto& urb : it->second.completed) urb.release();
  node.clients.erase(it);
}

std::shared_ptr<Node> find(uint32_t handle) {
  auto it = bed().attached.find(handle);
  return it == bed().attached.end() ? nullptr : it->second;
}

}  // namespace

bool preload_active() {
  const char* preload = std::getenv("LD_PRELOAD");
  return preload && std::strstr(preload, "libumockdev-preload");
}

void start() {
  std::lock_guard guard(bed().setup_mutex);
  if (!bed().testbed) bed().testbed = umockdev_testbed_new();
}

void stop() {
  unplug_all();
  std::lock_guard guard(bed().setup_mutex);
  if (bed().testbed) g_object_unref(bed().testbed);
  bed().testbed = nullptr;
}

std::shared_ptr<sim::VirtualAdapter> plug(uint32_t handle, const Port& port, bool scatter_gather) {
  start();
  auto node = std::make_shared<Node>();
  node->scatter_gather = scatter_gather;
  node->adapter = std::make_shared<sim::VirtualAdapter>(handle);
  std::lock_guard setup_guard(bed().setup_mutex);
  std::string path = ensure_hubs(port.bus, port.chain);
  std::string name = std::to_string(port.bus) + "-";
  for (size_t i = 0; i < port.chain.size(); ++i)
    name += (i ? "." : "") + std::to_string(port.chain[i]);
  // A device without ports is a root hub's sibling that libusb can give no port chain.
  if (port.chain.empty()) name = "usb" + std::to_string(port.bus) + "-noport";
  path += "/" + name;
  const uint8_t address = take_address(port.bus);
  char devnode[32];
  std::snprintf(devnode, sizeof devnode, "/dev/bus/usb/%03u/%03u", port.bus, address);
  node->syspath = "/sys" + path;
  node->devnode = devnode;
  if (!add_record(
          record(path, port.bus, address, port.speed, port.vendor_id, port.product_id, true)))
    return nullptr;
  UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(on_ioctl), node.get());
  g_signal_connect(handler, "client-connected", G_CALLBACK(on_connected), node.get());
  g_signal_connect(handler, "client-vanished", G_CALLBACK(on_vanished), node.get());
  GError* error = nullptr;
  if (!umockdev_testbed_attach_ioctl(bed().testbed, devnode, handler, &error)) {
    std::fprintf(stderr, "usbfs testbed: %s\n", error ? error->message : "attach failed");
    if (error) g_error_free(error);
    g_object_unref(handler);
    return nullptr;
  }
  g_object_unref(handler);  // the testbed keeps its reference
  std::lock_guard guard(bed().mutex);
  bed().nodes.push_back(node);
  bed().attached[handle] = node;
  return node->adapter;
}

bool unplug(uint32_t handle) {
  std::shared_ptr<Node> node;
  {
    std::lock_guard guard(bed().mutex);
    node = find(handle);
    if (!node) return false;
    node->gone = true;
    // The host controller gives back every URB in flight with -ESHUTDOWN, as when the
    // adapter's port goes dead.
    for (auto& [client, urbs] : node->clients) {
      while (!urbs.in_flight.empty()) {
        Urb urb = urbs.in_flight.front();
        urbs.in_flight.pop_front();
        complete(*node, urbs, urb, -ESHUTDOWN, 0);
      }
    }
    bed().attached.erase(handle);
  }
  std::lock_guard setup_guard(bed().setup_mutex);
  umockdev_testbed_uevent(bed().testbed, node->syspath.c_str(), "remove");
  umockdev_testbed_remove_device(bed().testbed, node->syspath.c_str());
  return true;
}

void unplug_all() {
  std::vector<uint32_t> handles;
  {
    std::lock_guard guard(bed().mutex);
    for (auto& [handle, node] : bed().attached) handles.push_back(handle);
  }
  for (uint32_t handle : handles) unplug(handle);
  // Hubs go too, deepest first, so that a later test may put an adapter where a hub was.
  std::lock_guard setup_guard(bed().setup_mutex);
  std::vector<std::string> hubs;
  for (auto& [name, path] : bed().hubs)
    if (name.rfind("usb", 0) != 0) hubs.push_back(path);
  std::sort(hubs.begin(), hubs.end(), [](auto& a, auto& b) { return a.size() > b.size(); });
  for (auto& path : hubs) {
    const std::string syspath = "/sys" + path;
    umockdev_testbed_uevent(bed().testbed, syspath.c_str(), "remove");
    umockdev_testbed_remove_device(bed().testbed, syspath.c_str());
  }
  std::erase_if(bed().hubs, [](auto& hub) { return hub.first.rfind("usb", 0) != 0; });
}

std::shared_ptr<sim::VirtualAdapter> adapter(uint32_t handle) {
  std::lock_guard guard(bed().mutex);
  auto node = find(handle);
  return node ? node->adapter : nullptr;
}

std::vector<Transfer> transfers(uint32_t handle) {
  std::lock_guard guard(bed().mutex);
  auto node = find(handle);
  return node ? node->transfers : std::vector<Transfer>{};
}

void clear_transfers(uint32_t handle) {
  std::lock_guard guard(bed().mutex);
  if (auto node = find(handle)) {
    node->transfers.clear();
    node->counters = {};
  }
}

void fail_next_urb(uint32_t handle, uint8_t endpoint, int status) {
  std::lock_guard guard(bed().mutex);
  if (auto node = find(handle)) node->faults.emplace_back(endpoint, status);
}

Counters counters(uint32_t handle) {
  std::lock_guard guard(bed().mutex);
  auto node = find(handle);
  return node ? node->counters : Counters{};
}

}  // namespace usbfs
