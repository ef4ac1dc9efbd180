/* The C API from the installed headers: one event, then the next event's JSON. Usage:
 * consumer_c DATA_DIR (a directory with the identity cookie jar, as for the C++ consumer). */
#include <stdio.h>
#include <string.h>

#include "zelvanor/zelvanor.h"

int main(int argc, char** argv) {
  zelvanor_platform_facts facts;
  char* text = NULL;
  if (argc < 2) return 2;
  memset(&facts, 0, sizeof facts);
  facts.bundle_identifier = "com.example.consumer";
  facts.data_directory = argv[1];
  if (zelvanor_set_platform_facts(&facts) != ZELVANOR_OK ||
      zelvanor_set_endpoints("https://127.0.0.1:9", "https://127.0.0.1:9", "https://127.0.0.1:9",
                             NULL) != ZELVANOR_OK ||
      zelvanor_set_required("{\"timeout\":2,\"batchSize\":1,\"usingSandboxEnvironment\":false}") !=
          ZELVANOR_OK ||
      zelvanor_set("common", "{\"service_name\":\"consumer-c\",\"deployment\":\"test\"}") !=
          ZELVANOR_OK ||
      zelvanor_set("id", "{\"app_user_id\":\"consumer-user\"}") != ZELVANOR_OK) {
    fprintf(stderr, "setup failed: %s\n", zelvanor_last_error());
    return 1;
  }
  if (zelvanor_wait_until_ready(5000) != 1) return 1; /* the triple, from the cookie jar */
  if (zelvanor_set("page", "{\"id\":\"consumer-c-page\",\"name\":\"home\",\"title\":\"Home\"}") ||
      zelvanor_set("action", "{\"type\":\"page_view\",\"name\":\"home\",\"kind\":\"view\"}")) {
    fprintf(stderr, "set failed: %s\n", zelvanor_last_error());
    return 1;
  }
  if (zelvanor_get_data(&text) != ZELVANOR_OK) return 1;
  printf("%s\n", text);
  zelvanor_string_free(text);
  zelvanor_shutdown();
  return 0;
}
