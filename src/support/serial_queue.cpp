#include "support/serial_queue.hpp"

namespace zelvanor::support {

SerialQueue::SerialQueue(std::string label, ThreadStart onStart) : label_(std::move(label)) {
  std::lock_guard lock(state_->mutex);
  worker_ = std::thread([state = state_, onStart] {
    if (onStart != nullptr) onStart();
    run(state);
  });
  state_->workerId = worker_.get_id();
}

SerialQueue::~SerialQueue() {
  stop();
}

bool SerialQueue::isCurrent() const noexcept {
  std::lock_guard lock(state_->mutex);
  return std::this_thread::get_id() == state_->workerId;
}

void SerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) return;
    state_->tasks.push_back(std::move(task));
  }
  wake(*state_);
}

void SerialQueue::wake(State& state) {
  std::shared_ptr<IdleWait> idleWait;
  {
    std::lock_guard lock(state.mutex);
    idleWait = state.idleWait;
  }
  if (idleWait) idleWait->wake();
  state.wake.notify_one();
}

void SerialQueue::setIdleWait(std::shared_ptr<IdleWait> wait) {
  {
    std::lock_guard lock(state_->mutex);
    state_->idleWait = std::move(wait);
  }
  state_->wake.notify_one();
}

void SerialQueue::asyncAfter(std::chrono::steady_clock::duration delay,
                             std::function<void()> task) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) return;
    state_->timers.emplace(std::chrono::steady_clock::now() + delay, std::move(task));
  }
  wake(*state_);
}

void SerialQueue::sync(const std::function<void()>& task) {
  std::mutex doneMutex;
  std::condition_variable doneSignal;
  bool done = false;
  bool runInline = false;
  {
    std::lock_guard lock(state_->mutex);
    runInline = state_->stopping || std::this_thread::get_id() == state_->workerId;
    if (!runInline) {
      state_->tasks.push_back([&] {
        try {
          task();
        } catch (...) {
        }
        std::lock_guard doneLock(doneMutex);
        done = true;
        doneSignal.notify_one();
      });
    }
  }
  if (runInline) {
    task();
    return;
  }
  wake(*state_);
  std::unique_lock doneLock(doneMutex);
  doneSignal.wait(doneLock, [&] { return done; });
}

void SerialQueue::stop() {
  std::thread worker;
  bool fromWorker = false;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    fromWorker = std::this_thread::get_id() == state_->workerId;
    worker = std::move(worker_);
  }
  wake(*state_);
  if (fromWorker) {
    // Stopped by one of its own tasks (a shutdown the host starts from a callback on this
    // thread, or the last owner let go here): what is queued runs now, before stop returns, as
    // it would for any other caller; the worker then ends on its own and is let go.
    runQueuedInline(state_);
    if (worker.joinable()) worker.detach();
    return;
  }
  if (worker.joinable()) worker.join();
}

void SerialQueue::runQueuedInline(const std::shared_ptr<State>& state) {
  for (;;) {
    std::function<void()> task;
    {
      std::lock_guard lock(state->mutex);
      if (state->tasks.empty()) return;
      task = std::move(state->tasks.front());
      state->tasks.pop_front();
    }
    try {
      task();
    } catch (...) {
      // As on the worker: a failing task must not end the others.
    }
  }
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(state->mutex);
      for (;;) {
        if (!state->stopping && !state->timers.empty() &&
            state->timers.begin()->first <= std::chrono::steady_clock::now()) {
          // A timer that is due queues behind what is already waiting.
          state->tasks.push_back(std::move(state->timers.begin()->second));
          state->timers.erase(state->timers.begin());
        }
        if (state->stopping || !state->tasks.empty()) break;
        std::optional<std::chrono::steady_clock::time_point> deadline;
        if (!state->timers.empty()) deadline = state->timers.begin()->first;
        if (auto idleWait = state->idleWait) {
          // A task queued from now on wakes the wait, so none is missed while unlocked.
          lock.unlock();
          idleWait->waitUntil(deadline);
          lock.lock();
        } else if (deadline) {
          state->wake.wait_until(lock, *deadline);
        } else {
          state->wake.wait(lock);
        }
      }
      if (state->tasks.empty()) {
        // Dropped timers' captures are released outside the lock: one may own this queue.
        auto dropped = std::move(state->timers);
        state->timers.clear();
        auto idleWait = std::move(state->idleWait);
        lock.unlock();
        if (idleWait) idleWait->ended();
        return;
      }
      task = std::move(state->tasks.front());
      state->tasks.pop_front();
    }
    try {
      task();
    } catch (...) {
      // A failing task must not end the worker, nor the host process.
    }
  }
}

}  // namespace zelvanor::support
