// The monitor's own logic, without a server: what a page is sent (table rows with decoded
// signals, the trace's bound, deltas against full updates), the plot decimation and the bounded
// queue per page.
#include "monitor/monitor_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "monitor/json_text.h"
#include "monitor/update_hub.h"
#include "src/can/can_text.h"

namespace varnel_cli::monitor {
namespace {

MonitorFrame frame(const std::string& text, uint64_t at_us, size_t channel = 0) {
  MonitorFrame f;
  f.channel = channel;
  f.at_us = at_us;
  f.msg = *varnel::can_text::parse_frame(text);
  return f;
}

TEST(MonitorJson, EscapesStringsAndKeepsNumbersValid) {
  std::string out;
  append_json_string(out, "a\"b\\c\n\x01");
  append_json_number(out, NAN);
  out += ",";
  append_json_number(out, -0.25);
  EXPECT_EQ(out, R"("a\"b\\c\u000a\u0001"null,-0.25)");
}

TEST(MonitorDecimator, OnePointPerIntervalKeepsTheExtremesAndSkipsNaN) {
  SignalDecimator d;
  EXPECT_FALSE(d.take());
  for (auto [at, v] : {std::pair{1000, 5.0}, {2000, -3.0}, {3000, NAN}, {4000, 9.5}, {5000, 1.0}})
    d.add(uint64_t(at), v);
  const auto p = d.take();
  ASSERT_TRUE(p);
  EXPECT_EQ(p->at_us, 1000u);
  EXPECT_EQ(p->min, -3.0);
  EXPECT_EQ(p->max, 9.5);
  EXPECT_EQ(p->last, 1.0);
  EXPECT_EQ(p->count, 4u);
  EXPECT_FALSE(d.take());  // the next interval starts empty
}

class MonitorModelTest : public ::testing::Test {
 protected:
  DBC_HANDLE db =
      VARNEL_DbcLoadFileEx(VARNEL_SOURCE_DIR "/tests/cli/data/bench.dbc", VARNEL_DBC_STANDARD);
};

TEST_F(MonitorModelTest, RowCarriesCountsChangedBytesAndDecodedSignals) {
  ASSERT_NE(db, 0u);
  MonitorModel model({{"can0", 500000, 2000000}}, db);
  model.add(frame("123#E803011E00000000", 1000000));
  model.add(frame("123#E803021E00000000", 1010000));
  const std::string json = model.update_json(1010000, false);
  // Speed 0x03E8 * 0.1 = 100 km/h, Gear 2 = "Second", Coolant (byte 3, signed) 30 - 40 = -10 degC
  EXPECT_NE(json.find(R"("id":"123","ext":false,"fd":false,"brs":false,"rtr":false,"len":8,)"
                      R"("count":2,"period_ms":10,"jitter_ms":null,"data":"E803021E00000000",)"
                      R"("changed":[0,0,1,0,0,0,0,0],"msg":"Engine","signals":[)"
                      R"({"name":"Speed","value":100,"unit":"km/h"},)"
                      R"({"name":"Gear","value":2,"unit":"","choice":"Second"},)"
                      R"({"name":"Coolant","value":-10,"unit":"degC"}]})"),
            std::string::npos)
      << json;
  // one plot point per signal for the interval, with both frames' gears as its extremes
  EXPECT_NE(json.find(R"("can0/Engine.Gear":[1000000,1,2,2,2])"), std::string::npos) << json;
}

TEST_F(MonitorModelTest, DeltaHoldsOnlyChangedRowsAndTraceKeepsTheNewest) {
  MonitorLimits limits;
  limits.trace_rows_per_update = 3;
  MonitorModel model({{"can0", 500000, 0}, {"can1", 500000, 0}}, 0, limits);
  model.add(frame("100#01", 1000));
  model.add(frame("12345678#02", 2000, 1));
  model.update_json(2000, false);
  model.end_interval();
  for (int i = 0; i < 5; ++i) model.add(frame("100#0" + std::to_string(i), 3000 + uint64_t(i)));
  const std::string delta = model.update_json(4000, false);
  EXPECT_EQ(delta.find("12345678"), std::string::npos) << delta;
  EXPECT_NE(delta.find(R"("trace_skipped":2,"trace":[{"ch":0,"t":3002,"id":"100")"),
            std::string::npos)
      << delta;
  const std::string full = model.update_json(4000, true);
  EXPECT_NE(full.find(R"({"ch":1,"id":"12345678","ext":true)"), std::string::npos) << full;
}

TEST(MonitorUpdateHub, SlowPageLosesItsOldestUpdatesAndGetsTheWholeStateAgain) {
  UpdateHub hub(1, 2);
  auto page = hub.connect();
  ASSERT_TRUE(page);
  EXPECT_FALSE(hub.connect());  // one page at most
  auto text = [](const char* s) { return std::make_shared<const std::string>(s); };
  hub.publish(text("d1"), text("f1"));  // a new page wants the whole state first
  hub.publish(text("d2"), nullptr);
  hub.publish(text("d3"), nullptr);  // over the bound: f1 goes
  EXPECT_EQ(page->queued(), 2u);
  EXPECT_TRUE(hub.any_wants_full());
  auto first = page->pop(std::chrono::milliseconds(0));
  ASSERT_TRUE(first);
  EXPECT_EQ(*first->update, "d2");
  EXPECT_EQ(first->dropped_total, 1u);
  hub.publish(text("d4"), text("f4"));
  EXPECT_EQ(*page->pop(std::chrono::milliseconds(0))->update, "d3");
  EXPECT_EQ(*page->pop(std::chrono::milliseconds(0))->update, "f4");
  EXPECT_FALSE(hub.any_wants_full());
  hub.disconnect(page);
  EXPECT_TRUE(hub.connect());
}

}  // namespace
}  // namespace varnel_cli::monitor
