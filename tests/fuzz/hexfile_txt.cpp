// libFuzzer target: hexfile_convert_txt on arbitrary text.
#include "hexfile_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return varnel_fuzz::fuzz_converter(hexfile_convert_txt, VARNEL_HEXFILE_TXT, data, size);
}
