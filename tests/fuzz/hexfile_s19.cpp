// libFuzzer target: hexfile_convert_s19 on arbitrary text.
#include "hexfile_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return varnel_fuzz::fuzz_converter(hexfile_convert_s19, VARNEL_HEXFILE_S19, data, size);
}
