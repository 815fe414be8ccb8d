// VARNEL_GetVersion: the version the library was built as (project VERSION in CMakeLists.txt).
#include "varnel.h"
#include "varnel_version.h"

VARNEL_API const char* VARNEL_GetVersion(void) {
  return VARNEL_VERSION_STRING;
}
