#include "pelora/state/batch_format.hpp"

#include <charconv>
#include <system_error>

#include "pelora/core/json.hpp"
#include "pelora/core/rapidjson_internal.hpp"

namespace pelora::detail {
namespace {

// Walks a batch file's text with RapidJSON's iterative SAX reader (no depth of nesting can exhaust
// the stack): the batch object, its array of events, each event checked as a whole by the strict
// reader, then the closing keys. Stops at the first thing that a finished batch could not hold.
class BatchScanner : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, BatchScanner> {
 public:
  BatchScanner(std::string_view text, bool withSpans, bool checkEvents)
      : text_(text),
        stream_(text.data(), text.size()),
        withSpans_(withSpans),
        checkEvents_(checkEvents) {}

  BatchScan scan() {
    BatchScan result;
    if (text_.size() < kBatchHeader.size()) {
      result.kind =
          kBatchHeader.starts_with(text_) ? BatchScan::Kind::headerOnly : BatchScan::Kind::foreign;
      return result;
    }
    if (!text_.starts_with(kBatchHeader)) return result;
    rapidjson::Reader reader;
    constexpr unsigned flags = rapidjson::kParseIterativeFlag |
                               rapidjson::kParseValidateEncodingFlag |
                               rapidjson::kParseNumbersAsStringsFlag;
    // RapidJSON takes a NUL byte for the end of its input: whatever follows must be checked too.
    const bool parsed =
        !reader.Parse<flags>(stream_, *this).IsError() && stream_.Tell() == text_.size();
    result.hasEvents = events_ > 0;
    result.eventCount = events_;
    result.eventSpans = std::move(spans_);
    result.kind = parsed && phase_ == Phase::done ? BatchScan::Kind::closed : BatchScan::Kind::open;
    result.keep = keep_;
    return result;
  }

  // The reader calls these with the stream at the token's first byte.
  bool Null() { return scalar(); }
  bool Bool(bool) { return scalar(); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return scalar(); }
  bool String(const char*, rapidjson::SizeType, bool) {
    if (phase_ == Phase::sentAtValue) return advance(Phase::sentAtValue, Phase::writeKey);
    if (phase_ == Phase::writeKeyValue) return advance(Phase::writeKeyValue, Phase::end);
    return scalar();
  }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    if (depth_ > 1) return true;
    const std::string_view key(text, length);
    if (key == "batch") return advance(Phase::start, Phase::array);
    if (key == "sentAt") return advance(Phase::sentAt, Phase::sentAtValue);
    if (key == "writeKey") return advance(Phase::writeKey, Phase::writeKeyValue);
    return false;
  }
  bool StartObject() {
    if (depth_ == 0) return ++depth_ == 1;
    if (depth_ == 2) eventStart_ = stream_.Tell();
    return open();
  }
  bool EndObject(rapidjson::SizeType) {
    --depth_;
    if (depth_ == 0) return advance(Phase::end, Phase::done);
    if (depth_ == 2) return endEvent(stream_.Tell() + 1);
    return true;
  }
  bool StartArray() {
    if (depth_ == 1) {
      if (!advance(Phase::array, Phase::events)) return false;
      keep_ = kBatchHeader.size();
      ++depth_;
      return true;
    }
    return open();
  }
  bool EndArray(rapidjson::SizeType) {
    --depth_;
    if (depth_ == 1) return advance(Phase::events, Phase::sentAt);
    return true;
  }

 private:
  enum class Phase {
    start,
    array,
    events,
    sentAt,
    sentAtValue,
    writeKey,
    writeKeyValue,
    end,
    done
  };

  bool advance(Phase from, Phase to) {
    if (phase_ != from) return false;
    phase_ = to;
    return true;
  }
  // Only events (objects) sit in the batch array.
  bool scalar() const { return depth_ > 2; }
  bool open() {
    if (depth_ < 2 || depth_ >= JSON::maxNestingDepth) return false;
    ++depth_;
    return true;
  }
  // An event is whole when the strict reader takes it: the service reads batches the same way.
  bool endEvent(std::size_t end) {
    try {
      if (checkEvents_) (void)JSON::parse(text_.substr(eventStart_, end - eventStart_));
    } catch (const DecodingError&) {
      return false;  // anything else (out of memory) must not pass for a torn event
    }
    keep_ = end;
    ++events_;
    if (withSpans_) spans_.emplace_back(eventStart_, end);
    return true;
  }

  std::string_view text_;
  rapidjson::MemoryStream stream_;
  Phase phase_ = Phase::start;
  int depth_ = 0;
  std::size_t eventStart_ = 0;
  std::size_t keep_ = 0;
  std::size_t events_ = 0;
  bool withSpans_ = false;
  bool checkEvents_ = true;
  std::vector<std::pair<std::size_t, std::size_t>> spans_;
};

}  // namespace

std::string eventsFileName(std::uint64_t index) {
  return std::to_string(index).append(kFileSuffix);
}

std::optional<EventsFileName> parseEventsFileName(std::string_view name) {
  const bool finished = name.ends_with(kTempExtension);
  if (finished) name.remove_suffix(kTempExtension.size());
  if (!name.ends_with(kFileSuffix)) return std::nullopt;
  name.remove_suffix(kFileSuffix.size());
  std::uint64_t index = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
  if (name.empty() || error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return EventsFileName{index, finished};
}

BatchScan scanBatch(std::string_view text, bool withSpans, bool checkEvents) {
  return BatchScanner(text, withSpans, checkEvents).scan();
}

}  // namespace pelora::detail
