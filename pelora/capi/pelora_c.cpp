// The C API (pelora/pelora.h) over the C++ client: handles, argument checks, and the one place
// where exceptions become status codes and messages.
#include "pelora/pelora.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "pelora/client/analytics.hpp"
#include "pelora/core/coding.hpp"
#include "pelora/core/events.hpp"
#include "pelora/core/json.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/state/configuration.hpp"

struct pelora_config {
  pelora::Configuration configuration;
};

struct pelora_client {
  std::shared_ptr<pelora::PeloraAnalytics> analytics;
};

namespace {

using pelora::JSON;

// The message of this thread's last failed call.
thread_local std::string lastError;

// Bad input, with the status the caller gets.
class Refused : public std::runtime_error {
 public:
  Refused(pelora_status status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  pelora_status status() const noexcept { return status_; }

 private:
  pelora_status status_;
};

pelora_status fail(pelora_status status, const char* message) noexcept {
  try {
    lastError = message;
  } catch (...) {
    lastError.clear();  // no memory for the message; the status still says what happened
  }
  return status;
}

// Runs `body`, turning every exception into a status and this thread's message.
template <class Body>
pelora_status guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const Refused& refused) {
    return fail(refused.status(), refused.what());
  } catch (const pelora::DecodingError& error) {
    return fail(PELORA_ERROR_INVALID_JSON, error.what());
  } catch (const pelora::JSONError& error) {
    return fail(PELORA_ERROR_INVALID_JSON, error.what());
  } catch (const std::invalid_argument& error) {
    return fail(PELORA_ERROR_INVALID_ARGUMENT, error.what());
  } catch (const std::bad_alloc&) {
    return fail(PELORA_ERROR_OUT_OF_MEMORY, "out of memory");
  } catch (const std::exception& error) {
    return fail(PELORA_ERROR_INTERNAL, error.what());
  } catch (...) {
    return fail(PELORA_ERROR_INTERNAL, "unknown error");
  }
}

template <class Handle>
Handle& require(Handle* handle, const char* what) {
  if (handle == nullptr)
    throw Refused(PELORA_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
  return *handle;
}

// NUL-terminated UTF-8 text.
std::string text(const char* value, const char* what) {
  if (value == nullptr)
    throw Refused(PELORA_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
  std::string_view view(value);
  if (!pelora::isValidUTF8(view)) {
    throw Refused(PELORA_ERROR_INVALID_ARGUMENT, std::string(what) + " is not valid UTF-8");
  }
  return std::string(view);
}

// Reads JSON text with `read` (JSON::parse or JSONText::parse, at the event's depth limit) and
// checks the kind of its root: numbers keep their exact digits.
template <class Read>
auto readJSON(const char* value, const char* what, JSON::Kind expected, Read&& read) {
  if (value == nullptr) {
    throw Refused(PELORA_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
  }
  try {
    auto result = read(std::string_view(value), pelora::maxEventValueDepth);
    if (result.kind() != expected) {
      throw Refused(PELORA_ERROR_INVALID_JSON,
                    std::string(what) + " must be " + std::string(pelora::kindName(expected)) +
                        ", not " + std::string(pelora::kindName(result.kind())));
    }
    return result;
  } catch (const pelora::DecodingError& error) {
    throw Refused(PELORA_ERROR_INVALID_JSON, std::string(what) + ": " + error.what());
  }
}

JSON parse(const char* value, const char* what, JSON::Kind expected) {
  return readJSON(value, what, expected,
                  [](std::string_view text, int depth) { return JSON::parse(text, depth); });
}

pelora::JSONText parseText(const char* value, const char* what, JSON::Kind expected) {
  return readJSON(value, what, expected, [](std::string_view text, int depth) {
    return pelora::JSONText::parse(text, depth);
  });
}

pelora::Dictionary dictionary(const JSON& object) {
  return object.dictionaryValue().value();
}

std::chrono::steady_clock::duration timeout(double seconds) {
  if (std::isnan(seconds) || seconds < 0) {
    throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "the timeout must be 0 or more seconds");
  }
  // A century stands for "no limit" without overflowing the clock.
  const double capped = std::min(seconds, 100.0 * 365 * 24 * 3600);
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(capped));
}

pelora::PeloraAnalytics& recording(pelora_client* client) {
  auto& analytics = *require(client, "client").analytics;
  if (analytics.isShutDown()) {
    throw Refused(PELORA_ERROR_SHUT_DOWN, "the client was shut down; nothing was recorded");
  }
  return analytics;
}

// A copy the caller releases with pelora_free.
char* copyOut(std::string_view value) {
  auto* out = static_cast<char*>(std::malloc(value.size() + 1));
  if (out == nullptr) throw std::bad_alloc();
  std::memcpy(out, value.data(), value.size());
  out[value.size()] = '\0';
  return out;
}

template <class Setter>
pelora_status configure(pelora_config* config, Setter&& setter) noexcept {
  return guarded([&] {
    setter(require(config, "config").configuration);
    return PELORA_OK;
  });
}

int flag(int value) {
  return value != 0;
}

}  // namespace

extern "C" {

// ---- Library
// --------------------------------------------------------------------------------------

const char* pelora_version(void) {
  static const std::string version = pelora::PeloraAnalytics::version();
  return version.c_str();
}

const char* pelora_last_error(void) {
  return lastError.c_str();
}

void pelora_free(char* text) {
  std::free(text);
}

void pelora_set_debug_logs(int enabled) {
  pelora::PeloraAnalytics::setDebugLogsEnabled(enabled != 0);
}

int pelora_debug_logs_enabled(void) {
  return pelora::PeloraAnalytics::debugLogsEnabled();
}

void pelora_set_log_handler(pelora_log_handler handler, void* user_data) {
  try {
    if (handler == nullptr) {
      pelora::PeloraAnalytics::setLogHandler(nullptr);
      return;
    }
    pelora::PeloraAnalytics::setLogHandler(
        [handler, user_data](pelora::LogLevel level, std::string_view message) {
          const std::string line(message);  // NUL-terminated for C
          handler(static_cast<pelora_log_level>(level), line.c_str(), user_data);
        });
  } catch (...) {
    (void)fail(PELORA_ERROR_OUT_OF_MEMORY, "out of memory");
  }
}

// ---- Configuration
// --------------------------------------------------------------------------------

pelora_status pelora_config_new(const char* write_key, const char* flavor, pelora_config** out) {
  return guarded([&] {
    auto& result = require(out, "out");
    std::optional<std::string> flavorText;
    if (flavor != nullptr) flavorText = text(flavor, "flavor");
    result = new pelora_config{pelora::Configuration(text(write_key, "write_key"), flavorText)};
    return PELORA_OK;
  });
}

void pelora_config_free(pelora_config* config) {
  delete config;
}

pelora_status pelora_config_set_flush_at(pelora_config* config, int64_t events) {
  return configure(config, [&](auto& c) { c.flushAt(events); });
}

pelora_status pelora_config_set_flush_interval(pelora_config* config, double seconds) {
  return configure(config, [&](auto& c) {
    if (!std::isfinite(seconds) || seconds <= 0) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "flush_interval must be more than 0 seconds");
    }
    c.flushInterval(seconds);
  });
}

pelora_status pelora_config_set_track_application_lifecycle_events(pelora_config* config,
                                                                   int enabled) {
  return configure(config, [&](auto& c) { c.trackApplicationLifecycleEvents(flag(enabled)); });
}

pelora_status pelora_config_set_track_deeplinks(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.trackDeeplinks(flag(enabled)); });
}

pelora_status pelora_config_set_auto_add_pelora_destination(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.autoAddPeloraDestination(flag(enabled)); });
}

pelora_status pelora_config_set_enable_iam(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.values.enableIAM = flag(enabled); });
}

pelora_status pelora_config_set_api_host(pelora_config* config, const char* host) {
  return configure(config, [&](auto& c) { c.apiHost(text(host, "host")); });
}

pelora_status pelora_config_set_push_app_id(pelora_config* config, const char* app_id) {
  return configure(config, [&](auto& c) { c.peloraAppPushID(text(app_id, "app_id")); });
}

pelora_status pelora_config_set_default_settings(pelora_config* config, const char* settings_json) {
  return configure(config, [&](auto& c) {
    const JSON json = parse(settings_json, "settings_json", JSON::Kind::object);
    c.defaultSettings(pelora::decodeValue<pelora::Settings>(json));
  });
}

pelora_status pelora_config_set_paths(pelora_config* config, const char* documents_dir,
                                      const char* preferences_dir) {
  return configure(config, [&](auto& c) {
    pelora::platform::Paths paths;
    paths.documents = text(documents_dir, "documents_dir");
    paths.preferences = text(preferences_dir, "preferences_dir");
    if (paths.documents.empty() || paths.preferences.empty()) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "a directory is empty");
    }
    c.paths(std::move(paths));
  });
}

pelora_status pelora_config_add_connect_to(pelora_config* config, const char* entry) {
  return configure(config, [&](auto& c) { c.values.connectTo.push_back(text(entry, "entry")); });
}

pelora_status pelora_config_set_ca_bundle(pelora_config* config, const char* path) {
  return configure(config, [&](auto& c) { c.caBundle(text(path, "path")); });
}

pelora_status pelora_config_set_iam_retry_delay(pelora_config* config, double seconds) {
  return configure(config, [&](auto& c) {
    if (!std::isfinite(seconds) || seconds < 0) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "iam_retry_delay must be 0 or more seconds");
    }
    c.iamRetryDelay(seconds);
  });
}

pelora_status pelora_config_set_max_stored_bytes(pelora_config* config, uint64_t bytes) {
  return configure(config, [&](auto& c) { c.maxStoredBytes(bytes); });
}

pelora_status pelora_config_set_max_batch_age(pelora_config* config, double seconds) {
  return configure(config, [&](auto& c) {
    if (!std::isfinite(seconds) || seconds < 0) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "max_batch_age must be 0 or more seconds");
    }
    c.maxBatchAge(seconds);
  });
}

pelora_status pelora_config_set_delivery_policy(pelora_config* config,
                                                double initial_backoff_seconds,
                                                double max_backoff_seconds, int refused_after_tries,
                                                int split_too_large, int pause_while_offline) {
  return configure(config, [&](auto& c) {
    auto milliseconds = [](double seconds, const char* name) {
      if (!std::isfinite(seconds) || seconds <= 0 || seconds > 86'400) {
        throw Refused(PELORA_ERROR_INVALID_ARGUMENT,
                      std::string(name) + " must be more than 0 and at most 86400 seconds");
      }
      return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    };
    pelora::DeliveryPolicy policy;
    policy.initialBackoff = milliseconds(initial_backoff_seconds, "initial_backoff_seconds");
    policy.maxBackoff = milliseconds(max_backoff_seconds, "max_backoff_seconds");
    if (policy.maxBackoff < policy.initialBackoff) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT,
                    "max_backoff_seconds must not be less than initial_backoff_seconds");
    }
    if (refused_after_tries < 1) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "refused_after_tries must be 1 or more");
    }
    policy.refusedAfterTries = refused_after_tries;
    policy.splitTooLarge = split_too_large != 0;
    policy.pauseWhileOffline = pause_while_offline != 0;
    c.deliveryPolicy(policy);
  });
}

pelora_status pelora_config_set_application(pelora_config* config, void* application) {
  return configure(
      config, [&](auto& c) { c.application(application ? std::any(application) : std::any()); });
}

// ---- Client
// ---------------------------------------------------------------------------------------

pelora_status pelora_client_new(const pelora_config* config, pelora_client** out) {
  return guarded([&] {
    auto& result = require(out, "out");
    const auto& source = require(config, "config");
    auto configuration = std::make_shared<pelora::Configuration>(source.configuration);
    result = new pelora_client{pelora::PeloraAnalytics::create(std::move(configuration))};
    return PELORA_OK;
  });
}

void pelora_client_free(pelora_client* client) {
  if (client == nullptr) return;
  try {
    client->analytics->shutdown(std::chrono::steady_clock::now());
  } catch (...) {
    // Releasing goes on: what was recorded is on disk either way.
  }
  delete client;
}

pelora_status pelora_track_bash(pelora_client* client, const char* name,
                                const char* properties_json) {
  return guarded([&] {
    auto& analytics = recording(client);
    std::string eventName = text(name, "name");
    if (properties_json == nullptr) {
      analytics.trackBash(eventName);
      return PELORA_OK;
    }
    // Read straight to the text a batch holds; no value is built while no plugin reads one.
    auto properties = parseText(properties_json, "properties_json", JSON::Kind::object);
    analytics.trackBash(eventName, std::move(properties));
    return PELORA_OK;
  });
}

pelora_status pelora_track_event(pelora_client* client, const char* identity_json,
                                 const char* event_name, const char* event_data_json,
                                 const char* profile_json) {
  return guarded([&] {
    auto& analytics = recording(client);
    const auto identity = dictionary(parse(identity_json, "identity_json", JSON::Kind::object));
    std::string name = text(event_name, "event_name");
    const auto data = dictionary(parse(event_data_json, "event_data_json", JSON::Kind::object));
    std::optional<std::vector<pelora::Dictionary>> profile;
    if (profile_json != nullptr) {
      const JSON list = parse(profile_json, "profile_json", JSON::Kind::array);
      profile.emplace();
      for (const JSON& entry : *list.listPointer()) {
        if (entry.kind() != JSON::Kind::object) {
          throw Refused(PELORA_ERROR_INVALID_JSON, "profile_json must be an array of objects");
        }
        profile->push_back(dictionary(entry));
      }
    }
    analytics.trackEvent(identity, name, data, profile);
    return PELORA_OK;
  });
}

pelora_status pelora_anonymous_id(pelora_client* client, char** out) {
  return guarded([&] {
    auto& result = require(out, "out");
    result = copyOut(require(client, "client").analytics->anonymousId());
    return PELORA_OK;
  });
}

pelora_status pelora_user_id(pelora_client* client, char** out) {
  return guarded([&] {
    auto& result = require(out, "out");
    const auto userId = require(client, "client").analytics->userId();
    result = userId ? copyOut(*userId) : nullptr;
    return PELORA_OK;
  });
}

pelora_status pelora_traits(pelora_client* client, char** out_json) {
  return guarded([&] {
    auto& result = require(out_json, "out_json");
    const auto traits = require(client, "client").analytics->traits<JSON>();
    result = traits ? copyOut(traits->toString()) : nullptr;
    return PELORA_OK;
  });
}

pelora_status pelora_identify(pelora_client* client, const char* user_id, const char* traits_json) {
  return guarded([&] {
    auto& analytics = recording(client);
    std::string userId = text(user_id, "user_id");
    if (userId.empty()) throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "user_id is empty");
    std::optional<pelora::Dictionary> traits;
    if (traits_json != nullptr) {
      traits = dictionary(parse(traits_json, "traits_json", JSON::Kind::object));
    }
    analytics.identify(userId, traits);
    return PELORA_OK;
  });
}

pelora_status pelora_reset(pelora_client* client) {
  return guarded([&] {
    recording(client).reset();
    return PELORA_OK;
  });
}

pelora_status pelora_flush(pelora_client* client) {
  return guarded([&] {
    recording(client).flush();
    return PELORA_OK;
  });
}

pelora_status pelora_flush_wait(pelora_client* client, double timeout_seconds) {
  return guarded([&] {
    auto& analytics = recording(client);
    if (analytics.flush(timeout(timeout_seconds))) return PELORA_OK;
    return fail(PELORA_ERROR_TIMEOUT, "events were still unsent when the timeout passed");
  });
}

pelora_status pelora_shutdown(pelora_client* client, double timeout_seconds) {
  return guarded([&] {
    auto& analytics = *require(client, "client").analytics;
    if (analytics.shutdown(timeout(timeout_seconds))) return PELORA_OK;
    return fail(PELORA_ERROR_TIMEOUT,
                "events were still unsent, or library threads still running, when the timeout "
                "passed");
  });
}

int pelora_has_unsent_events(pelora_client* client) {
  if (client == nullptr) return 0;
  try {
    return client->analytics->hasUnsentEvents() ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

uint64_t pelora_dropped_event_count(pelora_client* client) {
  if (client == nullptr) return 0;
  return client->analytics->droppedEventCount();
}

pelora_status pelora_config_set_require_consent(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.requireConsent(enabled != 0); });
}

pelora_status pelora_config_set_compress_batches(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.compressBatches(enabled != 0); });
}

pelora_status pelora_config_set_sync_window(pelora_config* config, double seconds) {
  return configure(config, [&](auto& c) {
    if (!std::isfinite(seconds) || seconds < 0.001 || seconds > 86400) {
      throw Refused(PELORA_ERROR_INVALID_ARGUMENT, "sync_window must be 0.001 to 86400 seconds");
    }
    c.syncWindow(std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)));
  });
}

pelora_status pelora_config_set_sync_every_event(pelora_config* config, int enabled) {
  return configure(config, [&](auto& c) { c.syncEveryEvent(enabled != 0); });
}

pelora_status pelora_config_set_proxy(pelora_config* config, const char* url) {
  return configure(config, [&](auto& c) { c.proxy(url == nullptr ? "" : text(url, "url")); });
}

pelora_status pelora_opt_out(pelora_client* client) {
  return guarded([&] {
    recording(client).optOut();
    return PELORA_OK;
  });
}

pelora_status pelora_opt_in(pelora_client* client) {
  return guarded([&] {
    recording(client).optIn();
    return PELORA_OK;
  });
}

int pelora_is_opted_out(pelora_client* client) {
  return client != nullptr && client->analytics->isOptedOut() ? 1 : 0;
}

pelora_status pelora_grant_consent(pelora_client* client) {
  return guarded([&] {
    recording(client).grantConsent();
    return PELORA_OK;
  });
}

pelora_status pelora_revoke_consent(pelora_client* client) {
  return guarded([&] {
    recording(client).revokeConsent();
    return PELORA_OK;
  });
}

int pelora_has_consent(pelora_client* client) {
  return client != nullptr && client->analytics->hasConsent() ? 1 : 0;
}

}  // extern "C"
