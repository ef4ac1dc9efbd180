#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "platform/memory_hints.hpp"

namespace zelvanor::platform {

void adviseLargeBuffer(void* data, std::size_t bytes) noexcept {
  // Smaller buffers could not hold a single huge page anyway.
  constexpr std::size_t kHugePage = std::size_t{2} << 20;
  if (data == nullptr || bytes < 2 * kHugePage) return;
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pageSize <= 0) return;
  const auto page = static_cast<std::uintptr_t>(pageSize);
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  // madvise takes whole pages; only the pages inside the buffer are ours to advise.
  const std::uintptr_t first = (begin + page - 1) & ~(page - 1);
  const std::uintptr_t last = (begin + bytes) & ~(page - 1);
  if (last <= first) return;
  // A page-aligned address inside the caller's own buffer.
  (void)::madvise(reinterpret_cast<void*>(first),  // NOLINT(performance-no-int-to-ptr)
                  last - first, MADV_HUGEPAGE);
}

}  // namespace zelvanor::platform
