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
