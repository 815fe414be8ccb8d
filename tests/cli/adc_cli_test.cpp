// `varnel adc` against the virtual adapter's inputs: input 0 a ramp from 0, input 1 a 50 Hz sine.
#include <fstream>

#include "cli_support.h"

using namespace cli_test;

TEST(AdcCli, ReadPrintsARowPerInstantAndStreamSummarisesWhatCame) {
  // sin(2 pi 50 k / 1000) for k = 1, 2: 0.309, 0.588 of 2047 above 2048
  ToolRun read = varnel("--sim adc 0x12345678 read -m 0x03 -n 3");
  EXPECT_EQ(read.exit_code, 0) << read.err;
  EXPECT_EQ(read.out, "sample,in0,in1\n0,0,2048\n1,1,2681\n2,2,3251\n");

  const std::string csv = temp_path("adc.csv");
  ToolRun stream = varnel("--sim adc 0x12345678 stream -r 100000 --seconds 0.2 --csv " + csv);
  EXPECT_EQ(stream.exit_code, 0) << stream.err;
  EXPECT_NE(stream.out.find("packets lost: 0\n"), std::string::npos) << stream.out;
  EXPECT_NE(stream.out.find("in0: min 0 mean "), std::string::npos) << stream.out;
  EXPECT_NE(stream.out.find(" max 4095\n"), std::string::npos) << stream.out;
  std::ifstream rows(csv);
  std::string line;
  std::getline(rows, line);
  EXPECT_EQ(line, "sample,in0");
  for (int k = 0; k < 5000 && std::getline(rows, line); ++k)
    ASSERT_EQ(line, std::to_string(k) + "," + std::to_string(k % 4096));
  std::remove(csv.c_str());

  for (const char* bad : {"--sim adc 0x12345678 read -m 0x100", "--sim adc 0x12345678 stream -r 0"})
    EXPECT_EQ(varnel(bad).exit_code, 2) << bad;
}
