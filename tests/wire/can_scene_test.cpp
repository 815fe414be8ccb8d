// The virtual bus scene that users set up from text (environment or the tool's options).
#include "sim/bus/can_scene.h"

#include <gtest/gtest.h>

TEST(CanScene, MalformedTextStartsNothingAndSaysWhy) {
  const std::string timing = "' (use 500000 or 500000/2000000)",
                    traffic = "' (use ID#DATA@MS, e.g. 123#DEADBEEF@100)";
  struct Case {
    const char *timing, *traffic;
    std::string error;
  } cases[] = {
      {"fast", "", "bad bit timing 'fast" + timing},
      {"500000/", "", "bad bit timing '500000/" + timing},
      {"0", "", "bad bit timing '0" + timing},
      {"", "123#11", "bad traffic item '123#11" + traffic},
      {"", "123#11@10,800#11@10", "bad traffic item '800#11@10" + traffic},
      {"", "123#11@3600001", "bad traffic item '123#11@3600001" + traffic},
  };
  auto bus = std::make_shared<sim::CanBus>();
  for (const auto& c : cases) {
    std::string error;
    EXPECT_EQ(sim::start_can_scene(c.timing, c.traffic, bus, &error), nullptr)
        << c.timing << c.traffic;
    EXPECT_EQ(error, c.error);
  }
}

TEST(CanScene, TrafficGoesOutOnlyOnceAControllerFetches) {
  auto bus = std::make_shared<sim::CanBus>();
  std::string error;
  auto scene = sim::start_can_scene("250000", "123#11@10", bus, &error);
  ASSERT_NE(scene, nullptr) << error;
  auto listener = sim::CanPeer::create(bus, {250000, 0});
  bus->advance_us(50000);
  bus->catch_up();  // the first fetch: the schedule starts now
  EXPECT_EQ(listener->received_count(), 0u);
  bus->advance_us(105000);  // ten periods, and room for a slow machine
  bus->catch_up();
  ASSERT_EQ(listener->received_count(), 10u);
  EXPECT_EQ(listener->received()[0].id, 0x123u);
  EXPECT_EQ(bus->frames_carried(), 10u);
}
