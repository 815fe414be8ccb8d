// The firmware's housekeeping: identity records, the user-data flash, power level, the device
// time base and the IP settings. Other family models read the device time through device_time_*
// so that every time stamp the adapter hands out shares one time base.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "sim/virtual_adapter.h"

namespace sim {

constexpr size_t kUserDataSize = 20 * 1024;
constexpr size_t kUserDataSectorSize = 4 * 1024;  // 5 sectors
constexpr size_t kDeviceInfoSize = 88;
constexpr size_t kHardwareInfoSize = 64;
// At or above this firmware version the LIN calls take the extended command path.
constexpr uint32_t kDefaultFirmwareVersion = 0x01050020;

struct DeviceModel {
  std::mutex mutex;
  uint32_t firmware_version = kDefaultFirmwareVersion;
  uint32_t hardware_version = 0x00020001;
  std::string functions = "CAN,CANFD,LIN,KLINE,I2C,SPI,UART,GPIO,PWM,ADC";
  std::string ip_address = "192.168.1.10";
  uint8_t power_level = 0;
  uint64_t time_base_us = 0;       // device clock reading at the last time-base reset
  int64_t last_correction_ms = 0;  // host time sent with the last correction (0: none)
  uint32_t corrections = 0;
  std::array<uint8_t, kUserDataSize> user_data;
  DeviceModel() { user_data.fill(0xFF); }
};

// Device time since the last time-base reset (now, or at an instant of the host's clock).
uint64_t device_time_us(VirtualAdapter& adapter);
uint64_t device_time_us(VirtualAdapter& adapter, std::chrono::steady_clock::time_point instant);
inline uint64_t device_time_ms(VirtualAdapter& adapter) {
  return device_time_us(adapter) / 1000;
}

// The 88-byte device information record and the 64-byte hardware record, as the firmware sends
// them (layouts in docs/virtual-adapter.md).
std::array<uint8_t, kDeviceInfoSize> device_info_record(VirtualAdapter& adapter);
std::array<uint8_t, kHardwareInfoSize> hardware_info_record(VirtualAdapter& adapter);

void install_device(VirtualAdapter& adapter);

}  // namespace sim
