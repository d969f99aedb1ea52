// Start-up recovery from whatever an earlier run (or anything else) left: unfinished and finished
// batch files with fuzzed names and contents, torn copies of real batches, and a fuzzed suite
// holding the index; some of them are links to files outside, or dangling ones. After a storage
// starts there, takes one event and lists its batches: a valid finished batch that was there is
// listed and unchanged; every batch that recovery or finishing produced is strict JSON; every whole
// event of a torn real batch is still there; the new event is in exactly one batch; and no link is
// listed or followed (its target is unchanged, a dangling one's is never created).
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "pelora/state/storage.hpp"
#include "tests/fuzz/fuzz_support.hpp"

namespace {

using namespace pelora;
namespace fs = std::filesystem;

const std::string kKey = "fuzz-key";
const std::string kKept = "99999-pelora-events.temp";

TrackEvent event(const std::string& id) {
  TrackEvent e("Fuzzed", JSON(JSON::Map{{"id", JSON(id)}, {"text", JSON("Tự \" \\ \x1B")}}));
  e.messageId = id;
  return e;
}

std::string read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

const fs::path& root() {
  static const fs::path path = [] {
    // tmpfs when there is one: every batch write is synced.
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    return base / ("pelora-recovery-fuzz-" + std::to_string(::getpid()));
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  fs::remove_all(root());
  const platform::Paths paths{root() / "Documents", root() / "config"};
  const fs::path directory = paths.documents / "pelora" / kKey;
  const fs::path outside = root() / "outside";
  fs::create_directories(directory);
  fs::create_directories(outside);
  fs::create_directories(paths.preferences / "pelora");

  // The index, as a suite file: a fuzzed number or fuzzed bytes.
  {
    std::ofstream suite(paths.preferences / "pelora" / ("com.pelora.storage." + kKey + ".json"));
    if (input.ConsumeBool()) {
      suite << R"({"pelora.events":)" << input.ConsumeRandomLengthString(24) << "}";
    } else {
      suite << input.ConsumeRandomLengthString(64);
    }
  }
  const std::string kept = "{ \"batch\": [" + toString(event("kept")) +
                           R"(],"sentAt":"2024-05-01T08:09:10.123Z","writeKey":"fuzz-key"})";
  std::ofstream(directory / kKept, std::ios::binary) << kept;

  std::set<std::string> leftTemp = {kKept};  // finished files not of recovery's making
  std::set<std::string> wholeEvents;         // events that must survive recovery
  std::map<fs::path, std::optional<std::string>> targets;  // of links: content, or none (dangling)
  const int files = input.ConsumeIntegralInRange(0, 4);
  for (int f = 0; f < files; ++f) {
    const auto index = input.ConsumeBool() ? input.ConsumeIntegralInRange<std::uint64_t>(0, 6)
                                           : input.ConsumeIntegral<std::uint64_t>();
    if (index == 99999) continue;
    const bool finished = input.ConsumeBool();
    const std::string name = std::to_string(index) + "-pelora-events" + (finished ? ".temp" : "");
    std::string content;
    std::set<std::string> whole;
    if (input.ConsumeBool()) {
      content = input.ConsumeRandomLengthString(512);
    } else {
      // A real batch, torn at some byte, perhaps followed by fuzzed bytes.
      content = "{ \"batch\": [";
      const int events = input.ConsumeIntegralInRange(0, 4);
      std::vector<std::pair<std::size_t, std::string>> ends;
      for (int e = 0; e < events; ++e) {
        const std::string id = std::to_string(f) + "-" + std::to_string(e);
        content += (e ? "," : "") + toString(event(id));
        ends.emplace_back(content.size(), id);
      }
      if (input.ConsumeBool())
        content += R"(],"sentAt":"2024-05-01T08:09:10.123Z","writeKey":"k"})";
      content.resize(input.ConsumeIntegralInRange<std::size_t>(0, content.size()));
      for (const auto& [end, id] : ends) {
        if (end <= content.size()) whole.insert(id);
      }
      content += input.ConsumeRandomLengthString(32);
    }
    if (fs::exists(fs::symlink_status(directory / name))) continue;
    const int kind = input.ConsumeIntegralInRange(0, 3);  // 2: a link to a file, 3: a dangling one
    if (kind >= 2) {
      const fs::path target = outside / std::to_string(f);
      if (kind == 2) std::ofstream(target, std::ios::binary) << content;
      targets.emplace(target, kind == 2 ? std::optional(content) : std::nullopt);
      fs::create_symlink(target, directory / name);
      continue;
    }
    std::ofstream(directory / name, std::ios::binary) << content;
    if (finished) {
      leftTemp.insert(name);
    } else {
      wholeEvents.insert(whole.begin(), whole.end());
    }
  }

  std::vector<fs::path> listed;
  {
    auto storage = Storage::create(nullptr, kKey, paths);
    storage->write(Storage::Key::events, event("new"));
    listed = storage->finishAndList();
  }

  PELORA_FUZZ_CHECK(read(directory / kKept) == kept, "the valid finished batch changed");
  for (const auto& [target, content] : targets) {
    PELORA_FUZZ_CHECK(content ? read(target) == *content : !fs::exists(target),
                      "a link was followed: " + target.filename().string());
  }
  std::map<std::string, int> found;
  bool keptListed = false;
  for (const auto& file : listed) {
    const std::string name = file.filename().string();
    PELORA_FUZZ_CHECK(!fs::is_symlink(file), "a link is listed for upload: " + name);
    if (name == kKept) keptListed = true;
    if (leftTemp.count(name)) continue;
    const JSON batch = fuzz::readBackWritten(read(file));
    const JSON events = batch["batch"].value_or(JSON::List{});
    for (const auto& e : *events.listPointer()) {
      if (auto id = e.value<std::string>("messageId")) ++found[*id];
    }
  }
  PELORA_FUZZ_CHECK(keptListed, "the valid finished batch is not listed");
  PELORA_FUZZ_CHECK(found["new"] == 1, "the new event is not in exactly one batch");
  for (const auto& id : wholeEvents) {
    PELORA_FUZZ_CHECK(found[id] >= 1, "a whole event of a torn batch was lost: " + id);
  }
  return 0;
}
