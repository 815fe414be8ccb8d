// A function a user hands the tool in a shared library of their own, given as LIB.so:SYMBOL (a
// key routine of security access, for example).
#pragma once

#include <string>

namespace varnel_cli {

// True when `text` has the LIB:SYMBOL shape (a colon with text on both sides).
bool names_library_symbol(const std::string& text);
// The address of SYMBOL in LIB, or null with `why` set. The library stays loaded for the
// process's life: its functions are called later.
void* find_library_symbol(const std::string& text, std::string& why);

}  // namespace varnel_cli
