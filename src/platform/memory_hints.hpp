// Hints to the system's memory manager. Only hints: where a platform has nothing to offer they do
// nothing, and nothing here fails or throws.
#pragma once

#include <cstddef>

namespace zelvanor::platform {

/// Says that a large buffer is about to be filled from front to back, so that the system may back
/// it with huge pages: restoring thousands of records otherwise pays one page fault per 4 KiB.
void adviseLargeBuffer(void* data, std::size_t bytes) noexcept;

}  // namespace zelvanor::platform
