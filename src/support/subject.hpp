// Publish/subscribe: a subject that keeps its current value, and one that only passes values on.
// Subscribers are called outside the subject's lock, so they may send or subscribe themselves.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace zelvanor::support {

/// Handle of one subscription. Dropping it does not end the subscription (handles are kept in
/// sets that only grow); cancel() does.
class Cancellable {
 public:
  Cancellable() = default;
  explicit Cancellable(std::shared_ptr<std::atomic<bool>> active) : active_(std::move(active)) {}
  void cancel() noexcept {
    if (active_) active_->store(false);
  }

 private:
  std::shared_ptr<std::atomic<bool>> active_;
};

/// Subscription handles of one owner; it only grows.
class CancellableSet {
 public:
  void insert(Cancellable cancellable) {
    std::lock_guard lock(mutex_);
    handles_.push_back(std::move(cancellable));
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return handles_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Cancellable> handles_;
};

namespace detail {

template <class T>
class SubscriberList {
 public:
  using Callback = std::function<void(const T&)>;

  // Callers hold mutex().
  Cancellable add(Callback callback) {
    auto active = std::make_shared<std::atomic<bool>>(true);
    subscribers_.push_back({std::make_shared<Callback>(std::move(callback)), active});
    return Cancellable(active);
  }
  // Delivers in subscription order to every subscriber still active.
  void deliver(
      const T& value,
      const std::vector<std::pair<std::shared_ptr<Callback>, std::shared_ptr<std::atomic<bool>>>>&
          snapshot) {
    for (const auto& [callback, active] : snapshot) {
      if (!active->load()) continue;
      try {
        (*callback)(value);
      } catch (...) {
        // One failing subscriber must not keep the value from the others.
      }
    }
  }
  auto snapshotLocked() const { return subscribers_; }
  std::mutex& mutex() const { return mutex_; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::shared_ptr<Callback>, std::shared_ptr<std::atomic<bool>>>>
      subscribers_;
};

}  // namespace detail

/// Passes each value to the subscribers present at the time; keeps nothing.
template <class T>
class PassthroughSubject {
 public:
  void send(const T& value) {
    decltype(list_.snapshotLocked()) snapshot;
    {
      std::lock_guard lock(list_.mutex());
      snapshot = list_.snapshotLocked();
    }
    list_.deliver(value, snapshot);
  }
  Cancellable subscribe(std::function<void(const T&)> callback) {
    std::lock_guard lock(list_.mutex());
    return list_.add(std::move(callback));
  }

 private:
  detail::SubscriberList<T> list_;
};

/// Keeps the latest value; a new subscriber receives it at once unless it asks to skip it.
///
/// Deliveries of one subject never overlap: a subscriber sees values in the order they were sent,
/// and the current value handed to a new subscriber can never arrive after a newer one (a network
/// state sent while the manager subscribes must not be overwritten by the stale one). The lock
/// is recursive so that a subscriber may send or subscribe on the same subject; subscribers must
/// not wait for another thread that sends on it.
template <class T>
class CurrentValueSubject {
 public:
  explicit CurrentValueSubject(T initial) : value_(std::move(initial)) {}

  T value() const {
    std::lock_guard lock(list_.mutex());
    return value_;
  }
  void send(T value) {
    std::lock_guard delivering(deliveryMutex_);
    decltype(list_.snapshotLocked()) snapshot;
    {
      std::lock_guard lock(list_.mutex());
      value_ = value;
      snapshot = list_.snapshotLocked();
    }
    list_.deliver(value, snapshot);
  }
  Cancellable subscribe(std::function<void(const T&)> callback, bool skipCurrent = false) {
    if (skipCurrent) {
      std::lock_guard lock(list_.mutex());
      return list_.add(std::move(callback));
    }
    std::lock_guard delivering(deliveryMutex_);
    Cancellable handle;
    std::optional<T> current;
    auto first = std::make_shared<std::function<void(const T&)>>(callback);
    {
      std::lock_guard lock(list_.mutex());
      current = value_;
      handle = list_.add(std::move(callback));
    }
    try {
      (*first)(*current);
    } catch (...) {
      // As with send: a failing subscriber keeps its subscription and the caller is unharmed.
    }
    return handle;
  }

 private:
  detail::SubscriberList<T> list_;
  T value_;
  std::recursive_mutex deliveryMutex_;
};

}  // namespace zelvanor::support
