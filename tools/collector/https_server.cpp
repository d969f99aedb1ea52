#include "tools/collector/https_server.hpp"

#include <fcntl.h>
#include <httplib.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace pelora::collector {
namespace {

// Server threads leave signals to the test's own threads; a write to a connection the client
// closed must fail with EPIPE rather than raise SIGPIPE.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

// httplib adds these pseudo fields to every request; they never came over the wire.
bool isPseudoField(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (equalsIgnoringCase(field, name)) return value;
  }
  return std::nullopt;
}

std::size_t RecordedRequest::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(headers.begin(), headers.end(), [&](const auto& f) {
    return equalsIgnoringCase(f.first, name);
  }));
}

Certificates Certificates::builtIn() {
#if defined(PELORA_LOCAL_CA_FILE) && defined(PELORA_LOCAL_CERT_FILE) && \
    defined(PELORA_LOCAL_KEY_FILE)
  return {PELORA_LOCAL_CA_FILE, PELORA_LOCAL_CERT_FILE, PELORA_LOCAL_KEY_FILE};
#else
  return {};
#endif
}

Certificates Certificates::inDirectory(const std::string& directory) {
  return {directory + "/ca.pem", directory + "/server.pem", directory + "/server-key.pem"};
}

struct HttpsServer::State {
  // One thread per connection, counted; shutdown() returns once every connection has ended.
  class ConnectionThreads : public httplib::TaskQueue {
   public:
    explicit ConnectionThreads(State& state) : state_(state) {}
    void enqueue(std::function<void()> connection) override {
      {
        std::lock_guard lock(state_.mutex);
        state_.maxConnections = std::max(state_.maxConnections, ++state_.connections);
      }
      std::thread([state = &state_, connection = std::move(connection)]() mutable {
        blockSignals();
        connection();
        connection = nullptr;
        state->connectionEnded();
      }).detach();
    }
    void shutdown() override {
      std::unique_lock lock(state_.mutex);
      state_.changed.wait(lock, [&] { return state_.connections == 0; });
    }

   private:
    State& state_;
  };

  explicit State(Certificates files)
      : certificates(std::move(files)),
        server(certificates.certificateFile.c_str(), certificates.keyFile.c_str()) {}

  void handle(const httplib::Request& request, std::string body, httplib::Response& response);
  void connectionEnded();

  const Certificates certificates;
  httplib::SSLServer server;
  std::thread listener;
  int port = 0;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<RecordedRequest> requests;
  std::map<std::string, std::deque<ScriptedResponse>> scripts;
  ScriptedResponse defaultResponse;
  Responder responder;
  bool keepRequests = true;
  int inFlight = 0;
  int maxInFlight = 0;
  int connections = 0;
  int maxConnections = 0;
  bool stopping = false;
  // Duplicates of the connection sockets by connection thread, so that stop() can end the
  // keep-alive waits of idle connections at once instead of after httplib's timeout.
  std::map<std::thread::id, int> connectionSockets;
  // Bytes read from each connection (by its thread) up to its last request.
  std::map<std::thread::id, std::uint64_t> connectionBytes;
};

void HttpsServer::State::connectionEnded() {
  std::lock_guard lock(mutex);
  auto socket = connectionSockets.find(std::this_thread::get_id());
  if (socket != connectionSockets.end()) {
    ::close(socket->second);
    connectionSockets.erase(socket);
  }
  connectionBytes.erase(std::this_thread::get_id());
  --connections;
  changed.notify_all();
}

void HttpsServer::State::handle(const httplib::Request& request, std::string body,
                                httplib::Response& response) {
  const int socket = request.ssl ? SSL_get_fd(request.ssl) : -1;
  const std::uint64_t bytesRead = request.ssl ? BIO_number_read(SSL_get_rbio(request.ssl)) : 0;
  RecordedRequest record;
  record.method = request.method;
  record.path = request.path;
  record.target = request.target;
  for (const auto& [name, value] : request.headers) {
    if (!isPseudoField(name)) record.headers.emplace_back(name, value);
  }
  record.body = std::move(body);
  record.time = std::chrono::steady_clock::now();

  std::optional<ScriptedResponse> answer;
  Responder ask;
  {
    std::lock_guard lock(mutex);
    if (socket >= 0 && !connectionSockets.count(std::this_thread::get_id())) {
      int copy = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
      if (copy >= 0) connectionSockets.emplace(std::this_thread::get_id(), copy);
    }
    if (stopping && socket >= 0) ::shutdown(socket, SHUT_RDWR);
    auto& before = connectionBytes[std::this_thread::get_id()];
    record.receivedBytes = bytesRead - before;
    before = bytesRead;
    maxInFlight = std::max(maxInFlight, ++inFlight);
    if (keepRequests) requests.push_back(record);
    auto script = scripts.find(request.path);
    if (script != scripts.end() && !script->second.empty()) {
      answer = std::move(script->second.front());
      script->second.pop_front();
    } else {
      ask = responder;
    }
    changed.notify_all();
  }
  struct Done {
    State& state;
    ~Done() {
      std::lock_guard lock(state.mutex);
      --state.inFlight;
      state.changed.notify_all();
    }
  } done{*this};

  if (!answer && ask) answer = ask(record);
  if (!answer) {
    std::lock_guard lock(mutex);
    answer = defaultResponse;
  }
  if (answer->delay.count() > 0) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, answer->delay, [&] { return stopping; });
  }
  if (answer->dropConnection && socket >= 0) {
    ::shutdown(socket, SHUT_RDWR);
    response.status = 500;
    return;
  }
  response.status = answer->status;
  for (const auto& [name, value] : answer->headers) response.set_header(name, value);
  if (answer->streamBytes == 0 || answer->body.empty()) {
    response.set_content(answer->body, answer->contentType);
    return;
  }
  // The pieces go out after this handler returns, on the connection's thread; the state outlives
  // every connection (stop() waits for them).
  auto piece = std::make_shared<const std::string>(std::move(answer->body));
  const std::uint64_t total = answer->streamBytes;
  const auto pause = answer->pieceDelay;
  auto next = [this, piece, total, pause](std::uint64_t offset, httplib::DataSink& sink) {
    if (pause.count() > 0) {
      std::unique_lock lock(mutex);
      if (changed.wait_for(lock, pause, [&] { return stopping; })) return false;
    } else {
      std::lock_guard lock(mutex);
      if (stopping) return false;
    }
    const std::uint64_t size = std::min<std::uint64_t>(piece->size(), total - offset);
    return sink.write(piece->data(), static_cast<std::size_t>(size));
  };
  if (answer->declareLength) {
    response.set_content_provider(static_cast<std::size_t>(total), answer->contentType,
                                  [next](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                    return next(offset, sink);
                                  });
  } else {
    response.set_chunked_content_provider(
        answer->contentType, [next, total](std::size_t offset, httplib::DataSink& sink) {
          if (offset >= total) {
            sink.done();
            return true;
          }
          return next(offset, sink);
        });
  }
}

HttpsServer::HttpsServer(Certificates certificates, int port)
    : state_(std::make_unique<State>(std::move(certificates))) {
  State* state = state_.get();
  httplib::SSLServer& server = state->server;
  if (!server.is_valid()) {
    throw std::runtime_error("HttpsServer: cannot load " + state->certificates.certificateFile +
                             " and " + state->certificates.keyFile);
  }
  server.new_task_queue = [state] { return new State::ConnectionThreads(*state); };
  // Answers go out in more than one write; without this, Nagle's algorithm and the client's
  // delayed acknowledgement hold each answer back ~40 ms.
  server.set_tcp_nodelay(true);
  auto handler = [state](const httplib::Request& request, httplib::Response& response) {
    state->handle(request, request.body, response);
  };
  // Bodies are read here rather than by httplib, which would inflate a compressed one without
  // limit: past kMaxBodyBytes decoded, the connection ends.
  auto withBody = [state](const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader& reader) {
    std::string body;
    const bool whole = reader([&](const char* data, std::size_t size) {
      if (size > kMaxBodyBytes - body.size()) return false;
      body.append(data, size);
      return true;
    });
    if (!whole) {
      response.status = 413;
      response.set_header("Connection", "close");  // the rest of the body is not a request
      return;
    }
    state->handle(request, std::move(body), response);
  };
  // Every path, also one whose decoded form holds a line break (which "." does not match).
  const std::string any = R"([\s\S]*)";
  server.Get(any, handler);
  server.Post(any, withBody);
  server.Put(any, withBody);
  server.Patch(any, withBody);
  server.Delete(any, handler);
  server.Options(any, handler);

  if (port == 0) {
    state->port = server.bind_to_any_port("127.0.0.1");
  } else if (server.bind_to_port("127.0.0.1", port)) {
    state->port = port;
  }
  if (state->port <= 0) {
    throw std::runtime_error("HttpsServer: cannot bind 127.0.0.1" +
                             (port == 0 ? std::string() : ":" + std::to_string(port)));
  }
  state->listener = std::thread([state] {
    blockSignals();
    state->server.listen_after_bind();
  });
  // stop() is lost on a server whose accept loop has not begun yet, so wait for it here; this
  // takes microseconds.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server.is_running()) {
    if (std::chrono::steady_clock::now() > deadline) {
      server.stop();
      state->listener.join();
      throw std::runtime_error("HttpsServer: the accept loop did not start");
    }
    std::this_thread::yield();
  }
}

HttpsServer::~HttpsServer() {
  stop();
}

int HttpsServer::port() const noexcept {
  return state_->port;
}

const Certificates& HttpsServer::certificates() const noexcept {
  return state_->certificates;
}

std::string HttpsServer::connectTo(std::string_view host, int hostPort) const {
  return std::string(host) + ":" + std::to_string(hostPort) +
         ":127.0.0.1:" + std::to_string(state_->port);
}

void HttpsServer::enqueue(const std::string& path, ScriptedResponse response) {
  std::lock_guard lock(state_->mutex);
  state_->scripts[path].push_back(std::move(response));
}

void HttpsServer::setDefaultResponse(ScriptedResponse response) {
  std::lock_guard lock(state_->mutex);
  state_->defaultResponse = std::move(response);
}

void HttpsServer::setResponder(Responder responder) {
  std::lock_guard lock(state_->mutex);
  state_->responder = std::move(responder);
}

void HttpsServer::setKeepRequests(bool keep) {
  std::lock_guard lock(state_->mutex);
  state_->keepRequests = keep;
}

std::vector<RecordedRequest> HttpsServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::size_t HttpsServer::requestCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests.size();
}

bool HttpsServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->requests.size() >= count; });
}

int HttpsServer::maxConcurrentRequests() const {
  std::lock_guard lock(state_->mutex);
  return state_->maxInFlight;
}

int HttpsServer::maxConcurrentConnections() const {
  std::lock_guard lock(state_->mutex);
  return state_->maxConnections;
}

int HttpsServer::openConnections() const {
  std::lock_guard lock(state_->mutex);
  return state_->connections;
}

void HttpsServer::stop() {
  State& state = *state_;
  {
    std::lock_guard lock(state.mutex);
    if (state.stopping) return;
    state.stopping = true;
    state.changed.notify_all();
  }
  state.server.stop();
  {
    std::lock_guard lock(state.mutex);
    for (const auto& [thread, socket] : state.connectionSockets) ::shutdown(socket, SHUT_RDWR);
  }
  if (state.listener.joinable()) state.listener.join();
}

}  // namespace pelora::collector
