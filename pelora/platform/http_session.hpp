// HTTP session: HTTPS requests on one worker thread per session (the only code that knows libcurl).
// Any thread creates, resumes and cancels tasks; completions run on the session's worker thread.
// The session owns its connections; in-flight tasks finish even after the last session handle goes.
#pragma once

#include "pelora/core/export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelora::platform {

// Header fields in order; names compare case-insensitively.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct PELORA_API HttpSessionOptions {
  // Idle limit: a transfer fails when no byte moves for this long (also bounds connecting).
  std::chrono::milliseconds requestTimeout{std::chrono::seconds(60)};
  // Limit on a whole transfer, queueing for a connection included.
  std::chrono::milliseconds resourceTimeout{std::chrono::seconds(30)};
  // Connections open at once to one host; 0 means unlimited. Extra transfers wait their turn.
  int maxConnectionsPerHost = 0;
  // Sent with every request; a request's own field of the same name wins.
  HttpHeaders headers;
  // "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT" reroutes (the URL and TLS name stay the same).
  std::vector<std::string> connectTo;
  // PEM file of the certificate authorities to trust; empty means the system's.
  std::string caBundle;
  // Every request goes through this proxy ("http://host:port", or a scheme libcurl knows), no_proxy
  // notwithstanding. Empty: the environment's https_proxy, http_proxy, all_proxy and no_proxy, as
  // libcurl reads them.
  std::string proxy;
  // Kept for compatibility; no effect: sessions never keep cookies, a cache or credentials
  // between runs, whatever it says.
  bool ephemeral = true;
};

// What a request is for. It alone decides what the answer may be: how large, whether a redirect is
// followed, and over which protocols (the table in http_session.cpp).
enum class HttpPurpose {
  // The user's data to the tracking service (a batch, a tracking event): https only, no redirect
  // (a 3xx is the answer), an answer of a few KiB.
  delivery,
  // A long poll for in-app messages: https only, https redirects only, an answer of a few MiB.
  messagePull,
  // A GET of a link the service handed out (a message's open notification): http or https,
  // https redirects only, an answer of a few KiB.
  link,
};

struct PELORA_API HttpRequest {
  HttpPurpose purpose = HttpPurpose::delivery;
  std::string method = "GET";
  std::string url;  // absolute
  HttpHeaders headers;
  std::string body;  // ignored by upload tasks, which send their file
  // Upload tasks only: the file goes gzip-compressed as it is read ("Content-Encoding: gzip", in
  // chunks, since its compressed length is known only at the end).
  bool compressBody = false;
  // Idle limit for this request; the session's requestTimeout when absent.
  std::optional<std::chrono::milliseconds> timeout;
};

struct PELORA_API HttpResponse {
  int status = 0;
  HttpHeaders headers;  // of the final response, in arrival order
  std::string body;

  // The first field named `name` (any letter case).
  std::optional<std::string> header(std::string_view name) const;
};

struct PELORA_API HttpError {
  enum class Code {
    cancelled,
    timedOut,
    cannotFindHost,
    cannotConnect,
    connectionLost,  // the connection broke or closed before a whole response arrived
    tlsFailure,
    badURL,
    badServerResponse,  // something answered, but not with HTTP
    fileError,          // the upload file could not be read
    responseTooLarge,   // the answer (decoded) or its header went past what the purpose allows
    other,
  };
  Code code = Code::other;
  std::string description;  // one human-readable sentence without a final period
  int curlCode = 0;         // libcurl's CURLcode; 0 when the failure did not come from libcurl
};

// Exactly one of the two is set.
using HttpCompletion =
    std::function<void(const std::optional<HttpResponse>&, const std::optional<HttpError>&)>;

class PELORA_API HttpTask {
 public:
  enum class State { running, suspended, canceling, completed };

  virtual ~HttpTask() = default;
  HttpTask(const HttpTask&) = delete;
  HttpTask& operator=(const HttpTask&) = delete;

  // Starts a suspended task; does nothing otherwise.
  virtual void resume() = 0;
  // Completes the task with HttpError::Code::cancelled unless it has already completed.
  virtual void cancel() = 0;
  // `completed` once the completion has been called (or is being called).
  virtual State state() const noexcept = 0;

 protected:
  HttpTask() = default;
};

class PELORA_API HttpSession {
 public:
  static std::shared_ptr<HttpSession> create(HttpSessionOptions options = {});

  virtual ~HttpSession() = default;
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  virtual const HttpSessionOptions& options() const noexcept = 0;
  // A suspended task sending `request` with its body.
  virtual std::shared_ptr<HttpTask> dataTask(HttpRequest request, HttpCompletion completion) = 0;
  // A suspended task sending the file at `filePath` as the body, streamed with a Content-Length.
  virtual std::shared_ptr<HttpTask> uploadTask(HttpRequest request, std::string filePath,
                                               HttpCompletion completion) = 0;
  // Cancels every task of this session that has not completed (each completes with cancelled);
  // later tasks run as usual. For an owner shutting down, so that no transfer outlives it.
  virtual void cancelAll() = 0;

 protected:
  HttpSession() = default;
};

// Parses and normalises an absolute http(s) URL; nothing when it is not one.
PELORA_API std::optional<std::string> normalizedURL(std::string_view text);
// Normalises a proxy URL: http, https, socks4, socks4a, socks5 or socks5h, a host (a user and port
// allowed), no path, query or fragment; nothing when it is not one.
PELORA_API std::optional<std::string> proxyURL(std::string_view text);
// Whether `text` is an absolute URL of any scheme ("pelora://exit", "mailto:a@b").
PELORA_API bool isAbsoluteURL(std::string_view text);
// "https://" + host (may carry ":port") + path, normalised; nothing when the host or path is
// malformed or the host is empty.
PELORA_API std::optional<std::string> httpsURL(std::string_view host, std::string_view path);
// Percent-encodes every byte except unreserved ones (A-Z a-z 0-9 - . _ ~), for one URL component.
PELORA_API std::string percentEncoded(std::string_view text);
// The wait that a "Retry-After" header asks for, as delta seconds or an HTTP date (then counted
// from `now`); nothing when the header is absent or unreadable. Never negative.
PELORA_API std::optional<std::chrono::seconds> retryAfter(
    const HttpResponse& response,
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now());

// Waits until the worker threads of every dropped session have ended (their transfers done), or
// `deadline`; true when none is left. Workers of sessions still held keep running.
PELORA_API bool waitForEndedSessions(std::chrono::steady_clock::time_point deadline);

// `request` as a curl command line: pretty puts one option per line, compact keeps one line.
PELORA_API std::string cURL(const HttpRequest& request, bool pretty);

}  // namespace pelora::platform
