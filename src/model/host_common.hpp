// A common block that reaches the SDK as JSON from a host (the C API, the command line) is built
// the way a C++ host builds one, so the three ways in give the same block.
#pragma once

#include "zelvanor/blocks.hpp"

namespace zelvanor::detail {

/// Rebuilds a decoded common block through ZCommon(Fields): svcDomain falls back to the host's
/// bundle identifier, and accessTime is derived from accessTimeStamp in the device's zone. A given
/// "access_time" or "request_timestamp" is not kept, as neither is the host's to give: the first
/// is derived (absent without a stamp), the second is stamped when a record is built.
ZCommon commonFromHost(ZCommon decoded);

}  // namespace zelvanor::detail
