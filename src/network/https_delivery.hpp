// Delivers records one per request and keeps what could not be sent in the pending-record file.
// The host's thread only hands records over; encoding, requests and file writes happen on the
// SDK's threads (the delivery worker and the HTTP client's thread).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "network/http_api.hpp"
#include "network/http_client.hpp"
#include "queue/record_transport.hpp"
#include "support/serial_queue.hpp"

namespace zelvanor::detail {

class HttpsDelivery final : public RecordTransport,
                            public std::enable_shared_from_this<HttpsDelivery> {
 public:
  struct Counts {
    std::uint64_t delivered = 0;    ///< answered exactly "ok"
    std::uint64_t rejected = 0;     ///< answered anything else: dropped
    std::uint64_t keptOnDisk = 0;   ///< transport failure or network gate closed
    std::uint64_t unencodable = 0;  ///< dropped before sending
  };

  HttpsDelivery(std::shared_ptr<network::HttpClient> http, std::filesystem::path pendingFile);
  ~HttpsDelivery() override;

  void send(OutgoingRecord record, bool networkAvailable) override;
  void keepLate(OutgoingRecord record) override;
  std::vector<OutgoingRecord> takePendingRecords() override;
  void shutdown(std::vector<OutgoingRecord> unsent) override;
  /// How long shutdown waits for in-flight answers before cancelling them.
  static constexpr std::chrono::milliseconds kInFlightGrace{200};
  /// Requests handed to the HTTP client at once: one per connection it keeps to the collector.
  /// Later records wait here, in order, so a request's timeout starts when it can really be
  /// sent rather than while it queues for a connection, and the client's per-step work (it
  /// walks every transfer it holds) stays small however busy the network is.
  static constexpr std::size_t kMaxInFlight = network::HttpClient::kMaxConnectionsPerHost;

  Counts counts() const;
  /// Waits until every record handed over so far has reached an outcome; false on timeout.
  bool waitUntilSettled(std::chrono::milliseconds timeout);

 private:
  /// A record as the host handed it over, with what was in force at that moment.
  struct HandedOver {
    OutgoingRecord record;
    bool networkAvailable = false;
    RequestSettings settings;
  };
  /// An encoded record with the request settings in force when the host handed it over.
  struct Waiting {
    std::string bytes;
    RequestSettings settings;
  };
  /// Takes everything the host handed over since the last time, in order. Worker only.
  void drainInbox();
  void sendOnWorker(OutgoingRecord record, bool networkAvailable, RequestSettings settings);
  /// Starts waiting requests while the window has room. Worker only.
  void startWaiting();
  void finished(network::HttpOutcome outcome, const std::string& bytes);
  void keepOnDisk(const std::string& bytes);
  /// Keeps a record that will not be sent (worker only).
  void keepUnsent(const OutgoingRecord& record);
  void settleOne();

  std::shared_ptr<network::HttpClient> http_;
  const std::filesystem::path pendingFile_;
  support::SerialQueue worker_{"com.zelvanor.sdk.logQueue"};
  mutable std::mutex mutex_;
  std::condition_variable settled_;
  std::uint64_t unsettled_ = 0;
  Counts counts_;
  std::atomic<bool> stopped_{false};  ///< set under mutex_, so a hand-over is before or after it
  std::vector<OutgoingRecord> late_;  ///< guarded by mutex_: tracked after the queue closed
  bool lateDoorClosed_ = false;       ///< guarded by mutex_: late ones no longer join late_
  bool lateWritten_ = false;          ///< guarded by mutex_: shutdown has kept the late ones
  std::condition_variable lateDone_;
  // Hand-overs wait in an inbox that the worker takes as a whole; a burst of them costs the
  // host one wake-up of the worker, not one each.
  std::vector<HandedOver> inbox_;  ///< guarded by mutex_
  bool drainQueued_ = false;       ///< guarded by mutex_: a drainInbox task is queued
  /// How long a woken worker lets hand-overs gather before it takes them.
  static constexpr std::chrono::microseconds kGatherWindow{500};
  static constexpr std::size_t kRecordsHandedBack = 64;
  /// Handed-back records the host frees per hand-over: a steady, small cost on its thread.
  static constexpr std::size_t kFreedPerHandOver = 2;
  std::vector<OutgoingRecord> encoded_;  ///< guarded by mutex_: encoded, for the host to free
  // Worker only.
  std::vector<HandedOver> draining_;  ///< the inbox taken last, kept for its capacity
  std::deque<Waiting> waiting_;       ///< records not yet handed to the client, in order
  std::size_t inFlight_ = 0;
};

}  // namespace zelvanor::detail
