// zelvanor-collector: a local collection and identity sync server over HTTPS.
//
//   POST /sdk/track   one record; stored and answered "ok" when it decodes as a record, kept
//                     among the refused ones with the reason otherwise
//   GET  /sync?v=1    the identity triple, in the envelope and as three cookies
//   GET  /api/events  what was stored, newest first (filters: type, name, kind, page, cid, did,
//                     sid, user, q, status; paging: after, before, limit, order)
//   GET  /api/stats   counts of what a filter matches, by type and per minute
//   GET  /api/export  everything a filter matches as NDJSON or CSV
//   GET  /            the event viewer
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "event_store.hpp"

namespace zelvanor::collector {

struct CollectorCounters {
  std::uint64_t trackRequests = 0;
  std::uint64_t syncRequests = 0;
  std::uint64_t storedRecords = 0;
  std::uint64_t rejectedRecords = 0;
  std::uint64_t fixedAnswers = 0;  ///< track requests answered with the setTrackAnswer body
};

class Collector {
 public:
  struct Options {
    std::filesystem::path dataDirectory{};  ///< certificate, key and the event database
    std::string host = "127.0.0.1";
    int port = 0;  ///< 0 picks a free port
    bool logRequests = false;
    /// Made-up events stored at start, spread over the hour before it: a full store to try the
    /// viewer on.
    int generatedEvents = 0;
  };

  explicit Collector(Options options);
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Creates the certificate (first start only) and the database, then listens. False with a
  /// reason in `error` when any of that fails.
  bool start(std::string* error = nullptr);
  /// Stops listening and waits for the server thread; safe to call twice.
  void stop();

  int port() const;
  std::string baseUrl() const;
  /// The self-signed certificate to give the SDK as its extra trusted root.
  std::filesystem::path caFile() const;
  std::filesystem::path databaseFile() const;
  CollectorCounters counters() const;
  /// What was stored, newest first.
  std::vector<StoredEvent> events(const EventQuery& query = {}) const;
  /// Every triple the sync endpoint handed out, oldest first.
  std::vector<ZXid> issuedTriples() const;

  // Switches for tests and for trying an app against a misbehaving server.
  /// Answer every track request with this body instead of "ok"; nothing is stored.
  void setTrackAnswer(std::optional<std::string> body);
  /// Close each connection before its answer is complete.
  void setDropConnections(bool drop);
  /// Wait this long before answering each track and sync request.
  void setDelay(std::chrono::milliseconds delay);
  /// Answer sync requests with this body instead of a fresh triple (no cookies are set).
  void setSyncAnswer(std::optional<std::string> body);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zelvanor::collector
