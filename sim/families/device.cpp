// Housekeeping commands: 0x0010-0x0017 (power level, time base, IP settings) and 0x0100-0x010E
// (device and hardware information, user-data flash).
#include "sim/families/device.h"

#include <algorithm>
#include <cstring>

namespace sim {
namespace {

constexpr char kFirmwareName[] = "VARNEL virtual adapter";
constexpr char kBuildDate[] = __DATE__ " " __TIME__;

// The firmware answers a request it refuses with one status byte, so the host sees a reply of
// the wrong length.
constexpr uint8_t kStatusRefused = 0x01;

void put_le32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

std::vector<uint8_t> be64(uint64_t v) {
  std::vector<uint8_t> out(8);
  for (int i = 0; i < 8; ++i) out[size_t(i)] = uint8_t(v >> (56 - 8 * i));
  return out;
}

// The device time goes out as the firmware holds it in memory, least significant byte first.
std::vector<uint8_t> le64(uint64_t v) {
  std::vector<uint8_t> out(8);
  for (int i = 0; i < 8; ++i) out[size_t(i)] = uint8_t(v >> (8 * i));
  return out;
}

Packet refused(uint32_t command) {
  return reply_with(command, {kStatusRefused});
}

std::optional<Packet> housekeeping(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<DeviceModel>();
  const auto& in = request.payload;
  switch (request.command) {
    case 0x0010:  // power level
      if (in.size() != 1) return refused(request.command);
      {
        std::lock_guard guard(model.mutex);
        model.power_level = in[0];
      }
      return reply_with(request.command);
    case 0x0011: {  // time stamp of a timer: 0 microseconds, 1 milliseconds
      if (in.size() != 1 || in[0] > 1) return refused(request.command);
      uint64_t us = device_time_us(adapter);
      return reply_with(request.command, be64(in[0] == 0 ? us : us / 1000));
    }
    case 0x0012: {  // reset the time base
      std::lock_guard guard(model.mutex);
      model.time_base_us = adapter.clock().now_us();
      return reply_with(request.command);
    }
    case 0x0014: {  // host time correction: 8 bytes, little-endian, as the host lays them out
      if (in.size() != 8) return refused(request.command);
      int64_t host_ms = 0;
      for (int i = 7; i >= 0; --i) host_ms = (host_ms << 8) | in[size_t(i)];
      std::lock_guard guard(model.mutex);
      model.last_correction_ms = host_ms;
      ++model.corrections;
      return reply_with(request.command);
    }
    case 0x0015:  // device time in milliseconds, little-endian
      return reply_with(request.command, le64(device_time_ms(adapter)));
    case 0x0016: {  // set IP address: 16 bytes of text, NUL padded
      if (in.size() != 16) return refused(request.command);
      std::lock_guard guard(model.mutex);
      model.ip_address.assign(reinterpret_cast<const char*>(in.data()),
                              strnlen(reinterpret_cast<const char*>(in.data()), 15));
      return reply_with(request.command);
    }
    case 0x0017: {  // IP address text, 16 bytes, NUL padded
      std::vector<uint8_t> out(16, 0);
      std::lock_guard guard(model.mutex);
      std::memcpy(out.data(), model.ip_address.data(),
                  std::min<size_t>(15, model.ip_address.size()));
      return reply_with(request.command, out);
    }
    default:
      return std::nullopt;
  }
}

std::optional<Packet> information(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<DeviceModel>();
  const auto& in = request.payload;
  switch (request.command) {
    case 0x0100: {
      auto record = device_info_record(adapter);
      return reply_with(request.command, {record.begin(), record.end()});
    }
    case 0x0106: {
      std::lock_guard guard(model.mutex);
      return reply_with(request.command, {model.functions.begin(), model.functions.end()});
    }
    case 0x010D: {
      auto record = hardware_info_record(adapter);
      return reply_with(request.command, {record.begin(), record.end()});
    }
    case 0x0107: {  // write user data: offset, then data; flash writes only clear bits
      if (in.size() < 4) return refused(request.command);
      const uint32_t offset = be32(in, 0);
      const size_t count = in.size() - 4;
      if (offset % 4 || offset > kUserDataSize || count > kUserDataSize - offset)
        return refused(request.command);
      std::lock_guard guard(model.mutex);
      for (size_t i = 0; i < count; ++i) model.user_data[offset + i] &= in[4 + i];
      return reply_with(request.command);
    }
    case 0x0108: {  // read user data: offset, count; the reply stops at the end of the area
      if (in.size() != 8) return refused(request.command);
      const uint32_t offset = be32(in, 0);
      const uint32_t count = be32(in, 4);
      if (offset % 4 || offset >= kUserDataSize) return reply_with(request.command);
      const size_t n = std::min<size_t>(count, kUserDataSize - offset);
      std::lock_guard guard(model.mutex);
      return reply_with(request.command,
                        {model.user_data.begin() + offset, model.user_data.begin() + offset + n});
    }
    case 0x0109: {  // erase all: about 100 ms per sector on the device
      std::lock_guard guard(model.mutex);
      model.user_data.fill(0xFF);
      adapter.clock().advance_us(500'000);
      return reply_with(request.command);
    }
    case 0x010E: {  // erase one sector
      if (in.size() != 4) return refused(request.command);
      const uint32_t sector = be32(in, 0);
      if (sector >= kUserDataSize / kUserDataSectorSize) return refused(request.command);
      std::lock_guard guard(model.mutex);
      std::fill_n(model.user_data.begin() + sector * kUserDataSectorSize, kUserDataSectorSize,
                  uint8_t(0xFF));
      adapter.clock().advance_us(100'000);
      return reply_with(request.command);
    }
    default:
      return std::nullopt;
  }
}

}  // namespace

uint64_t device_time_us(VirtualAdapter& adapter) {
  return device_time_us(adapter, std::chrono::steady_clock::now());
}

uint64_t device_time_us(VirtualAdapter& adapter, std::chrono::steady_clock::time_point instant) {
  auto& model = adapter.state<DeviceModel>();
  uint64_t now = adapter.clock().at_us(instant);
  std::lock_guard guard(model.mutex);
  return now >= model.time_base_us ? now - model.time_base_us : 0;
}

std::array<uint8_t, kDeviceInfoSize> device_info_record(VirtualAdapter& adapter) {
  auto& model = adapter.state<DeviceModel>();
  std::array<uint8_t, kDeviceInfoSize> r{};
  std::memcpy(&r[0], kFirmwareName, sizeof kFirmwareName);
  std::memcpy(&r[32], kBuildDate, std::min<size_t>(31, sizeof kBuildDate - 1));
  std::lock_guard guard(model.mutex);
  put_le32(&r[64], model.hardware_version);
  put_le32(&r[68], model.firmware_version);
  const uint32_t h = adapter.handle();
  put_le32(&r[72], h);           // serial number: the handle, then two words
  put_le32(&r[76], 0x56524E4C);  // "VRNL"
  put_le32(&r[80], ~h);
  put_le32(&r[84], uint32_t(model.functions.size()));
  return r;
}

std::array<uint8_t, kHardwareInfoSize> hardware_info_record(VirtualAdapter& adapter) {
  std::array<uint8_t, kHardwareInfoSize> r{};
  const uint32_t h = adapter.handle();
  r[0] = 1;                 // record format
  r[1] = uint8_t(h >> 24);  // adapter kind
  r[2] = 2;                 // CAN channels
  r[3] = 2;                 // LIN channels
  put_le32(&r[4], h);
  constexpr char kModel[] = "VARNEL-SIM";
  std::memcpy(&r[8], kModel, sizeof kModel);
  return r;
}

void install_device(VirtualAdapter& adapter) {
  adapter.on(0x0010, 0x0017, housekeeping);
  adapter.on(0x0100, 0x010E, information);
}

VARNEL_SIM_FAMILY(install_device)

}  // namespace sim
