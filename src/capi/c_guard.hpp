// What every C entry point shares: this thread's last error, and running a body so that no C++
// exception leaves the C API.
#pragma once

#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "zelvanor/zelvanor.h"

namespace zelvanor::capi {

void setLastError(std::string_view message) noexcept;
void clearLastError() noexcept;
const char* lastErrorText() noexcept;

inline zelvanor_status fail(zelvanor_status status, std::string_view message) noexcept {
  setLastError(message);
  return status;
}

// Runs `body` with the error cleared beforehand; nothing it throws leaves the function.
template <class Body>
zelvanor_status guarded(const char* operation, Body&& body) noexcept {
  clearLastError();
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(ZELVANOR_ERROR_OUT_OF_MEMORY, std::string_view(operation));
  } catch (const std::exception& error) {
    try {
      return fail(ZELVANOR_ERROR_INTERNAL, std::string(operation) + ": " + error.what());
    } catch (...) {
      return fail(ZELVANOR_ERROR_INTERNAL, operation);
    }
  } catch (...) {
    return fail(ZELVANOR_ERROR_INTERNAL, operation);
  }
}

template <class Body>
void guardedVoid(const char* operation, Body&& body) noexcept {
  static_cast<void>(guarded(operation, [&] {
    body();
    return ZELVANOR_OK;
  }));
}

}  // namespace zelvanor::capi
