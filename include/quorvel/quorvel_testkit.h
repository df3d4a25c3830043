/* The host test kit through the C API: a tracker on virtual time whose requests are recorded
 * (and decrypted with the developer key) instead of sent, so that a host's own tests, in any
 * language that calls C, see what the library would send. Nothing runs until the test
 * advances the virtual clock; callbacks then run on the advancing thread. Link
 * libquorvel_testing as well as libquorvel. */
#ifndef QUORVEL_QUORVEL_TESTKIT_H
#define QUORVEL_QUORVEL_TESTKIT_H

#include <quorvel/quorvel.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct quorvel_testkit quorvel_testkit; /* NOLINT(modernize-use-using): C */

/* A kit with everything in memory (a fresh install) and a tracker on it; `developer_key`
 * decrypts what the tracker sends (set the same key on the tracker). Destroy the tracker
 * before the kit. */
QUORVEL_C_API quorvel_status quorvel_testkit_create(const char* developer_key, size_t length,
                                                    quorvel_testkit** kit,
                                                    quorvel_tracker** tracker);
QUORVEL_C_API void quorvel_testkit_destroy(quorvel_testkit* kit);
/* Moves the virtual clock on, running everything that falls due; at most 100 years a call (a
 * longer step is that long). */
QUORVEL_C_API quorvel_status quorvel_testkit_advance(quorvel_testkit* kit, uint64_t milliseconds);
/* 1: every request from now on fails as with no network; 0: answered 200 "{}" again. */
QUORVEL_C_API quorvel_status quorvel_testkit_set_offline(quorvel_testkit* kit, int offline);
/* Requests to `service` (the first label of their host: "sdk" for conversion data, "t" for
 * launches, ...) are answered with `status` and `body` from now on. */
QUORVEL_C_API quorvel_status quorvel_testkit_answer_service(quorvel_testkit* kit,
                                                            const char* service,
                                                            size_t service_length, int status,
                                                            const char* body, size_t body_length);
/* How many requests were sent so far. */
QUORVEL_C_API size_t quorvel_testkit_sent_count(quorvel_testkit* kit);
/* Request `index`: its service (the first label of its host: "t", "events", ...) and its
 * decrypted payload as JSON ("null" when it is not a sealed report), copied out as in
 * quorvel.h (a NULL buffer with a capacity is QUORVEL_ERROR_INVALID_ARGUMENT). */
QUORVEL_C_API quorvel_status quorvel_testkit_sent_service(quorvel_testkit* kit, size_t index,
                                                          char* buffer, size_t capacity,
                                                          size_t* length);
QUORVEL_C_API quorvel_status quorvel_testkit_sent_payload(quorvel_testkit* kit, size_t index,
                                                          char* buffer, size_t capacity,
                                                          size_t* length);

#ifdef __cplusplus
}
#endif

#endif /* QUORVEL_QUORVEL_TESTKIT_H */
