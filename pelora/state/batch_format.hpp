// What batch files are called and what they hold: the names of open and finished batches, the
// fixed pieces of their text, and the scan that tells recovery how much of an unfinished batch is
// whole. Pure functions, safe on any thread; Storage's batch writer and its recovery use them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelora::detail {

// Names: an open batch is "<n>-pelora-events", a finished one the same with ".temp", and a file
// named like a batch that is none (a stranger's) is set aside with ".unreadable".
inline constexpr std::string_view kFileSuffix = "-pelora-events";
inline constexpr std::string_view kTempExtension = ".temp";
inline constexpr std::string_view kSetAsideExtension = ".unreadable";
// A batch is finished once it holds this many bytes, whatever the flushes do.
inline constexpr std::size_t kRollOverSize = 475'000;
// The hidden file whose flock is the right to upload a write key's batches.
inline constexpr std::string_view kUploadsLockName = ".uploads.lock";
// A finished batch that the service keeps refusing is kept as "<name>.refused", never sent again.
inline constexpr std::string_view kRefusedExtension = ".refused";
// The halves of a finished batch cut in two: "<name without .temp>.s0.temp" and ".s1.temp", which
// sort where it did.
inline constexpr std::string_view kFirstHalfInfix = ".s0";
inline constexpr std::string_view kSecondHalfInfix = ".s1";
// Text: a batch opens with the header, and finishing appends
// `],"sentAt":"<time>","writeKey":<key as a JSON string>}`.
inline constexpr std::string_view kBatchHeader = "{ \"batch\": [";
inline constexpr std::string_view kSentAtKey = "],\"sentAt\":\"";
inline constexpr std::string_view kWriteKeyKey = "\",\"writeKey\":";

// "<index>-pelora-events".
std::string eventsFileName(std::uint64_t index);

// "<n>-pelora-events" (open) or "<n>-pelora-events.temp" (finished).
struct EventsFileName {
  std::uint64_t index;
  bool finished;
};

// The batch that `name` names, or nothing for any other name.
std::optional<EventsFileName> parseEventsFileName(std::string_view name);

// What an unfinished batch file holds, for recovery: whole events (objects that the strict reader
// takes) up to `keep` bytes, perhaps followed by a torn event, or by closing text (then the batch
// was finished but not renamed).
struct BatchScan {
  enum class Kind {
    headerOnly,  // no more than a prefix of the header: the file holds no event
    open,        // header and whole events up to `keep`; anything after it is torn
    closed,      // a finished batch that parses as a whole
    foreign,     // does not start as a batch file does
  };
  Kind kind = Kind::foreign;
  std::size_t keep = 0;
  bool hasEvents = false;
  std::size_t eventCount = 0;  // whole events
  // Where each whole event's text begins and ends (one past its "}"), when asked for.
  std::vector<std::pair<std::size_t, std::size_t>> eventSpans;
};

// What `text`, the whole content of a batch file, holds; with `withSpans`, where its events are.
// Without `checkEvents` an event counts once its braces close, unread by the strict reader: for
// counting the events of a batch we wrote and are about to delete.
BatchScan scanBatch(std::string_view text, bool withSpans = false, bool checkEvents = true);

// A 64-bit FNV-1a hash of `bytes`: stable across runs and builds, for names made from write keys
// and directories that are too long (or too revealing) to be file names themselves.
inline std::uint64_t fnv1a(std::string_view bytes) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3ull;
  return hash;
}

}  // namespace pelora::detail
