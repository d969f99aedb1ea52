// The C API end to end against the in-process collector: what C records arrives with its exact
// digits, bad input is refused with a status and a message and records nothing, and the strings
// and callbacks it hands out behave as documented.
#include "pelora/pelora.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "pelora/core/json.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/core/version.hpp"
#include "tests/support/temp_directory.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

using collector::Collector;
using test::TempDirectory;

// A C client whose files live in `data` and whose uploads go to `collector`; only explicit flushes
// upload.
pelora_client* newClient(const TempDirectory& data, const Collector& collector,
                         const std::function<void(pelora_config*)>& more = {}) {
  pelora_config* config = nullptr;
  EXPECT_EQ(pelora_config_new("c-api-key", nullptr, &config), PELORA_OK);
  EXPECT_EQ(pelora_config_set_flush_at(config, 1'000'000), PELORA_OK);
  EXPECT_EQ(pelora_config_set_flush_interval(config, 3600), PELORA_OK);
  EXPECT_EQ(pelora_config_set_enable_iam(config, 0), PELORA_OK);
  EXPECT_EQ(pelora_config_set_paths(config, (data.path() / "Documents").c_str(),
                                    (data.path() / "config").c_str()),
            PELORA_OK);
  EXPECT_EQ(
      pelora_config_add_connect_to(config, collector.connectTo(productionTrackingHost).c_str()),
      PELORA_OK);
  EXPECT_EQ(pelora_config_set_ca_bundle(config, collector.certificates().caFile.c_str()),
            PELORA_OK);
  if (more) more(config);
  pelora_client* client = nullptr;
  EXPECT_EQ(pelora_client_new(config, &client), PELORA_OK) << pelora_last_error();
  pelora_config_free(config);  // the client keeps its own copy
  return client;
}

// Takes a string the library returned and frees it.
std::string take(char* text) {
  std::string copy = text ? text : "<null>";
  pelora_free(text);
  return copy;
}

TEST(CApi, RecordsArriveWithTheirExactDigitsAndIdentity) {
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector);

  EXPECT_EQ(pelora_track_bash(client, "Priced",
                              R"({"price": 129.950, "big": 12345678901234567890.123456789,)"
                              R"( "tiny": 1e-30, "tags": ["a", 7], "gift": true, "note": null})"),
            PELORA_OK);
  EXPECT_EQ(pelora_track_bash(client, "Bare", nullptr), PELORA_OK);
  char* anonymous = nullptr;
  ASSERT_EQ(pelora_anonymous_id(client, &anonymous), PELORA_OK);
  EXPECT_EQ(take(anonymous).size(), 36u);
  char* user = reinterpret_cast<char*>(1);
  ASSERT_EQ(pelora_user_id(client, &user), PELORA_OK);
  EXPECT_EQ(user, nullptr) << "no user yet";

  ASSERT_EQ(pelora_identify(client, "user-7", R"({"plan": "pro", "seats": 3.50})"), PELORA_OK);
  EXPECT_EQ(pelora_track_bash(client, "After identify", "{}"), PELORA_OK);
  ASSERT_EQ(pelora_user_id(client, &user), PELORA_OK);
  EXPECT_EQ(take(user), "user-7");
  char* traits = nullptr;
  ASSERT_EQ(pelora_traits(client, &traits), PELORA_OK);
  EXPECT_EQ(take(traits), R"({"plan":"pro","seats":3.5})");

  EXPECT_EQ(pelora_track_event(client, R"({"user": "u1"})", "Login", R"({"attempt": 2})",
                               R"([{"name": "Ann"}])"),
            PELORA_OK);
  ASSERT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK) << pelora_last_error();
  EXPECT_EQ(pelora_has_unsent_events(client), 0);

  const auto events = collector.events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].event, "Priced");
  EXPECT_EQ(events[0].properties->toString(),
            R"({"big":12345678901234567890.123456789,"gift":true,"note":null,"price":129.95,)"
            R"("tags":["a",7],"tiny":0.000000000000000000000000000001})");
  EXPECT_FALSE(events[1].properties.has_value());
  EXPECT_EQ(events[2].userId, "user-7");
  EXPECT_EQ(collector.counts().trackingEvents, 1u);

  EXPECT_EQ(pelora_shutdown(client, 10.0), PELORA_OK) << pelora_last_error();
  EXPECT_EQ(pelora_track_bash(client, "Too late", "{}"), PELORA_ERROR_SHUT_DOWN);
  EXPECT_NE(std::string(pelora_last_error()).find("shut down"), std::string::npos);
  pelora_client_free(client);
}

TEST(CApi, BadInputIsRefusedWithAMessageAndRecordsNothing) {
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector);

  const std::string notUTF8 = "caf\xC3";
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  const std::string tooDeepForAnEvent =
      "{\"a\":" + std::string(510, '[') + std::string(510, ']') + "}";
  const std::string notUTF8String = "{\"a\":\"" + notUTF8 + "\"}";
  struct Case {
    const char* what;
    std::function<pelora_status()> call;
    pelora_status expected;
    const char* messagePart;
  };
  const Case cases[] = {
      {"no client", [&] { return pelora_track_bash(nullptr, "x", nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "client is NULL"},
      {"no name", [&] { return pelora_track_bash(client, nullptr, nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "name is NULL"},
      {"name not UTF-8", [&] { return pelora_track_bash(client, notUTF8.c_str(), nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "name is not valid UTF-8"},
      {"malformed", [&] { return pelora_track_bash(client, "x", R"({"a": 1,})"); },
       PELORA_ERROR_INVALID_JSON, "properties_json: Malformed JSON at byte"},
      {"array properties", [&] { return pelora_track_bash(client, "x", "[1]"); },
       PELORA_ERROR_INVALID_JSON, "properties_json must be an object, not an array"},
      {"string not UTF-8", [&] { return pelora_track_bash(client, "x", notUTF8String.c_str()); },
       PELORA_ERROR_INVALID_JSON, "properties_json: "},
      {"number beyond 38 digits",
       [&] {
         return pelora_track_bash(client, "x", R"({"n": 123456789012345678901234567890123456789})");
       },
       PELORA_ERROR_INVALID_JSON, "38 digits"},
      {"deeper than any reader", [&] { return pelora_track_bash(client, "x", deep.c_str()); },
       PELORA_ERROR_INVALID_JSON, "Nesting deeper"},
      {"deeper than an event",
       [&] { return pelora_track_bash(client, "x", tooDeepForAnEvent.c_str()); },
       PELORA_ERROR_INVALID_JSON, "Nesting deeper than 509 levels"},
      {"empty user", [&] { return pelora_identify(client, "", nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "user_id is empty"},
      {"traits not an object", [&] { return pelora_identify(client, "u", "3"); },
       PELORA_ERROR_INVALID_JSON, "traits_json must be an object, not a number"},
      {"profile not a list of objects",
       [&] { return pelora_track_event(client, "{}", "E", "{}", "[1]"); },
       PELORA_ERROR_INVALID_JSON, "profile_json must be an array of objects"},
      {"no identity", [&] { return pelora_track_event(client, nullptr, "E", "{}", nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "identity_json is NULL"},
      {"negative timeout", [&] { return pelora_flush_wait(client, -1); },
       PELORA_ERROR_INVALID_ARGUMENT, "timeout must be 0 or more"},
      {"no out pointer", [&] { return pelora_anonymous_id(client, nullptr); },
       PELORA_ERROR_INVALID_ARGUMENT, "out is NULL"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.call(), c.expected) << c.what;
    EXPECT_NE(std::string(pelora_last_error()).find(c.messagePart), std::string::npos)
        << c.what << ": " << pelora_last_error();
  }

  char* user = nullptr;
  ASSERT_EQ(pelora_user_id(client, &user), PELORA_OK);
  EXPECT_EQ(user, nullptr) << "a refused identify changed nothing";
  EXPECT_EQ(pelora_track_bash(client, "Good", R"({"ok": 1})"), PELORA_OK);
  ASSERT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK);
  const auto events = collector.events();
  ASSERT_EQ(events.size(), 1u) << "only the good event was recorded";
  EXPECT_EQ(events[0].event, "Good");
  EXPECT_EQ(collector.counts().trackingEvents, 0u);

  // Configuration input.
  pelora_config* config = nullptr;
  EXPECT_EQ(pelora_config_new(nullptr, nullptr, &config), PELORA_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(pelora_config_new(notUTF8.c_str(), nullptr, &config), PELORA_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(config, nullptr);
  ASSERT_EQ(pelora_config_new("k", "stg", &config), PELORA_OK);
  EXPECT_EQ(pelora_config_set_flush_interval(config, 0), PELORA_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(pelora_config_set_default_settings(config, "[]"), PELORA_ERROR_INVALID_JSON);
  EXPECT_EQ(pelora_config_set_default_settings(config, R"({"integrations": {"Pelora.io": {}}})"),
            PELORA_OK);
  EXPECT_EQ(pelora_config_set_flush_at(nullptr, 1), PELORA_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(pelora_client_new(nullptr, nullptr), PELORA_ERROR_INVALID_ARGUMENT);
  pelora_config_free(config);
  pelora_config_free(nullptr);
  pelora_free(nullptr);

  EXPECT_EQ(pelora_shutdown(client, 10.0), PELORA_OK);
  pelora_client_free(client);
  pelora_client_free(nullptr);
}

TEST(CApi, FlushWaitTimesOutWhileTheServiceFailsAndKeepsTheEvents) {
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector);
  collector.failFor(503, std::chrono::hours(1));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(pelora_track_bash(client, "Kept", "{}"), PELORA_OK);
  EXPECT_EQ(pelora_flush_wait(client, 0.3), PELORA_ERROR_TIMEOUT);
  EXPECT_NE(std::string(pelora_last_error()).find("unsent"), std::string::npos);
  EXPECT_EQ(pelora_has_unsent_events(client), 1);
  collector.recover();
  EXPECT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK);
  EXPECT_EQ(collector.counts().distinctEvents, 3u);
  pelora_client_free(client);  // shuts down on the way
}

TEST(CApi, TheDiskBoundAndTheDeliveryPolicyAreSetAndCounted) {
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector, [](pelora_config* config) {
    EXPECT_EQ(pelora_config_set_max_batch_age(config, -1), PELORA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(pelora_config_set_sync_window(config, 0), PELORA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(pelora_config_set_sync_window(config, 0.02), PELORA_OK);
    EXPECT_EQ(pelora_config_set_delivery_policy(config, 0, 60, 5, 1, 1),
              PELORA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(pelora_config_set_delivery_policy(config, 10, 1, 5, 1, 1),
              PELORA_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(std::string(pelora_last_error()).find("max_backoff_seconds"), std::string::npos);
    EXPECT_EQ(pelora_config_set_delivery_policy(config, 0.05, 2, 1, 1, 1), PELORA_OK);
    EXPECT_EQ(pelora_config_set_max_stored_bytes(config, 16 * 1024), PELORA_OK);
    EXPECT_EQ(pelora_config_set_max_batch_age(config, 3600), PELORA_OK);
    EXPECT_EQ(pelora_config_set_flush_at(config, 20), PELORA_OK);
  });
  ASSERT_NE(client, nullptr);
  collector.stop();  // offline: batches pile up against the 16 KiB bound
  EXPECT_EQ(pelora_dropped_event_count(client), 0u);
  const std::string pad = R"({"pad":")" + std::string(200, 'x') + R"("})";
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(pelora_track_bash(client, "Bounded", pad.c_str()), PELORA_OK);
  (void)pelora_flush_wait(client, 1.0);  // fails offline, having written out every event
  EXPECT_GT(pelora_dropped_event_count(client), 0u);
  EXPECT_EQ(pelora_dropped_event_count(nullptr), 0u);
  pelora_client_free(client);
}

// Opt-out and consent through C: the choice outlives the client (a new one on the same files
// keeps it), opting out and revoking delete what was stored, and granting lets it all go.
TEST(CApi, OptOutAndConsentLastAcrossRestartsAndDeleteWhatWasStored) {
  TempDirectory data;
  Collector collector;
  auto consentClient = [&] {
    return newClient(data, collector, [](pelora_config* config) {
      EXPECT_EQ(pelora_config_set_require_consent(config, 1), PELORA_OK);
    });
  };
  pelora_client* client = consentClient();
  EXPECT_EQ(pelora_has_consent(client), 0);
  ASSERT_EQ(pelora_track_bash(client, "Pending", "{}"), PELORA_OK);
  EXPECT_EQ(pelora_flush_wait(client, 1.0), PELORA_ERROR_TIMEOUT);  // held back, still stored
  EXPECT_EQ(pelora_has_unsent_events(client), 1);
  ASSERT_EQ(pelora_grant_consent(client), PELORA_OK);
  pelora_client_free(client);

  client = consentClient();  // a restart keeps the consent, and sends what waited
  EXPECT_EQ(pelora_has_consent(client), 1);
  EXPECT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK);
  EXPECT_EQ(collector.counts().distinctEvents, 1u);
  ASSERT_EQ(pelora_revoke_consent(client), PELORA_OK);
  ASSERT_EQ(pelora_track_bash(client, "Held again", "{}"), PELORA_OK);
  ASSERT_EQ(pelora_opt_out(client), PELORA_OK);
  EXPECT_EQ(pelora_has_unsent_events(client), 0);  // the held event was deleted
  EXPECT_EQ(pelora_track_bash(client, "Not recorded", "{}"), PELORA_OK);
  EXPECT_EQ(pelora_has_unsent_events(client), 0);
  pelora_client_free(client);

  client = consentClient();
  EXPECT_EQ(pelora_is_opted_out(client), 1);
  EXPECT_EQ(pelora_has_consent(client), 0);
  ASSERT_EQ(pelora_opt_in(client), PELORA_OK);
  ASSERT_EQ(pelora_grant_consent(client), PELORA_OK);
  ASSERT_EQ(pelora_track_bash(client, "Back", "{}"), PELORA_OK);
  EXPECT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK);
  EXPECT_EQ(collector.counts().distinctEvents, 2u);
  EXPECT_EQ(pelora_is_opted_out(nullptr), 0);
  EXPECT_EQ(pelora_has_consent(nullptr), 0);
  EXPECT_EQ(pelora_opt_out(nullptr), PELORA_ERROR_INVALID_ARGUMENT);
  pelora_client_free(client);
}

// Compression and the proxy are set from C, and a proxy that is not one is refused there.
TEST(CApi, CompressedUploadsAndTheProxySettingReachTheClient) {
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector, [](pelora_config* config) {
    EXPECT_EQ(pelora_config_set_proxy(config, "proxy.corp:3128"), PELORA_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(std::string(pelora_last_error()).find("proxy"), std::string::npos);
    EXPECT_EQ(pelora_config_set_proxy(config, "http://127.0.0.1:1"), PELORA_OK);
    EXPECT_EQ(pelora_config_set_proxy(config, nullptr), PELORA_OK);  // none after all
    EXPECT_EQ(pelora_config_set_compress_batches(config, 1), PELORA_OK);
  });
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(pelora_track_bash(client, "Compressed", R"({"category":"Shoes / Running"})"),
              PELORA_OK);
  }
  EXPECT_EQ(pelora_flush_wait(client, 20.0), PELORA_OK) << pelora_last_error();
  const auto counts = collector.counts();
  EXPECT_EQ(counts.distinctEvents, 50u);
  EXPECT_EQ(counts.compressedBatches, counts.batches);
  EXPECT_LT(counts.batchBytesReceived, counts.batchBytes);
  pelora_client_free(client);
}

struct LogLines {
  std::mutex mutex;
  std::vector<std::pair<pelora_log_level, std::string>> lines;
};

void collect(pelora_log_level level, const char* message, void* userData) {
  auto* log = static_cast<LogLines*>(userData);
  std::lock_guard lock(log->mutex);
  log->lines.emplace_back(level, message);
}

TEST(CApi, TheLogHandlerGetsEveryLineWithItsUserData) {
  LogLines log;
  pelora_set_log_handler(collect, &log);
  TempDirectory data;
  Collector collector;
  pelora_client* client = newClient(data, collector);
  // A client with push on and no push app id warns about it at start-up.
  EXPECT_EQ(pelora_shutdown(client, 10.0), PELORA_OK);
  pelora_client_free(client);
  pelora_set_log_handler(nullptr, nullptr);
  std::lock_guard lock(log.mutex);
  bool warned = false;
  for (const auto& [level, line] : log.lines) {
    warned = warned || (level == PELORA_LOG_WARNING && line.find("peloraAppPushID") != line.npos);
  }
  EXPECT_TRUE(warned) << log.lines.size() << " lines";
  EXPECT_EQ(pelora_version(), libraryVersion);
}

}  // namespace
}  // namespace pelora
