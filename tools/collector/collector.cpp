#include "tools/collector/collector.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "pelora/messages/iam_records.hpp"
#include "pelora/platform/clock.hpp"
#include "pelora/platform/console.hpp"

namespace pelora::collector {
namespace {

using Clock = std::chrono::steady_clock;

ScriptedResponse answer(int status, const std::string& message) {
  ScriptedResponse response;
  response.status = status;
  response.body = JSON(JSON::Map{{status < 300 ? "status" : "error", message}}).toString();
  return response;
}

// Why `body` is not an object holding `key` of kind `kind`, or nothing when it is.
std::optional<std::string> missing(const JSON::Map& body, const char* key, JSON::Kind kind,
                                   const char* what) {
  auto it = body.find(key);
  if (it == body.end()) return std::string("\"") + key + "\" is missing";
  if (it->second.kind() != kind) return std::string("\"") + key + "\" is not " + what;
  return std::nullopt;
}

// The shared checks of both endpoints: method, content type and a JSON object body.
std::optional<std::string> bodyProblem(const RecordedRequest& request, JSON& parsed) {
  if (request.method != "POST") return "expected POST, got " + request.method;
  auto contentType = request.header("Content-Type").value_or("");
  if (contentType.rfind("application/json", 0) != 0) {
    return "Content-Type is \"" + contentType + "\", not application/json";
  }
  try {
    parsed = JSON::parse(request.body);
  } catch (const std::exception& error) {
    return std::string("body is not JSON: ") + error.what();
  }
  if (!parsed.mapPointer()) return "body is not a JSON object";
  return std::nullopt;
}

std::optional<std::string> batchProblem(const JSON& parsed, std::vector<TrackEvent>& events) {
  const auto& body = *parsed.mapPointer();
  if (auto problem = missing(body, "batch", JSON::Kind::array, "an array")) return problem;
  if (auto problem = missing(body, "sentAt", JSON::Kind::string, "a string")) return problem;
  if (auto problem = missing(body, "writeKey", JSON::Kind::string, "a string")) return problem;
  const auto& batch = *body.at("batch").listPointer();
  if (batch.empty()) return std::string("\"batch\" is empty");
  for (std::size_t i = 0; i < batch.size(); ++i) {
    const std::string where = "batch[" + std::to_string(i) + "]: ";
    TrackEvent event;
    try {
      event = decodeValue<TrackEvent>(batch[i]);
    } catch (const std::exception& error) {
      return where + error.what();
    }
    if (event.type != "track") return where + "\"type\" is not \"track\"";
    if (!event.messageId || !event.timestamp || !event.anonymousId) {
      return where + "\"messageId\", \"timestamp\" and \"anonymousId\" are required";
    }
    events.push_back(std::move(event));
  }
  return std::nullopt;
}

std::optional<std::string> trackingEventProblem(const JSON& parsed) {
  const auto& body = *parsed.mapPointer();
  for (auto [key, kind, what] : {std::tuple{"workspace_id", JSON::Kind::string, "a string"},
                                 std::tuple{"identity_id", JSON::Kind::object, "an object"},
                                 std::tuple{"event_name", JSON::Kind::string, "a string"},
                                 std::tuple{"event_date", JSON::Kind::number, "a number"},
                                 std::tuple{"profile", JSON::Kind::array, "an array"}}) {
    if (auto problem = missing(body, key, kind, what)) return problem;
  }
  if (!body.count("eventData")) return std::string("\"eventData\" is missing");
  auto date = body.at("event_date").decimalValue();
  if (!date || !date->isInteger()) {
    return std::string("\"event_date\" is not whole milliseconds");
  }
  return std::nullopt;
}

// "App Opened, Product Viewed x8": the names in order of first appearance, with their counts.
std::string eventNames(const std::vector<TrackEvent>& events) {
  std::vector<std::pair<std::string, int>> names;
  for (const auto& event : events) {
    auto it = std::find_if(names.begin(), names.end(),
                           [&](const auto& entry) { return entry.first == event.event; });
    if (it == names.end()) {
      names.emplace_back(event.event, 1);
    } else {
      ++it->second;
    }
  }
  std::string text;
  for (const auto& [name, count] : names) {
    if (!text.empty()) text += ", ";
    text += name;
    if (count > 1) text += " x" + std::to_string(count);
  }
  return text;
}

// The JSON text of an IAMData, checked with the library's own decoding.
std::string checkedInAppMessage(const std::string& data) {
  try {
    (void)decodeFromString<IAMData>(data);
  } catch (const std::exception& error) {
    throw std::invalid_argument(std::string("not an in-app message (IAMData): ") + error.what());
  }
  return data;
}

// `value` with every string longer than `limit` bytes cut to at most `limit` bytes, never inside
// a UTF-8 sequence, followed by "...(<length> bytes)".
JSON shortened(const JSON& value, std::size_t limit) {
  if (const auto* text = value.stringPointer()) {
    if (text->size() <= limit) return value;
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>((*text)[cut]) & 0xC0) == 0x80) --cut;
    return JSON(text->substr(0, cut) + "...(" + std::to_string(text->size()) + " bytes)");
  }
  if (const auto* list = value.listPointer()) {
    JSON::List result;
    result.reserve(list->size());
    for (const auto& element : *list) result.push_back(shortened(element, limit));
    return JSON(std::move(result));
  }
  if (const auto* map = value.mapPointer()) {
    JSON::Map result;
    for (const auto& [key, element] : *map) result.emplace(key, shortened(element, limit));
    return JSON(std::move(result));
  }
  return value;
}

// The workspace of "/push/push/pull/<workspace>/<user>/".
std::string workspaceOf(std::string_view path) {
  path.remove_prefix(Collector::pullPath.size());
  return std::string(path.substr(0, path.find('/')));
}

struct Message {
  std::string workspace;  // empty: any
  std::string data;
};

}  // namespace

struct Collector::State {
  explicit State(CollectorOptions options)
      : options(std::move(options)), hold(this->options.inAppMessageHold) {
    for (const auto& data : this->options.inAppMessages) {
      messages.push_back({{}, checkedInAppMessage(data)});
    }
  }

  ScriptedResponse handle(const RecordedRequest& request);
  ScriptedResponse answerFor(const RecordedRequest& request);
  std::optional<ScriptedResponse> refusal(const JSON& body, std::size_t size,
                                          const std::string& what);
  ScriptedResponse acceptBatch(const RecordedRequest& request, const JSON& body,
                               const std::vector<TrackEvent>& received);
  ScriptedResponse acceptTrackingEvent(const JSON& body);
  ScriptedResponse pull(const RecordedRequest& request);
  ScriptedResponse queueMessage(const RecordedRequest& request);
  ScriptedResponse opened(const RecordedRequest& request);
  void print(const std::string& line) const {
    if (options.printLines) platform::printLine(line, LogLevel::info);
  }
  // Under `mutex`. False when the line could not be written (nothing of it is left in the file).
  bool appendJSONLine(const char* kind, const JSON& body);
  // Under `mutex`: a body that could not be written down (a full disk) is not taken, so that the
  // sender keeps it.
  ScriptedResponse notRecorded() {
    ++counts.unrecorded;
    return answer(507, "cannot record it");
  }
  // Under `mutex`: a request turned away on purpose, nothing of it kept.
  ScriptedResponse turnedAway(int status, const std::string& what, const std::string& why) {
    ++counts.failed;
    ++counts.failedByStatus[status];
    changed.notify_all();
    print("answered " + std::to_string(status) + " to " + what + " (" + why + ")");
    ScriptedResponse response = answer(status, "failing on purpose");
    if (!retryAfter.empty()) response.headers.emplace_back("Retry-After", retryAfter);
    return response;
  }

  const CollectorOptions options;
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  int failStatus = 0;
  int failRemaining = 0;
  Clock::time_point failUntil{};
  std::deque<int> inTurn;
  std::size_t maxBatchEvents = 0;  // 0: any size
  int largeBatchStatus = 413;
  std::map<std::string, int, std::less<>> refusedKeys;
  std::string retryAfter;
  std::chrono::milliseconds delay{0};
  Counts counts;
  std::vector<TrackEvent> events;
  std::set<std::string, std::less<>> messageIds;
  std::vector<JSON> trackingEvents;
  std::chrono::milliseconds hold;
  std::deque<Message> messages;
  std::vector<std::string> openTargets;
  std::vector<std::string> pulls;
  bool stopping = false;
  int failPullsStatus = 0;
  int failPullsRemaining = 0;
};

ScriptedResponse Collector::State::handle(const RecordedRequest& request) {
  ScriptedResponse response = answerFor(request);
  std::lock_guard lock(mutex);
  response.delay = delay;
  return response;
}

ScriptedResponse Collector::State::answerFor(const RecordedRequest& request) {
  const std::string what = request.method + " " + request.target;
  if (request.method == "GET" && request.path.starts_with(pullPath)) {
    {
      std::lock_guard lock(mutex);
      if (failPullsRemaining > 0) {
        --failPullsRemaining;
        ++counts.pulls;
        ++counts.failed;
        ++counts.failedByStatus[failPullsStatus];
        pulls.push_back(request.path.substr(pullPath.size()));
        changed.notify_all();
        print("answered " + std::to_string(failPullsStatus) + " to " + what + " (told to fail)");
        return answer(failPullsStatus, "failing on purpose");
      }
    }
    return pull(request);
  }
  if (request.method == "GET" && request.path.starts_with(openedPath)) return opened(request);
  if (request.method == "POST" && request.path == messagesPath) return queueMessage(request);
  {
    std::lock_guard lock(mutex);
    if (failRemaining > 0 || Clock::now() < failUntil) {
      if (failRemaining > 0) --failRemaining;
      return turnedAway(failStatus, what, "told to fail");
    }
    const bool tracking = request.method == "POST" &&
                          (request.path == batchPath || request.path == trackingEventPath);
    if (tracking && !inTurn.empty()) {
      const int status = inTurn.front();
      inTurn.pop_front();
      if (status < 200 || status > 299) return turnedAway(status, what, "its turn");
    }
  }
  const bool isBatch = request.path == batchPath;
  if (!isBatch && request.path != trackingEventPath) {
    print("answered 404 to " + what);
    return answer(404, "no such endpoint");
  }
  JSON body;
  std::vector<TrackEvent> received;
  auto problem = bodyProblem(request, body);
  if (!problem) problem = isBatch ? batchProblem(body, received) : trackingEventProblem(body);
  if (!problem && isBatch) {
    std::lock_guard lock(mutex);
    if (auto refused = refusal(body, received.size(), what)) return *refused;
  }
  if (!problem) return isBatch ? acceptBatch(request, body, received) : acceptTrackingEvent(body);
  {
    std::lock_guard lock(mutex);
    ++counts.rejected;
  }
  print("rejected " + what + ": " + *problem);
  return answer(400, *problem);
}

// Under `mutex`: the answer to a well-formed batch that its key or its size turns away.
std::optional<ScriptedResponse> Collector::State::refusal(const JSON& body, std::size_t size,
                                                          const std::string& what) {
  const auto& key = *body.mapPointer()->at("writeKey").stringPointer();
  if (const auto it = refusedKeys.find(key); it != refusedKeys.end()) {
    return turnedAway(it->second, what, "writeKey " + key + " refused");
  }
  if (maxBatchEvents > 0 && size > maxBatchEvents) {
    return turnedAway(
        largeBatchStatus, what,
        std::to_string(size) + " events, more than " + std::to_string(maxBatchEvents));
  }
  return std::nullopt;
}

ScriptedResponse Collector::State::acceptBatch(const RecordedRequest& request, const JSON& body,
                                               const std::vector<TrackEvent>& received) {
  const bool compressed = request.header("Content-Encoding").value_or("") == "gzip";
  std::size_t seenBefore = 0;
  std::size_t number = 0;
  {
    std::lock_guard lock(mutex);
    // Written down first: what could not be recorded is not acknowledged, so it is sent again.
    if (!appendJSONLine("batch", body)) return notRecorded();
    for (const auto& event : received) {
      if (!messageIds.insert(*event.messageId).second) ++seenBefore;
    }
    counts.events += received.size();
    counts.distinctEvents = messageIds.size();
    number = ++counts.batches;
    counts.batchBytes += request.body.size();
    counts.batchBytesReceived += request.receivedBytes;
    if (compressed) ++counts.compressedBatches;
    if (options.keepEvents) events.insert(events.end(), received.begin(), received.end());
    changed.notify_all();
  }
  const auto& map = *body.mapPointer();
  print("batch " + std::to_string(number) + ": " + std::to_string(received.size()) + " events" +
        (compressed ? " (gzip)" : "") + ", writeKey " + *map.at("writeKey").stringPointer() +
        ", sentAt " + *map.at("sentAt").stringPointer() + ": " + eventNames(received) +
        (seenBefore ? " (" + std::to_string(seenBefore) + " received before)" : ""));
  return answer(200, "stored");
}

ScriptedResponse Collector::State::acceptTrackingEvent(const JSON& body) {
  std::size_t number = 0;
  {
    std::lock_guard lock(mutex);
    if (!appendJSONLine("trackingEvent", body)) return notRecorded();
    number = ++counts.trackingEvents;
    if (options.keepEvents) trackingEvents.push_back(body);
    changed.notify_all();
  }
  const auto& map = *body.mapPointer();
  print("tracking event " + std::to_string(number) + ": \"" +
        *map.at("event_name").stringPointer() + "\", workspace " +
        *map.at("workspace_id").stringPointer() + ", identity " + map.at("identity_id").toString());
  return answer(200, "stored");
}

ScriptedResponse Collector::State::pull(const RecordedRequest& request) {
  const std::string workspace = workspaceOf(request.path);
  std::unique_lock lock(mutex);
  const std::size_t number = ++counts.pulls;
  pulls.push_back(request.path.substr(pullPath.size()));
  changed.notify_all();
  auto queued = [&] {
    return std::find_if(messages.begin(), messages.end(), [&](const Message& message) {
      return message.workspace.empty() || message.workspace == workspace;
    });
  };
  changed.wait_for(lock, hold, [&] { return stopping || queued() != messages.end(); });
  const auto found = queued();
  if (found == messages.end()) {
    lock.unlock();
    print("pull " + std::to_string(number) + " for workspace " + workspace + ": no message");
    ScriptedResponse response;
    response.body = R"({"code":"EMPTY","message":"no message"})";
    return response;
  }
  const std::string data = found->data;
  messages.erase(found);
  ++counts.inAppMessages;
  appendJSONLine("inAppMessage", JSON::parse(data));
  changed.notify_all();
  lock.unlock();
  print("pull " + std::to_string(number) + " for workspace " + workspace + ": a message");
  ScriptedResponse response;
  response.body =
      JSON(JSON::Map{{"code", JSON("OK")}, {"message", JSON("delivered")}, {"data", JSON(data)}})
          .toString();
  return response;
}

ScriptedResponse Collector::State::queueMessage(const RecordedRequest& request) {
  std::string workspace;
  if (const auto at = request.target.find("workspace="); at != std::string::npos) {
    workspace = request.target.substr(at + 10);
    workspace = workspace.substr(0, workspace.find('&'));
  }
  try {
    Message message{workspace, checkedInAppMessage(request.body)};
    std::lock_guard lock(mutex);
    messages.push_back(std::move(message));
    changed.notify_all();
  } catch (const std::invalid_argument& error) {
    print("rejected POST " + request.target + ": " + error.what());
    return answer(400, error.what());
  }
  print("queued an in-app message" + (workspace.empty() ? "" : " for workspace " + workspace));
  return answer(200, "queued");
}

ScriptedResponse Collector::State::opened(const RecordedRequest& request) {
  {
    std::lock_guard lock(mutex);
    ++counts.opened;
    openTargets.push_back(request.target);
    appendJSONLine("opened", JSON(request.target));
    changed.notify_all();
  }
  print("open notification " + request.target);
  return answer(200, "opened");
}

bool Collector::State::appendJSONLine(const char* kind, const JSON& body) {
  if (options.jsonLinesFile.empty()) return true;
  std::error_code sizeError;
  const auto before = std::filesystem::file_size(options.jsonLinesFile, sizeError);
  std::ofstream file(options.jsonLinesFile, std::ios::app);
  const JSON recorded =
      options.jsonLinesMaxString > 0 ? shortened(body, options.jsonLinesMaxString) : body;
  file << JSON(
              JSON::Map{{"kind", kind}, {"receivedAt", platform::iso8601Now()}, {"body", recorded}})
              .toString()
       << '\n';
  file.close();
  if (file) return true;
  platform::printLine("collector: cannot append to " + options.jsonLinesFile, LogLevel::error);
  // Half a line would spoil the next one too.
  if (!sizeError) std::filesystem::resize_file(options.jsonLinesFile, before, sizeError);
  return false;
}

Collector::Collector(CollectorOptions options)
    : state_(std::make_shared<State>(std::move(options))),
      server_(state_->options.certificates, state_->options.port) {
  if (!state_->options.jsonLinesFile.empty()) {
    std::ofstream probe(state_->options.jsonLinesFile, std::ios::app);
    if (!probe) throw std::runtime_error("cannot open " + state_->options.jsonLinesFile);
  }
  server_.setKeepRequests(false);  // the state below keeps what is needed
  server_.setResponder([state = state_](const RecordedRequest& request) {
    return std::optional<ScriptedResponse>(state->handle(request));
  });
}

Collector::~Collector() {
  stop();
}

void Collector::stop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
  }
  server_.stop();
}

void Collector::queueInAppMessage(const std::string& data, const std::string& workspace) {
  Message message{workspace, checkedInAppMessage(data)};
  std::lock_guard lock(state_->mutex);
  state_->messages.push_back(std::move(message));
  state_->changed.notify_all();
}

void Collector::failPulls(int status, int count) {
  std::lock_guard lock(state_->mutex);
  state_->failPullsStatus = status;
  state_->failPullsRemaining = count;
}

void Collector::holdPulls(std::chrono::milliseconds hold) {
  std::lock_guard lock(state_->mutex);
  state_->hold = hold;
}

bool Collector::waitFor(const std::function<bool(const Counts&)>& condition,
                        std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return condition(state_->counts); });
}

std::vector<std::string> Collector::openNotifications() const {
  std::lock_guard lock(state_->mutex);
  return state_->openTargets;
}

std::vector<std::string> Collector::pullPaths() const {
  std::lock_guard lock(state_->mutex);
  return state_->pulls;
}

void Collector::failNext(int status, int count) {
  std::lock_guard lock(state_->mutex);
  state_->failStatus = status;
  state_->failRemaining = count;
}

void Collector::failFor(int status, std::chrono::milliseconds duration) {
  std::lock_guard lock(state_->mutex);
  state_->failStatus = status;
  state_->failUntil = Clock::now() + duration;
}

void Collector::answerInTurn(std::vector<int> statuses) {
  std::lock_guard lock(state_->mutex);
  state_->inTurn.assign(statuses.begin(), statuses.end());
}

void Collector::rejectBatchesLargerThan(std::size_t events, int status) {
  std::lock_guard lock(state_->mutex);
  state_->maxBatchEvents = events;
  state_->largeBatchStatus = status;
}

void Collector::refuseWriteKey(std::string key, int status) {
  std::lock_guard lock(state_->mutex);
  state_->refusedKeys[std::move(key)] = status;
}

void Collector::retryAfter(std::string value) {
  // A line break would end the header and start another.
  if (value.find_first_of("\r\n") != std::string::npos) {
    throw std::invalid_argument("a Retry-After value is one line");
  }
  std::lock_guard lock(state_->mutex);
  state_->retryAfter = std::move(value);
}

void Collector::recover() {
  std::lock_guard lock(state_->mutex);
  state_->failRemaining = 0;
  state_->failUntil = {};
  state_->inTurn.clear();
  state_->maxBatchEvents = 0;
  state_->refusedKeys.clear();
  state_->retryAfter.clear();
}

void Collector::delayAnswers(std::chrono::milliseconds delay) {
  std::lock_guard lock(state_->mutex);
  state_->delay = delay;
}

Collector::Counts Collector::counts() const {
  std::lock_guard lock(state_->mutex);
  return state_->counts;
}

std::vector<TrackEvent> Collector::events() const {
  std::lock_guard lock(state_->mutex);
  return state_->events;
}

std::vector<JSON> Collector::trackingEvents() const {
  std::lock_guard lock(state_->mutex);
  return state_->trackingEvents;
}

bool Collector::waitForDistinctEvents(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout,
                                  [&] { return state_->counts.distinctEvents >= count; });
}

std::string Collector::summary() const {
  auto c = counts();
  auto count = [](std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
  };
  std::string text = count(c.batches, "batch", "batches") + ", " +
                     count(c.events, "event", "events") + " (" + std::to_string(c.distinctEvents) +
                     " distinct), " + count(c.trackingEvents, "tracking event", "tracking events") +
                     ", " + std::to_string(c.failed) + " failed";
  if (!c.failedByStatus.empty()) {
    std::string byStatus;
    for (const auto& [status, n] : c.failedByStatus) {
      if (!byStatus.empty()) byStatus += ", ";
      byStatus += std::to_string(n) + " with " + std::to_string(status);
    }
    text += " (" + byStatus + ")";
  }
  text += ", " + std::to_string(c.rejected) + " rejected";
  if (c.pulls > 0 || c.opened > 0) {
    text += ", " + count(c.pulls, "in-app message pull", "in-app message pulls") + ", " +
            count(c.inAppMessages, "in-app message delivered", "in-app messages delivered") + ", " +
            count(c.opened, "open notification", "open notifications");
  }
  return text;
}

std::string Collector::byteSummary() const {
  const auto c = counts();
  return "batch bytes: " + std::to_string(c.batchBytes) + " as JSON, " +
         std::to_string(c.batchBytesReceived) + " received, " +
         std::to_string(c.compressedBatches) + " of " + std::to_string(c.batches) +
         " batches gzip-compressed";
}

}  // namespace pelora::collector
