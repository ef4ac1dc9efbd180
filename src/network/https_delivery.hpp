// Delivers records one per request and keeps what could not be sent in the pending store. The
// host's thread only hands records over; requests, answers and file access happen on the SDK's
// threads (the delivery worker and the HTTP client's thread). Only a record tracked after
// shutdown is appended on the host's thread: nothing else is left to keep it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

#include "network/http_api.hpp"
#include "platform/thread_priority.hpp"
#include "queue/record_transport.hpp"
#include "store/pending_store.hpp"
#include "support/retry_policy.hpp"
#include "support/serial_queue.hpp"
#include "transport/http_client.hpp"

namespace zelvanor::detail {

class HttpsDelivery final : public RecordTransport,
                            public std::enable_shared_from_this<HttpsDelivery> {
 public:
  using Counts = TransportCounts;

  /// `dataDirectory` empty: nothing is written to disk. `worker` is the SDK's one worker, shared
  /// with the manager and reachability; null gives this delivery a worker of its own.
  HttpsDelivery(std::shared_ptr<network::HttpClient> http, std::filesystem::path dataDirectory,
                ZStoreLimits limits = {}, support::RetryTimings retryTimings = {},
                std::shared_ptr<support::SerialQueue> worker = nullptr,
                std::shared_ptr<support::RetryPolicy> retryPolicy = nullptr);
  ~HttpsDelivery() override;

  void restore(std::function<void(std::uint64_t)> restored) override;
  std::uint64_t room() const override;
  std::uint64_t recordsHeld() const override;
  void keepPaceWithDisk() override;
  void setListener(std::function<void()> listener) override;
  void send(std::uint64_t diskThrough, std::vector<std::string> records,
            bool networkAvailable) override;
  void networkChanged(bool available) override;
  void spill(std::vector<std::string> records) override;
  void spillFromKeptTemplates(std::vector<std::string> records) override;
  void keepLate(std::string record) override;
  std::vector<std::string> takeKeptTemplates() override;
  void shutdown(std::vector<std::string> unsent, std::vector<std::string> templates) override;
  void deleteLocalData() override;
  void resumeSending() override;

  /// How long shutdown waits for in-flight answers before cancelling them.
  static constexpr std::chrono::milliseconds kInFlightGrace{200};
  /// Requests handed to the HTTP client at once: one per connection it keeps to the collector.
  /// Later records wait, in order, so a request's timeout starts when it can really be sent
  /// rather than while it queues for a connection.
  static constexpr std::size_t kMaxInFlight = network::HttpClient::kMaxConnectionsPerHost;
  /// Records taken for the network and not yet answered; the queue holds the rest. A smaller
  /// memory limit makes the window smaller: what waits for a connection is in memory too.
  static constexpr std::uint64_t kMaxOutstanding = 256;

  Counts counts() const override;
  bool waitUntilSettled(std::chrono::milliseconds timeout) override;
  /// Bytes the pending store holds on disk (worker's last view).
  std::uint64_t bytesOnDisk() const;

 private:
  struct SendCommand {
    std::uint64_t diskThrough = 0;
    std::vector<std::string> records;
    bool networkAvailable = false;
    RequestSettings settings;
  };
  struct SpillCommand {
    std::vector<std::string> records;
    bool fromKeptTemplates = false;  ///< once written, the store forgets those templates
  };
  using Command = std::variant<SendCommand, SpillCommand>;
  /// A record in memory waiting for a connection, behind the records on disk that the line let
  /// go before position `diskThrough`.
  struct Waiting {
    std::string bytes;
    std::uint64_t diskThrough = 0;
    RequestSettings settings;
    std::optional<StoreRef> ref;  ///< a record read from disk, back in line after "come back later"
    /// Held by a "come back later": when it went out, so that the held ones keep their order.
    std::optional<std::uint64_t> heldSince;
  };
  struct Next {
    std::shared_ptr<const std::string> bytes;  ///< also the request's body
    std::optional<StoreRef> ref;
    RequestSettings settings;
    std::uint64_t sentAs = 0;      ///< how many records went out before it
    std::uint64_t generation = 0;  ///< deleteLocalData() calls before it went out
  };

  /// Tries again, after the policy's wait, to take over what open() could not; reports newly
  /// found records through `restored`.
  void retryOpenLater(std::function<void(std::uint64_t)> restored);
  void post(Command command);
  /// Takes everything the host handed over since the last time, in order. Worker only.
  void drainInbox();
  void handleSend(SendCommand& command);
  void handleSpill(SpillCommand& command);
  /// The record's bytes become the request's body as they are: moved, never copied. Only a
  /// record that is not delivered is copied back out, to wait again.
  static std::shared_ptr<const std::string> shareBytes(std::string bytes) {
    return std::make_shared<const std::string>(std::move(bytes));
  }
  /// The oldest record waiting on disk (or, when the disk would not take them, in memory) that
  /// may be sent now.
  std::optional<Next> nextQueued();
  /// Records on disk let go before `through` may be read for sending now, and everything waiting
  /// in memory goes after them.
  void sendFromDiskThrough(std::uint64_t through, const RequestSettings& settings);
  void startWaiting();
  /// Goes on with startWaiting() in a later turn of the worker.
  void continueReadingLater();
  void finished(network::HttpOutcome outcome, Next record);
  /// The collector judged the record: delivered or refused (as classifyAnswer() said).
  void judged(const network::HttpResponse& response, const Next& record, bool delivered);
  /// Says why a record is kept: a redirect (once until the collector answers otherwise) or a
  /// transport failure.
  void reportFailure(const network::HttpOutcome& outcome);
  /// Keeps a record no answer judged (a transport failure, a redirect) and backs off.
  void keepAfterFailure(const Next& record);
  /// Puts a record the collector asked to send later back in line, ahead of those not yet sent.
  void hold(Next record);
  /// A failure of the collector or of the way to it: nothing more goes out until the wait ends,
  /// and then one record first, as a probe.
  void backOff(std::optional<std::chrono::seconds> retryAfter);
  void resume();
  /// Sends again what this run kept on disk, once nothing read from disk is in flight.
  void retryKept();
  /// Writes records kept for a later start; what the disk will not take waits for a retry.
  void keep(std::vector<std::string> records);
  void scheduleRetry();
  void retryWrites();
  /// Settles `count` records. Worker only.
  void settle(std::uint64_t count, bool network);
  void notifyQueue();
  /// Takes the store's counts over and says what is new; `last`: at shutdown, say everything.
  void syncStoreCounts(bool last = false);

  std::shared_ptr<network::HttpClient> http_;
  const ZStoreLimits limits_;
  const std::shared_ptr<support::SerialQueue> worker_;
  mutable std::mutex mutex_;
  std::condition_variable settled_;
  std::uint64_t unsettled_ = 0;  ///< guarded by mutex_
  Counts counts_;                ///< guarded by mutex_
  std::atomic<std::uint64_t> outstanding_{0};
  /// Records taken for the network at once, at most: kMaxOutstanding, or the memory limit.
  const std::uint64_t window_;
  /// Records in the inbox on their way to disk (spilled, or handed over with the gate closed).
  std::atomic<std::uint64_t> toDiskInInbox_{0};
  std::function<void()> listener_;  ///< guarded by mutex_
  /// Records on disk let go with the gate open, through this position: waited for as if handed
  /// over (guarded by mutex_).
  std::uint64_t diskWanted_ = 0;
  std::atomic<bool> stopped_{false};  ///< set under mutex_, so a hand-over is before or after it
  std::vector<std::string> late_;     ///< guarded by mutex_: tracked after the queue closed
  bool lateDoorClosed_ = false;       ///< guarded by mutex_: late ones no longer join late_
  bool lateWritten_ = false;          ///< guarded by mutex_: shutdown has kept the late ones
  std::condition_variable lateDone_;
  // Hand-overs wait in an inbox that the worker takes as a whole; a burst of them costs the
  // host one wake-up of the worker, not one each.
  std::vector<Command> inbox_;  ///< guarded by mutex_
  bool drainQueued_ = false;    ///< guarded by mutex_: a drainInbox task is queued
  /// How long a woken worker lets hand-overs gather before it takes them.
  static constexpr std::chrono::microseconds kGatherWindow{500};
  /// The longest a host waits in keepPaceWithDisk() for writes that make no progress; it then
  /// waits no more until the worker has taken a hand-over again (a hung disk costs it once).
  static constexpr std::chrono::milliseconds kPaceLimit{250};
  /// How often a wait for records to settle looks at the disk line again.
  static constexpr std::chrono::milliseconds kWaitSlice{5};
  std::condition_variable inboxTaken_;
  std::uint64_t inboxesTaken_ = 0;       ///< guarded by mutex_: drainInbox() runs so far
  std::uint64_t paceGivenUpAt_ = ~0ULL;  ///< guarded by mutex_: inboxesTaken_ when a wait timed out
  std::atomic<std::uint64_t> bytesOnDisk_{0};
  // Worker only.
  PendingStore store_;
  std::vector<Command> draining_;      ///< the inbox taken last, kept for its capacity
  std::deque<Waiting> waiting_;        ///< records not yet handed to the client, in order
  std::uint64_t diskSendThrough_ = 0;  ///< records on disk before this position may be read
  /// The furthest position the queue let go in a hand-over taken so far, the gate open or not.
  /// Records before it have reached the store; some the queue let go since may still be on
  /// their way there, in the inbox.
  std::uint64_t diskLetGo_ = 0;
  RequestSettings diskSettings_;  ///< as they were when the last of those was let go
  std::size_t inFlight_ = 0;
  std::uint64_t sentCount_ = 0;           ///< records handed to the client so far
  std::deque<std::string> spillBacklog_;  ///< spilled records the disk would not take, in order
  std::vector<std::string> keepBacklog_;  ///< kept records the disk would not take yet
  std::vector<std::string> cancelled_;    ///< in flight when shutdown cancelled them
  bool retryScheduled_ = false;
  const std::shared_ptr<support::RetryPolicy> retryPolicy_;
  bool probing_ = false;        ///< after a wait: one request alone until it is answered
  bool keptToRetry_ = false;    ///< records were kept on disk in this run
  bool retryWhenIdle_ = false;  ///< a retry of kept records waits for disk reads in flight
  bool readingLater_ = false;   ///< a continueReadingLater() turn is queued
  bool networkAvailable_ = true;
  bool roomFreed_ = false;            ///< answers freed room since the queue was last told
  bool redirectReported_ = false;     ///< said once until the collector answers otherwise
  std::uint64_t generation_ = 0;      ///< one more per deleteLocalData()
  std::uint64_t backlogDropped_ = 0;  ///< kept or spilled records the disk never took
  // A long offline spell drops the oldest again and again: said once, then with a count at most
  // every kDropLinesEvery and at shutdown, not one line per record.
  static constexpr std::chrono::minutes kDropLinesEvery{10};
  std::uint64_t dropsUnsaid_ = 0;
  std::optional<std::chrono::steady_clock::time_point> dropsSaidAt_;
};

}  // namespace zelvanor::detail
