// One worker thread running tasks in submission order. While it has nothing to run it may serve
// I/O that lives on the same thread (the HTTP client's sockets), so that the SDK needs no thread
// of its own for the network.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace zelvanor::support {

/// How an idle worker waits: until its next timer or a new task, serving its own I/O meanwhile.
class IdleWait {
 public:
  virtual ~IdleWait() = default;
  /// Returns once `deadline` has passed, wake() was called, or some I/O work was done (whose
  /// callbacks may have queued tasks). Runs on the worker with no lock held.
  virtual void waitUntil(std::optional<std::chrono::steady_clock::time_point> deadline) = 0;
  /// Makes the current or the next waitUntil() return soon. Any thread.
  virtual void wake() noexcept = 0;
  /// The worker has ended: nothing will call waitUntil() again.
  virtual void ended() noexcept {}
};

class SerialQueue {
 public:
  /// What the worker runs first, on its own thread. The SDK's queues pass the platform's
  /// priority lowering; support/ sits below the platform code and cannot call it itself.
  using ThreadStart = void (*)() noexcept;

  /// `onStart` may be null.
  SerialQueue(std::string label, ThreadStart onStart);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Queues a task; dropped once stop() has begun.
  void async(std::function<void()> task);
  /// Queues a task to run once `delay` has passed (behind whatever is queued by then); dropped,
  /// not run, once stop() has begun.
  void asyncAfter(std::chrono::steady_clock::duration delay, std::function<void()> task);
  /// Runs a task on the worker and waits for it. From the worker itself, or after stop, it runs
  /// inline on the caller instead of waiting on itself.
  void sync(const std::function<void()>& task);
  bool isCurrent() const noexcept;
  /// From now on the worker waits through `wait` rather than sleeping on its own.
  void setIdleWait(std::shared_ptr<IdleWait> wait);
  /// Runs everything already queued, then ends the worker; from the worker itself, the queued
  /// tasks run inline before it returns. Idempotent.
  void stop();
  const std::string& label() const noexcept { return label_; }

 private:
  // Shared with the worker, which may outlive this object when it is destroyed from a task.
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers;
    bool stopping = false;
    std::thread::id workerId;
    std::shared_ptr<IdleWait> idleWait;
  };
  static void run(const std::shared_ptr<State>& state);
  static void runQueuedInline(const std::shared_ptr<State>& state);
  static void wake(State& state);

  const std::string label_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::thread worker_;
};

}  // namespace zelvanor::support
