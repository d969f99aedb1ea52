#include "pelora/delivery/http_client.hpp"

#include <chrono>

#include "pelora/core/service_hosts.hpp"
#include "pelora/core/version.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/http_status.hpp"
#include "pelora/state/configuration.hpp"

namespace pelora {
namespace {

constexpr std::string_view batchUploadFunction = "startBatchUpload(writeKey:batch:completion:)";
constexpr std::string_view trackingEventFunction =
    "trackingEventPayload(identityId:eventName:eventData:profile:completion:)";
constexpr std::chrono::seconds requestTimeout{60};

platform::HttpSessionOptions sessionOptions(const Configuration* configuration) {
  platform::HttpSessionOptions options;
  options.ephemeral = true;
  options.resourceTimeout = std::chrono::seconds(30);
  options.requestTimeout = std::chrono::seconds(60);
  options.maxConnectionsPerHost = 2;
  options.headers = {{"Content-Type", "application/json; charset=utf-8"},
                     {"User-Agent", "analytics-ios/" + std::string(libraryVersion)}};
  if (configuration) {
    options.connectTo = configuration->values.connectTo;
    options.caBundle = configuration->values.caBundle;
    options.proxy = configuration->values.proxy;
  }
  return options;
}

}  // namespace

HTTPClientErrors::HTTPClientErrors(Kind kind, int code) : kind_(kind), code_(code) {
  switch (kind) {
    case Kind::statusCode:
      message_ = "statusCode(code: " + std::to_string(code) + ")";
      break;
    case Kind::badSession:
      message_ = "badSession";
      break;
    case Kind::failedToOpenBatch:
      message_ = "failedToOpenBatch";
      break;
  }
}

HTTPClientErrors HTTPClientErrors::statusCode(int code) {
  return {Kind::statusCode, code};
}
HTTPClientErrors HTTPClientErrors::badSession() {
  return {Kind::badSession, 0};
}
HTTPClientErrors HTTPClientErrors::failedToOpenBatch() {
  return {Kind::failedToOpenBatch, 0};
}

HTTPClient::HTTPClient(std::shared_ptr<Configuration> configuration, std::weak_ptr<LogSink> log,
                       std::optional<std::string> apiKey, std::optional<std::string> apiHost)
    : session_(platform::HttpSession::create(sessionOptions(configuration.get()))),
      log_(std::move(log)) {
  std::optional<std::string> flavor;
  if (configuration) {
    flavor = configuration->values.flavor;
    compressBatches_ = configuration->values.compressBatches;
  }
  if (apiKey) {
    apiKey_ = std::move(*apiKey);
  } else if (configuration) {
    apiKey_ = configuration->values.writeKey;
  }
  // The configuration's own apiHost is deliberately not consulted: the flavor decides.
  apiHost_ = apiHost ? std::move(*apiHost) : std::string(trackingHost(flavor));
}

std::shared_ptr<platform::HttpTask> HTTPClient::startBatchUpload(const std::filesystem::path& batch,
                                                                 HTTPCompletion completion) {
  auto url = platform::httpsURL(apiHost_, "/tracking-controller/b");
  if (!url) {
    if (completion) completion(HTTPResult{HTTPClientErrors::failedToOpenBatch()});
    return nullptr;
  }
  platform::HttpRequest request;
  request.purpose = platform::HttpPurpose::delivery;  // never follows a redirect
  request.method = "POST";
  request.url = std::move(*url);
  request.timeout = requestTimeout;
  request.compressBody = compressBatches_;
  // Captures no reference to this client: a client replaced mid-upload still reports the result.
  auto task = session_->uploadTask(
      std::move(request), batch.string(),
      [log = log_, completion = std::move(completion), line = __LINE__](
          const std::optional<platform::HttpResponse>& response,
          const std::optional<platform::HttpError>& error) {
        handleResponse(response, error, completion, log, batchUploadFunction, line);
      });
  task->resume();
  return task;
}

void HTTPClient::trackingEventPayload(const JSON& identityId, const std::string& eventName,
                                      const JSON& eventData, const std::vector<JSON>& profile,
                                      HTTPCompletion completion) {
  const bool debug = platform::log::debugEnabled();
  if (debug) platform::printLine("trackingEvent Native SDK Payload", LogLevel::debug);
  auto url = platform::httpsURL(apiHost_, "");
  if (!url) {
    if (debug) platform::printLine("--- Error : Pelora SDK isn't initialized ---", LogLevel::error);
    return;
  }

  using namespace std::chrono;
  const std::int64_t now =
      duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  // "event_date" and "eventData" are spelled differently on purpose: the service expects both.
  JSON body(JSON::Map{{"workspace_id", apiKey_},
                      {"identity_id", identityId},
                      {"event_name", eventName},
                      {"event_date", now},
                      {"eventData", eventData},
                      {"profile", JSON(JSON::List(profile))}});

  platform::HttpRequest request;
  request.purpose = platform::HttpPurpose::delivery;  // never follows a redirect
  request.method = "POST";
  request.url = std::move(*url);
  request.timeout = requestTimeout;
  request.headers = {{"Content-Type", "application/json"}};
  request.body = body.toString();
  if (debug) platform::printLine(request.body, LogLevel::debug);

  auto task = session_->dataTask(
      std::move(request), [log = log_, completion = std::move(completion), line = __LINE__](
                              const std::optional<platform::HttpResponse>& response,
                              const std::optional<platform::HttpError>& error) {
        handleResponse(response, error, completion, log, trackingEventFunction, line);
      });
  task->resume();
}

void HTTPClient::cancelAll() {
  session_->cancelAll();
}

void HTTPClient::handleResponse(const std::optional<platform::HttpResponse>& response,
                                const std::optional<platform::HttpError>& error,
                                const HTTPCompletion& completion, const std::weak_ptr<LogSink>& log,
                                std::string_view function, int line) {
  auto report = [&](const std::string& message, LogFilterKind kind) {
    if (auto sink = log.lock()) sink->log(message, kind, function, line);
  };
  auto finish = [&](HTTPResult result) {
    if (completion) completion(result);
  };

  if (error) {
    report("Error uploading request " + error->description + ".", LogFilterKind::error);
    finish(HTTPResult{*error});
    return;
  }
  // Without a response there is nothing to report, and the completion is deliberately not run.
  if (!response) return;

  const int status = response->status;
  const auto kind = platform::statusKind(status);
  if (kind == platform::StatusKind::accepted) {
    finish(HTTPResult{true});
    return;
  }
  report(platform::statusComplaint(status) + ".",
         kind == platform::StatusKind::rejected ? LogFilterKind::error : LogFilterKind::warning);
  finish(HTTPResult{HTTPClientErrors::statusCode(status), platform::retryAfter(*response)});
}

}  // namespace pelora
