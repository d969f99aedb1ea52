#include "pelora/platform/http_session.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <thread>

#include "pelora/core/coding.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/gzip_reader.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/platform/thread_set.hpp"

namespace pelora::platform {
namespace {

using Clock = std::chrono::steady_clock;

// Transfers handed to curl at once; later ones wait, without a curl handle or an open upload file,
// until one ends. A backlog of thousands of uploads then costs a list entry each, and a transfer's
// time-outs start only once it is handed over.
constexpr std::size_t maxAttachedTransfers = 16;

// exit() runs OpenSSL's cleanup (an atexit handler) while worker threads go on, and a worker
// inside curl may be using what it frees. The fence holds the workers that may be inside curl;
// at exit it wakes them and waits (briefly) until each has parked for good. Leaked on purpose.
struct ExitFence {
  std::mutex mutex;
  std::condition_variable changed;
  std::atomic<bool> exiting{false};
  std::set<CURLM*> active;  // guarded by mutex
};

ExitFence& exitFence() {
  static auto* fence = new ExitFence;
  return *fence;
}

// Every worker thread with its session's liveness, so that a host shutting down can wait until
// the workers of the sessions it dropped have really ended.
struct WorkerThreads {
  std::mutex mutex;
  ThreadSet<std::shared_ptr<const std::atomic<bool>>> threads;  // info: the session is alive
};

WorkerThreads& workerThreads() {
  static auto* threads = new WorkerThreads;  // leaked: workers may end during exit()
  return *threads;
}

// The last act of a worker thread, after it let go of its engine.
void workerEnded() {
  auto& workers = workerThreads();
  std::lock_guard lock(workers.mutex);
  workers.threads.finishCurrent();
}

// The multi handle of the worker running on this thread, if any.
thread_local CURLM* currentWorkerMulti = nullptr;

void parkWorkersAtExit() {
  ExitFence& fence = exitFence();
  std::unique_lock lock(fence.mutex);
  fence.exiting = true;
  for (CURLM* multi : fence.active) {
    if (multi != currentWorkerMulti) curl_multi_wakeup(multi);
  }
  // Bounded: a worker stuck in a completion must not hold the exit up.
  fence.changed.wait_for(lock, std::chrono::seconds(1), [&] {
    return fence.active.empty() ||
           (fence.active.size() == 1 && *fence.active.begin() == currentWorkerMulti);
  });
}

// Called by a worker between curl calls: once the process is exiting, never returns.
void parkIfExiting(CURLM* multi) {
  ExitFence& fence = exitFence();
  if (!fence.exiting.load()) return;
  std::unique_lock lock(fence.mutex);
  fence.active.erase(multi);
  fence.changed.notify_all();
  fence.changed.wait(lock, [] { return false; });
}

void initializeLibraries() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Where we are first to set OpenSSL up, it keeps its state for the whole process.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    // Never paired with curl_global_cleanup: workers may run until the process ends.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Registered after OpenSSL's own handler, so it runs before it.
    std::atexit(parkWorkersAtExit);
  });
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

// Owns a curl string (curl_free) or a CURLU handle.
struct CurlString {
  char* text = nullptr;
  ~CurlString() { curl_free(text); }
};
struct CurlURL {
  CURLU* handle = curl_url();
  ~CurlURL() { curl_url_cleanup(handle); }
};

std::optional<std::string> urlText(CURLU* url) {
  CurlString text;
  if (curl_url_get(url, CURLUPART_URL, &text.text, 0) != CURLUE_OK) return std::nullopt;
  return std::string(text.text);
}

// Parses `text` (which must carry its scheme) into `url`; false when curl rejects it.
bool parseURL(CURLU* url, std::string_view text) {
  if (!url || text.find('\0') != std::string_view::npos) return false;
  return curl_url_set(url, CURLUPART_URL, std::string(text).c_str(), 0) == CURLUE_OK;
}

bool hasPart(CURLU* url, CURLUPart part) {
  CurlString value;
  return curl_url_get(url, part, &value.text, 0) == CURLUE_OK;
}

HttpError makeError(HttpError::Code code, std::string_view text, std::string_view detail,
                    int curlCode) {
  HttpError error;
  error.code = code;
  error.description = text;
  if (!detail.empty()) error.description.append(" (").append(detail).append(")");
  error.curlCode = curlCode;
  return error;
}

// Whether the transfer reached a server: then a protocol error is about what the server said.
bool connected(CURL* easy) {
  char* ip = nullptr;
  return curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &ip) == CURLE_OK && ip && *ip;
}

HttpError errorFor(CURLcode code, const char* errorBuffer, bool reachedServer) {
  using Code = HttpError::Code;
  Code kind = Code::other;
  std::string_view text = "The request failed";
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      kind = Code::timedOut;
      text = "The request timed out";
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      kind = Code::cannotFindHost;
      text = "A server with the specified host name could not be found";
      break;
    case CURLE_COULDNT_CONNECT:
      kind = Code::cannotConnect;
      text = "Could not connect to the server";
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      kind = Code::connectionLost;
      text = "The network connection was lost";
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
      kind = Code::tlsFailure;
      text = "A TLS error occurred and a secure connection to the server could not be made";
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
      // After connecting, curl reports a reply without an HTTP status line (HTTP/0.9) this way.
      if (reachedServer) {
        kind = Code::badServerResponse;
        text = "The server's reply was not HTTP";
        break;
      }
      [[fallthrough]];
    case CURLE_URL_MALFORMAT:
      kind = Code::badURL;
      text = "The URL is not a supported http or https URL";
      break;
    case CURLE_WEIRD_SERVER_REPLY:
      kind = Code::badServerResponse;
      text = "The server's reply was not HTTP";
      break;
    case CURLE_READ_ERROR:
    case CURLE_ABORTED_BY_CALLBACK:  // only the file reader aborts
    case CURLE_SEND_FAIL_REWIND:
      kind = Code::fileError;
      text = "The upload file could not be read";
      break;
    default:
      break;
  }
  std::string_view detail = errorBuffer && *errorBuffer ? errorBuffer : curl_easy_strerror(code);
  return makeError(kind, text, detail, static_cast<int>(code));
}

HttpError cancelledError() {
  return makeError(HttpError::Code::cancelled, "cancelled", {}, 0);
}

// What a transfer may receive and follow, by the purpose of its request. Every byte of an answer
// comes from a service that may be hostile or broken: an answer past its limit ends the transfer
// as an error instead of growing in memory, and the user's data never follows a redirect.
struct TransferPolicy {
  std::size_t maxBodyBytes;    // the body as decoded: a small gzip answer may inflate to GiBs
  std::size_t maxHeaderBytes;  // all header lines, of redirects and interim answers too
  long maxRedirects;           // 0: a 3xx answer is the answer
  const char* protocols;       // of the request itself
  const char* redirectProtocols;
  // The URL itself came from the service, so it may not lead to this machine or its network.
  // Redirects never may, whatever the purpose.
  bool publicAddressOnly;
};

constexpr std::size_t KiB = 1024;
constexpr std::size_t MiB = 1024 * KiB;

const TransferPolicy& policyFor(HttpPurpose purpose) noexcept {
  // clang-format off
  // purpose   answer    header    redirects protocols     to         public only
  static constexpr TransferPolicy
      delivery{64 * KiB, 64 * KiB, 0,        "https",      "https",   false},
      pull{    4 * MiB,  64 * KiB, 5,        "https",      "https",   false},
      link{    64 * KiB, 64 * KiB, 5,        "http,https", "https",   true};
  // clang-format on
  switch (purpose) {
    case HttpPurpose::messagePull:
      return pull;
    case HttpPurpose::link:
      return link;
    case HttpPurpose::delivery:
      break;
  }
  return delivery;
}

// Whether `ip` (curl's text of the connected address) is this machine or a private network:
// loopback, RFC 1918, link-local, carrier-grade NAT, "this network", IPv6 unique-local.
bool isLocalAddress(const char* ip) noexcept {
  auto localV4 = [](std::uint32_t a) {
    return (a >> 24) == 127 || (a >> 24) == 10 || (a >> 24) == 0 ||
           (a & 0xFFF00000u) == 0xAC100000u ||  // 172.16/12
           (a & 0xFFFF0000u) == 0xC0A80000u ||  // 192.168/16
           (a & 0xFFFF0000u) == 0xA9FE0000u ||  // 169.254/16
           (a & 0xFFC00000u) == 0x64400000u;    // 100.64/10
  };
  in_addr v4{};
  if (::inet_pton(AF_INET, ip, &v4) == 1) return localV4(ntohl(v4.s_addr));
  in6_addr v6{};
  if (::inet_pton(AF_INET6, ip, &v6) != 1) return false;
  const unsigned char* b = v6.s6_addr;
  if (IN6_IS_ADDR_V4MAPPED(&v6) || IN6_IS_ADDR_V4COMPAT(&v6)) {
    return localV4(std::uint32_t{b[12]} << 24 | std::uint32_t{b[13]} << 16 |
                   std::uint32_t{b[14]} << 8 | b[15]);
  }
  return IN6_IS_ADDR_LOOPBACK(&v6) || IN6_IS_ADDR_UNSPECIFIED(&v6) || (b[0] & 0xFE) == 0xFC ||
         (b[0] == 0xFE && (b[1] & 0xC0) == 0x80);
}

// "host:port" of `url` (the port the scheme implies when none is given); empty when unparsable.
std::string hostAndPort(const char* url) {
  CurlURL parsed;
  CurlString host;
  CurlString port;
  if (!parseURL(parsed.handle, url) ||
      curl_url_get(parsed.handle, CURLUPART_HOST, &host.text, 0) != CURLUE_OK ||
      curl_url_get(parsed.handle, CURLUPART_PORT, &port.text, CURLU_DEFAULT_PORT) != CURLUE_OK) {
    return {};
  }
  return std::string(host.text) + ":" + port.text;
}

HttpError tooLargeError(const TransferPolicy& policy) {
  return makeError(HttpError::Code::responseTooLarge, "The server's answer was too large",
                   "over " + std::to_string(policy.maxBodyBytes) + " bytes of body or " +
                       std::to_string(policy.maxHeaderBytes) + " bytes of header",
                   CURLE_WRITE_ERROR);
}

class Engine;

class Task final : public HttpTask, public std::enable_shared_from_this<Task> {
 public:
  Task(std::shared_ptr<Engine> engine, HttpRequest request, std::optional<std::string> uploadFile,
       HttpCompletion completion)
      : request(std::move(request)),
        uploadFile(std::move(uploadFile)),
        completion(std::move(completion)),
        engine_(std::move(engine)) {}

  void resume() override;
  void cancel() override;
  State state() const noexcept override { return state_.load(std::memory_order_acquire); }

  // Set here before the task is published; afterwards read and cleared by the worker only.
  HttpRequest request;
  std::optional<std::string> uploadFile;
  HttpCompletion completion;
  bool delivered = false;  // worker only: the completion has run

  void markCompleted() noexcept { state_.store(State::completed, std::memory_order_release); }

 private:
  std::shared_ptr<Engine> engine_;
  std::atomic<State> state_{State::suspended};
};

// One running transfer; created, driven and destroyed by the worker thread only.
struct Transfer {
  std::shared_ptr<Task> task;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;                  // POSTFIELDS points here
  int fd = -1;                       // the upload file
  std::unique_ptr<GzipReader> gzip;  // the upload file compressed as it is read, when asked
  const TransferPolicy* policy = &policyFor(HttpPurpose::delivery);
  std::string responseBody;
  std::size_t headerBytes = 0;
  bool tooLarge = false;      // the answer went past the policy's limits
  bool outOfMemory = false;   // the answer could not be kept
  bool refusedLocal = false;  // it led to a local address it may not reach
  // "host:port" pairs the session's connectTo entries reroute: where the host itself chose to go.
  const std::vector<std::string>* reroutedHosts = nullptr;
  // The host's own proxy carries it: the connected address is the proxy's, not the URL's.
  bool viaProxy = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  Clock::duration idleTimeout{};
  // Starts once the connection is ready: connecting has its own limit, and waiting in curl's
  // queue for a free connection is not idleness.
  std::optional<Clock::time_point> lastActivity;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
    if (fd >= 0) ::close(fd);
  }

  void touch() noexcept {
    if (lastActivity) lastActivity = Clock::now();
  }
};

// The callbacks below run inside libcurl, which is C: nothing may be thrown through it. Returning
// less than was handed over ends the transfer (CURLE_WRITE_ERROR).

size_t onWrite(char* data, size_t size, size_t count, void* context) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  const size_t bytes = size * count;
  transfer->touch();
  if (bytes > transfer->policy->maxBodyBytes - transfer->responseBody.size()) {
    transfer->tooLarge = true;
    return 0;
  }
  try {
    transfer->responseBody.append(data, bytes);
  } catch (...) {
    transfer->outOfMemory = true;
    return 0;
  }
  return bytes;
}

size_t onHeader(char*, size_t size, size_t count, void* context) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  const size_t bytes = size * count;
  transfer->touch();
  if (bytes > transfer->policy->maxHeaderBytes - transfer->headerBytes) {
    transfer->tooLarge = true;
    return 0;
  }
  transfer->headerBytes += bytes;
  return bytes;
}

size_t onRead(char* buffer, size_t size, size_t count, void* context) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  if (transfer->gzip) {
    const auto n = transfer->gzip->read(buffer, size * count);
    if (!n) return CURL_READFUNC_ABORT;
    transfer->touch();
    return *n;
  }
  for (;;) {
    ssize_t n = ::read(transfer->fd, buffer, size * count);
    if (n >= 0) {
      transfer->touch();
      return static_cast<size_t>(n);
    }
    if (errno != EINTR) return CURL_READFUNC_ABORT;
  }
}

// curl rewinds the body when it retries on a fresh connection or follows a redirect.
int onSeek(void* context, curl_off_t offset, int origin) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  if (transfer->gzip) {
    // A compressed stream starts again only from its beginning.
    if (offset != 0 || origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
    return transfer->gzip->rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
  }
  return ::lseek(transfer->fd, static_cast<off_t>(offset), origin) < 0 ? CURL_SEEKFUNC_FAIL
                                                                       : CURL_SEEKFUNC_OK;
}

// Whether the host of `url` names this machine or its network by itself: "localhost" or a local
// address written out.
bool namesLocalHost(const char* url) {
  CurlURL parsed;
  CurlString host;
  if (!parseURL(parsed.handle, url) ||
      curl_url_get(parsed.handle, CURLUPART_HOST, &host.text, 0) != CURLUE_OK) {
    return true;
  }
  std::string name = host.text;
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
    name = name.substr(1, name.size() - 2);
  }
  if (name.size() > 1 && name.back() == '.') name.pop_back();  // "localhost." is localhost
  const std::string_view suffix = ".localhost";
  return equalsIgnoringCase(name, "localhost") ||
         (name.size() > suffix.size() &&
          equalsIgnoringCase(std::string_view(name).substr(name.size() - suffix.size()), suffix)) ||
         isLocalAddress(name.c_str());
}

// Connected, nothing sent yet: the last moment to refuse where a service-given URL or a redirect
// has led (to this machine or its network), unless the host itself rerouted that name there. A URL
// that names a local host by itself is refused whatever carries it. Through the host's own proxy
// the connected address is the proxy's (often on the local network) and the proxy resolves the
// name, so there the name alone decides; otherwise the address connected to does. A proxy from the
// environment is libcurl's choice per URL (no_proxy), so its address is checked like any other.
int onConnectionReady(void* context, char* primaryIP, char*, int, int) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  transfer->lastActivity = Clock::now();
  long redirects = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_REDIRECT_COUNT, &redirects);
  if (!transfer->policy->publicAddressOnly && redirects == 0) return CURL_PREREQFUNC_OK;
  try {
    char* url = nullptr;
    if (curl_easy_getinfo(transfer->easy, CURLINFO_EFFECTIVE_URL, &url) == CURLE_OK && url) {
      const std::string target = hostAndPort(url);
      const auto& rerouted = *transfer->reroutedHosts;
      if (std::any_of(rerouted.begin(), rerouted.end(),
                      [&](const std::string& pair) { return equalsIgnoringCase(pair, target); })) {
        return CURL_PREREQFUNC_OK;
      }
      const bool local =
          namesLocalHost(url) || (!transfer->viaProxy && (!primaryIP || isLocalAddress(primaryIP)));
      if (!local) return CURL_PREREQFUNC_OK;
    }
  } catch (...) {
  }
  transfer->refusedLocal = true;
  return CURL_PREREQFUNC_ABORT;
}

struct Message {
  enum class Kind { start, cancel, cancelAll } kind;
  std::shared_ptr<Task> task;  // none for cancelAll
};

class Engine : public std::enable_shared_from_this<Engine> {
 public:
  explicit Engine(HttpSessionOptions options) : options(std::move(options)) {
    for (const auto& entry : this->options.connectTo) {
      connectTo_ = curl_slist_append(connectTo_, entry.c_str());
      if (!connectTo_) throw std::bad_alloc();
      // "HOST:PORT:..." with a host and port named: that pair goes where the host said.
      const auto first = entry.find(':');
      const auto second = first == std::string::npos ? first : entry.find(':', first + 1);
      if (first > 0 && second != std::string::npos && second > first + 1) {
        reroutedHosts_.push_back(entry.substr(0, second));
      }
    }
  }
  ~Engine() { curl_slist_free_all(connectTo_); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const HttpSessionOptions options;

  // Any thread. Starts the worker when none runs.
  void post(Message message) {
    std::lock_guard lock(mutex_);
    inbox_.push_back(std::move(message));
    if (multi_) {
      curl_multi_wakeup(multi_);
      return;
    }
    CURLM* multi = curl_multi_init();
    if (!multi) throw std::bad_alloc();
    if (options.maxConnectionsPerHost > 0) {
      curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                        static_cast<long>(options.maxConnectionsPerHost));
    }
    {
      std::lock_guard fence(exitFence().mutex);
      exitFence().active.insert(multi);
    }
    try {
      auto& workers = workerThreads();
      std::lock_guard registry(workers.mutex);  // the worker's end waits for its entry
      workers.threads.start(
          [self = shared_from_this(), multi]() mutable {
            self->run(multi);
            self.reset();
            workerEnded();
          },
          sessionAliveFlag_);
    } catch (...) {
      {
        std::lock_guard fence(exitFence().mutex);
        exitFence().active.erase(multi);
      }
      curl_multi_cleanup(multi);
      inbox_.pop_back();
      throw;
    }
    multi_ = multi;
  }

  // The session handle is gone: the worker ends once nothing is left to do.
  void sessionGone() {
    std::lock_guard lock(mutex_);
    sessionAlive_ = false;
    sessionAliveFlag_->store(false);
    if (multi_) curl_multi_wakeup(multi_);
  }

 private:
  void run(CURLM* multi);
  void start(CURLM* multi, const std::shared_ptr<Task>& task);
  void attach(CURLM* multi, const std::shared_ptr<Task>& task);
  void attachWaiting(CURLM* multi);
  void cancel(CURLM* multi, const std::shared_ptr<Task>& task);
  void cancelAll(CURLM* multi);
  void handle(CURLM* multi, const Message& message);
  void collectFinished(CURLM* multi);
  void finish(Transfer& transfer, CURLcode result);
  // A task whose handling failed for want of memory: completes it with an error if it can.
  void failUnreported(CURLM* multi, const std::shared_ptr<Task>& task) noexcept;
  void expireIdle(CURLM* multi);
  int waitMilliseconds() const;
  std::unique_ptr<Transfer> makeTransfer(const std::shared_ptr<Task>& task,
                                         std::optional<HttpError>& error);
  std::vector<std::string> headerLines(const HttpRequest& request, bool hasBody) const;
  void setTransport(CURL* easy, Transfer& transfer, std::chrono::milliseconds idle) const;
  void deliver(const std::shared_ptr<Task>& task, const std::optional<HttpResponse>& response,
               const std::optional<HttpError>& error);
  std::unique_ptr<Transfer> detach(CURLM* multi, CURL* easy);

  curl_slist* connectTo_ = nullptr;
  std::vector<std::string> reroutedHosts_;  // "host:port" of the connectTo entries

  std::mutex mutex_;
  std::vector<Message> inbox_;  // guarded by mutex_
  bool sessionAlive_ = true;    // guarded by mutex_
  // The same, for the worker registry, which may outlive this engine.
  const std::shared_ptr<std::atomic<bool>> sessionAliveFlag_ =
      std::make_shared<std::atomic<bool>>(true);
  CURLM* multi_ = nullptr;  // guarded by mutex_; set while a worker runs

  std::map<CURL*, std::unique_ptr<Transfer>> transfers_;  // worker only
  std::deque<std::shared_ptr<Task>> waiting_;             // worker only, in start order
};

void Task::resume() {
  State expected = State::suspended;
  if (state_.compare_exchange_strong(expected, State::running, std::memory_order_acq_rel)) {
    engine_->post({Message::Kind::start, shared_from_this()});
  }
}

void Task::cancel() {
  State current = state_.load(std::memory_order_acquire);
  while (current == State::suspended || current == State::running) {
    if (state_.compare_exchange_weak(current, State::canceling, std::memory_order_acq_rel)) {
      engine_->post({Message::Kind::cancel, shared_from_this()});
      return;
    }
  }
}

void Engine::run(CURLM* multi) {
  // Host signal handlers belong on host threads; and a write to a connection the peer closed
  // must not raise SIGPIPE for the whole process.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  pthread_setname_np(pthread_self(), "pelora-http");
  currentWorkerMulti = multi;

  std::vector<Message> messages;
  for (;;) {
    parkIfExiting(multi);
    {
      std::lock_guard lock(mutex_);
      messages.swap(inbox_);
      if (messages.empty() && transfers_.empty() && waiting_.empty() && !sessionAlive_) {
        multi_ = nullptr;  // a later resume starts a fresh worker
        break;
      }
    }
    bool attachedMore = false;
    // Nothing may leave this thread as an exception (that would end the process). What fails for
    // want of memory fails the one task it belongs to, which hears of it: a task lost in silence
    // would hold its owner up for ever.
    for (const auto& message : messages) {
      try {
        handle(multi, message);
      } catch (const std::exception&) {
        if (message.task) failUnreported(multi, message.task);
      }
    }
    messages.clear();
    try {
      int running = 0;
      curl_multi_perform(multi, &running);
      collectFinished(multi);
      expireIdle(multi);
      if (!waiting_.empty() && transfers_.size() < maxAttachedTransfers) {
        attachWaiting(multi);
        attachedMore = true;
      }
    } catch (const std::exception& failure) {
      printLine(std::string("pelora: the HTTP worker ran out of resources: ") + failure.what(),
                LogLevel::error);
    }
    if (attachedMore) continue;  // lets curl start the newly attached transfers before waiting
    {
      // The session may have gone while this round ran (its wakeup spent on the round): then
      // there is nothing to wait for, and the worker must end now rather than after a long poll.
      std::lock_guard lock(mutex_);
      if (!sessionAlive_ && inbox_.empty() && transfers_.empty() && waiting_.empty()) continue;
    }
    curl_multi_poll(multi, nullptr, 0, waitMilliseconds(), nullptr);
  }
  {
    std::lock_guard lock(exitFence().mutex);
    exitFence().active.erase(multi);
    exitFence().changed.notify_all();
  }
  currentWorkerMulti = nullptr;
  // Closes the cached connections.
  curl_multi_cleanup(multi);
}

void Engine::handle(CURLM* multi, const Message& message) {
  switch (message.kind) {
    case Message::Kind::start:
      start(multi, message.task);
      break;
    case Message::Kind::cancel:
      cancel(multi, message.task);
      break;
    case Message::Kind::cancelAll:
      cancelAll(multi);
      break;
  }
}

void Engine::start(CURLM* multi, const std::shared_ptr<Task>& task) {
  if (task->delivered) return;
  if (task->state() == HttpTask::State::canceling) {
    deliver(task, std::nullopt, cancelledError());
    return;
  }
  waiting_.push_back(task);
  attachWaiting(multi);
}

void Engine::attachWaiting(CURLM* multi) {
  while (!waiting_.empty() && transfers_.size() < maxAttachedTransfers) {
    auto task = std::move(waiting_.front());
    waiting_.pop_front();
    attach(multi, task);
  }
}

void Engine::attach(CURLM* multi, const std::shared_ptr<Task>& task) {
  if (task->delivered) return;
  if (task->state() == HttpTask::State::canceling) {  // cancelled while it waited
    deliver(task, std::nullopt, cancelledError());
    return;
  }
  std::optional<HttpError> error;
  std::unique_ptr<Transfer> transfer;
  try {
    transfer = makeTransfer(task, error);
  } catch (const std::exception& failure) {
    error =
        makeError(HttpError::Code::other, "The request could not be created", failure.what(), 0);
  }
  if (!transfer) {
    deliver(task, std::nullopt, error);
    return;
  }
  CURL* easy = transfer->easy;
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    deliver(task, std::nullopt,
            makeError(HttpError::Code::other, "The request could not be started", {}, 0));
    return;
  }
  transfers_.emplace(easy, std::move(transfer));
}

void Engine::cancel(CURLM* multi, const std::shared_ptr<Task>& task) {
  if (task->delivered) return;
  auto waiting = std::find(waiting_.begin(), waiting_.end(), task);
  if (waiting != waiting_.end()) waiting_.erase(waiting);
  for (auto& [easy, transfer] : transfers_) {
    if (transfer->task == task) {
      auto removed = detach(multi, easy);
      break;
    }
  }
  deliver(task, std::nullopt, cancelledError());
}

void Engine::cancelAll(CURLM* multi) {
  std::vector<std::shared_ptr<Task>> tasks(waiting_.begin(), waiting_.end());
  for (const auto& [easy, transfer] : transfers_) tasks.push_back(transfer->task);
  for (const auto& task : tasks) cancel(multi, task);
}

std::unique_ptr<Transfer> Engine::detach(CURLM* multi, CURL* easy) {
  auto node = transfers_.extract(easy);
  curl_multi_remove_handle(multi, easy);
  return std::move(node.mapped());
}

void Engine::collectFinished(CURLM* multi) {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    // The message does not survive removing its handle.
    CURL* easy = message->easy_handle;
    CURLcode result = message->data.result;
    auto transfer = detach(multi, easy);
    if (!transfer) continue;
    try {
      finish(*transfer, result);
    } catch (const std::exception&) {
      failUnreported(multi, transfer->task);
    }
  }
}

// Tells the task of a finished transfer how it went: its answer, or why there is none.
void Engine::finish(Transfer& transfer, CURLcode result) {
  const std::shared_ptr<Task>& task = transfer.task;
  if (transfer.refusedLocal) {
    deliver(task, std::nullopt,
            makeError(HttpError::Code::cannotConnect,
                      "The address is on this machine or its network, where a service-given "
                      "link or a redirect may not lead",
                      {}, CURLE_ABORTED_BY_CALLBACK));
  } else if (transfer.tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
    deliver(task, std::nullopt, tooLargeError(*transfer.policy));
  } else if (transfer.outOfMemory) {
    deliver(task, std::nullopt,
            makeError(HttpError::Code::other, "The server's answer could not be kept",
                      "out of memory", CURLE_WRITE_ERROR));
  } else if (result != CURLE_OK) {
    deliver(task, std::nullopt, errorFor(result, transfer.errorBuffer, connected(transfer.easy)));
  } else {
    HttpResponse response;
    long status = 0;
    curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
    response.status = static_cast<int>(status);
    curl_header* previous = nullptr;
    while (curl_header* header = curl_easy_nextheader(transfer.easy, CURLH_HEADER, -1, previous)) {
      response.headers.emplace_back(header->name, header->value);
      previous = header;
    }
    response.body = std::move(transfer.responseBody);
    deliver(task, response, std::nullopt);
  }
}

void Engine::expireIdle(CURLM* multi) {
  const auto now = Clock::now();
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    const Transfer& transfer = *it->second;
    CURL* easy = it->first;
    ++it;  // detach() removes the entry
    if (!transfer.lastActivity || now - *transfer.lastActivity < transfer.idleTimeout) continue;
    auto expired = detach(multi, easy);
    try {
      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(expired->idleTimeout);
      deliver(
          expired->task, std::nullopt,
          makeError(HttpError::Code::timedOut, "The request timed out",
                    "no data for " + std::to_string(ms.count()) + " ms", CURLE_OPERATION_TIMEDOUT));
    } catch (const std::exception&) {
      failUnreported(multi, expired->task);
    }
  }
}

void Engine::failUnreported(CURLM* multi, const std::shared_ptr<Task>& task) noexcept {
  if (task->delivered) return;
  try {
    // Still handed to curl or waiting for it: it goes now, or it would be finished a second time.
    for (auto& [easy, transfer] : transfers_) {
      if (transfer->task == task) {
        detach(multi, easy);
        break;
      }
    }
    std::erase(waiting_, task);
    deliver(task, std::nullopt, makeError(HttpError::Code::other, "out of memory", {}, 0));
  } catch (...) {
    // Not even the error could be made: the task ends, its completion released unrun.
    task->delivered = true;
    task->completion = nullptr;
    task->markCompleted();
  }
}

int Engine::waitMilliseconds() const {
  // curl_multi_poll shortens this to curl's own next timer; wakeups end it early.
  auto wait = std::chrono::milliseconds(60000);
  auto now = Clock::now();
  for (const auto& [easy, transfer] : transfers_) {
    if (!transfer->lastActivity) continue;
    auto left = *transfer->lastActivity + transfer->idleTimeout - now;
    auto leftMs = std::chrono::ceil<std::chrono::milliseconds>(left);
    wait = std::min(wait, std::max(leftMs, std::chrono::milliseconds(0)));
  }
  return static_cast<int>(wait.count());
}

void Engine::deliver(const std::shared_ptr<Task>& task, const std::optional<HttpResponse>& response,
                     const std::optional<HttpError>& error) {
  task->delivered = true;
  HttpCompletion completion = std::move(task->completion);
  task->completion = nullptr;
  task->request = HttpRequest();
  task->markCompleted();
  if (!completion) return;
  try {
    completion(response, error);
  } catch (const std::exception& failure) {
    printLine(std::string("pelora: an HTTP completion threw: ") + failure.what(), LogLevel::error);
  } catch (...) {
    printLine("pelora: an HTTP completion threw", LogLevel::error);
  }
}

std::string headerLine(const std::string& name, const std::string& value) {
  // "Name;" is how curl sends a field with an empty value ("Name:" would remove it).
  return value.empty() ? name + ";" : name + ": " + value;
}

bool sendsBody(const HttpRequest& request, bool upload) {
  return upload || !request.body.empty() || request.method == "POST" || request.method == "PUT" ||
         request.method == "PATCH";
}

// The upload file, opened for the transfer to stream; its size, or nothing (with `error` set).
std::optional<curl_off_t> openUploadFile(Transfer& transfer, const std::string& path,
                                         std::optional<HttpError>& error) {
  // Only a regular file of the user's, never through a link: the same rule as for writing one.
  transfer.fd = openOwnFile(path, O_RDONLY).release();
  struct stat info {};
  if (transfer.fd < 0 || ::fstat(transfer.fd, &info) != 0) {
    error = makeError(HttpError::Code::fileError, "The upload file could not be read", path, 0);
    return std::nullopt;
  }
  return static_cast<curl_off_t>(info.st_size);
}

// The header lines to send: the session's fields, replaced by the request's own of the same name.
std::vector<std::string> Engine::headerLines(const HttpRequest& request, bool hasBody) const {
  HttpHeaders fields = options.headers;
  for (const auto& field : request.headers) {
    auto same = std::find_if(fields.begin(), fields.end(), [&](const auto& existing) {
      return equalsIgnoringCase(existing.first, field.first);
    });
    if (same != fields.end()) {
      same->second = field.second;
    } else {
      fields.push_back(field);
    }
  }
  auto hasField = [&](std::string_view name) {
    return std::any_of(fields.begin(), fields.end(),
                       [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
  };
  if (hasBody && !hasField("Content-Type")) {
    fields.emplace_back("Content-Type", "application/octet-stream");
  }
  std::vector<std::string> lines;
  for (const auto& [name, value] : fields) {
    // A line break inside a field would smuggle another field or request.
    if ((name + value).find_first_of("\r\n") != std::string::npos) continue;
    lines.push_back(headerLine(name, value));
  }
  if (hasBody && !hasField("Expect")) {
    // Without this, curl holds bodies over 1 MiB for up to a second waiting for 100-continue.
    lines.push_back("Expect:");
  }
  return lines;
}

// What a transfer may receive and where it may go, from its purpose's policy.
void applyPolicy(CURL* easy, const TransferPolicy& policy) {
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, policy.protocols);
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, policy.redirectProtocols);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, policy.maxRedirects > 0 ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, policy.maxRedirects);
  // Answers may come compressed; the body limit counts the bytes as decoded.
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(policy.maxBodyBytes));
}

// Where and how the transfer connects, its time limits and the callbacks that see its bytes.
void Engine::setTransport(CURL* easy, Transfer& transfer, std::chrono::milliseconds idle) const {
  Transfer* context = &transfer;
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, context);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, context);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, context);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, onConnectionReady);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, context);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(idle.count()));
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(options.resourceTimeout.count()));
  if (connectTo_) curl_easy_setopt(easy, CURLOPT_CONNECT_TO, connectTo_);
  if (!options.caBundle.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, options.caBundle.c_str());
  if (!options.proxy.empty()) {
    curl_easy_setopt(easy, CURLOPT_PROXY, options.proxy.c_str());
    // Every request, whatever no_proxy in the environment says: the address checks count on it.
    curl_easy_setopt(easy, CURLOPT_NOPROXY, "");
  }
}

// The method and the body: a file streamed with its size, a body in memory, or none.
void applyMethod(CURL* easy, Transfer& transfer, HttpRequest& request,
                 std::optional<curl_off_t> uploadSize, bool hasBody) {
  Transfer* context = &transfer;
  const std::string method = request.method.empty() ? "GET" : request.method;
  if (uploadSize) {
    // POST read from the file as curl sends it: with a Content-Length, or in chunks when
    // compressed (-1: the size is not known ahead).
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, onRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, context);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, onSeek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, context);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     transfer.gzip ? curl_off_t{-1} : *uploadSize);
  } else if (hasBody) {
    transfer.body = std::move(request.body);
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(transfer.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer.body.data());
  } else if (method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  }
  if (method != "GET" && method != "HEAD" && !(hasBody && method == "POST")) {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
}

std::unique_ptr<Transfer> Engine::makeTransfer(const std::shared_ptr<Task>& task,
                                               std::optional<HttpError>& error) {
  auto transfer = std::make_unique<Transfer>();
  transfer->task = task;
  HttpRequest& request = task->request;
  transfer->policy = &policyFor(request.purpose);
  transfer->reroutedHosts = &reroutedHosts_;
  transfer->viaProxy = !options.proxy.empty();
  transfer->easy = curl_easy_init();
  if (!transfer->easy) {
    error = makeError(HttpError::Code::other, "The request could not be created", {}, 0);
    return nullptr;
  }
  CURL* easy = transfer->easy;

  std::optional<curl_off_t> uploadSize;
  if (task->uploadFile) {
    uploadSize = openUploadFile(*transfer, *task->uploadFile, error);
    if (!uploadSize) return nullptr;
    if (request.compressBody) {
      transfer->gzip = std::make_unique<GzipReader>(transfer->fd);
      request.headers.emplace_back("Content-Encoding", "gzip");
    }
  }
  const bool hasBody = sendsBody(request, uploadSize.has_value());
  for (const auto& line : headerLines(request, hasBody)) {
    curl_slist* list = curl_slist_append(transfer->headers, line.c_str());
    if (!list) {
      error = makeError(HttpError::Code::other, "The request could not be created", {}, 0);
      return nullptr;
    }
    transfer->headers = list;
  }
  const auto idle = request.timeout.value_or(options.requestTimeout);
  transfer->idleTimeout = idle;

  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
  applyPolicy(easy, *transfer->policy);
  setTransport(easy, *transfer, idle);
  applyMethod(easy, *transfer, request, uploadSize, hasBody);
  return transfer;
}

class Session final : public HttpSession {
 public:
  explicit Session(HttpSessionOptions options)
      : engine_(std::make_shared<Engine>(std::move(options))) {}
  ~Session() override { engine_->sessionGone(); }

  const HttpSessionOptions& options() const noexcept override { return engine_->options; }

  std::shared_ptr<HttpTask> dataTask(HttpRequest request, HttpCompletion completion) override {
    return std::make_shared<Task>(engine_, std::move(request), std::nullopt, std::move(completion));
  }

  std::shared_ptr<HttpTask> uploadTask(HttpRequest request, std::string filePath,
                                       HttpCompletion completion) override {
    return std::make_shared<Task>(engine_, std::move(request), std::move(filePath),
                                  std::move(completion));
  }

  void cancelAll() override { engine_->post({Message::Kind::cancelAll, nullptr}); }

 private:
  std::shared_ptr<Engine> engine_;
};

}  // namespace

bool waitForEndedSessions(std::chrono::steady_clock::time_point deadline) {
  auto& workers = workerThreads();
  std::unique_lock lock(workers.mutex);
  auto noneEnding = [&] {
    return !workers.threads.anyRunning([](const auto& alive) { return !alive->load(); });
  };
  // A session may go while we wait: look again now and then, not only when a worker ends.
  return workers.threads.waitUntil(lock, deadline, noneEnding, std::chrono::milliseconds(20));
}

std::optional<std::string> HttpResponse::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (equalsIgnoringCase(field, name)) return value;
  }
  return std::nullopt;
}

std::shared_ptr<HttpSession> HttpSession::create(HttpSessionOptions options) {
  initializeLibraries();
  return std::make_shared<Session>(std::move(options));
}

std::optional<std::string> normalizedURL(std::string_view text) {
  initializeLibraries();
  CurlURL url;
  if (!parseURL(url.handle, text)) return std::nullopt;
  CurlString scheme;
  if (curl_url_get(url.handle, CURLUPART_SCHEME, &scheme.text, 0) != CURLUE_OK) return std::nullopt;
  std::string_view name = scheme.text;
  if (name != "http" && name != "https") return std::nullopt;
  return urlText(url.handle);
}

std::optional<std::string> proxyURL(std::string_view text) {
  initializeLibraries();
  CurlURL url;
  CurlString scheme;
  CurlString path;
  if (!url.handle || text.find('\0') != std::string_view::npos ||
      curl_url_set(url.handle, CURLUPART_URL, std::string(text).c_str(),
                   CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
      curl_url_get(url.handle, CURLUPART_SCHEME, &scheme.text, 0) != CURLUE_OK ||
      curl_url_get(url.handle, CURLUPART_PATH, &path.text, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  const std::string_view name = scheme.text;
  const bool known = name == "http" || name == "https" || name == "socks4" || name == "socks4a" ||
                     name == "socks5" || name == "socks5h";
  if (!known || !hasPart(url.handle, CURLUPART_HOST) || std::string_view(path.text) != "/" ||
      hasPart(url.handle, CURLUPART_QUERY) || hasPart(url.handle, CURLUPART_FRAGMENT)) {
    return std::nullopt;
  }
  return urlText(url.handle);
}

bool isAbsoluteURL(std::string_view text) {
  initializeLibraries();
  CurlURL url;
  return url.handle && text.find('\0') == std::string_view::npos &&
         curl_url_set(url.handle, CURLUPART_URL, std::string(text).c_str(),
                      CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
}

std::optional<std::string> httpsURL(std::string_view host, std::string_view path) {
  initializeLibraries();
  if (host.empty()) return std::nullopt;
  CurlURL url;
  if (!parseURL(url.handle, "https://" + std::string(host))) return std::nullopt;
  // The host text must be a host (and port) only, nothing that moves it into another part.
  CurlString parsedPath;
  if (hasPart(url.handle, CURLUPART_USER) || hasPart(url.handle, CURLUPART_QUERY) ||
      hasPart(url.handle, CURLUPART_FRAGMENT) ||
      curl_url_get(url.handle, CURLUPART_PATH, &parsedPath.text, 0) != CURLUE_OK ||
      std::string_view(parsedPath.text) != "/") {
    return std::nullopt;
  }
  if (!path.empty()) {
    if (path.find('\0') != std::string_view::npos) return std::nullopt;
    if (curl_url_set(url.handle, CURLUPART_PATH, std::string(path).c_str(), 0) != CURLUE_OK) {
      return std::nullopt;
    }
  }
  return urlText(url.handle);
}

std::string percentEncoded(std::string_view text) {
  initializeLibraries();
  if (text.size() > static_cast<size_t>(INT_MAX)) throw std::length_error("text too long");
  CurlString escaped{curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()))};
  if (!escaped.text) throw std::bad_alloc();
  return escaped.text;
}

std::optional<std::chrono::seconds> retryAfter(const HttpResponse& response,
                                               std::chrono::system_clock::time_point now) {
  const auto value = response.header("Retry-After");
  if (!value) return std::nullopt;
  const auto first = value->find_first_not_of(" \t");
  const auto last = value->find_last_not_of(" \t");
  if (first == std::string::npos) return std::nullopt;
  const std::string_view text = std::string_view(*value).substr(first, last - first + 1);
  std::int64_t seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error == std::errc() && end == text.data() + text.size()) {
    return std::chrono::seconds(std::max<std::int64_t>(seconds, 0));
  }
  if (error == std::errc::result_out_of_range) return std::chrono::seconds::max();
  initializeLibraries();
  const time_t date = curl_getdate(std::string(text).c_str(), nullptr);
  if (date < 0) return std::nullopt;
  const auto wait = std::chrono::system_clock::from_time_t(date) - now;
  return std::chrono::duration_cast<std::chrono::seconds>(
      std::max(wait, std::chrono::system_clock::duration::zero()));
}

std::string cURL(const HttpRequest& request, bool pretty) {
  const std::string_view next = pretty ? "\\\n" : "";
  std::string out = "curl ";
  out.append(pretty ? "--request " : "-X ");
  out.append(request.method.empty() ? "POST" : request.method).append(" ").append(next);
  if (pretty) out.append("--url ");
  out.append("'").append(request.url).append("' ").append(next);
  for (const auto& [name, value] : request.headers) {
    out.append(pretty ? "--header " : "-H ");
    out.append("'").append(name).append(": ").append(value).append("' ").append(next);
  }
  if (!request.body.empty() && isValidUTF8(request.body)) {
    out.append("--data '").append(request.body).append("'");
  }
  return out;
}

}  // namespace pelora::platform
