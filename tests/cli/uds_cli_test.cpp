// `varnel uds` against the virtual bus's diagnostic ECU: one hex line per response, negative
// responses by name (the list goes on; exit 1 at the end), usage errors with exit 2 before any
// adapter is touched.
#include "cli_support.h"

using namespace cli_test;

TEST(UdsCli, ResponsesInHexAndNegativeOnesByName) {
  struct Case {
    const char* args;
    int exit_code;
    const char* out;
  } cases[] = {
      {"--sim uds can0 7E0 7E8 1003 22F186", 0, "50 03 00 32 01 F4\n62 F1 86 03\n"},
      // a refusal does not end the list; the exit code tells of it at the end
      {"--sim uds can0 7E0 7E8 3E00 22F1FF 3E00", 1,
       "7E 00\n7F 22 31 (requestOutOfRange)\n7E 00\n"},
      {"--sim uds can0 7E0 7E8 --no-iso-timing 22DEAD 22F186", 1,
       "7F 22 31 (requestOutOfRange)\n62 F1 86 01\n"},
      {"--sim uds 0x12345678:0 7E0 7E8 -x 10 3E00", 1, ""},  // nobody answers at address 0x10
      {"--sim-ecu 18DA10F1/18DAF110 uds can0 18DA10F1 18DAF110 3E00", 0, "7E 00\n"},
      {"--sim uds can0 7E0 7E8 22F19", 2, ""},  // odd digit count
      {"--sim uds can0 7E0 80000000 3E00", 2, ""},
      {"--sim uds can0 7E0 7E8 -x 100 3E00", 2, ""},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
  }
}
