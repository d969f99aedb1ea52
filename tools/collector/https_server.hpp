// HttpsServer: an HTTPS server on 127.0.0.1 for tests and the local collector. It records
// every request and answers from per-path scripts. Handlers run on the server's own connection
// threads; every public call is thread-safe. Owns its socket and threads; stop() joins them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelora::collector {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
  std::string method;
  std::string path;    // without the query
  std::string target;  // as sent: path and query
  Headers headers{};
  std::string body{};  // decoded when it came compressed ("Content-Encoding: gzip")
  // Bytes read from the connection for this request: since the previous request on it, TLS
  // records and header included (and the handshake, for a connection's first request).
  std::uint64_t receivedBytes = 0;
  std::chrono::steady_clock::time_point time;  // when the whole request had arrived

  // The first field named `name` (any letter case).
  std::optional<std::string> header(std::string_view name) const;
  std::size_t headerCount(std::string_view name) const;
};

struct ScriptedResponse {
  int status = 200;
  std::string body{};
  std::string contentType = "application/json";
  Headers headers{};
  std::chrono::milliseconds delay{0};  // before answering; cut short when the server stops
  bool dropConnection = false;         // close the connection instead of answering
  // A streamed answer instead: `body` sent as one piece after another until `streamBytes` have
  // gone (kEndless: until the client gives up), waiting `pieceDelay` before each piece. Chunked,
  // or with a Content-Length of `streamBytes` when `declareLength`. For huge, endless and
  // dripping answers.
  std::uint64_t streamBytes = 0;
  std::chrono::milliseconds pieceDelay{0};
  bool declareLength = false;
  static constexpr std::uint64_t kEndless = ~std::uint64_t{0};
};

// PEM files: the authority clients trust, and the server's certificate and key.
struct Certificates {
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;

  // Generated at build time; the certificate names localhost, 127.0.0.1 and the service hosts.
  static Certificates builtIn();
  // ca.pem, server.pem and server-key.pem in `directory`.
  static Certificates inDirectory(const std::string& directory);
};

class HttpsServer {
 public:
  // A request body past this many bytes (as decoded) is answered 413 and its connection closed,
  // the rest of it unread.
  static constexpr std::size_t kMaxBodyBytes = 64u << 20;

  // Consulted for a request whose path has no scripted answer left; nothing means the default.
  using Responder = std::function<std::optional<ScriptedResponse>(const RecordedRequest&)>;

  // Listening on 127.0.0.1:`port` (0: a free port) when it returns; throws std::runtime_error
  // otherwise.
  explicit HttpsServer(Certificates certificates = Certificates::builtIn(), int port = 0);
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  int port() const noexcept;
  const Certificates& certificates() const noexcept;
  // A connect-to entry sending `host`:`hostPort` here, e.g. "tracking.pelora.io:443:127.0.0.1:N".
  std::string connectTo(std::string_view host, int hostPort = 443) const;

  // Answers the next request for `path` (without the query) with `response`; answers queue up.
  void enqueue(const std::string& path, ScriptedResponse response);
  // The answer when nothing is scripted; 200 with an empty body at first.
  void setDefaultResponse(ScriptedResponse response);
  void setResponder(Responder responder);
  // Whether requests() keeps every request (the default); a long-running server turns it off.
  void setKeepRequests(bool keep);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  // True once at least `count` requests have arrived; false when `timeout` passes first.
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  // Highest numbers seen at once: requests being answered, and open connections.
  int maxConcurrentRequests() const;
  int maxConcurrentConnections() const;
  int openConnections() const;

  // Stops listening, cuts delays short, closes kept-alive connections and joins every thread.
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace pelora::collector
