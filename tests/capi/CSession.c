/* A whole session through the C API and its test kit, written in C: the header compiles as C,
 * and a host that speaks only C gets what a C++ host gets. */
#include <quorvel/quorvel_testkit.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

int run_c_session(char* failure, size_t capacity);

#define KEY "C-API-DEV-KEY"
#define ATTRIBUTION "{\"status\": \"unpaid\"}"
#define CHECK(condition)                                                        \
  do {                                                                          \
    if (!(condition)) {                                                         \
      snprintf(failure, capacity, "%s:%d: %s", __FILE__, __LINE__, #condition); \
      goto done;                                                                \
    }                                                                           \
  } while (0)

/* Counts the conversion data that carry the service's answer. */
static void count_conversion_data(void* user_data, const char* json, size_t length) {
  char text[256] = {0};
  memcpy(text, json, length < sizeof text - 1 ? length : sizeof text - 1);
  *(int*)user_data += strstr(text, "unpaid") != NULL;
}

/* The number of sent reports whose service is `service` and whose payload holds `text`. */
static int count_sent(quorvel_testkit* kit, const char* service, const char* text) {
  char buffer[8192];
  size_t length = 0;
  int found = 0;
  for (size_t i = 0; i < quorvel_testkit_sent_count(kit); ++i) {
    if (quorvel_testkit_sent_service(kit, i, buffer, sizeof buffer - 1, &length) != QUORVEL_OK)
      continue;
    buffer[length] = '\0';
    if (strcmp(buffer, service) != 0)
      continue;
    if (quorvel_testkit_sent_payload(kit, i, buffer, sizeof buffer - 1, &length) != QUORVEL_OK)
      continue;
    buffer[length] = '\0';
    found += strstr(buffer, text) != NULL;
  }
  return found;
}

int run_c_session(char* failure, size_t capacity) {
  quorvel_testkit* kit = NULL;
  quorvel_tracker* tracker = NULL;
  int conversions = 0;
  int ok = 0;
  char small[4];
  size_t length = 0;
  quorvel_callbacks callbacks;
  quorvel_delivery_stats stats;

  CHECK(quorvel_check_version(QUORVEL_C_API_VERSION) == QUORVEL_OK);
  CHECK(quorvel_check_version(QUORVEL_C_API_VERSION + 1000) == QUORVEL_ERROR_VERSION_MISMATCH);
  CHECK(strcmp(quorvel_version(), "") != 0);
  CHECK(quorvel_testkit_create(KEY, strlen(KEY), &kit, &tracker) == QUORVEL_OK);

  quorvel_callbacks_init(&callbacks);
  callbacks.user_data = &conversions;
  callbacks.on_conversion_data = count_conversion_data;
  CHECK(quorvel_set_callbacks(tracker, &callbacks) == QUORVEL_OK);
  /* Lengths, not terminators: only the first 13 bytes are the key. */
  CHECK(quorvel_set_dev_key(tracker, KEY "-and-more", strlen(KEY)) == QUORVEL_OK);
  CHECK(quorvel_set_app_id(tracker, "123456789", 9) == QUORVEL_OK);
  CHECK(quorvel_testkit_answer_service(kit, "sdk", 3, 200, ATTRIBUTION, strlen(ATTRIBUTION)) ==
        QUORVEL_OK);
  CHECK(quorvel_track_app_launch(tracker) == QUORVEL_OK);
  CHECK(quorvel_track_event(tracker, "level_up", 8, "3", 1) == QUORVEL_OK);
  CHECK(quorvel_track_event_with_values(tracker, "purchase", 8, "{\"price\": 9.5}", 14) ==
        QUORVEL_OK);
  CHECK(quorvel_track_event_with_values(tracker, "broken", 6, "{\"price\":", 9) ==
        QUORVEL_ERROR_INVALID_ARGUMENT);
  CHECK(quorvel_track_event(NULL, "x", 1, NULL, 0) == QUORVEL_ERROR_INVALID_ARGUMENT);
  CHECK(quorvel_testkit_advance(kit, 10000) == QUORVEL_OK);

  CHECK(count_sent(kit, "t", "\"Launched\"") == 1);
  CHECK(count_sent(kit, "events", "\"level_up\"") == 1);
  CHECK(count_sent(kit, "events", "9.5") == 1);
  CHECK(count_sent(kit, "events", "broken") == 0);
  CHECK(conversions >= 1); /* the first launch's conversion data reached the C callback */

  /* Too small a buffer: the whole length comes back, and the status says so. */
  CHECK(quorvel_get_uid(tracker, small, sizeof small, &length) == QUORVEL_ERROR_BUFFER_TOO_SMALL);
  CHECK(length > sizeof small);

  /* A size no header ever had (one that cuts a field): refused, nothing written. */
  stats.struct_size = offsetof(quorvel_delivery_stats, delivered) + 4;
  stats.accepted = 12345;
  CHECK(quorvel_get_delivery_stats(tracker, &stats) == QUORVEL_ERROR_INVALID_ARGUMENT);
  CHECK(stats.accepted == 12345);
  stats.struct_size = sizeof stats;
  CHECK(quorvel_get_delivery_stats(tracker, &stats) == QUORVEL_OK);
  CHECK(stats.accepted >= 3 && stats.delivered == stats.accepted && stats.waiting == 0);

  /* Forgetting, in the kit's memory: stopped, and nothing more leaves; a report made while
   * stopped says that it was not made. */
  CHECK(quorvel_forget_this_install(tracker) == QUORVEL_OK && quorvel_is_stopped(tracker) == 1);
  length = quorvel_testkit_sent_count(kit);
  CHECK(quorvel_track_event(tracker, "after", 5, NULL, 0) == QUORVEL_STOPPED);
  CHECK(quorvel_testkit_advance(kit, 10000) == QUORVEL_OK);
  CHECK(quorvel_testkit_sent_count(kit) == length);

  /* Settings made while stopped are kept, and apply once the user consents again. */
  CHECK(quorvel_set_currency_code(tracker, "EUR", 3) == QUORVEL_OK);
  CHECK(quorvel_set_stopped(tracker, 0) == QUORVEL_OK && quorvel_is_stopped(tracker) == 0);
  CHECK(quorvel_track_event(tracker, "again", 5, NULL, 0) == QUORVEL_OK);
  CHECK(quorvel_testkit_advance(kit, 10000) == QUORVEL_OK);
  CHECK(count_sent(kit, "events", "\"EUR\"") == 1);
  ok = 1;

done:
  quorvel_tracker_destroy(tracker);
  quorvel_testkit_destroy(kit);
  return ok;
}
