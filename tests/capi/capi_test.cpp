// The C API driven through zelvanor.h alone (on Windows against zelvanor.dll), never the C++
// facade; that the header compiles as strict C99 is the install consumer's check. The C API is a
// thin layer over the C++ facade: what is checked is that each entry point reaches the C++
// behaviour it names (every block kind, tracking, lifecycle events, restarts with new facts and
// store limits, events that carry their own blocks, diagnostics and counters, privacy switches,
// the host's own HTTP client), and that bad input (NULL, bad JSON, unknown names) is refused,
// changes nothing and names what is wrong.
// Every request goes through the host client below: it answers the identity sync with the three
// cookies and each collection request with 200. Offline (reachability 0) records go to the pending
// file of a private data directory, which the test reads.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "support/data_table.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/zelvanor.h"

namespace {

// Made before the SDK's first call, hence removed after the SDK's own exit hook (registered at
// that call) has kept the last record: the process ends with the SDK running (see the end of the
// test). The SDK makes the data directory inside it. zelvanor.dll runs its exit hook only when it
// is unloaded, after this program's statics are gone: removing the directory then would race a
// running SDK (under Wine it can spin for good), so on Windows it stays in the temp folder.
#ifdef _WIN32
const zelvanor::testing::TempDir& scratch = *new zelvanor::testing::TempDir;
#else
const zelvanor::testing::TempDir scratch;
#endif
const std::string dataDir = (scratch.path() / "data").string();

// A call's status by name, and the message it left ("" after a success).
std::string outcome(zelvanor_status status) {
  static const char* const names[] = {"OK", "ARG", "JSON", "REJECTED", "MEMORY", "INTERNAL"};
  return std::string(names[status]) + ": " + zelvanor_last_error();
}
const std::string kOk = "OK: ";

bool has(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

// The data directory's file `name` ("" when it is not there).
std::string dataFile(const std::string& name) {
  std::ifstream in(std::filesystem::path(dataDir) / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Waits up to about ten seconds for the file to hold `part`.
bool fileComesToHold(const std::string& name, const std::string& part) {
  for (int i = 0; i < 200 && !has(dataFile(name), part); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return has(dataFile(name), part);
}

// The '|'-separated parts that `text` gets wrong ("" when none): each must be in it, one that
// starts with '!' must not.
std::string wrongParts(const std::string& text, const std::string& parts) {
  std::string wrong, part;
  for (std::istringstream in(parts); std::getline(in, part, '|');) {
    const bool absent = part.starts_with('!');
    if (has(text, part.substr(absent)) == absent) wrong += part + " ";
  }
  return wrong;
}

// The current event's JSON (this uses up its blocks).
std::string currentData() {
  char* text = nullptr;
  EXPECT_EQ(outcome(zelvanor_get_data(&text)), kOk);
  const std::string data = text ? text : "";
  zelvanor_string_free(text);
  return data;
}

// A call a table names, with its two text arguments.
zelvanor_status call(const std::string& name, const char* a, const char* b, zelvanor_event* event) {
  if (name == "set") return zelvanor_set(a, b);
  if (name == "event_set") return zelvanor_event_set(event, a, b);
  if (name == "event_track") return zelvanor_event_track(event, 0, std::atoi(a));
  if (name == "set_required") return zelvanor_set_required(a);
  if (name == "post_lifecycle_event") return zelvanor_post_lifecycle_event(std::atoi(a));
  if (name == "get_data") return zelvanor_get_data(nullptr);
  if (name == "set_platform_facts") return zelvanor_set_platform_facts(nullptr);
  if (name == "set_endpoints") return zelvanor_set_endpoints(a, b, "https://127.0.0.1:9", nullptr);
  if (name == "set_request_headers") return zelvanor_set_request_headers(&a, 1);
  if (name == "set_proxy") return zelvanor_set_proxy(a);
  if (name == "set_diagnostics") return zelvanor_set_diagnostics(std::atoi(a), nullptr, nullptr);
  if (name == "get_counters") return zelvanor_get_counters(nullptr);
  ADD_FAILURE() << "no call " << name;
  return ZELVANOR_ERROR_INTERNAL;
}

// Makes the calls of tests/data/capi/<table> in order, each with the outcome its row names: a
// success leaves no message, a failure's message names both parts.
void makeCalls(const std::string& table, zelvanor_event* event) {
  for (auto row : zelvanor::testing::dataTable("capi/" + table, zelvanor::testing::Escapes::keep)) {
    row.resize(6);
    SCOPED_TRACE(row[0] + "(" + row[1] + ", " + row[2] + ")");
    const auto text = [&](int i) { return row[i] == "NULL" ? nullptr : row[i].c_str(); };
    const std::string got = outcome(call(row[0], text(1), text(2), event));
    EXPECT_THAT(got, testing::AllOf(testing::StartsWith(row[3] + ": "), testing::HasSubstr(row[4]),
                                    testing::HasSubstr(row[5])));
    EXPECT_EQ(got == kOk, row[3] == "OK");  // a success leaves no message
  }
}

// ----- the host's HTTP client, the sinks and the hook ------------------------------------------

// Lives as long as the process: the SDK, still running at exit, keeps calling the client.
struct HttpLog {
  int syncs = 0, posts = 0, tenantPosts = 0, kept = 0, dropped = 0;
} http;

void hostSend(const zelvanor_http_request* request, zelvanor_http_exchange* exchange, void*) {
  static const char* const cookies[] = {"Set-Cookie: fa_cid=cid-capi; Path=/; Max-Age=86400",
                                        "Set-Cookie: fa_did=did-capi; Path=/; Max-Age=86400",
                                        "Set-Cookie: fa_sid=sid-capi; Path=/; Max-Age=86400"};
  if (std::string_view(request->method) == "GET") {
    http.syncs++;
    zelvanor_http_answer(exchange, 200, cookies, 3, "", 0);
    return;
  }
  const std::string body(request->body, request->body_length);
  http.posts++;
  for (std::size_t i = 0; i < request->header_count; ++i)
    http.tenantPosts += std::string_view(request->headers[i]) == "X-Tenant: acme";
  http.kept += has(body, "\"keep-me\"");
  http.dropped += has(body, "\"drop-me\"") || has(body, "\"swap-me\"");
  zelvanor_http_answer(exchange, 200, nullptr, 0, "ok", 2);  // the collector's "delivered"
}

// Keeps the error lines a sink is given, one a line.
void keepErrors(int level, const char* line, std::size_t length, void* errors) {
  if (level == ZELVANOR_LOG_ERROR) static_cast<std::string*>(errors)->append(line, length) += '\n';
}

// Drops "drop-me", replaces "swap-me" with text that is no record (which drops it too).
int beforeSend(const char* json, std::size_t, char** replacement, void* calls) {
  ++*static_cast<int*>(calls);
  if (std::strstr(json, "\"drop-me\"")) return 0;
  if (std::strstr(json, "\"swap-me\"") && (*replacement = static_cast<char*>(std::malloc(8))))
    std::memcpy(*replacement, "[1,2]", 6);
  return 1;
}

// ----- scenarios -------------------------------------------------------------------------------

const char* const kCommon = R"({"service_name":"shop","deployment":"dev"})";

// Tracks a page with this id and an event action with this name.
void trackNamed(const std::string& name, int disabled = 0) {
  const std::string page = R"({"id":")" + name + R"(","name":"n","title":"T"})";
  const std::string action = R"({"type":"event","name":")" + name + R"(","kind":"k"})";
  EXPECT_EQ(outcome(zelvanor_set("page", page.c_str())), kOk);
  EXPECT_EQ(outcome(zelvanor_set("action", action.c_str())), kOk);
  zelvanor_track(0, disabled);
}

TEST(CApi, OneHostThroughEveryEntryPoint) {
  // The bundle id, the app version, the detected os, os version, device model and language, the
  // data directory and a 390 x 844 screen.
  const zelvanor_platform_facts facts = {
      "com.example.capi", "2.3.4", nullptr, nullptr, nullptr, nullptr,
      dataDir.c_str(),    1,       390,     844};
  const char* https = "https://127.0.0.1:9";
  std::string console, errors;
  zelvanor_counters counters;
  int readyCalls = 0, hookCalls = 0;
  EXPECT_EQ(outcome(zelvanor_set_platform_facts(&facts)), kOk);
  zelvanor_set_http_client(hostSend, nullptr);
  // Port 9 (discard): nothing there; the host client answers instead.
  EXPECT_EQ(outcome(zelvanor_set_endpoints(https, https, https, nullptr)), kOk);
  EXPECT_EQ(outcome(zelvanor_set_required(
                R"({"timeout":2,"batchSize":1000,"usingSandboxEnvironment":true,"extra":[1]})")),
            kOk);
  zelvanor_use_general_envrionment();
  zelvanor_set_timeout(2.0);
  zelvanor_set_reachability_flags(ZELVANOR_REACHABLE);
  EXPECT_EQ(outcome(zelvanor_set("id", R"({"app_user_id":"user-42"})")), kOk);
  EXPECT_EQ(zelvanor_wait_until_ready(10000), 1);
  EXPECT_EQ(http.syncs, 1);  // the sync's cookies
  zelvanor_set_reachability_flags(0);

  // Every block kind, accepted or refused, goes into one record, completed as in C++ (svcdomain
  // from the bundle id, access_time derived, the app version fact in the agent); a refusal names
  // the call, the kind of fault and the key path, and changes nothing. getData uses the blocks up.
  makeCalls("shared_calls.tsv", nullptr);
  zelvanor_set_production();
  EXPECT_EQ(wrongParts(currentData(),
                       "\"p-home\"|\"production\"|\"cid-capi\"|\"user-42\"|carrier-x|newsletter|"
                       "\"bucket-a\"|\"bucket-b\"|\"bucket-c\"|\"2.3.4\"|\"(390.0, 844.0)\"|"
                       "\"com.example.capi\"|\"access_time\"|\"request_timestamp\"|\"shop\"|"
                       "!p-first|!\"free\"|!anything|!p-bad|!shop-bad|!bucket-bad-ok"),
            "");
  EXPECT_EQ(currentData(), "Can't make logRecord.");
  zelvanor_set_development();

  // Tracks reach the pending file at flush (not before: batch size 1000). Store limits set after a
  // shutdown apply at the next start: with room for two records in memory, the newest of a
  // backlog wait in a segment ("ZLogs.tmp.<n>"). The console stays silent: every step succeeds.
  zelvanor_set_console_log_sink(
      [](const char* line, std::size_t n, void* to) { keepErrors(0, line, n, to); }, &console);
  trackNamed("p-tracked");
  trackNamed("p-disabled", 1);
  EXPECT_EQ(outcome(zelvanor_post_lifecycle_event(ZELVANOR_WILL_RESIGN_ACTIVE)), kOk);
  EXPECT_EQ(wrongParts(dataFile("ZLogs.tmp"), "!p-tracked"), "");
  zelvanor_flush();
  zelvanor_shutdown();  // waits for the SDK's threads; whatever is undelivered is on disk now
  EXPECT_EQ(wrongParts(dataFile("ZLogs.tmp"), "\"p-tracked\"|\"background\"|!p-disabled"), "");
  zelvanor_set_store_limits(2, 0, 0, 0);
  zelvanor_set_batch_size(1000);  // starts the SDK; records wait in memory until a flush
  zelvanor_set_reachability_flags(0);
  EXPECT_EQ(outcome(zelvanor_set("common", kCommon)), kOk);
  EXPECT_EQ(zelvanor_wait_until_ready(10000), 1);
  for (int i = 0; i < 6; ++i) trackNamed("limited-" + std::to_string(i));
  bool inSegment = false;
  for (int i = 1; i <= 16 && !inSegment; ++i)
    inSegment = fileComesToHold("ZLogs.tmp." + std::to_string(i), "\"limited-1\"");
  EXPECT_TRUE(inSegment);
  zelvanor_flush();
  zelvanor_shutdown();
  zelvanor_set_store_limits(0, 0, 0, 0);
  EXPECT_EQ(console, "");
  zelvanor_set_console_log_sink(nullptr, nullptr);

  // Events carry their own blocks (see the table): tracking leaves the shared blocks alone and
  // the event reusable with a new action. Batch size 2 keeps one record waiting and sends the
  // older ones as each new one comes.
  zelvanor_event* event = zelvanor_event_new();
  ASSERT_NE(event, nullptr);
  zelvanor_set_reachability_flags(0);
  EXPECT_EQ(outcome(zelvanor_set("common", kCommon)), kOk);  // starts the SDK
  EXPECT_EQ(outcome(zelvanor_set("id", R"({"app_user_id":"user-42"})")), kOk);
  EXPECT_EQ(zelvanor_wait_until_ready(10000), 1);
  makeCalls("event_calls.tsv", event);
  EXPECT_TRUE(fileComesToHold("ZLogs.tmp", "\"event-once\""));  // no flush: the batch size sent it
  EXPECT_EQ(wrongParts(dataFile("ZLogs.tmp"), "!event-twice"), "");
  zelvanor_event_free(event);
  zelvanor_event_free(nullptr);
  EXPECT_EQ(wrongParts(currentData(), "\"p-shared\"|!p-event|!event-bucket"), "");
  zelvanor_shutdown();  // no flush: shutdown keeps the record the batch size held back
  EXPECT_EQ(wrongParts(dataFile("ZLogs.tmp"),
                       "\"event-once\"|\"event-twice\"|\"p-event\"|\"event-bucket-a\"|"
                       "\"event-bucket-b\"|!p-event-first|!p-event-bad|!event-disabled|!ignored"),
            "");

  // Diagnostics, counters, readiness.
  EXPECT_EQ(outcome(zelvanor_set_diagnostics(ZELVANOR_LOG_INFO, keepErrors, &errors)), kOk);
  zelvanor_set_batch_size(1);  // a fresh start: no common block yet
  zelvanor_set_reachability_flags(0);
  EXPECT_EQ(zelvanor_wait_until_ready(5000), 1);  // the triple comes from the kept cookies
  zelvanor_on_ready([](void* calls) { ++*static_cast<int*>(calls); }, &readyCalls);
  EXPECT_EQ(readyCalls, 1);  // already ready: at once, on this thread
  trackNamed("before-common");
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1);
  EXPECT_EQ(wrongParts(errors, "no common block|before-common"), "");
  EXPECT_EQ(outcome(zelvanor_set("common", kCommon)), kOk);
  trackNamed("offline-1");
  EXPECT_EQ(zelvanor_flush_and_wait(5000), 1);  // offline: kept on disk is an outcome
  EXPECT_EQ(outcome(zelvanor_get_counters(&counters)), kOk);
  EXPECT_TRUE(counters.dropped_no_common_block == 1 && counters.kept_on_disk >= 1);
  EXPECT_TRUE(counters.awaiting_answer == 0 && counters.tracked >= 2 && counters.bytes_on_disk > 0);
  EXPECT_EQ(outcome(zelvanor_set_diagnostics(ZELVANOR_LOG_ERROR, nullptr, nullptr)), kOk);

  // Online through the host client with the host's header (set with the other host settings in
  // shared_calls.tsv), the before-send hook, collection off and the erasure of local data.
  zelvanor_set_before_send(beforeSend, &hookCalls);
  zelvanor_set_reachability_flags(ZELVANOR_REACHABLE);
  for (const char* name : {"drop-me", "swap-me", "keep-me"}) trackNamed(name);
  EXPECT_EQ(zelvanor_flush_and_wait(10000), 1);
  zelvanor_set_collection_enabled(0);
  EXPECT_EQ(zelvanor_collection_enabled(), 0);
  trackNamed("while-off");
  EXPECT_EQ(outcome(zelvanor_get_counters(&counters)), kOk);
  EXPECT_TRUE(counters.dropped_before_send == 2 && counters.dropped_collection_off == 1);
  EXPECT_GE(hookCalls, 3);
  // The host client carried the kept record with the host's header and was answered 200.
  EXPECT_TRUE(counters.delivered >= 1 && http.tenantPosts >= 1);
  EXPECT_TRUE(http.posts == http.tenantPosts && http.kept == 1 && http.dropped == 0);
  zelvanor_delete_local_data();  // collection off: nothing comes back
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(dataDir) / "ZLogs.tmp"));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(dataDir) / "cookies.txt"));
  zelvanor_set_before_send(nullptr, nullptr);
  zelvanor_set_collection_enabled(1);
  EXPECT_EQ(outcome(zelvanor_set_request_headers(nullptr, 0)), kOk);
  zelvanor_shutdown();
  EXPECT_EQ(outcome(zelvanor_get_counters(&counters)), kOk);
  EXPECT_EQ(counters.tracked, 0u);  // not running

  // The process ends with the SDK running and a record in memory: the exit hook keeps it (in
  // zelvanor.dll, whose threads Windows has ended by then, it must let them go, not hang).
  zelvanor_set_batch_size(1000);
  EXPECT_EQ(outcome(zelvanor_set("common", kCommon)), kOk);
  trackNamed("at-exit");
}

}  // namespace
