// Collector: the tracking service's two endpoints and the in-app message service on a local HTTPS
// server (127.0.0.1 only), for the demo and the integration tests. A batch upload
// ("/tracking-controller/b") or a tracking-event post ("/") of the shape the library sends is
// answered 200 and kept; anything else is answered 400 and dropped. A message pull
// ("GET /push/push/pull/<workspace>/<user>/") is held until a message is queued for the workspace
// or the hold time ends (then its "code" is not "OK"); messages are queued from the options, by
// queueInAppMessage or by "POST /iam/messages[?workspace=W]" with an IAMData object as the body;
// the open notifications ("GET /iam/opened/...", where the demo's messages point actionOpen) are
// recorded. While told to fail, every tracking request (pulls: see failPulls) is answered with the
// given status and nothing is kept. It can also answer as a busy or strict service does: a list of
// statuses in turn, a status for batches of more than so many events (413), a status for every
// batch of one write key (401, 403), each with a Retry-After header if asked. A request turned away
// on purpose is counted as failed, by status. Accepted events stay in memory for the life of the
// collector unless told otherwise (then only their message ids are kept, for the distinct count).
// Thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
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
  // When set, strings longer than this in those lines are cut (at a character boundary) and
  // marked with their length: a long run of big events would otherwise fill the disk.
  std::size_t jsonLinesMaxString = 0;
  bool printLines = false;  // one line per request on standard output
  bool keepEvents = true;   // keep what events() and trackingEvents() return
  // In-app messages queued at start, for any workspace: the JSON text of an IAMData each.
  std::vector<std::string> inAppMessages;
  // How long a pull is held when no message is queued.
  std::chrono::milliseconds inAppMessageHold{std::chrono::seconds(25)};
};

class Collector {
 public:
  static constexpr std::string_view batchPath = "/tracking-controller/b";
  static constexpr std::string_view trackingEventPath = "/";
  static constexpr std::string_view pullPath = "/push/push/pull/";
  static constexpr std::string_view messagesPath = "/iam/messages";
  static constexpr std::string_view openedPath = "/iam/opened/";

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

  // Answers the next `count` tracking requests with `status`, keeping nothing of them.
  void failNext(int status, int count);
  // Answers the next `count` message pulls with `status` at once.
  void failPulls(int status, int count);
  // Answers every tracking request with `status` until `duration` has passed.
  void failFor(int status, std::chrono::milliseconds duration);
  // Answers the next POSTs to the two tracking endpoints with `statuses`, one each in order, then
  // as usual. A 2xx entry lets its request through to the usual handling (the modes below
  // included); any other is the answer, and nothing is kept. Checked after failNext and failFor.
  void answerInTurn(std::vector<int> statuses);
  // Answers a well-formed batch of more than `events` events with `status` and keeps none of it;
  // 0 turns it off.
  void rejectBatchesLargerThan(std::size_t events, int status = 413);
  // Answers every well-formed batch whose "writeKey" is `key` with `status` and keeps none of it;
  // before the size check. One status per key; any number of keys.
  void refuseWriteKey(std::string key, int status);
  // The exact text of a Retry-After header ("3", an HTTP date) on every answer turned away by the
  // modes above, failNext and failFor (not failPulls); empty: none. Throws std::invalid_argument
  // on a line break.
  void retryAfter(std::string value);
  // Back to answering normally: the modes above, failNext and failFor end and Retry-After goes.
  // Pulls (failPulls) and delayAnswers are left as they are.
  void recover();
  // Holds every answer back this long, like a slow service.
  void delayAnswers(std::chrono::milliseconds delay);
  // Queues an in-app message (the JSON text of an IAMData) for `workspace` (empty: any); throws
  // std::invalid_argument when it is not one.
  void queueInAppMessage(const std::string& data, const std::string& workspace = {});
  // How long a pull without a message is held.
  void holdPulls(std::chrono::milliseconds hold);

  struct Counts {
    std::size_t batches = 0;         // accepted batch uploads
    std::size_t events = 0;          // events in accepted batches, resent ones included
    std::size_t distinctEvents = 0;  // by message id
    std::size_t trackingEvents = 0;  // accepted tracking-event posts
    std::size_t failed = 0;          // turned away on purpose, pulls included
    std::size_t rejected = 0;        // malformed, answered 400
    std::size_t unrecorded = 0;      // not written to the JSON-lines file (full disk), answered 507
    std::size_t pulls = 0;           // in-app message pulls answered (or being held)
    std::size_t inAppMessages = 0;   // messages handed out by pulls
    std::size_t opened = 0;          // open notifications
    std::map<int, std::size_t> failedByStatus;  // `failed`, by the status answered
    // Of the accepted batches: their JSON text, what came over the connection for them (TLS and
    // header included) and how many came gzip-compressed.
    std::uint64_t batchBytes = 0;
    std::uint64_t batchBytesReceived = 0;
    std::size_t compressedBatches = 0;
  };
  Counts counts() const;
  // The events of every accepted batch in arrival order (a resent batch's events appear again).
  std::vector<TrackEvent> events() const;
  // The accepted tracking-event bodies in arrival order.
  std::vector<JSON> trackingEvents() const;
  // True once `count` distinct events have arrived in batches; false when `timeout` passes first.
  bool waitForDistinctEvents(std::size_t count, std::chrono::milliseconds timeout) const;
  // True once `condition` holds for the counts; false when `timeout` passes first.
  bool waitFor(const std::function<bool(const Counts&)>& condition,
               std::chrono::milliseconds timeout) const;
  // The request targets of the open notifications, in arrival order.
  std::vector<std::string> openNotifications() const;
  // The paths of the pulls (workspace and user), in arrival order.
  std::vector<std::string> pullPaths() const;
  // "N batches, N events (N distinct), N tracking events, N failed (N with S, ...), N rejected",
  // and the pulls, in-app messages and open notifications when there were any.
  std::string summary() const;
  // "batch bytes: N as JSON, N received, N of N batches gzip-compressed".
  std::string byteSummary() const;

  // Ends held pulls, stops listening and joins the server's threads; later requests are refused.
  void stop();

 private:
  struct State;
  std::shared_ptr<State> state_;
  HttpsServer server_;  // last: stopped before the state its handlers use goes away
};

}  // namespace pelora::collector
