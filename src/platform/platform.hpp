// TEMPORARY: replaced by the platform layer branch.
#pragma once
#include <cstdint>
namespace zelvanor::platform {
long secondsFromGMT(std::int64_t unixTime);
}
