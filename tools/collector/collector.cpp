#define CPPHTTPLIB_OPENSSL_SUPPORT
#define CPPHTTPLIB_ZLIB_SUPPORT
#define CPPHTTPLIB_BROTLI_SUPPORT
#include "collector.hpp"

#include <httplib.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>
#include <zelvanor/json.hpp>

#include "certificate.hpp"
#include "event_store.hpp"
#include "generated_events.hpp"
#include "viewer_page.hpp"

namespace zelvanor::collector {
namespace {

void appendJsonString(std::string& out, std::string_view text) {
  out.push_back('"');
  for (const char c : text) {
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out.append(escaped);
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

std::string randomId() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1) return {};
  static constexpr char digits[] = "0123456789abcdef";
  std::string id;
  for (const unsigned char b : bytes) {
    id.push_back(digits[b >> 4]);
    id.push_back(digits[b & 15]);
  }
  return id;
}

// The SDK sends plain JSON records of a few kilobytes; anything near this is not one of them.
constexpr std::size_t kMaxRequestBytes = 16u << 20;
// One answer of /api/events stops growing past this; the viewer reads the rest with `after`.
constexpr std::size_t kMaxEventsAnswerBytes = 32u << 20;
// Triples kept for issuedTriples(): enough for any test, bounded for a long-running server.
constexpr std::size_t kMaxIssuedKept = 100000;

void appendEventJson(std::string& out, const StoredEvent& e) {
  out.append("{\"id\":").append(std::to_string(e.id));
  out.append(",\"receivedAt\":");
  appendJsonString(out, e.receivedAt);
  out.append(",\"actionType\":");
  appendJsonString(out, e.actionType);
  out.append(",\"actionName\":");
  appendJsonString(out, e.actionName);
  out.append(",\"actionKind\":");
  appendJsonString(out, e.actionKind);
  out.append(",\"page\":");
  appendJsonString(out, e.page);
  out.append(",\"xid\":{\"cid\":");
  appendJsonString(out, e.xid.cid);
  out.append(",\"did\":");
  appendJsonString(out, e.xid.did);
  out.append(",\"sid\":");
  appendJsonString(out, e.xid.sid);
  out.append("},\"userId\":");
  appendJsonString(out, e.userId);
  if (e.refused()) {
    // What was refused need not be JSON at all: it goes as text.
    out.append(",\"refused\":{\"reason\":");
    appendJsonString(out, e.refusal);
    out.append(",\"path\":");
    appendJsonString(out, e.refusalPath);
    out.append("},\"body\":");
    appendJsonString(out, e.json);
    out.append("}");
  } else {
    // Stored records decoded as records when they arrived, so the text is valid JSON.
    out.append(",\"record\":").append(e.json).append("}");
  }
}

// "truncated" says the answer stopped at its size cap before the rows asked for: more match
// than it holds even when it holds fewer than the limit.
std::string eventsJson(const std::vector<StoredEvent>& events) {
  std::string out = "{\"events\":[";
  bool truncated = false;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (i > 0 && out.size() + events[i].json.size() > kMaxEventsAnswerBytes) {
      truncated = true;
      break;
    }
    if (i > 0) out.push_back(',');
    appendEventJson(out, events[i]);
  }
  out.append("],\"truncated\":").append(truncated ? "true" : "false").append("}");
  return out;
}

std::string statsJson(const EventStats& stats, std::string_view since) {
  std::string out = "{\"total\":" + std::to_string(stats.total) +
                    ",\"refused\":" + std::to_string(stats.refused) + ",\"since\":";
  appendJsonString(out, since);
  out.append(",\"types\":[");
  for (std::size_t i = 0; i < stats.byType.size(); ++i) {
    out.append(i > 0 ? ",{\"type\":" : "{\"type\":");
    appendJsonString(out, stats.byType[i].actionType);
    out.append(",\"count\":").append(std::to_string(stats.byType[i].count)).append("}");
  }
  out.append("],\"minutes\":[");
  for (std::size_t i = 0; i < stats.byMinute.size(); ++i) {
    const MinuteCount& m = stats.byMinute[i];
    out.append(i > 0 ? ",{\"minute\":" : "{\"minute\":");
    appendJsonString(out, m.minute);
    out.append(",\"type\":");
    appendJsonString(out, m.refused ? std::string_view() : std::string_view(m.actionType));
    out.append(",\"refused\":").append(m.refused ? "true" : "false");
    out.append(",\"count\":").append(std::to_string(m.count)).append("}");
  }
  out.append("]}");
  return out;
}

void appendCsvField(std::string& out, std::string_view field) {
  if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
    out.append(field);
    return;
  }
  out.push_back('"');
  for (const char c : field) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

constexpr std::string_view kCsvHeader =
    "id,received_at,status,action_type,action_name,action_kind,page,cid,did,sid,user_id,"
    "refusal,refusal_path,body\r\n";

void appendCsvRow(std::string& out, const StoredEvent& e) {
  const std::string_view fields[] = {e.receivedAt, e.refused() ? "refused" : "accepted",
                                     e.actionType, e.actionName,
                                     e.actionKind, e.page,
                                     e.xid.cid,    e.xid.did,
                                     e.xid.sid,    e.userId,
                                     e.refusal,    e.refusalPath,
                                     e.json};
  out.append(std::to_string(e.id));
  for (const auto field : fields) {
    out.push_back(',');
    appendCsvField(out, field);
  }
  out.append("\r\n");
}

// The filters the viewer and the export share; false with the reason in `error`.
bool parseEventQuery(const httplib::Request& request, EventQuery& query, std::string& error) {
  const auto text = [&request](const char* name) -> std::optional<std::string> {
    if (!request.has_param(name) || request.get_param_value(name).empty()) return std::nullopt;
    return request.get_param_value(name);
  };
  query.actionType = text("type");
  query.actionName = text("name");
  query.actionKind = text("kind");
  query.page = text("page");
  query.cid = text("cid");
  query.did = text("did");
  query.sid = text("sid");
  query.userId = text("user");
  query.text = text("q").value_or("");
  if (const auto order = text("order")) {
    if (*order != "asc" && *order != "desc") {
      error = "order is asc or desc";
      return false;
    }
    query.oldestFirst = *order == "asc";
  }
  if (const auto status = text("status")) {
    if (*status == "accepted") {
      query.status = RecordStatus::accepted;
    } else if (*status == "refused") {
      query.status = RecordStatus::refused;
    } else if (*status == "all") {
      query.status = RecordStatus::all;
    } else {
      error = "status is accepted, refused or all";
      return false;
    }
  }
  try {
    if (request.has_param("after")) query.afterId = std::stoll(request.get_param_value("after"));
    if (request.has_param("before")) query.beforeId = std::stoll(request.get_param_value("before"));
    if (request.has_param("limit"))
      query.limit = std::clamp(std::stoi(request.get_param_value("limit")), 1, 5000);
  } catch (const std::exception&) {
    error = "after, before and limit are numbers";
    return false;
  }
  return true;
}

// "YYYY-MM-DDTHH:MM" of the minute `minutesBack` minutes before the current one, UTC.
std::string minuteBefore(int minutesBack) {
  const auto now = std::chrono::system_clock::now() - std::chrono::minutes(minutesBack);
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[24];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M", &utc);
  return text;
}

}  // namespace

struct Collector::Impl {
  Options options;
  CertificateFiles certificate;
  EventStore store;
  std::unique_ptr<httplib::SSLServer> server;
  std::thread thread;
  int port = 0;

  std::atomic<std::uint64_t> trackRequests{0};
  std::atomic<std::uint64_t> syncRequests{0};
  std::atomic<std::uint64_t> storedRecords{0};
  std::atomic<std::uint64_t> rejectedRecords{0};
  std::atomic<std::uint64_t> fixedAnswers{0};

  std::atomic<bool> dropConnections{false};
  std::atomic<std::int64_t> delayMs{0};
  std::mutex switchesMutex;
  std::optional<std::string> trackAnswer;
  std::optional<std::string> syncAnswer;
  std::deque<ZXid> issued;

  void wait() const {
    const auto delay = delayMs.load();
    if (delay > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
  }

  // Sends the headers and then gives up on the body, so the client sees the connection close
  // in the middle of an answer.
  static void dropAnswer(httplib::Response& response) {
    response.set_content_provider(
        64, "text/plain", [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
  }

  void onTrack(const httplib::Request& request, httplib::Response& response) {
    trackRequests.fetch_add(1);
    wait();
    if (dropConnections) return dropAnswer(response);
    std::optional<std::string> fixed;
    {
      std::lock_guard lock(switchesMutex);
      fixed = trackAnswer;
    }
    if (fixed) {
      response.set_content(*fixed, "text/plain");
      fixedAnswers.fetch_add(1);
      return;
    }
    auto record = decodeJson<ZLogRecord>(request.body);
    if (!record) {
      rejectedRecords.fetch_add(1);
      const std::string reason = toString(record.error().kind);
      const std::string path = record.error().path.empty() ? "$" : record.error().path;
      // Kept so that the viewer can say why an event never showed up.
      store.addRefused(request.body, reason, path);
      response.status = 400;
      response.set_content("invalid record: " + reason + " at " + path, "text/plain");
      return;
    }
    if (!store.add(*record, request.body)) {
      response.status = 500;
      response.set_content("cannot store the record", "text/plain");
      return;
    }
    storedRecords.fetch_add(1);
    // The SDK treats only this exact body as delivered.
    response.set_content("ok", "text/plain");
  }

  void onSync(const httplib::Request& request, httplib::Response& response) {
    syncRequests.fetch_add(1);
    wait();
    if (dropConnections) return dropAnswer(response);
    std::optional<std::string> fixed;
    {
      std::lock_guard lock(switchesMutex);
      fixed = syncAnswer;
    }
    if (fixed) {
      response.set_content(*fixed, "application/json");
      return;
    }
    // A device that already holds all three cookies keeps its identity; anyone else gets a new one.
    const auto cookie = [&request](std::string_view name) {
      const std::string header = request.get_header_value("Cookie");
      const std::string prefix = std::string(name) + "=";
      for (std::size_t at = 0; at < header.size();) {
        const std::size_t end = std::min(header.find(';', at), header.size());
        std::string_view part(header.data() + at, end - at);
        while (!part.empty() && part.front() == ' ') part.remove_prefix(1);
        if (part.substr(0, prefix.size()) == prefix) return std::string(part.substr(prefix.size()));
        at = end + 1;
      }
      return std::string();
    };
    std::string cid = cookie("fa_cid"), did = cookie("fa_did"), sid = cookie("fa_sid");
    if (cid.empty() || did.empty() || sid.empty()) {
      cid = randomId();
      did = randomId();
      sid = randomId();
    }
    {
      std::lock_guard lock(switchesMutex);
      issued.push_back(ZXid{cid, did, sid});
      if (issued.size() > kMaxIssuedKept) issued.pop_front();
    }
    // A year, as identity cookies usually live; the SDK reads them back at its next start.
    for (const auto& [name, value] : {std::pair{"fa_cid", cid}, {"fa_did", did}, {"fa_sid", sid}}) {
      response.set_header("Set-Cookie", std::string(name) + "=" + value +
                                            "; Path=/; Max-Age=31536000; Secure; HttpOnly");
    }
    std::string body = R"({"version":1,"status":{"code":"0000","msg":"success"},"data":[{"cid":)";
    appendJsonString(body, cid);
    body.append(",\"did\":");
    appendJsonString(body, did);
    body.append(",\"sid\":");
    appendJsonString(body, sid);
    body.append("}]}");
    response.set_content(body, "application/json");
  }

  static bool isTrack(const httplib::Request& request) {
    return request.method == "POST" && request.path == "/sdk/track";
  }

  // A track request refused before its body was read: kept without one, so that the viewer
  // still shows that something arrived and why it went no further.
  void keepRefusedUnread(const std::string& reason) {
    trackRequests.fetch_add(1);
    rejectedRecords.fetch_add(1);
    store.addRefused({}, reason, "$");
  }

  // A web page may post to any address, text/plain without asking first; only the viewer's own
  // pages and clients that send no Origin at all (the SDK) may store records.
  bool ownOrigin(const std::string& origin) const {
    const std::string suffix = ":" + std::to_string(port);
    for (const char* host : {"127.0.0.1", "[::1]", "localhost"}) {
      if (origin == "https://" + std::string(host) + suffix) return true;
    }
    return false;
  }

  void onEvents(const httplib::Request& request, httplib::Response& response) {
    EventQuery query;
    std::string error;
    if (!parseEventQuery(request, query, error)) {
      response.status = 400;
      response.set_content(error, "text/plain");
      return;
    }
    response.set_header("Cache-Control", "no-store");
    // With the charset named, cpp-httplib leaves the answer uncompressed. Browsers accept brotli,
    // which the library runs at its slowest quality: 5000 events took the viewer tens of seconds
    // to fetch, and compressing on loopback saves nothing.
    response.set_content(eventsJson(store.list(query)), "application/json; charset=utf-8");
  }

  void onStats(const httplib::Request& request, httplib::Response& response) {
    EventQuery query;
    std::string error;
    int minutes = 60;
    try {
      if (request.has_param("minutes"))
        minutes = std::clamp(std::stoi(request.get_param_value("minutes")), 1, 24 * 60);
    } catch (const std::exception&) {
      error = "minutes is a number";
    }
    if (!error.empty() || !parseEventQuery(request, query, error)) {
      response.status = 400;
      response.set_content(error, "text/plain");
      return;
    }
    const std::string since = minuteBefore(minutes - 1);
    response.set_header("Cache-Control", "no-store");
    response.set_content(statsJson(store.stats(query, since), since),
                         "application/json; charset=utf-8");
  }

  // Everything the filter matches, oldest first, streamed a page at a time so that a full store
  // is never held in memory.
  void onExport(const httplib::Request& request, httplib::Response& response) {
    auto query = std::make_shared<EventQuery>();
    std::string error;
    const std::string format =
        request.has_param("format") ? request.get_param_value("format") : "ndjson";
    if (!parseEventQuery(request, *query, error) || (format != "ndjson" && format != "csv")) {
      response.status = 400;
      response.set_content(error.empty() ? "format is ndjson or csv" : error, "text/plain");
      return;
    }
    query->oldestFirst = true;
    query->limit = 2000;
    const bool csv = format == "csv";
    response.set_header("Content-Disposition",
                        std::string("attachment; filename=\"zelvanor-events.") + format + "\"");
    response.set_header("Cache-Control", "no-store");
    auto headerSent = std::make_shared<bool>(!csv);
    response.set_chunked_content_provider(
        csv ? "text/csv; charset=utf-8" : "application/x-ndjson; charset=utf-8",
        [this, query, csv, headerSent](std::size_t, httplib::DataSink& sink) {
          std::string chunk;
          if (!*headerSent) {
            chunk.append(kCsvHeader);
            *headerSent = true;
          }
          const auto events = store.list(*query);
          for (const auto& e : events) {
            if (csv) {
              appendCsvRow(chunk, e);
            } else {
              appendEventJson(chunk, e);
              chunk.push_back('\n');
            }
          }
          if (!chunk.empty() && !sink.write(chunk.data(), chunk.size())) return false;
          if (events.size() < static_cast<std::size_t>(query->limit)) {
            sink.done();
          } else {
            query->afterId = events.back().id;
          }
          return true;
        });
  }
};

Collector::Collector(Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = std::move(options);
  std::error_code ec;
  // Absolute, so the CA path it prints works from any directory.
  auto absolute = std::filesystem::absolute(impl_->options.dataDirectory, ec);
  if (!ec) impl_->options.dataDirectory = absolute;
}

Collector::~Collector() {
  stop();
}

bool Collector::start(std::string* error) {
  std::string reason;
  auto fail = [&](std::string why) {
    if (error) *error = std::move(why);
    return false;
  };
  std::error_code ec;
  // The database holds every record sent, ids and tokens included: a directory made here is the
  // user's alone. One that exists keeps its mode.
  if (std::filesystem::create_directories(impl_->options.dataDirectory, ec)) {
    std::filesystem::permissions(impl_->options.dataDirectory, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace, ec);
  }
  if (ec)
    return fail("cannot create " + impl_->options.dataDirectory.string() + ": " + ec.message());
  if (!ensureCertificate(impl_->options.dataDirectory, impl_->certificate, reason))
    return fail(reason);
  if (!impl_->store.open(databaseFile(), reason)) return fail(reason);
  if (impl_->options.generatedEvents > 0 &&
      !generateEvents(impl_->store, impl_->options.generatedEvents, std::chrono::minutes(60),
                      reason)) {
    return fail(reason);
  }

  impl_->server = std::make_unique<httplib::SSLServer>(impl_->certificate.certificate.c_str(),
                                                       impl_->certificate.privateKey.c_str());
  if (!impl_->server->is_valid()) {
    // A pair left unusable (cut short by a crash, or from different runs) is made anew once.
    if (!renewCertificate(impl_->options.dataDirectory, impl_->certificate, reason))
      return fail(reason);
    impl_->server = std::make_unique<httplib::SSLServer>(impl_->certificate.certificate.c_str(),
                                                         impl_->certificate.privateKey.c_str());
    if (!impl_->server->is_valid()) return fail("cannot load the certificate into the TLS server");
  }
  auto& server = *impl_->server;
  server.set_payload_max_length(kMaxRequestBytes);
  // The size limit counts bytes on the wire; a compressed body would be inflated past it before
  // any handler saw it, so such bodies are refused before they are read.
  Impl* impl = impl_.get();
  server.set_pre_routing_handler([impl](const httplib::Request& request,
                                        httplib::Response& response) {
    // A body refused unread is still on the connection, where it would be read as the next
    // request: the connection closes after the answer.
    if (request.has_header("Content-Encoding")) {
      if (impl->isTrack(request)) {
        impl->keepRefusedUnread("compressed body (" +
                                request.get_header_value("Content-Encoding").substr(0, 40) + ")");
      }
      response.set_header("Connection", "close");
      response.status = 415;
      response.set_content("compressed bodies are not accepted", "text/plain");
      return httplib::Server::HandlerResponse::Handled;
    }
    if (request.method == "POST" && request.has_header("Origin") &&
        !impl->ownOrigin(request.get_header_value("Origin"))) {
      response.set_header("Connection", "close");
      response.status = 403;
      response.set_content("posts from other origins are not accepted", "text/plain");
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  // cpp-httplib answers a body over the limit with 413 itself; the viewer should say so too.
  server.set_error_handler(httplib::Server::HandlerWithResponse(
      [impl](const httplib::Request& request, httplib::Response& response) {
        if (response.status != 413 || !impl->isTrack(request)) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        impl->keepRefusedUnread("body over " + std::to_string(kMaxRequestBytes >> 20) + " MiB");
        response.set_content(
            "bodies over " + std::to_string(kMaxRequestBytes >> 20) + " MiB are not accepted",
            "text/plain");
        return httplib::Server::HandlerResponse::Handled;
      }));
  // Each kept-alive connection holds a worker; leave room for the SDK's parallel connections.
  server.new_task_queue = [] { return new httplib::ThreadPool(32); };
  server.set_keep_alive_max_count(100000);
  // The server writes headers and body separately; with Nagle on, the body would wait for the
  // client's delayed ACK (40 ms) on every request.
  server.set_tcp_nodelay(true);
  server.Post("/sdk/track", [impl](const auto& req, auto& res) { impl->onTrack(req, res); });
  server.Get("/sync", [impl](const auto& req, auto& res) { impl->onSync(req, res); });
  server.Get("/api/events", [impl](const auto& req, auto& res) { impl->onEvents(req, res); });
  server.Get("/api/stats", [impl](const auto& req, auto& res) { impl->onStats(req, res); });
  server.Get("/api/export", [impl](const auto& req, auto& res) { impl->onExport(req, res); });
  // Browsers ask for it on every visit; an empty answer keeps the console free of errors.
  server.Get("/favicon.ico", [](const auto&, auto& res) { res.status = 204; });
  server.Get("/", [](const auto&, auto& res) {
    res.set_content(std::string(viewerPage()), "text/html; charset=utf-8");
  });
  if (impl_->options.logRequests) {
    server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
      std::fprintf(stderr, "collector: %s %s -> %d\n", req.method.c_str(), req.target.c_str(),
                   res.status);
    });
  }
  if (impl_->options.port == 0) {
    impl_->port = server.bind_to_any_port(impl_->options.host);
  } else {
    impl_->port =
        server.bind_to_port(impl_->options.host, impl_->options.port) ? impl_->options.port : -1;
  }
  if (impl_->port <= 0) {
    return fail("cannot listen on " + impl_->options.host + ":" +
                std::to_string(impl_->options.port));
  }
  impl_->thread = std::thread([impl] { impl->server->listen_after_bind(); });
  for (int i = 0; i < 1000 && !server.is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void Collector::stop() {
  if (impl_->server) impl_->server->stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int Collector::port() const {
  return impl_->port;
}

std::string Collector::baseUrl() const {
  const std::string& host = impl_->options.host;
  const bool v6 = host.find(':') != std::string::npos;
  return "https://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(impl_->port);
}

std::filesystem::path Collector::caFile() const {
  return impl_->certificate.certificate;
}

std::filesystem::path Collector::databaseFile() const {
  return impl_->options.dataDirectory / "events.sqlite";
}

CollectorCounters Collector::counters() const {
  return {impl_->trackRequests.load(), impl_->syncRequests.load(), impl_->storedRecords.load(),
          impl_->rejectedRecords.load(), impl_->fixedAnswers.load()};
}

std::vector<StoredEvent> Collector::events(const EventQuery& query) const {
  return impl_->store.list(query);
}

std::vector<ZXid> Collector::issuedTriples() const {
  std::lock_guard lock(impl_->switchesMutex);
  return {impl_->issued.begin(), impl_->issued.end()};
}

void Collector::setTrackAnswer(std::optional<std::string> body) {
  std::lock_guard lock(impl_->switchesMutex);
  impl_->trackAnswer = std::move(body);
}

void Collector::setSyncAnswer(std::optional<std::string> body) {
  std::lock_guard lock(impl_->switchesMutex);
  impl_->syncAnswer = std::move(body);
}

void Collector::setDropConnections(bool drop) {
  impl_->dropConnections = drop;
}

void Collector::setDelay(std::chrono::milliseconds delay) {
  impl_->delayMs = delay.count();
}

}  // namespace zelvanor::collector
