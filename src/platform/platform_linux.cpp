// TEMPORARY: replaced by the platform layer branch.
#include <ctime>
#include <mutex>
#include "platform/platform.hpp"
#include "zelvanor/platform.hpp"
namespace zelvanor {
namespace { std::mutex m; ZPlatformFacts facts; }
void setPlatformFacts(const ZPlatformFacts& o) { std::lock_guard l(m); facts = o; }
ZPlatformFacts currentPlatformFacts() { std::lock_guard l(m); return facts; }
namespace platform {
long secondsFromGMT(std::int64_t t) { time_t tt = t; tm out{}; if (!localtime_r(&tt, &out)) return 0; return out.tm_gmtoff; }
}
}
