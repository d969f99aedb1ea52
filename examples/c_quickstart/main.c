/* c_quickstart: the quickstart from C. Records a few events (numbers keep their exact digits),
 * says who the user is, then shuts down, which delivers everything or says why not.
 *
 *   c_quickstart [--connect-to HOST:PORT:TO-HOST:TO-PORT] [--ca-file FILE] [--data DIR]
 *
 * Without options it sends to the production service and keeps its files in the user's data
 * directory. */
#include <pelora/pelora.h>

#include <stdio.h>
#include <string.h>

static int check(pelora_status status, const char* what) {
  if (status == PELORA_OK) return 1;
  fprintf(stderr, "c_quickstart: %s failed (%d): %s\n", what, (int)status, pelora_last_error());
  return 0;
}

static void print_line(pelora_log_level level, const char* message, void* user_data) {
  (void)user_data;
  printf("[pelora %d] %s\n", (int)level, message);
}

int main(int argc, char** argv) {
  const char* connect_to = NULL;
  const char* ca_file = NULL;
  const char* data = NULL;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--connect-to") == 0) {
      connect_to = argv[i + 1];
    } else if (strcmp(argv[i], "--ca-file") == 0) {
      ca_file = argv[i + 1];
    } else if (strcmp(argv[i], "--data") == 0) {
      data = argv[i + 1];
    } else {
      fprintf(stderr, "usage: %s [--connect-to ENTRY] [--ca-file FILE] [--data DIR]\n", argv[0]);
      return 2;
    }
  }
  pelora_set_log_handler(print_line, NULL);
  printf("Pelora %s\n", pelora_version());

  pelora_config* config = NULL;
  if (!check(pelora_config_new("c-quickstart-key", "production", &config), "config")) return 1;
  int ok = check(pelora_config_set_flush_at(config, 10), "flush_at") &&
           check(pelora_config_set_enable_iam(config, 0), "enable_iam");
  if (ok && connect_to) ok = check(pelora_config_add_connect_to(config, connect_to), "connect-to");
  if (ok && ca_file) ok = check(pelora_config_set_ca_bundle(config, ca_file), "ca-file");
  if (ok && data) {
    char documents[4096];
    char preferences[4096];
    snprintf(documents, sizeof documents, "%s/Documents", data);
    snprintf(preferences, sizeof preferences, "%s/config", data);
    ok = check(pelora_config_set_paths(config, documents, preferences), "paths");
  }
  pelora_client* client = NULL;
  if (ok) ok = check(pelora_client_new(config, &client), "client");
  pelora_config_free(config);
  if (!ok) return 1;

  ok = check(pelora_identify(client, "c-user-1", "{\"plan\": \"pro\"}"), "identify");
  for (int i = 0; ok && i < 5; ++i) {
    char properties[256];
    snprintf(properties, sizeof properties,
             "{\"seq\": %d, \"price\": 129.95, \"exact\": 0.1000000000000000000000000000001}", i);
    ok = check(pelora_track_bash(client, "C Order Completed", properties), "track");
  }
  if (ok) {
    ok = check(
        pelora_track_event(client, "{\"user\": \"c-user-1\"}", "C Login", "{\"attempt\": 1}", NULL),
        "track_event");
  }
  /* Bad input is refused and records nothing. */
  if (pelora_track_bash(client, "Broken", "{\"price\": 1,}") == PELORA_ERROR_INVALID_JSON) {
    printf("refused as expected: %s\n", pelora_last_error());
  }

  const int delivered = check(pelora_shutdown(client, 30.0), "shutdown");
  pelora_client_free(client);
  pelora_set_log_handler(NULL, NULL);
  printf("c_quickstart: %s\n",
         ok && delivered ? "everything delivered" : "not everything delivered");
  return ok && delivered ? 0 : 1;
}
