/* Compiled as C11 with -Wall -Wextra -pedantic -Werror: the C API header must stay plain C. Every
 * declaration is taken by address so that a typo in any of them fails here. */
#include <pelora/pelora.h>

typedef void (*any_function)(void);

static const any_function declared[] = {
    (any_function)pelora_version,
    (any_function)pelora_last_error,
    (any_function)pelora_free,
    (any_function)pelora_set_debug_logs,
    (any_function)pelora_debug_logs_enabled,
    (any_function)pelora_set_log_handler,
    (any_function)pelora_config_new,
    (any_function)pelora_config_free,
    (any_function)pelora_config_set_flush_at,
    (any_function)pelora_config_set_flush_interval,
    (any_function)pelora_config_set_track_application_lifecycle_events,
    (any_function)pelora_config_set_track_deeplinks,
    (any_function)pelora_config_set_auto_add_pelora_destination,
    (any_function)pelora_config_set_enable_iam,
    (any_function)pelora_config_set_api_host,
    (any_function)pelora_config_set_push_app_id,
    (any_function)pelora_config_set_default_settings,
    (any_function)pelora_config_set_paths,
    (any_function)pelora_config_add_connect_to,
    (any_function)pelora_config_set_ca_bundle,
    (any_function)pelora_config_set_iam_retry_delay,
    (any_function)pelora_config_set_application,
    (any_function)pelora_client_new,
    (any_function)pelora_client_free,
    (any_function)pelora_track_bash,
    (any_function)pelora_track_event,
    (any_function)pelora_anonymous_id,
    (any_function)pelora_user_id,
    (any_function)pelora_traits,
    (any_function)pelora_identify,
    (any_function)pelora_reset,
    (any_function)pelora_flush,
    (any_function)pelora_flush_wait,
    (any_function)pelora_shutdown,
    (any_function)pelora_has_unsent_events,
};

int pelora_c_header_check_count(void);
int pelora_c_header_check_count(void) {
  return (int)(sizeof declared / sizeof declared[0]);
}
