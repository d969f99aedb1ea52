// A user-defaults suite: string keys to JSON values, kept as one JSON object in
// <preferences>/pelora/<name>.json, read when opened and replaced atomically on synchronize.
// Several suites of one name (two clients, two processes) may write at once: synchronize merges
// this suite's own changes into what the file holds by then, under an exclusive lock, so that
// none undoes another's. Not thread-safe: its owner confines it to one queue (Storage keeps its
// suite on its own queue).
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "pelora/core/json.hpp"
#include "pelora/platform/private_files.hpp"

namespace pelora::platform {

namespace detail {
// Which file, at which change: equal stamps mean the same content (a write replaces the file).
struct FileStamp {
  std::uint64_t device = 0, inode = 0;
  std::int64_t size = 0, modifiedNs = 0, changedNs = 0;
  bool operator==(const FileStamp&) const = default;
};
}  // namespace detail

class UserDefaults {
 public:
  // The suite `name` under `preferences`. Nothing when `name` cannot be a single file name
  // (empty, ".", "..", or holding "/" or NUL). A missing, unreadable or corrupt file opens empty.
  static std::optional<UserDefaults> open(const std::filesystem::path& preferences,
                                          std::string_view name);

  // The value stored under `key`, or nothing.
  std::optional<JSON> get(std::string_view key) const;
  // Stores `value` under `key` in memory; synchronize() writes it out.
  void set(std::string_view key, JSON value);
  // Forgets `key` (a missing key is fine).
  void remove(std::string_view key);

  // Writes the changes made since the last successful write into the file (temp file, fsync,
  // rename, fsync of the directory), over what other writers stored meanwhile, and reads their
  // values back. False when writing failed: the changes stay pending and the next call tries again.
  bool synchronize() noexcept;
  // Reads what other writers stored since (changes not yet written stay on top); costs a stat()
  // when the file has not changed since it was last read. False when the file cannot be read.
  bool reload() noexcept;

  // Where the suite lives.
  const std::filesystem::path& file() const noexcept { return file_; }

 private:
  UserDefaults(std::filesystem::path preferences, std::filesystem::path file)
      : preferences_(std::move(preferences)), file_(std::move(file)) {}

  std::filesystem::path preferences_;
  std::filesystem::path file_;
  JSON::Map values_;
  std::optional<detail::FileStamp> readStamp_;  // of the file values_ was last read from
  // That file, held open: its inode cannot be handed to a later file while we compare stamps.
  UniqueFd readFile_;
  // Changes not yet written: a value, or nothing for a removal.
  std::map<std::string, std::optional<JSON>, std::less<>> pending_;
  bool sweptLeftovers_ = false;  // killed writers' temporary files, once per suite
};

}  // namespace pelora::platform
