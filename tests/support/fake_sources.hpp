// Sources a test controls: a transport that records what it is handed, an identity source that
// answers when told, and a network monitor whose state the test sets.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "manager/internal_log_manager.hpp"
#include "network/reachability.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::testing {

class RecordingTransport final : public detail::RecordTransport {
 public:
  struct Sent {
    ZLogRecord record;
    bool networkAvailable;
  };

  // Restored records come back as the real transport counts them: waiting on disk, read back
  // when the queue sends them. Spilled ones wait behind them.
  void restore(std::function<void(std::uint64_t)> restored) override {
    std::unique_lock lock(mutex_);
    ++restoreCalls_;
    for (auto& record : std::exchange(pending_, {})) onDisk_.push_back(encodeJson(record).value());
    const auto count = onDisk_.size();
    diskLine().join(count);
    lock.unlock();  // counted under the lock, reported outside it
    restored(count);
  }
  std::uint64_t room() const override { return std::numeric_limits<std::uint64_t>::max(); }
  void setListener(std::function<void()>) override {}
  void send(std::uint64_t diskThrough, std::vector<std::string> records,
            bool networkAvailable) override {
    std::lock_guard lock(mutex_);
    while (!onDisk_.empty() && diskLine().takeOne(diskThrough)) {
      sent_.push_back({decode(onDisk_.front()), networkAvailable});
      onDisk_.pop_front();
    }
    for (const auto& record : records) sent_.push_back({decode(record), networkAvailable});
  }
  void networkChanged(bool available) override {
    std::lock_guard lock(mutex_);
    networkChanges_.push_back(available);
  }
  std::vector<bool> networkChanges() const { return locked(networkChanges_); }
  void spill(std::vector<std::string> records) override {
    std::lock_guard lock(mutex_);
    ++spills_;
    diskLine().join(records.size());
    for (auto& record : records) onDisk_.push_back(std::move(record));
  }
  /// Drops the oldest records waiting on disk, as the store does for space.
  void dropOldestOnDisk(std::size_t count) {
    std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < count && !onDisk_.empty(); ++i) onDisk_.pop_front();
    diskLine().leave(count);
  }
  void keepLate(std::string record) override {
    std::lock_guard lock(mutex_);
    keptLate_.push_back(decode(record));
  }
  std::vector<std::string> takeKeptTemplates() override {
    std::lock_guard lock(mutex_);
    return std::exchange(keptTemplates_, {});
  }
  void shutdown(std::vector<std::string>, std::vector<std::string> templates) override {
    std::lock_guard lock(mutex_);
    keptTemplates_ = std::move(templates);
  }

  void setPending(std::vector<ZLogRecord> records) {
    std::lock_guard lock(mutex_);
    pending_ = std::move(records);
  }
  std::vector<Sent> sent() const { return locked(sent_); }
  std::vector<std::string> sentActionKinds() const {
    std::vector<std::string> kinds;
    for (const auto& s : sent()) kinds.push_back(s.record.action.kind);
    return kinds;
  }
  std::vector<ZLogRecord> keptLate() const { return locked(keptLate_); }
  int restoreCalls() const { return locked(restoreCalls_); }
  int spills() const { return locked(spills_); }
  std::size_t waitingOnDisk() const { return locked(onDisk_).size(); }

 private:
  template <class T>
  T locked(const T& member) const {
    std::lock_guard lock(mutex_);
    return member;
  }
  static ZLogRecord decode(const std::string& json) {
    auto decoded = decodeJson<ZLogRecord>(json);
    return decoded ? std::move(decoded).value() : ZLogRecord{};
  }
  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
  std::vector<ZLogRecord> pending_;
  std::deque<std::string> onDisk_;
  std::vector<ZLogRecord> keptLate_;
  std::vector<std::string> keptTemplates_;
  int restoreCalls_ = 0;
  int spills_ = 0;
  std::vector<bool> networkChanges_;
};

class ManualIdentity final : public detail::IdentitySource {
 public:
  ManualIdentity() = default;
  /// Knows the triple from the start, as a device holding the identity cookies does.
  explicit ManualIdentity(ZXid known) : known_(std::move(known)) {}
  void retry() override { ++retries_; }
  int retries() const { return retries_.load(); }
  support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) override {
    ++fetches_;
    if (known_) onTriple(*known_);
    return subject_.subscribe(std::move(onTriple));
  }
  void deliver(const ZXid& xid) { subject_.send(xid); }
  int fetches() const { return fetches_.load(); }

 private:
  std::atomic<int> fetches_{0};
  std::atomic<int> retries_{0};
  std::optional<ZXid> known_;
  support::PassthroughSubject<ZXid> subject_;
};

class ManualNetwork final : public detail::NetworkMonitor {
 public:
  void startIfNeeded() override {}
  support::CurrentValueSubject<detail::NetworkState>& states() override { return states_; }
  void pushFlags(std::uint32_t flags) override {
    states_.send(detail::ZReachability::stateFor(flags));
  }
  void stop() override {}

 private:
  support::CurrentValueSubject<detail::NetworkState> states_{detail::NetworkState::wifi};
};

struct FakeSources {
  std::shared_ptr<RecordingTransport> transport = std::make_shared<RecordingTransport>();
  std::shared_ptr<ManualIdentity> identity = std::make_shared<ManualIdentity>();
  std::shared_ptr<ManualNetwork> network = std::make_shared<ManualNetwork>();
  std::shared_ptr<platform::SettingsStore> settings{};

  detail::ManagerSources sources() const { return {transport, identity, network, settings}; }
};

}  // namespace zelvanor::testing
