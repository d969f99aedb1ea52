/* Builds against an installed libpelora through <pelora/pelora.h> only, as a C host would: a
 * client records (its service unreachable), refuses bad input, shuts down and is released. Prints
 * 42 when all of that held. */
#define _POSIX_C_SOURCE 200809L /* mkdtemp */

#include <pelora/pelora.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Keeps the library's lines off standard output, which carries only the result. */
static void drop_line(pelora_log_level level, const char* message, void* user_data) {
  (void)level;
  (void)message;
  (void)user_data;
}

static int fail(const char* why) {
  printf("c consumer: %s: %s\n", why, pelora_last_error());
  return 1;
}

int main(void) {
  char directory[] = "/tmp/pelora-c-consumer.XXXXXX";
  if (mkdtemp(directory) == NULL) return fail("no temporary directory");
  char documents[256];
  char preferences[256];
  snprintf(documents, sizeof documents, "%s/data", directory);
  snprintf(preferences, sizeof preferences, "%s/config", directory);

  pelora_set_log_handler(drop_line, NULL);
  pelora_config* config = NULL;
  if (pelora_config_new("c-consumer-key", NULL, &config) != PELORA_OK) return fail("config");
  /* Port 1 on the loopback refuses at once: uploads fail without leaving the machine. */
  if (pelora_config_set_enable_iam(config, 0) != PELORA_OK ||
      pelora_config_set_paths(config, documents, preferences) != PELORA_OK ||
      pelora_config_add_connect_to(config, "tracking.pelora.io:443:127.0.0.1:1") != PELORA_OK) {
    return fail("setters");
  }
  pelora_client* client = NULL;
  if (pelora_client_new(config, &client) != PELORA_OK) return fail("client");
  pelora_config_free(config);

  if (pelora_track_bash(client, "Installed", "{\"price\": 9.90}") != PELORA_OK)
    return fail("track");
  if (pelora_track_bash(client, "Broken", "{") != PELORA_ERROR_INVALID_JSON) {
    return fail("malformed JSON was not refused");
  }
  if (strstr(pelora_last_error(), "Malformed JSON") == NULL) return fail("message");
  char* anonymous = NULL;
  if (pelora_anonymous_id(client, &anonymous) != PELORA_OK || anonymous == NULL ||
      strlen(anonymous) != 36) {
    return fail("anonymous id");
  }
  pelora_free(anonymous);
  /* The service is unreachable: the event stays on disk and shutdown says so. */
  if (pelora_shutdown(client, 0.5) != PELORA_ERROR_TIMEOUT) return fail("shutdown");
  if (pelora_has_unsent_events(client) != 1) return fail("the event is not kept");
  pelora_client_free(client);
  pelora_set_log_handler(NULL, NULL);
  printf("42\n");
  return 0;
}
