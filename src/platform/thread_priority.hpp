// The SDK's own threads run below the host's: their work (encoding, sending, file writes) is
// never urgent, and a waking SDK thread must not push the host's thread off its core.
#pragma once

namespace zelvanor::platform {

/// Lowers the calling thread's scheduling priority a little; does nothing where the platform
/// offers no such thing. Never fails.
void lowerCurrentThreadPriority() noexcept;

}  // namespace zelvanor::platform
