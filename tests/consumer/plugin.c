/* A host's own shared library (a plugin, a Python extension) that links the static libzelvanor:
 * the C API must still be there for dlsym. */
#include "zelvanor/zelvanor.h"

int plugin_error_is_clear(void) {
  return zelvanor_last_error()[0] == '\0';
}
