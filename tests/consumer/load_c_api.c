/* Loads a library with dlopen, as a Python ctypes host would, and calls the C API through the
 * symbols it finds there. Usage: load_c_api LIBRARY. A NULL block name fails before the SDK
 * starts, so the call needs no data directory and leaves nothing behind. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

typedef int (*set_function)(const char*, const char*);
typedef const char* (*last_error_function)(void);

int main(int argc, char** argv) {
  void* library;
  set_function set;
  last_error_function last_error;
  int status;
  if (argc < 2) return 2;
  library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  /* POSIX lets a data pointer from dlsym be converted to a function pointer this way. */
  *(void**)(&set) = dlsym(library, "zelvanor_set");
  *(void**)(&last_error) = dlsym(library, "zelvanor_last_error");
  if (!set || !last_error) {
    fprintf(stderr, "%s does not export the C API\n", argv[1]);
    return 1;
  }
  status = set(NULL, "{}");
  if (status != 1 || !strstr(last_error(), "NULL")) {
    fprintf(stderr, "zelvanor_set(NULL, ...) returned %d, \"%s\"\n", status, last_error());
    return 1;
  }
  printf("C API through dlopen: %s\n", last_error());
  return 0;
}
