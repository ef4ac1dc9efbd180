#include "platform/memory_hints.hpp"

namespace zelvanor::platform {

void adviseLargeBuffer(void*, std::size_t) noexcept {}

}  // namespace zelvanor::platform
