// HTTPClient: uploads finished batch files and posts single tracking events to the tracking
// service over one HTTP session of its own. Called from any thread; completions run on the
// session's worker thread. Logs outcomes to a LogSink it holds weakly (the client).
#pragma once

#include <chrono>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "pelora/core/json.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora {

class Configuration;

// A request the tracking service did not accept, or could not be made.
class HTTPClientErrors : public std::exception {
 public:
  enum class Kind { statusCode, badSession, failedToOpenBatch };

  // The service answered with a status outside 1...299.
  static HTTPClientErrors statusCode(int code);
  // No usable session (no path produces it today).
  static HTTPClientErrors badSession();
  // The upload URL could not be formed.
  static HTTPClientErrors failedToOpenBatch();

  Kind kind() const noexcept { return kind_; }
  // The HTTP status for statusCode, 0 otherwise.
  int code() const noexcept { return code_; }
  const char* what() const noexcept override { return message_.c_str(); }
  friend bool operator==(const HTTPClientErrors& a, const HTTPClientErrors& b) noexcept {
    return a.kind_ == b.kind_ && a.code_ == b.code_;
  }

 private:
  HTTPClientErrors(Kind kind, int code);
  Kind kind_;
  int code_;
  std::string message_;
};

// The outcome handed to a completion: success (always true) or a failure, which is either the
// transport's error or an HTTPClientErrors.
struct HTTPResult {
  std::variant<bool, platform::HttpError, HTTPClientErrors> value;
  // The wait the service asked for with "Retry-After" on a refusal, if it did.
  std::optional<std::chrono::seconds> retryAfter{};

  bool succeeded() const noexcept { return value.index() == 0; }
  const platform::HttpError* transportError() const noexcept {
    return std::get_if<platform::HttpError>(&value);
  }
  const HTTPClientErrors* clientError() const noexcept {
    return std::get_if<HTTPClientErrors>(&value);
  }
};

using HTTPCompletion = std::function<void(const HTTPResult&)>;

class HTTPClient {
 public:
  // `apiKey` defaults to the configuration's write key; `apiHost` (a bare host name) to the
  // tracking host of the configuration's flavor. The configuration's connectTo, caBundle and proxy
  // reach the session; with compressBatches, batch uploads go gzip-compressed.
  HTTPClient(std::shared_ptr<Configuration> configuration, std::weak_ptr<LogSink> log,
             std::optional<std::string> apiKey = std::nullopt,
             std::optional<std::string> apiHost = std::nullopt);
  HTTPClient(const HTTPClient&) = delete;
  HTTPClient& operator=(const HTTPClient&) = delete;

  const std::string& apiHost() const noexcept { return apiHost_; }
  const std::string& apiKey() const noexcept { return apiKey_; }

  // POSTs the file `batch` (as it is, or gzip-compressed) to the batch endpoint (its write key
  // travels inside it) and returns the running task; when the URL cannot be formed, calls
  // `completion` with failedToOpenBatch at once and returns nullptr.
  std::shared_ptr<platform::HttpTask> startBatchUpload(const std::filesystem::path& batch,
                                                       HTTPCompletion completion);

  // POSTs one tracking event. Without a usable host nothing is sent and `completion` never runs.
  void trackingEventPayload(const JSON& identityId, const std::string& eventName,
                            const JSON& eventData, const std::vector<JSON>& profile,
                            HTTPCompletion completion);

  // Cancels every request of this client still in flight (their completions see a cancelled
  // transport error), for an owner shutting down.
  void cancelAll();

 private:
  friend struct HTTPClientTestPeer;

  // Turns a transport outcome into the completion's result and logs failures.
  static void handleResponse(const std::optional<platform::HttpResponse>& response,
                             const std::optional<platform::HttpError>& error,
                             const HTTPCompletion& completion, const std::weak_ptr<LogSink>& log,
                             std::string_view function, int line);

  std::shared_ptr<platform::HttpSession> session_;
  std::string apiHost_;
  std::string apiKey_;
  bool compressBatches_ = false;
  std::weak_ptr<LogSink> log_;
};

}  // namespace pelora
