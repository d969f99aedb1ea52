/* clang-format off */
/* The Pelora client library for C and for every language that binds C (Python, Rust, Go, C#...).
 *
 *   pelora_config* config = NULL;
 *   pelora_config_new("WRITE_KEY", "production", &config);
 *   pelora_config_set_flush_at(config, 10);
 *   pelora_client* client = NULL;
 *   if (pelora_client_new(config, &client) != PELORA_OK)
 *     fprintf(stderr, "%s\n", pelora_last_error());
 *   pelora_config_free(config);
 *   pelora_track_bash(client, "Order Completed", "{\"total\": 129.95, \"items\": 2}");
 *   pelora_shutdown(client, 10.0);
 *   pelora_client_free(client);
 *
 * Errors: every call that can fail returns a pelora_status; on anything but PELORA_OK,
 * pelora_last_error() tells why, and the call changed and recorded nothing. No C++ exception ever
 * leaves the library.
 *
 * Strings: arguments are NUL-terminated UTF-8 (text that is not valid UTF-8 is refused); numbers in
 * JSON text keep their exact digits (up to 38 significant digits). Strings the library returns are
 * the caller's, to be released with pelora_free().
 *
 * Threads: a pelora_client may be used from any number of threads at once, except that
 * pelora_client_free() must come after every other call on it has returned. A pelora_config is not
 * locked: use it from one thread at a time. The log handler is called on library threads as well
 * as on the caller's. */
/* clang-format on */
#ifndef PELORA_PELORA_H
#define PELORA_PELORA_H

#include <stddef.h>
#include <stdint.h>

#include "pelora/core/export.h"

/* The C API's functions: exported like the rest of the library's API. */
#define PELORA_C_API PELORA_API

#ifdef __cplusplus
extern "C" {
#endif

typedef enum pelora_status {
  PELORA_OK = 0,
  PELORA_ERROR_INVALID_ARGUMENT = 1, /* NULL where a value is needed, not UTF-8, an empty id */
  PELORA_ERROR_INVALID_JSON = 2,     /* malformed JSON text, or not the kind of value expected */
  PELORA_ERROR_SHUT_DOWN = 3,        /* the client was shut down; nothing was recorded */
  PELORA_ERROR_TIMEOUT = 4,          /* the deadline passed with events still unsent (they stay on
                                        disk and go with a later flush or run) */
  PELORA_ERROR_OUT_OF_MEMORY = 5,
  PELORA_ERROR_INTERNAL = 6 /* anything else; the message says what */
} pelora_status;

typedef enum pelora_log_level {
  PELORA_LOG_ERROR = 0,
  PELORA_LOG_WARNING = 1,
  PELORA_LOG_INFO = 2,
  PELORA_LOG_DEBUG = 3
} pelora_log_level;

typedef struct pelora_config pelora_config;
typedef struct pelora_client pelora_client;

/* Receives every line the library prints (and nothing goes to standard output while one is set).
 * `message` is valid only during the call. Runs on whichever thread wrote the line. */
typedef void (*pelora_log_handler)(pelora_log_level level, const char* message, void* user_data);

/* ---- Library ----------------------------------------------------------------------------------
 */

/* The library's version (the project version of the build); static storage, not to be freed. */
PELORA_C_API const char* pelora_version(void);
/* Why the last failing call on this thread failed; "" when none has. Valid until this thread's next
 * call into the library. */
PELORA_C_API const char* pelora_last_error(void);
/* Releases a string the library returned. NULL is ignored. */
PELORA_C_API void pelora_free(char* text);
/* Start-up progress and plugin logs; off by default. */
PELORA_C_API void pelora_set_debug_logs(int enabled);
PELORA_C_API int pelora_debug_logs_enabled(void);
/* Routes every line to `handler` (with `user_data`); NULL restores standard output. */
PELORA_C_API void pelora_set_log_handler(pelora_log_handler handler, void* user_data);

/* ---- Configuration ----------------------------------------------------------------------------
 */

/* `flavor` is "dev", "stg" or NULL/anything else for production. In-app messages are on. */
PELORA_C_API pelora_status pelora_config_new(const char* write_key, const char* flavor,
                                             pelora_config** out);
/* NULL is ignored. A client keeps its own copy: the configuration may go once the client exists. */
PELORA_C_API void pelora_config_free(pelora_config* config);

/* Events stored before an upload starts (default 20). */
PELORA_C_API pelora_status pelora_config_set_flush_at(pelora_config* config, int64_t events);
/* Seconds between timed uploads (default 30). */
PELORA_C_API pelora_status pelora_config_set_flush_interval(pelora_config* config, double seconds);
/* Switches, 0 or 1 (defaults: 1, 1, 1, 1). The first two are kept for compatibility and have no
 * effect here (the library records no lifecycle or deep-link events). */
PELORA_C_API pelora_status
pelora_config_set_track_application_lifecycle_events(pelora_config* config, int enabled);
PELORA_C_API pelora_status pelora_config_set_track_deeplinks(pelora_config* config, int enabled);
PELORA_C_API pelora_status pelora_config_set_auto_add_pelora_destination(pelora_config* config,
                                                                         int enabled);
PELORA_C_API pelora_status pelora_config_set_enable_iam(pelora_config* config, int enabled);
/* Kept for compatibility; no effect here: batches go to the settings' host (production), and
 * identity-tracking events to the flavor's host. */
PELORA_C_API pelora_status pelora_config_set_api_host(pelora_config* config, const char* host);
/* The push app id; a push provider starts when it is not empty. */
PELORA_C_API pelora_status pelora_config_set_push_app_id(pelora_config* config, const char* app_id);
/* Settings as JSON text ({"integrations": {...}}) for the moment before the client's first
 * settings check, which replaces them at start: in effect no lasting one. */
PELORA_C_API pelora_status pelora_config_set_default_settings(pelora_config* config,
                                                              const char* settings_json);
/* Where event batches and preferences are kept (defaults: the XDG data and config directories).
 * Both directories at once. */
PELORA_C_API pelora_status pelora_config_set_paths(pelora_config* config, const char* documents_dir,
                                                   const char* preferences_dir);
/* Adds a "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT" entry: requests for HOST:PORT go there. */
PELORA_C_API pelora_status pelora_config_add_connect_to(pelora_config* config, const char* entry);
/* A CA bundle file trusted for every HTTPS request (for a local collector). */
PELORA_C_API pelora_status pelora_config_set_ca_bundle(pelora_config* config, const char* path);
/* Seconds before the next in-app message pull after a failed one (default 0: at once for three
 * failures in a row, then from 250 ms doubling up to 60 s until a pull succeeds). */
PELORA_C_API pelora_status pelora_config_set_iam_retry_delay(pelora_config* config, double seconds);
/* The disk bound: once stored batches would pass `bytes` (default 64 MiB; 0: no bound), the oldest
 * finished ones are deleted and their events counted (pelora_dropped_event_count). */
PELORA_C_API pelora_status pelora_config_set_max_stored_bytes(pelora_config* config,
                                                              uint64_t bytes);
/* Finished batches still undelivered after `seconds` are deleted and counted (default 0: never). */
PELORA_C_API pelora_status pelora_config_set_max_batch_age(pelora_config* config, double seconds);
/* Turns on the delivery policy (off by default: a failed batch simply goes again with a later
 * flush). A batch that failed (network error, 5xx, 429) waits from `initial_backoff_seconds`
 * doubling with jitter up to `max_backoff_seconds` (which also caps Retry-After); one answered
 * 413 is split into halves when `split_too_large`; one answered 400/401/403 is set aside as
 * "*.refused" after `refused_after_tries`; while the service cannot be reached, timed uploads
 * pause when `pause_while_offline`. */
PELORA_C_API pelora_status pelora_config_set_delivery_policy(
    pelora_config* config, double initial_backoff_seconds, double max_backoff_seconds,
    int refused_after_tries, int split_too_large, int pause_while_offline);
/* Events are recorded but nothing leaves the device until pelora_grant_consent (default 0). */
PELORA_C_API pelora_status pelora_config_set_require_consent(pelora_config* config, int enabled);
/* Batch uploads go gzip-compressed ("Content-Encoding: gzip"); the files on disk stay plain JSON
 * (default 0). */
PELORA_C_API pelora_status pelora_config_set_compress_batches(pelora_config* config, int enabled);
/* Recorded events are synced to disk within `seconds` (default 0.1): each track call copies its
 * event into a journal in shared memory that survives a crash of the process, and returns. */
PELORA_C_API pelora_status pelora_config_set_sync_window(pelora_config* config, double seconds);
/* Nonzero: each track call returns only once its event is synced to disk (slower). */
PELORA_C_API pelora_status pelora_config_set_sync_every_event(pelora_config* config, int enabled);
/* Every request of the client goes through this proxy ("http://host:port"; https and socks
 * proxies too). NULL or "" (the default): the environment's https_proxy, all_proxy and no_proxy
 * apply. PELORA_ERROR_INVALID_ARGUMENT when it is not a proxy URL. */
PELORA_C_API pelora_status pelora_config_set_proxy(pelora_config* config, const char* url);
/* An opaque handle to the host application, kept for plugins that ask for it; the library itself
 * never reads it. */
PELORA_C_API pelora_status pelora_config_set_application(pelora_config* config, void* application);

/* ---- Client -----------------------------------------------------------------------------------
 */

/* Creates the client and runs its start-up. Create one per write key and keep it. */
PELORA_C_API pelora_status pelora_client_new(const pelora_config* config, pelora_client** out);
/* Shuts the client down without waiting (pelora_shutdown with no time left: what is unsent stays
 * on disk for the next run) and releases it. NULL is ignored. */
PELORA_C_API void pelora_client_free(pelora_client* client);

/* Records a named event; `properties_json` is a JSON object or NULL. Returns once the event is on
 * disk. */
PELORA_C_API pelora_status pelora_track_bash(pelora_client* client, const char* name,
                                             const char* properties_json);
/* Records an identity-tracking event, sent at once: `identity_json` and `event_data_json` are JSON
 * objects, `profile_json` a JSON array of objects or NULL. */
PELORA_C_API pelora_status pelora_track_event(pelora_client* client, const char* identity_json,
                                              const char* event_name, const char* event_data_json,
                                              const char* profile_json);

/* Identity. The strings are the caller's (pelora_free); *out is NULL when there is no value. */
PELORA_C_API pelora_status pelora_anonymous_id(pelora_client* client, char** out);
PELORA_C_API pelora_status pelora_user_id(pelora_client* client, char** out);
PELORA_C_API pelora_status pelora_traits(pelora_client* client, char** out_json);
/* Sets who the user is; `traits_json` (a JSON object) replaces the traits, NULL keeps them. */
PELORA_C_API pelora_status pelora_identify(pelora_client* client, const char* user_id,
                                           const char* traits_json);
/* Forgets the user: a new anonymous id, no user id or traits. */
PELORA_C_API pelora_status pelora_reset(pelora_client* client);

/* Starts uploading what is stored; returns at once. */
PELORA_C_API pelora_status pelora_flush(pelora_client* client);
/* Uploads everything stored and waits up to `timeout_seconds`: PELORA_OK when all was delivered,
 * PELORA_ERROR_TIMEOUT otherwise, at once when the service cannot be reached at all (what is
 * stored stays for a later run). */
PELORA_C_API pelora_status pelora_flush_wait(pelora_client* client, double timeout_seconds);
/* pelora_flush_wait, then stops the client's timers, polling and threads; later recording calls
 * return PELORA_ERROR_SHUT_DOWN. PELORA_ERROR_TIMEOUT when events were left or threads had not
 * ended in time. */
PELORA_C_API pelora_status pelora_shutdown(pelora_client* client, double timeout_seconds);
/* 1 while events wait (stored, or uploads in flight), else 0. */
PELORA_C_API int pelora_has_unsent_events(pelora_client* client);
/* Events the disk bound deleted undelivered since the client was created (0 for NULL). */
PELORA_C_API uint64_t pelora_dropped_event_count(pelora_client* client);

/* ---- The person's choice about tracking -------------------------------------------------------
 * Kept with the preferences, so that a restart, and every client of the write key, keeps it. */

/* Opts out: nothing is recorded or sent from now on and the stored batches are deleted; when it
 * returns, no upload or post of this client is still running. */
PELORA_C_API pelora_status pelora_opt_out(pelora_client* client);
/* Records and sends again. */
PELORA_C_API pelora_status pelora_opt_in(pelora_client* client);
/* 1 while opted out, else 0 (also for NULL). */
PELORA_C_API int pelora_is_opted_out(pelora_client* client);
/* With pelora_config_set_require_consent: lets stored and later events leave the device. */
PELORA_C_API pelora_status pelora_grant_consent(pelora_client* client);
/* Stops sending again and deletes what is stored (events are still recorded while consent is
 * pending). */
PELORA_C_API pelora_status pelora_revoke_consent(pelora_client* client);
/* 1 once consent was granted (and not revoked), else 0 (also for NULL). */
PELORA_C_API int pelora_has_consent(pelora_client* client);

#ifdef __cplusplus
}
#endif

#endif /* PELORA_PELORA_H */
