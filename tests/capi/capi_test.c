/* The C API driven from plain, portable C99 (on Windows against zelvanor.dll). The C API is a thin
 * layer over the C++ facade: what is checked is that each entry point reaches the C++ behaviour it
 * names (every block kind, tracking, lifecycle events, restarts with new facts and store limits,
 * events that carry their own blocks, diagnostics and counters, privacy switches, the host's own
 * HTTP client), and that bad input (NULL, bad JSON, unknown names) is refused, changes nothing and
 * names what is wrong.
 * Every request goes through the host client below: it answers the identity sync with the three
 * cookies and each collection request with 200. Offline (reachability 0) records go to the pending
 * file of a private data directory, which the test reads. */
#if !defined(_WIN32)
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#endif

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#if defined(_WIN32)
#include <windows.h>
#endif

#include "zelvanor/zelvanor.h"

static int failures = 0;
static char data_dir[512];

static void check(int ok, const char* condition, int line) {
  if (!ok) fprintf(stderr, "capi_test.c:%d: check failed: %s\n", line, condition);
  failures += !ok;
}
#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

static int contains(const char* text, const char* part) {
  return text && strstr(text, part) != NULL;
}

/* The call's status must be `expected`; a failure's message must name part1 and part2 (NULL:
 * anything), a success must leave no message. */
static void expect(zelvanor_status status, zelvanor_status expected, const char* part1,
                   const char* part2, int line) {
  const char* message = zelvanor_last_error();
  check(status == expected && (expected == ZELVANOR_OK ? message[0] == '\0'
                                                       : (!part1 || contains(message, part1)) &&
                                                             (!part2 || contains(message, part2))),
        message[0] ? message : "a status other than expected, or an error left behind", line);
}
#define EXPECT(call, expected, part1, part2) expect((call), (expected), (part1), (part2), __LINE__)
#define EXPECT_OK(call) expect((call), ZELVANOR_OK, NULL, NULL, __LINE__)
#define COUNT(array) (sizeof(array) / sizeof(array)[0])
#define E_ARG ZELVANOR_ERROR_INVALID_ARGUMENT
#define E_JSON ZELVANOR_ERROR_JSON
#define E_REJECTED ZELVANOR_ERROR_REJECTED
#define ACCEPTED ZELVANOR_OK, NULL, NULL

/* `size` bytes as text: the binary length prefixes of the pending files become blanks. */
static const char* as_text(const char* bytes, size_t size) {
  static char text[1 << 20];
  size_t i;
  if (size >= sizeof text) size = sizeof text - 1;
  for (i = 0; i < size; ++i) text[i] = bytes[i] ? bytes[i] : ' ';
  text[size] = '\0';
  return text;
}

/* The data directory's file `name` as text; NULL when it is not there. */
static const char* data_file(const char* name) {
  static char bytes[1 << 20];
  char path[600];
  size_t size;
  FILE* file;
  snprintf(path, sizeof path, "%s/%s", data_dir, name);
  if ((file = fopen(path, "rb")) == NULL) return NULL;
  size = fread(bytes, 1, sizeof bytes, file);
  fclose(file);
  return as_text(bytes, size);
}

/* Waits up to about ten seconds for the file to hold `part`. */
static int file_comes_to_hold(const char* name, const char* part) {
  int i;
  for (i = 0; i < 200 && !contains(data_file(name), part); ++i) {
#if defined(_WIN32)
    Sleep(50);
#else
    struct timespec pause = {0, 50000000L};
    nanosleep(&pause, NULL);
#endif
  }
  return contains(data_file(name), part);
}

/* Each '|'-separated part of `parts` must be in the text; one that starts with '!' must not. */
static void expect_parts(const char* text, const char* parts, int line) {
  char part[128];
  while (*parts) {
    size_t length = strcspn(parts, "|");
    int absent = parts[0] == '!';
    snprintf(part, sizeof part, "%.*s", (int)length, parts);
    check(contains(text ? text : "", part + absent) != absent, part, line);
    parts += length + (parts[length] == '|');
  }
}
#define EXPECT_PENDING(parts) expect_parts(data_file("ZLogs.tmp"), parts, __LINE__)

/* The current event's JSON (this uses up its blocks) holds the parts as above. */
static void expect_data(const char* parts, int line) {
  char* text = NULL;
  EXPECT_OK(zelvanor_get_data(&text));
  expect_parts(text, parts, line);
  zelvanor_string_free(text);
}

/* Sets each block (on `event`, or the shared ones when it is NULL) and checks the outcome. */
typedef struct {
  const char *block, *json;
  zelvanor_status status;
  const char *part1, *part2;
} block_case;
static void set_blocks(zelvanor_event* event, const block_case* cases, size_t count) {
  size_t i;
  for (i = 0; i < count; ++i) {
    const block_case* c = &cases[i];
    expect(event ? zelvanor_event_set(event, c->block, c->json) : zelvanor_set(c->block, c->json),
           c->status, c->part1, c->part2, __LINE__);
  }
}

/* ----- the host's HTTP client, the sinks and the hook ----------------------------------------- */

typedef struct {
  int syncs, posts, tenant_posts, kept, dropped;
} http_log;

static void host_send(const zelvanor_http_request* request, zelvanor_http_exchange* exchange,
                      void* user_data) {
  static const char* const cookies[] = {"Set-Cookie: fa_cid=cid-capi; Path=/; Max-Age=86400",
                                        "Set-Cookie: fa_did=did-capi; Path=/; Max-Age=86400",
                                        "Set-Cookie: fa_sid=sid-capi; Path=/; Max-Age=86400"};
  http_log* log = user_data;
  const char* body = as_text(request->body, request->body_length);
  size_t i;
  if (strcmp(request->method, "GET") == 0) {
    log->syncs++;
    zelvanor_http_answer(exchange, 200, cookies, 3, "", 0);
    return;
  }
  log->posts++;
  for (i = 0; i < request->header_count; ++i) {
    log->tenant_posts += strcmp(request->headers[i], "X-Tenant: acme") == 0;
  }
  log->kept += contains(body, "\"keep-me\"");
  log->dropped += contains(body, "\"drop-me\"") || contains(body, "\"swap-me\"");
  zelvanor_http_answer(exchange, 200, NULL, 0, "ok", 2); /* the collector's "delivered" */
}

typedef struct {
  int lines, errors;
  char last[512];
} line_log;

static void diagnostics_line(int level, const char* line, size_t length, void* user_data) {
  line_log* log = user_data;
  snprintf(log->last, sizeof log->last, "%.*s", (int)length, line);
  log->lines++;
  log->errors += level == ZELVANOR_LOG_ERROR;
}
static void console_line(const char* line, size_t length, void* user_data) {
  diagnostics_line(ZELVANOR_LOG_INFO, line, length, user_data);
}
static void mark_ready(void* user_data) {
  *(int*)user_data += 1;
}

/* Drops "drop-me", replaces "swap-me" with text that is no record (which drops it too). */
static int before_send(const char* json, size_t length, char** replacement, void* user_data) {
  ++*(int*)user_data;
  (void)length;
  if (contains(json, "\"drop-me\"")) return 0;
  if (contains(json, "\"swap-me\"") && (*replacement = malloc(8)) != NULL) {
    strcpy(*replacement, "[1,2]");
  }
  return 1;
}

/* ----- scenarios ----------------------------------------------------------------------------- */

static const char* const kCommon = "{\"service_name\":\"shop\",\"deployment\":\"dev\"}";

/* Tracks a page with this id and an event action with this name. */
static void track_named(const char* name, int disabled) {
  char page[128], action[128];
  snprintf(page, sizeof page, "{\"id\":\"%s\",\"name\":\"n\",\"title\":\"T\"}", name);
  snprintf(action, sizeof action, "{\"type\":\"event\",\"name\":\"%s\",\"kind\":\"k\"}", name);
  EXPECT_OK(zelvanor_set("page", page));
  EXPECT_OK(zelvanor_set("action", action));
  zelvanor_track(0, disabled);
}

/* The host's facts, applied at the next start. */
static const zelvanor_platform_facts kFacts = {.bundle_identifier = "com.example.capi",
                                               .app_version = "2.3.4",
                                               .data_directory = data_dir,
                                               .has_screen = 1,
                                               .screen_width = 390,
                                               .screen_height = 844};

/* Every block kind, accepted or refused, goes into one record, completed as in C++ (svcdomain
 * from the bundle id, access_time derived, the app version fact in the agent); a refusal names
 * the call, the kind of fault and the key path, and changes nothing. getData uses the blocks up. */
static void test_blocks_and_refusals(void) {
  static const block_case blocks[] = {
      /* A new common block records a launch event, which uses up the event blocks: first. */
      {"common",
       "{\"service_name\":\"shop\",\"deployment\":\"dev\",\"access_timestamp\":1700000000}",
       ACCEPTED},
      {"agent", "{\"carrier\":\"carrier-x\"}", ACCEPTED},
      {"utm", "{\"utm_source\":\"newsletter\"}", ACCEPTED},
      {"page", "{\"id\":\"p-first\",\"name\":\"home\",\"title\":\"Home\"}", ACCEPTED},
      {"page", "{\"id\":\"p-home\",\"name\":\"home\",\"title\":\"Home\"}", ACCEPTED},
      {"click", "{\"type\":\"button\"}", ACCEPTED},
      {"bucket", "{\"name\":\"bucket-a\"}", ACCEPTED},
      {"buckets", "[{\"name\":\"bucket-b\"},{\"name\":\"bucket-c\"}]", ACCEPTED},
      {"free", "\"anything\"", ACCEPTED},
      {"page", "{\"id\":\"p-bad\",\"name\":\"bad\"}", E_JSON, "key not found", "title"},
      {"common", "{\"service_name\":\"shop-bad\",\"deployment\":7}", E_JSON, "type mismatch",
       "deployment"},
      /* The whole list is refused, its good first element included. */
      {"buckets", "[{\"name\":\"bucket-bad-ok\"},{\"name\":5}]", E_JSON, "[1].name",
       "zelvanor_set(buckets)"},
      {"pages", "{}", E_ARG, "unknown block", "pages"},
      {"app", "{\"app_launch\":true}", E_REJECTED, "app", NULL},
      {NULL, "{}", E_ARG, "NULL", "zelvanor_set"},
      {"page", NULL, E_ARG, "NULL", "zelvanor_set"},
      /* The message belongs to the last failing call only. */
      {"action", "{\"type\":\"page_view\",\"name\":\"home\",\"kind\":\"view\"}", ACCEPTED},
  };
  const char* own_header[] = {"Content-Type: text/plain"};
  const char* no_colon[] = {"X-Tenant"};
  const char* null_entry[] = {NULL};
  const char* https = "https://127.0.0.1:9";
  set_blocks(NULL, blocks, COUNT(blocks));
  EXPECT(zelvanor_set_required(NULL), E_ARG, "NULL", NULL);
  EXPECT(zelvanor_post_lifecycle_event(7), E_ARG, "7", NULL);
  EXPECT(zelvanor_get_data(NULL), E_ARG, "NULL", NULL);
  EXPECT(zelvanor_set_platform_facts(NULL), E_ARG, "facts", NULL);
  EXPECT(zelvanor_set_endpoints("http://127.0.0.1:9", https, https, NULL), E_REJECTED, "https",
         NULL);
  EXPECT(zelvanor_set_endpoints(https, NULL, https, NULL), E_ARG, "zelvanor_set_endpoints", NULL);
  EXPECT(zelvanor_set_request_headers(own_header, 1), E_REJECTED, "zelvanor_set_request_h", NULL);
  EXPECT(zelvanor_set_request_headers(no_colon, 1), E_ARG, "zelvanor_set_request_h", "entry 0");
  EXPECT(zelvanor_set_request_headers(null_entry, 1), E_ARG, "zelvanor_set_request_h", NULL);
  EXPECT(zelvanor_set_proxy("ftp://127.0.0.1:21"), E_REJECTED, "zelvanor_set_proxy", NULL);
  EXPECT(zelvanor_set_diagnostics(7, NULL, NULL), E_ARG, "zelvanor_set_diagnostics", "7");
  EXPECT(zelvanor_get_counters(NULL), E_ARG, "zelvanor_get_counters", "NULL");
  zelvanor_set_production();
  expect_data(
      "\"p-home\"|\"production\"|\"cid-capi\"|\"user-42\"|\"carrier-x\"|\"newsletter\"|"
      "\"bucket-a\"|\"bucket-b\"|\"bucket-c\"|\"2.3.4\"|\"com.example.capi\"|"
      "\"access_time\"|\"request_timestamp\"|\"shop\"|"
      "!p-first|!\"free\"|!anything|!p-bad|!shop-bad|!bucket-bad-ok",
      __LINE__);
  expect_data("Can't make logRecord.", __LINE__);
  zelvanor_set_development();
}

/* Tracks reach the pending file at flush (not before: batch size 1000). Store limits set after a
 * shutdown apply at the next start: with room for two records in memory, the newest of a backlog
 * wait in a segment ("ZLogs.tmp.<n>"). The console sink stays silent throughout: every step
 * succeeds. */
static void test_tracking_and_restart(void) {
  line_log console = {0};
  char name[32];
  int i, in_segment = 0;
  zelvanor_set_console_log_sink(console_line, &console);
  track_named("p-tracked", 0);
  track_named("p-disabled", 1);
  EXPECT_OK(zelvanor_post_lifecycle_event(ZELVANOR_WILL_RESIGN_ACTIVE));
  EXPECT_PENDING("!p-tracked");
  zelvanor_flush();
  zelvanor_shutdown(); /* waits for the SDK's threads; whatever is undelivered is on disk now */
  EXPECT_PENDING("\"p-tracked\"|\"background\"|!p-disabled");

  zelvanor_set_store_limits(2, 0, 0, 0);
  zelvanor_set_batch_size(1000); /* starts the SDK; records wait in memory until a flush */
  zelvanor_set_reachability_flags(0);
  EXPECT_OK(zelvanor_set("common", kCommon));
  CHECK(zelvanor_wait_until_ready(10000) == 1);
  for (i = 0; i < 6; ++i) {
    snprintf(name, sizeof name, "limited-%d", i);
    track_named(name, 0);
  }
  for (i = 1; i <= 16 && !in_segment; ++i) {
    snprintf(name, sizeof name, "ZLogs.tmp.%d", i);
    in_segment = file_comes_to_hold(name, "\"limited-1\"");
  }
  CHECK(in_segment);
  zelvanor_flush();
  zelvanor_shutdown();
  zelvanor_set_store_limits(0, 0, 0, 0);
  CHECK(console.lines == 0);
  zelvanor_set_console_log_sink(NULL, NULL);
}

/* Events carry their own blocks: the same names and decoding as zelvanor_set, refusals that name
 * the call, tracking that leaves the shared blocks alone and the event reusable. Meanwhile a
 * refused configuration changes nothing: batch size 2 keeps one record waiting and sends the
 * older ones as each new one comes, and the refused texts ask for 1000 before their faulty key. */
static void test_events_and_batches(void) {
  static const char* const configurations[][3] = {
      {"{\"timeout\":10,", "data corrupted", NULL},
      {"{\"batchSize\":1000,\"timeout\":\"2\",\"usingSandboxEnvironment\":true}", "type mismatch",
       "timeout"},
      {"{\"timeout\":2,\"batchSize\":1000,\"usingSandboxEnvironment\":null}", "value not found",
       "usingSandboxEnvironment"},
      {"{\"timeout\":2,\"batchSize\":1000}", "key not found", "usingSandboxEnvironment"},
  };
  static const block_case blocks[] = {
      {"page", "{\"id\":\"p-event-first\",\"name\":\"n\",\"title\":\"T\"}", ACCEPTED},
      {"page", "{\"id\":\"p-event\",\"name\":\"n\",\"title\":\"T\"}", ACCEPTED},
      {"bucket", "{\"name\":\"event-bucket-a\"}", ACCEPTED},
      {"buckets", "[{\"name\":\"event-bucket-b\"}]", ACCEPTED},
      {"free", "\"ignored\"", ACCEPTED},
      {"page", "{\"id\":\"p-event-bad\",\"name\":\"n\"}", E_JSON, "zelvanor_event_set(page)",
       "title"},
      {"common", "{\"service_name\":\"s\",\"deployment\":\"d\"}", E_REJECTED,
       "zelvanor_event_set(common)", "zelvanor_set"},
      {"action", "{\"type\":\"event\",\"name\":\"event-once\",\"kind\":\"k\"}", ACCEPTED},
      /* Each set on its own below: the event keeps its blocks, a new action and the same page. */
      {"action", "{\"type\":\"event\",\"name\":\"event-twice\",\"kind\":\"k\"}", ACCEPTED},
      {"action", "{\"type\":\"event\",\"name\":\"event-disabled\",\"kind\":\"k\"}", ACCEPTED},
  };
  const size_t twice = COUNT(blocks) - 2, disabled = COUNT(blocks) - 1;
  zelvanor_event* event = zelvanor_event_new();
  size_t i;
  CHECK(event != NULL);
  zelvanor_set_reachability_flags(0);
  EXPECT_OK(zelvanor_set("common", kCommon)); /* starts the SDK */
  EXPECT_OK(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"));
  CHECK(zelvanor_wait_until_ready(10000) == 1);
  EXPECT_OK(
      zelvanor_set_required("{\"timeout\":2,\"batchSize\":2,\"usingSandboxEnvironment\":false}"));
  for (i = 0; i < COUNT(configurations); ++i) {
    EXPECT(zelvanor_set_required(configurations[i][0]), E_JSON, configurations[i][1],
           configurations[i][2]);
  }
  EXPECT_OK(zelvanor_set("page", "{\"id\":\"p-shared\",\"name\":\"n\",\"title\":\"T\"}"));
  set_blocks(event, blocks, twice);
  EXPECT(zelvanor_event_set(NULL, "page", "{}"), E_ARG, "NULL", NULL);
  EXPECT(zelvanor_event_track(NULL, 0, 0), E_ARG, "NULL", NULL);
  EXPECT_OK(zelvanor_event_track(event, 0, 0));
  set_blocks(event, &blocks[twice], 1);
  EXPECT_OK(zelvanor_event_track(event, 0, 0));
  CHECK(file_comes_to_hold("ZLogs.tmp", "\"event-once\"")); /* no flush: the batch size sent it */
  EXPECT_PENDING("!event-twice");
  set_blocks(event, &blocks[disabled], 1);
  EXPECT_OK(zelvanor_event_track(event, 0, 1));
  zelvanor_event_free(event);
  zelvanor_event_free(NULL);
  EXPECT_OK(zelvanor_set("action", "{\"type\":\"event\",\"name\":\"shared\",\"kind\":\"k\"}"));
  expect_data("\"p-shared\"|!p-event|!event-bucket", __LINE__);
  zelvanor_shutdown(); /* no flush: shutdown keeps the record the batch size held back */
  EXPECT_PENDING(
      "\"event-once\"|\"event-twice\"|\"p-event\"|\"event-bucket-a\"|"
      "\"event-bucket-b\"|!p-event-first|!p-event-bad|!event-disabled|!ignored");
}

/* Diagnostics, counters, readiness; then online through the host client with the host's header,
 * the before-send hook, collection off and the erasure of local data. */
static void test_diagnostics_and_privacy(http_log* http) {
  const char* tenant[] = {"X-Tenant: acme"};
  line_log diagnostics = {0};
  zelvanor_counters counters;
  int ready_calls = 0, hook_calls = 0;
  EXPECT_OK(zelvanor_set_diagnostics(ZELVANOR_LOG_INFO, diagnostics_line, &diagnostics));
  zelvanor_set_batch_size(1); /* a fresh start: no common block yet */
  zelvanor_set_reachability_flags(0);
  CHECK(zelvanor_wait_until_ready(5000) == 1); /* the triple comes from the kept cookies */
  zelvanor_on_ready(mark_ready, &ready_calls);
  CHECK(ready_calls == 1); /* already ready: at once, on this thread */
  track_named("before-common", 0);
  CHECK(diagnostics.errors == 1);
  expect_parts(diagnostics.last, "no common block|before-common", __LINE__);
  EXPECT_OK(zelvanor_set("common", kCommon));
  track_named("offline-1", 0);
  CHECK(zelvanor_flush_and_wait(5000) == 1); /* offline: kept on disk is an outcome */
  EXPECT_OK(zelvanor_get_counters(&counters));
  CHECK(counters.dropped_no_common_block == 1 && counters.kept_on_disk >= 1);
  CHECK(counters.awaiting_answer == 0 && counters.tracked >= 2 && counters.bytes_on_disk > 0);
  EXPECT_OK(zelvanor_set_diagnostics(ZELVANOR_LOG_ERROR, NULL, NULL));

  EXPECT_OK(zelvanor_set_request_headers(tenant, 1));
  EXPECT_OK(zelvanor_set_proxy("socks5h://user:pw@127.0.0.1:1080"));
  EXPECT_OK(zelvanor_set_proxy(NULL));
  zelvanor_set_before_send(before_send, &hook_calls);
  zelvanor_set_reachability_flags(ZELVANOR_REACHABLE);
  track_named("drop-me", 0);
  track_named("swap-me", 0);
  track_named("keep-me", 0);
  CHECK(zelvanor_flush_and_wait(10000) == 1);
  zelvanor_set_collection_enabled(0);
  CHECK(zelvanor_collection_enabled() == 0);
  track_named("while-off", 0);
  EXPECT_OK(zelvanor_get_counters(&counters));
  CHECK(counters.dropped_before_send == 2 && counters.dropped_collection_off == 1);
  CHECK(hook_calls >= 3);
  /* The host client carried the kept record with the host's header and was answered 200. */
  CHECK(counters.delivered >= 1 && http->tenant_posts >= 1);
  CHECK(http->posts == http->tenant_posts && http->kept == 1 && http->dropped == 0);

  zelvanor_delete_local_data(); /* collection off: nothing comes back */
  CHECK(!data_file("ZLogs.tmp") && !data_file("cookies.txt"));
  zelvanor_set_before_send(NULL, NULL);
  zelvanor_set_collection_enabled(1);
  EXPECT_OK(zelvanor_set_request_headers(NULL, 0));
  zelvanor_shutdown();
  EXPECT_OK(zelvanor_get_counters(&counters));
  CHECK(counters.tracked == 0); /* not running */
}

/* Runs after the SDK's own exit hook (registered later): what it and the last starts left, and
 * the directory; one that stays (Windows' remove() takes files only) is harmless. */
static void remove_data_dir(void) {
  static const char kFiles[] =
      "settings.json\0cookies.txt\0ZLogs.lock\0ZTemplates.tmp\0ZLogs.tmp\0ZLogs.tmp.1\0";
  const char* name;
  char path[600];
  for (name = kFiles; *name; name += strlen(name) + 1) {
    snprintf(path, sizeof path, "%s/%s", data_dir, name);
    remove(path);
  }
  remove(data_dir);
}

int main(void) {
  const char* temp = getenv("TMPDIR");
  http_log http = {0};
  if (!temp) temp = getenv("TEMP");
  /* The SDK makes the directory; the name is this run's own. */
  snprintf(data_dir, sizeof data_dir, "%s/zelvanor-capi-%lu-%d", temp ? temp : "/tmp",
           (unsigned long)time(NULL), (int)(clock() % 100000));
  atexit(remove_data_dir);
  EXPECT_OK(zelvanor_set_platform_facts(&kFacts));
  zelvanor_set_http_client(host_send, &http);
  /* Port 9 (discard): nothing there; the host client answers instead. */
  EXPECT_OK(zelvanor_set_endpoints("https://127.0.0.1:9", "https://127.0.0.1:9",
                                   "https://127.0.0.1:9", NULL));
  EXPECT_OK(zelvanor_set_required(
      "{\"timeout\":2,\"batchSize\":1000,\"usingSandboxEnvironment\":true,\"extra\":[1]}"));
  zelvanor_use_general_envrionment();
  zelvanor_set_timeout(2.0);
  zelvanor_set_reachability_flags(ZELVANOR_REACHABLE);
  EXPECT_OK(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"));
  CHECK(zelvanor_wait_until_ready(10000) == 1 && http.syncs == 1); /* the sync's cookies */
  zelvanor_set_reachability_flags(0);
  test_blocks_and_refusals();
  test_tracking_and_restart();
  test_events_and_batches();
  test_diagnostics_and_privacy(&http);
  /* The process ends with the SDK running and a record in memory: the exit hook keeps it (in
   * zelvanor.dll, whose threads Windows has ended by then, it must let them go, not hang). */
  zelvanor_set_batch_size(1000);
  EXPECT_OK(zelvanor_set("common", kCommon));
  track_named("at-exit", 0);
  if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures != 0;
}
