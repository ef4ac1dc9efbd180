// A host that carries the SDK's requests over its own HTTP stack (a console, a TV, an app that
// already ships one). Here the "stack" is a worker thread that prints each request and answers
// as a collector would; a real host calls its own client in place of `carry`.
#include <zelvanor/tracker.hpp>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

using namespace zelvanor;

class HostStackClient final : public ZHttpClient {
 public:
  HostStackClient() : worker_([this] { run(); }) {}
  ~HostStackClient() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    worker_.join();
  }

  // Never blocks the SDK: the request is queued for the host's own thread.
  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back({std::move(request), std::move(done)});
    }
    wake_.notify_one();
  }

 private:
  struct Job {
    ZHttpRequest request;
    std::function<void(ZHttpResult)> done;
  };

  static ZHttpResult carry(const ZHttpRequest& request) {
    std::printf("%s %s (%zu bytes)\n", request.method.c_str(), request.url.c_str(),
                request.body->size());
    if (request.url.find("/sync") != std::string::npos) {
      // The identity triple, as the sync server sets it: cookies the SDK keeps by itself.
      return ZHttpResponse{
          200,
          {{"Set-Cookie", "fa_cid=cid-1; Max-Age=86400"},
           {"Set-Cookie", "fa_did=did-1; Max-Age=86400"},
           {"Set-Cookie", "fa_sid=sid-1; Max-Age=86400"}},
          R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[{"cid":"cid-1","did":"did-1","sid":"sid-1"}]})"};
    }
    return ZHttpResponse{200, {}, "ok"};
  }

  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping: what was never answered the SDK keeps for later
      Job job = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      job.done(carry(job.request));
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> queue_;
  bool stopping_ = false;
  std::thread worker_;
};

int main() {
  // Before the SDK starts: every request of this run goes through the host's client.
  ZelvanorTracker::setHttpClient(std::make_shared<HostStackClient>());
  ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://collector.example", "https://collector.example", "https://sync.example"});
  ZelvanorTracker::setProduction().setReachabilityFlags(0x2).set(
      ZCommon({.serviceName = "console-game", .deployment = "production"}));
  // Events tracked before the identity triple wait for it; this one goes straight out.
  ZelvanorTracker::waitUntilReady(std::chrono::seconds(5));
  ZelvanorTracker::set(ZAction("event", "level_start", "play")).track(false, false);
  ZelvanorTracker::flushAndWait(std::chrono::seconds(5));
  const ZCounters counters = ZelvanorTracker::counters();
  std::printf("delivered %llu record(s)\n", static_cast<unsigned long long>(counters.delivered));
  ZelvanorTracker::shutdown();
  ZelvanorTracker::setHttpClient(nullptr);
  return counters.delivered > 0 ? 0 : 1;
}
