// The values in a record that identify a person or a device: what diagnostics never show.
#pragma once

#include <string>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// Every value of the id block (tokens and user ids among them), the non-empty ones.
std::vector<std::string> identifyingValues(const ZId& id);
/// The identity triple, the id block, the ucid and the agent's address.
std::vector<std::string> identifyingValues(const ZLogRecord& record);

}  // namespace zelvanor::detail
