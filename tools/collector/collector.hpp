// Collector: the tracking service's two endpoints on a local HTTPS server (127.0.0.1 only), for
// the demo and the integration tests. A batch upload ("/tracking-controller/b") or a tracking-event
// post ("/") of the shape the library sends is answered 200 and kept; anything else is answered
// 400 and dropped. While told to fail, every request is answered with the given status and nothing
// is kept. Accepted events stay in memory for the life of the collector unless told otherwise
// (then only their message ids are kept, for the distinct count). Thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelora/core/events.hpp"
#include "pelora/core/json.hpp"
#include "tools/collector/https_server.hpp"

namespace pelora::collector {

struct CollectorOptions {
  int port = 0;  // 0: any free port
  Certificates certificates = Certificates::builtIn();
  std::string jsonLinesFile;  // when set, every accepted body is appended as one JSON line
  bool printLines = false;    // one line per request on standard output
  bool keepEvents = true;     // keep what events() and trackingEvents() return
};

class Collector {
 public:
  static constexpr std::string_view batchPath = "/tracking-controller/b";
  static constexpr std::string_view trackingEventPath = "/";

  // Listening when it returns; throws std::runtime_error when the port or files are unusable.
  explicit Collector(CollectorOptions options = {});
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  int port() const noexcept { return server_.port(); }
  const Certificates& certificates() const noexcept { return server_.certificates(); }
  // A connect-to entry that sends `host`:`hostPort` here.
  std::string connectTo(std::string_view host, int hostPort = 443) const {
    return server_.connectTo(host, hostPort);
  }

  // Answers the next `count` requests with `status`, keeping nothing of them.
  void failNext(int status, int count);
  // Answers every request with `status` until `duration` has passed.
  void failFor(int status, std::chrono::milliseconds duration);
  // Back to answering normally.
  void recover();
  // Holds every answer back this long, like a slow service.
  void delayAnswers(std::chrono::milliseconds delay);

  struct Counts {
    std::size_t batches = 0;         // accepted batch uploads
    std::size_t events = 0;          // events in accepted batches, resent ones included
    std::size_t distinctEvents = 0;  // by message id
    std::size_t trackingEvents = 0;  // accepted tracking-event posts
    std::size_t failed = 0;          // answered with the failure status
    std::size_t rejected = 0;        // malformed, answered 400
  };
  Counts counts() const;
  // The events of every accepted batch in arrival order (a resent batch's events appear again).
  std::vector<TrackEvent> events() const;
  // The accepted tracking-event bodies in arrival order.
  std::vector<JSON> trackingEvents() const;
  // True once `count` distinct events have arrived in batches; false when `timeout` passes first.
  bool waitForDistinctEvents(std::size_t count, std::chrono::milliseconds timeout) const;
  // "N batches, N events (N distinct), N tracking events, N failed, N rejected".
  std::string summary() const;

  // Stops listening and joins the server's threads; later requests are refused.
  void stop() { server_.stop(); }

 private:
  struct State;
  std::shared_ptr<State> state_;
  HttpsServer server_;  // last: stopped before the state its handlers use goes away
};

}  // namespace pelora::collector
