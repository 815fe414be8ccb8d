// GPIO firmware of the virtual adapter: commands 0x0600-0x0604 and the pulse train 0x0806.
#include "sim/families/gpio.h"

#include "sim/virtual_adapter.h"

namespace sim {

bool GpioModel::level_locked(int index) const {
  const Pin& p = pins_[size_t(index)];
  if (p.mode == Mode::kOutput) return p.latch;
  // An open-drain pin pulls low on 0 and lets go on 1, where the line behaves as an input.
  if (p.mode == Mode::kOpenDrain && !p.latch) return false;
  if (p.driven) return p.external;
  return p.pull == kPullUp;
}

bool GpioModel::level(int index) const {
  std::lock_guard guard(mutex_);
  return level_locked(index);
}

uint32_t GpioModel::levels(uint32_t mask) const {
  std::lock_guard guard(mutex_);
  uint32_t values = 0;
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u && level_locked(i)) values |= 1u << i;
  return values;
}

void GpioModel::drive(uint32_t mask, uint32_t values) {
  std::lock_guard guard(mutex_);
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u) {
      pins_[size_t(i)].driven = true;
      pins_[size_t(i)].external = (values >> i) & 1u;
    }
}

void GpioModel::release(uint32_t mask) {
  std::lock_guard guard(mutex_);
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u) pins_[size_t(i)].driven = false;
}

GpioModel::Pin GpioModel::pin(int index) const {
  std::lock_guard guard(mutex_);
  return pins_.at(size_t(index));
}

std::vector<GpioModel::Level> GpioModel::log_levels_locked(uint32_t mask, uint64_t now_us) {
  std::vector<Level> levels;
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u && pins_[size_t(i)].mode != Mode::kInput) {
      levels.push_back({i, level_locked(i), now_us});
      log_.push_back(levels.back());
      if (log_.size() > kLevelLog) log_.pop_front();
    }
  return levels;
}

void GpioModel::notify(const std::vector<Level>& levels) {
  std::vector<LevelListener> listeners;
  {
    std::lock_guard guard(mutex_);
    listeners = listeners_;
  }
  for (const Level& level : levels)
    for (auto& listener : listeners) listener(level);
}

void GpioModel::on_level(LevelListener listener) {
  std::lock_guard guard(mutex_);
  listeners_.push_back(std::move(listener));
}

std::vector<GpioModel::Level> GpioModel::levels_set(int pin) const {
  std::lock_guard guard(mutex_);
  std::vector<Level> out;
  for (const Level& level : log_)
    if (level.pin == pin) out.push_back(level);
  return out;
}

uint8_t GpioModel::configure(uint32_t mask, Mode mode, uint8_t pull, uint64_t now_us) {
  if (mask & ~kValidPins) return kBadPin;
  if (pull > kPullDown) return kBadPull;
  std::vector<Level> levels;
  {
    std::lock_guard guard(mutex_);
    for (int i = 0; i < kPins; ++i)
      if ((mask >> i) & 1u) {
        pins_[size_t(i)].mode = mode;
        pins_[size_t(i)].pull = pull;
      }
    levels = log_levels_locked(mask, now_us);
  }
  notify(levels);
  return 0;
}

uint8_t GpioModel::write(uint32_t mask, uint32_t values, uint64_t now_us) {
  if (mask & ~kValidPins) return kBadPin;
  std::vector<Level> levels;
  {
    std::lock_guard guard(mutex_);
    // The latch of an input pin is written too and shows once the pin is made an output.
    for (int i = 0; i < kPins; ++i)
      if ((mask >> i) & 1u) pins_[size_t(i)].latch = (values >> i) & 1u;
    levels = log_levels_locked(mask, now_us);
  }
  notify(levels);
  return 0;
}

uint8_t GpioModel::read(uint32_t mask, uint32_t& values) const {
  if (mask & ~kValidPins) return kBadPin;
  values = levels(mask);
  return 0;
}

uint8_t GpioModel::pulse(uint32_t mask, int32_t count) {
  if (mask & ~kValidPins) return kBadPin;
  if (count < 0) return kBadCount;
  std::lock_guard guard(mutex_);
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u && pins_[size_t(i)].mode == Mode::kInput) return kNotOutput;
  // Each pulse is high for its width, then low: the train leaves the pins low.
  for (int i = 0; i < kPins; ++i)
    if ((mask >> i) & 1u) {
      pins_[size_t(i)].pulses += uint64_t(count);
      pins_[size_t(i)].latch = false;
    }
  return 0;
}

namespace {

std::optional<Packet> answer(uint32_t command, uint8_t refusal) {
  if (refusal) return reply_with(command, {refusal});
  return reply_with(command);
}

std::optional<Packet> handle_gpio(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<GpioModel>();
  const auto& p = request.payload;
  const uint32_t command = request.command;
  switch (command) {
    case 0x0600:
    case 0x0601:
    case 0x0602: {
      if (p.size() != 5) return answer(command, GpioModel::kBadLength);
      auto mode = command == 0x0600   ? GpioModel::Mode::kInput
                  : command == 0x0601 ? GpioModel::Mode::kOutput
                                      : GpioModel::Mode::kOpenDrain;
      return answer(command, model.configure(be32(p, 0), mode, p[4], adapter.clock().now_us()));
    }
    case 0x0603:
      if (p.size() != 8) return answer(command, GpioModel::kBadLength);
      return answer(command, model.write(be32(p, 0), be32(p, 4), adapter.clock().now_us()));
    case 0x0604: {
      if (p.size() != 4) return answer(command, GpioModel::kBadLength);
      uint32_t values = 0;
      if (uint8_t refusal = model.read(be32(p, 0), values)) return answer(command, refusal);
      std::vector<uint8_t> reply;
      append_be32(reply, values);
      return reply_with(command, std::move(reply));
    }
    default:
      return std::nullopt;  // unknown GPIO command: no reply
  }
}

std::optional<Packet> handle_pulses(VirtualAdapter& adapter, const Packet& request) {
  const auto& p = request.payload;
  if (p.size() != 16) return answer(request.command, GpioModel::kBadLength);
  const uint32_t mask = be32(p, 0);
  const uint32_t period = be32(p, 8);
  const int32_t count = int32_t(be32(p, 12));
  if (uint8_t refusal = adapter.state<GpioModel>().pulse(mask, count))
    return answer(request.command, refusal);
  // The firmware answers after the last pulse: the train's time passes on the device clock.
  adapter.clock().advance_us(uint64_t(period) * uint64_t(count));
  return answer(request.command, 0);
}

}  // namespace

void install_gpio(VirtualAdapter& adapter) {
  adapter.on(0x0600, 0x06FF, handle_gpio);
  adapter.on(0x0806, 0x0806, handle_pulses);
}

VARNEL_SIM_FAMILY(install_gpio)

}  // namespace sim
