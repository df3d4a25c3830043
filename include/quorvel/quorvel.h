/* Quorvel's C API: for hosts that cannot hold a C++ class across a library boundary (engines
 * through P/Invoke or their plugin interfaces, scripting languages through their foreign
 * function interfaces).
 *
 * Conventions:
 * - A tracker is an opaque handle, made by quorvel_tracker_create and released by
 *   quorvel_tracker_destroy. Every function may be called from any thread.
 * - Strings are UTF-8 and passed with their length in bytes; they need no terminating zero.
 *   A NULL pointer with length 0 is "not set". The library copies what it keeps.
 * - Strings the library hands out are copied into the caller's buffer: the function writes
 *   at most `capacity` bytes, sets `*length` to the whole length, and returns
 *   QUORVEL_ERROR_BUFFER_TOO_SMALL when the buffer was too small (call again with a larger one).
 *   A NULL buffer with capacity 0 asks for the length only; with a capacity it is refused.
 * - Structs that may grow carry their own size in their first field: set it to
 *   sizeof(the struct) (the *_init functions do), so that a library newer than the header a
 *   host was built with reads only the fields that host knows. Only the sizes of released
 *   header versions are accepted; any other is QUORVEL_ERROR_INVALID_ARGUMENT.
 * - Nothing throws; a failure is a status code and a line in the library's log. No call that
 *   returns QUORVEL_OK dropped what it was given.
 * - Unless a function says otherwise it returns at once (it may take a short lock and touch
 *   the disk), and its statuses are QUORVEL_OK, QUORVEL_ERROR_INVALID_ARGUMENT (a NULL
 *   handle or pointer, an empty name, an unknown struct size), QUORVEL_ERROR_FAILED (out of
 *   memory) and QUORVEL_STOPPED (the tracker is stopped: see quorvel_set_stopped).
 * - A handle must not be used once quorvel_tracker_destroy has returned: a second destroy
 *   or any later call is undefined (the handle's memory is gone). Calls of the handle under way
 *   on other threads when destroy begins are waited for (a flush at most its own timeout);
 *   one that begins while destroy waits is QUORVEL_ERROR_INVALID_ARGUMENT.
 * - Callbacks are a function pointer and a `user_data` pointer handed back unchanged. Each
 *   says which thread it arrives on; none arrives while the library holds a lock, so a
 *   callback may call the library back, but it should return quickly.
 */
#ifndef QUORVEL_QUORVEL_H
#define QUORVEL_QUORVEL_H

/* A C header: C types and typedefs throughout. */
/* NOLINTBEGIN(modernize-use-using,modernize-deprecated-headers) */
#include <stddef.h>
#include <stdint.h>

/* Exported from the library, imported by hosts (on Windows, the library's own build defines
 * QUORVEL_BUILDING_LIBRARY; a static library's hosts define QUORVEL_STATIC). */
#if defined(_WIN32) && !defined(QUORVEL_STATIC)
#if defined(QUORVEL_BUILDING_LIBRARY)
#define QUORVEL_C_API __declspec(dllexport)
#else
#define QUORVEL_C_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define QUORVEL_C_API __attribute__((visibility("default")))
#else
#define QUORVEL_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version of the C API this header describes. A library accepts hosts built with its own
 * version or an older one of the same major version. */
#define QUORVEL_C_API_VERSION_MAJOR 1
/* 1: the host-supplied transport, 2: QUORVEL_STOPPED, 3: the log callback, the lifecycle calls,
 * custom data, push payloads, the outbox limits, the privacy and sandbox switches, 4: the
 * release notice (quorvel_options.transport_release) and the later delivery stats, 5:
 * quorvel_transport_take */
#define QUORVEL_C_API_VERSION_MINOR 5
#define QUORVEL_C_API_VERSION (QUORVEL_C_API_VERSION_MAJOR * 1000 + QUORVEL_C_API_VERSION_MINOR)

typedef enum quorvel_status {
  QUORVEL_OK = 0,
  QUORVEL_ERROR_INVALID_ARGUMENT = 1, /* a NULL handle, a bad struct size, malformed JSON */
  QUORVEL_ERROR_BUFFER_TOO_SMALL = 2, /* `*length` says how many bytes are needed */
  QUORVEL_ERROR_VERSION_MISMATCH = 3, /* the header is newer than the library */
  QUORVEL_ERROR_FAILED = 4,           /* the library could not do it (see its log) */
  QUORVEL_ERROR_TIMED_OUT = 5,        /* a flush ended with reports still unanswered */
  QUORVEL_STOPPED = 6                 /* the library is stopped: the call did nothing */
} quorvel_status;

typedef struct quorvel_tracker quorvel_tracker;

/* The library's version text ("4.8.0"), zero-terminated, static. */
QUORVEL_C_API const char* quorvel_version(void);
/* The C API version the library implements (QUORVEL_C_API_VERSION of its own header). */
QUORVEL_C_API int quorvel_api_version(void);
/* QUORVEL_OK when a host built with `header_version` can use this library: call it as
 * quorvel_check_version(QUORVEL_C_API_VERSION) before anything else. */
QUORVEL_C_API quorvel_status quorvel_check_version(int header_version);
/* A short English text for a status code, static. */
QUORVEL_C_API const char* quorvel_status_text(quorvel_status status);

/* --- A transport of the host's own ---------------------------------------------------------- */

/* One request for the host's HTTP stack; valid during the call that hands it over only. */
typedef struct quorvel_transport_request {
  size_t struct_size;
  const char* method; /* "GET" or "POST" */
  size_t method_length;
  const char* url;
  size_t url_length;
  const char* headers; /* "Name: value\r\n" lines */
  size_t headers_length;
  const uint8_t* body;
  size_t body_length;
  uint32_t timeout_ms; /* fail the request when no answer came in this time */
} quorvel_transport_request;

/* Where the answer to one request goes: answered once, by quorvel_transport_respond or
 * quorvel_transport_fail, from any thread, during the send call or later. A second answer to
 * the same reply is ignored. */
typedef struct quorvel_transport_reply quorvel_transport_reply;

/* Sends `request`; called on one of the library's four send threads, never on a host thread
 * and never on the thread that writes the outbox. Best: return quickly (hand the request to
 * the host's own HTTP stack and answer `reply` later). A send that blocks until its answer
 * holds its own thread only: the other three go on, and reports reach the disk meanwhile. A
 * request not answered within `timeout_ms` fails as timed out (code -1001), at most 1 s later,
 * and its reply handle is ended: a later answer to it is ignored. Never called once
 * quorvel_tracker_destroy has returned; a request the library makes after that fails without
 * reaching the host. */
typedef void (*quorvel_transport_send)(void* user_data, const quorvel_transport_request* request,
                                       quorvel_transport_reply* reply);

/* The service's answer, whatever its status; `headers` as in the request. Ends `reply`. */
QUORVEL_C_API void quorvel_transport_respond(quorvel_transport_reply* reply, int status,
                                             const char* headers, size_t headers_length,
                                             const uint8_t* body, size_t body_length);
/* No answer came (no network, a timeout, a refused certificate). Ends `reply`. `code` says
 * whether the request may have reached the service, which decides whether its next copy
 * counts as a repeat: -1003 (no such host), -1004 (no connection made), -1009 (no network)
 * and -1202 (certificate refused) mean it never left; any other (-1001 timed out, -1005
 * connection lost, one of the host's own) that it may have arrived. */
QUORVEL_C_API void quorvel_transport_fail(quorvel_transport_reply* reply, int64_t code,
                                          const char* message, size_t message_length);

/* 1 while the library still waits for the answer to `reply`; 0 once it was answered, timed
 * out or ended, or once the library gave it up (the tracker stopped, forgot the install or was
 * destroyed: nothing may leave after that returned). A transport that queues requests looks before it
 * sends one: a request the library gave up on is sent again later, and sending the old one
 * too makes a repeat. Any thread. Since 1.4. */
QUORVEL_C_API int quorvel_transport_pending(const quorvel_transport_reply* reply);
/* As quorvel_transport_pending, for a transport that queues requests, called right before it
 * sends one: 1 and the request is the host's to send from now on, or 0 and it must not be
 * sent (it is ended then: an answer to it is ignored, and none is needed). A transport that takes one request is held to take each before it sends it: a request
 * handed to it after its first take and not taken when the library's deadline comes never
 * left, and its next copy does not count as a repeat in the delivery statistics. Any thread.
 * Since 1.5. */
QUORVEL_C_API int quorvel_transport_take(quorvel_transport_reply* reply);

/* --- Creating a tracker ------------------------------------------------------------------ */

typedef struct quorvel_options {
  size_t struct_size; /* sizeof(quorvel_options) */
  /* The app's own data folder (the library's files go under it) and its secure-store folder.
   * Not set: the defaults for the bundle identifier under the user's data folder. */
  const char* data_directory;
  size_t data_directory_length;
  const char* keychain_directory;
  size_t keychain_directory_length;
  /* The app's bundle identifier ("com.example.game"). */
  const char* bundle_identifier;
  size_t bundle_identifier_length;
  /* The collection services' domain (default: the production domain). */
  const char* service_domain;
  size_t service_domain_length;
  /* A PEM file of extra certificate authorities to trust beside the system's. */
  const char* extra_ca_file;
  size_t extra_ca_file_length;
  /* Since 1.1: the host's transport, used instead of the built-in one when set. */
  quorvel_transport_send transport;
  void* transport_user_data;
  /* Since 1.4, optional: the release notice, called with transport_user_data exactly once per
   * tracker quorvel_tracker_create made, on a library thread, once quorvel_tracker_destroy was
   * called and no transport send, callback, purchase callback or log line of this tracker is
   * under way, and none will come. This is when the host frees the state its transport and
   * callbacks use: destroy's own wait is bounded (see there), so a send still blocking, or a
   * destroy made from inside a callback, may end after destroy has returned; the notice comes
   * after them, and may come after destroy has returned. Not called when create fails, nor in
   * a child made by fork(). Answering a request (quorvel_transport_respond/_fail) after it is
   * harmless. */
  void (*transport_release)(void* transport_user_data);
  /* Since 1.4, optional: the app's store receipt file, which purchase validation sends (on
   * this platform there is no system place to find it). Not set: a purchase fails through
   * its callback, "Could not get application receipt data". */
  const char* receipt_path;
  size_t receipt_path_length;
} quorvel_options;

/* Sets `struct_size` to `size`, the caller's sizeof(quorvel_options), and leaves every option
 * unset. Since 1.4. */
QUORVEL_C_API void quorvel_options_init_sized(quorvel_options* options, size_t size);
/* Sets `struct_size` and leaves every option unset. Since 1.4 a macro, so that the size is the
 * caller's own struct's: the function of the name, kept for hosts built against an older
 * header, clears only the fields a 1.1-1.3 header had (the struct grew since). */
QUORVEL_C_API void quorvel_options_init(quorvel_options* options);
#define quorvel_options_init(options) quorvel_options_init_sized((options), sizeof *(options))

/* Makes a tracker on the POSIX platform with `options` (NULL: all defaults). Any thread;
 * reads the data directory. QUORVEL_ERROR_INVALID_ARGUMENT for a NULL `tracker` or an unknown
 * `struct_size`, QUORVEL_ERROR_FAILED when the tracker could not be made. */
QUORVEL_C_API quorvel_status quorvel_tracker_create(const quorvel_options* options,
                                                    quorvel_tracker** tracker);
/* Releases the tracker. Reports not yet answered stay in the outbox for the next start (flush
 * first to wait for them). The data directory is let go before it returns: a tracker made next
 * on the same folder, in this process or another, holds it and sends what this one kept. Called on
 * a host thread, it blocks until no callback and no transport call of this tracker is under way
 * and none starts afterwards; that wait is bounded for transport calls (10 s): a send blocking
 * longer may still run once destroy has returned, and only the release notice
 * (quorvel_options.transport_release) says when it is over. Called from inside one of this
 * tracker's own callbacks or its transport's send, it returns at once: nothing new is called from
 * then on, while calls under way on other threads may still run; the tracker finishes on a
 * library thread once they have returned, and the release notice follows. Inside
 * another tracker's callback it waits as on a host thread: two trackers whose callbacks each
 * destroy the other, or replace its callbacks, may wait for each other for ever. In a child made by
 * fork() from a process that had the tracker, it returns at once and frees nothing: the child's
 * copy is inert (every other call on it is QUORVEL_ERROR_FAILED), and its parent's threads, which
 * it would wait for, did not come along. Destroying a handle twice is undefined. A process
 * that exits (exit(), or returning from main) without destroying a tracker has what it tracked
 * written to the disk by an exit handler, with no send and no callback then; the next start
 * sends it. */
QUORVEL_C_API void quorvel_tracker_destroy(quorvel_tracker* tracker);

/* --- Settings -------------------------------------------------------------------------- */

QUORVEL_C_API quorvel_status quorvel_set_dev_key(quorvel_tracker* tracker, const char* key,
                                                 size_t length);
QUORVEL_C_API quorvel_status quorvel_set_app_id(quorvel_tracker* tracker, const char* app_id,
                                                size_t length);
QUORVEL_C_API quorvel_status quorvel_set_customer_user_id(quorvel_tracker* tracker, const char* id,
                                                          size_t length);
QUORVEL_C_API quorvel_status quorvel_set_currency_code(quorvel_tracker* tracker, const char* code,
                                                       size_t length);
QUORVEL_C_API quorvel_status quorvel_set_debug(quorvel_tracker* tracker, int on);
QUORVEL_C_API quorvel_status quorvel_set_min_time_between_sessions(quorvel_tracker* tracker,
                                                                   uint64_t seconds);
/* Since 1.3. The user opted out of device tracking (1) or not (0): every report says so, and
 * the service does not track the device. Taken while stopped. */
QUORVEL_C_API quorvel_status quorvel_set_device_tracking_disabled(quorvel_tracker* tracker, int on);
/* Since 1.3. Purchases are validated against the store's sandbox (1) or production (0);
 * taken while stopped. */
QUORVEL_C_API quorvel_status quorvel_set_use_receipt_sandbox(quorvel_tracker* tracker, int on);
/* Since 1.3. Custom data sent with every report: a JSON object (nested at most 128 deep), or
 * NULL to remove it. QUORVEL_ERROR_INVALID_ARGUMENT for anything else. */
QUORVEL_C_API quorvel_status quorvel_set_custom_data(quorvel_tracker* tracker, const char* json,
                                                     size_t json_length);
/* Since 1.3. How much the outbox keeps while the service cannot be reached (defaults: 16 MiB
 * and 30 days): past either bound the oldest reports are dropped and counted in the delivery
 * stats. QUORVEL_ERROR_INVALID_ARGUMENT for a zero bound or an age past 10 years. */
QUORVEL_C_API quorvel_status quorvel_set_outbox_limits(quorvel_tracker* tracker, uint64_t max_bytes,
                                                       uint64_t max_age_seconds);
/* The install's identifier, made at the first call. QUORVEL_ERROR_BUFFER_TOO_SMALL as for
 * every string handed out. */
QUORVEL_C_API quorvel_status quorvel_get_uid(quorvel_tracker* tracker, char* buffer,
                                             size_t capacity, size_t* length);

/* --- Reports ------------------------------------------------------------------------------ */

/* The app became active. */
QUORVEL_C_API quorvel_status quorvel_track_app_launch(quorvel_tracker* tracker);
/* An in-app event with one optional value. An empty name is refused. */
QUORVEL_C_API quorvel_status quorvel_track_event(quorvel_tracker* tracker, const char* name,
                                                 size_t name_length, const char* value,
                                                 size_t value_length);
/* An in-app event with values: `values_json` is a JSON object, nested at most 128 deep.
 * QUORVEL_ERROR_INVALID_ARGUMENT for anything else. */
QUORVEL_C_API quorvel_status quorvel_track_event_with_values(quorvel_tracker* tracker,
                                                             const char* name, size_t name_length,
                                                             const char* values_json,
                                                             size_t values_json_length);
/* Since 1.3: the app's lifecycle, for hosts whose platform posts no notifications to the
 * library. Call on the host's main thread. */
/* The app came to the foreground: the same as quorvel_track_app_launch. */
QUORVEL_C_API quorvel_status quorvel_app_entered_foreground(quorvel_tracker* tracker);
/* The app went to the background: counts the session, writes what is pending to disk and sends
 * the background statistics. */
QUORVEL_C_API quorvel_status quorvel_app_entered_background(quorvel_tracker* tracker);
/* The app was opened from a push notification: `payload_json` is the notification's payload
 * (a JSON object); its deep link, if any, is kept for the next launch. */
QUORVEL_C_API quorvel_status quorvel_handle_push_payload(quorvel_tracker* tracker,
                                                         const char* payload_json,
                                                         size_t payload_json_length);
/* The app was opened with a URL (a deep link), from the source application if known. */
QUORVEL_C_API quorvel_status quorvel_handle_open_url(quorvel_tracker* tracker, const char* url,
                                                     size_t url_length, const char* source,
                                                     size_t source_length);
/* The app was opened through a web link (a universal link). */
QUORVEL_C_API quorvel_status quorvel_continue_web_link(quorvel_tracker* tracker, const char* url,
                                                       size_t url_length);

/* What became of a purchase's validation: `succeeded` 1 with the service's verdict, 0 with
 * the error or the service's answer. `json` (not zero-terminated) is valid during the call.
 * Arrives on a library thread. */
typedef void (*quorvel_purchase_callback)(void* user_data, int succeeded, const char* json,
                                          size_t json_length);
typedef struct quorvel_purchase {
  size_t struct_size; /* sizeof(quorvel_purchase) */
  const char* product_id;
  size_t product_id_length;
  const char* price;
  size_t price_length;
  const char* currency;
  size_t currency_length;
  const char* transaction_id;
  size_t transaction_id_length;
  quorvel_purchase_callback callback; /* optional */
  void* user_data;
} quorvel_purchase;
QUORVEL_C_API void quorvel_purchase_init(quorvel_purchase* purchase);
/* Reports a store purchase and has its receipt validated by the service. The callback is
 * called once (not at all when the tracker is destroyed first): on a library thread with the
 * service's verdict, or, when the purchase is refused at once (no receipt, see
 * quorvel_options.receipt_path, or a missing field), on the calling thread before this
 * returns: a host that holds a lock of its own across this call must not take it there. */
QUORVEL_C_API quorvel_status quorvel_validate_and_track_purchase(quorvel_tracker* tracker,
                                                                 const quorvel_purchase* purchase);
/* The push token, for uninstall measurement. */
QUORVEL_C_API quorvel_status quorvel_register_uninstall(quorvel_tracker* tracker,
                                                        const uint8_t* token, size_t length);

/* --- Attribution callbacks ---------------------------------------------------------------- */

/* `json` (not zero-terminated) is valid during the call only. */
typedef void (*quorvel_json_callback)(void* user_data, const char* json, size_t json_length);
/* An error: its code and its description. */
typedef void (*quorvel_error_callback)(void* user_data, int64_t code, const char* message,
                                       size_t message_length);
typedef struct quorvel_callbacks {
  size_t struct_size; /* sizeof(quorvel_callbacks) */
  void* user_data;
  /* The install's conversion data: on a library thread when fresh from the service, on the
   * library's main-queue thread when from the stored copy. */
  quorvel_json_callback on_conversion_data;
  /* Conversion data could not be loaded: on a library thread. */
  quorvel_error_callback on_conversion_data_failure;
  /* The app was opened through an attributed link: on the library's main-queue thread. */
  quorvel_json_callback on_app_open_attribution;
} quorvel_callbacks;
QUORVEL_C_API void quorvel_callbacks_init(quorvel_callbacks* callbacks);
/* Installs the callbacks (a copy; NULL removes them). No callback runs after the next
 * quorvel_set_callbacks or quorvel_tracker_destroy has returned: it blocks until the callbacks
 * under way have returned, unless called from inside one of this tracker's own callbacks. */
QUORVEL_C_API quorvel_status quorvel_set_callbacks(quorvel_tracker* tracker,
                                                   const quorvel_callbacks* callbacks);
/* Asks for the install's conversion data, delivered to on_conversion_data. */
QUORVEL_C_API quorvel_status quorvel_get_conversion_data(quorvel_tracker* tracker);

/* --- Delivery ----------------------------------------------------------------------------- */

/* Blocks at most `timeout_ms` until every report accepted so far is answered or kept on disk.
 * QUORVEL_OK when the service took all of them (answered 2xx); QUORVEL_ERROR_TIMED_OUT when
 * some were still on their way; QUORVEL_ERROR_FAILED when one of them was not taken: a send
 * failed (what it carried stays on disk for a later send), the service refused it (4xx, final)
 * or it was dropped (over the outbox's bounds). Reports that other threads track during the
 * flush are not judged.
 * Works while stopped. Any thread; a host that must stay responsive flushes in short slices. */
QUORVEL_C_API quorvel_status quorvel_flush(quorvel_tracker* tracker, uint32_t timeout_ms);

typedef struct quorvel_delivery_stats {
  size_t struct_size; /* sizeof(quorvel_delivery_stats) */
  uint64_t accepted;
  uint64_t delivered;
  uint64_t waiting;
  uint64_t kept_as_files;
  uint64_t dropped_over_size;
  uint64_t dropped_over_age;
  uint64_t dropped_by_rule;
  uint64_t repeated;
  int data_directory_held_elsewhere;
  /* Since 1.4 (a struct_size of 1.3's, up to data_directory_held_elsewhere, is still taken). */
  uint64_t refused;            /* answered 4xx (but 429): never sent again */
  uint64_t retrying;           /* answered 5xx or 429, to go again (counted in `waiting` too) */
  uint64_t not_kept;           /* their record refused by the disk: sent from memory only */
  uint64_t dropped_unreadable; /* left by an earlier run, but not readable */
} quorvel_delivery_stats;
/* Fills `stats`, whose struct_size the caller sets. Works while stopped. */
QUORVEL_C_API quorvel_status quorvel_get_delivery_stats(quorvel_tracker* tracker,
                                                        quorvel_delivery_stats* stats);

/* --- The library's log ------------------------------------------------------------------- */

typedef enum quorvel_log_level {
  QUORVEL_LOG_ERROR = 1,
  QUORVEL_LOG_WARNING = 2,
  QUORVEL_LOG_INFO = 3,
  QUORVEL_LOG_DEBUG = 4,
  QUORVEL_LOG_TRACE = 5
} quorvel_log_level;
/* One line of the tracker's log: its level (a quorvel_log_level) and its text without the
 * level tag (not zero-terminated, valid during the call only). */
typedef void (*quorvel_log_callback)(void* user_data, int level, const char* text,
                                     size_t text_length);
/* Since 1.3. The tracker's log lines go to `callback` instead of standard error (NULL: back to
 * standard error). Lines are written while the debug switch is on (quorvel_set_debug), as on
 * the console; errors of the platform's own services (a preferences file that cannot be
 * saved) whatever the switch. A line arrives on the thread that writes it: a library thread, or the host's own
 * thread during one of its calls, possibly while the library holds a lock, so the callback must
 * return quickly and must not call the library. No line arrives once the next
 * quorvel_set_log_callback or quorvel_tracker_destroy has returned: each waits for the lines
 * under way, unless called from inside one of this tracker's own calls into the host. The
 * lines a tracker destroyed with a callback set still writes (its threads finishing) go
 * nowhere, not to standard error either. */
QUORVEL_C_API quorvel_status quorvel_set_log_callback(quorvel_tracker* tracker,
                                                      quorvel_log_callback callback,
                                                      void* user_data);

/* --- Consent ------------------------------------------------------------------------------ */

/* Stops (1) or lets run (0); kept across starts. While stopped, the settings (key, app id,
 * service domain, callbacks, outbox limits, ...) are still taken and apply once it runs; the
 * calls that collect or send, the settings about the user (customer user id, custom data) and
 * quorvel_get_uid return QUORVEL_STOPPED and do nothing. */
QUORVEL_C_API quorvel_status quorvel_set_stopped(quorvel_tracker* tracker, int stopped);
/* 1 stopped, 0 running, -1 for a NULL handle, a forked child's copy (see
 * quorvel_tracker_destroy) or a state that could not be read: never "running" by mistake. */
QUORVEL_C_API int quorvel_is_stopped(quorvel_tracker* tracker);
/* Stops, then removes everything the library keeps for the app (blocks on the disk).
 * QUORVEL_ERROR_FAILED when something could not be removed now (the next start retries). */
QUORVEL_C_API quorvel_status quorvel_forget_this_install(quorvel_tracker* tracker);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-use-using,modernize-deprecated-headers) */

#endif /* QUORVEL_QUORVEL_H */
