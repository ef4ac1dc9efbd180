// The host's privacy controls inside the manager: the before-send hook (process-wide) with the
// records each thread holds until the manager's lock is released, so that the hook never runs
// under it, and the key that keeps the collection switch in the settings file.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "manager/internal_log_manager.hpp"

namespace zelvanor::detail {

inline constexpr std::string_view kCollectionKey = "collectionEnabled";

/// Whether a hook is set: one relaxed load, so a track without a hook pays nothing more.
bool beforeSendSet() noexcept;
std::shared_ptr<const BeforeSendHook> currentBeforeSend();
/// The records of the innermost HeldRecords on this thread (null outside one). Inline: every
/// track builds a HeldRecords, so this stays a thread-local access.
inline std::vector<ZInternalLogManager::HookedRecord>*& heldRecordsHere() noexcept {
  thread_local std::vector<ZInternalLogManager::HookedRecord>* held = nullptr;
  return held;
}

// Declared before the manager's lock in every path that may build a record: records built
// under the lock wait here and meet the host's hook once it is released (destructors run in
// reverse order), so a hook that calls back into the SDK cannot deadlock.
class ZInternalLogManager::HeldRecords {
 public:
  explicit HeldRecords(ZInternalLogManager& manager) noexcept
      : manager_(manager), previous_(heldRecordsHere()) {
    heldRecordsHere() = &records_;
  }
  ~HeldRecords() {
    heldRecordsHere() = previous_;
    if (records_.empty()) return;
    try {
      manager_.sendHeld(std::move(records_));
    } catch (...) {
      // Out of memory while queueing: the records are lost, the host's thread goes on.
    }
  }
  HeldRecords(const HeldRecords&) = delete;
  HeldRecords& operator=(const HeldRecords&) = delete;

 private:
  ZInternalLogManager& manager_;
  std::vector<HookedRecord>* previous_;
  std::vector<HookedRecord> records_;
};

}  // namespace zelvanor::detail
