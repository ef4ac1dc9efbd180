// Symbol export for the Zelvanor library: everything not marked ZELVANOR_API stays hidden.
#pragma once

#if defined(ZELVANOR_STATIC)
#define ZELVANOR_API
#elif defined(_WIN32)
#if defined(ZELVANOR_BUILDING)
#define ZELVANOR_API __declspec(dllexport)
#else
#define ZELVANOR_API __declspec(dllimport)
#endif
#else
#define ZELVANOR_API __attribute__((visibility("default")))
#endif

// The C API is exported from the static library too: a host that links libzelvanor.a into its
// own shared library (a Python extension, a plugin) must still offer zelvanor_* to dlsym and
// ctypes, and the library is compiled with hidden visibility by default.
#if defined(_WIN32)
#define ZELVANOR_C_API ZELVANOR_API
#else
#define ZELVANOR_C_API __attribute__((visibility("default")))
#endif
