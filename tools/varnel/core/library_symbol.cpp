#include "core/library_symbol.h"

#include <dlfcn.h>

namespace varnel_cli {

bool names_library_symbol(const std::string& text) {
  const size_t colon = text.rfind(':');
  return colon != std::string::npos && colon != 0 && colon + 1 != text.size();
}

void* find_library_symbol(const std::string& text, std::string& why) {
  const size_t colon = text.rfind(':');
  void* library = dlopen(text.substr(0, colon).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    why = dlerror();
    return nullptr;
  }
  void* symbol = dlsym(library, text.substr(colon + 1).c_str());
  if (!symbol) why = "no function " + text.substr(colon + 1) + " in " + text.substr(0, colon);
  return symbol;
}

}  // namespace varnel_cli
