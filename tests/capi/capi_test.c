/* The C API driven from plain C: configuration, every block kind, rejected input that must
 * change nothing, tracking into the pending file, lifecycle events, the console sink and events
 * that carry their own blocks.
 * Nothing listens on the configured servers: records that cannot be sent land in the pending
 * file of a private data directory. The identity triple comes from a cookie jar written up front,
 * as a previous sync would have left it. */
#define _XOPEN_SOURCE 700

#include <dirent.h>
#include <errno.h>
#include <ftw.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "zelvanor/zelvanor.h"

static int failures = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      ++failures;                                                                   \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                               \
  } while (0)

#define CHECK_STATUS(call, expected)                                                          \
  do {                                                                                        \
    zelvanor_status status_ = (call);                                                         \
    if (status_ != (expected)) {                                                              \
      ++failures;                                                                             \
      fprintf(stderr, "%s:%d: %s returned %d, expected %d (%s)\n", __FILE__, __LINE__, #call, \
              (int)status_, (int)(expected), zelvanor_last_error());                          \
    }                                                                                         \
  } while (0)

static const char* const kUnstable = "Zelvanor Status unstable not yet.";
static const char* const kNoRecord = "Can't make logRecord.";

static char data_dir[] = "/tmp/zelvanor-capi-XXXXXX";

static void sleep_ms(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

static int contains(const char* text, const char* part) {
  return text && strstr(text, part) != NULL;
}

/* A failing call's message must name what went wrong. */
static void expect_error(zelvanor_status status, zelvanor_status expected, const char* part1,
                         const char* part2, int line) {
  const char* message = zelvanor_last_error();
  if (status != expected || !contains(message, part1) || (part2 && !contains(message, part2))) {
    ++failures;
    fprintf(
        stderr, "capi_test.c:%d: status %d (expected %d), message \"%s\" should name \"%s\"%s%s\n",
        line, (int)status, (int)expected, message, part1, part2 ? " and " : "", part2 ? part2 : "");
  }
}
#define EXPECT_ERROR(call, expected, part1, part2) \
  expect_error((call), (expected), (part1), (part2), __LINE__)

static char* get_data(void) {
  char* text = NULL;
  CHECK_STATUS(zelvanor_get_data(&text), ZELVANOR_OK);
  CHECK(text != NULL);
  return text;
}

static char* path_in_data_dir(const char* name) {
  static char path[512];
  snprintf(path, sizeof path, "%s/%s", data_dir, name);
  return path;
}

/* The whole file, or NULL when it does not exist. The pending file holds binary length
 * prefixes; *size tells how much is there. */
static char* read_file(const char* path, size_t* size) {
  FILE* file = fopen(path, "rb");
  char* buffer;
  size_t used = 0, capacity = 4096;
  if (!file) return NULL;
  buffer = malloc(capacity);
  while (buffer) {
    size_t got = fread(buffer + used, 1, capacity - used, file);
    used += got;
    if (got == 0) break;
    if (used == capacity) {
      char* bigger = realloc(buffer, capacity * 2);
      if (!bigger) {
        free(buffer);
        buffer = NULL;
        break;
      }
      buffer = bigger;
      capacity *= 2;
    }
  }
  fclose(file);
  if (size) *size = used;
  return buffer;
}

static int bytes_contain(const char* data, size_t size, const char* part) {
  size_t length = strlen(part), i;
  if (!data || length > size) return 0;
  for (i = 0; i + length <= size; ++i) {
    if (memcmp(data + i, part, length) == 0) return 1;
  }
  return 0;
}

static int pending_file_contains(const char* part) {
  size_t size = 0;
  char* data = read_file(path_in_data_dir("ZLogs.tmp"), &size);
  int found = bytes_contain(data, size, part);
  free(data);
  return found;
}

static int remove_entry(const char* path, const struct stat* info, int flag, struct FTW* ftw) {
  (void)info;
  (void)flag;
  (void)ftw;
  return remove(path);
}

/* ----- console sink ------------------------------------------------------------------------ */

typedef struct {
  int lines;
  char last[512];
} console_record;

static void record_console_line(const char* line, size_t length, void* user_data) {
  console_record* record = user_data;
  size_t keep = length < sizeof record->last - 1 ? length : sizeof record->last - 1;
  memcpy(record->last, line, keep);
  record->last[keep] = '\0';
  record->lines++;
}

/* ----- setup ------------------------------------------------------------------------------- */

static int write_cookie_jar(void) {
  FILE* jar = fopen(path_in_data_dir("cookies.txt"), "w");
  if (!jar) return 0;
  fputs("# Netscape HTTP Cookie File\n", jar);
  fputs("127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tcid-capi\n", jar);
  fputs("127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_did\tdid-capi\n", jar);
  fputs("127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_sid\tsid-capi\n", jar);
  return fclose(jar) == 0;
}

static zelvanor_platform_facts facts_for_test(void) {
  zelvanor_platform_facts facts;
  memset(&facts, 0, sizeof facts);
  facts.bundle_identifier = "com.example.capi";
  facts.app_version = "2.3.4";
  facts.data_directory = data_dir;
  facts.has_screen = 1;
  facts.screen_width = 390;
  facts.screen_height = 844;
  return facts;
}

static void test_setup_and_endpoints(void) {
  zelvanor_platform_facts facts = facts_for_test();
  CHECK_STATUS(zelvanor_set_platform_facts(&facts), ZELVANOR_OK);
  EXPECT_ERROR(zelvanor_set_platform_facts(NULL), ZELVANOR_ERROR_INVALID_ARGUMENT, "facts", NULL);

  /* Port 9 (discard) has no listener on loopback: every send fails fast. */
  CHECK_STATUS(zelvanor_set_endpoints("https://127.0.0.1:9", "https://127.0.0.1:9",
                                      "https://127.0.0.1:9", NULL),
               ZELVANOR_OK);
  CHECK(zelvanor_last_error()[0] == '\0');
  /* Rejected endpoints leave the loopback ones in force: the cookies below only match them. */
  EXPECT_ERROR(zelvanor_set_endpoints("http://127.0.0.1:9", "https://127.0.0.1:9",
                                      "https://127.0.0.1:9", NULL),
               ZELVANOR_ERROR_REJECTED, "https", NULL);
  EXPECT_ERROR(zelvanor_set_endpoints("https://127.0.0.1:9", NULL, "https://127.0.0.1:9", NULL),
               ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set_endpoints", NULL);
}

static void test_configuration(void) {
  EXPECT_ERROR(zelvanor_set_required("{\"timeout\":10,"), ZELVANOR_ERROR_JSON, "data corrupted",
               NULL);
  EXPECT_ERROR(zelvanor_set_required(NULL), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL", NULL);

  /* Batch size 1000 keeps tracked records in memory until flush; unknown keys are ignored. */
  CHECK_STATUS(zelvanor_set_required("{\"timeout\":2,\"batchSize\":1000,"
                                     "\"usingSandboxEnvironment\":true,\"extra\":[1]}"),
               ZELVANOR_OK);
  CHECK(zelvanor_last_error()[0] == '\0');
  zelvanor_use_general_envrionment();
  zelvanor_use_sandbox_environment();
  zelvanor_use_general_envrionment();
  zelvanor_set_timeout(2.0);
}

/* The triple comes from the cookie jar on the SDK's own threads; wait for it (bounded). */
static int wait_until_ready(void) {
  int attempt;
  for (attempt = 0; attempt < 200; ++attempt) {
    char* text = get_data();
    int ready = text && strcmp(text, kUnstable) != 0;
    if (ready) CHECK(strcmp(text, kNoRecord) == 0); /* no action block yet */
    zelvanor_string_free(text);
    if (ready) return 1;
    sleep_ms(50);
  }
  return 0;
}

static void test_blocks_make_one_record(void) {
  char* text;
  CHECK_STATUS(zelvanor_set("common",
                            "{\"service_name\":\"shop\",\"deployment\":\"dev\","
                            "\"access_timestamp\":1700000000}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"), ZELVANOR_OK);
  CHECK(wait_until_ready());

  CHECK_STATUS(zelvanor_set("agent", "{\"carrier\":\"carrier-x\"}"), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("utm", "{\"utm_source\":\"newsletter\"}"), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("page", "{\"id\":\"p-first\",\"name\":\"home\",\"title\":\"Home\"}"),
               ZELVANOR_OK);
  /* Setting a block twice keeps the last. */
  CHECK_STATUS(zelvanor_set("page", "{\"id\":\"p-home\",\"name\":\"home\",\"title\":\"Home\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("click", "{\"type\":\"button\"}"), ZELVANOR_OK);
  /* Lists accumulate: one bucket, then two more. */
  CHECK_STATUS(zelvanor_set("bucket", "{\"name\":\"bucket-a\"}"), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("buckets", "[{\"name\":\"bucket-b\"},{\"name\":\"bucket-c\"}]"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("free", "\"anything\""), ZELVANOR_OK);
  CHECK_STATUS(
      zelvanor_set("action", "{\"type\":\"page_view\",\"name\":\"home\",\"kind\":\"view\"}"),
      ZELVANOR_OK);
  zelvanor_set_production();

  text = get_data();
  CHECK(contains(text, "\"p-home\""));
  CHECK(!contains(text, "p-first"));
  CHECK(contains(text, "\"production\""));
  CHECK(contains(text, "\"cid-capi\""));
  CHECK(contains(text, "\"user-42\""));
  CHECK(contains(text, "\"carrier-x\""));
  CHECK(contains(text, "\"newsletter\""));
  CHECK(contains(text, "\"bucket-a\""));
  CHECK(contains(text, "\"bucket-b\""));
  CHECK(contains(text, "\"bucket-c\""));
  CHECK(contains(text, "\"2.3.4\"")); /* the app version fact reaches the agent */
  /* The common block is completed as in C++: svcdomain from the bundle id, access_time derived. */
  CHECK(contains(text, "\"com.example.capi\""));
  CHECK(contains(text, "\"access_time\""));
  CHECK(contains(text, "\"request_timestamp\""));
  CHECK(!contains(text, "\"free\""));
  CHECK(!contains(text, "anything"));
  zelvanor_string_free(text);

  /* getData used the blocks up. */
  text = get_data();
  CHECK(text && strcmp(text, kNoRecord) == 0);
  zelvanor_string_free(text);
  zelvanor_set_development();
}

static void test_rejected_input_changes_nothing(void) {
  char* text;
  /* Common first: a new common block records a launch event, which uses up the event blocks. */
  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop-kept\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("page", "{\"id\":\"p-kept\",\"name\":\"kept\",\"title\":\"Kept\"}"),
               ZELVANOR_OK);

  EXPECT_ERROR(zelvanor_set("page", "{\"id\":\"p-bad\",\"name\":\"bad\"}"), ZELVANOR_ERROR_JSON,
               "key not found", "title");
  EXPECT_ERROR(zelvanor_set("common", "{\"service_name\":\"shop-bad\",\"deployment\":7}"),
               ZELVANOR_ERROR_JSON, "type mismatch", "deployment");
  /* The whole list is refused, its good first element included. */
  EXPECT_ERROR(zelvanor_set("buckets", "[{\"name\":\"bucket-bad-ok\"},{\"name\":5}]"),
               ZELVANOR_ERROR_JSON, "[1].name", "zelvanor_set(buckets)");
  EXPECT_ERROR(zelvanor_set("pages", "{}"), ZELVANOR_ERROR_INVALID_ARGUMENT, "unknown block",
               "pages");
  EXPECT_ERROR(zelvanor_set("app", "{\"app_launch\":true}"), ZELVANOR_ERROR_REJECTED, "app", NULL);
  EXPECT_ERROR(zelvanor_set(NULL, "{}"), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL", NULL);
  EXPECT_ERROR(zelvanor_set("page", NULL), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL", NULL);
  EXPECT_ERROR(zelvanor_post_lifecycle_event(7), ZELVANOR_ERROR_INVALID_ARGUMENT, "7", NULL);
  EXPECT_ERROR(zelvanor_get_data(NULL), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL", NULL);

  /* The message belongs to the last failing call only. */
  CHECK_STATUS(zelvanor_set("action", "{\"type\":\"event\",\"name\":\"n\",\"kind\":\"k\"}"),
               ZELVANOR_OK);
  CHECK(zelvanor_last_error()[0] == '\0');

  text = get_data();
  CHECK(contains(text, "\"p-kept\""));
  CHECK(contains(text, "\"shop-kept\""));
  CHECK(!contains(text, "p-bad"));
  CHECK(!contains(text, "shop-bad"));
  CHECK(!contains(text, "bucket-bad-ok"));
  CHECK(contains(text, "\"development\""));
  zelvanor_string_free(text);
}

/* Sets a page with this id and an event action with this name, then tracks them. */
static void track_page_event(const char* page_id, const char* action_name, int disabled) {
  char page[128];
  char action[128];
  snprintf(page, sizeof page, "{\"id\":\"%s\",\"name\":\"n\",\"title\":\"T\"}", page_id);
  snprintf(action, sizeof action, "{\"type\":\"event\",\"name\":\"%s\",\"kind\":\"click\"}",
           action_name);
  CHECK_STATUS(zelvanor_set("page", page), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("action", action), ZELVANOR_OK);
  zelvanor_track(0, disabled);
}

static void test_tracking_reaches_the_pending_file(void) {
  zelvanor_set_reachability_flags(0); /* offline: sends go straight to the pending file */
  track_page_event("p-tracked", "buy", 0);
  track_page_event("p-disabled", "skip", 1);
  CHECK_STATUS(zelvanor_post_lifecycle_event(ZELVANOR_WILL_RESIGN_ACTIVE), ZELVANOR_OK);
  /* Batch size 1000: nothing has been handed to the sender yet. */
  CHECK(!pending_file_contains("p-tracked"));
  zelvanor_flush();
  zelvanor_shutdown(); /* waits for the SDK's threads; whatever is undelivered is on disk now */

  CHECK(pending_file_contains("\"p-tracked\""));
  CHECK(pending_file_contains("\"background\""));
  CHECK(!pending_file_contains("p-disabled"));
}

/* Facts set after a shutdown apply when the next call starts the SDK again: the new app version
 * shows in the agent block and the version change records an update event. The console sink is
 * installed throughout; these steps succeed, so it must stay silent. */
static void test_restart_with_new_facts(void) {
  console_record record;
  zelvanor_platform_facts facts = facts_for_test();
  char* text;
  memset(&record, 0, sizeof record);
  zelvanor_set_console_log_sink(record_console_line, &record);
  facts.app_version = "9.9.9";
  CHECK_STATUS(zelvanor_set_platform_facts(&facts), ZELVANOR_OK);
  zelvanor_set_batch_size(1000); /* starts the SDK again */
  zelvanor_set_reachability_flags(0);
  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"), ZELVANOR_OK);
  CHECK(wait_until_ready());
  CHECK_STATUS(zelvanor_set("action", "{\"type\":\"event\",\"name\":\"n\",\"kind\":\"k\"}"),
               ZELVANOR_OK);
  text = get_data();
  CHECK(contains(text, "\"9.9.9\""));
  CHECK(!contains(text, "\"2.3.4\""));
  zelvanor_string_free(text);
  zelvanor_flush();
  zelvanor_shutdown();
  CHECK(pending_file_contains("\"update\""));
  CHECK(record.lines == 0);
  zelvanor_set_console_log_sink(NULL, NULL);
}

/* A rejected configuration leaves the one in force. Batch size 2 keeps one record waiting and
 * sends the older ones as each new one comes; the rejected texts ask for 1000 before their faulty
 * key, so had any of them been applied, even in part, nothing would be sent before the shutdown.
 * Console logs go off and on meanwhile; every record here encodes, so the sink stays silent. */
static void test_rejected_configuration_changes_nothing(void) {
  console_record record;
  int attempt, arrived = 0;
  memset(&record, 0, sizeof record);
  zelvanor_set_console_log_sink(record_console_line, &record);
  zelvanor_turn_off_console_logs();
  CHECK_STATUS(
      zelvanor_set_required("{\"timeout\":2,\"batchSize\":2,\"usingSandboxEnvironment\":false}"),
      ZELVANOR_OK);
  zelvanor_set_reachability_flags(0);
  EXPECT_ERROR(zelvanor_set_required(
                   "{\"batchSize\":1000,\"timeout\":\"2\",\"usingSandboxEnvironment\":true}"),
               ZELVANOR_ERROR_JSON, "type mismatch", "timeout");
  EXPECT_ERROR(
      zelvanor_set_required("{\"timeout\":2,\"batchSize\":1000,\"usingSandboxEnvironment\":null}"),
      ZELVANOR_ERROR_JSON, "value not found", "usingSandboxEnvironment");
  EXPECT_ERROR(zelvanor_set_required("{\"timeout\":2,\"batchSize\":1000}"), ZELVANOR_ERROR_JSON,
               "key not found", "usingSandboxEnvironment");
  zelvanor_turn_on_console_logs();

  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"), ZELVANOR_OK);
  CHECK(wait_until_ready());
  track_page_event("p-batch-1", "n", 0);
  track_page_event("p-batch-2", "n", 0);
  /* No flush: the batch size alone sends the first, offline straight into the pending file. */
  for (attempt = 0; attempt < 200 && !arrived; ++attempt) {
    arrived = pending_file_contains("\"p-batch-1\"");
    if (!arrived) sleep_ms(50);
  }
  CHECK(arrived);
  CHECK(!pending_file_contains("p-batch-2")); /* the one record a batch size of 2 keeps */
  zelvanor_shutdown();
  CHECK(pending_file_contains("\"p-batch-2\""));
  CHECK(record.lines == 0);
  zelvanor_set_console_log_sink(NULL, NULL);
}

/* Events that carry their own blocks: the same names and decoding as zelvanor_set, refusals that
 * name the call, tracking that leaves the shared blocks alone and the event reusable. */
static void test_events_carry_their_own_blocks(void) {
  char* text;
  zelvanor_event* event = zelvanor_event_new();
  zelvanor_event* other = zelvanor_event_new();
  CHECK(event != NULL && other != NULL);
  if (!event || !other) return;
  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"), ZELVANOR_OK);
  CHECK(wait_until_ready());
  zelvanor_set_reachability_flags(0); /* offline: sends go straight to the pending file */

  CHECK_STATUS(zelvanor_set("page", "{\"id\":\"p-shared\",\"name\":\"n\",\"title\":\"T\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_set(event, "page",
                                  "{\"id\":\"p-event-first\",\"name\":\"n\",\"title\":\"T\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(
      zelvanor_event_set(event, "page", "{\"id\":\"p-event\",\"name\":\"n\",\"title\":\"T\"}"),
      ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_set(event, "bucket", "{\"name\":\"event-bucket-a\"}"), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_set(event, "buckets", "[{\"name\":\"event-bucket-b\"}]"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_set(event, "free", "\"ignored\""), ZELVANOR_OK);

  EXPECT_ERROR(zelvanor_event_set(event, "page", "{\"id\":\"p-event-bad\",\"name\":\"n\"}"),
               ZELVANOR_ERROR_JSON, "zelvanor_event_set(page)", "title");
  EXPECT_ERROR(zelvanor_event_set(event, "common", "{\"service_name\":\"s\",\"deployment\":\"d\"}"),
               ZELVANOR_ERROR_REJECTED, "zelvanor_event_set(common)", "zelvanor_set");
  EXPECT_ERROR(zelvanor_event_set(NULL, "page", "{}"), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL",
               NULL);
  EXPECT_ERROR(zelvanor_event_track(NULL, 0, 0), ZELVANOR_ERROR_INVALID_ARGUMENT, "NULL", NULL);

  CHECK_STATUS(zelvanor_event_set(event, "action",
                                  "{\"type\":\"event\",\"name\":\"event-once\",\"kind\":\"k\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_track(event, 0, 0), ZELVANOR_OK);
  CHECK(zelvanor_last_error()[0] == '\0');
  /* The event keeps its blocks: a new action, the same page, tracked again. */
  CHECK_STATUS(zelvanor_event_set(event, "action",
                                  "{\"type\":\"event\",\"name\":\"event-twice\",\"kind\":\"k\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_track(event, 0, 0), ZELVANOR_OK);
  CHECK_STATUS(
      zelvanor_event_set(other, "action",
                         "{\"type\":\"event\",\"name\":\"event-disabled\",\"kind\":\"k\"}"),
      ZELVANOR_OK);
  CHECK_STATUS(zelvanor_event_track(other, 0, 1), ZELVANOR_OK);
  zelvanor_event_free(event);
  zelvanor_event_free(other);
  zelvanor_event_free(NULL);

  /* The shared blocks are still there, without any of the event's. */
  CHECK_STATUS(zelvanor_set("action", "{\"type\":\"event\",\"name\":\"shared\",\"kind\":\"k\"}"),
               ZELVANOR_OK);
  text = get_data();
  CHECK(contains(text, "\"p-shared\""));
  CHECK(!contains(text, "p-event"));
  CHECK(!contains(text, "event-bucket"));
  zelvanor_string_free(text);

  zelvanor_flush();
  zelvanor_shutdown();
  CHECK(pending_file_contains("\"event-once\""));
  CHECK(pending_file_contains("\"event-twice\""));
  CHECK(pending_file_contains("\"p-event\""));
  CHECK(pending_file_contains("\"event-bucket-a\""));
  CHECK(pending_file_contains("\"event-bucket-b\""));
  CHECK(!pending_file_contains("p-event-first"));
  CHECK(!pending_file_contains("p-event-bad"));
  CHECK(!pending_file_contains("event-disabled"));
  CHECK(!pending_file_contains("ignored"));
}

/* With room for two records in memory, the newest of a larger backlog wait in a segment on disk
 * (the batch size keeps them all waiting), and shutdown keeps every one of them. */
static int segment_holds(const char* needle) {
  DIR* dir = opendir(data_dir);
  struct dirent* entry;
  int found = 0;
  if (!dir) return 0;
  while (!found && (entry = readdir(dir)) != NULL) {
    size_t size = 0;
    char* data;
    if (strncmp(entry->d_name, "ZLogs.tmp.", 10) != 0) continue;
    data = read_file(path_in_data_dir(entry->d_name), &size);
    found = bytes_contain(data, size, needle);
    free(data);
  }
  closedir(dir);
  return found;
}

static void test_store_limits_apply_at_the_next_start(void) {
  int i;
  zelvanor_shutdown();
  zelvanor_set_store_limits(2, 0, 0, 0);
  zelvanor_set_batch_size(1000); /* starts the SDK again, with the new limits */
  zelvanor_set_reachability_flags(0);
  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set("id", "{\"app_user_id\":\"user-42\"}"), ZELVANOR_OK);
  CHECK(wait_until_ready());
  for (i = 0; i < 6; ++i) {
    char name[32];
    snprintf(name, sizeof name, "limited-%d", i);
    track_page_event(name, "buy", 0);
  }
  for (i = 0; i < 200 && !segment_holds("\"limited-1\""); ++i) sleep_ms(10);
  CHECK(segment_holds("\"limited-1\""));
  zelvanor_shutdown();
  zelvanor_set_store_limits(0, 0, 0, 0);
}

typedef struct diagnostics_record {
  int lines;
  int errors;
  char last[512];
} diagnostics_record;

static void record_diagnostics_line(int level, const char* line, size_t length, void* user_data) {
  diagnostics_record* record = user_data;
  size_t keep = length < sizeof record->last - 1 ? length : sizeof record->last - 1;
  memcpy(record->last, line, keep);
  record->last[keep] = '\0';
  record->lines++;
  if (level == ZELVANOR_LOG_ERROR) record->errors++;
}

static void mark_ready(void* user_data) {
  *(int*)user_data += 1;
}

static void test_diagnostics_counters_and_waiting(void) {
  diagnostics_record record;
  zelvanor_counters counters;
  int ready_calls = 0;
  memset(&record, 0, sizeof record);
  EXPECT_ERROR(zelvanor_set_diagnostics(7, record_diagnostics_line, &record),
               ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set_diagnostics", "7");
  EXPECT_ERROR(zelvanor_get_counters(NULL), ZELVANOR_ERROR_INVALID_ARGUMENT,
               "zelvanor_get_counters", "NULL");
  CHECK_STATUS(zelvanor_set_diagnostics(ZELVANOR_LOG_INFO, record_diagnostics_line, &record),
               ZELVANOR_OK);

  zelvanor_shutdown();
  zelvanor_set_batch_size(1); /* a fresh start: no common block yet */
  zelvanor_set_reachability_flags(0);
  CHECK(zelvanor_wait_until_ready(5000) == 1); /* the triple comes from the cookie jar */
  zelvanor_on_ready(mark_ready, &ready_calls);
  CHECK(ready_calls == 1); /* already ready: at once, on this thread */

  track_page_event("p-early", "before-common", 0);
  CHECK(record.errors == 1);
  CHECK(contains(record.last, "no common block"));
  CHECK(contains(record.last, "before-common"));

  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  track_page_event("p-offline", "offline-1", 0);
  /* Offline, so the record is kept on disk: an outcome, nothing to wait for. */
  CHECK(zelvanor_flush_and_wait(5000) == 1);
  CHECK_STATUS(zelvanor_get_counters(&counters), ZELVANOR_OK);
  CHECK(counters.dropped_no_common_block == 1);
  CHECK(counters.kept_on_disk >= 1);
  CHECK(counters.awaiting_answer == 0);
  CHECK(counters.tracked >= 2);
  CHECK(counters.bytes_on_disk > 0);
  CHECK(contains(record.last, "kept on disk") || contains(record.last, "offline"));

  CHECK_STATUS(zelvanor_set_diagnostics(ZELVANOR_LOG_ERROR, NULL, NULL), ZELVANOR_OK);
  zelvanor_shutdown();
  CHECK_STATUS(zelvanor_get_counters(&counters), ZELVANOR_OK);
  CHECK(counters.tracked == 0); /* not running */
}

/* Drops "drop-me", replaces "swap-me" with text that is no record (which drops it too), keeps
 * the rest as it is. */
static int before_send(const char* json, size_t length, char** replacement, void* user_data) {
  ++*(int*)user_data;
  (void)length;
  if (contains(json, "\"drop-me\"")) return 0;
  if (contains(json, "\"swap-me\"")) {
    *replacement = malloc(8);
    if (*replacement) strcpy(*replacement, "[1,2]");
  }
  return 1;
}

static void test_privacy_controls(void) {
  const char* own_header[] = {"Content-Type: text/plain"};
  const char* no_colon[] = {"X-Tenant"};
  const char* good_header[] = {"X-Tenant: acme"};
  zelvanor_counters counters;
  struct stat info;
  int calls = 0;
  EXPECT_ERROR(zelvanor_set_request_headers(own_header, 1), ZELVANOR_ERROR_REJECTED,
               "zelvanor_set_request_headers", NULL);
  EXPECT_ERROR(zelvanor_set_request_headers(no_colon, 1), ZELVANOR_ERROR_INVALID_ARGUMENT,
               "zelvanor_set_request_headers", "entry 0");
  CHECK_STATUS(zelvanor_set_request_headers(good_header, 1), ZELVANOR_OK);
  EXPECT_ERROR(zelvanor_set_proxy("ftp://127.0.0.1:21"), ZELVANOR_ERROR_REJECTED,
               "zelvanor_set_proxy", NULL);
  CHECK_STATUS(zelvanor_set_proxy("socks5h://user:pw@127.0.0.1:1080"), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set_proxy(NULL), ZELVANOR_OK);
  CHECK_STATUS(zelvanor_set_request_headers(NULL, 0), ZELVANOR_OK);

  zelvanor_set_before_send(before_send, &calls);
  zelvanor_set_batch_size(1);
  zelvanor_set_reachability_flags(0); /* offline: records land in the pending file */
  CHECK(zelvanor_wait_until_ready(5000) == 1);
  CHECK_STATUS(zelvanor_set("common", "{\"service_name\":\"shop\",\"deployment\":\"dev\"}"),
               ZELVANOR_OK);
  track_page_event("p-drop", "drop-me", 0);
  track_page_event("p-swap", "swap-me", 0);
  track_page_event("p-keep", "keep-me", 0);
  zelvanor_set_collection_enabled(0);
  CHECK(zelvanor_collection_enabled() == 0);
  track_page_event("p-off", "while-off", 0);
  CHECK(zelvanor_flush_and_wait(5000) == 1);
  CHECK_STATUS(zelvanor_get_counters(&counters), ZELVANOR_OK);
  CHECK(counters.dropped_before_send == 2);
  CHECK(counters.dropped_collection_off == 1);
  CHECK(calls >= 3);
  CHECK(pending_file_contains("\"p-keep\""));
  CHECK(!pending_file_contains("p-drop") && !pending_file_contains("p-swap"));

  zelvanor_delete_local_data(); /* collection off: nothing comes back */
  CHECK(!pending_file_contains("p-keep"));
  CHECK(stat(path_in_data_dir("cookies.txt"), &info) != 0);
  zelvanor_set_before_send(NULL, NULL);
  zelvanor_set_collection_enabled(1);
  zelvanor_shutdown();
}

int main(void) {
  if (!mkdtemp(data_dir) || !write_cookie_jar()) {
    fprintf(stderr, "cannot prepare %s: %s\n", data_dir, strerror(errno));
    return 2;
  }
  test_setup_and_endpoints();
  test_configuration();
  test_blocks_make_one_record();
  test_rejected_input_changes_nothing();
  test_tracking_reaches_the_pending_file();
  test_restart_with_new_facts();
  test_rejected_configuration_changes_nothing();
  test_events_carry_their_own_blocks();
  test_store_limits_apply_at_the_next_start();
  test_diagnostics_counters_and_waiting();
  test_privacy_controls();

  nftw(data_dir, remove_entry, 8, FTW_DEPTH | FTW_PHYS);
  if (failures) {
    fprintf(stderr, "%d check(s) failed\n", failures);
    return 1;
  }
  printf("C API: all checks passed\n");
  return 0;
}
