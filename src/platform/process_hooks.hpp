// Process events the SDK must survive: a fork. The child of a fork has none of the SDK's threads,
// so it must not use, stop or flush the copy of the SDK it inherited.
#pragma once

namespace zelvanor::platform {

/// Registers handlers run around fork(): `prepare` in the forking thread before it, then
/// `parent` in the parent and `child` in the child. Does nothing where there is no fork.
void atFork(void (*prepare)(), void (*parent)(), void (*child)()) noexcept;

}  // namespace zelvanor::platform
